/*
 * The snapshots of introspect.h.
 */
#include "introspect.h"

namespace agent {

std::vector<flow_view> introspect_flows(datapath &of, nanoseconds now) {
    std::vector<flow *> all;
    for (const auto &one : of.flows.all()) {
        all.push_back(one.get());
    }
    of.programmed.read_activity(all, now);
    const std::vector<rules::counts> counts = of.programmed.read_counts(all);
    std::vector<flow_view> views;
    views.reserve(all.size());
    for (size_t i = 0; i < all.size(); i++) {
        const flow &one = *all[i];
        views.push_back({one.match, one.priority, one.cookie, one.actions, counts[i].packets, counts[i].bytes,
                         one.rule.id, one.rule.has_counter, now - one.created, now - one.used});
    }
    return views;
}

std::vector<group_view> introspect_groups(const datapath &of) {
    std::vector<group_view> views;
    for (const auto &[ports, one] : of.programmed.groups()) {
        views.push_back({one.id, ports, one.user_count});
    }
    return views;
}

counters_view introspect_counters(const datapath &of, const controllers &connected) {
    return {of.packets.counts(), of.programmed.tally(), connected.packets_dropped()};
}

std::vector<audit_finding> introspect_audit(datapath &of) {
    std::vector<audit_finding> findings;
    for (const auto &one : of.flows.all()) {
        if (one->rule.id == 0) {
            continue;
        }
        flow_record found{};
        const kr_sdn_hal_status status = of.table.read({&one->rule.id, 1}, {&found, 1});
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            findings.push_back({one->rule.id, "can't be read back: status " + std::to_string(status)});
        } else if (!records_equal(found, one->rule.record)) {
            findings.push_back({one->rule.id, "is not in hardware what it should be"});
        }
    }
    return findings;
}

} // namespace agent
