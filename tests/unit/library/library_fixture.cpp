/*
 * One life of the library after the other in one process.
 */
#include "library_fixture.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace kr_test {
namespace {

constexpr int32_t default_verbosity = 3;

int32_t *const all_verbosities[] = {
    &kr_HAL_API_verb_level, &kr_HAL_EVENTS_API_verb_level, &kr_HAL_API_PORT_verb_level, &kr_FPT_verb_level,
    &kr_HAL_GEN_verb_level, &kr_HAL_PORT_verb_level,       &kr_FLOWS_DB_verb_level,     &kr_HAL_UTILS_verb_level,
};

std::vector<uint32_t> of_ports() {
    uint32_t count = 0;
    EXPECT_EQ(kr_sdn_hal_port_arr_get(nullptr, &count), KR_SDN_HAL_STATUS_SUCCESS);
    std::vector<uint32_t> ports(count);
    if (count != 0) {
        EXPECT_EQ(kr_sdn_hal_port_arr_get(ports.data(), &count), KR_SDN_HAL_STATUS_SUCCESS);
    }
    return ports;
}

} // namespace

std::string plugin(const char *name) {
    return std::string(FAKE_PLUGIN_DIR) + '/' + name + ".so";
}

conn_port_record port_record_of(uint32_t of_port) {
    conn_port_record port{};
    port.log_port = log_port_of(of_port);
    port.ifindex = of_port;
    memcpy(port.interface_name, "swp1-all-16-byte", sizeof port.interface_name);
    memcpy(port.mac_address, "\x02\x00\x5e\x10\x20\x30", sizeof port.mac_address);
    return port;
}

hal_event_record removal_of(uint32_t of_port) {
    hal_event_record record{};
    record.type = EVENT_PORT_CAPABILITIES_UPDATE;
    record.payload.port_update.reason = PORT_UPDATE_REMOVED;
    record.payload.port_update.port = of_port;
    return record;
}

library_fixture::library_fixture() : connector(plugin("fake_connector").c_str()), fpt(plugin("fake_fpt").c_str()) {
    kr_soft_reset();
    kr::general::g = {};
    for (int32_t *const verbosity : all_verbosities) {
        *verbosity = default_verbosity;
    }
}

library_fixture::~library_fixture() {
    kr_soft_fault_clear();
    kr_soft_journal_stop();
    if (kr::general::g.started == 1) {
        for (const uint32_t port : of_ports()) {
            const hal_event_record removal = removal_of(port);
            EXPECT_EQ(general_process_shim_event_ack(&removal), KR_SDN_HAL_STATUS_SUCCESS);
        }
        EXPECT_EQ(event(CONN_EVENT_STOP), 0U);
    }
    if (kr::general::g.initialized == 1) {
        EXPECT_EQ(kr_sdn_hal_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    }
    kr::general::g = {};
    kr_soft_reset();
}

kr_sdn_hal_status library_fixture::init_with(const std::string &fpt_library) {
    system_profile profile{};
    strncpy(profile.connector_library_path, plugin("fake_connector").c_str(), KR_SDN_HAL_PATH_SIZE - 1);
    strncpy(profile.fpt_library_path, fpt_library.c_str(), KR_SDN_HAL_PATH_SIZE - 1);
    return kr_sdn_hal_init(&profile, log_capture::callback);
}

void library_fixture::init() {
    ASSERT_EQ(init_with(plugin("fake_fpt")), KR_SDN_HAL_STATUS_SUCCESS);
    (void)take_log();
}

void library_fixture::start() {
    init();
    ASSERT_EQ(event(CONN_EVENT_START), 0U);
    (void)take_log();
}

void library_fixture::add_port(uint32_t of_port) {
    ASSERT_EQ(kr_soft_port_add_memory(log_port_of(of_port)), KR_STATUS_SUCCESS);
    conn_port_record port = port_record_of(of_port);
    ASSERT_EQ(event(CONN_EVENT_PORT_ADDED, &port), 0U);
}

uint32_t library_fixture::event(uint32_t code, void *data) {
    return general_event_cb(code, data);
}

lines library_fixture::take_log() {
    lines result;
    for (const log_line &line : log.take()) {
        result.push_back(std::to_string(line.severity) + ' ' + line.module + ": " + line.text);
        if (result.back().back() == '\n') {
            result.back().pop_back();
        } else {
            result.back() += " (no newline)";
        }
    }
    return result;
}

kr_soft_usage library_fixture::usage() {
    kr_soft_usage result{};
    kr_soft_usage_get(&result);
    return result;
}

// Only names and statuses: the arguments are the business of the tests of each module.
lines library_fixture::take_journal() {
    kr_soft_journal_stop();
    char *const text = kr_soft_journal_text();
    std::istringstream stream(text);
    free(text);
    lines result;
    for (std::string line; std::getline(stream, line);) {
        if (line.starts_with("cl_event_wait_on")) {
            continue;
        }
        const size_t status = line.rfind(" = "); // none of a function that returns nothing
        result.push_back(line.substr(0, line.find('(')) + (status == std::string::npos ? "" : line.substr(status)));
    }
    return result;
}

} // namespace kr_test
