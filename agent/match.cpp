/*
 * Comparison of matches, field by field. A tag is seen as a field of its own: "no tag", "a tag" (a VLAN id, or only a
 * VLAN priority, is given) or either.
 */
#include "match.h"

#include <algorithm>

namespace agent {
namespace {

namespace wc = of10::wildcard;
using of10::flow_match;

bool fixes(const flow_match &m, uint32_t bit) {
    return (m.wildcards & bit) == 0;
}

enum class tag { any, none, present };

tag tag_of(const flow_match &m) {
    if (fixes(m, wc::dl_vlan)) {
        return m.dl_vlan == of10::vlan_none ? tag::none : tag::present;
    }
    return fixes(m, wc::dl_vlan_pcp) ? tag::present : tag::any;
}

// Calls `ask(wildcard bit, are the values equal)` for every field that a wildcard bit rules; ends at the first false.
template <typename Question> bool for_plain_fields(const flow_match &a, const flow_match &b, Question ask) {
    return ask(wc::in_port, a.in_port == b.in_port) && ask(wc::dl_src, a.dl_src == b.dl_src) &&
           ask(wc::dl_dst, a.dl_dst == b.dl_dst) && ask(wc::dl_vlan, a.dl_vlan == b.dl_vlan) &&
           ask(wc::dl_vlan_pcp, a.dl_vlan_pcp == b.dl_vlan_pcp) && ask(wc::dl_type, a.dl_type == b.dl_type) &&
           ask(wc::nw_tos, a.nw_tos == b.nw_tos) && ask(wc::nw_proto, a.nw_proto == b.nw_proto) &&
           ask(wc::tp_src, a.tp_src == b.tp_src) && ask(wc::tp_dst, a.tp_dst == b.tp_dst);
}

bool address_covers(uint32_t wide, uint32_t wide_mask, uint32_t narrow, uint32_t narrow_mask) {
    return (wide_mask & ~narrow_mask) == 0 && ((wide ^ narrow) & wide_mask) == 0;
}

} // namespace

bool match_covers(const flow_match &wide, const flow_match &narrow) noexcept {
    const bool plain = for_plain_fields(
        wide, narrow, [&](uint32_t bit, bool equal) { return !fixes(wide, bit) || (fixes(narrow, bit) && equal); });
    return plain && address_covers(wide.nw_src, match_nw_src_mask(wide), narrow.nw_src, match_nw_src_mask(narrow)) &&
           address_covers(wide.nw_dst, match_nw_dst_mask(wide), narrow.nw_dst, match_nw_dst_mask(narrow));
}

bool match_overlaps(const flow_match &a, const flow_match &b) noexcept {
    const bool plain =
        for_plain_fields(a, b, [&](uint32_t bit, bool equal) { return !fixes(a, bit) || !fixes(b, bit) || equal; });
    const tag tag_a = tag_of(a);
    const tag tag_b = tag_of(b);
    const bool tags_agree = tag_a == tag::any || tag_b == tag::any || tag_a == tag_b;
    return plain && tags_agree && ((a.nw_src ^ b.nw_src) & match_nw_src_mask(a) & match_nw_src_mask(b)) == 0 &&
           ((a.nw_dst ^ b.nw_dst) & match_nw_dst_mask(a) & match_nw_dst_mask(b)) == 0;
}

bool match_is_exact(const flow_match &match) noexcept {
    return (match.wildcards & of10::wildcard::all) == 0;
}

size_t match_hash(const flow_match &m) noexcept {
    uint64_t hash = 0x9e3779b97f4a7c15U;
    const auto mix = [&](uint64_t value) {
        hash = (hash ^ value) * 0xff51afd7ed558ccdU;
        hash ^= hash >> 32;
    };
    const auto address = [](const of10::mac_address &mac) {
        uint64_t value = 0;
        for (const uint8_t byte : mac) {
            value = value << 8 | byte;
        }
        return value;
    };
    mix(uint64_t{m.wildcards} << 16 | m.in_port);
    mix(address(m.dl_src) << 16 | m.dl_vlan);
    mix(address(m.dl_dst) << 16 | m.dl_type);
    mix(uint64_t{m.nw_src} << 32 | m.nw_dst);
    mix(uint64_t{m.tp_src} << 48 | uint64_t{m.tp_dst} << 32 | uint64_t{m.dl_vlan_pcp} << 16 | uint64_t{m.nw_tos} << 8 |
        m.nw_proto);
    return hash;
}

} // namespace agent
