/*
 * A software switch for a test: fresh, with one ACL, and short ways to write rules, feed and read frames and open
 * channels to the CPU. Uses the contract and the control header only.
 */
#ifndef KR_TESTS_SOFT_SWITCH_H
#define KR_TESTS_SOFT_SWITCH_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <utility>
#include <vector>

#include <poll.h>

#include "kr_acl_rm.h"
#include "kr_api.h"
#include "kr_host_ifc.h"
#include "kr_soft.h"
#include "test_frames.h"

namespace kr_test {

struct received {
    kr_receive_info info;
    bytes data;
};

// A host-interface descriptor with registrations.
class cpu_channel {
  public:
    cpu_channel(kr_api_handle device, std::initializer_list<uint32_t> trap_ids) : device_(device) {
        EXPECT_EQ(kr_api_host_ifc_open(device_, &descriptor), KR_STATUS_SUCCESS);
        for (const uint32_t trap_id : trap_ids) {
            EXPECT_EQ(trap_set(KR_API_CMD_REGISTER, trap_id), KR_STATUS_SUCCESS);
        }
    }
    ~cpu_channel() {
        close();
    }
    cpu_channel(const cpu_channel &) = delete;
    cpu_channel &operator=(const cpu_channel &) = delete;

    kr_status close() {
        return kr_api_host_ifc_close(device_, &descriptor);
    }
    kr_status trap_set(uint32_t command, uint32_t trap_id) {
        kr_user_channel channel = {.type = KR_USER_CHANNEL_TYPE_FD, .descriptor = descriptor};
        return kr_api_host_ifc_trap_id_register_set(device_, command, 0, trap_id, &channel);
    }
    bool readable(int timeout_ms = 0) const {
        pollfd waited = {.fd = descriptor.fd, .events = POLLIN, .revents = 0};
        return poll(&waited, 1, timeout_ms) == 1 && (waited.revents & POLLIN) != 0;
    }
    received take(uint32_t room = 4000) {
        received result{};
        result.data.resize(room);
        uint32_t size = room;
        EXPECT_EQ(kr_lib_host_ifc_recv(&descriptor, result.data.data(), &size, &result.info), KR_STATUS_SUCCESS);
        result.data.resize(size);
        return result;
    }

    kr_host_ifc_fd descriptor{};

  private:
    kr_api_handle device_;
};

class soft_switch : public testing::Test {
  protected:
    soft_switch() {
        kr_soft_reset();
        const kr_acl_rm_init_params params = {.mode = 1};
        EXPECT_EQ(kr_api_open(nullptr, &device), KR_STATUS_SUCCESS);
        EXPECT_EQ(kr_acl_rm_api_open(&resource_manager, nullptr), KR_STATUS_SUCCESS);
        EXPECT_EQ(kr_acl_rm_api_init(resource_manager, &params), KR_STATUS_SUCCESS);
        kr_acl_attributes attributes = {
            0, KR_ACL_KEY_TYPE_TWELVE_FIELDS, 1, 0, 0, KR_SOFT_MAX_RULES, KR_SOFT_MAX_RULES};
        EXPECT_EQ(kr_acl_rm_api_acl_set(resource_manager, KR_ACL_RM_CMD_CREATE, &attributes), KR_STATUS_SUCCESS);
        acl_id = attributes.acl_id;
    }
    ~soft_switch() override {
        kr_soft_reset();
    }

    void bind(uint32_t log_port) {
        EXPECT_EQ(kr_acl_rm_api_acl_bind_port_set(resource_manager, KR_ACL_RM_CMD_BIND, acl_id, &log_port, 1),
                  KR_STATUS_SUCCESS);
    }
    void add_memory_ports(std::initializer_list<uint32_t> log_ports) {
        for (const uint32_t log_port : log_ports) {
            ASSERT_EQ(kr_soft_port_add_memory(log_port), KR_STATUS_SUCCESS);
            bind(log_port);
        }
    }

    // A rule that matches everything (or what enters by `in_port`) and does nothing yet.
    static kr_acl_rule rule_at(uint32_t offset, uint32_t in_port = 0) {
        kr_acl_rule rule{};
        rule.set_offset = offset;
        rule.access_offset = offset;
        rule.valid = 1;
        rule.key_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
        rule.mask_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
        rule.action_valid = 1;
        rule.action_word_312 = 0xFFFFFFFF;
        rule.action_word_328 = 0xFFFFFFFF;
        rule.key.in_log_port = in_port;
        rule.mask.in_log_port = in_port != 0 ? 0xFFFFFFFF : 0;
        return rule;
    }
    static kr_acl_rule forward_rule(uint32_t offset, uint32_t to_port, uint32_t in_port = 0) {
        kr_acl_rule rule = rule_at(offset, in_port);
        rule.forward_type = KR_ACL_FORWARD_PORT;
        rule.forward_log_port = to_port;
        return rule;
    }
    static kr_acl_rule group_rule(uint32_t offset, uint32_t group_id) {
        kr_acl_rule rule = rule_at(offset);
        rule.forward_type = KR_ACL_FORWARD_GROUP;
        rule.forward_group_id = group_id;
        return rule;
    }
    static kr_acl_rule trap_rule(uint32_t offset, uint16_t trap_id = KR_TRAP_ID_PACKET_IN) {
        kr_acl_rule rule = rule_at(offset);
        rule.trap_action = KR_ACL_TRAP_ACTION_TRAP;
        rule.trap_mode = KR_ACL_TRAP_MODE_TRAP_ID;
        rule.trap_id = trap_id;
        return rule;
    }
    static kr_acl_rule discard_rule(uint32_t offset) {
        kr_acl_rule rule = rule_at(offset);
        rule.trap_action = KR_ACL_TRAP_ACTION_DISCARD;
        return rule;
    }
    void set(kr_acl_rule rule) {
        EXPECT_EQ(kr_acl_rm_api_acl_rule_set(resource_manager, KR_ACL_RM_CMD_RULE_SET, acl_id, &rule, 1),
                  KR_STATUS_SUCCESS);
    }
    uint32_t make_group(const std::vector<uint32_t> &members) {
        uint32_t group_id = 0;
        EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(resource_manager, KR_ACL_RM_CMD_GROUP_CREATE,
                                                 static_cast<uint32_t>(members.size()), members.data(), &group_id),
                  KR_STATUS_SUCCESS);
        return group_id;
    }
    void change_group(uint32_t command, uint32_t group_id, const std::vector<uint32_t> &members) {
        EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(resource_manager, command, static_cast<uint32_t>(members.size()),
                                                 members.data(), &group_id),
                  KR_STATUS_SUCCESS);
    }

    static void inject(uint32_t log_port, const bytes &frame) {
        EXPECT_EQ(kr_soft_port_inject(log_port, frame.data(), static_cast<uint32_t>(frame.size())), KR_STATUS_SUCCESS);
    }
    // The oldest frame that left by a port in memory; empty when there is none.
    static bytes read(uint32_t log_port, uint32_t timeout_us = 0) {
        bytes frame(KR_SOFT_MAX_FRAME);
        auto size = static_cast<uint32_t>(frame.size());
        if (kr_soft_port_read(log_port, frame.data(), &size, timeout_us) != KR_STATUS_SUCCESS) {
            return {};
        }
        frame.resize(size);
        return frame;
    }
    static kr_soft_port_counters counters(uint32_t log_port) {
        kr_soft_port_counters result{};
        EXPECT_EQ(kr_soft_port_counters_get(log_port, &result), KR_STATUS_SUCCESS);
        return result;
    }
    static uint64_t drops_in_all() {
        uint64_t sum = 0;
        for (uint32_t i = 0; i < KR_SOFT_DROP_REASON_COUNT; i++) {
            sum += kr_soft_drop_count(static_cast<kr_soft_drop_reason>(i));
        }
        return sum;
    }
    // Exactly `count` drops since the last reset, all for this reason.
    static void expect_only_drops(kr_soft_drop_reason reason, uint64_t count = 1) {
        EXPECT_EQ(kr_soft_drop_count(reason), count) << kr_soft_drop_reason_name(reason);
        EXPECT_EQ(drops_in_all(), count);
    }

    kr_api_handle device = 0;
    kr_acl_rm_handle resource_manager = 0;
    uint32_t acl_id = 0;
};

} // namespace kr_test

#endif
