/*
 * The bodies of support.h: hexadecimal text, decoding with expectations, and the samples.
 */
#include "support.h"

#include <cctype>
#include <charconv>

namespace of10_test {

using namespace of10;

bytes hex(std::string_view text) {
    bytes out;
    while (!text.empty()) {
        if (std::isspace(static_cast<unsigned char>(text.front())) != 0) {
            text.remove_prefix(1);
            continue;
        }
        const bool zeros = text.front() == '(';
        unsigned value = 0;
        const char *const first = text.data() + (zeros ? 1 : 0);
        const char *const last = zeros ? text.data() + std::min(text.find(')'), text.size())
                                       : text.data() + std::min<size_t>(2, text.size());
        const auto [end, code] = std::from_chars(first, last, value, zeros ? 10 : 16);
        if (code != std::errc() || end != last) {
            ADD_FAILURE() << "not hexadecimal: " << text;
            return out;
        }
        out.insert(out.end(), zeros ? value : 1, zeros ? uint8_t{0} : static_cast<uint8_t>(value));
        text.remove_prefix(static_cast<size_t>(last - text.data()) + (zeros ? 1 : 0));
    }
    return out;
}

std::string dump(byte_view wire) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < wire.size(); ++i) {
        text += i % 16 == 0 ? '\n' : ' ';
        text += digits[wire[i] >> 4];
        text += digits[wire[i] & 15];
    }
    return text;
}

bytes encoded(const message &one) {
    bytes out;
    EXPECT_TRUE(encode(out, one));
    return out;
}

message decoded(byte_view wire) {
    decode_result result = decode(wire);
    if (const auto *const failure = std::get_if<decode_failure>(&result)) {
        ADD_FAILURE() << "refused: " << failure->reason << dump(wire);
        return {};
    }
    return std::get<message>(std::move(result));
}

decode_failure refused(byte_view wire) {
    decode_result result = decode(wire);
    if (std::holds_alternative<message>(result)) {
        ADD_FAILURE() << "not refused:" << dump(wire);
        return {};
    }
    return std::get<decode_failure>(std::move(result));
}

void expect_error(byte_view wire, error_type type, uint16_t code) {
    const decode_failure failure = refused(wire);
    EXPECT_EQ(failure.answer.type, static_cast<uint16_t>(type)) << failure.reason;
    EXPECT_EQ(failure.answer.code, code) << failure.reason;
    EXPECT_STRNE(failure.reason, "");
}

void put16(bytes &wire, size_t offset, uint16_t value) {
    wire.at(offset) = static_cast<uint8_t>(value >> 8);
    wire.at(offset + 1) = static_cast<uint8_t>(value);
}

flow_match busy_match() {
    return {.wildcards = wildcard::dl_src | 8u << wildcard::nw_src_shift | 24u << wildcard::nw_dst_shift,
            .in_port = 0x0102,
            .dl_src = {0x11, 0x12, 0x13, 0x14, 0x15, 0x16},
            .dl_dst = {0x21, 0x22, 0x23, 0x24, 0x25, 0x26},
            .dl_vlan = 0x0304,
            .dl_vlan_pcp = 5,
            .dl_type = 0x0800,
            .nw_tos = 0x28,
            .nw_proto = 6,
            .nw_src = 0x0a010200,
            .nw_dst = 0xac000000,
            .tp_src = 0x3132,
            .tp_dst = 0x4142};
}

action_list every_action() {
    return {action_output{0x0102, 0},
            action_set_vlan_vid{0x0abc},
            action_set_vlan_pcp{6},
            action_strip_vlan{},
            action_set_dl_src{{1, 2, 3, 4, 5, 6}},
            action_set_dl_dst{{7, 8, 9, 10, 11, 12}},
            action_set_nw_src{0x0a0b0c0d},
            action_set_nw_dst{0xc0a80102},
            action_set_nw_tos{0xb8},
            action_set_tp_src{0x1f90},
            action_set_tp_dst{0x0050},
            action_enqueue{0x0203, 0x04050607},
            action_vendor{0x00112233, {1, 2, 3, 4, 5, 6, 7, 8}},
            action_output{ports::controller, 0x0080}};
}

namespace {

bytes count_up(size_t size) {
    bytes out(size);
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<uint8_t>(i + 1);
    return out;
}

/* An Ethernet frame of which an analyser can make sense: broadcast ARP request. */
bytes arp_frame() {
    return hex("ff ff ff ff ff ff 02 00 00 00 00 01 08 06 00 01 08 00 06 04 00 01"
               "02 00 00 00 00 01 0a 00 00 01 00 00 00 00 00 00 0a 00 00 02");
}

phy_port busy_port(uint16_t number) {
    return {.port_no = number,
            .hw_addr = {2, 0, 0, 0, 1, static_cast<uint8_t>(number)},
            .name = "port-" + std::to_string(number),
            .config = port_config::no_flood | port_config::no_packet_in,
            .state = port_state::link_down | port_state::stp_block,
            .curr = port_feature::speed_1gb_fd | port_feature::copper,
            .advertised = port_feature::speed_1gb_fd | port_feature::autoneg,
            .supported = port_feature::speed_10gb_fd | port_feature::fiber | port_feature::pause,
            .peer = port_feature::speed_100mb_fd | port_feature::pause_asym};
}

flow_stats busy_flow(uint64_t cookie, action_list actions) {
    return {.table_id = 1,
            .match = busy_match(),
            .duration_sec = 0x01020304,
            .duration_nsec = 0x05060708,
            .priority = 0x1112,
            .idle_timeout = 0x1314,
            .hard_timeout = 0x1516,
            .cookie = cookie,
            .packet_count = 0x2122232425262728,
            .byte_count = 0x3132333435363738,
            .actions = std::move(actions)};
}

void add_statistics(std::vector<sample> &to) {
    const auto request = [&](std::string name, stats_request_body body) {
        to.push_back({"stats request, " + name, {0x31, stats_request{0, std::move(body)}}});
    };
    request("description", desc_stats_request{});
    request("flow", flow_stats_request{busy_match(), 0xfe, 0x0708});
    request("aggregate", aggregate_stats_request{busy_match(), 0xfd, 0x090a});
    request("table", table_stats_request{});
    request("port", port_stats_request{0x0b0c});
    request("queue", queue_stats_request{0x0d0e, 0x0f101112});
    request("vendor", vendor_stats{0x00123456, count_up(12)});

    const auto reply = [&](std::string name, stats_reply_body body, uint16_t flags = 0) {
        to.push_back({"stats reply, " + name, {0x32, stats_reply{flags, std::move(body)}}});
    };
    reply("description", desc_stats{"a maker", "a switch", "a program", "0001-x", "the third from the left"});
    reply("flow", std::vector{busy_flow(0x4142434445464748, every_action()), busy_flow(2, {}),
                              busy_flow(3, {action_output{7, 0}})});
    reply("flow, more", std::vector{busy_flow(5, {action_output{ports::flood, 0}})}, stats_reply_more);
    reply("flow, none", std::vector<flow_stats>{});
    reply("aggregate", aggregate_stats{0x0102030405060708, 0x1112131415161718, 0x21222324});
    reply("table", std::vector{table_stats{3, "acl", wildcard::all, 1000, 12, 0x3132333435363738, counter_unknown},
                               table_stats{4, "next", wildcard::in_port, 2000, 13, 5, 6}});
    reply("port",
          std::vector{port_stats{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13},
                      port_stats{0xfffe, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112, counter_unknown}});
    reply("queue", std::vector{queue_stats{1, 2, 3, 4, 5}, queue_stats{6, 7, 8, 9, 0xa0a1a2a3a4a5a6a7}});
    reply("queue, none", std::vector<queue_stats>{});
    reply("vendor", vendor_stats{0x00654321, count_up(4)});
}

} // namespace

std::vector<sample> samples() {
    flow_mod flow{.match = busy_match(),
                  .cookie = 0x5152535455565758,
                  .command = flow_mod_command::modify_strict,
                  .idle_timeout = 0x6162,
                  .hard_timeout = 0x6364,
                  .priority = 0x6566,
                  .buffer_id = 0x71727374,
                  .out_port = 0x0809,
                  .flags = flow_mod_flag::send_flow_rem | flow_mod_flag::check_overlap,
                  .actions = every_action()};
    flow_mod bare = flow;
    bare.actions.clear();
    bare.command = flow_mod_command::del_strict;
    packet_in seen;
    seen.buffer_id = 0x01020304;
    seen.total_len = 0x0506;
    seen.in_port = 0x0007;
    seen.reason = packet_in_reason::action;
    seen.data = arp_frame();

    std::vector<sample> all{
        {"hello", {1, hello{}}},
        {"hello of a newer peer", {2, hello{0x04, hex("00 01 00 08 00 00 00 12")}}},
        {"error", {3, error{2, 4, count_up(64)}}},
        {"error with a text", {4, error{0, 0, {'n', 'o'}}}},
        {"echo request", {5, echo_request{count_up(9)}}},
        {"echo request, empty", {6, echo_request{}}},
        {"echo reply", {7, echo_reply{count_up(10)}}},
        {"vendor", {8, vendor{0x00445566, count_up(8)}}},
        {"features request", {9, features_request{}}},
        {"features reply",
         {10, features_reply{0x0102030405060708,
                             0x11121314,
                             2,
                             capability::flow_stats | capability::table_stats | capability::port_stats,
                             0xfff,
                             {busy_port(1), busy_port(2), busy_port(0xfffe & 0xff)}}}},
        {"features reply, no ports", {11, features_reply{1, 2, 3, 4, 5, {}}}},
        {"get-config request", {12, get_config_request{}}},
        {"get-config reply", {13, get_config_reply{config_flag::frag_drop, 0x0102}}},
        {"set-config", {14, set_config{config_flag::frag_reasm, 0x0304}}},
        {"packet-in", {15, seen}},
        {"flow removed",
         {16, flow_removed{busy_match(), 0x0102030405060708, 0x1112, flow_removed_reason::hard_timeout, 0x13141516,
                           0x1718191a, 0x1b1c, 0x2122232425262728, 0x3132333435363738}}},
        {"port status", {17, port_status{port_reason::del, busy_port(9)}}},
        {"packet-out", {18, packet_out{0x41424344, 0x0506, every_action(), {}}}},
        {"packet-out with a frame", {19, packet_out{buffer_none, ports::none, {action_output{3, 0}}, arp_frame()}}},
        {"packet-out, no action", {20, packet_out{buffer_none, 4, {}, arp_frame()}}},
        {"flow-mod", {21, flow}},
        {"flow-mod, no action", {22, bare}},
        {"port-mod",
         {23, port_mod{0x0102, {3, 4, 5, 6, 7, 8}, port_config::port_down, port_config::no_recv, 0x0000090a}}},
        {"barrier request", {24, barrier_request{}}},
        {"barrier reply", {25, barrier_reply{}}},
        {"queue-get-config request", {26, queue_get_config_request{0x0102}}},
        {"queue-get-config reply",
         {27, queue_get_config_reply{0x0304,
                                     {{0x05060708, {{queue_property_type::min_rate, hex("01 f4 (6)")}}},
                                      {9, {}},
                                      {10, {{queue_property_type::none, {}}}}}}}},
        {"queue-get-config reply, no queue", {28, queue_get_config_reply{5, {}}}},
    };
    add_statistics(all);
    return all;
}

} // namespace of10_test
