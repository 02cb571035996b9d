/*
 * The passive lock: who may be in at the same time, who goes first, and that holding it twice as a reader never locks
 * the reader out.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "captured_log.h"
#include "kr_complib.h"
#include "waiting.h"

namespace {

class plock : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(cl_plock_init(&lock), CL_SUCCESS);
    }
    void TearDown() override {
        EXPECT_EQ(cl_plock_held_count, 0U);
        cl_plock_destroy(&lock);
    }
    // Starts a writer and returns when it waits; `order` receives "writer" when it is in.
    std::thread start_waiting_writer() {
        std::thread writer([this] {
            id.set_to_caller();
            cl_plock_excl_acquire(&lock);
            order.push_back("writer");
            cl_plock_release(&lock);
        });
        id.wait_until_asleep();
        return writer;
    }

    cl_plock_t lock{};
    thread_id id;
    std::vector<const char *> order; // guarded by the lock
};

TEST_F(plock, lets_readers_in_together) {
    cl_plock_acquire(&lock);
    std::thread([this] {
        cl_plock_acquire(&lock); // would hang if the lock were exclusive
        cl_plock_release(&lock);
    }).join();
    cl_plock_release(&lock);
}

TEST_F(plock, keeps_writers_apart_from_everybody) {
    constexpr int round_count = 5000;
    int value = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; i++) {
        threads.emplace_back([&] {
            for (int round = 0; round < round_count; round++) {
                cl_plock_excl_acquire(&lock);
                value += 2;
                cl_plock_release(&lock);
            }
        });
        threads.emplace_back([&] {
            for (int round = 0; round < round_count; round++) {
                cl_plock_acquire(&lock);
                ASSERT_EQ(value % 2, 0);
                cl_plock_release(&lock);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(value, 4 * round_count);
}

TEST_F(plock, a_reader_that_comes_later_lets_a_waiting_writer_go_first) {
    cl_plock_acquire(&lock);
    std::thread writer = start_waiting_writer();
    thread_id reader_id;
    std::thread reader([&] {
        reader_id.set_to_caller();
        cl_plock_acquire(&lock);
        // Written while reading: the only other reader has seen to it that it is alone.
        order.push_back("reader");
        cl_plock_release(&lock);
    });
    reader_id.wait_until_asleep();
    EXPECT_TRUE(order.empty());
    cl_plock_release(&lock);
    writer.join();
    reader.join();
    EXPECT_EQ(order, (std::vector<const char *>{"writer", "reader"}));
}

TEST_F(plock, a_reader_may_come_in_again_while_a_writer_waits) {
    cl_plock_acquire(&lock);
    std::thread writer = start_waiting_writer();
    cl_plock_acquire(&lock); // hangs if it had to wait for the writer
    EXPECT_EQ(cl_plock_held_count, 2U);
    cl_plock_release(&lock);
    EXPECT_TRUE(order.empty());
    cl_plock_release(&lock);
    writer.join();
    EXPECT_EQ(order.size(), 1U);
}

TEST_F(plock, a_holder_of_another_lock_does_not_wait_for_writers) {
    cl_plock_t other{};
    ASSERT_EQ(cl_plock_init(&other), CL_SUCCESS);
    cl_plock_acquire(&lock);
    std::thread writer = start_waiting_writer();
    std::thread([&] {
        cl_plock_excl_acquire(&other);
        cl_plock_acquire(&lock);
        cl_plock_release(&lock);
        cl_plock_release(&other);
    }).join();
    cl_plock_release(&lock);
    writer.join();
    cl_plock_destroy(&other);
}

TEST_F(plock, readers_without_a_gap_do_not_starve_a_writer) {
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> passes[2] = {};
    std::vector<std::thread> readers;
    for (auto &own : passes) {
        readers.emplace_back([&] {
            const auto &others = &own == &passes[0] ? passes[1] : passes[0];
            while (!stop) {
                cl_plock_acquire(&lock);
                // Stays until the other one is in too, or waits, so that somebody always reads.
                const uint32_t seen = others.load();
                own++;
                for (int i = 0; i < 100 && others.load() == seen && !stop; i++) {
                    sched_yield();
                }
                cl_plock_release(&lock);
            }
        });
    }
    for (int i = 0; i < 100; i++) {
        cl_plock_excl_acquire(&lock); // hangs if it starves
        cl_plock_release(&lock);
    }
    stop = true;
    for (auto &reader : readers) {
        reader.join();
    }
}

TEST(plock_unusable, is_asserted_by_its_users_and_ignored_by_destroy) {
    captured_log log;
    cl_plock_t lock{};
    cl_plock_destroy(&lock);
    cl_plock_destroy(nullptr);
    EXPECT_EQ(cl_plock_init(nullptr), CL_INVALID_PARAMETER);
    EXPECT_TRUE(log.messages().empty());
    cl_plock_acquire(&lock); // all zero is what a static initialiser makes, so this is defined
    EXPECT_EQ(log.count_of("ASSERT in kr_complib.h["), 1U);
    EXPECT_TRUE(log.messages()[0].text.ends_with("]- cl_plock_acquire\n"));
    cl_plock_release(&lock);
    EXPECT_EQ(log.count_of("ASSERT in kr_complib.h["), 2U);
    cl_plock_excl_acquire(&lock);
    EXPECT_EQ(log.count_of("ASSERT in kr_complib.h["), 3U);
    cl_plock_release(&lock);
    EXPECT_EQ(cl_plock_held_count, 0U);
}

TEST(plock_life, may_be_destroyed_twice_and_made_again) {
    cl_plock_t lock{};
    ASSERT_EQ(cl_plock_init(&lock), CL_SUCCESS);
    cl_plock_destroy(&lock);
    cl_plock_destroy(&lock);
    ASSERT_EQ(cl_plock_init(&lock), CL_SUCCESS);
    cl_plock_excl_acquire(&lock);
    cl_plock_release(&lock);
    cl_plock_destroy(&lock);
}

} // namespace
