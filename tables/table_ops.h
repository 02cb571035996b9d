/*
 * The operations record of a table: what a table implementation offers to the table layer, one slot per operation.
 *
 * A null slot means that the table does not support the operation; where that is not allowed the slot says so. Flow
 * arrays, id arrays and outputs belong to the caller and are used during the call only. Unless a slot says otherwise
 * the status is the implementation's own and is passed on unchanged.
 */
#ifndef KR_TABLES_TABLE_OPS_H
#define KR_TABLES_TABLE_OPS_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "flow_record.h"
#include "kr_psort.h"
#include "kr_sdn_hal.h"
#include "tables/wrapped_flow.h"

struct table_ops {
    /* Brings the table up in hardware, when the switch starts, and writes the handle of its pSort table, on success
     * only. `table_enabled` is one byte per table. Exclusive table lock held. Not null. */
    kr_sdn_hal_status (*init)(const uint8_t *table_enabled, psort_handle *psort);

    /* Takes the table down again, when the switch stops. Exclusive table lock held; the background thread is gone.
     * Not null. */
    kr_sdn_hal_status (*deinit)();

    /* What the table can do. No lock. May be null. */
    kr_sdn_hal_status (*capabilities_get)(table_capabilities *capabilities_out);

    /* Places *count flows and writes their rules; fills offset and counter_id of each. Exclusive table lock held. On
     * failure *count says how many rules were written, or is as given if it failed before the first. May be null. */
    kr_sdn_hal_status (*config)(wrapped_flow *flows, uint32_t *count);

    /* Removes the rules of those of *count flows whose in_db is 1. Exclusive table lock held. May rewrite *count on
     * failure. May be null. */
    kr_sdn_hal_status (*del)(wrapped_flow *flows, uint32_t *count);

    /* Binds a port of the port database to the table, and unbinds it. No lock: port events come one at a time. Not
     * null. */
    kr_sdn_hal_status (*add_port)(uint32_t of_port);
    kr_sdn_hal_status (*del_port)(uint32_t of_port);

    /* One activity value per flow id; an unknown id is no failure. Shared table lock held. May be null. */
    kr_sdn_hal_status (*activity_get)(const uint64_t *flow_ids, uint32_t count, uint32_t *activities);

    /* Statistics of the table as a whole. No lock, in any state of the module. May be null. */
    kr_sdn_hal_status (*table_stats_get)(table_stats *stats);

    /* The counts of each flow; ENTRY_NOT_FOUND at the first unknown id. Shared table lock held. May be null. */
    kr_sdn_hal_status (*flows_stats_get)(const uint64_t *flow_ids, uint32_t count, flow_stats *stats);

    /* Moves a block of rules in hardware. The indices come cut to 16 bits. Exclusive table lock held, by whoever
     * called pSort. May be null. */
    kr_sdn_hal_status (*rules_shift)(uint32_t old_index, uint32_t new_index, uint32_t size);

    /* Rebuilds the client's record of each flow, all of which have in_db 1, from hardware. Shared table lock held. May
     * be null. */
    kr_sdn_hal_status (*rule_get)(uint32_t count, wrapped_flow *flows);

    /* Records one flow in the flows database (command 0), or removes it (command 2) if its in_db is 1. Exclusive table
     * lock held. Not null. */
    kr_sdn_hal_status (*flows_db_set)(uint32_t command, wrapped_flow *flow);

    /* Looks one flow up by its id and fills the wrapped flow, and the priority of the client's record, from the flows
     * database; ENTRY_NOT_FOUND leaves in_db 0. Shared table lock held, at least. Not null. */
    kr_sdn_hal_status (*flows_db_get)(wrapped_flow *flow);

    /* Moves the same block as rules_shift in the flows database. Same lock and indices. Not null. */
    kr_sdn_hal_status (*flows_db_rules_shift)(uint32_t old_index, uint32_t new_index, uint32_t size);
};

// Fifteen slots and nothing else, in this order.
#define KR_SLOT(number, name) static_assert(offsetof(table_ops, name) == ((number)-1) * sizeof(void *))
KR_SLOT(1, init);
KR_SLOT(2, deinit);
KR_SLOT(3, capabilities_get);
KR_SLOT(4, config);
KR_SLOT(5, del);
KR_SLOT(6, add_port);
KR_SLOT(7, del_port);
KR_SLOT(8, activity_get);
KR_SLOT(9, table_stats_get);
KR_SLOT(10, flows_stats_get);
KR_SLOT(11, rules_shift);
KR_SLOT(12, rule_get);
KR_SLOT(13, flows_db_set);
KR_SLOT(14, flows_db_get);
KR_SLOT(15, flows_db_rules_shift);
#undef KR_SLOT
static_assert(sizeof(table_ops) == 15 * sizeof(void *));
static_assert(std::is_standard_layout_v<table_ops> && std::is_trivially_copyable_v<table_ops>);

#endif
