/*
 * The bit tree against a sorted set of the standard library, for sizes around the words and groups of words that it is
 * made of. A wrong count would not break a placement table, only make it move more, so nothing else would show it.
 */
#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <set>

#include "psort/bit_tree.h"

namespace {

using kr_soft::psort::bit_tree;

class bit_tree_sizes : public testing::TestWithParam<int32_t> {};

void compare_at(const bit_tree &tree, const std::set<int32_t> &members, int32_t size, int32_t number) {
    const auto next = members.lower_bound(number);
    EXPECT_EQ(tree.next(number), next == members.end() ? size : *next);
    EXPECT_EQ(tree.count_below(number), std::distance(members.begin(), next));
    if (number < size) {
        const auto behind = members.upper_bound(number);
        EXPECT_EQ(tree.prev(number), behind == members.begin() ? -1 : *std::prev(behind));
        EXPECT_EQ(tree.contains(number), members.count(number) == 1);
    }
}

TEST_P(bit_tree_sizes, answers_like_a_sorted_set) {
    const int32_t size = GetParam();
    bit_tree tree(size);
    std::set<int32_t> members;
    std::mt19937_64 random(20240611);
    const auto any = [&] { return static_cast<int32_t>(random() % static_cast<uint64_t>(size)); };
    for (int32_t step = 0; step < 3000 && !testing::Test::HasFailure(); ++step) {
        const int32_t number = step % 100 < 50 ? any() : any() % 70 % size; // some close together
        if (members.erase(number) != 0) {
            tree.erase(number);
        } else {
            members.insert(number);
            tree.insert(number);
        }
        for (const int32_t at : {0, number, number + 1, any(), size}) {
            compare_at(tree, members, size, at);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(all, bit_tree_sizes,
                         testing::Values(1, 2, 63, 64, 65, 1000, 4095, 4096, 4097, 6000, 65536, 262144, 262145));

} // namespace
