/*
 * The exported front end of the tables: checks arguments, marks entry and exit in the trace, and calls the operation
 * of the tables module. It holds no state and takes no lock.
 */
#include <cstring>

#include "common/log.h"
#include "kr_sdn_hal.h"
#include "tables/tables.h"

KR_LOG_MODULE("HAL_TABLES_API", kr_HAL_TABLES_API_verb_level);

#define TRACE_ENTRY() HAL_TRACE("%s: [", __func__)
#define TRACE_EXIT() HAL_TRACE("%s: ]", __func__)

namespace {

kr_sdn_hal_status parameter_null() {
    HAL_ERROR("Null Parameter given");
    return KR_SDN_HAL_STATUS_PARAM_NULL;
}

bool table_exists(uint32_t table) {
    if (table <= TABLES_MAX_TABLE_ID) {
        return true;
    }
    HAL_ERROR("Table id (%u) exceeds maximal table ID (%u)", table, uint32_t{TABLES_MAX_TABLE_ID});
    return false;
}

// Makes, edits or deletes a group, once the arguments are found to be in order.
kr_sdn_hal_status mcast_group_command(uint32_t command, uint32_t port_count, const uint32_t *ports,
                                      uint32_t *group_id) {
    switch (command) {
    case KR_SDN_HAL_GROUP_CREATE:
        return tables_mcast_group_add(port_count, ports, group_id);
    case KR_SDN_HAL_GROUP_DELETE:
        return tables_mcast_group_del(group_id);
    case KR_SDN_HAL_GROUP_ADD_PORTS:
    case KR_SDN_HAL_GROUP_REMOVE_PORTS:
        if (port_count == 0) {
            HAL_ERROR("ports number should be at least 1");
        }
        // An edit succeeds for the client, whatever comes of it; what fails is in the log.
        (void)tables_mcast_group_edit(command, port_count, ports, group_id);
        return KR_SDN_HAL_STATUS_SUCCESS;
    default: // the client's value, not one of this library's
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
}

} // namespace

extern "C" {

/* ---- flows ----------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status kr_sdn_hal_table_entry_set(uint32_t command, uint32_t table, flow_record *flows,
                                             uint32_t flow_count) noexcept {
    TRACE_ENTRY();
    if (flows == nullptr) {
        return parameter_null();
    }
    if (!table_exists(table)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    const kr_sdn_hal_status status = tables_entry_set(command, table, flows, flow_count);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        TRACE_EXIT();
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_table_entry_get(uint32_t table, uint64_t flow_start, const uint64_t *flow_ids,
                                             uint32_t *flow_count, flow_record *flows) noexcept {
    TRACE_ENTRY();
    if (flow_start != 0) {
        HAL_ERROR("flow_start is not supported.");
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    if (flow_ids == nullptr || flow_count == nullptr || flows == nullptr) {
        return parameter_null();
    }
    if (!table_exists(table)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (*flow_count == 0) {
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (*flow_count <= tables_max_flow_count) { // more are refused below; their memory is not touched
        memset(static_cast<void *>(flows), 0, size_t{*flow_count} * sizeof(flow_record));
    }
    const kr_sdn_hal_status status = tables_entry_get(table, flow_ids, *flow_count, flows);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        TRACE_EXIT();
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_table_entry_activity_get(uint32_t table, const uint64_t *flow_ids, uint32_t flow_count,
                                                      uint32_t *activities) noexcept {
    TRACE_ENTRY();
    if (!table_exists(table)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (flow_ids == nullptr || activities == nullptr) {
        return parameter_null();
    }
    if (flow_count == 0) {
        HAL_ERROR("Number of Flows ID is invalid ");
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    const kr_sdn_hal_status status = tables_flow_activity_get(table, flow_ids, flow_count, activities);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed in flow activity get operation");
        return status;
    }
    TRACE_EXIT();
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_table_entry_stat_get(uint32_t table, const uint64_t *flow_ids, uint32_t flow_count,
                                                  flow_stats *stats) noexcept {
    TRACE_ENTRY();
    if (!table_exists(table)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (flow_count == 0) {
        TRACE_EXIT();
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (flow_ids == nullptr || stats == nullptr) {
        return parameter_null();
    }
    const kr_sdn_hal_status status = tables_entries_stat_get(table, flow_ids, flow_count, stats);
    // A flow that has gone is no error to a client that polls.
    if (status != KR_SDN_HAL_STATUS_SUCCESS && status != KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
        HAL_ERROR("Failed in getting table (%u) statistics ", table);
        return status;
    }
    TRACE_EXIT();
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- multicast groups ------------------------------------------------------------------------------------------ */

kr_sdn_hal_status kr_sdn_hal_table_mcast_group_set(uint32_t command, uint32_t port_count, const uint32_t *ports,
                                                   uint32_t *group_id) noexcept {
    TRACE_ENTRY();
    if ((command != KR_SDN_HAL_GROUP_DELETE && ports == nullptr) || group_id == nullptr) {
        return parameter_null();
    }
    if (port_count > KR_SDN_HAL_GROUP_MAX_PORTS) {
        HAL_ERROR("ports number exceeds range");
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    const kr_sdn_hal_status status = mcast_group_command(command, port_count, ports, group_id);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        TRACE_EXIT();
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_table_mcast_group_get(uint32_t group_id, uint32_t *port_count, uint32_t *ports) noexcept {
    TRACE_ENTRY();
    if (port_count == nullptr || ports == nullptr) {
        HAL_ERROR("NULL params");
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    if (*port_count == 0 || *port_count > KR_SDN_HAL_GROUP_MAX_PORTS) {
        HAL_ERROR("ports number value is illegal");
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    return tables_mcast_group_get(group_id, port_count, ports); // no exit line
}

/* ---- tables ---------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status kr_sdn_hal_table_capabilities_get(uint32_t *table_count) noexcept {
    TRACE_ENTRY();
    if (table_count == nullptr) {
        return parameter_null();
    }
    *table_count = TABLES_MAX_TABLE_ID + 1;
    TRACE_EXIT();
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_table_table_capabilities_get(uint32_t table,
                                                          table_capabilities *table_capabilities_out) noexcept {
    TRACE_ENTRY();
    if (!table_exists(table)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (table_capabilities_out == nullptr) {
        return parameter_null();
    }
    TRACE_EXIT(); // before the call, whatever it returns
    return tables_capability_get(table, table_capabilities_out);
}

kr_sdn_hal_status kr_sdn_hal_table_table_stat_get(uint32_t table, table_stats *stats) noexcept {
    TRACE_ENTRY();
    if (!table_exists(table)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (stats == nullptr) {
        return parameter_null();
    }
    const kr_sdn_hal_status status = tables_table_stat_get(table, stats);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed in getting table (%u) statistics ", table);
        return status;
    }
    TRACE_EXIT();
    return KR_SDN_HAL_STATUS_SUCCESS;
}

} // extern "C"
