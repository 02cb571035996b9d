/*
 * The life of the tables module: which calls are refused in which state, what a table that is not enabled means, and
 * what the background thread is after a restart.
 */
#include <atomic>

#include "tests/unit/tables/tables_fixture.h"

using namespace kr_test;

namespace {

// Pools that were made, less those that were destroyed.
std::atomic<int> pool_count{0};

// What the making of the flows database and of a counter answer; 0: what they really do. Neither ever fails here.
kr_sdn_hal_status flows_db_status = KR_SDN_HAL_STATUS_SUCCESS;
kr_sdn_hal_status counter_status = KR_SDN_HAL_STATUS_SUCCESS;

TEST_F(tables_unstarted, init_twice_returns_1_the_second_time) {
    ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(init(), KR_SDN_HAL_STATUS_ERROR);
}

TEST_F(tables_started, init_while_running_returns_1_and_changes_nothing) {
    EXPECT_EQ(init(0), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(kr::tables::g.table_enabled[0], 1);
    EXPECT_NE(kr::tables::g.psort, nullptr);
    EXPECT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(tables_started, ports_after_deinit_return_3_and_reach_no_table) {
    ASSERT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(tables_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    watch();
    EXPECT_EQ(tables_port_added(1), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(tables_port_removed(1), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_THAT(log.take(), ElementsAre(error("SDN HAL Tables module is not initialized"),
                                        error("SDN HAL Tables module is not initialized")));
    EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(tables_started, deinit_before_dependent_deinit_returns_1) {
    EXPECT_EQ(tables_deinit(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(tables_unstarted, deinit_before_init_returns_1) {
    EXPECT_EQ(tables_deinit(), KR_SDN_HAL_STATUS_ERROR);
}

TEST_F(tables_unstarted, dependent_init_before_init_returns_1) {
    EXPECT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_ERROR);
}

TEST_F(tables_started, dependent_init_twice_returns_1_the_second_time) {
    EXPECT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_ERROR);
}

TEST_F(tables_unstarted, dependent_deinit_before_dependent_init_returns_1) {
    EXPECT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_ERROR);
    ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(kr::tables::g.stop_flag, 0U); // a thread of the start that follows is to live
}

TEST_F(tables_unstarted, init_after_deinit_succeeds) {
    ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(tables_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(tables_unstarted, a_table_that_is_not_enabled_is_not_brought_up_and_its_ports_are_ignored) {
    ASSERT_EQ(init(0), KR_SDN_HAL_STATUS_SUCCESS);
    watch();
    ASSERT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_port_added(1), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_port_added(unknown_of_port), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_port_removed(1), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(journal(), ElementsAre("cl_thread_init(psort) = 0", "cl_event_signal() = 0", "cl_thread_destroy()"));
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(tables_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(tables_unstarted, a_failed_dependent_init_leaves_the_module_initialized_without_a_thread) {
    ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(kr_soft_fault_set("psort_init", 0, 1, 0), KR_STATUS_SUCCESS);
    kr_soft_journal_start();
    EXPECT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(journal(), testing::Not(testing::Contains(testing::StartsWith("cl_thread_init"))));
    EXPECT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(kr::tables::g.psort, nullptr);
    EXPECT_EQ(usage().acl_count, 1U); // left behind
    EXPECT_EQ(flows_db_count(), 0U);
    EXPECT_EQ(tables_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(tables_unstarted, a_start_after_a_failed_start_loses_no_pool) {
    ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
    kr_HAL_TABLES_API_verb_level = 0;
    const int pools = pool_count;
    // The flows database is up already when these fail.
    for (const char *const function : {"kr_acl_rm_api_open", "psort_init", "cl_thread_init"}) {
        ASSERT_EQ(kr_soft_fault_set(function, 0, 1, 0), KR_STATUS_SUCCESS);
        EXPECT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_ERROR);
        EXPECT_EQ(pool_count, pools + 1) << function;
    }
    ASSERT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(pool_count, pools + 1);
    ASSERT_EQ(add(make_flows(1, 1000)), KR_SDN_HAL_STATUS_SUCCESS); // the whole pool is there
    ASSERT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(pool_count, pools);
}

TEST_F(tables_unstarted, no_room_for_the_flood_group_leaves_the_flows_database_initialised) {
    ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_mc_group_set", 0, KR_STATUS_NO_RESOURCES, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_NO_RESOURCES);
    EXPECT_EQ(flows_db_count(), 0U); // answers
}

TEST_F(tables_started, a_failed_dependent_deinit_stays_dependent_initialized_and_the_thread_is_gone) {
    kr_HAL_TABLES_API_verb_level = 0;
    kr_FLOWS_DB_verb_level = 0;
    ASSERT_EQ(kr_soft_fault_set("psort_clear_table", 0, 1, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(tables_deinit(), KR_SDN_HAL_STATUS_ERROR);
    // The flows database went first; a second attempt finds it gone.
    EXPECT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_ERROR);
    kr::tables::g.dependent_initialized = 0;
}

TEST_F(tables_started, the_counter_budget_is_reset_by_deinit_even_if_a_later_step_fails) {
    ASSERT_EQ(add(make_flows(1, 3)), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(kr::tables_acl::g.flow_counters_used, 3U);
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_close", 0, 1, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 0U);
    kr::tables::g.dependent_initialized = 0;
}

TEST_F(tables_started, nothing_is_left_in_the_platform_after_deinit_with_flows) {
    ASSERT_EQ(add(make_flows(1, 200)), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    const kr_soft_usage left = usage();
    EXPECT_EQ(left.acl_count, 0U);
    EXPECT_EQ(left.rule_count, 0U);
    EXPECT_EQ(left.counter_count, 0U);
    EXPECT_EQ(left.group_count, 0U);
    EXPECT_EQ(left.binding_count, 0U);
    EXPECT_EQ(left.acl_rm_handle_count, 0U);
}

TEST_F(tables_started, dependent_init_after_dependent_deinit_succeeds_and_its_thread_ends_at_its_first_wake_up) {
    ASSERT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr::tables::g.stop_flag, 1U);
    ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    kr_soft_journal_start();
    ASSERT_EQ(cl_event_signal(&kr::tables::g.stop_event), CL_SUCCESS);
    cl_thread_destroy(&kr::tables::g.background_thread); // returns: the thread has ended without being told
    EXPECT_THAT(journal(), ElementsAre("cl_event_signal() = 0", "cl_thread_destroy()"));
}

TEST_F(tables_started, the_flood_group_holds_exactly_the_ports_that_were_added_and_not_removed) {
    const auto flood_ports = [] {
        uint32_t count = 100;
        std::vector<uint32_t> ports(count);
        EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(kr::tables_acl::g.acl_rm_handle, kr::tables_acl::g.flood_mc_group_id,
                                                 &count, ports.data()),
                  KR_STATUS_SUCCESS);
        ports.resize(count);
        return ports;
    };
    EXPECT_THAT(flood_ports(), testing::UnorderedElementsAre(0x10001, 0x10002, 0x10003, 0x10004));
    ASSERT_EQ(tables_port_removed(2), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(flood_ports(), testing::UnorderedElementsAre(0x10001, 0x10003, 0x10004));
    EXPECT_EQ(usage().binding_count, 3U);
}

/* ---- dispatch ---------------------------------------------------------------------------------------------------- */

// A table that can only what it must.
class bare_table : public tables_started {
  protected:
    void SetUp() override {
        tables_started::SetUp();
        operations = *kr::tables::g.operations[0];
        operations.capabilities_get = nullptr;
        operations.config = nullptr;
        operations.del = nullptr;
        operations.activity_get = nullptr;
        operations.table_stats_get = nullptr;
        operations.flows_stats_get = nullptr;
        operations.rules_shift = nullptr;
        operations.rule_get = nullptr;
        ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
        kr::tables::g.operations[0] = &operations;
        watch();
    }

    table_ops operations{};
};

TEST_F(bare_table, add_is_unsupported) {
    EXPECT_EQ(add({make_flow(2)}), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(log.take(), ElementsAre(error("Add entry operation is unsupported for Table (0) "),
                                        notice("Failed in flow add operation")));
}

TEST_F(bare_table, delete_is_unsupported) {
    EXPECT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(log.take(), ElementsAre(error("Delete entry operation is unsupported for Table (0) "),
                                        notice("Failed in flow delete operation")));
}

TEST_F(bare_table, shift_is_unsupported) {
    EXPECT_EQ(tables_entries_shift(0, 1, 2, 1), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(log.take(), ElementsAre(error("Shift entries operation is unsupported for Table (0)"),
                                        error("Failed to shift flows ")));
}

TEST_F(bare_table, activity_is_unsupported) {
    const uint64_t id = 1;
    uint32_t activity = 0;
    EXPECT_EQ(tables_flow_activity_get(0, &id, 1, &activity), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(log.take(), ElementsAre(error("Get entry activity operation is unsupported for Table (0) "),
                                        error("Failed to retrieve flows activity ")));
}

TEST_F(bare_table, get_is_unsupported) {
    const uint64_t id = 1;
    flow_record flow{};
    EXPECT_EQ(tables_entry_get(0, &id, 1, &flow), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(log.take(), ElementsAre(error("Get entry operation is unsupported for Table (0) "),
                                        error("Failed to retrieve flows ")));
}

TEST_F(bare_table, flow_statistics_are_unsupported) {
    const uint64_t id = 1;
    flow_stats stats{};
    EXPECT_EQ(tables_entries_stat_get(0, &id, 1, &stats), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(log.take(), ElementsAre(error("Get flow stats operation is unsupported for Table (0) ")));
}

TEST_F(bare_table, table_statistics_are_unsupported) {
    table_stats stats{};
    EXPECT_EQ(tables_table_stat_get(0, &stats), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(log.take(), ElementsAre(error("Get table stats operation is unsupported for Table (0) ")));
}

TEST_F(bare_table, capabilities_are_not_found) {
    table_capabilities read{};
    EXPECT_EQ(tables_capability_get(0, &read), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(log.take(), ElementsAre(error("Table (0) is unsupported")));
}

TEST_F(tables_unstarted, a_flows_database_that_cannot_be_made_ends_the_start_of_the_table) {
    ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
    watch();
    flows_db_status = KR_SDN_HAL_STATUS_PARAM_ERROR;
    EXPECT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_PARAM_ERROR);
    flows_db_status = KR_SDN_HAL_STATUS_SUCCESS;
    EXPECT_THAT(log.take(),
                ElementsAre(error("Failed to init flows DB"), error("Failed to initialize table (0) rc = 7")));
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(tables_started, a_counter_that_fails_ends_the_flow_before_its_rule) {
    watch();
    counter_status = KR_SDN_HAL_STATUS_SDK_ERROR;
    EXPECT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SDK_ERROR);
    counter_status = KR_SDN_HAL_STATUS_SUCCESS;
    EXPECT_THAT(log.take(),
                ElementsAre(notice("Failed to allocate flow counter."), notice("Failed to configure flow (1) "),
                            notice("Failed in flow add operation")));
    EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(tables_started, the_operations_get_the_address_of_a_copy_of_the_count) {
    static uint32_t *seen_count = nullptr;
    static table_ops operations; // until tear-down
    operations = *kr::tables::g.operations[0];
    operations.config = [](wrapped_flow *, uint32_t *count) {
        seen_count = count;
        *count = 12345;
        return KR_SDN_HAL_STATUS_SUCCESS;
    };
    kr::tables::g.operations[0] = &operations;
    // 12345 would be far outside the batch, were it taken over.
    EXPECT_EQ(add({make_flow(1), make_flow(2)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_NE(seen_count, nullptr);
    EXPECT_EQ(flows_db_count(), 2U);
}

} // namespace

// Visible, since the linker reroutes the references of the sanitizers' shared libraries as well.
#pragma GCC visibility push(default)
extern "C" {

kr_sdn_hal_status __real__Z13flows_db_initP8flows_dbj(flows_db *db, uint32_t size);
kr_sdn_hal_status __wrap__Z13flows_db_initP8flows_dbj(flows_db *db, uint32_t size);
kr_sdn_hal_status __real__Z23__allocate_flow_counterP12wrapped_flowP11kr_acl_rule(wrapped_flow *flow,
                                                                                  kr_acl_rule *rule);
kr_sdn_hal_status __wrap__Z23__allocate_flow_counterP12wrapped_flowP11kr_acl_rule(wrapped_flow *flow,
                                                                                  kr_acl_rule *rule);

kr_sdn_hal_status __wrap__Z13flows_db_initP8flows_dbj(flows_db *db, uint32_t size) {
    return flows_db_status != 0 ? flows_db_status : __real__Z13flows_db_initP8flows_dbj(db, size);
}

kr_sdn_hal_status __wrap__Z23__allocate_flow_counterP12wrapped_flowP11kr_acl_rule(wrapped_flow *flow,
                                                                                  kr_acl_rule *rule) {
    return counter_status != 0 ? counter_status
                               : __real__Z23__allocate_flow_counterP12wrapped_flowP11kr_acl_rule(flow, rule);
}

cl_status_t __real_cl_qpool_init(cl_qpool_t *pool, size_t min_count, size_t max_count, size_t growth_size,
                                 size_t object_size, cl_qpool_constructor constructor, cl_qpool_destructor destructor,
                                 void *context);
cl_status_t __wrap_cl_qpool_init(cl_qpool_t *pool, size_t min_count, size_t max_count, size_t growth_size,
                                 size_t object_size, cl_qpool_constructor constructor, cl_qpool_destructor destructor,
                                 void *context);
void __real_cl_qpool_destroy(cl_qpool_t *pool);
void __wrap_cl_qpool_destroy(cl_qpool_t *pool);

cl_status_t __wrap_cl_qpool_init(cl_qpool_t *pool, size_t min_count, size_t max_count, size_t growth_size,
                                 size_t object_size, cl_qpool_constructor constructor, cl_qpool_destructor destructor,
                                 void *context) {
    const cl_status_t status =
        __real_cl_qpool_init(pool, min_count, max_count, growth_size, object_size, constructor, destructor, context);
    pool_count += status == CL_SUCCESS ? 1 : 0;
    return status;
}

void __wrap_cl_qpool_destroy(cl_qpool_t *pool) {
    __real_cl_qpool_destroy(pool);
    --pool_count;
}

} // extern "C"
#pragma GCC visibility pop
