/*
 * Plug-ins that do not behave, from the first init of a process to its last deinit: each lacks one symbol in turn, each
 * entry point fails with each status, and a connector calls the library back from every entry point. After each failure
 * nothing is up, and the next init begins anew.
 *
 * A program of its own with one test: a process is initialised once.
 */
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/fake_connector.h"
#include "tests/support/fake_fpt.h"
#include "tests/support/formatted.h"
#include "tests/support/leaks.h"
#include "tests/support/log_capture.h"
#include "tests/support/plugin_control.h"
#include "tests/system/flows_and_frames.h"
#include "tests/unit/core/fpt_fixture/fpt_fixture.h"

fpt_fixture_state fpt_fixture; // of the port plug-ins that lack an entry

namespace {

using namespace kr_test;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

uint32_t connector_lines = 0; // that its conn_log was given

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr auto NOT_INITIALIZED = KR_SDN_HAL_STATUS_NOT_INITIALIZED;
constexpr const char *good_connector = KR_FAKE_PLUGIN_DIR "/fake_connector.so";
constexpr const char *good_fpt = KR_FAKE_PLUGIN_DIR "/fake_fpt.so";

const char *const connector_symbols[] = {"conn_init",
                                         "conn_init_done_hal",
                                         "conn_init_done_shim",
                                         "conn_deinit",
                                         "conn_config_callback_register",
                                         "conn_event_callback_register",
                                         "conn_config_params_get",
                                         "conn_log"};
const char *const fpt_symbols[] = {
#define X(name) #name,
    FPT_SYMBOLS(X)
#undef X
};
static_assert(std::size(connector_symbols) == 8 && std::size(fpt_symbols) == 16);

log_line general_error(const char *text) {
    return {KR_LOG_ERROR, "HAL_GEN", std::string(text) + "\n"};
}
log_line fpt_error(const std::string &text) {
    return {KR_LOG_ERROR, "FPT", text + "\n"};
}

class hostile_init : public testing::Test {
  protected:
    hostile_init() : connector(good_connector), fpt(good_fpt) {}

    kr_sdn_hal_status init(const std::string &connector_path, const std::string &fpt_path) {
        calls.clear();
        const call_hook hook(&connector->record, [this](const std::string &call) { calls.push_back(call); });
        return init_alone(connector_path, fpt_path);
    }
    kr_sdn_hal_status init_alone(const std::string &connector_path, const std::string &fpt_path) {
        system_profile profile{};
        connector_path.copy(profile.connector_library_path, sizeof profile.connector_library_path - 1);
        fpt_path.copy(profile.fpt_library_path, sizeof profile.fpt_library_path - 1);
        testing::internal::CaptureStderr();
        const kr_sdn_hal_status status = kr_sdn_hal_init(&profile, log_capture::callback);
        said = testing::internal::GetCapturedStderr();
        return status;
    }
    // What is left of an init that failed: every module answers as before the first.
    void expect_nothing_is_up() {
        srvc_handle channel{};
        EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), ERROR);
        uint16_t mtu = 0;
        EXPECT_EQ(kr_sdn_hal_port_mtu_get(1, &mtu), NOT_INITIALIZED);
        EXPECT_THAT(log.take(), ElementsAre(fpt_error("FPT is not initialized."),
                                            log_line{KR_LOG_ERROR, "HAL_API_PORT", "fpt_port_mtu_get failed.\n"}));
        flow_record flow = flow_of(1);
        EXPECT_EQ(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, &flow, 1), NOT_INITIALIZED);
        EXPECT_THAT(log.take(), ElementsAre(log_line{KR_LOG_ERROR, "HAL_TABLES_API",
                                                     "SDN HAL Tables module is not initialized\n"}));
        EXPECT_EQ(kr_sdn_hal_log(1, "CLIENT", "nobody hears this\n"), SUCCESS);
        kr_soft_usage usage{};
        kr_soft_usage_get(&usage);
        EXPECT_EQ(usage.descriptor_count + usage.device_handle_count + usage.acl_count, 0U);
    }

    void connectors_that_lack_a_symbol();
    void port_plugins_that_lack_a_symbol();
    void connectors_whose_entry_points_fail();
    void a_connector_that_calls_back();
    void plugins_that_fail_at_the_end();

    loaded_fake_connector connector;
    loaded_fake_fpt fpt;
    log_capture log;
    std::vector<std::string> calls; // of the connector, during the last init
    std::string said;               // on standard error, during the last init
};

void hostile_init::connectors_that_lack_a_symbol() {
    for (const std::string symbol : connector_symbols) {
        SCOPED_TRACE(symbol);
        const std::string path = KR_FAKE_PLUGIN_DIR "/fake_connector_without_" + symbol + ".so";
        EXPECT_EQ(init(path, good_fpt), ERROR);
        EXPECT_EQ(said,
                  formatted("Loading symbol has failed [%s: undefined symbol: %s].\n", path.c_str(), symbol.c_str()));
        EXPECT_THAT(log.take(), IsEmpty());
        EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
        expect_nothing_is_up();
    }
}

void hostile_init::port_plugins_that_lack_a_symbol() {
    ASSERT_EQ(chdir(FPT_FIXTURE_DIR), 0); // short paths, whatever the folder's
    for (const std::string symbol : fpt_symbols) {
        SCOPED_TRACE(symbol);
        const std::string path = "./fpt_without_" + symbol + ".so";
        EXPECT_EQ(init(good_connector, path), ERROR);
        EXPECT_EQ(said, "");
        EXPECT_THAT(log.take(), ElementsAre(fpt_error(formatted("Failed to find function: [%s: undefined symbol: %s].",
                                                                path.c_str(), symbol.c_str())),
                                            general_error("FPT init failed.")));
        EXPECT_THAT(calls, ElementsAre("conn_init", "conn_config_callback_register", "conn_event_callback_register",
                                       "conn_deinit"));
        EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
        EXPECT_EQ(fpt_fixture.call_count, 0U);
        expect_nothing_is_up();
    }
}

void hostile_init::connectors_whose_entry_points_fail() {
    struct row {
        uint32_t fake_connector_control::*status;
        const char *text;
        std::vector<std::string> calls;
    };
    const row rows[] = {
        {&fake_connector_control::config_register_status,
         "SDN HAL connector registration failed.",
         {"conn_init", "conn_config_callback_register", "conn_deinit"}},
        {&fake_connector_control::event_register_status,
         "SDN HAL connector registration failed.",
         {"conn_init", "conn_config_callback_register", "conn_event_callback_register", "conn_deinit"}},
        {&fake_connector_control::init_done_hal_status,
         "SDN Connector init done hal failed.",
         {"conn_init", "conn_config_callback_register", "conn_event_callback_register", "conn_init_done_hal",
          "conn_deinit"}},
    };
    fake_connector_control &control = *connector.operator->();
    for (const row &row : rows) {
        for (const uint32_t status : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U, 11U, 12U, UINT32_MAX}) {
            SCOPED_TRACE(row.calls.back() + " " + std::to_string(status));
            control.init_status = status; // does not count
            control.deinit_status = status;
            control.*row.status = status;
            EXPECT_EQ(init(good_connector, good_fpt), status);
            control.*row.status = 0;
            control.init_status = 0;
            control.deinit_status = 0;
            EXPECT_THAT(log.take(), ElementsAre(general_error(row.text)));
            EXPECT_THAT(calls, ElementsAreArray(row.calls));
            expect_nothing_is_up();
        }
    }
}

// The init that succeeds, with a connector that calls the library from within each of its entry points; and a start
// from within conn_init_done_shim, on the client's own thread.
void hostile_init::a_connector_that_calls_back() {
    std::vector<std::string> seen;
    connector->log = [](uint32_t, const char *, const char *) { ++connector_lines; };
    const call_hook hook(&connector->record, [&](const std::string &call) {
        seen.push_back(call);
        srvc_handle channel{};
        const bool has_modules = call == "conn_init_done_hal" || call == "conn_init_done_shim";
        EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), has_modules ? SUCCESS : ERROR) << call;
        if (has_modules) {
            EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, EVENT_GENERAL_READY), SUCCESS);
            EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
        }
        uint16_t mtu = 0;
        fpt->mtu = 1522;
        EXPECT_EQ(kr_sdn_hal_port_mtu_get(1, &mtu), has_modules ? SUCCESS : NOT_INITIALIZED) << call;
        EXPECT_EQ(mtu, has_modules ? 1522 : 0);
        capabilities cap{0, 0, 5};
        EXPECT_EQ(kr_sdn_hal_capabilities_set(&cap), SUCCESS);
        const uint32_t before = connector_lines;
        EXPECT_EQ(kr_sdn_hal_log(1, "CONNECTOR", "words\n"), SUCCESS);
        EXPECT_EQ(connector_lines - before, call == "conn_init_done_shim" ? 1U : 0U) << call;
        (void)log.take();
        if (call == "conn_init_done_shim") {
            EXPECT_EQ(connector->event_callback(CONN_EVENT_START, nullptr), 0U);
            conn_port_record port = port_record_of(1);
            EXPECT_EQ(kr_soft_port_add_memory(port.log_port), KR_STATUS_SUCCESS);
            EXPECT_EQ(connector->event_callback(CONN_EVENT_PORT_ADDED, &port), 0U);
            EXPECT_EQ(flows_add({flow_of(1)}), SUCCESS);
        }
    });
    ASSERT_EQ(init_alone(good_connector, good_fpt), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_activate(), SUCCESS);
    EXPECT_THAT(seen, ElementsAre("conn_init", "conn_config_callback_register", "conn_event_callback_register",
                                  "conn_init_done_hal", "conn_init_done_shim"));
    EXPECT_THAT(log.take(), IsEmpty());
    uint32_t ports[2] = {0, 0};
    uint32_t count = 2;
    EXPECT_EQ(kr_sdn_hal_port_arr_get(ports, &count), SUCCESS);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(ports[0], 1U);
}

// Deinit ends at the first step that fails. What follows the port plug-in's failure is shown in a child process, for
// there is no way on from it.
void hostile_init::plugins_that_fail_at_the_end() {
    for (uint32_t status = 1; status <= 12; status++) {
        connector->init_done_shim_status = status;
        EXPECT_EQ(kr_sdn_hal_activate(), status);
        EXPECT_THAT(log.take(), ElementsAre(log_line{KR_LOG_ERROR, "HAL_API", "SDN HAL modules activate failed.\n"}));
    }
    connector->init_done_shim_status = 0;
    hal_event_record removal{};
    removal.type = EVENT_PORT_CAPABILITIES_UPDATE;
    removal.payload.port_update = {
        .reason = PORT_UPDATE_REMOVED, .port = 1, .oper_state = 1, .mac_address = {}, .interface_name = {}};
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&removal), SUCCESS);
    EXPECT_EQ(connector->event_callback(CONN_EVENT_STOP, nullptr), 0U);
    EXPECT_THAT(log.take(), IsEmpty());

    EXPECT_EXIT(
        {
            fpt->deinit_status = 9;
            EXPECT_EQ(kr_sdn_hal_deinit(), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
            EXPECT_THAT(log.take(), ElementsAre(general_error("FPT deinit failed."),
                                                log_line{KR_LOG_ERROR, "HAL_API", "SDN HAL modules deinit failed.\n"}));
            srvc_handle channel{};
            EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS); // the event service is still there
            EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
            EXPECT_EQ(kr_sdn_hal_deinit(), NOT_INITIALIZED); // the port plug-in is not
            EXPECT_THAT(log.take(),
                        ElementsAre(fpt_error("FPT is not initialized."), general_error("FPT deinit failed."),
                                    log_line{KR_LOG_ERROR, "HAL_API", "SDN HAL modules deinit failed.\n"}));
            _exit(HasFailure() || has_leaked() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");

    connector->deinit_status = 6;
    EXPECT_EQ(kr_sdn_hal_deinit(), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(log.take(), ElementsAre(general_error("SDN HAL event module deinit failed."),
                                        log_line{KR_LOG_ERROR, "HAL_API", "SDN HAL modules deinit failed.\n"}));
}

TEST_F(hostile_init, plug_ins_fail_as_told_and_leave_nothing_behind) {
    connectors_that_lack_a_symbol();
    port_plugins_that_lack_a_symbol();
    connectors_whose_entry_points_fail();
    a_connector_that_calls_back();
    plugins_that_fail_at_the_end();
}

} // namespace
