/*
 * Reads the headers of a frame into the key that rules are compared with.
 *
 * Never reads past the frame, whatever its bytes claim: what is not there, or contradicts itself, is zero in the key.
 * Knows nothing of ports and rules. Neighbours: forwarding.cpp calls it for each frame, frame.cpp for segments.
 */
#ifndef KR_SOFT_FRAME_PARSE_H
#define KR_SOFT_FRAME_PARSE_H

#include <cstdint>

#include "kr_acl_rm.h"

namespace kr_soft {

constexpr uint16_t eth_type_ipv4 = 0x0800;
constexpr uint16_t eth_type_arp = 0x0806;
constexpr uint16_t eth_type_ipv6 = 0x86dd;
constexpr uint16_t eth_type_slow_protocols = 0x8809;
constexpr uint16_t eth_type_eapol = 0x888e;
constexpr uint16_t eth_type_lldp = 0x88cc;
constexpr uint16_t eth_type_min = 0x0600;  // below: the length of an 802.3 frame
constexpr uint16_t eth_type_none = 0x05ff; // the key's value for 802.3 frames without a type

struct frame_layout {
    uint16_t eth_type;  // behind all tags
    uint32_t l3_offset; // first byte behind it
    uint32_t vlan_tag_count;
    uint16_t outer_tci; // with at least one tag
};

// `size` is at least 14.
frame_layout frame_layout_read(const uint8_t *data, uint32_t size);

// Fills the whole key. `size` is at least 14.
void frame_key_read(const uint8_t *data, uint32_t size, uint32_t in_log_port, kr_acl_key *key);

// The trap id of the control protocol that the frame belongs to, 0 for none. `size` is at least 14.
uint32_t frame_control_trap_id(const uint8_t *data, uint32_t size);

} // namespace kr_soft

#endif
