/*
 * One frame on its way through the switch, and what can be done to it: VLAN edits, and turning a frame as Linux hands
 * it over (checksum left undone, several segments in one) into the frames that a wire would carry.
 *
 * The bytes belong to whoever received the frame; nothing here allocates or keeps a pointer. No port, no rule and no
 * lock is known here. Neighbours: frame_parse reads the headers, the ports take and give frames.
 */
#ifndef KR_SOFT_FRAME_H
#define KR_SOFT_FRAME_H

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "control/kr_soft.h"

namespace kr_soft {

constexpr uint32_t eth_header_size = 14;
constexpr uint32_t eth_type_offset = 12;
constexpr uint32_t vlan_tag_size = 4;
constexpr uint16_t vlan_tpid_customer = 0x8100;
constexpr uint16_t vlan_tpid_service = 0x88a8;

// Room that a receiver leaves in front of a frame: the tag that the kernel stripped and one that a rule pushes.
constexpr uint32_t frame_headroom = 64;
// Room for one frame of a wire with a tag pushed on top.
constexpr uint32_t wire_frame_size_max = KR_SOFT_MAX_FRAME + vlan_tag_size;

/*
 * What the kernel left to do with a frame: the header that packet sockets put before it (PACKET_VNET_HDR), in host
 * order. Its own header, linux/virtio_net.h, does not compile as C++.
 */
struct frame_offload {
    uint8_t flags;
    uint8_t gso_type;
    uint16_t hdr_len;  // Ethernet to transport header
    uint16_t gso_size; // payload of each segment
    uint16_t csum_start;
    uint16_t csum_offset; // of the checksum, from csum_start
};
static_assert(sizeof(frame_offload) == 10 && offsetof(frame_offload, csum_offset) == 8);

constexpr uint8_t offload_needs_checksum = 1; // frame_offload.flags

// frame_offload.gso_type
constexpr uint8_t gso_none = 0;
constexpr uint8_t gso_tcp_ipv4 = 1;
constexpr uint8_t gso_tcp_ipv6 = 4;
constexpr uint8_t gso_udp = 5;
constexpr uint8_t gso_ecn = 0x80; // flag

struct frame {
    uint8_t *data; // the destination address
    uint32_t size;
    uint32_t headroom; // writable bytes before `data`

    frame_offload offload{}; // all zero for a finished frame

    // Of a frame that stands for several (offload.gso_type is set), else 1 and 0.
    uint32_t segment_count = 1;
    uint32_t segment_header_size = 0; // Ethernet to transport header, repeated in each segment
    uint32_t l3_offset = 0;

    timespec captured_at{}; // of a frame from a capture file, else zero
};

inline uint16_t load_be16(const uint8_t *bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline uint32_t load_be32(const uint8_t *bytes) {
    return static_cast<uint32_t>(load_be16(bytes)) << 16 | load_be16(bytes + 2);
}

inline void store_be16(uint8_t *bytes, uint32_t value) {
    bytes[0] = static_cast<uint8_t>(value >> 8);
    bytes[1] = static_cast<uint8_t>(value);
}

inline void store_be32(uint8_t *bytes, uint32_t value) {
    store_be16(bytes, value >> 16);
    store_be16(bytes + 2, value);
}

inline bool is_vlan_tpid(uint16_t eth_type) {
    return eth_type == vlan_tpid_customer || eth_type == vlan_tpid_service;
}

// Bytes that the frame has on a wire: those of all its segments.
inline uint64_t frame_wire_bytes(const frame &f) {
    return f.size + static_cast<uint64_t>(f.segment_count - 1) * f.segment_header_size;
}

/*
 * Checks `offload` against the frame and fills the segment fields. False when they contradict each other or a segment
 * would be longer than KR_SOFT_MAX_FRAME: the frame is malformed. To be called once, before anything else here.
 */
bool frame_offload_check(frame &f);

// Puts a tag in front of what the frame has. False when the headroom does not suffice.
bool frame_vlan_push(frame &f, uint16_t tpid, uint16_t tci);

// Carries out a KR_ACL_VLAN_EDIT_* code. A code that is none of them changes nothing.
void frame_vlan_edit(frame &f, uint32_t edit, uint16_t vlan_id, uint8_t pcp);

/*
 * Writes segment `index` into `out`, which has room for wire_frame_size_max bytes, and returns its size. Without
 * segments it is the frame itself with its checksum completed.
 */
uint32_t frame_segment_write(const frame &f, uint32_t index, uint8_t *out);

// Calls take(bytes, size) for each frame that a wire would carry, in order.
template <typename Take> void frame_wire_frames(const frame &f, Take take) {
    if (f.offload.gso_type == gso_none && (f.offload.flags & offload_needs_checksum) == 0) {
        take(static_cast<const uint8_t *>(f.data), f.size);
        return;
    }
    uint8_t wire_frame[wire_frame_size_max];
    for (uint32_t i = 0; i < f.segment_count; i++) {
        const uint32_t size = frame_segment_write(f, i, wire_frame);
        take(static_cast<const uint8_t *>(wire_frame), size);
    }
}

} // namespace kr_soft

#endif
