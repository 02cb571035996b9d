/*
 * The exported port functions on a real port database and a port plug-in that is really loaded: every check with its
 * line, every failure with its line, and what reaches the plug-in.
 */
#include <unistd.h>

#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/fpt.h"
#include "core/port.h"
#include "kr_sdn_hal.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/formatted.h"
#include "tests/support/log_capture.h"
#include "tests/unit/core/fpt_fixture/fpt_fixture.h"

fpt_fixture_state fpt_fixture;

namespace {

using kr_test::formatted;
using kr_test::log_line;
using log_lines = std::vector<log_line>;

constexpr uint32_t untouched = 0xdeadbeef;
constexpr uint32_t port = 32769;

log_line api_error(const std::string &text) {
    return {KR_LOG_ERROR, "HAL_API_PORT", text + "\n"};
}
log_line not_initialized() {
    return {KR_LOG_ERROR, "FPT", "FPT is not initialized.\n"};
}

// What the port database answers the next request for the ports; 0: what it really has.
uint32_t port_list_status = 0;

const int change_directory_result = chdir(FPT_FIXTURE_DIR);

class port_api_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(change_directory_result, 0) << FPT_FIXTURE_DIR;
        fpt_fixture = {};
        ASSERT_EQ(port_init(), KR_SDN_HAL_STATUS_SUCCESS);
        system_profile profile{};
        strcpy(profile.fpt_library_path, "./fpt_complete.so");
        ASSERT_EQ(fpt_init(&profile), KR_SDN_HAL_STATUS_SUCCESS);
    }
    void TearDown() override {
        EXPECT_EQ(log.take(), log_lines{});
        fpt_fixture = {};
        (void)fpt_deinit();
    }
    void add_port(uint32_t ifindex, uint32_t aux = 0) {
        uint32_t of_port = 0;
        ASSERT_EQ(port_set(PORT_CMD_ADD, ifindex, 0, ifindex, aux, &of_port), KR_SDN_HAL_STATUS_SUCCESS);
    }
    void fail_with(const std::string &name, uint32_t status) {
        memset(fpt_fixture.failing, 0, sizeof(fpt_fixture.failing));
        name.copy(fpt_fixture.failing, sizeof(fpt_fixture.failing) - 1);
        fpt_fixture.failure_status = status;
    }
    // The one call that reached the plug-in since the last look.
    fpt_fixture_call take_call() {
        EXPECT_EQ(fpt_fixture.call_count, 1U);
        const fpt_fixture_call call = fpt_fixture.calls[0];
        fpt_fixture.call_count = 0;
        return call;
    }
    // The refusal came with the line, and nothing reached the plug-in.
    void expect_refused(kr_sdn_hal_status status, uint32_t expected, const std::string &text) {
        EXPECT_EQ(status, expected) << text;
        EXPECT_EQ(log.take(), log_lines{api_error(text)});
        EXPECT_EQ(fpt_fixture.call_count, 0U) << text;
    }
    void expect_passed(kr_sdn_hal_status status, const char *entry, uint32_t value) {
        EXPECT_EQ(status, KR_SDN_HAL_STATUS_SUCCESS);
        const fpt_fixture_call call = take_call();
        EXPECT_STREQ(call.name, entry);
        EXPECT_EQ(call.port, port);
        EXPECT_EQ(call.value, value);
    }
    kr_test::log_capture log;
};

// ---- the port database ------------------------------------------------------------------------------------------

TEST_F(port_api_test, arr_with_a_null_array_returns_the_number_of_ports) {
    add_port(1);
    add_port(2);
    add_port(3);
    for (const uint32_t given : {0U, 2U, 100U}) {
        uint32_t count = given;
        EXPECT_EQ(kr_sdn_hal_port_arr_get(nullptr, &count), KR_SDN_HAL_STATUS_SUCCESS);
        EXPECT_EQ(count, 3U);
    }
}

TEST_F(port_api_test, arr_fills_at_most_count_ports_in_order) {
    add_port(30);
    add_port(10);
    add_port(20);
    uint32_t ports[4] = {untouched, untouched, untouched, untouched};
    uint32_t count = 2;
    EXPECT_EQ(kr_sdn_hal_port_arr_get(ports, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(ports[0], 10U);
    EXPECT_EQ(ports[1], 20U);
    EXPECT_EQ(ports[2], untouched);
    count = 4;
    EXPECT_EQ(kr_sdn_hal_port_arr_get(ports, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(ports[2], 30U);
    EXPECT_EQ(ports[3], untouched);
}

TEST_F(port_api_test, arr_with_count_0_and_an_array_asks_for_the_number) {
    add_port(1);
    uint32_t ports[1] = {untouched};
    uint32_t count = 0;
    EXPECT_EQ(kr_sdn_hal_port_arr_get(ports, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(ports[0], untouched);
}

TEST_F(port_api_test, arr_with_a_null_count_returns_8) {
    uint32_t ports[1] = {untouched};
    expect_refused(kr_sdn_hal_port_arr_get(ports, nullptr), 8, "<port_arr> param is NULL.");
    expect_refused(kr_sdn_hal_port_arr_get(nullptr, nullptr), 8, "<port_arr> param is NULL.");
    EXPECT_EQ(ports[0], untouched);
}

TEST_F(port_api_test, arr_returns_what_the_port_database_answers_with_a_line) {
    add_port(1);
    uint32_t ports[1] = {untouched};
    uint32_t count = 1;
    port_list_status = 2;
    expect_refused(kr_sdn_hal_port_arr_get(ports, &count), 2, "port_get_arr failed.");
    port_list_status = 0;
    EXPECT_EQ(kr_sdn_hal_port_arr_get(ports, &count), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(port_api_test, arr_does_not_depend_on_the_plug_in) {
    add_port(1);
    ASSERT_EQ(fpt_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    uint32_t count = 0;
    EXPECT_EQ(kr_sdn_hal_port_arr_get(nullptr, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 1U);
}

TEST_F(port_api_test, capabilities_are_what_the_adder_gave) {
    add_port(1);
    add_port(2, 0xCAFE);
    uint32_t capabilities = untouched;
    EXPECT_EQ(kr_sdn_hal_port_capabilities_get(1, &capabilities), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(capabilities, 0U);
    EXPECT_EQ(kr_sdn_hal_port_capabilities_get(2, &capabilities), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(capabilities, 0xCAFEU);
}

TEST_F(port_api_test, capabilities_of_a_port_not_in_the_database_return_4) {
    uint32_t capabilities = untouched;
    expect_refused(kr_sdn_hal_port_capabilities_get(5, &capabilities), 4, "port_get failed.");
    EXPECT_EQ(capabilities, untouched);
}

TEST_F(port_api_test, capabilities_null_returns_8_before_the_port_is_looked_up) {
    expect_refused(kr_sdn_hal_port_capabilities_get(5, nullptr), 8, "<port_cap> param is NULL.");
}

// ---- ranges -----------------------------------------------------------------------------------------------------

TEST_F(port_api_test, admin_states_0_to_2_reach_the_plug_in) {
    for (const int32_t state : {0, 1, 2}) {
        expect_passed(kr_sdn_hal_port_state_set(port, state), "port_state_set", static_cast<uint32_t>(state));
    }
}

TEST_F(port_api_test, admin_state_3_returns_9) {
    for (const int32_t state : {3, -1, INT32_MAX, INT32_MIN}) {
        expect_refused(kr_sdn_hal_port_state_set(port, state), 9,
                       "<admin_state> param [Unknown port state] exceeds range.");
    }
}

TEST_F(port_api_test, stp_states_0_to_3_reach_the_plug_in) {
    for (const int32_t state : {0, 1, 2, 3}) {
        expect_passed(kr_sdn_hal_port_rstp_state_set(port, state), "rstp_port_state_set", static_cast<uint32_t>(state));
    }
}

TEST_F(port_api_test, stp_states_4_and_minus_1_return_9_with_an_unknown_name) {
    for (const int32_t state : {4, -1, INT32_MAX, INT32_MIN}) {
        expect_refused(kr_sdn_hal_port_rstp_state_set(port, state), 9,
                       "STP port state [Unknown port state] exceeds range.");
    }
}

TEST_F(port_api_test, mtu_68_and_10000_reach_the_plug_in) {
    for (const uint16_t mtu : {uint16_t{68}, uint16_t{1500}, uint16_t{10000}}) {
        expect_passed(kr_sdn_hal_port_mtu_set(port, mtu), "port_mtu_set", mtu);
    }
}

TEST_F(port_api_test, mtu_67_and_10001_return_9) {
    for (const uint16_t mtu : {uint16_t{0}, uint16_t{67}, uint16_t{10001}, uint16_t{65535}}) {
        expect_refused(kr_sdn_hal_port_mtu_set(port, mtu), 9, formatted("<port_mtu> param [%d] exceeds range.", mtu));
    }
}

TEST_F(port_api_test, speed_flags_reach_the_plug_in_whole) {
    const port_speed_admin speed{1, 0, 0, 1};
    EXPECT_EQ(kr_sdn_hal_port_speed_set(port, &speed), KR_SDN_HAL_STATUS_SUCCESS);
    const fpt_fixture_call call = take_call();
    EXPECT_STREQ(call.name, "port_speed_admin_set");
    EXPECT_EQ(memcmp(&call.speed, &speed, sizeof(speed)), 0);
}

TEST_F(port_api_test, speed_flags_1_0_2_0_return_9) {
    const port_speed_admin refused[] = {
        {1, 0, 2, 0}, {2, 0, 0, 0}, {0, -1, 0, 0}, {0, 0, INT32_MIN, 0}, {1, 1, 1, 256}};
    for (const port_speed_admin &speed : refused) {
        expect_refused(kr_sdn_hal_port_speed_set(port, &speed), 9, "<admin_speed> param exceeds range.");
    }
}

TEST_F(port_api_test, speed_null_returns_8) {
    expect_refused(kr_sdn_hal_port_speed_set(port, nullptr), 8, "<admin_speed> param is NULL.");
}

TEST_F(port_api_test, counter_clear_takes_the_flags_0_and_1) {
    for (const int32_t all_ports : {0, 1}) {
        expect_passed(kr_sdn_hal_port_cntr_clear(port, all_ports), "port_cntr_clear", static_cast<uint32_t>(all_ports));
    }
    for (const int32_t all_ports : {-1, 2, INT32_MIN}) {
        expect_refused(kr_sdn_hal_port_cntr_clear(port, all_ports), 9,
                       formatted("<all_port> param [%d] exceeds range.", all_ports));
    }
}

// ---- outputs ----------------------------------------------------------------------------------------------------

TEST_F(port_api_test, null_outputs_return_8) {
    expect_refused(kr_sdn_hal_port_rstp_state_get(port, nullptr), 8, "<port_state> param is NULL.");
    expect_refused(kr_sdn_hal_port_phys_addr_get(port, nullptr), 8, "<mac_addr> param is NULL.");
    expect_refused(kr_sdn_hal_port_speed_capability_get(port, nullptr), 8, "<speed_capability> param is NULL.");
    expect_refused(kr_sdn_hal_port_mtu_get(port, nullptr), 8, "<port_mtu> param is NULL.");
    expect_refused(kr_sdn_hal_port_cntr_get(port, nullptr), 8, "<port_cntr> param is NULL.");
}

TEST_F(port_api_test, gets_hand_the_callers_pointer_to_the_plug_in) {
    int32_t stp_state = -1;
    EXPECT_EQ(kr_sdn_hal_port_rstp_state_get(port, &stp_state), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(take_call().output, &stp_state);
    EXPECT_EQ(stp_state, FPT_FIXTURE_STP_STATE);

    port_mac_address mac_address{};
    EXPECT_EQ(kr_sdn_hal_port_phys_addr_get(port, &mac_address), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(take_call().output, &mac_address);
    EXPECT_EQ(mac_address.bytes[0], 2);

    uint32_t speed_capability = 0;
    EXPECT_EQ(kr_sdn_hal_port_speed_capability_get(port, &speed_capability), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(take_call().output, &speed_capability);
    EXPECT_EQ(speed_capability, uint32_t{FPT_FIXTURE_SPEED_CAPABILITY});

    uint16_t mtu = 0;
    EXPECT_EQ(kr_sdn_hal_port_mtu_get(port, &mtu), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(take_call().output, &mtu);
    EXPECT_EQ(mtu, FPT_FIXTURE_MTU);

    port_counters counters{};
    EXPECT_EQ(kr_sdn_hal_port_cntr_get(port, &counters), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(take_call().output, &counters);
    EXPECT_EQ(counters.rx_packets, port);
    EXPECT_EQ(counters.collisions, 12U);
}

TEST_F(port_api_test, state_get_reads_what_is_asked_for) {
    int32_t admin_state = -1;
    int32_t oper_state = -1;
    EXPECT_EQ(kr_sdn_hal_port_state_get(port, &admin_state, nullptr), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_STREQ(take_call().name, "port_state_get");
    EXPECT_EQ(admin_state, FPT_FIXTURE_ADMIN_STATE);
    EXPECT_EQ(kr_sdn_hal_port_state_get(port, nullptr, &oper_state), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_STREQ(take_call().name, "port_oper_state_get");
    EXPECT_EQ(oper_state, FPT_FIXTURE_OPER_STATE);
    EXPECT_EQ(kr_sdn_hal_port_state_get(port, &admin_state, &oper_state), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(fpt_fixture.call_count, 2U);
    EXPECT_STREQ(fpt_fixture.calls[0].name, "port_state_get");
    EXPECT_STREQ(fpt_fixture.calls[1].name, "port_oper_state_get");
}

TEST_F(port_api_test, speed_get_reads_what_is_asked_for) {
    port_speed_admin admin_speed{};
    uint32_t oper_speed = 0;
    EXPECT_EQ(kr_sdn_hal_port_speed_get(port, &admin_speed, nullptr), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_STREQ(take_call().name, "port_speed_admin_get");
    EXPECT_EQ(admin_speed.speed_40g, 1);
    EXPECT_EQ(kr_sdn_hal_port_speed_get(port, nullptr, &oper_speed), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_STREQ(take_call().name, "port_speed_oper_get");
    EXPECT_EQ(oper_speed, uint32_t{FPT_FIXTURE_OPER_SPEED});
    EXPECT_EQ(kr_sdn_hal_port_speed_get(port, &admin_speed, &oper_speed), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(fpt_fixture.call_count, 2U);
    EXPECT_STREQ(fpt_fixture.calls[0].name, "port_speed_admin_get");
    EXPECT_STREQ(fpt_fixture.calls[1].name, "port_speed_oper_get");
}

TEST_F(port_api_test, gets_with_both_outputs_null_return_0_without_a_call) {
    EXPECT_EQ(kr_sdn_hal_port_state_get(port, nullptr, nullptr), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_speed_get(port, nullptr, nullptr), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(fpt_fixture.call_count, 0U);
}

TEST_F(port_api_test, a_failing_first_call_is_the_last_one) {
    int32_t admin_state = -1;
    int32_t oper_state = -1;
    fail_with("port_state_get", 1);
    EXPECT_EQ(kr_sdn_hal_port_state_get(port, &admin_state, &oper_state), 1U);
    EXPECT_STREQ(take_call().name, "port_state_get");
    EXPECT_EQ(log.take(), log_lines{api_error("fpt_port_state_get failed.")});
    EXPECT_EQ(admin_state, FPT_FIXTURE_ADMIN_STATE) << "what the plug-in left stays";
    EXPECT_EQ(oper_state, -1);

    port_speed_admin admin_speed{};
    uint32_t oper_speed = untouched;
    fail_with("port_speed_admin_get", 6);
    EXPECT_EQ(kr_sdn_hal_port_speed_get(port, &admin_speed, &oper_speed), 6U);
    EXPECT_STREQ(take_call().name, "port_speed_admin_get");
    EXPECT_EQ(log.take(), log_lines{api_error("fpt_port_speed_admin_get failed.")});
    EXPECT_EQ(oper_speed, untouched);
}

TEST_F(port_api_test, flood_mode_does_nothing) {
    ASSERT_EQ(fpt_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    fpt_fixture = {};
    uint32_t mode = untouched;
    EXPECT_EQ(kr_sdn_hal_port_flood_mode_set(port, 0xFFFFFFFF), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_flood_mode_get(port, &mode), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_flood_mode_get(port, nullptr), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(mode, untouched);
    EXPECT_EQ(fpt_fixture.call_count, 0U);
}

// ---- failures of the plug-in ------------------------------------------------------------------------------------

struct outputs {
    int32_t state;
    port_mac_address mac_address;
    port_speed_admin speed;
    uint32_t number;
    uint16_t mtu;
    port_counters counters;
};

struct failing_call {
    const char *entry; // of the plug-in
    const char *text;
    kr_sdn_hal_status (*call)(outputs &out);
};

const failing_call failing_calls[] = {
    {"port_state_set", "fpt_port_state_set failed.", [](outputs &) { return kr_sdn_hal_port_state_set(port, 1); }},
    {"port_state_get", "fpt_port_state_get failed.",
     [](outputs &out) { return kr_sdn_hal_port_state_get(port, &out.state, nullptr); }},
    {"port_oper_state_get", "fpt_port_oper_state_get failed.",
     [](outputs &out) { return kr_sdn_hal_port_state_get(port, nullptr, &out.state); }},
    {"rstp_port_state_set", "fpt_rstp_port_state_set failed.",
     [](outputs &) { return kr_sdn_hal_port_rstp_state_set(port, 3); }},
    {"rstp_port_state_get", "fpt_rstp_port_state_get failed.",
     [](outputs &out) { return kr_sdn_hal_port_rstp_state_get(port, &out.state); }},
    {"port_phys_addr_get", "fpt_port_phys_addr_get failed.",
     [](outputs &out) { return kr_sdn_hal_port_phys_addr_get(port, &out.mac_address); }},
    {"port_speed_admin_set", "fpt_port_speed_admin_set failed.",
     [](outputs &out) { return kr_sdn_hal_port_speed_set(port, &out.speed); }},
    {"port_speed_admin_get", "fpt_port_speed_admin_get failed.",
     [](outputs &out) { return kr_sdn_hal_port_speed_get(port, &out.speed, nullptr); }},
    {"port_speed_oper_get", "fpt_port_speed_oper_get failed.",
     [](outputs &out) { return kr_sdn_hal_port_speed_get(port, nullptr, &out.number); }},
    {"port_speed_cabability_get", "fpt_port_speed_cabability_get failed.",
     [](outputs &out) { return kr_sdn_hal_port_speed_capability_get(port, &out.number); }},
    {"port_mtu_set", "fpt_port_mtu_set failed.", [](outputs &) { return kr_sdn_hal_port_mtu_set(port, 1500); }},
    {"port_mtu_get", "fpt_port_mtu_get failed.", [](outputs &out) { return kr_sdn_hal_port_mtu_get(port, &out.mtu); }},
    {"port_cntr_get", "fpt_port_cntr_get failed.",
     [](outputs &out) { return kr_sdn_hal_port_cntr_get(port, &out.counters); }},
    {"port_cntr_clear", "fpt_port_cntr_get failed.", [](outputs &) { return kr_sdn_hal_port_cntr_clear(port, 1); }},
};

TEST_F(port_api_test, a_plug_in_that_fails_gets_its_line_and_its_status_through) {
    for (const failing_call &each : failing_calls) {
        SCOPED_TRACE(each.entry);
        for (const uint32_t status : {1U, 4U, 11U, 77U}) {
            outputs out{};
            fail_with(each.entry, status);
            EXPECT_EQ(each.call(out), status);
            EXPECT_STREQ(take_call().name, each.entry);
            EXPECT_EQ(log.take(), log_lines{api_error(each.text)});
        }
    }
}

TEST_F(port_api_test, any_plug_in_call_before_fpt_init_returns_3) {
    ASSERT_EQ(fpt_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    for (const failing_call &each : failing_calls) {
        SCOPED_TRACE(each.entry);
        outputs out{};
        EXPECT_EQ(each.call(out), 3U);
        EXPECT_EQ(log.take(), (log_lines{not_initialized(), api_error(each.text)}));
    }
}

TEST_F(port_api_test, checks_come_before_the_plug_in_is_asked_for) {
    ASSERT_EQ(fpt_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    fpt_fixture = {};
    expect_refused(kr_sdn_hal_port_mtu_set(port, 67), 9, "<port_mtu> param [67] exceeds range.");
    expect_refused(kr_sdn_hal_port_mtu_get(port, nullptr), 8, "<port_mtu> param is NULL.");
}

TEST_F(port_api_test, verbosity_0_silences_the_lines) {
    kr_HAL_API_PORT_verb_level = 0;
    EXPECT_EQ(kr_sdn_hal_port_mtu_set(port, 67), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
    kr_HAL_API_PORT_verb_level = 3;
    EXPECT_EQ(log.take(), log_lines{});
}

TEST_F(port_api_test, no_call_allocates) {
    add_port(1);
    outputs out{};
    uint32_t statuses = 0;
    uint32_t count = 0;
    const kr_test::allocation_counter allocations;
    for (const failing_call &each : failing_calls) {
        statuses |= each.call(out);
    }
    statuses |= kr_sdn_hal_port_arr_get(nullptr, &count) | kr_sdn_hal_port_capabilities_get(1, &count);
    EXPECT_EQ(allocations.count(), 0U);
    EXPECT_EQ(statuses, 0U);
}

} // namespace

// The port database never fails here: the call of the function under test is rerouted by its linker name.
#pragma GCC visibility push(default)
extern "C" {

kr_sdn_hal_status __real__Z12port_get_arrPjS_(uint32_t *ports, uint32_t *count);
kr_sdn_hal_status __wrap__Z12port_get_arrPjS_(uint32_t *ports, uint32_t *count);

kr_sdn_hal_status __wrap__Z12port_get_arrPjS_(uint32_t *ports, uint32_t *count) {
    return port_list_status != 0 ? static_cast<kr_sdn_hal_status>(port_list_status)
                                 : __real__Z12port_get_arrPjS_(ports, count);
}

} // extern "C"
#pragma GCC visibility pop
