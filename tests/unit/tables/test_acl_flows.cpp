/*
 * Table 0's flows beyond the single rule: counters and their budget, activity and statistics of flows that traffic
 * hits, ports that come and go under flows, and the bookkeeping of the flows database.
 */
#include <algorithm>

#include "tests/unit/tables/tables_fixture.h"

using namespace kr_test;

namespace {

// What the next reads of a group find, whatever the room; empty: what the platform says.
std::vector<uint32_t> group_answer;

std::vector<flow_stats> stats_of(const std::vector<uint64_t> &ids) {
    std::vector<flow_stats> stats(ids.size());
    EXPECT_EQ(tables_entries_stat_get(0, ids.data(), static_cast<uint32_t>(ids.size()), stats.data()),
              KR_SDN_HAL_STATUS_SUCCESS);
    return stats;
}

uint32_t activity_of(uint64_t id) {
    uint32_t activity = 99;
    EXPECT_EQ(tables_flow_activity_get(0, &id, 1, &activity), KR_SDN_HAL_STATUS_SUCCESS);
    return activity;
}

uint32_t counter_of(uint64_t id) {
    flow_entry entry{};
    entry.flow_id = id;
    EXPECT_EQ(flows_db_entry_get(&acl_flows_db, &entry), KR_SDN_HAL_STATUS_SUCCESS);
    return entry.counter;
}

// A frame of 100 bytes to the Ethernet destination of make_flow(id).
void send_frame(uint64_t id) {
    uint8_t frame[100] = {};
    const flow_record flow = make_flow(id);
    memcpy(frame, flow.eth_dst, 6);
    frame[12] = 0x12;
    frame[13] = 0x34;
    ASSERT_EQ(kr_soft_port_inject(log_port_of(1), frame, sizeof(frame)), KR_STATUS_SUCCESS);
}

TEST_F(tables_started, of_129_flows_the_129th_goes_without_a_counter_until_a_counted_one_is_deleted) {
    ASSERT_EQ(add(make_flows(1, 129)), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 128U);
    for (uint64_t id = 1; id <= 128; ++id) {
        EXPECT_NE(counter_of(id), 0U) << id;
    }
    EXPECT_EQ(counter_of(129), 0U);
    send_frame(128);
    send_frame(129);
    const std::vector<flow_stats> stats = stats_of({128, 129});
    EXPECT_EQ(stats[0].count_first, 1U);
    EXPECT_EQ(stats[0].count_second, 100U);
    EXPECT_EQ(stats[1].count_first, 0U);
    EXPECT_EQ(stats[1].count_second, 0U);
    EXPECT_EQ(activity_of(129), uint32_t{FLOW_ACTIVITY_HIT}); // hit, only not counted
    // Deleting the one without a counter frees nothing.
    ASSERT_EQ(remove({make_flow(129)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 128U);
    ASSERT_EQ(remove({make_flow(5)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 127U);
    ASSERT_EQ(add({make_flow(130), make_flow(131)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_NE(counter_of(130), 0U);
    EXPECT_EQ(counter_of(131), 0U);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 128U);
}

TEST_F(tables_started, a_counter_that_cannot_be_made_takes_no_budget) {
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_counter_set", 0, KR_STATUS_NO_RESOURCES, 0), KR_STATUS_SUCCESS);
    ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(counter_of(1), 0U);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 0U);
}

TEST_F(tables_started, a_rule_that_fails_keeps_its_counter_out_of_the_budget_for_good) {
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_rule_set", 0, KR_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 1U);
}

TEST_F(tables_started, a_failed_add_keeps_its_counter_until_the_stop) {
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_rule_set", 0, KR_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_ERROR);
    ASSERT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS); // the table does not know it
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 1U);
    ASSERT_EQ(add(make_flows(2, 128)), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_NE(counter_of(128), 0U);
    EXPECT_EQ(counter_of(129), 0U); // one less than there would be
    ASSERT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 0U);
    ASSERT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(add(make_flows(2, 128)), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_NE(counter_of(129), 0U);
}

TEST_F(tables_started, an_unknown_ingress_port_costs_no_counter_and_an_unknown_output_port_costs_one) {
    kr_HAL_TABLES_API_verb_level = 0;
    flow_record in_flow = make_flow(1);
    in_flow.in_port = unknown_of_port;
    in_flow.in_port_mask = 1;
    EXPECT_EQ(add({in_flow}), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 0U);
    EXPECT_EQ(usage().counter_count, 0U);
    flow_record out_flow = make_flow(2, 100, FLOW_ACTION_OUTPUT);
    out_flow.out_port = unknown_of_port;
    EXPECT_EQ(add({out_flow}), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 1U);
    EXPECT_EQ(usage().counter_count, 1U);
}

// The budget counts deletes, not counters: it can fall below what is in use.
TEST_F(tables_started, a_delete_repeated_beside_counted_flows_frees_budget_a_second_time) {
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(add(make_flows(1, 3)), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_fault_set("psort_entry_set", 0, KR_UTILS_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 2U);
    EXPECT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 1U);
    EXPECT_NE(counter_of(2), 0U);
    EXPECT_NE(counter_of(3), 0U);
}

// Which is why a delete must not be repeated after other flows have been added.
TEST_F(tables_started, a_repeated_delete_takes_the_rule_of_the_flow_that_was_added_in_its_place) {
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    const uint64_t place = offset_of(1);
    EXPECT_EQ(remove({make_flow(1), make_flow(1)}), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_TRUE(rules().empty());
    EXPECT_EQ(offset_of(1), place); // the table still knows it
    ASSERT_EQ(add({make_flow(2)}), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(offset_of(2), place);
    ASSERT_EQ(rules().size(), 1U);
    EXPECT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_TRUE(rules().empty());
    EXPECT_EQ(offset_of(2), place);
    EXPECT_EQ(flows_db_count(), 2U);
}

TEST_F(tables_started, activity_is_0_then_1_when_hit_then_0_again_and_2_for_an_unknown_flow) {
    ASSERT_EQ(add(make_flows(1, 2)), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(activity_of(1), uint32_t{FLOW_ACTIVITY_IDLE});
    send_frame(1);
    const uint64_t ids[] = {77, 1, 2, 78};
    uint32_t activities[4] = {9, 9, 9, 9};
    EXPECT_EQ(tables_flow_activity_get(0, ids, 4, activities), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(activities, ElementsAre(2, 1, 0, 2));
    EXPECT_EQ(activity_of(1), uint32_t{FLOW_ACTIVITY_IDLE});
}

TEST_F(tables_started, statistics_of_an_unknown_flow_fail_with_not_found_and_the_records_behind_it_are_0) {
    ASSERT_EQ(add(make_flows(1, 3)), KR_SDN_HAL_STATUS_SUCCESS);
    for (uint64_t id = 1; id <= 3; ++id) {
        send_frame(id);
    }
    const uint64_t ids[] = {1, 77, 3};
    flow_stats stats[3] = {{9, 9}, {9, 9}, {9, 9}};
    watch();
    EXPECT_EQ(tables_entries_stat_get(0, ids, 3, stats), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(stats[0].count_first, 1U);
    EXPECT_EQ(stats[1].count_first, 0U);
    EXPECT_EQ(stats[2].count_first, 0U);
    EXPECT_EQ(stats[2].count_second, 0U);
}

TEST_F(tables_started, counters_and_activity_move_with_their_rules) {
    ASSERT_EQ(add({make_flow(1, 1)}), KR_SDN_HAL_STATUS_SUCCESS);
    send_frame(1);
    ASSERT_EQ(tables_entries_shift(0, static_cast<uint32_t>(offset_of(1)), 999, 1), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(stats_of({1})[0].count_first, 1U);
    EXPECT_EQ(activity_of(1), uint32_t{FLOW_ACTIVITY_HIT});
}

TEST_F(tables_started, deleting_a_batch_in_which_no_flow_is_in_the_database_changes_nothing) {
    ASSERT_EQ(add(make_flows(1, 3)), KR_SDN_HAL_STATUS_SUCCESS);
    std::vector<flow_record> flows = make_flows(1, 3);
    wrapped_flow *wrapped = nullptr;
    ASSERT_EQ(__wrap_flows(flows.data(), 3, &wrapped), KR_SDN_HAL_STATUS_SUCCESS);
    uint32_t count = 3;
    kr_soft_journal_start();
    EXPECT_EQ(tables_acl_delete(wrapped, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 3U);
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(rules().size(), 3U);
    free(reinterpret_cast<char *>(wrapped) - 4);
}

TEST_F(tables_started, a_delete_that_fails_in_hardware_counts_the_rules_deleted_not_the_flows_passed_over) {
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(add(make_flows(1, 3)), KR_SDN_HAL_STATUS_SUCCESS);
    std::vector<flow_record> flows = {make_flow(88), make_flow(1), make_flow(2), make_flow(3)};
    wrapped_flow *wrapped = nullptr;
    ASSERT_EQ(__wrap_flows(flows.data(), 4, &wrapped), KR_SDN_HAL_STATUS_SUCCESS);
    for (uint32_t i = 0; i < 4; ++i) {
        (void)tables_acl_flows_db_get(&wrapped[i]);
    }
    uint32_t count = 4;
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_rule_set", 1, KR_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(tables_acl_delete(wrapped, &count), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(count, 1U);
    // A failure in pSort leaves the count as given.
    count = 2;
    ASSERT_EQ(kr_soft_fault_set("psort_entry_set", 0, KR_UTILS_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(tables_acl_delete(&wrapped[2], &count), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(count, 2U);
    free(reinterpret_cast<char *>(wrapped) - 4);
}

TEST_F(tables_started, other_commands_of_the_flows_database_and_of_placement_are_unsupported) {
    flow_record flow = make_flow(1);
    wrapped_flow wrapped{&flow, 0, 0, 0, 1};
    watch();
    EXPECT_EQ(tables_acl_flows_db_set(1, &wrapped), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(tables_acl_flows_db_set(3, &wrapped), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(__tables_psort_entry_set(1, 1, &wrapped), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(tables_started, deleting_a_flow_that_the_database_lost_says_so) {
    flow_record flow = make_flow(1);
    wrapped_flow wrapped{&flow, 0, 0, 0, 1};
    watch();
    kr_FLOWS_DB_verb_level = 0;
    const kr::plock_exclusive lock(kr::tables::g.table_locks[0]);
    EXPECT_EQ(__tables_flows_db_set(TABLES_CMD_DELETE, 0, 1, &wrapped), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(log.take(), ElementsAre(notice("Failed to delete flow from DB"),
                                        notice("Failed to set flow ID [1] from table[0] DB")));
}

TEST_F(tables_started, a_delete_whose_database_update_fails_reports_it) {
    static table_ops operations; // until tear-down
    operations = *kr::tables::g.operations[0];
    operations.flows_db_set = [](uint32_t, wrapped_flow *) { return KR_SDN_HAL_STATUS_ERROR; };
    ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    kr::tables::g.operations[0] = &operations;
    watch();
    EXPECT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(log.take(), testing::IsSupersetOf({notice("Failed to set flow ID [1] from table[0] DB"),
                                                   notice("Failed to update flows DB while delete operation")}));
}

TEST_F(tables_started, looking_up_fills_offset_region_counter_and_priority) {
    ASSERT_EQ(add({make_flow(1, 4711)}), KR_SDN_HAL_STATUS_SUCCESS);
    flow_record flow = make_flow(1, 1);
    wrapped_flow wrapped{&flow, 0, 0, 0, 7};
    EXPECT_EQ(tables_acl_flows_db_get(&wrapped), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(wrapped.offset, offset_of(1));
    EXPECT_EQ(wrapped.region, kr::tables_acl::g.acl_id);
    EXPECT_EQ(wrapped.counter_id, counter_of(1));
    EXPECT_EQ(wrapped.in_db, 1U);
    EXPECT_EQ(flow.priority, 4711U);
    flow.flow_id = 2;
    EXPECT_EQ(tables_acl_flows_db_get(&wrapped), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(wrapped.in_db, 0U);
}

/* ---- ports that a rule names and the port database does not -------------------------------------------------------
 */

class port_gone : public tables_started {
  protected:
    void SetUp() override {
        tables_started::SetUp();
        flow_record in_flow = make_flow(1);
        in_flow.in_port = 2;
        in_flow.in_port_mask = 1;
        flow_record out_flow = make_flow(2, 1, FLOW_ACTION_OUTPUT);
        out_flow.out_port = 2;
        ASSERT_EQ(add({in_flow, out_flow}), KR_SDN_HAL_STATUS_SUCCESS);
        uint32_t of_port = 2;
        ASSERT_EQ(port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &of_port), KR_SDN_HAL_STATUS_SUCCESS);
        watch();
    }
};

TEST_F(port_gone, an_ingress_port_cannot_be_read_back) {
    const uint64_t id = 1;
    flow_record flow{};
    EXPECT_EQ(tables_entry_get(0, &id, 1, &flow), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(log.take(),
                ElementsAre(error("Failed to translate logical port (10002) to OF port ID, rc (4)n "),
                            error("Failed convert HW key to flow key "), error("Failed to retrieve flow (1) from HW"),
                            error("Failed to retrieve flows ")));
}

TEST_F(port_gone, an_output_port_cannot_be_read_back) {
    const uint64_t id = 2;
    flow_record flow{};
    EXPECT_EQ(tables_entry_get(0, &id, 1, &flow), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(log.take(),
                ElementsAre(error("Failed to translate logical port (10002) to OF port ID, rc (4)n "),
                            error("Failed to retrieve flow (2) from HW"), error("Failed to retrieve flows ")));
}

TEST_F(tables_started, debug_lines_carry_the_file_the_line_and_the_function) {
    kr_HAL_TABLES_API_verb_level = 5;
    ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    (void)log.take();
    const uint64_t offset = offset_of(1);
    const uint64_t id = 1;
    flow_record flow{};
    ASSERT_EQ(tables_entry_get(0, &id, 1, &flow), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(tables_entries_shift(0, static_cast<uint32_t>(offset_of(1)), 999, 1), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(remove({flow}), KR_SDN_HAL_STATUS_SUCCESS);
    std::vector<std::string> texts;
    for (const log_line &line : log.take()) {
        if (line.severity == KR_LOG_DEBUG) {
            EXPECT_TRUE(line.text.starts_with("tables_acl_impl.cpp[")) << line.text;
            texts.push_back(line.text.substr(line.text.find("]- ")));
        }
    }
    EXPECT_THAT(texts, ElementsAre(formatted("]- __get_acl_rule: Retrieves ACL rule from Table 0 with flow ID [1] "
                                             ",Priority [100] at offset [%lu]\n",
                                             offset),
                                   formatted("]- __shift_acl_rules: move ACL rules block in Table 0 with start block "
                                             "[%lu] , new start [999] and size [1]\n",
                                             offset),
                                   "]- __clear_acl_rule: Deletes ACL rule from Table 0 with flow ID [1] ,Priority "
                                   "[100] at offset [999]\n"));
}

/* ---- multicast groups -------------------------------------------------------------------------------------------- */

std::vector<uint32_t> members_of(uint32_t group_id) {
    uint32_t count = 100;
    std::vector<uint32_t> ports(count);
    EXPECT_EQ(tables_mcast_group_get(group_id, &count, ports.data()), KR_SDN_HAL_STATUS_SUCCESS);
    ports.resize(count);
    return ports;
}

TEST_F(tables_started, a_group_of_ports_1_and_2_gets_an_id_and_reads_back) {
    const uint32_t ports[] = {1, 2};
    uint32_t group_id = 0;
    ASSERT_EQ(tables_mcast_group_add(2, ports, &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_NE(group_id, 0U);
    EXPECT_NE(group_id, kr::tables_acl::g.flood_mc_group_id);
    EXPECT_THAT(members_of(group_id), testing::UnorderedElementsAre(1, 2));
}

TEST_F(tables_started, a_group_created_with_no_ports_is_empty) {
    const uint32_t port = 1;
    uint32_t group_id = 0;
    ASSERT_EQ(tables_mcast_group_add(0, &port, &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(members_of(group_id), IsEmpty());
    uint32_t count = 1;
    uint32_t out = 5;
    EXPECT_EQ(tables_mcast_group_get(group_id, &count, &out), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(out, 5U);
}

TEST_F(tables_started, reading_a_group_with_too_little_room_returns_1_and_writes_no_port) {
    const uint32_t ports[] = {1, 2, 3};
    uint32_t group_id = 0;
    ASSERT_EQ(tables_mcast_group_add(3, ports, &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    uint32_t count = 2;
    uint32_t out[] = {90, 91, 92};
    watch();
    EXPECT_EQ(tables_mcast_group_get(group_id, &count, out), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(out, ElementsAre(90, 91, 92));
    EXPECT_EQ(count, 3U); // what the device says
    EXPECT_THAT(log.take(), ElementsAre(error("Failed to get mc group from ACL RM rc (6) ")));
    count = 3;
    EXPECT_EQ(tables_mcast_group_get(group_id, &count, out), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(out, testing::UnorderedElementsAre(1, 2, 3));
}

TEST_F(tables_started, a_platform_that_answers_more_members_than_room_is_cut) {
    group_answer = {log_port_of(1), log_port_of(2), log_port_of(3), log_port_of(4)};
    uint32_t count = 2;
    uint32_t out[] = {90, 91, 92, 93};
    EXPECT_EQ(tables_mcast_group_get(200, &count, out), KR_SDN_HAL_STATUS_SUCCESS);
    group_answer.clear();
    EXPECT_THAT(out, ElementsAre(1, 2, 92, 93));
    EXPECT_EQ(count, 2U);
}

TEST_F(tables_started, a_group_edit_with_3_adds_with_4_removes_and_any_other_command_removes) {
    const uint32_t ports[] = {1, 2};
    uint32_t group_id = 0;
    ASSERT_EQ(tables_mcast_group_add(2, ports, &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    const uint32_t more[] = {3, 4};
    EXPECT_EQ(tables_mcast_group_edit(3, 2, more, &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(members_of(group_id), testing::UnorderedElementsAre(1, 2, 3, 4));
    EXPECT_EQ(tables_mcast_group_edit(4, 1, &more[0], &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(members_of(group_id), testing::UnorderedElementsAre(1, 2, 4));
    EXPECT_EQ(tables_mcast_group_edit(99, 1, &more[1], &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(members_of(group_id), testing::UnorderedElementsAre(1, 2));
}

TEST_F(tables_started, the_flood_group_can_be_neither_edited_nor_deleted_nor_read_and_hardware_is_not_reached) {
    uint32_t flood_group = kr::tables_acl::g.flood_mc_group_id;
    const uint32_t port = unknown_of_port; // not even looked at
    uint32_t count = 1;
    uint32_t out = 5;
    watch();
    EXPECT_EQ(tables_mcast_group_edit(3, 1, &port, &flood_group), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(tables_mcast_group_del(&flood_group), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(tables_mcast_group_get(flood_group, &count, &out), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(out, 5U);
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(tables_started, a_list_with_an_unknown_port_creates_and_changes_nothing) {
    kr_HAL_TABLES_API_verb_level = 0;
    const uint32_t ports[] = {1, unknown_of_port, 2};
    uint32_t group_id = 0;
    const uint32_t groups = usage().group_count;
    EXPECT_EQ(tables_mcast_group_add(3, ports, &group_id), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(usage().group_count, groups);
    ASSERT_EQ(tables_mcast_group_add(1, ports, &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    kr_soft_journal_start();
    EXPECT_EQ(tables_mcast_group_edit(4, 3, ports, &group_id), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_THAT(members_of(group_id), ElementsAre(1));
}

TEST_F(tables_started, a_deleted_group_is_gone_even_if_a_flow_forwards_to_it) {
    const uint32_t port = 1;
    flow_record flow = make_flow(1, 1, FLOW_ACTION_MC_GROUP);
    ASSERT_EQ(tables_mcast_group_add(1, &port, &flow.mc_group_id), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(add({flow}), KR_SDN_HAL_STATUS_SUCCESS);
    uint32_t group_id = flow.mc_group_id;
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(tables_mcast_group_del(&group_id), KR_SDN_HAL_STATUS_SUCCESS);
    uint32_t count = 1;
    uint32_t out = 0;
    EXPECT_EQ(tables_mcast_group_get(flow.mc_group_id, &count, &out), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
}

TEST_F(tables_started, a_member_without_an_of_port_ends_the_read_and_the_ports_before_it_stay_written) {
    const uint32_t ports[] = {1, 2};
    uint32_t group_id = 0;
    ASSERT_EQ(tables_mcast_group_add(2, ports, &group_id), KR_SDN_HAL_STATUS_SUCCESS);
    const std::vector<uint32_t> order = members_of(group_id);
    uint32_t gone = order[1];
    ASSERT_EQ(port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &gone), KR_SDN_HAL_STATUS_SUCCESS);
    uint32_t count = 2;
    uint32_t out[] = {90, 91};
    watch();
    EXPECT_EQ(tables_mcast_group_get(group_id, &count, out), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(out, ElementsAre(order[0], 91));
    EXPECT_THAT(log.take(), ElementsAre(error("Failed to translate output port (" + std::to_string(log_port_of(gone)) +
                                              ") rc (4)n ")));
}

TEST_F(tables_started, more_than_100_ports_reach_no_list) {
    const std::vector<uint32_t> ports(101, 1);
    std::vector<uint32_t> out(101);
    uint32_t group_id = 0;
    uint32_t count = 101;
    kr_soft_journal_start();
    EXPECT_EQ(tables_mcast_group_add(101, ports.data(), &group_id), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
    group_id = 200;
    EXPECT_EQ(tables_mcast_group_edit(3, 101, ports.data(), &group_id), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(tables_mcast_group_get(200, &count, out.data()), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_THAT(journal(), IsEmpty());
}

} // namespace

// Visible, since the linker reroutes the references of the sanitizers' shared libraries as well.
#pragma GCC visibility push(default)
extern "C" {

kr_status __real_kr_acl_rm_api_acl_mc_group_get(kr_acl_rm_handle handle, uint32_t group_id, uint32_t *port_count,
                                                uint32_t *log_ports);
kr_status __wrap_kr_acl_rm_api_acl_mc_group_get(kr_acl_rm_handle handle, uint32_t group_id, uint32_t *port_count,
                                                uint32_t *log_ports);

kr_status __wrap_kr_acl_rm_api_acl_mc_group_get(kr_acl_rm_handle handle, uint32_t group_id, uint32_t *port_count,
                                                uint32_t *log_ports) {
    if (group_answer.empty()) {
        return __real_kr_acl_rm_api_acl_mc_group_get(handle, group_id, port_count, log_ports);
    }
    std::copy(group_answer.begin(), group_answer.end(), log_ports);
    *port_count = static_cast<uint32_t>(group_answer.size());
    return KR_STATUS_SUCCESS;
}

} // extern "C"
#pragma GCC visibility pop
