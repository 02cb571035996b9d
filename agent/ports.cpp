/*
 * Reading and setting of ports behind ports.h.
 */
#include "ports.h"

#include <algorithm>
#include <cstring>

#include "log.h"

namespace agent {
namespace {

namespace feature = of10::port_feature;

struct speed_bit {
    uint32_t speed_mbit, capability, feature;
    int32_t port_speed_admin::*flag; // null: the library has none
};
// OpenFlow 1.0 has no words for 40 and 100 Gbit/s.
constexpr speed_bit speed_bits[] = {
    {10, 0, feature::speed_10mb_fd, nullptr},
    {100, 0, feature::speed_100mb_fd, nullptr},
    {1000, PORT_SPEED_CAPABILITY_1G, feature::speed_1gb_fd, &port_speed_admin::speed_1g},
    {10000, PORT_SPEED_CAPABILITY_10G, feature::speed_10gb_fd, &port_speed_admin::speed_10g},
};

struct named_config {
    uint32_t bit;
    const char *name;
};
constexpr named_config config_names[] = {
    {of10::port_config::port_down, "down"},     {of10::port_config::no_stp, "no-stp"},
    {of10::port_config::no_recv, "no-receive"}, {of10::port_config::no_flood, "no-flood"},
    {of10::port_config::no_fwd, "no-forward"},  {of10::port_config::no_packet_in, "no-packet-in"}};

void read_speeds(of10::phy_port &port) {
    const log_silence silence; // many kinds of interface have no speed to tell
    uint32_t speed = 0;
    uint32_t capability = 0;
    port.curr = 0;
    if (kr_sdn_hal_port_speed_get(port.port_no, nullptr, &speed) == KR_SDN_HAL_STATUS_SUCCESS) {
        for (const speed_bit &one : speed_bits) {
            port.curr |= speed == one.speed_mbit ? one.feature : 0;
        }
    }
    port_speed_admin offered{};
    if (kr_sdn_hal_port_speed_get(port.port_no, &offered, nullptr) == KR_SDN_HAL_STATUS_SUCCESS) {
        port.advertised = 0;
        for (const speed_bit &one : speed_bits) {
            port.advertised |= one.flag != nullptr && offered.*one.flag != 0 ? one.feature : 0;
        }
    }
    if (kr_sdn_hal_port_speed_capability_get(port.port_no, &capability) == KR_SDN_HAL_STATUS_SUCCESS) {
        port.supported = 0;
        for (const speed_bit &one : speed_bits) {
            port.supported |= (capability & one.capability) != 0 ? one.feature : 0;
        }
    }
}

// The admin state decides the bit of the configuration, the operational state that of the state.
void read_states(of10::phy_port &port) {
    int32_t admin = PORT_ADMIN_NA;
    int32_t oper = PORT_OPER_NA;
    if (kr_sdn_hal_port_state_get(port.port_no, &admin, &oper) != KR_SDN_HAL_STATUS_SUCCESS) {
        return;
    }
    port.config = admin == PORT_ADMIN_DOWN ? port.config | of10::port_config::port_down
                                           : port.config & ~of10::port_config::port_down;
    port.state =
        oper == PORT_OPER_UP ? port.state & ~of10::port_state::link_down : port.state | of10::port_state::link_down;
}

} // namespace

bool ports::add(const hal_event_port_update &update) {
    if (update.port == 0 || update.port > of10::ports::max) {
        log(log_level::error, "port %u has a number that OpenFlow 1.0 can't name: it is left out", update.port);
        return false;
    }
    of10::phy_port port;
    port.port_no = static_cast<uint16_t>(update.port);
    std::copy(std::begin(update.mac_address), std::end(update.mac_address), port.hw_addr.begin());
    port.name.assign(update.interface_name, strnlen(update.interface_name, sizeof update.interface_name));
    port.state = update.oper_state == event_link_up ? 0 : of10::port_state::link_down;
    read_states(port);
    read_speeds(port);
    ports_[port.port_no] = std::move(port);
    return true;
}

void ports::remove(uint16_t number) {
    ports_.erase(number);
}

const of10::phy_port *ports::find(uint16_t number) const {
    const auto found = ports_.find(number);
    return found == ports_.end() ? nullptr : &found->second;
}

const of10::phy_port *ports::link_changed(uint16_t number, bool is_up) {
    const auto found = ports_.find(number);
    if (found == ports_.end()) {
        return nullptr;
    }
    const of10::phy_port before = found->second;
    // The event is the newest word on the link; the rest is read.
    read_states(found->second);
    found->second.state =
        is_up ? found->second.state & ~of10::port_state::link_down : found->second.state | of10::port_state::link_down;
    read_speeds(found->second);
    return found->second == before ? nullptr : &found->second;
}

const of10::phy_port *ports::refresh(uint16_t number) {
    const auto found = ports_.find(number);
    if (found == ports_.end()) {
        return nullptr;
    }
    const of10::phy_port before = found->second;
    read_states(found->second);
    read_speeds(found->second);
    return found->second == before ? nullptr : &found->second;
}

bool ports::refresh_states(of10::phy_port &port) {
    const log_silence silence; // its interface may be gone, again and again, until the connector removes the port
    const uint32_t config = port.config;
    const uint32_t state = port.state;
    read_states(port);
    if (port.config == config && port.state == state) {
        return false;
    }
    read_speeds(port);
    return true;
}

bool ports::set_advertised(uint16_t number, uint32_t features) {
    const log_silence silence; // it may be refused
    port_speed_admin offered{};
    // Speeds that OpenFlow 1.0 has no words for stay as they are.
    (void)!kr_sdn_hal_port_speed_get(number, &offered, nullptr);
    for (const speed_bit &one : speed_bits) {
        if (one.flag != nullptr) {
            offered.*one.flag = (features & one.feature) != 0 ? 1 : 0;
            features &= ~one.feature;
        }
    }
    if (features != 0 || kr_sdn_hal_port_speed_set(number, &offered) != KR_SDN_HAL_STATUS_SUCCESS) {
        return false;
    }
    (void)refresh(number);
    return true;
}

bool ports::set_down(uint16_t number, bool is_down) {
    return kr_sdn_hal_port_state_set(number, is_down ? PORT_ADMIN_DOWN : PORT_ADMIN_UP) == KR_SDN_HAL_STATUS_SUCCESS;
}

void ports::set_config(uint16_t number, uint32_t config) {
    const auto found = ports_.find(number);
    if (found != ports_.end()) {
        found->second.config = config;
    }
}

std::string port_config_text(uint32_t config) {
    std::string text;
    for (const named_config &one : config_names) {
        if ((config & one.bit) != 0) {
            text += (text.empty() ? "" : ", ") + std::string(one.name);
        }
    }
    return text;
}

port_lists ports::lists() const {
    port_lists lists;
    for (const auto &[number, port] : ports_) {
        lists.all.push_back(number);
        if ((port.config & of10::port_config::no_fwd) != 0) {
            continue;
        }
        lists.sending.push_back(number);
        if ((port.config & of10::port_config::no_flood) == 0) {
            lists.flooded.push_back(number);
        }
    }
    return lists;
}

of10::port_stats ports::read_stats(uint16_t number) {
    port_counters counters;
    std::memset(&counters, 0xff, sizeof counters); // unknown, in OpenFlow's way
    (void)!kr_sdn_hal_port_cntr_get(number, &counters);
    of10::port_stats stats;
    stats.port_no = number;
    stats.rx_packets = counters.rx_packets;
    stats.tx_packets = counters.tx_packets;
    stats.rx_bytes = counters.rx_bytes;
    stats.tx_bytes = counters.tx_bytes;
    stats.rx_dropped = counters.rx_dropped;
    stats.tx_dropped = counters.tx_dropped;
    stats.rx_errors = counters.rx_errors;
    stats.tx_errors = counters.tx_errors;
    stats.rx_frame_err = counters.rx_frame_errors;
    stats.rx_over_err = counters.rx_overrun_errors;
    stats.rx_crc_err = counters.rx_crc_errors;
    stats.collisions = counters.collisions;
    return stats;
}

} // namespace agent
