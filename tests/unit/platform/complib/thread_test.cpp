/*
 * Threads: start, name, join, and the destructions that must do nothing.
 */
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <string>

#include "captured_log.h"
#include "kr_complib.h"

namespace {

std::string name_in_thread(const char *name) {
    std::string seen;
    cl_thread_t thread{};
    const auto function = [](void *context) {
        char own[16] = "";
        pthread_getname_np(pthread_self(), own, sizeof own);
        *static_cast<std::string *>(context) = own;
    };
    EXPECT_EQ(cl_thread_init(&thread, function, &seen, name), CL_SUCCESS);
    cl_thread_destroy(&thread);
    return seen;
}

TEST(thread, runs_its_function_with_its_context_and_is_joined) {
    for (int i = 0; i < 100; i++) {
        int value = 0; // not atomic: the join orders it
        cl_thread_t thread{};
        ASSERT_EQ(cl_thread_init(
                      &thread, [](void *context) { *static_cast<int *>(context) = 42; }, &value, "worker"),
                  CL_SUCCESS);
        cl_thread_destroy(&thread);
        ASSERT_EQ(value, 42);
    }
}

TEST(thread, has_the_first_15_characters_of_its_name) {
    char own[16] = "";
    pthread_getname_np(pthread_self(), own, sizeof own);
    EXPECT_EQ(name_in_thread("worker"), "worker");
    EXPECT_EQ(name_in_thread("123456789012345"), "123456789012345");
    EXPECT_EQ(name_in_thread("1234567890123456789"), "123456789012345");
    EXPECT_EQ(name_in_thread(nullptr), own); // the starting thread's
    EXPECT_EQ(name_in_thread(""), own);
}

TEST(thread, destroying_what_does_not_run_does_nothing) {
    cl_thread_t thread{};
    cl_thread_destroy(&thread);
    cl_thread_destroy(nullptr);
    ASSERT_EQ(cl_thread_init(
                  &thread, [](void *) {}, nullptr, nullptr),
              CL_SUCCESS);
    cl_thread_destroy(&thread);
    cl_thread_destroy(&thread);
    ASSERT_EQ(cl_thread_init(
                  &thread, [](void *) {}, nullptr, nullptr),
              CL_SUCCESS); // may be started again
    cl_thread_destroy(&thread);
}

TEST(thread, refuses_no_function) {
    cl_thread_t thread{};
    EXPECT_EQ(cl_thread_init(&thread, nullptr, nullptr, nullptr), CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_thread_init(
                  nullptr, [](void *) {}, nullptr, nullptr),
              CL_INVALID_PARAMETER);
    cl_thread_destroy(&thread);
}

TEST(thread, joining_itself_is_asserted_and_leaves_it_to_others) {
    captured_log log;
    struct {
        cl_thread_t thread{};
        std::atomic<bool> survived{false};
    } own;
    ASSERT_EQ(cl_thread_init(
                  &own.thread,
                  [](void *context) {
                      auto *const self = static_cast<decltype(own) *>(context);
                      cl_thread_destroy(&self->thread);
                      self->survived = true;
                  },
                  &own, nullptr),
              CL_SUCCESS);
    while (!own.survived) {
        sched_yield();
    }
    EXPECT_EQ(own.thread.state, CL_STATE_INITIALIZED); // still to be joined
    cl_thread_destroy(&own.thread);
    EXPECT_EQ(log.count_of("ASSERT in thread.cpp["), 1U);
}

} // namespace
