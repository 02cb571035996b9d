/*
 * The ports of the software switch, as the device API, the host interface and control see them.
 */
#ifndef KR_SOFT_SWITCH_PORTS_H
#define KR_SOFT_SWITCH_PORTS_H

#include <cstdint>
#include <cstdio>

#include "control/kr_soft.h"
#include "kr_status.h"

namespace kr_soft {

struct port_state {
    uint32_t oper_state;   // KR_PORT_OPER_*
    uint32_t admin_state;  // KR_PORT_ADMIN_*
    uint32_t module_state; // KR_PORT_MODULE_*
};

// ENTRY_NOT_FOUND for an unknown port.
kr_status port_state_get(uint32_t log_port, port_state *state);

/*
 * Sends a frame of the CPU out of a port, past the rules and past spanning tree (control protocols need that).
 * ENTRY_NOT_FOUND for an unknown port, ERROR when its link is down or it could not take the frame.
 */
kr_status port_transmit(uint32_t log_port, const void *frame, uint32_t size);

// Stops the data plane's thread, removes every port and clears the drop counters; part of kr_soft_reset.
void dataplane_reset();

// Fills port_count; part of kr_soft_usage_get.
void dataplane_usage_fill(kr_soft_usage *usage);

// Writes ports and drop counts for a person; part of kr_soft_dump.
void dataplane_dump(FILE *stream);

} // namespace kr_soft

#endif
