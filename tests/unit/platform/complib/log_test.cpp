/*
 * The logger: what reaches the callback and what reaches standard error, long texts, many threads, callbacks that log,
 * and that no callback runs any more once close or a second init has returned.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "captured_log.h"
#include "kr_log.h"
#include "waiting.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

void log_one_of_each() {
    kr_log(KR_LOG_ERROR, "MOD", "e %d\n", 1);
    kr_log(KR_LOG_WARNING, "MOD", "w %s\n", "two");
    kr_log(KR_LOG_NOTICE, "MOD", "n\n");
    kr_log(KR_LOG_DEBUG, "MOD", "d\n");
    kr_log(KR_LOG_FUNCTION, "MOD", "f\n");
}

TEST(logger, hands_the_callback_severity_module_and_text) {
    captured_log log;
    CaptureStderr();
    log_one_of_each();
    kr_log(5, "MOD", "no newline is added");
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(log.messages(), (std::vector<kr_test::log_line>{{1, "MOD", "e 1\n"},
                                                              {3, "MOD", "w two\n"},
                                                              {15, "MOD", "n\n"},
                                                              {31, "MOD", "d\n"},
                                                              {63, "MOD", "f\n"},
                                                              {5, "MOD", "no newline is added"}}));
}

TEST(logger, before_init_and_after_close_errors_go_to_standard_error) {
    CaptureStderr();
    log_one_of_each();
    EXPECT_EQ(GetCapturedStderr(), "error: MOD: e 1\n");
    { captured_log log; }
    CaptureStderr();
    log_one_of_each();
    kr_log(KR_LOG_ERROR, "MOD", "a line gets its end");
    EXPECT_EQ(GetCapturedStderr(), "error: MOD: e 1\nerror: MOD: a line gets its end\n");
}

TEST(logger, without_a_callback_everything_goes_to_standard_error) {
    ASSERT_EQ(kr_log_init(1, nullptr, nullptr), KR_STATUS_SUCCESS);
    CaptureStderr();
    log_one_of_each();
    kr_log(5, "MOD", "x\n");
    EXPECT_EQ(GetCapturedStderr(),
              "error: MOD: e 1\nwarning: MOD: w two\nnotice: MOD: n\ndebug: MOD: d\ntrace: MOD: f\nlog: MOD: x\n");
    EXPECT_EQ(kr_log_close(), KR_STATUS_SUCCESS);
}

TEST(logger, close_of_what_is_not_started_says_so) {
    EXPECT_EQ(kr_log_close(), KR_STATUS_NOT_INITIALIZED);
    ASSERT_EQ(kr_log_init(1, nullptr, nullptr), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_log_close(), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_log_close(), KR_STATUS_NOT_INITIALIZED);
}

TEST(logger, a_second_init_replaces_the_callback) {
    static int first_count;
    static int second_count;
    first_count = second_count = 0;
    kr_log_init(1, nullptr, [](uint32_t, const char *, const char *) { first_count++; });
    kr_log(KR_LOG_NOTICE, "M", "1");
    kr_log_init(1, nullptr, [](uint32_t, const char *, const char *) { second_count++; });
    kr_log(KR_LOG_NOTICE, "M", "2");
    kr_log_close();
    EXPECT_EQ(first_count, 1);
    EXPECT_EQ(second_count, 1);
}

TEST(logger, never_cuts_a_text) {
    captured_log log;
    // Around the size up to which texts need no memory of their own, and far beyond.
    for (const size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 100000U}) {
        const std::string text(length, 'x');
        kr_log(KR_LOG_NOTICE, "M", "%s|%d", text.c_str(), 7);
        EXPECT_EQ(log.messages().back().text, text + "|7");
    }
    CaptureStderr();
    kr_log_init(1, nullptr, nullptr);
    kr_log(KR_LOG_NOTICE, "M", "%s\n", std::string(50000, 'y').c_str());
    EXPECT_EQ(GetCapturedStderr(), "notice: M: " + std::string(50000, 'y') + "\n");
}

TEST(logger, bears_missing_names_and_arguments_that_cannot_be_shown) {
    captured_log log;
    kr_log(KR_LOG_ERROR, nullptr, "t");
    EXPECT_EQ(log.messages().back().module, "");
    const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};
    kr_log(KR_LOG_ERROR, "M", "w %ls", no_character);
    EXPECT_EQ(log.messages().back().text, "w %ls");
}

TEST(logger, keeps_errno) {
    kr_log_init(1, nullptr, [](uint32_t, const char *, const char *) { errno = EPERM; });
    errno = ENOENT;
    kr_log(KR_LOG_ERROR, "M", "x");
    EXPECT_EQ(errno, ENOENT);
    kr_log_close();
}

TEST(logger, a_callback_may_log) {
    static std::vector<std::string> seen;
    seen.clear();
    kr_log_init(1, nullptr, [](uint32_t, const char *, const char *text) {
        seen.push_back(text);
        if (seen.size() < 3) {
            kr_log(KR_LOG_ERROR, "M", "%s+", text);
        }
    });
    kr_log(KR_LOG_ERROR, "M", "a");
    kr_log_close();
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "a+", "a++"}));
}

TEST(logger, a_callback_may_close_and_start_the_logger) {
    static int count;
    count = 0;
    kr_log_init(1, nullptr, [](uint32_t, const char *, const char *) {
        EXPECT_EQ(kr_log_close(), KR_STATUS_SUCCESS);
        EXPECT_EQ(kr_log_init(1, nullptr, [](uint32_t, const char *, const char *) { count++; }), KR_STATUS_SUCCESS);
    });
    kr_log(KR_LOG_ERROR, "M", "a");
    kr_log(KR_LOG_ERROR, "M", "b");
    EXPECT_EQ(count, 1);
    kr_log_close();
}

TEST(logger, delivers_every_message_of_many_threads_whole) {
    constexpr int thread_count = 4;
    constexpr int message_count = 1000;
    const auto text_of = [](int thread, int message) {
        return std::to_string(thread) + ":" + std::to_string(message) + ":" +
               std::string(static_cast<size_t>(message % 100) * 20, static_cast<char>('a' + thread)) + "\n";
    };
    const auto log_all = [&] {
        std::vector<std::thread> threads;
        for (int thread = 0; thread < thread_count; thread++) {
            threads.emplace_back([=] {
                for (int message = 0; message < message_count; message++) {
                    kr_log(KR_LOG_NOTICE, "M", "%s", text_of(thread, message).c_str());
                }
            });
        }
        for (auto &thread : threads) {
            thread.join();
        }
    };
    std::multiset<std::string> expected;
    for (int thread = 0; thread < thread_count; thread++) {
        for (int message = 0; message < message_count; message++) {
            expected.insert(text_of(thread, message));
        }
    }

    captured_log log;
    log_all();
    std::multiset<std::string> delivered;
    for (const auto &line : log.messages()) {
        delivered.insert(line.text);
    }
    EXPECT_EQ(delivered, expected);

    kr_log_init(1, nullptr, nullptr);
    CaptureStderr();
    log_all();
    std::multiset<std::string> lines;
    std::istringstream output(GetCapturedStderr());
    const std::string prefix = "notice: M: ";
    for (std::string line; std::getline(output, line);) {
        ASSERT_TRUE(line.starts_with(prefix));
        lines.insert(line.substr(prefix.size()) + "\n");
    }
    EXPECT_EQ(lines, expected);
}

// ---- taking a callback away

struct {
    std::atomic<bool> entered;
    std::atomic<bool> may_leave;
    std::atomic<bool> left;
} stay;

void staying_callback(uint32_t, const char *, const char *) {
    stay.entered = true;
    while (!stay.may_leave) {
        sched_yield();
    }
    stay.left = true;
}

// Runs `take_away` on a thread while the callback is running on another; it must not return before that has left.
void expect_to_wait_for_callback(void (*take_away)()) {
    stay.entered = stay.may_leave = stay.left = false;
    ASSERT_EQ(kr_log_init(1, nullptr, staying_callback), KR_STATUS_SUCCESS);
    std::thread logging([] { kr_log(KR_LOG_ERROR, "M", "x"); });
    while (!stay.entered) {
        sched_yield();
    }
    thread_id id;
    bool left_at_return = false;
    std::thread taking([&] {
        id.set_to_caller();
        take_away();
        left_at_return = stay.left;
    });
    id.wait_until_asleep();
    stay.may_leave = true;
    taking.join();
    logging.join();
    EXPECT_TRUE(left_at_return);
}

TEST(logger, close_waits_for_running_callbacks) {
    expect_to_wait_for_callback([] { kr_log_close(); });
}

TEST(logger, a_second_init_waits_for_the_callback_it_replaces_but_not_for_its_own) {
    expect_to_wait_for_callback([] {
        // Messages that come while the init waits are delivered to the new callback.
        kr_log_init(1, nullptr, [](uint32_t, const char *, const char *) {});
    });
    kr_log_close();
}

TEST(logger, close_and_init_race_with_messages) {
    static std::atomic<bool> is_loaded;
    static std::atomic<uint32_t> call_count;
    call_count = 0;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; i++) {
        threads.emplace_back([&] {
            while (!stop) {
                kr_log(KR_LOG_NOTICE, "M", "%d", 1);
            }
        });
    }
    for (int round = 0; round < 300; round++) {
        is_loaded = true;
        kr_log_init(1, nullptr, [](uint32_t, const char *, const char *) {
            EXPECT_TRUE(is_loaded);
            call_count++;
            EXPECT_TRUE(is_loaded);
        });
        const uint32_t before = call_count;
        while (call_count == before) {
            sched_yield();
        }
        kr_log_close();
        is_loaded = false; // as if the code were gone now
    }
    stop = true;
    for (auto &thread : threads) {
        thread.join();
    }
}

TEST(status_text, is_there_for_any_value) {
    EXPECT_STREQ(kr_status_str(KR_STATUS_SUCCESS), "Success");
    EXPECT_STREQ(kr_status_str(KR_STATUS_TIMEOUT), "Timeout");
    std::set<std::string> distinct;
    for (kr_status status = 0; status <= KR_STATUS_TIMEOUT; status++) {
        distinct.insert(kr_status_str(status));
    }
    EXPECT_EQ(distinct.size(), KR_STATUS_TIMEOUT + 1U);
    EXPECT_STREQ(kr_status_str(KR_STATUS_TIMEOUT + 1), "Unknown status");
    EXPECT_STREQ(kr_status_str(UINT32_MAX), "Unknown status");
}

} // namespace
