/*
 * Reads the four views of the table and compares them pairwise. Each check is one loop over one view.
 */
#include "table_audit.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <set>

#include "kr_acl_rm.h"
#include "kr_complib.h"
#include "kr_psort.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "tables/tables_acl_impl.h"

namespace kr_audit {
namespace {

constexpr int attempt_count = 100;

enum class scope { everything, in_service };

// The views, as they were at one moment.
struct views {
    std::vector<psort_entry> places;                  // by index
    std::map<uint64_t, const psort_entry *> place_of; // by flow
    std::map<uint32_t, kr_acl_rule> rules;            // by offset
    std::map<uint64_t, flow_entry> flows;
};

uint64_t block_move_count() {
    kr_soft_usage usage;
    kr_soft_usage_get(&usage);
    return usage.block_move_count;
}

bool acl_find(uint32_t *acl_id) {
    uint32_t count = 1;
    return *acl_id != 0 || (kr_soft_acls_get(acl_id, &count) == KR_STATUS_SUCCESS && count == 1);
}

bool places_read(views *all) {
    auto count = static_cast<uint32_t>(KR_SOFT_MAX_RULES);
    all->places.resize(count);
    if (kr_soft_psort_entries_get(acl_psort_handle, all->places.data(), &count) != KR_STATUS_SUCCESS) {
        return false;
    }
    all->places.resize(count);
    for (const psort_entry &place : all->places) {
        all->place_of[place.key] = &place;
    }
    return true;
}

bool rules_read(uint32_t acl_id, views *all) {
    auto count = static_cast<uint32_t>(KR_SOFT_MAX_RULES);
    std::vector<kr_soft_rule_state> states(count);
    if (kr_soft_rules_get(acl_id, states.data(), &count) != KR_STATUS_SUCCESS) {
        return false;
    }
    for (uint32_t i = 0; i < count; i++) {
        all->rules[states[i].rule.set_offset] = states[i].rule;
    }
    return true;
}

void flows_read(views *all) {
    for (cl_map_item_t *item = cl_qmap_head(&acl_flows_db.flow_map); item != cl_qmap_end(&acl_flows_db.flow_map);
         item = cl_qmap_next(item)) {
        const auto *const element = reinterpret_cast<const flows_db_element *>(reinterpret_cast<const char *>(item) -
                                                                               offsetof(flows_db_element, map_item));
        all->flows[element->entry.flow_id] = element->entry;
    }
}

/* ---- the checks ------------------------------------------------------------------------------------------------ */

using findings = std::vector<finding>;

void places_check(const views &all, findings *found) {
    for (size_t i = 0; i < all.places.size(); i++) {
        const psort_entry &place = all.places[i];
        if (i > 0 && all.places[i - 1].priority < place.priority) {
            found->push_back({finding_kind::order_broken, place.key, place.index});
        }
        if (!all.rules.contains(place.index)) {
            found->push_back({finding_kind::place_without_rule, place.key, place.index});
        }
        if (!all.flows.contains(place.key)) {
            found->push_back({finding_kind::place_without_flow, place.key, place.index});
        }
    }
}

// Every rule has to belong to somebody: to a place, or, where places were not read, to a slot of the flows database.
void rules_check(const views &all, scope what, findings *found) {
    std::set<uint32_t> taken, counters;
    for (const psort_entry &place : all.places) {
        taken.insert(place.index);
    }
    if (what == scope::in_service) {
        for (const auto &[id, flow] : all.flows) {
            taken.insert(static_cast<uint32_t>(flow.offset));
        }
    }
    for (const auto &[offset, rule] : all.rules) {
        if (!taken.contains(offset)) {
            found->push_back({finding_kind::rule_without_place, 0, offset});
        }
        if (rule.counter_id != 0 && !counters.insert(rule.counter_id).second) {
            found->push_back({finding_kind::counter_shared, 0, offset});
        }
    }
}

// Without the placement library: rules in order of offset may not rise in priority.
void order_check(const views &all, findings *found) {
    std::map<uint64_t, const flow_entry *> by_offset;
    for (const auto &[id, flow] : all.flows) {
        by_offset[flow.offset] = &flow;
    }
    const flow_entry *before = nullptr;
    for (const auto &[offset, flow] : by_offset) {
        if (before != nullptr && before->priority < flow->priority) {
            found->push_back({finding_kind::order_broken, flow->flow_id, static_cast<uint32_t>(offset)});
        }
        before = flow;
    }
}

void flow_place_check(const views &all, const flow_entry &flow, findings *found) {
    const auto note = [&](finding_kind kind) {
        found->push_back({kind, flow.flow_id, static_cast<uint32_t>(flow.offset)});
    };
    const auto place = all.place_of.find(flow.flow_id);
    if (place == all.place_of.end()) {
        note(finding_kind::flow_without_place);
        return;
    }
    if (place->second->index != flow.offset) {
        note(finding_kind::offset_differs);
    }
    if (place->second->priority != flow.priority) {
        note(finding_kind::priority_differs);
    }
}

void flow_check(const views &all, const flow_entry &flow, findings *found) {
    const auto offset = static_cast<uint32_t>(flow.offset);
    const auto note = [&](finding_kind kind) { found->push_back({kind, flow.flow_id, offset}); };
    const flows_db_slot &slot = acl_flows_db.slots[std::min<uint64_t>(flow.offset, FLOWS_DB_MAX_SIZE - 1)];
    if (slot.valid == 0 || slot.flow_id != flow.flow_id) {
        note(finding_kind::slot_differs);
    }
    const auto rule = all.rules.find(offset);
    if (rule == all.rules.end()) {
        note(finding_kind::flow_without_rule);
    } else if (rule->second.counter_id != flow.counter) {
        note(finding_kind::counter_differs);
    }
}

/* ---- reading back ---------------------------------------------------------------------------------------------- */

bool match_agrees(const flow_record &flow, const kr_acl_rule &rule) {
#define SAME(field)                                                                                                    \
    (memcmp(&flow.field, &rule.key.field, sizeof flow.field) == 0 &&                                                   \
     memcmp(&flow.field##_mask, &rule.mask.field, sizeof flow.field) == 0)
    return SAME(eth_src) && SAME(eth_dst) && SAME(eth_type) && SAME(vlan_id) && SAME(vlan_pcp) && SAME(ip_tos) &&
           SAME(ip_proto) && SAME(ipv4_src) && SAME(ipv4_dst) && SAME(tp_src) && SAME(tp_dst) &&
           flow.vlan_tagged == (rule.key.vlan_tagged != 0 ? 1 : 0) &&
           flow.vlan_tagged_mask == (rule.mask.vlan_tagged != 0 ? 1 : 0) &&
           flow.in_port_mask == (rule.mask.in_log_port != 0 ? 1 : 0);
#undef SAME
}

bool action_agrees(const flow_record &flow, const kr_acl_rule &rule) {
    switch (rule.trap_action) {
    case KR_ACL_TRAP_ACTION_DISCARD:
        return flow.action == FLOW_ACTION_DROP;
    case KR_ACL_TRAP_ACTION_TRAP:
        return flow.action == FLOW_ACTION_CONTROLLER && rule.trap_id == KR_TRAP_ID_PACKET_IN;
    default:
        break;
    }
    switch (rule.forward_type) {
    case KR_ACL_FORWARD_PORT:
        return flow.action == FLOW_ACTION_OUTPUT;
    case KR_ACL_FORWARD_GROUP:
        return flow.action == FLOW_ACTION_FLOOD ||
               (flow.action == FLOW_ACTION_MC_GROUP && flow.mc_group_id == rule.forward_group_id);
    default:
        return flow.action == FLOW_ACTION_NONE;
    }
}

// VLAN edits of flows are numbered by the client, those of rules are sums of bits.
bool vlan_edit_agrees(const flow_record &flow, const kr_acl_rule &rule) {
    constexpr uint32_t edits[] = {
        KR_ACL_VLAN_EDIT_NONE, KR_ACL_VLAN_EDIT_PUSH_VID,    KR_ACL_VLAN_EDIT_SET_PCP, KR_ACL_VLAN_EDIT_PUSH_VID_PCP,
        KR_ACL_VLAN_EDIT_POP,  KR_ACL_VLAN_EDIT_SET_VID_PCP, KR_ACL_VLAN_EDIT_SET_VID};
    return flow.vlan_action < std::size(edits) && edits[flow.vlan_action] == rule.vlan_edit &&
           flow.vlan_action_vid == rule.vlan_id && flow.vlan_action_pcp == rule.vlan_pcp;
}

void read_back_check(const views &all, const flow_entry &entry, findings *found) {
    const auto rule = all.rules.find(static_cast<uint32_t>(entry.offset));
    const auto note = [&](finding_kind kind) {
        found->push_back({kind, entry.flow_id, static_cast<uint32_t>(entry.offset)});
    };
    flow_record flow{};
    uint32_t count = 1;
    if (kr_sdn_hal_table_entry_get(0, 0, &entry.flow_id, &count, &flow) != KR_SDN_HAL_STATUS_SUCCESS) {
        note(finding_kind::read_back_failed);
    } else if (rule == all.rules.end() || flow.flow_id != entry.flow_id || flow.priority != entry.priority ||
               !match_agrees(flow, rule->second) || !action_agrees(flow, rule->second) ||
               !vlan_edit_agrees(flow, rule->second)) {
        note(finding_kind::read_back_differs);
    }
}

report audit_once(uint32_t acl_id, scope what) {
    report result{};
    views all;
    if (!acl_find(&acl_id) || (what == scope::everything && !places_read(&all)) || !rules_read(acl_id, &all)) {
        return result;
    }
    flows_read(&all);
    result.is_complete = true;
    result.flow_count = static_cast<uint32_t>(all.flows.size());
    result.place_count = static_cast<uint32_t>(all.places.size());
    result.rule_count = static_cast<uint32_t>(all.rules.size());
    if (what == scope::everything) {
        places_check(all, &result.findings);
    } else {
        order_check(all, &result.findings);
    }
    rules_check(all, what, &result.findings);
    for (const auto &[id, flow] : all.flows) {
        if (what == scope::everything) {
            flow_place_check(all, flow, &result.findings);
        }
        flow_check(all, flow, &result.findings);
        read_back_check(all, flow, &result.findings);
    }
    if (acl_flows_db.active_entries != all.flows.size()) {
        result.findings.push_back({finding_kind::count_differs, 0, 0});
    }
    return result;
}

// Waits for the background thread, if it is at work: what it has moved in hardware is in the flows database then.
void background_wait() {
    uint64_t no_flow = 0;
    uint32_t count = 1;
    flow_record unused{};
    (void)!kr_sdn_hal_table_entry_get(0, 0, &no_flow, &count, &unused);
}

} // namespace

report audit_table(uint32_t acl_id) {
    if (acl_flows_db.initialized == 0) {
        return {};
    }
    for (int attempt = 0; attempt < attempt_count; attempt++) {
        const uint64_t moves = block_move_count();
        const report result = audit_once(acl_id, scope::everything);
        if (block_move_count() == moves) {
            return result;
        }
    }
    return {};
}

// A move may begin between waiting and looking; so what is found has to be found twice.
report audit_table_in_service() {
    report last{};
    for (int attempt = 0; acl_flows_db.initialized != 0 && attempt < attempt_count; attempt++) {
        background_wait();
        const uint64_t moves = block_move_count();
        report now = audit_once(0, scope::in_service);
        if (block_move_count() != moves) {
            continue;
        }
        if (!now.is_complete || now.findings.empty() || (last.is_complete && now.findings == last.findings)) {
            return now;
        }
        last = std::move(now);
    }
    return {};
}

const char *text_of(finding_kind kind) {
    constexpr const char *texts[] = {
#define X(name, text) text,
        KR_AUDIT_FINDINGS(X)
#undef X
    };
    return texts[static_cast<size_t>(kind)];
}

std::string to_text(const finding &found) {
    const std::string who = found.flow_id != 0 ? "flow " + std::to_string(found.flow_id) + " " : "";
    return "offset " + std::to_string(found.offset) + ": " + who + text_of(found.kind);
}

} // namespace kr_audit
