/*
 * Texts of records, word by word.
 */
#include "of10/text.h"
#include "support.h"

namespace {

using namespace of10;
using namespace of10_test;

TEST(Text, Names) {
    EXPECT_EQ(message_name(message_type::hello), "OFPT_HELLO");
    EXPECT_EQ(message_name(message_type::flow_mod), "OFPT_FLOW_MOD");
    EXPECT_EQ(message_name(message_type::queue_get_config_reply), "OFPT_QUEUE_GET_CONFIG_REPLY");
    EXPECT_EQ(message_name(22), "type 22");
    EXPECT_EQ(error_name(0, 0), "OFPHFC_INCOMPATIBLE");
    EXPECT_EQ(error_name(1, 6), "OFPBRC_BAD_LEN");
    EXPECT_EQ(error_name(2, 4), "OFPBAC_BAD_OUT_PORT");
    EXPECT_EQ(error_name(3, 0), "OFPFMFC_ALL_TABLES_FULL");
    EXPECT_EQ(error_name(4, 1), "OFPPMFC_BAD_HW_ADDR");
    EXPECT_EQ(error_name(5, 2), "OFPQOFC_EPERM");
    EXPECT_EQ(error_name(3, 6), "error 3/6");
    EXPECT_EQ(port_name(1), "1");
    EXPECT_EQ(port_name(0xff00), "65280");
    EXPECT_EQ(port_name(0xfff8), "IN_PORT");
    EXPECT_EQ(port_name(0xfffd), "CONTROLLER");
    EXPECT_EQ(port_name(0xffff), "NONE");
    EXPECT_EQ(mac_name({0, 1, 0x0a, 0xa0, 0xff, 0x10}), "00:01:0a:a0:ff:10");
    EXPECT_EQ(ipv4_name(0xc0a800fe), "192.168.0.254");
}

constexpr uint32_t only(uint32_t fixed) {
    return wildcard::all & ~fixed;
}

flow_match typed(uint32_t fixed, uint16_t type, uint8_t protocol) {
    flow_match match;
    match.wildcards = only(fixed | wildcard::dl_type | wildcard::nw_proto);
    match.dl_type = type;
    match.nw_proto = protocol;
    match.nw_tos = 0x28;
    match.nw_src = 0x0a010203;
    match.nw_dst = 0xac100001;
    match.tp_src = 8;
    match.tp_dst = 3;
    return match;
}

TEST(Text, Matches) {
    EXPECT_EQ(to_string(flow_match()), "");
    EXPECT_EQ(
        to_string(busy_match()),
        "tcp,in_port=258,dl_vlan=772,dl_vlan_pcp=5,dl_dst=21:22:23:24:25:26,nw_src=10.1.2.0/24,nw_dst=172.0.0.0/8,"
        "nw_tos=40,tp_src=12594,tp_dst=16706");
    EXPECT_EQ(to_string(typed(0, 0x0800, 17)), "udp");
    EXPECT_EQ(to_string(typed(wildcard::tp_src | wildcard::tp_dst, 0x0800, 1)), "icmp,icmp_type=8,icmp_code=3");
    EXPECT_EQ(to_string(typed(wildcard::nw_src_bits | wildcard::nw_dst_bits | wildcard::tp_src, 0x0800, 89)),
              "ip,nw_src=10.1.2.3,nw_dst=172.16.0.1,nw_proto=89");
    EXPECT_EQ(to_string(typed(wildcard::nw_src_bits | wildcard::nw_dst_bits | wildcard::nw_tos, 0x0806, 2)),
              "arp,arp_spa=10.1.2.3,arp_tpa=172.16.0.1,arp_op=2");
    EXPECT_EQ(to_string(typed(wildcard::tp_src, 0x88cc, 6)), "dl_type=0x88cc");
    flow_match match;
    match.wildcards = only(wildcard::dl_vlan | wildcard::dl_vlan_pcp | wildcard::in_port);
    match.dl_vlan = vlan_none;
    match.in_port = ports::local;
    EXPECT_EQ(to_string(match), "in_port=LOCAL,dl_vlan=0xffff");
}

TEST(Text, Actions) {
    EXPECT_EQ(to_string(action_list{}), "drop");
    EXPECT_EQ(
        to_string(every_action()),
        "output:258,mod_vlan_vid:2748,mod_vlan_pcp:6,strip_vlan,mod_dl_src:01:02:03:04:05:06,"
        "mod_dl_dst:07:08:09:0a:0b:0c,mod_nw_src:10.11.12.13,mod_nw_dst:192.168.1.2,mod_nw_tos:184,mod_tp_src:8080,"
        "mod_tp_dst:80,enqueue:515:67438087,vendor:0x112233(8 bytes),CONTROLLER:128");
    EXPECT_EQ(to_string(action_list{action_output{ports::in_port, 0}, action_output{ports::flood, 9},
                                    action_output{ports::all, 0}, action_output{ports::normal, 0}}),
              "IN_PORT,FLOOD,ALL,NORMAL");
}

TEST(Text, Flows) {
    flow_mod flow;
    EXPECT_EQ(to_string(flow), "add cookie=0x0, priority=32768 actions=drop");
    flow = {busy_match(), 0xab, flow_mod_command::del_strict, 10, 20, 7, 5, 6, 7, {action_output{2, 0}}};
    EXPECT_EQ(to_string(flow),
              "delete_strict cookie=0xab, idle_timeout=10, hard_timeout=20, buffer=0x5, out_port=6, send_flow_rem, "
              "check_overlap, emerg, priority=7," +
                  to_string(busy_match()) + " actions=output:2");
    flow_stats stats{1, {}, 3, 40000000, 5, 0, 60, 0x1f, 6, counter_unknown, {action_output{3, 0}}};
    EXPECT_EQ(to_string(stats), "cookie=0x1f, duration=3.040000000s, table=1, n_packets=6, n_bytes=?, hard_timeout=60, "
                                "priority=5 actions=output:3");
    flow_removed removed{{}, 2, 9, flow_removed_reason::hard_timeout, 1, 5, 30, 7, 8};
    EXPECT_EQ(to_string(removed), "cookie=0x2, reason=hard, duration=1.000000005s, n_packets=7, n_bytes=8, "
                                  "idle_timeout=30, priority=9");
}

} // namespace
