/*
 * The parser behind frame_parse.h. Each layer gets the bytes that the layer below left it and checks their number
 * before it reads.
 */
#include "dataplane/frame_parse.h"

#include <algorithm>
#include <cstring>

#include <netinet/in.h>

#include "control/kr_soft.h"
#include "dataplane/frame.h"

namespace kr_soft {
namespace {

constexpr uint8_t llc_snap_header[] = {0xaa, 0xaa, 0x03, 0x00, 0x00, 0x00};
constexpr uint8_t llc_stp_header[] = {0x42, 0x42, 0x03};
constexpr uint8_t stp_address[] = {0x01, 0x80, 0xc2, 0x00, 0x00, 0x00};
constexpr uint8_t arp_ipv4_over_ethernet[] = {0x00, 0x01, 0x08, 0x00, 6, 4};

constexpr uint32_t ipv4_header_size_min = 20;
constexpr uint16_t ipv4_fragment_offset_mask = 0x1fff;
constexpr uint32_t arp_size = 28;

struct bytes_view {
    const uint8_t *data;
    uint32_t size;
};

void transport_read(bytes_view l4, uint8_t protocol, kr_acl_key *key) {
    if ((protocol == IPPROTO_TCP || protocol == IPPROTO_UDP) && l4.size >= 4) {
        key->tp_src = load_be16(l4.data);
        key->tp_dst = load_be16(l4.data + 2);
    } else if (protocol == IPPROTO_ICMP && l4.size >= 2) {
        key->tp_src = l4.data[0]; // type
        key->tp_dst = l4.data[1]; // code
    }
}

void ipv4_read(bytes_view l3, kr_acl_key *key) {
    if (l3.size < ipv4_header_size_min || l3.data[0] >> 4 != 4) {
        return;
    }
    const uint32_t header_size = (l3.data[0] & 0xfU) * 4;
    const uint32_t total_length = load_be16(l3.data + 2);
    if (header_size < ipv4_header_size_min || header_size > l3.size) {
        return;
    }
    key->ip_tos = l3.data[1];
    key->ip_proto = l3.data[9];
    key->ipv4_src = load_be32(l3.data + 12);
    key->ipv4_dst = load_be32(l3.data + 16);

    // A length of zero belongs to segments of more than 64 KiB; one beyond the frame, to a frame that was cut.
    const uint32_t ip_size = total_length == 0 ? l3.size : std::min(total_length, l3.size);
    const bool is_first = (load_be16(l3.data + 6) & ipv4_fragment_offset_mask) == 0;
    if (is_first && ip_size > header_size) {
        transport_read({l3.data + header_size, ip_size - header_size}, key->ip_proto, key);
    }
}

void arp_read(bytes_view l3, kr_acl_key *key) {
    if (l3.size < arp_size || std::memcmp(l3.data, arp_ipv4_over_ethernet, sizeof arp_ipv4_over_ethernet) != 0) {
        return;
    }
    const uint16_t operation = load_be16(l3.data + 6);
    key->ip_proto = operation <= 0xff ? static_cast<uint8_t>(operation) : 0;
    key->ipv4_src = load_be32(l3.data + 14);
    key->ipv4_dst = load_be32(l3.data + 24);
}

} // namespace

frame_layout frame_layout_read(const uint8_t *data, uint32_t size) {
    frame_layout layout{};
    uint32_t at = eth_type_offset;
    uint16_t type = load_be16(data + at);
    while (is_vlan_tpid(type) && size >= at + 2 + vlan_tag_size) {
        if (layout.vlan_tag_count++ == 0) {
            layout.outer_tci = load_be16(data + at + 2);
        }
        at += vlan_tag_size;
        type = load_be16(data + at);
    }
    layout.l3_offset = at + 2;
    layout.eth_type = type;
    if (type < eth_type_min) {
        const uint8_t *llc = data + layout.l3_offset;
        const uint32_t llc_size = size - layout.l3_offset;
        layout.eth_type = eth_type_none;
        if (llc_size >= sizeof llc_snap_header + 2 && std::memcmp(llc, llc_snap_header, sizeof llc_snap_header) == 0) {
            layout.eth_type = load_be16(llc + sizeof llc_snap_header);
            layout.l3_offset += static_cast<uint32_t>(sizeof llc_snap_header) + 2;
        }
    }
    return layout;
}

void frame_key_read(const uint8_t *data, uint32_t size, uint32_t in_log_port, kr_acl_key *key) {
    *key = {};
    const frame_layout layout = frame_layout_read(data, size);
    std::memcpy(key->eth_dst, data, sizeof key->eth_dst);
    std::memcpy(key->eth_src, data + sizeof key->eth_dst, sizeof key->eth_src);
    key->eth_type = layout.eth_type;
    key->in_log_port = in_log_port;
    if (layout.vlan_tag_count > 0) {
        key->vlan_tagged = 2;
        key->vlan_id = layout.outer_tci & 0x0fff;
        key->vlan_pcp = static_cast<uint8_t>(layout.outer_tci >> 13);
    }
    const bytes_view l3 = {data + layout.l3_offset, size - layout.l3_offset};
    if (layout.eth_type == eth_type_ipv4) {
        ipv4_read(l3, key);
    } else if (layout.eth_type == eth_type_arp) {
        arp_read(l3, key);
    }
}

uint32_t frame_control_trap_id(const uint8_t *data, uint32_t size) {
    const frame_layout layout = frame_layout_read(data, size);
    switch (layout.eth_type) {
    case eth_type_lldp:
        return KR_SOFT_TRAP_ID_LLDP;
    case eth_type_slow_protocols:
        return KR_SOFT_TRAP_ID_LACP;
    case eth_type_eapol:
        return KR_SOFT_TRAP_ID_EAPOL;
    case eth_type_none: {
        const bool is_stp = size - layout.l3_offset >= sizeof llc_stp_header &&
                            std::memcmp(data + layout.l3_offset, llc_stp_header, sizeof llc_stp_header) == 0 &&
                            std::memcmp(data, stp_address, sizeof stp_address) == 0;
        return is_stp ? static_cast<uint32_t>(KR_SOFT_TRAP_ID_STP) : 0;
    }
    default:
        return 0;
    }
}

} // namespace kr_soft
