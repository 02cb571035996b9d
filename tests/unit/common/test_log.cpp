/*
 * The logging convention: levels, the filter, the prefix and the newline.
 */
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/log.h"
#include "tests/support/formatted.h"
#include "tests/support/log_capture.h"

namespace {

int32_t verbosity = 3;

} // namespace

KR_LOG_MODULE("TEST_MODULE", verbosity);

namespace {

using kr_test::log_line;
using log_lines = std::vector<log_line>;

int evaluation_count = 0;
int evaluated() {
    return ++evaluation_count;
}

int debug_line = 0;
int trace_line = 0;

void log_at_every_level() {
    HAL_ERROR("error %d", 1);
    HAL_WARNING("warning %d", 2);

    HAL_NOTICE("notice %d", 4);
    debug_line = __LINE__ + 1;
    HAL_DEBUG("debug %d", 5);
    trace_line = __LINE__ + 1;
    HAL_TRACE("%s: [", __func__);
}

class log_test : public ::testing::Test {
  protected:
    void TearDown() override {
        verbosity = 3;
    }
    log_lines lines_at(int32_t level) {
        verbosity = level;
        log_at_every_level();
        return log.take();
    }
    static std::string place_of(int line) {
        return kr_test::formatted("%s[%d]- %s: ", "test_log.cpp", line, "log_at_every_level");
    }
    static log_lines all_lines() {
        return {{1, "TEST_MODULE", "error 1\n"},
                {3, "TEST_MODULE", "warning 2\n"},
                {15, "TEST_MODULE", "notice 4\n"},
                {31, "TEST_MODULE", place_of(debug_line) + "debug 5\n"},
                {63, "TEST_MODULE", place_of(trace_line) + "log_at_every_level: [\n"}};
    }
    static log_lines first_lines(size_t count) {
        log_lines lines = all_lines();
        lines.erase(lines.begin() + static_cast<ptrdiff_t>(count), lines.end());
        return lines;
    }
    kr_test::log_capture log;
};

TEST_F(log_test, the_level_of_a_mask_is_the_lowest_set_bit_of_mask_plus_1) {
    EXPECT_EQ(kr::log_level(1), 1);
    EXPECT_EQ(kr::log_level(3), 2);
    EXPECT_EQ(kr::log_level(7), 3);
    EXPECT_EQ(kr::log_level(15), 4);
    EXPECT_EQ(kr::log_level(31), 5);
    EXPECT_EQ(kr::log_level(63), 6);
}

TEST_F(log_test, the_default_3_emits_errors_and_warnings_only) {
    EXPECT_EQ(lines_at(3), first_lines(2));
}

TEST_F(log_test, at_4_notices_appear_without_a_prefix) {
    EXPECT_EQ(lines_at(4), first_lines(3));
}

TEST_F(log_test, at_5_debug_messages_appear_with_the_prefix) {
    EXPECT_EQ(lines_at(5), first_lines(4));
}

TEST_F(log_test, at_6_the_function_trace_appears_with_the_prefix) {
    EXPECT_EQ(lines_at(6), all_lines());
    EXPECT_EQ(lines_at(INT32_MAX), all_lines());
}

TEST_F(log_test, below_3_errors_first) {
    EXPECT_EQ(lines_at(2), first_lines(2));
    EXPECT_EQ(lines_at(1), first_lines(1));
    EXPECT_EQ(lines_at(0), log_lines{});
    EXPECT_EQ(lines_at(INT32_MIN), log_lines{});
}

TEST_F(log_test, arguments_of_a_filtered_message_are_not_evaluated) {
    evaluation_count = 0;
    HAL_NOTICE("%d", evaluated());
    HAL_DEBUG("%d", evaluated());
    EXPECT_EQ(evaluation_count, 0);
    HAL_ERROR("%d", evaluated());
    EXPECT_EQ(evaluation_count, 1);
}

TEST_F(log_test, a_file_is_named_without_its_folders) {
    EXPECT_STREQ(kr::log_file_name("core/port.cpp"), "port.cpp");
    EXPECT_STREQ(kr::log_file_name("/a/b/c.cpp"), "c.cpp");
    EXPECT_STREQ(kr::log_file_name("plain.cpp"), "plain.cpp");
}

} // namespace
