/*
 * The control-frame thread, the choice of traps, and the acknowledgement of port removals.
 */
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "general_fixture.h"
#include "threads.h"

using kr_test::device_queue;
using kr_test::fake_ports;
using kr_test::general_fixture;
using kr_test::set_result;
using kr_test::take_calls;
using kr_test::take_delivered_records;
using kr_test::take_trap_calls;
using kr_test::trap_call;
using kr_test::wait_for_call;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint32_t known_log_port = 0x10001;
constexpr uint32_t known_of_port = 7;

kr_receive_info frame_from(uint32_t log_port) {
    kr_receive_info info{};
    info.trap_id = 19;
    info.source_log_port = log_port;
    return info;
}

class general_control_frames_test : public general_fixture {
  protected:
    // Starts with one port in the database; remembers the thread that the start made.
    void start_with_port() {
        const std::set<pid_t> before = kr_test::thread_ids();
        start();
        fake_ports()[known_of_port] = {known_of_port, 7, known_log_port};
        const std::set<pid_t> after = kr_test::thread_ids();
        std::vector<pid_t> added;
        std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(added));
        ASSERT_EQ(1u, added.size());
        thread = added[0];
        fd = kr::general::g.user_channel.descriptor.fd;
    }

    pid_t thread = 0;
    int fd = -1;
};

TEST_F(general_control_frames_test, frame_becomes_a_packet_miss_record) {
    start_with_port();
    const std::string frame = "sixty bytes of a frame, more or less";
    device_queue(fd, frame_from(known_log_port), frame);
    wait_for_call("kr_sdn_hal_srvc_process_event");

    const std::vector<hal_event_record> records = take_delivered_records();
    ASSERT_EQ(1u, records.size());
    hal_event_record expected{};
    auto *const bytes = reinterpret_cast<uint8_t *>(&expected);
    const uint32_t type = 11;
    const auto length = static_cast<uint32_t>(frame.size());
    memcpy(bytes, &type, 4);
    memcpy(bytes + 8, frame.data(), frame.size());
    memcpy(bytes + 4008, &length, 4);
    memcpy(bytes + 4012, &known_of_port, 4);
    EXPECT_EQ(0, memcmp(&records[0], &expected, sizeof expected));
}

TEST_F(general_control_frames_test, length_is_reset_to_4000_before_each_receive) {
    start_with_port();
    device_queue(fd, frame_from(known_log_port), "short");
    device_queue(fd, frame_from(known_log_port), std::string(5000, 'x'));
    std::vector<hal_event_record> records;
    while (records.size() < 2) {
        wait_for_call("kr_sdn_hal_srvc_process_event");
        (void)take_calls(); // before the records, each of which is there before its call
        for (const hal_event_record &record : take_delivered_records()) {
            records.push_back(record);
        }
    }
    EXPECT_EQ(5u, records[0].payload.packet.length);
    EXPECT_EQ(4000u, records[1].payload.packet.length);
}

TEST_F(general_control_frames_test, frame_from_a_port_that_is_not_in_the_database_gives_no_event_and_no_log) {
    start_with_port();
    device_queue(fd, frame_from(0xBAD), "of nobody");
    device_queue(fd, frame_from(known_log_port), "of somebody");
    wait_for_call("kr_sdn_hal_srvc_process_event");
    const std::vector<hal_event_record> records = take_delivered_records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(0, memcmp(records[0].payload.packet.data, "of somebody", 11));
    EXPECT_THAT(take_calls(), ElementsAre("kr_sdn_hal_srvc_process_event"));
}

TEST_F(general_control_frames_test, frame_whose_port_cannot_be_translated_is_dropped_with_a_line) {
    start_with_port();
    set_result("port_translate_log_port", 1);
    device_queue(fd, frame_from(known_log_port), "frame");
    wait_for_call("1 HAL_GEN: Failed translating SDK log port to HAL port");
    EXPECT_THAT(take_delivered_records(), IsEmpty());
    set_result("port_translate_log_port", 0);
    device_queue(fd, frame_from(known_log_port), "the thread goes on");
    wait_for_call("kr_sdn_hal_srvc_process_event");
}

TEST_F(general_control_frames_test, failing_receive_gives_a_warning_and_the_thread_goes_on) {
    start_with_port();
    set_result("kr_lib_host_ifc_recv", 12);
    device_queue(fd, frame_from(known_log_port), "lost");
    const std::string line = std::string("3 HAL_GEN: Failed reading from SDK FD, err (") + kr_status_str(12) + ")";
    wait_for_call(line);
    set_result("kr_lib_host_ifc_recv", 0);
    device_queue(fd, frame_from(known_log_port), "frame");
    wait_for_call("kr_sdn_hal_srvc_process_event");
    EXPECT_THAT(take_calls(), ElementsAre(line, "kr_sdn_hal_srvc_process_event"));
}

TEST_F(general_control_frames_test, event_that_cannot_be_delivered_gives_a_line_and_the_thread_goes_on) {
    start_with_port();
    set_result("kr_sdn_hal_srvc_process_event", 1);
    device_queue(fd, frame_from(known_log_port), "frame");
    wait_for_call("1 HAL_GEN: Failed to generate event to client status = 1");
    set_result("kr_sdn_hal_srvc_process_event", 0);
    (void)take_calls();
    device_queue(fd, frame_from(known_log_port), "frame");
    wait_for_call("kr_sdn_hal_srvc_process_event");
}

TEST_F(general_control_frames_test, stop_ends_the_thread_with_its_notice_even_if_frames_are_pending) {
    start_with_port();
    kr_test::device_keep_frames(true); // there is always one more
    set_result("port_translate_log_port", 4);
    device_queue(fd, frame_from(0xBAD), "for ever");
    fake_ports().clear();
    EXPECT_EQ(0u, general_event_cb(CONN_EVENT_STOP, nullptr));
    EXPECT_THAT(take_calls(),
                ElementsAre("15 HAL_GEN: Terminating controls thread", "cl_thread_destroy", "kr_api_host_ifc_close",
                            "tables_dependent_deinit", "kr_sdn_hal_srvc_dependent_deinit"));
    EXPECT_EQ('\0', kr_test::thread_state(thread));
}

TEST_F(general_control_frames_test, interrupted_select_ends_the_thread_without_a_message) {
    const kr_test::interrupting_signal signal;
    start_with_port();
    while (kr_test::thread_state(thread) != '\0') {
        signal.send_to(thread);
        sched_yield();
    }
    EXPECT_THAT(take_calls(), IsEmpty());
    fake_ports().clear();
    EXPECT_EQ(0u, general_event_cb(CONN_EVENT_STOP, nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("cl_thread_destroy", "kr_api_host_ifc_close", "tables_dependent_deinit",
                                          "kr_sdn_hal_srvc_dependent_deinit"));
}

TEST_F(general_control_frames_test, failing_select_ends_the_thread_without_a_message) {
    init();
    const int closed_fd = fcntl(0, F_DUPFD, 200); // above what the pipe below takes
    close(closed_fd);
    for (const int bad_fd : {-1, closed_fd, 1 << 30}) { // not a descriptor; not open; more than a set can hold
        kr::general::g.user_channel.descriptor.fd = bad_fd;
        ASSERT_EQ(0, pipe(kr::general::g.stop_pipe));
        kr::general::__control_frames_thread(nullptr);
        EXPECT_THAT(take_calls(), IsEmpty());
        close(kr::general::g.stop_pipe[0]);
        close(kr::general::g.stop_pipe[1]);
    }
}

/* ---- traps ----------------------------------------------------------------------------------------------------- */

TEST_F(general_control_frames_test, forwarding_registers_the_trap_on_the_librarys_descriptor) {
    start_with_port();
    EXPECT_EQ(KR_SDN_HAL_STATUS_SUCCESS, general_control_forward_set(0, 17));
    EXPECT_EQ(KR_SDN_HAL_STATUS_SUCCESS, general_control_forward_set(2, 17));
    EXPECT_THAT(take_trap_calls(), ElementsAre(trap_call{0x77, 19, 0, 17, 0, fd}, trap_call{0x77, 20, 0, 17, 0, fd}));
    EXPECT_THAT(take_calls(),
                ElementsAre("kr_api_host_ifc_trap_id_register_set", "kr_api_host_ifc_trap_id_register_set"));
}

TEST_F(general_control_frames_test, forwarding_that_the_switch_refuses_returns_1_with_its_text) {
    start_with_port();
    set_result("kr_api_host_ifc_trap_id_register_set", 5);
    EXPECT_EQ(KR_SDN_HAL_STATUS_ERROR, general_control_forward_set(0, 17));
    EXPECT_EQ(KR_SDN_HAL_STATUS_ERROR, general_control_forward_set(2, 18));
    EXPECT_THAT(take_calls(), ElementsAre("kr_api_host_ifc_trap_id_register_set",
                                          "1 HAL_GEN: Failed to register trap ID [17], err [Entry not found].",
                                          "kr_api_host_ifc_trap_id_register_set",
                                          "1 HAL_GEN: Failed to unregister trap ID [18], err [Entry not found]."));
}

TEST_F(general_control_frames_test, forwarding_with_command_1_returns_6_and_names_it) {
    start_with_port();
    EXPECT_EQ(KR_SDN_HAL_STATUS_CMD_UNSUPPORTED, general_control_forward_set(1, 17));
    EXPECT_EQ(KR_SDN_HAL_STATUS_CMD_UNSUPPORTED, general_control_forward_set(0xFFFFFFFF, 17));
    EXPECT_THAT(take_calls(),
                ElementsAre("1 HAL_GEN: unsupported cmd [1].", "1 HAL_GEN: unsupported cmd [4294967295]."));
    EXPECT_THAT(take_trap_calls(), IsEmpty());
}

/* ---- acknowledgement ------------------------------------------------------------------------------------------- */

hal_event_record removal_of(uint32_t of_port) {
    hal_event_record record{};
    record.type = EVENT_PORT_CAPABILITIES_UPDATE;
    record.payload.port_update.reason = PORT_UPDATE_REMOVED;
    record.payload.port_update.port = of_port;
    return record;
}

TEST_F(general_control_frames_test, acknowledging_a_port_added_returns_6_and_releases_nothing) {
    start_with_port();
    hal_event_record record = removal_of(known_of_port);
    record.payload.port_update.reason = PORT_UPDATE_ADDED;
    EXPECT_EQ(KR_SDN_HAL_STATUS_CMD_UNSUPPORTED, general_process_shim_event_ack(&record));
    record.payload.port_update.reason = 2;
    EXPECT_EQ(KR_SDN_HAL_STATUS_CMD_UNSUPPORTED, general_process_shim_event_ack(&record));
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(1u, fake_ports().count(known_of_port));
}

TEST_F(general_control_frames_test, acknowledging_any_other_event_returns_6_and_releases_nothing) {
    start_with_port();
    for (uint32_t type = 0; type < 13; type++) {
        if (type != EVENT_PORT_CAPABILITIES_UPDATE) {
            hal_event_record record = removal_of(known_of_port);
            record.type = type;
            EXPECT_EQ(KR_SDN_HAL_STATUS_CMD_UNSUPPORTED, general_process_shim_event_ack(&record));
        }
    }
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(KR_SDN_HAL_STATUS_PARAM_NULL, general_process_shim_event_ack(nullptr));
    EXPECT_THAT(take_calls(), ElementsAre("1 HAL_UTILS: NULL Pointer (Event record pointer)"));
}

TEST_F(general_control_frames_test,
       acknowledging_a_port_that_only_the_database_lacks_succeeds_and_releases_the_connector) {
    start_with_port();
    const hal_event_record record = removal_of(99);
    EXPECT_EQ(KR_SDN_HAL_STATUS_SUCCESS, general_process_shim_event_ack(&record));
    EXPECT_THAT(take_calls(), ElementsAre("of port 99", "tables_port_removed", "port_set(remove)", "cl_event_signal"));
}

TEST_F(general_control_frames_test, acknowledgement_that_the_tables_refuse_releases_nothing) {
    start_with_port();
    const hal_event_record record = removal_of(known_of_port);
    set_result("tables_port_removed", 4);
    EXPECT_EQ(KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND, general_process_shim_event_ack(&record));
    EXPECT_THAT(take_calls(), ElementsAre("of port 7", "tables_port_removed",
                                          "1 HAL_GEN: Failed to delete port from HAL Table port DB."));
    EXPECT_EQ(1u, fake_ports().count(known_of_port));
}

TEST_F(general_control_frames_test, acknowledgement_that_the_port_database_refuses_releases_nothing) {
    start_with_port();
    const hal_event_record record = removal_of(known_of_port);
    set_result("port_set(remove)", 1);
    EXPECT_EQ(KR_SDN_HAL_STATUS_ERROR, general_process_shim_event_ack(&record));
    EXPECT_THAT(take_calls(), ElementsAre("of port 7", "tables_port_removed", "port_set(remove)",
                                          "1 HAL_GEN: Failed to delete port from HAL port DB."));
}

} // namespace
