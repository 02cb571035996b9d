/*
 * The small questions of the OpenFlow 1.0 codec: sizes, types, and what a match means.
 * Reading is in decode.cpp, writing in encode.cpp, the layouts both share in wire.h.
 */
#include "of10/wire.h"

namespace of10 {
namespace {

constexpr uint16_t ethertype_ip = 0x0800;
constexpr uint16_t ethertype_arp = 0x0806;
constexpr uint8_t protocol_icmp = 1;
constexpr uint8_t protocol_tcp = 6;
constexpr uint8_t protocol_udp = 17;

constexpr uint8_t dscp_bits = 0xfc;
constexpr uint8_t vlan_pcp_bits = 0x07;
constexpr unsigned address_bits = 32;

unsigned prefix_of(uint32_t wildcards, unsigned shift) noexcept {
    return address_bits - std::min(wildcards >> shift & 0x3f, address_bits);
}

uint32_t mask_of(unsigned prefix) noexcept {
    return prefix == 0 ? 0 : UINT32_MAX << (address_bits - prefix);
}

/* The fields that count only beside others become wildcards where those are not fixed. */
uint32_t with_implied_wildcards(const flow_match &match) noexcept {
    uint32_t wild = match.wildcards & wildcard::all;
    const bool type_is_fixed = (wild & wildcard::dl_type) == 0;
    const bool ip = type_is_fixed && match.dl_type == ethertype_ip;
    const bool arp = type_is_fixed && match.dl_type == ethertype_arp;
    if (!ip)
        wild |= wildcard::nw_tos;
    if (!ip && !arp)
        wild |= wildcard::nw_proto | wildcard::nw_src_all | wildcard::nw_dst_all;
    const bool has_ports =
        match.nw_proto == protocol_icmp || match.nw_proto == protocol_tcp || match.nw_proto == protocol_udp;
    if (!ip || (wild & wildcard::nw_proto) != 0 || !has_ports)
        wild |= wildcard::tp_src | wildcard::tp_dst;
    if ((wild & wildcard::dl_vlan) == 0 && match.dl_vlan == vlan_none)
        wild |= wildcard::dl_vlan_pcp;
    return wild;
}

/* The bit count of an address in its one form: 0 to 32. */
uint32_t with_bit_count(uint32_t wild, uint32_t bits, unsigned shift, unsigned prefix) noexcept {
    return (wild & ~bits) | (address_bits - prefix) << shift;
}

} // namespace

size_t message_size(byte_view buffered) noexcept {
    if (buffered.size() < header_size)
        return 0;
    return std::max<size_t>(wire::load_number<uint16_t>(buffered.data() + wire::offset_length), header_size);
}

unsigned match_nw_src_prefix(const flow_match &match) noexcept {
    return prefix_of(match.wildcards, wildcard::nw_src_shift);
}
unsigned match_nw_dst_prefix(const flow_match &match) noexcept {
    return prefix_of(match.wildcards, wildcard::nw_dst_shift);
}
uint32_t match_nw_src_mask(const flow_match &match) noexcept {
    return mask_of(match_nw_src_prefix(match));
}
uint32_t match_nw_dst_mask(const flow_match &match) noexcept {
    return mask_of(match_nw_dst_prefix(match));
}

flow_match match_normalize(const flow_match &match) noexcept {
    flow_match plain;
    plain.wildcards = with_implied_wildcards(match);
    plain.wildcards = with_bit_count(plain.wildcards, wildcard::nw_src_bits, wildcard::nw_src_shift,
                                     prefix_of(plain.wildcards, wildcard::nw_src_shift));
    plain.wildcards = with_bit_count(plain.wildcards, wildcard::nw_dst_bits, wildcard::nw_dst_shift,
                                     prefix_of(plain.wildcards, wildcard::nw_dst_shift));
    const auto counts = [&](uint32_t bit) { return (plain.wildcards & bit) == 0; };
    if (counts(wildcard::in_port))
        plain.in_port = match.in_port;
    if (counts(wildcard::dl_src))
        plain.dl_src = match.dl_src;
    if (counts(wildcard::dl_dst))
        plain.dl_dst = match.dl_dst;
    if (counts(wildcard::dl_vlan))
        plain.dl_vlan = match.dl_vlan;
    if (counts(wildcard::dl_vlan_pcp))
        plain.dl_vlan_pcp = match.dl_vlan_pcp & vlan_pcp_bits;
    if (counts(wildcard::dl_type))
        plain.dl_type = match.dl_type;
    if (counts(wildcard::nw_tos))
        plain.nw_tos = match.nw_tos & dscp_bits;
    if (counts(wildcard::nw_proto))
        plain.nw_proto = match.nw_proto;
    plain.nw_src = match.nw_src & match_nw_src_mask(plain);
    plain.nw_dst = match.nw_dst & match_nw_dst_mask(plain);
    if (counts(wildcard::tp_src))
        plain.tp_src = match.tp_src;
    if (counts(wildcard::tp_dst))
        plain.tp_dst = match.tp_dst;
    return plain;
}

action_type type_of(const action &one) noexcept {
    return wire::type_of_index<action, action_type>(one.index());
}
stats_type type_of(const stats_request_body &body) noexcept {
    return wire::type_of_index<stats_request_body, stats_type>(body.index());
}
stats_type type_of(const stats_reply_body &body) noexcept {
    return wire::type_of_index<stats_reply_body, stats_type>(body.index());
}
message_type type_of(const message_body &body) noexcept {
    return static_cast<message_type>(body.index());
}

size_t actions_size(const action_list &actions) noexcept {
    size_t size = 0;
    for (const action &one : actions) {
        size += std::visit([]<typename kind>(const kind &) { return wire::sheet<kind>::size; }, one);
        if (const auto *const vendor = std::get_if<action_vendor>(&one))
            size += vendor->body.size();
    }
    return size;
}

} // namespace of10
