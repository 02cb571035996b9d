/*
 * VLAN edits, checksums and segmentation of one frame; see frame.h.
 *
 * Checksums are sums of 16-bit words in memory order: the one's complement sum does not care about byte order as long
 * as it is read and written the same way.
 */
#include "dataplane/frame.h"

#include <algorithm>
#include <cstring>

#include <netinet/in.h>

#include "dataplane/frame_parse.h"

namespace kr_soft {
namespace {

constexpr uint32_t mac_addresses_size = 12;
constexpr uint16_t tci_vid_mask = 0x0fff;
constexpr uint16_t tci_pcp_mask = 0xe000;
constexpr uint32_t tci_pcp_shift = 13;

constexpr uint32_t ipv4_total_length_offset = 2;
constexpr uint32_t ipv4_identification_offset = 4;
constexpr uint32_t ipv4_checksum_offset = 10;
constexpr uint32_t ipv4_addresses_offset = 12;
constexpr uint32_t ipv4_addresses_size = 8;
constexpr uint32_t ipv4_header_size_min = 20;
constexpr uint32_t ipv6_payload_length_offset = 4;
constexpr uint32_t ipv6_addresses_offset = 8;
constexpr uint32_t ipv6_addresses_size = 32;
constexpr uint32_t ipv6_header_size = 40;

constexpr uint32_t tcp_sequence_offset = 4;
constexpr uint32_t tcp_data_offset_offset = 12;
constexpr uint32_t tcp_flags_offset = 13;
constexpr uint32_t tcp_checksum_offset = 16;
constexpr uint32_t tcp_header_size_min = 20;
constexpr uint8_t tcp_flags_of_last_only = 0x01 | 0x08; // FIN, PSH
constexpr uint8_t tcp_flags_of_first_only = 0x80;       // CWR

constexpr uint32_t udp_length_offset = 4;
constexpr uint32_t udp_checksum_offset = 6;
constexpr uint32_t udp_header_size = 8;

uint8_t gso_kind(const frame &f) {
    return static_cast<uint8_t>(f.offload.gso_type & ~gso_ecn);
}

bool needs_checksum(const frame &f) {
    return (f.offload.flags & offload_needs_checksum) != 0;
}

uint64_t sum_add(uint64_t sum, const uint8_t *bytes, uint32_t size) {
    uint32_t word;
    for (; size >= sizeof word; size -= static_cast<uint32_t>(sizeof word), bytes += sizeof word) {
        std::memcpy(&word, bytes, sizeof word);
        sum += word;
    }
    word = 0;
    std::memcpy(&word, bytes, size);
    return sum + word;
}

uint16_t sum_finish(uint64_t sum) {
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

// A transport checksum of zero is sent as its other representation: to UDP zero means that there is none.
void checksum_store(uint8_t *field, uint16_t checksum) {
    checksum = checksum == 0 ? 0xffff : checksum;
    std::memcpy(field, &checksum, sizeof checksum);
}

void checksum_complete(uint8_t *data, uint32_t size, uint32_t start, uint32_t offset) {
    // The field holds the pseudo header's part already.
    const uint16_t checksum = sum_finish(sum_add(0, data + start, size - start));
    checksum_store(data + start + offset, checksum);
}

void transport_checksum_write(uint8_t *segment, uint32_t size, uint32_t l3, bool is_ipv4, uint32_t l4, uint8_t protocol,
                              uint32_t field_offset) {
    uint8_t *field = segment + l4 + field_offset;
    store_be16(field, 0);
    uint8_t pseudo[8]{};
    store_be32(pseudo, size - l4);
    pseudo[7] = protocol;
    uint64_t sum = sum_add(0, pseudo, sizeof pseudo);
    sum = is_ipv4 ? sum_add(sum, segment + l3 + ipv4_addresses_offset, ipv4_addresses_size)
                  : sum_add(sum, segment + l3 + ipv6_addresses_offset, ipv6_addresses_size);
    checksum_store(field, sum_finish(sum_add(sum, segment + l4, size - l4)));
}

void ip_header_finish(uint8_t *ip, uint32_t ip_size, uint32_t ip_header_size, bool is_ipv4, uint32_t index) {
    if (!is_ipv4) {
        store_be16(ip + ipv6_payload_length_offset, ip_size - ipv6_header_size);
        return;
    }
    store_be16(ip + ipv4_total_length_offset, ip_size);
    store_be16(ip + ipv4_identification_offset, load_be16(ip + ipv4_identification_offset) + index);
    store_be16(ip + ipv4_checksum_offset, 0);
    const uint16_t checksum = sum_finish(sum_add(0, ip, ip_header_size));
    std::memcpy(ip + ipv4_checksum_offset, &checksum, sizeof checksum);
}

// Moves the addresses by `delta` bytes towards the front (or back) and lets the offsets follow.
void l2_header_resize(frame &f, int32_t delta) {
    uint8_t *to = f.data - delta;
    std::memmove(to, f.data, mac_addresses_size);
    f.data = to;
    const auto add = [delta](uint32_t value) { return static_cast<uint32_t>(static_cast<int32_t>(value) + delta); };
    f.size = add(f.size);
    f.headroom = static_cast<uint32_t>(static_cast<int32_t>(f.headroom) - delta);
    f.l3_offset = f.l3_offset != 0 ? add(f.l3_offset) : 0;
    if (needs_checksum(f)) {
        f.offload.csum_start = static_cast<uint16_t>(add(f.offload.csum_start));
    }
    if (f.offload.gso_type != gso_none) {
        f.segment_header_size = add(f.segment_header_size);
        f.offload.hdr_len = static_cast<uint16_t>(f.segment_header_size);
    }
}

} // namespace

bool frame_offload_check(frame &f) {
    if (f.size < eth_header_size) {
        return false;
    }
    f.offload.flags &= offload_needs_checksum;
    f.offload.hdr_len = 0; // where the kernel happened to split its buffer
    const uint32_t start = f.offload.csum_start;
    if (needs_checksum(f) && (start < eth_header_size || start + f.offload.csum_offset + 2U > f.size)) {
        return false;
    }
    if (f.offload.gso_type == gso_none) {
        return f.size <= KR_SOFT_MAX_FRAME;
    }

    const uint8_t kind = gso_kind(f);
    const frame_layout layout = frame_layout_read(f.data, f.size);
    const bool is_ipv4 = layout.eth_type == eth_type_ipv4;
    const bool is_ipv6 = layout.eth_type == eth_type_ipv6;
    const bool is_known = (kind == gso_tcp_ipv4 && is_ipv4) || (kind == gso_tcp_ipv6 && is_ipv6) ||
                          (kind == gso_udp && (is_ipv4 || is_ipv6));
    const uint32_t ip_header_min = is_ipv4 ? ipv4_header_size_min : ipv6_header_size;
    if (!is_known || !needs_checksum(f) || f.offload.gso_size == 0 || start < layout.l3_offset + ip_header_min) {
        return false;
    }
    uint32_t transport_header_size = udp_header_size;
    if (kind != gso_udp) {
        if (start + tcp_header_size_min > f.size) {
            return false;
        }
        transport_header_size = static_cast<uint32_t>(f.data[start + tcp_data_offset_offset] >> 4) * 4;
        if (transport_header_size < tcp_header_size_min) {
            return false;
        }
    }
    const uint32_t header_size = start + transport_header_size;
    if (header_size >= f.size || header_size + f.offload.gso_size > KR_SOFT_MAX_FRAME) {
        return false;
    }
    f.l3_offset = layout.l3_offset;
    f.segment_header_size = header_size;
    f.offload.hdr_len = static_cast<uint16_t>(header_size);
    f.segment_count = (f.size - header_size + f.offload.gso_size - 1) / f.offload.gso_size;
    return true;
}

bool frame_vlan_push(frame &f, uint16_t tpid, uint16_t tci) {
    if (f.headroom < vlan_tag_size) {
        return false;
    }
    l2_header_resize(f, static_cast<int32_t>(vlan_tag_size));
    store_be16(f.data + eth_type_offset, tpid);
    store_be16(f.data + eth_type_offset + 2, tci);
    return true;
}

void frame_vlan_edit(frame &f, uint32_t edit, uint16_t vlan_id, uint8_t pcp) {
    const bool is_tagged =
        f.size >= eth_header_size + vlan_tag_size && is_vlan_tpid(load_be16(f.data + eth_type_offset));
    uint8_t *tci_field = f.data + eth_header_size;
    uint16_t tci = is_tagged ? load_be16(tci_field) : 0;
    const uint16_t vid_bits = vlan_id & tci_vid_mask;
    const auto pcp_bits = static_cast<uint16_t>((pcp & 7) << tci_pcp_shift);

    switch (edit) {
    case KR_ACL_VLAN_EDIT_POP:
        if (is_tagged) {
            l2_header_resize(f, -static_cast<int32_t>(vlan_tag_size));
        }
        return;
    case KR_ACL_VLAN_EDIT_PUSH_VID: // the new tag inherits the priority of the one it covers
        frame_vlan_push(f, vlan_tpid_customer, static_cast<uint16_t>((tci & tci_pcp_mask) | vid_bits));
        return;
    case KR_ACL_VLAN_EDIT_PUSH_VID_PCP:
        frame_vlan_push(f, vlan_tpid_customer, pcp_bits | vid_bits);
        return;
    case KR_ACL_VLAN_EDIT_SET_PCP:
    case KR_ACL_VLAN_EDIT_SET_VID:
    case KR_ACL_VLAN_EDIT_SET_VID_PCP:
        break;
    default:
        return;
    }
    if ((edit & KR_ACL_VLAN_EDIT_SET_PCP) != 0) {
        tci = static_cast<uint16_t>((tci & ~tci_pcp_mask) | pcp_bits);
    }
    if ((edit & KR_ACL_VLAN_EDIT_SET_VID) != 0) {
        tci = static_cast<uint16_t>((tci & ~tci_vid_mask) | vid_bits);
    }
    if (is_tagged) {
        store_be16(tci_field, tci);
    } else {
        frame_vlan_push(f, vlan_tpid_customer, tci);
    }
}

uint32_t frame_segment_write(const frame &f, uint32_t index, uint8_t *out) {
    if (f.offload.gso_type == gso_none) {
        std::memcpy(out, f.data, f.size);
        if (needs_checksum(f)) {
            checksum_complete(out, f.size, f.offload.csum_start, f.offload.csum_offset);
        }
        return f.size;
    }
    const uint32_t header_size = f.segment_header_size;
    const uint32_t payload_at = header_size + index * f.offload.gso_size;
    const uint32_t payload_size = std::min<uint32_t>(f.offload.gso_size, f.size - payload_at);
    const uint32_t size = header_size + payload_size;
    std::memcpy(out, f.data, header_size);
    std::memcpy(out + header_size, f.data + payload_at, payload_size);

    const uint32_t l3 = f.l3_offset;
    const uint32_t l4 = f.offload.csum_start;
    const bool is_ipv4 = out[l3] >> 4 == 4;
    ip_header_finish(out + l3, size - l3, is_ipv4 ? std::min<uint32_t>((out[l3] & 0xfU) * 4, l4 - l3) : 0, is_ipv4,
                     index);
    if (gso_kind(f) == gso_udp) {
        store_be16(out + l4 + udp_length_offset, size - l4);
        transport_checksum_write(out, size, l3, is_ipv4, l4, IPPROTO_UDP, udp_checksum_offset);
        return size;
    }
    store_be32(out + l4 + tcp_sequence_offset, load_be32(out + l4 + tcp_sequence_offset) + index * f.offload.gso_size);
    uint8_t &flags = out[l4 + tcp_flags_offset];
    if (index + 1 < f.segment_count) {
        flags = static_cast<uint8_t>(flags & ~tcp_flags_of_last_only);
    }
    if (index > 0) {
        flags = static_cast<uint8_t>(flags & ~tcp_flags_of_first_only);
    }
    transport_checksum_write(out, size, l3, is_ipv4, l4, IPPROTO_TCP, tcp_checksum_offset);
    return size;
}

} // namespace kr_soft
