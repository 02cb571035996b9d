/*
 * Ethernet frames as the daemon looks at them: the OpenFlow fields of a frame, in the same reading as the hardware's,
 * and the VLAN edits of a packet-out. Pure; a frame that is cut anywhere is read as far as it goes.
 */
#ifndef KR_AGENT_FRAME_H
#define KR_AGENT_FRAME_H

#include <cstdint>
#include <vector>

#include "of10/of10.h"

namespace agent {

inline constexpr size_t min_frame_size = 14;

/* The frame's fields as a match without wildcards, but for a VLAN priority when there is no tag. */
of10::flow_match frame_match(of10::byte_view frame, uint16_t in_port) noexcept;

/* The edits of OpenFlow: setting a field of the tag adds one where there is none. */
void frame_set_vlan_id(std::vector<uint8_t> &frame, uint16_t id);
void frame_set_vlan_pcp(std::vector<uint8_t> &frame, uint8_t pcp);
void frame_strip_vlan(std::vector<uint8_t> &frame);

} // namespace agent

#endif
