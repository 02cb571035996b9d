/*
 * Bringing the general module up and down among fakes.
 */
#include "general_fixture.h"

#include "wrapped_calls.h"

namespace kr_test {
namespace {

constexpr int32_t with_notices = 4;

} // namespace

std::string fake_plugin(const std::string &name) {
    return std::string(FAKE_PLUGIN_DIR) + '/' + name + ".so";
}

system_profile profile_of(const std::string &connector, const std::string &fpt) {
    system_profile profile{};
    strncpy(profile.connector_library_path, connector.c_str(), sizeof profile.connector_library_path - 1);
    strncpy(profile.fpt_library_path, fpt.c_str(), sizeof profile.fpt_library_path - 1);
    return profile;
}

general_fixture::general_fixture()
    : connector(fake_plugin("fake_connector").c_str()), profile(profile_of(fake_plugin("fake_connector"))) {
    kr::general::g = {};
    general_log_cb = nullptr;
    kr_HAL_GEN_verb_level = with_notices;
    kr_HAL_API_verb_level = with_notices;
    kr_HAL_UTILS_verb_level = with_notices;
    fakes_reset();
    write_limit(SIZE_MAX);
    connector->record = record;
    // Until the library starts the logger itself, its lines are in the journal, too.
    (void)kr_log_init(1, nullptr, record_log);
    (void)take_calls();
}

general_fixture::~general_fixture() {
    fakes_reset();
    stop();
    record_system_calls(false);
    (void)kr_log_close();
    fakes_reset();
}

void general_fixture::init() {
    ASSERT_EQ(KR_SDN_HAL_STATUS_SUCCESS, kr_sdn_hal_init(&profile, record_log));
    (void)take_calls();
}

void general_fixture::start() {
    init();
    ASSERT_EQ(KR_SDN_HAL_STATUS_SUCCESS, general_event_cb(CONN_EVENT_START, nullptr));
    (void)take_calls();
    (void)take_delivered_records();
}

void general_fixture::stop() {
    if (kr::general::g.started == 1) {
        fake_ports().clear();
        (void)general_event_cb(CONN_EVENT_STOP, nullptr);
    }
}

} // namespace kr_test
