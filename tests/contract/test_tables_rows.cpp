/*
 * Every step of the tables that can fail, row by row: the fault, the status, the exact lines of the log, and all calls
 * of the platform, so that what was done, what was left behind and what was never tried can be read off.
 *
 * Where pSort puts a flow is pSort's own business: the journal and the log show an offset as @ and the id of its flow.
 */
#include <functional>
#include <map>
#include <regex>

#include "tests/unit/tables/tables_fixture.h"

using namespace kr_test;

namespace {

using status = kr_sdn_hal_status;
using lines = std::vector<std::string>;

// How far the tables are up when the operation of a row runs.
enum class stage { unstarted, initialized, started, with_flows };

struct row {
    const char *name;
    stage from;
    std::function<status()> run;
    const char *function; // which fails; empty: none does
    uint32_t nth;
    uint32_t code;
    status expected;
    std::vector<log_line> log;
    lines journal;
};

void PrintTo(const row &value, std::ostream *out) {
    *out << value.name;
}

/* ---- operations -------------------------------------------------------------------------------------------------- */

status init_table_0() {
    const uint8_t enabled = 1;
    return tables_init(&enabled);
}
status port_1_added() {
    return tables_port_added(1);
}
status port_1_removed() {
    return tables_port_removed(1);
}
// Flows 1 to 3 are there at stage with_flows; 11 to 13 are not.
status add_three() {
    return add(make_flows(11, 3));
}
status delete_three() {
    return remove(make_flows(1, 3));
}
status get_three() {
    uint64_t ids[] = {1, 2, 3};
    flow_record flows[3] = {};
    return tables_entry_get(0, ids, 3, flows);
}
status activity_of_three() {
    uint64_t ids[] = {1, 2, 3};
    uint32_t activities[3] = {};
    return tables_flow_activity_get(0, ids, 3, activities);
}
status stats_of_three() {
    uint64_t ids[] = {1, 2, 3};
    flow_stats stats[3] = {};
    return tables_entries_stat_get(0, ids, 3, stats);
}
status shift_to_900() {
    return tables_entries_shift(0, static_cast<uint32_t>(offset_of(1)), 900, 1);
}
status group_add() {
    const uint32_t ports[] = {1, 2};
    uint32_t group_id = 0;
    return tables_mcast_group_add(2, ports, &group_id);
}
status group_edit() {
    const uint32_t ports[] = {3};
    uint32_t group_id = 200;
    return tables_mcast_group_edit(KR_SDN_HAL_GROUP_ADD_PORTS, 1, ports, &group_id);
}
status group_del() {
    uint32_t group_id = 200;
    return tables_mcast_group_del(&group_id);
}
status group_get() {
    uint32_t count = 100;
    uint32_t ports[100] = {};
    return tables_mcast_group_get(200, &count, ports);
}

/* ---- lines that recur -------------------------------------------------------------------------------------------- */

lines first(size_t count, const lines &all) {
    return {all.begin(), all.begin() + static_cast<ptrdiff_t>(count)};
}

// The first lines of what a call does when nothing fails, the last of them with another result.
lines until(size_t count, const lines &all, const std::string &result) {
    lines some = first(count, all);
    some.back().replace(some.back().rfind(" = ") + 3, std::string::npos, result);
    return some;
}

lines operator+(lines left, const lines &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

const lines init_calls = {"cl_plock_init() = 0", "cl_event_init(0) = 0"};

const lines start_calls = {
    "cl_qpool_init(1000, 1000, 0, " + std::to_string(sizeof(flows_db_element)) + ") = 0",
    "kr_acl_rm_api_open() = 0",
    "kr_acl_rm_api_init(mode 1) = 0",
    "kr_acl_rm_api_acl_set(cmd 4, acl 1, key_type 3, direction 1, size 1000, size_max 1000) = 0",
    "kr_acl_rm_api_acl_mc_group_set(cmd 1, group 1, ports [], count 0) = 0",
    "psort_init(size=1000) = 0",
    "cl_thread_init(psort) = 0",
};
const lines acl_not_created = {
    "kr_acl_rm_api_acl_set(cmd 4, acl 0, key_type 3, direction 1, size 1000, size_max 1000) = 8"};
lines group_not_created(const std::string &result) {
    return {"kr_acl_rm_api_acl_mc_group_set(cmd 1, group 0, ports [], count 0) = " + result};
}

const lines stop_calls = {
    "cl_event_signal() = 0",
    "cl_thread_destroy()",
    "psort_clear_table() = 0",
    "kr_acl_rm_api_acl_mc_group_set(cmd 3, group 1, ports [], count 0) = 0",
    "kr_acl_rm_api_acl_set(cmd 5, acl 1) = 0",
    "kr_acl_rm_api_close() = 0",
};

const lines bind_calls = {
    "kr_acl_rm_api_acl_bind_port_set(cmd 7, acl 1, ports [0x10001], count 1) = 0",
    "kr_acl_rm_api_acl_mc_group_set(cmd 9, group 1, ports [0x10001], count 1) = 0",
};
const lines unbind_calls = {
    "kr_acl_rm_api_acl_bind_port_set(cmd 8, acl 1, ports [0x10001], count 1) = 0",
    "kr_acl_rm_api_acl_mc_group_set(cmd 10, group 1, ports [0x10001], count 1) = 0",
};

const lines add_calls = {
    "cl_malloc(100) = pointer",
    "psort_entry_set(add, key=11, priority=100, index=@11) = 0",
    "psort_entry_set(add, key=12, priority=100, index=@12) = 0",
    "psort_entry_set(add, key=13, priority=100, index=@13) = 0",
    "kr_acl_rm_api_counter_set(cmd 4, counter 4) = 0",
    "kr_acl_rm_api_acl_rule_set(cmd 6, acl 1, offset @11 discard counter 4, count 1) = 0",
    "kr_acl_rm_api_counter_set(cmd 4, counter 5) = 0",
    "kr_acl_rm_api_acl_rule_set(cmd 6, acl 1, offset @12 discard counter 5, count 1) = 0",
    "kr_acl_rm_api_counter_set(cmd 4, counter 6) = 0",
    "kr_acl_rm_api_acl_rule_set(cmd 6, acl 1, offset @13 discard counter 6, count 1) = 0",
    "cl_qpool_get() = pointer",
    "cl_qpool_get() = pointer",
    "cl_qpool_get() = pointer",
};
lines not_placed(const std::string &result) {
    return {"psort_entry_set(add, key=12, priority=100, index=0) = " + result};
}
log_line adds(int flow_id) {
    const std::string id = std::to_string(flow_id);
    return notice(formatted("Adds ACL rule to Table 0 with flow ID [%s] ,Priority [100] at offset [%s]", id.c_str(),
                            ("@" + id).c_str()));
}

const lines delete_calls = {
    "cl_malloc(100) = pointer",
    "kr_acl_rm_api_acl_rule_set(cmd 3, acl 1, offset @1, count 1) = 0",
    "psort_entry_set(delete, key=1, priority=100, index=@1) = 0",
    "kr_acl_rm_api_acl_rule_set(cmd 3, acl 1, offset @2, count 1) = 0",
    "psort_entry_set(delete, key=2, priority=100, index=@2) = 0",
    "kr_acl_rm_api_acl_rule_set(cmd 3, acl 1, offset @3, count 1) = 0",
    "psort_entry_set(delete, key=3, priority=100, index=@3) = 0",
};

const lines get_calls = {
    "cl_malloc(100) = pointer",
    "kr_acl_rm_api_acl_rule_get(acl 1, offset @1, count 1) = 0",
    "kr_acl_rm_api_acl_rule_get(acl 1, offset @2, count 1) = 0",
    "kr_acl_rm_api_acl_rule_get(acl 1, offset @3, count 1) = 0",
};
const lines activity_calls = {
    "kr_acl_rm_api_acl_rule_get(acl 1, offset @1 activity_mode 2, count 1) = 0",
    "kr_acl_rm_api_acl_rule_get(acl 1, offset @2 activity_mode 2, count 1) = 0",
    "kr_acl_rm_api_acl_rule_get(acl 1, offset @3 activity_mode 2, count 1) = 0",
};
const lines stats_calls = {
    "kr_acl_rm_api_counter_get(cmd 13, counter 1) = 0",
    "kr_acl_rm_api_counter_get(cmd 13, counter 2) = 0",
    "kr_acl_rm_api_counter_get(cmd 13, counter 3) = 0",
};

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr auto NO_RESOURCES = KR_SDN_HAL_STATUS_NO_RESOURCES;
constexpr auto NOT_FOUND = KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;

/* ---- life cycle -------------------------------------------------------------------------------------------------- */

const row life_cycle_rows[] = {
    {"init", stage::unstarted, init_table_0, "", 0, 0, SUCCESS, {}, init_calls},
    {"init_lock_fails",
     stage::unstarted,
     init_table_0,
     "cl_plock_init",
     0,
     1,
     ERROR,
     {error("failed to initialize Table 0 lock."), error("Failed to initialize table 0 ")},
     until(1, init_calls, "1")},
    {"init_stop_event_fails_and_the_lock_stays",
     stage::unstarted,
     init_table_0,
     "cl_event_init",
     0,
     1,
     ERROR,
     {error("failed initialize psort background thread stop event")},
     until(2, init_calls, "1")},
    {"start", stage::initialized, tables_dependent_init, "", 0, 0, SUCCESS, {}, start_calls},
    {"start_open_fails",
     stage::initialized,
     tables_dependent_init,
     "kr_acl_rm_api_open",
     0,
     13,
     ERROR,
     {error("Failed to open handle to ACL RM rc(13)"), error("Failed in ACL HW init "),
      error("Failed to initialize table (0) rc = 1")},
     until(2, start_calls, "13")},
    {"start_resource_manager_init_fails",
     stage::initialized,
     tables_dependent_init,
     "kr_acl_rm_api_init",
     0,
     8,
     ERROR,
     {error("Failed to init ACL RM rc(8)"), error("Failed in ACL HW init "),
      error("Failed to initialize table (0) rc = 1")},
     until(3, start_calls, "8")},
    {"start_acl_fails",
     stage::initialized,
     tables_dependent_init,
     "kr_acl_rm_api_acl_set",
     0,
     8,
     ERROR,
     {error("Failed to create ACL in ACL RM rc (8)"), error("Failed in ACL HW init "),
      error("Failed to initialize table (0) rc = 1")},
     first(3, start_calls) + acl_not_created},
    {"start_flood_group_has_no_room",
     stage::initialized,
     tables_dependent_init,
     "kr_acl_rm_api_acl_mc_group_set",
     0,
     6,
     NO_RESOURCES,
     {notice("No resources to create FLOOD MC group in ACL RM rc (6)"), error("Failed in ACL HW init "),
      error("Failed to initialize table (0) rc = 10")},
     first(4, start_calls) + group_not_created("6")},
    {"start_flood_group_fails",
     stage::initialized,
     tables_dependent_init,
     "kr_acl_rm_api_acl_mc_group_set",
     0,
     7,
     ERROR,
     {error("Failed to create FLOOD MC group in ACL RM rc (7)"), error("Failed in ACL HW init "),
      error("Failed to initialize table (0) rc = 1")},
     first(4, start_calls) + group_not_created("7")},
    {"start_psort_has_no_room",
     stage::initialized,
     tables_dependent_init,
     "psort_init",
     0,
     10,
     NO_RESOURCES,
     {error("Failed in ACL pSort init "), error("Failed to initialize table (0) rc = 10")},
     until(6, start_calls, "10")},
    {"start_psort_has_no_memory",
     stage::initialized,
     tables_dependent_init,
     "psort_init",
     0,
     3,
     ERROR,
     {error("Failed in ACL pSort init "), error("Failed to initialize table (0) rc = 1")},
     until(6, start_calls, "3")},
    {"start_thread_fails_and_the_table_stays_up",
     stage::initialized,
     tables_dependent_init,
     "cl_thread_init",
     0,
     1,
     ERROR,
     {error("Could not create pSort background thread")},
     until(7, start_calls, "1")},
    {"stop", stage::started, tables_dependent_deinit, "", 0, 0, SUCCESS, {}, stop_calls},
    {"stop_flows_database_is_gone",
     stage::started,
     [] {
         (void)flows_db_deinit(&acl_flows_db);
         return tables_dependent_deinit();
     },
     "",
     0,
     0,
     ERROR,
     {{KR_LOG_ERROR, "FLOWS_DB", "Flow DB is not initialized.\n"},
      error("Failed to deinit flows DB"),
      error("Failed to deinit table (0) rc = 1")},
     first(2, stop_calls)},
    {"stop_psort_fails",
     stage::started,
     tables_dependent_deinit,
     "psort_clear_table",
     0,
     15,
     ERROR,
     {error("Failed in ACL pSort deinit "), error("Failed to deinit table (0) rc = 1")},
     until(3, stop_calls, "15")},
    {"stop_psort_is_in_use",
     stage::started,
     tables_dependent_deinit,
     "psort_clear_table",
     0,
     18,
     KR_SDN_HAL_STATUS_RESOURCE_IN_USE,
     {error("Failed in ACL pSort deinit "), error("Failed to deinit table (0) rc = 11")},
     until(3, stop_calls, "18")},
    {"stop_flood_group_fails",
     stage::started,
     tables_dependent_deinit,
     "kr_acl_rm_api_acl_mc_group_set",
     0,
     5,
     ERROR,
     {error("Failed to delete FLOOD MC group in ACL RM rc (5)"), error("Failed in ACL HW deinit "),
      error("Failed to deinit table (0) rc = 1")},
     until(4, stop_calls, "5")},
    {"stop_acl_fails",
     stage::started,
     tables_dependent_deinit,
     "kr_acl_rm_api_acl_set",
     0,
     11,
     ERROR,
     {error("Failed to destroy ACL in ACL RM rc (11)"), error("Failed in ACL HW deinit "),
      error("Failed to deinit table (0) rc = 1")},
     until(5, stop_calls, "11")},
    {"stop_close_fails",
     stage::started,
     tables_dependent_deinit,
     "kr_acl_rm_api_close",
     0,
     12,
     ERROR,
     {error("Failed to close handle to ACL RM rc(12)"), error("Failed in ACL HW deinit "),
      error("Failed to deinit table (0) rc = 1")},
     until(6, stop_calls, "12")},
    {"deinit", stage::initialized, tables_deinit, "", 0, 0, SUCCESS, {}, {"cl_plock_destroy()", "cl_event_destroy()"}},
};

/* ---- ports ------------------------------------------------------------------------------------------------------- */

const row port_rows[] = {
    {"port_added", stage::started, port_1_added, "", 0, 0, SUCCESS, {}, bind_calls},
    {"port_added_hardware_is_full",
     stage::started,
     port_1_added,
     "kr_acl_rm_api_acl_bind_port_set",
     0,
     7,
     NO_RESOURCES,
     {error("Failed to bind port (0x10001) ACL RM rc (7) "), error("Failed to add port (0x1) to table (0) rc (10)")},
     until(1, bind_calls, "7")},
    {"port_added_bind_fails",
     stage::started,
     port_1_added,
     "kr_acl_rm_api_acl_bind_port_set",
     0,
     6,
     ERROR,
     {error("Failed to bind port (0x10001) ACL RM rc (6) "), error("Failed to add port (0x1) to table (0) rc (1)")},
     until(1, bind_calls, "6")},
    {"port_added_flood_group_fails_and_the_binding_stays",
     stage::started,
     port_1_added,
     "kr_acl_rm_api_acl_mc_group_set",
     0,
     6,
     ERROR,
     {error("Failed to add port (0x10001) to ACL RM FLOOD group (6)"),
      error("Failed to add port (0x1) to table (0) rc (1)")},
     until(2, bind_calls, "6")},
    {"port_added_unknown_port_touches_no_hardware",
     stage::started,
     [] { return tables_port_added(unknown_of_port); },
     "",
     0,
     0,
     NOT_FOUND,
     {error("Failed to translate port rc (4)n "), error("Failed to add port (0x4d) to table (0) rc (4)")},
     {}},
    {"port_removed", stage::started, port_1_removed, "", 0, 0, SUCCESS, {}, unbind_calls},
    {"port_removed_code_7_is_an_error_here",
     stage::started,
     port_1_removed,
     "kr_acl_rm_api_acl_bind_port_set",
     0,
     7,
     ERROR,
     {error("Failed to unbind port (0x10001) ACL RM rc (7) "), error("Failed to remove port (0x1) table (0) rc (1)")},
     until(1, unbind_calls, "7")},
    {"port_removed_flood_group_fails_and_the_port_stays_unbound",
     stage::started,
     port_1_removed,
     "kr_acl_rm_api_acl_mc_group_set",
     0,
     5,
     ERROR,
     {error("Failed to remove port (0x10001) from ACL RM FLOOD group (5)n "),
      error("Failed to remove port (0x1) table (0) rc (1)")},
     until(2, unbind_calls, "5")},
    {"port_removed_unknown_port_touches_no_hardware",
     stage::started,
     [] { return tables_port_removed(unknown_of_port); },
     "",
     0,
     0,
     NOT_FOUND,
     {error("Failed to translate port rc (4) "), error("Failed to remove port (0x4d) table (0) rc (4)")},
     {}},
    {"port_added_before_init",
     stage::unstarted,
     port_1_added,
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_NOT_INITIALIZED,
     {error("SDN HAL Tables module is not initialized")},
     {}},
    {"port_removed_before_init",
     stage::unstarted,
     port_1_removed,
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_NOT_INITIALIZED,
     {error("SDN HAL Tables module is not initialized")},
     {}},
};

/* ---- flows ------------------------------------------------------------------------------------------------------- */

const log_line failed_in_add = notice("Failed in flow add operation");
const log_line failed_in_delete = notice("Failed in flow delete operation");
const log_line no_memory = error("Failed to allocate memory for wrapped flows array ");

status add_second_with(const std::function<void(flow_record &)> &change) {
    std::vector<flow_record> flows = make_flows(11, 3);
    change(flows[1]);
    return add(flows);
}

const row add_rows[] = {
    {"add", stage::with_flows, add_three, "", 0, 0, SUCCESS, {adds(11), adds(12), adds(13)}, add_calls},
    {"add_no_memory", stage::with_flows, add_three, "cl_malloc", 0, 1, ERROR, {no_memory}, until(1, add_calls, "NULL")},
    {"add_psort_is_full",
     stage::with_flows,
     add_three,
     "psort_entry_set",
     1,
     10,
     NO_RESOURCES,
     {notice("Due to lack of resources failed to get flow index from pSort lib for flow ID (12) Table 0"),
      failed_in_add},
     first(2, add_calls) + not_placed("10")},
    {"add_psort_fails",
     stage::with_flows,
     add_three,
     "psort_entry_set",
     1,
     1,
     ERROR,
     {error("Failed to get flow index from pSort lib for flow ID (12) Table 0"), failed_in_add},
     first(2, add_calls) + not_placed("1")},
    {"add_psort_knows_the_flow",
     stage::with_flows,
     add_three,
     "psort_entry_set",
     1,
     14,
     KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS,
     {error("Failed to get flow index from pSort lib for flow ID (12) Table 0"), failed_in_add},
     first(2, add_calls) + not_placed("14")},
    {"add_second_rule_has_no_room",
     stage::with_flows,
     add_three,
     "kr_acl_rm_api_acl_rule_set",
     1,
     6,
     NO_RESOURCES,
     {adds(11), adds(12), notice("Due to lack of resources failed to set rules in ACL RM rc (6) "),
      notice("Failed to configure flow (12) "), failed_in_add},
     until(8, add_calls, "6")},
    {"add_second_rule_fails",
     stage::with_flows,
     add_three,
     "kr_acl_rm_api_acl_rule_set",
     1,
     7,
     ERROR,
     {adds(11), adds(12), error("Failed to set rules in ACL RM rc (7) "), notice("Failed to configure flow (12) "),
      failed_in_add},
     until(8, add_calls, "7")},
    {"add_second_counter_fails_and_the_flow_goes_without",
     stage::with_flows,
     add_three,
     "kr_acl_rm_api_counter_set",
     1,
     6,
     SUCCESS,
     {adds(11), notice("Failed to bind counter to rule in ACL RM. rc (6)."), adds(12), adds(13)},
     first(6, add_calls) + lines{"kr_acl_rm_api_counter_set(cmd 4, counter 0) = 6",
                                 "kr_acl_rm_api_acl_rule_set(cmd 6, acl 1, offset @12 discard, count 1) = 0",
                                 "kr_acl_rm_api_counter_set(cmd 4, counter 5) = 0",
                                 "kr_acl_rm_api_acl_rule_set(cmd 6, acl 1, offset @13 discard counter 5, count 1) = 0",
                                 "cl_qpool_get() = pointer", "cl_qpool_get() = pointer", "cl_qpool_get() = pointer"}},
    {"add_flows_database_is_full_and_the_hardware_keeps_the_flows",
     stage::with_flows,
     add_three,
     "cl_qpool_get",
     1,
     1,
     NO_RESOURCES,
     {adds(11), adds(12), adds(13), notice("Failed to add flow to DB"),
      notice("Failed to set flow ID [12] from table[0] DB"), notice("Failed to update flows DB while add operation")},
     until(12, add_calls, "NULL")},
    {"add_flow_that_is_there_writes_none_of_the_batch",
     stage::with_flows,
     [] {
         return add({make_flow(11), make_flow(2), make_flow(3)});
     },
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS,
     {notice("Entry [flow ID 2] already exists in DB ")},
     first(1, add_calls)},
    {"add_first_flow_outputs_to_all",
     stage::with_flows,
     [] { return add({make_flow(11, 100, FLOW_ACTION_OUTPUT_ALL)}); },
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_PARAM_ERROR,
     {error("action output all is not supported in the current release."), failed_in_add},
     {"cl_malloc(36) = pointer"}},
    {"add_unknown_ingress_port_keeps_the_first_flow",
     stage::with_flows,
     [] {
         return add_second_with([](flow_record &flow) {
             flow.in_port_mask = 1;
             flow.in_port = unknown_of_port;
         });
     },
     "",
     0,
     0,
     NOT_FOUND,
     {adds(11), error("Failed to translate port rc (4)n "), error("Failed convert flow key to HW key "),
      notice("Failed to configure flow (12) "), failed_in_add},
     first(6, add_calls)},
    {"add_unknown_output_port_takes_a_counter_and_no_rule",
     stage::with_flows,
     [] {
         return add_second_with([](flow_record &flow) {
             flow.action = FLOW_ACTION_OUTPUT;
             flow.out_port = unknown_of_port;
         });
     },
     "",
     0,
     0,
     NOT_FOUND,
     {adds(11), error("Failed to translate output port (77) rc (4)n "), notice("Failed to configure flow (12) "),
      failed_in_add},
     first(7, add_calls)},
    {"add_priority_out_of_range",
     stage::with_flows,
     [] { return add_second_with([](flow_record &flow) { flow.priority = 65536; }); },
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE,
     {error("Failed to get flow index from pSort lib for flow ID (12) Table 0"), failed_in_add},
     first(2, add_calls) + lines{"psort_entry_set(add, key=12, priority=65536, index=0) = 9"}},
    {"add_before_start",
     stage::initialized,
     add_three,
     "",
     0,
     0,
     ERROR,
     {{KR_LOG_ERROR, "FLOWS_DB", "Flow DB is not initialized.\n"},
      error("Failed to retrieve flow ID [11] from table[0] DB"),
      error("Failed to retrieve HW configuration data from flows DB while add operation")},
     first(1, add_calls)},
    {"add_before_init",
     stage::unstarted,
     add_three,
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_NOT_INITIALIZED,
     {error("SDN HAL Tables module is not initialized")},
     {}},
};

const row delete_rows[] = {
    {"delete_of_the_last_flows_lets_psort_say_so",
     stage::with_flows,
     delete_three,
     "",
     0,
     0,
     SUCCESS,
     {notice("got pSort notification "), notice("notification Type:  PSORT_TABLE_ALMOST_EMPTY")},
     delete_calls},
    {"delete_no_memory",
     stage::with_flows,
     delete_three,
     "cl_malloc",
     0,
     1,
     ERROR,
     {no_memory},
     until(1, delete_calls, "NULL")},
    {"delete_second_rule_fails",
     stage::with_flows,
     delete_three,
     "kr_acl_rm_api_acl_rule_set",
     1,
     6,
     ERROR,
     {error("Failed to delete rules in ACL RM rc (6) "), notice("Failed to delete flow (2) from HW"), failed_in_delete},
     until(4, delete_calls, "6")},
    {"delete_second_place_is_not_there",
     stage::with_flows,
     delete_three,
     "psort_entry_set",
     1,
     5,
     NOT_FOUND,
     {notice("Failed to remove flows index from pSort table - for flow ID (2) Table 0 - entry not found"),
      notice("Failed in psort entry set while delete operation"), failed_in_delete},
     until(5, delete_calls, "5")},
    {"delete_second_place_fails",
     stage::with_flows,
     delete_three,
     "psort_entry_set",
     1,
     15,
     ERROR,
     {error("Failed to remove flows index from pSort table - for flow ID (2) Table 0"),
      notice("Failed in psort entry set while delete operation"), failed_in_delete},
     until(5, delete_calls, "15")},
    {"delete_unknown_flows_changes_nothing",
     stage::with_flows,
     [] { return remove(make_flows(11, 3)); },
     "",
     0,
     0,
     SUCCESS,
     {},
     first(1, delete_calls)},
    {"delete_twice_in_one_batch_finds_no_place_the_second_time",
     stage::with_flows,
     [] {
         return remove({make_flow(1), make_flow(1)});
     },
     "",
     0,
     0,
     NOT_FOUND,
     {notice("Failed to remove flows index from pSort table - for flow ID (1) Table 0 - entry not found"),
      notice("Failed in psort entry set while delete operation"), failed_in_delete},
     {"cl_malloc(68) = pointer", delete_calls[1], delete_calls[2], delete_calls[1],
      "psort_entry_set(delete, key=1, priority=100, index=@1) = 5"}},
    {"delete_before_start",
     stage::initialized,
     delete_three,
     "",
     0,
     0,
     ERROR,
     {{KR_LOG_ERROR, "FLOWS_DB", "Flow DB is not initialized.\n"},
      error("Failed to retrieve flow ID [1] from table[0] DB"),
      error("Failed to retrieve HW configuration data from flows DB while delete operation")},
     first(1, delete_calls)},
    {"modify_is_unsupported",
     stage::with_flows,
     [] {
         flow_record flow = make_flow(1);
         return tables_entry_set(1, 0, &flow, 1);
     },
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_CMD_UNSUPPORTED,
     {},
     {}},
    {"modify_before_init_is_told_that_there_is_no_table_first",
     stage::unstarted,
     [] {
         flow_record flow = make_flow(1);
         return tables_entry_set(1, 0, &flow, 1);
     },
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_NOT_INITIALIZED,
     {error("SDN HAL Tables module is not initialized")},
     {}},
    {"delete_before_init",
     stage::unstarted,
     delete_three,
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_NOT_INITIALIZED,
     {error("SDN HAL Tables module is not initialized")},
     {}},
};

/* ---- reads ------------------------------------------------------------------------------------------------------- */

const row read_rows[] = {
    {"get", stage::with_flows, get_three, "", 0, 0, SUCCESS, {}, get_calls},
    {"get_no_memory", stage::with_flows, get_three, "cl_malloc", 0, 1, ERROR, {no_memory}, until(1, get_calls, "NULL")},
    {"get_second_rule_fails",
     stage::with_flows,
     get_three,
     "kr_acl_rm_api_acl_rule_get",
     1,
     5,
     ERROR,
     {error("Failed to retrieve rules from ACL RM rc (5) "), error("Failed to retrieve flow (2) from HW"),
      error("Failed to retrieve flows ")},
     until(3, get_calls, "5")},
    {"get_before_start",
     stage::initialized,
     get_three,
     "",
     0,
     0,
     ERROR,
     {{KR_LOG_ERROR, "FLOWS_DB", "Flow DB is not initialized.\n"},
      error("Failed to retrieve flow ID [1] from table[0] DB"),
      error("Failed to retrieve HW configuration data from flows DB while get operation")},
     first(1, get_calls)},
    {"get_before_init",
     stage::unstarted,
     get_three,
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_NOT_INITIALIZED,
     {error("SDN HAL Tables module is not initialized")},
     {}},
    {"activity", stage::with_flows, activity_of_three, "", 0, 0, SUCCESS, {}, activity_calls},
    {"activity_of_second_rule_fails",
     stage::with_flows,
     activity_of_three,
     "kr_acl_rm_api_acl_rule_get",
     1,
     5,
     ERROR,
     {error("Failed to retrieve rule activity from ACL RM rc (5) "),
      error("Failed to retrieve flow (2) activity state from HW"), error("Failed to retrieve flows activity ")},
     until(2, activity_calls, "5")},
    {"activity_before_start",
     stage::initialized,
     activity_of_three,
     "",
     0,
     0,
     ERROR,
     {{KR_LOG_ERROR, "FLOWS_DB", "Flow DB is not initialized.\n"},
      error("Failed to get flow (1) from DB"),
      error("Failed to retrieve flows activity ")},
     {}},
    {"activity_before_init",
     stage::unstarted,
     activity_of_three,
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_NOT_INITIALIZED,
     {error("SDN HAL Tables module is not initialized")},
     {}},
    {"statistics", stage::with_flows, stats_of_three, "", 0, 0, SUCCESS, {}, stats_calls},
    {"statistics_of_second_counter_fail",
     stage::with_flows,
     stats_of_three,
     "kr_acl_rm_api_counter_get",
     1,
     5,
     ERROR,
     {error("Failed to get counter values. rc (5)."), error("Failed to get stat for flow ID (2). rc (1).")},
     until(2, stats_calls, "5")},
    {"statistics_before_start",
     stage::initialized,
     stats_of_three,
     "",
     0,
     0,
     ERROR,
     {{KR_LOG_ERROR, "FLOWS_DB", "Flow DB is not initialized.\n"}},
     {}},
    {"statistics_before_init",
     stage::unstarted,
     stats_of_three,
     "",
     0,
     0,
     KR_SDN_HAL_STATUS_NOT_INITIALIZED,
     {error("SDN HAL Tables module is not initialized")},
     {}},
};

/* ---- shifts and groups ------------------------------------------------------------------------------------------- */

const lines shift_calls = {"kr_acl_rm_api_acl_rule_move_block(acl 1, old_start @1, size 1, new_start 900) = 0"};

const row shift_and_group_rows[] = {
    {"shift", stage::with_flows, shift_to_900, "", 0, 0, SUCCESS, {}, shift_calls},
    {"shift_in_hardware_fails",
     stage::with_flows,
     shift_to_900,
     "kr_acl_rm_api_acl_rule_move_block",
     0,
     11,
     ERROR,
     {error("Failed to shift rules block in ACL RM rc (11) "), error("Failed to shift flows ")},
     until(1, shift_calls, "11")},
    {"shift_in_the_flows_database_fails_and_the_hardware_stays_shifted",
     stage::with_flows,
     [] {
         acl_flows_db.slots[900].valid = 1;
         return shift_to_900();
     },
     "",
     0,
     0,
     ERROR,
     {{KR_LOG_ERROR, "FLOWS_DB", "Flows DB: move block operation overrides valid entries\n"},
      {KR_LOG_ERROR, "FLOWS_DB", "Failed to modify offset of entry at offset  [@1].\n"},
      error("Failed to shift flows in flows DB"),
      error("Failed to shift flows in table[0] DB"),
      error("Failed to update flows DB while shift flows operation")},
     shift_calls},
    {"group_add",
     stage::started,
     group_add,
     "",
     0,
     0,
     SUCCESS,
     {},
     {"kr_acl_rm_api_acl_mc_group_set(cmd 1, group 2, ports [0x10001, 0x10002], count 2) = 0"}},
    {"group_add_has_no_room",
     stage::started,
     group_add,
     "kr_acl_rm_api_acl_mc_group_set",
     0,
     6,
     ERROR,
     {error("Failed to set mc group in ACL RM rc (6) ")},
     {"kr_acl_rm_api_acl_mc_group_set(cmd 1, group 0, ports [0x10001, 0x10002], count 2) = 6"}},
    {"group_add_unknown_port",
     stage::started,
     [] {
         const uint32_t ports[] = {1, unknown_of_port};
         uint32_t group_id = 0;
         return tables_mcast_group_add(2, ports, &group_id);
     },
     "",
     0,
     0,
     NOT_FOUND,
     {error("Failed to translate output port (77) rc (4)n ")},
     {}},
    {"group_edit_of_an_unknown_group",
     stage::started,
     group_edit,
     "",
     0,
     0,
     ERROR,
     {error("Failed to edit mc group in ACL RM rc (5) ")},
     {"kr_acl_rm_api_acl_mc_group_set(cmd 9, group 200, ports [0x10003], count 1) = 5"}},
    {"group_del_of_an_unknown_group",
     stage::started,
     group_del,
     "",
     0,
     0,
     ERROR,
     {error("Failed to set mc group in ACL RM rc (5) ")},
     {"kr_acl_rm_api_acl_mc_group_set(cmd 3, group 200, ports [], count 0) = 5"}},
    {"group_get_of_an_unknown_group",
     stage::started,
     group_get,
     "",
     0,
     0,
     NOT_FOUND,
     {notice("Failed to get mc group from ACL RM rc (5) - entry not found")},
     {"kr_acl_rm_api_acl_mc_group_get(group 200, room 100) = 5"}},
    {"group_get_fails",
     stage::started,
     group_get,
     "kr_acl_rm_api_acl_mc_group_get",
     0,
     12,
     ERROR,
     {error("Failed to get mc group from ACL RM rc (12) ")},
     {"kr_acl_rm_api_acl_mc_group_get(group 200, room 100) = 12"}},
    {"group_add_before_init", stage::unstarted, group_add, "", 0, 0, ERROR, {}, {}},
    {"group_edit_before_init", stage::unstarted, group_edit, "", 0, 0, ERROR, {}, {}},
    {"group_del_before_init", stage::unstarted, group_del, "", 0, 0, ERROR, {}, {}},
    {"group_get_before_init", stage::unstarted, group_get, "", 0, 0, ERROR, {}, {}},
};

/* ---- running a row ----------------------------------------------------------------------------------------------- */

class tables_rows : public tables_unstarted, public testing::WithParamInterface<row> {
  protected:
    void bring_up(stage to) {
        if (to >= stage::initialized) {
            ASSERT_EQ(init(), SUCCESS);
        }
        if (to >= stage::started) {
            ASSERT_EQ(tables_dependent_init(), SUCCESS);
        }
        if (to >= stage::with_flows) {
            ASSERT_EQ(add(make_flows(1, 3)), SUCCESS);
            for (uint64_t id = 1; id <= 3; ++id) {
                names[std::to_string(offset_of(id))] = "@" + std::to_string(id);
            }
        }
    }

    // Offsets that flows got during the run.
    void learn(const lines &calls) {
        static const std::regex placed(R"(psort_entry_set\(add, key=(\d+), priority=\d+, index=(\d+)\) = 0)");
        for (const std::string &call : calls) {
            std::smatch match;
            if (std::regex_match(call, match, placed)) {
                names[match[2]] = "@" + match[1].str();
            }
        }
    }

    std::string named(const std::string &text) const {
        static const std::regex offset(R"((offset \[?|offset  \[|index=|old_start )(\d+))");
        std::smatch match;
        if (!std::regex_search(text, match, offset) || !names.contains(match[2])) {
            return text;
        }
        return match.prefix().str() + match[1].str() + names.at(match[2]) + match.suffix().str();
    }

    std::map<std::string, std::string> names; // offsets as text
};

TEST_P(tables_rows, status_log_and_journal) {
    const row &expected = GetParam();
    ASSERT_NO_FATAL_FAILURE(bring_up(expected.from));
    watch();
    if (*expected.function != '\0') {
        ASSERT_EQ(kr_soft_fault_set(expected.function, expected.nth, expected.code, 0), KR_STATUS_SUCCESS);
    }
    EXPECT_EQ(expected.run(), expected.expected);
    lines calls = journal();
    std::vector<log_line> messages = log.take();
    kr_soft_journal_stop();
    kr_soft_fault_clear();
    learn(calls);
    for (std::string &call : calls) {
        call = named(call);
    }
    for (log_line &message : messages) {
        message.text = named(message.text);
    }
    EXPECT_EQ(messages, expected.log);
    EXPECT_EQ(calls, expected.journal);
}

std::string row_name(const testing::TestParamInfo<row> &info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(life_cycle, tables_rows, testing::ValuesIn(life_cycle_rows), row_name);
INSTANTIATE_TEST_SUITE_P(ports, tables_rows, testing::ValuesIn(port_rows), row_name);
INSTANTIATE_TEST_SUITE_P(add, tables_rows, testing::ValuesIn(add_rows), row_name);
INSTANTIATE_TEST_SUITE_P(delete, tables_rows, testing::ValuesIn(delete_rows), row_name);
INSTANTIATE_TEST_SUITE_P(read, tables_rows, testing::ValuesIn(read_rows), row_name);
INSTANTIATE_TEST_SUITE_P(shift_and_group, tables_rows, testing::ValuesIn(shift_and_group_rows), row_name);

} // namespace
