/*
 * The flows database: a map from flow id to pooled element, and one slot per hardware offset.
 *
 * Invariant: for every element in the map, the slot of its offset is valid and holds its flow id. A slot that is not
 * valid may hold an old flow id. An offset that has no slot never gets in, whatever the caller hands over.
 */
#include "tables/flows_db.h"

#include <cinttypes>
#include <cstring>

#include "common/common.h"
#include "common/log.h"

int32_t kr_FLOWS_DB_verb_level = 3;

KR_LOG_MODULE("FLOWS_DB", kr_FLOWS_DB_verb_level);

namespace {

constexpr char db_description[] = "Flow Table DB pointer";
constexpr char entry_description[] = "Flow entry pointer";
constexpr char active_entries_description[] = "Active entries pointer";

// Map item and pool item lie at fixed places in their element.
flows_db_element *element_of(cl_map_item_t *item) {
    return reinterpret_cast<flows_db_element *>(reinterpret_cast<char *>(item) - offsetof(flows_db_element, map_item));
}
flows_db_element *element_of(cl_pool_item_t *item) {
    return reinterpret_cast<flows_db_element *>(item);
}

bool is_slot_block(uint64_t start, uint32_t count) {
    return start < FLOWS_DB_MAX_SIZE && count <= FLOWS_DB_MAX_SIZE - start;
}

// What all operations but init begin with: the pointers, then the database. `if_uninitialized` is the status of a
// database that is not initialised.
kr_sdn_hal_status check_usable(const flows_db *db, kr_sdn_hal_status if_uninitialized = KR_SDN_HAL_STATUS_ERROR) {
    const kr_sdn_hal_status status = hal_utils_check_pointer(db, db_description);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (db->initialized == 0) {
        HAL_ERROR("Flow DB is not initialized.");
        return if_uninitialized;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status check_usable(const flows_db *db, const void *argument, const char *description,
                               kr_sdn_hal_status if_uninitialized = KR_SDN_HAL_STATUS_ERROR) {
    kr_sdn_hal_status status = hal_utils_check_pointer(db, db_description);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        status = hal_utils_check_pointer(argument, description);
    }
    return status == KR_SDN_HAL_STATUS_SUCCESS ? check_usable(db, if_uninitialized) : status;
}

// *element is null when the flow id is not stored.
void __flows_db_entry_find(flows_db *db, uint64_t flow_id, flows_db_element **element) {
    cl_map_item_t *const item = cl_qmap_get(&db->flow_map, flow_id);
    *element = item != cl_qmap_end(&db->flow_map) ? element_of(item) : nullptr;
}

// Does not count: active_entries is the callers' business.
kr_sdn_hal_status __flows_db_entry_delete(flows_db *db, uint64_t flow_id) {
    flows_db_element *element = nullptr;
    __flows_db_entry_find(db, flow_id, &element);
    if (element == nullptr) {
        HAL_ERROR("Could not find flow ID [%" PRIu64 "] at the flows DB.", flow_id);
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    db->slots[element->entry.offset].valid = 0;
    cl_qmap_remove_item(&db->flow_map, &element->map_item);
    cl_qpool_put(&db->entry_pool, &element->pool_item);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

// The status of the last deletion.
kr_sdn_hal_status __flows_db_delete_all(flows_db *db) {
    kr_sdn_hal_status status = hal_utils_check_pointer(db, db_description);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    cl_map_item_t *item = cl_qmap_head(&db->flow_map);
    while (item != cl_qmap_end(&db->flow_map)) {
        cl_map_item_t *const next = cl_qmap_next(item); // deletion gives the item's memory back to the pool
        const uint64_t flow_id = element_of(item)->entry.flow_id;
        status = __flows_db_entry_delete(db, flow_id);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Could not delete flow ID [%" PRIu64 "] at the flows DB.", flow_id);
        }
        item = next;
    }
    return status;
}

kr_sdn_hal_status __flows_db_entry_modify_offset(flows_db *db, uint64_t source, uint64_t destination) {
    flows_db_slot &from = db->slots[source];
    flows_db_slot &to = db->slots[destination];
    if (to.valid != 0) {
        HAL_ERROR("Flows DB: move block operation overrides valid entries");
        return KR_SDN_HAL_STATUS_ERROR;
    }
    if (from.valid == 0) {
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    flows_db_element *element = nullptr;
    __flows_db_entry_find(db, from.flow_id, &element);
    if (element == nullptr) {
        HAL_ERROR("Flows DB: move block operation failed - entry for flow ID [%" PRIu64 "] doesn't exists in DB",
                  from.flow_id);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    element->entry.offset = destination;
    from.valid = 0;
    to.flow_id = from.flow_id;
    to.valid = 1;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

} // namespace

kr_sdn_hal_status flows_db_init(flows_db *db, uint32_t size) {
    const kr_sdn_hal_status status = hal_utils_check_pointer(db, db_description);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (size > FLOWS_DB_MAX_SIZE) {
        HAL_ERROR("Table size exceeds the maximum table size.");
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    // A pool that cannot be made hands out nothing, and each add answers that there are no resources. It is cleared
    // first, for the record may be uninitialised memory.
    db->entry_pool = {};
    (void)cl_qpool_init(&db->entry_pool, size, size, 0, sizeof(flows_db_element), nullptr, nullptr, nullptr);
    cl_qmap_init(&db->flow_map);
    memset(db->slots, 0, sizeof(db->slots));
    db->size = size;
    db->active_entries = 0;
    db->initialized = 1;
    HAL_DEBUG("HAL flows DB module initialized successfully");
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status flows_db_deinit(flows_db *db) {
    kr_sdn_hal_status status = check_usable(db);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    status = __flows_db_delete_all(db);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to delete all flows in flows DB");
    }
    cl_qpool_destroy(&db->entry_pool);
    db->initialized = 0;
    return status;
}

kr_sdn_hal_status flows_db_occupancy_get(flows_db *db, uint32_t *active_entries) {
    const kr_sdn_hal_status status = check_usable(db, active_entries, active_entries_description);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        *active_entries = db->active_entries;
    }
    return status;
}

kr_sdn_hal_status flows_db_entry_add(flows_db *db, const flow_entry *entry) {
    const kr_sdn_hal_status status = check_usable(db, entry, entry_description, KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    flows_db_element *element = nullptr;
    __flows_db_entry_find(db, entry->flow_id, &element);
    if (element != nullptr) {
        HAL_NOTICE("flow ID [%" PRIu64 "] already exists at the flows DB.", entry->flow_id);
        return KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS;
    }
    if (!is_slot_block(entry->offset, 1)) {
        HAL_ERROR("Offset [%" PRIu64 "] of flow ID [%" PRIu64 "] exceeds the slots of the flows DB.", entry->offset,
                  entry->flow_id);
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    cl_pool_item_t *const pool_item = cl_qpool_get(&db->entry_pool);
    if (pool_item == nullptr) {
        HAL_NOTICE("Could not find free flow entry at the flows DB.");
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    }
    element = element_of(pool_item);
    element->entry = *entry;
    cl_qmap_insert(&db->flow_map, entry->flow_id, &element->map_item);
    flows_db_slot &slot = db->slots[entry->offset];
    slot.flow_id = entry->flow_id;
    slot.valid = 1;
    db->active_entries++;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status flows_db_entry_get(flows_db *db, flow_entry *entry) {
    const kr_sdn_hal_status status = check_usable(db, entry, entry_description);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    flows_db_element *element = nullptr;
    __flows_db_entry_find(db, entry->flow_id, &element);
    if (element == nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    *entry = element->entry;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status flows_db_entry_delete(flows_db *db, uint64_t flow_id) {
    kr_sdn_hal_status status = check_usable(db);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    status = __flows_db_entry_delete(db, flow_id);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        db->active_entries--;
    }
    return status;
}

kr_sdn_hal_status flows_db_modify_offset(flows_db *db, uint64_t from, uint64_t to, uint32_t count) {
    kr_sdn_hal_status status = check_usable(db);
    if (status != KR_SDN_HAL_STATUS_SUCCESS || from == to || count == 0) {
        return status;
    }
    if (!is_slot_block(from, count) || !is_slot_block(to, count)) {
        HAL_ERROR("Block of [%" PRIu32 "] entries from offset [%" PRIu64 "] to offset [%" PRIu64
                  "] exceeds the slots of the flows DB.",
                  count, from, to);
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    // Towards higher offsets the last slot goes first, so that blocks may overlap.
    const bool is_upwards = from < to;
    for (uint32_t step = 0; step < count; step++) {
        const uint32_t index = is_upwards ? count - 1 - step : step;
        status = __flows_db_entry_modify_offset(db, from + index, to + index);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to modify offset of entry at offset  [%" PRIu64 "].", from + index);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}
