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

namespace agent {

struct flow_view {
    of10::flow_match match;
    uint16_t priority;
    uint64_t cookie;
    of10::action_list actions;
    uint64_t packets, bytes; // of10::counter_unknown where no counter keeps them
    uint64_t rule_id;        // 0: no rule, for no frame could match it
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
    uint64_t packet_ins_dropped; // because a controller did not read
};

struct audit_finding {
    uint64_t rule_id;
    std::string text;
};

std::vector<flow_view> introspect_flows(datapath &of, nanoseconds now);
std::vector<group_view> introspect_groups(const datapath &of);
counters_view introspect_counters(const datapath &of, const controllers &connected);

/* Compares the database with hardware, rule by rule; empty: they agree. */
std::vector<audit_finding> introspect_audit(datapath &of);

} // namespace agent

#endif
