/*
 * A port plug-in as it was compiled against the baseline's headers: it answers with fixed values, and with a refusal
 * where what it is given is not what the client of the baseline gives.
 *
 * Not to be changed with the library: it stands for plug-ins that exist. Nothing but the baseline's headers is
 * included.
 */
#include "kr_sdn_hal.h"

#include <stddef.h>

#define ENTRY(name, ...)                                                                                               \
    KR_SDN_HAL_API uint32_t name(__VA_ARGS__);                                                                         \
    uint32_t name(__VA_ARGS__)

static uint32_t refuse_unless(int condition) {
    return condition ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_PARAM_ERROR;
}

ENTRY(activate, void) {
    return 0;
}
ENTRY(deinit, void) {
    return 0;
}
ENTRY(rstp_port_state_set, uint32_t port, uint32_t stp_state) {
    return refuse_unless(port == 1 && stp_state == PORT_STP_LEARNING);
}
ENTRY(rstp_port_state_get, uint32_t port, int32_t *stp_state) {
    *stp_state = PORT_STP_FORWARDING;
    return refuse_unless(port == 1);
}
ENTRY(port_phys_addr_get, uint32_t port, port_mac_address *mac_address) {
    for (uint8_t i = 0; i < sizeof mac_address->bytes; i++) {
        mac_address->bytes[i] = (uint8_t)(0x10 + i);
    }
    return refuse_unless(port == 1);
}
ENTRY(port_speed_admin_set, uint32_t port, port_speed_admin admin_speed) {
    return refuse_unless(port == 1 && admin_speed.speed_1g == 0 && admin_speed.speed_10g == 1 &&
                         admin_speed.speed_40g == 0 && admin_speed.speed_100g == 1);
}
ENTRY(port_speed_admin_get, uint32_t port, port_speed_admin *admin_speed) {
    *admin_speed = (port_speed_admin){1, 0, 1, 0};
    return refuse_unless(port == 1);
}
ENTRY(port_speed_cabability_get, uint32_t port, uint32_t *speed_capability) {
    *speed_capability = PORT_SPEED_CAPABILITY_10G | PORT_SPEED_CAPABILITY_OTHER;
    return refuse_unless(port == 1);
}
ENTRY(port_speed_oper_get, uint32_t port, uint32_t *oper_speed) {
    *oper_speed = 40000;
    return refuse_unless(port == 1);
}
ENTRY(port_state_set, uint32_t port, uint32_t admin_state) {
    return refuse_unless(port == 1 && admin_state == PORT_ADMIN_UP);
}
ENTRY(port_state_get, uint32_t port, int32_t *admin_state) {
    *admin_state = PORT_ADMIN_DOWN;
    return refuse_unless(port == 1);
}
ENTRY(port_oper_state_get, uint32_t port, int32_t *oper_state) {
    *oper_state = PORT_OPER_UP;
    return refuse_unless(port == 1);
}
ENTRY(port_mtu_set, uint32_t port, uint16_t mtu) {
    return refuse_unless(port == 1 && mtu == 9000);
}
ENTRY(port_mtu_get, uint32_t port, uint16_t *mtu) {
    *mtu = 1500;
    return refuse_unless(port == 1);
}
ENTRY(port_cntr_get, uint32_t port, port_counters *counters) {
    *counters = (port_counters){1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    return refuse_unless(port == 1);
}
ENTRY(port_cntr_clear, uint32_t port, uint32_t all_ports) {
    return refuse_unless(port == 1 && all_ports == 1);
}
