/*
 * What a match means: the bit counts of its addresses, and that its normal form selects the same frames and is one for
 * all matches that do.
 */
#include "support.h"
#include "tests/support/test_seed.h"

#include <random>

namespace {

using namespace of10;
using namespace of10_test;

TEST(Match, BitCountsOfAddresses) {
    for (unsigned bits = 0; bits < 64; ++bits) {
        const unsigned prefix = bits >= 32 ? 0 : 32 - bits;
        const auto mask = static_cast<uint32_t>(0xffffffff00000000ULL >> prefix);
        flow_match match;
        match.wildcards = bits << 8;
        EXPECT_EQ(match_nw_src_prefix(match), prefix);
        EXPECT_EQ(match_nw_src_mask(match), mask);
        EXPECT_EQ(match_nw_dst_prefix(match), 32U);
        EXPECT_EQ(match_nw_dst_mask(match), 0xffffffffU);
        match.wildcards = bits << 14;
        EXPECT_EQ(match_nw_dst_prefix(match), prefix);
        EXPECT_EQ(match_nw_dst_mask(match), mask);
        EXPECT_EQ(match_nw_src_prefix(match), 32U);
    }
}

TEST(Match, TheDefaultMatchesAllAndIsNormal) {
    EXPECT_EQ(flow_match().wildcards, 0x3fffffU);
    flow_match normal;
    normal.wildcards = 0x3820ff; // both bit counts as 32
    EXPECT_TRUE(match_normalize(flow_match()) == normal);
}

struct row {
    const char *name;
    flow_match from;
    flow_match to;
};

constexpr uint32_t no_address_or_port = wildcard::nw_src_all | wildcard::nw_dst_all | wildcard::nw_proto |
                                        wildcard::nw_tos | wildcard::tp_src | wildcard::tp_dst;

TEST(Match, NormalForms) {
    const row rows[] = {
        {"everything fixed, TCP: as it is",
         {0, 1, {1}, {2}, 3, 4, 0x0800, 0x28, 6, 7, 8, 9, 10},
         {0, 1, {1}, {2}, 3, 4, 0x0800, 0x28, 6, 7, 8, 9, 10}},
        {"no frame type: no address, no port",
         {wildcard::dl_type, 1, {1}, {2}, 3, 4, 0x0800, 0x28, 6, 7, 8, 9, 10},
         {wildcard::dl_type | no_address_or_port, 1, {1}, {2}, 3, 4, 0, 0, 0, 0, 0, 0, 0}},
        {"another frame type",
         {0, 1, {1}, {2}, 3, 4, 0x86dd, 0x28, 6, 7, 8, 9, 10},
         {no_address_or_port, 1, {1}, {2}, 3, 4, 0x86dd, 0, 0, 0, 0, 0, 0}},
        {"ARP: opcode and addresses",
         {0, 1, {1}, {2}, 3, 4, 0x0806, 0x28, 2, 7, 8, 9, 10},
         {wildcard::nw_tos | wildcard::tp_src | wildcard::tp_dst, 1, {1}, {2}, 3, 4, 0x0806, 0, 2, 7, 8, 0, 0}},
        {"IP of a protocol without ports",
         {0, 1, {1}, {2}, 3, 4, 0x0800, 0x28, 89, 7, 8, 9, 10},
         {wildcard::tp_src | wildcard::tp_dst, 1, {1}, {2}, 3, 4, 0x0800, 0x28, 89, 7, 8, 0, 0}},
        {"IP of any protocol",
         {wildcard::nw_proto, 1, {1}, {2}, 3, 4, 0x0800, 0x28, 6, 7, 8, 9, 10},
         {wildcard::nw_proto | wildcard::tp_src | wildcard::tp_dst, 1, {1}, {2}, 3, 4, 0x0800, 0x28, 0, 7, 8, 0, 0}},
        {"ICMP", {0, 1, {1}, {2}, 3, 4, 0x0800, 0, 1, 7, 8, 9, 10}, {0, 1, {1}, {2}, 3, 4, 0x0800, 0, 1, 7, 8, 9, 10}},
        {"UDP", {0, 1, {1}, {2}, 3, 4, 0x0800, 0, 17, 7, 8, 9, 10}, {0, 1, {1}, {2}, 3, 4, 0x0800, 0, 17, 7, 8, 9, 10}},
        {"no tag: no priority",
         {no_address_or_port, 1, {1}, {2}, 0xffff, 4, 5, 0, 0, 0, 0, 0, 0},
         {no_address_or_port | wildcard::dl_vlan_pcp, 1, {1}, {2}, 0xffff, 0, 5, 0, 0, 0, 0, 0, 0}},
        {"a priority of any tag stays",
         {no_address_or_port | wildcard::dl_vlan, 1, {1}, {2}, 0xffff, 4, 5, 0, 0, 0, 0, 0, 0},
         {no_address_or_port | wildcard::dl_vlan, 1, {1}, {2}, 0, 4, 5, 0, 0, 0, 0, 0, 0}},
        {"address bits under the mask, low bits of ToS and priority",
         {8u << 8 | 31u << 14, 1, {1}, {2}, 3, 0xfc, 0x0800, 0x2b, 6, 0x0a0102ff, 0xffffffff, 9, 10},
         {8u << 8 | 31u << 14, 1, {1}, {2}, 3, 4, 0x0800, 0x28, 6, 0x0a010200, 0x80000000, 9, 10}},
        {"bit counts above 32, unknown wildcards",
         {0xffc00000 | 63u << 8 | 33u << 14, 1, {1}, {2}, 3, 4, 0x0800, 0, 6, 7, 8, 9, 10},
         {32u << 8 | 32u << 14, 1, {1}, {2}, 3, 4, 0x0800, 0, 6, 0, 0, 9, 10}},
    };
    for (const row &one : rows)
        EXPECT_TRUE(match_normalize(one.from) == one.to) << one.name;
}

/* ---- Against frames
 * ------------------------------------------------------------------------------------------------------ */

/* A frame's fields as a switch extracts them; those that the frame does not have are zero. */
struct frame_fields {
    uint16_t in_port, dl_vlan;
    uint8_t dl_vlan_pcp;
    mac_address dl_src, dl_dst;
    uint16_t dl_type;
    uint8_t nw_tos, nw_proto;
    uint32_t nw_src, nw_dst;
    uint16_t tp_src, tp_dst;
};

/* The protocol's text, field by field: a field counts where it is not wildcarded and what it depends on is fixed. */
bool selects(const flow_match &match, const frame_fields &frame) {
    const auto fixed = [&](uint32_t bit) { return (match.wildcards & bit) == 0; };
    const auto agree = [](uint32_t a, uint32_t b, uint32_t ignored_bits) {
        return ignored_bits >= 32 || a >> ignored_bits == b >> ignored_bits;
    };
    if (fixed(wildcard::in_port) && match.in_port != frame.in_port)
        return false;
    if ((fixed(wildcard::dl_src) && match.dl_src != frame.dl_src) ||
        (fixed(wildcard::dl_dst) && match.dl_dst != frame.dl_dst))
        return false;
    if (fixed(wildcard::dl_vlan) && match.dl_vlan != frame.dl_vlan)
        return false;
    const bool asks_untagged = fixed(wildcard::dl_vlan) && match.dl_vlan == 0xffff;
    if (fixed(wildcard::dl_vlan_pcp) && !asks_untagged && (match.dl_vlan_pcp & 7) != frame.dl_vlan_pcp)
        return false;
    if (!fixed(wildcard::dl_type))
        return true;
    if (match.dl_type != frame.dl_type)
        return false;
    if (match.dl_type != 0x0800 && match.dl_type != 0x0806)
        return true;
    if (!agree(match.nw_src, frame.nw_src, match.wildcards >> 8 & 63) ||
        !agree(match.nw_dst, frame.nw_dst, match.wildcards >> 14 & 63))
        return false;
    if (fixed(wildcard::nw_proto) && match.nw_proto != frame.nw_proto)
        return false;
    if (match.dl_type != 0x0800)
        return true;
    if (fixed(wildcard::nw_tos) && (match.nw_tos & 0xfc) != frame.nw_tos)
        return false;
    if (!fixed(wildcard::nw_proto) || (match.nw_proto != 1 && match.nw_proto != 6 && match.nw_proto != 17))
        return true;
    return (!fixed(wildcard::tp_src) || match.tp_src == frame.tp_src) &&
           (!fixed(wildcard::tp_dst) || match.tp_dst == frame.tp_dst);
}

class match_maker {
  public:
    flow_match match() {
        return {static_cast<uint32_t>(random_() & random_()),
                pick<uint16_t>({1, 2}),
                pick<mac_address>({{1}, {2}}),
                pick<mac_address>({{3}, {4}}),
                pick<uint16_t>({0xffff, 0, 1}),
                pick<uint8_t>({0, 3, 8, 11}),
                pick<uint16_t>({0x0800, 0x0800, 0x0806, 0x86dd}),
                pick<uint8_t>({0, 4, 7}),
                pick<uint8_t>({1, 6, 17, 2}),
                address(),
                address(),
                pick<uint16_t>({0, 80}),
                pick<uint16_t>({0, 80})};
    }

    /* Often one that the match selects: its own values, some of them changed. */
    frame_fields frame_near(const flow_match &match) {
        const flow_match other = this->match();
        const auto either = [&](auto mine, decltype(mine) theirs) { return random_() % 8 != 0 ? mine : theirs; };
        frame_fields frame{};
        frame.in_port = either(match.in_port, other.in_port);
        frame.dl_src = either(match.dl_src, other.dl_src);
        frame.dl_dst = either(match.dl_dst, other.dl_dst);
        frame.dl_vlan = either(match.dl_vlan, other.dl_vlan);
        frame.dl_vlan_pcp = frame.dl_vlan == 0xffff ? uint8_t{0} : either(match.dl_vlan_pcp, other.dl_vlan_pcp) & 7;
        frame.dl_type = either(match.dl_type, other.dl_type);
        if (frame.dl_type == 0x0800 || frame.dl_type == 0x0806) {
            frame.nw_proto = either(match.nw_proto, other.nw_proto);
            frame.nw_src = either(match.nw_src, other.nw_src);
            frame.nw_dst = either(match.nw_dst, other.nw_dst);
        }
        if (frame.dl_type == 0x0800) {
            frame.nw_tos = either(match.nw_tos, other.nw_tos) & 0xfc;
            frame.tp_src = either(match.tp_src, other.tp_src);
            frame.tp_dst = either(match.tp_dst, other.tp_dst);
        }
        return frame;
    }

  private:
    template <typename value> value pick(std::initializer_list<value> from) {
        return from.begin()[random_() % from.size()];
    }
    uint32_t address() {
        return static_cast<uint32_t>(0x0a000000 | (random_() & random_() & 0xffffff));
    }

    std::mt19937_64 random_{kr_test::test_seed()};
};

TEST(Match, TheNormalFormSelectsTheSameFrames) {
    SCOPED_TRACE("KR_TEST_SEED=" + std::to_string(kr_test::test_seed()));
    match_maker make;
    size_t selected = 0;
    for (int round = 0; round < 20000; ++round) {
        const flow_match match = make.match();
        const flow_match normal = match_normalize(match);
        ASSERT_TRUE(match_normalize(normal) == normal);
        for (int i = 0; i < 4; ++i) {
            const frame_fields frame = make.frame_near(match);
            ASSERT_EQ(selects(match, frame), selects(normal, frame)) << std::hex << match.wildcards;
            selected += selects(match, frame) ? 1 : 0;
        }
    }
    EXPECT_GT(selected, 8000U);
    EXPECT_LT(selected, 72000U);
}

/* What cannot count makes no difference in the normal form. */
TEST(Match, FieldsThatDoNotCountDoNotDistinguish) {
    match_maker make;
    for (int round = 0; round < 2000; ++round) {
        flow_match match = make.match();
        flow_match other = make.match();
        match.wildcards |= wildcard::dl_type; // no address, no port
        other.wildcards = match.wildcards ^ (other.wildcards & no_address_or_port);
        other.in_port = match.in_port;
        other.dl_src = match.dl_src;
        other.dl_dst = match.dl_dst;
        other.dl_vlan = match.dl_vlan;
        other.dl_vlan_pcp = match.dl_vlan_pcp;
        ASSERT_TRUE(match_normalize(match) == match_normalize(other));
    }
}

} // namespace
