/*
 * The order in which a change reaches flows, hardware and controllers.
 */
#include "datapath.h"

#include <algorithm>

#include "log.h"
#include "of10/text.h"
#include "timeouts.h"

namespace agent {

namespace config = of10::port_config;

constexpr size_t ports_per_turn = 16; // looked at in every turn, one after the other
constexpr nanoseconds last_repair_pause = 32 * second_ns;

/* ---- audience -------------------------------------------------------------------------------------------------- */

void datapath::audience_link::tell_all(const of10::message_body &body) {
    if (forward_to != nullptr) {
        forward_to->tell_all(body);
    }
}

bool datapath::audience_link::has_any() const {
    return forward_to != nullptr && forward_to->has_any();
}

void datapath::audience_link::packet_in(of10::packet_in_fields fields, of10::byte_view frame, uint16_t max_len,
                                        const std::function<uint32_t()> &buffer) {
    if (forward_to != nullptr) {
        forward_to->packet_in(fields, frame, max_len, buffer);
    }
}

void datapath::audience_link::packets_send() {
    if (forward_to != nullptr) {
        forward_to->packets_send();
    }
}

/* ---- construction and events ----------------------------------------------------------------------------------- */

datapath::datapath(datapath_identity who, packet_io::sender send)
    : programmed(table), mods(flows, programmed,
                              [this](const flow &one, of10::flow_removed_reason reason, const rules::counts &last) {
                                  tell_removed(one, reason, last);
                              }),
      packets(flows, known_ports, audience_, std::move(send)), identity(std::move(who)), id_(identity.id) {
    mods.watch([this](const flow &one, const char *what, const char *why) { tell_flow(one, what, why); });
}

void datapath::switch_ready() {
    if (!table.open()) {
        log(log_level::error, "the flow table can't be read");
    }
    if (was_ready_) {
        log(log_level::warning, "the switch was started anew: %zu flows are gone", flows.size());
        mods.forget_all(clock_now());
    }
    feed.tell([&] { return happening{"switch", was_ready_ ? "started anew" : "ready", table.name(), ""}; });
    was_ready_ = true;
}

void datapath::port_added(const hal_event_port_update &update) {
    port_removed(update.port); // known already: then it is another one, with nothing of the old
    if (!known_ports.add(update)) {
        return;
    }
    mods.ports_changed(known_ports.lists());
    const of10::phy_port &port = *known_ports.find(static_cast<uint16_t>(update.port));
    log(log_level::notice, "port %u is %s", port.port_no, port.name.c_str());
    tell_port(of10::port_reason::add, port);
}

void datapath::port_removed(uint32_t told) {
    const auto number = static_cast<uint16_t>(told);
    const of10::phy_port *const port = number == told ? known_ports.find(number) : nullptr;
    if (port == nullptr) {
        return;
    }
    const of10::phy_port gone = *port;
    if ((gone.config & config::no_recv) != 0) {
        programmed.drop_ingress_drop(number);
    }
    known_ports.remove(number);
    mods.ports_changed(known_ports.lists());
    log(log_level::notice, "port %u (%s) is removed", number, gone.name.c_str());
    tell_port(of10::port_reason::del, gone);
}

void datapath::link_changed(uint16_t number, bool is_up) {
    if (const of10::phy_port *const port = known_ports.link_changed(number, is_up)) {
        log(log_level::notice, "port %u (%s): link %s", number, port->name.c_str(), is_up ? "up" : "down");
        tell_port(of10::port_reason::modify, *port);
    }
}

void datapath::ports_refresh() {
    std::vector<uint16_t> numbers;
    for (const auto &[number, port] : known_ports.all()) {
        numbers.push_back(number);
    }
    for (const uint16_t number : numbers) {
        if (const of10::phy_port *const port = known_ports.refresh(number)) {
            tell_port(of10::port_reason::modify, *port);
        }
    }
}

void datapath::packet_received(const hal_event_packet &packet, of10::packet_in_reason reason) {
    packets.received(packet, reason);
}

void datapath::packets_end() {
    audience_.packets_send();
}

void datapath::turn(nanoseconds now) {
    if (flows.size() > 0) {
        agent::timeouts_turn(flows, programmed, mods, now);
    }
    repair_turn(now);
    known_ports.refresh_next(ports_per_turn, [this](const of10::phy_port &port) {
        log(log_level::notice, "port %u (%s) is %s, link %s", port.port_no, port.name.c_str(),
            (port.config & config::port_down) != 0 ? "down" : "up",
            (port.state & of10::port_state::link_down) != 0 ? "down" : "up");
        tell_port(of10::port_reason::modify, port);
    });
}

// What hardware has refused is tried again, more and more rarely while that does not help.
void datapath::repair_turn(nanoseconds now) {
    if (now < next_repair_) {
        return;
    }
    repair_pause_ = mods.repair() ? std::min(2 * repair_pause_, last_repair_pause) : first_repair_pause;
    next_repair_ = now + repair_pause_;
}

void datapath::shut_down() {
    audience_.forward_to = nullptr;
    mods.end_all();
    for (const auto &[number, port] : known_ports.all()) {
        programmed.drop_ingress_drop(number);
    }
    (void)mods.repair(); // what is left over has its last chance
}

void datapath::tell_port(of10::port_reason reason, const of10::phy_port &port) {
    audience_.tell_all(of10::port_status{reason, port});
    feed.tell([&] {
        constexpr const char *reasons[] = {"added", "removed", "changed"};
        const std::string config = port_config_text(port.config);
        return happening{"port", reasons[static_cast<size_t>(reason)], std::to_string(port.port_no) + " " + port.name,
                         std::string((port.state & of10::port_state::link_down) != 0 ? "link down" : "link up") +
                             (config.empty() ? "" : ", " + config)};
    });
}

void datapath::tell_flow(const flow &one, const char *what, const char *why) const {
    feed.tell([&] {
        const std::string match = to_string(one.match);
        return happening{"flow", what,
                         "priority=" + std::to_string(one.priority) + (match.empty() ? "" : "," + match) +
                             " actions=" + to_string(one.actions),
                         why};
    });
}

void datapath::tell_removed(const flow &one, of10::flow_removed_reason reason, const rules::counts &last) {
    const nanoseconds age = clock_now() - one.created;
    of10::flow_removed message;
    message.match = one.match;
    message.cookie = one.cookie;
    message.priority = one.priority;
    message.reason = reason;
    message.duration_sec = static_cast<uint32_t>(age / second_ns);
    message.duration_nsec = static_cast<uint32_t>(age % second_ns);
    message.idle_timeout = one.idle_timeout;
    message.packet_count = last.packets;
    message.byte_count = last.bytes;
    audience_.tell_all(message);
}

/* ---- requests -------------------------------------------------------------------------------------------------- */

// Stays what it was when it was first asked for, whatever ports do; before there is a port there is none to keep.
uint64_t datapath::id() {
    if (!id_ && is_settled_) {
        id_ = identity.remembered;
        const uint64_t lowest = id_ ? 0 : lowest_address();
        if (lowest != 0) {
            id_ = lowest;
            if (identity.on_chosen) {
                identity.on_chosen(lowest);
            }
        }
    }
    return id_.value_or(0);
}

// Of the ports; 0: none has one. It does not depend on how they are numbered, nor on which came first.
uint64_t datapath::lowest_address() const {
    uint64_t lowest = 0;
    for (const auto &[number, port] : known_ports.all()) {
        uint64_t address = 0;
        for (const uint8_t byte : port.hw_addr) {
            address = address << 8 | byte;
        }
        lowest = address != 0 && (lowest == 0 || address < lowest) ? address : lowest;
    }
    return lowest;
}

of10::features_reply datapath::features() {
    of10::features_reply reply;
    reply.datapath_id = id();
    reply.n_buffers = packet_buffers::count;
    reply.n_tables = 1;
    reply.capabilities = of10::capability::flow_stats | of10::capability::table_stats | of10::capability::port_stats |
                         of10::capability::arp_match_ip;
    reply.actions = supported_actions;
    for (const auto &[number, port] : known_ports.all()) {
        reply.ports.push_back(port);
    }
    return reply;
}

std::optional<refusal> datapath::port_mod(const of10::port_mod &request) {
    const of10::phy_port *const port = known_ports.find(request.port_no);
    if (port == nullptr) {
        return refusal{of10::error_type::port_mod_failed, of10::port_mod_failed::bad_port, "no such port"};
    }
    if (port->hw_addr != request.hw_addr) {
        return refusal{of10::error_type::port_mod_failed, of10::port_mod_failed::bad_hw_addr,
                       "not the address of the port"};
    }
    if ((request.config & request.mask & ~changeable_config) != 0) {
        return refusal{of10::error_type::bad_request, of10::bad_request::eperm,
                       "a configuration that ports don't have"};
    }
    const uint32_t mask = request.mask & changeable_config;
    const uint32_t wanted = (port->config & ~mask) | (request.config & mask);
    const uint32_t changed = wanted ^ port->config;
    const uint32_t advertised = port->advertised;
    const bool advertises = request.advertise != 0 && request.advertise != advertised; // 0: leave it as it is
    if (advertises && !known_ports.set_advertised(request.port_no, request.advertise)) {
        return refusal{of10::error_type::bad_request, of10::bad_request::eperm, "features that the port can't offer"};
    }
    const auto refused = port_config_apply(request.port_no, changed, wanted);
    if (refused) {
        if (advertises) {
            (void)known_ports.set_advertised(request.port_no, advertised);
        }
        return refused;
    }
    if (changed == 0 && !advertises) {
        return {};
    }
    known_ports.set_config(request.port_no, wanted);
    if ((changed & (config::no_flood | config::no_fwd)) != 0) {
        mods.ports_changed(known_ports.lists());
    }
    (void)known_ports.refresh(request.port_no);
    tell_port(of10::port_reason::modify, *known_ports.find(request.port_no));
    return {};
}

// What of a port's configuration is hardware: the rule that drops, and up or down. Refused: nothing has changed.
std::optional<refusal> datapath::port_config_apply(uint16_t number, uint32_t changed, uint32_t wanted) {
    const bool drops = (changed & wanted & config::no_recv) != 0;
    const bool receives = (changed & ~wanted & config::no_recv) != 0;
    if (drops && (flows.size() >= programmed.capacity() || programmed.add_ingress_drop(number))) {
        return refusal{of10::error_type::bad_request, of10::bad_request::eperm, "no room for the rule that drops"};
    }
    if (receives && !programmed.remove_ingress_drop(number)) {
        return refusal{of10::error_type::bad_request, of10::bad_request::eperm, "the rule that drops does not go"};
    }
    if ((changed & config::port_down) != 0 && !known_ports.set_down(number, (wanted & config::port_down) != 0)) {
        if (drops) {
            (void)programmed.remove_ingress_drop(number);
        } else if (receives) {
            (void)programmed.add_ingress_drop(number);
        }
        return refusal{of10::error_type::bad_request, of10::bad_request::eperm, "the port can't be set up or down"};
    }
    return {};
}

} // namespace agent
