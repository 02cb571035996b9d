/*
 * The pointer check and the length-prefixed buffers that the modules hand to each other.
 */
#include "common/common.h"

#include <cstdlib>
#include <cstring>

#include "common/log.h"

int32_t kr_HAL_UTILS_verb_level = 3;

KR_LOG_MODULE("HAL_UTILS", kr_HAL_UTILS_verb_level);

namespace {

constexpr size_t prefix_size = sizeof(uint32_t);

} // namespace

kr_sdn_hal_status hal_utils_check_pointer(const void *pointer, const char *description) {
    if (pointer != nullptr) {
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    HAL_ERROR("NULL Pointer (%s)", description != nullptr ? description : "no pointer description");
    return KR_SDN_HAL_STATUS_PARAM_NULL;
}

kr_sdn_hal_status hal_utils_memory_get(void **buffer, uint32_t size) {
    const kr_sdn_hal_status status = hal_utils_check_pointer(buffer, "Buffer pointer");
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    *buffer = nullptr;
    auto *const block = static_cast<char *>(cl_malloc(prefix_size + size));
    if (block == nullptr) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    memcpy(block, &size, prefix_size);
    *buffer = block + prefix_size;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status hal_utils_clr_memory_get(void **buffer, uint32_t count, uint32_t element_size) {
    const uint32_t size = count * element_size;
    const kr_sdn_hal_status status = hal_utils_memory_get(buffer, size);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        memset(*buffer, 0, size);
    }
    return status;
}

kr_sdn_hal_status hal_utils_memory_put(void *buffer) {
    const kr_sdn_hal_status status = hal_utils_check_pointer(buffer, "Buffer pointer");
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        free(static_cast<char *>(buffer) - prefix_size);
    }
    return status;
}
