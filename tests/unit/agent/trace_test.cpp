/*
 * The packet that a person writes, and what is said about each flow: which one it takes, and why not the others.
 */
#include "trace.h"

#include <cstdlib>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "frame.h"
#include "match.h"
#include "packet_text.h"

namespace agent {
namespace {

namespace wc = of10::wildcard;
using of10::flow_match;
using testing::ElementsAre;
using testing::HasSubstr;

flow_match parsed(const std::string &text) {
    const auto result = packet_parse(text);
    EXPECT_TRUE(std::holds_alternative<flow_match>(result)) << text << ": " << std::get<std::string>(result);
    return std::get<flow_match>(result);
}

std::string refused(const std::string &text) {
    const auto result = packet_parse(text);
    EXPECT_TRUE(std::holds_alternative<std::string>(result)) << text;
    return std::holds_alternative<std::string>(result) ? std::get<std::string>(result) : "";
}

TEST(packet_text, names_and_values) {
    const flow_match packet =
        parsed("in_port=0x8001, tcp,dl_src=02:00:00:00:00:0a dl_dst=ff:ff:ff:ff:ff:ff,dl_vlan=7,dl_vlan_pcp=3,"
               "nw_src=10.0.0.1,nw_dst=192.0.2.255,nw_tos=187,tp_src=65535,tp_dst=0x50");
    EXPECT_EQ(packet.wildcards, 0u);
    EXPECT_EQ(packet.in_port, 0x8001);
    EXPECT_EQ(packet.dl_src, (of10::mac_address{2, 0, 0, 0, 0, 10}));
    EXPECT_EQ(packet.dl_dst, (of10::mac_address{255, 255, 255, 255, 255, 255}));
    EXPECT_EQ(packet.dl_vlan, 7);
    EXPECT_EQ(packet.dl_vlan_pcp, 3);
    EXPECT_EQ(packet.dl_type, 0x0800);
    EXPECT_EQ(packet.nw_proto, 6);
    EXPECT_EQ(packet.nw_src, 0x0a000001u);
    EXPECT_EQ(packet.nw_dst, 0xc00002ffu);
    EXPECT_EQ(packet.nw_tos, 184); // the two low bits are no part of it
    EXPECT_EQ(packet.tp_src, 65535);
    EXPECT_EQ(packet.tp_dst, 80);
}

TEST(packet_text, what_is_not_given_is_zero_and_there_is_no_tag) {
    const flow_match packet = parsed("in_port=1,arp,arp_op=2,arp_spa=10.0.0.1,arp_tpa=10.0.0.2");
    EXPECT_EQ(packet.wildcards, wc::dl_vlan_pcp);
    EXPECT_EQ(packet.dl_vlan, of10::vlan_none);
    EXPECT_EQ(packet.dl_type, 0x0806);
    EXPECT_EQ(packet.nw_proto, 2);
    EXPECT_EQ(packet.nw_src, 0x0a000001u);
    EXPECT_EQ(packet.nw_dst, 0x0a000002u);
    EXPECT_EQ(packet.tp_src, 0);
    EXPECT_EQ(parsed("in_port=1,icmp,icmp_type=8,icmp_code=1").tp_src, 8);
    EXPECT_EQ(parsed("in_port=1,dl_vlan=none").dl_vlan, of10::vlan_none);
    EXPECT_EQ(parsed("in_port=1,dl_vlan_pcp=5").dl_vlan, 0); // a tag with a priority alone
    EXPECT_EQ(parsed(" in_port=1,,\tip ").dl_type, 0x0800);
}

TEST(packet_text, a_frame_is_read_as_the_switch_reads_it) {
    const std::string frame = "020000000002020000000001"
                              "8100600508004500001c000000004006000"
                              "00a0000010a0000021234005000000000";
    const flow_match packet = parsed("frame=" + frame + ",in_port=9");
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < frame.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(frame.substr(i, 2), nullptr, 16)));
    }
    EXPECT_EQ(packet, frame_match(bytes, 9));
    EXPECT_EQ(packet.dl_vlan, 5);
    EXPECT_EQ(packet.dl_vlan_pcp, 3);
    EXPECT_EQ(packet.tp_src, 0x1234);
}

TEST(packet_text, mistakes_are_named) {
    EXPECT_THAT(refused(""), HasSubstr("in_port is missing"));
    EXPECT_THAT(refused("tcp"), HasSubstr("in_port is missing"));
    EXPECT_THAT(refused("in_port=1,sctp"), HasSubstr("\"sctp\""));
    EXPECT_THAT(refused("in_port=1,nonsense=1"), HasSubstr("\"nonsense\""));
    for (const char *const wrong :
         {"in_port=65536", "in_port=", "in_port=-1", "in_port=1x", "in_port=0x", "in_port=1,dl_src=02:00:00:00:00",
          "in_port=1,dl_src=02-00-00-00-00-01", "in_port=1,dl_src=02:00:00:00:00:0g", "in_port=1,dl_vlan=4096",
          "in_port=1,dl_vlan_pcp=8", "in_port=1,nw_tos=256", "in_port=1,nw_proto=256", "in_port=1,nw_src=10.0.0",
          "in_port=1,nw_src=10.0.0.0/8", "in_port=1,icmp_type=256", "in_port=1,tp_dst=99999999999999999999"}) {
        EXPECT_THAT(refused(wrong), HasSubstr("expected")) << wrong;
    }
    for (const char *const wrong : {"", "00", "0", "zz", "0000000000000000000000000", "00000000000000000000000000z0"}) {
        EXPECT_THAT(refused(std::string("in_port=1,frame=") + wrong), HasSubstr("hexadecimal")) << wrong;
    }
    EXPECT_THAT(refused("in_port=1,tcp,frame=0000000000000000000000000000"), HasSubstr("only in_port"));
    EXPECT_THAT(refused("in_port=1,frame=" + std::string(2 * 10241, '0')), HasSubstr("10240"));
}

// Texts that are almost right: either fields or a reason, and nothing else.
TEST(packet_text, damaged_texts) {
    const std::string wholes[] = {
        "in_port=0x8001,tcp,dl_src=02:00:00:00:00:0a,dl_vlan=7,nw_src=10.0.0.1,tp_dst=80",
        "in_port=1 frame=0200000000020200000000010800450000",
    };
    const char *const given = std::getenv("KR_TEST_SEED");
    const auto seed = given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
    std::mt19937 random(seed);
    size_t refused_count = 0;
    for (int i = 0; i < 20000; i++) {
        const std::string &whole = wholes[random() % std::size(wholes)];
        std::string text = whole;
        for (unsigned j = 0; j < 1 + random() % 4 && !text.empty(); j++) {
            const size_t at = random() % text.size();
            switch (random() % 3) {
            case 0:
                text.erase(at, 1 + random() % 3);
                break;
            case 1:
                text[at] = static_cast<char>(random() % 256);
                break;
            default:
                text.insert(at, whole.substr(random() % whole.size(), random() % 8));
            }
        }
        const auto result = packet_parse(text);
        const auto *const why = std::get_if<std::string>(&result);
        refused_count += why != nullptr ? 1 : 0;
        ASSERT_TRUE(why == nullptr || !why->empty()) << "seed " << seed << ": " << text;
    }
    EXPECT_GT(refused_count, 0u);
    EXPECT_LT(refused_count, 20000u) << "seed " << seed;
}

struct wanted_flow {
    uint16_t priority;
    flow_match match;
    uint64_t rule;
};

class table_of_flows {
  public:
    flow &add(const wanted_flow &wanted) {
        auto one = std::make_unique<flow>();
        one->match = wanted.match;
        one->priority = wanted.priority;
        one->rule.id = wanted.rule;
        return table_.insert(std::move(one));
    }
    std::vector<std::pair<uint64_t, trace_verdict>> verdicts(const flow_match &packet) const {
        std::vector<std::pair<uint64_t, trace_verdict>> all;
        for (const trace_step &step :
             trace(table_, packet, [](const flow &one) { return static_cast<uint32_t>(one.rule.id); })) {
            all.emplace_back(step.one->rule.id, step.verdict);
            // What is said to differ does, and nothing else is said to.
            EXPECT_EQ(step.reason.empty(), match_covers(step.one->key, packet));
        }
        return all;
    }

  private:
    flow_table table_;
};

flow_match any() {
    flow_match match;
    match.wildcards = wc::all;
    return match;
}

flow_match of_port(uint16_t port) {
    flow_match match = any();
    match.wildcards &= ~wc::in_port;
    match.in_port = port;
    return match;
}

TEST(trace, the_highest_that_matches_is_taken) {
    table_of_flows flows;
    flows.add({1, any(), 30});
    flows.add({7, of_port(1), 20});
    flows.add({9, of_port(2), 10});
    EXPECT_THAT(flows.verdicts(parsed("in_port=1")),
                ElementsAre(std::pair(10, trace_verdict::differs), std::pair(20, trace_verdict::taken),
                            std::pair(30, trace_verdict::hidden)));
    EXPECT_THAT(flows.verdicts(parsed("in_port=3")),
                ElementsAre(std::pair(10, trace_verdict::differs), std::pair(20, trace_verdict::differs),
                            std::pair(30, trace_verdict::taken)));
}

TEST(trace, of_the_same_priority_the_lower_place_is_taken) {
    table_of_flows flows;
    flow_match tcp = any();
    tcp.wildcards &= ~wc::dl_type;
    tcp.dl_type = 0x0800;
    flows.add({5, of_port(1), 8});
    flows.add({5, tcp, 4});
    EXPECT_THAT(flows.verdicts(parsed("in_port=1,ip")),
                ElementsAre(std::pair(4, trace_verdict::taken), std::pair(8, trace_verdict::hidden)));
}

TEST(trace, a_flow_without_a_rule_decides_nothing) {
    table_of_flows flows;
    flows.add({5, of_port(1), 0});
    flows.add({4, any(), 1});
    EXPECT_THAT(flows.verdicts(parsed("in_port=1")),
                ElementsAre(std::pair(0, trace_verdict::absent), std::pair(1, trace_verdict::taken)));
}

TEST(trace, a_match_without_wildcards_goes_first) {
    table_of_flows flows;
    flow_match exact = parsed("in_port=1,tcp,dl_vlan=0");
    flows.add({0, exact, 2});
    flows.add({65535, any(), 1});
    EXPECT_THAT(flows.verdicts(exact),
                ElementsAre(std::pair(2, trace_verdict::taken), std::pair(1, trace_verdict::hidden)));
}

TEST(trace, every_field_that_differs_is_named) {
    struct row {
        const char *flow, *packet, *difference;
    };
    // An exact match from a packet, beside another packet.
    constexpr row rows[] = {
        {"in_port=1", "in_port=2", "in_port is 2, not 1"},
        {"in_port=1,dl_src=02:00:00:00:00:01", "in_port=1", "dl_src is 00:00:00:00:00:00, not 02:00:00:00:00:01"},
        {"in_port=1,dl_vlan=3", "in_port=1", "dl_vlan is none, not 3; dl_vlan_pcp is none, not 0"},
        {"in_port=1", "in_port=1,dl_vlan=3", "dl_vlan is 3, not none"},
        {"in_port=1,arp,arp_op=1,arp_tpa=10.0.0.1", "in_port=1,arp,arp_op=2,arp_tpa=10.0.0.2",
         "arp_tpa is 10.0.0.2, not 10.0.0.1; arp_op is 2, not 1"},
        {"in_port=1,icmp,icmp_type=8", "in_port=1,icmp,icmp_type=0", "icmp_type is 0, not 8"},
        {"in_port=1,udp,tp_dst=53,nw_tos=4", "in_port=1,tcp,tp_dst=80",
         "nw_proto is 6, not 17; nw_tos is 0, not 4; tp_dst is 80, not 53"},
    };
    for (const row &one : rows) {
        EXPECT_EQ(match_difference(of10::match_normalize(parsed(one.flow)), parsed(one.packet)), one.difference);
        EXPECT_EQ(match_difference(of10::match_normalize(parsed(one.flow)), parsed(one.flow)), "");
    }
    flow_match prefix = any();
    prefix.wildcards = (wc::all & ~wc::dl_type & ~wc::nw_dst_bits) | 24u << wc::nw_dst_shift;
    prefix.dl_type = 0x0800;
    prefix.nw_dst = 0x0a000000;
    EXPECT_EQ(match_difference(of10::match_normalize(prefix), parsed("in_port=1,ip,nw_dst=11.0.0.1")),
              "nw_dst is 11.0.0.1, not 10.0.0.0/8");
}

} // namespace
} // namespace agent
