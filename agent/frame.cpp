/*
 * The reader and the edits of frame.h. Each layer gets the bytes that the layer below left it.
 */
#include "frame.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace agent {
namespace {

constexpr size_t type_offset = 12;
constexpr size_t tag_size = 4;
constexpr uint16_t type_vlan = 0x8100;
constexpr uint16_t type_service_vlan = 0x88a8;
constexpr uint16_t type_ipv4 = 0x0800;
constexpr uint16_t type_arp = 0x0806;
constexpr uint16_t type_min = 0x0600;
constexpr uint16_t type_none = 0x05ff;
constexpr std::array<uint8_t, 6> snap_header = {0xaa, 0xaa, 0x03, 0, 0, 0};
constexpr uint8_t proto_icmp = 1;
constexpr uint8_t proto_tcp = 6;
constexpr uint8_t proto_udp = 17;

using of10::byte_view;

uint16_t be16(byte_view bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}
uint32_t be32(byte_view bytes, size_t at) {
    return uint32_t{be16(bytes, at)} << 16 | be16(bytes, at + 2);
}
bool is_tag(uint16_t type) {
    return type == type_vlan || type == type_service_vlan;
}
byte_view from(byte_view bytes, size_t at) {
    return bytes.subspan(std::min(at, bytes.size()));
}

void read_transport(byte_view l4, of10::flow_match &match) {
    if ((match.nw_proto == proto_tcp || match.nw_proto == proto_udp) && l4.size() >= 4) {
        match.tp_src = be16(l4, 0);
        match.tp_dst = be16(l4, 2);
    } else if (match.nw_proto == proto_icmp && l4.size() >= 2) {
        match.tp_src = l4[0];
        match.tp_dst = l4[1];
    }
}

void read_ipv4(byte_view l3, of10::flow_match &match) {
    if (l3.size() < 20 || l3[0] >> 4 != 4) {
        return;
    }
    const size_t header = (l3[0] & 0xfU) * 4;
    if (header < 20 || header > l3.size()) {
        return;
    }
    match.nw_tos = l3[1] & 0xfc;
    match.nw_proto = l3[9];
    match.nw_src = be32(l3, 12);
    match.nw_dst = be32(l3, 16);
    const size_t total = be16(l3, 2) == 0 ? l3.size() : std::min<size_t>(be16(l3, 2), l3.size());
    if ((be16(l3, 6) & 0x1fff) == 0 && total > header) {
        read_transport(l3.subspan(header, total - header), match);
    }
}

void read_arp(byte_view l3, of10::flow_match &match) {
    constexpr std::array<uint8_t, 6> ipv4_over_ethernet = {0, 1, 8, 0, 6, 4};
    if (l3.size() < 28 || !std::equal(ipv4_over_ethernet.begin(), ipv4_over_ethernet.end(), l3.begin())) {
        return;
    }
    const uint16_t operation = be16(l3, 6);
    match.nw_proto = operation <= 0xff ? static_cast<uint8_t>(operation) : 0;
    match.nw_src = be32(l3, 14);
    match.nw_dst = be32(l3, 24);
}

// The frame's outer tag control information; a tag is put in first if there is none.
uint16_t tag_of(std::vector<uint8_t> &frame) {
    if (!is_tag(be16(frame, type_offset)) || frame.size() < min_frame_size + tag_size) {
        const std::array<uint8_t, tag_size> tag = {type_vlan >> 8, type_vlan & 0xff, 0, 0};
        frame.insert(frame.begin() + type_offset, tag.begin(), tag.end());
    }
    return be16(frame, type_offset + 2);
}

void tag_write(std::vector<uint8_t> &frame, unsigned tci) {
    frame[type_offset + 2] = static_cast<uint8_t>(tci >> 8);
    frame[type_offset + 3] = static_cast<uint8_t>(tci);
}

} // namespace

of10::flow_match frame_match(byte_view frame, uint16_t in_port) noexcept {
    of10::flow_match match;
    match.wildcards = of10::wildcard::dl_vlan_pcp;
    match.in_port = in_port;
    match.dl_vlan = of10::vlan_none;
    if (frame.size() < min_frame_size) {
        return match;
    }
    std::copy_n(frame.begin(), 6, match.dl_dst.begin());
    std::copy_n(frame.begin() + 6, 6, match.dl_src.begin());
    size_t at = type_offset;
    uint16_t type = be16(frame, at);
    while (is_tag(type) && frame.size() >= at + 2 + tag_size) {
        if (match.dl_vlan == of10::vlan_none) {
            const uint16_t tci = be16(frame, at + 2);
            match.dl_vlan = tci & 0x0fff;
            match.dl_vlan_pcp = static_cast<uint8_t>(tci >> 13);
            match.wildcards = 0;
        }
        at += tag_size;
        type = be16(frame, at);
    }
    byte_view l3 = from(frame, at + 2);
    if (type < type_min) {
        type = type_none;
        if (l3.size() >= snap_header.size() + 2 && std::equal(snap_header.begin(), snap_header.end(), l3.begin())) {
            type = be16(l3, snap_header.size());
            l3 = from(l3, snap_header.size() + 2);
        }
    }
    match.dl_type = type;
    if (type == type_ipv4) {
        read_ipv4(l3, match);
    } else if (type == type_arp) {
        read_arp(l3, match);
    }
    return match;
}

void frame_set_vlan_id(std::vector<uint8_t> &frame, uint16_t id) {
    if (frame.size() >= min_frame_size) {
        const unsigned tci = tag_of(frame);
        tag_write(frame, (tci & 0xf000U) | (id & 0x0fffU));
    }
}

void frame_set_vlan_pcp(std::vector<uint8_t> &frame, uint8_t pcp) {
    if (frame.size() >= min_frame_size) {
        const unsigned tci = tag_of(frame);
        tag_write(frame, (tci & 0x1fffU) | (pcp & 7U) << 13);
    }
}

void frame_strip_vlan(std::vector<uint8_t> &frame) {
    if (frame.size() >= min_frame_size + tag_size && is_tag(be16(frame, type_offset))) {
        const auto tag = frame.begin() + type_offset;
        frame.erase(tag, tag + tag_size);
    }
}

} // namespace agent
