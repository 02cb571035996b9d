/*
 * The pSort contract: codes, arguments, thresholds, clear, failing notifications, each with the table in plain sight.
 * Whether the order holds over random operations is property_test's business.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "placement_owner.h"
#include "tests/support/allocation_counter.h"

namespace {

using kr_test::placement_owner;

class table {
  public:
    explicit table(uint32_t size) : owner(size) {
        open(owner.attributes());
    }
    explicit table(uint32_t size, uint32_t full_percent, uint32_t empty_percent) : owner(size) {
        psort_table_attributes attributes = owner.attributes();
        attributes.almost_full_percent = full_percent;
        attributes.almost_empty_percent = empty_percent;
        open(attributes);
    }
    static table without_background_moves(uint32_t size) {
        return table(size, no_moves{});
    }

    kr_utils_status add(uint64_t key, uint32_t priority, uint32_t *index = nullptr) {
        psort_entry entry = {key, priority, UINT32_MAX};
        const kr_utils_status status = psort_entry_set(handle, PSORT_CMD_ADD, &entry);
        if (status == KR_UTILS_STATUS_SUCCESS) {
            owner.added(entry);
            if (index != nullptr) {
                *index = entry.index;
            }
        } else {
            EXPECT_EQ(entry.index, UINT32_MAX) << "an output was written on failure";
        }
        return status;
    }

    kr_utils_status remove(uint64_t key) {
        psort_entry entry = {key, 0, 0};
        const kr_utils_status status = psort_entry_set(handle, PSORT_CMD_DELETE, &entry);
        if (status == KR_UTILS_STATUS_SUCCESS) {
            owner.deleted(key);
        }
        return status;
    }

    placement_owner owner;
    psort_handle handle = nullptr;

  private:
    struct no_moves {};
    table(uint32_t size, no_moves /*unused*/) : owner(size) {
        psort_table_attributes attributes = owner.attributes();
        attributes.delta_size = 0;
        open(attributes);
    }
    void open(const psort_table_attributes &attributes) {
        EXPECT_EQ(psort_init(&handle, &attributes), KR_UTILS_STATUS_SUCCESS);
    }
};

kr_utils_status init_with(const psort_table_attributes &attributes) {
    psort_handle handle = nullptr;
    const kr_utils_status status = psort_init(&handle, &attributes);
    EXPECT_EQ(handle != nullptr, status == KR_UTILS_STATUS_SUCCESS);
    return status;
}

TEST(psort_init, refuses_null_pointers) {
    placement_owner owner(10);
    psort_handle handle = nullptr;
    const psort_table_attributes attributes = owner.attributes();
    EXPECT_EQ(psort_init(nullptr, &attributes), KR_UTILS_STATUS_PARAM_NULL);
    EXPECT_EQ(psort_init(&handle, nullptr), KR_UTILS_STATUS_PARAM_NULL);
    EXPECT_EQ(handle, nullptr);
}

TEST(psort_init, refuses_attributes_that_make_no_table) {
    placement_owner owner(10);
    const psort_table_attributes good = owner.attributes();
    EXPECT_EQ(init_with(good), KR_UTILS_STATUS_SUCCESS);

    psort_table_attributes bad = good;
    bad.table_size = 0;
    EXPECT_EQ(init_with(bad), KR_UTILS_STATUS_PARAM_ERROR);
    bad = good;
    bad.notification_callback = nullptr;
    EXPECT_EQ(init_with(bad), KR_UTILS_STATUS_PARAM_ERROR);
    bad = good;
    bad.min_priority = bad.max_priority + 1;
    EXPECT_EQ(init_with(bad), KR_UTILS_STATUS_PARAM_ERROR);
    bad = good;
    bad.almost_full_percent = 40;
    bad.almost_empty_percent = 41;
    EXPECT_EQ(init_with(bad), KR_UTILS_STATUS_PARAM_ERROR);
    bad = good;
    bad.almost_full_percent = 101;
    EXPECT_EQ(init_with(bad), KR_UTILS_STATUS_PARAM_ERROR);
    bad = good;
    bad.table_size = UINT32_MAX;
    EXPECT_EQ(init_with(bad), KR_UTILS_STATUS_NO_MEMORY);
}

TEST(psort_handle, that_is_not_one_is_refused) {
    int something = 0;
    psort_entry entry = {1, 1, 0};
    uint32_t finished = 0;
    for (psort_handle handle : {psort_handle{nullptr}, psort_handle{&something}, reinterpret_cast<psort_handle>(8)}) {
        EXPECT_EQ(psort_entry_set(handle, PSORT_CMD_ADD, &entry), KR_UTILS_STATUS_INVALID_HANDLE);
        EXPECT_EQ(psort_clear_table(handle), KR_UTILS_STATUS_INVALID_HANDLE);
        EXPECT_EQ(psort_background_worker(handle, &finished), KR_UTILS_STATUS_INVALID_HANDLE);
    }
}

TEST(psort_entry_set, has_a_code_for_each_bad_call) {
    table one(4);
    psort_entry entry = {1, 1, 0};
    EXPECT_EQ(psort_entry_set(one.handle, PSORT_CMD_ADD, nullptr), KR_UTILS_STATUS_PARAM_NULL);
    EXPECT_EQ(psort_entry_set(one.handle, PSORT_CMD_DELETE, nullptr), KR_UTILS_STATUS_PARAM_NULL);
    for (uint32_t command : {1U, 3U, UINT32_MAX}) {
        EXPECT_EQ(psort_entry_set(one.handle, command, &entry), KR_UTILS_STATUS_CMD_UNSUPPORTED);
    }
    EXPECT_EQ(psort_background_worker(one.handle, nullptr), KR_UTILS_STATUS_PARAM_NULL);
    EXPECT_EQ(one.add(1, 65536), KR_UTILS_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(one.remove(1), KR_UTILS_STATUS_ENTRY_NOT_FOUND);
}

TEST(psort_entry_set, takes_the_first_and_last_priority_and_any_key) {
    table one(4);
    EXPECT_EQ(one.add(0, 0), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.add(UINT64_MAX, 65535), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.owner.check_all(), "");
}

TEST(psort_entry_set, refuses_a_priority_below_the_range) {
    placement_owner owner(4);
    psort_table_attributes attributes = owner.attributes();
    attributes.min_priority = 10;
    psort_handle handle = nullptr;
    ASSERT_EQ(psort_init(&handle, &attributes), KR_UTILS_STATUS_SUCCESS);
    psort_entry entry = {1, 9, 0};
    EXPECT_EQ(psort_entry_set(handle, PSORT_CMD_ADD, &entry), KR_UTILS_STATUS_PARAM_EXCEEDS_RANGE);
    entry.priority = 10;
    EXPECT_EQ(psort_entry_set(handle, PSORT_CMD_ADD, &entry), KR_UTILS_STATUS_SUCCESS);
}

TEST(psort_entry_set, a_key_that_is_present_is_refused_even_when_the_table_is_full) {
    table one(2);
    ASSERT_EQ(one.add(7, 5), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.add(7, 5), KR_UTILS_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(one.add(7, 6), KR_UTILS_STATUS_ENTRY_ALREADY_EXISTS);
    ASSERT_EQ(one.add(8, 5), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.add(8, 5), KR_UTILS_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(one.add(9, 5), KR_UTILS_STATUS_NO_RESOURCES);
    EXPECT_EQ(one.owner.check_all(), "");
}

TEST(psort_entry_set, a_full_table_takes_an_entry_again_after_a_delete) {
    table one(1);
    ASSERT_EQ(one.add(1, 5), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.add(2, 9), KR_UTILS_STATUS_NO_RESOURCES);
    EXPECT_EQ(one.remove(1), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.add(2, 9), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.remove(1), KR_UTILS_STATUS_ENTRY_NOT_FOUND);
}

TEST(psort_entry_set, a_delete_never_shifts) {
    table one(64);
    for (uint64_t key = 1; key <= 64; ++key) {
        ASSERT_EQ(one.add(key, static_cast<uint32_t>(key * 37 % 101)), KR_UTILS_STATUS_SUCCESS);
    }
    const uint64_t before = one.owner.shift_calls();
    one.owner.fail_shifts_after(0, KR_UTILS_STATUS_ERROR);
    for (uint64_t key = 1; key <= 64; ++key) {
        EXPECT_EQ(one.remove(key), KR_UTILS_STATUS_SUCCESS);
    }
    EXPECT_EQ(one.owner.shift_calls() + one.owner.failed_calls(), before);
    EXPECT_EQ(one.owner.count(), 0U);
}

// The table is filled and churned at its fullest, so that plans of every kind are made.
TEST(psort_entry_set, allocates_nothing) {
    placement_owner shape(500);
    psort_table_attributes attributes = shape.attributes();
    attributes.notification_callback = [](uint32_t, psort_notification_data *, void *) {
        return kr_utils_status{KR_UTILS_STATUS_SUCCESS};
    };
    psort_handle handle = nullptr;
    ASSERT_EQ(psort_init(&handle, &attributes), KR_UTILS_STATUS_SUCCESS);
    uint32_t refused = 0;
    const kr_test::allocation_counter counter;
    for (uint64_t step = 1; step <= 5000; ++step) {
        psort_entry entry = {step, static_cast<uint32_t>(step < 250 ? 5 * step : step * 40503 % 65521), 0};
        refused += psort_entry_set(handle, PSORT_CMD_ADD, &entry) == KR_UTILS_STATUS_SUCCESS ? 0 : 1;
        if (step >= 499) {
            psort_entry gone = {step - 498, 0, 0};
            refused += psort_entry_set(handle, PSORT_CMD_DELETE, &gone) == KR_UTILS_STATUS_SUCCESS ? 0 : 1;
        }
    }
    EXPECT_EQ(counter.count(), 0U);
    EXPECT_EQ(refused, 0U);
}

TEST(psort_entry_set, a_failing_shift_fails_the_add_with_its_own_status_and_loses_nothing) {
    table one(16);
    uint64_t key = 0;
    while (one.owner.shift_calls() == 0) { // descending, so that room runs out on one side
        ++key;
        ASSERT_LE(key, 16U);
        ASSERT_EQ(one.add(key, static_cast<uint32_t>(100 + (key % 2 == 0 ? key : 32 - key))), KR_UTILS_STATUS_SUCCESS);
    }
    // Fill up: from now on nearly every entry needs a shift; each one is refused first, and goes in when retried.
    for (++key; key <= 16; ++key) {
        const auto priority = static_cast<uint32_t>(100 + key * 7 % 13);
        const auto before = one.owner.layout();
        one.owner.fail_shifts_after(0, KR_UTILS_STATUS_DEVICE_ERROR);
        const kr_utils_status status = one.add(key, priority);
        one.owner.heal();
        if (status != KR_UTILS_STATUS_SUCCESS) {
            EXPECT_EQ(status, KR_UTILS_STATUS_DEVICE_ERROR);
            EXPECT_EQ(one.owner.layout(), before);
            EXPECT_EQ(one.remove(key), KR_UTILS_STATUS_ENTRY_NOT_FOUND);
            EXPECT_EQ(one.add(key, priority), KR_UTILS_STATUS_SUCCESS);
        }
        EXPECT_EQ(one.owner.check_all(), "");
    }
    EXPECT_GT(one.owner.failed_calls(), 0U);
    EXPECT_EQ(one.owner.count(), 16U);
}

// Single entries in turn with the smallest levels that are worth a hop, on either side of a place from which all free
// slots are far away: no way to a free slot has more pieces.
TEST(psort_entry_set, finds_a_free_slot_however_far_away_and_whatever_levels_are_on_the_way) {
    constexpr uint32_t size = 65536;
    constexpr uint32_t half = (size - 1400) / 2;
    std::vector<uint32_t> levels; // their sizes, from the middle outwards
    for (uint32_t passed = 0; passed < half; passed += levels.back()) {
        const uint32_t hopped = levels.size() < 64 ? 2 : passed / 8;
        levels.push_back(std::min(levels.size() % 2 == 0 ? 1 : hopped, half - passed));
    }
    table one(size);
    const auto middle = static_cast<uint32_t>(65535 - levels.size()); // the first entry has the first slot
    std::vector<psort_entry> entries;
    const auto add_level = [&](uint32_t count, uint32_t priority) {
        for (uint32_t added = 0; added < count; ++added) {
            entries.push_back({entries.size() + 1, priority, 0});
            ASSERT_EQ(psort_entry_set(one.handle, PSORT_CMD_ADD, &entries.back()), KR_UTILS_STATUS_SUCCESS);
        }
    };
    for (auto index = static_cast<uint32_t>(levels.size()); index-- > 0;) {
        add_level(levels[index], middle + 1 + index);
    }
    for (uint32_t index = 0; index < levels.size(); ++index) {
        add_level(levels[index], middle - 1 - index);
    }
    one.owner.added(entries);
    ASSERT_EQ(one.owner.shift_calls(), 0U) << "the free slots are to be at one end";
    EXPECT_EQ(one.add(entries.size() + 1, middle), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.owner.check_all(), "");
}

TEST(psort_thresholds, fire_once_each_time_they_are_crossed) {
    table one(10, 80, 20);
    auto add_until = [&](uint64_t count) {
        while (one.owner.count() < count) {
            ASSERT_EQ(one.add(one.owner.count() + 1, 5), KR_UTILS_STATUS_SUCCESS);
        }
    };
    auto delete_until = [&](uint64_t count) {
        while (one.owner.count() > count) {
            ASSERT_EQ(one.remove(one.owner.count()), KR_UTILS_STATUS_SUCCESS);
        }
    };
    add_until(7);
    EXPECT_EQ(one.owner.almost_full_calls(), 0U);
    add_until(8);
    EXPECT_EQ(one.owner.almost_full_calls(), 1U);
    add_until(10);
    delete_until(8);
    EXPECT_EQ(one.owner.almost_full_calls(), 1U) << "still at or above: no news";
    delete_until(7);
    add_until(8);
    EXPECT_EQ(one.owner.almost_full_calls(), 2U);

    EXPECT_EQ(one.owner.almost_empty_calls(), 0U);
    delete_until(3);
    EXPECT_EQ(one.owner.almost_empty_calls(), 0U);
    delete_until(2);
    EXPECT_EQ(one.owner.almost_empty_calls(), 1U);
    delete_until(0);
    EXPECT_EQ(one.owner.almost_empty_calls(), 1U);
}

TEST(psort_thresholds, of_100_and_0_percent_mean_full_and_empty) {
    table one(3);
    for (uint64_t key = 1; key <= 3; ++key) {
        EXPECT_EQ(one.owner.almost_full_calls(), 0U);
        ASSERT_EQ(one.add(key, 1), KR_UTILS_STATUS_SUCCESS);
    }
    EXPECT_EQ(one.owner.almost_full_calls(), 1U);
    for (uint64_t key = 1; key <= 3; ++key) {
        EXPECT_EQ(one.owner.almost_empty_calls(), 0U);
        ASSERT_EQ(one.remove(key), KR_UTILS_STATUS_SUCCESS);
    }
    EXPECT_EQ(one.owner.almost_empty_calls(), 1U);
}

TEST(psort_thresholds, are_rounded_towards_neither_side) {
    table one(3, 50, 40); // 1.5 and 1.2 entries
    ASSERT_EQ(one.add(1, 1), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.owner.almost_full_calls(), 0U);
    ASSERT_EQ(one.add(2, 1), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.owner.almost_full_calls(), 1U);
    ASSERT_EQ(one.remove(2), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.owner.almost_empty_calls(), 1U);
}

TEST(psort_thresholds, whose_notification_fails_fail_nothing) {
    table one(2);
    one.owner.fail_thresholds_with(KR_UTILS_STATUS_ERROR);
    EXPECT_EQ(one.add(1, 1), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.add(2, 1), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.remove(1), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.remove(2), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(one.owner.almost_full_calls(), 1U);
    EXPECT_EQ(one.owner.almost_empty_calls(), 1U);
}

TEST(psort_clear_table, empties_it_without_a_notification_and_leaves_it_usable) {
    table one(100);
    for (int round = 0; round < 3; ++round) {
        for (uint64_t key = 1; key <= 100; ++key) {
            ASSERT_EQ(one.add(key, static_cast<uint32_t>(key % 7)), KR_UTILS_STATUS_SUCCESS);
        }
        const uint64_t shifts = one.owner.shift_calls();
        EXPECT_EQ(psort_clear_table(one.handle), KR_UTILS_STATUS_SUCCESS);
        one.owner.cleared();
        EXPECT_EQ(one.owner.shift_calls(), shifts);
        EXPECT_EQ(one.owner.almost_empty_calls(), 0U);
        EXPECT_EQ(one.remove(1), KR_UTILS_STATUS_ENTRY_NOT_FOUND);
        uint32_t finished = 0;
        EXPECT_EQ(psort_background_worker(one.handle, &finished), KR_UTILS_STATUS_SUCCESS);
        EXPECT_EQ(finished, 1U);
    }
    EXPECT_EQ(psort_clear_table(one.handle), KR_UTILS_STATUS_SUCCESS) << "an empty table can be cleared";
    EXPECT_EQ(one.owner.check_all(), "");
}

// A step that may pull no free slot says that nothing is left to do; later adds must not take the slots to be even.
TEST(psort_background, that_may_move_nothing_changes_nothing) {
    constexpr uint32_t size = 200;
    table looked_at = table::without_background_moves(size);
    table left_alone = table::without_background_moves(size);
    std::minstd_rand random(1);
    for (uint64_t key = 1; key <= size; ++key) {
        const auto priority = static_cast<uint32_t>(random() % 65536);
        ASSERT_EQ(looked_at.add(key, priority), KR_UTILS_STATUS_SUCCESS);
        ASSERT_EQ(left_alone.add(key, priority), KR_UTILS_STATUS_SUCCESS);
        ASSERT_EQ(looked_at.owner.layout(), left_alone.owner.layout()) << "after " << key << " adds";
        uint32_t finished = 0;
        ASSERT_EQ(psort_background_worker(looked_at.handle, &finished), KR_UTILS_STATUS_SUCCESS);
        ASSERT_EQ(finished, 1U);
    }
    EXPECT_EQ(looked_at.owner.rules_moved(), left_alone.owner.rules_moved());
    EXPECT_GT(looked_at.owner.rules_moved(), 0U);
}

TEST(psort_notification, that_calls_back_is_refused) {
    struct nosy {
        psort_handle handle = nullptr;
        kr_utils_status seen = 0;
        static kr_utils_status called(uint32_t, psort_notification_data *, void *context) {
            auto *const self = static_cast<nosy *>(context);
            self->seen = psort_clear_table(self->handle);
            return KR_UTILS_STATUS_SUCCESS;
        }
    } owner;
    placement_owner shape(1);
    psort_table_attributes attributes = shape.attributes();
    attributes.cookie = reinterpret_cast<uintptr_t>(&owner);
    attributes.notification_callback = &nosy::called;
    ASSERT_EQ(psort_init(&owner.handle, &attributes), KR_UTILS_STATUS_SUCCESS);
    psort_entry entry = {1, 1, 0};
    EXPECT_EQ(psort_entry_set(owner.handle, PSORT_CMD_ADD, &entry), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(owner.seen, KR_UTILS_STATUS_BUSY);
    EXPECT_EQ(psort_entry_set(owner.handle, PSORT_CMD_DELETE, &entry), KR_UTILS_STATUS_SUCCESS);
}

} // namespace
