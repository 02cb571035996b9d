/*
 * One journal of everything that the module under test does: calls of fakes, calls of the platform, log lines, in the
 * order in which they happened; and what each fake is to return. Safe from any thread.
 *
 * The fakes themselves stand in fake_device.cpp (device API, host interface), fake_modules.cpp (the other modules of
 * the library) and wrapped_calls.cpp (operating system and component library, recorded and forwarded).
 */
#ifndef KR_TESTS_FAKES_H
#define KR_TESTS_FAKES_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kr_host_ifc.h"
#include "kr_log.h"
#include "kr_sdn_hal.h"

namespace kr_test {

using call_list = std::vector<std::string>;

// Everything back to: nothing recorded, every fake succeeds, no descriptor, no port.
void fakes_reset();

// Adds a line to the journal; a log line is "<severity> <module>: <text without its newline>".
void record(const char *line);
void record_log(uint32_t severity, const char *module, const char *text);

// The journal since the last take, and a copy of it.
call_list take_calls();
call_list peek_calls();

// Blocks until the journal holds `line`.
void wait_for_call(const std::string &line);

// Records `name` and returns what it is to return: 0, unless set_result said otherwise.
uint32_t called(const char *name);
void set_result(const std::string &name, uint32_t result);
uint32_t result_of(const char *name);

// What the event service was asked to deliver (fake_modules.cpp), oldest first.
std::vector<hal_event_record> take_delivered_records();
void add_delivered_record(const hal_event_record &record);
// What a client does at once with each record that is delivered, on the thread that delivers it.
void set_delivery_hook(std::function<void(const hal_event_record &)> hook);

// Ports of the fake port database: interface index and logical port to OF port.
struct fake_port {
    uint32_t of_port, ifindex, log_port;
};
std::map<uint32_t, fake_port> &fake_ports();

/* ---- the fake device ------------------------------------------------------------------------------------------- */

// Queues a frame or event at a descriptor that kr_api_host_ifc_open gave out.
void device_queue(int fd, const kr_receive_info &info, const std::string &frame);
// Lets every receive succeed with the oldest entry and take nothing away: the descriptor stays readable.
void device_keep_frames(bool keep);
// The descriptors that are open, oldest first.
std::vector<int> device_descriptors();

constexpr uint64_t fake_device_handle = 0x1122334455667788; // of kr_api_open

// A call that names the device: its handle, and the logical port or the number of the descriptor that it is about.
struct device_call {
    std::string name;
    uint64_t handle;
    uint32_t argument;
    bool operator==(const device_call &) const = default;
};
// kr_api_close, kr_api_port_state_get, kr_api_host_ifc_open and _close, failed or not.
std::vector<device_call> take_device_calls();

struct trap_call {
    uint64_t handle;
    uint32_t command;
    uint32_t swid;
    uint32_t trap_id;
    uint32_t channel_type;
    int fd;
    uint32_t fd_valid = 1; // the whole descriptor record is handed over
    bool operator==(const trap_call &) const = default;
};
std::vector<trap_call> take_trap_calls();

struct sent_packet {
    int fd;
    std::string bytes;
    uint32_t swid, log_port, priority;
    bool operator==(const sent_packet &) const = default;
};
std::vector<sent_packet> take_sent_packets();

// The log callback of the last kr_api_open.
kr_log_callback device_log_callback();

} // namespace kr_test

#endif
