/*
 * The placement that one would write first, to measure against: a new entry goes in the middle of the gap between its
 * neighbours, and where there is none the nearest free slot is brought there, one rule of each level on the way at a
 * time. A model that only counts; it keeps order by construction and notifies nobody.
 */
#ifndef KR_BENCH_NEAREST_SLOT_H
#define KR_BENCH_NEAREST_SLOT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kr_bench {

class nearest_slot {
  public:
    explicit nearest_slot(uint32_t size) : slots_(size) {}

    // Returns the rules moved, each in a call of its own. The table is not full.
    uint32_t add(uint64_t key, uint32_t priority) {
        where_.resize(std::max<size_t>(where_.size(), key + 1));
        const size_t first = first_live([&](uint32_t other) { return other <= priority; });
        const size_t below = first_live([&](uint32_t other) { return other < priority; });
        const size_t above = live_before(first); // one behind the last live slot of a higher priority
        size_t free_slots = 0;
        for (size_t slot = above; slot < below; ++slot) {
            free_slots += slots_[slot].key == 0 ? 1 : 0;
        }
        uint32_t moved = 0;
        const size_t slot = free_slots != 0 ? free_slot(above, free_slots / 2) : make_room(above, below, &moved);
        put(slot, {key, priority});
        return moved;
    }

    void remove(uint64_t key) {
        slots_[where_[key]].key = 0;
    }

  private:
    struct entry {
        uint64_t key = 0; // 0: the slot is free
        uint32_t priority = 0;
    };

    // The first live slot whose priority fits, or the size; priorities that fit are behind those that do not.
    template <typename Fits> size_t first_live(Fits fits) const {
        size_t begin = 0;
        size_t end = slots_.size();
        while (begin < end) {
            const size_t middle = begin + (end - begin) / 2;
            size_t slot = middle;
            while (slot < end && slots_[slot].key == 0) {
                ++slot;
            }
            if (slot < end && !fits(slots_[slot].priority)) {
                begin = slot + 1;
            } else {
                end = middle;
            }
        }
        while (begin < slots_.size() && slots_[begin].key == 0) {
            ++begin;
        }
        return begin;
    }

    size_t live_before(size_t slot) const {
        while (slot > 0 && slots_[slot - 1].key == 0) {
            --slot;
        }
        return slot;
    }

    size_t free_slot(size_t from, size_t skipped) const {
        for (;; ++from) {
            if (slots_[from].key == 0 && skipped-- == 0) {
                return from;
            }
        }
    }

    void put(size_t slot, const entry &what) {
        slots_[slot] = what;
        where_[what.key] = slot;
    }

    // Slots [above, below) are live, if any: the level of the new entry. Returns the slot that has become free.
    size_t make_room(size_t above, size_t below, uint32_t *moved) {
        size_t up = above;
        while (up > 0 && slots_[up - 1].key != 0) {
            --up;
        }
        size_t down = below;
        while (down < slots_.size() && slots_[down].key != 0) {
            ++down;
        }
        const bool goes_up = up > 0 && (down == slots_.size() || above - up <= down - below);
        size_t hole = goes_up ? up - 1 : down;
        const size_t stop = goes_up ? above - 1 : below;
        while (hole != stop) {
            const size_t end = level_end(hole, stop, goes_up);
            put(hole, slots_[end]);
            slots_[end].key = 0;
            hole = end;
            ++*moved;
        }
        return hole;
    }

    // The far end of the level next to a hole, seen from it, at most at `stop`.
    size_t level_end(size_t hole, size_t stop, bool goes_up) const {
        const auto next = [&](size_t slot) { return goes_up ? slot + 1 : slot - 1; };
        size_t end = next(hole);
        const uint32_t priority = slots_[end].priority;
        while (end != stop && slots_[next(end)].priority == priority) {
            end = next(end);
        }
        return end;
    }

    std::vector<entry> slots_;
    std::vector<size_t> where_; // by key; keys are small numbers
};

} // namespace kr_bench

#endif
