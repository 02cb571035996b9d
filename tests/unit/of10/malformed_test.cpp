/*
 * What is not a message of the protocol, and the error each kind deserves: every sample cut at every length, every
 * length field with other values, and every number that the protocol does not have.
 */
#include "support.h"

#include <functional>
#include <set>

namespace {

using namespace of10;
using namespace of10_test;

constexpr size_t packet_out_head = 16, flow_mod_head = 72, stats_head = 12, flow_stats_head = 88;

/* ---- Cut at every length --------------------------------------------------------------------------------------------
 */

/* The lengths at which an action list ends between two actions, counted from its first byte. */
std::set<size_t> action_ends(const action_list &actions) {
    std::set<size_t> ends{0};
    action_list some;
    for (const action &one : actions) {
        some.push_back(one);
        ends.insert(actions_size(some));
    }
    return ends;
}

std::set<size_t> shifted(const std::set<size_t> &from, size_t by) {
    std::set<size_t> to;
    for (const size_t one : from)
        to.insert(one + by);
    return to;
}

/* Lengths at which what is left of a sample is a message again; `any_from` says: this and all above. */
struct cut_points {
    std::set<size_t> exact;
    size_t any_from = SIZE_MAX;

    bool allows(size_t size) const {
        return size >= any_from || exact.count(size) != 0;
    }
};

cut_points every(size_t head, size_t step, size_t end) {
    cut_points points;
    for (size_t size = head; size <= end; size += step)
        points.exact.insert(size);
    return points;
}

/* The tables of the protocol once more, by hand: sizes of fixed parts and of what may follow. */
cut_points cut_points_of(const stats_reply &reply) {
    switch (type_of(reply.body)) {
    case stats_type::desc:
        return {{1068}};
    case stats_type::flow: {
        cut_points points{{stats_head}};
        size_t end = stats_head;
        for (const flow_stats &flow : std::get<std::vector<flow_stats>>(reply.body))
            points.exact.insert(end += flow_stats_head + actions_size(flow.actions));
        return points;
    }
    case stats_type::aggregate:
        return {{36}};
    case stats_type::table:
        return every(stats_head, 64, 1000);
    case stats_type::port:
        return every(stats_head, 104, 1000);
    case stats_type::queue:
        return every(stats_head, 32, 1000);
    case stats_type::vendor:
        return {{}, 16};
    }
    return {};
}

cut_points cut_points_of(const message_body &body) {
    switch (type_of(body)) {
    case message_type::hello:
    case message_type::echo_request:
    case message_type::echo_reply:
        return {{}, 8};
    case message_type::error:
    case message_type::vendor:
        return {{}, 12};
    case message_type::features_request:
    case message_type::get_config_request:
    case message_type::barrier_request:
    case message_type::barrier_reply:
        return {{8}};
    case message_type::features_reply:
        return every(32, 48, 1000);
    case message_type::get_config_reply:
    case message_type::set_config:
    case message_type::queue_get_config_request:
        return {{12}};
    case message_type::packet_in:
        return {{}, 18};
    case message_type::flow_removed:
        return {{88}};
    case message_type::port_status:
        return {{64}};
    case message_type::packet_out:
        return {{}, packet_out_head + actions_size(std::get<packet_out>(body).actions)};
    case message_type::flow_mod:
        return {shifted(action_ends(std::get<flow_mod>(body).actions), flow_mod_head)};
    case message_type::port_mod:
        return {{32}};
    case message_type::stats_request:
        switch (type_of(std::get<stats_request>(body).body)) {
        case stats_type::desc:
        case stats_type::table:
            return {{12}};
        case stats_type::flow:
        case stats_type::aggregate:
            return {{56}};
        case stats_type::port:
        case stats_type::queue:
            return {{20}};
        case stats_type::vendor:
            return {{}, 16};
        }
        return {};
    case message_type::stats_reply:
        return cut_points_of(std::get<stats_reply>(body));
    case message_type::queue_get_config_reply:
        return {{16, 16 + 24, 16 + 24 + 8, 16 + 24 + 8 + 16}}; // the queues of the samples
    }
    return {};
}

/* Cut inside an action, at a multiple of eight: the action is at fault, and not the message's length. */
bool is_cut_in_action(const message_body &body, size_t size) {
    return type_of(body) == message_type::flow_mod && size > flow_mod_head && (size - flow_mod_head) % 8 == 0;
}

TEST(Malformed, EverySampleCutAtEveryLength) {
    for (const sample &one : samples()) {
        const bytes whole = encoded(one.message);
        const cut_points points = cut_points_of(one.message.body);
        ASSERT_TRUE(points.allows(whole.size())) << one.name;
        for (size_t size = 0; size < whole.size(); ++size) {
            SCOPED_TRACE(one.name + " cut to " + std::to_string(size));
            bytes wire(whole.begin(), whole.begin() + static_cast<bytes::difference_type>(size));
            expect_error(wire, error_type::bad_request, bad_request::bad_len); // the header tells of more
            if (size < header_size)
                continue;
            put16(wire, 2, static_cast<uint16_t>(size));
            if (points.allows(size))
                EXPECT_EQ(dump(encoded(decoded(wire))), dump(wire));
            else if (is_cut_in_action(one.message.body, size))
                expect_error(wire, error_type::bad_action, bad_action::bad_len);
            else
                expect_error(wire, error_type::bad_request, bad_request::bad_len);
        }
    }
}

/* One to eight bytes too many. */
TEST(Malformed, EverySampleWithBytesBehindIt) {
    for (const sample &one : samples()) {
        bytes wire = encoded(one.message);
        const cut_points points = cut_points_of(one.message.body);
        for (int more = 0; more < 7; ++more) {
            wire.push_back(0x7f);
            expect_error(wire, error_type::bad_request, bad_request::bad_len); // the header tells of less
            put16(wire, 2, static_cast<uint16_t>(wire.size()));
            SCOPED_TRACE(one.name + " with " + std::to_string(more + 1) + " more");
            if (points.allows(wire.size()))
                EXPECT_EQ(dump(encoded(decoded(wire))), dump(wire));
            else
                expect_error(wire, error_type::bad_request, bad_request::bad_len);
        }
    }
}

/* ---- Every length field
 * ----------------------------------------------------------------------------------------------- */

/* Calls `check` with every other value from 0 to 600, and large ones. */
void with_other_lengths(const bytes &wire, size_t offset, const std::function<void(const bytes &, size_t)> &check) {
    const size_t right = static_cast<size_t>(wire.at(offset) << 8 | wire.at(offset + 1));
    std::vector<size_t> values{0x7fff, 0x8000, 0xfff0, 0xfff8, 0xfffe, 0xffff};
    for (size_t value = 0; value <= 600; ++value)
        values.push_back(value);
    for (const size_t value : values) {
        if (value == right)
            continue;
        bytes changed = wire;
        put16(changed, offset, static_cast<uint16_t>(value));
        SCOPED_TRACE("length field at " + std::to_string(offset) + " says " + std::to_string(value));
        check(changed, value);
    }
}

TEST(Malformed, LengthInTheHeader) {
    for (const sample &one : samples()) {
        SCOPED_TRACE(one.name);
        with_other_lengths(encoded(one.message), 2, [](const bytes &wire, size_t) {
            expect_error(wire, error_type::bad_request, bad_request::bad_len);
        });
    }
}

/* An action's length is that of its type. */
TEST(Malformed, LengthOfAnAction) {
    size_t offset = flow_mod_head;
    const bytes wire = encoded({1, flow_mod{.actions = every_action()}});
    for (const action &one : every_action()) {
        const size_t left = wire.size() - offset;
        with_other_lengths(wire, offset + 2, [&](const bytes &changed, size_t value) {
            const bool may_be_vendor = type_of(one) == action_type::vendor && value >= 8 && value % 8 == 0;
            if (!may_be_vendor || value > left)
                expect_error(changed, error_type::bad_action, bad_action::bad_len);
        });
        offset += actions_size({one});
    }
    EXPECT_EQ(offset, wire.size());
}

/* A vendor action may be longer: it takes what follows with it. Shorter, it leaves bytes that are no action. */
TEST(Malformed, LengthOfAVendorAction) {
    bytes wire = encoded({1, flow_mod{.actions = {action_vendor{9, hex("77 77 (6)")}, action_output{1, 2}}}});
    put16(wire, flow_mod_head + 2, 24);
    EXPECT_TRUE(decoded(wire) ==
                (message{1, flow_mod{.actions = {action_vendor{9, hex("77 77 (6) 00 00 00 08 00 01 00 02")}}}}));
    put16(wire, flow_mod_head + 2, 8);
    expect_error(wire, error_type::bad_action, bad_action::bad_len); // 0x7777, of length zero
}

TEST(Malformed, LengthOfAPacketOutsActions) {
    const action_list actions = every_action();
    const bytes wire = encoded({1, packet_out{buffer_none, 1, actions, bytes(40, 0xee)}});
    const std::set<size_t> ends = action_ends(actions);
    with_other_lengths(wire, 14, [&](const bytes &changed, size_t value) {
        if (value % 8 != 0 || value > wire.size() - packet_out_head)
            expect_error(changed, error_type::bad_request, bad_request::bad_len);
        else if (ends.count(value) != 0)
            EXPECT_EQ(std::get<packet_out>(decoded(changed).body).data.size(), wire.size() - packet_out_head - value);
        else
            expect_error(changed, error_type::bad_action, bad_action::bad_len); // inside an action, or of the data
    });
}

TEST(Malformed, LengthOfAFlowStatisticsEntry) {
    flow_stats flow;
    flow.actions = {action_output{1, 0}, action_set_dl_src{{1, 2, 3, 4, 5, 6}}};
    const bytes wire = encoded({1, stats_reply{0, std::vector{flow}}});
    with_other_lengths(wire, stats_head, [&](const bytes &changed, size_t value) {
        const bool in_action = value == flow_stats_head + 16; // half of the second action
        if (in_action)
            expect_error(changed, error_type::bad_action, bad_action::bad_len);
        else
            expect_error(changed, error_type::bad_request, bad_request::bad_len); // also for what is left behind it
    });
    const bytes bad_action_length = [&] {
        bytes changed = wire;
        put16(changed, stats_head + flow_stats_head + 2, 16);
        return changed;
    }();
    expect_error(bad_action_length, error_type::bad_action, bad_action::bad_len);
}

TEST(Malformed, LengthOfAQueueAndOfItsProperty) {
    const queue_property rate{queue_property_type::min_rate, hex("00 64 (6)")};
    const bytes wire = encoded({1, queue_get_config_reply{1, {{2, {rate}}}}});
    const auto always_refused = [](const bytes &changed, size_t) {
        expect_error(changed, error_type::bad_request, bad_request::bad_len);
    };
    with_other_lengths(wire, 16 + 4, always_refused); // 8: the property reads like a queue, whose length is 0
    with_other_lengths(wire, 16 + 8 + 2, always_refused);
}

TEST(Malformed, LengthOfAMinimumRateIsFixed) {
    decoded(hex("01 15 00 28 (4)  00 01 (6)  00 00 00 02 00 18 (2)  00 01 00 10 (4) 00 64 (6)"));
    for (const char *const wire : {"01 15 00 20 (4)  00 01 (6)  00 00 00 02 00 10 (2)  00 01 00 08 (4)",
                                   "01 15 00 30 (4)  00 01 (6)  00 00 00 02 00 20 (2)  00 01 00 18 (4) 00 64 (14)"})
        expect_error(hex(wire), error_type::bad_request, bad_request::bad_len);
    decoded(hex("01 15 00 20 (4)  00 01 (6)  00 00 00 02 00 10 (2)  00 00 00 08 (4)")); // no property: as it comes
}

/* ---- Numbers that the protocol does not have
 * ---------------------------------------------------------------------------- */

TEST(Malformed, OtherVersions) {
    for (const sample &one : samples()) {
        if (type_of(one.message.body) == message_type::hello)
            continue;
        for (unsigned version = 0; version < 256; ++version) {
            bytes wire = encoded(one.message);
            wire[0] = static_cast<uint8_t>(version);
            if (version != protocol_version)
                expect_error(wire, error_type::bad_request, bad_request::bad_version);
        }
    }
}

TEST(Malformed, HelloOfAVersionThatDoesNotNegotiateToOurs) {
    const bytes old = hex("00 00 00 08 00 00 00 05");
    expect_error(old, error_type::hello_failed, hello_failed::incompatible);
    const decode_failure failure = refused(old);
    EXPECT_EQ(failure.xid, 5U);
    EXPECT_TRUE(failure.answer_is_due);
    EXPECT_EQ(std::string(failure.answer.data.begin(), failure.answer.data.end()),
              "Only OpenFlow version 0x01 is spoken here.");

    for (const char *const taken : {
             "02 00 00 08 00 00 00 05",                          // the lower of both is spoken: ours
             "ff 00 00 08 00 00 00 05",                          //
             "04 00 00 10 00 00 00 05  00 01 00 08 00 00 00 12", // 1.0 and 1.3
             "04 00 00 18 00 00 00 05  00 07 00 06 aa bb (2) 00 01 00 08 00 00 00 02", // behind another element
             "04 00 00 0a 00 00 00 05  00 01",                                         // elements that say nothing
             "04 00 00 0c 00 00 00 05  00 01 00 04",                                   //
             "04 00 00 10 00 00 00 05  00 01 00 03 00 00 00 10",                       //
             "04 00 00 10 00 00 00 05  00 01 00 09 00 00 00 10",                       //
             "01 00 00 10 00 00 00 05  00 01 00 08 00 00 00 10",                       // of our version: not looked at
         })
        EXPECT_TRUE(std::holds_alternative<hello>(decoded(hex(taken)).body)) << taken;
    for (const char *const refused_one : {
             "04 00 00 10 00 00 00 05  00 01 00 08 00 00 00 10",
             "02 00 00 10 00 00 00 05  00 01 00 08 00 00 00 01",
             "05 00 00 14 00 00 00 05  00 01 00 0c 00 00 00 30 00 00 00 02",
             "04 00 00 18 00 00 00 05  00 07 00 06 aa bb (2) 00 01 00 08 00 00 00 10",
         })
        expect_error(hex(refused_one), error_type::hello_failed, hello_failed::incompatible);
}

TEST(Malformed, UnknownMessageTypes) {
    for (unsigned type = 22; type < 256; ++type) {
        bytes wire = hex("01 00 00 10 00 00 00 09 (8)");
        wire[1] = static_cast<uint8_t>(type);
        expect_error(wire, error_type::bad_request, bad_request::bad_type);
        EXPECT_EQ(refused(wire).type, type);
    }
}

TEST(Malformed, UnknownStatisticsTypes) {
    for (const uint8_t direction : {uint8_t{16}, uint8_t{17}}) {
        for (unsigned type = 6; type < 0xffff; ++type) {
            bytes wire = hex("01 00 00 0c (4) (2) 00 00");
            wire[1] = direction;
            put16(wire, 8, static_cast<uint16_t>(type));
            const decode_result result = decode(wire);
            ASSERT_TRUE(std::holds_alternative<decode_failure>(result)) << type;
            EXPECT_EQ(std::get<decode_failure>(result).answer.type, 1);
            EXPECT_EQ(std::get<decode_failure>(result).answer.code, bad_request::bad_stat);
        }
    }
}

TEST(Malformed, UnknownActionTypes) {
    bytes wire = encoded({1, flow_mod{.actions = {action_output{1, 0}, action_output{2, 0}}}});
    for (unsigned type = 12; type < 0xffff; ++type) {
        put16(wire, flow_mod_head + 8, static_cast<uint16_t>(type));
        const decode_result result = decode(wire);
        ASSERT_TRUE(std::holds_alternative<decode_failure>(result)) << type;
        EXPECT_EQ(std::get<decode_failure>(result).answer.type, 2);
        EXPECT_EQ(std::get<decode_failure>(result).answer.code, bad_action::bad_type);
    }
}

TEST(Malformed, UnknownCommands) {
    bytes wire = encoded({1, flow_mod{}});
    for (unsigned command = 0; command <= 0xffff; ++command) {
        put16(wire, 56, static_cast<uint16_t>(command));
        const decode_result result = decode(wire);
        ASSERT_EQ(std::holds_alternative<message>(result), command <= 4) << command;
        if (command > 4) {
            EXPECT_EQ(std::get<decode_failure>(result).answer.type, 3);
            EXPECT_EQ(std::get<decode_failure>(result).answer.code, flow_mod_failed::bad_command);
        }
    }
}

TEST(Malformed, ArgumentsOutOfRange) {
    const auto expect_argument = [](const action &one, bool good) {
        bytes wire;
        ASSERT_TRUE(encode(wire, 1, packet_out{1, 1, {action_output{1, 0}, one}, {}}));
        if (good)
            EXPECT_TRUE(std::get<packet_out>(decoded(wire).body).actions.back() == one);
        else
            expect_error(wire, error_type::bad_action, bad_action::bad_argument);
    };
    for (unsigned value = 0; value <= 0xffff; value += value < 0x1100 ? 1 : 251)
        expect_argument(action_set_vlan_vid{static_cast<uint16_t>(value)}, value <= 4095);
    for (unsigned value = 0; value < 256; ++value) {
        expect_argument(action_set_vlan_pcp{static_cast<uint8_t>(value)}, value <= 7);
        expect_argument(action_set_nw_tos{static_cast<uint8_t>(value)}, value % 4 == 0);
    }
}

/* ---- The answer
 * ----------------------------------------------------------------------------------------------------------- */

TEST(Answer, QuotesTheFirst64BytesUnderTheRequestsNumber) {
    for (const size_t size : {9U, 64U, 65U, 500U}) {
        bytes wire = encoded({0x01020304, echo_request{bytes(size - 8, 0x5a)}});
        wire[1] = 99;
        const decode_failure failure = refused(wire);
        EXPECT_EQ(failure.xid, 0x01020304U);
        EXPECT_EQ(failure.type, 99);
        wire.resize(std::min<size_t>(size, 64));
        EXPECT_EQ(dump(failure.answer.data), dump(wire));
    }
}

TEST(Answer, IsNotDueToAnError) {
    EXPECT_FALSE(refused(hex("01 01 00 09 00 00 00 00 00")).answer_is_due);
    EXPECT_FALSE(refused(hex("04 01 00 0c 00 00 00 00 (4)")).answer_is_due); // of another version too
    EXPECT_TRUE(refused(hex("01 10 00 09 00 00 00 00 00")).answer_is_due);
    EXPECT_TRUE(refused({}).answer_is_due);
}

} // namespace
