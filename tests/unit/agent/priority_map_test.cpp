/*
 * Hardware priorities keep the order of ranks, whatever is claimed and released, and no two ranks share one at any
 * moment of a move.
 */
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "flow_table.h"
#include "priority_map.h"
#include "tests/support/test_seed.h"

namespace agent {
namespace {

// Follows the moves that claim() orders, as hardware would.
class follower {
  public:
    void claim(uint32_t rank) {
        for (const uint32_t moved : map.claim(rank)) {
            const uint32_t to = map.hardware_priority(moved);
            for (const auto &[other, at] : placed) {
                ASSERT_NE(at, to) << "rank " << moved << " moves onto rank " << other;
            }
            placed.at(moved) = to;
        }
        counts[rank]++;
        placed[rank] = map.hardware_priority(rank);
        check();
    }
    void release(uint32_t rank) {
        map.release(rank);
        if (--counts[rank] == 0) {
            placed.erase(rank);
            counts.erase(rank);
        }
        check();
    }
    void check() const {
        int64_t below = -1;
        for (const auto &[rank, at] : placed) {
            ASSERT_GT(int64_t{at}, below) << rank;
            ASSERT_EQ(at, map.hardware_priority(rank));
            ASSERT_LT(at, own_hardware_priority);
            below = at;
        }
    }

    priority_map map;
    std::map<uint32_t, uint32_t> placed; // rank -> hardware priority
    std::map<uint32_t, uint32_t> counts;
};

TEST(priority_map, numbers_are_as_given_until_the_top_is_used) {
    follower f;
    for (const uint32_t rank : {0u, 1u, 32768u, 65533u, exact_rank}) {
        f.claim(rank);
        EXPECT_EQ(f.placed[rank], rank == exact_rank ? exact_hardware_priority : rank);
    }
    f.claim(65535);
    f.claim(65534);
    EXPECT_EQ(f.placed[32768], 32768u);
}

TEST(priority_map, a_thousand_at_the_top_and_a_walk_through_all) {
    follower f;
    f.claim(exact_rank);
    for (uint32_t rank = 65535; rank > 65535 - 999; rank--) {
        f.claim(rank);
    }
    for (uint32_t rank = 65535; rank > 65535 - 999; rank--) {
        f.release(rank);
    }
    f.claim(5); // keeps the map from starting anew
    for (uint32_t rank = 65535; rank > 5; rank--) {
        f.claim(rank);
        f.release(rank);
        if (testing::Test::HasFatalFailure()) {
            return;
        }
    }
    for (uint32_t rank = 0; rank < 5; rank++) {
        f.claim(rank);
    }
}

TEST(priority_map, random_claims_and_releases) {
    const uint64_t seed = kr_test::test_seed();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    follower f;
    std::vector<uint32_t> held;
    for (int i = 0; i < 20000; i++) {
        if (held.size() < 300 && random() % 3 != 0) {
            constexpr uint32_t bases[] = {0, 65535 - 60, 65535 - 60, 30000};
            const auto near = static_cast<uint32_t>(bases[random() % 4] + random() % 61);
            held.push_back(random() % 50 == 0 ? exact_rank : near);
            f.claim(held.back());
        } else if (!held.empty()) {
            std::swap(held[random() % held.size()], held.back());
            f.release(held.back());
            held.pop_back();
        }
        if (testing::Test::HasFatalFailure()) {
            return;
        }
    }
}

} // namespace
} // namespace agent
