/*
 * The port plug-in: loads it, and forwards each port operation to it. Ports go through untranslated, outputs are the
 * caller's pointers. No lock: the plug-in is safe from any thread.
 */
#ifndef KR_CORE_FPT_H
#define KR_CORE_FPT_H

#include <cstdint>

#include "kr_sdn_hal.h"

kr_sdn_hal_status fpt_init(const system_profile *profile);
kr_sdn_hal_status fpt_activate();
kr_sdn_hal_status fpt_deinit();

/* All return NOT_INITIALIZED while no plug-in is loaded, else what the plug-in returned. */
kr_sdn_hal_status fpt_rstp_port_state_set(uint32_t port, uint32_t stp_state);
kr_sdn_hal_status fpt_rstp_port_state_get(uint32_t port, int32_t *stp_state);
kr_sdn_hal_status fpt_port_phys_addr_get(uint32_t port, port_mac_address *mac_address);
kr_sdn_hal_status fpt_port_speed_admin_set(uint32_t port, port_speed_admin admin_speed);
kr_sdn_hal_status fpt_port_speed_admin_get(uint32_t port, port_speed_admin *admin_speed);
kr_sdn_hal_status fpt_port_speed_cabability_get(uint32_t port, uint32_t *speed_capability);
kr_sdn_hal_status fpt_port_speed_oper_get(uint32_t port, uint32_t *oper_speed);
kr_sdn_hal_status fpt_port_state_set(uint32_t port, uint32_t admin_state);
kr_sdn_hal_status fpt_port_state_get(uint32_t port, int32_t *admin_state);
kr_sdn_hal_status fpt_port_oper_state_get(uint32_t port, int32_t *oper_state);
kr_sdn_hal_status fpt_port_mtu_set(uint32_t port, uint16_t mtu);
kr_sdn_hal_status fpt_port_mtu_get(uint32_t port, uint16_t *mtu);
kr_sdn_hal_status fpt_port_cntr_get(uint32_t port, port_counters *counters);
kr_sdn_hal_status fpt_port_cntr_clear(uint32_t port, uint32_t all_ports);

#endif
