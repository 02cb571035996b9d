/*
 * One operation under one fault, in a process of its own, and what came of it.
 */
#ifndef KR_TESTS_SWEEP_SWEEP_H
#define KR_TESTS_SWEEP_SWEEP_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/sweep/operations.h"

namespace kr_test {

struct failing_call {
    uint32_t index; // of the calls that can fail
    std::string name;
    bool operator==(const failing_call &) const = default;
};

struct outcome {
    std::vector<failing_call> calls; // all that can fail, as they came
    uint32_t failed_count = 0;       // calls that were made to fail
    std::string failed_call;         // the call that failed first, as it is in the record
    std::vector<std::string> lines;  // without a fault: everything; with one: what followed it
    std::string status;
    std::string changes; // of the state
    std::string outputs; // what the client was handed
    // How the same operation, made once more, differed from the one without a fault: in its status, in
    // what was handed out, in the state.
    std::string again_status;
    std::string again_outputs;
    std::vector<std::string> again_state;
    std::vector<std::string> trouble; // of the way back
    std::vector<std::string> left;    // the state at the end, as far as it differs from the end without a fault
    state after;                      // without a fault: of the operation, and of the way back
    state at_end;
    std::vector<std::string> broken; // rules that hold whatever fails
    bool has_ended = true;           // false: it crashed, or hangs
};

// Without a fault when its reach is none. `expected` is the outcome without one.
outcome run_in_a_process(const operation &operation, const fault &fault, const outcome *expected);
// The same in this process, for a debugger; nothing more can be done with the library afterwards.
outcome run_here(const operation &operation, const fault &fault, const outcome *expected);

// The operation under every fault.
struct sweep_result {
    std::string record; // for people, and for comparison
    uint32_t call_count = 0;
    uint32_t fault_count = 0;
    std::vector<std::string> broken; // with the name of the fault
};
sweep_result sweep_operation(const operation &operation);

// "name/3=1/alone", "…/class", "…/all", "…/then 5"
std::string fault_name(const operation &operation, const fault &fault);
bool fault_of_name(const std::string &name, std::string *operation_name, fault *fault);
std::string outcome_text(const outcome &outcome);

} // namespace kr_test

#endif
