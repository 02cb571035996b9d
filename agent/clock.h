/*
 * The daemon's time: nanoseconds of the monotonic clock. Parts that decide by time take the time as an argument, so
 * that a test owns it; only the loop's callbacks ask the clock.
 */
#ifndef KR_AGENT_CLOCK_H
#define KR_AGENT_CLOCK_H

#include <cstdint>
#include <ctime>

namespace agent {

using nanoseconds = int64_t;
inline constexpr nanoseconds second_ns = 1'000'000'000;
inline constexpr nanoseconds millisecond_ns = 1'000'000;

inline nanoseconds clock_now() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * second_ns + now.tv_nsec;
}

} // namespace agent

#endif
