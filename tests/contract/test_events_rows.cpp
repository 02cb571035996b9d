/*
 * Every step of the event service that can fail, row by row: the call that fails and its code, the status, and all that
 * happened in order: calls of the device and the system, and lines of the log.
 */
#include <cerrno>
#include <functional>

#include "tests/unit/api/events_fixture.h"

using namespace kr_test;

namespace {

using stage = events_stage;

struct context {
    srvc_handle *channel;
    srvc_handle *never_opened;
    hal_event_record *record;
};

struct row {
    const char *name;
    stage from;
    std::function<kr_sdn_hal_status(const context &)> run;
    const char *failing_call; // empty: none
    uint32_t code;
    kr_sdn_hal_status expected;
    call_list journal;
};

void PrintTo(const row &value, std::ostream *out) {
    *out << value.name;
}

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr auto SDK_ERROR = KR_SDN_HAL_STATUS_SDK_ERROR;
constexpr auto PARAM_ERROR = KR_SDN_HAL_STATUS_PARAM_ERROR;
constexpr auto NOT_FOUND = KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;

constexpr uint32_t known_of_port = 7;
constexpr uint32_t known_log_port = 0x10007;

/* ---- operations -------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status init(const context &) {
    return kr_sdn_hal_srvc_init();
}
kr_sdn_hal_status start(const context &) {
    return kr_sdn_hal_srvc_dependent_init();
}
kr_sdn_hal_status stop(const context &) {
    return kr_sdn_hal_srvc_dependent_deinit();
}
kr_sdn_hal_status deinit(const context &) {
    return kr_sdn_hal_srvc_deinit();
}
kr_sdn_hal_status open(const context &with) {
    return kr_sdn_hal_srvc_open(with.never_opened);
}
kr_sdn_hal_status open_null(const context &) {
    return kr_sdn_hal_srvc_open(nullptr);
}
kr_sdn_hal_status close(const context &with) {
    return kr_sdn_hal_srvc_close(with.channel);
}
kr_sdn_hal_status close_never_opened(const context &with) {
    return kr_sdn_hal_srvc_close(with.never_opened);
}
kr_sdn_hal_status close_null(const context &) {
    return kr_sdn_hal_srvc_close(nullptr);
}
template <uint32_t Event> kr_sdn_hal_status add(const context &with) {
    return kr_sdn_hal_srvc_event_register(with.channel, Event);
}
template <uint32_t Event> kr_sdn_hal_status add_never_opened(const context &with) {
    return kr_sdn_hal_srvc_event_register(with.never_opened, Event);
}
template <uint32_t Event> kr_sdn_hal_status add_null(const context &) {
    return kr_sdn_hal_srvc_event_register(nullptr, Event);
}
template <uint32_t Event> kr_sdn_hal_status remove(const context &with) {
    return kr_sdn_hal_srvc_event_unregister(with.channel, Event);
}
template <uint32_t Event> kr_sdn_hal_status remove_never_opened(const context &with) {
    return kr_sdn_hal_srvc_event_unregister(with.never_opened, Event);
}
template <uint32_t Event> kr_sdn_hal_status remove_null(const context &) {
    return kr_sdn_hal_srvc_event_unregister(nullptr, Event);
}
// What has to be there before the step is made quietly.
template <auto First, auto Then> kr_sdn_hal_status after(const context &with) {
    const kr_sdn_hal_status first = First(with);
    (void)take_calls();
    return first == SUCCESS ? Then(with) : first;
}
// The switch starts behind a channel that is already open.
template <auto Then> kr_sdn_hal_status after_the_start(const context &with) {
    const uint32_t code = result_of("kr_api_host_ifc_open");
    set_result("kr_api_host_ifc_open", 0);
    const kr_sdn_hal_status started = kr_sdn_hal_srvc_dependent_init();
    set_result("kr_api_host_ifc_open", code);
    (void)take_calls();
    return started == SUCCESS ? Then(with) : started;
}
kr_sdn_hal_status send(const context &with) {
    return kr_sdn_hal_srvc_packet_send(with.channel, "frame", 5, known_of_port, 3);
}
kr_sdn_hal_status send_never_opened(const context &with) {
    return kr_sdn_hal_srvc_packet_send(with.never_opened, "frame", 5, known_of_port, 3);
}
kr_sdn_hal_status send_null_packet(const context &with) {
    return kr_sdn_hal_srvc_packet_send(with.channel, nullptr, 5, known_of_port, 3);
}
kr_sdn_hal_status send_to_unknown_port(const context &with) {
    return kr_sdn_hal_srvc_packet_send(with.channel, "frame", 5, known_of_port + 1, 3);
}
kr_sdn_hal_status acknowledge(const context &with) {
    return kr_sdn_hal_srvc_event_ack(with.record);
}

/* ---- lines that recur -------------------------------------------------------------------------------------------- */

const std::string init_done = events_debug("kr_sdn_hal_srvc_init", "HAL events module initialized successfully.");
const std::string start_done =
    events_debug("kr_sdn_hal_srvc_dependent_init", "HAL events module dependent initialized successfully.");
const std::string stop_done =
    events_debug("kr_sdn_hal_srvc_dependent_deinit", "HAL events module dependent deinitialized successfully.");
const std::string deinit_done = events_debug("kr_sdn_hal_srvc_deinit", "HAL events module deinitialized successfully");
const std::string open_done = events_debug("kr_sdn_hal_srvc_open", "HAL events - open finished successfully");
const std::string close_done = events_debug("kr_sdn_hal_srvc_close", "HAL events - close finished successfully");
std::string added(const std::string &event) {
    return events_debug("kr_sdn_hal_srvc_event_register",
                        formatted("HAL events - Registration for event (%s) finished successfully", event.c_str()));
}
std::string removed(const std::string &event) {
    return events_debug("kr_sdn_hal_srvc_event_unregister",
                        formatted("HAL events - successfully unregistered from event (%s)", event.c_str()));
}
std::string not_removed(const std::string &event) {
    return events_error(formatted("HAL events - Failed unregistering from event (%s)", event.c_str()));
}
const std::string no_sdk_fd = events_error("Failed creating the SDK FD");
constexpr auto trap_set = "kr_api_host_ifc_trap_id_register_set";
constexpr auto sdk_open = "kr_api_host_ifc_open";
constexpr auto sdk_close = "kr_api_host_ifc_close";

/* ---- rows -------------------------------------------------------------------------------------------------------- */

/* clang-format off */
const row life_cycle_rows[] = {
    {"init",                          stage::uninitialized, init,   "", 0, SUCCESS, {"cl_plock_init", init_done}},
    {"init_without_a_lock",           stage::uninitialized, init,   "cl_plock_init", 1, ERROR, {"cl_plock_init"}},
    {"init_twice",                    stage::initialized,   init,   "", 0, ERROR, {}},
    {"init_while_started",            stage::started,       init,   "", 0, ERROR, {}},
    {"start",                         stage::initialized,   start,  "", 0, SUCCESS, {"kr_api_open", start_done}},
    {"start_that_the_device_refuses", stage::initialized,   start,  "kr_api_open", 7, SDK_ERROR, {"kr_api_open"}},
    {"start_before_init",             stage::uninitialized, start,  "", 0, ERROR, {}},
    {"start_twice",                   stage::started,       start,  "", 0, ERROR, {}},
    {"stop",                          stage::started,       stop,   "", 0, SUCCESS, {"kr_api_close", stop_done}},
    {"stop_that_the_device_refuses",  stage::started,       stop,   "kr_api_close", 12, SDK_ERROR, {"kr_api_close"}},
    {"stop_before_init",              stage::uninitialized, stop,   "", 0, ERROR, {}},
    {"stop_before_start",             stage::initialized,   stop,   "", 0, ERROR, {}},
    {"deinit",                        stage::initialized,   deinit, "", 0, SUCCESS, {"cl_plock_destroy", deinit_done}},
    {"deinit_before_init",            stage::uninitialized, deinit, "", 0, ERROR, {}},
    {"deinit_between_start_and_stop", stage::started,       deinit, "", 0, ERROR, {}},
};

const row channel_rows[] = {
    {"open_before_init",             stage::uninitialized, open,      "", 0, ERROR, {}},
    {"open_null",                    stage::initialized,   open_null, "", 0, PARAM_ERROR, {}},
    {"open_before_start",            stage::initialized,   open,      "", 0, SUCCESS, {"pipe", open_done}},
    {"open",                         stage::started,       open,      "", 0, SUCCESS, {sdk_open, "pipe", open_done}},
    {"open_without_sdk_descriptor",  stage::started,       open,      sdk_open, 6, SDK_ERROR, {sdk_open, no_sdk_fd}},
    {"open_without_pipe_before_start", stage::initialized, open,      "pipe", EMFILE, ERROR,
     {"pipe", events_error("Failed creating the HAL FD")}},
    {"open_without_pipe_leaves_the_sdk_descriptor", stage::started, open, "pipe", EMFILE, ERROR,
     {sdk_open, "pipe", events_error("Failed creating the HAL FD")}},
    {"close_before_init",            stage::uninitialized, close,      "", 0, ERROR, {}},
    {"close_null",                   stage::initialized,   close_null, "", 0, PARAM_ERROR, {}},
    {"close_never_opened",           stage::initialized,   close_never_opened, "", 0, PARAM_ERROR, {}},
    {"close_twice",                  stage::started,       after<close, close>, "", 0, PARAM_ERROR, {}},
    {"close_before_start",           stage::initialized,   close,      "", 0, SUCCESS, {"close", "close", close_done}},
    {"close",                        stage::started,       close,      "", 0, SUCCESS,
     {sdk_close, "close", "close", close_done}},
    {"close_that_the_switch_refuses_goes_on", stage::started, close,   sdk_close, 12, SUCCESS,
     {sdk_close, events_error("Failed destroying the SDK FD"), "close", "close", close_done}},
};

const row register_rows[] = {
    {"before_init",            stage::uninitialized, add<0>,              "", 0, ERROR, {}},
    {"null",                   stage::initialized,   add_null<0>,         "", 0, PARAM_ERROR, {}},
    {"never_opened",           stage::initialized,   add_never_opened<0>, "", 0, PARAM_ERROR, {}},
    {"after_close",            stage::initialized,   after<close, add<0>>, "", 0, PARAM_ERROR, {}},
    {"event_12",               stage::started,       add<12>,             "", 0, PARAM_ERROR, {}},
    {"the_highest_number",     stage::started,       add<0xFFFFFFFF>,     "", 0, PARAM_ERROR, {}},
    {"event_of_the_library",   stage::initialized,   add<3>,              "", 0, SUCCESS,
     {added("PORT CAPABILITIES UPDATE")}},
    {"event_of_the_switch_before_start", stage::initialized, add<10>,     "", 0, PARAM_ERROR, {}},
    {"event_of_the_switch",    stage::started,       add<10>,             "", 0, SUCCESS, {trap_set, added("PACKET IN")}},
    {"event_of_the_switch_refused", stage::started,  add<11>,             trap_set, 6, SDK_ERROR,
     {trap_set, events_warning("Failed registering for SDK event (PACKET MISS), err (No resources)")}},
    {"channel_opened_before_start_gains_its_descriptor", stage::initialized, after_the_start<add<10>>, "", 0, SUCCESS,
     {sdk_open, trap_set, added("PACKET IN")}},
    {"channel_opened_before_start_gains_it_for_any_event", stage::initialized, after_the_start<add<0>>, "", 0, SUCCESS,
     {sdk_open, added("GENERAL READY")}},
    {"descriptor_that_cannot_be_made", stage::initialized, after_the_start<add<0>>, sdk_open, 6, SDK_ERROR,
     {sdk_open, no_sdk_fd}},
};

const row unregister_rows[] = {
    {"before_init",            stage::uninitialized, remove<0>,              "", 0, ERROR, {}},
    {"null",                   stage::initialized,   remove_null<0>,         "", 0, PARAM_ERROR, {}},
    {"never_opened",           stage::initialized,   remove_never_opened<0>, "", 0, PARAM_ERROR, {}},
    {"event_12",               stage::started,       remove<12>,             "", 0, PARAM_ERROR, {}},
    {"event_of_the_library",   stage::initialized,   after<add<9>, remove<9>>, "", 0, SUCCESS, {removed("AGENT UPDATE")}},
    {"not_registered",         stage::initialized,   remove<9>,              "", 0, ERROR, {not_removed("AGENT UPDATE")}},
    {"event_of_the_switch_before_start", stage::initialized, remove<4>,      "", 0, PARAM_ERROR, {}},
    {"no_descriptor_is_opened", stage::initialized,  after_the_start<remove<4>>, "", 0, PARAM_ERROR, {}},
    {"event_of_the_switch",    stage::started,       after<add<4>, remove<4>>, "", 0, SUCCESS,
     {trap_set, removed("PORT OPER STATE CHANGE")}},
    {"event_of_the_switch_not_registered_is_still_deregistered_there", stage::started, remove<11>, "", 0, ERROR,
     {trap_set, not_removed("PACKET MISS")}},
    {"event_of_the_switch_refused", stage::started,  remove<10>,             trap_set, 5, SDK_ERROR,
     {trap_set, events_warning("Failed unregistering from SDK event (PACKET IN), err (Entry not found)")}},
};

const row send_rows[] = {
    {"before_init",       stage::uninitialized, send,                 "", 0, ERROR, {}},
    {"never_opened",      stage::started,       send_never_opened,    "", 0, PARAM_ERROR, {}},
    {"null_packet",       stage::started,       send_null_packet,     "", 0, PARAM_ERROR, {}},
    {"before_start",      stage::initialized,   send,                 "", 0, PARAM_ERROR, {}},
    {"silent_success",    stage::started,       send,                 "", 0, SUCCESS,
     {"kr_lib_host_ifc_unicast_ctrl_send"}},
    {"gains_a_descriptor", stage::initialized,  after_the_start<send>, "", 0, SUCCESS,
     {sdk_open, "kr_lib_host_ifc_unicast_ctrl_send"}},
    {"descriptor_that_cannot_be_made", stage::initialized, after_the_start<send>, sdk_open, 6, SDK_ERROR,
     {sdk_open, no_sdk_fd}},
    {"unknown_port_sends_nothing", stage::started, send_to_unknown_port, "", 0, NOT_FOUND,
     {events_error("Failed translating HAL port to SDK log port")}},
    {"that_the_switch_refuses", stage::started,  send, "kr_lib_host_ifc_unicast_ctrl_send", 1, SDK_ERROR,
     {"kr_lib_host_ifc_unicast_ctrl_send",
      events_error("Failed sending packet from SDN HAL, SDK error (Internal error)")}},
};

const row acknowledge_rows[] = {
    {"before_init",          stage::uninitialized, acknowledge, "", 0, ERROR, {}},
    {"goes_to_the_general_module", stage::initialized, acknowledge, "", 0, SUCCESS, {"general_process_shim_event_ack"}},
    {"returns_what_it_answers", stage::initialized, acknowledge, "general_process_shim_event_ack", 6,
     KR_SDN_HAL_STATUS_CMD_UNSUPPORTED, {"general_process_shim_event_ack"}},
};
/* clang-format on */

class events_rows : public events_fixture, public testing::WithParamInterface<row> {};

TEST_P(events_rows, status_calls_and_lines) {
    const row &expected = GetParam();
    ASSERT_NO_FATAL_FAILURE(bring_up(expected.from));
    fake_ports()[known_of_port] = {known_of_port, 1, known_log_port};
    srvc_handle never_opened{};
    hal_event_record record = record_of(EVENT_PORT_CAPABILITIES_UPDATE, 1);
    set_result(expected.failing_call, expected.code);
    record_system_calls(true);
    EXPECT_EQ(expected.run({&channel, &never_opened, &record}), expected.expected);
    EXPECT_EQ(take_events_calls(), expected.journal);
    record_system_calls(false);
    (void)kr_sdn_hal_srvc_close(&never_opened);
}

std::string row_name(const testing::TestParamInfo<row> &info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(life_cycle, events_rows, testing::ValuesIn(life_cycle_rows), row_name);
INSTANTIATE_TEST_SUITE_P(channel, events_rows, testing::ValuesIn(channel_rows), row_name);
INSTANTIATE_TEST_SUITE_P(registration, events_rows, testing::ValuesIn(register_rows), row_name);
INSTANTIATE_TEST_SUITE_P(unregistration, events_rows, testing::ValuesIn(unregister_rows), row_name);
INSTANTIATE_TEST_SUITE_P(packet_send, events_rows, testing::ValuesIn(send_rows), row_name);
INSTANTIATE_TEST_SUITE_P(acknowledgement, events_rows, testing::ValuesIn(acknowledge_rows), row_name);

} // namespace
