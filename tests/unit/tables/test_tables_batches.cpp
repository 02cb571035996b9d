/*
 * Batches against the hardware: whatever the sizes of the batches and the order of their priorities, no rule of a
 * higher priority sits above one of a lower priority, every flow reads back as it was written, and the flows database
 * says where each rule is.
 */
#include <algorithm>
#include <map>
#include <random>

#include "tests/support/test_seed.h"
#include "tests/unit/tables/tables_fixture.h"

using namespace kr_test;

namespace {

using model = std::map<uint64_t, flow_record>; // what the table should hold

uint64_t flow_id_of(const kr_acl_rule &rule) {
    uint64_t id = 0;
    for (const uint8_t byte : rule.key.eth_dst) {
        id = id << 8 | byte;
    }
    return id;
}

flow_record expected_read_back(flow_record flow) {
    flow.vlan_tagged = flow.vlan_tagged != 0;
    return flow;
}

void expect_table_holds(const model &flows) {
    const std::vector<kr_soft_rule_state> states = rules();
    ASSERT_EQ(states.size(), flows.size());
    ASSERT_EQ(flows_db_count(), flows.size());
    uint32_t priority = UINT32_MAX;
    for (const kr_soft_rule_state &state : states) {
        const uint64_t id = flow_id_of(state.rule);
        ASSERT_TRUE(flows.contains(id)) << id;
        ASSERT_LE(flows.at(id).priority, priority) << "at offset " << state.rule.set_offset;
        priority = flows.at(id).priority;
        ASSERT_EQ(offset_of(id), state.rule.set_offset) << id;
    }
    std::vector<uint64_t> ids;
    for (const auto &[id, flow] : flows) {
        ids.push_back(id);
    }
    std::vector<flow_record> read_back(ids.size());
    ASSERT_EQ(tables_entry_get(0, ids.data(), static_cast<uint32_t>(ids.size()), read_back.data()),
              KR_SDN_HAL_STATUS_SUCCESS);
    for (const flow_record &flow : read_back) {
        const flow_record expected = expected_read_back(flows.at(flow.flow_id));
        ASSERT_EQ(memcmp(&flow, &expected, offsetof(flow_record, vlan_action_pcp) + 1), 0) << flow.flow_id;
    }
}

class random_batches : public tables_started, public testing::WithParamInterface<uint32_t> {
  protected:
    void SetUp() override {
        tables_started::SetUp();
        SCOPED_TRACE(testing::Message() << "KR_TEST_SEED=" << test_seed());
    }

    flow_record random_flow(uint64_t id) {
        static constexpr uint32_t priority_ranges[] = {2, 17, 1000, 65536};
        flow_record flow = make_flow(id, random(priority_ranges[id % 4]));
        flow.action = random(6);
        flow.out_port = flow.action == FLOW_ACTION_OUTPUT ? 1 + random(test_port_count) : 0;
        flow.mc_group_id = flow.action == FLOW_ACTION_MC_GROUP ? group_id : 0;
        flow.vlan_action = random(7);
        flow.vlan_action_vid = static_cast<uint16_t>(random(4096));
        flow.in_port_mask = static_cast<uint8_t>(random(2));
        flow.in_port = flow.in_port_mask != 0 ? 1 + random(test_port_count) : 0;
        return flow;
    }

    uint32_t random(uint32_t below) {
        return static_cast<uint32_t>(generator() % below);
    }

    std::mt19937_64 generator{test_seed()};
    uint32_t group_id = 0;
};

TEST_P(random_batches, keep_the_order_of_priorities_and_read_back_whole) {
    const uint32_t batch_size = GetParam();
    SCOPED_TRACE(testing::Message() << "KR_TEST_SEED=" << test_seed() << ", batches of " << batch_size);
    const uint32_t member = 1;
    ASSERT_EQ(tables_mcast_group_add(1, &member, &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    model flows;
    uint64_t next_id = 1;
    const auto add_batch = [&](uint32_t count) {
        std::vector<flow_record> batch;
        for (uint32_t i = 0; i < count; ++i) {
            batch.push_back(random_flow(next_id++));
            flows[batch.back().flow_id] = batch.back();
        }
        ASSERT_EQ(add(batch), KR_SDN_HAL_STATUS_SUCCESS);
    };
    while (flows.size() < TABLES_ACL_SIZE) {
        add_batch(std::min(batch_size, static_cast<uint32_t>(TABLES_ACL_SIZE - flows.size())));
    }
    expect_table_holds(flows);
    EXPECT_GT(usage().block_move_count, 0U) << "no batch met a shift: this test shows nothing";
    // Holes all over, then batches again.
    for (uint32_t round = 0; round < 3; ++round) {
        std::vector<flow_record> gone;
        for (const auto &[id, flow] : flows) {
            if (random(2) == 0) {
                gone.push_back(flow);
            }
        }
        std::shuffle(gone.begin(), gone.end(), generator);
        for (const flow_record &flow : gone) {
            flows.erase(flow.flow_id);
        }
        ASSERT_EQ(remove(gone), KR_SDN_HAL_STATUS_SUCCESS);
        expect_table_holds(flows);
        while (flows.size() < TABLES_ACL_SIZE) {
            add_batch(std::min(batch_size, static_cast<uint32_t>(TABLES_ACL_SIZE - flows.size())));
        }
        expect_table_holds(flows);
    }
}

INSTANTIATE_TEST_SUITE_P(of_size, random_batches, testing::Values(1, 2, 3, 7, 32, 100, 333, 999, 1000),
                         testing::PrintToStringParamName());

TEST_F(tables_started, filling_to_1000_in_random_order_then_the_1001st_is_refused_with_no_resources_and_all_is_intact) {
    SCOPED_TRACE(testing::Message() << "KR_TEST_SEED=" << test_seed());
    std::mt19937_64 generator{test_seed()};
    model flows;
    std::vector<flow_record> batch;
    for (uint64_t id = 1; id <= TABLES_ACL_SIZE; ++id) {
        batch.push_back(make_flow(id, static_cast<uint32_t>(generator() % 65536)));
        flows[id] = batch.back();
    }
    ASSERT_EQ(add(batch), KR_SDN_HAL_STATUS_SUCCESS);
    watch();
    EXPECT_EQ(add({make_flow(1001, 500)}), KR_SDN_HAL_STATUS_NO_RESOURCES);
    EXPECT_THAT(log.take(), testing::Contains(notice("Due to lack of resources failed to get flow index from pSort lib "
                                                     "for flow ID (1001) Table 0")));
    EXPECT_THAT(journal(), testing::Not(testing::Contains(testing::StartsWith("kr_acl_rm_api"))));
    kr_soft_journal_stop();
    kr_HAL_TABLES_API_verb_level = 3;
    expect_table_holds(flows);
    // One leaves, and the refused one has room.
    ASSERT_EQ(remove({flows.at(500)}), KR_SDN_HAL_STATUS_SUCCESS);
    flows.erase(500);
    flows[1001] = make_flow(1001, 500);
    ASSERT_EQ(add({flows.at(1001)}), KR_SDN_HAL_STATUS_SUCCESS);
    expect_table_holds(flows);
}

} // namespace
