/*
 * The records that reach the platform, compared byte by byte with a data sheet: offsets are written out as numbers, so
 * that a struct that is wrong on both sides is found out.
 */
#include "tests/unit/tables/acl_call_spy.h"
#include "tests/unit/tables/tables_fixture.h"

using namespace kr_test;

namespace {

// A record of `size` zero bytes, into which values are put in little-endian order.
class data_sheet {
  public:
    explicit data_sheet(size_t size) : bytes_(size) {}
    data_sheet &put(size_t offset, size_t width, uint64_t value) {
        for (size_t i = 0; i < width; ++i) {
            bytes_.at(offset + i) = static_cast<unsigned char>(value >> (8 * i));
        }
        return *this;
    }
    data_sheet &put(size_t offset, std::initializer_list<unsigned char> values) {
        std::copy(values.begin(), values.end(), bytes_.begin() + static_cast<ptrdiff_t>(offset));
        return *this;
    }
    operator bytes() const {
        return bytes_;
    }

  private:
    bytes bytes_;
};

// What every rule that is written holds besides its flow.
data_sheet rule_sheet(uint64_t offset, uint64_t counter_id) {
    return data_sheet(360)
        .put(0, 4, offset)
        .put(8, 1, 1)
        .put(12, 4, 3)
        .put(144, 4, 3)
        .put(305, 1, 1)
        .put(312, 8, 0xFFFFFFFF)
        .put(328, 4, 0xFFFFFFFF)
        .put(356, 4, counter_id);
}

// The rule of the flow; the sheet may ask where the flow is, so it is made afterwards.
#define EXPECT_RULE(flow, sheet)                                                                                       \
    do {                                                                                                               \
        const bytes rule = rule_of(flow);                                                                              \
        EXPECT_EQ(rule, bytes(sheet));                                                                                 \
    } while (0)

constexpr size_t key = 16;
constexpr size_t mask = 148;

class acl_records : public tables_started {
  protected:
    void SetUp() override {
        spy = {};
        tables_started::SetUp();
        spy.rule_set.clear();
        spy.rule_get.clear();
    }

    // Adds the flow and returns the rule that went to hardware.
    bytes rule_of(const flow_record &flow) {
        EXPECT_EQ(add({flow}), KR_SDN_HAL_STATUS_SUCCESS);
        EXPECT_FALSE(spy.rule_set.empty());
        EXPECT_EQ(spy.rule_set.back().command, 6U);
        return spy.rule_set.back().record;
    }

    flow_record read_back(uint64_t flow_id) {
        flow_record flow;
        memset(&flow, 0, sizeof(flow));
        EXPECT_EQ(tables_entry_get(0, &flow_id, 1, &flow), KR_SDN_HAL_STATUS_SUCCESS);
        return flow;
    }
};

flow_record plain(uint64_t flow_id, uint32_t action) {
    flow_record flow{};
    flow.flow_id = flow_id;
    flow.action = action;
    return flow;
}

TEST_F(acl_records, resource_manager_is_initialised_with_mode_1) {
    EXPECT_EQ(spy.acl_init.at(0).record, bytes(data_sheet(4).put(0, 4, 1)));
}

TEST_F(acl_records, acl_is_created_with_key_type_3_and_1000_rules_twice) {
    ASSERT_EQ(spy.acl_set.size(), 1U);
    EXPECT_EQ(spy.acl_set[0].command, 4U);
    EXPECT_EQ(spy.acl_set[0].record, bytes(data_sheet(28).put(4, 4, 3).put(8, 4, 1).put(20, 4, 1000).put(24, 4, 1000)));
}

TEST_F(acl_records, acl_is_destroyed_by_its_id_alone) {
    ASSERT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(spy.acl_set.size(), 2U);
    EXPECT_EQ(spy.acl_set[1].command, 5U);
    EXPECT_EQ(spy.acl_set[1].record, bytes(data_sheet(28).put(0, 4, kr::tables_acl::g.acl_id)));
}

TEST_F(acl_records, psort_table_has_1000_places_and_65536_priorities) {
    const auto callback = reinterpret_cast<uintptr_t>(&tables_psort_notification_handler);
    EXPECT_EQ(spy.psort_init.at(0).record, bytes(data_sheet(40)
                                                     .put(0, 4, 1000)
                                                     .put(4, 4, 15)
                                                     .put(8, 4, 65535)
                                                     .put(12, 4, 0)
                                                     .put(16, 4, 100)
                                                     .put(20, 4, 0)
                                                     .put(24, 8, 0)
                                                     .put(32, 8, callback)));
}

TEST_F(acl_records, counter_is_created_with_0_and_1) {
    ASSERT_EQ(add({plain(1, FLOW_ACTION_DROP)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(spy.counter_set.at(0).command, 4U);
    EXPECT_EQ(spy.counter_set.at(0).record, bytes(data_sheet(8).put(0, 4, 0).put(4, 4, 1)));
}

TEST_F(acl_records, psort_entry_holds_flow_id_priority_and_the_low_32_bits_of_the_offset) {
    flow_record flow = make_flow(0x1122334455667788, 4711);
    wrapped_flow wrapped{&flow, 0xAABBCCDD00000123, 0, 0, 0};
    psort_entry entry{};
    __convert_flows_to_psort_entries(&wrapped, 1, &entry);
    bytes record(sizeof(entry));
    memcpy(record.data(), &entry, sizeof(entry));
    EXPECT_EQ(record, bytes(data_sheet(16).put(0, 8, 0x1122334455667788).put(8, 4, 4711).put(12, 4, 0x123)));
    entry.index = 77;
    entry.key = 1;
    entry.priority = 2;
    __convert_psort_entries_to_flows(&entry, 1, &wrapped);
    EXPECT_EQ(wrapped.offset, 77U);
    EXPECT_EQ(flow.flow_id, 0x1122334455667788U);
    EXPECT_EQ(flow.priority, 4711U);
}

TEST_F(acl_records, wrapped_flow_is_laid_out_naturally_and_may_start_four_bytes_behind_an_allocation) {
    static_assert(sizeof(wrapped_flow) == 32 && alignof(wrapped_flow) == 4);
    flow_record flows[2] = {plain(1, 0), plain(2, 0)};
    wrapped_flow *wrapped = nullptr;
    ASSERT_EQ(__wrap_flows(flows, 2, &wrapped), KR_SDN_HAL_STATUS_SUCCESS);
    bytes record(64);
    memcpy(record.data(), wrapped, 64);
    EXPECT_EQ(record, bytes(data_sheet(64)
                                .put(0, 8, reinterpret_cast<uintptr_t>(&flows[0]))
                                .put(32, 8, reinterpret_cast<uintptr_t>(&flows[1]))));
    uint32_t prefix = 0;
    memcpy(&prefix, reinterpret_cast<char *>(wrapped) - 4, 4);
    EXPECT_EQ(prefix, 64U);
    wrapped[1].offset = 5; // through an address that is no multiple of 8
    EXPECT_EQ(wrapped[1].offset, 5U);
    free(reinterpret_cast<char *>(wrapped) - 4);
}

/* ---- key --------------------------------------------------------------------------------------------------------- */

TEST_F(acl_records, every_match_field_has_its_place_in_key_and_mask) {
    flow_record flow = plain(1, FLOW_ACTION_NONE);
    flow.in_port = 3;
    flow.in_port_mask = 9;
    const uint8_t eth_src[] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint8_t eth_dst[] = {0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB};
    memcpy(flow.eth_src, eth_src, 6);
    memcpy(flow.eth_dst, eth_dst, 6);
    memset(flow.eth_src_mask, 0xF0, 6);
    memset(flow.eth_dst_mask, 0x0F, 6);
    flow.vlan_tagged = 7;
    flow.vlan_tagged_mask = 1;
    flow.vlan_id = 0x0123;
    flow.vlan_id_mask = 0x0FFF;
    flow.vlan_pcp = 5;
    flow.vlan_pcp_mask = 7;
    flow.eth_type = 0x0800;
    flow.eth_type_mask = 0xFFFE;
    flow.ip_tos = 0xB8;
    flow.ip_tos_mask = 0xFC;
    flow.ip_proto = 17;
    flow.ip_proto_mask = 0xFE;
    flow.ipv4_src = 0x0A000001;
    flow.ipv4_src_mask = 0xFFFFFF00;
    flow.ipv4_dst = 0xC0A80102;
    flow.ipv4_dst_mask = 0xFFFF0000;
    flow.tp_src = 1234;
    flow.tp_src_mask = 0xFFF0;
    flow.tp_dst = 53;
    flow.tp_dst_mask = 0x00FF;
    const bytes rule = rule_of(flow);
    EXPECT_EQ(rule, bytes(rule_sheet(offset_of(1), 1)
                              .put(key + 0, {0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB})
                              .put(key + 6, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55})
                              .put(key + 12, 2, 0x0800)
                              .put(key + 14, 1, 5)
                              .put(key + 16, 2, 0x0123)
                              .put(key + 20, 4, 2)
                              .put(key + 28, 4, 0xC0A80102)
                              .put(key + 32, 4, 0x0A000001)
                              .put(key + 36, 2, 1234)
                              .put(key + 38, 2, 53)
                              .put(key + 40, 1, 17)
                              .put(key + 41, 1, 0xB8)
                              .put(key + 48, 4, 0x10003)
                              .put(mask + 0, {0x0F, 0x0F, 0x0F, 0x0F, 0x0F, 0x0F})
                              .put(mask + 6, {0xF0, 0xF0, 0xF0, 0xF0, 0xF0, 0xF0})
                              .put(mask + 12, 2, 0xFFFE)
                              .put(mask + 14, 1, 7)
                              .put(mask + 16, 2, 0x0FFF)
                              .put(mask + 20, 4, 255)
                              .put(mask + 28, 4, 0xFFFF0000)
                              .put(mask + 32, 4, 0xFFFFFF00)
                              .put(mask + 36, 2, 0xFFF0)
                              .put(mask + 38, 2, 0x00FF)
                              .put(mask + 40, 1, 0xFE)
                              .put(mask + 41, 1, 0xFC)
                              .put(mask + 48, 4, 0xFFFFFFFF)));
    // And back: what was given, but for the booleans.
    flow_record expected = flow;
    expected.in_port_mask = 1;
    expected.vlan_tagged = 1;
    const flow_record got = read_back(1);
    EXPECT_EQ(memcmp(&got, &expected, sizeof(flow_record) - 1), 0);
}

TEST_F(acl_records, source_mac_1_and_destination_mac_2_put_the_destination_first) {
    flow_record flow = plain(1, FLOW_ACTION_NONE);
    flow.eth_src[5] = 1;
    flow.eth_dst[5] = 2;
    const bytes rule = rule_of(flow);
    EXPECT_EQ(bytes(rule.begin() + 16, rule.begin() + 28), bytes({0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 1}));
}

TEST_F(acl_records, vlan_tagged_7_with_mask_1_is_2_and_255_and_reads_back_as_1_and_1) {
    flow_record flow = plain(1, FLOW_ACTION_NONE);
    flow.vlan_tagged = 7;
    flow.vlan_tagged_mask = 1;
    EXPECT_RULE(flow, rule_sheet(offset_of(1), 1).put(key + 20, 4, 2).put(mask + 20, 4, 255));
    EXPECT_EQ(read_back(1).vlan_tagged, 1);
    EXPECT_EQ(read_back(1).vlan_tagged_mask, 1);
}

TEST_F(acl_records, vlan_tagged_0_with_a_mask_matches_untagged_frames) {
    flow_record flow = plain(1, FLOW_ACTION_NONE);
    flow.vlan_tagged_mask = 200;
    EXPECT_RULE(flow, rule_sheet(offset_of(1), 1).put(mask + 20, 4, 255));
    EXPECT_EQ(read_back(1).vlan_tagged, 0);
    EXPECT_EQ(read_back(1).vlan_tagged_mask, 1);
}

TEST_F(acl_records, in_port_mask_0_matches_any_port_and_the_port_is_not_looked_up) {
    flow_record flow = plain(1, FLOW_ACTION_NONE);
    flow.in_port = unknown_of_port;
    EXPECT_RULE(flow, rule_sheet(offset_of(1), 1));
    EXPECT_EQ(read_back(1).in_port, 0U);
    EXPECT_EQ(read_back(1).in_port_mask, 0);
}

/* ---- action ------------------------------------------------------------------------------------------------------ */

TEST_F(acl_records, action_none_has_neither_trap_nor_target) {
    EXPECT_RULE(plain(1, FLOW_ACTION_NONE), rule_sheet(offset_of(1), 1));
    EXPECT_EQ(read_back(1).action, uint32_t{FLOW_ACTION_NONE});
}

TEST_F(acl_records, action_drop_is_trap_action_4) {
    EXPECT_RULE(plain(1, FLOW_ACTION_DROP), rule_sheet(offset_of(1), 1).put(288, 4, 4));
    EXPECT_EQ(read_back(1).action, uint32_t{FLOW_ACTION_DROP});
}

TEST_F(acl_records, action_controller_is_trap_action_3_mode_3_id_464_and_forwards_nowhere) {
    EXPECT_RULE(plain(1, FLOW_ACTION_CONTROLLER),
                rule_sheet(offset_of(1), 1).put(288, 4, 3).put(292, 1, 3).put(294, 2, 464));
    EXPECT_EQ(read_back(1).action, uint32_t{FLOW_ACTION_CONTROLLER});
}

TEST_F(acl_records, action_output_forwards_to_the_logical_port) {
    flow_record flow = plain(1, FLOW_ACTION_OUTPUT);
    flow.out_port = 2;
    EXPECT_RULE(flow, rule_sheet(offset_of(1), 1).put(344, 4, 1).put(348, 4, 0x10002));
    EXPECT_EQ(read_back(1).action, uint32_t{FLOW_ACTION_OUTPUT});
    EXPECT_EQ(read_back(1).out_port, 2U);
}

TEST_F(acl_records, action_flood_forwards_to_the_flood_group) {
    const uint32_t flood_group = kr::tables_acl::g.flood_mc_group_id;
    ASSERT_NE(flood_group, 0U);
    EXPECT_RULE(plain(1, FLOW_ACTION_FLOOD), rule_sheet(offset_of(1), 1).put(344, 4, 2).put(352, 4, flood_group));
    EXPECT_EQ(read_back(1).action, uint32_t{FLOW_ACTION_FLOOD});
    EXPECT_EQ(read_back(1).mc_group_id, 0U);
}

TEST_F(acl_records, action_mc_group_forwards_to_the_group) {
    const uint32_t port = 1;
    flow_record flow = plain(1, FLOW_ACTION_MC_GROUP);
    ASSERT_EQ(tables_mcast_group_add(1, &port, &flow.mc_group_id), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_RULE(flow, rule_sheet(offset_of(1), 1).put(344, 4, 2).put(352, 4, flow.mc_group_id));
    EXPECT_EQ(read_back(1).action, uint32_t{FLOW_ACTION_MC_GROUP});
    EXPECT_EQ(read_back(1).mc_group_id, flow.mc_group_id);
}

TEST_F(acl_records, output_all_behind_the_first_flow_is_not_refused_and_has_no_target) {
    ASSERT_EQ(add({plain(1, FLOW_ACTION_DROP), plain(2, FLOW_ACTION_OUTPUT_ALL)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(spy.rule_set.back().record, bytes(rule_sheet(offset_of(2), 2)));
}

TEST_F(acl_records, trap_action_4_with_forward_type_1_reads_as_drop_with_the_output_port_still_set) {
    ASSERT_EQ(add({plain(1, FLOW_ACTION_NONE)}), KR_SDN_HAL_STATUS_SUCCESS);
    kr_acl_rule rule{};
    memcpy(&rule, spy.rule_set.back().record.data(), sizeof(rule));
    rule.trap_action = 4;
    rule.forward_type = 1;
    rule.forward_log_port = log_port_of(2);
    ASSERT_EQ(kr_acl_rm_api_acl_rule_set(kr::tables_acl::g.acl_rm_handle, 6, kr::tables_acl::g.acl_id, &rule, 1), 0U);
    EXPECT_EQ(read_back(1).action, uint32_t{FLOW_ACTION_DROP});
    EXPECT_EQ(read_back(1).out_port, 2U);
}

TEST_F(acl_records, vlan_actions_map_to_the_hardware_codes_and_back_and_carry_both_operands_always) {
    static constexpr uint32_t hardware_codes[] = {0, 24, 4, 28, 16, 12, 8};
    for (uint32_t vlan_action = 0; vlan_action <= 6; ++vlan_action) {
        flow_record flow = plain(100 + vlan_action, FLOW_ACTION_NONE);
        flow.vlan_action = vlan_action;
        flow.vlan_action_vid = 0x0ABC;
        flow.vlan_action_pcp = 6;
        EXPECT_RULE(flow, rule_sheet(offset_of(flow.flow_id), vlan_action + 1)
                              .put(296, 4, hardware_codes[vlan_action])
                              .put(300, 2, 0x0ABC)
                              .put(302, 1, 6));
        EXPECT_EQ(read_back(flow.flow_id).vlan_action, vlan_action);
        EXPECT_EQ(read_back(flow.flow_id).vlan_action_vid, 0x0ABC);
        EXPECT_EQ(read_back(flow.flow_id).vlan_action_pcp, 6);
    }
}

TEST_F(acl_records, vlan_action_7_is_stored_as_no_edit_and_reads_back_as_0) {
    flow_record flow = plain(1, FLOW_ACTION_NONE);
    flow.vlan_action = 7;
    EXPECT_RULE(flow, rule_sheet(offset_of(1), 1));
    EXPECT_EQ(read_back(1).vlan_action, 0U);
}

TEST_F(acl_records, a_vlan_edit_that_is_not_in_the_table_reads_back_as_vlan_action_0) {
    kr_acl_rule rule{};
    rule.vlan_edit = 20;
    flow_record flow = plain(1, FLOW_ACTION_NONE);
    flow.vlan_action = 3;
    __acl_action_to_flow_action(&flow, &rule);
    EXPECT_EQ(flow.vlan_action, 0U);
}

/* ---- delete, read and activity ----------------------------------------------------------------------------------- */

TEST_F(acl_records, a_rule_is_deleted_with_an_empty_record_at_its_access_offset_in_its_region) {
    flow_record flow = plain(1, FLOW_ACTION_OUTPUT);
    flow.out_port = 1;
    ASSERT_EQ(add({flow}), KR_SDN_HAL_STATUS_SUCCESS);
    const uint64_t offset = offset_of(1);
    ASSERT_EQ(remove({flow}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(spy.rule_set.back().command, 3U);
    EXPECT_EQ(spy.rule_set.back().acl_id, kr::tables_acl::g.acl_id);
    EXPECT_EQ(spy.rule_set.back().record,
              bytes(data_sheet(360).put(4, 4, offset).put(312, 8, 0xFFFFFFFF).put(328, 4, 0xFFFFFFFF)));
}

TEST_F(acl_records, a_rule_is_read_with_a_record_that_holds_its_access_offset_alone) {
    ASSERT_EQ(add({plain(1, FLOW_ACTION_DROP)}), KR_SDN_HAL_STATUS_SUCCESS);
    (void)read_back(1);
    ASSERT_EQ(spy.rule_get.size(), 1U);
    EXPECT_EQ(spy.rule_get[0].command, 0U); // the third argument
    EXPECT_EQ(spy.rule_get[0].acl_id, kr::tables_acl::g.acl_id);
    EXPECT_EQ(spy.rule_get[0].record, bytes(data_sheet(360).put(4, 4, offset_of(1))));
}

TEST_F(acl_records, activity_is_read_with_mode_2) {
    ASSERT_EQ(add({plain(1, FLOW_ACTION_DROP)}), KR_SDN_HAL_STATUS_SUCCESS);
    const uint64_t id = 1;
    uint32_t activity = 9;
    ASSERT_EQ(tables_flow_activity_get(0, &id, 1, &activity), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(spy.rule_get.at(0).record, bytes(data_sheet(360).put(4, 4, offset_of(1)).put(336, 4, 2)));
}

/* ---- counters ---------------------------------------------------------------------------------------------------- */

TEST_F(acl_records,
       the_first_counter_value_goes_to_the_second_count_and_the_second_to_the_first_if_their_flags_say_so) {
    ASSERT_EQ(add({plain(1, FLOW_ACTION_DROP)}), KR_SDN_HAL_STATUS_SUCCESS);
    const uint64_t id = 1;
    spy.has_counter_answer = true;
    spy.counter_values = {.first = 1000, .second = 7};
    for (uint32_t flags = 0; flags < 4; ++flags) {
        spy.counter_flags = {.first_valid = flags & 1, .second_valid = flags & 2};
        flow_stats stats = {99, 99};
        ASSERT_EQ(tables_entries_stat_get(0, &id, 1, &stats), KR_SDN_HAL_STATUS_SUCCESS);
        EXPECT_EQ(stats.count_second, (flags & 1) != 0 ? 1000U : 0U);
        EXPECT_EQ(stats.count_first, (flags & 2) != 0 ? 7U : 0U);
    }
}

TEST_F(acl_records, capabilities_are_those_of_a_12_tuple_acl) {
    table_capabilities capabilities_read;
    memset(&capabilities_read, 0xAA, sizeof(capabilities_read));
    ASSERT_EQ(tables_capability_get(0, &capabilities_read), KR_SDN_HAL_STATUS_SUCCESS);
    bytes record(sizeof(capabilities_read));
    memcpy(record.data(), &capabilities_read, sizeof(capabilities_read));
    EXPECT_EQ(record, bytes(data_sheet(88)
                                .put(0, {'1', '2', ' ', 't', 'u', 'p', 'l', 'e', ' ', 'A', 'C', 'L'})
                                .put(32, 4, 1000)
                                .put(36, 4, 1)
                                .put(40, 8, 0x10)
                                .put(48, 8, 0)
                                .put(56, 8, 0x60001)
                                .put(64, 8, 0xC1FFFB)
                                .put(72, 8, 0xC1FFDB)
                                .put(80, 8, 0xC0)));
}

TEST_F(acl_records, table_statistics_are_1000_and_three_zeros) {
    table_stats stats;
    memset(&stats, 0xAA, sizeof(stats));
    ASSERT_EQ(tables_table_stat_get(0, &stats), KR_SDN_HAL_STATUS_SUCCESS);
    bytes record(sizeof(stats));
    memcpy(record.data(), &stats, sizeof(stats));
    EXPECT_EQ(record, bytes(data_sheet(16).put(0, 4, 1000)));
}

} // namespace
