/*
 * The scopes: the two ways to hold a passive lock, and the step that is taken back unless it is kept.
 */
#include <pthread.h>

#include <string>

#include <gtest/gtest.h>

#include "common/guards.h"

namespace {

// What another holder could get at this moment, asked without waiting and given back at once.
bool can_share(cl_plock_t &lock) KR_NO_THREAD_SAFETY_ANALYSIS {
    const bool is_free = pthread_rwlock_tryrdlock(&lock.lock) == 0;
    if (is_free) {
        pthread_rwlock_unlock(&lock.lock);
    }
    return is_free;
}
bool can_own(cl_plock_t &lock) KR_NO_THREAD_SAFETY_ANALYSIS {
    const bool is_free = pthread_rwlock_trywrlock(&lock.lock) == 0;
    if (is_free) {
        pthread_rwlock_unlock(&lock.lock);
    }
    return is_free;
}

class guards_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(cl_plock_init(&lock), cl_status_t{CL_SUCCESS});
    }
    void TearDown() override {
        EXPECT_TRUE(can_own(lock)) << "a guard did not release";
        cl_plock_destroy(&lock);
    }
    cl_plock_t lock{};
};

TEST_F(guards_test, shared_lets_readers_in_and_keeps_writers_out) {
    {
        const kr::plock_shared guard(lock);
        EXPECT_TRUE(can_share(lock));
        EXPECT_FALSE(can_own(lock));
    }
    EXPECT_TRUE(can_own(lock));
}

TEST_F(guards_test, exclusive_keeps_everybody_out) {
    {
        const kr::plock_exclusive guard(lock);
        EXPECT_FALSE(can_share(lock));
        EXPECT_FALSE(can_own(lock));
    }
    EXPECT_TRUE(can_own(lock));
}

TEST(undo_guard, undoes_at_the_end_of_the_scope) {
    int undone = 0;
    {
        kr::undo_guard undo([&]() noexcept { undone++; });
        EXPECT_EQ(undone, 0);
    }
    EXPECT_EQ(undone, 1);
}

TEST(undo_guard, keeps_what_is_kept) {
    int undone = 0;
    {
        kr::undo_guard undo([&]() noexcept { undone++; });
        undo.keep();
    }
    EXPECT_EQ(undone, 0);
}

TEST(undo_guard, undoes_in_reverse_order) {
    std::string order;
    {
        kr::undo_guard first([&]() noexcept { order += "1"; });
        kr::undo_guard second([&]() noexcept { order += "2"; });
    }
    EXPECT_EQ(order, "21");
}

TEST(relaxed, reads_and_writes_the_variable_itself) {
    uint32_t variable = 1;
    kr::relaxed_store(variable, 7U);
    EXPECT_EQ(variable, 7U);
    EXPECT_EQ(kr::relaxed_load(variable), 7U);
}

} // namespace
