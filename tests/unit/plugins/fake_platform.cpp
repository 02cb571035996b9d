/* The ports of a software switch that has no data plane. */
#include "fake_platform.h"

#include <mutex>

#include "kr_soft.h"

namespace {

struct port {
    std::string interface_name;
    uint32_t stp_state = KR_SOFT_STP_NONE;
};
struct platform_state {
    std::mutex lock;
    std::map<uint32_t, port> ports;
    uint32_t add_status = KR_STATUS_SUCCESS;
};
platform_state g;

} // namespace

namespace fake_platform {

void reset() {
    const std::lock_guard guard(g.lock);
    g.ports.clear();
    g.add_status = KR_STATUS_SUCCESS;
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

} // namespace fake_platform

kr_status kr_soft_port_add_interface(uint32_t log_port, const char *interface_name) {
    const std::lock_guard guard(g.lock);
    if (g.add_status != KR_STATUS_SUCCESS) {
        return g.add_status;
    }
    return g.ports.emplace(log_port, port{interface_name}).second ? KR_STATUS_SUCCESS : KR_STATUS_ENTRY_ALREADY_EXISTS;
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
