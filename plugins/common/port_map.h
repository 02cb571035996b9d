/*
 * Which Linux interface, if any, stands behind an OF port: the connector writes it when it adds and removes ports, the
 * port plug-in reads it. One per process, shared by both plug-ins. A port that the connector has not added is not in
 * it, so that a port operation never reaches an interface of the host that is no port of the switch.
 *
 * It is not the library's port database and knows nothing of flows or events.
 */
#ifndef KR_PORT_MAP_H
#define KR_PORT_MAP_H

#include <cstddef>
#include <cstdint>

namespace kr_plugin {

constexpr size_t port_map_max_ports = 128;

struct mapped_port {
    uint32_t of_port;
    uint32_t ifindex; // 0: no interface, but capture files
    uint32_t log_port;
};

/*
 * The OF port that the library gives to a port (requested: 0 for none), and the logical port that the connector gives
 * to the software switch for it. Both are functions of their arguments alone, so a port keeps its numbers over
 * restarts.
 */
constexpr uint32_t of_port_from_ifindex_max = 32767;
constexpr int32_t requested_of_port_min = 1;
constexpr int32_t requested_of_port_max = 32511;
constexpr uint32_t log_port_base = 0x10000;

constexpr uint32_t of_port_of(uint32_t ifindex, int32_t requested) {
    return requested == 0 ? ifindex : static_cast<uint32_t>(requested) + 32768U;
}
constexpr uint32_t log_port_of(uint32_t of_port) {
    return log_port_base + of_port;
}

#pragma GCC visibility push(default)
// All are safe from any thread. put replaces an entry of the same OF port; false: the map is full.
bool port_map_put(const mapped_port &port) noexcept;
void port_map_remove(uint32_t of_port) noexcept;
bool port_map_get(uint32_t of_port, mapped_port *port) noexcept;
// Copies up to `room` entries, in no particular order; returns how many it copied.
size_t port_map_list(mapped_port *ports, size_t room) noexcept;
void port_map_clear() noexcept;
#pragma GCC visibility pop

} // namespace kr_plugin

#endif
