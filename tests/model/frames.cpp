/*
 * Bytes, fields and VLAN edits of the model's frames.
 */
#include "tests/model/frames.h"

#include <algorithm>
#include <array>

#include "kr_soft.h"
#include "tests/support/test_frames.h"

namespace kr_model {
namespace {

using kr_test::append;
using kr_test::append_u16;
using kr_test::append_u32;

constexpr uint32_t ip_base = 0x0a000000;

bool is_ipv4(const frame_description &frame) {
    return frame.kind <= frame_kind::icmp || frame.kind == frame_kind::fragment;
}

uint8_t protocol_of(const frame_description &frame) {
    switch (frame.kind) {
    case frame_kind::tcp:
        return 6;
    case frame_kind::icmp:
        return 1;
    default:
        return 17;
    }
}

// The header of an IPv4 packet, for kr_test::ipv4 fixes the addresses.
bytes ipv4_header(const frame_description &frame, uint32_t payload_size) {
    bytes header = {0x45, frame.tos};
    append_u16(header, 20 + payload_size);
    append_u16(header, 0x1234);
    append_u16(header, frame.kind == frame_kind::fragment ? 8 : 0); // offset 64: not the first
    append(header, {64, protocol_of(frame), 0, 0});
    append_u32(header, ip_base + frame.ip_src);
    append_u32(header, ip_base + frame.ip_dst);
    return header;
}

bytes payload(const frame_description &frame) {
    bytes data;
    if (is_ipv4(frame)) {
        bytes transport;
        if (frame.kind == frame_kind::icmp) {
            transport = {static_cast<uint8_t>(frame.tp_src), static_cast<uint8_t>(frame.tp_dst), 0, 0};
        } else {
            append_u16(transport, frame.tp_src);
            append_u16(transport, frame.tp_dst);
        }
        transport.resize(20);
        data = ipv4_header(frame, 20);
        append(data, transport);
    } else if (frame.kind == frame_kind::arp) {
        data = {0, 1, 8, 0, 6, 4, 0, static_cast<uint8_t>(frame.tp_src & 3)};
        data.resize(14);
        append_u32(data, ip_base + frame.ip_src);
        data.resize(24);
        append_u32(data, ip_base + frame.ip_dst);
    } else if (frame.kind == frame_kind::stp) {
        data = {0x42, 0x42, 0x03, 0, 0, 0, 0};
    }
    return data;
}

uint16_t type_field(const frame_description &frame) {
    switch (frame.kind) {
    case frame_kind::arp:
        return 0x0806;
    case frame_kind::other:
        return other_eth_type;
    case frame_kind::stp:
        return 38; // a length
    case frame_kind::lacp:
        return 0x8809;
    case frame_kind::eapol:
        return 0x888e;
    case frame_kind::lldp:
        return 0x88cc;
    default:
        return 0x0800;
    }
}

std::array<uint8_t, 6> address(uint8_t last) {
    return {0x02, 0, 0, 0, 0, last};
}

std::array<uint8_t, 6> destination(const frame_description &frame) {
    return frame.kind == frame_kind::stp ? std::array<uint8_t, 6>{0x01, 0x80, 0xc2, 0, 0, 0} : address(frame.dst);
}

// What the frame shows of the twelve fields, in the form of a flow record.
flow_record fields_of(const frame_description &frame) {
    flow_record fields{};
    std::ranges::copy(address(frame.src), fields.eth_src);
    std::ranges::copy(destination(frame), fields.eth_dst);
    fields.eth_type = frame.kind == frame_kind::stp ? 0x05ff : type_field(frame); // 0x05ff: a frame without a type
    if (frame.tci != frame_description::no_tag) {
        fields.vlan_tagged = 1;
        fields.vlan_id = frame.tci & 0xfff;
        fields.vlan_pcp = static_cast<uint8_t>(frame.tci >> 13);
    }
    if (is_ipv4(frame) || frame.kind == frame_kind::arp) {
        fields.ipv4_src = ip_base + frame.ip_src;
        fields.ipv4_dst = ip_base + frame.ip_dst;
    }
    if (is_ipv4(frame)) {
        fields.ip_tos = frame.tos;
        fields.ip_proto = protocol_of(frame);
    } else if (frame.kind == frame_kind::arp) {
        fields.ip_proto = frame.tp_src & 3; // the operation
    }
    if (is_ipv4(frame) && frame.kind != frame_kind::fragment) {
        const uint16_t low = frame.kind == frame_kind::icmp ? 0xff : 0xffff;
        fields.tp_src = frame.tp_src & low;
        fields.tp_dst = frame.tp_dst & low;
    }
    return fields;
}

bool address_matches(const uint8_t (&has)[6], const uint8_t (&wants)[6], const uint8_t (&mask)[6]) {
    for (int i = 0; i < 6; i++) {
        if (((has[i] ^ wants[i]) & mask[i]) != 0) {
            return false;
        }
    }
    return true;
}

} // namespace

bytes frame_bytes(const frame_description &frame) {
    bytes data;
    for (const auto &part : {destination(frame), address(frame.src)}) {
        data.insert(data.end(), part.begin(), part.end());
    }
    if (frame.tci != frame_description::no_tag) {
        append_u16(data, 0x8100);
        append_u16(data, frame.tci);
    }
    append_u16(data, type_field(frame));
    append(data, payload(frame));
    for (uint32_t i = 0; i < frame.padding; i++) {
        data.push_back(static_cast<uint8_t>(i));
    }
    return data;
}

uint32_t frame_control_trap(const frame_description &frame) {
    switch (frame.kind) {
    case frame_kind::stp:
        return KR_SOFT_TRAP_ID_STP;
    case frame_kind::lacp:
        return KR_SOFT_TRAP_ID_LACP;
    case frame_kind::eapol:
        return KR_SOFT_TRAP_ID_EAPOL;
    case frame_kind::lldp:
        return KR_SOFT_TRAP_ID_LLDP;
    default:
        return 0;
    }
}

bool frame_matches(const frame_description &frame, const flow_record &flow, uint32_t in_log_port) {
    const flow_record has = fields_of(frame);
    const auto differs = [](auto value, auto wanted, auto mask) { return ((value ^ wanted) & mask) != 0; };
    if (flow.in_port_mask != 0 && frame.log_port != in_log_port) {
        return false;
    }
    if (flow.vlan_tagged_mask != 0 && (flow.vlan_tagged != 0) != (has.vlan_tagged != 0)) {
        return false;
    }
    return address_matches(has.eth_src, flow.eth_src, flow.eth_src_mask) &&
           address_matches(has.eth_dst, flow.eth_dst, flow.eth_dst_mask) &&
           !differs(has.vlan_id, flow.vlan_id, flow.vlan_id_mask) &&
           !differs(has.vlan_pcp, flow.vlan_pcp, flow.vlan_pcp_mask) &&
           !differs(has.eth_type, flow.eth_type, flow.eth_type_mask) &&
           !differs(has.ip_tos, flow.ip_tos, flow.ip_tos_mask) &&
           !differs(has.ip_proto, flow.ip_proto, flow.ip_proto_mask) &&
           !differs(has.ipv4_src, flow.ipv4_src, flow.ipv4_src_mask) &&
           !differs(has.ipv4_dst, flow.ipv4_dst, flow.ipv4_dst_mask) &&
           !differs(has.tp_src, flow.tp_src, flow.tp_src_mask) && !differs(has.tp_dst, flow.tp_dst, flow.tp_dst_mask);
}

bytes frame_edited(const bytes &frame, const flow_record &flow) {
    constexpr ptrdiff_t tag_at = 12;
    bytes edited = frame;
    const uint32_t type = kr_test::u16_at(frame, tag_at);
    const bool is_tagged = type == 0x8100 || type == 0x88a8;
    const uint32_t tci = is_tagged ? kr_test::u16_at(frame, tag_at + 2) : 0;
    const uint32_t vid = flow.vlan_action_vid & 0xfff;
    const uint32_t pcp = (flow.vlan_action_pcp & 7U) << 13;

    uint32_t new_tci = 0;
    bool pushes = !is_tagged;
    switch (flow.vlan_action) {
    case FLOW_VLAN_PUSH_VID:
        new_tci = (tci & 0xe000) | vid;
        pushes = true;
        break;
    case FLOW_VLAN_PUSH_VID_PCP:
        new_tci = pcp | vid;
        pushes = true;
        break;
    case FLOW_VLAN_SET_PCP:
        new_tci = (tci & 0x1fff) | pcp;
        break;
    case FLOW_VLAN_SET_VID:
        new_tci = (tci & 0xf000) | vid;
        break;
    case FLOW_VLAN_SET_VID_PCP:
        new_tci = (tci & 0x1000) | pcp | vid;
        break;
    case FLOW_VLAN_POP:
        if (is_tagged) {
            edited.erase(edited.begin() + tag_at, edited.begin() + tag_at + 4);
        }
        return edited;
    default:
        return edited;
    }
    if (pushes) {
        bytes tag;
        append_u16(tag, 0x8100);
        append_u16(tag, new_tci);
        edited.insert(edited.begin() + tag_at, tag.begin(), tag.end());
    } else {
        edited[tag_at + 2] = static_cast<uint8_t>(new_tci >> 8);
        edited[tag_at + 3] = static_cast<uint8_t>(new_tci);
    }
    return edited;
}

} // namespace kr_model
