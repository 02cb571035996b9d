/*
 * The background steps: free space spread evenly over the live entries, one bounded shift at a time.
 *
 * With the present entries and free slots every entry has one slot where it belongs, its home. A step takes entries to
 * theirs, and none ever away, so that the sum of all distances falls with each step: the steps come to an end and
 * nothing moves back and forth. Planned on the shadow like an add, and carried out by the same hand.
 */
#ifndef KR_SOFT_PSORT_SPREADER_H
#define KR_SOFT_PSORT_SPREADER_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "psort/shadow.h"

namespace kr_soft::psort {

class spreader {
  public:
    static constexpr int32_t max_step_rules = 64;

    spreader() = default;
    explicit spreader(int32_t table_size);

    // Not where there are few levels: adds hop past them for less than spreading takes.
    static bool is_worthwhile(const shadow &table, int32_t delta_size) {
        return delta_size >= 1 && !table.has_few_levels();
    }

    // One shift of a few rules by `delta_size` slots at most, or one of size 0 when nothing is left to do.
    shift plan_step(const shadow &table, int32_t delta_size);

    // An entry has come or gone: whatever was still to be done is forgotten, for all belong elsewhere now.
    void restart() {
        has_homes_ = false;
    }

  private:
    // A live entry: its slot, and how many live ones come before it.
    struct place {
        int32_t slot = 0;
        int32_t rank = 0;
    };

    void find_homes(const shadow &table);
    int32_t widest_gap_near(int32_t rank, int32_t reach, int32_t count) const;
    double priority_gap(int32_t rank) const;
    int32_t distance_home(const place &entry) const;
    shift upward_from(const shadow &table, place first, int32_t delta_size) const;
    shift downward_from(const shadow &table, place first, int32_t delta_size) const;

    bool has_homes_ = false;
    std::vector<int32_t> homes_;       // [rank], slots
    std::vector<uint32_t> priorities_; // [rank], when homes were found
    place settled_;                    // everything before this entry is at home
};

} // namespace kr_soft::psort

#endif
