/*
 * The planner: the nearest free slot on either side, and one block shift towards it.
 */
#include "psort/planner.h"

namespace kr_soft::psort {

planner::planner(int32_t table_size) {
    result_.shifts.reserve(static_cast<size_t>(table_size));
}

const plan &planner::plan_add(const shadow &table, uint32_t priority) {
    result_.shifts.clear();
    const span room = table.span_of(priority);
    const int32_t free_slot = table.next_free(room.above + 1);
    if (free_slot < room.below) {
        const int32_t behind = table.next_live(free_slot);
        result_.slot = free_slot + (behind - free_slot) / 2;
        return result_;
    }
    // No free slot in between: one block shift from the nearest free slot.
    const int32_t left = table.prev_free(room.above);
    const int32_t right = table.next_free(room.below);
    const int32_t left_from = room.has_entries() ? room.first : room.below;
    const int32_t right_from = room.has_entries() ? room.last : room.above;
    if (right == table.size() || (left >= 0 && left_from - left <= right - right_from)) {
        result_.shifts.push_back({left + 1, left, left_from - left - 1});
        result_.slot = left_from - 1;
    } else {
        result_.shifts.push_back({right_from + 1, right_from + 2, right - right_from - 1});
        result_.slot = right_from + 1;
    }
    return result_;
}

shift plan_background_step(const shadow &, int32_t) {
    return {0, 0, 0};
}

} // namespace kr_soft::psort
