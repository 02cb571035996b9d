/*
 * What the benchmarks of the library share: a library that is initialised once, a switch that can be started afresh, a
 * clock that counts the thread's own work only, and how results are paired for the ratios.
 *
 * A benchmark that goes through the library is named WHAT/library..., the same work without it WHAT/straight...
 */
#ifndef KR_BENCH_LIBRARY_H
#define KR_BENCH_LIBRARY_H

#include <benchmark/benchmark.h>

#include <ctime>

#include <cstdint>
#include <string>

#include "kr_sdn_hal.h"
#include "kr_soft.h"

namespace kr_bench {

// Ends the program with a message: a benchmark of something that fails says nothing.
void require(bool condition, const char *what);
inline void require(kr_sdn_hal_status status, const char *what) {
    require(status == KR_SDN_HAL_STATUS_SUCCESS, what);
}

// The switch is started for the life of the object, with ports in memory at OF ports 1 and up.
class started_switch {
  public:
    explicit started_switch(uint32_t port_count = 0);
    ~started_switch();
    started_switch(const started_switch &) = delete;
    started_switch &operator=(const started_switch &) = delete;

    // Adds a port that is in the platform already.
    void add_port(uint32_t of_port);

    static constexpr uint32_t log_port_of(uint32_t of_port) {
        return 0x10000 + of_port;
    }
};

// Seconds of processor time that the calling thread has taken, in the system too: other programs do not disturb it.
inline double thread_seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Name of the interface pair's end that is the switch's, in a network namespace of the program's own; empty when there
// is none to be had.
const std::string &wire_interface();
const std::string &far_interface();

// Registered by the files that hold them.
void register_flow_benchmarks();
void register_event_benchmarks();
void register_packet_benchmarks();

} // namespace kr_bench

#endif
