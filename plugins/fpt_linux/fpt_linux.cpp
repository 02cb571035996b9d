/*
 * The port plug-in for Linux interfaces: the sixteen entry points. Which interface stands behind an OF port is read
 * from the port map; state, MTU, address and counters go over rtnetlink, speed over the ethtool interface, spanning
 * tree to the software switch. Counters of an interface can't be cleared: what they were is kept and subtracted.
 */
#include "fpt_linux.h"

#include <net/if.h>
// After net/if.h, which it knows how to live with: the operational states.
#include <linux/if.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>

#include "kernel_link.h"
#include "kr_soft.h"
#include "link_speed.h"
#include "plugin_status.h"
#include "port_map.h"

namespace kr_fpt {
namespace {

struct counter_field {
    uint64_t port_counters::*field;
    rtnl_link_stat_id_t id;
};
constexpr counter_field counter_fields[] = {
    {&port_counters::rx_packets, RTNL_LINK_RX_PACKETS},
    {&port_counters::tx_packets, RTNL_LINK_TX_PACKETS},
    {&port_counters::rx_bytes, RTNL_LINK_RX_BYTES},
    {&port_counters::tx_bytes, RTNL_LINK_TX_BYTES},
    {&port_counters::rx_dropped, RTNL_LINK_RX_DROPPED},
    {&port_counters::tx_dropped, RTNL_LINK_TX_DROPPED},
    {&port_counters::rx_errors, RTNL_LINK_RX_ERRORS},
    {&port_counters::tx_errors, RTNL_LINK_TX_ERRORS},
    {&port_counters::rx_frame_errors, RTNL_LINK_RX_FRAME_ERR},
    {&port_counters::rx_overrun_errors, RTNL_LINK_RX_OVER_ERR},
    {&port_counters::rx_crc_errors, RTNL_LINK_RX_CRC_ERR},
    {&port_counters::collisions, RTNL_LINK_COLLISIONS},
};

// Counters when they were cleared, by interface: another interface behind the same port starts at its own zero.
struct baseline {
    uint32_t ifindex; // 0: free
    port_counters counters;
};

struct plugin_state {
    std::mutex baseline_lock;
    std::array<baseline, kr_plugin::port_map_max_ports> baselines;
    size_t oldest_baseline; // reused when all are taken
};
constinit plugin_state g{};

baseline *baseline_find(uint32_t ifindex) {
    auto *found =
        std::find_if(g.baselines.begin(), g.baselines.end(), [=](const baseline &b) { return b.ifindex == ifindex; });
    return found == g.baselines.end() ? nullptr : found;
}

void baseline_set(uint32_t ifindex, const port_counters &counters) {
    const std::lock_guard guard(g.baseline_lock);
    baseline *place = baseline_find(ifindex);
    if (place == nullptr) {
        place = baseline_find(0);
    }
    if (place == nullptr) {
        place = &g.baselines[g.oldest_baseline];
        g.oldest_baseline = (g.oldest_baseline + 1) % g.baselines.size();
    }
    *place = {ifindex, counters};
}

void baseline_subtract(uint32_t ifindex, port_counters *counters) {
    const std::lock_guard guard(g.baseline_lock);
    const baseline *cleared = baseline_find(ifindex);
    for (size_t i = 0; cleared != nullptr && i < std::size(counter_fields); ++i) {
        uint64_t &value = counters->*counter_fields[i].field;
        const uint64_t before = cleared->counters.*counter_fields[i].field;
        value -= value >= before ? before : 0; // a counter that went back was restarted by its driver
    }
}

kr_sdn_hal_status counters_read(uint32_t ifindex, port_counters *counters) {
    link_ptr link;
    const kr_sdn_hal_status status = link_read(ifindex, &link);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        for (const counter_field &field : counter_fields) {
            counters->*field.field = rtnl_link_get_stat(link.get(), field.id);
        }
    }
    return status;
}

// Resolves the port and calls the function with it.
template <typename F> uint32_t with_port(uint32_t of_port, F function) noexcept {
    kr_plugin::mapped_port port{};
    return kr_plugin::port_map_get(of_port, &port) ? function(port) : KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
}

// The same with a port that stands on an interface: capture files have nothing to ask or to set.
template <typename F> uint32_t with_interface(uint32_t of_port, F function) noexcept {
    return with_port(of_port, [&](const kr_plugin::mapped_port &port) -> uint32_t {
        return port.ifindex == 0 ? KR_SDN_HAL_STATUS_CMD_UNSUPPORTED : function(port);
    });
}

// The same with an output that must be there.
template <typename T, typename F> uint32_t with_interface_and_output(uint32_t of_port, T *output, F function) noexcept {
    return output == nullptr ? KR_SDN_HAL_STATUS_PARAM_NULL : with_interface(of_port, function);
}

// The same with the interface's link attributes, as they are now.
template <typename T, typename F> uint32_t with_link(uint32_t of_port, T *output, F function) noexcept {
    return with_interface_and_output(of_port, output, [&](const kr_plugin::mapped_port &port) {
        link_ptr link;
        const kr_sdn_hal_status status = link_read(port.ifindex, &link);
        return status == KR_SDN_HAL_STATUS_SUCCESS ? function(link.get()) : status;
    });
}

// Changes one attribute of the port's interface.
template <typename F> uint32_t change_link(uint32_t of_port, F set) noexcept {
    return with_interface(of_port, [&](const kr_plugin::mapped_port &port) {
        const link_ptr change(rtnl_link_alloc());
        if (!change) {
            return KR_SDN_HAL_STATUS_NO_RESOURCES;
        }
        set(change.get());
        return link_change(port.ifindex, change.get());
    });
}

port_oper_state oper_state_of(rtnl_link *link) {
    switch (rtnl_link_get_operstate(link)) {
    case IF_OPER_UP:
        return PORT_OPER_UP;
    case IF_OPER_UNKNOWN: { // the driver keeps no operational state: up is what has a carrier
        const bool is_up = (rtnl_link_get_flags(link) & IFF_UP) != 0 && rtnl_link_get_carrier(link) != 0;
        return is_up ? PORT_OPER_UP : PORT_OPER_DOWN;
    }
    default:
        return PORT_OPER_DOWN;
    }
}

} // namespace
} // namespace kr_fpt

using namespace kr_fpt;
using kr_plugin::hal_status_of;
using kr_plugin::mapped_port;

uint32_t activate() {
    return KR_SDN_HAL_STATUS_SUCCESS;
}

uint32_t deinit() {
    link_socket_close();
    const std::lock_guard guard(g.baseline_lock);
    g.baselines = {};
    return KR_SDN_HAL_STATUS_SUCCESS;
}

uint32_t rstp_port_state_set(uint32_t port, uint32_t stp_state) {
    if (stp_state > PORT_STP_FORWARDING) {
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    static_assert(uint32_t{KR_SOFT_STP_DISCARDING} == uint32_t{PORT_STP_DISCARDING} &&
                  uint32_t{KR_SOFT_STP_LEARNING} == uint32_t{PORT_STP_LEARNING} &&
                  uint32_t{KR_SOFT_STP_FORWARDING} == uint32_t{PORT_STP_FORWARDING});
    return with_port(port,
                     [=](const mapped_port &p) { return hal_status_of(kr_soft_port_stp_set(p.log_port, stp_state)); });
}

uint32_t rstp_port_state_get(uint32_t port, int32_t *stp_state) {
    if (stp_state == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    return with_port(port, [=](const mapped_port &p) {
        uint32_t state = 0;
        const kr_status status = kr_soft_port_stp_get(p.log_port, &state);
        if (status == KR_STATUS_SUCCESS) {
            *stp_state = static_cast<int32_t>(state);
        }
        return hal_status_of(status);
    });
}

uint32_t port_phys_addr_get(uint32_t port, port_mac_address *mac_address) {
    return with_link(port, mac_address, [=](rtnl_link *link) {
        const nl_addr *address = rtnl_link_get_addr(link);
        if (address == nullptr || nl_addr_get_len(address) != sizeof(mac_address->bytes)) {
            return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
        }
        std::memcpy(mac_address->bytes, nl_addr_get_binary_addr(address), sizeof(mac_address->bytes));
        return KR_SDN_HAL_STATUS_SUCCESS;
    });
}

uint32_t port_speed_admin_set(uint32_t port, port_speed_admin speeds) {
    return with_interface(port, [=](const mapped_port &p) { return speed_admin_set(p.ifindex, speeds); });
}

uint32_t port_speed_admin_get(uint32_t port, port_speed_admin *speeds) {
    return with_interface_and_output(port, speeds,
                                     [=](const mapped_port &p) { return speed_admin_get(p.ifindex, speeds); });
}

uint32_t port_speed_cabability_get(uint32_t port, uint32_t *capability) {
    return with_interface_and_output(port, capability,
                                     [=](const mapped_port &p) { return speed_capability_get(p.ifindex, capability); });
}

uint32_t port_speed_oper_get(uint32_t port, uint32_t *speed) {
    return with_interface_and_output(port, speed,
                                     [=](const mapped_port &p) { return speed_oper_get(p.ifindex, speed); });
}

uint32_t port_state_set(uint32_t port, uint32_t admin_state) {
    if (admin_state > PORT_ADMIN_UP) {
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    if (admin_state == PORT_ADMIN_NA) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR; // no state that an interface could be put into
    }
    return change_link(port, [=](rtnl_link *change) {
        if (admin_state == PORT_ADMIN_UP) {
            rtnl_link_set_flags(change, IFF_UP);
        } else {
            rtnl_link_unset_flags(change, IFF_UP);
        }
    });
}

uint32_t port_state_get(uint32_t port, int32_t *admin_state) {
    return with_link(port, admin_state, [=](rtnl_link *link) {
        *admin_state = (rtnl_link_get_flags(link) & IFF_UP) != 0 ? PORT_ADMIN_UP : PORT_ADMIN_DOWN;
        return KR_SDN_HAL_STATUS_SUCCESS;
    });
}

uint32_t port_oper_state_get(uint32_t port, int32_t *oper_state) {
    return with_link(port, oper_state, [=](rtnl_link *link) {
        *oper_state = oper_state_of(link);
        return KR_SDN_HAL_STATUS_SUCCESS;
    });
}

uint32_t port_mtu_set(uint32_t port, uint16_t mtu) {
    return change_link(port, [=](rtnl_link *change) { rtnl_link_set_mtu(change, mtu); });
}

uint32_t port_mtu_get(uint32_t port, uint16_t *mtu) {
    return with_link(port, mtu, [=](rtnl_link *link) {
        const unsigned value = rtnl_link_get_mtu(link);
        if (value > UINT16_MAX) {
            return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
        }
        *mtu = static_cast<uint16_t>(value);
        return KR_SDN_HAL_STATUS_SUCCESS;
    });
}

uint32_t port_cntr_get(uint32_t port, port_counters *counters) {
    return with_interface_and_output(port, counters, [=](const mapped_port &p) {
        port_counters now{};
        const kr_sdn_hal_status status = counters_read(p.ifindex, &now);
        if (status == KR_SDN_HAL_STATUS_SUCCESS) {
            baseline_subtract(p.ifindex, &now);
            *counters = now;
        }
        return status;
    });
}

namespace {

kr_sdn_hal_status counters_clear(const mapped_port &p) {
    port_counters now{};
    const kr_sdn_hal_status status = counters_read(p.ifindex, &now);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        baseline_set(p.ifindex, now);
    }
    return status;
}

} // namespace

uint32_t port_cntr_clear(uint32_t port, uint32_t all_ports) {
    if (all_ports == 0) {
        return with_interface(port, counters_clear);
    }
    if (all_ports > 1) {
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    // All that can be cleared are; the status is that of the first that can't.
    kr_sdn_hal_status result = KR_SDN_HAL_STATUS_SUCCESS;
    std::array<mapped_port, kr_plugin::port_map_max_ports> ports;
    const size_t count = kr_plugin::port_map_list(ports.data(), ports.size());
    for (size_t i = 0; i < count; ++i) {
        const bool has_counters = ports[i].ifindex != 0;
        const kr_sdn_hal_status status = has_counters ? counters_clear(ports[i]) : KR_SDN_HAL_STATUS_SUCCESS;
        result = result == KR_SDN_HAL_STATUS_SUCCESS ? status : result;
    }
    return result;
}
