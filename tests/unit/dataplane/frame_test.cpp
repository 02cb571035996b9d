/*
 * Frames alone: the parser, VLAN edits with what the kernel left undone, checksums, segmentation. The sources under
 * test are compiled in; nothing else of the platform is needed.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "dataplane/frame.h"
#include "dataplane/frame_parse.h"
#include "test_frames.h"
#include "tests/support/test_seed.h"

namespace {

using namespace kr_soft;
using namespace kr_test;

constexpr uint32_t in_port = 0x10100;

// Parses from a heap block of exactly the frame's size, so that a sanitizer sees any byte read behind it.
kr_acl_key key_of(const bytes &frame_bytes, size_t size) {
    const auto exact = std::make_unique<uint8_t[]>(size);
    std::memcpy(exact.get(), frame_bytes.data(), size);
    kr_acl_key key;
    frame_key_read(exact.get(), static_cast<uint32_t>(size), in_port, &key);
    (void)frame_control_trap_id(exact.get(), static_cast<uint32_t>(size));
    return key;
}

kr_acl_key key_of(const bytes &frame_bytes) {
    return key_of(frame_bytes, frame_bytes.size());
}

bytes tcp_frame(const ipv4_fields &ip, uint16_t src = 1000, uint16_t dst = 80, uint32_t payload_size = 10,
                std::initializer_list<vlan_tag> tags = {}) {
    bytes result = ethernet(0x0800, tags);
    append(result, ipv4(ip, 20 + payload_size));
    append(result, tcp_header(src, dst, 1, 0x18));
    result.resize(result.size() + payload_size, 0x55);
    return result;
}

bytes arp_frame(uint16_t operation) {
    bytes result = ethernet(0x0806);
    append(result, {0, 1, 8, 0, 6, 4});
    append_u16(result, operation);
    append(result, mac_a);
    append_u32(result, ip_a);
    append(result, mac_b);
    append_u32(result, ip_b);
    return result;
}

/* ---- parser ---------------------------------------------------------------------------------------------------- */

TEST(parser, ethernet_addresses_destination_first_and_ingress_port) {
    const kr_acl_key key = key_of(udp_frame(5, 6, 20));
    EXPECT_EQ(std::memcmp(key.eth_dst, mac_b.data(), 6), 0);
    EXPECT_EQ(std::memcmp(key.eth_src, mac_a.data(), 6), 0);
    EXPECT_EQ(key.in_log_port, in_port);
    EXPECT_EQ(key.eth_type, 0x0800);
    EXPECT_EQ(key.vlan_tagged, 0U);
    EXPECT_EQ(key.vlan_id, 0);
}

TEST(parser, tcp_in_ipv4) {
    const kr_acl_key key = key_of(tcp_frame({.protocol = 6, .tos = 0xb9}, 1000, 80));
    EXPECT_EQ(key.ipv4_src, ip_a);
    EXPECT_EQ(key.ipv4_dst, ip_b);
    EXPECT_EQ(key.ip_proto, 6);
    EXPECT_EQ(key.ip_tos, 0xb9);
    EXPECT_EQ(key.tp_src, 1000);
    EXPECT_EQ(key.tp_dst, 80);
}

TEST(parser, transport_behind_ipv4_options) {
    const kr_acl_key key = key_of(tcp_frame({.protocol = 6, .option_words = 10}, 7, 9));
    EXPECT_EQ(key.tp_src, 7);
    EXPECT_EQ(key.tp_dst, 9);
}

TEST(parser, icmp_type_and_code_in_the_port_fields) {
    bytes echo = ethernet(0x0800);
    append(echo, ipv4({.protocol = 1}, 8));
    append(echo, {8, 3, 0, 0, 0, 0, 0, 0});
    const kr_acl_key key = key_of(echo);
    EXPECT_EQ(key.tp_src, 8);
    EXPECT_EQ(key.tp_dst, 3);
}

TEST(parser, arp_addresses_and_operation) {
    kr_acl_key key = key_of(arp_frame(2));
    EXPECT_EQ(key.eth_type, 0x0806);
    EXPECT_EQ(key.ipv4_src, ip_a);
    EXPECT_EQ(key.ipv4_dst, ip_b);
    EXPECT_EQ(key.ip_proto, 2);
    EXPECT_EQ(key_of(arp_frame(0x0102)).ip_proto, 0);
    bytes other_hardware = arp_frame(1);
    other_hardware[15] = 6;
    EXPECT_EQ(key_of(other_hardware).ipv4_src, 0U);
}

TEST(parser, fragments_other_than_the_first_have_no_ports) {
    const kr_acl_key first = key_of(tcp_frame({.protocol = 6, .fragment = 0x2000}, 7, 9));
    EXPECT_EQ(first.tp_src, 7);
    const kr_acl_key later = key_of(tcp_frame({.protocol = 6, .fragment = 0x2001}, 7, 9));
    EXPECT_EQ(later.tp_src, 0);
    EXPECT_EQ(later.tp_dst, 0);
    EXPECT_EQ(later.ip_proto, 6);
    EXPECT_EQ(later.ipv4_dst, ip_b);
}

TEST(parser, outer_vlan_tag_and_type_behind_all_tags) {
    const kr_acl_key one = key_of(udp_frame(5, 6, 20, {{0x8100, 0xa064}}));
    EXPECT_EQ(one.vlan_tagged, 2U);
    EXPECT_EQ(one.vlan_id, 100);
    EXPECT_EQ(one.vlan_pcp, 5);
    EXPECT_EQ(one.eth_type, 0x0800);
    EXPECT_EQ(one.tp_dst, 6);
    const kr_acl_key two = key_of(udp_frame(5, 6, 20, {{0x88a8, 0x6007}, {0x8100, 0x0008}}));
    EXPECT_EQ(two.vlan_id, 7);
    EXPECT_EQ(two.vlan_pcp, 3);
    EXPECT_EQ(two.eth_type, 0x0800);
    EXPECT_EQ(two.tp_src, 5);
    // Drop eligibility is no part of the id.
    EXPECT_EQ(key_of(udp_frame(5, 6, 20, {{0x8100, 0x1001}})).vlan_id, 1);
}

TEST(parser, length_instead_of_type) {
    EXPECT_EQ(key_of(stp_frame()).eth_type, 0x05ff);
    bytes snap = ethernet(36);
    append(snap, {0xaa, 0xaa, 3, 0, 0, 0, 0x08, 0x00});
    append(snap, ipv4({.protocol = 17}, 8));
    append_u16(snap, 5);
    append_u16(snap, 6);
    append_u32(snap, 0);
    EXPECT_EQ(key_of(snap).eth_type, 0x0800);
    EXPECT_EQ(key_of(snap).tp_dst, 6);
}

TEST(parser, padding_behind_the_packet_is_not_transport) {
    bytes padded = ethernet(0x0800);
    append(padded, ipv4({.protocol = 17}, 0));
    padded.resize(60, 0xee);
    const kr_acl_key key = key_of(padded);
    EXPECT_EQ(key.ip_proto, 17);
    EXPECT_EQ(key.tp_src, 0);
}

TEST(parser, contradictory_ipv4_headers_give_no_fields) {
    bytes version = udp_frame(5, 6, 20);
    version[14] = 0x65;
    EXPECT_EQ(key_of(version).ipv4_src, 0U);
    bytes header_length = udp_frame(5, 6, 20);
    header_length[14] = 0x44;
    EXPECT_EQ(key_of(header_length).ipv4_src, 0U);
    EXPECT_EQ(key_of(header_length).eth_type, 0x0800);
}

TEST(parser, ipv6_has_a_type_and_no_other_field) {
    bytes v6 = ethernet(0x86dd);
    v6.resize(80, 0x60);
    const kr_acl_key key = key_of(v6);
    EXPECT_EQ(key.eth_type, 0x86dd);
    EXPECT_EQ(key.ip_proto, 0);
    EXPECT_EQ(key.tp_src, 0);
}

TEST(parser, control_protocols) {
    const auto trap_id = [](const bytes &f) {
        return frame_control_trap_id(f.data(), static_cast<uint32_t>(f.size()));
    };
    EXPECT_EQ(trap_id(lldp_frame()), static_cast<uint32_t>(KR_SOFT_TRAP_ID_LLDP));
    EXPECT_EQ(trap_id(stp_frame()), static_cast<uint32_t>(KR_SOFT_TRAP_ID_STP));
    EXPECT_EQ(trap_id(ethernet(0x8809)), static_cast<uint32_t>(KR_SOFT_TRAP_ID_LACP));
    EXPECT_EQ(trap_id(ethernet(0x888e)), static_cast<uint32_t>(KR_SOFT_TRAP_ID_EAPOL));
    EXPECT_EQ(trap_id(udp_frame(1, 2, 3)), 0U);
    bytes other_address = stp_frame();
    other_address[5] = 1;
    EXPECT_EQ(trap_id(other_address), 0U);
    bytes other_llc = stp_frame();
    other_llc[16] = 4;
    EXPECT_EQ(trap_id(other_llc), 0U);
}

// Cut at every length, the parser reads nothing behind the end and no field changes but to zero. The type field may
// show the tag that was cut through.
TEST(parser, frames_cut_at_every_length) {
    const bytes whole_frames[] = {tcp_frame({.protocol = 6, .tos = 4, .option_words = 3}),
                                  udp_frame(5, 6, 4, {{0x88a8, 0x6007}, {0x8100, 0x0008}}),
                                  arp_frame(1),
                                  lldp_frame(),
                                  stp_frame(),
                                  tcp_frame({.protocol = 6}, 7, 8, 30, {{0x8100, 0x2001}})};
    for (const bytes &whole : whole_frames) {
        const kr_acl_key complete = key_of(whole);
        for (size_t size = eth_header_size; size <= whole.size(); size++) {
            const kr_acl_key cut = key_of(whole, size);
            const auto same_or_zero = [&](auto field, auto of_whole) { return field == of_whole || field == 0; };
            EXPECT_TRUE(same_or_zero(cut.ipv4_src, complete.ipv4_src)) << size;
            EXPECT_TRUE(same_or_zero(cut.ipv4_dst, complete.ipv4_dst)) << size;
            EXPECT_TRUE(same_or_zero(cut.tp_src, complete.tp_src)) << size;
            EXPECT_TRUE(same_or_zero(cut.tp_dst, complete.tp_dst)) << size;
            EXPECT_TRUE(same_or_zero(cut.ip_proto, complete.ip_proto)) << size;
            EXPECT_TRUE(same_or_zero(cut.ip_tos, complete.ip_tos)) << size;
            EXPECT_TRUE(same_or_zero(cut.vlan_id, complete.vlan_id)) << size;
            EXPECT_TRUE(same_or_zero(cut.vlan_tagged, complete.vlan_tagged)) << size;
        }
    }
}

// Random bytes behind plausible types: everything that a frame can go through, with sanitizers watching.
TEST(parser, random_bytes_do_no_harm) {
    SCOPED_TRACE(testing::Message() << "KR_TEST_SEED=" << kr_test::test_seed());
    std::mt19937_64 random(kr_test::test_seed());
    const uint16_t types[] = {0x0800, 0x0806, 0x8100, 0x88a8, 0x86dd, 0x0026, 0x88cc};
    const uint8_t gso_types[] = {gso_none, gso_tcp_ipv4, gso_tcp_ipv6, gso_udp, gso_tcp_ipv4 | gso_ecn, 3, 0xff};
    const auto room = std::make_unique<uint8_t[]>(frame_headroom + 4096);
    for (int round = 0; round < 20000; round++) {
        const auto size = static_cast<uint32_t>(eth_header_size + random() % (round % 10 == 0 ? 4000 : 100));
        uint8_t *data = room.get() + frame_headroom;
        for (uint32_t i = 0; i < size; i++) {
            data[i] = static_cast<uint8_t>(random());
        }
        for (uint32_t at = eth_type_offset; at + 6 <= size && random() % 2 == 0; at += vlan_tag_size) {
            store_be16(data + at, types[random() % std::size(types)]);
        }
        if (size > 20 && random() % 2 == 0) {
            data[14] = random() % 2 == 0 ? 0x45 : 0x60;
        }
        (void)key_of(bytes(data, data + size));

        frame f{data, size, frame_headroom};
        f.offload = {.flags = static_cast<uint8_t>(random() % 2),
                     .gso_type = gso_types[random() % std::size(gso_types)],
                     .hdr_len = static_cast<uint16_t>(random()),
                     .gso_size = static_cast<uint16_t>(random() % 300),
                     .csum_start = static_cast<uint16_t>(random() % 100),
                     .csum_offset = static_cast<uint16_t>(random() % 20)};
        if (!frame_offload_check(f)) {
            continue;
        }
        frame_vlan_edit(f, random() % 32, static_cast<uint16_t>(random()), static_cast<uint8_t>(random()));
        uint64_t wire_bytes = 0;
        frame_wire_frames(f, [&](const uint8_t *, uint32_t wire_size) { wire_bytes += wire_size; });
        ASSERT_EQ(wire_bytes, frame_wire_bytes(f));
    }
}

/* ---- VLAN edits ------------------------------------------------------------------------------------------------ */

struct edited {
    bytes data;
    frame_offload offload;
    uint32_t headroom;
};

edited edit(const bytes &from, uint32_t code, uint16_t vid, uint8_t pcp, const frame_offload &offload = {}) {
    bytes room(frame_headroom);
    append(room, from);
    frame f{room.data() + frame_headroom, static_cast<uint32_t>(from.size()), frame_headroom};
    f.offload = offload;
    EXPECT_TRUE(frame_offload_check(f));
    frame_vlan_edit(f, code, vid, pcp);
    EXPECT_EQ(f.data - f.headroom, room.data());
    return {bytes(f.data, f.data + f.size), f.offload, f.headroom};
}

struct vlan_case {
    const char *name;
    std::vector<vlan_tag> before;
    uint32_t code;
    uint16_t vid;
    uint8_t pcp;
    std::vector<vlan_tag> after;
};

bytes with_tags(const std::vector<vlan_tag> &tags) {
    bytes result = mac_b;
    append(result, mac_a);
    for (const vlan_tag &tag : tags) {
        append_u16(result, tag.tpid);
        append_u16(result, tag.tci);
    }
    append(result, {0x08, 0x00, 1, 2, 3, 4, 5, 6, 7, 8});
    return result;
}

TEST(vlan_edit, every_code_on_untagged_tagged_and_double_tagged_frames) {
    // clang-format off
    const vlan_case cases[] = {
        {"none",                    {{0x8100, 0xb064}},                   0, 5, 2, {{0x8100, 0xb064}}},
        {"set pcp",                 {{0x8100, 0xb064}},                   4, 5, 2, {{0x8100, 0x5064}}},
        {"set pcp untagged",        {},                                   4, 5, 2, {{0x8100, 0x4000}}},
        {"set vid",                 {{0x8100, 0xb064}},                   8, 5, 2, {{0x8100, 0xb005}}},
        {"set vid untagged",        {},                                   8, 5, 2, {{0x8100, 0x0005}}},
        {"set vid, bits above 12",  {{0x8100, 0x0001}},                   8, 0xf005, 2, {{0x8100, 0x0005}}},
        {"set both",                {{0x88a8, 0xb064}, {0x8100, 1}},     12, 5, 2, {{0x88a8, 0x5005}, {0x8100, 1}}},
        {"set both untagged",       {},                                  12, 5, 2, {{0x8100, 0x4005}}},
        {"set pcp, bits above 3",   {},                                  12, 5, 0xfa, {{0x8100, 0x4005}}},
        {"pop",                     {{0x8100, 0xb064}},                  16, 5, 2, {}},
        {"pop outer",               {{0x88a8, 0xb064}, {0x8100, 1}},     16, 5, 2, {{0x8100, 1}}},
        {"pop untagged",            {},                                  16, 5, 2, {}},
        {"push vid",                {},                                  24, 5, 2, {{0x8100, 0x0005}}},
        {"push vid keeps priority", {{0x8100, 0xb064}},                  24, 5, 2, {{0x8100, 0xa005}, {0x8100, 0xb064}}},
        {"push vid and pcp",        {{0x8100, 0xb064}},                  28, 5, 2, {{0x8100, 0x4005}, {0x8100, 0xb064}}},
        {"no such code",            {{0x8100, 0xb064}},                  20, 5, 2, {{0x8100, 0xb064}}},
    };
    // clang-format on
    for (const vlan_case &c : cases) {
        EXPECT_EQ(edit(with_tags(c.before), c.code, c.vid, c.pcp).data, with_tags(c.after)) << c.name;
    }
}

TEST(vlan_edit, checksum_offsets_follow_the_tag) {
    const frame_offload plain = {
        .flags = 1, .gso_type = 0, .hdr_len = 0, .gso_size = 0, .csum_start = 34, .csum_offset = 6};
    const bytes datagram = udp_frame(1, 2, 30);
    EXPECT_EQ(edit(datagram, KR_ACL_VLAN_EDIT_PUSH_VID, 5, 0, plain).offload.csum_start, 38);
    EXPECT_EQ(edit(datagram, KR_ACL_VLAN_EDIT_SET_VID, 5, 0, plain).offload.csum_start, 38);
    EXPECT_EQ(edit(datagram, KR_ACL_VLAN_EDIT_POP, 5, 0, plain).offload.csum_start, 34);
    frame_offload tagged = plain;
    tagged.csum_start = 38;
    const bytes tagged_datagram = udp_frame(1, 2, 30, {{0x8100, 1}});
    EXPECT_EQ(edit(tagged_datagram, KR_ACL_VLAN_EDIT_POP, 5, 0, tagged).offload.csum_start, 34);
    EXPECT_EQ(edit(tagged_datagram, KR_ACL_VLAN_EDIT_SET_VID, 5, 0, tagged).offload.csum_start, 38);
}

TEST(vlan_edit, without_headroom_nothing_is_pushed) {
    bytes datagram = udp_frame(1, 2, 30);
    const bytes before = datagram;
    frame f{datagram.data(), static_cast<uint32_t>(datagram.size()), 3};
    EXPECT_FALSE(frame_vlan_push(f, 0x8100, 1));
    EXPECT_EQ(datagram, before);
}

/* ---- checksums and segments ------------------------------------------------------------------------------------ */

std::vector<bytes> wire_frames_of(const frame &f) {
    std::vector<bytes> result;
    frame_wire_frames(f, [&](const uint8_t *data, uint32_t size) { result.emplace_back(data, data + size); });
    return result;
}

// Puts the pseudo header's sum into the checksum field, as the kernel does for a device that completes it.
void checksum_leave_undone(bytes &packet, size_t l3, size_t l4, uint8_t protocol, size_t field) {
    const uint32_t sum = pseudo_sum(packet, l3, protocol, packet.size() - l4);
    packet[l4 + field] = static_cast<uint8_t>(sum >> 8);
    packet[l4 + field + 1] = static_cast<uint8_t>(sum);
}

TEST(checksum, left_undone_is_completed_for_every_payload_size) {
    for (uint32_t payload_size = 0; payload_size < 70; payload_size++) {
        bytes packet = udp_frame(1, 2, payload_size, {{0x8100, 7}});
        checksum_leave_undone(packet, 18, 38, 17, 6);
        frame f{packet.data(), static_cast<uint32_t>(packet.size()), 0};
        f.offload = {.flags = 1, .gso_type = 0, .hdr_len = 0, .gso_size = 0, .csum_start = 38, .csum_offset = 6};
        ASSERT_TRUE(frame_offload_check(f));
        const std::vector<bytes> wire = wire_frames_of(f);
        ASSERT_EQ(wire.size(), 1U);
        ASSERT_EQ(wire[0].size(), packet.size());
        EXPECT_TRUE(transport_checksum_is_right(wire[0], 18, 38, 17)) << payload_size;
    }
}

TEST(checksum, of_zero_is_sent_as_all_ones) {
    // The payload makes the sum come out as 0xffff, whose complement is zero.
    bytes packet = udp_frame(1, 2, 2);
    packet[42] = packet[43] = 0;
    checksum_leave_undone(packet, 14, 34, 17, 6);
    const uint32_t rest = 0xffff - ones_sum(packet, 34, packet.size());
    packet[42] = static_cast<uint8_t>(rest >> 8);
    packet[43] = static_cast<uint8_t>(rest);
    frame f{packet.data(), static_cast<uint32_t>(packet.size()), 0};
    f.offload = {.flags = 1, .gso_type = 0, .hdr_len = 0, .gso_size = 0, .csum_start = 34, .csum_offset = 6};
    ASSERT_TRUE(frame_offload_check(f));
    EXPECT_EQ(u16_at(wire_frames_of(f)[0], 40), 0xffffU);
}

TEST(checksum, offsets_behind_the_frame_are_malformed) {
    bytes packet = udp_frame(1, 2, 2);
    const auto size = static_cast<uint32_t>(packet.size());
    const auto check = [&](uint32_t start, uint32_t offset) {
        frame f{packet.data(), size, 0};
        f.offload.flags = 1;
        f.offload.csum_start = static_cast<uint16_t>(start);
        f.offload.csum_offset = static_cast<uint16_t>(offset);
        return frame_offload_check(f);
    };
    EXPECT_TRUE(check(34, size - 36));
    EXPECT_FALSE(check(34, size - 35));
    EXPECT_FALSE(check(size, 0));
    EXPECT_FALSE(check(13, 0));
    EXPECT_FALSE(check(0xffff, 0xffff));
}

constexpr uint8_t fin_psh_ack_cwr = 0x01 | 0x08 | 0x10 | 0x80;

struct super_frame {
    bytes data;
    uint32_t l3;
    uint32_t l4;
    uint32_t header_size;
};

super_frame tcp_super_frame(bool is_ipv4, uint32_t payload_size, std::initializer_list<vlan_tag> tags) {
    super_frame super;
    super.data = ethernet(is_ipv4 ? 0x0800 : 0x86dd, tags);
    super.l3 = static_cast<uint32_t>(super.data.size());
    if (is_ipv4) {
        append(super.data, ipv4({.protocol = 6, .identification = 0xfffe}, 32 + payload_size));
    } else {
        append(super.data, {0x60, 0, 0, 0});
        append_u16(super.data, 32 + payload_size);
        append(super.data, {6, 64});
        for (uint32_t i = 0; i < 32; i++) {
            super.data.push_back(static_cast<uint8_t>(i));
        }
    }
    super.l4 = static_cast<uint32_t>(super.data.size());
    append(super.data, tcp_header(1000, 80, 0xfffffc00, fin_psh_ack_cwr, 3));
    super.header_size = static_cast<uint32_t>(super.data.size());
    for (uint32_t i = 0; i < payload_size; i++) {
        super.data.push_back(static_cast<uint8_t>(i * 7));
    }
    return super;
}

TEST(segments, tcp_super_frame_becomes_frames_of_a_wire) {
    constexpr uint32_t gso_size = 500;
    for (const bool is_ipv4 : {true, false}) {
        for (const uint32_t payload_size : {1U, 499U, 500U, 501U, 1000U, 4321U}) {
            for (const bool pushed : {false, true}) {
                super_frame super = tcp_super_frame(is_ipv4, payload_size, {{0x8100, 3}});
                bytes room(frame_headroom);
                append(room, super.data);
                frame f{room.data() + frame_headroom, static_cast<uint32_t>(super.data.size()), frame_headroom};
                f.offload = {.flags = 1,
                             .gso_type = static_cast<uint8_t>((is_ipv4 ? gso_tcp_ipv4 : gso_tcp_ipv6) | gso_ecn),
                             .hdr_len = 0,
                             .gso_size = gso_size,
                             .csum_start = static_cast<uint16_t>(super.l4),
                             .csum_offset = 16};
                ASSERT_TRUE(frame_offload_check(f));
                if (pushed) {
                    frame_vlan_edit(f, KR_ACL_VLAN_EDIT_PUSH_VID, 9, 0);
                }
                const uint32_t shift = pushed ? vlan_tag_size : 0;
                const std::vector<bytes> wire = wire_frames_of(f);
                ASSERT_EQ(wire.size(), (payload_size + gso_size - 1) / gso_size);
                ASSERT_EQ(f.segment_count, wire.size());

                bytes payload;
                uint64_t wire_bytes = 0;
                for (size_t i = 0; i < wire.size(); i++) {
                    const bytes &segment = wire[i];
                    const size_t l3 = super.l3 + shift;
                    const size_t l4 = super.l4 + shift;
                    wire_bytes += segment.size();
                    EXPECT_TRUE(transport_checksum_is_right(segment, l3, l4, 6));
                    EXPECT_EQ(u32_at(segment, l4 + 4), 0xfffffc00 + static_cast<uint32_t>(i) * gso_size);
                    if (is_ipv4) {
                        EXPECT_TRUE(ipv4_checksum_is_right(segment, l3));
                        EXPECT_EQ(u16_at(segment, l3 + 2), segment.size() - l3);
                        EXPECT_EQ(u16_at(segment, l3 + 4), (0xfffe + i) & 0xffff);
                    } else {
                        EXPECT_EQ(u16_at(segment, l3 + 4), segment.size() - l3 - 40);
                    }
                    uint8_t flags = fin_psh_ack_cwr;
                    flags = i + 1 < wire.size() ? flags & ~0x09 & 0xff : flags;
                    flags = i > 0 ? flags & ~0x80 & 0xff : flags;
                    EXPECT_EQ(segment[l4 + 13], flags);
                    payload.insert(payload.end(), segment.begin() + super.header_size + shift, segment.end());
                }
                EXPECT_EQ(payload, bytes(super.data.begin() + super.header_size, super.data.end()));
                EXPECT_EQ(wire_bytes, frame_wire_bytes(f));
            }
        }
    }
}

TEST(segments, udp_super_frame_becomes_datagrams) {
    bytes super = udp_frame(1, 2, 2500);
    frame f{super.data(), static_cast<uint32_t>(super.size()), 0};
    f.offload = {.flags = 1, .gso_type = gso_udp, .hdr_len = 0, .gso_size = 1000, .csum_start = 34, .csum_offset = 6};
    ASSERT_TRUE(frame_offload_check(f));
    const std::vector<bytes> wire = wire_frames_of(f);
    ASSERT_EQ(wire.size(), 3U);
    for (const bytes &datagram : wire) {
        EXPECT_EQ(u16_at(datagram, 38), datagram.size() - 34);
        EXPECT_TRUE(ipv4_checksum_is_right(datagram, 14));
        EXPECT_TRUE(transport_checksum_is_right(datagram, 14, 34, 17));
    }
    EXPECT_EQ(wire[2].size(), 42U + 500U);
}

TEST(segments, offload_that_contradicts_the_frame_is_malformed) {
    const super_frame super = tcp_super_frame(true, 2000, {});
    const frame_offload good = {.flags = 1,
                                .gso_type = gso_tcp_ipv4,
                                .hdr_len = 0,
                                .gso_size = 500,
                                .csum_start = static_cast<uint16_t>(super.l4),
                                .csum_offset = 16};
    const auto check = [&](const frame_offload &offload) {
        bytes data = super.data;
        frame f{data.data(), static_cast<uint32_t>(data.size()), 0};
        f.offload = offload;
        return frame_offload_check(f);
    };
    EXPECT_TRUE(check(good));
    frame_offload bad = good;
    bad.flags = 0;
    EXPECT_FALSE(check(bad)) << "no checksum start";
    bad = good;
    bad.gso_size = 0;
    EXPECT_FALSE(check(bad)) << "no segment size";
    bad = good;
    bad.gso_type = gso_tcp_ipv6;
    EXPECT_FALSE(check(bad)) << "other network protocol";
    bad = good;
    bad.gso_type = 3;
    EXPECT_FALSE(check(bad)) << "IP fragmentation";
    bad = good;
    bad.csum_start = 20;
    EXPECT_FALSE(check(bad)) << "transport inside the network header";
    bad = good;
    bad.gso_size = KR_SOFT_MAX_FRAME;
    EXPECT_FALSE(check(bad)) << "segments longer than any frame";
    bad = good;
    bad.csum_start = static_cast<uint16_t>(super.data.size() - 18);
    EXPECT_FALSE(check(bad)) << "TCP header behind the end";
}

} // namespace
