/*
 * What the sweep drives: one operation per row, from a stage of the library's life. Each file of operations owns an
 * area of the library; all of them together name every exported function, every event of the connector and every
 * thread of the library.
 */
#ifndef KR_TESTS_SWEEP_OPERATIONS_H
#define KR_TESTS_SWEEP_OPERATIONS_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/sweep/world.h"

namespace kr_test {

// An operation that failed succeeds when it is made once more, and the library comes back to where it was: unless the
// call that failed is listed with what it leaves behind by design.
struct remains {
    const char *call;                    // that failed alone; "*": whichever did
    std::set<std::string> state;         // may differ; "*": whatever
    bool is_repeatable = true;           // false: made once more it fails
    std::set<uint32_t> other_codes = {}; // with these it leaves nothing
};

struct operation {
    std::string name;
    std::string covers; // the exported function, or the event
    stage from;
    std::function<uint32_t(world &)> run;
    std::function<void(world &)> prepare = {}; // beyond the stage; not recorded

    caller who = caller::client; // whose calls fail
    uint32_t limit = UINT32_MAX; // how often at the most: a thread goes on trying

    std::vector<remains> leaves = {};
    const char *must_call = nullptr; // what it is about: without a fault it makes this call
};

void add_life_operations(std::vector<operation> &operations);
void add_event_operations(std::vector<operation> &operations);
void add_service_operations(std::vector<operation> &operations);
void add_port_operations(std::vector<operation> &operations);
void add_table_operations(std::vector<operation> &operations);
void add_thread_operations(std::vector<operation> &operations);

const std::vector<operation> &all_operations();

} // namespace kr_test

#endif
