/*
 * What the port plug-in exports: the sixteen entry points that the library resolves by name. The port is always the
 * OF port; every function returns a kr_sdn_hal_status and is safe from any thread.
 */
#ifndef KR_FPT_LINUX_H
#define KR_FPT_LINUX_H

#include <stdint.h>

#include "kr_sdn_hal.h"

#pragma GCC visibility push(default)
extern "C" {
uint32_t activate();
uint32_t deinit();
uint32_t rstp_port_state_set(uint32_t port, uint32_t stp_state);
uint32_t rstp_port_state_get(uint32_t port, int32_t *stp_state);
uint32_t port_phys_addr_get(uint32_t port, port_mac_address *mac_address);
uint32_t port_speed_admin_set(uint32_t port, port_speed_admin speeds);
uint32_t port_speed_admin_get(uint32_t port, port_speed_admin *speeds);
uint32_t port_speed_cabability_get(uint32_t port, uint32_t *capability);
uint32_t port_speed_oper_get(uint32_t port, uint32_t *speed); /* Mb/s */
uint32_t port_state_set(uint32_t port, uint32_t admin_state);
uint32_t port_state_get(uint32_t port, int32_t *admin_state);
uint32_t port_oper_state_get(uint32_t port, int32_t *oper_state);
uint32_t port_mtu_set(uint32_t port, uint16_t mtu);
uint32_t port_mtu_get(uint32_t port, uint16_t *mtu);
uint32_t port_cntr_get(uint32_t port, port_counters *counters);
uint32_t port_cntr_clear(uint32_t port, uint32_t all_ports);
}
#pragma GCC visibility pop

#endif
