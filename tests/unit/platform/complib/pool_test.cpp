/*
 * Quick pool and composite pool: limits, growth, constructors and destructors, failures half-way, alignment.
 */
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <set>
#include <vector>

#include "captured_log.h"
#include "kr_complib.h"

namespace {

constexpr size_t odd_size = sizeof(cl_pool_item_t) + 7;

// What the constructor and destructor of a test see.
struct witness {
    std::vector<const void *> constructed;
    std::vector<const void *> destructed;
    size_t fail_at = SIZE_MAX; // the constructor call that fails
    cl_status_t failure = CL_ERROR;
};

cl_status_t construct(void *object, void *context, cl_pool_item_t **pool_item) {
    auto *const seen = static_cast<witness *>(context);
    if (seen->constructed.size() == seen->fail_at) {
        return seen->failure;
    }
    seen->constructed.push_back(object);
    *pool_item = static_cast<cl_pool_item_t *>(object);
    return CL_SUCCESS;
}

void destruct(const cl_pool_item_t *pool_item, void *context) {
    static_cast<witness *>(context)->destructed.push_back(pool_item);
}

std::vector<cl_pool_item_t *> take_all(cl_qpool_t &pool) {
    std::vector<cl_pool_item_t *> taken;
    while (auto *const item = cl_qpool_get(&pool)) {
        taken.push_back(item);
    }
    return taken;
}

class qpool : public testing::Test {
  protected:
    void TearDown() override {
        cl_qpool_destroy(&pool);
    }
    cl_status_t init(size_t min_count, size_t max_count, size_t growth_size, size_t object_size = odd_size) {
        return cl_qpool_init(&pool, min_count, max_count, growth_size, object_size, construct, destruct, &seen);
    }

    cl_qpool_t pool{};
    witness seen;
};

TEST_F(qpool, a_fixed_pool_gives_its_minimum_and_no_more) {
    ASSERT_EQ(init(3, 3, 0), CL_SUCCESS);
    EXPECT_EQ(cl_qpool_count(&pool), 3U);
    EXPECT_EQ(take_all(pool).size(), 3U);
    EXPECT_EQ(cl_qpool_count(&pool), 0U);
    EXPECT_EQ(cl_qpool_get(&pool), nullptr);
}

TEST_F(qpool, gives_back_what_was_put) {
    ASSERT_EQ(init(2, 2, 0), CL_SUCCESS);
    auto *const first = cl_qpool_get(&pool);
    auto *const second = cl_qpool_get(&pool);
    ASSERT_NE(first, second);
    cl_qpool_put(&pool, first);
    EXPECT_EQ(cl_qpool_count(&pool), 1U);
    EXPECT_EQ(cl_qpool_get(&pool), first);
    EXPECT_EQ(cl_qpool_get(&pool), nullptr);
    EXPECT_EQ(seen.constructed.size(), 2U); // constructed once, not on each get
}

TEST_F(qpool, an_object_in_use_belongs_to_the_caller_to_its_last_byte) {
    ASSERT_EQ(init(5, 0, 3), CL_SUCCESS);
    std::vector<cl_pool_item_t *> taken;
    for (int i = 0; i < 20; i++) {
        taken.push_back(cl_qpool_get(&pool));
        memset(static_cast<void *>(taken.back()), i, odd_size);
    }
    for (int i = 0; i < 20; i++) {
        const auto *const bytes = reinterpret_cast<const unsigned char *>(taken[static_cast<size_t>(i)]);
        for (size_t at = 0; at < odd_size; at++) {
            ASSERT_EQ(bytes[at], i);
        }
    }
    for (auto *const item : taken) {
        cl_qpool_put(&pool, item);
    }
    EXPECT_EQ(cl_qpool_count(&pool), 20U + 0U);
}

TEST_F(qpool, objects_are_aligned_for_any_type) {
    for (const size_t size : {sizeof(cl_pool_item_t), odd_size, size_t{33}, size_t{100}}) {
        ASSERT_EQ(init(7, 0, 3, size), CL_SUCCESS);
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(cl_qpool_get(&pool)) % alignof(std::max_align_t), 0U);
        }
        cl_qpool_destroy(&pool);
    }
}

TEST_F(qpool, grows_in_steps_up_to_its_maximum) {
    ASSERT_EQ(init(1, 6, 2), CL_SUCCESS);
    std::vector<size_t> made;
    while (cl_qpool_get(&pool) != nullptr) {
        made.push_back(seen.constructed.size());
    }
    EXPECT_EQ(made, (std::vector<size_t>{1, 3, 3, 5, 5, 6})); // the last step is cut to what is allowed
}

TEST_F(qpool, without_a_maximum_grows_on) {
    ASSERT_EQ(init(0, 0, 10), CL_SUCCESS);
    EXPECT_TRUE(seen.constructed.empty());
    std::set<void *> distinct;
    for (int i = 0; i < 1000; i++) {
        distinct.insert(cl_qpool_get(&pool));
    }
    EXPECT_EQ(distinct.size(), 1000U);
    EXPECT_FALSE(distinct.contains(nullptr));
}

TEST_F(qpool, of_size_0_is_valid_and_empty) {
    ASSERT_EQ(init(0, 0, 0), CL_SUCCESS);
    EXPECT_EQ(cl_qpool_count(&pool), 0U);
    EXPECT_EQ(cl_qpool_get(&pool), nullptr);
}

TEST_F(qpool, refuses_bad_arguments) {
    EXPECT_EQ(init(3, 2, 0), CL_INVALID_PARAMETER);
    EXPECT_EQ(init(1, 1, 0, sizeof(cl_pool_item_t) - 1), CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_qpool_init(nullptr, 1, 1, 0, odd_size, nullptr, nullptr, nullptr), CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_qpool_get(&pool), nullptr);
    EXPECT_EQ(cl_qpool_get(nullptr), nullptr);
}

TEST_F(qpool, answers_sizes_that_no_memory_has) {
    EXPECT_EQ(init(SIZE_MAX / 2, 0, 0), CL_INSUFFICIENT_MEMORY);
    EXPECT_EQ(init(SIZE_MAX, 0, 0), CL_INSUFFICIENT_MEMORY);
    EXPECT_EQ(init(1, 0, 0, SIZE_MAX), CL_INSUFFICIENT_MEMORY);
    EXPECT_EQ(init(1, 0, 0, SIZE_MAX - 64), CL_INSUFFICIENT_MEMORY);
    EXPECT_EQ(init(SIZE_MAX / 32, 0, 0, 64), CL_INSUFFICIENT_MEMORY);
    EXPECT_EQ(init(1, 0, 0, PTRDIFF_MAX - 4096), CL_INSUFFICIENT_MEMORY); // no overflow, but no memory either
    EXPECT_TRUE(seen.constructed.empty());
    EXPECT_EQ(cl_qpool_get(&pool), nullptr);
}

TEST_F(qpool, destructs_every_object_once_also_those_in_use) {
    ASSERT_EQ(init(3, 0, 2), CL_SUCCESS);
    for (int i = 0; i < 4; i++) {
        ASSERT_NE(cl_qpool_get(&pool), nullptr);
    }
    cl_qpool_destroy(&pool);
    EXPECT_EQ(std::multiset(seen.destructed.begin(), seen.destructed.end()),
              std::multiset(seen.constructed.begin(), seen.constructed.end()));
    EXPECT_EQ(seen.destructed.size(), 5U);
    cl_qpool_destroy(&pool); // a second time: nothing
    EXPECT_EQ(seen.destructed.size(), 5U);
    EXPECT_EQ(cl_qpool_get(&pool), nullptr);
}

TEST_F(qpool, an_init_whose_constructor_fails_takes_everything_back) {
    seen.fail_at = 2;
    seen.failure = 77;
    EXPECT_EQ(init(5, 5, 0), 77U);
    EXPECT_EQ(seen.constructed.size(), 2U);
    EXPECT_EQ(seen.destructed.size(), 2U);
    EXPECT_EQ(cl_qpool_get(&pool), nullptr);
    cl_qpool_destroy(&pool);
    EXPECT_EQ(seen.destructed.size(), 2U);
    seen = {};
    EXPECT_EQ(init(5, 5, 0), CL_SUCCESS); // and the next one works
}

TEST_F(qpool, a_growth_whose_constructor_fails_keeps_what_was_made) {
    seen.fail_at = 3;
    ASSERT_EQ(init(1, 0, 5), CL_SUCCESS);
    EXPECT_EQ(take_all(pool).size(), 3U);
    seen.fail_at = SIZE_MAX;
    EXPECT_NE(cl_qpool_get(&pool), nullptr); // it may grow again
}

TEST_F(qpool, works_without_constructor_and_destructor) {
    ASSERT_EQ(cl_qpool_init(&pool, 2, 2, 0, sizeof(cl_pool_item_t), nullptr, nullptr, nullptr), CL_SUCCESS);
    EXPECT_EQ(take_all(pool).size(), 2U);
}

TEST_F(qpool, a_put_too_many_is_asserted_and_ignored) {
    captured_log log;
    ASSERT_EQ(init(1, 1, 0), CL_SUCCESS);
    auto *const item = cl_qpool_get(&pool);
    cl_qpool_put(&pool, item);
    cl_qpool_put(&pool, item);
    cl_qpool_put(&pool, nullptr);
    cl_qpool_put(nullptr, item);
    EXPECT_EQ(log.count_of("ASSERT in pool.cpp["), 3U);
    EXPECT_EQ(cl_qpool_count(&pool), 1U);
}

TEST(qpool_unusable, is_ignored_by_destroy) {
    cl_qpool_t zeroed{};
    cl_qpool_destroy(&zeroed);
    cl_qpool_destroy(nullptr);
    cl_qcpool_t composite{};
    cl_qcpool_destroy(&composite);
    cl_qcpool_destroy(nullptr);
    EXPECT_EQ(cl_qcpool_get(&composite), nullptr);
    EXPECT_EQ(cl_qcpool_get(nullptr), nullptr);
    EXPECT_EQ(cl_qcpool_grow(&composite, 1), CL_INVALID_STATE);
}

// ---- composite pool

struct head_part {
    cl_pool_item_t item;
    void *body;
    void *tail;
};

cl_status_t join_parts(void **components, uint32_t component_count, void *context, cl_pool_item_t **pool_item) {
    EXPECT_EQ(component_count, 3U);
    // The item may lie in any component.
    auto *const head = static_cast<head_part *>(components[1]);
    *head = {{}, components[0], components[2]};
    *pool_item = &head->item;
    ++*static_cast<int *>(context);
    return CL_SUCCESS;
}

TEST(qcpool, joins_components_through_the_constructor) {
    const size_t sizes[] = {5, sizeof(head_part), 41};
    int balance = 0;
    cl_qcpool_t pool{};
    ASSERT_EQ(cl_qcpool_init(
                  &pool, 2, 0, 2, sizes, 3, join_parts,
                  [](cl_pool_item_t *, void *context) { --*static_cast<int *>(context); }, &balance),
              CL_SUCCESS);
    std::set<void *> distinct;
    for (int i = 0; i < 6; i++) {
        auto *const head = reinterpret_cast<head_part *>(cl_qcpool_get(&pool));
        ASSERT_NE(head, nullptr);
        memset(head->body, i, sizes[0]);
        memset(head->tail, i, sizes[2]);
        for (void *const part : {head->body, static_cast<void *>(head), head->tail}) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(part) % alignof(std::max_align_t), 0U);
            distinct.insert(part);
        }
        if (i % 2 == 0) {
            cl_qcpool_put(&pool, &head->item);
            EXPECT_EQ(cl_qcpool_get(&pool), &head->item);
        }
    }
    EXPECT_EQ(distinct.size(), 18U);
    EXPECT_EQ(balance, 6);
    cl_qcpool_destroy(&pool);
    EXPECT_EQ(balance, 0);
}

TEST(qcpool, grows_on_demand_of_the_caller) {
    const size_t size = sizeof(cl_pool_item_t);
    cl_qcpool_t pool{};
    ASSERT_EQ(cl_qcpool_init(&pool, 0, 4, 0, &size, 1, nullptr, nullptr, nullptr), CL_SUCCESS);
    EXPECT_EQ(cl_qcpool_get(&pool), nullptr);
    EXPECT_EQ(cl_qcpool_grow(&pool, 0), CL_SUCCESS);
    EXPECT_EQ(cl_qcpool_grow(&pool, 3), CL_SUCCESS);
    EXPECT_EQ(cl_qcpool_grow(&pool, 2), CL_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(cl_qcpool_grow(&pool, 1), CL_SUCCESS);
    EXPECT_EQ(cl_qcpool_grow(&pool, 1), CL_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(pool.free_count, 4U);
    cl_qcpool_destroy(&pool);
}

TEST(qcpool, refuses_bad_arguments) {
    const size_t sizes[] = {8, 64};
    cl_qcpool_t pool{};
    EXPECT_EQ(cl_qcpool_init(&pool, 1, 0, 0, sizes, 0, nullptr, nullptr, nullptr), CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_qcpool_init(&pool, 1, 0, 0, nullptr, 1, nullptr, nullptr, nullptr), CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_qcpool_init(&pool, 1, 0, 0, sizes, 2, nullptr, nullptr, nullptr), CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_qcpool_init(nullptr, 1, 0, 0, sizes, 2, nullptr, nullptr, nullptr), CL_INVALID_PARAMETER);
    // A constructor that names no item, where the first component has no room for one.
    EXPECT_EQ(cl_qcpool_init(
                  &pool, 1, 0, 0, sizes, 2,
                  [](void **, uint32_t, void *, cl_pool_item_t **) -> cl_status_t { return CL_SUCCESS; }, nullptr,
                  nullptr),
              CL_INVALID_PARAMETER);
    EXPECT_EQ(cl_qcpool_get(&pool), nullptr);
}

} // namespace
