/*
 * Bringing the event service up and down among fakes.
 */
#include "events_fixture.h"

#include <cstring>
#include <regex>

// What the service needs of the general module.
kr_log_callback general_log_cb = nullptr;

kr_sdn_hal_status general_process_shim_event_ack(const hal_event_record *record) {
    kr_test::add_delivered_record(*record);
    return static_cast<kr_sdn_hal_status>(kr_test::called("general_process_shim_event_ack"));
}

namespace kr_test {
namespace {

constexpr int32_t with_debug_lines = 5;

std::string line(const char *severity, const std::string &text) {
    return std::string(severity) + " HAL_EVENTS_API: " + text;
}

} // namespace

call_list take_events_calls() {
    static const std::regex line_number(R"(\.cpp\[\d+\]-)");
    call_list calls = take_calls();
    for (std::string &call : calls) {
        call = std::regex_replace(call, line_number, ".cpp[#]-");
    }
    return calls;
}

std::string events_error(const std::string &text) {
    return line("1", text);
}
std::string events_warning(const std::string &text) {
    return line("3", text);
}
std::string events_debug(const std::string &function, const std::string &text) {
    return line("31", "kr_sdn_hal_api_events.cpp[#]- " + function + ": " + text);
}

events_fixture::events_fixture() {
    kr_HAL_EVENTS_API_verb_level = with_debug_lines;
    fakes_reset();
    write_limit(SIZE_MAX);
    general_log_cb = nullptr;
    (void)kr_log_init(1, nullptr, record_log);
    (void)take_calls();
}

events_fixture::~events_fixture() {
    record_system_calls(false);
    write_limit(SIZE_MAX);
    fakes_reset();
    kr_HAL_EVENTS_API_verb_level = 0;
    (void)kr_sdn_hal_srvc_close(&channel);
    (void)kr_sdn_hal_srvc_dependent_deinit();
    (void)kr_sdn_hal_srvc_deinit();
    (void)kr_log_close();
    fakes_reset();
}

void events_fixture::bring_up(events_stage stage, bool open) {
    if (stage >= events_stage::initialized) {
        ASSERT_EQ(kr_sdn_hal_srvc_init(), KR_SDN_HAL_STATUS_SUCCESS);
    }
    if (stage >= events_stage::started) {
        ASSERT_EQ(kr_sdn_hal_srvc_dependent_init(), KR_SDN_HAL_STATUS_SUCCESS);
    }
    if (open && stage >= events_stage::initialized) {
        ASSERT_EQ(kr_sdn_hal_srvc_open(&channel), KR_SDN_HAL_STATUS_SUCCESS);
    }
    (void)take_calls();
    (void)take_trap_calls();
}

hal_event_record events_fixture::record_of(uint32_t type, uint8_t filling) {
    hal_event_record record;
    memset(&record, filling, sizeof record);
    record.type = type;
    return record;
}

void events_fixture::queue(uint32_t trap_id, uint32_t log_port, const std::string &frame) {
    kr_receive_info info{};
    info.trap_id = trap_id;
    info.source_log_port = log_port;
    device_queue(channel.sdk_fd.fd, info, frame);
}

void events_fixture::queue_port_event(uint32_t log_port, uint32_t oper_state) {
    kr_receive_info info{};
    info.trap_id = KR_TRAP_ID_PORT_UP_DOWN;
    info.port_up_down = {.log_port = log_port, .oper_state = oper_state};
    device_queue(channel.sdk_fd.fd, info, "");
}

} // namespace kr_test
