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

/* What a controller may change of a port. */
inline constexpr uint32_t changeable_config = of10::port_config::port_down | of10::port_config::no_recv |
                                              of10::port_config::no_flood | of10::port_config::no_fwd |
                                              of10::port_config::no_packet_in;

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

    /* Takes a port up or down in hardware, as its configuration shall say. False if the library refuses. */
    bool set_down(uint16_t number, bool is_down);
    /* Notes configuration bits. */
    void set_config(uint16_t number, uint32_t config);

    port_lists lists() const;

    /* All-unknown counters if the library can't read them. */
    static of10::port_stats read_stats(uint16_t number);

  private:
    std::map<uint16_t, of10::phy_port> ports_;
};

} // namespace agent

#endif
