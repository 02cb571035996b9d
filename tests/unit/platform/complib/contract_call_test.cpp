/*
 * Faults, counts and the journal, on contract calls that the test makes itself. Built from the platform's source file
 * rather than linked with its library, which keeps the helper to itself.
 */
#include "control/contract_call.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "kr_soft.h"

namespace {

using kr_soft::contract_call;
using kr_soft::contract_call_void;
using kr_soft::contract_function;
using kr_soft::text_of;

int body_count;

uint32_t open_call(uint32_t result = 0) {
    return contract_call(
        contract_function::kr_api_open,
        [=] {
            body_count++;
            return result;
        },
        [] { return text_of("%d, %s", 1, "two"); });
}

uint32_t close_call() {
    return contract_call(
        contract_function::kr_api_close,
        []() -> uint32_t {
            body_count++;
            return 0;
        },
        [] { return std::string(); });
}

void *malloc_call(void *result) {
    return contract_call(
        contract_function::cl_malloc, [=] { return result; }, [] { return std::string("8"); });
}

void destroy_call() {
    contract_call_void(
        contract_function::cl_event_destroy, [] { body_count++; }, [] { return std::string("x"); });
}

std::string journal() {
    char *const text = kr_soft_journal_text();
    std::string copy = text;
    free(text);
    return copy;
}

std::vector<uint32_t> results_of_open_calls(int call_count) {
    std::vector<uint32_t> results;
    for (int i = 0; i < call_count; i++) {
        results.push_back(open_call());
    }
    return results;
}

class contract_calls : public testing::Test {
  protected:
    void SetUp() override {
        kr_soft::contract_call_reset();
        body_count = 0;
    }
    void TearDown() override {
        kr_soft::contract_call_reset();
    }
};

TEST_F(contract_calls, run_their_body_and_nothing_else_when_nothing_is_armed) {
    EXPECT_EQ(open_call(5), 5U);
    destroy_call();
    EXPECT_EQ(body_count, 2);
    EXPECT_EQ(kr_soft_call_count("kr_api_open"), 0U);
    EXPECT_EQ(journal(), "");
}

TEST_F(contract_calls, fail_next_or_nth_once) {
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 0, 9, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(results_of_open_calls(3), (std::vector<uint32_t>{9, 0, 0}));
    EXPECT_EQ(body_count, 2); // the failed call did nothing
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 2, 8, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(results_of_open_calls(4), (std::vector<uint32_t>{0, 0, 8, 0}));
}

TEST_F(contract_calls, fail_persistently_from_the_nth_on) {
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 1, 7, 1), KR_STATUS_SUCCESS);
    EXPECT_EQ(results_of_open_calls(4), (std::vector<uint32_t>{0, 7, 7, 7}));
    kr_soft_fault_clear();
    EXPECT_EQ(open_call(), 0U);
}

TEST_F(contract_calls, of_other_functions_neither_fail_nor_count_down) {
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 1, 7, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(close_call(), 0U);
    EXPECT_EQ(close_call(), 0U);
    EXPECT_EQ(results_of_open_calls(2), (std::vector<uint32_t>{0, 7}));
}

TEST_F(contract_calls, of_any_function_meet_the_star) {
    ASSERT_EQ(kr_soft_fault_set("*", 1, 6, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(open_call(), 0U);
    EXPECT_EQ(close_call(), 6U);
    EXPECT_EQ(open_call(), 0U);
    ASSERT_EQ(kr_soft_fault_set("*", 0, 5, 1), KR_STATUS_SUCCESS);
    EXPECT_EQ(open_call(), 5U);
    EXPECT_EQ(close_call(), 5U);
    int object = 0;
    EXPECT_EQ(malloc_call(&object), nullptr);
}

TEST_F(contract_calls, keep_several_faults_apart) {
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 0, 4, 0), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 2, 5, 0), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_fault_set("kr_api_close", 0, 6, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(results_of_open_calls(4), (std::vector<uint32_t>{4, 0, 5, 0}));
    EXPECT_EQ(close_call(), 6U);
}

TEST_F(contract_calls, two_faults_of_one_call_take_a_call_each) {
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 0, 4, 0), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 0, 5, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(results_of_open_calls(3), (std::vector<uint32_t>{4, 5, 0}));
}

TEST_F(contract_calls, refuse_names_that_are_none) {
    for (const char *name : {"kr_api_opens", "kr_api_ope", "", "cl_qmap_insert", "kr_log", "**"}) {
        EXPECT_EQ(kr_soft_fault_set(name, 0, 1, 1), KR_STATUS_PARAM_ERROR) << name;
        EXPECT_EQ(kr_soft_call_count(name), 0U) << name;
    }
    EXPECT_EQ(kr_soft_fault_set(nullptr, 0, 1, 1), KR_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_soft_call_count(nullptr), 0U);
    EXPECT_EQ(open_call(), 0U);
}

TEST_F(contract_calls, are_known_by_every_name_of_the_list) {
#define X(name) EXPECT_EQ(kr_soft_fault_set(#name, 1000, 1, 0), KR_STATUS_SUCCESS) << #name;
    KR_SOFT_CONTRACT_FUNCTIONS(X)
#undef X
}

TEST_F(contract_calls, are_counted_while_something_is_armed) {
    kr_soft_journal_start();
    open_call();
    open_call();
    close_call();
    destroy_call();
    EXPECT_EQ(kr_soft_call_count("kr_api_open"), 2U);
    EXPECT_EQ(kr_soft_call_count("kr_api_close"), 1U);
    EXPECT_EQ(kr_soft_call_count("*"), 4U);
    kr_soft_journal_stop();
    open_call();
    EXPECT_EQ(kr_soft_call_count("kr_api_open"), 2U);
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 0, 1, 1), KR_STATUS_SUCCESS);
    open_call(); // a call that fails is a call
    EXPECT_EQ(kr_soft_call_count("kr_api_open"), 3U);
    kr_soft::contract_call_reset();
    EXPECT_EQ(kr_soft_call_count("*"), 0U);
}

TEST_F(contract_calls, leave_lines_in_the_journal) {
    int object = 0;
    open_call();
    kr_soft_journal_start();
    open_call();
    ASSERT_EQ(kr_soft_fault_set("kr_api_open", 0, 4294967295U, 0), KR_STATUS_SUCCESS);
    open_call();
    destroy_call();
    malloc_call(&object);
    malloc_call(nullptr);
    EXPECT_EQ(journal(), "kr_api_open(1, two) = 0\n"
                         "kr_api_open(1, two) = 4294967295\n"
                         "cl_event_destroy(x)\n"
                         "cl_malloc(8) = pointer\n"
                         "cl_malloc(8) = NULL\n");
    kr_soft_journal_stop();
    open_call();
    EXPECT_EQ(journal().size(), 24U + 33U + 20U + 23U + 20U); // stopped, not emptied
    kr_soft_journal_start();
    EXPECT_EQ(journal(), "");
    open_call();
    EXPECT_EQ(journal(), "kr_api_open(1, two) = 0\n");
}

TEST_F(contract_calls, describe_outputs_after_the_body) {
    kr_soft_journal_start();
    uint32_t output = 0;
    contract_call(
        contract_function::kr_api_open,
        [&]() -> uint32_t {
            output = 3;
            return 0;
        },
        [&] { return text_of("%u", output); });
    EXPECT_EQ(journal(), "kr_api_open(3) = 0\n");
}

TEST_F(contract_calls, keep_long_arguments_whole) {
    const std::string name(5000, 'a');
    EXPECT_EQ(text_of("%s", name.c_str()), name);
}

TEST_F(contract_calls, of_many_threads_are_all_counted_and_fail_once) {
    kr_soft_journal_start();
    ASSERT_EQ(kr_soft_fault_set("kr_api_close", 1500, 3, 0), KR_STATUS_SUCCESS);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            for (int call = 0; call < 500; call++) {
                failures +=
                    contract_call(
                        contract_function::kr_api_close, [] { return uint32_t{0}; }, [] { return std::string(); }) == 3
                        ? 1
                        : 0;
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(kr_soft_call_count("kr_api_close"), 2000U);
    EXPECT_EQ(failures.load(), 1);
}

} // namespace
