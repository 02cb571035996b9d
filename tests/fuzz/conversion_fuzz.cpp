/*
 * Flows to rules and back, and rules to flows and back, with bytes of any kind: what can be said in both forms comes
 * back as it was, and what is converted once does not change any more.
 */
#include "core/port.h"
#include "tables/tables.h"
#include "tables/tables_acl_internal.h"
#include "tests/fuzz/fuzz_input.h"

using kr_fuzz::require;

namespace {

constexpr uint32_t port_count = 4; // OF ports 1 to 4
constexpr uint32_t log_port_base = 0x10000;

void ports_prepare() {
    static const bool done = [] {
        require(port_init() == KR_SDN_HAL_STATUS_SUCCESS, "there is a port database");
        for (uint32_t port = 1; port <= port_count; port++) {
            uint32_t of_port = 0;
            require(port_set(PORT_CMD_ADD, port, 0, log_port_base + port, 0, &of_port) == KR_SDN_HAL_STATUS_SUCCESS,
                    "a port can be added");
        }
        kr_FLOWS_DB_verb_level = 0;
        kr_HAL_TABLES_API_verb_level = 0;
        return true;
    }();
    (void)done;
}

bool is_port(uint32_t of_port) {
    return of_port >= 1 && of_port <= port_count;
}

kr_sdn_hal_status to_rule(const flow_record &flow, kr_acl_rule *rule) {
    *rule = {};
    __flow_action_to_acl_action(&flow, rule);
    const kr_sdn_hal_status status = __flow_key_to_acl_key(&flow, rule);
    return status == KR_SDN_HAL_STATUS_SUCCESS ? __flow_target_to_acl_forward(&flow, rule) : status;
}

kr_sdn_hal_status to_flow(const kr_acl_rule &rule, flow_record *flow) {
    *flow = {};
    const kr_sdn_hal_status status = __acl_forward_to_flow_target(flow, &rule);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    __acl_action_to_flow_action(flow, &rule);
    return __acl_key_to_flow_key(flow, &rule);
}

bool same(const flow_record &one, const flow_record &other) {
    return memcmp(&one, &other, sizeof one) == 0;
}

// What a flow looks like once it has been a rule.
flow_record normal_form(const flow_record &given) {
    flow_record flow;
    memset(static_cast<void *>(&flow), 0, sizeof flow);
    memcpy(&flow.in_port, &given.in_port, offsetof(flow_record, vlan_action_pcp) + 1 - offsetof(flow_record, in_port));
    flow.in_port = given.in_port_mask != 0 ? given.in_port : 0;
    flow.in_port_mask = given.in_port_mask != 0;
    flow.vlan_tagged = given.vlan_tagged != 0;
    flow.vlan_tagged_mask = given.vlan_tagged_mask != 0;
    flow.action = given.action <= FLOW_ACTION_MC_GROUP ? given.action : uint32_t{FLOW_ACTION_NONE};
    flow.out_port = given.action == FLOW_ACTION_OUTPUT ? given.out_port : 0;
    flow.mc_group_id = given.action == FLOW_ACTION_MC_GROUP ? given.mc_group_id : 0;
    flow.vlan_action = given.vlan_action <= FLOW_VLAN_SET_VID ? given.vlan_action : uint32_t{FLOW_VLAN_NONE};
    // The padding is nobody's: two holes in the match.
    auto *const record_bytes = reinterpret_cast<char *>(&flow);
    memset(record_bytes + offsetof(flow_record, vlan_tagged_mask) + 1, 0, 1);
    memset(record_bytes + offsetof(flow_record, ip_proto_mask) + 1, 0, 2);
    return flow;
}

void check_flow(const flow_record &flow) {
    const bool ports_exist = (flow.in_port_mask == 0 || is_port(flow.in_port)) &&
                             (flow.action != FLOW_ACTION_OUTPUT || is_port(flow.out_port));
    kr_acl_rule rule;
    const kr_sdn_hal_status status = to_rule(flow, &rule);
    require(status == (ports_exist ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND),
            "only a port that is unknown stops a conversion");
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return;
    }
    flow_record back;
    require(to_flow(rule, &back) == KR_SDN_HAL_STATUS_SUCCESS, "a rule that was a flow becomes one again");
    flow_record expected = normal_form(flow);
    if (expected.action == FLOW_ACTION_MC_GROUP && expected.mc_group_id == kr::tables_acl::g.flood_mc_group_id) {
        expected.action = FLOW_ACTION_FLOOD; // the same group
        expected.mc_group_id = 0;
    }
    require(same(back, expected), "a flow comes back in its normal form");
    kr_acl_rule again;
    require(to_rule(back, &again) == KR_SDN_HAL_STATUS_SUCCESS && memcmp(&again, &rule, sizeof rule) == 0,
            "the normal form makes the same rule");
}

// A rule may say things that no flow can. What is left of it then stays.
void check_rule(const kr_acl_rule &rule) {
    flow_record flow;
    if (to_flow(rule, &flow) != KR_SDN_HAL_STATUS_SUCCESS) {
        return;
    }
    require(flow.vlan_action <= FLOW_VLAN_SET_VID, "a VLAN edit that flows have");
    require(flow.in_port_mask <= 1 && flow.vlan_tagged <= 1 && flow.vlan_tagged_mask <= 1, "booleans are 0 or 1");
    kr_acl_rule made;
    if (to_rule(flow, &made) == KR_SDN_HAL_STATUS_SUCCESS) {
        check_flow(flow);
    }
}

} // namespace

KR_FUZZ_TARGET(const uint8_t *data, size_t size) {
    ports_prepare();
    kr_fuzz::input from(data, size);
    const uint32_t shape = from.take<uint8_t>();
    kr::tables_acl::g.flood_mc_group_id = 1;
    auto flow = from.take<flow_record>();
    if ((shape & 1) != 0) { // mostly ports that exist
        flow.in_port = 1 + flow.in_port % port_count;
        flow.out_port = 1 + flow.out_port % port_count;
        flow.action %= FLOW_ACTION_OUTPUT_ALL + 2;
    }
    check_flow(flow);
    auto rule = from.take<kr_acl_rule>();
    if ((shape & 2) != 0) {
        rule.forward_type %= 4;
        rule.forward_log_port = log_port_base + 1 + rule.forward_log_port % port_count;
        rule.key.in_log_port = log_port_base + 1 + rule.key.in_log_port % port_count;
        rule.trap_action = rule.trap_action % 2 == 0 ? 0 : 2 + rule.trap_action % 3;
    }
    check_rule(rule);
    return 0;
}
