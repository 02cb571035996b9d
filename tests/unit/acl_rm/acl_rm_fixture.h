/*
 * What the tests of the ACL resource manager share: an open, initialised handle with one ACL, and short ways to write,
 * read and hit rules. Each test starts from a fresh resource manager.
 */
#ifndef KR_TEST_ACL_RM_FIXTURE_H
#define KR_TEST_ACL_RM_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "acl_rm/acl_lookup.h"
#include "control/contract_call.h"
#include "kr_acl_rm.h"

constexpr uint32_t test_port = 0x10100;

// A rule that discards what has this EtherType (0: any frame).
inline kr_acl_rule make_rule(uint32_t offset, uint16_t eth_type = 0) {
    kr_acl_rule rule{};
    rule.set_offset = offset;
    rule.access_offset = offset;
    rule.valid = 1;
    rule.key_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
    rule.mask_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
    rule.key.eth_type = eth_type;
    rule.mask.eth_type = eth_type != 0 ? 0xFFFF : 0;
    rule.trap_action = KR_ACL_TRAP_ACTION_DISCARD;
    rule.action_valid = 1;
    rule.action_word_312 = 0xFFFFFFFF;
    rule.action_word_328 = 0xFFFFFFFF;
    return rule;
}

inline kr_acl_attributes make_attributes(uint32_t size = KR_SOFT_MAX_RULES) {
    return {0, KR_ACL_KEY_TYPE_TWELVE_FIELDS, 1, 0, 0, size, size};
}

class acl_rm_test : public testing::Test {
  protected:
    void SetUp() override {
        kr_soft::acl_rm_reset();
        kr_soft::contract_call_reset();
        const kr_acl_rm_init_params params{1};
        ASSERT_EQ(kr_acl_rm_api_open(&handle, nullptr), KR_STATUS_SUCCESS);
        ASSERT_EQ(kr_acl_rm_api_init(handle, &params), KR_STATUS_SUCCESS);
        acl_id = create_acl();
    }

    void TearDown() override {
        kr_soft::acl_rm_reset();
        kr_soft::contract_call_reset();
    }

    uint32_t create_acl(uint32_t size = KR_SOFT_MAX_RULES) {
        kr_acl_attributes attributes = make_attributes(size);
        EXPECT_EQ(kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_CREATE, &attributes), KR_STATUS_SUCCESS);
        return attributes.acl_id;
    }

    kr_status destroy_acl(uint32_t id) {
        kr_acl_attributes attributes{};
        attributes.acl_id = id;
        return kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_DESTROY, &attributes);
    }

    kr_status set_rule(kr_acl_rule rule) {
        return kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_SET, acl_id, &rule, 1);
    }

    kr_status delete_rule(uint32_t offset) {
        kr_acl_rule rule{};
        rule.access_offset = offset;
        return kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_DELETE, acl_id, &rule, 1);
    }

    kr_status get_rule(uint32_t offset, kr_acl_rule *rule, uint32_t activity_mode = KR_ACL_ACTIVITY_NONE) {
        *rule = {};
        rule->access_offset = offset;
        rule->activity_mode = activity_mode;
        uint32_t count = 1;
        return kr_acl_rm_api_acl_rule_get(handle, acl_id, 0, rule, &count);
    }

    // 1 or 0; 2 where no rule is.
    uint32_t read_activity(uint32_t offset) {
        kr_acl_rule rule;
        return get_rule(offset, &rule, KR_ACL_ACTIVITY_READ_AND_CLEAR) == KR_STATUS_SUCCESS ? rule.activity : 2;
    }

    kr_status move(uint32_t old_start, uint32_t size, uint32_t new_start) {
        return kr_acl_rm_api_acl_rule_move_block(handle, acl_id, old_start, size, new_start);
    }

    uint32_t create_counter() {
        const kr_acl_counter_attributes attributes{0, 1};
        uint32_t id = 0;
        EXPECT_EQ(kr_acl_rm_api_counter_set(handle, KR_ACL_RM_CMD_CREATE, &attributes, &id), KR_STATUS_SUCCESS);
        return id;
    }

    kr_status read_counter(uint32_t id, kr_acl_counter_values *values) {
        kr_acl_counter_flags flags{};
        return kr_acl_rm_api_counter_get(handle, KR_ACL_RM_CMD_COUNTER_READ, id, &flags, values);
    }

    bool counter_exists(uint32_t id) {
        kr_acl_counter_values values;
        return read_counter(id, &values) == KR_STATUS_SUCCESS;
    }

    uint32_t create_group(const std::vector<uint32_t> &ports) {
        uint32_t id = 0;
        EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, KR_ACL_RM_CMD_GROUP_CREATE,
                                                 static_cast<uint32_t>(ports.size()), ports.data(), &id),
                  KR_STATUS_SUCCESS);
        return id;
    }

    kr_status set_group(uint32_t command, uint32_t id, const std::vector<uint32_t> &ports) {
        return kr_acl_rm_api_acl_mc_group_set(handle, command, static_cast<uint32_t>(ports.size()), ports.data(), &id);
    }

    std::vector<uint32_t> group_ports(uint32_t id) {
        std::vector<uint32_t> ports(KR_SOFT_MAX_PORTS);
        auto count = static_cast<uint32_t>(ports.size());
        EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(handle, id, &count, ports.data()), KR_STATUS_SUCCESS);
        ports.resize(count);
        return ports;
    }

    kr_status bind(uint32_t command, uint32_t id, const std::vector<uint32_t> &ports) {
        return kr_acl_rm_api_acl_bind_port_set(handle, command, id, ports.data(), static_cast<uint32_t>(ports.size()));
    }

    // Lets a frame of `bytes` bytes with this EtherType meet the ACL of `port`.
    static bool hit(uint16_t eth_type, uint32_t bytes = 64, uint32_t packets = 1, uint32_t port = test_port) {
        kr_acl_key key{};
        key.eth_type = eth_type;
        key.in_log_port = port;
        kr_soft::rule_action action{};
        return kr_soft::acl_match(key, bytes, packets, &action);
    }

    static kr_soft_usage usage() {
        kr_soft_usage result{};
        kr_soft::acl_rm_usage_fill(&result);
        return result;
    }

    std::vector<kr_soft_rule_state> rules() {
        std::vector<kr_soft_rule_state> found(KR_SOFT_MAX_RULES);
        auto count = static_cast<uint32_t>(found.size());
        EXPECT_EQ(kr_soft::acl_rm_rules_get(acl_id, found.data(), &count), KR_STATUS_SUCCESS);
        found.resize(count);
        return found;
    }

    // The offsets that hold a rule.
    std::vector<uint32_t> offsets() {
        std::vector<uint32_t> result;
        for (const kr_soft_rule_state &state : rules()) {
            result.push_back(state.rule.set_offset);
        }
        return result;
    }

    static std::string journal() {
        char *const text = kr_soft_journal_text();
        std::string result = text;
        std::free(text);
        return result;
    }

    kr_acl_rm_handle handle = 0;
    uint32_t acl_id = 0;
};

#endif
