/*
 * Adds that come in sequence, each directly above or each directly below the one before it: how long the present
 * sequence is, which way it goes, and how many more adds to expect from what earlier ones came to. A batch of rules
 * that is installed as a whole looks like this, and so does a fill in order.
 */
#ifndef KR_SOFT_PSORT_SEQUENCE_H
#define KR_SOFT_PSORT_SEQUENCE_H

#include <cstdint>

#include "psort/shadow.h"

namespace kr_soft::psort {

class sequence {
  public:
    // Sees an add of a priority whose place is `room` coming. It counts once it is placed.
    void follow(const shadow &table, const span &room);
    void placed(uint64_t key);

    // Of the sequence as the coming add leaves it.
    int32_t length() const {
        return next_.length;
    }
    bool goes_upward() const {
        return next_.direction == upward;
    }
    // Whether more are to come: it is long enough for that, or nearly all adds of late came in sequences.
    bool is_established(int32_t count) const;
    double expected_more() const;

  private:
    enum direction_type : int8_t { upward, downward }; // towards higher priorities, that is lower slots

    struct state {
        direction_type direction = downward; // of the latest sequence, until this one shows its own
        int32_t length = 0;
        uint64_t last_key = 0;
        double usual_length = 0; // of the sequences that have come to an end, the latest counting most
        double share = 0;        // of all adds that went on with a sequence, likewise
    };

    state present_;
    state next_;
};

} // namespace kr_soft::psort

#endif
