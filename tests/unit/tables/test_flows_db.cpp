/*
 * The flows database: every refusal with its line, the block move in both directions, and random operations against a
 * model of ids and offsets.
 */
#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kr_soft.h"
#include "tables/flows_db.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/formatted.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_seed.h"

namespace {

using kr_test::log_line;
using log_lines = std::vector<log_line>;

log_line not_initialized() {
    return {KR_LOG_ERROR, "FLOWS_DB", "Flow DB is not initialized.\n"};
}
log_line flows_error(const std::string &text) {
    return {KR_LOG_ERROR, "FLOWS_DB", text + "\n"};
}
log_line flows_notice(const std::string &text) {
    return {KR_LOG_NOTICE, "FLOWS_DB", text + "\n"};
}
log_line null_pointer(const std::string &description) {
    return {KR_LOG_ERROR, "HAL_UTILS", "NULL Pointer (" + description + ")\n"};
}

bool operator==(const flow_entry &a, const flow_entry &b) {
    return a.flow_id == b.flow_id && a.priority == b.priority && a.offset == b.offset && a.region == b.region &&
           a.counter == b.counter;
}

flow_entry entry_of(uint64_t flow_id, uint64_t offset) {
    return {flow_id, static_cast<uint32_t>(flow_id * 3), offset, flow_id << 33U, static_cast<uint32_t>(flow_id + 7)};
}

class flows_db_test : public ::testing::Test {
  protected:
    static constexpr uint32_t size = 20;

    void SetUp() override {
        memset(db.get(), 0, sizeof(flows_db));
        ASSERT_EQ(flows_db_init(db.get(), size), KR_SDN_HAL_STATUS_SUCCESS);
    }
    void TearDown() override {
        kr_FLOWS_DB_verb_level = 3;
        kr_soft_fault_clear();
        if (db->initialized != 0) {
            EXPECT_EQ(flows_db_deinit(db.get()), KR_SDN_HAL_STATUS_SUCCESS);
        }
        EXPECT_EQ(log.take(), log_lines{});
    }

    kr_sdn_hal_status add(uint64_t flow_id, uint64_t offset) {
        const flow_entry entry = entry_of(flow_id, offset);
        return flows_db_entry_add(db.get(), &entry);
    }
    void added(uint64_t flow_id, uint64_t offset) {
        ASSERT_EQ(add(flow_id, offset), KR_SDN_HAL_STATUS_SUCCESS);
    }
    // Where the flow sits by its id; UINT64_MAX when it is unknown.
    uint64_t offset_of(uint64_t flow_id) {
        flow_entry entry{};
        entry.flow_id = flow_id;
        return flows_db_entry_get(db.get(), &entry) == KR_SDN_HAL_STATUS_SUCCESS ? entry.offset : UINT64_MAX;
    }
    // Which flow sits at the offset; 0 when it is free.
    uint64_t flow_at(uint64_t offset) {
        return db->slots[offset].valid != 0 ? db->slots[offset].flow_id : 0;
    }
    uint32_t occupancy() {
        uint32_t count = 0xdeadbeef;
        EXPECT_EQ(flows_db_occupancy_get(db.get(), &count), KR_SDN_HAL_STATUS_SUCCESS);
        return count;
    }
    // The slots [first, first + expected.size()), 0 for a free one, and that the map agrees with each of them.
    void expect_slots(uint64_t first, const std::vector<uint64_t> &expected) {
        for (uint64_t i = 0; i < expected.size(); i++) {
            EXPECT_EQ(flow_at(first + i), expected[i]) << "offset " << first + i;
            if (expected[i] != 0) {
                EXPECT_EQ(offset_of(expected[i]), first + i);
            }
        }
    }

    kr_test::log_capture log;
    std::unique_ptr<flows_db> db = std::make_unique<flows_db>();
};

// ---- init and deinit --------------------------------------------------------------------------------------------

TEST_F(flows_db_test, init_with_6000_succeeds_and_holds_6000_entries) {
    ASSERT_EQ(flows_db_deinit(db.get()), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(flows_db_init(db.get(), 6000), KR_SDN_HAL_STATUS_SUCCESS);
    for (uint64_t i = 0; i < 6000; i++) {
        ASSERT_EQ(add(i + 1, 5999 - i), KR_SDN_HAL_STATUS_SUCCESS);
    }
    EXPECT_EQ(add(6001, 0), KR_SDN_HAL_STATUS_NO_RESOURCES);
    EXPECT_EQ(occupancy(), 6000U);
    EXPECT_EQ(offset_of(6000), 0U);
    EXPECT_EQ(flow_at(5999), 1U);
}

TEST_F(flows_db_test, init_with_6001_returns_7_and_logs) {
    auto other = std::make_unique<flows_db>();
    for (const uint32_t too_many : {6001U, 0xFFFFFFFFU}) {
        EXPECT_EQ(flows_db_init(other.get(), too_many), 7U);
        EXPECT_EQ(log.take(), log_lines{flows_error("Table size exceeds the maximum table size.")});
        EXPECT_EQ(other->initialized, 0U);
    }
}

TEST_F(flows_db_test, init_with_0_succeeds_and_holds_nothing) {
    ASSERT_EQ(flows_db_deinit(db.get()), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(flows_db_init(db.get(), 0), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(add(1, 0), KR_SDN_HAL_STATUS_NO_RESOURCES);
    EXPECT_EQ(occupancy(), 0U);
}

TEST_F(flows_db_test, init_logs_at_debug_level_with_its_place) {
    auto other = std::make_unique<flows_db>();
    kr_FLOWS_DB_verb_level = 5;
    ASSERT_EQ(flows_db_init(other.get(), 1), KR_SDN_HAL_STATUS_SUCCESS);
    const log_lines lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].severity, uint32_t{KR_LOG_DEBUG});
    EXPECT_EQ(lines[0].module, "FLOWS_DB");
    EXPECT_TRUE(lines[0].text.starts_with("flows_db.cpp[")) << lines[0].text;
    EXPECT_TRUE(lines[0].text.ends_with("]- flows_db_init: HAL flows DB module initialized successfully\n"));
    EXPECT_EQ(flows_db_deinit(other.get()), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(flows_db_test, init_of_uninitialised_memory_works) {
    auto other = std::make_unique<flows_db>();
    memset(other.get(), 0xA5, sizeof(flows_db));
    ASSERT_EQ(flows_db_init(other.get(), 4), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(other->size, 4U);
    EXPECT_EQ(other->active_entries, 0U);
    EXPECT_EQ(other->initialized, 1U);
    for (const flows_db_slot &slot : other->slots) {
        ASSERT_EQ(slot.flow_id, 0U);
        ASSERT_EQ(slot.valid, 0U);
    }
    EXPECT_EQ(flows_db_deinit(other.get()), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(flows_db_test, init_does_not_look_at_the_pools_result_and_adds_find_no_resources) {
    auto other = std::make_unique<flows_db>();
    memcpy(other.get(), db.get(), sizeof(flows_db)); // a pool that must not be taken for the new one
    ASSERT_EQ(kr_soft_fault_set("cl_qpool_init", 0, CL_INSUFFICIENT_MEMORY, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(flows_db_init(other.get(), 4), KR_SDN_HAL_STATUS_SUCCESS);
    const flow_entry entry = entry_of(1, 1);
    EXPECT_EQ(flows_db_entry_add(other.get(), &entry), KR_SDN_HAL_STATUS_NO_RESOURCES);
    EXPECT_EQ(flows_db_deinit(other.get()), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(flows_db_test, second_init_makes_a_new_database_over_the_old_one) {
    added(1, 1);
    cl_qpool_t old_pool = db->entry_pool; // lost to the database from here on
    ASSERT_EQ(flows_db_init(db.get(), 2), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(occupancy(), 0U);
    EXPECT_EQ(flow_at(1), 0U);
    EXPECT_EQ(offset_of(1), UINT64_MAX);
    cl_qpool_destroy(&old_pool);
    added(1, 1);
    EXPECT_EQ(occupancy(), 1U);
}

TEST_F(flows_db_test, after_deinit_occupancy_returns_1_and_after_a_new_init_it_is_0) {
    added(1, 1);
    added(2, 2);
    ASSERT_EQ(flows_db_deinit(db.get()), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(db->active_entries, 2U) << "only init resets it";
    EXPECT_EQ(flow_at(1), 0U);
    uint32_t count = 0xdeadbeef;
    EXPECT_EQ(flows_db_occupancy_get(db.get(), &count), 1U);
    EXPECT_EQ(count, 0xdeadbeefU);
    EXPECT_EQ(log.take(), log_lines{not_initialized()});
    ASSERT_EQ(flows_db_init(db.get(), size), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(occupancy(), 0U);
}

TEST_F(flows_db_test, deinit_goes_on_when_a_deletion_fails_and_returns_the_last_status) {
    added(1, 1);
    added(2, 2);
    // An entry whose id is no longer the key under which it is found.
    auto *const element = reinterpret_cast<flows_db_element *>(reinterpret_cast<char *>(cl_qmap_tail(&db->flow_map)) -
                                                               offsetof(flows_db_element, map_item));
    element->entry.flow_id = 77;
    EXPECT_EQ(flows_db_deinit(db.get()), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(log.take(), (log_lines{flows_error("Could not find flow ID [77] at the flows DB."),
                                     flows_error("Could not delete flow ID [77] at the flows DB."),
                                     flows_error("Failed to delete all flows in flows DB")}));
    EXPECT_EQ(db->initialized, 0U);
    EXPECT_EQ(flow_at(1), 0U);
}

TEST_F(flows_db_test, deinit_returns_the_status_of_the_last_deletion_only) {
    added(1, 1);
    added(2, 2);
    auto *const element = reinterpret_cast<flows_db_element *>(reinterpret_cast<char *>(cl_qmap_head(&db->flow_map)) -
                                                               offsetof(flows_db_element, map_item));
    element->entry.flow_id = 77;
    EXPECT_EQ(flows_db_deinit(db.get()), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(log.take(), (log_lines{flows_error("Could not find flow ID [77] at the flows DB."),
                                     flows_error("Could not delete flow ID [77] at the flows DB.")}));
    EXPECT_EQ(db->initialized, 0U);
}

// ---- pointer and state checks -----------------------------------------------------------------------------------

TEST_F(flows_db_test, null_database_returns_8_with_its_description) {
    flow_entry entry = entry_of(1, 1);
    uint32_t count = 0;
    const std::array statuses = {flows_db_init(nullptr, 6001), // the missing database before the size
                                 flows_db_deinit(nullptr),
                                 flows_db_occupancy_get(nullptr, &count),
                                 flows_db_entry_add(nullptr, &entry),
                                 flows_db_entry_get(nullptr, &entry),
                                 flows_db_entry_delete(nullptr, 1),
                                 flows_db_modify_offset(nullptr, 1, 2, 1)};
    for (const kr_sdn_hal_status status : statuses) {
        EXPECT_EQ(status, 8U);
    }
    EXPECT_EQ(log.take(), log_lines(statuses.size(), null_pointer("Flow Table DB pointer")));
}

TEST_F(flows_db_test, null_second_pointer_returns_8_with_its_description) {
    EXPECT_EQ(flows_db_occupancy_get(db.get(), nullptr), 8U);
    EXPECT_EQ(flows_db_entry_add(db.get(), nullptr), 8U);
    EXPECT_EQ(flows_db_entry_get(db.get(), nullptr), 8U);
    EXPECT_EQ(log.take(), (log_lines{null_pointer("Active entries pointer"), null_pointer("Flow entry pointer"),
                                     null_pointer("Flow entry pointer")}));
}

TEST_F(flows_db_test, the_database_is_checked_before_the_second_pointer_and_both_before_the_state) {
    EXPECT_EQ(flows_db_entry_add(nullptr, nullptr), 8U);
    EXPECT_EQ(log.take(), log_lines{null_pointer("Flow Table DB pointer")});
    ASSERT_EQ(flows_db_deinit(db.get()), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(flows_db_entry_get(db.get(), nullptr), 8U);
    EXPECT_EQ(log.take(), log_lines{null_pointer("Flow entry pointer")});
}

TEST_F(flows_db_test, uninitialised_database_returns_1_but_3_from_add) {
    ASSERT_EQ(flows_db_deinit(db.get()), KR_SDN_HAL_STATUS_SUCCESS);
    flow_entry entry = entry_of(1, 1);
    uint32_t count = 0;
    EXPECT_EQ(flows_db_entry_add(db.get(), &entry), 3U);
    EXPECT_EQ(flows_db_entry_get(db.get(), &entry), 1U);
    EXPECT_EQ(flows_db_entry_delete(db.get(), 1), 1U);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 1, 1, 1), 1U);
    EXPECT_EQ(flows_db_occupancy_get(db.get(), &count), 1U);
    EXPECT_EQ(flows_db_deinit(db.get()), 1U);
    EXPECT_EQ(log.take(), log_lines(6, not_initialized()));
}

// ---- entries ----------------------------------------------------------------------------------------------------

TEST_F(flows_db_test, size_adds_succeed_and_the_next_returns_10) {
    for (uint64_t i = 0; i < size; i++) {
        added(i + 1, i);
    }
    EXPECT_EQ(add(size + 1, size), 10U);
    kr_FLOWS_DB_verb_level = 4;
    EXPECT_EQ(add(size + 1, size), 10U);
    EXPECT_EQ(log.take(), log_lines{flows_notice("Could not find free flow entry at the flows DB.")});
    EXPECT_EQ(flow_at(size), 0U);
    EXPECT_EQ(occupancy(), size);
    ASSERT_EQ(flows_db_entry_delete(db.get(), 3), KR_SDN_HAL_STATUS_SUCCESS);
    added(size + 1, 2);
}

TEST_F(flows_db_test, adding_an_existing_flow_id_returns_5_and_leaves_the_stored_entry) {
    added(9, 4);
    kr_FLOWS_DB_verb_level = 4;
    EXPECT_EQ(add(9, 5), 5U);
    EXPECT_EQ(log.take(), log_lines{flows_notice("flow ID [9] already exists at the flows DB.")});
    flow_entry entry{};
    entry.flow_id = 9;
    ASSERT_EQ(flows_db_entry_get(db.get(), &entry), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_TRUE(entry == entry_of(9, 4));
    EXPECT_EQ(flow_at(5), 0U);
    EXPECT_EQ(occupancy(), 1U);
}

TEST_F(flows_db_test, flow_ids_are_printed_as_64_bit_numbers) {
    kr_FLOWS_DB_verb_level = 4;
    added(UINT64_MAX, 0);
    EXPECT_EQ(add(UINT64_MAX, 1), 5U);
    EXPECT_EQ(log.take(), log_lines{flows_notice("flow ID [18446744073709551615] already exists at the flows DB.")});
}

TEST_F(flows_db_test, get_copies_the_whole_entry) {
    added(5, 19);
    flow_entry entry{5, 1, 2, 3, 4};
    ASSERT_EQ(flows_db_entry_get(db.get(), &entry), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_TRUE(entry == entry_of(5, 19));
}

TEST_F(flows_db_test, get_of_an_unknown_flow_id_returns_4_without_a_line) {
    kr_FLOWS_DB_verb_level = 6;
    flow_entry entry{5, 1, 2, 3, 4};
    EXPECT_EQ(flows_db_entry_get(db.get(), &entry), 4U);
    EXPECT_TRUE(entry == (flow_entry{5, 1, 2, 3, 4}));
    EXPECT_EQ(log.take(), log_lines{});
}

TEST_F(flows_db_test, delete_frees_the_slot_and_leaves_its_stale_id) {
    added(5, 7);
    ASSERT_EQ(flows_db_entry_delete(db.get(), 5), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(db->slots[7].valid, 0U);
    EXPECT_EQ(db->slots[7].flow_id, 5U);
    EXPECT_EQ(offset_of(5), UINT64_MAX);
    EXPECT_EQ(occupancy(), 0U);
}

TEST_F(flows_db_test, deleting_an_unknown_flow_id_returns_4_and_leaves_active_entries) {
    added(5, 7);
    EXPECT_EQ(flows_db_entry_delete(db.get(), 6), 4U);
    EXPECT_EQ(log.take(), log_lines{flows_error("Could not find flow ID [6] at the flows DB.")});
    EXPECT_EQ(occupancy(), 1U);
    EXPECT_EQ(offset_of(5), 7U);
}

TEST_F(flows_db_test, an_add_takes_over_a_valid_slot_without_a_line) {
    kr_FLOWS_DB_verb_level = 6;
    added(1, 3);
    added(2, 3);
    EXPECT_EQ(log.take(), log_lines{});
    EXPECT_EQ(flow_at(3), 2U);
    EXPECT_EQ(offset_of(1), 3U);
    EXPECT_EQ(occupancy(), 2U);
    kr_FLOWS_DB_verb_level = 3;
}

TEST_F(flows_db_test, an_offset_without_a_slot_is_refused_and_nothing_changes) {
    for (const uint64_t offset : {uint64_t{6000}, uint64_t{1} << 32U, UINT64_MAX}) {
        EXPECT_EQ(add(1, offset), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
        EXPECT_EQ(log.take(), log_lines{flows_error(kr_test::formatted(
                                  "Offset [%lu] of flow ID [1] exceeds the slots of the flows DB.", offset))});
        EXPECT_EQ(offset_of(1), UINT64_MAX);
    }
    EXPECT_EQ(occupancy(), 0U);
    auto small = std::make_unique<flows_db>();
    ASSERT_EQ(flows_db_init(small.get(), 1), KR_SDN_HAL_STATUS_SUCCESS);
    flow_entry entry{};
    entry.flow_id = 1;
    entry.offset = 6000;
    for (int attempt = 0; attempt < 3; attempt++) { // no attempt keeps the one place
        EXPECT_EQ(flows_db_entry_add(small.get(), &entry), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
    }
    entry.offset = 0;
    EXPECT_EQ(flows_db_entry_add(small.get(), &entry), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(flows_db_deinit(small.get()), KR_SDN_HAL_STATUS_SUCCESS);
    (void)log.take();
    added(1, 5999); // beyond the size, but it has a slot
    EXPECT_EQ(flow_at(5999), 1U);
}

// ---- the block move ---------------------------------------------------------------------------------------------

TEST_F(flows_db_test, move_10_11_3_goes_from_the_top_and_leaves_10_free) {
    added(100, 10);
    added(110, 11);
    added(120, 12);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 10, 11, 3), KR_SDN_HAL_STATUS_SUCCESS);
    expect_slots(9, {0, 0, 100, 110, 120, 0});
    EXPECT_EQ(occupancy(), 3U);
}

TEST_F(flows_db_test, move_10_11_3_onto_a_valid_13_fails_on_the_first_step_and_changes_nothing) {
    added(100, 10);
    added(110, 11);
    added(120, 12);
    added(130, 13);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 10, 11, 3), 1U);
    EXPECT_EQ(log.take(), (log_lines{flows_error("Flows DB: move block operation overrides valid entries"),
                                     flows_error("Failed to modify offset of entry at offset  [12].")}));
    expect_slots(9, {0, 100, 110, 120, 130, 0});
}

TEST_F(flows_db_test, move_11_10_3_goes_from_the_bottom) {
    added(110, 11);
    added(120, 12);
    added(130, 13);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 11, 10, 3), KR_SDN_HAL_STATUS_SUCCESS);
    expect_slots(9, {0, 110, 120, 130, 0, 0});
}

TEST_F(flows_db_test, a_free_slot_inside_a_block_is_passed_over) {
    added(100, 10);
    added(120, 12);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 10, 14, 3), KR_SDN_HAL_STATUS_SUCCESS);
    expect_slots(10, {0, 0, 0, 0, 100, 0, 120, 0});
    EXPECT_EQ(db->slots[15].flow_id, 0U) << "the destination of a hole stays as it was";
}

TEST_F(flows_db_test, a_valid_destination_of_a_free_slot_fails_too) {
    added(140, 14);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 10, 14, 1), 1U);
    EXPECT_EQ(log.take(), (log_lines{flows_error("Flows DB: move block operation overrides valid entries"),
                                     flows_error("Failed to modify offset of entry at offset  [10].")}));
}

TEST_F(flows_db_test, a_count_of_0_changes_nothing_and_returns_0) {
    added(100, 10);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 10, 11, 0), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 11, 10, 0), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 0, UINT64_MAX, 0), KR_SDN_HAL_STATUS_SUCCESS);
    expect_slots(9, {0, 100, 0});
}

TEST_F(flows_db_test, a_move_to_its_own_place_returns_0_at_once) {
    added(100, 10);
    EXPECT_EQ(flows_db_modify_offset(db.get(), 10, 10, 5), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(flows_db_modify_offset(db.get(), UINT64_MAX, UINT64_MAX, 5), KR_SDN_HAL_STATUS_SUCCESS);
    expect_slots(9, {0, 100, 0});
}

TEST_F(flows_db_test, slots_moved_before_a_failure_stay_moved) {
    added(100, 10);
    added(110, 11);
    added(120, 12);
    added(130, 16); // in the way of 11
    EXPECT_EQ(flows_db_modify_offset(db.get(), 10, 15, 3), 1U);
    EXPECT_EQ(log.take(), (log_lines{flows_error("Flows DB: move block operation overrides valid entries"),
                                     flows_error("Failed to modify offset of entry at offset  [11].")}));
    expect_slots(10, {100, 110, 0, 0, 0, 0, 130, 120});
    EXPECT_EQ(occupancy(), 4U);
}

TEST_F(flows_db_test, a_slot_whose_flow_is_not_in_the_map_fails_the_move) {
    added(100, 10);
    db->slots[11] = {4242, 1, 0};
    EXPECT_EQ(flows_db_modify_offset(db.get(), 10, 14, 2), 1U);
    EXPECT_EQ(
        log.take(),
        (log_lines{flows_error("Flows DB: move block operation failed - entry for flow ID [4242] doesn't exists in DB"),
                   flows_error("Failed to modify offset of entry at offset  [11].")}));
    EXPECT_EQ(flow_at(14), 0U);
    EXPECT_EQ(flow_at(15), 0U);
    EXPECT_EQ(offset_of(100), 10U);
}

TEST_F(flows_db_test, a_block_outside_the_slots_is_refused_before_anything_moves) {
    added(100, 5998);
    struct block {
        uint64_t from, to;
        uint32_t count;
    };
    const block blocks[] = {{5998, 5999, 2},       {5999, 5998, 2},    {6000, 0, 1},
                            {0, 6000, 1},          {UINT64_MAX, 0, 2}, {0, UINT64_MAX, 2},
                            {5998, 0, 0xFFFFFFFF}, {0, 1, 6000},       {uint64_t{1} << 32U, 5, 1}};
    for (const block &block : blocks) {
        EXPECT_EQ(flows_db_modify_offset(db.get(), block.from, block.to, block.count),
                  KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
        EXPECT_EQ(log.take(),
                  log_lines{flows_error(kr_test::formatted("Block of [%u] entries from offset [%lu] to offset [%lu] "
                                                           "exceeds the slots of the flows DB.",
                                                           block.count, block.from, block.to))});
        expect_slots(5998, {100, 0});
    }
    EXPECT_EQ(flows_db_modify_offset(db.get(), 5998, 5999, 1), KR_SDN_HAL_STATUS_SUCCESS);
    expect_slots(5998, {0, 100});
}

TEST_F(flows_db_test, nothing_after_init_allocates) {
    uint32_t statuses = 0;
    flow_entry entry{};
    uint32_t count = 0;
    const kr_test::allocation_counter allocations;
    for (uint64_t i = 0; i < size; i++) {
        entry = {i + 1, 0, i, 0, 0};
        statuses |= flows_db_entry_add(db.get(), &entry);
    }
    statuses |= flows_db_modify_offset(db.get(), 0, 3000, size);
    for (uint64_t i = 0; i < size; i++) {
        entry.flow_id = i + 1;
        statuses |= flows_db_entry_get(db.get(), &entry) | flows_db_entry_delete(db.get(), i + 1);
    }
    statuses |= flows_db_occupancy_get(db.get(), &count);
    EXPECT_EQ(allocations.count(), 0U);
    EXPECT_EQ(statuses, 0U);
    EXPECT_EQ(count, 0U);
    free(cl_malloc(1)); // the counter counts, also what the platform allocates
    EXPECT_EQ(allocations.count(), 1U);
}

// ---- against a model --------------------------------------------------------------------------------------------

class flows_db_model_test : public flows_db_test {
  protected:
    static constexpr uint64_t slot_count = 40;
    std::map<uint64_t, uint64_t> offsets; // flow id -> offset

    uint64_t model_at(uint64_t offset) const {
        for (const auto &[flow_id, at] : offsets) {
            if (at == offset) {
                return flow_id;
            }
        }
        return 0;
    }
    // The move slot by slot, until it fails; whether it did not.
    bool model_move(uint64_t from, uint64_t to, uint32_t count) {
        for (uint32_t step = 0; from != to && step < count; step++) {
            const uint64_t index = from < to ? count - 1 - step : step;
            if (model_at(to + index) != 0) {
                return false;
            }
            const uint64_t flow_id = model_at(from + index);
            if (flow_id != 0) {
                offsets[flow_id] = to + index;
            }
        }
        return true;
    }
    void expect_model() {
        for (uint64_t offset = 0; offset < slot_count; offset++) {
            ASSERT_EQ(flow_at(offset), model_at(offset)) << "offset " << offset;
        }
        for (const auto &[flow_id, offset] : offsets) {
            flow_entry expected = entry_of(flow_id, offset);
            flow_entry entry{};
            entry.flow_id = flow_id;
            ASSERT_EQ(flows_db_entry_get(db.get(), &entry), KR_SDN_HAL_STATUS_SUCCESS);
            ASSERT_TRUE(entry == expected);
        }
        ASSERT_EQ(occupancy(), offsets.size());
    }
};

TEST_F(flows_db_model_test, random_adds_deletes_and_moves_agree_with_a_model) {
    const uint64_t seed = kr_test::test_seed();
    RecordProperty("seed", std::to_string(seed));
    SCOPED_TRACE("KR_TEST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    uint32_t move_count = 0;
    for (int step = 0; step < 5000; step++) {
        const uint64_t flow_id = 1 + random() % 30;
        const uint64_t offset = random() % slot_count;
        const bool is_known = offsets.contains(flow_id);
        switch (random() % 4) {
        case 0:
        case 1:
            if (model_at(offset) == 0) { // the owner never places a flow onto another one
                const kr_sdn_hal_status expected = is_known                 ? KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS
                                                   : offsets.size() == size ? KR_SDN_HAL_STATUS_NO_RESOURCES
                                                                            : KR_SDN_HAL_STATUS_SUCCESS;
                ASSERT_EQ(add(flow_id, offset), expected) << "step " << step;
                if (expected == KR_SDN_HAL_STATUS_SUCCESS) {
                    offsets[flow_id] = offset;
                }
            }
            break;
        case 2:
            ASSERT_EQ(flows_db_entry_delete(db.get(), flow_id),
                      is_known ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
            offsets.erase(flow_id);
            break;
        default: {
            const auto count = static_cast<uint32_t>(random() % 8);
            const uint64_t from = random() % (slot_count - count);
            const uint64_t to = random() % (slot_count - count);
            const bool is_whole = model_move(from, to, count);
            ASSERT_EQ(flows_db_modify_offset(db.get(), from, to, count),
                      is_whole ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_ERROR)
                << "step " << step;
            move_count += is_whole && count > 0 ? 1 : 0;
        }
        }
        ASSERT_NO_FATAL_FAILURE(expect_model()) << "step " << step;
        log.take();
    }
    EXPECT_GT(move_count, 100U) << "hardly any move was tried";
}

} // namespace
