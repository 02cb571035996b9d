/*
 * Frames and changes at once: a frame meets a rule either before a change or after it, and no hit is lost. Meant for
 * the thread sanitizer, and of use without it.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "acl_rm_fixture.h"

namespace {

constexpr uint32_t frame_threads = 2;
constexpr uint32_t rounds = 2000;

class acl_rm_threads : public acl_rm_test {
  protected:
    void SetUp() override {
        acl_rm_test::SetUp();
        ASSERT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {test_port}), KR_STATUS_SUCCESS);
    }

    // Runs `change` `rounds` times while other threads call frame() until it is done; each of them at least once.
    template <typename Frame, typename Change> static void run(Frame frame, Change change) {
        std::atomic<bool> done = false;
        std::atomic<uint32_t> started = 0;
        std::vector<std::thread> threads;
        for (uint32_t i = 0; i < frame_threads; i++) {
            threads.emplace_back([&] {
                frame();
                started++;
                while (!done) {
                    frame();
                }
            });
        }
        while (started < frame_threads) {
            std::this_thread::yield();
        }
        for (uint32_t round = 0; round < rounds; round++) {
            change(round);
        }
        done = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
    }

    static bool match(uint16_t eth_type, kr_soft::rule_action *action) {
        kr_acl_key key{};
        key.eth_type = eth_type;
        key.in_log_port = test_port;
        return kr_soft::acl_match(key, 100, 1, action);
    }

    static kr_acl_rule make_port_rule(uint32_t offset, uint16_t eth_type, uint32_t number) {
        kr_acl_rule rule = make_rule(offset, eth_type);
        rule.trap_action = KR_ACL_TRAP_ACTION_NONE;
        rule.forward_type = KR_ACL_FORWARD_PORT;
        rule.forward_log_port = number;
        rule.vlan_id = static_cast<uint16_t>(number);
        return rule;
    }
};

TEST_F(acl_rm_threads, a_rule_that_is_overwritten_is_the_old_one_or_the_new_one) {
    ASSERT_EQ(set_rule(make_port_rule(7, 0x0800, 1)), KR_STATUS_SUCCESS);
    std::atomic<uint64_t> missed = 0;
    std::atomic<uint64_t> torn = 0;
    run(
        [&] {
            kr_soft::rule_action action{};
            missed += match(0x0800, &action) ? 0 : 1;
            torn += action.forward_log_port != action.vlan_id ? 1 : 0;
        },
        [&](uint32_t round) { ASSERT_EQ(set_rule(make_port_rule(7, 0x0800, 1 + round % 1000)), KR_STATUS_SUCCESS); });
    EXPECT_EQ(missed, 0u);
    EXPECT_EQ(torn, 0u);
}

TEST_F(acl_rm_threads, no_frame_is_missed_or_lost_while_its_rule_moves) {
    kr_acl_rule rule = make_port_rule(0, 0x0800, 1);
    rule.counter_id = create_counter();
    ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
    for (uint32_t offset = 1; offset < 15; offset++) {
        ASSERT_EQ(set_rule(make_port_rule(offset, static_cast<uint16_t>(0x1000 + offset), 2)), KR_STATUS_SUCCESS);
    }
    std::atomic<uint64_t> sent = 0;
    std::atomic<uint64_t> missed = 0;
    uint32_t at = 0;
    run(
        [&] {
            kr_soft::rule_action action{};
            missed += match(0x0800, &action) && action.forward_log_port == 1 ? 0 : 1;
            sent++;
        },
        [&](uint32_t) {
            const uint32_t target = at < 900 ? at + 7 : 0;
            ASSERT_EQ(move(at, 15, target), KR_STATUS_SUCCESS);
            at = target;
        });
    EXPECT_EQ(missed, 0u);
    kr_acl_counter_values values;
    ASSERT_EQ(read_counter(rule.counter_id, &values), KR_STATUS_SUCCESS);
    EXPECT_EQ(values.second, sent);
    EXPECT_EQ(values.first, sent * 100);
    EXPECT_EQ(rules()[0].hit_packets, sent);
}

TEST_F(acl_rm_threads, counters_groups_bindings_and_acls_come_and_go_under_traffic) {
    const uint32_t group = create_group({1, 2, 3});
    std::atomic<uint64_t> wrong = 0;
    run(
        [&] {
            kr_soft::rule_action action{};
            if (match(0x0800, &action)) {
                wrong += action.forward_log_port == 5 ? 0 : 1;
            }
            kr_soft::group_members members;
            wrong += kr_soft::acl_group_members_get(group, &members) && members.count >= 3 ? 0 : 1;
            kr_soft_usage now{};
            kr_soft::acl_rm_usage_fill(&now);
        },
        [&](uint32_t round) {
            kr_acl_rule rule = make_port_rule(round % 1000, 0x0800, 5);
            rule.counter_id = create_counter();
            ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
            kr_acl_counter_values values;
            ASSERT_EQ(read_counter(rule.counter_id, &values), KR_STATUS_SUCCESS);
            ASSERT_EQ(values.first, values.second * 100) << "bytes and packets belong together";
            ASSERT_EQ(delete_rule(round % 1000), KR_STATUS_SUCCESS);
            ASSERT_EQ(set_group(round % 2 == 0 ? 9 : 10, group, {7, 8}), KR_STATUS_SUCCESS);
            ASSERT_EQ(bind(KR_ACL_RM_CMD_UNBIND, acl_id, {test_port}), KR_STATUS_SUCCESS);
            if (round % 100 == 0) {
                ASSERT_EQ(destroy_acl(acl_id), KR_STATUS_SUCCESS);
                acl_id = create_acl();
            }
            ASSERT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {test_port}), KR_STATUS_SUCCESS);
        });
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(usage().counter_count, 0u);
}

} // namespace
