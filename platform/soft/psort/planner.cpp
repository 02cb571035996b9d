/*
 * Where a new entry goes. With free slots between its neighbours, where its priority lies between theirs; right beside
 * the last one when adds come in sequence; at the emptier side of its level when the level exists. Without any, where
 * the plan search makes room, or a pull for all of a sequence.
 */
#include "psort/planner.h"

#include <algorithm>
#include <cstdlib>

namespace kr_soft::psort {
namespace {

// An ascending or descending fill shows after this many adds, and is cheap to put against the far end of the table
// then.
constexpr int32_t retreat_length = 8;
constexpr int32_t retreat_moves = 20;

constexpr double habit_memory = 1 / 64.0;   // how much the latest add counts for the habits
constexpr double evened_memory = 1 / 200.0; // how much it takes from what the background steps have done
constexpr int32_t far_divisor = 16;         // adds this part of the table apart are scattered

} // namespace

planner::planner(int32_t table_size, uint32_t min_priority, uint32_t max_priority)
    : table_size_(table_size), min_priority_(min_priority), max_priority_(max_priority), search_(table_size) {
    result_.shifts.reserve(std::max<size_t>(search_.max_shifts(), pull::max_shifts));
}

void planner::added(uint64_t key) {
    sequence_.placed(key);
    const bool is_far = std::abs(result_.slot - last_slot_) > table_size_ / far_divisor;
    habits_.scattered += habit_memory * ((is_far ? 1 : 0) - habits_.scattered);
    habits_.replacing += habit_memory * ((is_replacement_ ? 1 : 0) - habits_.replacing);
    habits_.evened -= evened_memory * habits_.evened;
    last_slot_ = result_.slot;
    is_replacement_ = false;
}

// A fill in sequence that started somewhere in the middle runs into the end of the table with half of it behind its
// back. As soon as it shows, its few entries go to the far end; all the room is then ahead.
bool planner::plan_retreat(const shadow &table, const span &room) {
    const bool upward = sequence_.goes_upward();
    const bool at_the_end = upward ? room.above < 0 : room.below == table.size();
    if (sequence_.length() != retreat_length || !at_the_end || table.count() > retreat_moves) {
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
    if (sequence_.is_established(table.count())) {
        return sequence_.goes_upward() ? end - 1 : begin;
    }
    const double above = room.above >= 0 ? table.priority(room.above) : max_priority_ + 1;
    const double below = room.below < table.size() ? table.priority(room.below) : min_priority_ - 1;
    const double part = (above - priority) / (above - below);
    return std::min(end - 1, begin + static_cast<int32_t>(part * (end - begin)));
}

const plan &planner::plan_add(const shadow &table, uint32_t priority) {
    result_.shifts.clear();
    const span room = table.span_of(priority);
    sequence_.follow(table, room);
    if (plan_retreat(table, room)) {
        return result_;
    }
    const int32_t first_free = table.next_free(room.above + 1);
    if (first_free < room.below) {
        result_.slot = room.has_entries() ? slot_beside_level(table, room)
                                          : slot_in_gap(table, room, priority, first_free, table.next_live(first_free));
        return result_;
    }
    if (sequence_.is_established(table.count())) {
        const free_run made = pull_.plan(table, room.below, sequence_.expected_more(), &result_.shifts);
        result_.slot = sequence_.goes_upward() ? made.end - 1 : made.begin;
        return result_;
    }
    const free_run made = search_.make_room(table, room, habits_, &result_.shifts);
    result_.slot = room.has_entries() ? made.begin : slot_in_gap(table, room, priority, made.begin, made.end);
    return result_;
}

} // namespace kr_soft::psort
