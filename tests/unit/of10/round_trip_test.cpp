/*
 * What is written reads back equal: every sample, action lists in their order and number, long lists over several
 * parts, and whatever random damage to the samples still makes a message. What cannot be said leaves the buffer as it
 * was.
 */
#include "support.h"
#include "tests/support/test_seed.h"

#include <random>

namespace {

using namespace of10;
using namespace of10_test;

TEST(RoundTrip, EverySampleReadsBackEqual) {
    for (const sample &one : samples()) {
        SCOPED_TRACE(one.name);
        const bytes wire = encoded(one.message);
        EXPECT_EQ(message_size(wire), wire.size());
        EXPECT_TRUE(decoded(wire) == one.message) << dump(wire);
        EXPECT_EQ(wire[1], static_cast<uint8_t>(type_of(one.message.body)));
    }
}

TEST(RoundTrip, SamplesCoverEveryKind) {
    std::vector<int> messages(std::variant_size_v<message_body>), requests(std::variant_size_v<stats_request_body>),
        replies(std::variant_size_v<stats_reply_body>);
    for (const sample &one : samples()) {
        ++messages[one.message.body.index()];
        if (const auto *const request = std::get_if<stats_request>(&one.message.body))
            ++requests[request->body.index()];
        if (const auto *const reply = std::get_if<stats_reply>(&one.message.body))
            ++replies[reply->body.index()];
    }
    for (const auto &counts : {messages, requests, replies})
        EXPECT_EQ(std::count(counts.begin(), counts.end(), 0), 0);
}

TEST(RoundTrip, MessagesOfAStreamAreFoundOneBehindTheOther) {
    bytes stream;
    for (const sample &one : samples())
        ASSERT_TRUE(encode(stream, one.message));
    byte_view rest = stream;
    for (const sample &one : samples()) {
        SCOPED_TRACE(one.name);
        const size_t size = message_size(rest);
        ASSERT_GE(size, header_size);
        ASSERT_LE(size, rest.size());
        EXPECT_TRUE(decoded(rest.first(size)) == one.message);
        rest = rest.subspan(size);
    }
    EXPECT_TRUE(rest.empty());
}

TEST(RoundTrip, MessageSizeNeedsAHeader) {
    const bytes wire = hex("01 0e 12 34 00 00 00 00");
    for (size_t size = 0; size < header_size; ++size)
        EXPECT_EQ(message_size(byte_view(wire).first(size)), 0U);
    EXPECT_EQ(message_size(wire), 0x1234U);
    EXPECT_EQ(message_size(hex("01 00 ff ff (4)")), max_message_size);
    EXPECT_EQ(message_size(hex("01 00 00 08 (4)")), header_size);
    for (uint16_t length = 0; length < header_size; ++length) { // such a header is a message for itself
        bytes torn = wire;
        put16(torn, 2, length);
        EXPECT_EQ(message_size(torn), header_size);
        expect_error(torn, error_type::bad_request, bad_request::bad_len);
    }
}

/* Every port, a port twice, the same rewrite again: nothing is merged, sorted or dropped. */
TEST(RoundTrip, ActionListsKeepOrderAndNumber) {
    flow_mod flow;
    for (uint16_t port = 1; port <= 600; ++port)
        flow.actions.push_back(action_output{port, 0});
    for (uint16_t port = 600; port >= 1; --port)
        flow.actions.push_back(action_output{port, 0});
    flow.actions.push_back(action_set_vlan_vid{1});
    flow.actions.push_back(action_set_vlan_vid{1});
    flow.actions.push_back(action_output{1, 0});
    const message one{1, flow};
    EXPECT_TRUE(decoded(encoded(one)) == one);
    EXPECT_EQ(actions_size(flow.actions), 1203U * 8);
    EXPECT_EQ(encoded(one).size(), 72 + 1203U * 8);
}

TEST(RoundTrip, EncodeAppendsBehindWhatIsThere) {
    const bytes before = hex("aa bb cc");
    for (const sample &one : samples()) {
        bytes out = before;
        ASSERT_TRUE(encode(out, one.message));
        EXPECT_EQ(dump(byte_view(out).first(3)), dump(before));
        EXPECT_EQ(dump(byte_view(out).subspan(3)), dump(encoded(one.message))) << one.name;
    }
}

TEST(RoundTrip, PacketInFromAFrameElsewhereIsTheSameMessage) {
    packet_in one;
    one.buffer_id = 77;
    one.total_len = 1500;
    one.in_port = 3;
    one.reason = packet_in_reason::action;
    one.data = hex("01 02 03 04 05");
    bytes out;
    ASSERT_TRUE(encode_packet_in(out, 9, one, one.data));
    EXPECT_EQ(dump(out), dump(encoded({9, one})));
}

TEST(RoundTrip, EncodeOfARecordReadIsTheBytesRead) {
    for (const sample &one : samples()) {
        const bytes wire = encoded(one.message);
        EXPECT_EQ(dump(encoded(decoded(wire))), dump(wire)) << one.name;
    }
}

/* Random damage: what is still a message is the same message after another trip. */
TEST(RoundTrip, WhatIsReadFromDamagedBytesReadsBackEqual) {
    SCOPED_TRACE("KR_TEST_SEED=" + std::to_string(kr_test::test_seed()));
    std::mt19937_64 random(kr_test::test_seed());
    size_t read = 0, failed = 0;
    for (const sample &one : samples()) {
        const bytes whole = encoded(one.message);
        for (int round = 0; round < 400; ++round) {
            bytes wire = whole;
            for (uint64_t hits = 1 + random() % 4; hits > 0; --hits)
                wire[random() % wire.size()] = static_cast<uint8_t>(random());
            put16(wire, 2, static_cast<uint16_t>(wire.size()));
            const decode_result result = decode(wire);
            if (std::holds_alternative<decode_failure>(result)) {
                ++failed;
                continue;
            }
            ++read;
            const message &first = std::get<message>(result);
            ASSERT_TRUE(decoded(encoded(first)) == first) << one.name << dump(wire);
        }
    }
    EXPECT_GT(read, 1000U); // both happen often, or the test says little
    EXPECT_GT(failed, 1000U);
}

/* ---- What cannot be said ------------------------------------------------------------------------------------------
 */

void expect_unsaid(const message_body &body) {
    const bytes before = hex("01 02 03");
    bytes out = before;
    EXPECT_FALSE(encode(out, 1, body));
    EXPECT_EQ(dump(out), dump(before));
}

TEST(TooLong, WhatDoesNotFitIntoTheLengthIsRefusedWhole) {
    const auto fits_until = [](size_t room, auto make) {
        bytes out;
        EXPECT_TRUE(encode(out, 1, make(room)));
        EXPECT_TRUE(decoded(out) == (message{1, make(room)}));
        expect_unsaid(make(room + 1));
    };
    fits_until(0xffff - 8, [](size_t size) { return message_body(hello{1, bytes(size)}); });
    fits_until(0xffff - 8, [](size_t size) { return message_body(echo_reply{bytes(size)}); });
    fits_until(0xffff - 12, [](size_t size) { return message_body(error{1, 2, bytes(size)}); });
    fits_until(0xffff - 12, [](size_t size) { return message_body(vendor{1, bytes(size)}); });
    fits_until(0xffff - 16, [](size_t size) { return message_body(stats_reply{0, vendor_stats{1, bytes(size)}}); });
    fits_until(0xffff - 16, [](size_t size) { return message_body(packet_out{buffer_none, 1, {}, bytes(size)}); });
    fits_until((0xffff - 32) / 48, [](size_t count) {
        return message_body(features_reply{1, 2, 3, 4, 5, std::vector<phy_port>(count)});
    });
    fits_until((0xffff - 72) / 8, [](size_t count) {
        flow_mod flow;
        flow.actions.assign(count, action_output{1, 0});
        return message_body(flow);
    });
    fits_until((0xffff - 16) / 8, [](size_t count) {
        return message_body(queue_get_config_reply{1, std::vector<packet_queue>(count)});
    });
    fits_until(0xffff - 18, [](size_t size) {
        packet_in one;
        one.data.resize(size);
        return message_body(one);
    });
    bytes out = hex("01");
    EXPECT_FALSE(encode_packet_in(out, 1, {}, bytes(0xffff - 17)));
    EXPECT_EQ(out.size(), 1U);
}

TEST(TooLong, BodiesThatTheirHeadCannotDescribeAreRefused) {
    for (const size_t size : {1U, 7U, 9U, 65528U, 131072U})
        expect_unsaid(packet_out{1, 2, {action_output{3, 0}, action_vendor{1, bytes(size)}}, {}});
    for (const size_t size : {0U, 7U, 9U})
        expect_unsaid(queue_get_config_reply{1, {{2, {{queue_property_type::min_rate, bytes(size)}}}}});
    expect_unsaid(queue_get_config_reply{1, {{2, {{queue_property_type::none, bytes(65536)}}}}});
    expect_unsaid(stats_reply{0, std::vector{flow_stats{}, flow_stats{.actions = {action_vendor{1, bytes(3)}}}}});
}

/* ---- Statistics replies of several parts ---------------------------------------------------------------------------
 */

std::vector<message> parts_of(byte_view stream) {
    std::vector<message> parts;
    while (!stream.empty()) {
        const size_t size = message_size(stream);
        if (size == 0 || size > stream.size()) {
            ADD_FAILURE() << "torn at " << stream.size() << " bytes from the end";
            break;
        }
        parts.push_back(decoded(stream.first(size)));
        stream = stream.subspan(size);
    }
    return parts;
}

/* All entries of all parts, whose flags and transaction numbers must say that they belong together. */
template <typename entry>
std::vector<entry> entries_of(const std::vector<message> &parts, uint32_t xid, uint16_t flags) {
    std::vector<entry> all;
    for (const message &part : parts) {
        const auto &reply = std::get<stats_reply>(part.body);
        EXPECT_EQ(part.xid, xid);
        EXPECT_EQ(reply.flags, &part == &parts.back() ? flags : stats_reply_more);
        const auto &some = std::get<std::vector<entry>>(reply.body);
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

flow_stats numbered_flow(uint64_t number) {
    flow_stats one;
    one.cookie = number;
    one.actions.assign(number % 7, action_output{static_cast<uint16_t>(number), 0});
    return one;
}

TEST(Parts, ALongListIsSplitAndLosesNothing) {
    std::vector<flow_stats> flows;
    for (uint64_t number = 0; number < 5000; ++number)
        flows.push_back(numbered_flow(number));
    bytes out;
    ASSERT_TRUE(encode(out, 0x77, stats_reply{0, flows}));
    const std::vector<message> parts = parts_of(out);
    EXPECT_GE(parts.size(), 5000U * 88 / 65536);
    EXPECT_TRUE(entries_of<flow_stats>(parts, 0x77, 0) == flows);
}

TEST(Parts, TheRecordsFlagsAreThoseOfTheLastPart) {
    const std::vector<port_stats> ports(1000, port_stats{.port_no = 3, .collisions = 4});
    bytes out;
    ASSERT_TRUE(encode(out, 5, stats_reply{stats_reply_more, ports}));
    const std::vector<message> parts = parts_of(out);
    EXPECT_EQ(parts.size(), 2U); // 630 of them fill 65532 bytes
    EXPECT_TRUE(entries_of<port_stats>(parts, 5, stats_reply_more) == ports);
    EXPECT_EQ(std::get<std::vector<port_stats>>(std::get<stats_reply>(parts[0].body).body).size(), 630U);
}

template <typename entry> void expect_split_at(size_t per_part, stats_type type) {
    for (const size_t count : {per_part - 1, per_part, per_part + 1, 2 * per_part, 2 * per_part + 1}) {
        bytes out = hex("55");
        stats_reply_writer writer(out, 1, type);
        for (size_t i = 0; i < count; ++i)
            ASSERT_TRUE(writer.add(entry{}));
        writer.finish();
        const std::vector<message> parts = parts_of(byte_view(out).subspan(1));
        EXPECT_EQ(parts.size(), (count + per_part - 1) / per_part);
        EXPECT_EQ(entries_of<entry>(parts, 1, 0).size(), count);
    }
}

TEST(Parts, PartsAreFilledToTheLastEntryThatFits) {
    expect_split_at<flow_stats>((0xffff - 12) / 88, stats_type::flow);
    expect_split_at<table_stats>((0xffff - 12) / 64, stats_type::table);
    expect_split_at<port_stats>((0xffff - 12) / 104, stats_type::port);
    expect_split_at<queue_stats>((0xffff - 12) / 32, stats_type::queue);
}

TEST(Parts, AnEmptyListIsOnePart) {
    for (const auto type : {stats_type::flow, stats_type::table, stats_type::port, stats_type::queue}) {
        bytes out;
        stats_reply_writer(out, 1, type).finish();
        EXPECT_EQ(out.size(), 12U);
        EXPECT_TRUE(type_of(std::get<stats_reply>(decoded(out).body).body) == type);
    }
}

TEST(Parts, AnEntryThatIsTooLargeOrOfAnotherKindIsRefusedAndTheReplyGoesOn) {
    flow_stats large;
    large.actions.assign(max_actions_size / 8, action_output{1, 0});
    flow_stats too_large = large;
    too_large.actions.push_back(action_strip_vlan{});
    flow_stats torn;
    torn.actions.push_back(action_vendor{1, {1}});

    bytes out;
    stats_reply_writer writer(out, 3, stats_type::flow);
    ASSERT_TRUE(writer.add(numbered_flow(3)));
    const bytes before = out;
    EXPECT_FALSE(writer.add(too_large));
    EXPECT_FALSE(writer.add(torn));
    EXPECT_FALSE(writer.add(port_stats{}));
    EXPECT_FALSE(writer.add(table_stats{}));
    EXPECT_FALSE(writer.add(queue_stats{}));
    EXPECT_EQ(dump(out), dump(before));
    ASSERT_TRUE(writer.add(large));
    ASSERT_TRUE(writer.add(numbered_flow(4)));
    writer.finish();
    EXPECT_TRUE(entries_of<flow_stats>(parts_of(out), 3, 0) ==
                (std::vector{numbered_flow(3), large, numbered_flow(4)}));
}

/* ---- Errors to send
 * -------------------------------------------------------------------------------------------------- */

TEST(Errors, QuoteTheStartOfTheRequestUnderItsNumber) {
    for (const size_t size : {8U, 63U, 64U, 65U, 1000U}) {
        bytes request = encoded({0xabcd, echo_request{bytes(size - 8, 0x5a)}});
        bytes out;
        encode_error(out, request, error_type::port_mod_failed, port_mod_failed::bad_hw_addr);
        request.resize(std::min<size_t>(size, 64));
        EXPECT_TRUE(decoded(out) == (message{0xabcd, error{4, 1, request}}));
    }
    bytes out;
    encode_error(out, hex("01 0e 00"), error_type::bad_request, bad_request::bad_len);
    EXPECT_TRUE(decoded(out) == (message{0, error{1, 6, hex("01 0e 00")}}));
}

TEST(Errors, CarryATextInstead) {
    bytes out;
    encode_error_text(out, 7, error_type::hello_failed, hello_failed::eperm, "no");
    EXPECT_TRUE(decoded(out) == (message{7, error{0, 1, {'n', 'o'}}}));
    out.clear();
    encode_error_text(out, 7, error_type::hello_failed, hello_failed::eperm, std::string(70000, 'x'));
    EXPECT_EQ(std::get<error>(decoded(out).body).data.size(), 65535U - 12);
}

} // namespace
