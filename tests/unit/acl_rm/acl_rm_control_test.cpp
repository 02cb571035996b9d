/*
 * The control functions about the resource manager, through the shared library: what there is, usage, dump and reset.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kr_acl_rm.h"
#include "kr_soft.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class acl_rm_control : public testing::Test {
  protected:
    void SetUp() override {
        kr_soft_reset();
        const kr_acl_rm_init_params params{1};
        ASSERT_EQ(kr_acl_rm_api_open(&handle, nullptr), KR_STATUS_SUCCESS);
        ASSERT_EQ(kr_acl_rm_api_init(handle, &params), KR_STATUS_SUCCESS);
        kr_acl_attributes attributes{0, KR_ACL_KEY_TYPE_TWELVE_FIELDS, 1, 0, 0, 1000, 1000};
        ASSERT_EQ(kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_CREATE, &attributes), KR_STATUS_SUCCESS);
        acl_id = attributes.acl_id;
    }
    void TearDown() override {
        kr_soft_reset();
    }

    void set_rule(uint32_t offset) {
        kr_acl_rule rule{};
        rule.set_offset = offset;
        rule.valid = 1;
        rule.key_type = rule.mask_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
        rule.key.eth_type = 0x0800;
        rule.mask.eth_type = 0xFFFF;
        rule.key.ipv4_dst = 0x0A000001;
        rule.mask.ipv4_dst = 0xFFFFFF00;
        rule.key.eth_src[5] = 7;
        rule.mask.eth_src[5] = 0xFF;
        rule.action_valid = 1;
        rule.vlan_edit = KR_ACL_VLAN_EDIT_PUSH_VID_PCP;
        rule.vlan_id = 100;
        rule.vlan_pcp = 5;
        rule.forward_type = KR_ACL_FORWARD_PORT;
        rule.forward_log_port = 0x10200;
        ASSERT_EQ(kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_SET, acl_id, &rule, 1), KR_STATUS_SUCCESS);
    }

    static std::string dump() {
        char *text = nullptr;
        size_t size = 0;
        FILE *const stream = open_memstream(&text, &size);
        kr_soft_dump(stream);
        fclose(stream);
        std::string result(text, size);
        std::free(text);
        return result;
    }

    kr_acl_rm_handle handle = 0;
    uint32_t acl_id = 0;
};

TEST_F(acl_rm_control, acls_get_lists_ids_and_says_how_many) {
    uint32_t ids[4] = {};
    uint32_t count = 4;
    EXPECT_EQ(kr_soft_acls_get(ids, &count), KR_STATUS_SUCCESS);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(ids[0], acl_id);
    count = 0;
    EXPECT_EQ(kr_soft_acls_get(nullptr, &count), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(count, 1u);
    count = 1;
    EXPECT_EQ(kr_soft_acls_get(nullptr, &count), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_soft_acls_get(ids, nullptr), KR_STATUS_PARAM_NULL);
}

TEST_F(acl_rm_control, rules_get_lists_lowest_offset_first_and_fills_what_fits) {
    for (const uint32_t offset : {30u, 10u, 20u}) {
        set_rule(offset);
    }
    std::vector<kr_soft_rule_state> states(3);
    uint32_t count = 3;
    EXPECT_EQ(kr_soft_rules_get(acl_id, states.data(), &count), KR_STATUS_SUCCESS);
    EXPECT_EQ(count, 3u);
    EXPECT_THAT((std::vector{states[0].rule.set_offset, states[1].rule.set_offset, states[2].rule.set_offset}),
                ElementsAre(10, 20, 30));
    states[2].rule.set_offset = 77;
    count = 2;
    EXPECT_EQ(kr_soft_rules_get(acl_id, states.data(), &count), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(states[2].rule.set_offset, 77u);
    EXPECT_EQ(kr_soft_rules_get(acl_id + 1, states.data(), &count), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_rules_get(acl_id, nullptr, &count), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_soft_rules_get(acl_id, states.data(), nullptr), KR_STATUS_PARAM_NULL);
}

TEST_F(acl_rm_control, usage_counts_every_object) {
    set_rule(1);
    set_rule(2);
    const uint32_t port = 0x10100;
    ASSERT_EQ(kr_acl_rm_api_acl_bind_port_set(handle, KR_ACL_RM_CMD_BIND, acl_id, &port, 1), KR_STATUS_SUCCESS);
    const kr_acl_counter_attributes attributes{0, 1};
    uint32_t id = 0;
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(kr_acl_rm_api_counter_set(handle, KR_ACL_RM_CMD_CREATE, &attributes, &id), KR_STATUS_SUCCESS);
    }
    ASSERT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, KR_ACL_RM_CMD_GROUP_CREATE, 0, nullptr, &id), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_acl_rm_api_acl_rule_move_block(handle, acl_id, 1, 2, 5), KR_STATUS_SUCCESS);

    kr_soft_usage usage;
    kr_soft_usage_get(&usage);
    EXPECT_EQ(usage.acl_count, 1u);
    EXPECT_EQ(usage.rule_count, 2u);
    EXPECT_EQ(usage.counter_count, 3u);
    EXPECT_EQ(usage.group_count, 1u);
    EXPECT_EQ(usage.binding_count, 1u);
    EXPECT_EQ(usage.acl_rm_handle_count, 1u);
    EXPECT_EQ(usage.moved_rule_count, 2u);
    EXPECT_EQ(usage.block_move_count, 1u);
    kr_soft_usage_get(nullptr);
}

TEST_F(acl_rm_control, reset_leaves_nothing_and_closes_handles) {
    set_rule(1);
    kr_soft_journal_start();
    const kr_acl_rm_handle stale = handle;
    kr_soft_reset();
    kr_soft_usage usage;
    kr_soft_usage_get(&usage);
    EXPECT_EQ(usage.acl_count + usage.rule_count + usage.counter_count + usage.group_count + usage.binding_count +
                  usage.acl_rm_handle_count,
              0u);
    EXPECT_EQ(usage.moved_rule_count + usage.block_move_count, 0u);
    SetUp();
    EXPECT_NE(handle, stale);
    uint32_t count = 1;
    uint32_t port = 0;
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(stale, 1, &count, &port), KR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(acl_id, 1u) << "identifiers start again";
    char *const text = kr_soft_journal_text();
    EXPECT_STREQ(text, "");
    std::free(text);
}

TEST_F(acl_rm_control, dump_shows_acls_rules_bindings_and_groups) {
    set_rule(12);
    const uint32_t ports[] = {0x10100, 0x10200};
    ASSERT_EQ(kr_acl_rm_api_acl_bind_port_set(handle, KR_ACL_RM_CMD_BIND, acl_id, ports, 2), KR_STATUS_SUCCESS);
    uint32_t id = 0;
    ASSERT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, KR_ACL_RM_CMD_GROUP_CREATE, 2, ports, &id), KR_STATUS_SUCCESS);
    const std::string text = dump();
    EXPECT_THAT(text, HasSubstr("acl 1: 1 rules, bound to ports 0x10100 0x10200\n"));
    EXPECT_THAT(text, HasSubstr("      12       0      0            0            0  "
                                "src=00:00:00:00:00:07/00:00:00:00:00:ff type=0x0800 ip_dst=10.0.0.1/0xffffff00 -> "
                                "push_vid=100,pcp=5 port 0x10200\n"));
    EXPECT_THAT(text, HasSubstr("group 1: 2 ports: 0x10100 0x10200\n"));
    kr_soft_dump(nullptr);
}

} // namespace
