/*
 * The path of a frame through the switch, from the port it entered by to wherever it ends: other ports, the CPU, or a
 * counter of dropped frames.
 */
#ifndef KR_SOFT_FORWARDING_H
#define KR_SOFT_FORWARDING_H

#include <cstdint>

#include "dataplane/frame.h"
#include "dataplane/port.h"

namespace kr_soft {

// Handles a frame that entered by `ingress`. The port table is held shared; the frame may be edited.
void frame_forward(port &ingress, frame &f);

// Drop counters, beside drop_count_add of trap_delivery.h: a frame of several segments counts as that many.
void drop_counts_add(uint32_t reason, uint32_t frame_count);
void drop_counts_reset();

} // namespace kr_soft

#endif
