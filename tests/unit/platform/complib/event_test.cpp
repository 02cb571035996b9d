/*
 * Events: kept signals, both kinds of reset, time-outs, interruption by signal handlers, and the races that a wait may
 * lose: a signal against a sleep, a signal against a time-out, a destruction against the end of the signalling call.
 */
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "kr_complib.h"
#include "waiting.h"

namespace {

using steady_clock = std::chrono::steady_clock;

class event : public testing::TestWithParam<bool> {
  protected:
    void TearDown() override {
        cl_event_destroy(&subject);
    }
    cl_event_t subject{};
};

TEST_P(event, is_not_signalled_at_first) {
    ASSERT_EQ(cl_event_init(&subject, GetParam()), CL_SUCCESS);
    EXPECT_EQ(cl_event_wait_on(&subject, 0, 0), CL_TIMEOUT);
    EXPECT_EQ(cl_event_wait_on(&subject, 1, 1), CL_TIMEOUT);
}

TEST_P(event, keeps_a_signal_until_somebody_waits) {
    ASSERT_EQ(cl_event_init(&subject, GetParam()), CL_SUCCESS);
    EXPECT_EQ(cl_event_signal(&subject), CL_SUCCESS);
    EXPECT_EQ(cl_event_wait_on(&subject, CL_EVENT_NO_TIMEOUT, 0), CL_SUCCESS);
    // Only a manual event is signalled still.
    EXPECT_EQ(cl_event_wait_on(&subject, 0, 0), GetParam() ? CL_SUCCESS : CL_TIMEOUT);
}

TEST_P(event, two_signals_before_a_wait_are_one) {
    ASSERT_EQ(cl_event_init(&subject, GetParam()), CL_SUCCESS);
    EXPECT_EQ(cl_event_signal(&subject), CL_SUCCESS);
    EXPECT_EQ(cl_event_signal(&subject), CL_SUCCESS);
    EXPECT_EQ(cl_event_wait_on(&subject, 0, 0), CL_SUCCESS);
    EXPECT_EQ(cl_event_wait_on(&subject, 0, 0), GetParam() ? CL_SUCCESS : CL_TIMEOUT);
}

TEST_P(event, a_reset_takes_the_signal_back) {
    ASSERT_EQ(cl_event_init(&subject, GetParam()), CL_SUCCESS);
    EXPECT_EQ(cl_event_reset(&subject), CL_SUCCESS);
    EXPECT_EQ(cl_event_signal(&subject), CL_SUCCESS);
    EXPECT_EQ(cl_event_reset(&subject), CL_SUCCESS);
    EXPECT_EQ(cl_event_wait_on(&subject, 0, 0), CL_TIMEOUT);
    EXPECT_EQ(cl_event_signal(&subject), CL_SUCCESS);
    EXPECT_EQ(cl_event_wait_on(&subject, 0, 0), CL_SUCCESS);
}

TEST_P(event, a_wait_never_ends_before_its_time) {
    ASSERT_EQ(cl_event_init(&subject, GetParam()), CL_SUCCESS);
    for (const uint32_t wait_us : {1U, 999U, 20000U, 1000001U}) {
        const auto start = steady_clock::now();
        EXPECT_EQ(cl_event_wait_on(&subject, wait_us, 0), CL_TIMEOUT);
        EXPECT_GE(steady_clock::now() - start, std::chrono::microseconds(wait_us));
    }
}

TEST_P(event, wakes_a_sleeper) {
    ASSERT_EQ(cl_event_init(&subject, GetParam()), CL_SUCCESS);
    for (const uint32_t wait_us : {CL_EVENT_NO_TIMEOUT, CL_EVENT_NO_TIMEOUT - 1}) {
        cl_event_reset(&subject);
        thread_id id;
        cl_status_t status = CL_ERROR;
        std::thread waiter([&] {
            id.set_to_caller();
            status = cl_event_wait_on(&subject, wait_us, 0);
        });
        id.wait_until_asleep();
        EXPECT_EQ(cl_event_signal(&subject), CL_SUCCESS);
        waiter.join();
        EXPECT_EQ(status, CL_SUCCESS);
    }
}

TEST_P(event, releases_one_waiter_or_all) {
    constexpr size_t waiter_count = 4;
    ASSERT_EQ(cl_event_init(&subject, GetParam()), CL_SUCCESS);
    thread_id ids[waiter_count];
    std::atomic<size_t> released{0};
    std::vector<std::thread> waiters;
    for (auto &id : ids) {
        waiters.emplace_back([&] {
            id.set_to_caller();
            EXPECT_EQ(cl_event_wait_on(&subject, CL_EVENT_NO_TIMEOUT, 0), CL_SUCCESS);
            released++;
        });
    }
    for (const auto &id : ids) {
        id.wait_until_asleep();
    }
    for (size_t signals = 1; signals <= (GetParam() ? 1 : waiter_count); signals++) {
        cl_event_signal(&subject);
        while (released.load() < (GetParam() ? waiter_count : signals)) {
            sched_yield();
        }
        EXPECT_EQ(released.load(), GetParam() ? waiter_count : signals);
        // No signal is left for a second waiter of an auto-reset event.
        EXPECT_EQ(cl_event_wait_on(&subject, 0, 0), GetParam() ? CL_SUCCESS : CL_TIMEOUT);
    }
    for (auto &waiter : waiters) {
        waiter.join();
    }
}

TEST_P(event, of_a_state_that_is_none_is_refused) {
    EXPECT_EQ(cl_event_wait_on(&subject, CL_EVENT_NO_TIMEOUT, 0), CL_INVALID_STATE);
    EXPECT_EQ(cl_event_signal(&subject), CL_INVALID_STATE);
    EXPECT_EQ(cl_event_reset(&subject), CL_INVALID_STATE);
    cl_event_destroy(&subject);
    ASSERT_EQ(cl_event_init(&subject, GetParam()), CL_SUCCESS);
    cl_event_signal(&subject);
    cl_event_destroy(&subject);
    cl_event_destroy(&subject);
    EXPECT_EQ(cl_event_wait_on(&subject, 0, 0), CL_INVALID_STATE);
    ASSERT_EQ(cl_event_init(&subject, GetParam()), CL_SUCCESS);
    EXPECT_EQ(cl_event_wait_on(&subject, 0, 0), CL_TIMEOUT); // a new life begins without a signal

    EXPECT_EQ(cl_event_init(nullptr, 0), CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_event_wait_on(nullptr, 0, 0), CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_event_signal(nullptr), CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_event_reset(nullptr), CL_INVALID_PARAMETER);
    cl_event_destroy(nullptr);
}

INSTANTIATE_TEST_SUITE_P(resets, event, testing::Values(false, true),
                         [](const auto &kind) { return kind.param ? "manual" : "automatic"; });

// ---- interruption

class interruption : public testing::TestWithParam<int> { // the flags of sigaction
  protected:
    void SetUp() override {
        ASSERT_EQ(cl_event_init(&subject, 0), CL_SUCCESS);
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = GetParam();
        ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    }
    void TearDown() override {
        sigaction(SIGUSR1, &previous, nullptr);
        cl_event_destroy(&subject);
    }
    void start_wait(uint32_t wait_us, uint32_t interruptible) {
        waiter = std::thread([=, this] {
            id.set_to_caller();
            status = cl_event_wait_on(&subject, wait_us, interruptible);
            done = true;
        });
        id.wait_until_asleep();
    }

    cl_event_t subject{};
    struct sigaction previous {};
    thread_id id;
    std::atomic<cl_status_t> status{CL_ERROR};
    std::atomic<bool> done{false};
    std::thread waiter;
};

TEST_P(interruption, ends_an_interruptible_wait) {
    for (const uint32_t wait_us : {CL_EVENT_NO_TIMEOUT, CL_EVENT_NO_TIMEOUT - 1}) {
        id.clear();
        start_wait(wait_us, 1);
        pthread_kill(waiter.native_handle(), SIGUSR1);
        waiter.join();
        EXPECT_EQ(status, CL_INTERRUPTED);
        EXPECT_EQ(subject.word, 0U); // nobody waits any more
    }
}

TEST_P(interruption, does_not_end_another_wait) {
    start_wait(CL_EVENT_NO_TIMEOUT, 0);
    for (int i = 0; i < 20; i++) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        id.wait_until_asleep();
        ASSERT_FALSE(done);
    }
    cl_event_signal(&subject);
    waiter.join();
    EXPECT_EQ(status, CL_SUCCESS);
}

TEST_P(interruption, loses_against_a_signal_of_the_event) {
    for (int i = 0; i < 200; i++) {
        id.clear();
        start_wait(CL_EVENT_NO_TIMEOUT, 1);
        cl_event_signal(&subject);
        pthread_kill(waiter.native_handle(), SIGUSR1);
        waiter.join();
        ASSERT_EQ(status, CL_SUCCESS);
    }
}

INSTANTIATE_TEST_SUITE_P(handlers, interruption, testing::Values(0, SA_RESTART),
                         [](const auto &flags) { return flags.param == 0 ? "plain" : "restarting"; });

// ---- races

TEST(event_race, no_signal_is_lost_between_two_threads) {
    constexpr int round_count = 20000;
    cl_event_t ping{};
    cl_event_t pong{};
    cl_event_init(&ping, 0);
    cl_event_init(&pong, 0);
    int shared = 0; // handed over by the events; the race sanitizer watches
    std::thread other([&] {
        for (int i = 0; i < round_count; i++) {
            ASSERT_EQ(cl_event_wait_on(&ping, CL_EVENT_NO_TIMEOUT, 0), CL_SUCCESS);
            shared++;
            cl_event_signal(&pong);
        }
    });
    for (int i = 0; i < round_count; i++) {
        shared++;
        cl_event_signal(&ping);
        ASSERT_EQ(cl_event_wait_on(&pong, CL_EVENT_NO_TIMEOUT, 0), CL_SUCCESS);
    }
    other.join();
    EXPECT_EQ(shared, 2 * round_count);
    cl_event_destroy(&ping);
    cl_event_destroy(&pong);
}

TEST(event_race, a_signal_against_a_time_out_is_taken_or_kept) {
    cl_event_t subject{};
    cl_event_t taken{};
    cl_event_init(&subject, 0);
    cl_event_init(&taken, 0);
    constexpr int signal_count = 2000;
    std::thread waiter([&] {
        for (int seen = 0; seen < signal_count;) {
            const cl_status_t status = cl_event_wait_on(&subject, static_cast<uint32_t>(seen % 60), 1);
            if (status == CL_SUCCESS) {
                seen++;
                cl_event_signal(&taken);
            } else {
                ASSERT_EQ(status, CL_TIMEOUT);
            }
        }
    });
    for (int i = 0; i < signal_count; i++) {
        cl_event_signal(&subject);
        ASSERT_EQ(cl_event_wait_on(&taken, CL_EVENT_NO_TIMEOUT, 0), CL_SUCCESS); // hangs if one is lost
    }
    waiter.join();
    EXPECT_EQ(subject.word, 0U);
}

TEST(event_race, each_signal_of_an_automatic_event_releases_exactly_one_of_many) {
    cl_event_t subject{};
    cl_event_init(&subject, 0);
    constexpr uint32_t round_count = 3000;
    std::atomic<uint32_t> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; i++) {
        waiters.emplace_back([&] {
            while (released.load() < round_count) {
                if (cl_event_wait_on(&subject, CL_EVENT_NO_TIMEOUT, 0) == CL_SUCCESS) {
                    released++;
                }
            }
            cl_event_signal(&subject); // lets the next one leave
        });
    }
    for (uint32_t i = 1; i <= round_count; i++) {
        cl_event_signal(&subject);
        while (released.load() < i) {
            sched_yield();
        }
        if (i < round_count) {
            ASSERT_EQ(released.load(), i);
        }
    }
    for (auto &waiter : waiters) {
        waiter.join();
    }
}

TEST(event_race, the_waiter_may_destroy_and_free_at_once) {
    for (int i = 0; i < 3000; i++) {
        auto *const subject = static_cast<cl_event_t *>(malloc(sizeof(cl_event_t)));
        cl_event_init(subject, i % 2 == 0);
        std::thread signaller([=] { cl_event_signal(subject); });
        ASSERT_EQ(cl_event_wait_on(subject, CL_EVENT_NO_TIMEOUT, 0), CL_SUCCESS);
        cl_event_destroy(subject);
        free(subject);
        signaller.join();
    }
}

} // namespace
