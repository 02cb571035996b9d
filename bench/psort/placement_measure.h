/*
 * One trace run against the placement library or against the nearest-slot baseline, and what it cost.
 */
#ifndef KR_BENCH_PLACEMENT_MEASURE_H
#define KR_BENCH_PLACEMENT_MEASURE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "placement_traces.h"

namespace kr_bench {

// Rules moved per add in classes of equal occupancy.
class moves_by_occupancy {
  public:
    static constexpr size_t class_count = 50;

    void count(uint32_t occupied, uint32_t size, uint32_t moved);
    bool has(size_t index) const {
        return adds_[index] != 0;
    }
    double mean(size_t index) const {
        return static_cast<double>(sums_[index]) / static_cast<double>(adds_[index]);
    }

  private:
    std::array<uint64_t, class_count> sums_{};
    std::array<uint64_t, class_count> adds_{};
};

struct measurement {
    std::vector<uint32_t> moved; // per measured add
    uint64_t calls = 0;          // by these adds
    uint64_t worker_moved = 0;
    uint64_t worker_calls = 0;
    double nanoseconds = 0; // of all adds and deletes, with an owner that just agrees
    uint64_t timed_operations = 0;
    std::vector<double> still_nanoseconds; // of each add that moved nothing, the clock's own time included
    moves_by_occupancy occupancy;
    std::string failure; // empty when every check of every operation held
};

// Runs the trace twice: against an owner that mirrors the table from the notifications and checks the order and every
// destination after each operation, which counts; and against one that just agrees, which is timed. Adds that move
// nothing never ask the owner, so they are timed in the first run. Adds to *result.
void measure_library(const trace &steps, uint32_t size, measurement *result);

void measure_baseline(const trace &steps, uint32_t size, measurement *result);

} // namespace kr_bench

#endif
