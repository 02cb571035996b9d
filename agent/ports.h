/*
 * The ports of the switch as OpenFlow describes them: what the library tells about each, and what controllers have
 * configured. It reads and sets ports through the library's port functions; who is told of a change, and what it means
 * for flows, is the datapath's business.
 */
#ifndef KR_AGENT_PORTS_H
#define KR_AGENT_PORTS_H

#include <map>
#include <optional>

#include "kr_sdn_hal.h"
#include "of10/of10.h"
#include "translate.h"

namespace agent {

/* What a controller may change of a port. There is no spanning tree here to take part in, so "no-stp" is kept and told,
 * and has no effect; frames of a spanning tree are frames like others, so they can't be dropped apart (no_recv_stp). */
inline constexpr uint32_t changeable_config = of10::port_config::port_down | of10::port_config::no_stp |
                                              of10::port_config::no_recv | of10::port_config::no_flood |
                                              of10::port_config::no_fwd | of10::port_config::no_packet_in;

/* In events the switch reports a link in numbers of its own, not in those of the port functions. */
inline constexpr uint32_t event_link_up = 1;

class ports {
  public:
    /* A port was announced. False for a number that OpenFlow has no room for. */
    bool add(const hal_event_port_update &update);
    void remove(uint16_t number);
    void clear() {
        ports_.clear();
    }

    const of10::phy_port *find(uint16_t number) const;
    const std::map<uint16_t, of10::phy_port> &all() const {
        return ports_;
    }

    /* Sees a link change; null if nothing has changed. */
    const of10::phy_port *link_changed(uint16_t number, bool is_up);

    /* Reads a port's states again: what may have been missed. Null if nothing has changed. */
    const of10::phy_port *refresh(uint16_t number);

    /* The same for `count` ports without a link, round by round; calls back for each that has changed. That such a port
     * is taken up or down comes as no event. A port with a link loses it then, so that nothing needs to be asked. */
    template <typename Changed> void refresh_next(size_t count, Changed changed) {
        auto next = ports_.lower_bound(next_refreshed_);
        for (; next != ports_.end() && count > 0; ++next) {
            if ((next->second.state & of10::port_state::link_down) == 0) {
                continue;
            }
            count--;
            if (refresh_states(next->second)) {
                changed(next->second);
            }
        }
        next_refreshed_ = next == ports_.end() ? 0 : next->first;
    }

    /* Sets what a port offers its peer: bits of port_feature. False, and nothing has changed, where the bits name
     * something that can't be offered or the library refuses. */
    bool set_advertised(uint16_t number, uint32_t features);

    /* Takes a port up or down in hardware, as its configuration shall say. False if the library refuses. */
    bool set_down(uint16_t number, bool is_down);
    /* Notes configuration bits. */
    void set_config(uint16_t number, uint32_t config);

    port_lists lists() const;

    /* All-unknown counters if the library can't read them. */
    static of10::port_stats read_stats(uint16_t number);

  private:
    static bool refresh_states(of10::phy_port &port);

    std::map<uint16_t, of10::phy_port> ports_;
    uint16_t next_refreshed_ = 0;
};

/* The bits of a port's configuration that are set, in words: "down, no-flood". */
std::string port_config_text(uint32_t config);

} // namespace agent

#endif
