/*
 * The entries say by their number where adds come; but where they are spread evenly over the priorities, those say it
 * better. Entries and priorities that are farther apart than chance would have it are not. Where entries share levels,
 * priorities say less, and soon nothing.
 */
#include "psort/rank_guess.h"

#include <algorithm>
#include <cmath>

namespace kr_soft::psort {
namespace {

constexpr double most_by_chance = 2; // times the square root of the entries: how far the guess by priority may be off

} // namespace

rank_guess::rank_guess(const shadow &table, double entries, double most_priority_part) : entries_(entries) {
    if (table.count() != 0) {
        const double own_levels = static_cast<double>(table.level_count()) / table.count();
        priority_part_ = most_priority_part * own_levels * own_levels;
        highest_ = table.priority(table.next_live(0));
        lowest_ = table.priority(table.prev_live(table.size() - 1));
    }
}

double rank_guess::rank_of(double live_before, double priority) const {
    const double by_entries = live_before / entries_;
    const double by_priority = (highest_ - priority + 0.5) / (highest_ - lowest_ + 1);
    const double difference = (by_priority - by_entries) * std::sqrt(entries_) / most_by_chance;
    return by_entries + priority_part_ * std::max(0.0, 1 - difference * difference) * (by_priority - by_entries);
}

} // namespace kr_soft::psort
