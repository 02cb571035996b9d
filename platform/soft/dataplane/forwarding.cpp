/*
 * The stages behind frame_forward, in the order in which a frame meets them: ingress checks, control protocols, rules,
 * edit, egress. Each either hands the frame on or ends it, and a frame that ends without having gone anywhere is
 * counted under exactly one reason; a copy that one port of a group can't send, under that port's.
 */
#include "dataplane/forwarding.h"

#include "acl_rm/acl_lookup.h"
#include "dataplane/frame_parse.h"
#include "dataplane/port_table.h"
#include "host_ifc/trap_delivery.h"
#include "kr_host_ifc.h"

namespace kr_soft {
namespace {

void drop(kr_soft_drop_reason reason, const frame &f) {
    drop_counts_add(reason, f.segment_count);
}

// True when at least one channel is registered for the trap id.
bool trap(uint32_t trap_id, const port &ingress, const frame &f) {
    if (!trap_wanted(trap_id)) {
        return false;
    }
    uint32_t channel_count = 0;
    frame_wire_frames(f, [&](const uint8_t *data, uint32_t size) {
        channel_count += trap_frame_deliver(trap_id, ingress.log_port, data, size);
    });
    return channel_count > 0;
}

void egress(port &target, const frame &f) {
    if (target.stp_blocks()) {
        drop(target.is_up() ? KR_SOFT_DROP_EGRESS_STP : KR_SOFT_DROP_EGRESS_DOWN, f);
        return;
    }
    switch (target.transmit(f)) {
    case transmit_result::sent:
        return;
    case transmit_result::link_down:
        drop(KR_SOFT_DROP_EGRESS_DOWN, f);
        return;
    case transmit_result::full:
        drop(KR_SOFT_DROP_EGRESS_FULL, f);
        return;
    case transmit_result::too_long:
        drop(KR_SOFT_DROP_EGRESS_TOO_LONG, f);
        return;
    }
}

void egress_port(uint32_t log_port, const frame &f) {
    port *const target = port_find(log_port);
    if (target == nullptr) {
        drop(KR_SOFT_DROP_NO_EGRESS_PORT, f);
        return;
    }
    egress(*target, f);
}

void egress_group(uint32_t group_id, const port &ingress, const frame &f) {
    group_members members;
    if (!acl_group_members_get(group_id, &members)) {
        drop(KR_SOFT_DROP_NO_GROUP, f);
        return;
    }
    uint32_t copy_count = 0;
    for (uint32_t i = 0; i < members.count; i++) {
        if (members.log_ports[i] != ingress.log_port) {
            egress_port(members.log_ports[i], f);
            copy_count++;
        }
    }
    if (copy_count == 0) {
        drop(KR_SOFT_DROP_EMPTY_GROUP, f);
    }
}

void action_apply(const rule_action &action, const port &ingress, frame &f) {
    if (action.trap_action == KR_ACL_TRAP_ACTION_DISCARD) {
        drop(KR_SOFT_DROP_RULE_DISCARD, f);
        return;
    }
    if (action.trap_action == KR_ACL_TRAP_ACTION_TRAP) {
        if (!trap(action.trap_id, ingress, f)) {
            drop(KR_SOFT_DROP_NO_TRAP_CHANNEL, f);
        }
        return;
    }
    frame_vlan_edit(f, action.vlan_edit, action.vlan_id, action.vlan_pcp);
    switch (action.forward_type) {
    case KR_ACL_FORWARD_PORT:
        egress_port(action.forward_log_port, f);
        return;
    case KR_ACL_FORWARD_GROUP:
        egress_group(action.forward_group_id, ingress, f);
        return;
    default:
        drop(KR_SOFT_DROP_RULE_NO_TARGET, f);
        return;
    }
}

} // namespace

void frame_forward(port &ingress, frame &f) {
    if (!ingress.is_up()) {
        drop_count_add(KR_SOFT_DROP_INGRESS_DOWN);
        return;
    }
    if (!frame_offload_check(f)) {
        drop_count_add(KR_SOFT_DROP_MALFORMED);
        return;
    }
    ingress.receive_count(f);

    const uint32_t control_trap_id = frame_control_trap_id(f.data, f.size);
    if (control_trap_id != 0 && trap(control_trap_id, ingress, f)) {
        return;
    }
    if (ingress.stp_blocks()) {
        drop(KR_SOFT_DROP_INGRESS_STP, f);
        return;
    }

    kr_acl_key key;
    frame_key_read(f.data, f.size, ingress.log_port, &key);
    rule_action action{};
    if (acl_match(key, static_cast<uint32_t>(frame_wire_bytes(f)), f.segment_count, &action)) {
        action_apply(action, ingress, f);
    } else if (!trap(KR_TRAP_ID_PACKET_MISS, ingress, f)) {
        drop(KR_SOFT_DROP_NO_MATCH, f);
    }
}

} // namespace kr_soft
