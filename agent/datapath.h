/*
 * The switch as controllers see it: flows, ports, packets, and what changes them. It owns the parts, passes events of
 * the library to them, and tells controllers what they have to hear. Sessions ask it; switch_link feeds it.
 */
#ifndef KR_AGENT_DATAPATH_H
#define KR_AGENT_DATAPATH_H

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "audience.h"
#include "event_feed.h"
#include "flow_mods.h"
#include "flow_table.h"
#include "hardware.h"
#include "packet_io.h"
#include "ports.h"
#include "rules.h"

namespace agent {

struct datapath_identity {
    std::optional<uint64_t> id; // none: the connector's, else the remembered one, else the lowest address of the ports
    std::string description;
    std::optional<uint64_t> remembered{};         // chosen at an earlier start
    std::function<void(uint64_t)> on_chosen = {}; // told of an id that was chosen now
};

class datapath {
  public:
    datapath(datapath_identity identity, packet_io::sender send);
    datapath(const datapath &) = delete;
    datapath &operator=(const datapath &) = delete;

    void set_audience(audience &controllers) {
        audience_.forward_to = &controllers;
    }

    /* Events of the library. */
    void switch_ready(); // started, or started again: whatever was in hardware is gone
    void port_added(const hal_event_port_update &update);
    void port_removed(uint32_t told); // before the removal is acknowledged
    void link_changed(uint16_t number, bool is_up);
    void packet_received(const hal_event_packet &packet, of10::packet_in_reason reason);
    void packets_end(); // no further frame follows for now
    void ports_refresh();
    /* The first ports are known: an id can be chosen. */
    void settled() {
        is_settled_ = true;
    }

    /* What has to be looked at from time to time: time-outs, and ports that were changed from outside. */
    void turn(nanoseconds now);

    /* What sessions ask. */
    of10::features_reply features();
    std::optional<refusal> port_mod(const of10::port_mod &request);
    uint64_t id();
    /* An id for a datapath that was not given one, unless it has told one already. */
    void suggest_id(uint64_t id) {
        id_ = id_.value_or(id);
    }

    /* Takes all rules and groups out of hardware; nobody is told. */
    void shut_down();

    flow_table flows;
    hardware table;
    rules programmed;
    flow_mods mods;
    ports known_ports;
    packet_io packets;
    const datapath_identity identity;
    event_feed feed;

  private:
    // Stands in for the controllers, which are made after the datapath.
    struct audience_link final : public audience {
        audience *forward_to = nullptr;
        void tell_all(const of10::message_body &body) override;
        bool has_any() const override;
        void packet_in(of10::packet_in_fields fields, of10::byte_view frame, uint16_t max_len,
                       const std::function<uint32_t()> &buffer) override;
        void packets_send() override;
    };

    void repair_turn(nanoseconds now);
    uint64_t lowest_address() const;
    std::optional<refusal> port_config_apply(uint16_t number, uint32_t changed, uint32_t wanted);
    void tell_port(of10::port_reason reason, const of10::phy_port &port);
    void tell_flow(const flow &one, const char *what, const char *why) const;
    void tell_removed(const flow &one, of10::flow_removed_reason reason, const rules::counts &last);

    audience_link audience_;
    std::optional<uint64_t> id_;
    bool was_ready_ = false;
    bool is_settled_ = false;
    static constexpr nanoseconds first_repair_pause = second_ns / 2;
    nanoseconds repair_pause_ = first_repair_pause;
    nanoseconds next_repair_ = 0;
};

} // namespace agent

#endif
