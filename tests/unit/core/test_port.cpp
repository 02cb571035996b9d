/*
 * The port database: assignment of OF ports, the three directions of look-up, its limits, and records that share an
 * interface index or a logical port, in every order of removal and against a model.
 */
#include <algorithm>
#include <array>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "core/port.h"
#include "kr_complib.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_seed.h"

namespace {

constexpr uint32_t untouched = 0xdeadbeef;

// What a process sees that asks before there is a database.
struct before_init_answers {
    uint32_t count = 7;
    uint32_t of_port = untouched;
    uint32_t added_of_port = untouched;
    uint32_t removed_of_port = 5;
    const port_info *info = nullptr;
    kr_sdn_hal_status arr = port_get_arr(&of_port, &count);
    kr_sdn_hal_status get = port_get(5, &info);
    kr_sdn_hal_status translate = port_translate_ifindex(5, &of_port);
    kr_sdn_hal_status add = port_set(PORT_CMD_ADD, 5, 0, 5, 0, &added_of_port);
    kr_sdn_hal_status remove = port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &removed_of_port);
} const before_init;

kr_sdn_hal_status add(uint32_t ifindex, int32_t requested, uint32_t log_port, uint32_t *of_port, uint32_t aux = 0) {
    return port_set(PORT_CMD_ADD, ifindex, requested, log_port, aux, of_port);
}

// Adds and expects to be let.
uint32_t added(uint32_t ifindex, int32_t requested, uint32_t log_port, uint32_t aux = 0) {
    uint32_t of_port = untouched;
    EXPECT_EQ(add(ifindex, requested, log_port, &of_port, aux), KR_SDN_HAL_STATUS_SUCCESS);
    return of_port;
}

kr_sdn_hal_status removed(uint32_t of_port) {
    return port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &of_port);
}

uint32_t port_count() {
    uint32_t count = 0;
    EXPECT_EQ(port_get_arr(nullptr, &count), KR_SDN_HAL_STATUS_SUCCESS);
    return count;
}

std::vector<uint32_t> all_ports() {
    std::vector<uint32_t> ports(PORT_MAX_COUNT + 1);
    auto count = static_cast<uint32_t>(ports.size());
    EXPECT_EQ(port_get_arr(ports.data(), &count), KR_SDN_HAL_STATUS_SUCCESS);
    ports.resize(count);
    return ports;
}

uint32_t of_ifindex(uint32_t ifindex) {
    uint32_t of_port = untouched;
    const kr_sdn_hal_status status = port_translate_ifindex(ifindex, &of_port);
    EXPECT_TRUE(status == KR_SDN_HAL_STATUS_SUCCESS || of_port == untouched);
    return of_port;
}

uint32_t of_log_port(uint32_t log_port) {
    uint32_t of_port = untouched;
    const kr_sdn_hal_status status = port_translate_log_port(log_port, &of_port);
    EXPECT_TRUE(status == KR_SDN_HAL_STATUS_SUCCESS || of_port == untouched);
    return of_port;
}

class port_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(port_init(), KR_SDN_HAL_STATUS_SUCCESS);
    }
    void TearDown() override {
        kr_soft_fault_clear();
        EXPECT_TRUE(log.take().empty()) << "the port database logs nothing";
    }
    kr_test::log_capture log;
};

TEST_F(port_test, ifindex_32767_without_request_gives_of_port_32767) {
    uint32_t of_port = untouched;
    EXPECT_EQ(add(32767, 0, 1, &of_port), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(of_port, 32767U);
}

TEST_F(port_test, ifindex_32768_without_request_exceeds_range) {
    for (const uint32_t ifindex : {32768U, 65279U, 0xFFFFFFFFU}) {
        uint32_t of_port = untouched;
        EXPECT_EQ(add(ifindex, 0, 1, &of_port), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
        EXPECT_EQ(of_port, untouched);
    }
    EXPECT_EQ(port_count(), 0U);
    EXPECT_EQ(of_ifindex(32768), untouched);
}

TEST_F(port_test, ifindex_0_without_request_gives_of_port_0) {
    EXPECT_EQ(added(0, 0, 1), 0U);
}

TEST_F(port_test, any_ifindex_goes_with_a_requested_of_port) {
    EXPECT_EQ(added(0xFFFFFFFF, 1, 1), 32769U);
    EXPECT_EQ(of_ifindex(0xFFFFFFFF), 32769U);
}

TEST_F(port_test, requested_32511_gives_65279) {
    EXPECT_EQ(added(1, 32511, 1), 65279U);
}

TEST_F(port_test, requested_minus_32768_gives_0) {
    EXPECT_EQ(added(1, -32768, 1), 0U);
}

TEST_F(port_test, requested_minus_1_gives_32767) {
    EXPECT_EQ(added(1, -1, 1), 32767U);
}

TEST_F(port_test, requested_32512_and_minus_32769_are_refused_with_9) {
    for (const int32_t requested : {32512, -32769, INT32_MAX, INT32_MIN}) {
        uint32_t of_port = untouched;
        const kr_sdn_hal_status status = add(1, requested, 1, &of_port);
        EXPECT_EQ(status, 9U) << requested;
        EXPECT_EQ(of_port, untouched) << requested;
    }
    EXPECT_EQ(port_count(), 0U);
}

TEST_F(port_test, overlapping_ranges_meet_at_the_check_for_uniqueness) {
    EXPECT_EQ(added(12, 0, 1), 12U);
    uint32_t of_port = untouched;
    EXPECT_EQ(add(99, -32768 + 12, 2, &of_port), KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(of_port, 12U) << "the OF port is assigned before it is looked up";
    EXPECT_EQ(of_ifindex(99), untouched);
}

TEST_F(port_test, same_of_port_twice_returns_5_and_keeps_the_first_record) {
    EXPECT_EQ(added(7, 0, 70, 700), 7U);
    uint32_t of_port = untouched;
    EXPECT_EQ(add(7, 0, 71, &of_port, 701), 5U);
    const port_info *info = nullptr;
    ASSERT_EQ(port_get(7, &info), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(info->ifindex, 7U);
    EXPECT_EQ(info->log_port, 70U);
    EXPECT_EQ(info->aux, 700U);
    EXPECT_EQ(of_log_port(71), untouched);
    EXPECT_EQ(port_count(), 1U);
}

TEST_F(port_test, port_101_returns_1) {
    for (uint32_t i = 1; i <= PORT_MAX_COUNT; i++) {
        ASSERT_EQ(added(i, 0, 1000 + i), i);
    }
    uint32_t of_port = untouched;
    EXPECT_EQ(add(101, 0, 1101, &of_port), 1U);
    EXPECT_EQ(port_count(), 100U);
    EXPECT_EQ(of_ifindex(101), untouched);
    EXPECT_EQ(of_log_port(1101), untouched);

    ASSERT_EQ(removed(50), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(added(101, 0, 1101), 101U) << "the record of a removed port is used again";
    EXPECT_EQ(port_count(), 100U);
}

TEST_F(port_test, full_database_still_answers_duplicate_before_full) {
    for (uint32_t i = 1; i <= PORT_MAX_COUNT; i++) {
        ASSERT_EQ(added(i, 0, 1000 + i), i);
    }
    uint32_t of_port = untouched;
    EXPECT_EQ(add(100, 0, 1, &of_port), KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
}

TEST_F(port_test, arr_with_count_0_returns_the_number_and_may_have_no_array) {
    for (uint32_t i = 1; i <= 5; i++) {
        (void)added(i, 0, i);
    }
    uint32_t count = 0;
    EXPECT_EQ(port_get_arr(nullptr, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 5U);
    uint32_t ports[5] = {untouched, untouched, untouched, untouched, untouched};
    count = 0;
    EXPECT_EQ(port_get_arr(ports, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 5U);
    EXPECT_EQ(ports[0], untouched);
}

TEST_F(port_test, arr_with_count_2_of_five_returns_the_two_lowest) {
    for (const uint32_t i : {40U, 10U, 50U, 20U, 30U}) {
        (void)added(i, 0, i);
    }
    uint32_t ports[3] = {untouched, untouched, untouched};
    uint32_t count = 2;
    EXPECT_EQ(port_get_arr(ports, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(ports[0], 10U);
    EXPECT_EQ(ports[1], 20U);
    EXPECT_EQ(ports[2], untouched);
}

TEST_F(port_test, arr_with_room_for_more_returns_all_in_order) {
    for (const uint32_t i : {40U, 10U, 50U, 20U, 30U}) {
        (void)added(i, 0, i);
    }
    EXPECT_EQ(all_ports(), (std::vector<uint32_t>{10, 20, 30, 40, 50}));
}

TEST_F(port_test, arr_of_an_empty_database_is_empty) {
    uint32_t port = untouched;
    uint32_t count = 1;
    EXPECT_EQ(port_get_arr(&port, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(port, untouched);
}

TEST_F(port_test, removing_an_unknown_of_port_returns_4) {
    (void)added(1, 0, 1);
    EXPECT_EQ(removed(2), 4U);
    EXPECT_EQ(port_count(), 1U);
}

TEST_F(port_test, translate_ifindex_of_a_removed_port_returns_4) {
    (void)added(9, 0, 90);
    ASSERT_EQ(removed(9), KR_SDN_HAL_STATUS_SUCCESS);
    uint32_t of_port = untouched;
    EXPECT_EQ(port_translate_ifindex(9, &of_port), 4U);
    EXPECT_EQ(port_translate_log_port(90, &of_port), 4U);
    EXPECT_EQ(of_port, untouched);
    EXPECT_EQ(removed(9), 4U);
}

TEST_F(port_test, remove_ignores_the_other_arguments) {
    (void)added(1, 0, 10);
    (void)added(2, 0, 20);
    uint32_t of_port = 1;
    EXPECT_EQ(port_set(PORT_CMD_REMOVE, 2, 32512, 20, 77, &of_port), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(of_port, 1U);
    EXPECT_EQ(of_ifindex(1), untouched);
    EXPECT_EQ(of_log_port(10), untouched);
    EXPECT_EQ(of_ifindex(2), 2U);
    EXPECT_EQ(of_log_port(20), 2U);
}

TEST_F(port_test, command_1_returns_0_and_changes_nothing) {
    (void)added(1, 0, 10);
    for (const uint32_t command : {1U, 3U, 0xFFFFFFFFU}) {
        uint32_t of_port = 1;
        EXPECT_EQ(port_set(command, 2, 0, 20, 0, &of_port), 0U);
        EXPECT_EQ(of_port, 1U);
        EXPECT_EQ(port_set(command, 2, 0, 20, 0, nullptr), 0U);
    }
    EXPECT_EQ(all_ports(), std::vector<uint32_t>{1});
    EXPECT_EQ(of_ifindex(2), untouched);
}

TEST_F(port_test, look_ups_go_all_ways) {
    const uint32_t of_port = added(3, 100, 0x10001, 0xA);
    EXPECT_EQ(of_port, 32868U);
    uint32_t value = untouched;
    EXPECT_EQ(port_get_ifindex(of_port, &value), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(value, 3U);
    EXPECT_EQ(port_get_log_port(of_port, &value), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(value, 0x10001U);
    EXPECT_EQ(port_translate_ifindex(3, &value), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(value, of_port);
    value = untouched;
    EXPECT_EQ(port_translate_log_port(0x10001, &value), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(value, of_port);
    const port_info *info = nullptr;
    ASSERT_EQ(port_get(of_port, &info), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(info->aux, 0xAU);
}

TEST_F(port_test, look_ups_of_unknown_keys_return_4_and_leave_the_output) {
    uint32_t value = untouched;
    EXPECT_EQ(port_get_ifindex(1, &value), 4U);
    EXPECT_EQ(port_get_log_port(1, &value), 4U);
    EXPECT_EQ(port_translate_ifindex(1, &value), 4U);
    EXPECT_EQ(port_translate_log_port(1, &value), 4U);
    EXPECT_EQ(value, untouched);
    const port_info other{};
    const port_info *info = &other;
    EXPECT_EQ(port_get(1, &info), 4U);
    EXPECT_EQ(info, &other);
}

TEST_F(port_test, null_outputs_return_8_before_the_key_is_looked_up) {
    (void)added(1, 0, 1);
    for (const uint32_t key : {1U, 2U}) {
        EXPECT_EQ(port_get_ifindex(key, nullptr), 8U);
        EXPECT_EQ(port_get_log_port(key, nullptr), 8U);
        EXPECT_EQ(port_translate_ifindex(key, nullptr), 8U);
        EXPECT_EQ(port_translate_log_port(key, nullptr), 8U);
    }
}

TEST_F(port_test, null_arguments_of_the_other_calls_are_refused) {
    (void)added(1, 0, 1);
    EXPECT_EQ(port_set(PORT_CMD_ADD, 2, 0, 2, 0, nullptr), 8U);
    EXPECT_EQ(port_set(PORT_CMD_REMOVE, 1, 0, 1, 0, nullptr), 8U);
    EXPECT_EQ(port_get_arr(nullptr, nullptr), 8U);
    uint32_t count = 3;
    EXPECT_EQ(port_get_arr(nullptr, &count), 8U);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(all_ports(), std::vector<uint32_t>{1});
}

TEST_F(port_test, info_stays_valid_until_the_port_goes) {
    (void)added(50, 0, 500, 1);
    const port_info *info = nullptr;
    ASSERT_EQ(port_get(50, &info), KR_SDN_HAL_STATUS_SUCCESS);
    for (uint32_t i = 1; i < 50; i++) {
        (void)added(i, 0, i);
    }
    for (uint32_t i = 1; i < 50; i++) {
        ASSERT_EQ(removed(i), KR_SDN_HAL_STATUS_SUCCESS);
    }
    EXPECT_EQ(info->ifindex, 50U);
    EXPECT_EQ(info->log_port, 500U);
    EXPECT_EQ(info->aux, 1U);
}

TEST_F(port_test, deinit_leaves_the_records) {
    (void)added(1, 0, 10);
    EXPECT_EQ(port_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(of_ifindex(1), 1U);
    EXPECT_EQ(port_count(), 1U);
}

TEST_F(port_test, init_after_deinit_starts_empty_with_a_whole_pool) {
    for (uint32_t round = 0; round < 3; round++) {
        for (uint32_t i = 1; i <= PORT_MAX_COUNT; i++) {
            ASSERT_EQ(added(i, 0, i), i);
        }
        ASSERT_EQ(port_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
        ASSERT_EQ(port_init(), KR_SDN_HAL_STATUS_SUCCESS);
        EXPECT_EQ(port_count(), 0U);
        EXPECT_EQ(of_ifindex(1), untouched);
        EXPECT_EQ(of_log_port(1), untouched);
    }
}

TEST_F(port_test, pool_failure_at_init_returns_1_and_a_retry_works) {
    (void)added(1, 0, 1);
    ASSERT_EQ(kr_soft_fault_set("cl_qpool_init", 0, CL_INSUFFICIENT_MEMORY, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(port_init(), 1U);
    uint32_t of_port = untouched;
    EXPECT_EQ(port_count(), 0U);
    EXPECT_EQ(port_translate_ifindex(1, &of_port), 4U);
    EXPECT_EQ(add(1, 0, 1, &of_port), 1U);
    EXPECT_EQ(removed(1), 4U);
    ASSERT_EQ(port_init(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(added(1, 0, 1), 1U);
}

TEST_F(port_test, add_without_a_record_changes_nothing) {
    ASSERT_EQ(kr_soft_fault_set("cl_qpool_get", 0, 0, 0), KR_STATUS_SUCCESS);
    uint32_t of_port = untouched;
    EXPECT_EQ(add(1, 0, 2, &of_port), 1U);
    EXPECT_EQ(port_count(), 0U);
    EXPECT_EQ(of_ifindex(1), untouched);
    EXPECT_EQ(of_log_port(2), untouched);
    EXPECT_EQ(added(1, 0, 2), 1U);
}

TEST_F(port_test, before_the_first_init_nothing_is_found_and_nothing_added) {
    EXPECT_EQ(before_init.arr, KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(before_init.count, 0U);
    EXPECT_EQ(before_init.get, KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(before_init.translate, KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(before_init.of_port, untouched);
    EXPECT_EQ(before_init.add, KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(before_init.remove, KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
}

TEST_F(port_test, nothing_after_init_allocates) {
    uint32_t value = 0;
    const port_info *info = nullptr;
    uint32_t statuses = 0;
    std::array<uint32_t, PORT_MAX_COUNT> ports{};
    auto count = static_cast<uint32_t>(ports.size());

    const kr_test::allocation_counter allocations;
    for (uint32_t i = 1; i <= PORT_MAX_COUNT; i++) {
        statuses |= port_set(PORT_CMD_ADD, i % 10, static_cast<int32_t>(i), i % 7, 0, &value);
    }
    for (uint32_t i = 32769; i <= 32768 + PORT_MAX_COUNT; i++) {
        statuses |= port_get(i, &info) | port_get_ifindex(i, &value) | port_get_log_port(i, &value);
        statuses |= port_translate_ifindex(i % 10, &value) | port_translate_log_port(i % 7, &value);
    }
    statuses |= port_get_arr(ports.data(), &count);
    for (uint32_t i = 32769; i <= 32768 + PORT_MAX_COUNT; i++) {
        value = i;
        statuses |= port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &value);
    }
    EXPECT_EQ(allocations.count(), 0U);
    EXPECT_EQ(statuses, 0U);
    EXPECT_EQ(count, 100U);

    free(cl_malloc(1)); // the counter counts, also what the platform allocates
    EXPECT_EQ(allocations.count(), 1U);
}

// ---- records that share a key -----------------------------------------------------------------------------------

// The database as a list in the order of the adds.
struct model {
    std::vector<hal_port> ports;

    [[nodiscard]] uint32_t of_ifindex(uint32_t ifindex) const {
        const auto found = std::find_if(ports.begin(), ports.end(),
                                        [&](const hal_port &port) { return port.info.ifindex == ifindex; });
        return found != ports.end() ? found->of_port : untouched;
    }
    [[nodiscard]] uint32_t of_log_port(uint32_t log_port) const {
        const auto found = std::find_if(ports.begin(), ports.end(),
                                        [&](const hal_port &port) { return port.info.log_port == log_port; });
        return found != ports.end() ? found->of_port : untouched;
    }
    [[nodiscard]] bool contains(uint32_t of_port) const {
        return std::any_of(ports.begin(), ports.end(), [&](const hal_port &port) { return port.of_port == of_port; });
    }
    bool remove(uint32_t of_port) {
        return std::erase_if(ports, [&](const hal_port &port) { return port.of_port == of_port; }) != 0;
    }
};

void expect_equal(const model &expected, uint32_t key_count) {
    std::vector<uint32_t> of_ports;
    for (const hal_port &port : expected.ports) {
        of_ports.push_back(port.of_port);
        uint32_t value = untouched;
        ASSERT_EQ(port_get_ifindex(port.of_port, &value), KR_SDN_HAL_STATUS_SUCCESS);
        ASSERT_EQ(value, port.info.ifindex);
        ASSERT_EQ(port_get_log_port(port.of_port, &value), KR_SDN_HAL_STATUS_SUCCESS);
        ASSERT_EQ(value, port.info.log_port);
    }
    std::sort(of_ports.begin(), of_ports.end());
    ASSERT_EQ(all_ports(), of_ports);
    for (uint32_t key = 0; key < key_count; key++) {
        ASSERT_EQ(of_ifindex(key), expected.of_ifindex(key)) << "ifindex " << key;
        ASSERT_EQ(of_log_port(key), expected.of_log_port(key)) << "log_port " << key;
    }
}

void add_both(model &expected, uint32_t ifindex, int32_t requested, uint32_t log_port) {
    const uint32_t of_port = added(ifindex, requested, log_port);
    expected.ports.push_back({of_port, {ifindex, log_port, 0}});
}

struct shared_keys {
    bool ifindex;
    bool log_port;
};

class port_duplicates : public port_test, public ::testing::WithParamInterface<shared_keys> {};

// `count` records with shared keys, whose OF ports rise or fall with age, removed in every order.
TEST_P(port_duplicates, every_order_of_removal_finds_the_oldest_that_is_left) {
    const shared_keys shared = GetParam();
    for (uint32_t count = 2; count <= 4; count++) {
        for (const bool is_rising : {true, false}) {
            std::vector<uint32_t> order(count);
            std::iota(order.begin(), order.end(), 0U);
            do {
                model expected;
                for (uint32_t i = 0; i < count; i++) {
                    const uint32_t rank = is_rising ? 1 + i : count - i;
                    add_both(expected, shared.ifindex ? 5 : i, static_cast<int32_t>(rank), shared.log_port ? 6 : i);
                }
                ASSERT_NO_FATAL_FAILURE(expect_equal(expected, 8));
                const model all = expected;
                for (const uint32_t index : order) {
                    const uint32_t of_port = all.ports[index].of_port;
                    ASSERT_EQ(removed(of_port), KR_SDN_HAL_STATUS_SUCCESS);
                    expected.remove(of_port);
                    ASSERT_NO_FATAL_FAILURE(expect_equal(expected, 8)) << "removed " << index << " of " << count;
                }
                ASSERT_EQ(port_count(), 0U);
            } while (std::next_permutation(order.begin(), order.end()));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(keys, port_duplicates,
                         ::testing::Values(shared_keys{true, false}, shared_keys{false, true}, shared_keys{true, true}),
                         [](const auto &param_info) {
                             return std::string(param_info.param.ifindex ? "ifindex" : "") +
                                    (param_info.param.log_port ? "log_port" : "");
                         });

TEST_F(port_test, of_two_ports_with_one_ifindex_the_older_is_found_until_it_goes) {
    const uint32_t older = added(5, 1, 10);
    const uint32_t newer = added(5, 2, 20);
    EXPECT_EQ(of_ifindex(5), older);
    ASSERT_EQ(removed(older), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(of_ifindex(5), newer);
    EXPECT_EQ(of_log_port(20), newer);
    ASSERT_EQ(removed(newer), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(of_ifindex(5), untouched);
}

TEST_F(port_test, removing_the_newer_of_two_ports_with_one_ifindex_keeps_the_older) {
    const uint32_t older = added(5, 1, 10);
    const uint32_t newer = added(5, 2, 20);
    ASSERT_EQ(removed(newer), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(of_ifindex(5), older);
    EXPECT_EQ(of_log_port(10), older);
    EXPECT_EQ(of_log_port(20), untouched);
}

TEST_F(port_test, a_port_added_again_is_the_newest) {
    const uint32_t first = added(5, 1, 10);
    const uint32_t second = added(5, 2, 20);
    ASSERT_EQ(removed(first), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(added(5, 1, 10), first);
    EXPECT_EQ(of_ifindex(5), second);
}

TEST_F(port_test, random_adds_and_removals_agree_with_a_model) {
    const uint64_t seed = kr_test::test_seed();
    RecordProperty("seed", std::to_string(seed));
    SCOPED_TRACE("KR_TEST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    constexpr uint32_t key_count = 12;
    constexpr int step_count = 6000;
    model expected;
    for (int step = 0; step < step_count; step++) {
        const bool is_growing = step / 600 % 2 == 0;
        if (random() % 10 < (is_growing ? 7U : 3U)) {
            const auto ifindex = static_cast<uint32_t>(random() % key_count);
            const auto log_port = static_cast<uint32_t>(random() % key_count);
            const auto requested = static_cast<int32_t>(random() % 160);
            const uint32_t wanted = requested == 0 ? ifindex : 32768U + static_cast<uint32_t>(requested);
            uint32_t of_port = untouched;
            const kr_sdn_hal_status status = add(ifindex, requested, log_port, &of_port);
            ASSERT_EQ(of_port, wanted);
            if (expected.contains(wanted)) {
                ASSERT_EQ(status, KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS) << "step " << step;
            } else if (expected.ports.size() == PORT_MAX_COUNT) {
                ASSERT_EQ(status, KR_SDN_HAL_STATUS_ERROR) << "step " << step;
            } else {
                ASSERT_EQ(status, KR_SDN_HAL_STATUS_SUCCESS) << "step " << step;
                expected.ports.push_back({of_port, {ifindex, log_port, 0}});
            }
        } else {
            const bool is_known = !expected.ports.empty() && random() % 4 != 0;
            const uint32_t of_port = is_known ? expected.ports[random() % expected.ports.size()].of_port
                                              : 32768U + static_cast<uint32_t>(random() % 160);
            const bool is_expected = expected.remove(of_port);
            ASSERT_EQ(removed(of_port), is_expected ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND)
                << "step " << step;
        }
        ASSERT_NO_FATAL_FAILURE(expect_equal(expected, key_count)) << "step " << step;
    }
}

} // namespace
