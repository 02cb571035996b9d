/*
 * The exported port functions: each checks its arguments, null pointers before ranges, calls one operation of the port
 * database or of the port plug-in's wrappers, logs what failed in one line and returns the status as it came.
 *
 * No state and no lock; ports are OF port numbers and go through untranslated.
 */
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "common/guards.h"
#include "common/log.h"
#include "core/fpt.h"
#include "core/port.h"
#include "kr_sdn_hal.h"

int32_t kr_HAL_API_PORT_verb_level = 3;

KR_LOG_MODULE("HAL_API_PORT", kr_HAL_API_PORT_verb_level);

namespace {

constexpr const char *admin_state_names[] = {"N/A", "DOWN", "UP"};
static_assert(std::size(admin_state_names) == PORT_ADMIN_UP + 1);

const char *admin_state_name(int32_t state) {
    const auto index = static_cast<uint32_t>(state);
    return index < std::size(admin_state_names) ? admin_state_names[index] : "Unknown port state";
}

bool is_flag(int32_t value) {
    return value == 0 || value == 1;
}

// The status of an operation, after its line in the log if it failed.
kr_sdn_hal_status logged(kr_sdn_hal_status status, const char *failure_text) {
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("%s", failure_text);
    }
    return status;
}

} // namespace

kr_sdn_hal_status kr_sdn_hal_port_arr_get(uint32_t *ports, uint32_t *count) noexcept {
    if (count == nullptr) {
        return logged(KR_SDN_HAL_STATUS_PARAM_NULL, "<port_arr> param is NULL.");
    }
    if (ports == nullptr) {
        *count = 0; // asks for the number of ports
    }
    return logged(port_get_arr(ports, count), "port_get_arr failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_capabilities_get(uint32_t port, uint32_t *port_capabilities) noexcept {
    if (port_capabilities == nullptr) {
        return logged(KR_SDN_HAL_STATUS_PARAM_NULL, "<port_cap> param is NULL.");
    }
    const port_info *info = nullptr;
    const kr_sdn_hal_status status = port_get(port, &info);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        *port_capabilities = kr::relaxed_load(info->aux);
    }
    return logged(status, "port_get failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_state_set(uint32_t port, int32_t admin_state) noexcept {
    if (admin_state < PORT_ADMIN_NA || admin_state > PORT_ADMIN_UP) {
        HAL_ERROR("<admin_state> param [%s] exceeds range.", admin_state_name(admin_state));
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    return logged(fpt_port_state_set(port, static_cast<uint32_t>(admin_state)), "fpt_port_state_set failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_state_get(uint32_t port, int32_t *admin_state, int32_t *oper_state) noexcept {
    kr_sdn_hal_status status = KR_SDN_HAL_STATUS_SUCCESS;
    if (admin_state != nullptr) {
        status = logged(fpt_port_state_get(port, admin_state), "fpt_port_state_get failed.");
    }
    if (status == KR_SDN_HAL_STATUS_SUCCESS && oper_state != nullptr) {
        status = logged(fpt_port_oper_state_get(port, oper_state), "fpt_port_oper_state_get failed.");
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_port_rstp_state_set(uint32_t port, int32_t stp_state) noexcept {
    if (stp_state < PORT_STP_NA || stp_state > PORT_STP_FORWARDING) {
        HAL_ERROR("STP port state [%s] exceeds range.", admin_state_name(stp_state));
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    return logged(fpt_rstp_port_state_set(port, static_cast<uint32_t>(stp_state)), "fpt_rstp_port_state_set failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_rstp_state_get(uint32_t port, int32_t *stp_state) noexcept {
    if (stp_state == nullptr) {
        return logged(KR_SDN_HAL_STATUS_PARAM_NULL, "<port_state> param is NULL.");
    }
    return logged(fpt_rstp_port_state_get(port, stp_state), "fpt_rstp_port_state_get failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_phys_addr_get(uint32_t port, port_mac_address *mac_address) noexcept {
    if (mac_address == nullptr) {
        return logged(KR_SDN_HAL_STATUS_PARAM_NULL, "<mac_addr> param is NULL.");
    }
    return logged(fpt_port_phys_addr_get(port, mac_address), "fpt_port_phys_addr_get failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_speed_set(uint32_t port, const port_speed_admin *admin_speed) noexcept {
    if (admin_speed == nullptr) {
        return logged(KR_SDN_HAL_STATUS_PARAM_NULL, "<admin_speed> param is NULL.");
    }
    const port_speed_admin speed = *admin_speed; // what was checked is what is passed on
    if (!is_flag(speed.speed_1g) || !is_flag(speed.speed_10g) || !is_flag(speed.speed_40g) ||
        !is_flag(speed.speed_100g)) {
        return logged(KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE, "<admin_speed> param exceeds range.");
    }
    return logged(fpt_port_speed_admin_set(port, speed), "fpt_port_speed_admin_set failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_speed_get(uint32_t port, port_speed_admin *admin_speed,
                                            uint32_t *oper_speed) noexcept {
    kr_sdn_hal_status status = KR_SDN_HAL_STATUS_SUCCESS;
    if (admin_speed != nullptr) {
        status = logged(fpt_port_speed_admin_get(port, admin_speed), "fpt_port_speed_admin_get failed.");
    }
    if (status == KR_SDN_HAL_STATUS_SUCCESS && oper_speed != nullptr) {
        status = logged(fpt_port_speed_oper_get(port, oper_speed), "fpt_port_speed_oper_get failed.");
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_port_speed_capability_get(uint32_t port, uint32_t *speed_capability) noexcept {
    if (speed_capability == nullptr) {
        return logged(KR_SDN_HAL_STATUS_PARAM_NULL, "<speed_capability> param is NULL.");
    }
    return logged(fpt_port_speed_cabability_get(port, speed_capability), "fpt_port_speed_cabability_get failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_flood_mode_set(uint32_t, uint32_t) noexcept {
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_port_flood_mode_get(uint32_t, uint32_t *) noexcept {
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_port_mtu_set(uint32_t port, uint16_t mtu) noexcept {
    if (mtu < PORT_MTU_MIN || mtu > PORT_MTU_MAX) {
        HAL_ERROR("<port_mtu> param [%d] exceeds range.", mtu);
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    return logged(fpt_port_mtu_set(port, mtu), "fpt_port_mtu_set failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_mtu_get(uint32_t port, uint16_t *mtu) noexcept {
    if (mtu == nullptr) {
        return logged(KR_SDN_HAL_STATUS_PARAM_NULL, "<port_mtu> param is NULL.");
    }
    return logged(fpt_port_mtu_get(port, mtu), "fpt_port_mtu_get failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_cntr_get(uint32_t port, port_counters *counters) noexcept {
    if (counters == nullptr) {
        return logged(KR_SDN_HAL_STATUS_PARAM_NULL, "<port_cntr> param is NULL.");
    }
    return logged(fpt_port_cntr_get(port, counters), "fpt_port_cntr_get failed.");
}

kr_sdn_hal_status kr_sdn_hal_port_cntr_clear(uint32_t port, int32_t all_ports) noexcept {
    if (!is_flag(all_ports)) {
        HAL_ERROR("<all_port> param [%d] exceeds range.", all_ports);
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    // The text names the counter read-out for both.
    return logged(fpt_port_cntr_clear(port, static_cast<uint32_t>(all_ports)), "fpt_port_cntr_get failed.");
}
