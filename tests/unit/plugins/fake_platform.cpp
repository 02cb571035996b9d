/* The ports of a software switch that has no data plane. */
#include "fake_platform.h"

#include <mutex>

#include "kr_soft.h"

namespace {

struct port {
    std::string interface_name;
    uint32_t stp_state = KR_SOFT_STP_NONE;
    bool is_up = true;
};
struct platform_state {
    std::mutex lock;
    std::map<uint32_t, port> ports;
    uint32_t add_status = KR_STATUS_SUCCESS;
    uint32_t play_status = KR_STATUS_SUCCESS;
};
platform_state g;

} // namespace

namespace fake_platform {

void reset() {
    const std::lock_guard guard(g.lock);
    g.ports.clear();
    g.add_status = KR_STATUS_SUCCESS;
    g.play_status = KR_STATUS_SUCCESS;
}

std::map<uint32_t, std::string> ports() {
    const std::lock_guard guard(g.lock);
    std::map<uint32_t, std::string> names;
    for (const auto &[log_port, p] : g.ports) {
        names[log_port] = p.interface_name;
    }
    return names;
}

void fail_adds_with(uint32_t status) {
    const std::lock_guard guard(g.lock);
    g.add_status = status;
}

void fail_plays_with(uint32_t status) {
    const std::lock_guard guard(g.lock);
    g.play_status = status;
}

bool is_up(uint32_t log_port) {
    const std::lock_guard guard(g.lock);
    return g.ports.contains(log_port) && g.ports[log_port].is_up;
}

} // namespace fake_platform

kr_status kr_soft_port_add_interface(uint32_t log_port, const char *interface_name) {
    const std::lock_guard guard(g.lock);
    if (g.add_status != KR_STATUS_SUCCESS) {
        return g.add_status;
    }
    return g.ports.emplace(log_port, port{interface_name}).second ? KR_STATUS_SUCCESS : KR_STATUS_ENTRY_ALREADY_EXISTS;
}

kr_status kr_soft_port_add_capture(uint32_t log_port, const char *input_path, const char *output_path) {
    const auto text_of = [](const char *path) { return std::string(path == nullptr ? "-" : path); };
    return kr_soft_port_add_interface(log_port, (text_of(input_path) + " > " + text_of(output_path)).c_str());
}

kr_status kr_soft_port_play(uint32_t log_port, uint64_t *frame_count) {
    const std::lock_guard guard(g.lock);
    *frame_count = 3;
    return g.ports.contains(log_port) ? g.play_status : kr_status{KR_STATUS_ENTRY_NOT_FOUND};
}

kr_status kr_soft_port_link_set(uint32_t log_port, uint32_t up) {
    const std::lock_guard guard(g.lock);
    const auto found = g.ports.find(log_port);
    if (found == g.ports.end()) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    found->second.is_up = up != 0;
    return KR_STATUS_SUCCESS;
}

kr_status kr_soft_port_remove(uint32_t log_port) {
    const std::lock_guard guard(g.lock);
    return g.ports.erase(log_port) == 1 ? KR_STATUS_SUCCESS : KR_STATUS_ENTRY_NOT_FOUND;
}

kr_status kr_soft_port_stp_set(uint32_t log_port, uint32_t stp_state) {
    const std::lock_guard guard(g.lock);
    const auto found = g.ports.find(log_port);
    if (found == g.ports.end()) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    found->second.stp_state = stp_state;
    return KR_STATUS_SUCCESS;
}

kr_status kr_soft_port_stp_get(uint32_t log_port, uint32_t *stp_state) {
    const std::lock_guard guard(g.lock);
    const auto found = g.ports.find(log_port);
    if (found == g.ports.end()) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    *stp_state = found->second.stp_state;
    return KR_STATUS_SUCCESS;
}
