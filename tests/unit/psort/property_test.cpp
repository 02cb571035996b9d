/*
 * Random operations on pSort tables of many sizes and priority distributions, with an owner that checks the order, the
 * destinations and the loss of entries after every single notification. The seed is printed with each failure; set
 * KR_TEST_SEED to run another one, and KR_PLACEMENT_LONG to let adds to the largest tables fail up to their last slots.
 */
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "placement_owner.h"

namespace {

using kr_test::placement_owner;

uint64_t seed() {
    const char *const text = std::getenv("KR_TEST_SEED");
    return text == nullptr ? 20240611 : std::strtoull(text, nullptr, 0);
}

// Draws the priorities of one trace.
struct priority_source {
    const char *name;
    uint32_t (*draw)(std::mt19937_64 &random, uint64_t step);
};

constexpr priority_source priority_sources[] = {
    {"anything", [](std::mt19937_64 &random, uint64_t) { return static_cast<uint32_t>(random() % 65536); }},
    {"one level", [](std::mt19937_64 &, uint64_t) { return 100U; }},
    {"two levels at the ends", [](std::mt19937_64 &random, uint64_t) { return random() % 2 == 0 ? 0U : 65535U; }},
    {"five levels", [](std::mt19937_64 &random, uint64_t) { return static_cast<uint32_t>(random() % 5 * 1000); }},
    {"levels of very unequal size",
     [](std::mt19937_64 &random, uint64_t) {
         const uint64_t drawn = random() % 8100;
         uint32_t root = 0;
         while (uint64_t{root + 1} * (root + 1) <= drawn) {
             ++root;
         }
         return 20000 + root;
     }},
    {"ascending", [](std::mt19937_64 &, uint64_t step) { return static_cast<uint32_t>(step % 65536); }},
    {"descending", [](std::mt19937_64 &, uint64_t step) { return static_cast<uint32_t>(65535 - step % 65536); }},
    {"towards the middle",
     [](std::mt19937_64 &, uint64_t step) {
         return static_cast<uint32_t>(step % 2 == 0 ? step % 32768 : 65535 - step % 32768);
     }},
    {"dense batches", [](std::mt19937_64 &random,
                         uint64_t step) { return static_cast<uint32_t>((step / 20 * 7919 % 65000) + random() % 40); }},
};

constexpr priority_source gapless_sources[] = {priority_sources[0], priority_sources[3], priority_sources[8]};

class placement_property : public testing::TestWithParam<std::tuple<uint32_t, priority_source>> {
  protected:
    placement_property() : size(std::get<0>(GetParam())), owner(size), random(seed() + size) {
        psort_table_attributes attributes = owner.attributes();
        EXPECT_EQ(psort_init(&handle, &attributes), KR_UTILS_STATUS_SUCCESS);
        RecordProperty("seed", std::to_string(seed()));
    }

    kr_utils_status add(uint64_t key) {
        psort_entry entry = {key, std::get<1>(GetParam()).draw(random, key), UINT32_MAX};
        const kr_utils_status status = psort_entry_set(handle, PSORT_CMD_ADD, &entry);
        if (status == KR_UTILS_STATUS_SUCCESS) {
            owner.added(entry);
            keys.push_back(key);
        }
        return status;
    }

    void remove_any() {
        const size_t index = random() % keys.size();
        psort_entry entry = {keys[index], 0, 0};
        owner.forget_shifts();
        ASSERT_EQ(psort_entry_set(handle, PSORT_CMD_DELETE, &entry), KR_UTILS_STATUS_SUCCESS);
        ASSERT_TRUE(owner.last_shifts().empty()) << "a delete moved something";
        owner.deleted(keys[index]);
        keys[index] = keys.back();
        keys.pop_back();
    }

    kr_utils_status work(uint32_t *finished) {
        owner.forget_shifts();
        const uint64_t moved = owner.rules_moved();
        const kr_utils_status status = psort_background_worker(handle, finished);
        EXPECT_LE(owner.last_shifts().size(), 1U) << "a background step is one shift at most";
        EXPECT_LE(owner.rules_moved(), moved + 64) << "a background step is a small one";
        for (const psort_notification_data &step : owner.last_shifts()) {
            const int64_t distance = int64_t{step.new_index} - step.old_index;
            EXPECT_LE(std::abs(distance), 15) << "a background step pulls more free slots than the delta size";
        }
        return status;
    }

    // Steps to the end; then every entry has its share of the free slots before it. Where these are fewer than the
    // entries, each may be a third of the way to the next one off its place, and all as far as the priorities say that
    // the next adds will come elsewhere, which is not farther than chance explains. Where there are few levels free
    // slots may stay anywhere, so this looks at the sources that give each entry a level of its own.
    void finish_evenly() {
        uint32_t finished = 0;
        while (finished == 0) {
            ASSERT_EQ(work(&finished), KR_UTILS_STATUS_SUCCESS);
        }
        const std::string_view name = std::get<1>(GetParam()).name;
        if (keys.size() < 20 || (name != "ascending" && name != "descending")) {
            return;
        }
        const auto live = static_cast<double>(keys.size());
        const auto free_slots = static_cast<double>(size - keys.size());
        const double tolerance = free_slots < live ? 1 + free_slots / std::sqrt(live) : 0.501;
        uint64_t rank = 0;
        const std::vector<uint64_t> layout = owner.layout();
        for (uint64_t slot = 0; slot < size; ++slot) {
            if (layout[slot] != 0) {
                const double share = free_slots * static_cast<double>(rank) / live;
                ASSERT_NEAR(static_cast<double>(slot - rank), share, tolerance) << "slot " << slot;
                ++rank;
            }
        }
    }

    uint32_t size;
    placement_owner owner;
    std::mt19937_64 random;
    psort_handle handle = nullptr;
    std::vector<uint64_t> keys;
    uint64_t next_key = 1;
};

// Every add below the size succeeds, the next one is refused, and all is where it should be, right up to the last slot.
TEST_P(placement_property, fills_to_the_last_slot) {
    while (keys.size() < size) {
        ASSERT_EQ(add(next_key++), KR_UTILS_STATUS_SUCCESS) << "seed " << seed();
        ASSERT_EQ(owner.complaints(), "") << "seed " << seed() << ", entry " << keys.size();
    }
    EXPECT_EQ(add(next_key), KR_UTILS_STATUS_NO_RESOURCES);
    EXPECT_EQ(owner.check_all(), "") << "seed " << seed();
    EXPECT_EQ(owner.count(), size);
}

TEST_P(placement_property, holds_over_adds_deletes_background_steps_and_clears) {
    const uint32_t steps = size <= 1000 ? 4000 : 6000;
    uint64_t aim = size; // the random walk is pulled to occupancies all over the range
    for (uint32_t step = 0; step < steps; ++step) {
        if (step % 500 == 0) {
            aim = step % 1000 == 0 ? size : random() % (size + 1);
        }
        const uint64_t what = random() % 100;
        if (what < 3) {
            uint32_t finished = 0;
            ASSERT_EQ(work(&finished), KR_UTILS_STATUS_SUCCESS);
        } else if (what == 99 && random() % 20 == 0) {
            ASSERT_EQ(psort_clear_table(handle), KR_UTILS_STATUS_SUCCESS);
            owner.cleared();
            keys.clear();
        } else if (!keys.empty() && (keys.size() >= aim ? what < 60 : what < 30)) {
            remove_any();
        } else {
            const kr_utils_status expected =
                keys.size() == size ? KR_UTILS_STATUS_NO_RESOURCES : KR_UTILS_STATUS_SUCCESS;
            ASSERT_EQ(add(next_key++), expected);
        }
        ASSERT_EQ(owner.complaints(), "") << "seed " << seed() << ", step " << step;
        ASSERT_EQ(owner.count(), keys.size());
    }
    EXPECT_EQ(owner.check_all(), "") << "seed " << seed();
}

// Shifts fail at random points of plans: the call fails with that very status, the entry is out, the rest is intact.
TEST_P(placement_property, survives_notifications_that_fail_anywhere) {
    const uint32_t steps = size <= 1000 ? 3000 : 1500;
    for (uint32_t filled = 0; filled < size && size <= 6000 && filled < size * 9 / 10; ++filled) {
        ASSERT_EQ(add(next_key++), KR_UTILS_STATUS_SUCCESS);
    }
    for (uint32_t step = 0; step < steps; ++step) {
        const bool arm = random() % 2 == 0;
        if (arm) {
            owner.fail_shifts_after(random() % 3, 100 + step);
        }
        const uint64_t failures = owner.failed_calls();
        const uint64_t what = random() % 100;
        kr_utils_status status = KR_UTILS_STATUS_SUCCESS;
        if (what < 10) {
            uint32_t finished = 2;
            status = work(&finished);
            ASSERT_TRUE(finished == 0 || (finished == 1 && status == KR_UTILS_STATUS_SUCCESS));
        } else if (!keys.empty() && (keys.size() == size || what < 45)) {
            remove_any();
        } else {
            status = add(next_key++);
            ASSERT_EQ(status == KR_UTILS_STATUS_SUCCESS, owner.has(next_key - 1));
        }
        ASSERT_EQ(status, owner.failed_calls() == failures ? 0U : 100 + step);
        owner.heal();
        ASSERT_LE(owner.failed_calls(), failures + 1) << "the library went on after a failure";
        ASSERT_EQ(owner.complaints(), "") << "seed " << seed() << ", step " << step;
    }
    // The library and its owner agree on what there is: each key can be deleted once, and then nothing is left.
    EXPECT_EQ(owner.check_all(), "") << "seed " << seed();
    while (!keys.empty()) {
        remove_any();
    }
    EXPECT_EQ(owner.check_all(), "");
}

// A step that fails is a step not made, and one that works goes on from what adds and deletes have left, also when an
// add has failed half-way.
TEST_P(placement_property, background_steps_between_adds_that_fail) {
    while (keys.size() < size - size / 20) {
        ASSERT_EQ(add(next_key++), KR_UTILS_STATUS_SUCCESS);
    }
    const uint32_t rounds = size <= 6000 ? 400 : 20;
    for (uint32_t round = 0; round < rounds; ++round) {
        uint32_t finished = 0;
        for (uint64_t steps = random() % 50; steps > 0 && finished == 0; --steps) {
            ASSERT_EQ(work(&finished), KR_UTILS_STATUS_SUCCESS);
        }
        const bool fails_step = round % 2 == 0;
        const auto layout = owner.layout();
        const uint64_t failures = owner.failed_calls();
        owner.fail_shifts_after(fails_step ? 0 : random() % 3, KR_UTILS_STATUS_DEVICE_ERROR);
        if (fails_step) {
            const kr_utils_status status = work(&finished);
            ASSERT_EQ(finished == 1, status == KR_UTILS_STATUS_SUCCESS);
            ASSERT_EQ(owner.layout(), layout);
        } else if (keys.size() < size) {
            (void)add(next_key++);
        }
        ASSERT_LE(owner.failed_calls(), failures + 1);
        owner.heal();
        if (!keys.empty() && keys.size() + 1 >= size) {
            remove_any();
        }
        ASSERT_EQ(owner.complaints(), "") << "seed " << seed() << ", round " << round;
        if (round % 16 == 1) {
            finish_evenly();
        }
    }
    EXPECT_EQ(owner.check_all(), "") << "seed " << seed();
}

// From any state the background steps come to an end, within a bound, and the end is an end.
TEST_P(placement_property, background_steps_finish_and_stay_finished) {
    const uint32_t fills[] = {0, 1, size / 3, size / 2, size - size / 10, size - 1, size};
    for (uint32_t fill : fills) {
        if (size > 6000 && fill <= size / 2) {
            continue; // so far apart that the steps, although they end, are millions
        }
        while (keys.size() < fill) {
            ASSERT_EQ(add(next_key++), KR_UTILS_STATUS_SUCCESS);
        }
        for (uint32_t gone = 0; gone < fill / 20 && size <= 6000; ++gone) {
            remove_any();
        }
        uint32_t finished = 0;
        uint64_t steps = 0;
        // Each step takes an entry 15 slots nearer to its place, or all the way, and none away.
        const uint64_t bound = keys.size() * uint64_t{size / 15 + 1} + 1;
        while (finished == 0) {
            ASSERT_EQ(work(&finished), KR_UTILS_STATUS_SUCCESS);
            ASSERT_EQ(owner.complaints(), "") << "seed " << seed();
            ASSERT_LE(++steps, bound) << "no end in sight; seed " << seed() << ", fill " << fill;
        }
        finish_evenly();
        const auto layout = owner.layout();
        for (int again = 0; again < 3; ++again) {
            ASSERT_EQ(work(&finished), KR_UTILS_STATUS_SUCCESS);
            ASSERT_EQ(finished, 1U);
        }
        EXPECT_EQ(owner.layout(), layout);
    }
    EXPECT_EQ(owner.check_all(), "");
}

// Each add is refused at its first notification, retried and refused at its second, and so on until it goes in: every
// notification of every plan fails once, and what the plan did before that stays valid.
TEST_P(placement_property, retries_adds_that_fail_at_each_of_their_notifications) {
    // The largest tables are filled to the brim by other tests; here that would be millions of plans.
    const bool is_long = std::getenv("KR_PLACEMENT_LONG") != nullptr;
    const uint32_t fill = size <= 1000 ? size : size <= 6000 || is_long ? size - size / 20 : size / 4 * 3;
    while (keys.size() < fill) {
        uint64_t successes = 0;
        kr_utils_status status = KR_UTILS_STATUS_ERROR;
        while (status != KR_UTILS_STATUS_SUCCESS) {
            ASSERT_LE(successes, uint64_t{size}) << "seed " << seed() << ": no plan comes to an end";
            owner.fail_shifts_after(successes++, KR_UTILS_STATUS_DEVICE_ERROR);
            status = add(next_key);
            ASSERT_TRUE(status == KR_UTILS_STATUS_SUCCESS || status == KR_UTILS_STATUS_DEVICE_ERROR);
            ASSERT_EQ(owner.complaints(), "") << "seed " << seed() << ", entry " << next_key;
        }
        owner.heal();
        ++next_key;
    }
    EXPECT_EQ(owner.check_all(), "") << "seed " << seed();
    EXPECT_EQ(owner.count(), fill);
}

// After a clear nothing is left: no key can be deleted, and there is room for as many entries as on the first day.
TEST_P(placement_property, is_empty_after_a_clear) {
    for (const uint32_t fill : {size, size / 2, 1U}) {
        while (keys.size() < fill) {
            ASSERT_EQ(add(next_key++), KR_UTILS_STATUS_SUCCESS);
        }
        ASSERT_EQ(psort_clear_table(handle), KR_UTILS_STATUS_SUCCESS);
        owner.cleared();
        for (const uint64_t key : keys) {
            psort_entry entry = {key, 0, 0};
            ASSERT_EQ(psort_entry_set(handle, PSORT_CMD_DELETE, &entry), KR_UTILS_STATUS_ENTRY_NOT_FOUND);
        }
        keys.clear();
    }
    while (keys.size() < size) {
        ASSERT_EQ(add(next_key++), KR_UTILS_STATUS_SUCCESS);
    }
    EXPECT_EQ(owner.check_all(), "") << "seed " << seed();
}

std::string name_of(const testing::TestParamInfo<placement_property::ParamType> &info) {
    std::string name = std::to_string(std::get<0>(info.param)) + "_" + std::get<1>(info.param).name;
    for (char &letter : name) {
        letter = letter == ' ' ? '_' : letter;
    }
    return name;
}

// One trace, run again for each of its notifications, which then fails: once alone, once with all behind it.
class placement_fault : public testing::TestWithParam<priority_source> {
  protected:
    static constexpr uint32_t size = 48;
    static constexpr uint64_t operations = 4 * size;

    // Returns how many shifts succeeded. Keys are dealt by step, so that every run sees the same trace up to its fault.
    uint64_t run(uint64_t failing_shift, bool heals) {
        placement_owner owner(size);
        psort_table_attributes attributes = owner.attributes();
        psort_handle handle = nullptr;
        EXPECT_EQ(psort_init(&handle, &attributes), KR_UTILS_STATUS_SUCCESS);
        std::mt19937_64 random(seed());
        owner.fail_shifts_after(failing_shift, KR_UTILS_STATUS_DEVICE_ERROR);
        for (uint64_t step = 1; step <= operations && owner.complaints().empty(); ++step) {
            const uint64_t failures = owner.failed_calls();
            operate(&owner, handle, &random, step);
            if (heals && owner.failed_calls() > failures) {
                owner.heal();
            }
        }
        EXPECT_EQ(owner.check_all(), "") << "seed " << seed() << ", failing shift " << failing_shift;
        EXPECT_EQ(psort_clear_table(handle), KR_UTILS_STATUS_SUCCESS);
        return owner.shift_calls();
    }

  private:
    void operate(placement_owner *owner, psort_handle handle, std::mt19937_64 *random, uint64_t step) const {
        const uint64_t failures = owner->failed_calls();
        const uint32_t priority = GetParam().draw(*random, step);
        const uint64_t victim = step - 1 - (*random)() % (size / 2);
        if (step > size && owner->has(victim)) {
            psort_entry gone = {victim, 0, 0};
            EXPECT_EQ(psort_entry_set(handle, PSORT_CMD_DELETE, &gone), KR_UTILS_STATUS_SUCCESS);
            owner->deleted(victim);
        }
        if (owner->count() == size) {
            return;
        }
        psort_entry entry = {step, priority, UINT32_MAX};
        const kr_utils_status status = psort_entry_set(handle, PSORT_CMD_ADD, &entry);
        EXPECT_EQ(status, owner->failed_calls() == failures ? 0U : uint32_t{KR_UTILS_STATUS_DEVICE_ERROR});
        if (status == KR_UTILS_STATUS_SUCCESS) {
            owner->added(entry);
        } else {
            EXPECT_EQ(entry.index, UINT32_MAX) << "an output was written on failure";
        }
    }
};

TEST_P(placement_fault, at_each_notification_of_a_trace_loses_nothing) {
    const uint64_t shifts = run(UINT64_MAX, true);
    for (uint64_t failing_shift = 0; failing_shift < shifts; ++failing_shift) {
        run(failing_shift, true);
        run(failing_shift, false);
        ASSERT_FALSE(HasFailure());
    }
}

std::string fault_name_of(const testing::TestParamInfo<priority_source> &info) {
    return name_of({{1, info.param}, info.index});
}

INSTANTIATE_TEST_SUITE_P(all, placement_fault, testing::ValuesIn(priority_sources), fault_name_of);

INSTANTIATE_TEST_SUITE_P(small, placement_property,
                         testing::Combine(testing::Values(1U, 2U, 3U, 4U, 5U, 8U, 15U, 63U, 64U, 65U),
                                          testing::ValuesIn(priority_sources)),
                         name_of);
INSTANTIATE_TEST_SUITE_P(flow_table, placement_property,
                         testing::Combine(testing::Values(1000U), testing::ValuesIn(priority_sources)), name_of);
INSTANTIATE_TEST_SUITE_P(large, placement_property,
                         testing::Combine(testing::Values(6000U), testing::ValuesIn(priority_sources)), name_of);
// Without the sources that leave the owner, which looks at every free slot next to a change, the longest gaps.
INSTANTIATE_TEST_SUITE_P(largest, placement_property,
                         testing::Combine(testing::Values(65536U), testing::ValuesIn(gapless_sources)), name_of);

} // namespace
