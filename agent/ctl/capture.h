/*
 * krsdnctl capture: frames of a port in pcap format. Either from the port's Linux interface, by a packet socket of
 * krsdnctl's own (all frames on the wire), or from the daemon (those that pass through it: packet-ins and packet-outs).
 */
#ifndef KR_CTL_CAPTURE_H
#define KR_CTL_CAPTURE_H

#include <cstdint>
#include <string>

#include "daemon_link.h"

namespace ctl {

struct capture_wish {
    std::string port;   // name or number
    std::string filter; // as for tcpdump; of interfaces only
    uint64_t count = 0; // frames; 0: until interrupted
    bool from_daemon = false;
};

/* Throws failure. */
void capture(daemon_link &daemon, const capture_wish &wish);

/* The port that a person names by its name or number; throws failure. */
json port_find(daemon_link &daemon, const std::string &name);

} // namespace ctl

#endif
