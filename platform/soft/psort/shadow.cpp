/*
 * The shadow of the owner's table. No list of priority levels is kept beside the slots: the slots are sorted, so a
 * binary search over them that skips free ones finds the ends of a level in tens of nanoseconds and cannot go stale.
 */
#include "psort/shadow.h"

namespace kr_soft::psort {

shadow::shadow(int32_t size)
    : size_(size), live_(size), free_(size), keys_(static_cast<size_t>(size)), priorities_(static_cast<size_t>(size)),
      index_(size) {
    for (int32_t slot = 0; slot < size; ++slot) {
        free_.insert(slot);
    }
}

// The first live slot from `from` on whose priority is not above `priority`, or size().
int32_t shadow::first_live_not_above(uint32_t priority, int32_t from) const {
    int32_t begin = from;
    int32_t end = size_;
    while (begin < end) {
        const int32_t middle = begin + (end - begin) / 2;
        const int32_t slot = live_.next(middle);
        if (slot<end &&this->priority(slot)> priority) {
            begin = slot + 1;
        } else {
            end = middle;
        }
    }
    return live_.next(begin);
}

span shadow::span_of(uint32_t priority) const {
    const int32_t first = first_live_not_above(priority, 0);
    const int32_t above = live_.prev(first - 1);
    if (first == size_ || this->priority(first) < priority) {
        return {above, first, first, above};
    }
    const int32_t below = priority == 0 ? size_ : first_live_not_above(priority - 1, first);
    return {above, below, first, live_.prev(below - 1)};
}

// Whether the live slot on either side of `slot` has the same priority: the level exists without it.
bool shadow::neighbour_has(uint32_t priority, int32_t slot) const {
    const int32_t before = live_.prev(slot - 1);
    if (before >= 0 && this->priority(before) == priority) {
        return true;
    }
    const int32_t behind = live_.next(slot + 1);
    return behind < size_ && this->priority(behind) == priority;
}

void shadow::place(uint64_t key, uint32_t priority, int32_t slot) {
    level_count_ += neighbour_has(priority, slot) ? 0 : 1;
    index_.insert(key, slot, keys_);
    keys_[static_cast<size_t>(slot)] = key;
    priorities_[static_cast<size_t>(slot)] = priority;
    live_.insert(slot);
    free_.erase(slot);
    ++count_;
}

void shadow::remove(int32_t slot) {
    level_count_ -= neighbour_has(priority(slot), slot) ? 0 : 1;
    index_.erase(key(slot), keys_);
    live_.erase(slot);
    free_.insert(slot);
    --count_;
}

void shadow::move_entry(int32_t from, int32_t to) {
    index_.move(key(from), to, keys_);
    keys_[static_cast<size_t>(to)] = key(from);
    priorities_[static_cast<size_t>(to)] = priority(from);
    live_.erase(from);
    free_.insert(from);
    live_.insert(to);
    free_.erase(to);
}

void shadow::apply(const shift &move) {
    const int32_t distance = move.new_index - move.old_index;
    const int32_t end = move.old_index + move.size;
    if (distance > 0) {
        for (int32_t slot = live_.prev(end - 1); slot >= move.old_index; slot = live_.prev(slot - 1)) {
            move_entry(slot, slot + distance);
        }
    } else {
        for (int32_t slot = live_.next(move.old_index); slot < end; slot = live_.next(slot + 1)) {
            move_entry(slot, slot + distance);
        }
    }
}

} // namespace kr_soft::psort
