/*
 * Init, activate, deinit and the capabilities: every failing step with its status, its log line and its undo calls in
 * order. The texts and orders are written out on purpose: they are not read from the code under test.
 */
#include "general_fixture.h"

using kr_test::call_list;
using kr_test::fake_plugin;
using kr_test::general_fixture;
using kr_test::peek_calls;
using kr_test::profile_of;
using kr_test::record_log;
using kr_test::set_result;
using kr_test::take_calls;
using testing::ElementsAreArray;

namespace {

const call_list whole_init = {
    "conn_init",
    "kr_log_init(1, NULL)",
    "conn_config_callback_register",
    "conn_event_callback_register",
    "kr_sdn_hal_srvc_init",
    "port_init",
    "tables_init(1)",
    "the port plug-in",
    "fpt_init",
    "cl_event_init(auto)",
    "conn_init_done_hal",
};

// The first `count` lines of a whole init, and what follows.
call_list init_until(size_t count, const call_list &rest) {
    call_list calls(whole_init.begin(), whole_init.begin() + static_cast<ptrdiff_t>(count));
    calls.insert(calls.end(), rest.begin(), rest.end());
    return calls;
}

class general_init_test : public general_fixture {
  protected:
    uint32_t init_with(kr_log_callback callback) {
        return kr_sdn_hal_init(&profile, callback);
    }
};

TEST_F(general_init_test, brings_the_modules_up_in_order_and_says_so) {
    EXPECT_EQ(0u, init_with(record_log));
    EXPECT_THAT(take_calls(), ElementsAreArray(init_until(11, {"15 HAL_API: SDN HAL init done."})));
    EXPECT_EQ(1u, kr::general::g.initialized);
    EXPECT_EQ(record_log, general_log_cb);
    EXPECT_EQ(record_log, connector->init_log_callback);
    EXPECT_EQ(general_config_cb, connector->config_callback);
    EXPECT_EQ(general_event_cb, connector->event_callback);
    EXPECT_EQ(31u, connector->event_mask);
}

TEST_F(general_init_test, null_profile_returns_8_and_changes_and_logs_nothing) {
    EXPECT_EQ(8u, kr_sdn_hal_init(nullptr, record_log));
    EXPECT_THAT(take_calls(), testing::IsEmpty());
    EXPECT_EQ(0u, kr::general::g.initialized);
    EXPECT_EQ(nullptr, general_log_cb);
}

TEST_F(general_init_test, null_log_callback_gives_null_to_conn_init_and_conn_log_to_the_logger) {
    connector->log = record_log;
    EXPECT_EQ(0u, init_with(nullptr));
    EXPECT_EQ(nullptr, connector->init_log_callback);
    EXPECT_EQ(kr::general::g.connector.conn_log, general_log_cb);
    EXPECT_NE(nullptr, general_log_cb);
    // The line below came through conn_log.
    EXPECT_THAT(take_calls(), ElementsAreArray(init_until(11, {"15 HAL_API: SDN HAL init done."})));
}

TEST_F(general_init_test, failing_conn_init_is_ignored) {
    connector->init_status = 5;
    EXPECT_EQ(0u, init_with(record_log));
}

TEST_F(general_init_test, failing_logger_is_ignored) {
    set_result("kr_log_init(1, NULL)", 1);
    EXPECT_EQ(0u, init_with(record_log));
}

TEST_F(general_init_test, step_2_load_undoes_nothing_and_may_be_retried) {
    profile = profile_of("/nowhere/connector.so");
    testing::internal::CaptureStderr();
    EXPECT_EQ(1u, init_with(record_log));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::StartsWith("dlopen() has failed loading connector library /nowhere/connector.so, ["));
    EXPECT_THAT(take_calls(), testing::IsEmpty());
    EXPECT_EQ(0u, kr::general::g.initialized);
    EXPECT_EQ(nullptr, general_log_cb);

    profile = profile_of(fake_plugin("fake_connector"));
    EXPECT_EQ(0u, init_with(record_log));
}

TEST_F(general_init_test, step_4_first_registration_undoes_the_connector) {
    connector->config_register_status = 6;
    EXPECT_EQ(6u, init_with(record_log));
    EXPECT_THAT(take_calls(), ElementsAreArray(init_until(3, {
                                                                 "1 HAL_GEN: SDN HAL connector registration failed.",
                                                                 "conn_deinit",
                                                             })));
    EXPECT_EQ(0u, kr::general::g.initialized);
}

TEST_F(general_init_test, step_4_second_registration_undoes_the_connector) {
    connector->event_register_status = 11;
    EXPECT_EQ(11u, init_with(record_log));
    EXPECT_THAT(take_calls(), ElementsAreArray(init_until(4, {
                                                                 "1 HAL_GEN: SDN HAL connector registration failed.",
                                                                 "conn_deinit",
                                                             })));
    EXPECT_EQ(0u, kr::general::g.initialized);
}

struct init_row {
    const char *step;
    const char *failing_call;
    uint32_t code;
    uint32_t status;
    size_t calls_before;
    call_list calls_after; // the log line, then the undo calls
};

const init_row init_rows[] = {
    {"step_5_event_service",
     "kr_sdn_hal_srvc_init",
     2,
     2,
     5,
     {
         "1 HAL_GEN: SDN HAL event module init failed.",
         "conn_deinit",
     }},
    {"step_6_port_database",
     "port_init",
     1,
     1,
     6,
     {
         "1 HAL_GEN: SDN HAL port module init failed.",
         "kr_sdn_hal_srvc_deinit",
         "conn_deinit",
     }},
    {"step_7_tables",
     "tables_init(1)",
     10,
     10,
     7,
     {
         "1 HAL_GEN: SDN HAL tables module init failed.",
         "port_deinit",
         "kr_sdn_hal_srvc_deinit",
         "conn_deinit",
     }},
    {"step_8_fpt",
     "fpt_init",
     9,
     9,
     9,
     {
         "1 HAL_GEN: FPT init failed.",
         "tables_deinit",
         "port_deinit",
         "kr_sdn_hal_srvc_deinit",
         "conn_deinit",
     }},
    {"step_9_internal_event",
     "cl_event_init(auto)",
     4,
     1,
     10,
     {
         "1 HAL_GEN: SDN HAL internal event initialization failed.",
         "fpt_deinit",
         "tables_deinit",
         "port_deinit",
         "kr_sdn_hal_srvc_deinit",
         "conn_deinit",
     }},
    {"step_10_init_done_hal",
     "conn_init_done_hal",
     7,
     7,
     11,
     {
         "1 HAL_GEN: SDN Connector init done hal failed.",
         "cl_event_destroy",
         "fpt_deinit",
         "tables_deinit",
         "port_deinit",
         "kr_sdn_hal_srvc_deinit",
         "conn_deinit",
     }},
};

class general_init_failure_test : public general_fixture, public testing::WithParamInterface<init_row> {
  protected:
    void fail_step() {
        set_result(GetParam().failing_call, GetParam().code);
        if (std::string(GetParam().failing_call) == "conn_init_done_hal") {
            connector->init_done_hal_status = GetParam().code;
        }
    }
};

TEST_P(general_init_failure_test, logs_then_undoes_in_reverse_order_and_returns_the_steps_status) {
    fail_step();
    EXPECT_EQ(GetParam().status, kr_sdn_hal_init(&profile, record_log));
    EXPECT_THAT(take_calls(), ElementsAreArray(init_until(GetParam().calls_before, GetParam().calls_after)));
    EXPECT_EQ(0u, kr::general::g.initialized);
}

TEST_P(general_init_failure_test, ignores_what_the_undo_calls_answer) {
    fail_step();
    for (const char *undo : {"fpt_deinit", "tables_deinit", "port_deinit", "kr_sdn_hal_srvc_deinit"}) {
        set_result(undo, 3);
    }
    connector->deinit_status = 3;
    EXPECT_EQ(GetParam().status, kr_sdn_hal_init(&profile, record_log));
    EXPECT_THAT(take_calls(), ElementsAreArray(init_until(GetParam().calls_before, GetParam().calls_after)));
}

TEST_P(general_init_failure_test, may_be_retried_and_keeps_the_connector_loaded) {
    fail_step();
    EXPECT_NE(0u, kr_sdn_hal_init(&profile, record_log));
    void *const still_loaded = dlopen(profile.connector_library_path, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(nullptr, still_loaded);
    dlclose(still_loaded);
    (void)take_calls();

    set_result(GetParam().failing_call, 0);
    connector->init_done_hal_status = 0;
    EXPECT_EQ(0u, kr_sdn_hal_init(&profile, record_log));
    EXPECT_THAT(take_calls(), ElementsAreArray(init_until(11, {"15 HAL_API: SDN HAL init done."})));
}

INSTANTIATE_TEST_SUITE_P(rows, general_init_failure_test, testing::ValuesIn(init_rows),
                         [](const auto &row) { return row.param.step; });

TEST_F(general_init_test, second_init_returns_1_and_does_nothing_else) {
    init();
    EXPECT_EQ(1u, init_with(record_log));
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{"1 HAL_GEN: SDN HAL is already initialized."}));
}

TEST_F(general_init_test, init_after_deinit_returns_1) {
    init();
    EXPECT_EQ(0u, kr_sdn_hal_deinit());
    (void)kr_log_init(1, nullptr, record_log);
    (void)take_calls();
    EXPECT_EQ(1u, init_with(record_log));
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{"1 HAL_GEN: SDN HAL is already initialized."}));
}

/* ---- activate -------------------------------------------------------------------------------------------------- */

TEST_F(general_init_test, activate_tells_the_connector) {
    init();
    EXPECT_EQ(0u, kr_sdn_hal_activate());
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{"conn_init_done_shim"}));
}

TEST_F(general_init_test, activate_returns_what_the_connector_answers_and_logs_it) {
    init();
    connector->init_done_shim_status = 4;
    EXPECT_EQ(4u, kr_sdn_hal_activate());
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{
                                  "conn_init_done_shim",
                                  "1 HAL_API: SDN HAL modules activate failed.",
                              }));
}

TEST_F(general_init_test, activate_before_init_returns_3_and_calls_nothing) {
    EXPECT_EQ(3u, kr_sdn_hal_activate());
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{"1 HAL_API: SDN HAL modules activate failed."}));
}

/* ---- deinit ---------------------------------------------------------------------------------------------------- */

const call_list whole_deinit = {
    "cl_event_destroy",       "fpt_deinit",  "tables_deinit", "port_deinit",
    "kr_sdn_hal_srvc_deinit", "conn_deinit", "kr_log_close",
};

TEST_F(general_init_test, deinit_takes_the_modules_down_in_order_and_closes_the_logger) {
    init();
    EXPECT_EQ(0u, kr_sdn_hal_deinit());
    EXPECT_THAT(take_calls(), ElementsAreArray(whole_deinit));
    EXPECT_EQ(1u, kr::general::g.initialized);
    void *const still_loaded = dlopen(profile.connector_library_path, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(nullptr, still_loaded);
    dlclose(still_loaded);
}

struct deinit_row {
    const char *step;
    const char *failing_call;
    uint32_t status;
    size_t calls_before;
    const char *line;
};

const deinit_row deinit_rows[] = {
    {"fpt", "fpt_deinit", 3, 2, "1 HAL_GEN: FPT deinit failed."},
    {"tables", "tables_deinit", 1, 3, "1 HAL_GEN: SDN HAL tables module deinit failed."},
    {"port_database", "port_deinit", 2, 4, "1 HAL_GEN: SDN HAL port module deinit failed."},
    {"event_service", "kr_sdn_hal_srvc_deinit", 1, 5, "1 HAL_GEN: SDN HAL event module deinit failed."},
    {"connector", "conn_deinit", 9, 6, "1 HAL_GEN: SDN HAL event module deinit failed."},
};

class general_deinit_failure_test : public general_fixture, public testing::WithParamInterface<deinit_row> {};

TEST_P(general_deinit_failure_test, ends_at_the_first_step_that_fails) {
    init();
    set_result(GetParam().failing_call, GetParam().status);
    if (std::string(GetParam().failing_call) == "conn_deinit") {
        connector->deinit_status = GetParam().status;
    }
    EXPECT_EQ(GetParam().status, kr_sdn_hal_deinit());
    call_list expected(whole_deinit.begin(), whole_deinit.begin() + static_cast<ptrdiff_t>(GetParam().calls_before));
    expected.push_back(GetParam().line);
    expected.push_back("1 HAL_API: SDN HAL modules deinit failed.");
    EXPECT_THAT(take_calls(), ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(rows, general_deinit_failure_test, testing::ValuesIn(deinit_rows),
                         [](const auto &row) { return row.param.step; });

TEST_F(general_init_test, deinit_before_any_init_does_not_crash) {
    set_result("fpt_deinit", 3); // as the port plug-in module answers
    EXPECT_EQ(3u, kr_sdn_hal_deinit());
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{
                                  "cl_event_destroy",
                                  "fpt_deinit",
                                  "1 HAL_GEN: FPT deinit failed.",
                                  "1 HAL_API: SDN HAL modules deinit failed.",
                              }));
}

TEST_F(general_init_test, deinit_without_a_connector_does_not_crash) {
    EXPECT_EQ(3u, kr_sdn_hal_deinit());
    EXPECT_THAT(take_calls(), testing::Contains("1 HAL_GEN: SDN HAL event module deinit failed."));
}

TEST_F(general_init_test, deinit_does_not_stop_a_started_library_and_ends_where_the_tables_refuse) {
    start();
    set_result("tables_deinit", 1); // as tables that the start has brought up answer
    EXPECT_EQ(1u, kr_sdn_hal_deinit());
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{
                                  "cl_event_destroy",
                                  "fpt_deinit",
                                  "tables_deinit",
                                  "1 HAL_GEN: SDN HAL tables module deinit failed.",
                                  "1 HAL_API: SDN HAL modules deinit failed.",
                              }));
    EXPECT_EQ(1u, kr::general::g.started);
}

/* ---- capabilities ---------------------------------------------------------------------------------------------- */

struct capabilities_row {
    capabilities set;
    uint32_t status;
};

void expect_capabilities(uint32_t mode, uint16_t frame_size, uint16_t reserved) {
    capabilities read{9, 9, 9};
    EXPECT_EQ(0u, kr_sdn_hal_capabilities_get(&read));
    EXPECT_EQ(mode, read.mode);
    EXPECT_EQ(frame_size, read.frame_size);
    EXPECT_EQ(reserved, read.reserved);
}

TEST_F(general_init_test, capabilities_before_any_set_and_start_are_zero) {
    expect_capabilities(0, 0, 0);
}

TEST_F(general_init_test, capabilities_0_1500_7_are_accepted_and_read_back) {
    const capabilities set{0, 1500, 7};
    EXPECT_EQ(0u, kr_sdn_hal_capabilities_set(&set));
    expect_capabilities(0, 1500, 7);
    const capabilities no_frame_size{0, 0, 65535};
    EXPECT_EQ(0u, kr_sdn_hal_capabilities_set(&no_frame_size));
    expect_capabilities(0, 0, 65535);
    EXPECT_THAT(take_calls(), testing::IsEmpty());
}

TEST_F(general_init_test, capabilities_with_another_mode_or_frame_size_return_7_and_change_nothing) {
    const capabilities set{0, 1500, 7};
    EXPECT_EQ(0u, kr_sdn_hal_capabilities_set(&set));
    for (const capabilities &refused : {capabilities{0, 1400, 0}, capabilities{1, 0, 0}, capabilities{0, 1501, 0},
                                        capabilities{0xFFFFFFFF, 1500, 0}, capabilities{0, 65535, 0}}) {
        EXPECT_EQ(7u, kr_sdn_hal_capabilities_set(&refused));
        EXPECT_THAT(take_calls(), ElementsAreArray(call_list{"1 HAL_API: general_capabilities_set failed."}));
        expect_capabilities(0, 1500, 7);
    }
}

TEST_F(general_init_test, null_capabilities_return_8_with_their_line) {
    EXPECT_EQ(8u, kr_sdn_hal_capabilities_set(nullptr));
    EXPECT_EQ(8u, kr_sdn_hal_capabilities_get(nullptr));
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{
                                  "1 HAL_API: <cap> param is NULL.",
                                  "1 HAL_API: <cap> param is NULL.",
                              }));
}

TEST_F(general_init_test, start_resets_mode_and_frame_size_and_keeps_the_reserved_field) {
    const capabilities set{0, 0, 7};
    EXPECT_EQ(0u, kr_sdn_hal_capabilities_set(&set));
    start();
    expect_capabilities(0, 1500, 7);
}

} // namespace
