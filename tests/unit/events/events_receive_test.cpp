/*
 * Taking one event: the wait before it, the reading, and each byte of the record.
 */
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "channel_fixture.h"

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

constexpr uint8_t untouched = 0xEE;

class events_receive_test : public channel_fixture {
  protected:
    hal_event_record record = [] {
        hal_event_record filled;
        memset(&filled, untouched, sizeof filled);
        return filled;
    }();

    // The 4016 bytes, as a client with another language would read them.
    uint32_t word_at(size_t offset) const {
        uint32_t value = 0;
        memcpy(&value, reinterpret_cast<const char *>(&record) + offset, sizeof value);
        return value;
    }
    std::string bytes_at(size_t offset, size_t size) const {
        return std::string(reinterpret_cast<const char *>(&record) + offset, size);
    }
    static std::string filled(size_t size, uint8_t with = untouched) {
        return std::string(size, static_cast<char>(with));
    }
};

const std::string success_line = events_debug("kr_sdn_hal_srvc_recv", "HAL events - Receive finished successfully");

/* ---- the wait ---------------------------------------------------------------------------------------------------- */

TEST_F(events_receive_test, waits_for_both_descriptors_without_a_timeout) {
    bring_up(stage::started);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port);
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
    const int highest = std::max(channel.hal_pipe[0], channel.sdk_fd.fd);
    EXPECT_THAT(take_selects(), ElementsAre(select_call{highest + 1, true, nullptr}));
}

TEST_F(events_receive_test, waits_for_the_pipe_only_when_no_descriptor_of_the_switch_is_open) {
    bring_up(stage::started);
    const kr_host_ifc_fd sdk_fd = channel.sdk_fd;
    channel.sdk_fd_open = 0;
    channel.sdk_fd.fd = 500; // a number that nothing has: no wait would go well with it
    const hal_event_record sent = pattern_record(5);
    ASSERT_EQ(::write(channel.hal_pipe[1], &sent, sizeof sent), static_cast<ssize_t>(sizeof sent));
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
    EXPECT_EQ(take_selects().at(0).descriptor_count, channel.hal_pipe[0] + 1);
    EXPECT_TRUE(equal(record, sent));
    channel.sdk_fd = sdk_fd;
    channel.sdk_fd_open = 1;
}

TEST_F(events_receive_test, whose_select_fails_returns_1_silently_and_reads_nothing) {
    bring_up(stage::started);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port);
    (void)take_calls();
    // An error, no descriptor, and a descriptor that is neither of the two.
    for (const uint32_t result : {uint32_t{EINTR}, select_nothing, select_something_else}) {
        set_result("select", result);
        EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), ERROR);
        EXPECT_EQ(bytes_at(0, 4016), filled(4016));
    }
    EXPECT_THAT(take_events_calls(), IsEmpty());
    EXPECT_THAT(take_reads(), IsEmpty());
    EXPECT_TRUE(readable(channel.sdk_fd.fd)); // the frame is still there
}

TEST_F(events_receive_test, from_a_closed_channel_returns_7_and_does_not_wait) {
    bring_up(stage::started);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), PARAM_ERROR);
    EXPECT_THAT(take_selects(), IsEmpty());
}

/* ---- from the pipe ----------------------------------------------------------------------------------------------- */

TEST_F(events_receive_test, gives_the_record_as_the_producer_wrote_it_with_one_read_and_no_lock) {
    bring_up(stage::initialized);
    for (uint32_t type = 0; type < 12; type++) {
        if (type != 4 && type < 10) {
            register_for(&channel, type);
        }
    }
    for (const uint32_t type : {0U, 1U, 2U, 3U, 5U, 6U, 7U, 8U, 9U}) {
        const hal_event_record sent = pattern_record(type);
        EXPECT_EQ(kr_sdn_hal_srvc_process_event(&sent), SUCCESS);
        record_everything();
        EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
        EXPECT_TRUE(equal(record, sent));
        EXPECT_THAT(take_events_calls(), ElementsAre(success_line));
        EXPECT_THAT(take_reads(), ElementsAre(4016U));
    }
}

TEST_F(events_receive_test, end_of_file_and_a_record_that_lacks_a_byte_are_a_packet_of_the_wrong_size) {
    bring_up(stage::initialized);
    const std::string almost(4015, 'x');
    ASSERT_EQ(::write(channel.hal_pipe[1], almost.data(), almost.size()), 4015);
    (void)take_calls();
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), ERROR);
    EXPECT_THAT(take_events_calls(),
                ElementsAre("3 HAL_EVENTS_API: Failed reading from HAL FD, err (Packet wrong size)."));
    ::close(channel.hal_pipe[1]);
    channel.hal_pipe[1] = -1;
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), ERROR);
    EXPECT_THAT(take_events_calls(),
                ElementsAre("3 HAL_EVENTS_API: Failed reading from HAL FD, err (Packet wrong size)."));
}

/* ---- from the switch --------------------------------------------------------------------------------------------- */

TEST_F(events_receive_test, bytes_past_the_packet_are_zero_after_a_longer_one) {
    bring_up(stage::started);
    queue(KR_TRAP_ID_PACKET_IN, known_log_port, std::string(4000, 'l'));
    queue(KR_TRAP_ID_PACKET_IN, known_log_port, "s");
    queue(KR_TRAP_ID_PACKET_IN, known_log_port, "");
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
    EXPECT_EQ(bytes_at(8, 4000), std::string(4000, 'l'));
    EXPECT_EQ(word_at(4008), 4000U); // the room is 4000 each time
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
    EXPECT_EQ(bytes_at(8, 4000), "s" + filled(3999, 0));
    EXPECT_EQ(word_at(4008), 1U);
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
    EXPECT_EQ(bytes_at(8, 4000), filled(4000, 0));
    EXPECT_EQ(word_at(4008), 0U);
}

// The receive information has two logical ports: a frame's, and that of a port event.
TEST_F(events_receive_test, packet_takes_the_frames_port_and_a_port_event_takes_the_events) {
    bring_up(stage::started);
    kr_receive_info info{};
    info.trap_id = KR_TRAP_ID_PACKET_IN;
    info.source_log_port = known_log_port;
    info.port_up_down.log_port = unknown_log_port;
    device_queue(channel.sdk_fd.fd, info, "frame");
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
    EXPECT_EQ(word_at(4012), known_of_port);

    info.trap_id = KR_TRAP_ID_PORT_UP_DOWN;
    info.source_log_port = unknown_log_port;
    info.port_up_down = {.log_port = known_log_port, .oper_state = 1};
    device_queue(channel.sdk_fd.fd, info, "");
    EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
    EXPECT_EQ(word_at(8), known_of_port);
}

TEST_F(events_receive_test, failed_translation_returns_its_status_and_has_written_the_type_only) {
    bring_up(stage::started);
    for (const uint32_t status : {1U, 3U, 8U}) {
        set_result("port_translate_log_port", status);
        queue(KR_TRAP_ID_PACKET_IN, known_log_port);
        queue(KR_TRAP_ID_PACKET_MISS, known_log_port);
        queue_port_event(known_log_port, 1);
        for (const uint32_t type : {10U, 11U, 4U}) {
            memset(&record, untouched, sizeof record);
            (void)take_calls();
            EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), status);
            EXPECT_THAT(take_events_calls(), ElementsAre(events_error("Failed tranlating SDK log port to HAL port")));
            EXPECT_EQ(word_at(0), type);
            EXPECT_EQ(bytes_at(4, 4012), filled(4012));
        }
    }
}

TEST_F(events_receive_test, unknown_trap_returns_2_silently_and_leaves_the_type) {
    bring_up(stage::started);
    (void)take_calls();
    for (const uint32_t trap_id : {0U, 7U, 9U, 19U, 463U, 465U, 478U, 480U, 0xFFFFFFFFU}) {
        queue(trap_id, known_log_port);
        EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SDK_ERROR);
        EXPECT_EQ(bytes_at(0, 4016), filled(4016));
    }
    EXPECT_THAT(take_events_calls(), IsEmpty());
}

} // namespace
