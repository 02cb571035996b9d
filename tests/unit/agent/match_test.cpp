/*
 * Covering, overlap and the reading of frames, against what a frame-by-frame comparison says.
 */
#include <gtest/gtest.h>

#include <random>

#include "frame.h"
#include "match.h"
#include "tests/support/test_seed.h"

namespace agent {
namespace {

namespace wc = of10::wildcard;

// Matches and frames from a small universe, so that they meet often.
class small_universe {
  public:
    explicit small_universe(uint64_t seed) : random_(seed) {}

    of10::flow_match frame() {
        of10::flow_match f;
        f.wildcards = 0;
        f.in_port = pick(2);
        f.dl_src[5] = static_cast<uint8_t>(pick(2));
        f.dl_vlan = pick(3) == 0 ? of10::vlan_none : pick(2);
        f.dl_vlan_pcp = static_cast<uint8_t>(pick(2));
        if (f.dl_vlan == of10::vlan_none) {
            f.wildcards = wc::dl_vlan_pcp;
            f.dl_vlan_pcp = 0;
        }
        f.dl_type = pick(2) == 0 ? 0x0800 : 0x0806;
        f.nw_src = uint32_t{pick(4)} << 30 | pick(2);
        f.nw_proto = pick(2) == 0 ? 6 : 17;
        f.tp_dst = pick(2);
        return f;
    }
    of10::flow_match match() {
        of10::flow_match m = frame();
        m.wildcards = 0;
        for (const uint32_t bit : {wc::in_port, wc::dl_vlan, wc::dl_src, wc::dl_dst, wc::dl_type, wc::nw_proto,
                                   wc::tp_src, wc::tp_dst, wc::dl_vlan_pcp, wc::nw_tos}) {
            m.wildcards |= pick(2) * bit;
        }
        constexpr uint32_t ignored_bits[] = {0, 1, 30, 31, 32, 63};
        m.wildcards |= ignored_bits[pick(6)] << wc::nw_src_shift | wc::nw_dst_all;
        return of10::match_normalize(m);
    }

  private:
    uint16_t pick(unsigned count) {
        return static_cast<uint16_t>(random_() % count);
    }
    std::mt19937_64 random_;
};

TEST(match, covering_and_overlap_agree_with_frames) {
    const uint64_t seed = kr_test::test_seed();
    SCOPED_TRACE(seed);
    small_universe universe(seed);
    std::vector<of10::flow_match> frames;
    for (int i = 0; i < 300; i++) {
        frames.push_back(universe.frame());
    }
    int covers = 0;
    int overlaps = 0;
    for (int i = 0; i < 3000; i++) {
        const of10::flow_match a = universe.match();
        const of10::flow_match b = universe.match();
        bool meet = false;
        for (const of10::flow_match &f : frames) {
            const bool in_a = match_covers(a, f);
            const bool in_b = match_covers(b, f);
            meet = meet || (in_a && in_b);
            ASSERT_FALSE(match_covers(a, b) && in_b && !in_a);
        }
        ASSERT_FALSE(meet && !match_overlaps(a, b));
        ASSERT_EQ(match_overlaps(a, b), match_overlaps(b, a));
        ASSERT_TRUE(match_covers(a, a) && match_overlaps(a, a));
        ASSERT_FALSE(match_covers(a, b) && !match_overlaps(a, b));
        covers += match_covers(a, b);
        overlaps += meet;
    }
    EXPECT_GT(covers, 20);
    EXPECT_GT(overlaps, 200);
}

TEST(match, a_tag_and_no_tag_exclude_each_other) {
    of10::flow_match untagged;
    untagged.wildcards &= ~wc::dl_vlan;
    untagged.dl_vlan = of10::vlan_none;
    of10::flow_match priority;
    priority.wildcards &= ~wc::dl_vlan_pcp;
    EXPECT_FALSE(match_overlaps(untagged, priority));
    EXPECT_TRUE(match_overlaps(untagged, of10::flow_match()));
    EXPECT_TRUE(match_covers(of10::flow_match(), priority));
    EXPECT_FALSE(match_covers(priority, of10::flow_match()));
}

TEST(match, exact_is_what_has_no_wildcard_at_all) {
    of10::flow_match m;
    EXPECT_FALSE(match_is_exact(m));
    m.wildcards = 1u << wc::nw_dst_shift;
    EXPECT_FALSE(match_is_exact(m));
    m.wildcards = 0xffc00000; // bits that have no meaning
    EXPECT_TRUE(match_is_exact(m));
}

std::vector<uint8_t> bytes(std::initializer_list<int> values) {
    return {values.begin(), values.end()};
}

TEST(frame, fields_of_a_tagged_udp_packet) {
    auto f = bytes({2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 0x81, 0, 0x60, 5, 8, 0});
    const auto ip =
        bytes({0x45, 0xb8, 0, 28, 0, 0, 0, 0, 9, 17, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2, 0, 7, 0, 9, 0, 8, 0, 0});
    f.insert(f.end(), ip.begin(), ip.end());
    const of10::flow_match m = frame_match(f, 3);
    EXPECT_EQ(m.wildcards, 0u);
    EXPECT_EQ(m.in_port, 3);
    EXPECT_EQ(m.dl_dst[5], 1);
    EXPECT_EQ(m.dl_src[5], 2);
    EXPECT_EQ(m.dl_vlan, 5);
    EXPECT_EQ(m.dl_vlan_pcp, 3);
    EXPECT_EQ(m.dl_type, 0x0800);
    EXPECT_EQ(m.nw_tos, 0xb8);
    EXPECT_EQ(m.nw_proto, 17);
    EXPECT_EQ(m.nw_src, 0x0a000001u);
    EXPECT_EQ(m.nw_dst, 0x0a000002u);
    EXPECT_EQ(m.tp_src, 7);
    EXPECT_EQ(m.tp_dst, 9);
    // Cut anywhere, it is read as far as it goes.
    for (size_t size = 0; size < f.size(); size++) {
        const std::vector<uint8_t> cut(f.begin(), f.begin() + static_cast<ptrdiff_t>(size));
        const of10::flow_match part = frame_match(cut, 3);
        EXPECT_TRUE(part.tp_dst == 0 || part.tp_dst == 9);
    }
}

TEST(frame, kinds_without_a_type_and_with_one_behind_snap) {
    auto llc = bytes({1, 0x80, 0xc2, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 38, 0x42, 0x42, 3});
    llc.resize(60);
    EXPECT_EQ(frame_match(llc, 1).dl_type, 0x05ff);
    auto snap = bytes({1, 0, 0xc, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 38, 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 0});
    snap.resize(60);
    EXPECT_EQ(frame_match(snap, 1).dl_type, 0x2000);
    EXPECT_EQ(frame_match(snap, 1).dl_vlan, of10::vlan_none);
}

TEST(frame, vlan_edits) {
    auto f = bytes({2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 8, 0, 1, 2, 3});
    const auto untagged = f;
    frame_strip_vlan(f);
    EXPECT_EQ(f, untagged);
    frame_set_vlan_id(f, 0x123);
    EXPECT_EQ(frame_match(f, 1).dl_vlan, 0x123);
    EXPECT_EQ(frame_match(f, 1).dl_vlan_pcp, 0);
    frame_set_vlan_pcp(f, 6);
    frame_set_vlan_id(f, 0xfff);
    EXPECT_EQ(frame_match(f, 1).dl_vlan, 0xfff);
    EXPECT_EQ(frame_match(f, 1).dl_vlan_pcp, 6);
    EXPECT_EQ(f.size(), untagged.size() + 4);
    frame_strip_vlan(f);
    EXPECT_EQ(f, untagged);
    frame_set_vlan_pcp(f, 1);
    EXPECT_EQ(frame_match(f, 1).dl_vlan, 0);
    for (size_t size = 0; size < 20; size++) { // nothing is touched that is not there
        std::vector<uint8_t> cut(size, 0x81);
        frame_set_vlan_id(cut, 1);
        frame_set_vlan_pcp(cut, 1);
        frame_strip_vlan(cut);
    }
}

} // namespace
} // namespace agent
