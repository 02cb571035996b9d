/*
 * What the rest of the platform asks the ACL resource manager: for each frame which rule wins and who is in a group,
 * and for control what there is.
 */
#ifndef KR_SOFT_ACL_LOOKUP_H
#define KR_SOFT_ACL_LOOKUP_H

#include <array>
#include <cstdint>
#include <cstdio>

#include "control/kr_soft.h"
#include "kr_acl_rm.h"

namespace kr_soft {

// The action part of the rule that won.
struct rule_action {
    uint32_t trap_action;
    uint16_t trap_id;
    uint32_t vlan_edit;
    uint16_t vlan_id;
    uint8_t vlan_pcp;
    uint32_t forward_type;
    uint32_t forward_log_port;
    uint32_t forward_group_id;
};

/*
 * Matches a frame against the ACL that its ingress port (key.in_log_port) is bound to. The valid rule at the lowest
 * offset wins: its counter, its own hit counts and its activity are updated and its action copied out. `packet_count`
 * is 1, or the number of segments of a frame that stands for several. False when the port is not bound or no rule
 * matches. Safe from any thread.
 */
bool acl_match(const kr_acl_key &key, uint32_t byte_count, uint32_t packet_count, rule_action *action);

struct group_members {
    std::array<uint32_t, KR_SOFT_MAX_PORTS> log_ports;
    uint32_t count;
};

// Copies the members of a group, in the order of their addition. False for an unknown group.
bool acl_group_members_get(uint32_t group_id, group_members *members);

// Back to a fresh resource manager; part of kr_soft_reset. Handles that were open become invalid.
void acl_rm_reset();

// What kr_soft_rules_get and kr_soft_acls_get return.
kr_status acl_rm_rules_get(uint32_t acl_id, kr_soft_rule_state *rules, uint32_t *count);
kr_status acl_rm_acls_get(uint32_t *acl_ids, uint32_t *count);

// Fills the resource manager's fields of the usage record.
void acl_rm_usage_fill(kr_soft_usage *usage);

// Writes ACLs with their bindings and rules, and groups, for a person.
void acl_rm_dump(FILE *stream);

} // namespace kr_soft

#endif
