/*
 * The ternary matcher against the definition of a match, byte by byte: every field, and random rules with random masks.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "acl_rm/ternary_matcher.h"
#include "tests/support/test_seed.h"

namespace {

using kr_soft::ternary_matcher;

using key_bytes = std::array<uint8_t, sizeof(kr_acl_key)>;

kr_acl_key to_key(const key_bytes &bytes) {
    kr_acl_key key;
    std::memcpy(&key, bytes.data(), sizeof key);
    return key;
}

struct rule {
    key_bytes key, mask;
};

bool matches(const rule &candidate, const key_bytes &frame) {
    for (size_t i = 0; i < frame.size(); i++) {
        if (((frame[i] ^ candidate.key[i]) & candidate.mask[i]) != 0) {
            return false;
        }
    }
    return true;
}

uint32_t first_match(const std::vector<std::optional<rule>> &rules, const key_bytes &frame) {
    for (uint32_t offset = 0; offset < rules.size(); offset++) {
        if (rules[offset] && matches(*rules[offset], frame)) {
            return offset;
        }
    }
    return ternary_matcher::no_match;
}

TEST(ternary_matcher, an_empty_one_matches_nothing) {
    const auto matcher = std::make_unique<ternary_matcher>();
    EXPECT_EQ(matcher->match(kr_acl_key{}), ternary_matcher::no_match);
}

TEST(ternary_matcher, a_rule_without_a_mask_matches_everything_at_every_offset) {
    const auto matcher = std::make_unique<ternary_matcher>();
    key_bytes any;
    any.fill(0xA5);
    for (uint32_t offset = ternary_matcher::capacity; offset-- > 0;) {
        matcher->set(offset, to_key(any), kr_acl_key{});
        ASSERT_EQ(matcher->match(kr_acl_key{}), offset);
    }
    for (uint32_t offset = 0; offset < ternary_matcher::capacity; offset++) {
        ASSERT_EQ(matcher->match(to_key(any)), offset);
        matcher->clear(offset, kr_acl_key{});
    }
    EXPECT_EQ(matcher->match(kr_acl_key{}), ternary_matcher::no_match);
}

TEST(ternary_matcher, every_bit_of_the_key_is_compared_when_the_mask_says_so) {
    const auto matcher = std::make_unique<ternary_matcher>();
    for (size_t bit = 0; bit < 8 * sizeof(kr_acl_key); bit++) {
        rule one{};
        one.mask[bit / 8] = static_cast<uint8_t>(1U << bit % 8);
        one.key[bit / 8] = bit % 3 == 0 ? one.mask[bit / 8] : uint8_t{0};
        matcher->set(17, to_key(one.key), to_key(one.mask));
        key_bytes frame = one.key;
        ASSERT_EQ(matcher->match(to_key(frame)), 17u) << bit;
        frame[bit / 8] ^= static_cast<uint8_t>(~one.mask[bit / 8]);
        ASSERT_EQ(matcher->match(to_key(frame)), 17u) << bit;
        frame[bit / 8] ^= one.mask[bit / 8];
        ASSERT_EQ(matcher->match(to_key(frame)), ternary_matcher::no_match) << bit;
        matcher->clear(17, to_key(one.mask));
    }
}

// Random rules over few values, so that many of them match each frame, with masks from a few to all bits.
TEST(ternary_matcher, random_rules_agree_with_the_definition) {
    SCOPED_TRACE(testing::Message() << "KR_TEST_SEED=" << kr_test::test_seed());
    std::mt19937_64 random(kr_test::test_seed());
    const auto below = [&](uint32_t bound) { return static_cast<uint32_t>(random() % bound); };
    const auto random_bytes = [&] {
        key_bytes bytes{};
        for (size_t i = 0; i < 52; i++) {
            bytes[i] = static_cast<uint8_t>(below(3) * 0x11);
        }
        return bytes;
    };
    const auto matcher = std::make_unique<ternary_matcher>();
    std::vector<std::optional<rule>> rules(1000);
    uint32_t matched = 0;
    uint32_t missed = 0;
    for (int step = 0; step < 30000; step++) {
        const uint32_t offset = below(1000);
        if (rules[offset]) {
            matcher->clear(offset, to_key(rules[offset]->mask));
            rules[offset].reset();
        } else {
            rule added{random_bytes(), {}};
            const uint32_t covered = 2 + below(12);
            for (uint32_t i = 0; i < covered; i++) {
                added.mask[below(i == 0 ? 128 : 52)] = static_cast<uint8_t>(below(2) == 0 ? 0xFF : random());
            }
            matcher->set(offset, to_key(added.key), to_key(added.mask));
            rules[offset] = added;
        }
        const key_bytes frame = random_bytes();
        const uint32_t expected = first_match(rules, frame);
        ASSERT_EQ(matcher->match(to_key(frame)), expected) << "step " << step;
        (expected == ternary_matcher::no_match ? missed : matched)++;
        if (step % 1000 == 999) { // and from the empty table again
            for (uint32_t at = 0; step % 5000 == 4999 && at < rules.size(); at++) {
                if (rules[at]) {
                    matcher->clear(at, to_key(rules[at]->mask));
                    rules[at].reset();
                }
            }
        }
    }
    EXPECT_GT(matched, 1000u);
    EXPECT_GT(missed, 100u);
}

} // namespace
