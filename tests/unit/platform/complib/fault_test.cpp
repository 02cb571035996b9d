/*
 * Every contract function of the component library and of the logger, as a contract call: it can be made to fail, it
 * then does nothing, it is counted, and it leaves its line in the journal.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kr_complib.h"
#include "kr_soft.h"

// The sanitizers end the program at a size that no memory has; these tests want to see NULL, as from any allocator.
extern "C" {
__attribute__((visibility("default"))) const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}
__attribute__((visibility("default"))) const char *__tsan_default_options() {
    return "allocator_may_return_null=1";
}
}

namespace {

constexpr uint32_t made_up = 4711;

std::string journal() {
    char *const text = kr_soft_journal_text();
    std::string copy = text;
    free(text);
    return copy;
}

class contract : public testing::Test {
  protected:
    void TearDown() override {
        kr_soft_fault_clear();
        kr_soft_journal_stop();
    }
    static void fail_next(const char *function) {
        ASSERT_EQ(kr_soft_fault_set(function, 0, made_up, 0), KR_STATUS_SUCCESS);
    }
};

TEST_F(contract, cl_malloc_fails) {
    fail_next("cl_malloc");
    EXPECT_EQ(cl_malloc(8), nullptr);
    void *const memory = cl_malloc(8);
    ASSERT_NE(memory, nullptr);
    memset(memory, 1, 8);
    free(memory);
}

TEST_F(contract, cl_malloc_has_no_room_for_everything) {
    EXPECT_EQ(cl_malloc(PTRDIFF_MAX - 4096), nullptr);
    free(cl_malloc(0));
}

TEST_F(contract, cl_qpool_functions_fail) {
    cl_qpool_t pool{};
    fail_next("cl_qpool_init");
    EXPECT_EQ(cl_qpool_init(&pool, 1, 1, 0, 64, nullptr, nullptr, nullptr), made_up);
    EXPECT_EQ(pool.pool.state, CL_STATE_UNINITIALIZED);
    ASSERT_EQ(cl_qpool_init(&pool, 1, 1, 0, 64, nullptr, nullptr, nullptr), CL_SUCCESS);
    fail_next("cl_qpool_get");
    EXPECT_EQ(cl_qpool_get(&pool), nullptr);
    EXPECT_EQ(cl_qpool_count(&pool), 1U);
    EXPECT_NE(cl_qpool_get(&pool), nullptr);
    cl_qpool_destroy(&pool);
}

TEST_F(contract, cl_plock_init_fails) {
    cl_plock_t lock{};
    fail_next("cl_plock_init");
    EXPECT_EQ(cl_plock_init(&lock), made_up);
    EXPECT_EQ(lock.state, CL_STATE_UNINITIALIZED);
    cl_plock_destroy(&lock);
}

TEST_F(contract, cl_event_functions_fail) {
    cl_event_t event{};
    fail_next("cl_event_init");
    EXPECT_EQ(cl_event_init(&event, 0), made_up);
    EXPECT_EQ(cl_event_signal(&event), CL_INVALID_STATE);
    ASSERT_EQ(cl_event_init(&event, 0), CL_SUCCESS);
    fail_next("cl_event_signal");
    EXPECT_EQ(cl_event_signal(&event), made_up);
    EXPECT_EQ(cl_event_wait_on(&event, 0, 0), CL_TIMEOUT); // it was not signalled
    EXPECT_EQ(cl_event_signal(&event), CL_SUCCESS);
    fail_next("cl_event_wait_on");
    EXPECT_EQ(cl_event_wait_on(&event, CL_EVENT_NO_TIMEOUT, 1), made_up);
    EXPECT_EQ(cl_event_wait_on(&event, 0, 0), CL_SUCCESS); // the signal is still there
    cl_event_destroy(&event);
}

TEST_F(contract, cl_thread_init_fails) {
    cl_thread_t thread{};
    bool has_run = false;
    fail_next("cl_thread_init");
    EXPECT_EQ(cl_thread_init(
                  &thread, [](void *context) { *static_cast<bool *>(context) = true; }, &has_run, "x"),
              made_up);
    cl_thread_destroy(&thread);
    EXPECT_FALSE(has_run);
}

TEST_F(contract, logger_functions_fail) {
    static int message_count;
    message_count = 0;
    const auto count = [](uint32_t, const char *, const char *) { message_count++; };
    fail_next("kr_log_init");
    EXPECT_EQ(kr_log_init(1, nullptr, count), made_up);
    kr_log(KR_LOG_NOTICE, "M", "dropped");
    EXPECT_EQ(message_count, 0);
    ASSERT_EQ(kr_log_init(1, nullptr, count), KR_STATUS_SUCCESS);
    fail_next("kr_log_close");
    EXPECT_EQ(kr_log_close(), made_up);
    kr_log(KR_LOG_NOTICE, "M", "delivered");
    EXPECT_EQ(message_count, 1);
    EXPECT_EQ(kr_log_close(), KR_STATUS_SUCCESS);
}

TEST_F(contract, functions_without_a_result_are_done_all_the_same) {
    cl_plock_t lock{};
    cl_event_t event{};
    cl_thread_t thread{};
    ASSERT_EQ(cl_plock_init(&lock), CL_SUCCESS);
    ASSERT_EQ(cl_event_init(&event, 0), CL_SUCCESS);
    ASSERT_EQ(cl_thread_init(
                  &thread, [](void *) {}, nullptr, nullptr),
              CL_SUCCESS);
    ASSERT_EQ(kr_soft_fault_set("*", 0, made_up, 1), KR_STATUS_SUCCESS);
    cl_plock_destroy(&lock);
    cl_event_destroy(&event);
    cl_thread_destroy(&thread);
    EXPECT_EQ(lock.state, CL_STATE_UNINITIALIZED);
    EXPECT_EQ(event.state, CL_STATE_UNINITIALIZED);
    EXPECT_EQ(thread.state, CL_STATE_UNINITIALIZED);
}

TEST_F(contract, the_journal_shows_every_call_with_its_arguments_and_result) {
    cl_qpool_t pool{};
    cl_plock_t lock{};
    cl_event_t event{};
    cl_thread_t thread{};
    kr_soft_journal_start();
    free(cl_malloc(24));
    (void)cl_qpool_init(&pool, 2, 1, 0, 64, nullptr, nullptr, nullptr);
    (void)cl_qpool_init(&pool, 1, 1, 0, 64, nullptr, nullptr, nullptr);
    cl_qpool_put(&pool, cl_qpool_get(&pool));
    EXPECT_NE(cl_qpool_get(&pool), nullptr);
    EXPECT_EQ(cl_qpool_get(&pool), nullptr);
    (void)cl_plock_init(&lock);
    cl_plock_destroy(&lock);
    (void)cl_event_init(&event, 1);
    (void)cl_event_wait_on(&event, 0, 1);
    (void)cl_event_signal(&event);
    cl_event_destroy(&event);
    (void)cl_thread_init(
        &thread, [](void *) {}, nullptr, "name");
    cl_thread_destroy(&thread);
    (void)cl_thread_init(&thread, nullptr, nullptr, nullptr);
    (void)kr_log_init(1, nullptr, [](uint32_t, const char *, const char *) {});
    (void)kr_log_close();
    (void)kr_log_init(1, nullptr, nullptr);
    (void)kr_log_close();
    kr_soft_journal_stop();
    cl_qpool_destroy(&pool);
    EXPECT_EQ(journal(), "cl_malloc(24) = pointer\n"
                         "cl_qpool_init(2, 1, 0, 64) = 2\n"
                         "cl_qpool_init(1, 1, 0, 64) = 0\n"
                         "cl_qpool_get() = pointer\n"
                         "cl_qpool_get() = pointer\n"
                         "cl_qpool_get() = NULL\n"
                         "cl_plock_init() = 0\n"
                         "cl_plock_destroy()\n"
                         "cl_event_init(1) = 0\n"
                         "cl_event_wait_on(0, 1) = 6\n"
                         "cl_event_signal() = 0\n"
                         "cl_event_destroy()\n"
                         "cl_thread_init(name) = 0\n"
                         "cl_thread_destroy()\n"
                         "cl_thread_init(NULL) = 2\n"
                         "kr_log_init(1, callback) = 0\n"
                         "kr_log_close() = 0\n"
                         "kr_log_init(1, NULL) = 0\n"
                         "kr_log_close() = 0\n");
}

} // namespace
