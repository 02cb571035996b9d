/*
 * The life of the event service and of a channel: what each step leaves in the handle, the registry and the device.
 */
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "channel_fixture.h"
#include "tests/support/threads.h"

using namespace kr_test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using stage = events_stage;

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr auto SDK_ERROR = KR_SDN_HAL_STATUS_SDK_ERROR;
constexpr auto PARAM_ERROR = KR_SDN_HAL_STATUS_PARAM_ERROR;

class events_life_cycle_test : public channel_fixture {};
class events_open_test : public channel_fixture {};
class events_close_test : public channel_fixture {};

void fill_registry(srvc_handle *with) KR_NO_THREAD_SAFETY_ANALYSIS {
    for (auto &slots : events_db.handles) {
        for (srvc_handle *&slot : slots) {
            slot = with;
        }
    }
}

/* ---- init, start, stop, deinit ----------------------------------------------------------------------------------- */

TEST_F(events_life_cycle_test, init_clears_all_120_slots) {
    fill_registry(&channel);
    EXPECT_EQ(kr_sdn_hal_srvc_init(), SUCCESS);
    for (uint32_t event = 0; event < 12; event++) {
        EXPECT_THAT(slots_of(event), Each(nullptr)) << event;
        EXPECT_EQ(slots_of(event).size(), 10U);
    }
}

TEST_F(events_life_cycle_test, init_whose_lock_fails_leaves_the_service_uninitialised_and_may_be_retried) {
    fill_registry(&channel);
    set_result("cl_plock_init", 1);
    EXPECT_EQ(kr_sdn_hal_srvc_init(), ERROR);
    for (uint32_t event = 0; event < 12; event++) {
        EXPECT_THAT(slots_of(event), Each(nullptr)) << event; // they are cleared before the lock is made
    }
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_deinit(), ERROR);
    set_result("cl_plock_init", 0);
    EXPECT_EQ(kr_sdn_hal_srvc_init(), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS);
}

TEST_F(events_life_cycle_test, init_twice_keeps_the_registrations_of_the_first) {
    bring_up(stage::initialized);
    register_for(&channel, 3);
    EXPECT_EQ(kr_sdn_hal_srvc_init(), ERROR);
    EXPECT_EQ(slots_of(3), ten_slots({&channel}));
}

TEST_F(events_life_cycle_test, start_that_the_device_refuses_leaves_the_service_unstarted_and_may_be_retried) {
    bring_up(stage::initialized, false);
    const kr_api_handle before = sdk_handle;
    set_result("kr_api_open", 7);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SDK_ERROR);
    EXPECT_EQ(sdk_handle, before);
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS);
    EXPECT_EQ(channel.sdk_fd_open, 0U);
    set_result("kr_api_open", 0);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SUCCESS);
    EXPECT_EQ(sdk_handle, fake_device_handle);
}

TEST_F(events_life_cycle_test, stop_closes_the_handle_that_the_start_opened) {
    bring_up(stage::started, false);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_deinit(), SUCCESS);
    EXPECT_THAT(take_device_calls(), ElementsAre(device_call{"kr_api_close", fake_device_handle, 0}));
}

TEST_F(events_life_cycle_test, stop_that_the_device_refuses_leaves_the_service_started_and_may_be_retried) {
    bring_up(stage::started, false);
    set_result("kr_api_close", 12);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_deinit(), SDK_ERROR);
    EXPECT_EQ(sdk_handle, fake_device_handle);
    EXPECT_EQ(kr_sdn_hal_srvc_deinit(), ERROR); // the stop must come first
    set_result("kr_api_close", 0);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_deinit(), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_deinit(), SUCCESS);
}

TEST_F(events_life_cycle_test, everything_before_init_returns_1_before_it_looks_at_its_arguments) {
    uint32_t mask = 77;
    EXPECT_EQ(kr_sdn_hal_srvc_open(nullptr), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_close(nullptr), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(nullptr, 12), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(nullptr, 12), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(nullptr), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_select(nullptr, 0, nullptr, &mask), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_recv(nullptr, nullptr), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_packet_send(nullptr, nullptr, 0, 0, 0), ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(nullptr), ERROR);
    EXPECT_EQ(mask, 77U);
    EXPECT_THAT(take_events_calls(), IsEmpty());
}

TEST_F(events_life_cycle_test, debug_lines_begin_at_verbosity_5_and_name_their_line) {
    kr_HAL_EVENTS_API_verb_level = 4;
    EXPECT_EQ(kr_sdn_hal_srvc_init(), SUCCESS);
    EXPECT_THAT(take_calls(), ElementsAre("cl_plock_init"));
    kr_HAL_EVENTS_API_verb_level = 5;
    EXPECT_EQ(kr_sdn_hal_srvc_deinit(), SUCCESS);
    EXPECT_THAT(take_calls(),
                ElementsAre("cl_plock_destroy",
                            testing::MatchesRegex(R"(31 HAL_EVENTS_API: kr_sdn_hal_api_events\.cpp\[[1-9][0-9]*\]- )"
                                                  "kr_sdn_hal_srvc_deinit: "
                                                  "HAL events module deinitialized successfully")));
}

/* ---- open -------------------------------------------------------------------------------------------------------- */

TEST_F(events_open_test, before_init_leaves_the_handle_as_it_was) {
    memset(&channel, 0xAB, sizeof channel);
    const srvc_handle before = channel;
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), ERROR);
    EXPECT_EQ(memcmp(&channel, &before, sizeof before), 0);
    channel = {};
}

TEST_F(events_open_test, before_the_start_gives_a_pipe_and_no_descriptor_of_the_switch) {
    bring_up(stage::initialized, false);
    memset(&channel, 0xAB, sizeof channel);
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS);
    EXPECT_EQ(channel.is_open, 1U);
    EXPECT_EQ(channel.sdk_fd_open, 0U);
    EXPECT_EQ(channel.sdk_fd.fd, 0);
    EXPECT_EQ(channel.sdk_fd.valid, 0U);
    EXPECT_EQ(::write(channel.hal_pipe[1], "x", 1), 1); // read end first
    EXPECT_TRUE(readable(channel.hal_pipe[0]));
    EXPECT_THAT(device_descriptors(), IsEmpty());
}

TEST_F(events_open_test, after_the_start_opens_the_descriptor_of_the_switch_on_the_services_device) {
    bring_up(stage::started);
    EXPECT_EQ(channel.is_open, 1U);
    EXPECT_EQ(channel.sdk_fd_open, 1U);
    EXPECT_EQ(channel.sdk_fd.valid, 1U); // the device's whole record
    EXPECT_THAT(device_descriptors(), ElementsAre(channel.sdk_fd.fd));
    EXPECT_THAT(take_device_calls(), ElementsAre(device_call{"kr_api_host_ifc_open", fake_device_handle,
                                                             static_cast<uint32_t>(channel.sdk_fd.fd)}));
}

TEST_F(events_open_test, takes_no_lock_and_registers_nothing) {
    bring_up(stage::started, false);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS);
    EXPECT_THAT(take_events_calls(),
                ElementsAre("kr_api_host_ifc_open", "pipe",
                            events_debug("kr_sdn_hal_srvc_open", "HAL events - open finished successfully")));
    for (uint32_t event = 0; event < 12; event++) {
        EXPECT_THAT(slots_of(event), Each(nullptr));
    }
}

TEST_F(events_open_test, whose_sdk_descriptor_fails_leaves_the_channel_closed) {
    bring_up(stage::started, false);
    set_result("kr_api_host_ifc_open", 6);
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SDK_ERROR);
    EXPECT_EQ(channel.is_open, 0U);
    EXPECT_EQ(channel.sdk_fd_open, 0U);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), PARAM_ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 0), PARAM_ERROR);
}

TEST_F(events_open_test, whose_pipe_fails_leaves_the_sdk_descriptor_open_and_the_channel_closed) {
    bring_up(stage::started, false);
    set_result("pipe", EMFILE);
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), ERROR);
    EXPECT_EQ(channel.is_open, 0U);
    EXPECT_EQ(channel.sdk_fd_open, 1U);
    EXPECT_THAT(device_descriptors(), ElementsAre(channel.sdk_fd.fd));
    EXPECT_THAT(take_events_calls(), testing::Not(testing::Contains("kr_api_host_ifc_close")));
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), PARAM_ERROR);
}

// A handle that is open stays registered when it is opened again: producers find it closed, and cleared as a whole.
TEST_F(events_open_test, again_that_fails_leaves_no_pipe_and_the_record_goes_to_the_other_channels) {
    bring_up(stage::initialized);
    srvc_handle *const other = open_another();
    register_for(&channel, 0);
    register_for(other, 0);
    const srvc_handle old = channel;
    set_result("pipe", EMFILE);
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), ERROR);
    EXPECT_THAT(channel.hal_pipe, ElementsAre(0, 0));
    const hal_event_record record = pattern_record(0);
    record_system_calls(true);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_THAT(take_writes(), ElementsAre(written{other->hal_pipe[1], bytes_of(record)}));
    EXPECT_TRUE(equal(take_from_pipe(other), record));
    record_system_calls(false);
    ::close(old.hal_pipe[0]);
    ::close(old.hal_pipe[1]);
}

TEST_F(events_open_test, again_without_an_sdk_descriptor_leaves_no_pipe_either) {
    bring_up(stage::started);
    const srvc_handle old = channel;
    set_result("kr_api_host_ifc_open", 6);
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SDK_ERROR);
    EXPECT_THAT(channel.hal_pipe, ElementsAre(0, 0));
    EXPECT_EQ(channel.is_open, 0U);
    ::close(old.hal_pipe[0]);
    ::close(old.hal_pipe[1]);
}

/* ---- close ------------------------------------------------------------------------------------------------------- */

TEST_F(events_close_test, closes_the_descriptor_of_the_switch_then_leaves_the_registry_then_closes_the_pipe) {
    bring_up(stage::started);
    register_for(&channel, 0);
    (void)take_device_calls();
    const srvc_handle before = channel;
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    EXPECT_THAT(take_events_calls(),
                ElementsAre("kr_api_host_ifc_close", "lock exclusive", "unlock", "close", "close",
                            events_debug("kr_sdn_hal_srvc_close", "HAL events - close finished successfully")));
    EXPECT_THAT(take_device_calls(), ElementsAre(device_call{"kr_api_host_ifc_close", fake_device_handle,
                                                             static_cast<uint32_t>(before.sdk_fd.fd)}));
    EXPECT_THAT(take_closed(), ElementsAre(before.hal_pipe[0], before.hal_pipe[1]));
    EXPECT_EQ(channel.is_open, 0U);
    EXPECT_EQ(channel.sdk_fd_open, 0U);
    EXPECT_FALSE(is_open_fd(before.hal_pipe[0]));
    EXPECT_FALSE(is_open_fd(before.hal_pipe[1]));
    EXPECT_THAT(device_descriptors(), IsEmpty());
}

TEST_F(events_close_test, of_a_channel_that_gained_no_descriptor_asks_the_switch_nothing) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    EXPECT_THAT(take_device_calls(), IsEmpty());
}

TEST_F(events_close_test, goes_on_when_the_sdk_descriptor_cannot_be_closed) {
    bring_up(stage::started);
    register_for(&channel, 3);
    const srvc_handle before = channel;
    set_result("kr_api_host_ifc_close", 12);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    EXPECT_EQ(channel.is_open, 0U);
    EXPECT_EQ(channel.sdk_fd_open, 0U); // either way
    EXPECT_THAT(slots_of(3), Each(nullptr));
    EXPECT_FALSE(is_open_fd(before.hal_pipe[0]));
    EXPECT_FALSE(is_open_fd(before.hal_pipe[1]));
}

TEST_F(events_close_test, goes_on_when_the_pipe_is_closed_already) {
    bring_up(stage::initialized);
    ::close(channel.hal_pipe[0]);
    ::close(channel.hal_pipe[1]);
    (void)take_calls();
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    EXPECT_THAT(take_events_calls(),
                ElementsAre(events_debug("kr_sdn_hal_srvc_close", "HAL events - close finished successfully")));
}

TEST_F(events_close_test, clears_every_slot_of_its_channel_and_no_other) {
    bring_up(stage::started);
    srvc_handle *const other = open_another();
    for (uint32_t event = 0; event < 12; event++) {
        register_for(&channel, event);
        register_for(other, event);
    }
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    for (uint32_t event = 0; event < 12; event++) {
        EXPECT_EQ(slots_of(event), ten_slots({nullptr, other})) << event;
    }
}

TEST_F(events_close_test, of_a_never_opened_or_closed_handle_returns_7_and_changes_nothing) {
    bring_up(stage::started);
    srvc_handle never{};
    never.hal_pipe[0] = channel.hal_pipe[0];
    never.hal_pipe[1] = channel.hal_pipe[1];
    const srvc_handle before = never;
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_close(&never), PARAM_ERROR);
    never.is_open = 2; // only 1 is open
    EXPECT_EQ(kr_sdn_hal_srvc_close(&never), PARAM_ERROR);
    never.is_open = 0;
    EXPECT_EQ(memcmp(&never, &before, sizeof never), 0);
    EXPECT_THAT(take_events_calls(), IsEmpty());
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    (void)take_calls();
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), PARAM_ERROR);
    EXPECT_THAT(take_events_calls(), IsEmpty());
}

// The producer holds the registry's lock while it waits for room, and close needs the lock.
TEST_F(events_close_test, does_not_wait_for_a_producer_that_waits_for_room) {
    bring_up(stage::initialized);
    register_for(&channel, 0);
    ASSERT_EQ(fcntl(channel.hal_pipe[1], F_SETPIPE_SZ, 4096), 4096); // room for one record
    const hal_event_record record = pattern_record(0);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    std::atomic<pid_t> producer_id{0};
    std::thread producer([&] {
        producer_id = thread_id();
        producer_id.notify_one();
        EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    });
    producer_id.wait(0);
    wait_until_asleep(producer_id);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    producer.join();
    EXPECT_THAT(channel.hal_pipe, ElementsAre(-1, -1));
}

TEST_F(events_close_test, and_open_again_gives_a_working_channel) {
    bring_up(stage::started);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS);
    register_for(&channel, 9);
    const hal_event_record record = pattern_record(9);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_TRUE(equal(take_from_pipe(&channel), record));
}

// A client may open a registered channel again while records arrive. What a producer then finds is the old pipe, the
// new one, or none, and never the 0 of the cleared handle.
TEST_F(events_open_test, of_a_registered_channel_never_sends_a_record_to_descriptor_0) {
    bring_up(stage::initialized);
    register_for(&channel, 9);
    int trap[2];
    ASSERT_EQ(pipe2(trap, O_NONBLOCK), 0);
    const int usual_input = dup(STDIN_FILENO);
    ASSERT_EQ(dup2(trap[1], STDIN_FILENO), STDIN_FILENO);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        const hal_event_record record = pattern_record(9);
        while (!done) {
            (void)kr_sdn_hal_srvc_process_event(&record); // it fails where the pipe is full
        }
    });
    const auto make_room = [this] { // for a producer that waited before its end stopped waiting
        hal_event_record arrived;
        return read(channel.hal_pipe[0], &arrived, sizeof arrived) > 0;
    };
    const auto stop_waiting = [this] {
        for (const int end : channel.hal_pipe) {
            EXPECT_EQ(fcntl(end, F_SETFL, O_NONBLOCK), 0);
        }
    };
    std::vector<int> left_behind; // opening closes nothing
    for (int round = 0; round < 200; ++round) {
        left_behind.insert(left_behind.end(), {channel.hal_pipe[0], channel.hal_pipe[1]});
        stop_waiting();
        make_room();
        ASSERT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS);
    }
    done = true;
    stop_waiting();
    make_room();
    producer.join();
    uint8_t byte = 0;
    EXPECT_EQ(read(trap[0], &byte, sizeof byte), -1) << "a record was sent to descriptor 0";
    ASSERT_EQ(dup2(usual_input, STDIN_FILENO), STDIN_FILENO);
    left_behind.insert(left_behind.end(), {trap[0], trap[1], usual_input});
    std::for_each(left_behind.begin(), left_behind.end(), close);
}

} // namespace
