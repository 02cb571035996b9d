/*
 * Frames by description: the bytes that a test injects, and the fields that a flow matches, both made from the same few
 * numbers, so that the model needs no parser.
 */
#ifndef KR_TESTS_MODEL_FRAMES_H
#define KR_TESTS_MODEL_FRAMES_H

#include <cstdint>
#include <optional>
#include <vector>

#include "kr_sdn_hal.h"

namespace kr_model {

using bytes = std::vector<uint8_t>;

enum class frame_kind : uint8_t { udp, tcp, icmp, arp, other, fragment, stp, lacp, eapol, lldp, count };

struct frame_description {
    uint32_t log_port = 0; // where it enters
    frame_kind kind = frame_kind::udp;
    uint8_t src = 0, dst = 0;       // last byte of the Ethernet addresses
    uint8_t ip_src = 0, ip_dst = 0; // last byte of the IPv4 addresses
    uint8_t tos = 0;
    uint16_t tp_src = 0, tp_dst = 0; // of ICMP: type and code
    uint32_t tci = no_tag;           // priority and VLAN id of its tag
    uint32_t padding = 0;            // bytes behind the headers

    static constexpr uint32_t no_tag = 0x10000;
    bool operator==(const frame_description &) const = default;
};

constexpr uint16_t other_eth_type = 0x88b5;

// The bytes on the wire.
bytes frame_bytes(const frame_description &frame);

// The trap id of the control protocol that the frame belongs to; 0 for none.
uint32_t frame_control_trap(const frame_description &frame);

// Whether the frame matches a flow, of which `in_log_port` is the logical port of its ingress port.
bool frame_matches(const frame_description &frame, const flow_record &flow, uint32_t in_log_port);

// The frame behind the VLAN edit of a flow.
bytes frame_edited(const bytes &frame, const flow_record &flow);

} // namespace kr_model

#endif
