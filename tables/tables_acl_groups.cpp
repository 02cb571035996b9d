/*
 * The clients' multicast groups. They live in the ACL resource manager alone: no record of them is kept here, nothing
 * counts the flows that forward to them, and they outlive the table.
 *
 * The flood group is of the same kind but belongs to Table 0; to clients it does not exist.
 */
#include <algorithm>

#include "common/log.h"
#include "core/port.h"
#include "tables/tables.h"
#include "tables/tables_acl_internal.h"

KR_LOG_MODULE("HAL_TABLES_API", kr_HAL_TABLES_API_verb_level);

using kr::relaxed_load;
using kr::tables_acl::g;

namespace {

struct log_port_list {
    uint32_t ports[KR_SDN_HAL_GROUP_MAX_PORTS];
};

bool is_flood_group(uint32_t group_id) {
    return group_id == relaxed_load(g.flood_mc_group_id);
}

// Translates a whole list of OF ports, before hardware hears of any.
kr_sdn_hal_status ports_translate(const uint32_t *of_ports, uint32_t count, log_port_list *log_ports) {
    if (count > KR_SDN_HAL_GROUP_MAX_PORTS) { // told by the exported function, which refuses it first
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    for (uint32_t i = 0; i < count; ++i) {
        const kr_sdn_hal_status status = port_get_log_port(of_ports[i], &log_ports->ports[i]);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to translate output port (%u) rc (%u)n ", of_ports[i], status);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

} // namespace

kr_sdn_hal_status tables_acl_mcast_group_add(uint32_t port_count, const uint32_t *ports, uint32_t *group_id) {
    log_port_list log_ports;
    const kr_sdn_hal_status translated = ports_translate(ports, port_count, &log_ports);
    if (translated != KR_SDN_HAL_STATUS_SUCCESS) {
        return translated;
    }
    const kr_status status = kr_acl_rm_api_acl_mc_group_set(relaxed_load(g.acl_rm_handle), KR_ACL_RM_CMD_GROUP_CREATE,
                                                            port_count, log_ports.ports, group_id);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to set mc group in ACL RM rc (%u) ", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_acl_mcast_group_edit(uint32_t command, uint32_t port_count, const uint32_t *ports,
                                              uint32_t *group_id) {
    if (is_flood_group(*group_id)) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    const uint32_t acl_command =
        command == KR_SDN_HAL_GROUP_ADD_PORTS ? KR_ACL_RM_CMD_GROUP_ADD_PORTS : KR_ACL_RM_CMD_GROUP_REMOVE_PORTS;
    log_port_list log_ports;
    const kr_sdn_hal_status translated = ports_translate(ports, port_count, &log_ports);
    if (translated != KR_SDN_HAL_STATUS_SUCCESS) {
        return translated;
    }
    const kr_status status = kr_acl_rm_api_acl_mc_group_set(relaxed_load(g.acl_rm_handle), acl_command, port_count,
                                                            log_ports.ports, group_id);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to edit mc group in ACL RM rc (%u) ", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_acl_mcast_group_del(uint32_t group_id) {
    if (is_flood_group(group_id)) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    const kr_status status = kr_acl_rm_api_acl_mc_group_set(relaxed_load(g.acl_rm_handle), KR_ACL_RM_CMD_GROUP_DESTROY,
                                                            0, nullptr, &group_id);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to set mc group in ACL RM rc (%u) ", status); // one text for the making and the ending
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_acl_mcast_group_get(uint32_t group_id, uint32_t *port_count, uint32_t *ports) {
    if (is_flood_group(group_id)) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    const uint32_t room = *port_count;
    if (room > KR_SDN_HAL_GROUP_MAX_PORTS) { // told by the exported function, which refuses it first
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    log_port_list log_ports{};
    const kr_status status =
        kr_acl_rm_api_acl_mc_group_get(relaxed_load(g.acl_rm_handle), group_id, port_count, log_ports.ports);
    if (status == KR_STATUS_ENTRY_NOT_FOUND) {
        HAL_NOTICE("Failed to get mc group from ACL RM rc (%u) - entry not found", status);
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to get mc group from ACL RM rc (%u) ", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    // Whatever the platform answers: the client's array holds no more, and the client reads as many as it is told.
    const uint32_t member_count = std::min(*port_count, room);
    *port_count = member_count;
    for (uint32_t i = 0; i < member_count; ++i) {
        const kr_sdn_hal_status translated = port_translate_log_port(log_ports.ports[i], &ports[i]);
        if (translated != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to translate output port (%u) rc (%u)n ", log_ports.ports[i], translated);
            return translated;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}
