/*
 * The resource manager's tables as text for a person: part of kr_soft_dump. It works on copies, so that the lock is
 * never held while a stream is written to.
 */
#include <iterator>
#include <memory>
#include <string>

#include "acl_rm/acl_lookup.h"
#include "acl_rm/acl_tables.h"
#include "control/contract_call.h"

namespace kr_soft {
namespace {

// Begins the next field of a line.
void name_add(std::string *text, const char *name) {
    text->append(text->empty() ? "" : " ").append(name);
}

template <typename Number>
void field_add(std::string *text, const char *name, Number value, Number mask, const char *format) {
    if (mask == 0) {
        return;
    }
    name_add(text, name);
    text->append("=").append(text_of(format, unsigned{value}));
    if (mask != static_cast<Number>(~Number{0})) {
        text->append(text_of("/0x%x", unsigned{mask}));
    }
}

std::string mac_text(const uint8_t (&mac)[6]) {
    return text_of("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

void mac_add(std::string *text, const char *name, const uint8_t (&value)[6], const uint8_t (&mask)[6]) {
    const std::string mask_text = mac_text(mask);
    if (mask_text == "00:00:00:00:00:00") {
        return;
    }
    name_add(text, name);
    text->append("=").append(mac_text(value));
    if (mask_text != "ff:ff:ff:ff:ff:ff") {
        text->append("/").append(mask_text);
    }
}

void ipv4_add(std::string *text, const char *name, uint32_t value, uint32_t mask) {
    if (mask == 0) {
        return;
    }
    name_add(text, name);
    text->append(text_of("=%u.%u.%u.%u", value >> 24, value >> 16 & 255U, value >> 8 & 255U, value & 255U));
    if (mask != UINT32_MAX) {
        *text += text_of("/0x%08x", mask);
    }
}

std::string match_text(const kr_acl_key &key, const kr_acl_key &mask) {
    std::string text;
    field_add(&text, "in", key.in_log_port, mask.in_log_port, "0x%x");
    mac_add(&text, "src", key.eth_src, mask.eth_src);
    mac_add(&text, "dst", key.eth_dst, mask.eth_dst);
    if (mask.vlan_tagged != 0) {
        name_add(&text, key.vlan_tagged != 0 ? "tagged" : "untagged");
    }
    field_add(&text, "vlan", key.vlan_id, mask.vlan_id, "%u");
    field_add(&text, "pcp", key.vlan_pcp, mask.vlan_pcp, "%u");
    field_add(&text, "type", key.eth_type, mask.eth_type, "0x%04x");
    ipv4_add(&text, "ip_src", key.ipv4_src, mask.ipv4_src);
    ipv4_add(&text, "ip_dst", key.ipv4_dst, mask.ipv4_dst);
    field_add(&text, "proto", key.ip_proto, mask.ip_proto, "%u");
    field_add(&text, "tos", key.ip_tos, mask.ip_tos, "0x%02x");
    field_add(&text, "tp_src", key.tp_src, mask.tp_src, "%u");
    field_add(&text, "tp_dst", key.tp_dst, mask.tp_dst, "%u");
    return text.empty() ? "any" : text;
}

std::string action_text(const kr_acl_rule &rule) {
    std::string text;
    switch (rule.vlan_edit) {
    case KR_ACL_VLAN_EDIT_SET_PCP:
        text = text_of("set_pcp=%u ", rule.vlan_pcp & 7U);
        break;
    case KR_ACL_VLAN_EDIT_SET_VID:
        text = text_of("set_vid=%u ", rule.vlan_id & 0xFFFU);
        break;
    case KR_ACL_VLAN_EDIT_SET_VID_PCP:
        text = text_of("set_vid=%u,pcp=%u ", rule.vlan_id & 0xFFFU, rule.vlan_pcp & 7U);
        break;
    case KR_ACL_VLAN_EDIT_POP:
        text = "pop_vlan ";
        break;
    case KR_ACL_VLAN_EDIT_PUSH_VID:
        text = text_of("push_vid=%u ", rule.vlan_id & 0xFFFU);
        break;
    case KR_ACL_VLAN_EDIT_PUSH_VID_PCP:
        text = text_of("push_vid=%u,pcp=%u ", rule.vlan_id & 0xFFFU, rule.vlan_pcp & 7U);
        break;
    default:
        break;
    }
    if (rule.trap_action == KR_ACL_TRAP_ACTION_TRAP) {
        return text + text_of("trap %u", rule.trap_id);
    }
    if (rule.trap_action == KR_ACL_TRAP_ACTION_DISCARD) {
        return text + "discard";
    }
    if (rule.forward_type == KR_ACL_FORWARD_PORT) {
        return text + text_of("port 0x%x", rule.forward_log_port);
    }
    return text +
           (rule.forward_type == KR_ACL_FORWARD_GROUP ? text_of("group %u", rule.forward_group_id) : "no target");
}

std::string port_list_text(const uint32_t *log_ports, uint32_t count) {
    std::string text;
    for (uint32_t i = 0; i < count; i++) {
        text += text_of(" 0x%x", log_ports[i]);
    }
    return text.empty() ? " none" : text;
}

void acl_dump(FILE *stream, uint32_t acl_id) {
    const auto rules = std::make_unique<kr_soft_rule_state[]>(KR_SOFT_MAX_RULES);
    uint32_t rule_count = KR_SOFT_MAX_RULES;
    if (acl_rm_rules_get(acl_id, rules.get(), &rule_count) != KR_STATUS_SUCCESS) {
        return;
    }
    uint32_t log_ports[KR_SOFT_MAX_BINDINGS];
    const uint32_t port_count = acl_bound_ports_get(acl_id, log_ports);
    fprintf(stream, "acl %u: %u rules, bound to ports%s\n", acl_id, rule_count,
            port_list_text(log_ports, port_count).c_str());
    if (rule_count != 0) {
        fprintf(stream, "  offset counter active      packets        bytes  match -> action\n");
    }
    for (uint32_t i = 0; i < rule_count; i++) {
        const kr_soft_rule_state &state = rules[i];
        fprintf(stream, "  %6u %7u %6u %12llu %12llu  %s -> %s\n", state.rule.set_offset, state.rule.counter_id,
                state.activity, static_cast<unsigned long long>(state.hit_packets),
                static_cast<unsigned long long>(state.hit_bytes), match_text(state.rule.key, state.rule.mask).c_str(),
                action_text(state.rule).c_str());
    }
}

} // namespace

void acl_rm_dump(FILE *stream) {
    uint32_t acl_ids[KR_SOFT_MAX_ACLS];
    uint32_t acl_count = KR_SOFT_MAX_ACLS;
    (void)acl_rm_acls_get(acl_ids, &acl_count);
    for (uint32_t i = 0; i < acl_count; i++) {
        acl_dump(stream, acl_ids[i]);
    }
    for (uint32_t id = 1; id <= KR_SOFT_MAX_GROUPS; id++) {
        group_members members;
        if (acl_group_members_get(id, &members)) {
            fprintf(stream, "group %u: %u ports:%s\n", id, members.count,
                    port_list_text(members.log_ports.data(), members.count).c_str());
        }
    }
}

} // namespace kr_soft
