/*
 * Room for a sequence of adds: free slots of several runs on either side are pulled together in one sweep, in which
 * each rule moves once at most, before the adds come that will need them.
 */
#ifndef KR_SOFT_PSORT_PULL_H
#define KR_SOFT_PSORT_PULL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "psort/plan_search.h"
#include "psort/shadow.h"

namespace kr_soft::psort {

class pull {
  public:
    // Shifts that one pull takes at most.
    static constexpr size_t max_shifts = 64;

    // Appends the shifts after which the run that is returned is free between the slots boundary - 1 and `boundary`,
    // for about `expected` adds. There is no free slot between these two, but there is one in the table.
    free_run plan(const shadow &table, int32_t boundary, double expected, std::vector<shift> *shifts);

  private:
    static constexpr size_t max_runs = max_shifts / 2; // on each side

    // The live slots from the boundary or the run before on, and the free ones behind them.
    struct stretch {
        int32_t begin;        // of the live block, its lower index
        int32_t live_slots;   // in the block
        int32_t free_slots;   // behind it
        int32_t rules_so_far; // all live slots from the boundary to here
        int32_t free_so_far;
    };

    struct side {
        std::array<stretch, max_runs> stretches;
        size_t count = 0;
        int32_t free_with(size_t taken) const {
            return taken == 0 ? 0 : stretches[taken - 1].free_so_far;
        }
        int32_t rules_with(size_t taken) const {
            return taken == 0 ? 0 : stretches[taken - 1].rules_so_far;
        }
        void add(int32_t begin, int32_t live_slots, int32_t free_slots);
    };

    struct choice {
        size_t above;
        size_t below;
    };

    void collect(const shadow &table, int32_t boundary, int32_t enough);
    choice cheapest(double expected) const;
    static void append(const side &from, size_t taken, int32_t surplus, int32_t direction, std::vector<shift> *shifts);

    side above_;
    side below_;
};

} // namespace kr_soft::psort

#endif
