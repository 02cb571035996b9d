/*
 * What a pSort table believes about its owner's hardware table: which slots are live, and the key and priority in each.
 * It answers the planner's questions and takes over a shift once the owner has made it; it decides nothing and notifies
 * nobody. Slots are numbered from 0; -1 and size() stand for "before the first" and "behind the last".
 */
#ifndef KR_SOFT_PSORT_SHADOW_H
#define KR_SOFT_PSORT_SHADOW_H

#include <cstdint>
#include <vector>

#include "psort/bit_tree.h"
#include "psort/key_index.h"

namespace kr_soft::psort {

// A block move as the owner is asked for it: `size` slots from old_index on now start at new_index.
struct shift {
    int32_t old_index;
    int32_t new_index;
    int32_t size;
};

// The cost model: what a shift costs its owner beside the rules that it moves, in rules.
constexpr int32_t call_cost = 10;

// Where entries of one priority may go: above is the last live slot of a higher priority, below the first of a lower.
// When the priority is present its entries span [first, last]; otherwise first is `below` and last is `above`.
struct span {
    int32_t above;
    int32_t below;
    int32_t first;
    int32_t last;

    bool has_entries() const {
        return first <= last;
    }
};

class shadow {
  public:
    shadow() = default;
    explicit shadow(int32_t size);

    int32_t size() const {
        return size_;
    }
    int32_t count() const {
        return count_;
    }
    int32_t free_count() const {
        return size_ - count_;
    }
    int32_t level_count() const {
        return level_count_;
    } // distinct priorities

    // Whether an add can hop past all other levels at next to no price, wherever the free slots are.
    bool has_few_levels() const {
        return level_count_ <= few_levels;
    }

    bool is_live(int32_t slot) const {
        return live_.contains(slot);
    }
    uint64_t key(int32_t slot) const {
        return keys_[static_cast<size_t>(slot)];
    }
    uint32_t priority(int32_t slot) const {
        return priorities_[static_cast<size_t>(slot)];
    }

    int32_t next_live(int32_t slot) const {
        return live_.next(slot);
    }
    int32_t prev_live(int32_t slot) const {
        return live_.prev(slot);
    }
    int32_t next_free(int32_t slot) const {
        return free_.next(slot);
    }
    int32_t prev_free(int32_t slot) const {
        return free_.prev(slot);
    }

    int32_t free_before(int32_t slot) const {
        return free_.count_below(slot);
    }

    // The slot of a key, or -1.
    int32_t find(uint64_t key) const {
        return index_.find(key, keys_);
    }
    span span_of(uint32_t priority) const;

    void place(uint64_t key, uint32_t priority, int32_t slot); // the slot is free and keeps the order
    void remove(int32_t slot);                                 // the slot is live
    void apply(const shift &move);                             // the destination outside the source is free

  private:
    int32_t first_live_not_above(uint32_t priority, int32_t from) const;
    bool neighbour_has(uint32_t priority, int32_t slot) const;
    void move_entry(int32_t from, int32_t to);

    static constexpr int32_t few_levels = 8;

    int32_t size_ = 0;
    int32_t count_ = 0;
    int32_t level_count_ = 0;
    bit_tree live_;
    bit_tree free_;
    std::vector<uint64_t> keys_;
    std::vector<uint32_t> priorities_;
    key_index index_;
};

} // namespace kr_soft::psort

#endif
