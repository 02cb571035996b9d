/*
 * The model's flow table: batches, the flows database, placement, rules, counters, activity, and multicast groups.
 */
#include <algorithm>
#include <cstring>

#include "tests/model/library_model.h"

namespace kr_model {

namespace {

constexpr status SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr status ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr status NOT_FOUND = KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;

/* clang-format off */
//                                          flow: none  1   2  3   4   5   6
constexpr uint32_t vlan_edits[] = {               0,   24,  4, 28, 16, 12, 8};
//                                          library: 0  1  2  3  4  5   6  7  8  9  10  11
constexpr uint32_t to_utils_table[] =               {0, 1, 2, 4, 5, 14, 6, 7, 8, 9, 10, 18};
//                                          utilities: 0  1  2  3  4  5  6  7  8  9  10  11 12 13 14 15 16 17 18
constexpr uint32_t from_utils_table[] =               {0, 1, 2, 1, 3, 4, 6, 7, 8, 9, 10, 1, 1, 1, 5, 1, 1, 1, 11};
/* clang-format on */

// The rule of a flow, without its forwarding target and its counter.
kr_acl_rule rule_of(const flow_record &flow, uint32_t in_log_port) {
    kr_acl_rule rule{};
    rule.valid = 1;
    rule.key_type = 3;
    rule.mask_type = 3;
    rule.key.in_log_port = in_log_port;
    rule.mask.in_log_port = flow.in_port_mask != 0 ? 0xFFFFFFFF : 0;
    memcpy(rule.key.eth_dst, flow.eth_dst, 6);
    memcpy(rule.mask.eth_dst, flow.eth_dst_mask, 6);
    memcpy(rule.key.eth_src, flow.eth_src, 6);
    memcpy(rule.mask.eth_src, flow.eth_src_mask, 6);
    rule.key.eth_type = flow.eth_type;
    rule.mask.eth_type = flow.eth_type_mask;
    rule.key.vlan_pcp = flow.vlan_pcp;
    rule.mask.vlan_pcp = flow.vlan_pcp_mask;
    rule.key.vlan_id = flow.vlan_id;
    rule.mask.vlan_id = flow.vlan_id_mask;
    rule.key.vlan_tagged = flow.vlan_tagged != 0 ? 2 : 0;
    rule.mask.vlan_tagged = flow.vlan_tagged_mask != 0 ? 255 : 0;
    rule.key.ipv4_dst = flow.ipv4_dst;
    rule.mask.ipv4_dst = flow.ipv4_dst_mask;
    rule.key.ipv4_src = flow.ipv4_src;
    rule.mask.ipv4_src = flow.ipv4_src_mask;
    rule.key.tp_src = flow.tp_src;
    rule.mask.tp_src = flow.tp_src_mask;
    rule.key.tp_dst = flow.tp_dst;
    rule.mask.tp_dst = flow.tp_dst_mask;
    rule.key.ip_proto = flow.ip_proto;
    rule.mask.ip_proto = flow.ip_proto_mask;
    rule.key.ip_tos = flow.ip_tos;
    rule.mask.ip_tos = flow.ip_tos_mask;
    if (flow.action == FLOW_ACTION_DROP) {
        rule.trap_action = 4;
    } else if (flow.action == FLOW_ACTION_CONTROLLER) {
        rule.trap_action = 3;
        rule.trap_mode = 3;
        rule.trap_id = 464;
    }
    rule.vlan_edit = flow.vlan_action < std::size(vlan_edits) ? vlan_edits[flow.vlan_action] : 0;
    rule.vlan_id = flow.vlan_action_vid;
    rule.vlan_pcp = flow.vlan_action_pcp;
    rule.action_valid = 1;
    rule.action_word_312 = 0xFFFFFFFF;
    rule.action_word_328 = 0xFFFFFFFF;
    return rule;
}

} // namespace

status from_utils(kr_utils_status utils) {
    return static_cast<status>(utils < std::size(from_utils_table) ? from_utils_table[utils] : 1);
}

kr_utils_status to_utils(status result) {
    return to_utils_table[result];
}

/* ---- add and delete -------------------------------------------------------------------------------------------- */

status library_model::entry_set(uint32_t command, uint32_t table, std::span<flow_record> flows) {
    if (table != 0) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (!tables_initialized_) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    if (command != KR_SDN_HAL_CMD_ADD && command != KR_SDN_HAL_CMD_DELETE) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    if (hw.fault_due("cl_malloc")) {
        return ERROR;
    }
    // What the table holds already is read first, and the priority of each of these flows goes to the caller.
    for (flow_record &flow : flows) {
        if (!db.initialized) {
            return ERROR;
        }
        if (const auto known = db.flows.find(flow.flow_id); known != db.flows.end()) {
            flow.priority = known->second.priority;
        }
    }
    return command == KR_SDN_HAL_CMD_ADD ? flows_add(flows) : flows_delete(flows);
}

// All flows get their places, then their rules, then the table knows them. The first failure ends it; nothing is taken
// back.
status library_model::flows_add(std::span<flow_record> flows) {
    for (const flow_record &flow : flows) {
        if (db.flows.contains(flow.flow_id)) {
            return KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS;
        }
    }
    if (!flows.empty() && flows[0].action == FLOW_ACTION_OUTPUT_ALL) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    for (const flow_record &flow : flows) {
        const kr_utils_status placed =
            hw.psort_add(placement_handle, flow.flow_id, flow.priority,
                         [this](uint32_t from, uint32_t to, uint32_t n) { return to_utils(shift(from, to, n)); });
        if (placed != KR_UTILS_STATUS_SUCCESS) {
            return from_utils(placed);
        }
    }
    std::vector<uint32_t> counter_ids(flows.size());
    for (size_t i = 0; i < flows.size(); i++) {
        if (const status result = flow_install(flows[i], &counter_ids[i]); result != SUCCESS) {
            return result;
        }
    }
    for (size_t i = 0; i < flows.size(); i++) {
        if (hw.fault_due("cl_qpool_get") || !db.has_pool || db.flows.size() == table_size) {
            return KR_SDN_HAL_STATUS_NO_RESOURCES;
        }
        const uint32_t offset = hw.placement_of(placement_handle)->index_of.at(flows[i].flow_id);
        db.flows[flows[i].flow_id] = {flows[i].priority, offset, acl_id, counter_ids[i]};
        db.slots[offset] = flows[i].flow_id;
    }
    return SUCCESS;
}

// The counter is bound before the output port is looked up, and stays bound when that fails.
status library_model::flow_install(const flow_record &flow, uint32_t *counter_id) {
    uint32_t in_log_port = 0;
    if (flow.in_port_mask != 0) {
        const port_entry *const in_port = port_by_of_port(flow.in_port);
        if (in_port == nullptr) {
            return NOT_FOUND;
        }
        in_log_port = in_port->log_port;
    }
    rule_state rule{.record = rule_of(flow, in_log_port), .flow = flow};
    if (counters_used < counters_max && hw.counter_create(rm_handle_, &rule.record.counter_id) == KR_STATUS_SUCCESS) {
        counters_used++;
    }
    *counter_id = rule.record.counter_id;
    switch (flow.action) {
    case FLOW_ACTION_OUTPUT: {
        const port_entry *const out_port = port_by_of_port(flow.out_port);
        if (out_port == nullptr) {
            return NOT_FOUND;
        }
        rule.record.forward_type = 1;
        rule.record.forward_log_port = out_port->log_port;
        break;
    }
    case FLOW_ACTION_FLOOD:
        rule.record.forward_type = 2;
        rule.record.forward_group_id = flood_group_id;
        break;
    case FLOW_ACTION_MC_GROUP:
        rule.record.forward_type = 2;
        rule.record.forward_group_id = flow.mc_group_id;
        break;
    default:
        break;
    }
    const uint32_t offset = hw.placement_of(placement_handle)->index_of.at(flow.flow_id);
    rule.record.set_offset = offset;
    const kr_status written = hw.rule_set(rm_handle_, acl_id, offset, rule);
    if (written != KR_STATUS_SUCCESS) {
        return written == KR_STATUS_NO_RESOURCES ? KR_SDN_HAL_STATUS_NO_RESOURCES : ERROR;
    }
    return SUCCESS;
}

// Flows that the table does not know are passed over. The flows database is told when hardware is through with all.
status library_model::flows_delete(std::span<flow_record> flows) {
    std::vector<std::pair<uint64_t, flow_entry_state>> known;
    for (const flow_record &flow : flows) {
        if (const auto entry = db.flows.find(flow.flow_id); entry != db.flows.end()) {
            known.emplace_back(*entry);
        }
    }
    for (const auto &[id, entry] : known) {
        if (hw.rule_delete(rm_handle_, entry.region, entry.offset) != KR_STATUS_SUCCESS) {
            return ERROR;
        }
        if (entry.counter_id != 0 && counters_used > 0) {
            counters_used--;
        }
        if (const status result = from_utils(hw.psort_delete(placement_handle, id)); result != SUCCESS) {
            return result;
        }
    }
    for (const auto &[id, entry] : known) {
        db.slots.erase(entry.offset);
        if (db.flows.erase(id) == 0) {
            return NOT_FOUND;
        }
    }
    return SUCCESS;
}

/* ---- shifts ---------------------------------------------------------------------------------------------------- */

// Hardware first; it stays moved when the flows database cannot follow.
status library_model::shift(uint32_t old_index, uint32_t new_index, uint32_t size) {
    if (hw.rules_move(rm_handle_, acl_id, old_index, size, new_index) != KR_STATUS_SUCCESS) {
        return ERROR;
    }
    return db_move(old_index, new_index, size);
}

// As memmove does; free slots are passed over. Ends at the first flow that would land on another one.
status library_model::db_move(uint32_t from, uint32_t to, uint32_t count) {
    if (!db.initialized) {
        return ERROR;
    }
    for (uint32_t step = 0; step < count && from != to; step++) {
        const uint32_t index = from < to ? count - 1 - step : step;
        if (db.slots.contains(to + index)) {
            return ERROR;
        }
        const auto slot = db.slots.find(from + index);
        if (slot == db.slots.end()) {
            continue;
        }
        const uint64_t id = slot->second;
        const auto entry = db.flows.find(id);
        if (entry == db.flows.end()) {
            return ERROR;
        }
        entry->second.offset = to + index;
        db.slots.erase(slot);
        db.slots[to + index] = id;
    }
    return SUCCESS;
}

void library_model::background_step() {
    hw.psort_work(placement_handle,
                  [this](uint32_t from, uint32_t to, uint32_t n) { return to_utils(shift(from, to, n)); });
}

/* ---- reading --------------------------------------------------------------------------------------------------- */

status library_model::entry_get(uint32_t table, uint64_t flow_start, std::span<const uint64_t> ids,
                                std::span<flow_record> flows) {
    if (flow_start != 0) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    if (table != 0) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (ids.empty()) {
        return SUCCESS;
    }
    memset(flows.data(), 0, flows.size_bytes()); // padding included
    if (!tables_initialized_) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    if (hw.fault_due("cl_malloc")) {
        return ERROR;
    }
    for (size_t i = 0; i < ids.size(); i++) {
        flows[i].flow_id = ids[i];
    }
    if (!db.initialized) {
        return ERROR;
    }
    bool all_known = true;
    for (flow_record &flow : flows) {
        const auto known = db.flows.find(flow.flow_id);
        all_known = all_known && known != db.flows.end();
        flow.priority = known != db.flows.end() ? known->second.priority : 0;
    }
    if (!all_known) {
        return NOT_FOUND;
    }
    for (flow_record &flow : flows) {
        if (const status result = flow_read(&flow, db.flows[flow.flow_id]); result != SUCCESS) {
            return result;
        }
    }
    return SUCCESS;
}

// Rebuilt from the rule: target, then trap and VLAN edit, then the match. A port that is gone ends it there.
status library_model::flow_read(flow_record *flow, const flow_entry_state &entry) {
    rule_state *found = nullptr;
    if (hw.rule_get(rm_handle_, acl_id, entry.offset, &found) != KR_STATUS_SUCCESS) {
        return ERROR;
    }
    const kr_acl_rule &rule = found->record;
    if (rule.forward_type == 1) {
        const port_entry *const out_port = port_by_log_port(rule.forward_log_port);
        if (out_port == nullptr) {
            return NOT_FOUND;
        }
        flow->action = FLOW_ACTION_OUTPUT;
        flow->out_port = out_port->of_port;
    } else if (rule.forward_type == 2 && rule.forward_group_id == flood_group_id) {
        flow->action = FLOW_ACTION_FLOOD;
    } else if (rule.forward_type == 2) {
        flow->action = FLOW_ACTION_MC_GROUP;
        flow->mc_group_id = rule.forward_group_id;
    }
    if (rule.trap_action == 4) {
        flow->action = FLOW_ACTION_DROP;
    } else if (rule.trap_action == 3) {
        flow->action = FLOW_ACTION_CONTROLLER;
    }
    const auto edit = std::ranges::find(vlan_edits, rule.vlan_edit);
    flow->vlan_action = static_cast<uint32_t>(edit - std::begin(vlan_edits));
    flow->vlan_action_vid = rule.vlan_id;
    flow->vlan_action_pcp = rule.vlan_pcp;

    if (rule.mask.in_log_port != 0) {
        const port_entry *const in_port = port_by_log_port(rule.key.in_log_port);
        if (in_port == nullptr) {
            return NOT_FOUND;
        }
        flow->in_port = in_port->of_port;
        flow->in_port_mask = 1;
    }
    const flow_record &made_from = found->flow; // the match comes back as it was given, booleans as 0 or 1
    memcpy(flow->eth_src, made_from.eth_src, 6);
    memcpy(flow->eth_src_mask, made_from.eth_src_mask, 6);
    memcpy(flow->eth_dst, made_from.eth_dst, 6);
    memcpy(flow->eth_dst_mask, made_from.eth_dst_mask, 6);
    flow->vlan_tagged = made_from.vlan_tagged != 0;
    flow->vlan_tagged_mask = made_from.vlan_tagged_mask != 0;
    flow->vlan_id = made_from.vlan_id;
    flow->vlan_id_mask = made_from.vlan_id_mask;
    flow->vlan_pcp = made_from.vlan_pcp;
    flow->vlan_pcp_mask = made_from.vlan_pcp_mask;
    flow->eth_type = made_from.eth_type;
    flow->eth_type_mask = made_from.eth_type_mask;
    flow->ip_tos = made_from.ip_tos;
    flow->ip_tos_mask = made_from.ip_tos_mask;
    flow->ip_proto = made_from.ip_proto;
    flow->ip_proto_mask = made_from.ip_proto_mask;
    flow->ipv4_src = made_from.ipv4_src;
    flow->ipv4_src_mask = made_from.ipv4_src_mask;
    flow->ipv4_dst = made_from.ipv4_dst;
    flow->ipv4_dst_mask = made_from.ipv4_dst_mask;
    flow->tp_src = made_from.tp_src;
    flow->tp_src_mask = made_from.tp_src_mask;
    flow->tp_dst = made_from.tp_dst;
    flow->tp_dst_mask = made_from.tp_dst_mask;
    return SUCCESS;
}

// Reading the activity clears it.
status library_model::activity_get(uint32_t table, std::span<const uint64_t> ids, std::span<uint32_t> activities) {
    if (table != 0 || ids.empty()) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (!tables_initialized_) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    if (!db.initialized) {
        return ERROR;
    }
    for (size_t i = 0; i < ids.size(); i++) {
        const auto known = db.flows.find(ids[i]);
        if (known == db.flows.end()) {
            activities[i] = FLOW_ACTIVITY_UNKNOWN_FLOW;
            continue;
        }
        rule_state *rule = nullptr;
        if (hw.rule_get(rm_handle_, known->second.region, known->second.offset, &rule) != KR_STATUS_SUCCESS) {
            return ERROR;
        }
        activities[i] = rule->is_active ? FLOW_ACTIVITY_HIT : FLOW_ACTIVITY_IDLE;
        rule->is_active = false;
    }
    return SUCCESS;
}

// An unknown flow ends it without being a failure; a flow without a counter has counted nothing.
status library_model::stats_get(uint32_t table, std::span<const uint64_t> ids, std::span<flow_stats> stats) {
    if (table != 0) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (ids.empty()) {
        return SUCCESS;
    }
    if (!tables_initialized_) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    for (flow_stats &one : stats) {
        one = {};
    }
    if (!db.initialized) {
        return ERROR;
    }
    for (size_t i = 0; i < ids.size(); i++) {
        const auto known = db.flows.find(ids[i]);
        if (known == db.flows.end()) {
            return SUCCESS;
        }
        if (known->second.counter_id == 0) {
            continue;
        }
        counter_state values;
        if (hw.counter_get(rm_handle_, known->second.counter_id, &values) != KR_STATUS_SUCCESS) {
            return ERROR;
        }
        stats[i] = {.count_first = values.packets, .count_second = values.bytes};
    }
    return SUCCESS;
}

// In any stage once the table was ever there.
status library_model::table_stat_get(uint32_t table, table_stats *stats) const {
    if (table != 0) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (!tables_ever_) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    *stats = {.max_entries = table_size, .reserved = {}};
    return SUCCESS;
}

status library_model::table_capabilities_get(uint32_t table) const {
    if (table != 0) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    return tables_initialized_ ? SUCCESS : KR_SDN_HAL_STATUS_NOT_INITIALIZED;
}

/* ---- groups ---------------------------------------------------------------------------------------------------- */

status library_model::of_ports_translate(std::span<const uint32_t> of_ports, std::vector<uint32_t> *log_ports) const {
    for (const uint32_t of_port : of_ports) {
        const port_entry *const port = port_by_of_port(of_port);
        if (port == nullptr) {
            return NOT_FOUND;
        }
        log_ports->push_back(port->log_port);
    }
    return SUCCESS;
}

// An edit says that it was understood, not that it was carried out.
status library_model::group_set(uint32_t command, std::span<const uint32_t> of_ports, uint32_t *group_id) {
    if (of_ports.size() > KR_SDN_HAL_GROUP_MAX_PORTS) {
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    const bool is_edit = command == KR_SDN_HAL_GROUP_ADD_PORTS || command == KR_SDN_HAL_GROUP_REMOVE_PORTS;
    if (!is_edit && command != KR_SDN_HAL_GROUP_CREATE && command != KR_SDN_HAL_GROUP_DELETE) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    if (!tables_initialized_) {
        return is_edit ? SUCCESS : ERROR;
    }
    if (command == KR_SDN_HAL_GROUP_DELETE) {
        if (*group_id == flood_group_id) {
            return NOT_FOUND;
        }
        return hw.group_destroy(rm_handle_, *group_id) == KR_STATUS_SUCCESS ? SUCCESS : ERROR;
    }
    if (is_edit && *group_id == flood_group_id) {
        return SUCCESS;
    }
    std::vector<uint32_t> log_ports;
    if (const status result = of_ports_translate(of_ports, &log_ports); result != SUCCESS) {
        return is_edit ? SUCCESS : result;
    }
    if (command == KR_SDN_HAL_GROUP_CREATE) {
        return hw.group_create(rm_handle_, log_ports, group_id) == KR_STATUS_SUCCESS ? SUCCESS : ERROR;
    }
    (void)(command == KR_SDN_HAL_GROUP_ADD_PORTS ? hw.group_add(rm_handle_, *group_id, log_ports)
                                                 : hw.group_remove(rm_handle_, *group_id, log_ports));
    return SUCCESS;
}

status library_model::group_get(uint32_t group_id, uint32_t *count, std::vector<uint32_t> *of_ports) {
    of_ports->clear();
    if (*count == 0 || *count > KR_SDN_HAL_GROUP_MAX_PORTS) {
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    if (!tables_initialized_) {
        return ERROR;
    }
    if (group_id == flood_group_id) {
        return NOT_FOUND;
    }
    std::vector<uint32_t> members;
    const kr_status read = hw.group_get(rm_handle_, group_id, *count, &members);
    if (read == KR_STATUS_SUCCESS || (read == KR_STATUS_NO_RESOURCES && !members.empty())) {
        *count = static_cast<uint32_t>(members.size());
    }
    if (read != KR_STATUS_SUCCESS) {
        return read == KR_STATUS_ENTRY_NOT_FOUND ? NOT_FOUND : ERROR;
    }
    for (const uint32_t member : members) {
        const port_entry *const port = port_by_log_port(member);
        if (port == nullptr) {
            return NOT_FOUND;
        }
        of_ports->push_back(port->of_port);
    }
    return SUCCESS;
}

} // namespace kr_model
