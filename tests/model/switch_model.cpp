/*
 * What the switch does for each contract call, and with each frame.
 */
#include "tests/model/switch_model.h"

#include <algorithm>

#include "kr_api.h"

namespace kr_model {

seen_placement platform_answers::take_placement(uint32_t command) {
    KR_MODEL_REQUIRE(!placements.empty(), "the library did not call the placement library");
    seen_placement seen = placements.front();
    placements.pop_front();
    KR_MODEL_REQUIRE(seen.command == command, "the library called the placement library with command " +
                                                  std::to_string(seen.command) + ", not " + std::to_string(command));
    return seen;
}

uint32_t platform_answers::take_id(std::deque<uint32_t> &ids, const char *what) {
    KR_MODEL_REQUIRE(!ids.empty(), std::string("the library did not make ") + what);
    const uint32_t id = ids.front();
    ids.pop_front();
    return id;
}

void platform_answers::require_empty() const {
    KR_MODEL_REQUIRE(placements.empty(), "the library called the placement library once more");
    KR_MODEL_REQUIRE(counter_ids.empty(), "the library made another counter");
    KR_MODEL_REQUIRE(acl_ids.empty(), "the library made another ACL");
    KR_MODEL_REQUIRE(group_ids.empty(), "the library made another group");
}

std::optional<uint32_t> switch_model::fault_due(const char *function) {
    if (planned.function != function) {
        return std::nullopt;
    }
    if (planned.nth > 0) {
        planned.nth--;
        return std::nullopt;
    }
    const uint32_t code = planned.code;
    if (!planned.persistent) {
        planned = {};
    }
    fault_count++;
    return code;
}

// The first line of every contract call.
#define KR_MODEL_CALL(function)                                                                                        \
    if (const auto code = fault_due(#function)) {                                                                      \
        return *code;                                                                                                  \
    }                                                                                                                  \
    static_assert(true)

/* ---- device ---------------------------------------------------------------------------------------------------- */

kr_status switch_model::device_open(uint32_t *handle) {
    KR_MODEL_CALL(kr_api_open);
    *handle = open_handle = next_handle++;
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::device_close(uint32_t *handle) {
    KR_MODEL_CALL(kr_api_close);
    if (*handle == 0 || *handle != open_handle) {
        return KR_STATUS_INVALID_HANDLE;
    }
    *handle = open_handle = 0;
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::port_state_get(uint32_t handle, uint32_t log_port, uint32_t *oper_state) {
    KR_MODEL_CALL(kr_api_port_state_get);
    if (handle == 0 || handle != open_handle) {
        return KR_STATUS_INVALID_HANDLE;
    }
    if (!ports.contains(log_port)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    *oper_state = ports[log_port].is_up ? KR_PORT_OPER_UP : KR_PORT_OPER_DOWN;
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::host_ifc_open(uint32_t handle, int *descriptor) {
    KR_MODEL_CALL(kr_api_host_ifc_open);
    if (handle == 0 || handle != open_handle) {
        return KR_STATUS_INVALID_HANDLE;
    }
    *descriptor = static_cast<int>(descriptors.size());
    descriptors.emplace_back();
    return KR_STATUS_SUCCESS;
}

// A descriptor whose device handle is gone can be closed with any.
kr_status switch_model::host_ifc_close(uint32_t /*handle*/, int descriptor) {
    KR_MODEL_CALL(kr_api_host_ifc_close);
    if (descriptor < 0 || !descriptors[static_cast<size_t>(descriptor)].is_open) {
        return KR_STATUS_INVALID_HANDLE;
    }
    descriptors[static_cast<size_t>(descriptor)] = {.is_open = false, .trap_ids = {}, .queue = {}};
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::trap_set(uint32_t handle, uint32_t command, uint32_t trap_id, int descriptor) {
    constexpr uint32_t trap_id_limit = 1024;
    KR_MODEL_CALL(kr_api_host_ifc_trap_id_register_set);
    if (handle == 0 || handle != open_handle) {
        return KR_STATUS_INVALID_HANDLE;
    }
    if (trap_id >= trap_id_limit) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    if (descriptor < 0 || !descriptors[static_cast<size_t>(descriptor)].is_open) {
        return KR_STATUS_INVALID_HANDLE;
    }
    std::set<uint32_t> &trap_ids = descriptors[static_cast<size_t>(descriptor)].trap_ids;
    if (command == KR_API_CMD_REGISTER) {
        trap_ids.insert(trap_id);
    } else {
        trap_ids.erase(trap_id);
    }
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::packet_send(int descriptor, const bytes &frame, uint32_t log_port) {
    KR_MODEL_CALL(kr_lib_host_ifc_unicast_ctrl_send);
    if (descriptor < 0 || !descriptors[static_cast<size_t>(descriptor)].is_open) {
        return KR_STATUS_INVALID_HANDLE;
    }
    if (frame.size() < 14 || frame.size() > KR_SOFT_MAX_FRAME) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    if (!ports.contains(log_port)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (!ports[log_port].is_up) {
        return KR_STATUS_ERROR;
    }
    ports[log_port].sent.push_back(frame);
    return KR_STATUS_SUCCESS;
}

/* ---- resource manager ------------------------------------------------------------------------------------------ */

kr_status switch_model::rm_handle_check(uint32_t handle) const {
    const auto found = rm_handles.find(handle);
    if (found == rm_handles.end()) {
        return KR_STATUS_INVALID_HANDLE;
    }
    return found->second ? KR_STATUS_SUCCESS : KR_STATUS_NOT_INITIALIZED;
}

#define KR_MODEL_RM_CALL(function)                                                                                     \
    KR_MODEL_CALL(function);                                                                                           \
    if (const kr_status status = rm_handle_check(handle); status != KR_STATUS_SUCCESS) {                               \
        return status;                                                                                                 \
    }                                                                                                                  \
    static_assert(true)

kr_status switch_model::rm_open(uint32_t *handle) {
    KR_MODEL_CALL(kr_acl_rm_api_open);
    *handle = next_rm_handle++;
    rm_handles[*handle] = false;
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::rm_init(uint32_t handle) {
    KR_MODEL_CALL(kr_acl_rm_api_init);
    if (!rm_handles.contains(handle)) {
        return KR_STATUS_INVALID_HANDLE;
    }
    rm_handles[handle] = true;
    return KR_STATUS_SUCCESS;
}

// The last handle takes the counters that no rule names with it.
kr_status switch_model::rm_close(uint32_t *handle) {
    KR_MODEL_CALL(kr_acl_rm_api_close);
    if (rm_handles.erase(*handle) == 0) {
        return KR_STATUS_INVALID_HANDLE;
    }
    *handle = 0;
    if (rm_handles.empty()) {
        std::erase_if(counters, [](const auto &counter) { return counter.second.rule_count == 0; });
    }
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::acl_create(uint32_t handle, uint32_t *acl_id) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_set);
    if (acls.size() == KR_SOFT_MAX_ACLS) {
        return KR_STATUS_NO_RESOURCES;
    }
    *acl_id = platform_answers::take_id(answers.acl_ids, "an ACL");
    KR_MODEL_REQUIRE(*acl_id != 0 && !acls.contains(*acl_id), "an ACL id that is in use");
    acls[*acl_id] = {};
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::acl_destroy(uint32_t handle, uint32_t acl_id) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_set);
    if (!acls.contains(acl_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    for (const auto &[offset, rule] : acls[acl_id].rules) {
        counter_unname(rule.record.counter_id);
    }
    acls.erase(acl_id);
    std::erase_if(bindings, [acl_id](const auto &binding) { return binding.second == acl_id; });
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::bind(uint32_t handle, uint32_t acl_id, uint32_t log_port) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_bind_port_set);
    if (!acls.contains(acl_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    const auto found = bindings.find(log_port);
    if (found != bindings.end()) {
        return found->second == acl_id ? KR_STATUS_SUCCESS : KR_STATUS_RESOURCE_IN_USE;
    }
    if (bindings.size() == KR_SOFT_MAX_BINDINGS) {
        return KR_STATUS_NO_HARDWARE_RESOURCES;
    }
    bindings[log_port] = acl_id;
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::unbind(uint32_t handle, uint32_t acl_id, uint32_t log_port) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_bind_port_set);
    if (!acls.contains(acl_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (const auto found = bindings.find(log_port); found != bindings.end() && found->second == acl_id) {
        bindings.erase(found);
    }
    return KR_STATUS_SUCCESS;
}

void switch_model::counter_unname(uint32_t counter_id) {
    if (counter_id != 0 && --counters.at(counter_id).rule_count == 0) {
        counters.erase(counter_id);
    }
}

kr_status switch_model::rule_set(uint32_t handle, uint32_t acl_id, uint32_t offset, const rule_state &rule) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_rule_set);
    const uint32_t counter_id = rule.record.counter_id;
    if (!acls.contains(acl_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (rule.record.forward_type == KR_ACL_FORWARD_GROUP && !groups.contains(rule.record.forward_group_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    std::map<uint32_t, rule_state> &rules = acls[acl_id].rules;
    if (counter_id != 0) {
        counters.at(counter_id).rule_count++;
    }
    if (const auto replaced = rules.find(offset); replaced != rules.end()) {
        counter_unname(replaced->second.record.counter_id);
    }
    rules[offset] = rule;
    return KR_STATUS_SUCCESS;
}

// Deleting where no rule is succeeds.
kr_status switch_model::rule_delete(uint32_t handle, uint32_t acl_id, uint32_t offset) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_rule_set);
    if (!acls.contains(acl_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    std::map<uint32_t, rule_state> &rules = acls[acl_id].rules;
    if (const auto deleted = rules.find(offset); deleted != rules.end()) {
        counter_unname(deleted->second.record.counter_id);
        rules.erase(deleted);
    }
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::rule_get(uint32_t handle, uint32_t acl_id, uint32_t offset, rule_state **rule) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_rule_get);
    if (!acls.contains(acl_id) || !acls[acl_id].rules.contains(offset)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    *rule = &acls[acl_id].rules[offset];
    return KR_STATUS_SUCCESS;
}

// Nothing is moved when a rule outside the block would be overwritten.
kr_status switch_model::rules_move(uint32_t handle, uint32_t acl_id, uint32_t old_start, uint32_t size,
                                   uint32_t new_start) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_rule_move_block);
    if (!acls.contains(acl_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    std::map<uint32_t, rule_state> &rules = acls[acl_id].rules;
    for (uint32_t target = new_start; target < new_start + size; target++) {
        const bool in_source = target >= old_start && target < old_start + size;
        if (!in_source && rules.contains(target)) {
            return KR_STATUS_RESOURCE_IN_USE;
        }
    }
    std::map<uint32_t, rule_state> moved;
    for (uint32_t i = 0; i < size; i++) {
        if (auto rule = rules.extract(old_start + i); !rule.empty()) {
            rule.key() = new_start + i;
            moved.insert(std::move(rule));
        }
    }
    rules.merge(moved);
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::counter_create(uint32_t handle, uint32_t *counter_id) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_counter_set);
    if (counters.size() == KR_SOFT_MAX_COUNTERS) {
        return KR_STATUS_NO_RESOURCES;
    }
    *counter_id = platform_answers::take_id(answers.counter_ids, "a counter");
    KR_MODEL_REQUIRE(*counter_id != 0 && !counters.contains(*counter_id), "a counter id that is in use");
    counters[*counter_id] = {};
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::counter_get(uint32_t handle, uint32_t counter_id, counter_state *values) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_counter_get);
    if (!counters.contains(counter_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    *values = counters[counter_id];
    return KR_STATUS_SUCCESS;
}

/* ---- groups ---------------------------------------------------------------------------------------------------- */

namespace {
void members_append(std::vector<uint32_t> *members, const std::vector<uint32_t> &log_ports) {
    for (const uint32_t log_port : log_ports) {
        if (std::ranges::find(*members, log_port) == members->end()) {
            members->push_back(log_port);
        }
    }
}
} // namespace

kr_status switch_model::group_create(uint32_t handle, const std::vector<uint32_t> &log_ports, uint32_t *group_id) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_mc_group_set);
    if (groups.size() == KR_SOFT_MAX_GROUPS) {
        return KR_STATUS_NO_RESOURCES;
    }
    *group_id = platform_answers::take_id(answers.group_ids, "a group");
    KR_MODEL_REQUIRE(*group_id != 0 && !groups.contains(*group_id), "a group id that is in use");
    members_append(&groups[*group_id], log_ports);
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::group_destroy(uint32_t handle, uint32_t group_id) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_mc_group_set);
    return groups.erase(group_id) != 0 ? KR_STATUS_SUCCESS : KR_STATUS_ENTRY_NOT_FOUND;
}

kr_status switch_model::group_add(uint32_t handle, uint32_t group_id, const std::vector<uint32_t> &log_ports) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_mc_group_set);
    if (!groups.contains(group_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    std::vector<uint32_t> members = groups[group_id];
    members_append(&members, log_ports);
    if (members.size() > KR_SOFT_MAX_PORTS) {
        return KR_STATUS_NO_RESOURCES;
    }
    groups[group_id] = members;
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::group_remove(uint32_t handle, uint32_t group_id, const std::vector<uint32_t> &log_ports) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_mc_group_set);
    if (!groups.contains(group_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    std::erase_if(groups[group_id],
                  [&](uint32_t member) { return std::ranges::find(log_ports, member) != log_ports.end(); });
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::group_get(uint32_t handle, uint32_t group_id, uint32_t room, std::vector<uint32_t> *members) {
    KR_MODEL_RM_CALL(kr_acl_rm_api_acl_mc_group_get);
    if (!groups.contains(group_id)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    *members = groups[group_id];
    return members->size() > room ? KR_STATUS_NO_RESOURCES : KR_STATUS_SUCCESS;
}

/* ---- placement tables ------------------------------------------------------------------------------------------ */

placement_table *switch_model::placement_of(uint32_t handle) {
    return handle == 0 ? nullptr : &placement_tables[handle - 1];
}

kr_utils_status switch_model::psort_init(uint32_t *handle) {
    KR_MODEL_CALL(psort_init);
    placement_tables.emplace_back();
    *handle = static_cast<uint32_t>(placement_tables.size());
    return KR_UTILS_STATUS_SUCCESS;
}

kr_utils_status switch_model::psort_clear(uint32_t handle) {
    KR_MODEL_CALL(psort_clear_table);
    placement_table *const table = placement_of(handle);
    if (table == nullptr) {
        return KR_UTILS_STATUS_INVALID_HANDLE;
    }
    *table = {};
    return KR_UTILS_STATUS_SUCCESS;
}

kr_utils_status switch_model::psort_delete(uint32_t handle, uint64_t key) {
    const seen_placement seen = answers.take_placement(PSORT_CMD_DELETE);
    KR_MODEL_REQUIRE(seen.key == key && seen.shifts.empty(),
                     "another flow was removed from its place, or one was shifted");
    const auto answer = [&]() -> kr_utils_status {
        KR_MODEL_CALL(psort_entry_set);
        placement_table *const table = placement_of(handle);
        if (table == nullptr) {
            return KR_UTILS_STATUS_INVALID_HANDLE;
        }
        const auto found = table->index_of.find(key);
        if (found == table->index_of.end()) {
            return KR_UTILS_STATUS_ENTRY_NOT_FOUND;
        }
        table->by_index.erase(found->second);
        table->index_of.erase(found);
        return KR_UTILS_STATUS_SUCCESS;
    }();
    KR_MODEL_REQUIRE(seen.status == answer, "the placement library answered " + std::to_string(seen.status) +
                                                " to a delete, not " + std::to_string(answer));
    return answer;
}

/* ---- ports and frames ------------------------------------------------------------------------------------------ */

kr_status switch_model::port_add(uint32_t log_port) {
    if (ports.contains(log_port)) {
        return KR_STATUS_ENTRY_ALREADY_EXISTS;
    }
    if (ports.size() == KR_SOFT_MAX_PORTS) {
        return KR_STATUS_NO_RESOURCES;
    }
    ports[log_port] = {};
    return KR_STATUS_SUCCESS;
}

kr_status switch_model::port_remove(uint32_t log_port) {
    return ports.erase(log_port) != 0 ? KR_STATUS_SUCCESS : KR_STATUS_ENTRY_NOT_FOUND;
}

kr_status switch_model::link_set(uint32_t log_port, bool up) {
    if (!ports.contains(log_port)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (ports[log_port].is_up != up) {
        ports[log_port].is_up = up;
        trap(KR_TRAP_ID_PORT_UP_DOWN, log_port, up ? KR_PORT_OPER_UP : KR_PORT_OPER_DOWN, {});
    }
    return KR_STATUS_SUCCESS;
}

// To every descriptor that is registered; their number. One whose queue is full loses the item.
uint32_t switch_model::trap(uint32_t trap_id, uint32_t log_port, uint32_t oper_state, const bytes &frame) {
    uint32_t count = 0;
    for (descriptor_state &descriptor : descriptors) {
        if (!descriptor.trap_ids.contains(trap_id)) {
            continue;
        }
        count++;
        if (descriptor.queue.size() == KR_SOFT_CHANNEL_QUEUE) {
            drops[KR_SOFT_DROP_CHANNEL_FULL]++;
        } else {
            descriptor.queue.push_back({trap_id, log_port, oper_state, frame});
        }
    }
    return count;
}

void switch_model::leave(uint32_t log_port, const bytes &frame) {
    if (!ports.contains(log_port)) {
        drops[KR_SOFT_DROP_NO_EGRESS_PORT]++;
    } else if (!ports[log_port].is_up) {
        drops[KR_SOFT_DROP_EGRESS_DOWN]++;
    } else if (frame.size() > KR_SOFT_MAX_FRAME) {
        drops[KR_SOFT_DROP_EGRESS_TOO_LONG]++;
    } else {
        ports[log_port].sent.push_back(frame);
    }
}

void switch_model::action_apply(const kr_acl_rule &rule, uint32_t log_port, const bytes &frame) {
    if (rule.forward_type == KR_ACL_FORWARD_PORT) {
        leave(rule.forward_log_port, frame);
        return;
    }
    if (rule.forward_type != KR_ACL_FORWARD_GROUP) {
        drops[KR_SOFT_DROP_RULE_NO_TARGET]++;
        return;
    }
    const auto group = groups.find(rule.forward_group_id);
    if (group == groups.end()) {
        drops[KR_SOFT_DROP_NO_GROUP]++;
        return;
    }
    uint32_t copies = 0;
    for (const uint32_t member : group->second) {
        if (member != log_port) {
            leave(member, frame);
            copies++;
        }
    }
    drops[KR_SOFT_DROP_EMPTY_GROUP] += copies == 0 ? 1 : 0;
}

kr_status switch_model::frame_enter(const frame_description &frame) {
    const bytes data = frame_bytes(frame);
    if (data.size() > KR_SOFT_MAX_FRAME) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    if (!ports.contains(frame.log_port)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (!ports[frame.log_port].is_up) {
        drops[KR_SOFT_DROP_INGRESS_DOWN]++;
        return KR_STATUS_SUCCESS;
    }
    const uint32_t control_trap = frame_control_trap(frame);
    if (control_trap != 0 && trap(control_trap, frame.log_port, 0, data) > 0) {
        return KR_STATUS_SUCCESS;
    }
    const auto binding = bindings.find(frame.log_port);
    if (binding != bindings.end()) {
        for (auto &[offset, rule] : acls.at(binding->second).rules) {
            if (!frame_matches(frame, rule.flow, rule.record.key.in_log_port)) {
                continue;
            }
            rule.is_active = true;
            rule.packets++;
            rule.bytes += data.size();
            if (rule.record.counter_id != 0) {
                counters.at(rule.record.counter_id).packets++;
                counters.at(rule.record.counter_id).bytes += data.size();
            }
            if (rule.flow.action == FLOW_ACTION_DROP) {
                drops[KR_SOFT_DROP_RULE_DISCARD]++;
            } else if (rule.flow.action == FLOW_ACTION_CONTROLLER) {
                drops[KR_SOFT_DROP_NO_TRAP_CHANNEL] += trap(KR_TRAP_ID_PACKET_IN, frame.log_port, 0, data) == 0 ? 1 : 0;
            } else {
                action_apply(rule.record, frame.log_port, frame_edited(data, rule.flow));
            }
            return KR_STATUS_SUCCESS;
        }
    }
    drops[KR_SOFT_DROP_NO_MATCH] += trap(KR_TRAP_ID_PACKET_MISS, frame.log_port, 0, data) == 0 ? 1 : 0;
    return KR_STATUS_SUCCESS;
}

kr_soft_usage switch_model::usage() const {
    kr_soft_usage sum{};
    for (const auto &[id, acl] : acls) {
        sum.rule_count += static_cast<uint32_t>(acl.rules.size());
    }
    sum.acl_count = static_cast<uint32_t>(acls.size());
    sum.counter_count = static_cast<uint32_t>(counters.size());
    sum.group_count = static_cast<uint32_t>(groups.size());
    sum.binding_count = static_cast<uint32_t>(bindings.size());
    sum.port_count = static_cast<uint32_t>(ports.size());
    sum.descriptor_count =
        static_cast<uint32_t>(std::ranges::count_if(descriptors, [](const descriptor_state &d) { return d.is_open; }));
    sum.device_handle_count = open_handle != 0 ? 1 : 0;
    sum.acl_rm_handle_count = static_cast<uint32_t>(rm_handles.size());
    return sum;
}

} // namespace kr_model
