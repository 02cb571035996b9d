/*
 * Replays sequences in child processes, for the library lives once in a process, and a sequence may crash or hang; and
 * shortens a sequence that fails.
 */
#ifndef KR_TESTS_MODEL_REPLAY_H
#define KR_TESTS_MODEL_REPLAY_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/model/step.h"

namespace kr_model {

constexpr uint32_t status_count = 16; // of the library 12, of the platform 15

struct op_statistics {
    uint64_t run, left_out, faults, system_faults; // the last: of the operating system, of all faults
    uint64_t ended_with[status_count];             // by status
};

struct outcome {
    bool agrees;
    uint32_t step_index; // of the step that differs
    std::string what;    // how it differs
    bool hangs = false;
};

constexpr int patience_ms = 60'000; // without progress, on a busy machine and under a sanitizer
constexpr int short_patience_ms = 2'000;

// `verbose`: what the child says on standard error is seen. A child that makes no progress for so long hangs.
outcome replay(const std::vector<step> &steps, bool verbose = false, int no_progress_ms = patience_ms);

// Of all replays of this process, by operation.
const op_statistics &statistics_of(op what);

// The fullest that the table and the budget of counters ever were.
uint32_t most_places();
uint32_t most_counters();

// A sequence that still fails and from which nothing more can be taken, within some number of replays. `first` is how
// the whole sequence failed; for one that hangs, a candidate has to come back soon.
std::vector<step> shrink(const std::vector<step> &steps, const outcome &first);

// For the regression tests: fails the running test, with the difference, unless library and model agree.
void expect_agreement(const std::vector<step> &steps);

} // namespace kr_model

#endif
