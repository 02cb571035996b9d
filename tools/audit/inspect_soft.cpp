/*
 * The inspector of the software platform: what agent/inspector.h asks for, answered by the platform's control
 * interface and the audit of the flow table. The OpenFlow agent loads it at run time; on another platform its symbols
 * are missing, so that it is not loaded there.
 */
#include <algorithm>
#include <cstddef>
#include <vector>

#include "agent/inspector.h"
#include "kr_acl_rm.h"
#include "kr_complib.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "table_audit.h"
#include "tables/tables_acl_impl.h"

namespace {

std::vector<kr_soft_rule_state> rules_read() {
    uint32_t acl_id = 0;
    uint32_t acl_count = 1;
    auto count = static_cast<uint32_t>(KR_SOFT_MAX_RULES);
    std::vector<kr_soft_rule_state> rules(count);
    if (kr_soft_acls_get(&acl_id, &acl_count) != KR_STATUS_SUCCESS || acl_count != 1 ||
        kr_soft_rules_get(acl_id, rules.data(), &count) != KR_STATUS_SUCCESS) {
        count = 0;
    }
    rules.resize(count);
    return rules;
}

// Rules come in the order of their offsets.
const kr_soft_rule_state *rule_at(const std::vector<kr_soft_rule_state> &rules, uint64_t offset) {
    const auto found =
        std::lower_bound(rules.begin(), rules.end(), offset,
                         [](const kr_soft_rule_state &one, uint64_t wanted) { return one.rule.set_offset < wanted; });
    return found != rules.end() && found->rule.set_offset == offset ? &*found : nullptr;
}

void rules_visit(void (*visit)(void *context, const krsdn_inspected_rule *rule), void *context) {
    if (acl_flows_db.initialized == 0) {
        return;
    }
    const std::vector<kr_soft_rule_state> rules = rules_read();
    for (cl_map_item_t *item = cl_qmap_head(&acl_flows_db.flow_map); item != cl_qmap_end(&acl_flows_db.flow_map);
         item = cl_qmap_next(item)) {
        const flow_entry &flow = reinterpret_cast<const flows_db_element *>(reinterpret_cast<const char *>(item) -
                                                                            offsetof(flows_db_element, map_item))
                                     ->entry;
        const kr_soft_rule_state *const state = rule_at(rules, flow.offset);
        krsdn_inspected_rule told{};
        told.flow_id = flow.flow_id;
        told.offset = static_cast<uint32_t>(flow.offset);
        told.priority = flow.priority;
        told.has_counter = flow.counter != 0 ? 1 : 0;
        if (state != nullptr) {
            told.is_valid = 1;
            told.hit_packets = state->hit_packets;
            told.hit_bytes = state->hit_bytes;
        }
        visit(context, &told);
    }
}

uint32_t audit(void (*found)(void *context, uint64_t flow_id, uint32_t offset, const char *text), void *context,
               uint32_t *flow_count, uint32_t *rule_count) {
    const kr_audit::report report = kr_audit::audit_table_in_service();
    *flow_count = report.flow_count;
    *rule_count = report.rule_count;
    for (const kr_audit::finding &one : report.findings) {
        found(context, one.flow_id, one.offset, kr_audit::text_of(one.kind));
    }
    return report.is_complete ? 1 : 0;
}

const char *drop_reason(uint32_t index, uint64_t *count) {
    if (index >= KR_SOFT_DROP_REASON_COUNT) {
        return nullptr;
    }
    const auto reason = static_cast<kr_soft_drop_reason>(index);
    *count = kr_soft_drop_count(reason);
    return kr_soft_drop_reason_name(reason);
}

constexpr krsdn_inspector inspector = {
    .version = KRSDN_INSPECTOR_VERSION,
    .platform = "software platform",
    .rules_visit = rules_visit,
    .audit = audit,
    .drop_reason = drop_reason,
};

} // namespace

extern "C" __attribute__((visibility("default"))) const krsdn_inspector *krsdn_inspector_get() {
    return &inspector;
}
