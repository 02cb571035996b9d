/*
 * Table 0, the one hardware flow table: an ACL of the ACL resource manager whose rules pSort places by priority.
 *
 * These functions fill the slots of Table 0's operations record (table_ops.h says what each one is for and which lock
 * its caller holds) and serve the multicast groups. They take no lock, and nothing that a failing call has done is
 * taken back unless it is said below.
 */
#ifndef KR_TABLES_TABLES_ACL_IMPL_H
#define KR_TABLES_TABLES_ACL_IMPL_H

#include <cstdint>

#include "kr_psort.h"
#include "kr_sdn_hal.h"
#include "tables/flows_db.h"
#include "tables/wrapped_flow.h"

// Exported, for whoever debugs a running process.
extern "C" {
KR_SDN_HAL_API extern psort_handle acl_psort_handle;
KR_SDN_HAL_API extern flows_db acl_flows_db;
}

enum { TABLES_ACL_SIZE = 1000, TABLES_ACL_COUNTERS_MAX = 128 };

/*
 * Creates the flows database, the ACL with its empty flood group, and the pSort table; on success writes the handle of
 * the latter. NO_RESOURCES when there is no room for the flood group, ERROR for another failure of the platform.
 */
kr_sdn_hal_status tables_acl_init(const uint8_t *table_enabled, psort_handle *psort);

/* Gives all that back. The rules and counters that remain go with the ACL; the clients' multicast groups stay. */
kr_sdn_hal_status tables_acl_deinit();

/* Binds the ACL to a port and makes the port a member of the flood group; del_port undoes both. */
kr_sdn_hal_status tables_acl_add_port(uint32_t of_port);
kr_sdn_hal_status tables_acl_del_port(uint32_t of_port);

kr_sdn_hal_status tables_acl_capabilities_get(table_capabilities *capabilities_out);
kr_sdn_hal_status tables_acl_table_stats_get(table_stats *stats);

/*
 * Places all flows, then installs their rules in order, each with a counter while there are some. When a rule cannot
 * be installed *count becomes the number of those before it; that flow and the ones behind it keep their places.
 */
kr_sdn_hal_status tables_acl_config(wrapped_flow *flows, uint32_t *count);

/*
 * Deletes the rules and the places of the flows whose in_db is 1. When a rule cannot be deleted *count becomes the
 * number of rules deleted before it.
 */
kr_sdn_hal_status tables_acl_delete(wrapped_flow *flows, uint32_t *count);

kr_sdn_hal_status tables_acl_activity_get(const uint64_t *flow_ids, uint32_t count, uint32_t *activities);
kr_sdn_hal_status tables_acl_flows_stats_get(const uint64_t *flow_ids, uint32_t count, flow_stats *stats);
kr_sdn_hal_status tables_acl_rule_get(uint32_t count, wrapped_flow *flows);

/* Move a block of rules, and the same block in the flows database. Of the indices the low 16 bits count. */
kr_sdn_hal_status tables_acl_rules_shift(uint32_t old_index, uint32_t new_index, uint32_t size);
kr_sdn_hal_status tables_acl_flows_db_rules_shift(uint32_t old_index, uint32_t new_index, uint32_t size);

kr_sdn_hal_status tables_acl_flows_db_set(uint32_t command, wrapped_flow *flow);
kr_sdn_hal_status tables_acl_flows_db_get(wrapped_flow *flow);

/*
 * Multicast groups of at most KR_SDN_HAL_GROUP_MAX_PORTS OF ports. The flood group is none of the clients':
 * ENTRY_NOT_FOUND. A port that is not in the port database: its status, and nothing is changed.
 */
kr_sdn_hal_status tables_acl_mcast_group_add(uint32_t port_count, const uint32_t *ports, uint32_t *group_id);
/* Command 3 adds the ports, any other removes them. */
kr_sdn_hal_status tables_acl_mcast_group_edit(uint32_t command, uint32_t port_count, const uint32_t *ports,
                                              uint32_t *group_id);
kr_sdn_hal_status tables_acl_mcast_group_del(uint32_t group_id);
kr_sdn_hal_status tables_acl_mcast_group_get(uint32_t group_id, uint32_t *port_count, uint32_t *ports);

#endif
