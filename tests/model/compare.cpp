/*
 * The state that can be seen from outside, library and switch against the model. Cheap comparisons follow every step,
 * and so does the audit, which reads every flow back; the tables are compared when a step may have changed them.
 */
#include <algorithm>
#include <cstring>

#include "core/events_db.h"
#include "kr_soft.h"
#include "table_audit.h"
#include "tables/tables_acl_impl.h"
#include "tests/model/driver.h"

namespace kr_model {

namespace {

bool touches_table(op what) {
    switch (what) {
    case op::connector_start:
    case op::connector_stop:
    case op::frame:
    case op::background:
    case op::flows_add:
    case op::flows_delete:
    case op::activity_get:
        return true;
    default:
        return false;
    }
}

bool sends_frames(op what) {
    return what == op::frame || what == op::packet_send;
}

} // namespace

void driver::compare_after(const step &s) {
    compare_usage();
    compare_registry();
    compare_channels();
    if (sends_frames(s.what)) {
        compare_sent_frames();
    }
    if (s.what == op::frame || s.what == op::link_set) {
        compare_drops();
    }
    if (touches_table(s.what)) {
        compare_rules();
        compare_places();
        compare_flows_db();
    }
    compare_audit();
}

void driver::compare_all() {
    compare_usage();
    compare_registry();
    compare_channels();
    compare_sent_frames();
    compare_drops();
    compare_rules();
    compare_places();
    compare_flows_db();
    compare_audit();
}

void driver::compare_usage() {
    kr_soft_usage usage;
    kr_soft_usage_get(&usage);
    const kr_soft_usage expected = model_.hw.usage();
#define SAME(field)                                                                                                    \
    KR_MODEL_REQUIRE(usage.field == expected.field,                                                                    \
                     #field " is " + std::to_string(usage.field) + ", not " + std::to_string(expected.field))
    SAME(acl_count);
    SAME(rule_count);
    SAME(counter_count);
    SAME(group_count);
    SAME(binding_count);
    SAME(port_count);
    SAME(descriptor_count);
    SAME(device_handle_count);
    SAME(acl_rm_handle_count);
#undef SAME
}

// Nobody else changes the registry now: no lock.
void driver::compare_registry() KR_NO_THREAD_SAFETY_ANALYSIS {
    for (uint32_t event = 0; event < KR_SDN_HAL_EVENT_TYPE_COUNT; event++) {
        for (uint32_t slot = 0; slot < KR_SDN_HAL_HANDLES_PER_EVENT; slot++) {
            const int channel = model_.registry[event][slot];
            const srvc_handle *const expected = channel >= 0 ? &handles_[channel] : nullptr;
            KR_MODEL_REQUIRE(events_db.handles[event][slot] == expected,
                             "slot " + std::to_string(slot) + " of event " + std::to_string(event) + " differs");
        }
    }
}

// What the client's handles say of themselves.
void driver::compare_channels() {
    for (uint32_t i = 0; i < channel_count; i++) {
        const channel_state &expected = model_.channels[i];
        KR_MODEL_REQUIRE(handles_[i].is_open == (expected.is_open ? 1 : 0) &&
                             handles_[i].sdk_fd_open == (expected.has_sdk_fd ? 1 : 0),
                         "channel " + std::to_string(i) + " is not as open as it should be");
    }
}

void driver::compare_sent_frames() {
    bytes frame(KR_SOFT_MAX_FRAME + 8);
    for (auto &[log_port, port] : model_.hw.ports) {
        for (;;) {
            auto size = static_cast<uint32_t>(frame.size());
            const bool has_frame = kr_soft_port_read(log_port, frame.data(), &size, 0) == KR_STATUS_SUCCESS;
            KR_MODEL_REQUIRE(has_frame == !port.sent.empty(),
                             "port " + std::to_string(log_port) +
                                 (has_frame ? " sent a frame too many" : " did not send a frame"));
            if (!has_frame) {
                break;
            }
            KR_MODEL_REQUIRE(
                std::equal(port.sent.front().begin(), port.sent.front().end(), frame.begin(), frame.begin() + size),
                "port " + std::to_string(log_port) + " sent another frame");
            port.sent.pop_front();
        }
    }
}

void driver::compare_drops() {
    for (uint32_t i = 0; i < KR_SOFT_DROP_REASON_COUNT; i++) {
        const auto reason = static_cast<kr_soft_drop_reason>(i);
        KR_MODEL_REQUIRE(kr_soft_drop_count(reason) == model_.hw.drops[i],
                         "dropped " + std::to_string(kr_soft_drop_count(reason)) + " frames, not " +
                             std::to_string(model_.hw.drops[i]) + ": " + kr_soft_drop_reason_name(reason));
    }
}

// Every rule of every ACL, byte for byte, with its hits.
void driver::compare_rules() {
    static std::vector<kr_soft_rule_state> states(KR_SOFT_MAX_RULES);
    for (const auto &[id, acl] : model_.hw.acls) {
        auto count = static_cast<uint32_t>(states.size());
        KR_MODEL_REQUIRE(kr_soft_rules_get(id, states.data(), &count) == KR_STATUS_SUCCESS,
                         "no ACL " + std::to_string(id));
        KR_MODEL_REQUIRE(count == acl.rules.size(), "ACL " + std::to_string(id) + " has another number of rules");
        uint32_t i = 0;
        for (const auto &[offset, rule] : acl.rules) {
            const kr_soft_rule_state &state = states[i++];
            const auto where = [at = offset] { return "the rule at offset " + std::to_string(at); };
            kr_acl_rule record = rule.record;
            record.set_offset = offset;
            KR_MODEL_REQUIRE(state.rule.set_offset == offset,
                             where() + " is at " + std::to_string(state.rule.set_offset));
            KR_MODEL_REQUIRE(memcmp(&state.rule, &record, sizeof record) == 0, where() + " differs");
            KR_MODEL_REQUIRE((state.activity != 0) == rule.is_active, where() + " has another activity");
            KR_MODEL_REQUIRE(state.hit_packets == rule.packets && state.hit_bytes == rule.bytes,
                             where() + " has other hits");
        }
    }
}

void driver::compare_places() {
    static std::vector<psort_entry> entries(KR_SOFT_MAX_RULES);
    const placement_table *const table = model_.hw.placement_of(model_.placement_handle);
    auto count = static_cast<uint32_t>(entries.size());
    const kr_status result = kr_soft_psort_entries_get(acl_psort_handle, entries.data(), &count);
    if (table == nullptr) {
        KR_MODEL_REQUIRE(result == KR_STATUS_INVALID_HANDLE, "there is a placement table");
        return;
    }
    KR_MODEL_REQUIRE(result == KR_STATUS_SUCCESS && count == table->by_index.size(), "another number of places");
    uint32_t i = 0;
    for (const auto &[index, entry] : table->by_index) {
        KR_MODEL_REQUIRE(entries[i].index == index && entries[i].key == entry.key &&
                             entries[i].priority == entry.priority,
                         "the place at index " + std::to_string(index) + " differs");
        i++;
    }
}

void driver::compare_flows_db() {
    KR_MODEL_REQUIRE((acl_flows_db.initialized == 1) == model_.db.initialized,
                     "the flows database is in another stage");
    if (!model_.db.initialized) {
        return;
    }
    KR_MODEL_REQUIRE(acl_flows_db.active_entries == model_.db.flows.size(), "the flows database counts otherwise");
    cl_map_item_t *item = cl_qmap_head(&acl_flows_db.flow_map);
    for (const auto &[id, flow] : model_.db.flows) {
        const auto who = [flow_id = id] { return "flow " + std::to_string(flow_id); };
        KR_MODEL_REQUIRE(item != cl_qmap_end(&acl_flows_db.flow_map), who() + " is not in the flows database");
        const auto *const element = reinterpret_cast<const flows_db_element *>(reinterpret_cast<const char *>(item) -
                                                                               offsetof(flows_db_element, map_item));
        const flow_entry &entry = element->entry;
        KR_MODEL_REQUIRE(entry.flow_id == id, who() + " is not in the flows database");
        KR_MODEL_REQUIRE(entry.priority == flow.priority, who() + " has another priority in the flows database");
        KR_MODEL_REQUIRE(entry.offset == flow.offset, who() + " has another offset in the flows database");
        KR_MODEL_REQUIRE(entry.region == flow.region, who() + " has another region in the flows database");
        KR_MODEL_REQUIRE(entry.counter == flow.counter_id, who() + " has another counter in the flows database");
        item = cl_qmap_next(item);
    }
    KR_MODEL_REQUIRE(item == cl_qmap_end(&acl_flows_db.flow_map), "the flows database holds one more flow");
    auto slot = model_.db.slots.begin();
    for (uint32_t offset = 0; offset < table_size; offset++) {
        const bool is_valid = slot != model_.db.slots.end() && slot->first == offset;
        KR_MODEL_REQUIRE((acl_flows_db.slots[offset].valid != 0) == is_valid &&
                             (!is_valid || acl_flows_db.slots[offset].flow_id == slot->second),
                         "slot " + std::to_string(offset) + " of the flows database differs");
        slot = is_valid ? std::next(slot) : slot;
    }
}

// What the audit has to find is what failures left behind, no more and no less.
void driver::compare_audit() {
    const kr_audit::report report = kr_audit::audit_table(model_.acl_id);
    const auto acl = model_.hw.acls.find(model_.acl_id);
    const placement_table *const table = model_.hw.placement_of(model_.placement_handle);
    const bool is_there = model_.db.initialized && acl != model_.hw.acls.end() && table != nullptr;
    KR_MODEL_REQUIRE(report.is_complete == is_there, is_there ? "the audit found no table" : "the audit found a table");
    if (!is_there) {
        return;
    }
    uint32_t expected[static_cast<size_t>(kr_audit::finding_kind::count)] = {};
    uint32_t found[static_cast<size_t>(kr_audit::finding_kind::count)] = {};
    const auto expect = [&](bool disagrees, kr_audit::finding_kind kind) {
        expected[static_cast<size_t>(kind)] += disagrees ? 1 : 0;
    };
    using kr_audit::finding_kind;
    const std::map<uint32_t, rule_state> &rules = acl->second.rules;
    for (const auto &[index, entry] : table->by_index) {
        expect(!rules.contains(index), finding_kind::place_without_rule);
        expect(!model_.db.flows.contains(entry.key), finding_kind::place_without_flow);
    }
    for (const auto &[offset, rule] : rules) {
        expect(!table->by_index.contains(offset), finding_kind::rule_without_place);
    }
    for (const auto &[id, flow] : model_.db.flows) {
        const auto place = table->index_of.find(id);
        const auto rule = rules.find(flow.offset);
        const auto slot = model_.db.slots.find(flow.offset);
        const bool has_place = place != table->index_of.end();
        expect(!has_place, finding_kind::flow_without_place);
        expect(has_place && place->second != flow.offset, finding_kind::offset_differs);
        expect(has_place && table->by_index.at(place->second).priority != flow.priority,
               finding_kind::priority_differs);
        expect(slot == model_.db.slots.end() || slot->second != id, finding_kind::slot_differs);
        expect(rule == rules.end(), finding_kind::flow_without_rule);
        expect(rule != rules.end() && rule->second.record.counter_id != flow.counter_id, finding_kind::counter_differs);
        flow_record read{};
        const uint64_t ids[] = {id};
        expect(model_.entry_get(0, 0, ids, std::span(&read, 1)) != KR_SDN_HAL_STATUS_SUCCESS,
               finding_kind::read_back_failed);
    }
    for (const kr_audit::finding &one : report.findings) {
        found[static_cast<size_t>(one.kind)]++;
    }
    for (size_t kind = 0; kind < std::size(found); kind++) {
        if (found[kind] != expected[kind]) {
            throw mismatch("the audit found " + std::to_string(found[kind]) + " times, not " +
                           std::to_string(expected[kind]) + ": " +
                           kr_audit::to_text({static_cast<finding_kind>(kind), 0, 0}));
        }
    }
}

} // namespace kr_model
