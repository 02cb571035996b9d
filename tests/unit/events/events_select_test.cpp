/*
 * Waiting on many channels: what select() is given, and what each of its answers becomes.
 */
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "channel_fixture.h"

using namespace kr_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using stage = events_stage;

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;

class events_select_test : public channel_fixture {
  protected:
    void make_ready(srvc_handle *handle) {
        ASSERT_EQ(::write(handle->hal_pipe[1], "x", 1), 1);
    }
};

TEST_F(events_select_test, waits_for_reading_up_to_the_highest_descriptor_with_the_callers_timeout) {
    bring_up(stage::started);
    srvc_handle *const second = open_another();
    srvc_handle *handles[] = {second, &channel};
    timeval timeout{};
    uint32_t mask = 0;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 2, &timeout, &mask), SUCCESS);
    int highest = 0;
    for (const int fd : {channel.hal_pipe[0], channel.sdk_fd.fd, second->hal_pipe[0], second->sdk_fd.fd}) {
        highest = std::max(highest, fd);
    }
    EXPECT_THAT(take_selects(), ElementsAre(select_call{highest + 1, true, &timeout}));
}

TEST_F(events_select_test, passes_a_null_timeout_on_and_takes_no_lock) {
    bring_up(stage::initialized);
    make_ready(&channel);
    srvc_handle *handles[] = {&channel};
    uint32_t mask = 0;
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, nullptr, &mask), SUCCESS);
    EXPECT_THAT(take_selects(), ElementsAre(select_call{channel.hal_pipe[0] + 1, true, nullptr}));
    EXPECT_THAT(take_events_calls(),
                ElementsAre(events_debug("kr_sdn_hal_srvc_select",
                                         "HAL events - Select finished successfully, an event is waiting")));
}

TEST_F(events_select_test, failure_of_any_kind_leaves_the_mask_and_is_silent) {
    bring_up(stage::initialized);
    srvc_handle *handles[] = {&channel};
    for (const uint32_t error : {uint32_t{EINTR}, uint32_t{EBADF}, uint32_t{ENOMEM}}) {
        set_result("select", error);
        uint32_t mask = 0xA5A5A5A5;
        EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, nullptr, &mask), ERROR);
        EXPECT_EQ(mask, 0xA5A5A5A5);
    }
    EXPECT_THAT(take_events_calls(), IsEmpty());
}

TEST_F(events_select_test, of_a_channel_that_is_not_open_returns_1_leaves_the_mask_and_does_not_wait) {
    bring_up(stage::started);
    make_ready(&channel);
    srvc_handle never{}; // its numbers are 0: standard input
    srvc_handle *const closed = open_another();
    EXPECT_EQ(kr_sdn_hal_srvc_close(closed), SUCCESS);
    (void)take_calls();
    for (srvc_handle *const not_open : {&never, closed}) {
        srvc_handle *handles[] = {&channel, not_open};
        uint32_t mask = 0xA5A5A5A5;
        EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 2, nullptr, &mask), ERROR);
        EXPECT_EQ(mask, 0xA5A5A5A5);
    }
    EXPECT_THAT(take_selects(), IsEmpty());
    EXPECT_THAT(take_events_calls(), IsEmpty());
}

TEST_F(events_select_test, clears_the_mask_before_it_sets_bits) {
    bring_up(stage::initialized);
    srvc_handle *handles[] = {open_another(), &channel};
    make_ready(&channel);
    uint32_t mask = 0xFFFFFFFF;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 2, nullptr, &mask), SUCCESS);
    EXPECT_EQ(mask, 2U);
}

TEST_F(events_select_test, does_not_look_at_the_descriptor_of_the_switch_when_none_is_open) {
    bring_up(stage::started);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port);
    channel.sdk_fd_open = 0; // the descriptor is readable all the same
    srvc_handle *handles[] = {&channel};
    timeval at_once{};
    uint32_t mask = 77;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, &at_once, &mask), SUCCESS);
    EXPECT_EQ(mask, 0U);
    EXPECT_EQ(take_selects().at(0).descriptor_count, channel.hal_pipe[0] + 1);
    channel.sdk_fd_open = 1;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, &at_once, &mask), SUCCESS);
    EXPECT_EQ(mask, 1U);
}

TEST_F(events_select_test, one_bit_stands_for_a_channel_that_is_ready_both_ways) {
    bring_up(stage::started);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port);
    make_ready(&channel);
    srvc_handle *handles[] = {&channel};
    uint32_t mask = 0;
    EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, nullptr, &mask), SUCCESS);
    EXPECT_EQ(mask, 1U);
}

TEST_F(events_select_test, takes_nothing_away) {
    bring_up(stage::started);
    register_for(&channel, 0);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port);
    const hal_event_record record = pattern_record(0);
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    srvc_handle *handles[] = {&channel};
    uint32_t mask = 0;
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, nullptr, &mask), SUCCESS);
        EXPECT_EQ(mask, 1U);
    }
    EXPECT_THAT(take_reads(), IsEmpty());
    EXPECT_TRUE(equal(take_from_pipe(&channel), record));
    EXPECT_TRUE(readable(channel.sdk_fd.fd));
}

} // namespace
