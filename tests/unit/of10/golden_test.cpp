/*
 * Messages written down byte by byte from the protocol's tables, not from the codec: each is read into the record that
 * it says, and the record is written as exactly these bytes.
 */
#include "support.h"

#include <map>

namespace {

using namespace of10;
using of10_test::decoded;
using of10_test::dump;
using of10_test::encoded;
using of10_test::hex;

struct golden {
    const char *name;
    const char *wire;
    message record;
};

/* wildcards in_port | dl_src | dl_dst | dl_vlan | dl_vlan_pcp - dl_type | nw_tos nw_proto - nw_src nw_dst | tp */
#define TCP_MATCH                                                                                                      \
    "00 30 20 0e  00 01  (6)  (6)  00 00  00 00  08 00  00 06  00 00  0a 00 00 00  c0 a8 01 02  00 00  00 50 "

flow_match tcp_match() {
    flow_match match;
    /* dl_vlan, dl_src, dl_dst; 32 bits of nw_src; no bit of nw_dst; dl_vlan_pcp, nw_tos */
    match.wildcards = 0x0030200e;
    match.in_port = 1;
    match.dl_type = 0x0800;
    match.nw_proto = 6;
    match.nw_src = 0x0a000000;
    match.nw_dst = 0xc0a80102;
    match.tp_dst = 80;
    return match;
}

/* port_no hw_addr name[16] config state curr advertised supported peer */
#define PORT_ETH1                                                                                                      \
    "00 01  02 00 00 00 00 01  65 74 68 31 (12)  00 00 00 10  00 00 00 01 "                                            \
    "00 00 00 a0  00 00 02 a0  00 00 02 ff  00 00 00 00 "

phy_port port_eth1() {
    return {1, {2, 0, 0, 0, 0, 1}, "eth1", 0x10, 1, 0xa0, 0x2a0, 0x2ff, 0};
}

packet_in two_byte_packet_in() {
    packet_in one;
    one.buffer_id = 0x100;
    one.total_len = 60;
    one.in_port = 7;
    one.reason = packet_in_reason::action;
    one.data = {0xca, 0xfe};
    return one;
}

std::vector<golden> plain_goldens() {
    return {
        {"hello", "01 00 00 08 00 00 00 2a", {42, hello{}}},
        {"error", "01 01 00 0e 00 00 00 07  00 03 00 05  be ef", {7, error{3, 5, {0xbe, 0xef}}}},
        {"echo request", "01 02 00 0b 01 02 03 04  61 62 63", {0x01020304, echo_request{{'a', 'b', 'c'}}}},
        {"echo reply", "01 03 00 08 ff ff ff ff", {0xffffffff, echo_reply{}}},
        {"vendor", "01 04 00 0e 00 00 00 01  00 00 23 20  00 0a", {1, vendor{0x2320, {0, 10}}}},
        {"features request", "01 05 00 08 00 00 00 02", {2, features_request{}}},
        {"features reply",
         "01 06 00 50 00 00 00 02  00 00 02 00 00 00 00 01  00 00 01 00  01 (3)  00 00 00 87  00 00 08 0f " PORT_ETH1,
         {2, features_reply{0x0000020000000001, 256, 1, 0x87, 0x80f, {port_eth1()}}}},
        {"get-config request", "01 07 00 08 00 00 00 03", {3, get_config_request{}}},
        {"get-config reply", "01 08 00 0c 00 00 00 03  00 01 00 80", {3, get_config_reply{1, 128}}},
        {"set-config", "01 09 00 0c 00 00 00 04  00 02 ff ff", {4, set_config{2, 0xffff}}},
        {"packet-in", "01 0a 00 14 00 00 00 00  00 00 01 00  00 3c  00 07  01 00  ca fe", {0, two_byte_packet_in()}},
        {"flow removed",
         "01 0b 00 58 00 00 00 00 " TCP_MATCH "00 00 00 00 00 00 00 63  80 01  02 00  00 00 00 0a  3b 9a c9 ff "
         "00 1e  (2)  00 00 00 00 00 00 00 05  00 00 00 00 00 00 01 2c",
         {0, flow_removed{tcp_match(), 99, 0x8001, flow_removed_reason::del, 10, 999999999, 30, 5, 300}}},
        {"port status",
         "01 0c 00 40 00 00 00 00  02 (7) " PORT_ETH1,
         {0, port_status{port_reason::modify, port_eth1()}}},
        {"packet-out",
         "01 0d 00 1a 00 00 00 05  ff ff ff ff  ff ff  00 08  00 00 00 08 ff fb 00 00  de ad",
         {5, packet_out{0xffffffff, 0xffff, {action_output{0xfffb, 0}}, {0xde, 0xad}}}},
        {"flow-mod",
         "01 0e 00 50 00 00 00 06 " TCP_MATCH "01 02 03 04 05 06 07 08  00 00  00 0a  00 3c  80 00  ff ff ff ff  ff ff "
         "00 03  00 00 00 08 00 02 00 00",
         {6, flow_mod{tcp_match(),
                      0x0102030405060708,
                      flow_mod_command::add,
                      10,
                      60,
                      0x8000,
                      0xffffffff,
                      0xffff,
                      3,
                      {action_output{2, 0}}}}},
        {"flow-mod that deletes",
         "01 0e 00 48 00 00 00 06 " TCP_MATCH "(8)  00 03  00 00  00 00  00 07  ff ff ff ff  00 09  00 00",
         {6, flow_mod{tcp_match(), 0, flow_mod_command::del, 0, 0, 7, 0xffffffff, 9, 0, {}}}},
        {"port-mod",
         "01 0f 00 20 00 00 00 07  00 03  02 00 00 00 00 03  00 00 00 01  00 00 00 11  00 00 00 20  (4)",
         {7, port_mod{3, {2, 0, 0, 0, 0, 3}, 1, 0x11, 0x20}}},
        {"barrier request", "01 12 00 08 00 00 00 08", {8, barrier_request{}}},
        {"barrier reply", "01 13 00 08 00 00 00 08", {8, barrier_reply{}}},
        {"queue-get-config request", "01 14 00 0c 00 00 00 09  00 02 (2)", {9, queue_get_config_request{2}}},
        {"queue-get-config reply",
         "01 15 00 28 00 00 00 09  00 02 (6)  00 00 00 05 00 18 (2)  00 01 00 10 (4) 01 f4 (6)",
         {9,
          queue_get_config_reply{
              2, {packet_queue{5, {queue_property{queue_property_type::min_rate, hex("01 f4 (6)")}}}}}}},
    };
}

std::vector<golden> statistics_goldens() {
    return {
        {"description request", "01 10 00 0c 00 00 00 01  00 00 00 00", {1, stats_request{0, desc_stats_request{}}}},
        {"flow request",
         "01 10 00 38 00 00 00 01  00 01 00 00 " TCP_MATCH "ff 00 ff ff",
         {1, stats_request{0, flow_stats_request{tcp_match(), 0xff, 0xffff}}}},
        {"aggregate request",
         "01 10 00 38 00 00 00 01  00 02 00 00 " TCP_MATCH "00 00 00 03",
         {1, stats_request{0, aggregate_stats_request{tcp_match(), 0, 3}}}},
        {"table request", "01 10 00 0c 00 00 00 01  00 03 00 00", {1, stats_request{0, table_stats_request{}}}},
        {"port request",
         "01 10 00 14 00 00 00 01  00 04 00 00  ff ff (6)",
         {1, stats_request{0, port_stats_request{0xffff}}}},
        {"queue request",
         "01 10 00 14 00 00 00 01  00 05 00 00  ff fc (2) ff ff ff ff",
         {1, stats_request{0, queue_stats_request{0xfffc, 0xffffffff}}}},
        {"vendor request",
         "01 10 00 11 00 00 00 01  ff ff 00 00  00 00 23 20  09",
         {1, stats_request{0, vendor_stats{0x2320, {9}}}}},
        {"description reply",
         "01 11 04 2c 00 00 00 01  00 00 00 00  6d (255)  68 (255)  73 (255)  6e (31)  64 (255)",
         {1, stats_reply{0, desc_stats{"m", "h", "s", "n", "d"}}}},
        {"flow reply",
         "01 11 00 64 00 00 00 01  00 01 00 01  00 58 00 00 " TCP_MATCH "00 00 00 02  00 00 00 03  80 00  00 04  00 05 "
         "(6)  00 00 00 00 00 00 00 06  ff ff ff ff ff ff ff ff  00 00 00 00 00 00 00 08",
         {1, stats_reply{1, std::vector{flow_stats{0, tcp_match(), 2, 3, 0x8000, 4, 5, 6, counter_unknown, 8, {}}}}}},
        {"flow reply with actions",
         "01 11 00 74 00 00 00 01  00 01 00 00  00 68 01 00 " TCP_MATCH "(4)  (4)  00 01  00 00  00 00 (6)  (8) (8) (8)"
         "00 01 00 08 00 64 00 00  00 00 00 08 ff fd 00 80",
         {1,
          stats_reply{
              0,
              std::vector{flow_stats{
                  1, tcp_match(), 0, 0, 1, 0, 0, 0, 0, 0, {action_set_vlan_vid{100}, action_output{0xfffd, 128}}}}}}},
        {"aggregate reply",
         "01 11 00 24 00 00 00 01  00 02 00 00  00 00 00 00 00 00 00 01  00 00 00 00 00 00 00 02  00 00 00 03 (4)",
         {1, stats_reply{0, aggregate_stats{1, 2, 3}}}},
        {"table reply",
         "01 11 00 4c 00 00 00 01  00 03 00 00  02 (3)  61 63 6c (29)  00 3f ff ff  00 00 03 e8  00 00 00 04 "
         "00 00 00 00 00 00 00 05  00 00 00 00 00 00 00 06",
         {1, stats_reply{0, std::vector{table_stats{2, "acl", 0x3fffff, 1000, 4, 5, 6}}}}},
        {"port reply",
         "01 11 00 74 00 00 00 01  00 04 00 00  00 01 (6)  (7) 01 (7) 02 (7) 03 (7) 04 (7) 05 (7) 06 (7) 07 (7) 08"
         "(7) 09 (7) 0a (7) 0b (7) 0c",
         {1, stats_reply{0, std::vector{port_stats{1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}}}}},
        {"queue reply",
         "01 11 00 2c 00 00 00 01  00 05 00 00  00 01 (2)  00 00 00 02  (7) 03  (7) 04  (7) 05",
         {1, stats_reply{0, std::vector{queue_stats{1, 2, 3, 4, 5}}}}},
        {"vendor reply",
         "01 11 00 10 00 00 00 01  ff ff 00 00  00 00 23 20",
         {1, stats_reply{0, vendor_stats{0x2320, {}}}}},
    };
}

struct golden_action {
    const char *wire;
    action record;
};

std::vector<golden_action> action_goldens() {
    return {
        {"00 00 00 08 00 03 00 40", action_output{3, 64}},
        {"00 01 00 08 0f ff 00 00", action_set_vlan_vid{4095}},
        {"00 02 00 08 07 00 00 00", action_set_vlan_pcp{7}},
        {"00 03 00 08 00 00 00 00", action_strip_vlan{}},
        {"00 04 00 10 01 02 03 04 05 06 (6)", action_set_dl_src{{1, 2, 3, 4, 5, 6}}},
        {"00 05 00 10 01 02 03 04 05 06 (6)", action_set_dl_dst{{1, 2, 3, 4, 5, 6}}},
        {"00 06 00 08 0a 00 00 01", action_set_nw_src{0x0a000001}},
        {"00 07 00 08 0a 00 00 02", action_set_nw_dst{0x0a000002}},
        {"00 08 00 08 fc 00 00 00", action_set_nw_tos{0xfc}},
        {"00 09 00 08 1f 90 00 00", action_set_tp_src{8080}},
        {"00 0a 00 08 01 bb 00 00", action_set_tp_dst{443}},
        {"00 0b 00 10 00 01 (6) 00 00 00 02", action_enqueue{1, 2}},
        {"ff ff 00 08 00 00 23 20", action_vendor{0x2320, {}}},
        {"ff ff 00 10 00 00 23 20 01 02 03 04 05 06 07 08", action_vendor{0x2320, {1, 2, 3, 4, 5, 6, 7, 8}}},
    };
}

void expect_golden(const golden &one) {
    SCOPED_TRACE(one.name);
    const bytes wire = hex(one.wire);
    EXPECT_EQ(message_size(wire), wire.size());
    EXPECT_EQ(dump(encoded(one.record)), dump(wire));
    EXPECT_TRUE(decoded(wire) == one.record);
}

TEST(Golden, EveryMessageIsTheBytesOfTheProtocol) {
    for (const golden &one : plain_goldens())
        expect_golden(one);
}

TEST(Golden, EveryStatisticsMessageIsTheBytesOfTheProtocol) {
    for (const golden &one : statistics_goldens())
        expect_golden(one);
}

TEST(Golden, EveryActionIsTheBytesOfTheProtocol) {
    for (const golden_action &one : action_goldens()) {
        bytes wire = hex("01 0d 00 00 00 00 00 00 ff ff ff ff 00 01 00 00");
        const bytes tail = hex(one.wire);
        wire.insert(wire.end(), tail.begin(), tail.end());
        of10_test::put16(wire, 2, static_cast<uint16_t>(wire.size()));
        of10_test::put16(wire, 14, static_cast<uint16_t>(tail.size()));
        const message record{0, packet_out{buffer_none, 1, {one.record}, {}}};
        EXPECT_EQ(dump(encoded(record)), dump(wire));
        EXPECT_TRUE(decoded(wire) == record) << one.wire;
        EXPECT_EQ(actions_size({one.record}), tail.size());
        EXPECT_EQ(static_cast<uint16_t>(type_of(one.record)), tail[0] << 8 | tail[1]);
    }
}

/* The lists above leave nothing out. */
TEST(Golden, ListsAreComplete) {
    std::map<size_t, int> messages, requests, replies, actions;
    for (const golden &one : plain_goldens())
        ++messages[one.record.body.index()];
    for (const golden &one : statistics_goldens())
        if (const auto *const request = std::get_if<stats_request>(&one.record.body))
            ++requests[request->body.index()];
        else
            ++replies[std::get<stats_reply>(one.record.body).body.index()];
    for (const golden_action &one : action_goldens())
        ++actions[one.record.index()];
    EXPECT_EQ(messages.size() + 2,
              std::variant_size_v<message_body>); // the two of statistics are in a list of their own
    EXPECT_EQ(requests.size(), std::variant_size_v<stats_request_body>);
    EXPECT_EQ(replies.size(), std::variant_size_v<stats_reply_body>);
    EXPECT_EQ(actions.size(), std::variant_size_v<action>);
}

/* What a peer puts into padding does not matter. */
TEST(Golden, PaddingIsNotRead) {
    const bytes wire = hex("01 14 00 0c 00 00 00 09  00 02 ff ee");
    EXPECT_TRUE(decoded(wire) == (message{9, queue_get_config_request{2}}));
}

TEST(Golden, TextsEndAtTheirFirstNulAndAreCutToTheirField) {
    bytes wire = hex("01 0c 00 40 00 00 00 00  02 (7) " PORT_ETH1);
    std::copy_n("abc\0def-ghi-jkl!", 16, wire.begin() + 24);
    EXPECT_EQ(std::get<port_status>(decoded(wire).body).desc.name, "abc");
    std::copy_n("0123456789abcdef", 16, wire.begin() + 24); // no NUL at all
    const message cut = decoded(wire);
    EXPECT_EQ(std::get<port_status>(cut.body).desc.name, "0123456789abcde");
    EXPECT_TRUE(decoded(encoded(cut)) == cut);

    port_status long_name{port_reason::add, port_eth1()};
    long_name.desc.name = "a-name-that-is-too-long";
    const bytes written = encoded({1, long_name});
    EXPECT_EQ(std::string(written.begin() + 24, written.begin() + 40), std::string("a-name-that-is-\0", 16));
    long_name.desc.name = std::string("ab\0cd", 5);
    const bytes short_one = encoded({1, long_name});
    EXPECT_EQ(dump(byte_view(short_one).subspan(24, 16)), dump(hex("61 62 (14)")));
}

} // namespace
