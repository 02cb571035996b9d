/*
 * What every module of the library shares: the texts of the statuses, the converters between the library's statuses
 * and the utilities' numbering that pSort speaks, the pointer check, and length-prefixed buffers.
 */
#ifndef KR_COMMON_COMMON_H
#define KR_COMMON_COMMON_H

#include <array>
#include <cstdint>

#include "kr_complib.h"
#include "kr_sdn_hal.h"
#include "kr_status.h"

namespace kr {

constexpr uint32_t hal_status_count = 12;
constexpr uint32_t utils_status_count = 19;

struct status_row {
    kr_sdn_hal_status status;
    const char *text;
    kr_utils_status utils_status;
};

// The one list of statuses, in the order of their values.
constexpr std::array<status_row, hal_status_count> status_rows = {{
    // status                                 text                                  utilities
    {KR_SDN_HAL_STATUS_SUCCESS, "Success", 0},
    {KR_SDN_HAL_STATUS_ERROR, "Internal Error", 1},
    {KR_SDN_HAL_STATUS_SDK_ERROR, "SDK Error", 2},
    {KR_SDN_HAL_STATUS_NOT_INITIALIZED, "Korvane SDN HAL wasn't Initialized", 4},
    {KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND, "Entry not found", 5},
    {KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS, "Entry already exists", 14},
    {KR_SDN_HAL_STATUS_CMD_UNSUPPORTED, "Command unsupported", 6},
    {KR_SDN_HAL_STATUS_PARAM_ERROR, "Parameter Error", 7},
    {KR_SDN_HAL_STATUS_PARAM_NULL, "NULL parameter", 8},
    {KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE, "Parameter exceeds range", 9},
    {KR_SDN_HAL_STATUS_NO_RESOURCES, "No resources", 10},
    {KR_SDN_HAL_STATUS_RESOURCE_IN_USE, "Resource is in use", 18},
}};

// The text of each status, by value.
constexpr auto hal_status_texts = [] {
    std::array<const char *, hal_status_count> texts{};
    for (const status_row &row : status_rows) {
        texts[row.status] = row.text;
    }
    return texts;
}();

// A conversion table and, beside it, how many entries it has.
template <typename To, uint32_t Count> struct status_table {
    std::array<To, Count> entries;
    uint32_t entry_count;
};

constexpr auto hal_to_utils = [] {
    status_table<kr_utils_status, hal_status_count> table{{}, hal_status_count};
    for (const status_row &row : status_rows) {
        table.entries[row.status] = row.utils_status;
    }
    return table;
}();

// Utilities' statuses without a counterpart collapse to the generic error.
constexpr auto utils_to_hal = [] {
    status_table<kr_sdn_hal_status, utils_status_count> table{{}, utils_status_count};
    table.entries.fill(KR_SDN_HAL_STATUS_ERROR);
    for (const status_row &row : status_rows) {
        table.entries[row.utils_status] = row.status;
    }
    return table;
}();

} // namespace kr

/* Converts for pSort. A value that is no status is asserted and gives the utilities' generic error, 1. */
inline kr_utils_status kr_sdn_hal_status_to_kr_utils_status(kr_sdn_hal_status status) {
    const auto index = static_cast<int32_t>(status);
    CL_ASSERT_AT(index >= 0 && index < 12, "common.h");
    CL_ASSERT_AT(status < kr::hal_to_utils.entry_count, "common.h");
    return status < kr::hal_to_utils.entry_count ? kr::hal_to_utils.entries[status] : 1;
}

/* Converts what pSort returned. A value that is no status is asserted and gives KR_SDN_HAL_STATUS_ERROR. */
inline kr_sdn_hal_status kr_utils_status_to_kr_sdn_hal_status(kr_utils_status status) {
    const auto index = static_cast<int32_t>(status);
    CL_ASSERT_AT(index >= 0 && index < 19, "common.h");
    CL_ASSERT_AT(status < kr::utils_to_hal.entry_count, "common.h");
    return status < kr::utils_to_hal.entry_count ? kr::utils_to_hal.entries[status] : KR_SDN_HAL_STATUS_ERROR;
}

/*
 * PARAM_NULL for NULL, after one error line with the description (NULL: "no pointer description"); SUCCESS otherwise.
 */
kr_sdn_hal_status hal_utils_check_pointer(const void *pointer, const char *description);

/*
 * Length-prefixed buffers. `get` allocates `size` bytes, not cleared, behind a u32 that holds the size, and writes the
 * address behind the prefix: such a buffer is aligned to 4 bytes, no more. ERROR, with *buffer NULL, when there is no
 * memory. `clr_get` does so for count * element_size bytes (a 32-bit product) and clears them. `put` gives a buffer
 * back that came from one of them.
 */
kr_sdn_hal_status hal_utils_memory_get(void **buffer, uint32_t size);
kr_sdn_hal_status hal_utils_clr_memory_get(void **buffer, uint32_t count, uint32_t element_size);
kr_sdn_hal_status hal_utils_memory_put(void *buffer);

#endif
