/*
 * Plans: which blocks the owner has to shift, in which order, before a new entry of a given priority has a free slot.
 * Planning looks at the shadow and changes nothing; whoever executes a plan issues its shifts in the order given, and
 * every prefix of them leaves a valid, ordered table. Nothing here calls the owner.
 */
#ifndef KR_SOFT_PSORT_PLANNER_H
#define KR_SOFT_PSORT_PLANNER_H

#include <cstdint>
#include <vector>

#include "psort/shadow.h"

namespace kr_soft::psort {

// The cost model: what a call of the owner costs beside the rules that it moves, in rules.
constexpr int32_t call_cost = 10;

// Shifts, and the slot that is free for the new entry once they are made.
struct plan {
    std::vector<shift> shifts;
    int32_t slot = -1;
};

class planner {
  public:
    planner() = default;
    explicit planner(int32_t table_size);

    // Plans an add. The table is not full. The result stays valid until the next call.
    const plan &plan_add(const shadow &table, uint32_t priority);

  private:
    plan result_;
};

// One step that spreads free space more evenly: at most one shift, `size` 0 when nothing is left to do.
shift plan_background_step(const shadow &table, int32_t delta_size);

} // namespace kr_soft::psort

#endif
