/*
 * The quick map: its order, its answers to duplicate and absent keys, removals that must not do harm, and a random
 * comparison with std::map in which the tree's own rules are checked after every step.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "captured_log.h"
#include "kr_complib.h"

namespace {

constexpr uint32_t red = 1;

struct record {
    uint64_t before = 1;
    cl_map_item_t item{};
    uint64_t after = 2;
};

// Checks the rules of a red-black tree below `item`; returns its black height.
int black_height(const cl_qmap_t &map, const cl_map_item_t *item, uint64_t low, uint64_t high) {
    if (item == &map.nil) {
        return 1;
    }
    EXPECT_GE(item->key, low);
    EXPECT_LE(item->key, high);
    for (const cl_map_item_t *child : {item->left, item->right}) {
        EXPECT_TRUE(child == &map.nil || child->parent == item);
        EXPECT_FALSE(item->color == red && child->color == red);
    }
    const int left = black_height(map, item->left, low, item->key - (item->key > low ? 1 : 0));
    const int right = black_height(map, item->right, item->key + (item->key < high ? 1 : 0), high);
    EXPECT_EQ(left, right);
    return left + (item->color == red ? 0 : 1);
}

void check_tree(const cl_qmap_t &map) {
    EXPECT_NE(map.nil.color, red);
    EXPECT_NE(map.root->color, red);
    EXPECT_EQ(map.root->parent, &map.nil);
    black_height(map, map.root, 0, UINT64_MAX);
}

std::vector<uint64_t> keys_forward(const cl_qmap_t &map) {
    std::vector<uint64_t> keys;
    for (auto *item = cl_qmap_head(&map); item != cl_qmap_end(&map); item = cl_qmap_next(item)) {
        keys.push_back(cl_qmap_key(item));
    }
    return keys;
}

std::vector<uint64_t> keys_backward(const cl_qmap_t &map) {
    std::vector<uint64_t> keys;
    for (auto *item = cl_qmap_tail(&map); item != cl_qmap_end(&map); item = cl_qmap_prev(item)) {
        keys.push_back(cl_qmap_key(item));
    }
    return keys;
}

class qmap : public testing::Test {
  protected:
    void SetUp() override {
        cl_qmap_init(&map);
    }
    void insert_all(std::initializer_list<uint64_t> keys) {
        size_t i = 0;
        for (const uint64_t key : keys) {
            ASSERT_EQ(cl_qmap_insert(&map, key, &items[i]), &items[i]);
            i++;
        }
    }

    cl_qmap_t map{};
    cl_map_item_t items[16]{};
};

TEST_F(qmap, is_empty_after_init) {
    EXPECT_EQ(cl_qmap_count(&map), 0U);
    EXPECT_EQ(cl_qmap_head(&map), cl_qmap_end(&map));
    EXPECT_EQ(cl_qmap_tail(&map), cl_qmap_end(&map));
    EXPECT_EQ(cl_qmap_get(&map, 0), cl_qmap_end(&map));
    EXPECT_EQ(cl_qmap_get_not_below(&map, 0), cl_qmap_end(&map));
    EXPECT_EQ(cl_qmap_remove(&map, 0), cl_qmap_end(&map));
}

TEST_F(qmap, walks_in_key_order_both_ways) {
    insert_all({5, 0, UINT64_MAX, 3, 1ULL << 63});
    EXPECT_EQ(keys_forward(map), (std::vector<uint64_t>{0, 3, 5, 1ULL << 63, UINT64_MAX}));
    EXPECT_EQ(keys_backward(map), (std::vector<uint64_t>{UINT64_MAX, 1ULL << 63, 5, 3, 0}));
    EXPECT_EQ(cl_qmap_next(cl_qmap_tail(&map)), cl_qmap_end(&map));
    EXPECT_EQ(cl_qmap_prev(cl_qmap_head(&map)), cl_qmap_end(&map));
    EXPECT_EQ(cl_qmap_count(&map), 5U);
}

TEST_F(qmap, a_duplicate_key_keeps_and_returns_the_older_item) {
    insert_all({7, 9});
    items[5].key = 1234;
    EXPECT_EQ(cl_qmap_insert(&map, 7, &items[5]), &items[0]);
    EXPECT_EQ(items[5].key, 1234U); // nothing was changed
    EXPECT_EQ(cl_qmap_count(&map), 2U);
    EXPECT_EQ(cl_qmap_get(&map, 7), &items[0]);
}

TEST_F(qmap, inserts_into_uninitialised_memory) {
    memset(items, 0xa5, sizeof items);
    insert_all({2, 1, 3});
    EXPECT_EQ(keys_forward(map), (std::vector<uint64_t>{1, 2, 3}));
}

TEST_F(qmap, finds_the_first_key_not_below) {
    insert_all({10, 20, 30});
    EXPECT_EQ(cl_qmap_get_not_below(&map, 0), &items[0]);
    EXPECT_EQ(cl_qmap_get_not_below(&map, 10), &items[0]);
    EXPECT_EQ(cl_qmap_get_not_below(&map, 11), &items[1]);
    EXPECT_EQ(cl_qmap_get_not_below(&map, 30), &items[2]);
    EXPECT_EQ(cl_qmap_get_not_below(&map, 31), cl_qmap_end(&map));
}

TEST_F(qmap, removes_by_key_and_by_item) {
    insert_all({1, 2, 3});
    EXPECT_EQ(cl_qmap_remove(&map, 2), &items[1]);
    EXPECT_EQ(cl_qmap_remove(&map, 2), cl_qmap_end(&map));
    cl_qmap_remove_item(&map, &items[0]);
    EXPECT_EQ(keys_forward(map), std::vector<uint64_t>{3});
    EXPECT_EQ(cl_qmap_insert(&map, 1, &items[0]), &items[0]); // an item may come back
    EXPECT_EQ(cl_qmap_count(&map), 2U);
}

TEST_F(qmap, may_be_emptied_while_walked) {
    insert_all({1, 2, 3, 4, 5, 6, 7});
    for (auto *item = cl_qmap_head(&map); item != cl_qmap_end(&map);) {
        auto *const next = cl_qmap_next(item);
        cl_qmap_remove_item(&map, item);
        item = next;
    }
    EXPECT_EQ(cl_qmap_count(&map), 0U);
}

TEST_F(qmap, removing_what_is_not_linked_changes_nothing) {
    insert_all({1, 2, 3});
    cl_map_item_t never_inserted{};
    never_inserted.key = 2;
    cl_qmap_remove_item(&map, &never_inserted);
    cl_qmap_remove_item(&map, nullptr);
    cl_qmap_remove_item(&map, cl_qmap_end(&map));

    cl_map_item_t duplicate{};
    EXPECT_EQ(cl_qmap_insert(&map, 2, &duplicate), &items[1]);
    cl_qmap_remove_item(&map, &duplicate);

    cl_map_item_t copy = items[1]; // looks linked, but nothing links to it
    cl_qmap_remove_item(&map, &copy);

    EXPECT_EQ(keys_forward(map), (std::vector<uint64_t>{1, 2, 3}));
    EXPECT_EQ(cl_qmap_count(&map), 3U);
    check_tree(map);
}

TEST_F(qmap, removing_twice_changes_nothing_the_second_time) {
    insert_all({1, 2, 3});
    cl_qmap_remove_item(&map, &items[1]);
    cl_qmap_remove_item(&map, &items[1]);
    EXPECT_EQ(keys_forward(map), (std::vector<uint64_t>{1, 3}));
    EXPECT_EQ(cl_qmap_count(&map), 2U);
}

TEST_F(qmap, removing_an_item_whose_key_is_stored_by_another_keeps_the_other) {
    insert_all({4});
    cl_qmap_remove_item(&map, &items[0]);
    EXPECT_EQ(cl_qmap_insert(&map, 4, &items[1]), &items[1]);
    cl_qmap_remove_item(&map, &items[0]);
    EXPECT_EQ(cl_qmap_get(&map, 4), &items[1]);
}

TEST_F(qmap, an_item_of_another_map_stays_in_it) {
    cl_qmap_t other;
    cl_qmap_init(&other);
    insert_all({1, 2});
    EXPECT_EQ(cl_qmap_insert(&other, 2, &items[8]), &items[8]);
    cl_qmap_remove_item(&map, &items[8]);
    EXPECT_EQ(cl_qmap_count(&map), 2U);
    EXPECT_EQ(cl_qmap_get(&other, 2), &items[8]);
}

TEST_F(qmap, forgets_its_items_on_remove_all_and_on_init) {
    insert_all({1, 2});
    cl_qmap_remove_all(&map);
    EXPECT_EQ(cl_qmap_count(&map), 0U);
    EXPECT_EQ(items[0].next, &items[1]); // the items are not touched
    EXPECT_EQ(cl_qmap_insert(&map, 5, &items[3]), &items[3]);
    cl_qmap_remove_item(&map, &items[0]); // no longer in the map
    EXPECT_EQ(keys_forward(map), std::vector<uint64_t>{5});
    cl_qmap_init(&map);
    cl_qmap_remove_item(&map, &items[3]);
    EXPECT_EQ(cl_qmap_count(&map), 0U);
}

TEST_F(qmap, keeps_off_the_memory_around_an_item) {
    std::vector<record> records(50);
    for (size_t i = 0; i < records.size(); i++) {
        cl_qmap_insert(&map, i, &records[i].item);
    }
    for (const record &each : records) {
        EXPECT_EQ(each.before, 1U);
        EXPECT_EQ(each.after, 2U);
    }
}

TEST_F(qmap, stays_balanced_under_ordered_keys) {
    std::vector<cl_map_item_t> many(4096);
    for (size_t i = 0; i < many.size(); i++) {
        cl_qmap_insert(&map, i, &many[i]);
    }
    check_tree(map);
    size_t depth = 0;
    for (auto *item = cl_qmap_get(&map, 4095); item != cl_qmap_end(&map); item = item->parent) {
        depth++;
    }
    EXPECT_LE(depth, 26U); // 2 log2(n + 1)
    for (size_t i = many.size(); i > 0; i--) {
        cl_qmap_remove_item(&map, &many[i - 1]);
        if (i % 64 == 0) {
            check_tree(map);
        }
    }
    EXPECT_EQ(cl_qmap_count(&map), 0U);
}

TEST(qmap_unusable, an_uninitialised_map_asserts_and_is_left_alone) {
    captured_log log;
    cl_qmap_t map{};
    cl_map_item_t item{};
    EXPECT_EQ(cl_qmap_insert(&map, 1, &item), &map.nil);
    EXPECT_EQ(cl_qmap_get(&map, 1), &map.nil);
    EXPECT_EQ(cl_qmap_get_not_below(&map, 1), &map.nil);
    EXPECT_EQ(cl_qmap_remove(&map, 1), &map.nil);
    cl_qmap_remove_item(&map, &item);
    cl_qmap_remove_all(&map);
    EXPECT_EQ(map.count, 0U);
    EXPECT_EQ(log.count_of("ASSERT in qmap.cpp["), 6U);
    cl_qmap_init(&map);
    EXPECT_EQ(cl_qmap_insert(&map, 1, nullptr), cl_qmap_end(&map));
    EXPECT_EQ(log.count_of("ASSERT in qmap.cpp["), 7U);
}

TEST(qmap_random, behaves_as_a_std_map) {
    const char *const given = getenv("KR_TEST_SEED");
    const unsigned long seed = given != nullptr ? strtoul(given, nullptr, 0) : std::random_device{}();
    printf("seed %lu (repeat with KR_TEST_SEED=%lu)\n", seed, seed);
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);

    cl_qmap_t map;
    cl_qmap_init(&map);
    std::map<uint64_t, cl_map_item_t *> model;
    std::vector<cl_map_item_t> items(300);
    std::vector<cl_map_item_t *> spare;
    for (auto &item : items) {
        spare.push_back(&item);
    }
    for (int step = 0; step < 20000 && !testing::Test::HasFailure(); step++) {
        const uint64_t key = random() % 400;
        const auto known = model.find(key);
        // Phases in which the map rather grows, and others in which it rather shrinks.
        if (random() % 100 < (step / 1000 % 2 == 0 ? 65U : 35U) && !spare.empty()) {
            cl_map_item_t *const kept = cl_qmap_insert(&map, key, spare.back());
            ASSERT_EQ(kept, known == model.end() ? spare.back() : known->second);
            if (known == model.end()) {
                model[key] = spare.back();
                spare.pop_back();
            }
        } else if (known == model.end()) {
            ASSERT_EQ(cl_qmap_remove(&map, key), cl_qmap_end(&map));
        } else {
            if (random() % 2 == 0) {
                ASSERT_EQ(cl_qmap_remove(&map, key), known->second);
            } else {
                cl_qmap_remove_item(&map, known->second);
            }
            spare.push_back(known->second);
            model.erase(known);
        }
        const uint64_t probe = random() % 400;
        const auto bound = model.lower_bound(probe);
        ASSERT_EQ(cl_qmap_get_not_below(&map, probe), bound == model.end() ? cl_qmap_end(&map) : bound->second);
        const auto exact = model.find(probe);
        ASSERT_EQ(cl_qmap_get(&map, probe), exact == model.end() ? cl_qmap_end(&map) : exact->second);
        ASSERT_EQ(cl_qmap_count(&map), model.size());
        check_tree(map);
        if (step % 50 == 0) {
            std::vector<uint64_t> expected;
            for (const auto &[model_key, item] : model) {
                expected.push_back(model_key);
            }
            ASSERT_EQ(keys_forward(map), expected);
            std::reverse(expected.begin(), expected.end());
            ASSERT_EQ(keys_backward(map), expected);
        }
    }
}

} // namespace
