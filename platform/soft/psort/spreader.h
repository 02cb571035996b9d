/*
 * The background steps: free space spread evenly over the live entries, one bounded shift at a time.
 *
 * With the present numbers of entries and free slots every entry has one slot where it belongs. A step takes entries to
 * theirs, and none ever away, so that the sum of all distances falls with each step: the steps come to an end and
 * nothing moves back and forth. Planned on the shadow like an add, and carried out by the same hand.
 */
#ifndef KR_SOFT_PSORT_SPREADER_H
#define KR_SOFT_PSORT_SPREADER_H

#include <cstdint>

#include "psort/shadow.h"

namespace kr_soft::psort {

class spreader {
  public:
    static constexpr int32_t max_step_rules = 64;

    // One shift of a few rules by `delta_size` slots at most, or one of size 0 when nothing is left to do. Where there
    // are few levels nothing ever is: adds hop past them for less than spreading takes.
    shift plan_step(const shadow &table, int32_t delta_size);

    // An entry has come or gone: whatever was still to be done is forgotten, for all belong elsewhere now.
    void restart() {
        settled_ = {};
    }

  private:
    // A live entry: its slot, and how many live ones come before it.
    struct place {
        int32_t slot = 0;
        int32_t rank = 0;
    };

    static int32_t distance_home(const shadow &table, const place &entry);
    static shift upward_from(const shadow &table, place first, int32_t delta_size);
    static shift downward_from(const shadow &table, place first, int32_t delta_size);

    place settled_; // everything before this entry is where it belongs
};

} // namespace kr_soft::psort

#endif
