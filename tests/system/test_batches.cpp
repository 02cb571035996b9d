/*
 * Batches through the exported functions: whatever their size and the order of their priorities, the hardware holds the
 * rules by priority, every flow reads back, and a full table refuses the next one with everything intact.
 */
#include <algorithm>
#include <map>
#include <random>

#include "tests/support/test_seed.h"
#include "tests/system/running_library.h"

using namespace kr_test;

namespace {

constexpr uint32_t table_size = 1000;
constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;

using model = std::map<uint64_t, flow_record>; // what the table should hold

std::vector<kr_soft_rule_state> rules() {
    std::vector<kr_soft_rule_state> states(KR_SOFT_MAX_RULES);
    uint32_t acl_id = 0;
    uint32_t acl_count = 1;
    EXPECT_EQ(kr_soft_acls_get(&acl_id, &acl_count), KR_STATUS_SUCCESS);
    auto count = static_cast<uint32_t>(states.size());
    EXPECT_EQ(kr_soft_rules_get(acl_id, states.data(), &count), KR_STATUS_SUCCESS);
    states.resize(count);
    return states;
}

uint64_t flow_id_of(const kr_acl_rule &rule) {
    uint64_t id = 0;
    for (const uint8_t byte : rule.key.eth_dst) {
        id = id << 8 | byte;
    }
    return id;
}

// The rules, lowest offset first, have falling priorities, and each flow reads back byte by byte.
void expect_table_holds(const model &flows) {
    const std::vector<kr_soft_rule_state> states = rules();
    ASSERT_EQ(states.size(), flows.size());
    uint32_t priority = UINT32_MAX;
    for (const kr_soft_rule_state &state : states) {
        const auto flow = flows.find(flow_id_of(state.rule));
        ASSERT_NE(flow, flows.end()) << "a rule of no flow at offset " << state.rule.set_offset;
        ASSERT_LE(flow->second.priority, priority) << "at offset " << state.rule.set_offset;
        priority = flow->second.priority;
    }
    std::vector<uint64_t> ids;
    for (const auto &[id, flow] : flows) {
        ids.push_back(id);
    }
    std::vector<flow_record> read_back(ids.size());
    auto count = static_cast<uint32_t>(ids.size());
    ASSERT_EQ(kr_sdn_hal_table_entry_get(0, 0, ids.data(), &count, read_back.data()), SUCCESS);
    for (const flow_record &flow : read_back) {
        ASSERT_EQ(memcmp(&flow, &flows.at(flow.flow_id), offsetof(flow_record, vlan_action_pcp) + 1), 0)
            << flow.flow_id;
    }
}

class batches : public running_switch, public testing::WithParamInterface<uint32_t> {
  protected:
    flow_record random_flow(uint64_t id) {
        static constexpr uint32_t priority_ranges[] = {2, 17, 1000, 65536};
        flow_record flow =
            flow_of(id, random(priority_ranges[random(4)]), random(2) != 0 ? FLOW_ACTION_DROP : FLOW_ACTION_OUTPUT);
        flow.out_port = flow.action == FLOW_ACTION_OUTPUT ? 1 + random(4) : 0;
        flow.tp_dst = static_cast<uint16_t>(random(65536));
        flow.tp_dst_mask = 0xFFFF;
        return flow;
    }
    uint32_t random(uint32_t below) {
        return static_cast<uint32_t>(generator() % below);
    }
    void fill(model &flows, uint32_t batch_size) {
        while (flows.size() < table_size) {
            std::vector<flow_record> batch;
            const size_t size = std::min<size_t>(batch_size, table_size - flows.size());
            while (batch.size() < size) {
                batch.push_back(random_flow(next_id++));
                flows[batch.back().flow_id] = batch.back();
            }
            ASSERT_EQ(flows_add(batch), SUCCESS);
        }
    }

    std::mt19937_64 generator{test_seed()};
    uint64_t next_id = 1;
};

TEST_P(batches, in_random_order_of_priority_keep_the_order_and_read_back) {
    SCOPED_TRACE(testing::Message() << "KR_TEST_SEED=" << test_seed() << ", batches of " << GetParam());
    model flows;
    ASSERT_NO_FATAL_FAILURE(fill(flows, GetParam()));
    ASSERT_NO_FATAL_FAILURE(expect_table_holds(flows));
    kr_soft_usage usage{};
    kr_soft_usage_get(&usage);
    EXPECT_GT(usage.block_move_count, 0U) << "no batch met a shift: this test shows nothing";

    // Full: one more is refused, alone or in a batch, and nothing has changed.
    (void)log.take();
    EXPECT_EQ(flows_add({flow_of(5000, 30000)}), KR_SDN_HAL_STATUS_NO_RESOURCES);
    EXPECT_EQ(flows_add({flow_of(5001, 0), flow_of(5002, 65535)}), KR_SDN_HAL_STATUS_NO_RESOURCES);
    EXPECT_THAT(log.take(), testing::IsEmpty()); // resource exhaustion is a notice
    ASSERT_NO_FATAL_FAILURE(expect_table_holds(flows));

    // Half of them leave in one batch, and others take their places.
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
    ASSERT_EQ(flows_delete(gone), SUCCESS);
    ASSERT_NO_FATAL_FAILURE(expect_table_holds(flows));
    ASSERT_NO_FATAL_FAILURE(fill(flows, GetParam()));
    ASSERT_NO_FATAL_FAILURE(expect_table_holds(flows));
}

INSTANTIATE_TEST_SUITE_P(of_size, batches, testing::Values(2, 3, 5, 16, 61, 128, 250, 500, 777, 1000),
                         testing::PrintToStringParamName());

} // namespace
