/*
 * The connector's events and configuration: start and stop step by step, ports, what is discarded, and the records
 * that leave for the clients.
 */
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "general_fixture.h"
#include "wrapped_calls.h"

using kr_test::call_list;
using kr_test::device_call;
using kr_test::fake_ports;
using kr_test::general_fixture;
using kr_test::record_log;
using kr_test::record_system_calls;
using kr_test::set_result;
using kr_test::take_calls;
using kr_test::take_closed;
using kr_test::take_delivered_records;
using kr_test::take_device_calls;
using kr_test::take_writes;
using kr_test::written;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr uint32_t start_event = 1;
constexpr uint32_t stop_event = 2;
constexpr uint32_t added_event = 4;
constexpr uint32_t removed_event = 8;
constexpr uint32_t forward_event = 16;

conn_port_record port_record(uint32_t log_port, uint32_t ifindex, int32_t requested) {
    conn_port_record port{};
    port.log_port = log_port;
    port.ifindex = ifindex;
    port.requested_of_port = requested;
    memcpy(port.interface_name, "swp1-all-16-byte", 16);
    memcpy(port.mac_address, "\x02\x00\x5e\x10\x20\x30", 6);
    return port;
}

class general_events_test : public general_fixture {};

/* ---- start ----------------------------------------------------------------------------------------------------- */

const call_list whole_start = {
    "kr_sdn_hal_srvc_dependent_init",
    "tables_dependent_init",
    "fpt_activate",
    "kr_api_host_ifc_open",
    "pipe",
    "cl_thread_init",
};

TEST_F(general_events_test, start_opens_everything_in_order_and_announces_it) {
    init();
    record_system_calls(true);
    EXPECT_EQ(0u, general_event_cb(start_event, nullptr));
    call_list expected = whole_start;
    expected.push_back("kr_sdn_hal_srvc_process_event");
    EXPECT_THAT(take_calls(), ElementsAreArray(expected));
    EXPECT_EQ(1u, kr::general::g.started);
    EXPECT_EQ(0u, kr::general::g.user_channel.type);
    EXPECT_THAT(kr_test::device_descriptors(), ElementsAre(kr::general::g.user_channel.descriptor.fd));
    EXPECT_THAT(take_device_calls(),
                ElementsAre(device_call{"kr_api_host_ifc_open", 0x77,
                                        static_cast<uint32_t>(kr::general::g.user_channel.descriptor.fd)}));

    const std::vector<hal_event_record> records = take_delivered_records();
    ASSERT_EQ(1u, records.size());
    const hal_event_record ready{};
    EXPECT_EQ(0, memcmp(&records[0], &ready, sizeof ready)); // EVENT_GENERAL_READY is 0, and there is no payload
}

struct start_row {
    const char *step;
    const char *failing_call;
    uint32_t code;
    uint32_t status;
    size_t calls_before;
    call_list calls_after;
};

const start_row start_rows[] = {
    {"step_2_event_service",
     "kr_sdn_hal_srvc_dependent_init",
     2,
     2,
     1,
     {
         "1 HAL_GEN: SDN HAL events module dependent init failed.",
     }},
    {"step_3_tables",
     "tables_dependent_init",
     10,
     10,
     2,
     {
         "1 HAL_GEN: SDN HAL table module dependent init failed.",
         "kr_sdn_hal_srvc_dependent_deinit",
     }},
    {"step_4_fpt",
     "fpt_activate",
     9,
     9,
     3,
     {
         "1 HAL_GEN: FPT activate failed.",
         "tables_dependent_deinit",
         "kr_sdn_hal_srvc_dependent_deinit",
     }},
    {"step_5_host_ifc",
     "kr_api_host_ifc_open",
     6,
     1,
     4,
     {
         "1 HAL_GEN: Failed to open host ifc No resources.",
         "tables_dependent_deinit",
         "kr_sdn_hal_srvc_dependent_deinit",
     }},
    {"step_6_stop_pipe",
     "pipe",
     EMFILE,
     1,
     5,
     {
         "kr_api_host_ifc_close",
         "tables_dependent_deinit",
         "kr_sdn_hal_srvc_dependent_deinit",
     }},
    {"step_7_thread",
     "cl_thread_init",
     1,
     1,
     6,
     {
         "1 HAL_GEN: Could not create controls listener thread.",
         "close",
         "close",
         "kr_api_host_ifc_close",
         "tables_dependent_deinit",
         "kr_sdn_hal_srvc_dependent_deinit",
     }},
};

class general_start_failure_test : public general_fixture, public testing::WithParamInterface<start_row> {
  protected:
    uint32_t failing_start() {
        init();
        record_system_calls(true);
        set_result(GetParam().failing_call, GetParam().code);
        return general_event_cb(start_event, nullptr);
    }
    static call_list expected() {
        call_list calls(whole_start.begin(), whole_start.begin() + static_cast<ptrdiff_t>(GetParam().calls_before));
        calls.insert(calls.end(), GetParam().calls_after.begin(), GetParam().calls_after.end());
        return calls;
    }
};

TEST_P(general_start_failure_test, logs_then_undoes_and_stays_stopped) {
    EXPECT_EQ(GetParam().status, failing_start());
    EXPECT_THAT(take_calls(), ElementsAreArray(expected()));
    EXPECT_EQ(0u, kr::general::g.started);
    EXPECT_THAT(take_delivered_records(), IsEmpty());
    EXPECT_THAT(kr_test::device_descriptors(), IsEmpty());
    EXPECT_EQ(0u, kr::general::g.stored.frame_size);
}

TEST_P(general_start_failure_test, may_be_retried) {
    EXPECT_EQ(GetParam().status, failing_start());
    set_result(GetParam().failing_call, 0);
    EXPECT_EQ(0u, general_event_cb(start_event, nullptr));
    EXPECT_EQ(1u, kr::general::g.started);
}

INSTANTIATE_TEST_SUITE_P(rows, general_start_failure_test, testing::ValuesIn(start_rows),
                         [](const auto &row) { return row.param.step; });

TEST_F(general_events_test, start_undo_ends_where_the_descriptor_cannot_be_closed) {
    init();
    set_result("cl_thread_init", 1);
    set_result("kr_api_host_ifc_close", 12);
    EXPECT_EQ(1u, general_event_cb(start_event, nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("kr_sdn_hal_srvc_dependent_init", "tables_dependent_init", "fpt_activate",
                                          "kr_api_host_ifc_open", "cl_thread_init",
                                          "1 HAL_GEN: Could not create controls listener thread.",
                                          "kr_api_host_ifc_close", "1 HAL_GEN: Failed in host_ifc_close err (12)."));
}

TEST_F(general_events_test, start_undo_ends_where_the_tables_cannot_be_taken_down) {
    init();
    set_result("fpt_activate", 5);
    set_result("tables_dependent_deinit", 1);
    EXPECT_EQ(5u, general_event_cb(start_event, nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("kr_sdn_hal_srvc_dependent_init", "tables_dependent_init", "fpt_activate",
                                          "1 HAL_GEN: FPT activate failed.", "tables_dependent_deinit",
                                          "1 HAL_GEN: SDN HAL table module dependent deinit failed."));
}

TEST_F(general_events_test, start_undo_tells_that_the_event_service_cannot_be_taken_down) {
    init();
    set_result("tables_dependent_init", 3);
    set_result("kr_sdn_hal_srvc_dependent_deinit", 2);
    EXPECT_EQ(3u, general_event_cb(start_event, nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("kr_sdn_hal_srvc_dependent_init", "tables_dependent_init",
                                          "1 HAL_GEN: SDN HAL table module dependent init failed.",
                                          "kr_sdn_hal_srvc_dependent_deinit",
                                          "1 HAL_GEN: SDN HAL events module dependent deinit failed."));
}

TEST_F(general_events_test, second_start_returns_success_with_its_notice_and_opens_nothing) {
    start();
    EXPECT_EQ(0u, general_event_cb(start_event, nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("15 HAL_GEN: SDN HAL has already started."));
    EXPECT_THAT(take_delivered_records(), IsEmpty());
    EXPECT_EQ(KR_SDN_HAL_STATUS_SUCCESS, kr::general::__general_event_start());
    EXPECT_THAT(take_calls(), ElementsAre("15 HAL_GEN: SDN HAL has already started."));
}

TEST_F(general_events_test, start_whose_announcement_fails_returns_that_and_stays_started) {
    init();
    set_result("kr_sdn_hal_srvc_process_event", 1);
    EXPECT_EQ(1u, general_event_cb(start_event, nullptr));
    EXPECT_EQ(1u, kr::general::g.started);
}

/* ---- stop ------------------------------------------------------------------------------------------------------ */

TEST_F(general_events_test, stop_closes_everything_in_order) {
    start();
    const int read_end = kr::general::g.stop_pipe[0];
    const int write_end = kr::general::g.stop_pipe[1];
    const auto fd = static_cast<uint32_t>(kr::general::g.user_channel.descriptor.fd);
    (void)take_device_calls();
    record_system_calls(true);
    EXPECT_EQ(0u, general_event_cb(stop_event, nullptr));
    EXPECT_THAT(take_writes(), ElementsAre(written{write_end, std::string(4, '\0')}));
    EXPECT_THAT(take_closed(), UnorderedElementsAre(read_end, write_end));
    EXPECT_THAT(take_device_calls(), ElementsAre(device_call{"kr_api_host_ifc_close", 0x77, fd}));
    EXPECT_THAT(take_calls(),
                ElementsAre("write 4", "15 HAL_GEN: Terminating controls thread", "cl_thread_destroy", "close", "close",
                            "kr_api_host_ifc_close", "tables_dependent_deinit", "kr_sdn_hal_srvc_dependent_deinit"));
    EXPECT_EQ(0u, kr::general::g.started);
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

TEST_F(general_events_test, start_after_stop_works) {
    start();
    EXPECT_EQ(0u, general_event_cb(stop_event, nullptr));
    EXPECT_EQ(0u, general_event_cb(start_event, nullptr));
    EXPECT_EQ(1u, kr::general::g.started);
}

TEST_F(general_events_test, stop_with_a_port_returns_11_and_stays_started) {
    start();
    fake_ports()[3] = {3, 3, 30};
    EXPECT_EQ(11u, general_event_cb(stop_event, nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("1 HAL_GEN: SDN HAL couldn't not be stopped when port(s) exists."));
    EXPECT_EQ(1u, kr::general::g.started);
}

TEST_F(general_events_test, stop_that_cannot_count_the_ports_returns_that_status) {
    start();
    set_result("port_get_arr", 8);
    EXPECT_EQ(8u, general_event_cb(stop_event, nullptr));
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(1u, kr::general::g.started);
}

TEST_F(general_events_test, stop_goes_on_when_the_descriptor_cannot_be_closed) {
    start();
    set_result("kr_api_host_ifc_close", 12);
    EXPECT_EQ(0u, general_event_cb(stop_event, nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("15 HAL_GEN: Terminating controls thread", "cl_thread_destroy",
                                          "kr_api_host_ifc_close", "1 HAL_GEN: Failed in host_ifc_close err (12).",
                                          "tables_dependent_deinit", "kr_sdn_hal_srvc_dependent_deinit"));
    EXPECT_EQ(0u, kr::general::g.started);
}

TEST_F(general_events_test, stop_whose_tables_fail_returns_that_and_stays_started) {
    start();
    set_result("tables_dependent_deinit", 1);
    EXPECT_EQ(1u, general_event_cb(stop_event, nullptr));
    EXPECT_THAT(take_calls(),
                ElementsAre("15 HAL_GEN: Terminating controls thread", "cl_thread_destroy", "kr_api_host_ifc_close",
                            "tables_dependent_deinit", "1 HAL_GEN: SDN HAL table module dependent deinit failed."));
    EXPECT_EQ(1u, kr::general::g.started);
    kr::general::g.started = 0; // its pipe is closed: no second stop
}

TEST_F(general_events_test, stop_whose_event_service_fails_returns_that_and_stays_started) {
    start();
    set_result("kr_sdn_hal_srvc_dependent_deinit", 2);
    EXPECT_EQ(2u, general_event_cb(stop_event, nullptr));
    EXPECT_THAT(take_calls(),
                ElementsAre("15 HAL_GEN: Terminating controls thread", "cl_thread_destroy", "kr_api_host_ifc_close",
                            "tables_dependent_deinit", "kr_sdn_hal_srvc_dependent_deinit",
                            "1 HAL_GEN: SDN HAL events module dependent deinit failed."));
    EXPECT_EQ(1u, kr::general::g.started);
    kr::general::g.started = 0;
}

// The stop closed its pipe before it failed: what it was called may be another file's by now.
TEST_F(general_events_test, second_stop_after_a_failed_one_touches_no_foreign_descriptor) {
    start();
    const int stop_pipe[2] = {kr::general::g.stop_pipe[0], kr::general::g.stop_pipe[1]};
    set_result("tables_dependent_deinit", 1);
    EXPECT_EQ(1u, general_event_cb(stop_event, nullptr));
    for (const int number : stop_pipe) {
        ASSERT_EQ(number, dup2(STDERR_FILENO, number)); // another file's now
    }
    (void)take_calls();
    record_system_calls(true);
    EXPECT_EQ(0u, general_event_cb(stop_event, nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("write 4", "1 HAL_GEN: SDN HAL thread deinit failed."));
    EXPECT_THAT(take_writes(), ElementsAre(written{-1, std::string(4, '\0')}));
    EXPECT_THAT(take_closed(), IsEmpty());
    EXPECT_EQ(0u, kr::general::g.started);
    record_system_calls(false);
    for (const int number : stop_pipe) {
        EXPECT_EQ(0, close(number));
    }
}

TEST_F(general_events_test, stop_whose_word_is_not_written_counts_as_stopped_and_closes_nothing) {
    for (const uint32_t failure : {uint32_t{EIO}, uint32_t{1000}}) { // an error, and nothing written
        start();
        const int stop_pipe[2] = {kr::general::g.stop_pipe[0], kr::general::g.stop_pipe[1]};
        const cl_thread_t thread = kr::general::g.control_frames_thread;
        set_result("write", failure);
        EXPECT_EQ(0u, general_event_cb(stop_event, nullptr));
        EXPECT_THAT(take_calls(), ElementsAre("1 HAL_GEN: SDN HAL thread deinit failed."));
        EXPECT_EQ(0u, kr::general::g.started);
        EXPECT_NE(-1, fcntl(stop_pipe[0], F_GETFD));
        EXPECT_NE(-1, fcntl(stop_pipe[1], F_GETFD));
        EXPECT_THAT(kr_test::device_descriptors(), ElementsAre(kr::general::g.user_channel.descriptor.fd));

        // The thread is still there: it ends when it is told.
        set_result("write", 0);
        EXPECT_EQ(4, write(stop_pipe[1], "\0\0\0", 4));
        EXPECT_EQ(0, pthread_join(thread.thread, nullptr));
        close(stop_pipe[0]);
        close(stop_pipe[1]);
        kr_test::fakes_reset();
        kr::general::g = {};
    }
}

TEST_F(general_events_test, stop_whose_word_is_cut_counts_as_stopped) {
    start();
    kr_test::write_limit(3);
    EXPECT_EQ(0u, general_event_cb(stop_event, nullptr));
    EXPECT_THAT(take_calls(), testing::Contains("1 HAL_GEN: SDN HAL thread deinit failed."));
    EXPECT_EQ(0u, kr::general::g.started);
    cl_thread_destroy(&kr::general::g.control_frames_thread); // the three bytes woke the thread
    close(kr::general::g.stop_pipe[0]);
    close(kr::general::g.stop_pipe[1]);
}

/* ---- before the start ------------------------------------------------------------------------------------------ */

TEST_F(general_events_test, events_before_the_start_return_success_and_only_give_the_notice) {
    init();
    conn_port_record port = port_record(1, 2, 0);
    for (const uint32_t event : {stop_event, added_event, removed_event, forward_event, uint32_t{0}, uint32_t{32}}) {
        EXPECT_EQ(0u, general_event_cb(event, &port));
        EXPECT_THAT(take_calls(),
                    ElementsAre("15 HAL_GEN: General event cb called before start event, discarding event."));
        EXPECT_EQ(0u, general_event_cb(event, nullptr));
        EXPECT_THAT(take_calls(),
                    ElementsAre("15 HAL_GEN: General event cb called before start event, discarding event."));
    }
    EXPECT_THAT(take_delivered_records(), IsEmpty());
    EXPECT_THAT(fake_ports(), IsEmpty());
}

TEST_F(general_events_test, configuration_before_the_start_returns_success_and_only_gives_the_notice) {
    init();
    EXPECT_EQ(0u, general_config_cb(0, nullptr));
    EXPECT_EQ(0u, general_config_cb(1, nullptr));
    EXPECT_THAT(take_calls(),
                ElementsAre("15 HAL_GEN: General config cb called before start event, discarding config.",
                            "15 HAL_GEN: General config cb called before start event, discarding config."));
}

TEST_F(general_events_test, unknown_events_return_success_and_do_nothing) {
    start();
    for (const uint32_t event : {0u, 3u, 32u, 0xFFFFFFFFu}) {
        EXPECT_EQ(0u, general_event_cb(event, nullptr));
    }
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

TEST_F(general_events_test, events_without_their_data_return_8_and_change_nothing) {
    start();
    for (const uint32_t event : {added_event, removed_event, forward_event}) {
        EXPECT_EQ(8u, general_event_cb(event, nullptr));
        EXPECT_THAT(take_calls(), ElementsAre("1 HAL_UTILS: NULL Pointer (Event data pointer)"));
    }
    EXPECT_EQ(8u, general_config_cb(0, nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("1 HAL_UTILS: NULL Pointer (Config data pointer)"));
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

/* ---- ports ----------------------------------------------------------------------------------------------------- */

// What a port's update looks like, byte for byte.
hal_event_record update_record(uint32_t reason, uint32_t of_port, uint32_t oper_state) {
    hal_event_record expected{};
    auto *const bytes = reinterpret_cast<uint8_t *>(&expected);
    const uint32_t type = 3;
    memcpy(bytes, &type, 4);
    memcpy(bytes + 8, &reason, 4);
    memcpy(bytes + 12, &of_port, 4);
    memcpy(bytes + 16, &oper_state, 4);
    memcpy(bytes + 20, "\x02\x00\x5e\x10\x20\x30", 6);
    memcpy(bytes + 26, "swp1-all-16-byte", 16);
    return expected;
}

void expect_delivered(const hal_event_record &expected) {
    const std::vector<hal_event_record> records = take_delivered_records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(0, memcmp(&records[0], &expected, sizeof expected));
}

TEST_F(general_events_test, port_added_reaches_database_tables_and_clients) {
    start();
    (void)take_device_calls();
    conn_port_record port = port_record(0x10001, 7, 0);
    EXPECT_EQ(0u, general_event_cb(added_event, &port));
    EXPECT_THAT(take_device_calls(), ElementsAre(device_call{"kr_api_port_state_get", 0x77, 0x10001}));
    EXPECT_THAT(take_calls(), ElementsAre("kr_api_port_state_get", "port_set(add)", "of port 7", "tables_port_added",
                                          "kr_sdn_hal_srvc_process_event"));
    expect_delivered(update_record(0, 7, 0x10002));
    EXPECT_EQ(7u, fake_ports().at(7).ifindex);
    EXPECT_EQ(0x10001u, fake_ports().at(7).log_port);
}

TEST_F(general_events_test, port_added_passes_the_requested_port_on) {
    start();
    conn_port_record port = port_record(5, 7, -32768);
    EXPECT_EQ(0u, general_event_cb(added_event, &port));
    EXPECT_EQ(1u, fake_ports().count(0));
}

TEST_F(general_events_test, port_record_need_not_be_aligned_nor_longer_than_its_34_bytes) {
    start();
    const conn_port_record port = port_record(0x10001, 7, 0);
    std::vector<char> bytes(1 + 34);
    memcpy(bytes.data() + 1, &port, 34);
    EXPECT_EQ(0u, general_event_cb(added_event, bytes.data() + 1));
    expect_delivered(update_record(0, 7, 0x10002));
}

TEST_F(general_events_test, port_added_whose_state_cannot_be_read_returns_1_and_adds_nothing) {
    start();
    conn_port_record port = port_record(0x1F, 7, 0);
    set_result("kr_api_port_state_get", 5);
    EXPECT_EQ(1u, general_event_cb(added_event, &port));
    EXPECT_THAT(take_calls(), ElementsAre("kr_api_port_state_get",
                                          "1 HAL_GEN: Failed to retrieve port status [1f], err [Entry not found]."));
    EXPECT_THAT(fake_ports(), IsEmpty());
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

TEST_F(general_events_test, port_added_twice_returns_5_with_its_line_and_no_event) {
    start();
    conn_port_record port = port_record(1, 7, 0);
    EXPECT_EQ(0u, general_event_cb(added_event, &port));
    (void)take_calls();
    (void)take_delivered_records();
    EXPECT_EQ(5u, general_event_cb(added_event, &port));
    EXPECT_THAT(take_calls(), ElementsAre("kr_api_port_state_get", "port_set(add)", "1 HAL_GEN: Port add failed."));
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

TEST_F(general_events_test, port_added_to_full_tables_returns_10_and_leaves_the_database_unchanged) {
    start();
    conn_port_record port = port_record(1, 7, 0);
    set_result("tables_port_added", 10);
    EXPECT_EQ(10u, general_event_cb(added_event, &port));
    EXPECT_THAT(take_calls(), ElementsAre("kr_api_port_state_get", "port_set(add)", "of port 7", "tables_port_added",
                                          "1 HAL_GEN: Table port add failed.", "port_set(remove)"));
    EXPECT_THAT(fake_ports(), IsEmpty());
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

TEST_F(general_events_test, port_added_whose_removal_from_the_database_fails_says_so_and_returns_10) {
    start();
    conn_port_record port = port_record(1, 7, 0);
    set_result("tables_port_added", 10);
    set_result("port_set(remove)", 1);
    EXPECT_EQ(10u, general_event_cb(added_event, &port));
    EXPECT_THAT(take_calls(), ElementsAre("kr_api_port_state_get", "port_set(add)", "of port 7", "tables_port_added",
                                          "1 HAL_GEN: Table port add failed.", "port_set(remove)",
                                          "1 HAL_GEN: Failed to delete port from HAL port DB."));
}

TEST_F(general_events_test, port_added_whose_port_is_gone_from_the_database_already_says_nothing_more) {
    start();
    conn_port_record port = port_record(1, 7, 0);
    set_result("tables_port_added", 10);
    set_result("port_set(remove)", 4);
    EXPECT_EQ(10u, general_event_cb(added_event, &port));
    EXPECT_EQ("port_set(remove)", take_calls().back());
}

TEST_F(general_events_test, port_added_whose_tables_fail_otherwise_stays_in_the_database) {
    start();
    conn_port_record port = port_record(1, 7, 0);
    set_result("tables_port_added", 3);
    EXPECT_EQ(3u, general_event_cb(added_event, &port));
    EXPECT_THAT(take_calls(), ElementsAre("kr_api_port_state_get", "port_set(add)", "of port 7", "tables_port_added",
                                          "1 HAL_GEN: Table port add failed."));
    EXPECT_EQ(1u, fake_ports().count(7));
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

TEST_F(general_events_test, port_added_whose_announcement_fails_returns_that_and_keeps_the_port) {
    start();
    conn_port_record port = port_record(1, 7, 0);
    set_result("kr_sdn_hal_srvc_process_event", 1);
    EXPECT_EQ(1u, general_event_cb(added_event, &port));
    EXPECT_EQ(1u, fake_ports().count(7));
}

TEST_F(general_events_test, port_removed_waits_for_the_acknowledgement_that_removes_it) {
    start();
    conn_port_record port = port_record(0x10001, 7, 0);
    EXPECT_EQ(0u, general_event_cb(added_event, &port));
    (void)take_delivered_records();
    (void)take_calls();

    uint32_t status = 99;
    std::thread connector_thread([&] { status = general_event_cb(removed_event, &port); });
    kr_test::wait_for_call("cl_event_wait_on(for ever)");
    EXPECT_THAT(take_calls(),
                ElementsAre("kr_api_port_state_get", "kr_sdn_hal_srvc_process_event", "cl_event_wait_on(for ever)"));
    EXPECT_EQ(1u, fake_ports().count(7));
    const std::vector<hal_event_record> records = take_delivered_records();
    ASSERT_EQ(1u, records.size());
    const hal_event_record expected = update_record(1, 7, 0x10002);
    EXPECT_EQ(0, memcmp(&records[0], &expected, sizeof expected));

    EXPECT_EQ(KR_SDN_HAL_STATUS_SUCCESS, general_process_shim_event_ack(&records[0]));
    connector_thread.join();
    EXPECT_EQ(0u, status);
    EXPECT_THAT(take_calls(), ElementsAre("of port 7", "tables_port_removed", "port_set(remove)", "cl_event_signal"));
    EXPECT_THAT(fake_ports(), IsEmpty());
}

TEST_F(general_events_test, acknowledgement_before_the_wait_begins_is_not_lost) {
    start();
    conn_port_record port = port_record(0x10001, 7, 0);
    EXPECT_EQ(0u, general_event_cb(added_event, &port));
    (void)take_calls();
    kr_test::set_delivery_hook([](const hal_event_record &record) {
        EXPECT_EQ(KR_SDN_HAL_STATUS_SUCCESS, general_process_shim_event_ack(&record));
    });
    EXPECT_EQ(0u, general_event_cb(removed_event, &port)); // on this very thread: a signal that is lost hangs it
    EXPECT_THAT(take_calls(),
                ElementsAre("kr_api_port_state_get", "of port 7", "tables_port_removed", "port_set(remove)",
                            "cl_event_signal", "kr_sdn_hal_srvc_process_event", "cl_event_wait_on(for ever)"));
}

// A wait that was interrupted leaves the signal of its acknowledgement, which comes later, behind.
TEST_F(general_events_test, late_acknowledgement_does_not_complete_the_next_removal) {
    start();
    for (const uint32_t of_port : {7u, 8u}) {
        conn_port_record port = port_record(of_port, of_port, 0);
        EXPECT_EQ(0u, general_event_cb(added_event, &port));
    }
    conn_port_record first = port_record(7, 7, 0);
    set_result("cl_event_wait_on(for ever)", 7);
    EXPECT_EQ(1u, general_event_cb(removed_event, &first));
    set_result("cl_event_wait_on(for ever)", 0);
    const hal_event_record late = update_record(1, 7, 8);
    EXPECT_EQ(KR_SDN_HAL_STATUS_SUCCESS, general_process_shim_event_ack(&late));

    kr_test::set_delivery_hook([](const hal_event_record &record) {
        EXPECT_NE(CL_SUCCESS, cl_event_wait_on(&kr::general::g.port_disable_event, 0, 1)); // nobody has signalled yet
        EXPECT_EQ(KR_SDN_HAL_STATUS_SUCCESS, general_process_shim_event_ack(&record));
    });
    conn_port_record second = port_record(8, 8, 0);
    EXPECT_EQ(0u, general_event_cb(removed_event, &second));
    EXPECT_THAT(fake_ports(), IsEmpty());
}

TEST_F(general_events_test, port_removed_whose_state_cannot_be_read_returns_1_without_event_or_wait) {
    start();
    fake_ports()[7] = {7, 7, 1};
    conn_port_record port = port_record(0xAB, 7, 0);
    set_result("kr_api_port_state_get", 1);
    EXPECT_EQ(1u, general_event_cb(removed_event, &port));
    EXPECT_THAT(take_calls(),
                ElementsAre("kr_api_port_state_get",
                            testing::StartsWith("1 HAL_GEN: Failed to retrieve port status [ab], err [")));
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

TEST_F(general_events_test, port_removed_reads_the_state_of_the_records_logical_port) {
    start();
    fake_ports()[7] = {7, 7, 1};
    (void)take_device_calls();
    conn_port_record port = port_record(0xAB, 7, 0);
    set_result("kr_sdn_hal_srvc_process_event", 1); // no wait
    EXPECT_EQ(1u, general_event_cb(removed_event, &port));
    EXPECT_THAT(take_device_calls(), ElementsAre(device_call{"kr_api_port_state_get", 0x77, 0xAB}));
    EXPECT_EQ(0xACu, take_delivered_records().at(0).payload.port_update.oper_state);
}

TEST_F(general_events_test, port_removed_with_an_unknown_interface_index_returns_4_without_event_or_wait) {
    start();
    conn_port_record port = port_record(1, 7, 0);
    EXPECT_EQ(4u, general_event_cb(removed_event, &port));
    EXPECT_THAT(take_calls(),
                ElementsAre("kr_api_port_state_get", "1 HAL_GEN: Failed to translate ifindex into OF port ID (4)."));
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

TEST_F(general_events_test, port_removed_whose_announcement_fails_returns_that_without_waiting) {
    start();
    fake_ports()[7] = {7, 7, 1};
    conn_port_record port = port_record(1, 7, 0);
    set_result("kr_sdn_hal_srvc_process_event", 1);
    EXPECT_EQ(1u, general_event_cb(removed_event, &port));
    EXPECT_THAT(take_calls(), ElementsAre("kr_api_port_state_get", "kr_sdn_hal_srvc_process_event"));
    EXPECT_EQ(1u, fake_ports().count(7));
}

TEST_F(general_events_test, port_removed_whose_wait_fails_returns_1_with_the_librarys_status_in_its_line) {
    start();
    fake_ports()[7] = {7, 7, 1};
    conn_port_record port = port_record(1, 7, 0);
    set_result("cl_event_wait_on(for ever)", 7);
    EXPECT_EQ(1u, general_event_cb(removed_event, &port));
    EXPECT_THAT(take_calls(),
                ElementsAre("kr_api_port_state_get", "kr_sdn_hal_srvc_process_event", "cl_event_wait_on(for ever)",
                            "1 HAL_GEN: Failed to wait until port disable operation completed. err [7]."));
}

/* ---- control forwarding and configuration ---------------------------------------------------------------------- */

TEST_F(general_events_test, control_forwarding_reaches_the_switch_and_returns_its_status) {
    start();
    conn_control_forward forward{0, 19};
    EXPECT_EQ(0u, general_event_cb(forward_event, &forward));
    forward = {1, 19};
    EXPECT_EQ(6u, general_event_cb(forward_event, &forward));
    EXPECT_THAT(take_calls(), ElementsAre("kr_api_host_ifc_trap_id_register_set", "1 HAL_GEN: unsupported cmd [1]."));
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

TEST_F(general_events_test, configuration_0_is_copied_to_the_clients) {
    start();
    uint8_t data[57];
    for (size_t i = 0; i < sizeof data; i++) {
        data[i] = static_cast<uint8_t>(i + 1);
    }
    EXPECT_EQ(0u, general_config_cb(0, data + 1)); // not aligned, on purpose

    hal_event_record expected{};
    auto *const bytes = reinterpret_cast<uint8_t *>(&expected);
    const uint32_t type = 9;
    memcpy(bytes, &type, 4);
    memcpy(bytes + 8, data + 1, 22);       // the padding is not copied
    memcpy(bytes + 32, data + 1 + 24, 22); // nor here
    memcpy(bytes + 56, data + 1 + 48, 8);
    expect_delivered(expected);
}

TEST_F(general_events_test, configuration_0_returns_what_the_event_service_answers) {
    start();
    const conn_agent_config config{};
    set_result("kr_sdn_hal_srvc_process_event", 1);
    EXPECT_EQ(1u, general_config_cb(0, const_cast<conn_agent_config *>(&config)));
}

TEST_F(general_events_test, configuration_1_returns_success_and_generates_nothing) {
    start();
    EXPECT_EQ(0u, general_config_cb(1, nullptr));
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_THAT(take_delivered_records(), IsEmpty());
}

} // namespace
