/*
 * The exported life cycle: each function checks its argument, calls its counterpart in the general module and says in
 * a line of its own when that failed.
 */
#include <cstdarg>
#include <cstdio>
#include <type_traits>

#include "common/log.h"
#include "core/general.h"
#include "kr_sdn_hal.h"

int32_t kr_HAL_API_verb_level = 3;

KR_LOG_MODULE("HAL_API", kr_HAL_API_verb_level);

static_assert(std::is_same_v<kr_sdn_hal_log_callback, kr_log_callback>);
static_assert(std::is_trivially_copyable_v<system_profile> && std::is_standard_layout_v<system_profile>);
static_assert(std::is_trivially_copyable_v<capabilities> && std::is_standard_layout_v<capabilities>);

namespace {

constexpr size_t log_text_size = 256; // with the NUL; longer messages are cut

} // namespace

kr_sdn_hal_status kr_sdn_hal_init(const system_profile *profile, kr_sdn_hal_log_callback log_callback) noexcept {
    if (profile == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    const kr_sdn_hal_status status = general_init(profile, log_callback);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_NOTICE("SDN HAL init done.");
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_activate(void) noexcept {
    const kr_sdn_hal_status status = general_activate();
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("SDN HAL modules activate failed.");
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_deinit(void) noexcept {
    const kr_sdn_hal_status status = general_deinit();
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("SDN HAL modules deinit failed.");
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_capabilities_set(const capabilities *cap) noexcept {
    if (cap == nullptr) {
        HAL_ERROR("<cap> param is NULL.");
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    const kr_sdn_hal_status status = general_capabilities_set(cap);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("general_capabilities_set failed.");
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_capabilities_get(capabilities *cap) noexcept {
    if (cap == nullptr) {
        HAL_ERROR("<cap> param is NULL.");
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    const kr_sdn_hal_status status = general_capabilities_get(cap);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("general_capabilities_get failed.");
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_log(uint32_t severity, const char *module, const char *format, ...) noexcept {
    if (module == nullptr || format == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    char text[log_text_size] = "";
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    general_log_conn(severity, module, text);
    return KR_SDN_HAL_STATUS_SUCCESS;
}
