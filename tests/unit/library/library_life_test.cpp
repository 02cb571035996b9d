/*
 * Init and deinit with the modules as they are: what a failed init leaves, and what a started library refuses.
 */
#include <cstring>

#include "library_fixture.h"
#include "tables/tables.h"

using namespace kr_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;

// Before main, and so before any test has changed them.
const std::vector<int32_t> verbosities_at_load = {
    kr_HAL_API_verb_level, kr_HAL_EVENTS_API_verb_level, kr_HAL_API_PORT_verb_level, kr_FPT_verb_level,
    kr_HAL_GEN_verb_level, kr_HAL_PORT_verb_level,       kr_FLOWS_DB_verb_level,     kr_HAL_UTILS_verb_level,
};

class library_life_test : public library_fixture {
  protected:
    // Each module answers what it answers when it was never initialised.
    void expect_nothing_is_up() {
        srvc_handle channel{};
        EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), ERROR);
        EXPECT_EQ(tables_deinit(), ERROR);
        EXPECT_EQ(kr::general::g.initialized, 0U);
        uint16_t mtu = 0;
        EXPECT_EQ(kr_sdn_hal_port_mtu_get(1, &mtu), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
        (void)take_log();
    }
};

TEST_F(library_life_test, every_verbosity_global_starts_at_3) {
    EXPECT_THAT(verbosities_at_load, ElementsAre(3, 3, 3, 3, 3, 3, 3, 3));
}

TEST_F(library_life_test, init_and_deinit_log_nothing_at_verbosity_3) {
    EXPECT_EQ(init_with(plugin("fake_fpt")), SUCCESS);
    EXPECT_EQ(event(CONN_EVENT_START), 0U);
    EXPECT_EQ(event(CONN_EVENT_STOP), 0U);
    EXPECT_THAT(take_log(), IsEmpty());
}

TEST_F(library_life_test, a_module_at_4_logs_its_notices_without_the_prefix_and_no_debug_line) {
    kr_HAL_API_verb_level = 4;
    kr_HAL_EVENTS_API_verb_level = 4;
    EXPECT_EQ(init_with(plugin("fake_fpt")), SUCCESS);
    EXPECT_THAT(take_log(), ElementsAre("15 HAL_API: SDN HAL init done."));
}

TEST_F(library_life_test, a_module_at_5_logs_its_debug_lines_with_the_prefix_and_the_others_stay_silent) {
    kr_HAL_EVENTS_API_verb_level = 5;
    EXPECT_EQ(init_with(plugin("fake_fpt")), SUCCESS);
    EXPECT_THAT(take_log(),
                ElementsAre(MatchesRegex(R"(31 HAL_EVENTS_API: kr_sdn_hal_api_events\.cpp\[[1-9][0-9]*\]- )"
                                         "kr_sdn_hal_srvc_init: HAL events module initialized successfully\\.")));
}

/* ---- init that fails --------------------------------------------------------------------------------------------- */

TEST_F(library_life_test, failing_fpt_init_leaves_the_modules_undone_and_init_may_be_retried) {
    for (int attempt = 0; attempt < 3; attempt++) {
        EXPECT_EQ(init_with("/nowhere/no-port-plug-in.so"), ERROR);
        EXPECT_EQ(take_log().back(), "1 HAL_GEN: FPT init failed.");
        expect_nothing_is_up();
    }
    EXPECT_EQ(init_with(plugin("fake_fpt")), SUCCESS);
    EXPECT_EQ(event(CONN_EVENT_START), 0U);
    EXPECT_NO_FATAL_FAILURE(add_port(1));
    EXPECT_THAT(take_log(), IsEmpty());
}

TEST_F(library_life_test, failing_last_step_leaves_the_modules_undone_and_init_may_be_retried) {
    connector->init_done_hal_status = 11;
    EXPECT_EQ(init_with(plugin("fake_fpt")), KR_SDN_HAL_STATUS_RESOURCE_IN_USE);
    EXPECT_THAT(take_log(), ElementsAre("1 HAL_GEN: SDN Connector init done hal failed."));
    expect_nothing_is_up();
    connector->init_done_hal_status = 0;
    EXPECT_EQ(init_with(plugin("fake_fpt")), SUCCESS);
}

// Steps 5 to 9, each in its own module: the lock of the events, the pool of the ports, the lock of the tables and the
// event of the library.
struct init_row {
    const char *name;
    const char *function;
    uint32_t nth;
    const char *last_line;
};

class library_init_failure_test : public library_life_test, public testing::WithParamInterface<init_row> {};

TEST_P(library_init_failure_test, returns_1_with_its_line_leaves_nothing_up_and_may_be_retried) {
    ASSERT_EQ(kr_soft_fault_set(GetParam().function, GetParam().nth, 1, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(init_with(plugin("fake_fpt")), ERROR);
    EXPECT_EQ(take_log().back(), GetParam().last_line);
    kr_soft_fault_clear();
    expect_nothing_is_up();
    EXPECT_EQ(init_with(plugin("fake_fpt")), SUCCESS);
    EXPECT_EQ(event(CONN_EVENT_START), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    rows, library_init_failure_test,
    testing::Values(
        init_row{"event_service", "cl_plock_init", 0, "1 HAL_GEN: SDN HAL event module init failed."},
        init_row{"ports", "cl_qpool_init", 0, "1 HAL_GEN: SDN HAL port module init failed."},
        init_row{"lock_of_table_0", "cl_plock_init", 1, "1 HAL_GEN: SDN HAL tables module init failed."},
        init_row{"stop_event_of_the_tables", "cl_event_init", 0, "1 HAL_GEN: SDN HAL tables module init failed."},
        init_row{"internal_event", "cl_event_init", 1, "1 HAL_GEN: SDN HAL internal event initialization failed."}),
    [](const auto &row) { return row.param.name; });

/* ---- deinit ------------------------------------------------------------------------------------------------------ */

TEST_F(library_life_test, deinit_of_a_started_library_returns_1_and_the_switch_stays_up) {
    in_a_process_of_its_own([this] {
        start();
        EXPECT_EQ(kr_sdn_hal_deinit(), ERROR);
        EXPECT_THAT(take_log(), ElementsAre("1 HAL_GEN: SDN HAL tables module deinit failed.",
                                            "1 HAL_API: SDN HAL modules deinit failed."));
        EXPECT_EQ(kr::general::g.started, 1U);
        EXPECT_EQ(usage().acl_count, 1U);
        EXPECT_EQ(usage().device_handle_count, 1U);
        EXPECT_EQ(event(CONN_EVENT_STOP), 0U);
        EXPECT_EQ(usage().acl_count, 0U);
        EXPECT_EQ(usage().device_handle_count, 0U);
    });
}

TEST_F(library_life_test, deinit_after_the_stop_takes_every_module_down) {
    start();
    EXPECT_EQ(event(CONN_EVENT_STOP), 0U);
    EXPECT_EQ(kr_sdn_hal_deinit(), SUCCESS);
    kr::general::g.initialized = 0; // seen by the log, and by nothing else here
    expect_nothing_is_up();
}

} // namespace
