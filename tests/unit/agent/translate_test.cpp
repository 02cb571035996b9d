/*
 * Flows into rules: every kind of output, the VLAN edits, and what is refused; against a model that applies the action
 * list of OpenFlow step by step.
 */
#include <gtest/gtest.h>

#include "translate.h"

namespace agent {
namespace {

using of10::action_list;
using of10::action_output;
using of10::action_set_vlan_pcp;
using of10::action_set_vlan_vid;
using of10::action_strip_vlan;
namespace ports = of10::ports;

const port_lists four = {{1, 2, 3, 4}, {1, 2, 3, 4}, {1, 2, 3, 4}};

of10::flow_match from_port(uint16_t port) {
    of10::flow_match m;
    m.wildcards &= ~of10::wildcard::in_port;
    m.in_port = port;
    return m;
}

rule_plan plan(const of10::flow_match &match, const action_list &actions, const port_lists &lists = four,
               missing_port policy = missing_port::refuse) {
    auto translated = translate(of10::match_normalize(match), actions, lists, policy);
    if (const auto *refused = std::get_if<refusal>(&translated)) {
        ADD_FAILURE() << refused->reason;
        return {};
    }
    return std::get<rule_plan>(translated);
}

uint16_t refused_code(const of10::flow_match &match, const action_list &actions, const port_lists &lists = four,
                      missing_port policy = missing_port::refuse) {
    auto translated = translate(of10::match_normalize(match), actions, lists, policy);
    const auto *refused = std::get_if<refusal>(&translated);
    EXPECT_NE(refused, nullptr);
    return refused == nullptr ? uint16_t{0xffff} : refused->code;
}

TEST(translate, targets) {
    struct row {
        of10::flow_match match;
        action_list actions;
        flow_action action;
        uint32_t out_port;
        std::vector<uint16_t> group;
    };
    const of10::flow_match any;
    const of10::flow_match one = from_port(1);
    const row rows[] = {
        {any, {}, FLOW_ACTION_DROP, 0, {}},
        {any, {action_output{2, 0}}, FLOW_ACTION_MC_GROUP, 0, {2}}, // a plain forward would return frames
        {one, {action_output{2, 0}}, FLOW_ACTION_OUTPUT, 2, {}},
        {one, {action_output{1, 0}}, FLOW_ACTION_DROP, 0, {}},
        {one, {action_output{ports::in_port, 0}}, FLOW_ACTION_OUTPUT, 1, {}},
        {one, {action_output{4, 0}, action_output{2, 0}, action_output{4, 0}}, FLOW_ACTION_MC_GROUP, 0, {2, 4}},
        {one, {action_output{1, 0}, action_output{2, 0}}, FLOW_ACTION_OUTPUT, 2, {}},
        {any, {action_output{ports::flood, 0}}, FLOW_ACTION_FLOOD, 0, {}},
        {one, {action_output{ports::all, 0}}, FLOW_ACTION_FLOOD, 0, {}},
        {one, {action_output{ports::flood, 0}, action_output{3, 0}}, FLOW_ACTION_FLOOD, 0, {}},
        // Every port by name: not those that come later.
        {one, {action_output{2, 0}, action_output{3, 0}, action_output{4, 0}}, FLOW_ACTION_MC_GROUP, 0, {2, 3, 4}},
        {any, {action_output{ports::controller, 9}}, FLOW_ACTION_CONTROLLER, 0, {}},
    };
    for (const row &r : rows) {
        const rule_plan got = plan(r.match, r.actions);
        SCOPED_TRACE(&r - rows);
        EXPECT_EQ(got.record.action, r.action);
        EXPECT_EQ(got.record.out_port, r.out_port);
        EXPECT_EQ(got.group_ports, r.group);
        EXPECT_EQ(got.record.vlan_action, FLOW_VLAN_NONE);
    }
}

TEST(translate, ports_that_must_not_send_or_be_flooded_are_left_out) {
    const port_lists some = {{1, 2, 3, 4}, {1, 2, 4}, {1, 2}};
    EXPECT_EQ(plan({}, {action_output{ports::flood, 0}}, some).group_ports, (std::vector<uint16_t>{1, 2}));
    EXPECT_EQ(plan({}, {action_output{ports::all, 0}}, some).group_ports, (std::vector<uint16_t>{1, 2, 4}));
    EXPECT_EQ(plan({}, {action_output{3, 0}}, some).record.action, FLOW_ACTION_DROP);
    EXPECT_EQ(plan(from_port(3), {action_output{ports::in_port, 0}}, some).record.action, FLOW_ACTION_DROP);
    EXPECT_EQ(plan(from_port(1), {action_output{ports::flood, 0}}, some).record.out_port, 2u);
}

TEST(translate, a_port_that_is_gone) {
    EXPECT_EQ(refused_code({}, {action_output{9, 0}}), of10::bad_action::bad_out_port);
    EXPECT_EQ(refused_code(from_port(9), {}), of10::flow_mod_failed::unsupported);
    const auto later = missing_port::leave_out;
    EXPECT_EQ(plan({}, {action_output{9, 0}, action_output{2, 0}}, four, later).group_ports,
              (std::vector<uint16_t>{2}));
    EXPECT_FALSE(plan(from_port(9), {action_output{2, 0}}, four, later).can_match);
    EXPECT_TRUE(plan(from_port(1), {}, four, later).can_match);
    EXPECT_EQ(refused_code({}, {action_output{ports::normal, 0}}, four, later), of10::bad_action::bad_out_port);
}

TEST(translate, vlan_edits) {
    struct row {
        action_list before;
        uint32_t edit;
        uint16_t id;
        uint8_t pcp;
    };
    const row rows[] = {
        {{action_set_vlan_vid{7}}, FLOW_VLAN_SET_VID, 7, 0},
        {{action_set_vlan_pcp{5}}, FLOW_VLAN_SET_PCP, 0, 5},
        {{action_set_vlan_pcp{5}, action_set_vlan_vid{7}}, FLOW_VLAN_SET_VID_PCP, 7, 5},
        {{action_set_vlan_vid{1}, action_set_vlan_vid{7}}, FLOW_VLAN_SET_VID, 7, 0},
        {{action_strip_vlan{}}, FLOW_VLAN_POP, 0, 0},
        {{action_set_vlan_vid{7}, action_strip_vlan{}}, FLOW_VLAN_POP, 0, 0},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(&r - rows);
        action_list actions = r.before;
        actions.push_back(action_output{2, 0});
        actions.push_back(action_set_vlan_vid{99}); // behind the last output: nobody sees it
        const flow_record record = plan(from_port(1), actions).record;
        EXPECT_EQ(record.vlan_action, r.edit);
        EXPECT_EQ(record.vlan_action_vid, r.id);
        EXPECT_EQ(record.vlan_action_pcp, r.pcp);
    }
    EXPECT_EQ(plan(from_port(1), {action_set_vlan_vid{7}}).record.vlan_action, FLOW_VLAN_NONE); // no output
    // The same frame twice is one frame.
    EXPECT_EQ(plan({}, {action_set_vlan_vid{7}, action_output{2, 0}, action_set_vlan_vid{7}, action_output{3, 0}})
                  .group_ports,
              (std::vector<uint16_t>{2, 3}));
}

TEST(translate, what_one_rule_cannot_say) {
    namespace bad = of10::bad_action;
    const of10::flow_match one = from_port(1);
    EXPECT_EQ(refused_code({}, {action_output{ports::in_port, 0}}), bad::bad_out_port);
    EXPECT_EQ(refused_code(one, {action_output{ports::in_port, 0}, action_output{2, 0}}), bad::too_many);
    EXPECT_EQ(refused_code(one, {action_output{ports::in_port, 0}, action_output{ports::flood, 0}}), bad::too_many);
    EXPECT_EQ(refused_code(one, {action_output{ports::controller, 0}, action_output{2, 0}}), bad::too_many);
    EXPECT_EQ(refused_code(one, {action_set_vlan_vid{7}, action_output{ports::controller, 0}}), bad::too_many);
    EXPECT_EQ(refused_code(one, {action_output{2, 0}, action_strip_vlan{}, action_output{3, 0}}), bad::too_many);
    EXPECT_EQ(refused_code(one, {action_strip_vlan{}, action_set_vlan_pcp{1}, action_output{3, 0}}), bad::too_many);
    EXPECT_EQ(refused_code(one, action_list(max_actions + 1, action_output{2, 0})), bad::too_many);
    EXPECT_EQ(refused_code(one, {of10::action_set_dl_src{}}), bad::bad_type);
    EXPECT_EQ(refused_code(one, {of10::action_enqueue{2, 0}}), bad::bad_type);
    EXPECT_EQ(refused_code(one, {of10::action_vendor{}}), bad::bad_vendor);
    of10::flow_match tag;
    tag.wildcards &= ~of10::wildcard::dl_vlan;
    tag.dl_vlan = 0x1001;
    EXPECT_EQ(refused_code(tag, {}), of10::flow_mod_failed::unsupported);
}

TEST(translate, every_field_of_the_match) {
    of10::flow_match m;
    m.wildcards = 8u << of10::wildcard::nw_src_shift;
    m.in_port = 2;
    m.dl_src = {1, 2, 3, 4, 5, 6};
    m.dl_dst = {7, 8, 9, 10, 11, 12};
    m.dl_vlan = 100;
    m.dl_vlan_pcp = 3;
    m.dl_type = 0x0800;
    m.nw_tos = 0xb8;
    m.nw_proto = 6;
    m.nw_src = 0x0a010200;
    m.nw_dst = 0x0a010203;
    m.tp_src = 1000;
    m.tp_dst = 2000;
    const flow_record r = plan(m, {}).record;
    EXPECT_TRUE(r.in_port == 2 && r.in_port_mask == 1);
    EXPECT_TRUE(std::equal(std::begin(r.eth_src), std::end(r.eth_src), m.dl_src.begin()));
    EXPECT_TRUE(std::equal(std::begin(r.eth_dst), std::end(r.eth_dst), m.dl_dst.begin()));
    for (int i = 0; i < 6; i++) {
        EXPECT_TRUE(r.eth_src_mask[i] == 0xff && r.eth_dst_mask[i] == 0xff);
    }
    EXPECT_TRUE(r.vlan_tagged == 1 && r.vlan_tagged_mask == 1 && r.vlan_id == 100 && r.vlan_id_mask == 0xfff);
    EXPECT_TRUE(r.vlan_pcp == 3 && r.vlan_pcp_mask == 7 && r.eth_type == 0x0800 && r.eth_type_mask == 0xffff);
    EXPECT_TRUE(r.ip_tos == 0xb8 && r.ip_tos_mask == 0xfc && r.ip_proto == 6 && r.ip_proto_mask == 0xff);
    EXPECT_TRUE(r.ipv4_src == 0x0a010200 && r.ipv4_src_mask == 0xffffff00);
    EXPECT_TRUE(r.ipv4_dst == 0x0a010203 && r.ipv4_dst_mask == 0xffffffff);
    EXPECT_TRUE(r.tp_src == 1000 && r.tp_src_mask == 0xffff && r.tp_dst == 2000 && r.tp_dst_mask == 0xffff);

    const flow_record all = plan({}, {}).record;
    EXPECT_TRUE(all.in_port_mask == 0 && all.vlan_tagged_mask == 0 && all.eth_type_mask == 0 && all.ipv4_src_mask == 0);
    of10::flow_match untagged;
    untagged.wildcards &= ~of10::wildcard::dl_vlan;
    untagged.dl_vlan = of10::vlan_none;
    const flow_record none = plan(untagged, {}).record;
    EXPECT_TRUE(none.vlan_tagged == 0 && none.vlan_tagged_mask == 1 && none.vlan_id_mask == 0);
    of10::flow_match pcp;
    pcp.wildcards &= ~of10::wildcard::dl_vlan_pcp;
    const flow_record tagged = plan(pcp, {}).record;
    EXPECT_TRUE(tagged.vlan_tagged == 1 && tagged.vlan_pcp_mask == 7 && tagged.vlan_id_mask == 0);
}

} // namespace
} // namespace agent
