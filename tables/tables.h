/*
 * The tables module: the registry of tables and their locks, the operations on flows that the exported table API
 * calls, pSort's notifications and the background thread that lets pSort reorganise an idle table.
 */
#ifndef KR_TABLES_TABLES_H
#define KR_TABLES_TABLES_H

#include <cstdint>

#include "kr_psort.h"
#include "kr_sdn_hal.h"
#include "tables/wrapped_flow.h"

enum { TABLES_MAX_TABLE_ID = 0 };
enum { TABLES_CMD_ADD = 0, TABLES_CMD_DELETE = 2 };
// Hints of tables_resize.
enum { TABLES_RESIZE_ALMOST_FULL = 0, TABLES_RESIZE_ALMOST_EMPTY = 1 };

// The most flows that one call may name: the work record of each has to fit into one buffer, whose size has 32 bits.
constexpr uint32_t tables_max_flow_count = UINT32_MAX / sizeof(wrapped_flow);

// Shared by the three table modules; not exported, but kept in the symbol table.
extern "C" int32_t kr_HAL_TABLES_API_verb_level;

/* Life cycle, serialised by the callers. `table_enabled` is one byte per table. */
kr_sdn_hal_status tables_init(const uint8_t *table_enabled);
kr_sdn_hal_status tables_dependent_init();
kr_sdn_hal_status tables_dependent_deinit();
kr_sdn_hal_status tables_deinit();

/* Bind a port to the tables, and unbind it. No table lock. */
kr_sdn_hal_status tables_port_added(uint32_t of_port);
kr_sdn_hal_status tables_port_removed(uint32_t of_port);

/* Flows. Entry set holds the table's lock exclusively, the three reads hold it shared. */
kr_sdn_hal_status tables_entry_set(uint32_t command, uint32_t table, flow_record *flows, uint32_t flow_count);
kr_sdn_hal_status tables_entry_get(uint32_t table, const uint64_t *flow_ids, uint32_t flow_count, flow_record *flows);
kr_sdn_hal_status tables_flow_activity_get(uint32_t table, const uint64_t *flow_ids, uint32_t flow_count,
                                           uint32_t *activities);
kr_sdn_hal_status tables_entries_stat_get(uint32_t table, const uint64_t *flow_ids, uint32_t flow_count,
                                          flow_stats *stats);
kr_sdn_hal_status tables_capability_get(uint32_t table, table_capabilities *capabilities_out);
kr_sdn_hal_status tables_table_stat_get(uint32_t table, table_stats *stats);

/* Moves a block of entries, first in hardware, then in the flows database. The caller holds the table's lock. */
kr_sdn_hal_status tables_entries_shift(uint32_t table, uint32_t old_index, uint32_t new_index, uint32_t size);
/* The hook for pSort's fill notifications: does nothing. */
kr_sdn_hal_status tables_resize(uint32_t table, uint32_t hint);

/* Multicast groups. No lock. ERROR when the module is not initialised. */
kr_sdn_hal_status tables_mcast_group_add(uint32_t port_count, const uint32_t *ports, uint32_t *group_id);
kr_sdn_hal_status tables_mcast_group_edit(uint32_t command, uint32_t port_count, const uint32_t *ports,
                                          uint32_t *group_id);
kr_sdn_hal_status tables_mcast_group_del(uint32_t *group_id);
kr_sdn_hal_status tables_mcast_group_get(uint32_t group_id, uint32_t *port_count, uint32_t *ports);

/* Called by pSort, under the table's lock; the context's low 32 bits are the table id. */
kr_utils_status tables_psort_notification_handler(uint32_t type, psort_notification_data *data, void *context);

#endif
