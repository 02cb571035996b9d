/*
 * What the source files of the tables module share: its state, the dispatchers that lead to a table's operations, and
 * the helpers around the wrapped flows array.
 *
 * Not for other modules; they use tables.h. The dispatchers take the table id, at most TABLES_MAX_TABLE_ID, and say
 * with an annotation which lock they need.
 */
#ifndef KR_TABLES_TABLES_INTERNAL_H
#define KR_TABLES_TABLES_INTERNAL_H

#include <cstdint>
#include <ctime>

#include "common/guards.h"
#include "kr_complib.h"
#include "tables/table_ops.h"
#include "tables/tables.h"
#include "tables/wrapped_flow.h"

namespace kr::tables {

constexpr uint32_t table_count = TABLES_MAX_TABLE_ID + 1;

// How long the background thread waits between two passes.
constexpr uint32_t background_wait_rest_us = 10'000'000;
constexpr uint32_t background_wait_busy_us = 10'000;
// Seconds without an entry set after which pSort may be called often.
constexpr time_t quiet_time_s = 3;

inline constexpr table_ops no_operations{}; // of a table before tables_init

struct state {
    uint8_t table_enabled[table_count];
    const table_ops *operations[table_count] = {&no_operations};
    cl_plock_t table_locks[table_count]; // of the table's hardware state, flows database and pSort table
    time_t last_entry_set_time;          // wall clock
    uint8_t initialized;
    uint8_t dependent_initialized;
    psort_handle psort; // null until the table's init
    uint32_t background_wait_us;
    cl_thread_t background_thread;
    cl_event_t stop_event;
    uint32_t stop_flag; // 1 ends the background thread; never cleared
};
extern state g;

inline const table_ops *operations_of(uint32_t table) {
    return relaxed_load(g.operations[table]);
}

} // namespace kr::tables

#define TABLE_LOCK_HELD(table) KR_REQUIRES(kr::tables::g.table_locks[table])
#define TABLE_LOCK_HELD_SHARED(table) KR_REQUIRES_SHARED(kr::tables::g.table_locks[table])

/* Fills the operations record of Table 0 and initialises its lock. */
kr_sdn_hal_status __init_table_0();

/* Whether tables_init has run; logs that it has not. */
bool __tables_check_initialized();

/* To hardware. CMD_UNSUPPORTED, after a line, when the table has no such operation. */
kr_sdn_hal_status __tables_config_to_hw(uint32_t table, wrapped_flow *flows, uint32_t count) TABLE_LOCK_HELD(table);
kr_sdn_hal_status __tables_delete_from_hw(uint32_t table, wrapped_flow *flows, uint32_t count) TABLE_LOCK_HELD(table);
kr_sdn_hal_status __tables_entries_shift_in_hw(uint32_t table, uint16_t old_index, uint16_t new_index, uint32_t size)
    TABLE_LOCK_HELD(table);
kr_sdn_hal_status __tables_get_activity_from_hw(uint32_t table, const uint64_t *flow_ids, uint32_t count,
                                                uint32_t *activities) TABLE_LOCK_HELD_SHARED(table);
kr_sdn_hal_status __tables_get_entry_from_hw(uint32_t table, uint32_t count, wrapped_flow *flows)
    TABLE_LOCK_HELD_SHARED(table);

/* To the flows database, flow by flow until the first failure; that get does not find a flow is none. */
kr_sdn_hal_status __tables_flows_db_set(uint32_t command, uint32_t table, uint32_t count, wrapped_flow *flows)
    TABLE_LOCK_HELD(table);
kr_sdn_hal_status __tables_flows_db_get(uint32_t table, uint32_t count, wrapped_flow *flows)
    TABLE_LOCK_HELD_SHARED(table);
kr_sdn_hal_status __tables_flows_db_shift_entries(uint32_t table, uint16_t old_index, uint16_t new_index, uint32_t size)
    TABLE_LOCK_HELD(table);

/* Writes flows to hardware; PARAM_ERROR if the first one has the output-all action. */
kr_sdn_hal_status __tables_flow_add(uint32_t table, wrapped_flow *flows, uint32_t count) TABLE_LOCK_HELD(table);
kr_sdn_hal_status __tables_flow_delete(uint32_t table, wrapped_flow *flows, uint32_t count) TABLE_LOCK_HELD(table);

/*
 * Makes the wrapped flows array of `count` flow records, zeroed but for the pointers to them. The caller gives it back
 * with hal_utils_memory_put. ERROR, after a line, when there is no memory for so many.
 */
kr_sdn_hal_status __wrap_flows(flow_record *flows, uint32_t count, wrapped_flow **wrapped_flows);

/* The body of the background thread. */
void __psort_background_thread(void *context);

#endif
