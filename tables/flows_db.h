/*
 * The flows database of one table: which flows the hardware holds, and at which offset each one sits.
 *
 * A map finds a flow by its id, an array of slots finds the flow at an offset; the operations keep the two in step.
 * The record is its owner's (the table's implementation), who also serialises the calls: everything for one table
 * happens under that table's lock. After init nothing is allocated: entries come from a pool of a fixed size.
 */
#ifndef KR_TABLES_FLOWS_DB_H
#define KR_TABLES_FLOWS_DB_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kr_complib.h"
#include "kr_sdn_hal.h"

// The most entries that a database may be made for, and the number of its slots.
enum { FLOWS_DB_MAX_SIZE = 6000 };

// What is known of one flow. Copied whole in and out; all but the id and the offset is opaque here.
struct flow_entry {
    uint64_t flow_id; // unique in the database
    uint32_t priority;
    uint64_t offset; // where the flow sits in hardware: the index of its slot
    uint64_t region;
    uint32_t counter;
};

// The object of the pool. `pool_item` comes first, as the pool requires.
struct flows_db_element {
    cl_pool_item_t pool_item;
    cl_map_item_t map_item;
    flow_entry entry;
};

// One hardware offset. The flow id means something only while `valid` is 1.
struct flows_db_slot {
    uint64_t flow_id;
    uint32_t valid; // 1: a flow sits here
    uint32_t reserved;
};

struct flows_db {
    uint32_t initialized;    // 1 between init and deinit
    uint32_t size;           // the capacity given at init
    uint32_t active_entries; // added and not deleted since
    cl_qpool_t entry_pool;
    cl_qmap_t flow_map; // flow id -> flows_db_element
    flows_db_slot slots[FLOWS_DB_MAX_SIZE];
};

static_assert(offsetof(flow_entry, flow_id) == 0 && offsetof(flow_entry, priority) == 8);
static_assert(offsetof(flow_entry, offset) == 16 && offsetof(flow_entry, region) == 24);
static_assert(offsetof(flow_entry, counter) == 32 && sizeof(flow_entry) == 40);
static_assert(offsetof(flows_db_element, pool_item) == 0);
static_assert(sizeof(flows_db_slot) == 16 && sizeof(flows_db::slots) == 96000);
static_assert(std::is_standard_layout_v<flows_db> && std::is_trivially_copyable_v<flow_entry>);

/*
 * In all of them: PARAM_NULL for a NULL `db`, `entry` or output, after the pointer check's line; ERROR, after the line
 * "Flow DB is not initialized.", for a database that is not initialised, unless said otherwise. A refused call changes
 * nothing.
 */

/*
 * Makes the database for `size` entries; PARAM_ERROR for more than FLOWS_DB_MAX_SIZE. What the record held before is
 * not looked at: it may be uninitialised memory, so the pool of a database that is still in use would be lost.
 */
kr_sdn_hal_status flows_db_init(flows_db *db, uint32_t size);

/* Deletes all entries and gives the pool back. The status is that of the last deletion; the database is gone anyway. */
kr_sdn_hal_status flows_db_deinit(flows_db *db);

/* How many entries are stored. */
kr_sdn_hal_status flows_db_occupancy_get(flows_db *db, uint32_t *active_entries);

/*
 * Stores a copy of *entry and marks the slot of its offset. NOT_INITIALIZED for a database that is not initialised,
 * ENTRY_ALREADY_EXISTS for a flow id that is stored, NO_RESOURCES when `size` entries are, PARAM_EXCEEDS_RANGE for an
 * offset that has no slot. That another flow is at the offset is not checked: its slot is taken over.
 */
kr_sdn_hal_status flows_db_entry_add(flows_db *db, const flow_entry *entry);

/* Replaces *entry by the stored entry of entry->flow_id. ENTRY_NOT_FOUND, without a line in the log. */
kr_sdn_hal_status flows_db_entry_get(flows_db *db, flow_entry *entry);

/* Removes the entry and frees its slot. ENTRY_NOT_FOUND. */
kr_sdn_hal_status flows_db_entry_delete(flows_db *db, uint64_t flow_id);

/*
 * Moves the flows of the slots [from, from + count) to [to, to + count), as memmove would; free slots are passed over.
 * ERROR at the first flow that would land on another one: those already moved stay moved. PARAM_EXCEEDS_RANGE, before
 * anything moves, for a block that does not lie inside the slots.
 */
kr_sdn_hal_status flows_db_modify_offset(flows_db *db, uint64_t from, uint64_t to, uint32_t count);

#endif
