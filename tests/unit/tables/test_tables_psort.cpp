/*
 * pSort's notifications, and the background thread: when it calls pSort, how long it waits, and how it ends. No test
 * waits for time to pass: the thread is woken by its event, and its waits are read from the journal.
 */
#include <atomic>
#include <utility>

#include "tests/unit/tables/tables_fixture.h"

using namespace kr_test;

namespace {

// The wall clock of the program; 0: the real one.
std::atomic<time_t> clock_seconds{0};

kr_utils_status notify(uint32_t type, psort_notification_data data = {}, uint64_t context = 0) {
    return tables_psort_notification_handler(type, &data, reinterpret_cast<void *>(context));
}

// Three flows at 5, 6 and 7, in hardware and in the flows database.
class flows_at_5_to_7 : public tables_started {
  protected:
    void SetUp() override {
        tables_started::SetUp();
        for (uint64_t id = 5; id <= 7; ++id) {
            ASSERT_EQ(add({make_flow(id)}), KR_SDN_HAL_STATUS_SUCCESS);
        }
        for (uint64_t id = 5; id <= 7; ++id) { // from wherever pSort put them
            ASSERT_EQ(tables_entries_shift(0, static_cast<uint32_t>(offset_of(id)), 900 + static_cast<uint32_t>(id), 1),
                      KR_SDN_HAL_STATUS_SUCCESS);
        }
        ASSERT_EQ(tables_entries_shift(0, 905, 5, 3), KR_SDN_HAL_STATUS_SUCCESS);
        watch();
    }
};

TEST_F(flows_at_5_to_7, a_shift_of_5_to_6_by_3_moves_the_hardware_first_and_then_the_slots_from_the_top) {
    EXPECT_EQ(notify(PSORT_TABLE_SHIFT, {5, 6, 3}), KR_UTILS_STATUS_SUCCESS);
    EXPECT_THAT(journal(),
                ElementsAre("kr_acl_rm_api_acl_rule_move_block(acl 1, old_start 5, size 3, new_start 6) = 0"));
    for (uint64_t id = 5; id <= 7; ++id) {
        EXPECT_EQ(offset_of(id), id + 1);
    }
    EXPECT_EQ(acl_flows_db.slots[5].valid, 0U);
    EXPECT_THAT(log.take(), ElementsAre(notice("got pSort notification "),
                                        notice("notification Type: PSORT_TABLE_SHIFT , old_index: 5, new_index: 6, "
                                               "size: 3 ")));
}

TEST_F(flows_at_5_to_7, a_shift_onto_a_valid_slot_of_the_flows_database_fails_and_psort_gets_the_converted_status) {
    acl_flows_db.slots[8].valid = 1;
    EXPECT_EQ(notify(PSORT_TABLE_SHIFT, {5, 6, 3}), KR_UTILS_STATUS_ERROR);
}

// What a shift answers, and what pSort gets: the numbering is the utilities' own.
class a_failed_shift : public tables_started,
                       public testing::WithParamInterface<std::pair<kr_sdn_hal_status, kr_utils_status>> {
  protected:
    void SetUp() override {
        tables_started::SetUp();
        operations = *kr::tables::g.operations[0];
        kr::relaxed_store(kr::tables::g.operations[0], static_cast<const table_ops *>(&operations));
        answer = GetParam().first;
        kr_HAL_TABLES_API_verb_level = 0;
    }
    static kr_sdn_hal_status give_answer(uint32_t, uint32_t, uint32_t) {
        return answer;
    }
    static inline kr_sdn_hal_status answer;
    static inline table_ops operations; // until tear-down
};

TEST_P(a_failed_shift, of_the_hardware_is_converted) {
    operations.rules_shift = give_answer;
    EXPECT_EQ(notify(PSORT_TABLE_SHIFT, {5, 6, 3}), GetParam().second);
}

TEST_P(a_failed_shift, of_the_flows_database_is_converted) {
    operations.flows_db_rules_shift = give_answer;
    EXPECT_EQ(notify(PSORT_TABLE_SHIFT, {5, 6, 3}), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(statuses, a_failed_shift,
                         testing::Values(std::pair(KR_SDN_HAL_STATUS_NOT_INITIALIZED, kr_utils_status{4}),
                                         std::pair(KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND, kr_utils_status{5}),
                                         std::pair(KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS, kr_utils_status{14})),
                         [](const auto &one) { return "status_" + std::to_string(one.param.first); });

TEST_F(flows_at_5_to_7, a_shift_beyond_the_hardware_fails_and_changes_nothing) {
    EXPECT_EQ(notify(PSORT_TABLE_SHIFT, {5, 998, 3}), KR_UTILS_STATUS_ERROR);
    EXPECT_EQ(offset_of(5), 5U);
}

TEST_F(flows_at_5_to_7, a_shift_cuts_its_indices_to_16_bits) {
    EXPECT_EQ(notify(PSORT_TABLE_SHIFT, {65536 + 5, 131072 + 6, 3}), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(offset_of(5), 6U);
}

TEST_F(flows_at_5_to_7, a_shift_with_old_start_70000_moves_the_block_at_4464) {
    kr_HAL_TABLES_API_verb_level = 0;
    EXPECT_EQ(tables_acl_rules_shift(70000, 5, 1), KR_SDN_HAL_STATUS_ERROR); // there is no such place
    EXPECT_THAT(journal(), ElementsAre(testing::StartsWith("kr_acl_rm_api_acl_rule_move_block(acl 1, old_start 4464, "
                                                           "size 1, new_start 5) = ")));
    acl_flows_db.slots[4464] = acl_flows_db.slots[5];
    acl_flows_db.slots[5].valid = 0;
    EXPECT_EQ(tables_acl_flows_db_rules_shift(70000, 65536 + 9, 1), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(offset_of(5), 9U);
}

TEST_F(flows_at_5_to_7, the_context_beyond_its_low_32_bits_is_not_looked_at) {
    EXPECT_EQ(notify(PSORT_TABLE_SHIFT, {5, 6, 3}, 0xABCD00000000), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(offset_of(5), 6U);
}

TEST_F(tables_started, almost_full_changes_nothing_and_succeeds) {
    watch();
    EXPECT_EQ(notify(PSORT_TABLE_ALMOST_FULL), KR_UTILS_STATUS_SUCCESS);
    EXPECT_THAT(log.take(),
                ElementsAre(notice("got pSort notification "), notice("notification Type:  PSORT_TABLE_ALMOST_FULL")));
    EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(tables_started, almost_empty_changes_nothing_and_succeeds) {
    watch();
    EXPECT_EQ(notify(PSORT_TABLE_ALMOST_EMPTY), KR_UTILS_STATUS_SUCCESS);
    EXPECT_THAT(log.take(),
                ElementsAre(notice("got pSort notification "), notice("notification Type:  PSORT_TABLE_ALMOST_EMPTY")));
    EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(tables_started, an_unknown_notification_succeeds) {
    watch();
    EXPECT_EQ(notify(3), KR_UTILS_STATUS_SUCCESS);
    EXPECT_EQ(notify(0xFFFFFFFF), KR_UTILS_STATUS_SUCCESS);
    EXPECT_THAT(log.take(), ElementsAre(notice("got pSort notification "), notice("got pSort notification ")));
    EXPECT_THAT(journal(), IsEmpty());
}

/* ---- background thread ------------------------------------------------------------------------------------------- */

// Runs the body of the thread on this thread: each wait ends as it is told to, the last one with the stop flag set.
class background_thread : public tables_unstarted {
  protected:
    void SetUp() override {
        tables_unstarted::SetUp();
        ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
        ASSERT_EQ(tables_acl_init(kr::tables::g.table_enabled, &kr::tables::g.psort), KR_SDN_HAL_STATUS_SUCCESS);
    }

    void TearDown() override {
        kr_soft_fault_clear();
        log_hook() = nullptr;
        clock_seconds = 0;
        tables_unstarted::TearDown();
    }

    // All lines of the journal, the waits too.
    static std::vector<std::string> whole_journal() {
        char *const text = kr_soft_journal_text();
        std::istringstream stream(text);
        free(text);
        std::vector<std::string> lines;
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    // Called with each line of the log, on the thread's behalf: the way to act between its steps.
    static void (*&log_hook())(const std::string &text) {
        static void (*hook)(const std::string &text) = nullptr;
        return hook;
    }

    static void callback(uint32_t severity, const char *module, const char *text) {
        log_capture::callback(severity, module, text);
        if (log_hook() != nullptr) {
            log_hook()(text);
        }
    }

    void run(void (*hook)(const std::string &text)) {
        ASSERT_EQ(kr_log_init(1, nullptr, callback), KR_STATUS_SUCCESS);
        log_hook() = hook;
        watch();
        __psort_background_thread(nullptr);
        kr_soft_journal_stop();
    }
};

// The next wait is over at once; without a signal it is over by time-out.
void wait_times_out() {
    ASSERT_EQ(kr_soft_fault_set("cl_event_wait_on", 0, CL_TIMEOUT, 0), KR_STATUS_SUCCESS);
}
void stop_next() {
    kr::relaxed_store(kr::tables::g.stop_flag, uint32_t{1});
    wait_times_out();
}

TEST_F(background_thread, a_pass_calls_psort_and_the_thread_ends_when_the_stop_flag_is_set) {
    wait_times_out();
    run([](const std::string &text) {
        if (text.starts_with("Calls")) {
            stop_next();
        }
    });
    EXPECT_THAT(whole_journal(),
                ElementsAre("cl_event_wait_on(10000000, 1) = 6", "psort_background_worker(finished=1) = 0",
                            "cl_event_wait_on(10000000, 1) = 6"));
    EXPECT_THAT(log.take(), ElementsAre(notice("Calls psort_background_worker for table 0 ")));
}

TEST_F(background_thread, a_stop_flag_that_is_set_ends_the_thread_before_any_pass) {
    kr::relaxed_store(kr::tables::g.stop_flag, uint32_t{1});
    wait_times_out();
    run(nullptr);
    EXPECT_THAT(whole_journal(), ElementsAre("cl_event_wait_on(10000000, 1) = 6"));
}

TEST_F(background_thread, a_wait_that_fails_is_logged_and_repeated_and_the_stop_flag_is_not_looked_at) {
    kr::relaxed_store(kr::tables::g.stop_flag, uint32_t{1});
    ASSERT_EQ(kr_soft_fault_set("cl_event_wait_on", 0, CL_INTERRUPTED, 0), KR_STATUS_SUCCESS);
    run([](const std::string &) { wait_times_out(); });
    EXPECT_THAT(whole_journal(), ElementsAre("cl_event_wait_on(10000000, 1) = 7", "cl_event_wait_on(10000000, 1) = 6"));
    EXPECT_THAT(log.take(), ElementsAre(notice("PSort background thread wait operation failed")));
}

TEST_F(background_thread, a_worker_with_work_left_is_called_again_after_10_ms_once_3_s_have_passed) {
    kr::relaxed_store(kr::tables::g.last_entry_set_time, time(nullptr) - 100);
    // The worker fails, and leaves its flag at 0.
    ASSERT_EQ(kr_soft_fault_set("psort_background_worker", 0, KR_UTILS_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    wait_times_out();
    run([](const std::string &) { stop_next(); });
    EXPECT_THAT(whole_journal(),
                ElementsAre("cl_event_wait_on(10000000, 1) = 6", "psort_background_worker(finished=0) = 1",
                            "cl_event_wait_on(10000, 1) = 6"));
}

TEST_F(background_thread, exactly_3_s_after_an_entry_set_the_wait_is_10_s_and_at_4_s_it_is_10_ms) {
    clock_seconds = 1'000'000;
    ASSERT_EQ(remove({make_flow(1)}), KR_SDN_HAL_STATUS_SUCCESS);
    // The worker fails, and leaves its flag at 0.
    ASSERT_EQ(kr_soft_fault_set("psort_background_worker", 0, KR_UTILS_STATUS_ERROR, 1), KR_STATUS_SUCCESS);
    clock_seconds = 1'000'003;
    wait_times_out();
    static uint32_t passes = 0;
    passes = 0;
    run([](const std::string &) {
        if (++passes == 1) {
            wait_times_out();
        } else {
            clock_seconds = 1'000'004;
            stop_next();
        }
    });
    EXPECT_THAT(whole_journal(),
                ElementsAre("cl_event_wait_on(10000000, 1) = 6", "psort_background_worker(finished=0) = 1",
                            "cl_event_wait_on(10000000, 1) = 6", "psort_background_worker(finished=0) = 1",
                            "cl_event_wait_on(10000, 1) = 6"));
}

TEST_F(background_thread, a_worker_that_is_done_is_called_again_after_10_s_even_if_the_wait_was_short) {
    kr::relaxed_store(kr::tables::g.last_entry_set_time, time(nullptr) - 100);
    kr::relaxed_store(kr::tables::g.background_wait_us, uint32_t{10000});
    wait_times_out();
    run([](const std::string &) { stop_next(); });
    EXPECT_THAT(whole_journal(),
                ElementsAre("cl_event_wait_on(10000, 1) = 6", "psort_background_worker(finished=1) = 0",
                            "cl_event_wait_on(10000000, 1) = 6"));
}

TEST_F(background_thread, a_recent_entry_set_keeps_the_wait_at_10_s_whatever_is_left_to_do) {
    // In the future, so that no pause of this process can make it old.
    kr::relaxed_store(kr::tables::g.last_entry_set_time, time(nullptr) + 1000);
    ASSERT_EQ(kr_soft_fault_set("psort_background_worker", 0, KR_UTILS_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    wait_times_out();
    run([](const std::string &) { stop_next(); });
    EXPECT_THAT(whole_journal(),
                ElementsAre("cl_event_wait_on(10000000, 1) = 6", "psort_background_worker(finished=0) = 1",
                            "cl_event_wait_on(10000000, 1) = 6"));
}

TEST_F(background_thread, without_a_psort_handle_it_wakes_and_calls_nothing) {
    kr::tables::g.psort = nullptr;
    // Three rounds; the fourth wait fails, and with its line comes the end.
    for (uint32_t nth = 0; nth < 3; ++nth) {
        ASSERT_EQ(kr_soft_fault_set("cl_event_wait_on", nth, CL_TIMEOUT, 0), KR_STATUS_SUCCESS);
    }
    ASSERT_EQ(kr_soft_fault_set("cl_event_wait_on", 3, CL_ERROR, 0), KR_STATUS_SUCCESS);
    run([](const std::string &) { stop_next(); });
    EXPECT_THAT(whole_journal(), ElementsAre("cl_event_wait_on(10000000, 1) = 6", "cl_event_wait_on(10000000, 1) = 6",
                                             "cl_event_wait_on(10000000, 1) = 6", "cl_event_wait_on(10000000, 1) = 1",
                                             "cl_event_wait_on(10000000, 1) = 6"));
}

TEST_F(background_thread, a_table_that_is_not_enabled_is_skipped) {
    kr::tables::g.table_enabled[0] = 0;
    ASSERT_EQ(kr_soft_fault_set("cl_event_wait_on", 0, CL_TIMEOUT, 0), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_fault_set("cl_event_wait_on", 1, CL_ERROR, 0), KR_STATUS_SUCCESS);
    run([](const std::string &) { stop_next(); });
    EXPECT_THAT(whole_journal(), testing::Not(testing::Contains(testing::StartsWith("psort"))));
    kr::tables::g.table_enabled[0] = 1;
}

TEST_F(background_thread, what_the_worker_moves_is_moved_in_hardware_and_in_the_flows_database) {
    // A full table loses every third flow: there is something to bring together.
    std::vector<flow_record> flows;
    for (uint64_t id = 1; id <= 1000; ++id) {
        flows.push_back(make_flow(id, static_cast<uint32_t>(id * 7919 % 65536)));
    }
    ASSERT_EQ(add(flows), KR_SDN_HAL_STATUS_SUCCESS);
    std::vector<flow_record> gone;
    for (size_t i = 0; i < flows.size(); i += 3) {
        gone.push_back(flows[i]);
    }
    ASSERT_EQ(remove(gone), KR_SDN_HAL_STATUS_SUCCESS);
    kr::relaxed_store(kr::tables::g.last_entry_set_time, time(nullptr) - 100);
    static uint32_t passes = 0;
    passes = 0;
    wait_times_out();
    run([](const std::string &text) {
        if (text.starts_with("Calls")) {
            if (++passes == 200) {
                stop_next();
            } else {
                wait_times_out();
            }
        }
    });
    EXPECT_EQ(passes, 200U);
    for (const kr_soft_rule_state &state : rules()) {
        const uint64_t id = uint64_t{state.rule.key.eth_dst[4]} << 8 | state.rule.key.eth_dst[5];
        ASSERT_EQ(offset_of(id), state.rule.set_offset);
    }
}

TEST_F(tables_started, the_thread_is_gone_before_any_table_is_deinitialised) {
    kr_soft_journal_start();
    ASSERT_EQ(tables_dependent_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    const std::vector<std::string> calls = journal();
    ASSERT_GE(calls.size(), 3U);
    EXPECT_EQ(calls[0], "cl_event_signal() = 0");
    EXPECT_EQ(calls[1], "cl_thread_destroy()");
    EXPECT_EQ(calls[2], "psort_clear_table() = 0");
}

} // namespace

// Visible, since the linker reroutes the references of the sanitizers' shared libraries as well.
#pragma GCC visibility push(default)
extern "C" {

time_t __real_time(time_t *seconds);
time_t __wrap_time(time_t *seconds);

time_t __wrap_time(time_t *seconds) {
    const time_t set = clock_seconds;
    const time_t now = set != 0 ? set : __real_time(nullptr);
    if (seconds != nullptr) {
        *seconds = now;
    }
    return now;
}

} // extern "C"
#pragma GCC visibility pop
