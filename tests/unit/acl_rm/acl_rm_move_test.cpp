/*
 * Block moves: by hand where they are refused or overlap, and at random against a model of the table.
 */
#include <gmock/gmock.h>

#include <map>
#include <random>

#include "acl_rm_fixture.h"
#include "tests/support/test_seed.h"

namespace {

using testing::ElementsAre;

class acl_rm_move : public acl_rm_test {
  protected:
    void SetUp() override {
        acl_rm_test::SetUp();
        ASSERT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {test_port}), KR_STATUS_SUCCESS);
    }

    void set_rules(const std::vector<uint32_t> &at) {
        for (const uint32_t offset : at) {
            ASSERT_EQ(set_rule(make_rule(offset, static_cast<uint16_t>(0x1000 + offset))), KR_STATUS_SUCCESS);
        }
    }

    // The EtherTypes of the rules, lowest offset first, less 0x1000: where they were written.
    std::vector<uint32_t> origins() {
        std::vector<uint32_t> result;
        for (const kr_soft_rule_state &state : rules()) {
            result.push_back(state.rule.key.eth_type - 0x1000u);
        }
        return result;
    }
};

TEST_F(acl_rm_move, blocks_move_up_and_down_over_themselves) {
    set_rules({10, 11, 12, 13});
    EXPECT_EQ(move(10, 4, 12), KR_STATUS_SUCCESS);
    EXPECT_THAT(offsets(), ElementsAre(12, 13, 14, 15));
    EXPECT_THAT(origins(), ElementsAre(10, 11, 12, 13));
    EXPECT_EQ(move(12, 4, 11), KR_STATUS_SUCCESS);
    EXPECT_THAT(offsets(), ElementsAre(11, 12, 13, 14));
    EXPECT_THAT(origins(), ElementsAre(10, 11, 12, 13));
    EXPECT_EQ(usage().block_move_count, 2u);
    EXPECT_EQ(usage().moved_rule_count, 8u);
}

TEST_F(acl_rm_move, holes_move_with_the_block) {
    set_rules({10, 12});
    EXPECT_EQ(move(10, 4, 996), KR_STATUS_SUCCESS);
    EXPECT_THAT(offsets(), ElementsAre(996, 998));
    EXPECT_EQ(usage().moved_rule_count, 2u);
}

TEST_F(acl_rm_move, a_rule_outside_the_block_is_never_overwritten) {
    set_rules({10, 11, 20});
    EXPECT_EQ(move(10, 2, 19), KR_STATUS_RESOURCE_IN_USE);
    EXPECT_EQ(move(10, 2, 20), KR_STATUS_RESOURCE_IN_USE);
    EXPECT_EQ(move(11, 1, 10), KR_STATUS_RESOURCE_IN_USE);
    EXPECT_EQ(move(10, 1, 11), KR_STATUS_RESOURCE_IN_USE);
    EXPECT_EQ(move(12, 1, 20), KR_STATUS_RESOURCE_IN_USE) << "not even by a hole";
    EXPECT_THAT(offsets(), ElementsAre(10, 11, 20));
    EXPECT_THAT(origins(), ElementsAre(10, 11, 20));
    EXPECT_EQ(usage().block_move_count, 0u);
}

TEST_F(acl_rm_move, both_blocks_lie_inside_the_region) {
    set_rules({999});
    EXPECT_EQ(move(999, 2, 0), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(move(1000, 1, 0), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(move(999, 1, 1000), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(move(998, 2, 999), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(move(UINT32_MAX, 2, 0), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(move(1, UINT32_MAX, 2), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(kr_acl_rm_api_acl_rule_move_block(handle, acl_id + 1, 0, 1, 2), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(move(0, 1000, 0), KR_STATUS_SUCCESS) << "onto itself";
    EXPECT_EQ(move(5, 0, 7), KR_STATUS_SUCCESS) << "nothing";
    EXPECT_THAT(offsets(), ElementsAre(999));
    EXPECT_EQ(usage().block_move_count, 0u);
}

TEST_F(acl_rm_move, activity_counts_and_counters_stay_with_their_rules) {
    kr_acl_rule rule = make_rule(5, 0x0800);
    rule.counter_id = create_counter();
    ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
    ASSERT_EQ(set_rule(make_rule(6, 0x0806)), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x0800, 100));
    EXPECT_EQ(move(5, 2, 500), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x0800, 100));
    EXPECT_EQ(read_activity(5), 2u) << "nothing is left behind";
    EXPECT_EQ(read_activity(500), 1u);
    EXPECT_EQ(read_activity(501), 0u);
    EXPECT_EQ(rules()[0].hit_bytes, 200u);
    kr_acl_counter_values values;
    ASSERT_EQ(read_counter(rule.counter_id, &values), KR_STATUS_SUCCESS);
    EXPECT_EQ(values.second, 2u);
    kr_acl_rule read;
    ASSERT_EQ(get_rule(500, &read), KR_STATUS_SUCCESS);
    EXPECT_EQ(read.set_offset, 500u);
    EXPECT_EQ(read.access_offset, 500u);
    EXPECT_EQ(read.counter_id, rule.counter_id);
}

TEST_F(acl_rm_move, which_rule_wins_changes_with_the_order) {
    kr_acl_rule any = make_rule(10);
    any.trap_action = KR_ACL_TRAP_ACTION_NONE;
    ASSERT_EQ(set_rule(any), KR_STATUS_SUCCESS);
    ASSERT_EQ(set_rule(make_rule(5, 0x0800)), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x0800));
    EXPECT_EQ(move(5, 1, 900), KR_STATUS_SUCCESS);
    EXPECT_TRUE(hit(0x0800));
    EXPECT_EQ(rules()[0].hit_packets, 1u);
    EXPECT_EQ(rules()[1].hit_packets, 1u);
}

TEST_F(acl_rm_move, random_operations_agree_with_a_model) {
    struct model_rule {
        uint16_t eth_type;
        uint32_t counter_id;
        uint64_t packets;
        bool active;
    };
    const uint64_t seed = kr_test::test_seed();
    SCOPED_TRACE(testing::Message() << "KR_TEST_SEED=" << seed);
    std::mt19937_64 random(seed);
    const auto below = [&](uint32_t bound) { return static_cast<uint32_t>(random() % bound); };

    std::map<uint32_t, model_rule> model;
    uint32_t refused = 0;
    uint32_t moved = 0;
    for (int step = 0; step < 20000; step++) {
        const uint32_t offset = below(KR_SOFT_MAX_RULES);
        switch (below(8)) {
        case 0:
        case 1: { // write
            kr_acl_rule rule = make_rule(offset, static_cast<uint16_t>(0x1000 + below(200)));
            rule.counter_id = below(4) == 0 && usage().counter_count < KR_SOFT_MAX_COUNTERS ? create_counter() : 0;
            ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
            model[offset] = {rule.key.eth_type, rule.counter_id, 0, false};
            break;
        }
        case 2: // delete
            ASSERT_EQ(delete_rule(offset), KR_STATUS_SUCCESS);
            model.erase(offset);
            break;
        case 3:
        case 4: { // move
            const uint32_t size = below(30);
            const uint32_t target = below(2) == 0 ? below(KR_SOFT_MAX_RULES) : offset + below(20) - 10;
            bool inside =
                offset + size <= KR_SOFT_MAX_RULES && target < KR_SOFT_MAX_RULES && target + size <= KR_SOFT_MAX_RULES;
            bool free = true;
            for (uint32_t at = target; inside && at < target + size; at++) {
                free = free && (model.count(at) == 0 || (at >= offset && at < offset + size));
            }
            const kr_status expected = !inside ? KR_STATUS_PARAM_EXCEEDS_RANGE
                                       : free  ? KR_STATUS_SUCCESS
                                               : KR_STATUS_RESOURCE_IN_USE;
            ASSERT_EQ(move(offset, size, target), expected) << offset << " " << size << " " << target;
            if (expected != KR_STATUS_SUCCESS) {
                refused++;
                break;
            }
            std::map<uint32_t, model_rule> block;
            for (uint32_t i = 0; i < size; i++) {
                if (auto node = model.extract(offset + i); !node.empty()) {
                    block[target + i] = node.mapped();
                }
            }
            moved += static_cast<uint32_t>(offset != target ? block.size() : 0);
            model.merge(block);
            break;
        }
        case 5: { // activity
            const auto found = model.find(offset);
            ASSERT_EQ(read_activity(offset), found == model.end() ? 2u : found->second.active ? 1u : 0u);
            if (found != model.end()) {
                found->second.active = false;
            }
            break;
        }
        default: { // hit
            const auto eth_type = static_cast<uint16_t>(0x1000 + below(200));
            const auto winner = std::find_if(model.begin(), model.end(),
                                             [=](const auto &each) { return each.second.eth_type == eth_type; });
            ASSERT_EQ(hit(eth_type, 10), winner != model.end());
            if (winner != model.end()) {
                winner->second.packets++;
                winner->second.active = true;
            }
            break;
        }
        }
    }
    EXPECT_GT(refused, 100u) << "the test met refusals";
    EXPECT_GT(moved, 1000u) << "and moved rules";
    EXPECT_EQ(usage().moved_rule_count, moved);

    const std::vector<kr_soft_rule_state> states = rules();
    ASSERT_EQ(states.size(), model.size());
    size_t i = 0;
    uint32_t counters = 0;
    for (const auto &[offset, expected] : model) {
        const kr_soft_rule_state &state = states[i++];
        ASSERT_EQ(state.rule.set_offset, offset);
        ASSERT_EQ(state.rule.key.eth_type, expected.eth_type);
        ASSERT_EQ(state.rule.counter_id, expected.counter_id);
        ASSERT_EQ(state.hit_packets, expected.packets);
        ASSERT_EQ(state.hit_bytes, expected.packets * 10);
        ASSERT_EQ(state.activity, expected.active ? 1u : 0u);
        if (expected.counter_id != 0) {
            counters++;
            kr_acl_counter_values values;
            ASSERT_EQ(read_counter(expected.counter_id, &values), KR_STATUS_SUCCESS);
            ASSERT_EQ(values.second, expected.packets);
        }
    }
    EXPECT_EQ(usage().counter_count, counters) << "no counter leaked";
}

} // namespace
