/*
 * Traces of adds and deletes for measuring placement: what a controller might do to one flow table, generated from a
 * seed. They speak of keys and priorities only, so they drive the placement library alone or a whole table above it.
 */
#ifndef KR_BENCH_PLACEMENT_TRACES_H
#define KR_BENCH_PLACEMENT_TRACES_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace kr_bench {

struct trace_operation {
    enum kind_type : uint8_t { add, remove, background } kind; // background: run the worker until it has finished
    bool measured;                                             // false: part of the way to the state of interest
    uint32_t priority;
    uint64_t key; // from 1
};

using trace = std::vector<trace_operation>;

constexpr uint32_t priority_range = 65536;

inline trace adds_of(const std::vector<uint32_t> &priorities) {
    trace made;
    for (uint32_t priority : priorities) {
        made.push_back({trace_operation::add, true, priority, made.size() + 1});
    }
    return made;
}

// `count` distinct priorities in random order. More than there are priorities wrap round.
inline std::vector<uint32_t> distinct_priorities(std::mt19937_64 &random, size_t count) {
    std::vector<uint32_t> all(priority_range);
    std::iota(all.begin(), all.end(), 0U);
    for (size_t index = 0; index < all.size(); ++index) {
        std::swap(all[index], all[index + random() % (all.size() - index)]);
    }
    all.resize(std::min<size_t>(count, priority_range));
    return all;
}

// ---- fills ---------------------------------------------------------------------------------------------------------

inline trace fill_random(std::mt19937_64 &random, size_t size) {
    return adds_of(distinct_priorities(random, size));
}

// With repeats: where there are about as many slots as priorities, distinct ones would tell each entry its slot.
inline trace fill_random_with_repeats(std::mt19937_64 &random, size_t size) {
    std::vector<uint32_t> priorities;
    for (size_t index = 0; index < size; ++index) {
        priorities.push_back(static_cast<uint32_t>(random() % priority_range));
    }
    return adds_of(priorities);
}

// Most of them low: priorities that say little about where the next one comes.
inline trace fill_random_skewed(std::mt19937_64 &random, size_t size) {
    std::vector<uint32_t> priorities;
    for (size_t index = 0; index < size; ++index) {
        const double drawn = static_cast<double>(random() >> 11) / 9007199254740992.0;
        priorities.push_back(static_cast<uint32_t>(drawn * drawn * drawn * priority_range));
    }
    return adds_of(priorities);
}

inline trace fill_random_to_90_percent(std::mt19937_64 &random, size_t size) {
    trace made = fill_random(random, size);
    made.resize(size * 9 / 10);
    return made;
}

inline trace fill_ascending(std::mt19937_64 &random, size_t size) {
    std::vector<uint32_t> priorities = distinct_priorities(random, size);
    std::sort(priorities.begin(), priorities.end());
    return adds_of(priorities);
}

inline trace fill_descending(std::mt19937_64 &random, size_t size) {
    std::vector<uint32_t> priorities = distinct_priorities(random, size);
    std::sort(priorities.rbegin(), priorities.rend());
    return adds_of(priorities);
}

// One after the other from somewhere in the lower half of the range: nothing tells beforehand how far they will go.
inline trace fill_counting(std::mt19937_64 &random, size_t size, bool up) {
    const uint32_t room = priority_range - static_cast<uint32_t>(std::min<size_t>(size, priority_range));
    const auto base = static_cast<uint32_t>(random() % (room + 1));
    std::vector<uint32_t> priorities(std::min<size_t>(size, priority_range));
    std::iota(priorities.begin(), priorities.end(), base);
    if (!up) {
        std::reverse(priorities.begin(), priorities.end());
    }
    return adds_of(priorities);
}

inline trace fill_counting_up(std::mt19937_64 &random, size_t size) {
    return fill_counting(random, size, true);
}

inline trace fill_counting_down(std::mt19937_64 &random, size_t size) {
    return fill_counting(random, size, false);
}

enum class batch_order { ascending, descending, any, shuffled };

// Batches of 20 to 80 neighbouring priorities, each batch at a random place of the range: policies installed as a
// whole.
inline trace fill_batches(std::mt19937_64 &random, size_t size, batch_order order) {
    std::vector<uint32_t> priorities;
    while (priorities.size() < size) {
        const size_t length = std::min<size_t>(20 + random() % 61, size - priorities.size());
        const auto base = static_cast<uint32_t>(random() % (priority_range - 100));
        std::vector<uint32_t> batch(length);
        std::iota(batch.begin(), batch.end(), base);
        const bool down = order == batch_order::descending || (order == batch_order::any && random() % 2 == 0);
        if (down) {
            std::reverse(batch.begin(), batch.end());
        } else if (order == batch_order::shuffled) {
            std::shuffle(batch.begin(), batch.end(), random);
        }
        priorities.insert(priorities.end(), batch.begin(), batch.end());
    }
    return adds_of(priorities);
}

inline trace fill_batches_in_order(std::mt19937_64 &random, size_t size) {
    return fill_batches(random, size, batch_order::any);
}

inline trace fill_batches_shuffled(std::mt19937_64 &random, size_t size) {
    return fill_batches(random, size, batch_order::shuffled);
}

// `level_count` levels at random priorities; weight(rank) says how popular each one is.
template <typename Weight> trace fill_levels(std::mt19937_64 &random, size_t size, size_t level_count, Weight weight) {
    const std::vector<uint32_t> levels = distinct_priorities(random, level_count);
    std::vector<double> cumulated;
    for (size_t rank = 0; rank < level_count; ++rank) {
        cumulated.push_back(weight(rank) + (cumulated.empty() ? 0.0 : cumulated.back()));
    }
    std::vector<uint32_t> priorities;
    for (size_t index = 0; index < size; ++index) {
        const double drawn = static_cast<double>(random() >> 11) / 9007199254740992.0 * cumulated.back();
        const auto rank = std::upper_bound(cumulated.begin(), cumulated.end(), drawn) - cumulated.begin();
        priorities.push_back(levels[std::min(static_cast<size_t>(rank), level_count - 1)]);
    }
    return adds_of(priorities);
}

// Like a packet filter compiled to rules: a few levels hold most of it, many hold a handful (Zipf).
inline trace fill_filter_levels(std::mt19937_64 &random, size_t size) {
    return fill_levels(random, size, 85, [](size_t rank) { return 1.0 / static_cast<double>(rank + 1); });
}

inline trace fill_five_levels(std::mt19937_64 &random, size_t size) {
    return fill_levels(random, size, 5, [](size_t) { return 1.0; });
}

// ---- churn ---------------------------------------------------------------------------------------------------------

// Fills to `percent`, then deletes a random entry and adds one of a random priority, over and over. The first pairs
// only forget the fill, then those count that are measured. Large tables get by with fewer of both.
inline trace churn(std::mt19937_64 &random, size_t size, size_t percent, size_t background_every) {
    const bool is_large = size > 10000;
    const size_t forgotten = is_large ? size / 4 : 5 * size;
    const size_t measured_pairs = is_large ? size / 8 : 4 * size;
    trace made = fill_random(random, size * percent / 100);
    std::vector<uint64_t> keys;
    for (trace_operation &operation : made) {
        operation.measured = false;
        keys.push_back(operation.key);
    }
    uint64_t next_key = keys.size() + 1;
    for (size_t pair = 0; pair < forgotten + measured_pairs; ++pair) {
        const bool measured = pair >= forgotten;
        uint64_t &key = keys[random() % keys.size()];
        made.push_back({trace_operation::remove, measured, 0, key});
        key = next_key++;
        made.push_back({trace_operation::add, measured, static_cast<uint32_t>(random() % priority_range), key});
        if (background_every != 0 && pair % background_every == background_every - 1) {
            made.push_back({trace_operation::background, measured, 0, 0});
        }
    }
    return made;
}

inline trace churn_at_90(std::mt19937_64 &random, size_t size) {
    return churn(random, size, 90, 0);
}
inline trace churn_at_95(std::mt19937_64 &random, size_t size) {
    return churn(random, size, 95, 0);
}
inline trace churn_at_99(std::mt19937_64 &random, size_t size) {
    return churn(random, size, 99, 0);
}
inline trace churn_at_95_with_worker(std::mt19937_64 &random, size_t size) {
    return churn(random, size, 95, 50);
}

// ---- the list ------------------------------------------------------------------------------------------------------

struct named_trace {
    const char *name;
    const char *goal; // for 1000 slots: rules moved per add, mean / 99th percentile / maximum; mean cost
    trace (*generate)(std::mt19937_64 &random, size_t size);
};

constexpr named_trace placement_traces[] = {
    {"fill, random distinct", "4 / 100 / 500; 10", fill_random},
    {"fill, the same to 90 %", "1.2 / 25 / 100", fill_random_to_90_percent},
    {"fill, random, repeats", "", fill_random_with_repeats},
    {"fill, random, skewed", "", fill_random_skewed},
    {"fill, ascending", "0.1 / 0 / 20", fill_ascending},
    {"fill, descending", "0.1 / 0 / 20", fill_descending},
    {"fill, counting up", "0.1 / 0 / 20", fill_counting_up},
    {"fill, counting down", "0.1 / 0 / 20", fill_counting_down},
    {"fill, clustered batches", "2.5 / 40 / 500; 3", fill_batches_in_order},
    {"fill, shuffled batches", "", fill_batches_shuffled},
    {"fill, 85 unequal levels", "2 / 45 / 100; 6", fill_filter_levels},
    {"fill, 5 levels", "0.3 / 4 / 4; 2.5", fill_five_levels},
    {"churn at 90 %", "7; 17", churn_at_90},
    {"churn at 95 %", "15; 27", churn_at_95},
    {"churn at 99 %", "55; 70", churn_at_99},
    {"churn at 95 %, worker", "8 / 55 / 195; 17", churn_at_95_with_worker},
};

} // namespace kr_bench

#endif
