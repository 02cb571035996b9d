/*
 * Rules at their offsets: writing, reading and deleting them, what is refused, whose counters are, and activity.
 */
#include <gmock/gmock.h>

#include <cstddef>

#include "acl_rm_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class acl_rm_rules : public acl_rm_test {
  protected:
    void SetUp() override {
        acl_rm_test::SetUp();
        ASSERT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {test_port}), KR_STATUS_SUCCESS);
    }

    kr_status set_rule_with_counter(uint32_t offset, uint32_t counter_id) {
        kr_acl_rule rule = make_rule(offset, static_cast<uint16_t>(0x1000 + offset));
        rule.counter_id = counter_id;
        return set_rule(rule);
    }
};

TEST_F(acl_rm_rules, a_record_reads_back_as_it_was_written_to_the_byte) {
    kr_acl_rule written;
    uint8_t bytes[sizeof written];
    for (size_t i = 0; i < sizeof bytes; i++) {
        bytes[i] = static_cast<uint8_t>(i * 37 + 11); // reserved bytes included
    }
    std::memcpy(&written, bytes, sizeof written);
    written.set_offset = 999;
    written.access_offset = 999;
    written.valid = written.action_valid = 1;
    written.key_type = written.mask_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
    written.trap_action = KR_ACL_TRAP_ACTION_TRAP;
    written.trap_mode = KR_ACL_TRAP_MODE_TRAP_ID;
    written.vlan_edit = KR_ACL_VLAN_EDIT_PUSH_VID_PCP;
    written.forward_type = KR_ACL_FORWARD_GROUP;
    written.forward_group_id = create_group({1});
    written.counter_id = create_counter();
    written.activity_mode = 0;
    written.activity = 0;
    ASSERT_EQ(set_rule(written), KR_STATUS_SUCCESS);
    kr_acl_rule read;
    ASSERT_EQ(get_rule(999, &read), KR_STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(&read, &written, sizeof read), 0);
}

TEST_F(acl_rm_rules, every_field_that_the_device_interprets_is_checked) {
    struct row {
        const char *what;
        void (*spoil)(kr_acl_rule *rule);
        kr_status status;
    };
    const row rows[] = {
        {"offset at the end", [](kr_acl_rule *r) { r->set_offset = 1000; }, KR_STATUS_PARAM_EXCEEDS_RANGE},
        {"offset far out", [](kr_acl_rule *r) { r->set_offset = UINT32_MAX; }, KR_STATUS_PARAM_EXCEEDS_RANGE},
        {"not valid", [](kr_acl_rule *r) { r->valid = 0; }, KR_STATUS_PARAM_ERROR},
        {"valid is a flag", [](kr_acl_rule *r) { r->valid = 2; }, KR_STATUS_PARAM_ERROR},
        {"action not valid", [](kr_acl_rule *r) { r->action_valid = 0; }, KR_STATUS_PARAM_ERROR},
        {"key type", [](kr_acl_rule *r) { r->key_type = 0; }, KR_STATUS_PARAM_ERROR},
        {"mask type", [](kr_acl_rule *r) { r->mask_type = 2; }, KR_STATUS_PARAM_ERROR},
        {"trap action", [](kr_acl_rule *r) { r->trap_action = 1; }, KR_STATUS_PARAM_ERROR},
        {"trap action", [](kr_acl_rule *r) { r->trap_action = 5; }, KR_STATUS_PARAM_ERROR},
        {"trap without its mode", [](kr_acl_rule *r) { r->trap_action = 3; }, KR_STATUS_PARAM_ERROR},
        {"VLAN edit", [](kr_acl_rule *r) { r->vlan_edit = 20; }, KR_STATUS_PARAM_ERROR},
        {"VLAN edit", [](kr_acl_rule *r) { r->vlan_edit = 32; }, KR_STATUS_PARAM_ERROR},
        {"forward type", [](kr_acl_rule *r) { r->forward_type = 3; }, KR_STATUS_PARAM_ERROR},
        {"group", [](kr_acl_rule *r) { r->forward_type = 2, r->forward_group_id = 9; }, KR_STATUS_ENTRY_NOT_FOUND},
        {"group 0", [](kr_acl_rule *r) { r->forward_type = 2; }, KR_STATUS_ENTRY_NOT_FOUND},
        {"counter", [](kr_acl_rule *r) { r->counter_id = 9; }, KR_STATUS_ENTRY_NOT_FOUND},
        {"counter", [](kr_acl_rule *r) { r->counter_id = UINT32_MAX; }, KR_STATUS_ENTRY_NOT_FOUND},
    };
    ASSERT_EQ(set_rule(make_rule(5)), KR_STATUS_SUCCESS);
    for (const row &each : rows) {
        kr_acl_rule batch[2] = {make_rule(4), make_rule(5, 0x0800)};
        each.spoil(&batch[1]);
        EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_SET, acl_id, batch, 2), each.status)
            << each.what;
        ASSERT_THAT(offsets(), ElementsAre(5)) << each.what << ": the good rule of the batch is not written either";
    }
    EXPECT_EQ(rules()[0].rule.key.eth_type, 0);
}

TEST_F(acl_rm_rules, every_known_action_is_taken) {
    const uint32_t group = create_group({});
    uint32_t offset = 0;
    for (const uint32_t vlan_edit : {0u, 4u, 8u, 12u, 16u, 24u, 28u}) {
        for (const uint32_t trap_action : {0u, 3u, 4u}) {
            for (const uint32_t forward_type : {0u, 1u, 2u}) {
                kr_acl_rule rule = make_rule(offset++);
                rule.vlan_edit = vlan_edit;
                rule.trap_action = trap_action;
                rule.trap_mode = trap_action == 3 ? 3 : 0;
                rule.forward_type = forward_type;
                rule.forward_log_port = 0xFFFFFFFF; // ports need not exist
                rule.forward_group_id = group;
                EXPECT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
            }
        }
    }
    EXPECT_EQ(usage().rule_count, 63u);
}

TEST_F(acl_rm_rules, rule_set_checks_its_arguments) {
    kr_acl_rule rule = make_rule(0);
    for (const uint32_t command : {KR_ACL_RM_CMD_RULE_SET, KR_ACL_RM_CMD_RULE_DELETE}) {
        EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, command, acl_id, nullptr, 1), KR_STATUS_PARAM_NULL);
        EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, command, acl_id, &rule, 0), KR_STATUS_PARAM_EXCEEDS_RANGE);
        EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, command, acl_id + 1, &rule, 1), KR_STATUS_ENTRY_NOT_FOUND);
        EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, command, 0, &rule, 1), KR_STATUS_ENTRY_NOT_FOUND);
    }
    EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, 5, acl_id, &rule, 1), KR_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(offsets(), IsEmpty());
}

TEST_F(acl_rm_rules, delete_reads_the_access_offset_alone) {
    ASSERT_EQ(set_rule(make_rule(7)), KR_STATUS_SUCCESS);
    EXPECT_EQ(delete_rule(8), KR_STATUS_SUCCESS) << "no rule there";
    EXPECT_EQ(delete_rule(1000), KR_STATUS_PARAM_EXCEEDS_RANGE);
    kr_acl_rule batch[2] = {};
    batch[0].access_offset = 7;
    batch[1].access_offset = 1000;
    EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_DELETE, acl_id, batch, 2),
              KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_THAT(offsets(), ElementsAre(7)) << "all or nothing";
    EXPECT_TRUE(hit(0x0800));
    EXPECT_EQ(delete_rule(7), KR_STATUS_SUCCESS);
    EXPECT_THAT(offsets(), IsEmpty());
    EXPECT_FALSE(hit(0x0800));
}

TEST_F(acl_rm_rules, the_region_ends_where_the_acl_was_created_to_end) {
    acl_id = create_acl(10);
    for (uint32_t offset = 0; offset < 10; offset++) {
        EXPECT_EQ(set_rule(make_rule(offset)), KR_STATUS_SUCCESS);
    }
    EXPECT_EQ(set_rule(make_rule(10)), KR_STATUS_PARAM_EXCEEDS_RANGE);
    kr_acl_rule rule;
    EXPECT_EQ(get_rule(10, &rule), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(usage().rule_count, 10u);
}

TEST_F(acl_rm_rules, all_1000_offsets_take_a_rule_again_and_again) {
    for (int round = 0; round < 3; round++) {
        for (uint32_t offset = 0; offset < KR_SOFT_MAX_RULES; offset++) {
            ASSERT_EQ(set_rule(make_rule(offset, static_cast<uint16_t>(offset + 1))), KR_STATUS_SUCCESS);
        }
        EXPECT_EQ(usage().rule_count, 1000u);
        for (uint32_t offset = 0; round < 2 && offset < KR_SOFT_MAX_RULES; offset++) {
            ASSERT_EQ(delete_rule((offset * 7 + 13) % KR_SOFT_MAX_RULES), KR_STATUS_SUCCESS);
        }
    }
    for (uint32_t offset = 0; offset < KR_SOFT_MAX_RULES; offset++) {
        ASSERT_TRUE(hit(static_cast<uint16_t>(offset + 1)));
        ASSERT_EQ(read_activity(offset), 1u);
    }
}

TEST_F(acl_rm_rules, get_checks_its_arguments) {
    kr_acl_rule rule = make_rule(3);
    ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
    uint32_t count = 1;
    EXPECT_EQ(kr_acl_rm_api_acl_rule_get(handle, acl_id, 0, nullptr, &count), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_acl_rule_get(handle, acl_id, 0, &rule, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_acl_rule_get(handle, acl_id, 1, &rule, &count), KR_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_acl_rm_api_acl_rule_get(handle, acl_id + 1, 0, &rule, &count), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(get_rule(3, &rule, 1), KR_STATUS_PARAM_ERROR) << "activity mode";
    EXPECT_EQ(get_rule(4, &rule), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(count, 1u);
    count = 0;
    EXPECT_EQ(kr_acl_rm_api_acl_rule_get(handle, acl_id, 0, &rule, &count), KR_STATUS_PARAM_EXCEEDS_RANGE);
}

TEST_F(acl_rm_rules, get_of_several_stops_at_a_hole_and_says_how_many_it_read) {
    for (const uint32_t offset : {1u, 2u, 4u}) {
        ASSERT_EQ(set_rule(make_rule(offset, static_cast<uint16_t>(0x100 + offset))), KR_STATUS_SUCCESS);
    }
    kr_acl_rule batch[4] = {};
    const uint32_t wanted[4] = {4, 1, 3, 2};
    for (int i = 0; i < 4; i++) {
        batch[i].access_offset = wanted[i];
    }
    uint32_t count = 4;
    EXPECT_EQ(kr_acl_rm_api_acl_rule_get(handle, acl_id, 0, batch, &count), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(batch[0].key.eth_type, 0x104);
    EXPECT_EQ(batch[1].key.eth_type, 0x101);
    EXPECT_EQ(batch[3].valid, 0);
    batch[3].access_offset = 1000;
    count = 4;
    batch[0].key.eth_type = 0;
    EXPECT_EQ(kr_acl_rm_api_acl_rule_get(handle, acl_id, 0, batch, &count), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(batch[0].key.eth_type, 0) << "nothing was read";
}

// ---- hits, activity and counters ------------------------------------------------------------------------------------

TEST_F(acl_rm_rules, the_lowest_offset_wins_and_its_action_is_given) {
    kr_acl_rule rule = make_rule(20, 0x0800);
    rule.trap_action = KR_ACL_TRAP_ACTION_TRAP;
    rule.trap_mode = KR_ACL_TRAP_MODE_TRAP_ID;
    rule.trap_id = 464;
    rule.vlan_edit = KR_ACL_VLAN_EDIT_PUSH_VID_PCP;
    rule.vlan_id = 100;
    rule.vlan_pcp = 5;
    rule.forward_type = KR_ACL_FORWARD_GROUP;
    rule.forward_log_port = 0x10300;
    rule.forward_group_id = create_group({});
    ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
    ASSERT_EQ(set_rule(make_rule(21)), KR_STATUS_SUCCESS);
    kr_acl_key key{};
    key.eth_type = 0x0800;
    key.in_log_port = test_port;
    kr_soft::rule_action action{};
    ASSERT_TRUE(kr_soft::acl_match(key, 64, 1, &action));
    EXPECT_EQ(action.trap_action, uint32_t{KR_ACL_TRAP_ACTION_TRAP});
    EXPECT_EQ(action.trap_id, 464u);
    EXPECT_EQ(action.vlan_edit, uint32_t{KR_ACL_VLAN_EDIT_PUSH_VID_PCP});
    EXPECT_EQ(action.vlan_id, 100u);
    EXPECT_EQ(action.vlan_pcp, 5u);
    EXPECT_EQ(action.forward_type, uint32_t{KR_ACL_FORWARD_GROUP});
    EXPECT_EQ(action.forward_log_port, 0x10300u);
    EXPECT_EQ(action.forward_group_id, rule.forward_group_id);
    ASSERT_EQ(set_rule(make_rule(19)), KR_STATUS_SUCCESS);
    ASSERT_TRUE(kr_soft::acl_match(key, 64, 1, &action));
    EXPECT_EQ(action.trap_action, uint32_t{KR_ACL_TRAP_ACTION_DISCARD});
    EXPECT_EQ(action.trap_id, 0u);
}

TEST_F(acl_rm_rules, a_rule_keeps_naming_a_group_that_is_destroyed) {
    kr_acl_rule rule = make_rule(0);
    rule.trap_action = KR_ACL_TRAP_ACTION_NONE;
    rule.forward_type = KR_ACL_FORWARD_GROUP;
    rule.forward_group_id = create_group({1});
    ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
    ASSERT_EQ(set_group(KR_ACL_RM_CMD_GROUP_DESTROY, rule.forward_group_id, {}), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x0800));
    EXPECT_NE(create_group({2}), rule.forward_group_id) << "its id is not taken by the next group";
    kr_soft::group_members members;
    EXPECT_FALSE(kr_soft::acl_group_members_get(rule.forward_group_id, &members));
}

TEST_F(acl_rm_rules, activity_is_reported_once_per_hit_period_and_only_when_asked) {
    ASSERT_EQ(set_rule(make_rule(3)), KR_STATUS_SUCCESS);
    EXPECT_EQ(read_activity(3), 0u);
    EXPECT_TRUE(hit(0x0800));
    EXPECT_TRUE(hit(0x0800));
    kr_acl_rule rule;
    ASSERT_EQ(get_rule(3, &rule, KR_ACL_ACTIVITY_NONE), KR_STATUS_SUCCESS);
    EXPECT_EQ(rule.activity, 0u) << "mode 0 neither reports nor clears";
    EXPECT_EQ(rules()[0].activity, 1u) << "nor does looking inside";
    EXPECT_EQ(read_activity(3), 1u);
    EXPECT_EQ(read_activity(3), 0u);
    EXPECT_TRUE(hit(0x0800));
    ASSERT_EQ(set_rule(make_rule(3)), KR_STATUS_SUCCESS);
    EXPECT_EQ(read_activity(3), 0u) << "a rule that is written anew was not hit";
}

TEST_F(acl_rm_rules, hits_are_counted_in_bytes_and_packets_for_the_winner_alone) {
    const uint32_t counter = create_counter();
    ASSERT_EQ(set_rule_with_counter(1, counter), KR_STATUS_SUCCESS);
    ASSERT_EQ(set_rule(make_rule(2)), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x1001, 100));
    EXPECT_TRUE(hit(0x1001, 6000, 4));
    EXPECT_TRUE(hit(0x0800, 70));
    kr_acl_counter_values values;
    ASSERT_EQ(read_counter(counter, &values), KR_STATUS_SUCCESS);
    EXPECT_EQ(values.first, 6100u);
    EXPECT_EQ(values.second, 5u);
    const std::vector<kr_soft_rule_state> states = rules();
    EXPECT_EQ(states[0].hit_bytes, 6100u);
    EXPECT_EQ(states[0].hit_packets, 5u);
    EXPECT_EQ(states[1].hit_bytes, 70u);
    EXPECT_EQ(states[1].hit_packets, 1u);
}

TEST_F(acl_rm_rules, a_counter_goes_with_the_rule_that_names_it) {
    const uint32_t deleted = create_counter();
    const uint32_t overwritten = create_counter();
    const uint32_t kept = create_counter();
    ASSERT_EQ(set_rule_with_counter(1, deleted), KR_STATUS_SUCCESS);
    ASSERT_EQ(set_rule_with_counter(2, overwritten), KR_STATUS_SUCCESS);
    ASSERT_EQ(set_rule_with_counter(3, kept), KR_STATUS_SUCCESS);
    ASSERT_EQ(delete_rule(1), KR_STATUS_SUCCESS);
    ASSERT_EQ(set_rule(make_rule(2)), KR_STATUS_SUCCESS);
    ASSERT_EQ(move(3, 1, 9), KR_STATUS_SUCCESS);
    EXPECT_FALSE(counter_exists(deleted));
    EXPECT_FALSE(counter_exists(overwritten));
    EXPECT_TRUE(counter_exists(kept));
    EXPECT_EQ(set_rule_with_counter(1, deleted), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(usage().counter_count, 1u);
}

TEST_F(acl_rm_rules, a_rule_written_over_itself_keeps_its_counter_and_the_count) {
    const uint32_t counter = create_counter();
    ASSERT_EQ(set_rule_with_counter(1, counter), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x1001, 100));
    ASSERT_EQ(set_rule_with_counter(1, counter), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x1001, 100));
    kr_acl_counter_values values;
    ASSERT_EQ(read_counter(counter, &values), KR_STATUS_SUCCESS);
    EXPECT_EQ(values.second, 2u);
    EXPECT_EQ(rules()[0].hit_packets, 1u) << "the rule's own count is that of the new rule";
}

TEST_F(acl_rm_rules, rules_share_a_counter_and_the_last_one_releases_it) {
    const uint32_t counter = create_counter();
    ASSERT_EQ(set_rule_with_counter(1, counter), KR_STATUS_SUCCESS);
    ASSERT_EQ(set_rule_with_counter(2, counter), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x1001, 100));
    EXPECT_TRUE(hit(0x1002, 200));
    ASSERT_EQ(delete_rule(1), KR_STATUS_SUCCESS);
    kr_acl_counter_values values;
    ASSERT_EQ(read_counter(counter, &values), KR_STATUS_SUCCESS);
    EXPECT_EQ(values.first, 300u);
    EXPECT_EQ(values.second, 2u);
    ASSERT_EQ(delete_rule(2), KR_STATUS_SUCCESS);
    EXPECT_FALSE(counter_exists(counter));
}

TEST_F(acl_rm_rules, a_batch_passes_a_counter_from_rule_to_rule) {
    const uint32_t counter = create_counter();
    ASSERT_EQ(set_rule_with_counter(1, counter), KR_STATUS_SUCCESS);
    kr_acl_rule batch[2] = {make_rule(1), make_rule(2)};
    batch[1].counter_id = counter;
    ASSERT_EQ(kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_SET, acl_id, batch, 2), KR_STATUS_SUCCESS);
    EXPECT_TRUE(counter_exists(counter));
    ASSERT_EQ(delete_rule(1), KR_STATUS_SUCCESS);
    EXPECT_TRUE(counter_exists(counter));
    ASSERT_EQ(delete_rule(2), KR_STATUS_SUCCESS);
    EXPECT_FALSE(counter_exists(counter));
}

TEST_F(acl_rm_rules, of_two_rules_for_one_offset_in_a_batch_the_later_stays) {
    const uint32_t first = create_counter();
    const uint32_t second = create_counter();
    kr_acl_rule batch[2] = {make_rule(1, 0x0800), make_rule(1, 0x0806)};
    batch[0].counter_id = first;
    batch[1].counter_id = second;
    ASSERT_EQ(kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_SET, acl_id, batch, 2), KR_STATUS_SUCCESS);
    EXPECT_EQ(usage().rule_count, 1u);
    EXPECT_EQ(rules()[0].rule.key.eth_type, 0x0806);
    EXPECT_FALSE(counter_exists(first));
    EXPECT_TRUE(counter_exists(second));
    EXPECT_FALSE(hit(0x0800));
}

TEST_F(acl_rm_rules, a_counter_starts_at_zero_when_its_id_is_used_again) {
    const uint32_t counter = create_counter();
    ASSERT_EQ(set_rule_with_counter(1, counter), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x1001));
    ASSERT_EQ(delete_rule(1), KR_STATUS_SUCCESS);
    for (uint32_t i = 1; i < KR_SOFT_MAX_COUNTERS; i++) {
        EXPECT_NE(create_counter(), counter) << "not before all others were in use";
    }
    ASSERT_EQ(create_counter(), counter);
    kr_acl_counter_values values;
    ASSERT_EQ(read_counter(counter, &values), KR_STATUS_SUCCESS);
    EXPECT_EQ(values.first + values.second, 0u);
}

} // namespace
