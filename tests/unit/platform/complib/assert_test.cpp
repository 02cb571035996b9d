/*
 * The assertion of the component library's inline helpers: texts, order, severity, module, and that the program goes
 * on.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captured_log.h"
#include "kr_complib.h"

namespace {

TEST(assertion, logs_place_frame_count_and_frames) {
    captured_log log;
    bool went_on = false;
    const int line = __LINE__ + 1;
    CL_ASSERT(1 + 1 == 3);
    went_on = true;
    EXPECT_TRUE(went_on);

    const auto messages = log.messages();
    ASSERT_GE(messages.size(), 3U);
    for (const auto &each : messages) {
        EXPECT_EQ(each.severity, 1U);
        EXPECT_EQ(each.module, "LOG");
    }
    EXPECT_EQ(messages[0].text, "ASSERT in kr_complib.h[" + std::to_string(line) + "]- TestBody\n");
    const size_t frame_count = messages.size() - 2;
    EXPECT_LE(frame_count, 20U);
    EXPECT_EQ(messages[1].text, "ASSERT - Retreived a list of " + std::to_string(frame_count) + " elements.\n");
    for (size_t i = 0; i < frame_count; i++) {
        const std::string beginning = "ASSERT - Element " + std::to_string(i) + ": ";
        EXPECT_THAT(messages[i + 2].text, testing::StartsWith(beginning));
        EXPECT_THAT(messages[i + 2].text, testing::EndsWith(".\n"));
        EXPECT_GT(messages[i + 2].text.size(), beginning.size() + 2);
    }
}

__attribute__((noinline)) int assert_at_depth(int depth) {
    if (depth == 0) {
        CL_ASSERT(false);
        return 1;
    }
    volatile int below = assert_at_depth(depth - 1); // volatile: no tail call, so that every call has a frame
    return below;
}

TEST(assertion, takes_at_most_20_frames) {
    captured_log log;
    EXPECT_EQ(assert_at_depth(40), 1);
    EXPECT_EQ(log.count_of("ASSERT - Retreived a list of 20 elements.\n"), 1U);
    EXPECT_EQ(log.count_of("ASSERT - Element "), 20U);
    EXPECT_EQ(log.count_of("ASSERT - Element 19: "), 1U);
}

TEST(assertion, names_another_file_when_told) {
    captured_log log;
    CL_ASSERT_AT(false, "common.h");
    EXPECT_EQ(log.count_of("ASSERT in common.h["), 1U);
}

TEST(assertion, is_silent_and_evaluates_its_condition_once_when_it_holds) {
    captured_log log;
    int evaluations = 0;
    CL_ASSERT(++evaluations == 1);
    EXPECT_EQ(evaluations, 1);
    EXPECT_TRUE(log.messages().empty());
}

TEST(assertion, of_each_inline_helper) {
    captured_log log;
    cl_qmap_t map{};
    cl_qpool_t pool{};
    size_t expected = 0;
    const auto expect_one = [&](const char *function) {
        expected++;
        EXPECT_EQ(log.count_of("ASSERT in kr_complib.h["), expected) << function;
        size_t named = 0;
        for (const auto &each : log.messages()) {
            named += each.text.starts_with("ASSERT in ") && each.text.ends_with(std::string("]- ") + function + "\n");
        }
        EXPECT_EQ(named, 1U) << function;
    };
    EXPECT_EQ(cl_qmap_count(&map), 0U);
    expect_one("cl_qmap_count");
    EXPECT_EQ(cl_qmap_head(&map), nullptr);
    expect_one("cl_qmap_head");
    EXPECT_EQ(cl_qmap_tail(&map), nullptr);
    expect_one("cl_qmap_tail");
    EXPECT_EQ(cl_qmap_end(&map), &map.nil);
    expect_one("cl_qmap_end");
    EXPECT_EQ(cl_qpool_count(&pool), 0U);
    expect_one("cl_qpool_count");
}

} // namespace
