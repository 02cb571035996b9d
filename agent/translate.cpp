/*
 * The match field by field, the action list step by step; see translate.h for what comes out.
 */
#include "translate.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace agent {
namespace {

namespace wc = of10::wildcard;
using of10::error_type;

constexpr uint16_t vlan_id_mask = 0x0fff;
constexpr uint8_t vlan_pcp_mask = 0x07;
constexpr uint8_t dscp_mask = 0xfc;

refusal refuse_action(uint16_t code, const char *reason) {
    return {error_type::bad_action, code, reason};
}

bool contains(const std::vector<uint16_t> &sorted, uint16_t port) {
    return std::binary_search(sorted.begin(), sorted.end(), port);
}

void set_insert(std::vector<uint16_t> &sorted, uint16_t port) {
    const auto at = std::lower_bound(sorted.begin(), sorted.end(), port);
    if (at == sorted.end() || *at != port) {
        sorted.insert(at, port);
    }
}

/* ---- the match ------------------------------------------------------------------------------------------------- */

void mac_copy(uint8_t (&value)[6], uint8_t (&mask)[6], const of10::mac_address &from) {
    std::memcpy(value, from.data(), sizeof value);
    std::memset(mask, 0xff, sizeof mask);
}

void vlan_translate(const of10::flow_match &key, flow_record &record) {
    const bool fixes_id = (key.wildcards & wc::dl_vlan) == 0;
    const bool fixes_pcp = (key.wildcards & wc::dl_vlan_pcp) == 0;
    if (!fixes_id && !fixes_pcp) {
        return;
    }
    record.vlan_tagged_mask = 1;
    if (fixes_id && key.dl_vlan == of10::vlan_none) {
        return;
    }
    record.vlan_tagged = 1;
    if (fixes_id) {
        record.vlan_id = key.dl_vlan & vlan_id_mask;
        record.vlan_id_mask = vlan_id_mask;
    }
    if (fixes_pcp) {
        record.vlan_pcp = key.dl_vlan_pcp & vlan_pcp_mask;
        record.vlan_pcp_mask = vlan_pcp_mask;
    }
}

void match_translate(const of10::flow_match &key, flow_record &record) {
    const auto fixes = [&](uint32_t bit) { return (key.wildcards & bit) == 0; };
    if (fixes(wc::in_port)) {
        record.in_port = key.in_port;
        record.in_port_mask = 1;
    }
    if (fixes(wc::dl_src)) {
        mac_copy(record.eth_src, record.eth_src_mask, key.dl_src);
    }
    if (fixes(wc::dl_dst)) {
        mac_copy(record.eth_dst, record.eth_dst_mask, key.dl_dst);
    }
    vlan_translate(key, record);
    if (fixes(wc::dl_type)) {
        record.eth_type = key.dl_type;
        record.eth_type_mask = 0xffff;
    }
    if (fixes(wc::nw_tos)) {
        record.ip_tos = key.nw_tos & dscp_mask;
        record.ip_tos_mask = dscp_mask;
    }
    if (fixes(wc::nw_proto)) {
        record.ip_proto = key.nw_proto;
        record.ip_proto_mask = 0xff;
    }
    record.ipv4_src_mask = match_nw_src_mask(key);
    record.ipv4_src = key.nw_src & record.ipv4_src_mask;
    record.ipv4_dst_mask = match_nw_dst_mask(key);
    record.ipv4_dst = key.nw_dst & record.ipv4_dst_mask;
    if (fixes(wc::tp_src)) {
        record.tp_src = key.tp_src;
        record.tp_src_mask = 0xffff;
    }
    if (fixes(wc::tp_dst)) {
        record.tp_dst = key.tp_dst;
        record.tp_dst_mask = 0xffff;
    }
}

/* ---- the actions ----------------------------------------------------------------------------------------------- */

struct vlan_edit {
    bool strips = false;
    bool retags = false; // after it has stripped
    std::optional<uint16_t> id;
    std::optional<uint8_t> pcp;
    bool operator==(const vlan_edit &) const = default;
    bool is_none() const {
        return !strips && !id && !pcp;
    }
};

class action_walk {
  public:
    action_walk(const of10::flow_match &key, const port_lists &ports, missing_port policy)
        : ports_(ports), policy_(policy) {
        if ((key.wildcards & wc::in_port) == 0) {
            ingress_ = key.in_port;
        }
    }

    // The first refusal of the list, or nothing.
    std::optional<refusal> walk(const of10::action_list &actions) {
        for (const of10::action &one : actions) {
            if (const auto *output = std::get_if<of10::action_output>(&one)) {
                if (auto refused = take_output(output->port)) {
                    return refused;
                }
            } else if (const auto *vid = std::get_if<of10::action_set_vlan_vid>(&one)) {
                edit_.id = vid->vlan_vid;
                edit_.retags = edit_.strips;
            } else if (const auto *pcp = std::get_if<of10::action_set_vlan_pcp>(&one)) {
                edit_.pcp = pcp->vlan_pcp;
                edit_.retags = edit_.strips;
            } else {
                edit_ = {.strips = true, .retags = false, .id = {}, .pcp = {}}; // actions_check let nothing else pass
            }
        }
        return refuse_mixture();
    }

    void fill(rule_plan &plan) const {
        flow_record &record = plan.record;
        record.action = FLOW_ACTION_DROP;
        if (has_controller_) {
            record.action = FLOW_ACTION_CONTROLLER;
            return;
        }
        if (has_in_port_) {
            if (contains(ports_.sending, *ingress_)) {
                record.action = FLOW_ACTION_OUTPUT;
                record.out_port = *ingress_;
                fill_edit(record);
            }
            return;
        }
        if (targets_.empty()) {
            return;
        }
        if (targets_.size() == 1 && ingress_) {
            record.action = FLOW_ACTION_OUTPUT;
            record.out_port = targets_.front();
        } else if (is_everywhere()) {
            record.action = FLOW_ACTION_FLOOD;
        } else {
            record.action = FLOW_ACTION_MC_GROUP;
            plan.group_ports = targets_;
        }
        fill_edit(record);
    }

  private:
    std::optional<refusal> take_output(uint16_t port) {
        if (has_output_ && edit_ != output_edit_) {
            return refuse_action(of10::bad_action::too_many, "outputs of different frames by one rule");
        }
        if (edit_.retags) {
            return refuse_action(of10::bad_action::too_many, "a tag removed and set anew by one rule");
        }
        has_output_ = true;
        output_edit_ = edit_;
        switch (port) {
        case of10::ports::in_port:
            has_in_port_ = true;
            return ingress_ ? std::nullopt
                            : std::optional(refuse_action(of10::bad_action::bad_out_port,
                                                          "IN_PORT without an ingress port in the match"));
        case of10::ports::controller:
            has_controller_ = true;
            return {};
        case of10::ports::flood:
            add_targets(ports_.flooded);
            return {};
        case of10::ports::all:
            add_targets(ports_.sending);
            return {};
        default:
            return take_port(port);
        }
    }

    std::optional<refusal> take_port(uint16_t port) {
        if (!contains(ports_.all, port) && (policy_ == missing_port::refuse || port > of10::ports::max)) {
            return refuse_action(of10::bad_action::bad_out_port, "no such port");
        }
        has_ports_ = true;
        if (contains(ports_.sending, port) && port != ingress_) {
            set_insert(targets_, port);
        }
        return {};
    }

    void add_targets(const std::vector<uint16_t> &ports) {
        has_ports_ = true;
        has_port_class_ = true;
        for (const uint16_t port : ports) {
            if (port != ingress_) {
                set_insert(targets_, port);
            }
        }
    }

    std::optional<refusal> refuse_mixture() const {
        const int kinds = int{has_controller_} + int{has_in_port_} + int{has_ports_};
        if (kinds > 1) {
            return refuse_action(of10::bad_action::too_many, "controller, IN_PORT and ports mixed in one rule");
        }
        if (has_controller_ && !output_edit_.is_none()) {
            return refuse_action(of10::bad_action::too_many, "a VLAN edit before an output to the controller");
        }
        return {};
    }

    // FLOOD or ALL reaches all ports but the ingress: what the hardware's own flood group does. A list that names every
    // port is no such case, for a port that comes later is not in it.
    bool is_everywhere() const {
        if (!has_port_class_) {
            return false;
        }
        const size_t others = ports_.all.size() - (ingress_ && contains(ports_.all, *ingress_) ? 1 : 0);
        return targets_.size() == others;
    }

    void fill_edit(flow_record &record) const {
        const vlan_edit &edit = output_edit_;
        record.vlan_action_vid = edit.id.value_or(0);
        record.vlan_action_pcp = edit.pcp.value_or(0);
        record.vlan_action = edit.strips           ? FLOW_VLAN_POP
                             : edit.id && edit.pcp ? FLOW_VLAN_SET_VID_PCP
                             : edit.id             ? FLOW_VLAN_SET_VID
                             : edit.pcp            ? FLOW_VLAN_SET_PCP
                                                   : FLOW_VLAN_NONE;
    }

    const port_lists &ports_;
    const missing_port policy_;
    std::optional<uint16_t> ingress_;
    vlan_edit edit_;        // so far
    vlan_edit output_edit_; // of the outputs
    bool has_output_ = false;
    bool has_controller_ = false;
    bool has_in_port_ = false;
    bool has_ports_ = false;
    bool has_port_class_ = false; // FLOOD or ALL
    std::vector<uint16_t> targets_;
};

} // namespace

std::variant<std::monostate, refusal> actions_check(const of10::action_list &actions) {
    if (actions.size() > max_actions) {
        return refuse_action(of10::bad_action::too_many, "more actions than are kept");
    }
    for (const of10::action &one : actions) {
        const auto type = static_cast<unsigned>(type_of(one));
        if (std::holds_alternative<of10::action_vendor>(one)) {
            return refuse_action(of10::bad_action::bad_vendor, "a vendor's action");
        }
        if (type >= 32 || (supported_actions >> type & 1) == 0) {
            return refuse_action(of10::bad_action::bad_type, "an action that the hardware does not have");
        }
    }
    return {};
}

std::variant<rule_plan, refusal> translate(const of10::flow_match &key, const of10::action_list &actions,
                                           const port_lists &ports, missing_port policy) {
    const auto checked = actions_check(actions);
    if (const auto *refused = std::get_if<refusal>(&checked)) {
        return *refused;
    }
    const bool fixes_id = (key.wildcards & wc::dl_vlan) == 0 && key.dl_vlan != of10::vlan_none;
    const bool fixes_pcp = (key.wildcards & wc::dl_vlan_pcp) == 0;
    if ((fixes_id && key.dl_vlan > vlan_id_mask) || (fixes_pcp && key.dl_vlan_pcp > vlan_pcp_mask)) {
        return refusal{error_type::flow_mod_failed, of10::flow_mod_failed::unsupported, "a VLAN that no frame has"};
    }
    rule_plan plan;
    match_translate(key, plan.record);
    if (plan.record.in_port_mask != 0 && !contains(ports.all, key.in_port)) {
        if (policy == missing_port::refuse) {
            return refusal{error_type::flow_mod_failed, of10::flow_mod_failed::unsupported,
                           "an ingress port that does not exist"};
        }
        plan.can_match = false;
    }
    action_walk walk(key, ports, policy);
    if (const auto refused = walk.walk(actions)) {
        return *refused;
    }
    walk.fill(plan);
    return plan;
}

} // namespace agent
