/*
 * The operations on flows that the table API calls: what they answer at their edges, what a failure leaves behind, and
 * what they allocate.
 */
#include <algorithm>
#include <map>

#include "tests/unit/tables/tables_fixture.h"

#include "tests/support/allocation_counter.h" // behind the C library's own declarations

using namespace kr_test;

namespace {

std::vector<flow_record> untouched_flows(size_t count) {
    std::vector<flow_record> flows(count);
    memset(static_cast<void *>(flows.data()), 0xEE, count * sizeof(flow_record));
    return flows;
}

TEST_F(tables_started, command_1_returns_6_with_no_hardware_call_and_no_lock) {
    flow_record flow = make_flow(1);
    watch();
    cl_plock_excl_acquire(&kr::tables::g.table_locks[0]); // the call would wait for ever if it took it
    EXPECT_EQ(tables_entry_set(1, 0, &flow, 1), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(tables_entry_set(3, 0, &flow, 1), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    cl_plock_release(&kr::tables::g.table_locks[0]);
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(tables_started, adding_a_batch_with_a_flow_that_is_present_returns_5_and_writes_none) {
    ASSERT_EQ(add({make_flow(2, 50)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(add({make_flow(1), make_flow(2), make_flow(3)}), KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(rules().size(), 1U);
    EXPECT_EQ(flows_db_count(), 1U);
}

TEST_F(tables_started, looking_a_flow_up_overwrites_the_priority_that_the_client_passed) {
    ASSERT_EQ(add({make_flow(2, 50)}), KR_SDN_HAL_STATUS_SUCCESS);
    flow_record flow = make_flow(2, 999);
    EXPECT_EQ(tables_entry_set(TABLES_CMD_ADD, 0, &flow, 1), KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(flow.priority, 50U);
}

TEST_F(tables_started, deleting_a_flow_that_is_not_present_returns_0) {
    EXPECT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(add(make_flows(1, 3)), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(remove({make_flow(7), make_flow(2), make_flow(8)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(rules().size(), 2U);
    EXPECT_EQ(flows_db_count(), 2U);
}

TEST_F(tables_started, adding_no_flows_succeeds_and_does_nothing_but_the_empty_array) {
    flow_record flow = make_flow(1, 1, FLOW_ACTION_OUTPUT_ALL);
    watch();
    EXPECT_EQ(tables_entry_set(TABLES_CMD_ADD, 0, &flow, 0), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_entry_set(TABLES_CMD_DELETE, 0, &flow, 0), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_entry_get(0, nullptr, 0, &flow), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(journal(), ElementsAre("cl_malloc(4) = pointer", "cl_malloc(4) = pointer", "cl_malloc(4) = pointer"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(tables_started, a_count_whose_buffer_size_wraps_fails_as_the_allocation_does_and_touches_nothing) {
    static constexpr uint32_t counts[] = {0x08000000, 0x08000001, 0x10000000, 0x80000000, 0xFFFFFFFF};
    static_assert(uint32_t{0x08000001 * 32U} == 32); // one flow's worth
    for (const uint32_t count : counts) {
        flow_record flow = make_flow(1);
        const flow_record before = flow;
        const uint64_t id = 7;
        watch();
        EXPECT_EQ(tables_entry_set(TABLES_CMD_ADD, 0, &flow, count), KR_SDN_HAL_STATUS_ERROR);
        EXPECT_EQ(tables_entry_set(TABLES_CMD_DELETE, 0, &flow, count), KR_SDN_HAL_STATUS_ERROR);
        EXPECT_EQ(tables_entry_get(0, &id, count, &flow), KR_SDN_HAL_STATUS_ERROR);
        const log_line line = error("Failed to allocate memory for wrapped flows array ");
        EXPECT_THAT(log.take(), ElementsAre(line, line, line));
        EXPECT_THAT(journal(), IsEmpty());
        EXPECT_EQ(memcmp(&flow, &before, sizeof(flow)), 0);
    }
}

TEST_F(tables_started, output_all_in_the_first_flow_is_refused_before_any_change) {
    EXPECT_EQ(add({make_flow(1, 1, FLOW_ACTION_OUTPUT_ALL), make_flow(2)}), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_TRUE(rules().empty());
    EXPECT_EQ(flows_db_count(), 0U);
    kr_HAL_TABLES_API_verb_level = 0;
    // And not in a later one.
    EXPECT_EQ(add({make_flow(2), make_flow(1, 1, FLOW_ACTION_OUTPUT_ALL)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(rules().size(), 2U);
}

TEST_F(tables_started, more_flows_than_a_buffer_can_hold_are_memory_that_cannot_be_had) {
    constexpr uint32_t most = 134'217'727; // 32 bytes each, and the buffer's size has 32 bits
    flow_record flow = make_flow(1);
    for (const uint32_t count : {most, most + 1, UINT32_MAX}) {
        watch();
        ASSERT_EQ(kr_soft_fault_set("cl_malloc", 0, 0, 0), KR_STATUS_SUCCESS);
        EXPECT_EQ(tables_entry_set(TABLES_CMD_ADD, 0, &flow, count), KR_SDN_HAL_STATUS_ERROR);
        kr_soft_fault_clear();
        EXPECT_THAT(journal(),
                    testing::ElementsAreArray(count == most ? std::vector<std::string>{"cl_malloc(4294967268) = NULL"}
                                                            : std::vector<std::string>{}));
        EXPECT_THAT(log.take(), ElementsAre(error("Failed to allocate memory for wrapped flows array ")));
    }
}

TEST_F(tables_started, output_all_does_not_keep_a_flow_from_being_deleted) {
    ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(remove({make_flow(1, 1, FLOW_ACTION_OUTPUT_ALL)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_TRUE(rules().empty());
}

TEST_F(tables_started, reading_a_batch_with_one_unknown_flow_returns_4_and_reads_no_rule) {
    ASSERT_EQ(add({make_flow(1, 50), make_flow(3, 60)}), KR_SDN_HAL_STATUS_SUCCESS);
    const uint64_t ids[] = {1, 2, 3};
    std::vector<flow_record> flows = untouched_flows(3);
    watch();
    EXPECT_EQ(tables_entry_get(0, ids, 3, flows.data()), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(journal(), ElementsAre("cl_malloc(100) = pointer"));
    EXPECT_THAT(log.take(), IsEmpty());
    // The records hold the ids asked for and, for flows that are known, the priority; nothing else was filled.
    std::vector<flow_record> expected = untouched_flows(3);
    for (size_t i = 0; i < 3; ++i) {
        expected[i].flow_id = ids[i];
    }
    expected[0].priority = 50;
    expected[2].priority = 60;
    EXPECT_EQ(memcmp(flows.data(), expected.data(), 3 * sizeof(flow_record)), 0);
}

TEST_F(tables_started, the_entry_set_time_is_kept_for_the_background_thread) {
    kr::relaxed_store(kr::tables::g.last_entry_set_time, time_t{0});
    const time_t before = time(nullptr);
    ASSERT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_GE(kr::relaxed_load(kr::tables::g.last_entry_set_time), before);
}

TEST_F(tables_started, capability_get_before_init_is_refused_and_table_statistics_are_not) {
    table_stats stats{};
    ASSERT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(tables_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_table_stat_get(0, &stats), KR_SDN_HAL_STATUS_SUCCESS); // after deinit the slot is still there
    EXPECT_EQ(stats.max_entries, 1000U);
    table_capabilities read{};
    kr_HAL_TABLES_API_verb_level = 3;
    EXPECT_EQ(tables_capability_get(0, &read), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_THAT(log.take(), ElementsAre(error("SDN HAL Tables module is not initialized")));
}

TEST_F(tables_unstarted, table_statistics_before_init_are_unsupported_and_groups_return_1_without_a_line) {
    table_stats stats{};
    watch();
    EXPECT_EQ(tables_table_stat_get(0, &stats), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_THAT(log.take(), ElementsAre(error("Get table stats operation is unsupported for Table (0) ")));
    uint32_t count = 1;
    uint32_t port = 0;
    EXPECT_EQ(tables_mcast_group_get(1, &count, &port), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(tables_started, resize_does_nothing) {
    watch();
    EXPECT_EQ(tables_resize(0, TABLES_RESIZE_ALMOST_FULL), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(tables_resize(0, TABLES_RESIZE_ALMOST_EMPTY), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_THAT(journal(), IsEmpty());
}

/* ---- what a failure leaves behind -------------------------------------------------------------------------------- */

TEST_F(tables_started, a_second_rule_without_room_leaves_the_first_installed_and_the_others_placed) {
    kr_HAL_TABLES_API_verb_level = 0;
    std::vector<flow_record> flows = make_flows(1, 3);
    wrapped_flow *wrapped = nullptr;
    ASSERT_EQ(__wrap_flows(flows.data(), 3, &wrapped), KR_SDN_HAL_STATUS_SUCCESS);
    uint32_t count = 3;
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_rule_set", 1, KR_STATUS_NO_RESOURCES, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(tables_acl_config(wrapped, &count), KR_SDN_HAL_STATUS_NO_RESOURCES);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(rules().size(), 1U);
    // Each id is taken in pSort, so none of them can be added again.
    for (flow_record &flow : flows) {
        EXPECT_EQ(add({flow}), KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
    }
    free(reinterpret_cast<char *>(wrapped) - 4);
}

TEST_F(tables_started, a_placement_that_fails_leaves_the_count_as_it_was_given) {
    kr_HAL_TABLES_API_verb_level = 0;
    std::vector<flow_record> flows = make_flows(1, 3);
    wrapped_flow *wrapped = nullptr;
    ASSERT_EQ(__wrap_flows(flows.data(), 3, &wrapped), KR_SDN_HAL_STATUS_SUCCESS);
    uint32_t count = 3;
    ASSERT_EQ(kr_soft_fault_set("psort_entry_set", 1, KR_UTILS_STATUS_NO_RESOURCES, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(tables_acl_config(wrapped, &count), KR_SDN_HAL_STATUS_NO_RESOURCES);
    EXPECT_EQ(count, 3U);
    EXPECT_TRUE(rules().empty());
    free(reinterpret_cast<char *>(wrapped) - 4);
}

TEST_F(tables_started, an_id_that_comes_twice_in_one_batch_is_refused_and_keeps_its_first_place) {
    kr_HAL_TABLES_API_verb_level = 0;
    EXPECT_EQ(add({make_flow(1), make_flow(1)}), KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_TRUE(rules().empty());
    EXPECT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
}

TEST_F(tables_started, places_kept_by_a_failed_batch_never_disturb_the_flows_around_them) {
    kr_HAL_TABLES_API_verb_level = 0;
    // Places without rules, in the middle of what follows.
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_rule_set", 0, KR_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    std::vector<flow_record> lost = make_flows(5000, 100);
    for (uint32_t i = 0; i < lost.size(); ++i) {
        lost[i].priority = 600 * i;
    }
    ASSERT_EQ(add(lost), KR_SDN_HAL_STATUS_ERROR);
    std::vector<flow_record> flows;
    for (uint64_t id = 1; id <= 900; ++id) {
        flows.push_back(make_flow(id, static_cast<uint32_t>(id * 7919 % 65536)));
    }
    ASSERT_EQ(add(flows), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(add({make_flow(1001)}), KR_SDN_HAL_STATUS_NO_RESOURCES); // the lost ones count
    const std::vector<kr_soft_rule_state> states = rules();
    ASSERT_EQ(states.size(), 900U);
    uint64_t last_priority = UINT64_MAX;
    for (const kr_soft_rule_state &state : states) {
        const uint64_t id = uint64_t{state.rule.key.eth_dst[4]} << 8 | state.rule.key.eth_dst[5];
        ASSERT_EQ(offset_of(id), state.rule.set_offset);
        ASSERT_LE(id * 7919 % 65536, last_priority);
        last_priority = id * 7919 % 65536;
    }
}

TEST_F(tables_started, a_delete_that_fails_in_psort_leaves_the_flow_in_the_flows_database_and_the_counters_never_wrap) {
    kr_HAL_TABLES_API_verb_level = 0;
    ASSERT_EQ(add({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_fault_set("psort_entry_set", 0, KR_UTILS_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(flows_db_count(), 1U);
    EXPECT_TRUE(rules().empty());
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 0U);
    EXPECT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS); // the rule goes a second time
    EXPECT_EQ(kr::tables_acl::g.flow_counters_used, 0U);
    EXPECT_EQ(flows_db_count(), 0U);
}

TEST_F(tables_started, the_wrapped_array_is_given_back_and_the_lock_released_whatever_fails) {
    kr_HAL_TABLES_API_verb_level = 0;
    const auto operation = [](uint32_t which) {
        const std::vector<flow_record> flows = make_flows(1, 4);
        const std::vector<uint64_t> ids = ids_of(flows);
        std::vector<flow_record> out(4);
        std::vector<flow_stats> stats(4);
        std::vector<uint32_t> activities(4);
        switch (which) {
        case 0:
            return add(flows);
        case 1:
            return tables_entry_get(0, ids.data(), 4, out.data());
        case 2:
            return tables_flow_activity_get(0, ids.data(), 4, activities.data());
        case 3:
            return tables_entries_stat_get(0, ids.data(), 4, stats.data());
        default:
            return remove(flows);
        }
    };
    for (uint32_t which = 0; which < 5; ++which) {
        for (const uint32_t persistent : {0U, 1U}) {
            // Call 0, 1, 2 ... of the platform fails, alone or with all behind it, until there is none left to fail.
            for (uint32_t nth = 0;; ++nth) {
                ASSERT_LT(nth, 100U);
                kr_soft_fault_clear();
                (void)tables_dependent_deinit();
                (void)flows_db_deinit(&acl_flows_db);
                (void)tables_deinit();
                kr_soft_reset();
                set_back();
                kr_HAL_TABLES_API_verb_level = 0;
                kr_FLOWS_DB_verb_level = 0;
                ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
                ASSERT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_SUCCESS);
                if (which != 0) {
                    ASSERT_EQ(add(make_flows(1, 4)), KR_SDN_HAL_STATUS_SUCCESS);
                }
                kr_soft_journal_start();
                ASSERT_EQ(kr_soft_fault_set("*", nth, 1, persistent), KR_STATUS_SUCCESS);
                (void)operation(which);
                kr_soft_fault_clear();
                kr_soft_journal_stop();
                const std::vector<std::string> calls = journal();
                // Whoever wants the lock next gets it, and flows nobody has heard of are no concern.
                ASSERT_EQ(add({make_flow(900)}), KR_SDN_HAL_STATUS_SUCCESS) << which << " " << nth;
                ASSERT_EQ(remove({make_flow(900)}), KR_SDN_HAL_STATUS_SUCCESS) << which << " " << nth;
                if (calls.size() <= nth) {
                    break; // the fault was not reached
                }
            }
        }
    }
}

/* ---- shifts ------------------------------------------------------------------------------------------------------ */

// One place is left, at the lower end, and the next flow belongs to the upper one: there has to be a shift.
class shift_needed : public tables_started {
  protected:
    void SetUp() override {
        tables_started::SetUp();
        std::vector<flow_record> flows;
        for (uint64_t id = 1; id <= 999; ++id) {
            flows.push_back(make_flow(id, static_cast<uint32_t>(60 * id)));
        }
        ASSERT_EQ(add(flows), KR_SDN_HAL_STATUS_SUCCESS);
        snapshot = state();
        free_offset = 0;
        while (acl_flows_db.slots[free_offset].valid != 0) {
            ++free_offset;
        }
        // Higher priorities lie at lower offsets: the new flow's place is at the other end of the table.
        new_flow = make_flow(5000, free_offset < 500 ? 1 : 65000);
        kr_HAL_TABLES_API_verb_level = 0;
        kr_FLOWS_DB_verb_level = 0;
    }

    static std::map<uint64_t, uint64_t> state() {
        std::map<uint64_t, uint64_t> offsets;
        for (const kr_soft_rule_state &rule : rules()) {
            offsets[uint64_t{rule.rule.key.eth_dst[4]} << 8 | rule.rule.key.eth_dst[5]] = rule.rule.set_offset;
        }
        return offsets;
    }

    static void expect_database_agrees() {
        for (const auto &[id, offset] : state()) {
            EXPECT_EQ(offset_of(id), offset) << id;
        }
    }

    std::map<uint64_t, uint64_t> snapshot;
    uint32_t free_offset = 0;
    flow_record new_flow{};
};

TEST_F(shift_needed, and_it_succeeds) {
    const uint64_t moves = usage().block_move_count;
    EXPECT_EQ(add({new_flow}), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_GT(usage().block_move_count, moves);
    EXPECT_EQ(rules().size(), 1000U);
    expect_database_agrees();
}

TEST_F(shift_needed, a_move_that_fails_in_hardware_fails_the_add_and_changes_nothing) {
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_rule_move_block", 0, KR_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(add({new_flow}), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(state(), snapshot);
    expect_database_agrees();
    EXPECT_EQ(add({new_flow}), KR_SDN_HAL_STATUS_SUCCESS); // a retry works
    expect_database_agrees();
}

TEST_F(shift_needed, a_move_that_fails_in_the_flows_database_fails_the_add_and_the_hardware_stays_moved) {
    acl_flows_db.slots[free_offset].valid = 1; // no flow is there
    acl_flows_db.slots[free_offset].flow_id = 424242;
    EXPECT_EQ(add({new_flow}), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(rules().size(), 999U);
    EXPECT_NE(state(), snapshot);
    for (const auto &[id, offset] : snapshot) {
        EXPECT_EQ(offset_of(id), offset); // the database did not follow
    }
}

TEST_F(tables_started, a_shift_inside_a_batch_moves_the_offsets_of_its_placed_flows_and_no_others) {
    std::vector<flow_record> flows = make_flows(1, 4);
    wrapped_flow *wrapped = nullptr;
    ASSERT_EQ(__wrap_flows(flows.data(), 4, &wrapped), KR_SDN_HAL_STATUS_SUCCESS);
    static constexpr uint64_t offsets[] = {9, 10, 14, 15};
    for (uint32_t i = 0; i < 4; ++i) {
        wrapped[i].offset = offsets[i];
    }
    kr::tables_acl::g.batch_flows = wrapped;
    kr::tables_acl::g.batch_placed_count = 3; // the fourth one is not placed yet
    for (uint32_t i = 0; i < 3; ++i) {
        kr::tables_acl::g.batch_at[offsets[i]] = &wrapped[i];
    }
    EXPECT_EQ(tables_acl_flows_db_rules_shift(10, 12, 5), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(wrapped[0].offset, 9U);
    EXPECT_EQ(wrapped[1].offset, 12U);
    EXPECT_EQ(wrapped[2].offset, 16U);
    EXPECT_EQ(wrapped[3].offset, 15U);
    EXPECT_EQ(tables_acl_flows_db_rules_shift(12, 3, 5), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(wrapped[1].offset, 3U);
    EXPECT_EQ(wrapped[2].offset, 7U);
    // A shift that fails in the flows database moves none.
    kr_HAL_TABLES_API_verb_level = 0;
    kr_FLOWS_DB_verb_level = 0;
    acl_flows_db.slots[21].valid = 1;
    EXPECT_EQ(tables_acl_flows_db_rules_shift(3, 20, 5), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(wrapped[1].offset, 3U);
    kr::tables_acl::g.batch_flows = nullptr;
    kr::tables_acl::g.batch_placed_count = 0;
    std::ranges::fill(kr::tables_acl::g.batch_at, nullptr);
    free(reinterpret_cast<char *>(wrapped) - 4);
}

/* ---- allocation -------------------------------------------------------------------------------------------------- */

TEST_F(tables_started, an_entry_set_and_a_read_back_allocate_the_wrapped_array_and_the_other_reads_nothing) {
    std::vector<flow_record> flows;
    for (uint64_t id = 1; id <= 1000; ++id) {
        flows.push_back(make_flow(id, static_cast<uint32_t>(id * 7919 % 65536)));
    }
    const std::vector<uint64_t> ids = ids_of(flows);
    std::vector<uint32_t> activities(1000);
    std::vector<flow_stats> stats(1000);
    const auto count_of = [](auto call) {
        const allocation_counter counter;
        EXPECT_EQ(call(), KR_SDN_HAL_STATUS_SUCCESS);
        return counter.count();
    };
    EXPECT_EQ(count_of([&] { return tables_entry_set(TABLES_CMD_ADD, 0, flows.data(), 1000); }), 1U);
    EXPECT_EQ(count_of([&] { return tables_entry_get(0, ids.data(), 1000, flows.data()); }), 1U);
    EXPECT_EQ(count_of([&] { return tables_flow_activity_get(0, ids.data(), 1000, activities.data()); }), 0U);
    EXPECT_EQ(count_of([&] { return tables_entries_stat_get(0, ids.data(), 1000, stats.data()); }), 0U);
    EXPECT_EQ(count_of([&] { return tables_entry_set(TABLES_CMD_DELETE, 0, flows.data(), 1000); }), 1U);
}

} // namespace
