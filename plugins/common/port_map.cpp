/*
 * The port map: a small array under one lock. Look-ups are linear, which for at most 128 ports costs less than the
 * system call that follows each of them.
 */
#include "port_map.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <type_traits>

namespace kr_plugin {
namespace {

struct port_map_state {
    std::mutex lock;
    std::array<mapped_port, port_map_max_ports> ports;
    size_t count;
};

constinit port_map_state g{};
static_assert(std::is_trivially_destructible_v<port_map_state>);

mapped_port *find(uint32_t of_port) {
    auto *end = g.ports.data() + g.count;
    auto *port = std::find_if(g.ports.data(), end, [=](const mapped_port &p) { return p.of_port == of_port; });
    return port == end ? nullptr : port;
}

} // namespace

bool port_map_put(const mapped_port &port) noexcept {
    const std::lock_guard guard(g.lock);
    if (mapped_port *known = find(port.of_port)) {
        *known = port;
        return true;
    }
    if (g.count == g.ports.size()) {
        return false;
    }
    g.ports[g.count++] = port;
    return true;
}

void port_map_remove(uint32_t of_port) noexcept {
    const std::lock_guard guard(g.lock);
    if (mapped_port *known = find(of_port)) {
        *known = g.ports[--g.count];
    }
}

bool port_map_get(uint32_t of_port, mapped_port *port) noexcept {
    const std::lock_guard guard(g.lock);
    const mapped_port *known = find(of_port);
    if (known == nullptr) {
        return false;
    }
    *port = *known;
    return true;
}

size_t port_map_list(mapped_port *ports, size_t room) noexcept {
    const std::lock_guard guard(g.lock);
    const size_t count = std::min(room, g.count);
    std::copy_n(g.ports.begin(), count, ports);
    return count;
}

void port_map_clear() noexcept {
    const std::lock_guard guard(g.lock);
    g.count = 0;
}

} // namespace kr_plugin
