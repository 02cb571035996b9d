/*
 * The operations on flows and groups that the exported table API calls, each under the lock of its table.
 *
 * An entry set is a batch: the flows are looked up in the flows database, written to (or removed from) hardware, and
 * recorded in the flows database, without taking anything back when a later step fails.
 */
#include "common/common.h"
#include "common/log.h"
#include "tables/tables_acl_impl.h"
#include "tables/tables_internal.h"

KR_LOG_MODULE("HAL_TABLES_API", kr_HAL_TABLES_API_verb_level);

using kr::plock_exclusive;
using kr::plock_shared;
using kr::relaxed_load;
using kr::relaxed_store;
using kr::undo_guard;
using kr::tables::g;
using kr::tables::operations_of;

namespace {

// The caller of the enclosing function holds the table's lock, which the analysis cannot see: pSort is in between.
void lock_is_held([[maybe_unused]] uint32_t table)
    KR_THREAD_ANNOTATION(assert_capability(kr::tables::g.table_locks[table])) {}

void release(wrapped_flow *flows) noexcept {
    (void)hal_utils_memory_put(flows);
}

kr_sdn_hal_status entries_add(uint32_t table, wrapped_flow *flows, uint32_t count) TABLE_LOCK_HELD(table) {
    kr_sdn_hal_status status = __tables_flows_db_get(table, count, flows);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to retrieve HW configuration data from flows DB while add operation");
        return status;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (flows[i].in_db == 1) {
            HAL_NOTICE("Entry [flow ID %lu] already exists in DB ", flows[i].flow->flow_id);
            return KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS;
        }
    }
    status = __tables_flow_add(table, flows, count);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_NOTICE("Failed in flow add operation");
        return status;
    }
    status = __tables_flows_db_set(TABLES_CMD_ADD, table, count, flows);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_NOTICE("Failed to update flows DB while add operation");
    }
    return status;
}

kr_sdn_hal_status entries_delete(uint32_t table, wrapped_flow *flows, uint32_t count) TABLE_LOCK_HELD(table) {
    kr_sdn_hal_status status = __tables_flows_db_get(table, count, flows);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to retrieve HW configuration data from flows DB while delete operation");
        return status;
    }
    status = __tables_flow_delete(table, flows, count);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_NOTICE("Failed in flow delete operation");
        return status;
    }
    status = __tables_flows_db_set(TABLES_CMD_DELETE, table, count, flows);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_NOTICE("Failed to update flows DB while delete operation");
    }
    return status;
}

kr_sdn_hal_status entries_read(uint32_t table, wrapped_flow *flows, uint32_t count) TABLE_LOCK_HELD_SHARED(table) {
    kr_sdn_hal_status status = __tables_flows_db_get(table, count, flows);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to retrieve HW configuration data from flows DB while get operation");
        return status;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (flows[i].in_db != 1) {
            return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
        }
    }
    status = __tables_get_entry_from_hw(table, count, flows);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to retrieve flows ");
    }
    return status;
}

} // namespace

/* ---- flows ----------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_entry_set(uint32_t command, uint32_t table, flow_record *flows, uint32_t flow_count) {
    if (!__tables_check_initialized()) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    if (command != TABLES_CMD_ADD && command != TABLES_CMD_DELETE) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    wrapped_flow *wrapped_flows = nullptr;
    const kr_sdn_hal_status status = __wrap_flows(flows, flow_count, &wrapped_flows);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    const undo_guard release_wrapped_flows([&]() noexcept { release(wrapped_flows); });
    const plock_exclusive lock(g.table_locks[table]);
    relaxed_store(g.last_entry_set_time, time(nullptr));
    return command == TABLES_CMD_ADD ? entries_add(table, wrapped_flows, flow_count)
                                     : entries_delete(table, wrapped_flows, flow_count);
}

kr_sdn_hal_status tables_entry_get(uint32_t table, const uint64_t *flow_ids, uint32_t flow_count, flow_record *flows) {
    if (!__tables_check_initialized()) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    wrapped_flow *wrapped_flows = nullptr;
    const kr_sdn_hal_status status = __wrap_flows(flows, flow_count, &wrapped_flows);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    const undo_guard release_wrapped_flows([&]() noexcept { release(wrapped_flows); });
    for (uint32_t i = 0; i < flow_count; ++i) {
        flows[i].flow_id = flow_ids[i];
    }
    const plock_shared lock(g.table_locks[table]);
    return entries_read(table, wrapped_flows, flow_count);
}

kr_sdn_hal_status tables_flow_activity_get(uint32_t table, const uint64_t *flow_ids, uint32_t flow_count,
                                           uint32_t *activities) {
    if (!__tables_check_initialized()) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    const plock_shared lock(g.table_locks[table]);
    const kr_sdn_hal_status status = __tables_get_activity_from_hw(table, flow_ids, flow_count, activities);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to retrieve flows activity ");
    }
    return status;
}

kr_sdn_hal_status tables_entries_stat_get(uint32_t table, const uint64_t *flow_ids, uint32_t flow_count,
                                          flow_stats *stats) {
    if (!__tables_check_initialized()) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    const table_ops *const operations = operations_of(table);
    if (operations->flows_stats_get == nullptr) {
        HAL_ERROR("Get flow stats operation is unsupported for Table (%u) ", table);
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    const plock_shared lock(g.table_locks[table]);
    return operations->flows_stats_get(flow_ids, flow_count, stats);
}

/* ---- the table as a whole -------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_capability_get(uint32_t table, table_capabilities *capabilities_out) {
    if (!__tables_check_initialized()) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    const table_ops *const operations = operations_of(table);
    if (operations->capabilities_get == nullptr) {
        HAL_ERROR("Table (%u) is unsupported", table);
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    return operations->capabilities_get(capabilities_out);
}

kr_sdn_hal_status tables_table_stat_get(uint32_t table, table_stats *stats) {
    // In any state of the module; after deinit the table still answers.
    const table_ops *const operations = operations_of(table);
    if (operations->table_stats_get == nullptr) {
        HAL_ERROR("Get table stats operation is unsupported for Table (%u) ", table);
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    return operations->table_stats_get(stats);
}

kr_sdn_hal_status tables_entries_shift(uint32_t table, uint32_t old_index, uint32_t new_index, uint32_t size) {
    lock_is_held(table);
    const auto old_start = static_cast<uint16_t>(old_index);
    const auto new_start = static_cast<uint16_t>(new_index);
    kr_sdn_hal_status status = __tables_entries_shift_in_hw(table, old_start, new_start, size);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to shift flows ");
        return status;
    }
    status = __tables_flows_db_shift_entries(table, old_start, new_start, size);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to update flows DB while shift flows operation");
    }
    return status;
}

kr_sdn_hal_status tables_resize(uint32_t /*table*/, uint32_t /*hint*/) {
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- multicast groups ------------------------------------------------------------------------------------------ */

kr_sdn_hal_status tables_mcast_group_add(uint32_t port_count, const uint32_t *ports, uint32_t *group_id) {
    if (kr::acquire_load(g.initialized) == 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return tables_acl_mcast_group_add(port_count, ports, group_id);
}

kr_sdn_hal_status tables_mcast_group_edit(uint32_t command, uint32_t port_count, const uint32_t *ports,
                                          uint32_t *group_id) {
    if (kr::acquire_load(g.initialized) == 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return tables_acl_mcast_group_edit(command, port_count, ports, group_id);
}

kr_sdn_hal_status tables_mcast_group_del(uint32_t *group_id) {
    if (kr::acquire_load(g.initialized) == 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return tables_acl_mcast_group_del(*group_id);
}

kr_sdn_hal_status tables_mcast_group_get(uint32_t group_id, uint32_t *port_count, uint32_t *ports) {
    if (kr::acquire_load(g.initialized) == 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return tables_acl_mcast_group_get(group_id, port_count, ports);
}
