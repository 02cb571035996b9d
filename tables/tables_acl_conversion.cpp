/*
 * Flows as ACL rules and ACL rules as flows: the key, the trap and VLAN edit, the forwarding target; and flows as pSort
 * entries. OF ports become the SDK's logical ports here, and logical ports OF ports again.
 *
 * Installing and reading a rule is the business of tables_acl_impl.cpp; a conversion that fails touches no hardware.
 */
#include <cstring>

#include "common/log.h"
#include "core/port.h"
#include "kr_host_ifc.h"
#include "tables/tables.h"
#include "tables/tables_acl_internal.h"

KR_LOG_MODULE("HAL_TABLES_API", kr_HAL_TABLES_API_verb_level);

using kr::relaxed_load;
using kr::tables_acl::g;

namespace {

constexpr uint32_t key_vlan_tagged = 2;       // in the key: the frame carries a tag
constexpr uint32_t mask_vlan_tagged = 255;    // in the mask: it matters
constexpr uint32_t mask_in_port = 0xFFFFFFFF; // the same for the ingress port

// The action part of a rule: everything from its first word up to the activity.
constexpr size_t action_part_begin = offsetof(kr_acl_rule, action_word_280);
constexpr size_t action_part_end = offsetof(kr_acl_rule, activity_mode);
static_assert(action_part_begin == 280 && action_part_end == 336);

// The match of a flow record: everything from the ingress port up to the action.
constexpr size_t match_begin = offsetof(flow_record, in_port);
constexpr size_t match_end = offsetof(flow_record, action);

// VLAN edits of flows, by value, as the hardware names them.
constexpr uint32_t vlan_edits[] = {
    KR_ACL_VLAN_EDIT_NONE,         // FLOW_VLAN_NONE
    KR_ACL_VLAN_EDIT_PUSH_VID,     // FLOW_VLAN_PUSH_VID
    KR_ACL_VLAN_EDIT_SET_PCP,      // FLOW_VLAN_SET_PCP
    KR_ACL_VLAN_EDIT_PUSH_VID_PCP, // FLOW_VLAN_PUSH_VID_PCP
    KR_ACL_VLAN_EDIT_POP,          // FLOW_VLAN_POP
    KR_ACL_VLAN_EDIT_SET_VID_PCP,  // FLOW_VLAN_SET_VID_PCP
    KR_ACL_VLAN_EDIT_SET_VID,      // FLOW_VLAN_SET_VID
};
constexpr uint32_t vlan_edit_count = sizeof(vlan_edits) / sizeof(vlan_edits[0]);
static_assert(vlan_edit_count == FLOW_VLAN_SET_VID + 1);

uint32_t vlan_edit_of(uint32_t vlan_action) {
    return vlan_action < vlan_edit_count ? vlan_edits[vlan_action] : vlan_edits[FLOW_VLAN_NONE];
}

uint32_t vlan_action_of(uint32_t vlan_edit) {
    for (uint32_t vlan_action = 0; vlan_action < vlan_edit_count; ++vlan_action) {
        if (vlan_edits[vlan_action] == vlan_edit) {
            return vlan_action;
        }
    }
    return FLOW_VLAN_NONE;
}

// The match fields that are the same in a flow and in a key, with their masks: the flow has the source before the
// destination, the key has them the other way round.
template <typename Flow, typename Key, typename Copy>
void match_fields_copy(Flow &flow, Key &key, Key &mask, Copy copy) {
#define MATCH_FIELD(field) copy(flow.field, key.field), copy(flow.field##_mask, mask.field)
    MATCH_FIELD(eth_dst);
    MATCH_FIELD(eth_src);
    MATCH_FIELD(eth_type);
    MATCH_FIELD(vlan_pcp);
    MATCH_FIELD(vlan_id);
    MATCH_FIELD(ipv4_dst);
    MATCH_FIELD(ipv4_src);
    MATCH_FIELD(tp_src);
    MATCH_FIELD(tp_dst);
    MATCH_FIELD(ip_proto);
    MATCH_FIELD(ip_tos);
#undef MATCH_FIELD
}

template <typename Field> void field_copy(Field &to, const Field &from) {
    memcpy(&to, &from, sizeof(Field));
}

// The OF port of a logical port that a rule names.
kr_sdn_hal_status of_port_get(uint32_t log_port, uint32_t *of_port) {
    const kr_sdn_hal_status status = port_translate_log_port(log_port, of_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to translate logical port (%x) to OF port ID, rc (%u)n ", log_port, status);
    }
    return status;
}

} // namespace

/* ---- action ---------------------------------------------------------------------------------------------------- */

void __acl_action_reset(kr_acl_rule *rule) {
    memset(reinterpret_cast<unsigned char *>(rule) + action_part_begin, 0, action_part_end - action_part_begin);
    rule->action_word_312 = 0xFFFFFFFF;
    rule->action_word_328 = 0xFFFFFFFF;
}

void __flow_action_to_acl_action(const flow_record *flow, kr_acl_rule *rule) {
    __acl_action_reset(rule);
    rule->action_valid = 1;
    if (flow->action == FLOW_ACTION_DROP) {
        rule->trap_action = KR_ACL_TRAP_ACTION_DISCARD;
    } else if (flow->action == FLOW_ACTION_CONTROLLER) {
        rule->trap_action = KR_ACL_TRAP_ACTION_TRAP;
        rule->trap_mode = KR_ACL_TRAP_MODE_TRAP_ID;
        rule->trap_id = KR_TRAP_ID_PACKET_IN;
    }
    rule->vlan_edit = vlan_edit_of(flow->vlan_action);
    rule->vlan_id = flow->vlan_action_vid;
    rule->vlan_pcp = flow->vlan_action_pcp;
}

void __acl_action_to_flow_action(flow_record *flow, const kr_acl_rule *rule) {
    // A trap outweighs the target that the flow already has.
    if (rule->trap_action == KR_ACL_TRAP_ACTION_DISCARD) {
        flow->action = FLOW_ACTION_DROP;
    } else if (rule->trap_action == KR_ACL_TRAP_ACTION_TRAP) {
        flow->action = FLOW_ACTION_CONTROLLER;
    }
    flow->vlan_action = vlan_action_of(rule->vlan_edit);
    flow->vlan_action_vid = rule->vlan_id;
    flow->vlan_action_pcp = rule->vlan_pcp;
}

/* ---- forwarding target ----------------------------------------------------------------------------------------- */

kr_sdn_hal_status __flow_target_to_acl_forward(const flow_record *flow, kr_acl_rule *rule) {
    rule->forward_type = KR_ACL_FORWARD_NONE;
    if (flow->action == FLOW_ACTION_OUTPUT) {
        uint32_t log_port = 0;
        const kr_sdn_hal_status status = port_get_log_port(flow->out_port, &log_port);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to translate output port (%u) rc (%u)n ", flow->out_port, status);
            return status;
        }
        rule->forward_type = KR_ACL_FORWARD_PORT;
        rule->forward_log_port = log_port;
    } else if (flow->action == FLOW_ACTION_FLOOD) {
        rule->forward_type = KR_ACL_FORWARD_GROUP;
        rule->forward_group_id = relaxed_load(g.flood_mc_group_id);
    } else if (flow->action == FLOW_ACTION_MC_GROUP) {
        rule->forward_type = KR_ACL_FORWARD_GROUP;
        rule->forward_group_id = flow->mc_group_id;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __acl_forward_to_flow_target(flow_record *flow, const kr_acl_rule *rule) {
    if (rule->forward_type == KR_ACL_FORWARD_PORT) {
        uint32_t of_port = 0;
        const kr_sdn_hal_status status = of_port_get(rule->forward_log_port, &of_port);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            return status;
        }
        flow->action = FLOW_ACTION_OUTPUT;
        flow->out_port = of_port;
    } else if (rule->forward_type == KR_ACL_FORWARD_GROUP) {
        if (rule->forward_group_id == relaxed_load(g.flood_mc_group_id)) {
            flow->action = FLOW_ACTION_FLOOD;
        } else {
            flow->action = FLOW_ACTION_MC_GROUP;
            flow->mc_group_id = rule->forward_group_id;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- key ------------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status __flow_key_to_acl_key(const flow_record *flow, kr_acl_rule *rule) {
    rule->key_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
    rule->mask_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
    rule->key = {};
    rule->mask = {};
    if (flow->in_port_mask != 0) {
        uint32_t log_port = 0;
        const kr_sdn_hal_status status = port_get_log_port(flow->in_port, &log_port);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to translate port rc (%u)n ", status);
            return status;
        }
        rule->key.in_log_port = log_port;
        rule->mask.in_log_port = mask_in_port;
    }
    rule->key.vlan_tagged = flow->vlan_tagged != 0 ? key_vlan_tagged : 0;
    rule->mask.vlan_tagged = flow->vlan_tagged_mask != 0 ? mask_vlan_tagged : 0;
    match_fields_copy(*flow, rule->key, rule->mask,
                      [](const auto &of_flow, auto &of_key) { field_copy(of_key, of_flow); });
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __acl_key_to_flow_key(flow_record *flow, const kr_acl_rule *rule) {
    memset(reinterpret_cast<unsigned char *>(flow) + match_begin, 0, match_end - match_begin);
    if (rule->mask.in_log_port != 0) {
        const kr_sdn_hal_status status = of_port_get(rule->key.in_log_port, &flow->in_port);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            return status;
        }
        flow->in_port_mask = 1;
    }
    flow->vlan_tagged = rule->key.vlan_tagged != 0;
    flow->vlan_tagged_mask = rule->mask.vlan_tagged != 0;
    match_fields_copy(*flow, rule->key, rule->mask,
                      [](auto &of_flow, const auto &of_key) { field_copy(of_flow, of_key); });
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- whole flows ----------------------------------------------------------------------------------------------- */

kr_sdn_hal_status __convert_flow_to_acl_rule(wrapped_flow *flow) {
    kr_acl_rule rule{};
    __flow_action_to_acl_action(flow->flow, &rule);
    kr_sdn_hal_status status = __flow_key_to_acl_key(flow->flow, &rule);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed convert flow key to HW key ");
        return status;
    }
    status = __allocate_flow_counter(flow, &rule);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) { // cannot happen as long as a flow may go without a counter
        HAL_NOTICE("Failed to allocate flow counter.");
        return status;
    }
    return __config_acl_rule(flow, &rule);
}

kr_sdn_hal_status __convert_acl_rule_to_flow(wrapped_flow *flow) {
    kr_acl_rule rule{};
    kr_sdn_hal_status status = __get_acl_rule(flow, &rule);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    __acl_action_to_flow_action(flow->flow, &rule);
    status = __acl_key_to_flow_key(flow->flow, &rule);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed convert HW key to flow key ");
    }
    return status;
}

/* ---- pSort entries --------------------------------------------------------------------------------------------- */

void __convert_flows_to_psort_entries(const wrapped_flow *flows, uint32_t count, psort_entry *entries) {
    for (uint32_t i = 0; i < count; ++i) {
        entries[i] = {
            .key = flows[i].flow->flow_id,
            .priority = flows[i].flow->priority,
            .index = static_cast<uint32_t>(flows[i].offset),
        };
    }
}

void __convert_psort_entries_to_flows(const psort_entry *entries, uint32_t count, wrapped_flow *flows) {
    for (uint32_t i = 0; i < count; ++i) {
        flows[i].offset = entries[i].index;
    }
}
