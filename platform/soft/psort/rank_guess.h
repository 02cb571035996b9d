/*
 * Where adds are expected: the rank of a place among the entries, from 0 to 1, is the part of the adds to come that
 * will go before it. Both the plans of adds and the background steps leave free slots by it.
 */
#ifndef KR_SOFT_PSORT_RANK_GUESS_H
#define KR_SOFT_PSORT_RANK_GUESS_H

#include "psort/shadow.h"

namespace kr_soft::psort {

class rank_guess {
  public:
    // For `entries` in all. Priorities count for `most_priority_part` of the guess at most; the rest goes by the
    // entries that are there.
    rank_guess(const shadow &table, double entries, double most_priority_part);

    double rank_of(double live_before, double priority) const;

  private:
    double entries_;
    double priority_part_ = 0;
    double highest_ = 0; // priority in the table
    double lowest_ = 0;
};

} // namespace kr_soft::psort

#endif
