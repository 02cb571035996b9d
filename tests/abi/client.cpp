/*
 * A client in C++20 that includes the public header and nothing else of the project: what the header promises to C++
 * alone, and that C++ sees the same records and the same library as C.
 */
#include "kr_sdn_hal.h"

#include <cstdio>
#include <type_traits>

namespace {

// No exception leaves the library, and the compiler knows; a status may not be dropped unseen.
static_assert(noexcept(kr_sdn_hal_init(nullptr, nullptr)) &&noexcept(kr_sdn_hal_deinit()));
static_assert(noexcept(kr_sdn_hal_log(0, "", "%s", "")));
static_assert(noexcept(kr_sdn_hal_srvc_recv(nullptr, nullptr)));
static_assert(noexcept(kr_sdn_hal_port_arr_get(nullptr, nullptr)));
static_assert(noexcept(kr_sdn_hal_table_entry_set(0, 0, nullptr, 0)));
static_assert(std::is_same_v<std::underlying_type_t<kr_sdn_hal_status>, uint32_t>);

template <typename... Records>
constexpr bool are_plain = ((std::is_standard_layout_v<Records> && std::is_trivially_copyable_v<Records>)&&...);
static_assert(are_plain<system_profile, capabilities, srvc_handle, hal_event_record, port_speed_admin, port_mac_address,
                        port_counters, flow_record, flow_stats, table_stats, table_capabilities>);
static_assert(sizeof(hal_event_record) == 4016 && sizeof(flow_record) == 104 && sizeof(table_capabilities) == 88);

bool is(kr_sdn_hal_status status, kr_sdn_hal_status expected) {
    if (status != expected) {
        std::printf("status %u, should be %u\n", static_cast<unsigned>(status), static_cast<unsigned>(expected));
    }
    return status == expected;
}

} // namespace

int main() {
    uint32_t table_count = 0;
    capabilities cap{.mode = 0, .frame_size = 1500, .reserved = 7};
    capabilities read_back{};
    const bool good = is(kr_sdn_hal_table_capabilities_get(&table_count), KR_SDN_HAL_STATUS_SUCCESS) &&
                      table_count == 1 && is(kr_sdn_hal_capabilities_set(&cap), KR_SDN_HAL_STATUS_SUCCESS) &&
                      is(kr_sdn_hal_capabilities_get(&read_back), KR_SDN_HAL_STATUS_SUCCESS) &&
                      read_back.frame_size == 1500 && read_back.reserved == 7 && kr_HAL_GEN_verb_level == 3;
    return good ? 0 : 1;
}
