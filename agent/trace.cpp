/*
 * The walk of trace.h, and the fields by name for what differs.
 */
#include "trace.h"

#include <algorithm>

#include "match.h"
#include "of10/text.h"

namespace agent {
namespace {

namespace wc = of10::wildcard;
using of10::flow_match;

std::string hexadecimal(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%04x", value);
    return text;
}

std::string vlan_text(uint16_t vlan) {
    return vlan == of10::vlan_none ? "none" : std::to_string(vlan);
}

std::string pcp_text(const flow_match &packet) {
    return (packet.wildcards & wc::dl_vlan_pcp) != 0 ? "none" : std::to_string(packet.dl_vlan_pcp);
}

// Of an IPv4 flow the addresses, of an ARP flow those in the ARP message, and so on.
struct names {
    const char *source, *target, *protocol, *first, *second;
};
names names_of(const flow_match &match) {
    const bool is_arp = match.dl_type == 0x0806;
    const bool is_icmp = match.nw_proto == 1;
    return {is_arp ? "arp_spa" : "nw_src", is_arp ? "arp_tpa" : "nw_dst", is_arp ? "arp_op" : "nw_proto",
            is_icmp ? "icmp_type" : "tp_src", is_icmp ? "icmp_code" : "tp_dst"};
}

class difference {
  public:
    void note(bool differs, const char *name, const std::string &is, const std::string &wanted) {
        if (differs) {
            text_ += (text_.empty() ? "" : "; ") + std::string(name) + " is " + is + ", not " + wanted;
        }
    }
    void note_address(const char *name, uint32_t is, uint32_t wanted, uint32_t mask) {
        int prefix = 0;
        for (uint32_t rest = mask; rest != 0; rest <<= 1) {
            prefix++;
        }
        note(((is ^ wanted) & mask) != 0, name, of10::ipv4_name(is),
             of10::ipv4_name(wanted & mask) + (prefix == 32 ? "" : "/" + std::to_string(prefix)));
    }
    std::string take() {
        return std::move(text_);
    }

  private:
    std::string text_;
};

} // namespace

std::string match_difference(const flow_match &match, const flow_match &packet) {
    const auto fixes = [&](uint32_t bit) { return (match.wildcards & bit) == 0; };
    const auto decimal = [](unsigned value) { return std::to_string(value); };
    const names name = names_of(match);
    difference all;
    const auto note = [&](uint32_t bit, const char *field, unsigned is, unsigned wanted) {
        all.note(fixes(bit) && is != wanted, field, decimal(is), decimal(wanted));
    };
    note(wc::in_port, "in_port", packet.in_port, match.in_port);
    all.note(fixes(wc::dl_src) && packet.dl_src != match.dl_src, "dl_src", of10::mac_name(packet.dl_src),
             of10::mac_name(match.dl_src));
    all.note(fixes(wc::dl_dst) && packet.dl_dst != match.dl_dst, "dl_dst", of10::mac_name(packet.dl_dst),
             of10::mac_name(match.dl_dst));
    all.note(fixes(wc::dl_vlan) && packet.dl_vlan != match.dl_vlan, "dl_vlan", vlan_text(packet.dl_vlan),
             vlan_text(match.dl_vlan));
    all.note(fixes(wc::dl_vlan_pcp) &&
                 ((packet.wildcards & wc::dl_vlan_pcp) != 0 || packet.dl_vlan_pcp != match.dl_vlan_pcp),
             "dl_vlan_pcp", pcp_text(packet), decimal(match.dl_vlan_pcp));
    all.note(fixes(wc::dl_type) && packet.dl_type != match.dl_type, "dl_type", hexadecimal(packet.dl_type),
             hexadecimal(match.dl_type));
    all.note_address(name.source, packet.nw_src, match.nw_src, match_nw_src_mask(match));
    all.note_address(name.target, packet.nw_dst, match.nw_dst, match_nw_dst_mask(match));
    note(wc::nw_proto, name.protocol, packet.nw_proto, match.nw_proto);
    note(wc::nw_tos, "nw_tos", packet.nw_tos, match.nw_tos);
    note(wc::tp_src, name.first, packet.tp_src, match.tp_src);
    note(wc::tp_dst, name.second, packet.tp_dst, match.tp_dst);
    return all.take();
}

std::vector<trace_step> trace(const flow_table &table, const flow_match &packet, const place_of_flow &place) {
    std::vector<const flow *> order;
    for (const auto &one : table.all()) {
        order.push_back(one.get());
    }
    std::stable_sort(order.begin(), order.end(), [&](const flow *a, const flow *b) {
        return a->rank != b->rank ? a->rank > b->rank : place(*a) < place(*b);
    });
    std::vector<trace_step> steps;
    bool is_taken = false;
    for (const flow *const one : order) {
        trace_step step{one, trace_verdict::differs, {}};
        if (!match_covers(one->key, packet)) {
            step.reason = match_difference(one->key, packet);
        } else if (one->rule.id == 0) {
            step.verdict = trace_verdict::absent;
        } else {
            step.verdict = is_taken ? trace_verdict::hidden : trace_verdict::taken;
            is_taken = true;
        }
        steps.push_back(std::move(step));
    }
    return steps;
}

} // namespace agent
