/*
 * Speeds of a network interface through the ethtool interface of the kernel. What a driver does not report is
 * CMD_UNSUPPORTED; nothing is guessed from the kind of the interface.
 */
#ifndef KR_FPT_LINK_SPEED_H
#define KR_FPT_LINK_SPEED_H

#include <cstdint>

#include "kr_sdn_hal.h"

namespace kr_fpt {

// The speed the link runs at, in Mb/s.
kr_sdn_hal_status speed_oper_get(uint32_t ifindex, uint32_t *speed);

// The speeds that the interface negotiates, or the one it is set to.
kr_sdn_hal_status speed_admin_get(uint32_t ifindex, port_speed_admin *speeds);

// Lets the interface negotiate these speeds, or sets it to the one that is given if it does not negotiate.
kr_sdn_hal_status speed_admin_set(uint32_t ifindex, const port_speed_admin &speeds);

// PORT_SPEED_CAPABILITY_* of the link modes that the driver reports.
kr_sdn_hal_status speed_capability_get(uint32_t ifindex, uint32_t *capability);

} // namespace kr_fpt

#endif
