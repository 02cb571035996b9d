/*
 * Another reader that nobody here wrote: ovs-ofctl prints the samples, and its text must tell every field where it was
 * put. Vendor messages and actions are left out: it refuses vendors that it does not know.
 */
#include "of10/text.h"
#include "peer_program.h"
#include "support.h"
#include "tests/support/test_seed.h"

#include <algorithm>
#include <random>

namespace {

using namespace of10;
using namespace of10_test;

void drop_vendor_actions(action_list &actions) {
    std::erase_if(actions, [](const action &one) { return type_of(one) == action_type::vendor; });
}

bool is_of_a_vendor(const message_body &body) {
    if (const auto *const request = std::get_if<stats_request>(&body))
        return type_of(request->body) == stats_type::vendor;
    if (const auto *const reply = std::get_if<stats_reply>(&body))
        return type_of(reply->body) == stats_type::vendor;
    return type_of(body) == message_type::vendor;
}

std::vector<message> messages_without_vendors() {
    std::vector<message> all;
    for (const sample &one : samples()) {
        if (is_of_a_vendor(one.message.body))
            continue;
        message &copy = all.emplace_back(one.message);
        if (auto *const out = std::get_if<packet_out>(&copy.body))
            drop_vendor_actions(out->actions);
        if (auto *const flow = std::get_if<flow_mod>(&copy.body))
            drop_vendor_actions(flow->actions);
        if (auto *const reply = std::get_if<stats_reply>(&copy.body))
            if (auto *const flows = std::get_if<std::vector<flow_stats>>(&reply->body))
                for (flow_stats &flow : *flows)
                    drop_vendor_actions(flow.actions);
    }
    return all;
}

std::string printed(const std::vector<message> &messages) {
    bytes stream;
    for (const message &one : messages)
        EXPECT_TRUE(encode(stream, one));
    const scratch_directory scratch;
    return output_of("ovs-ofctl -v -vconsole:off ofp-parse " + scratch.file("messages", stream));
}

#define BUSY_MATCH                                                                                                     \
    "tcp,in_port=258,dl_vlan=772,dl_vlan_pcp=5,dl_dst=21:22:23:24:25:26,nw_src=10.1.2.0/24,nw_dst=172.0.0.0/8,"        \
    "nw_tos=40,tp_src=12594,tp_dst=16706"
#define EVERY_ACTION                                                                                                   \
    "actions=output:258,mod_vlan_vid:2748,mod_vlan_pcp:6,strip_vlan,mod_dl_src:01:02:03:04:05:06,"                     \
    "mod_dl_dst:07:08:09:0a:0b:0c,mod_nw_src:10.11.12.13,mod_nw_dst:192.168.1.2,mod_nw_tos:184,mod_tp_src:8080,"       \
    "mod_tp_dst:80,enqueue:515:67438087,CONTROLLER:128"

constexpr const char *expected_texts[] = {
    "OFPT_ERROR (xid=0x3): OFPBAC_BAD_OUT_PORT\n",
    "OFPT_ERROR (xid=0x4): OFPHFC_INCOMPATIBLE\nno\n",
    "OFPT_ECHO_REQUEST (xid=0x5): 9 bytes of payload\n",
    "OFPT_ECHO_REPLY (xid=0x7): 10 bytes of payload\n",
    "OFPT_FEATURES_REQUEST (xid=0x9):",
    "OFPT_FEATURES_REPLY (xid=0xa): dpid:0102030405060708\nn_tables:2, n_buffers:286397204\n"
    "capabilities: FLOW_STATS TABLE_STATS PORT_STATS\n"
    "actions: output enqueue set_vlan_vid set_vlan_pcp strip_vlan mod_dl_src mod_dl_dst mod_nw_src mod_nw_dst "
    "mod_nw_tos mod_tp_src mod_tp_dst\n",
    " 2(port-2): addr:02:00:00:00:01:02\n     config:     NO_FLOOD NO_PACKET_IN\n",
    "     current:    1GB-FD COPPER\n     advertised: 1GB-FD AUTO_NEG\n     supported:  10GB-FD FIBER AUTO_PAUSE\n"
    "     peer:       100MB-FD AUTO_PAUSE_ASYM\n",
    "OFPT_GET_CONFIG_REQUEST (xid=0xc):",
    "OFPT_GET_CONFIG_REPLY (xid=0xd): frags=drop miss_send_len=258\n",
    "OFPT_SET_CONFIG (xid=0xe): frags=reassemble miss_send_len=772\n",
    "OFPT_PACKET_IN (xid=0xf): total_len=1286 in_port=7 (via action) data_len=42 buffer=0x01020304\narp,",
    "OFPT_FLOW_REMOVED (xid=0x10): priority=4370," BUSY_MATCH " reason=hard cookie:0x102030405060708 "
    "duration320083222.387455258s idle6940 pkts2387509390608836392 bytes3544952156018063160\n",
    "OFPT_PORT_STATUS (xid=0x11): DEL: 9(port-9): addr:02:00:00:00:01:09\n",
    "OFPT_PACKET_OUT (xid=0x12): in_port=1286 " EVERY_ACTION " buffer=0x41424344\n",
    "OFPT_PACKET_OUT (xid=0x13): in_port=ANY actions=output:3 data_len=42\narp,",
    "OFPT_PACKET_OUT (xid=0x14): in_port=4 actions=drop data_len=42\narp,",
    "OFPT_FLOW_MOD (xid=0x15): MOD_STRICT priority=25958," BUSY_MATCH
    " cookie:0x5152535455565758 idle:24930 hard:25444 "
    "buf:0x71727374 out_port:2057 send_flow_rem check_overlap " EVERY_ACTION "\n",
    "OFPT_FLOW_MOD (xid=0x16): DEL_STRICT priority=25958," BUSY_MATCH " cookie:0x5152535455565758 idle:24930 "
    "hard:25444 buf:0x71727374 out_port:2057 send_flow_rem check_overlap actions=drop\n",
    "OFPT_PORT_MOD (xid=0x17): port: 258: addr:03:04:05:06:07:08\n     config: 0\n     mask:   NO_RECV\n"
    "     advertise: 10MB-FD 100MB-FD FIBER AUTO_PAUSE_ASYM\n",
    "OFPT_BARRIER_REQUEST (xid=0x18):",
    "OFPT_BARRIER_REPLY (xid=0x19):",
    "OFPT_QUEUE_GET_CONFIG_REQUEST (xid=0x1a): port=258\n",
    "OFPT_QUEUE_GET_CONFIG_REPLY (xid=0x1b): port=772\nqueue 9:\nqueue 10:\nqueue 84281096: min_rate:50.0%\n",
    "OFPST_DESC request (xid=0x31):",
    "OFPST_FLOW request (xid=0x31): table=254 out_port=1800 " BUSY_MATCH "\n",
    "OFPST_AGGREGATE request (xid=0x31): table=253 out_port=2314 " BUSY_MATCH "\n",
    "OFPST_TABLE request (xid=0x31):",
    "OFPST_PORT request (xid=0x31): port_no=2828\n",
    "OFPST_QUEUE request (xid=0x31): port=3342 queue=252711186\n",
    "OFPST_DESC reply (xid=0x32):\nManufacturer: a maker\nHardware: a switch\nSoftware: a program\nSerial Num: 0001-x\n"
    "DP Description: the third from the left\n",
    " cookie=0x4142434445464748, duration=16909060.084281096s, table=1, n_packets=2387509390608836392, "
    "n_bytes=3544952156018063160, idle_timeout=4884, hard_timeout=5398, priority=4370," BUSY_MATCH " " EVERY_ACTION
    "\n",
    "OFPST_FLOW reply (xid=0x32): flags=[more]\n cookie=0x5,",
    " actions=FLOOD\n",
    "OFPST_AGGREGATE reply (xid=0x32): packet_count=72623859790382856 byte_count=1230066625199609624 "
    "flow_count=555885348\n",
    "  table 3 (\"acl\"):\n    active=12, lookup=3544952156018063160, matched=18446744073709551615\n    "
    "max_entries=1000\n",
    "  table 4 (\"next\"):\n    active=13, lookup=5, matched=6\n    max_entries=2000\n    matching:\n"
    "      exact match or wildcard: in_port\n",
    "OFPST_PORT reply (xid=0x32): 2 ports\n"
    "  port  1: rx pkts=2, bytes=4, drop=6, errs=8, frame=10, over=11, crc=12\n"
    "           tx pkts=3, bytes=5, drop=7, errs=9, coll=13\n"
    "  port LOCAL: rx pkts=102, bytes=104, drop=106, errs=108, frame=110, over=111, crc=112\n"
    "           tx pkts=103, bytes=105, drop=107, errs=109, coll=?\n",
    "OFPST_QUEUE reply (xid=0x32): 2 queues\n  port 1 queue 2: bytes=3, pkts=4, errors=5",
    "OFPST_QUEUE reply (xid=0x32): 0 queues\n",
};

TEST(Ofctl, PrintsEveryFieldOfEverySample) {
    const std::string text = printed(messages_without_vendors());
    EXPECT_EQ(text.find("decode error"), std::string::npos) << text;
    for (const char *const expected : expected_texts)
        EXPECT_NE(text.find(expected), std::string::npos) << "missing: " << expected;
    if (HasFailure())
        std::printf("%s", text.c_str());
}

/* Flow-mods at random: the texts that this codec makes for logs are the reader's own, word by word. */
TEST(Ofctl, AgreesAboutTheTextOfMatchesAndActions) {
    SCOPED_TRACE("KR_TEST_SEED=" + std::to_string(kr_test::test_seed()));
    std::mt19937_64 random(kr_test::test_seed());
    const auto number = [&](auto limit) { return static_cast<decltype(limit)>(random() % limit); };
    std::vector<message> flows;
    for (uint32_t xid = 1; xid <= 300; ++xid) {
        flow_mod &flow = std::get<flow_mod>(flows.emplace_back(message{xid, flow_mod{}}).body);
        flow.match = busy_match();
        flow.match.wildcards = static_cast<uint32_t>(random() & random());
        flow.match.in_port = static_cast<uint16_t>(1 + number(uint16_t{0xfeff}));
        flow.match.dl_vlan = number(uint16_t{4096});
        flow.match.dl_type = std::array<uint16_t, 4>{0x0800, 0x0800, 0x0806, 0x88cc}[number(size_t{4})];
        flow.match.nw_proto = std::array<uint8_t, 4>{1, 6, 17, 2}[number(size_t{4})];
        flow.match.nw_src = static_cast<uint32_t>(random());
        flow.match.nw_dst = static_cast<uint32_t>(random());
        flow.match.tp_src = number(uint16_t{256}); // as ICMP has them
        flow.match.tp_dst = number(uint16_t{256});
        flow.priority = static_cast<uint16_t>(1 + number(uint16_t{0x7fff}));
        flow.actions = every_action();
        std::shuffle(flow.actions.begin(), flow.actions.end(), random);
        flow.actions.resize(number(size_t{5}));
        drop_vendor_actions(flow.actions);
    }
    const std::string text = printed(flows);
    for (const message &one : flows) {
        const auto &flow = std::get<flow_mod>(one.body);
        std::ostringstream expected;
        const std::string match = to_string(flow.match);
        expected << "OFPT_FLOW_MOD (xid=0x" << std::hex << one.xid << "): ADD priority=" << std::dec << flow.priority
                 << (match.empty() ? "" : ",") << match << " actions=" << to_string(flow.actions) << "\n";
        EXPECT_NE(text.find(expected.str()), std::string::npos) << "missing: " << expected.str();
    }
    if (HasFailure())
        std::printf("%s", text.c_str());
}

/* The check can fail: a torn message is complained about. */
TEST(Ofctl, ComplainsAboutATornMessage) {
    bytes torn = encoded({1, flow_removed{}});
    torn.resize(80);
    put16(torn, 2, 80);
    const scratch_directory scratch;
    const std::string text = output_of("ovs-ofctl -v -vconsole:off ofp-parse " + scratch.file("torn", torn));
    EXPECT_NE(text.find("decode error"), std::string::npos) << text;
}

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    require_program("ovs-ofctl", "openvswitch-common");
    return RUN_ALL_TESTS();
}
