/*
 * Steering of wrapped_calls.cpp, which records and forwards calls of the operating system and the component library.
 */
#ifndef KR_TESTS_WRAPPED_CALLS_H
#define KR_TESTS_WRAPPED_CALLS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kr_test {

// The most that one write takes; SIZE_MAX: no limit.
void write_limit(size_t bytes);

// The real writes that still succeed before the result that is set for "write" holds; 0 at first.
void writes_before_failure(int count);

// Whether pipe, close and write are in the journal; off at first. What they were given is kept beside it, and forgotten
// when the recording begins.
void record_system_calls(bool on);

struct written {
    int fd;
    std::string bytes; // all that the caller offered
    bool operator==(const written &) const = default;
};
std::vector<written> take_writes();
std::vector<int> take_closed(); // the descriptors

} // namespace kr_test

#endif
