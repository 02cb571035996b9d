/*
 * The snapshots of introspect.h.
 */
#include "introspect.h"

#include <algorithm>
#include <map>

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
        views.push_back({.match = one.match,
                         .priority = one.priority,
                         .cookie = one.cookie,
                         .idle_timeout = one.idle_timeout,
                         .hard_timeout = one.hard_timeout,
                         .flags = one.flags,
                         .actions = one.actions,
                         .packets = counts[i].packets,
                         .bytes = counts[i].bytes,
                         .rule_id = one.rule.id,
                         .rule_action = one.rule.record.action,
                         .has_counter = one.rule.has_counter,
                         .age = now - one.created,
                         .idle = now - one.used});
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
    return {of.packets.counts(),         of.programmed.tally(), of.programmed.stray_count(),
            connected.packets_dropped(), connected.lost(),      connected.untold()};
}

namespace {

// The rules that ought to be in hardware: those of flows, and the daemon's own.
std::map<uint64_t, const installed_rule *> rules_meant(const datapath &of) {
    std::map<uint64_t, const installed_rule *> meant;
    for (const auto &one : of.flows.all()) {
        if (one->rule.id != 0) {
            meant.emplace(one->rule.id, &one->rule);
        }
    }
    for (const auto &[port, rule] : of.programmed.ingress_drops()) {
        meant.emplace(rule.id, &rule);
    }
    return meant;
}

void read_back_audit(datapath &of, uint64_t id, const installed_rule &rule, std::vector<audit_finding> &findings) {
    flow_record found{};
    const kr_sdn_hal_status status = of.table.read({&id, 1}, {&found, 1});
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        findings.push_back({id, "can't be read back: status " + std::to_string(status)});
    } else if (!records_equal(found, rule.record)) {
        findings.push_back({id, "reads back otherwise than it was written"});
    }
}

void group_audit(datapath &of, const std::vector<uint16_t> &ports, const rules::group &one,
                 std::vector<audit_finding> &findings) {
    uint32_t user_count = 0;
    for (const auto &user : of.flows.all()) {
        user_count += user->rule.id != 0 && user->rule.group_ports == ports ? 1 : 0;
    }
    for (const installed_rule &stray : of.programmed.strays()) {
        user_count += stray.group_ports == ports ? 1 : 0;
    }
    if (user_count != one.user_count) {
        findings.push_back({0, "group " + std::to_string(one.id) + " counts " + std::to_string(one.user_count) +
                                   " rules, and has " + std::to_string(user_count)});
    }
    std::vector<uint16_t> found;
    const kr_sdn_hal_status status = of.table.group_read(one.id, &found);
    if (status != KR_SDN_HAL_STATUS_SUCCESS || found != ports) {
        findings.push_back({0, "group " + std::to_string(one.id) + " reads back otherwise than it was made (status " +
                                   std::to_string(status) + ")"});
    }
}

void platform_audit(const std::map<uint64_t, const installed_rule *> &meant, const std::vector<installed_rule> &strays,
                    const platform_view &platform, std::vector<audit_finding> &findings) {
    const std::map<uint64_t, krsdn_inspected_rule> kept = platform.rules();
    for (const auto &[id, rule] : meant) {
        const auto found = kept.find(id);
        if (found == kept.end()) {
            findings.push_back({id, "is not in the library's flows database"});
            continue;
        }
        if (found->second.priority != rule->record.priority) {
            findings.push_back({id, "has another priority in the library's flows database"});
        }
        if ((found->second.has_counter != 0) != rule->has_counter) {
            findings.push_back({id, rule->has_counter ? "should have a counter and has none"
                                                      : "has a counter that the agent does not know of"});
        }
    }
    const auto is_stray = [&](uint64_t id) {
        return std::any_of(strays.begin(), strays.end(), [id](const installed_rule &one) { return one.id == id; });
    };
    for (const auto &[id, rule] : kept) {
        if (!meant.contains(id) && !is_stray(id)) {
            findings.push_back({id, "is in the library's flows database, and belongs to no flow"});
        }
    }
}

// What the agent knows to be otherwise than it should be; it is being tried again.
void known_audit(datapath &of, std::vector<audit_finding> &findings) {
    for (const auto &one : of.flows.all()) {
        if (one->is_unsettled) {
            findings.push_back({one->rule.id, one->rule.id == 0 ? "a flow has no rule: hardware refused it"
                                                                : "is an earlier one: hardware refused a later"});
        }
    }
    for (const installed_rule &rule : of.programmed.strays()) {
        findings.push_back({rule.id, "is left over: hardware did not let it go"});
    }
    for (const uint32_t id : of.programmed.stray_groups()) {
        findings.push_back({0, "group " + std::to_string(id) + " is left over: hardware did not let it go"});
    }
}

} // namespace

audit_view introspect_audit(datapath &of, const platform_view &platform) {
    audit_view view{};
    const std::map<uint64_t, const installed_rule *> meant = rules_meant(of);
    view.flow_count = of.flows.size();
    view.rule_count = meant.size();
    view.group_count = of.programmed.groups().size();
    for (const auto &[id, rule] : meant) {
        read_back_audit(of, id, *rule, view.findings);
    }
    for (const auto &[ports, one] : of.programmed.groups()) {
        group_audit(of, ports, one, view.findings);
    }
    known_audit(of, view.findings);
    if (of.programmed.installed_count() != meant.size() + of.programmed.strays().size()) {
        view.findings.push_back({0, "the agent counts " + std::to_string(of.programmed.installed_count()) +
                                        " rules, and has " + std::to_string(meant.size())});
    }
    // A switch that is stopped has nothing below the library, and may be started at any moment.
    const std::optional<platform_view::audit_report> report =
        of.table.is_up() ? platform.audit() : std::optional<platform_view::audit_report>();
    view.has_platform = report.has_value();
    if (report) {
        platform_audit(meant, of.programmed.strays(), platform, view.findings);
        for (const platform_view::finding &one : report->findings) {
            view.findings.push_back({one.rule_id, "offset " + std::to_string(one.offset) + ": " + one.text});
        }
    }
    return view;
}

} // namespace agent
