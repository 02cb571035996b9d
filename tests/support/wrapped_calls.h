/*
 * Steering of wrapped_calls.cpp, which records and forwards calls of the operating system and the component library.
 */
#ifndef KR_TESTS_WRAPPED_CALLS_H
#define KR_TESTS_WRAPPED_CALLS_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kr_test {

// The most that one write takes; SIZE_MAX: no limit.
void write_limit(size_t bytes);

// Whether pipe, close and write are in the journal; off at first.
void record_system_calls(bool on);

} // namespace kr_test

#endif
