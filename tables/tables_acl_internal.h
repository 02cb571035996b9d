/*
 * What the source files of Table 0 share: its state, the conversion of flows to ACL rules and back, and the steps that
 * bring one rule to hardware. Not for other modules.
 */
#ifndef KR_TABLES_TABLES_ACL_INTERNAL_H
#define KR_TABLES_TABLES_ACL_INTERNAL_H

#include <cstdint>

#include "common/guards.h"
#include "kr_acl_rm.h"
#include "kr_psort.h"
#include "tables/tables_acl_impl.h"

namespace kr::tables_acl {

struct state {
    // Written by init and deinit; group operations read them without a lock. Through relaxed_load and relaxed_store.
    kr_acl_rm_handle acl_rm_handle;
    uint32_t acl_id;
    uint32_t flood_mc_group_id;

    // Under the table's lock.
    uint32_t flow_counters_used; // counters created, less those whose rule was deleted since
    uint32_t flow_counters_max;

    // The batch that is being placed: of its flows those placed so far. Neither the hardware nor the flows database
    // knows them yet, so a shift that pSort asks for meanwhile has to move their offsets here.
    wrapped_flow *batch_flows;
    uint32_t batch_placed_count;
    wrapped_flow *batch_at[TABLES_ACL_SIZE]; // those flows by their offsets; null where none of them is
};
extern state g;

} // namespace kr::tables_acl

/* ---- resources ------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status __acl_init(uint32_t size);
kr_sdn_hal_status __acl_deinit();
kr_sdn_hal_status __acl_psort_init(uint32_t size);
kr_sdn_hal_status __acl_psort_deinit();

/* ---- conversion ------------------------------------------------------------------------------------------------ */

/* The action part of a rule as it is without any action, not valid. */
void __acl_action_reset(kr_acl_rule *rule);

/* Trap and VLAN edit; the forwarding target is a matter of its own, below. */
void __flow_action_to_acl_action(const flow_record *flow, kr_acl_rule *rule);
void __acl_action_to_flow_action(flow_record *flow, const kr_acl_rule *rule);

/* The status of the port database when the flow's ingress port has no counterpart. */
kr_sdn_hal_status __flow_key_to_acl_key(const flow_record *flow, kr_acl_rule *rule);
kr_sdn_hal_status __acl_key_to_flow_key(flow_record *flow, const kr_acl_rule *rule);

/* The forwarding target. The status of the port database when the output port has no counterpart. */
kr_sdn_hal_status __flow_target_to_acl_forward(const flow_record *flow, kr_acl_rule *rule);
kr_sdn_hal_status __acl_forward_to_flow_target(flow_record *flow, const kr_acl_rule *rule);

/* Builds and installs the rule of a flow that has its place; reads a flow's rule and rebuilds the client's record. */
kr_sdn_hal_status __convert_flow_to_acl_rule(wrapped_flow *flow);
kr_sdn_hal_status __convert_acl_rule_to_flow(wrapped_flow *flow);

void __convert_flows_to_psort_entries(const wrapped_flow *flows, uint32_t count, psort_entry *entries);
/* Only the index goes back, into the offset. */
void __convert_psort_entries_to_flows(const psort_entry *entries, uint32_t count, wrapped_flow *flows);

/* ---- programming ----------------------------------------------------------------------------------------------- */

/* Places flows in the pSort table (command 0) or removes them (command 2), one by one until the first failure. */
kr_sdn_hal_status __tables_psort_entry_set(uint32_t command, uint32_t count, wrapped_flow *flows);

kr_sdn_hal_status __config_acl_rule(wrapped_flow *flow, kr_acl_rule *rule);
/* Always succeeds: without a counter the flow's counter id is 0. */
kr_sdn_hal_status __allocate_flow_counter(wrapped_flow *flow, kr_acl_rule *rule);
/* Reads the rule, and its target into the client's record. */
kr_sdn_hal_status __get_acl_rule(wrapped_flow *flow, kr_acl_rule *rule);
kr_sdn_hal_status __clear_acl_rule(wrapped_flow *flow);
kr_sdn_hal_status __get_acl_rule_activity(const flow_entry *entry, uint32_t *activity);
kr_sdn_hal_status __shift_acl_rules(uint16_t old_start, uint16_t new_start, uint32_t size);
kr_sdn_hal_status __get_flow_counter(uint32_t counter_id, flow_stats *stats);

#endif
