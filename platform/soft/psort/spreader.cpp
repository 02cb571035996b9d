/*
 * Where entries belong, and the next block that can go there. Of neighbours that have to go up the first has free slots
 * before it, as many as it has to go, because the one before it has no wish to go up; of those that have to go down the
 * last has, likewise. So as long as one entry is not at home some block can move, and those at home are never touched.
 */
#include "psort/spreader.h"

#include <algorithm>

namespace kr_soft::psort {

// How many slots an entry lies behind the one where it belongs; negative when it lies before it. The entry of rank r
// has its share of the free slots before it, r / count of them, rounded.
int32_t spreader::distance_home(const shadow &table, const place &entry) {
    const int64_t count = table.count();
    const int64_t free_before = (2 * int64_t{table.free_count()} * entry.rank + count) / (2 * count);
    return entry.slot - entry.rank - static_cast<int32_t>(free_before);
}

// Up go `first`, which can, and those right behind it that have as far to go.
shift spreader::upward_from(const shadow &table, place first, int32_t delta_size) {
    const int32_t distance = distance_home(table, first);
    place end = first;
    do {
        ++end.slot;
        ++end.rank;
    } while (end.rank - first.rank < max_step_rules && end.slot < table.size() && table.is_live(end.slot) &&
             distance_home(table, end) == distance);
    return {first.slot, first.slot - std::min(distance, delta_size), end.slot - first.slot};
}

// Down go the last of those from `first` on that have to, and those right before it that have as far to go.
shift spreader::downward_from(const shadow &table, place first, int32_t delta_size) {
    place last = first;
    for (place next = first; next.slot < table.size() && distance_home(table, next) < 0;) {
        last = next;
        next = {table.next_live(next.slot + 1), next.rank + 1};
    }
    const int32_t distance = -distance_home(table, last);
    place begin = last;
    while (last.rank - begin.rank + 1 < max_step_rules && begin.slot > 0 && table.is_live(begin.slot - 1) &&
           distance_home(table, {begin.slot - 1, begin.rank - 1}) == -distance) {
        --begin.slot;
        --begin.rank;
    }
    return {begin.slot, begin.slot + std::min(distance, delta_size), last.slot - begin.slot + 1};
}

shift spreader::plan_step(const shadow &table, int32_t delta_size) {
    if (delta_size < 1 || table.has_few_levels()) {
        return {0, 0, 0};
    }
    for (place entry = {table.next_live(settled_.slot), settled_.rank}; entry.slot < table.size();
         entry = {table.next_live(entry.slot + 1), entry.rank + 1}) {
        const int32_t distance = distance_home(table, entry);
        if (distance != 0) {
            return distance > 0 ? upward_from(table, entry, delta_size) : downward_from(table, entry, delta_size);
        }
        settled_ = {entry.slot + 1, entry.rank + 1};
    }
    return {0, 0, 0};
}

} // namespace kr_soft::psort
