/*
 * Sending a packet: what it needs, in which order, and what it leaves.
 */
#include "channel_fixture.h"

using namespace kr_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using stage = events_stage;

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto SDK_ERROR = KR_SDN_HAL_STATUS_SDK_ERROR;
constexpr auto PARAM_ERROR = KR_SDN_HAL_STATUS_PARAM_ERROR;

class events_send_test : public channel_fixture {
  protected:
    kr_sdn_hal_status send(uint32_t of_port = known_of_port) {
        return kr_sdn_hal_srvc_packet_send(&channel, "frame", 5, of_port, 3);
    }
};

TEST_F(events_send_test, is_silent_and_takes_no_lock) {
    bring_up(stage::started);
    record_everything();
    EXPECT_EQ(send(), SUCCESS);
    EXPECT_THAT(take_events_calls(), ElementsAre("kr_lib_host_ifc_unicast_ctrl_send"));
    EXPECT_THAT(take_sent_packets(), ElementsAre(sent_packet{channel.sdk_fd.fd, "frame", 0, known_log_port, 3}));
}

TEST_F(events_send_test, gives_a_channel_that_was_opened_before_the_start_its_descriptor) {
    bring_up(stage::initialized);
    EXPECT_EQ(send(), PARAM_ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SUCCESS);
    (void)take_calls();
    EXPECT_EQ(send(), SUCCESS);
    EXPECT_EQ(send(), SUCCESS);
    EXPECT_EQ(channel.sdk_fd_open, 1U);
    EXPECT_THAT(take_events_calls(), ElementsAre("kr_api_host_ifc_open", "kr_lib_host_ifc_unicast_ctrl_send",
                                                 "kr_lib_host_ifc_unicast_ctrl_send"));
    EXPECT_EQ(take_sent_packets().at(1).fd, channel.sdk_fd.fd);
}

TEST_F(events_send_test, needs_the_descriptor_before_the_port) {
    bring_up(stage::initialized);
    EXPECT_EQ(send(known_of_port + 1), PARAM_ERROR); // no switch yet
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SUCCESS);
    set_result("kr_api_host_ifc_open", 6);
    EXPECT_EQ(send(known_of_port + 1), SDK_ERROR);
    set_result("kr_api_host_ifc_open", 0);
    EXPECT_EQ(send(known_of_port + 1), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(channel.sdk_fd_open, 1U); // the descriptor stays
    EXPECT_THAT(take_sent_packets(), IsEmpty());
}

TEST_F(events_send_test, whose_port_cannot_be_looked_up_returns_that_status_and_sends_nothing) {
    bring_up(stage::started);
    for (const uint32_t status : {1U, 3U, 9U}) {
        set_result("port_get_log_port", status);
        EXPECT_EQ(send(), status);
        EXPECT_THAT(take_events_calls(), ElementsAre(events_error("Failed translating HAL port to SDK log port")));
    }
    EXPECT_THAT(take_sent_packets(), IsEmpty());
}

TEST_F(events_send_test, without_handle_packet_or_open_channel_returns_7_and_calls_nothing) {
    bring_up(stage::started);
    EXPECT_EQ(kr_sdn_hal_srvc_packet_send(nullptr, "frame", 5, known_of_port, 3), PARAM_ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_packet_send(&channel, nullptr, 5, known_of_port, 3), PARAM_ERROR);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    (void)take_calls();
    EXPECT_EQ(send(), PARAM_ERROR);
    EXPECT_THAT(take_events_calls(), IsEmpty());
}

} // namespace
