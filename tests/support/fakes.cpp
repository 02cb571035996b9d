/*
 * The journal and the results of the fakes.
 */
#include "fakes.h"

#include <condition_variable>
#include <mutex>
#include <utility>

namespace kr_test {
namespace {

struct fakes_state {
    std::mutex mutex;
    std::condition_variable changed;
    call_list calls;
    std::map<std::string, uint32_t> results;
    std::vector<hal_event_record> records;
    std::function<void(const hal_event_record &)> delivery_hook;
    std::map<uint32_t, fake_port> ports;
};

fakes_state &state() {
    static auto *const instance = new fakes_state; // threads of a failed test may outlive main
    return *instance;
}

} // namespace

void device_reset(); // fake_device.cpp

void fakes_reset() {
    {
        const std::lock_guard lock(state().mutex);
        state().calls.clear();
        state().results.clear();
        state().records.clear();
        state().delivery_hook = nullptr;
        state().ports.clear();
    }
    device_reset();
}

void record(const char *line) {
    const std::lock_guard lock(state().mutex);
    state().calls.emplace_back(line);
    state().changed.notify_all();
}

void record_log(uint32_t severity, const char *module, const char *text) {
    std::string line = std::to_string(severity) + ' ' + module + ": " + text;
    if (line.back() == '\n') {
        line.pop_back();
    } else {
        line += " (no newline)";
    }
    record(line.c_str());
}

call_list take_calls() {
    const std::lock_guard lock(state().mutex);
    return std::exchange(state().calls, {});
}

call_list peek_calls() {
    const std::lock_guard lock(state().mutex);
    return state().calls;
}

void wait_for_call(const std::string &line) {
    std::unique_lock lock(state().mutex);
    state().changed.wait(lock, [&] {
        for (const std::string &call : state().calls) {
            if (call == line) {
                return true;
            }
        }
        return false;
    });
}

uint32_t called(const char *name) {
    record(name);
    return result_of(name);
}

void set_result(const std::string &name, uint32_t result) {
    const std::lock_guard lock(state().mutex);
    state().results[name] = result;
}

uint32_t result_of(const char *name) {
    const std::lock_guard lock(state().mutex);
    const auto found = state().results.find(name);
    return found == state().results.end() ? 0 : found->second;
}

std::vector<hal_event_record> take_delivered_records() {
    const std::lock_guard lock(state().mutex);
    return std::exchange(state().records, {});
}

void add_delivered_record(const hal_event_record &record) {
    std::function<void(const hal_event_record &)> hook;
    {
        const std::lock_guard lock(state().mutex);
        state().records.push_back(record);
        hook = state().delivery_hook;
    }
    if (hook) {
        hook(record);
    }
}

void set_delivery_hook(std::function<void(const hal_event_record &)> hook) {
    const std::lock_guard lock(state().mutex);
    state().delivery_hook = std::move(hook);
}

std::map<uint32_t, fake_port> &fake_ports() {
    return state().ports;
}

} // namespace kr_test
