/*
 * Frames through the whole switch, from port to port or to the CPU, on ports in memory and on capture files. Each drop
 * reason has a test, and each test checks that nothing was counted under any other.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <pcap/pcap.h>
#include <unistd.h>

#include "soft_switch.h"

namespace {

using namespace kr_test;

constexpr uint32_t port_1 = 0x10100, port_2 = 0x10200, port_3 = 0x10300, port_4 = 0x10400;
constexpr uint32_t unknown_port = 0x1ff00;

const bytes frame_1 = udp_frame(1, 2, 50);

class switch_test : public soft_switch {
  protected:
    switch_test() {
        add_memory_ports({port_1, port_2, port_3, port_4});
    }
    static void expect_nothing_left() {
        for (const uint32_t log_port : {port_1, port_2, port_3, port_4}) {
            EXPECT_TRUE(read(log_port).empty()) << std::hex << log_port;
        }
    }
};

/* ---- forwarding ------------------------------------------------------------------------------------------------ */

TEST_F(switch_test, a_frame_leaves_by_the_port_of_the_rule_and_is_counted) {
    set(forward_rule(5, port_2));
    inject(port_1, frame_1);
    EXPECT_EQ(read(port_2), frame_1);
    expect_nothing_left();
    EXPECT_EQ(counters(port_1).rx_packets, 1U);
    EXPECT_EQ(counters(port_1).rx_bytes, frame_1.size());
    EXPECT_EQ(counters(port_2).tx_packets, 1U);
    EXPECT_EQ(counters(port_2).tx_bytes, frame_1.size());
    EXPECT_EQ(drops_in_all(), 0U);
}

TEST_F(switch_test, the_lowest_offset_wins) {
    set(forward_rule(5, port_2));
    set(forward_rule(4, port_3));
    inject(port_1, frame_1);
    EXPECT_EQ(read(port_3), frame_1);
    expect_nothing_left();
}

TEST_F(switch_test, every_field_of_the_key_can_select_a_frame) {
    const bytes tagged = udp_frame(1000, 2000, 20, {{0x8100, 0x6064}});
    struct field_case {
        const char *name;
        void (*select)(kr_acl_key &key, kr_acl_key &mask, uint32_t error);
    };
    const field_case cases[] = {
        {"eth_dst",
         [](auto &k, auto &m, uint32_t e) { k.eth_dst[5] = static_cast<uint8_t>(0x0b + e), m.eth_dst[5] = 255; }},
        {"eth_src",
         [](auto &k, auto &m, uint32_t e) { k.eth_src[5] = static_cast<uint8_t>(0x0a + e), m.eth_src[5] = 255; }},
        {"eth_type",
         [](auto &k, auto &m, uint32_t e) { k.eth_type = static_cast<uint16_t>(0x0800 + e), m.eth_type = 0xffff; }},
        {"vlan_pcp", [](auto &k, auto &m, uint32_t e) { k.vlan_pcp = static_cast<uint8_t>(3 + e), m.vlan_pcp = 7; }},
        {"vlan_id",
         [](auto &k, auto &m, uint32_t e) { k.vlan_id = static_cast<uint16_t>(100 + e), m.vlan_id = 0xfff; }},
        {"vlan_tagged", [](auto &k, auto &m, uint32_t e) { k.vlan_tagged = e == 0 ? 2 : 0, m.vlan_tagged = 255; }},
        {"ipv4_dst", [](auto &k, auto &m, uint32_t e) { k.ipv4_dst = ip_b + e, m.ipv4_dst = 0xffffffff; }},
        {"ipv4_src", [](auto &k, auto &m, uint32_t e) { k.ipv4_src = ip_a + e, m.ipv4_src = 0xffffffff; }},
        {"tp_src", [](auto &k, auto &m, uint32_t e) { k.tp_src = static_cast<uint16_t>(1000 + e), m.tp_src = 0xffff; }},
        {"tp_dst", [](auto &k, auto &m, uint32_t e) { k.tp_dst = static_cast<uint16_t>(2000 + e), m.tp_dst = 0xffff; }},
        {"ip_proto", [](auto &k, auto &m, uint32_t e) { k.ip_proto = static_cast<uint8_t>(17 + e), m.ip_proto = 255; }},
        {"ip_tos", [](auto &k, auto &m, uint32_t e) { k.ip_tos = static_cast<uint8_t>(e), m.ip_tos = 255; }},
        {"in_log_port", [](auto &k, auto &m, uint32_t e) { k.in_log_port = port_1 + e, m.in_log_port = 0xffffffff; }},
    };
    for (const field_case &c : cases) {
        for (uint32_t error = 0; error < 2; error++) {
            kr_acl_rule rule = forward_rule(7, port_2);
            c.select(rule.key, rule.mask, error);
            set(rule);
            inject(port_1, tagged);
            EXPECT_EQ(read(port_2).empty(), error != 0) << c.name;
        }
    }
}

TEST_F(switch_test, an_explicit_forward_to_the_ingress_port_is_honoured) {
    set(forward_rule(5, port_1));
    inject(port_1, frame_1);
    EXPECT_EQ(read(port_1), frame_1);
}

TEST_F(switch_test, a_group_reaches_every_member_but_the_ingress_port) {
    set(group_rule(5, make_group({port_1, port_2, port_3})));
    inject(port_2, frame_1);
    EXPECT_EQ(read(port_1), frame_1);
    EXPECT_EQ(read(port_3), frame_1);
    expect_nothing_left();
    EXPECT_EQ(drops_in_all(), 0U);
}

TEST_F(switch_test, a_vlan_edit_applies_to_every_copy_and_counters_count_what_was_received) {
    const uint32_t group = make_group({port_1, port_2, port_3});
    kr_acl_rule rule = group_rule(5, group);
    rule.vlan_edit = KR_ACL_VLAN_EDIT_PUSH_VID_PCP;
    rule.vlan_id = 9;
    rule.vlan_pcp = 1;
    set(rule);
    inject(port_1, frame_1);
    const bytes expected = udp_frame(1, 2, 50, {{0x8100, 0x2009}});
    EXPECT_EQ(read(port_2), expected);
    EXPECT_EQ(read(port_3), expected);
    kr_soft_rule_state state;
    uint32_t count = 1;
    ASSERT_EQ(kr_soft_rules_get(acl_id, &state, &count), KR_STATUS_SUCCESS);
    EXPECT_EQ(state.hit_bytes, frame_1.size());
    EXPECT_EQ(state.hit_packets, 1U);
}

TEST_F(switch_test, short_frames_are_frames) {
    set(forward_rule(5, port_2));
    const bytes shortest = ethernet(0x1234);
    inject(port_1, shortest);
    EXPECT_EQ(read(port_2), shortest);
}

TEST_F(switch_test, no_frame_ever_leaves_a_group_by_its_ingress_port_while_members_change) {
    const uint32_t group = make_group({port_1, port_2});
    set(group_rule(5, group));
    std::atomic<bool> done{false};
    std::thread changes([&] {
        while (!done) {
            change_group(KR_ACL_RM_CMD_GROUP_ADD_PORTS, group, {port_3});
            change_group(KR_ACL_RM_CMD_GROUP_REMOVE_PORTS, group, {port_3});
        }
    });
    for (int i = 0; i < 2000; i++) {
        inject(port_1, frame_1);
        ASSERT_EQ(read(port_2), frame_1);
        ASSERT_TRUE(read(port_1).empty());
        (void)read(port_3);
    }
    done = true;
    changes.join();
    EXPECT_EQ(drops_in_all(), 0U);
}

/* ---- drop reasons ---------------------------------------------------------------------------------------------- */

TEST_F(switch_test, drop_ingress_down) {
    set(forward_rule(5, port_2));
    ASSERT_EQ(kr_soft_port_link_set(port_1, 0), KR_STATUS_SUCCESS);
    inject(port_1, frame_1);
    expect_only_drops(KR_SOFT_DROP_INGRESS_DOWN);
    EXPECT_EQ(counters(port_1).rx_packets, 0U);
    ASSERT_EQ(kr_soft_port_link_set(port_1, 1), KR_STATUS_SUCCESS);
    inject(port_1, frame_1);
    EXPECT_EQ(read(port_2), frame_1);
}

TEST_F(switch_test, drop_ingress_stp) {
    set(forward_rule(5, port_2));
    for (const uint32_t state : {KR_SOFT_STP_DISCARDING, KR_SOFT_STP_LEARNING}) {
        ASSERT_EQ(kr_soft_port_stp_set(port_1, state), KR_STATUS_SUCCESS);
        inject(port_1, frame_1);
    }
    expect_only_drops(KR_SOFT_DROP_INGRESS_STP, 2);
    for (const uint32_t state : {KR_SOFT_STP_FORWARDING, KR_SOFT_STP_NONE}) {
        ASSERT_EQ(kr_soft_port_stp_set(port_1, state), KR_STATUS_SUCCESS);
        inject(port_1, frame_1);
        EXPECT_EQ(read(port_2), frame_1);
    }
}

TEST_F(switch_test, drop_rule_discard) {
    kr_acl_rule rule = forward_rule(5, port_2);
    rule.trap_action = KR_ACL_TRAP_ACTION_DISCARD;
    set(rule);
    inject(port_1, frame_1);
    expect_only_drops(KR_SOFT_DROP_RULE_DISCARD);
    expect_nothing_left();
}

TEST_F(switch_test, drop_rule_no_target) {
    set(rule_at(5));
    inject(port_1, frame_1);
    expect_only_drops(KR_SOFT_DROP_RULE_NO_TARGET);
}

TEST_F(switch_test, drop_no_match) {
    inject(port_1, frame_1);
    expect_only_drops(KR_SOFT_DROP_NO_MATCH);
}

TEST_F(switch_test, drop_no_match_on_a_port_that_is_not_bound) {
    set(forward_rule(5, port_2));
    ASSERT_EQ(kr_soft_port_add_memory(unknown_port), KR_STATUS_SUCCESS);
    inject(unknown_port, frame_1);
    expect_only_drops(KR_SOFT_DROP_NO_MATCH);
}

TEST_F(switch_test, drop_no_trap_channel) {
    set(trap_rule(5));
    cpu_channel other(device, {KR_TRAP_ID_PACKET_MISS});
    inject(port_1, frame_1);
    expect_only_drops(KR_SOFT_DROP_NO_TRAP_CHANNEL);
    EXPECT_FALSE(other.readable());
}

TEST_F(switch_test, drop_channel_full_keeps_the_oldest_and_is_counted_per_channel) {
    set(trap_rule(5));
    cpu_channel first(device, {KR_TRAP_ID_PACKET_IN});
    cpu_channel second(device, {KR_TRAP_ID_PACKET_IN});
    for (uint32_t i = 0; i < KR_SOFT_CHANNEL_QUEUE; i++) {
        inject(port_1, udp_frame(static_cast<uint16_t>(i), 2, 50));
    }
    (void)second.take();
    EXPECT_EQ(drops_in_all(), 0U);
    inject(port_1, udp_frame(0xffff, 2, 50));
    expect_only_drops(KR_SOFT_DROP_CHANNEL_FULL, 1);
    for (uint32_t i = 0; i < KR_SOFT_CHANNEL_QUEUE; i++) {
        ASSERT_EQ(first.take().data, udp_frame(static_cast<uint16_t>(i), 2, 50));
    }
    EXPECT_FALSE(first.readable());
    for (uint32_t i = 1; i < KR_SOFT_CHANNEL_QUEUE; i++) {
        ASSERT_EQ(second.take().data, udp_frame(static_cast<uint16_t>(i), 2, 50));
    }
    EXPECT_EQ(second.take().data, udp_frame(0xffff, 2, 50));
}

TEST_F(switch_test, drop_no_egress_port) {
    set(forward_rule(5, unknown_port));
    inject(port_1, frame_1);
    expect_only_drops(KR_SOFT_DROP_NO_EGRESS_PORT);
}

TEST_F(switch_test, drop_no_egress_port_for_a_member_that_was_removed) {
    set(group_rule(5, make_group({port_1, port_2, port_3})));
    ASSERT_EQ(kr_soft_port_remove(port_3), KR_STATUS_SUCCESS);
    inject(port_1, frame_1);
    EXPECT_EQ(read(port_2), frame_1);
    expect_only_drops(KR_SOFT_DROP_NO_EGRESS_PORT);
}

TEST_F(switch_test, drop_no_group) {
    uint32_t group = make_group({port_1, port_2});
    set(group_rule(5, group));
    const kr_status destroyed =
        kr_acl_rm_api_acl_mc_group_set(resource_manager, KR_ACL_RM_CMD_GROUP_DESTROY, 0, nullptr, &group);
    if (destroyed == KR_STATUS_RESOURCE_IN_USE) {
        GTEST_SKIP() << "the resource manager keeps groups that rules name";
    }
    ASSERT_EQ(destroyed, KR_STATUS_SUCCESS);
    inject(port_1, frame_1);
    expect_only_drops(KR_SOFT_DROP_NO_GROUP);
}

TEST_F(switch_test, drop_empty_group) {
    set(group_rule(5, make_group({port_1})));
    inject(port_1, frame_1);
    expect_only_drops(KR_SOFT_DROP_EMPTY_GROUP);
    inject(port_2, frame_1);
    EXPECT_EQ(read(port_1), frame_1);
}

TEST_F(switch_test, drop_egress_down_is_counted_per_port) {
    set(group_rule(5, make_group({port_1, port_2, port_3, port_4})));
    ASSERT_EQ(kr_soft_port_link_set(port_2, 0), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_port_link_set(port_3, 0), KR_STATUS_SUCCESS);
    inject(port_1, frame_1);
    EXPECT_EQ(read(port_4), frame_1);
    expect_only_drops(KR_SOFT_DROP_EGRESS_DOWN, 2);
    EXPECT_EQ(counters(port_2).tx_packets, 0U);
}

TEST_F(switch_test, drop_egress_stp_is_counted_per_port) {
    set(group_rule(5, make_group({port_1, port_2, port_3})));
    ASSERT_EQ(kr_soft_port_stp_set(port_2, KR_SOFT_STP_LEARNING), KR_STATUS_SUCCESS);
    inject(port_1, frame_1);
    EXPECT_EQ(read(port_3), frame_1);
    expect_nothing_left();
    expect_only_drops(KR_SOFT_DROP_EGRESS_STP);
}

TEST_F(switch_test, drop_egress_full) {
    set(forward_rule(5, port_2));
    uint64_t accepted = 0;
    while (drops_in_all() == 0) {
        inject(port_1, frame_1);
        accepted++;
    }
    expect_only_drops(KR_SOFT_DROP_EGRESS_FULL);
    accepted--;
    EXPECT_EQ(counters(port_2).tx_packets, accepted);
    for (; accepted > 0; accepted--) {
        ASSERT_EQ(read(port_2), frame_1);
    }
    expect_nothing_left();
}

TEST_F(switch_test, drop_egress_too_long) {
    kr_acl_rule rule = forward_rule(5, port_2);
    set(rule);
    const bytes longest = udp_frame(1, 2, KR_SOFT_MAX_FRAME - 42);
    ASSERT_EQ(longest.size(), KR_SOFT_MAX_FRAME);
    inject(port_1, longest);
    EXPECT_EQ(read(port_2), longest);
    rule.vlan_edit = KR_ACL_VLAN_EDIT_PUSH_VID;
    set(rule);
    inject(port_1, longest);
    expect_only_drops(KR_SOFT_DROP_EGRESS_TOO_LONG);
    expect_nothing_left();
}

TEST_F(switch_test, every_reason_has_a_name_and_no_other_value_does) {
    for (uint32_t i = 0; i < KR_SOFT_DROP_REASON_COUNT; i++) {
        ASSERT_NE(kr_soft_drop_reason_name(static_cast<kr_soft_drop_reason>(i)), nullptr);
    }
    EXPECT_EQ(kr_soft_drop_reason_name(KR_SOFT_DROP_REASON_COUNT), nullptr);
    EXPECT_EQ(kr_soft_drop_count(KR_SOFT_DROP_REASON_COUNT), 0U);
}

/* ---- traps ----------------------------------------------------------------------------------------------------- */

TEST_F(switch_test, a_trapped_frame_goes_to_every_registered_channel_and_nowhere_else) {
    kr_acl_rule rule = trap_rule(5);
    rule.forward_type = KR_ACL_FORWARD_PORT;
    rule.forward_log_port = port_2;
    rule.vlan_edit = KR_ACL_VLAN_EDIT_PUSH_VID;
    set(rule);
    cpu_channel first(device, {KR_TRAP_ID_PACKET_IN});
    cpu_channel second(device, {KR_TRAP_ID_PACKET_IN, KR_TRAP_ID_PACKET_MISS});
    cpu_channel third(device, {KR_TRAP_ID_PACKET_MISS});
    inject(port_3, frame_1);
    for (cpu_channel *channel : {&first, &second}) {
        ASSERT_TRUE(channel->readable());
        const received packet = channel->take();
        EXPECT_EQ(packet.data, frame_1) << "as it was received";
        EXPECT_EQ(packet.info.trap_id, static_cast<uint32_t>(KR_TRAP_ID_PACKET_IN));
        EXPECT_EQ(packet.info.source_log_port, port_3);
        EXPECT_EQ(packet.info.original_size, frame_1.size());
    }
    EXPECT_FALSE(third.readable());
    expect_nothing_left();
    EXPECT_EQ(drops_in_all(), 0U);
}

TEST_F(switch_test, what_no_rule_matches_goes_to_who_asked_for_misses) {
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_MISS});
    inject(port_1, frame_1);
    const received packet = channel.take();
    EXPECT_EQ(packet.info.trap_id, static_cast<uint32_t>(KR_TRAP_ID_PACKET_MISS));
    EXPECT_EQ(packet.data, frame_1);
    EXPECT_EQ(drops_in_all(), 0U);
    ASSERT_EQ(channel.trap_set(KR_API_CMD_DEREGISTER, KR_TRAP_ID_PACKET_MISS), KR_STATUS_SUCCESS);
    inject(port_1, frame_1);
    expect_only_drops(KR_SOFT_DROP_NO_MATCH);
}

TEST_F(switch_test, control_protocols_reach_the_cpu_before_the_rules_and_past_spanning_tree) {
    set(forward_rule(0, port_2));
    cpu_channel channel(device, {KR_SOFT_TRAP_ID_LLDP, KR_SOFT_TRAP_ID_STP});
    for (const uint32_t state : {KR_SOFT_STP_NONE, KR_SOFT_STP_DISCARDING, KR_SOFT_STP_LEARNING}) {
        ASSERT_EQ(kr_soft_port_stp_set(port_1, state), KR_STATUS_SUCCESS);
        inject(port_1, lldp_frame());
        inject(port_1, stp_frame());
        EXPECT_EQ(channel.take().info.trap_id, static_cast<uint32_t>(KR_SOFT_TRAP_ID_LLDP));
        const received bpdu = channel.take();
        EXPECT_EQ(bpdu.info.trap_id, static_cast<uint32_t>(KR_SOFT_TRAP_ID_STP));
        EXPECT_EQ(bpdu.data, stp_frame());
    }
    expect_nothing_left();
    EXPECT_EQ(drops_in_all(), 0U);
}

TEST_F(switch_test, control_protocols_that_nobody_asked_for_meet_spanning_tree_and_the_rules) {
    set(forward_rule(0, port_2));
    inject(port_1, lldp_frame());
    EXPECT_EQ(read(port_2), lldp_frame());
    ASSERT_EQ(kr_soft_port_stp_set(port_1, KR_SOFT_STP_DISCARDING), KR_STATUS_SUCCESS);
    inject(port_1, lldp_frame());
    expect_only_drops(KR_SOFT_DROP_INGRESS_STP);
}

TEST_F(switch_test, link_changes_are_events_and_no_change_is_none) {
    cpu_channel channel(device, {KR_TRAP_ID_PORT_UP_DOWN});
    for (const uint32_t up : {1U, 0U, 0U, 1U, 1U}) {
        ASSERT_EQ(kr_soft_port_link_set(port_2, up), KR_STATUS_SUCCESS);
    }
    for (const uint32_t state : {KR_PORT_OPER_DOWN, KR_PORT_OPER_UP}) {
        const received event = channel.take();
        EXPECT_EQ(event.info.trap_id, static_cast<uint32_t>(KR_TRAP_ID_PORT_UP_DOWN));
        EXPECT_EQ(event.info.port_up_down.log_port, port_2);
        EXPECT_EQ(event.info.port_up_down.oper_state, state);
        EXPECT_EQ(event.data.size(), 0U);
    }
    EXPECT_FALSE(channel.readable());
}

/* ---- frames of the CPU ----------------------------------------------------------------------------------------- */

kr_status cpu_send(cpu_channel &channel, uint32_t log_port, const bytes &frame) {
    return kr_lib_host_ifc_unicast_ctrl_send(&channel.descriptor, frame.data(), static_cast<uint32_t>(frame.size()), 0,
                                             log_port, 0);
}

TEST_F(switch_test, a_frame_of_the_cpu_passes_rules_and_spanning_tree_but_no_link_that_is_down) {
    set(discard_rule(0));
    cpu_channel channel(device, {});
    ASSERT_EQ(kr_soft_port_stp_set(port_2, KR_SOFT_STP_DISCARDING), KR_STATUS_SUCCESS);
    EXPECT_EQ(cpu_send(channel, port_2, frame_1), KR_STATUS_SUCCESS);
    EXPECT_EQ(read(port_2), frame_1);
    EXPECT_EQ(counters(port_2).tx_packets, 1U);
    ASSERT_EQ(kr_soft_port_link_set(port_2, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(cpu_send(channel, port_2, frame_1), KR_STATUS_ERROR);
    EXPECT_EQ(cpu_send(channel, unknown_port, frame_1), KR_STATUS_ENTRY_NOT_FOUND);
    expect_nothing_left();
}

/* ---- ports ----------------------------------------------------------------------------------------------------- */

TEST_F(switch_test, port_refusals) {
    uint8_t room[64]{};
    uint32_t size = sizeof room;
    uint32_t state = 77;
    kr_soft_port_counters port_counters;
    EXPECT_EQ(kr_soft_port_add_memory(port_1), KR_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(kr_soft_port_add_capture(port_1, nullptr, nullptr), KR_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(kr_soft_port_remove(unknown_port), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_link_set(unknown_port, 1), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_stp_set(unknown_port, 1), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_stp_set(port_1, 4), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(kr_soft_port_stp_get(unknown_port, &state), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_stp_get(port_1, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_soft_port_stp_get(port_1, &state), KR_STATUS_SUCCESS);
    EXPECT_EQ(state, static_cast<uint32_t>(KR_SOFT_STP_NONE));
    EXPECT_EQ(kr_soft_port_counters_get(unknown_port, &port_counters), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_counters_get(port_1, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_soft_port_inject(unknown_port, room, 14), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_inject(port_1, nullptr, 14), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_soft_port_inject(port_1, room, 13), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(kr_soft_port_inject(port_1, room, KR_SOFT_MAX_FRAME + 1), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(kr_soft_port_read(unknown_port, room, &size, 0), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_read(port_1, nullptr, &size, 0), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_soft_port_read(port_1, room, nullptr, 0), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_soft_port_read(port_1, room, &size, 0), KR_STATUS_TIMEOUT);
    EXPECT_EQ(kr_soft_port_read(port_1, room, &size, 1000), KR_STATUS_TIMEOUT);
    EXPECT_EQ(drops_in_all(), 0U);
}

TEST_F(switch_test, a_read_frame_is_cut_to_the_room_and_its_size_is_told) {
    set(forward_rule(5, port_2));
    inject(port_1, frame_1);
    bytes room(20, 0xee);
    uint32_t size = 16;
    ASSERT_EQ(kr_soft_port_read(port_2, room.data(), &size, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(size, frame_1.size());
    EXPECT_TRUE(std::equal(room.begin(), room.begin() + 16, frame_1.begin()));
    EXPECT_EQ(room[16], 0xee);
}

TEST_F(switch_test, a_reader_that_waits_is_woken_by_a_frame_and_by_the_removal_of_its_port) {
    set(forward_rule(5, port_2));
    std::thread injecting([] { inject(port_1, frame_1); });
    EXPECT_EQ(read(port_2, 60000000), frame_1);
    injecting.join();
    std::thread removing([] { EXPECT_EQ(kr_soft_port_remove(port_2), KR_STATUS_SUCCESS); });
    uint8_t room[64];
    uint32_t size = sizeof room;
    EXPECT_EQ(kr_soft_port_read(port_2, room, &size, 60000000), KR_STATUS_ENTRY_NOT_FOUND);
    removing.join();
}

TEST_F(switch_test, the_switch_has_room_for_its_ports_and_no_more) {
    uint32_t log_port = 0x20000;
    for (uint32_t i = 4; i < KR_SOFT_MAX_PORTS; i++) {
        ASSERT_EQ(kr_soft_port_add_memory(log_port += 0x100), KR_STATUS_SUCCESS);
    }
    EXPECT_EQ(kr_soft_port_add_memory(log_port + 0x100), KR_STATUS_NO_RESOURCES);
    kr_soft_usage usage;
    kr_soft_usage_get(&usage);
    EXPECT_EQ(usage.port_count, KR_SOFT_MAX_PORTS);
    set(forward_rule(5, log_port));
    inject(port_1, frame_1);
    EXPECT_EQ(read(log_port), frame_1);
    ASSERT_EQ(kr_soft_port_remove(port_3), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_soft_port_add_memory(log_port + 0x100), KR_STATUS_SUCCESS);
}

TEST_F(switch_test, a_port_that_was_removed_comes_back_bound_and_as_a_member) {
    set(group_rule(5, make_group({port_1, port_2})));
    ASSERT_EQ(kr_soft_port_remove(port_1), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_port_add_memory(port_1), KR_STATUS_SUCCESS);
    inject(port_1, frame_1);
    EXPECT_EQ(read(port_2), frame_1);
}

TEST_F(switch_test, frames_from_several_threads_at_once_all_arrive) {
    set(forward_rule(5, port_4));
    constexpr uint32_t per_thread = 300;
    std::vector<std::thread> threads;
    for (const uint32_t log_port : {port_1, port_2, port_3}) {
        threads.emplace_back([log_port] {
            for (uint32_t i = 0; i < per_thread; i++) {
                inject(log_port, frame_1);
            }
        });
    }
    uint32_t got = 0;
    while (got < 3 * per_thread) {
        const bytes frame = read(port_4, 60000000);
        ASSERT_EQ(frame, frame_1);
        got++;
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    expect_nothing_left();
}

TEST_F(switch_test, dump_shows_ports_channels_and_drops) {
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN, KR_SOFT_TRAP_ID_LLDP});
    inject(port_1, frame_1);
    ASSERT_EQ(kr_soft_port_link_set(port_2, 0), KR_STATUS_SUCCESS);
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    kr_soft_dump(stream);
    std::fclose(stream);
    const std::string dump = text;
    std::free(text);
    EXPECT_NE(dump.find("port 0x10100  link up  stp none  rx 1 frames 92 bytes  tx 0 frames 0 bytes  memory\n"),
              std::string::npos)
        << dump;
    EXPECT_NE(dump.find("port 0x10200  link down"), std::string::npos) << dump;
    EXPECT_NE(dump.find("queued 0  traps 19 464\n"), std::string::npos) << dump;
    EXPECT_NE(dump.find("no rule matches"), std::string::npos) << dump;
}

/* ---- capture files --------------------------------------------------------------------------------------------- */

class capture_test : public switch_test {
  protected:
    capture_test() : directory_(std::filesystem::temp_directory_path() / ("kr_capture_" + std::to_string(getpid()))) {
        std::filesystem::create_directory(directory_);
    }
    ~capture_test() override {
        kr_soft_reset();
        std::filesystem::remove_all(directory_);
    }
    std::string path(const char *name) const {
        return directory_ / name;
    }
    static void write_capture(const std::string &file, const std::vector<bytes> &frames, int link_type = DLT_EN10MB) {
        pcap_t *const format = pcap_open_dead(link_type, 65535);
        pcap_dumper_t *const out = pcap_dump_open(format, file.c_str());
        for (const bytes &frame : frames) {
            pcap_pkthdr header{};
            header.ts.tv_sec = 1000;
            header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
            pcap_dump(reinterpret_cast<u_char *>(out), &header, frame.data());
        }
        pcap_dump_close(out);
        pcap_close(format);
    }
    static std::vector<bytes> read_capture(const std::string &file) {
        char error[PCAP_ERRBUF_SIZE];
        pcap_t *const in = pcap_open_offline(file.c_str(), error);
        EXPECT_NE(in, nullptr) << error;
        std::vector<bytes> frames;
        pcap_pkthdr *header;
        const u_char *data;
        while (in != nullptr && pcap_next_ex(in, &header, &data) == 1) {
            EXPECT_EQ(header->ts.tv_sec, 1000);
            frames.emplace_back(data, data + header->caplen);
        }
        if (in != nullptr) {
            pcap_close(in);
        }
        return frames;
    }

  private:
    std::filesystem::path directory_;
};

constexpr uint32_t capture_port_1 = 0x20100, capture_port_2 = 0x20200;

TEST_F(capture_test, frames_of_one_file_go_through_the_switch_into_another) {
    const std::vector<bytes> frames = {frame_1, lldp_frame(), udp_frame(3, 4, 1000)};
    write_capture(path("in"), frames);
    ASSERT_EQ(kr_soft_port_add_capture(capture_port_1, path("in").c_str(), nullptr), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_port_add_capture(capture_port_2, nullptr, path("out").c_str()), KR_STATUS_SUCCESS);
    bind(capture_port_1);
    set(forward_rule(5, capture_port_2));
    uint64_t count = 0;
    ASSERT_EQ(kr_soft_port_play(capture_port_1, &count), KR_STATUS_SUCCESS);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(read_capture(path("out")), frames) << "the file is whole at any time";
    ASSERT_EQ(kr_soft_port_play(capture_port_1, &count), KR_STATUS_SUCCESS);
    EXPECT_EQ(counters(capture_port_2).tx_packets, 6U);
    EXPECT_EQ(kr_soft_port_play(capture_port_2, &count), KR_STATUS_SUCCESS) << "no input, no frames";
    EXPECT_EQ(count, 0U);
}

TEST_F(capture_test, frames_that_no_wire_carries_are_malformed) {
    set(forward_rule(5, port_2));
    write_capture(path("in"), {bytes(13, 1), bytes(KR_SOFT_MAX_FRAME + 1, 1), frame_1});
    ASSERT_EQ(kr_soft_port_add_capture(capture_port_1, path("in").c_str(), nullptr), KR_STATUS_SUCCESS);
    bind(capture_port_1);
    uint64_t count = 0;
    ASSERT_EQ(kr_soft_port_play(capture_port_1, &count), KR_STATUS_SUCCESS);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(read(port_2), frame_1);
    expect_only_drops(KR_SOFT_DROP_MALFORMED, 2);
}

TEST_F(capture_test, refusals) {
    uint64_t count = 7;
    EXPECT_EQ(kr_soft_port_play(unknown_port, &count), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_play(port_1, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_soft_port_play(port_1, &count), KR_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_soft_port_add_capture(capture_port_1, path("absent").c_str(), nullptr), KR_STATUS_ERROR);
    EXPECT_EQ(kr_soft_port_add_capture(capture_port_1, nullptr, path("absent/file").c_str()), KR_STATUS_ERROR);
    write_capture(path("other"), {}, DLT_RAW);
    EXPECT_EQ(kr_soft_port_add_capture(capture_port_1, path("other").c_str(), nullptr), KR_STATUS_ERROR);
}

TEST_F(capture_test, an_input_is_not_overwritten_by_the_output) {
    write_capture(path("in"), {frame_1});
    const auto size = std::filesystem::file_size(path("in"));
    std::filesystem::create_symlink(path("in"), path("link"));
    EXPECT_EQ(kr_soft_port_add_capture(capture_port_1, path("in").c_str(), path("in").c_str()), KR_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_soft_port_add_capture(capture_port_1, path("in").c_str(), path("link").c_str()),
              KR_STATUS_PARAM_ERROR);
    EXPECT_EQ(std::filesystem::file_size(path("in")), size);
}

TEST_F(capture_test, a_file_that_was_cut_gives_its_whole_frames_and_an_error) {
    write_capture(path("in"), {frame_1, frame_1});
    std::filesystem::resize_file(path("in"), std::filesystem::file_size(path("in")) - 5);
    ASSERT_EQ(kr_soft_port_add_capture(capture_port_1, path("in").c_str(), nullptr), KR_STATUS_SUCCESS);
    uint64_t count = 0;
    EXPECT_EQ(kr_soft_port_play(capture_port_1, &count), KR_STATUS_ERROR);
    EXPECT_EQ(count, 1U);
}

} // namespace
