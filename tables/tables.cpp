/*
 * The registry of tables: the module's life cycle, the ports that come and go, and the dispatchers that lead to the
 * operations of a table.
 *
 * There is one table, Table 0, which the ACL resource manager holds (tables_acl_impl). What clients do with flows is in
 * tables_entries.cpp; pSort's notifications and the background thread are in tables_psort.cpp.
 */
#include "tables/tables.h"

#include "common/common.h"
#include "common/log.h"
#include "tables/tables_acl_impl.h"
#include "tables/tables_internal.h"

extern "C" {
int32_t kr_HAL_TABLES_API_verb_level = 3;
}

KR_LOG_MODULE("HAL_TABLES_API", kr_HAL_TABLES_API_verb_level);

namespace {

constexpr table_ops table_0_operations = {
    .init = tables_acl_init,
    .deinit = tables_acl_deinit,
    .capabilities_get = tables_acl_capabilities_get,
    .config = tables_acl_config,
    .del = tables_acl_delete,
    .add_port = tables_acl_add_port,
    .del_port = tables_acl_del_port,
    .activity_get = tables_acl_activity_get,
    .table_stats_get = tables_acl_table_stats_get,
    .flows_stats_get = tables_acl_flows_stats_get,
    .rules_shift = tables_acl_rules_shift,
    .rule_get = tables_acl_rule_get,
    .flows_db_set = tables_acl_flows_db_set,
    .flows_db_get = tables_acl_flows_db_get,
    .flows_db_rules_shift = tables_acl_flows_db_rules_shift,
};

} // namespace

namespace kr::tables {
constinit state g{};
}

using kr::relaxed_load;
using kr::relaxed_store;
using kr::tables::g;
using kr::tables::operations_of;
using kr::tables::table_count;

/* ---- life cycle ------------------------------------------------------------------------------------------------ */

kr_sdn_hal_status __init_table_0() {
    relaxed_store(g.operations[0], &table_0_operations);
    if (cl_plock_init(&g.table_locks[0]) != CL_SUCCESS) {
        HAL_ERROR("failed to initialize Table 0 lock.");
        return KR_SDN_HAL_STATUS_ERROR;
    }
    relaxed_store(g.last_entry_set_time, time(nullptr));
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_init(const uint8_t *table_enabled) {
    if (g.initialized != 0 || g.dependent_initialized != 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    g.table_enabled[0] = table_enabled[0];
    g.psort = nullptr;
    relaxed_store(g.background_wait_us, kr::tables::background_wait_rest_us);
    const kr_sdn_hal_status status = __init_table_0();
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to initialize table 0 ");
        return status;
    }
    if (cl_event_init(&g.stop_event, 0) != CL_SUCCESS) {
        HAL_ERROR("failed initialize psort background thread stop event");
        return KR_SDN_HAL_STATUS_ERROR;
    }
    kr::release_store(g.initialized, uint8_t{1}); // the locks are there
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_dependent_init() {
    if (g.initialized == 0 || g.dependent_initialized != 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    for (uint32_t table = 0; table < table_count; ++table) {
        if (g.table_enabled[table] != 1) {
            continue;
        }
        // A client may already be calling; it waits until the table is there.
        const kr::plock_exclusive lock(g.table_locks[table]);
        const kr_sdn_hal_status status = operations_of(table)->init(g.table_enabled, &g.psort);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to initialize table (%u) rc = %u", table, status);
            return status;
        }
    }
    if (cl_thread_init(&g.background_thread, __psort_background_thread, nullptr, "psort") != CL_SUCCESS) {
        HAL_ERROR("Could not create pSort background thread");
        return KR_SDN_HAL_STATUS_ERROR;
    }
    g.dependent_initialized = 1;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_dependent_deinit() {
    if (g.initialized == 0 || g.dependent_initialized == 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    // The flag stays set for good: a background thread of a later start ends when it first wakes up.
    relaxed_store(g.stop_flag, uint32_t{1});
    (void)cl_event_signal(&g.stop_event);
    cl_thread_destroy(&g.background_thread);
    for (uint32_t table = 0; table < table_count; ++table) {
        if (g.table_enabled[table] != 1) {
            continue;
        }
        const kr_sdn_hal_status status = [table] {
            const kr::plock_exclusive lock(g.table_locks[table]);
            return operations_of(table)->deinit();
        }();
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to deinit table (%u) rc = %u", table, status);
            return status;
        }
    }
    g.dependent_initialized = 0;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_deinit() {
    if (g.initialized == 0 || g.dependent_initialized != 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    for (uint32_t table = 0; table < table_count; ++table) {
        if (g.table_enabled[table] == 1) {
            cl_plock_destroy(&g.table_locks[table]);
        }
    }
    cl_event_destroy(&g.stop_event);
    relaxed_store(g.initialized, uint8_t{0});
    return KR_SDN_HAL_STATUS_SUCCESS;
}

bool __tables_check_initialized() {
    if (kr::acquire_load(g.initialized) != 0) {
        return true;
    }
    HAL_ERROR("SDN HAL Tables module is not initialized");
    return false;
}

/* ---- ports ----------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_port_added(uint32_t of_port) {
    if (!__tables_check_initialized()) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    for (uint32_t table = 0; table < table_count; ++table) {
        if (g.table_enabled[table] != 1) {
            continue;
        }
        const kr_sdn_hal_status status = operations_of(table)->add_port(of_port);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to add port (0x%x) to table (%u) rc (%u)", of_port, table, status);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_port_removed(uint32_t of_port) {
    if (!__tables_check_initialized()) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    for (uint32_t table = 0; table < table_count; ++table) {
        if (g.table_enabled[table] != 1) {
            continue;
        }
        const kr_sdn_hal_status status = operations_of(table)->del_port(of_port);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to remove port (0x%x) table (%u) rc (%u)", of_port, table, status);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- dispatchers to hardware ----------------------------------------------------------------------------------- */

kr_sdn_hal_status __tables_config_to_hw(uint32_t table, wrapped_flow *flows, uint32_t count) {
    if (operations_of(table)->config == nullptr) {
        HAL_ERROR("Add entry operation is unsupported for Table (%u) ", table);
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    return operations_of(table)->config(flows, &count);
}

kr_sdn_hal_status __tables_delete_from_hw(uint32_t table, wrapped_flow *flows, uint32_t count) {
    if (operations_of(table)->del == nullptr) {
        HAL_ERROR("Delete entry operation is unsupported for Table (%u) ", table);
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    return operations_of(table)->del(flows, &count);
}

kr_sdn_hal_status __tables_entries_shift_in_hw(uint32_t table, uint16_t old_index, uint16_t new_index, uint32_t size) {
    if (operations_of(table)->rules_shift == nullptr) {
        HAL_ERROR("Shift entries operation is unsupported for Table (%u)", table);
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    return operations_of(table)->rules_shift(old_index, new_index, size);
}

kr_sdn_hal_status __tables_get_activity_from_hw(uint32_t table, const uint64_t *flow_ids, uint32_t count,
                                                uint32_t *activities) {
    if (operations_of(table)->activity_get == nullptr) {
        HAL_ERROR("Get entry activity operation is unsupported for Table (%u) ", table);
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    return operations_of(table)->activity_get(flow_ids, count, activities);
}

kr_sdn_hal_status __tables_get_entry_from_hw(uint32_t table, uint32_t count, wrapped_flow *flows) {
    if (operations_of(table)->rule_get == nullptr) {
        HAL_ERROR("Get entry operation is unsupported for Table (%u) ", table);
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    return operations_of(table)->rule_get(count, flows);
}

/* ---- dispatchers to the flows database ------------------------------------------------------------------------- */

kr_sdn_hal_status __tables_flows_db_set(uint32_t command, uint32_t table, uint32_t count, wrapped_flow *flows) {
    for (uint32_t i = 0; i < count; ++i) {
        const kr_sdn_hal_status status = operations_of(table)->flows_db_set(command, &flows[i]);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_NOTICE("Failed to set flow ID [%lu] from table[%u] DB", flows[i].flow->flow_id, table);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __tables_flows_db_get(uint32_t table, uint32_t count, wrapped_flow *flows) {
    for (uint32_t i = 0; i < count; ++i) {
        const kr_sdn_hal_status status = operations_of(table)->flows_db_get(&flows[i]);
        if (status != KR_SDN_HAL_STATUS_SUCCESS && status != KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
            HAL_ERROR("Failed to retrieve flow ID [%lu] from table[%u] DB", flows[i].flow->flow_id, table);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __tables_flows_db_shift_entries(uint32_t table, uint16_t old_index, uint16_t new_index,
                                                  uint32_t size) {
    const kr_sdn_hal_status status = operations_of(table)->flows_db_rules_shift(old_index, new_index, size);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to shift flows in table[%u] DB", table);
    }
    return status;
}

/* ---- flow helpers ---------------------------------------------------------------------------------------------- */

kr_sdn_hal_status __tables_flow_add(uint32_t table, wrapped_flow *flows, uint32_t count) {
    // Only the first flow of a batch is looked at.
    if (count > 0 && flows[0].flow->action == FLOW_ACTION_OUTPUT_ALL) {
        HAL_ERROR("action output all is not supported in the current release.");
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    return __tables_config_to_hw(table, flows, count);
}

kr_sdn_hal_status __tables_flow_delete(uint32_t table, wrapped_flow *flows, uint32_t count) {
    return __tables_delete_from_hw(table, flows, count);
}

kr_sdn_hal_status __wrap_flows(flow_record *flows, uint32_t count, wrapped_flow **wrapped_flows) {
    // The buffer's size is a product of 32 bits: an array that does not fit is memory that cannot be had.
    void *buffer = nullptr;
    const kr_sdn_hal_status status = count <= tables_max_flow_count
                                         ? hal_utils_clr_memory_get(&buffer, count, sizeof(wrapped_flow))
                                         : KR_SDN_HAL_STATUS_ERROR;
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to allocate memory for wrapped flows array ");
        return status;
    }
    *wrapped_flows = static_cast<wrapped_flow *>(buffer);
    for (uint32_t i = 0; i < count; ++i) {
        (*wrapped_flows)[i].flow = &flows[i];
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}
