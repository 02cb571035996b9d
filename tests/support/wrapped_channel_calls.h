/*
 * Steering of wrapped_channel_calls.cpp, which records and forwards what the event service does with its descriptors
 * and its lock: select, read, and the reader-writer lock inside the passive lock.
 */
#ifndef KR_TESTS_WRAPPED_CHANNEL_CALLS_H
#define KR_TESTS_WRAPPED_CHANNEL_CALLS_H

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kr_test {

// Results that set_result takes for "select", beside the errno of one that fails.
constexpr uint32_t select_nothing = 1000;        // returns 0, the set is empty
constexpr uint32_t select_something_else = 1001; // returns 1, the set is empty

// Whether "lock shared", "lock exclusive" and "unlock" are in the journal; off at first.
void record_locks(bool on);

struct select_call {
    int descriptor_count; // the highest and 1
    bool waits_for_reading_only;
    struct timeval *timeout;
    bool operator==(const select_call &) const = default;
};
std::vector<select_call> take_selects();

// The sizes that read was asked for.
std::vector<size_t> take_reads();

} // namespace kr_test

#endif
