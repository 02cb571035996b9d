/*
 * The two runs of a trace, counted and timed, and the run of the baseline. Nothing is printed here.
 */
#include "placement_measure.h"

#include <algorithm>
#include <chrono>

#include "kr_psort.h"
#include "nearest_slot.h"
#include "placement_owner.h"

namespace kr_bench {

void moves_by_occupancy::count(uint32_t occupied, uint32_t size, uint32_t moved) {
    const size_t index = std::min(class_count - 1, static_cast<size_t>(occupied - 1) * class_count / size);
    sums_[index] += moved;
    ++adds_[index];
}

namespace {

using kr_test::placement_owner;
using std::chrono::steady_clock;
using nanoseconds = std::chrono::duration<double, std::nano>;

kr_utils_status agree(uint32_t, psort_notification_data *, void *) {
    return KR_UTILS_STATUS_SUCCESS;
}

// A table for as long as the object lives.
class scoped_table {
  public:
    explicit scoped_table(const psort_table_attributes &attributes) {
        opened_ = psort_init(&handle_, &attributes) == KR_UTILS_STATUS_SUCCESS;
    }
    ~scoped_table() {
        psort_clear_table(handle_);
    }
    scoped_table(const scoped_table &) = delete;
    scoped_table &operator=(const scoped_table &) = delete;

    bool is_open() const {
        return opened_;
    }
    // False when the library refused the operation.
    bool run(const trace_operation &operation, psort_entry *entry) const {
        *entry = {operation.key, operation.priority, 0};
        if (operation.kind == trace_operation::background) {
            return run_worker();
        }
        const uint32_t command = operation.kind == trace_operation::add ? PSORT_CMD_ADD : PSORT_CMD_DELETE;
        return psort_entry_set(handle_, command, entry) == KR_UTILS_STATUS_SUCCESS;
    }

  private:
    bool run_worker() const {
        uint32_t finished = 0;
        while (finished == 0) {
            if (psort_background_worker(handle_, &finished) != KR_UTILS_STATUS_SUCCESS) {
                return false;
            }
        }
        return true;
    }

    psort_handle handle_ = nullptr;
    bool opened_ = false;
};

// What one operation has cost.
struct spent {
    uint32_t moved;
    uint64_t calls;
};

void book(const trace_operation &step, const spent &cost, uint32_t occupied, uint32_t size, measurement *result) {
    if (!step.measured) {
        return;
    }
    if (step.kind == trace_operation::add) {
        result->moved.push_back(cost.moved);
        result->calls += cost.calls;
        result->occupancy.count(occupied, size, cost.moved);
    } else if (step.kind == trace_operation::background) {
        result->worker_moved += cost.moved;
        result->worker_calls += cost.calls;
    }
}

void count_moves(const trace &steps, uint32_t size, measurement *result) {
    placement_owner owner(size);
    const scoped_table table(owner.attributes());
    for (const trace_operation &step : steps) {
        const uint64_t moved = owner.rules_moved();
        const uint64_t calls = owner.shift_calls();
        psort_entry entry;
        const auto start = steady_clock::now();
        if (!table.is_open() || !table.run(step, &entry)) {
            result->failure = "the library refused an operation";
            return;
        }
        const nanoseconds taken = steady_clock::now() - start;
        if (step.kind == trace_operation::add && owner.last_shifts().empty()) {
            result->still_nanoseconds.push_back(taken.count());
        }
        owner.forget_shifts();
        if (step.kind == trace_operation::add) {
            owner.added(entry);
        } else if (step.kind == trace_operation::remove) {
            owner.deleted(step.key);
        }
        if (!owner.complaints().empty()) {
            result->failure = owner.complaints();
            return;
        }
        book(step, {static_cast<uint32_t>(owner.rules_moved() - moved), owner.shift_calls() - calls}, owner.count(),
             size, result);
    }
    result->failure = owner.check_all();
}

// The background steps of a trace are run but their time is not taken.
void take_time(const trace &steps, uint32_t size, measurement *result) {
    psort_table_attributes attributes = placement_owner(size).attributes();
    attributes.cookie = 0;
    attributes.notification_callback = agree;
    const scoped_table table(attributes);
    nanoseconds worker{};
    const auto start = steady_clock::now();
    for (const trace_operation &step : steps) {
        psort_entry entry;
        if (step.kind != trace_operation::background) {
            (void)table.run(step, &entry);
            ++result->timed_operations;
            continue;
        }
        const auto worker_start = steady_clock::now();
        (void)table.run(step, &entry);
        worker += steady_clock::now() - worker_start;
    }
    const nanoseconds all = steady_clock::now() - start;
    result->nanoseconds += (all - worker).count();
}

} // namespace

void measure_library(const trace &steps, uint32_t size, measurement *result) {
    count_moves(steps, size, result);
    if (result->failure.empty()) {
        take_time(steps, size, result);
    }
}

void measure_baseline(const trace &steps, uint32_t size, measurement *result) {
    nearest_slot table(size);
    uint32_t occupied = 0;
    for (const trace_operation &step : steps) {
        if (step.kind == trace_operation::remove) {
            table.remove(step.key);
            --occupied;
        } else if (step.kind == trace_operation::add) {
            const uint32_t moved = table.add(step.key, step.priority);
            book(step, {moved, moved}, ++occupied, size, result);
        }
    }
}

} // namespace kr_bench
