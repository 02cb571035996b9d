/*
 * That a leak would be noticed, in the builds whose sanitizer says so: when a program ends, and in a child that leaves
 * with _exit. Wherever leaks cannot be looked for (a tracer, detect_leaks=0), this fails rather than all is well.
 */
#include "tests/support/leaks.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace {

__attribute__((noinline)) void lose_memory() {
    auto *volatile lost = static_cast<uint8_t *>(malloc(100));
    lost[0] = 1;
    lost = nullptr;
}

// What is left of the pointer in registers and below the stack's end goes.
__attribute__((noinline)) void forget() {
    volatile uint8_t over[4096];
    for (volatile uint8_t &byte : over) {
        byte = 0;
    }
}

TEST(leaks, are_noticed_at_the_end_of_a_program) {
    EXPECT_EXIT(
        {
            lose_memory();
            forget();
            exit(0);
        },
        [](int end) { return WIFEXITED(end) && WEXITSTATUS(end) != 0; }, "detected memory leaks");
}

TEST(leaks, are_noticed_in_a_child_that_leaves) {
    EXPECT_EXIT(
        {
            const bool before = kr_test::has_leaked();
            lose_memory();
            forget();
            _exit(!before && kr_test::has_leaked() ? 7 : 0);
        },
        testing::ExitedWithCode(7), "detected memory leaks");
}

} // namespace
