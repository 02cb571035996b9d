/*
 * Where entries belong, and the next block that can go there. Of neighbours that have to go up the first has free slots
 * before it, as many as it has to go, because the one before it has no wish to go up; of those that have to go down the
 * last has, likewise. So as long as one entry is not at home some block can move, and those at home are never touched.
 */
#include "psort/spreader.h"

#include <algorithm>
#include <cstdlib>

#include "psort/rank_guess.h"

namespace kr_soft::psort {
namespace {

constexpr double most_priority_part = 1; // of the guess where adds will come
constexpr int32_t reach_divisor = 3;     // a free slot may be this part of the way to the next one off its even place
constexpr double distance_price = 0.2;   // of being off by one entry, in mean gaps between priorities

} // namespace

spreader::spreader(int32_t table_size)
    : homes_(static_cast<size_t>(table_size)), priorities_(static_cast<size_t>(table_size)) {}

// Between the priorities of the entry of this rank and of the one before.
double spreader::priority_gap(int32_t rank) const {
    const auto index = static_cast<size_t>(rank);
    return priorities_[index - 1] - priorities_[index];
}

// A free slot serves an add without a move if the priority of that lies between those of its neighbours: the wider they
// are apart, the likelier. The rank behind it, at most `reach` from where it would be in an even spread.
int32_t spreader::widest_gap_near(int32_t rank, int32_t reach, int32_t count) const {
    const double range = priorities_[0] - priorities_[static_cast<size_t>(count) - 1];
    const double price = distance_price * range / (count - 1);
    int32_t best = rank;
    double best_worth = priority_gap(rank);
    for (int32_t other = std::max(1, rank - reach); other <= std::min(count - 1, rank + reach); ++other) {
        const double worth = priority_gap(other) - price * std::abs(other - rank);
        if (worth > best_worth) {
            best = other;
            best_worth = worth;
        }
    }
    return best;
}

// Free slots are spread evenly over the adds to come, as far as the entries tell. Where there are as many as entries
// all of those have their share beside them, and nothing else matters.
void spreader::find_homes(const shadow &table) {
    const int32_t count = table.count();
    const int32_t free_slots = table.free_count();
    int32_t rank = 0;
    for (int32_t slot = table.next_live(0); slot < table.size(); slot = table.next_live(slot + 1)) {
        homes_[static_cast<size_t>(rank)] = 0;
        priorities_[static_cast<size_t>(rank++)] = table.priority(slot);
    }
    // First how many free slots are right before each entry.
    const rank_guess guess(table, count, free_slots < count ? most_priority_part : 0);
    const int32_t reach = free_slots == 0 ? 0 : count / free_slots / reach_divisor;
    int32_t given = 0;
    for (rank = 1; rank < count; ++rank) {
        const auto index = static_cast<size_t>(rank);
        const double share = free_slots * guess.rank_of(rank, (priorities_[index - 1] + 0.0 + priorities_[index]) / 2);
        for (; given < free_slots && given + 0.5 <= share; ++given) {
            ++homes_[static_cast<size_t>(widest_gap_near(rank, reach, count))];
        }
    }
    int32_t free_before = 0;
    for (rank = 0; rank < count; ++rank) {
        free_before += homes_[static_cast<size_t>(rank)];
        homes_[static_cast<size_t>(rank)] = rank + free_before;
    }
    settled_ = {};
    has_homes_ = true;
}

// How many slots an entry lies behind its home; negative when it lies before it.
int32_t spreader::distance_home(const place &entry) const {
    return entry.slot - homes_[static_cast<size_t>(entry.rank)];
}

// Up go `first`, which can, and those right behind it that have as far to go.
shift spreader::upward_from(const shadow &table, place first, int32_t delta_size) const {
    const int32_t distance = distance_home(first);
    place end = first;
    do {
        ++end.slot;
        ++end.rank;
    } while (end.rank - first.rank < max_step_rules && end.slot < table.size() && table.is_live(end.slot) &&
             distance_home(end) == distance);
    return {first.slot, first.slot - std::min(distance, delta_size), end.slot - first.slot};
}

// Down go the last of those from `first` on that have to, and those right before it that have as far to go.
shift spreader::downward_from(const shadow &table, place first, int32_t delta_size) const {
    place last = first;
    for (place next = first; next.slot < table.size() && distance_home(next) < 0;) {
        last = next;
        next = {table.next_live(next.slot + 1), next.rank + 1};
    }
    const int32_t distance = -distance_home(last);
    place begin = last;
    while (last.rank - begin.rank + 1 < max_step_rules && begin.slot > 0 && table.is_live(begin.slot - 1) &&
           distance_home({begin.slot - 1, begin.rank - 1}) == -distance) {
        --begin.slot;
        --begin.rank;
    }
    return {begin.slot, begin.slot + std::min(distance, delta_size), last.slot - begin.slot + 1};
}

shift spreader::plan_step(const shadow &table, int32_t delta_size) {
    if (!has_homes_) {
        find_homes(table);
    }
    for (place entry = {table.next_live(settled_.slot), settled_.rank}; entry.slot < table.size();
         entry = {table.next_live(entry.slot + 1), entry.rank + 1}) {
        const int32_t distance = distance_home(entry);
        if (distance != 0) {
            return distance > 0 ? upward_from(table, entry, delta_size) : downward_from(table, entry, delta_size);
        }
        settled_ = {entry.slot + 1, entry.rank + 1};
    }
    return {0, 0, 0};
}

} // namespace kr_soft::psort
