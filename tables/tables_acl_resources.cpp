/*
 * What Table 0 owns besides its rules: the handle of the ACL resource manager, the ACL, the flood group, the pSort
 * table and the flows database; and the ports that the ACL is bound to.
 *
 * No step takes an earlier one back: a bring-up or tear-down that fails stops there and leaves what it had done.
 */
#include "common/common.h"
#include "common/log.h"
#include "core/port.h"
#include "tables/tables.h"
#include "tables/tables_acl_internal.h"

KR_LOG_MODULE("HAL_TABLES_API", kr_HAL_TABLES_API_verb_level);

extern "C" {
psort_handle acl_psort_handle;
flows_db acl_flows_db;
}

namespace kr::tables_acl {
constinit state g{};
}

using kr::relaxed_load;
using kr::relaxed_store;
using kr::tables_acl::g;

namespace {

constexpr uint32_t psort_delta_size = 15;
constexpr uint32_t flow_priority_max = 65535;

// One command for the flood group, whose id the resource manager may write.
kr_status flood_group_set(uint32_t command, uint32_t port_count, const uint32_t *log_ports) {
    uint32_t group_id = relaxed_load(g.flood_mc_group_id);
    const kr_status status =
        kr_acl_rm_api_acl_mc_group_set(relaxed_load(g.acl_rm_handle), command, port_count, log_ports, &group_id);
    relaxed_store(g.flood_mc_group_id, group_id);
    return status;
}

kr_status acl_bind_port_set(uint32_t command, uint32_t log_port) {
    return kr_acl_rm_api_acl_bind_port_set(relaxed_load(g.acl_rm_handle), command, relaxed_load(g.acl_id), &log_port,
                                           1);
}

} // namespace

/* ---- the ACL and the flood group ------------------------------------------------------------------------------- */

kr_sdn_hal_status __acl_init(uint32_t size) {
    kr_acl_rm_handle handle = relaxed_load(g.acl_rm_handle);
    kr_status status = kr_acl_rm_api_open(&handle, nullptr);
    relaxed_store(g.acl_rm_handle, handle);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to open handle to ACL RM rc(%u)", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    const kr_acl_rm_init_params params = {.mode = 1};
    status = kr_acl_rm_api_init(handle, &params);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to init ACL RM rc(%u)", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    kr_acl_attributes attributes = {
        .acl_id = 0,
        .key_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS,
        .direction = 1,
        .acl_type = 0,
        .region_flags = 0,
        .region_size = size,
        .region_size_max = size,
    };
    status = kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_CREATE, &attributes);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to create ACL in ACL RM rc (%u)", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    relaxed_store(g.acl_id, attributes.acl_id);
    status = flood_group_set(KR_ACL_RM_CMD_GROUP_CREATE, 0, nullptr);
    if (status == KR_STATUS_NO_RESOURCES) {
        HAL_NOTICE("No resources to create FLOOD MC group in ACL RM rc (%u)", status);
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    }
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to create FLOOD MC group in ACL RM rc (%u)", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __acl_deinit() {
    kr_status status = flood_group_set(KR_ACL_RM_CMD_GROUP_DESTROY, 0, nullptr);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to delete FLOOD MC group in ACL RM rc (%u)", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    kr_acl_rm_handle handle = relaxed_load(g.acl_rm_handle);
    kr_acl_attributes attributes{};
    attributes.acl_id = relaxed_load(g.acl_id);
    status = kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_DESTROY, &attributes);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to destroy ACL in ACL RM rc (%u)", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    status = kr_acl_rm_api_close(&handle);
    relaxed_store(g.acl_rm_handle, handle);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to close handle to ACL RM rc(%u)", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- the pSort table ------------------------------------------------------------------------------------------- */

kr_sdn_hal_status __acl_psort_init(uint32_t size) {
    const psort_table_attributes attributes = {
        .table_size = size,
        .delta_size = psort_delta_size,
        .max_priority = flow_priority_max,
        .min_priority = 0,
        .almost_full_percent = 100,
        .almost_empty_percent = 0,
        .cookie = 0, // the table id
        .notification_callback = tables_psort_notification_handler,
    };
    return kr_utils_status_to_kr_sdn_hal_status(psort_init(&acl_psort_handle, &attributes));
}

kr_sdn_hal_status __acl_psort_deinit() {
    return kr_utils_status_to_kr_sdn_hal_status(psort_clear_table(acl_psort_handle));
}

/* ---- the table ------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_acl_init(const uint8_t * /*table_enabled*/, psort_handle *psort) {
    // A start that failed further on has left its database behind; init makes the pool anew over the old one.
    if (acl_flows_db.initialized == 1) {
        cl_qpool_destroy(&acl_flows_db.entry_pool);
    }
    kr_sdn_hal_status status = flows_db_init(&acl_flows_db, TABLES_ACL_SIZE);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to init flows DB");
        return status;
    }
    status = __acl_init(TABLES_ACL_SIZE);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed in ACL HW init ");
        return status;
    }
    status = __acl_psort_init(TABLES_ACL_SIZE);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed in ACL pSort init ");
        return status;
    }
    *psort = acl_psort_handle;
    g.flow_counters_used = 0;
    g.flow_counters_max = TABLES_ACL_COUNTERS_MAX;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_acl_deinit() {
    kr_sdn_hal_status status = flows_db_deinit(&acl_flows_db);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to deinit flows DB");
        return status;
    }
    g.flow_counters_used = 0;
    status = __acl_psort_deinit();
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed in ACL pSort deinit ");
        return status;
    }
    status = __acl_deinit();
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed in ACL HW deinit ");
    }
    return status;
}

/* ---- ports ----------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_acl_add_port(uint32_t of_port) {
    const port_info *port = nullptr;
    const kr_sdn_hal_status found = port_get(of_port, &port);
    if (found != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to translate port rc (%u)n ", found);
        return found;
    }
    kr_status status = acl_bind_port_set(KR_ACL_RM_CMD_BIND, port->log_port);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to bind port (0x%x) ACL RM rc (%u) ", port->log_port, status);
        return status == KR_STATUS_NO_HARDWARE_RESOURCES ? KR_SDN_HAL_STATUS_NO_RESOURCES : KR_SDN_HAL_STATUS_ERROR;
    }
    status = flood_group_set(KR_ACL_RM_CMD_GROUP_ADD_PORTS, 1, &port->log_port);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to add port (0x%x) to ACL RM FLOOD group (%u)", port->log_port, status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_acl_del_port(uint32_t of_port) {
    const port_info *port = nullptr;
    const kr_sdn_hal_status found = port_get(of_port, &port);
    if (found != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to translate port rc (%u) ", found);
        return found;
    }
    kr_status status = acl_bind_port_set(KR_ACL_RM_CMD_UNBIND, port->log_port);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to unbind port (0x%x) ACL RM rc (%u) ", port->log_port, status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    status = flood_group_set(KR_ACL_RM_CMD_GROUP_REMOVE_PORTS, 1, &port->log_port);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to remove port (0x%x) from ACL RM FLOOD group (%u)n ", port->log_port, status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}
