/*
 * Statuses as the plug-ins see them: the texts of the library's statuses for a person, and what a status of the
 * software platform means to the library.
 */
#ifndef KR_PLUGIN_STATUS_H
#define KR_PLUGIN_STATUS_H

#include <cstdint>

#include "kr_sdn_hal.h"
#include "kr_status.h"

namespace kr_plugin {

constexpr const char *hal_status_text(uint32_t status) {
    constexpr const char *texts[] = {
        "success",         "internal error",          "device error",        "not initialized",
        "entry not found", "entry already exists",    "command unsupported", "parameter error",
        "null parameter",  "parameter exceeds range", "no resources",        "resource in use"};
    return status < sizeof(texts) / sizeof(texts[0]) ? texts[status] : "unknown status";
}

constexpr kr_sdn_hal_status hal_status_of(kr_status status) {
    switch (status) {
    case KR_STATUS_SUCCESS:
        return KR_SDN_HAL_STATUS_SUCCESS;
    case KR_STATUS_NOT_INITIALIZED:
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    case KR_STATUS_CMD_UNSUPPORTED:
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    case KR_STATUS_ENTRY_ALREADY_EXISTS:
        return KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS;
    case KR_STATUS_ENTRY_NOT_FOUND:
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    case KR_STATUS_NO_RESOURCES:
    case KR_STATUS_NO_HARDWARE_RESOURCES:
    case KR_STATUS_NO_MEMORY:
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    case KR_STATUS_PARAM_ERROR:
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    case KR_STATUS_PARAM_NULL:
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    case KR_STATUS_PARAM_EXCEEDS_RANGE:
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    case KR_STATUS_RESOURCE_IN_USE:
        return KR_SDN_HAL_STATUS_RESOURCE_IN_USE;
    default:
        return KR_SDN_HAL_STATUS_ERROR;
    }
}

} // namespace kr_plugin

#endif
