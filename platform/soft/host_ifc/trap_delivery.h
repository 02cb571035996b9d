/*
 * How trapped frames and port events reach host-interface descriptors.
 */
#ifndef KR_SOFT_TRAP_DELIVERY_H
#define KR_SOFT_TRAP_DELIVERY_H

#include <cstdint>
#include <cstdio>

#include "control/kr_soft.h"

namespace kr_soft {

// Trap ids that the device has are below this.
constexpr uint32_t trap_id_limit = 1024;

// True when at least one descriptor is registered for the trap id. A relaxed look, cheap enough for every frame.
bool trap_wanted(uint32_t trap_id);

/*
 * Queues a frame on every descriptor registered for `trap_id`; a queue that is full drops this newest frame and counts
 * KR_SOFT_DROP_CHANNEL_FULL. Returns the number of descriptors that were registered (0: nobody wants it).
 */
uint32_t trap_frame_deliver(uint32_t trap_id, uint32_t source_log_port, const void *frame, uint32_t size);

// Queues a port up/down event (trap id 8) the same way.
uint32_t trap_port_event_deliver(uint32_t log_port, uint32_t oper_state);

// Counts a dropped frame. Defined by the data plane.
void drop_count_add(uint32_t reason);

// Closes every descriptor and device handle; part of kr_soft_reset.
void host_ifc_reset();

// Fills descriptor_count and device_handle_count; part of kr_soft_usage_get.
void host_ifc_usage_fill(kr_soft_usage *usage);

// Writes the descriptors and their registrations for a person; part of kr_soft_dump.
void host_ifc_dump(FILE *stream);

} // namespace kr_soft

#endif
