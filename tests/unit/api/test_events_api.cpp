/*
 * The event service case by case: who hears of what, how a record gets into a channel, and what a client reads from it.
 * The steps that fail are in tests/contract/test_events_rows.cpp, row by row.
 */
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "events_fixture.h"
#include "tests/support/threads.h"

using namespace kr_test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using stage = events_stage;

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr uint32_t known_of_port = 7;
constexpr uint32_t known_log_port = 0x10007;
constexpr uint32_t unknown_log_port = 0x10099;

class events_api : public events_fixture {
  protected:
    void SetUp() override {
        fake_ports()[known_of_port] = {known_of_port, 1, known_log_port};
    }
    ~events_api() override {
        for (srvc_handle &one : more) {
            (void)kr_sdn_hal_srvc_close(&one);
        }
    }

    srvc_handle *open_another() {
        srvc_handle *const one = &more.at(next++);
        EXPECT_EQ(kr_sdn_hal_srvc_open(one), SUCCESS);
        return one;
    }
    static bool readable(srvc_handle *handle) {
        timeval at_once{};
        uint32_t mask = 0;
        EXPECT_EQ(kr_sdn_hal_srvc_select(&handle, 1, &at_once, &mask), SUCCESS);
        return mask != 0;
    }
    // The record that the channel holds next; it must be there.
    static hal_event_record receive(srvc_handle *handle) {
        hal_event_record record = record_of(0, 0xEE);
        EXPECT_TRUE(readable(handle));
        EXPECT_EQ(kr_sdn_hal_srvc_recv(handle, &record), SUCCESS);
        return record;
    }
    static bool equal(const hal_event_record &left, const hal_event_record &right) {
        return memcmp(&left, &right, sizeof left) == 0;
    }

    std::array<srvc_handle, 40> more{};
    size_t next = 0;
};

/* ---- registration ------------------------------------------------------------------------------------------------ */

struct event_row {
    uint32_t type;
    const char *name;
    uint32_t trap_id; // 0: an event of the library
};

const event_row event_rows[] = {
    {0, "GENERAL READY", 0},          {1, "GENERAL ERROR", 0},
    {2, "TABLE UPDATE", 0},           {3, "PORT CAPABILITIES UPDATE", 0},
    {4, "PORT OPER STATE CHANGE", 8}, {5, "PORT STP STATE CHANGE", 0},
    {6, "PORT LACP STATE CHANGE", 0}, {7, "VLAN UPDATE", 0},
    {8, "SWITCH UPDATE", 0},          {9, "AGENT UPDATE", 0},
    {10, "PACKET IN", 464},           {11, "PACKET MISS", 479},
};

class each_event : public events_api, public testing::WithParamInterface<event_row> {};

TEST_P(each_event, has_its_name_and_its_trap) {
    const event_row &event = GetParam();
    bring_up(stage::started);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, event.type), SUCCESS);
    EXPECT_EQ(take_events_calls().back(),
              events_debug("kr_sdn_hal_srvc_event_register",
                           formatted("HAL events - Registration for event (%s) finished successfully", event.name)));
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, event.type), SUCCESS);
    EXPECT_EQ(take_events_calls().back(),
              events_debug("kr_sdn_hal_srvc_event_unregister",
                           formatted("HAL events - successfully unregistered from event (%s)", event.name)));
    std::vector<trap_call> expected;
    if (event.trap_id != 0) {
        expected = {{fake_device_handle, 19, 0, event.trap_id, 0, channel.sdk_fd.fd},
                    {fake_device_handle, 20, 0, event.trap_id, 0, channel.sdk_fd.fd}};
    }
    EXPECT_EQ(take_trap_calls(), expected);
}

TEST_P(each_event, is_delivered_to_who_is_registered_for_it_and_to_nobody_else) {
    bring_up(stage::started);
    srvc_handle *const other = open_another();
    for (const event_row &event : event_rows) {
        srvc_handle *const listener = event.type == GetParam().type ? &channel : other;
        EXPECT_EQ(kr_sdn_hal_srvc_event_register(listener, event.type), SUCCESS);
    }
    const hal_event_record record = record_of(GetParam().type, 0x5A);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_TRUE(equal(receive(&channel), record));
    EXPECT_FALSE(readable(&channel));
    EXPECT_FALSE(readable(other));
}

INSTANTIATE_TEST_SUITE_P(types, each_event, testing::ValuesIn(event_rows),
                         [](const auto &row) { return "type_" + std::to_string(row.param.type); });

TEST_F(events_api, registering_twice_keeps_one_slot) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    const hal_event_record record = record_of(0, 1);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_TRUE(equal(receive(&channel), record));
    EXPECT_FALSE(readable(&channel));
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, 0), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, 0), KR_SDN_HAL_STATUS_ERROR);
}

TEST_F(events_api, an_eleventh_channel_is_told_success_and_hears_nothing_until_a_slot_is_free) {
    bring_up(stage::initialized);
    std::vector<srvc_handle *> ten;
    for (int i = 0; i < 10; i++) {
        ten.push_back(open_another());
        EXPECT_EQ(kr_sdn_hal_srvc_event_register(ten.back(), 3), SUCCESS);
    }
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 3), SUCCESS);
    hal_event_record record = record_of(3, 1);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    for (srvc_handle *one : ten) {
        EXPECT_TRUE(equal(receive(one), record));
    }
    EXPECT_FALSE(readable(&channel));
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, 3), KR_SDN_HAL_STATUS_ERROR);

    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(ten[4], 3), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 3), SUCCESS);
    record = record_of(3, 2);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_TRUE(equal(receive(&channel), record));
    EXPECT_FALSE(readable(ten[4]));
}

TEST_F(events_api, close_takes_the_channel_out_of_every_type_and_leaves_traps_registered) {
    bring_up(stage::started);
    for (uint32_t type = 0; type < 12; type++) {
        EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, type), SUCCESS);
    }
    (void)take_trap_calls();
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    EXPECT_THAT(take_trap_calls(), IsEmpty());
    EXPECT_EQ(channel.is_open, 0U);
    EXPECT_EQ(channel.sdk_fd_open, 0U);
    record_system_calls(true);
    for (uint32_t type = 0; type < 12; type++) {
        const hal_event_record record = record_of(type, 1);
        EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    }
    EXPECT_THAT(take_events_calls(), testing::Not(testing::Contains(testing::StartsWith("write"))));
}

TEST_F(events_api, opening_an_open_channel_makes_new_descriptors_keeps_the_old_ones_and_the_registrations) {
    bring_up(stage::started);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    const srvc_handle old = channel;
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS);
    EXPECT_NE(channel.hal_pipe[0], old.hal_pipe[0]);
    EXPECT_NE(channel.sdk_fd.fd, old.sdk_fd.fd);
    EXPECT_NE(fcntl(old.hal_pipe[0], F_GETFD), -1);
    EXPECT_NE(fcntl(old.hal_pipe[1], F_GETFD), -1);
    EXPECT_THAT(device_descriptors(), ElementsAre(old.sdk_fd.fd, channel.sdk_fd.fd));
    const hal_event_record record = record_of(0, 9);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_TRUE(equal(receive(&channel), record));
    ::close(old.hal_pipe[0]);
    ::close(old.hal_pipe[1]);
}

TEST_F(events_api, a_channel_is_cleared_before_it_is_opened) {
    memset(&channel, 0xFF, sizeof channel);
    bring_up(stage::initialized);
    EXPECT_EQ(channel.sdk_fd_open, 0U);
    EXPECT_EQ(channel.is_open, 1U);
    EXPECT_EQ(channel.sdk_fd.fd, 0);
}

TEST_F(events_api, a_new_init_forgets_the_channels_of_the_one_before) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_deinit(), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_init(), SUCCESS);
    const hal_event_record record = record_of(0, 9);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_FALSE(readable(&channel));
}

TEST_F(events_api, the_device_is_given_the_log_callback_in_force) {
    general_log_cb = record_log;
    bring_up(stage::started);
    EXPECT_EQ(device_log_callback(), &record_log);
    EXPECT_EQ(sdk_handle, fake_device_handle);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_deinit(), SUCCESS);
    EXPECT_EQ(sdk_handle, 0U);
}

TEST_F(events_api, verbosity_3_logs_failures_and_no_success) {
    kr_HAL_EVENTS_API_verb_level = 3;
    bring_up(stage::started);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    EXPECT_THAT(take_events_calls(), IsEmpty());
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, 1), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(take_events_calls(),
                ElementsAre(events_error("HAL events - Failed unregistering from event (GENERAL ERROR)")));
    kr_HAL_EVENTS_API_verb_level = 0;
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, 1), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(take_events_calls(), IsEmpty());
}

/* ---- delivery ---------------------------------------------------------------------------------------------------- */

TEST_F(events_api, delivery_refuses_no_record_and_a_type_above_11) {
    const hal_event_record good = record_of(0, 0);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&good), KR_SDN_HAL_STATUS_ERROR); // before init
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(nullptr), KR_SDN_HAL_STATUS_PARAM_ERROR);
    const hal_event_record bad = record_of(12, 0);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&bad), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&good), SUCCESS); // nobody listens
}

TEST_F(events_api, a_record_is_one_write_of_4016_bytes_per_channel) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(open_another(), 0), SUCCESS);
    (void)take_calls();
    record_system_calls(true);
    const hal_event_record record = record_of(0, 1);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_THAT(take_events_calls(), ElementsAre("write 4016", "write 4016"));
}

TEST_F(events_api, a_write_that_is_cut_is_carried_on_with_the_remainder) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    (void)take_calls();
    record_system_calls(true);
    write_limit(1500);
    hal_event_record record = record_of(0, 0);
    for (size_t i = 0; i < sizeof record.payload.bytes; i++) {
        record.payload.bytes[i] = static_cast<uint8_t>(i * 7);
    }
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_THAT(take_events_calls(), ElementsAre("write 4016", "write 2516", "write 1016"));
    EXPECT_TRUE(equal(receive(&channel), record));
}

struct write_failure_row {
    const char *name;
    uint32_t result;
};

class failing_write : public events_api, public testing::WithParamInterface<write_failure_row> {};

TEST_P(failing_write, ends_the_delivery_and_later_channels_do_not_get_the_record) {
    bring_up(stage::initialized);
    srvc_handle *const second = open_another();
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(second, 0), SUCCESS);
    (void)take_calls();
    record_system_calls(true);
    set_result("write", GetParam().result);
    const hal_event_record record = record_of(0, 1);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(take_events_calls(), ElementsAre("write 4016")); // and no line
    record_system_calls(false);
    set_result("write", 0);
    EXPECT_FALSE(readable(second));
    // The lock was released: a register does not wait.
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(second, 1), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_TRUE(equal(receive(second), record));
}

INSTANTIATE_TEST_SUITE_P(write, failing_write,
                         testing::Values(write_failure_row{"interrupted", EINTR},
                                         write_failure_row{"broken_pipe", EPIPE},
                                         write_failure_row{"took_nothing", 1000}),
                         [](const auto &row) { return row.param.name; });

/* ---- select ------------------------------------------------------------------------------------------------------ */

TEST_F(events_api, select_refuses_what_is_missing_and_leaves_the_mask) {
    srvc_handle *handles[] = {&channel, nullptr};
    timeval at_once{};
    uint32_t mask = 77;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, &at_once, &mask), KR_SDN_HAL_STATUS_ERROR); // before init
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_select(nullptr, 1, &at_once, &mask), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 0, &at_once, &mask), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, &at_once, nullptr), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 2, &at_once, &mask), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_EQ(mask, 77U);
}

TEST_F(events_api, select_that_fails_returns_1_without_a_line_and_leaves_the_mask) {
    bring_up(stage::initialized);
    srvc_handle broken = channel;
    broken.hal_pipe[0] = fcntl(channel.hal_pipe[0], F_DUPFD_CLOEXEC, 100);
    ::close(broken.hal_pipe[0]);
    srvc_handle *handles[] = {&broken};
    (void)take_calls();
    uint32_t mask = 77;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, nullptr, &mask), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(mask, 77U);
    EXPECT_THAT(take_events_calls(), IsEmpty());

    broken.hal_pipe[0] = -1; // what a close leaves
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, nullptr, &mask), KR_SDN_HAL_STATUS_ERROR);
    broken = channel;
    broken.sdk_fd_open = 1;
    broken.sdk_fd.fd = -1;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, nullptr, &mask), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(mask, 77U);
}

TEST_F(events_api, select_with_a_zero_timeout_returns_at_once_with_an_empty_mask) {
    bring_up(stage::started);
    srvc_handle *handles[] = {&channel};
    timeval at_once{};
    uint32_t mask = 77;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, &at_once, &mask), SUCCESS);
    EXPECT_EQ(mask, 0U);
    EXPECT_THAT(take_events_calls(),
                ElementsAre(events_debug("kr_sdn_hal_srvc_select",
                                         "HAL events - Select finished successfully, but no event is waiting")));
}

TEST_F(events_api, select_sees_pipes_and_descriptors_of_the_switch) {
    bring_up(stage::started);
    srvc_handle *handles[] = {open_another(), open_another(), &channel};
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(handles[1], 0), SUCCESS);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port);
    const hal_event_record record = record_of(0, 1);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    (void)take_calls();
    uint32_t mask = 0;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 3, nullptr, &mask), SUCCESS);
    EXPECT_EQ(mask, 0b110U);
    EXPECT_THAT(take_events_calls(),
                ElementsAre(events_debug("kr_sdn_hal_srvc_select",
                                         "HAL events - Select finished successfully, an event is waiting")));
}

TEST_F(events_api, select_reports_index_32_in_bit_0_and_shares_bits_32_apart) {
    bring_up(stage::initialized);
    std::vector<srvc_handle *> handles;
    for (int i = 0; i < 35; i++) {
        handles.push_back(open_another());
    }
    const auto ready = [&](size_t index) {
        EXPECT_EQ(kr_sdn_hal_srvc_event_register(handles[index], 0), SUCCESS);
        const hal_event_record record = record_of(0, 1);
        EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
        uint32_t mask = 0;
        EXPECT_EQ(kr_sdn_hal_srvc_select(handles.data(), 35, nullptr, &mask), SUCCESS);
        (void)receive(handles[index]);
        EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(handles[index], 0), SUCCESS);
        return mask;
    };
    EXPECT_EQ(ready(0), 1U);
    EXPECT_EQ(ready(31), 0x80000000U);
    EXPECT_EQ(ready(32), 1U);
    EXPECT_EQ(ready(34), 4U);
}

TEST_F(events_api, select_without_a_timeout_waits_for_an_event) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    std::atomic<pid_t> waiting{0};
    uint32_t mask = 0;
    std::thread client([&] {
        srvc_handle *handles[] = {&channel};
        waiting = thread_id();
        waiting.notify_one();
        EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, nullptr, &mask), SUCCESS);
    });
    waiting.wait(0);
    wait_until_asleep(waiting);
    const hal_event_record record = record_of(0, 1);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    client.join();
    EXPECT_EQ(mask, 1U);
}

/* ---- receive ----------------------------------------------------------------------------------------------------- */

TEST_F(events_api, receive_refuses_what_is_missing) {
    hal_event_record record{};
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), KR_SDN_HAL_STATUS_ERROR); // before init
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_recv(nullptr, &record), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, nullptr), KR_SDN_HAL_STATUS_PARAM_ERROR);
    srvc_handle closed{};
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&closed, &record), KR_SDN_HAL_STATUS_PARAM_ERROR);
}

TEST_F(events_api, what_the_pipe_holds_is_received_before_what_the_switch_holds) {
    bring_up(stage::started);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port);
    const hal_event_record record = record_of(0, 1);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_EQ(receive(&channel).type, 0U);
    EXPECT_EQ(receive(&channel).type, 0U);
    EXPECT_EQ(receive(&channel).type, 10U);
    EXPECT_FALSE(readable(&channel));
}

struct packet_row {
    const char *name;
    uint32_t trap_id;
    uint32_t log_port;
    uint32_t type;
    uint32_t in_port;
};

class packets : public events_api, public testing::WithParamInterface<packet_row> {};

TEST_P(packets, of_the_switch_become_records_and_the_bytes_behind_the_frame_are_zero) {
    bring_up(stage::started);
    const std::string frame = "a frame of some length";
    queue(GetParam().trap_id, GetParam().log_port, frame);
    (void)take_calls();
    hal_event_record record = record_of(0, 0xEE);
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
    EXPECT_THAT(take_events_calls(),
                ElementsAre(events_debug("kr_sdn_hal_srvc_recv", "HAL events - Receive finished successfully")));
    EXPECT_EQ(record.type, GetParam().type);
    EXPECT_EQ(record.reserved, 0xEEEEEEEEU); // not written
    EXPECT_EQ(record.payload.packet.in_port, GetParam().in_port);
    EXPECT_EQ(record.payload.packet.length, frame.size());
    EXPECT_EQ(memcmp(record.payload.packet.data, frame.data(), frame.size()), 0);
    const std::vector<uint8_t> rest(record.payload.packet.data + frame.size(), record.payload.packet.data + 4000);
    EXPECT_THAT(rest, Each(0));
}

INSTANTIATE_TEST_SUITE_P(trap, packets,
                         testing::Values(packet_row{"packet_in", 464, known_log_port, 10, known_of_port},
                                         packet_row{"packet_in_of_an_unknown_port", 464, unknown_log_port, 10, 0},
                                         packet_row{"packet_miss", 479, known_log_port, 11, known_of_port},
                                         packet_row{"packet_miss_of_an_unknown_port", 479, unknown_log_port, 11, 0}),
                         [](const auto &row) { return row.param.name; });

TEST_F(events_api, a_frame_of_4000_bytes_fits_whole_and_a_longer_one_is_cut) {
    bring_up(stage::started);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port, std::string(4000, 'x'));
    queue(KR_TRAP_ID_PACKET_IN, known_log_port, std::string(4001, 'y'));
    hal_event_record record = receive(&channel);
    EXPECT_EQ(record.payload.packet.length, 4000U);
    EXPECT_EQ(record.payload.packet.data[3999], 'x');
    record = receive(&channel);
    EXPECT_EQ(record.payload.packet.length, 4000U);
    EXPECT_EQ(record.payload.packet.in_port, known_of_port);
}

TEST_F(events_api, a_port_event_of_a_known_port_names_it) {
    bring_up(stage::started);
    queue_port_event(known_log_port, 2);
    const hal_event_record record = receive(&channel);
    EXPECT_EQ(record.type, 4U);
    EXPECT_EQ(record.payload.port_oper.port, known_of_port);
    EXPECT_EQ(record.payload.port_oper.oper_state, 2U);
    // Only these fields are written.
    const std::vector<uint8_t> rest(record.payload.bytes + 8, record.payload.bytes + sizeof record.payload.bytes);
    EXPECT_THAT(rest, Each(0xEE));
}

TEST_F(events_api, a_port_event_of_an_unknown_port_says_0_and_status_0) {
    bring_up(stage::started);
    queue_port_event(unknown_log_port, 1);
    const hal_event_record record = receive(&channel);
    EXPECT_EQ(record.type, 4U);
    EXPECT_EQ(record.payload.port_oper.port, 0U);
    EXPECT_EQ(record.payload.port_oper.oper_state, 1U);
}

TEST_F(events_api, a_port_that_cannot_be_translated_ends_the_receive_with_that_status_behind_the_type) {
    bring_up(stage::started);
    set_result("port_translate_log_port", 1);
    queue(KR_TRAP_ID_PACKET_MISS, known_log_port);
    queue_port_event(known_log_port, 1);
    (void)take_calls();
    for (const uint32_t type : {11U, 4U}) {
        hal_event_record record = record_of(0, 0xEE);
        EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), KR_SDN_HAL_STATUS_ERROR);
        EXPECT_EQ(record.type, type);
        const std::vector<uint8_t> payload(record.payload.bytes, record.payload.bytes + sizeof record.payload.bytes);
        EXPECT_THAT(payload, Each(0xEE));
        EXPECT_THAT(take_events_calls(), ElementsAre(events_error("Failed tranlating SDK log port to HAL port")));
    }
}

TEST_F(events_api, another_trap_id_returns_2_without_a_line_and_leaves_the_record) {
    bring_up(stage::started);
    queue(19, known_log_port);
    (void)take_calls();
    hal_event_record record = record_of(3, 0xEE);
    const hal_event_record before = record;
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), KR_SDN_HAL_STATUS_SDK_ERROR);
    EXPECT_TRUE(equal(record, before));
    EXPECT_THAT(take_events_calls(), IsEmpty());
    EXPECT_FALSE(readable(&channel)); // it is gone
}

TEST_F(events_api, a_switch_that_cannot_deliver_gives_2_and_a_warning_with_its_text) {
    bring_up(stage::started);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port);
    set_result("kr_lib_host_ifc_recv", 1);
    (void)take_calls();
    hal_event_record record = record_of(3, 0xEE);
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), KR_SDN_HAL_STATUS_SDK_ERROR);
    EXPECT_EQ(record.type, 3U);
    EXPECT_THAT(take_events_calls(), ElementsAre(events_warning("Failed reading from SDK FD, err (Internal error)")));
}

TEST_F(events_api, a_record_that_is_cut_in_the_pipe_gives_1_and_says_so) {
    bring_up(stage::initialized);
    ASSERT_EQ(::write(channel.hal_pipe[1], "cut", 3), 3);
    (void)take_calls();
    hal_event_record record{};
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(take_events_calls(),
                ElementsAre(events_warning("Failed reading from HAL FD, err (Packet wrong size).")));
}

TEST_F(events_api, a_pipe_that_cannot_be_read_gives_1_and_the_systems_text) {
    bring_up(stage::initialized);
    const int folder = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC); // readable for select, but not for read
    ASSERT_GE(folder, 0);
    ASSERT_EQ(dup2(folder, channel.hal_pipe[0]), channel.hal_pipe[0]);
    ::close(folder);
    (void)take_calls();
    hal_event_record record{};
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(take_events_calls(), ElementsAre(events_warning(std::string("Failed reading from HAL FD, err (") +
                                                                strerror(EISDIR) + ").")));
}

TEST_F(events_api, a_channel_closed_behind_the_librarys_back_gives_1_without_a_line) {
    bring_up(stage::initialized);
    ::close(channel.hal_pipe[0]);
    (void)take_calls();
    hal_event_record record{};
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_THAT(take_events_calls(), IsEmpty());
}

TEST_F(events_api, receive_waits_for_an_event) {
    bring_up(stage::started);
    std::atomic<pid_t> waiting{0};
    hal_event_record record{};
    std::thread client([&] {
        waiting = thread_id();
        waiting.notify_one();
        EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
    });
    waiting.wait(0);
    wait_until_asleep(waiting);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port);
    client.join();
    EXPECT_EQ(record.type, 10U);
}

// fd_set ends at 1024: a channel whose descriptors lie above works like any other.
TEST_F(events_api, descriptors_of_1024_and_above_work_in_select_and_receive) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    rlimit raised = limit;
    raised.rlim_cur = raised.rlim_max;
    setrlimit(RLIMIT_NOFILE, &raised);
    bring_up(stage::initialized);
    for (int &end : channel.hal_pipe) {
        const int high = fcntl(end, F_DUPFD_CLOEXEC, 2000);
        if (high < 0) {
            GTEST_SKIP() << "the process may not have descriptors of 2000 and above";
        }
        ::close(end);
        end = high;
    }
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), SUCCESS);
    const hal_event_record record = record_of(0, 3);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_TRUE(equal(receive(&channel), record));
    EXPECT_FALSE(readable(&channel));
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    setrlimit(RLIMIT_NOFILE, &limit);
}

/* ---- sending and acknowledging ----------------------------------------------------------------------------------- */

TEST_F(events_api, a_packet_reaches_the_switch_as_it_was_given) {
    bring_up(stage::started);
    const char packet[] = "packet with\0zero";
    EXPECT_EQ(kr_sdn_hal_srvc_packet_send(&channel, packet, 16, known_of_port, 255), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_packet_send(&channel, packet, 0, known_of_port, 0), SUCCESS);
    EXPECT_EQ(take_sent_packets(),
              (std::vector<sent_packet>{{channel.sdk_fd.fd, std::string(packet, 16), 0, known_log_port, 255},
                                        {channel.sdk_fd.fd, "", 0, known_log_port, 0}}));
}

TEST_F(events_api, an_acknowledgement_hands_over_the_record_itself) {
    bring_up(stage::initialized);
    const hal_event_record record = record_of(3, 0x33);
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&record), SUCCESS);
    const std::vector<hal_event_record> handed_over = take_delivered_records();
    ASSERT_EQ(handed_over.size(), 1U);
    EXPECT_TRUE(equal(handed_over[0], record));
}

} // namespace
