/*
 * Plans: which blocks the owner has to shift, in which order, before a new entry of a given priority has a free slot.
 * Planning looks at the shadow and changes nothing; whoever executes a plan issues its shifts in the order given, and
 * every prefix of them leaves a valid, ordered table. Nothing here calls the owner. This is where an entry goes; how
 * room is made at the least price is the business of plan_search for single adds and of pull for adds in sequence.
 */
#ifndef KR_SOFT_PSORT_PLANNER_H
#define KR_SOFT_PSORT_PLANNER_H

#include <cstdint>
#include <vector>

#include "psort/plan_search.h"
#include "psort/pull.h"
#include "psort/sequence.h"
#include "psort/shadow.h"

namespace kr_soft::psort {

// Shifts, and the slot that is free for the new entry once they are made.
struct plan {
    std::vector<shift> shifts;
    int32_t slot = -1;
};

class planner {
  public:
    planner() = default;
    planner(int32_t table_size, uint32_t min_priority, uint32_t max_priority);

    // Plans an add. The table is not full. The result stays valid until the next call.
    const plan &plan_add(const shadow &table, uint32_t priority);

    // The planned entry has been placed.
    void added(uint64_t key);

    // An entry is gone.
    void removed() {
        is_replacement_ = true;
    }

    // The background steps have nothing left to do.
    void evened() {
        habits_.evened = 1;
    }

  private:
    bool plan_retreat(const shadow &table, const span &room);
    int32_t slot_beside_level(const shadow &table, const span &room) const;
    int32_t slot_in_gap(const shadow &table, const span &room, uint32_t priority, int32_t begin, int32_t end) const;

    int32_t table_size_ = 0;
    double min_priority_ = 0;
    double max_priority_ = 0;
    sequence sequence_;
    pull pull_;
    plan_search search_;
    add_habits habits_;
    bool is_replacement_ = false; // an entry has gone since the last add
    int32_t last_slot_ = 0;       // of the last add
    plan result_;
};

} // namespace kr_soft::psort

#endif
