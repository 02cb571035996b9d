/*
 * Where a new entry goes. With free slots between its neighbours, where its priority lies between theirs; right beside
 * the last one when adds come in sequence; at the emptier side of its level when the level exists. Without any, where
 * the plan search makes room.
 */
#include "psort/planner.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace kr_soft::psort {
namespace {

// An ascending or descending fill shows after this many adds, and is cheap to put against the far end of the table
// then.
constexpr int32_t retreat_length = 8;
constexpr int32_t retreat_moves = 20;

// How many more adds to prepare for when a sequence runs out of room, and how far to look for their slots.
constexpr int32_t sequel_factor = 4;
constexpr int32_t pulled_gaps = 4;

} // namespace

planner::planner(int32_t table_size, uint32_t min_priority, uint32_t max_priority)
    : min_priority_(min_priority), max_priority_(max_priority), search_(table_size) {
    result_.shifts.reserve(static_cast<size_t>(search_.max_shifts()));
}

void planner::follow_sequence(const shadow &table, const span &room) {
    const int32_t last = sequence_.length == 0 ? -1 : table.find(sequence_.last_key);
    const bool above_last = last >= 0 && room.below == last && !room.has_entries();
    const bool below_last = last >= 0 && room.above == last && !room.has_entries();
    next_sequence_.direction = above_last   ? add_sequence::upward
                               : below_last ? add_sequence::downward
                                            : add_sequence::none;
    const bool continues = next_sequence_.direction != add_sequence::none &&
                           (sequence_.length == 1 || next_sequence_.direction == sequence_.direction);
    next_sequence_.length = continues ? sequence_.length + 1 : 1;
}

void planner::added(uint64_t key) {
    sequence_ = next_sequence_;
    sequence_.last_key = key;
}

// A fill in sequence that started somewhere in the middle runs into the end of the table with half of it behind its
// back. As soon as it shows, its few entries go to the far end; all the room is then ahead.
bool planner::plan_retreat(const shadow &table, const span &room) {
    const bool upward = next_sequence_.direction == add_sequence::upward;
    const bool at_the_end = upward ? room.above < 0 : room.below == table.size();
    if (next_sequence_.length != retreat_length || !at_the_end || table.count() > retreat_moves) {
        return false;
    }
    int32_t target = upward ? table.size() : 0; // beyond it everything is in place
    int32_t walk = upward ? table.size() - 1 : 0;
    for (int32_t left = table.count(); left > 0;) {
        const int32_t near_end = upward ? table.prev_live(walk) : table.next_live(walk);
        const int32_t beyond = upward ? table.prev_free(near_end) : table.next_free(near_end);
        const int32_t length = std::abs(near_end - beyond);
        const int32_t source = upward ? beyond + 1 : near_end;
        const int32_t destination = upward ? target - length : target;
        if (source != destination) {
            result_.shifts.push_back({source, destination, length});
        }
        left -= length;
        walk = beyond;
        target = upward ? destination : target + length;
    }
    result_.slot = upward ? target - 1 : target;
    return !result_.shifts.empty();
}

// A sequence that has run out of room gets a whole run of free slots at once: the block between it and a run on either
// side moves over, free slots inside it and all. The run with the least price for each slot that it gives is taken.
void planner::plan_pull(const shadow &table, const span &room) {
    const int32_t wanted = next_sequence_.length * sequel_factor;
    double best = std::numeric_limits<double>::infinity();
    int32_t rules = 0;
    int32_t end = room.above + 1;
    const auto offer = [&](int32_t free_slots, const shift &move, int32_t slot) {
        const int32_t used = std::min(free_slots, wanted);
        const double price = static_cast<double>(call_cost + rules) / used;
        if (price < best) {
            best = price;
            result_.shifts.assign(1, move);
            result_.slot = slot;
        }
    };
    const bool upward = next_sequence_.direction == add_sequence::upward;
    int32_t last = room.above;
    for (int32_t gap = 0; gap < pulled_gaps && last >= 0; ++gap) {
        const int32_t free_last = table.prev_free(last);
        if (free_last < 0) {
            break;
        }
        rules += last - free_last;
        last = table.prev_live(free_last);
        const int32_t used = std::min(free_last - last, wanted);
        offer(used, {free_last + 1, free_last + 1 - used, end - free_last - 1}, upward ? end - 1 : end - used);
    }
    rules = 0;
    int32_t first = room.below;
    for (int32_t gap = 0; gap < pulled_gaps && first < table.size(); ++gap) {
        const int32_t free_first = table.next_free(first);
        if (free_first == table.size()) {
            break;
        }
        rules += free_first - first;
        first = table.next_live(free_first);
        const int32_t used = std::min(first - free_first, wanted);
        offer(used, {end, end + used, free_first - end}, upward ? end + used - 1 : end);
    }
}

// A level that exists takes the free slots on that side of it where there are more than its share; those inside the
// level, which are of use to no other, last but before the wrong side.
int32_t planner::slot_beside_level(const shadow &table, const span &room) const {
    const int32_t first_free = table.next_free(room.above + 1);
    const int32_t last_free = table.prev_free(room.below - 1);
    const double free_above = table.free_before(room.first);
    const double free_inside = table.free_before(room.last + 1) - free_above;
    const double live_above = room.first - free_above;
    const double live_inside = room.last + 1 - room.first - free_inside;
    const double free_slots = free_above + free_inside / 2;
    const double share = table.free_count() * (live_above + live_inside / 2) / table.count();
    if (free_slots > share) {
        return first_free < room.first ? room.first - 1 : first_free;
    }
    return last_free > room.last ? room.last + 1 : last_free;
}

// Slots [begin, end) are free, between the neighbours of a priority that is new.
int32_t planner::slot_in_gap(const shadow &table, const span &room, uint32_t priority, int32_t begin,
                             int32_t end) const {
    if (next_sequence_.is_established(table.count())) {
        return next_sequence_.direction == add_sequence::upward ? end - 1 : begin;
    }
    const double above = room.above >= 0 ? table.priority(room.above) : max_priority_ + 1;
    const double below = room.below < table.size() ? table.priority(room.below) : min_priority_ - 1;
    const double part = (above - priority) / (above - below);
    return std::min(end - 1, begin + static_cast<int32_t>(part * (end - begin)));
}

const plan &planner::plan_add(const shadow &table, uint32_t priority) {
    result_.shifts.clear();
    const span room = table.span_of(priority);
    follow_sequence(table, room);
    if (plan_retreat(table, room)) {
        return result_;
    }
    const int32_t first_free = table.next_free(room.above + 1);
    if (first_free < room.below) {
        result_.slot = room.has_entries() ? slot_beside_level(table, room)
                                          : slot_in_gap(table, room, priority, first_free, table.next_live(first_free));
        return result_;
    }
    if (next_sequence_.is_established(table.count())) {
        plan_pull(table, room);
        return result_;
    }
    const free_run made = search_.make_room(table, room, &result_.shifts);
    result_.slot = room.has_entries() ? made.begin : slot_in_gap(table, room, priority, made.begin, made.end);
    return result_;
}

} // namespace kr_soft::psort
