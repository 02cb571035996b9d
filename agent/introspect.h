/*
 * What the daemon can tell about itself, as plain records: for a control socket, a tool or a test. Taking a snapshot
 * reads hardware for counts and for the audit, and changes nothing but the activity of the rules, whose time-outs hear
 * of it.
 */
#ifndef KR_AGENT_INTROSPECT_H
#define KR_AGENT_INTROSPECT_H

#include <string>
#include <vector>

#include "controllers.h"
#include "datapath.h"
#include "platform_view.h"

namespace agent {

struct flow_view {
    of10::flow_match match;
    uint16_t priority;
    uint64_t cookie;
    uint16_t idle_timeout, hard_timeout, flags;
    of10::action_list actions;
    uint64_t packets, bytes; // of10::counter_unknown where no counter keeps them
    uint64_t rule_id;        // 0: no rule, for no frame could match it
    uint32_t rule_action;    // a FLOW_ACTION_*
    bool has_counter;
    nanoseconds age, idle;
};

struct group_view {
    uint32_t id;
    std::vector<uint16_t> ports;
    uint32_t user_count;
};

struct counters_view {
    packet_counts packets;
    rule_counts rules;
    uint64_t strays;             // rules and groups that are left over now
    uint64_t packet_ins_dropped; // because a controller did not read
    session::losses lost;        // with connections that ended before they had sent it
    uint64_t untold;             // FLOW_REMOVED and PORT_STATUS while no controller was connected
};

struct audit_finding {
    uint64_t rule_id;
    std::string text;
};

std::vector<flow_view> introspect_flows(datapath &of, nanoseconds now);
std::vector<group_view> introspect_groups(const datapath &of);
counters_view introspect_counters(const datapath &of, const controllers &connected);

struct audit_view {
    std::vector<audit_finding> findings; // empty: all agree
    size_t flow_count, rule_count, group_count;
    bool has_platform; // false: the library's database and the resource manager could not be looked at
};

/*
 * Compares, rule by rule: what the daemon has of its flows, the rules of its own and the groups, with what the library
 * reads back; and, where there is an inspector for the platform, both with the library's flows database and the
 * rules in the resource manager.
 */
audit_view introspect_audit(datapath &of, const platform_view &platform);

} // namespace agent

#endif
