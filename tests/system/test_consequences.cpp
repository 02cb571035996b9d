/*
 * What a client has to know and live with, each shown once and taken back: an unread channel stops its producer, an
 * unacknowledged removal keeps the connector waiting, and more than 32 channels share bits of the select mask. The
 * header tells the client so. That a second start has no live background thread is in test_life.cpp, for it needs a
 * process that has never started.
 */
#include "tests/system/running_library.h"

using namespace kr_test;

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr uint64_t records_in_a_pipe = 16; // of 4016 bytes each, in a pipe of Linux's usual size

// A configuration event on the connector's thread; its trailer numbers it.
std::future<uint32_t> configure(uint64_t number) {
    conn_agent_config config{};
    config.trailer = number;
    return the_library.configure(CONN_CONFIG_AGENT, config);
}

class consequences : public running_switch {};

TEST_F(consequences, a_client_that_does_not_read_stops_the_producer_and_whoever_registers_until_it_reads) {
    channel slow({EVENT_AGENT_UPDATE});
    channel quick({EVENT_AGENT_UPDATE});
    uint64_t sent = 0;
    for (; sent < records_in_a_pipe; sent++) {
        ASSERT_EQ(configure(sent).get(), 0U);
        ASSERT_EQ(quick.receive().payload.agent.trailer, sent);
    }
    std::future<uint32_t> stopped = configure(sent);
    the_library.connector().wait_until_asleep();
    EXPECT_FALSE(is_done(stopped));
    EXPECT_FALSE(quick.readable()) << "the channel behind the full one waits as well";
    channel late;
    call_on_a_thread registration([&] { return kr_sdn_hal_srvc_event_register(&late.handle, EVENT_GENERAL_READY); });
    EXPECT_FALSE(registration.is_done());

    // Reading one record is enough.
    EXPECT_EQ(slow.receive().payload.agent.trailer, 0U);
    EXPECT_EQ(stopped.get(), 0U);
    EXPECT_EQ(registration.join(), SUCCESS);
    EXPECT_EQ(quick.receive().payload.agent.trailer, sent);
    for (uint64_t number = 1; number <= sent; number++) {
        EXPECT_EQ(slow.receive().payload.agent.trailer, number);
    }
    ASSERT_EQ(configure(99).get(), 0U);
    EXPECT_EQ(slow.receive().payload.agent.trailer, 99U);
    EXPECT_EQ(quick.receive().payload.agent.trailer, 99U);
}

TEST_F(consequences, a_removal_that_nobody_acknowledges_keeps_the_connector_waiting_and_the_port_working) {
    channel client({EVENT_PORT_CAPABILITIES_UPDATE});
    ASSERT_EQ(flows_add({flow_of(1, 100, FLOW_ACTION_FLOOD)}), SUCCESS);
    std::future<uint32_t> removal = the_library.deliver(CONN_EVENT_PORT_REMOVED, port_record_of(2));
    const hal_event_record announced = client.receive();
    EXPECT_EQ(announced.payload.port_update.reason, uint32_t{PORT_UPDATE_REMOVED});
    the_library.connector().wait_until_asleep();
    EXPECT_FALSE(is_done(removal));
    EXPECT_THAT(ports(), testing::ElementsAre(1, 2, 3, 4));
    inject(2, frame_for(1));
    uint8_t frame[64];
    uint32_t size = sizeof frame;
    EXPECT_EQ(kr_soft_port_read(log_port_of(3), frame, &size, 0), KR_STATUS_SUCCESS);

    // Not any record releases it.
    hal_event_record other = announced;
    other.payload.port_update.reason = PORT_UPDATE_ADDED;
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&other), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_FALSE(is_done(removal));
    other = announced;
    other.payload.port_update.port = 77;
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&other), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_FALSE(is_done(removal));

    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&announced), SUCCESS);
    EXPECT_EQ(removal.get(), 0U);
    EXPECT_THAT(ports(), testing::ElementsAre(1, 3, 4));
    EXPECT_EQ(kr_soft_port_remove(log_port_of(2)), KR_STATUS_SUCCESS);
    ASSERT_NO_FATAL_FAILURE(add_port(2)); // and it may come back
    EXPECT_EQ(client.receive().payload.port_update.reason, uint32_t{PORT_UPDATE_ADDED});
}

TEST_F(consequences, a_removal_that_nobody_hears_of_waits_as_well_and_any_client_may_release_it) {
    std::future<uint32_t> removal = the_library.deliver(CONN_EVENT_PORT_REMOVED, port_record_of(4));
    the_library.connector().wait_until_asleep();
    EXPECT_FALSE(is_done(removal));
    channel too_late({EVENT_PORT_CAPABILITIES_UPDATE});
    EXPECT_FALSE(too_late.readable());
    hal_event_record record{};
    record.type = EVENT_PORT_CAPABILITIES_UPDATE;
    record.payload.port_update.reason = PORT_UPDATE_REMOVED;
    record.payload.port_update.port = 4;
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&record), SUCCESS);
    EXPECT_EQ(removal.get(), 0U);
    EXPECT_EQ(kr_soft_port_remove(log_port_of(4)), KR_STATUS_SUCCESS);
}

TEST_F(consequences, of_more_than_32_channels_those_32_apart_share_a_bit_and_a_select_of_one_tells_them_apart) {
    std::vector<std::unique_ptr<channel>> channels;
    std::vector<srvc_handle *> handles;
    while (channels.size() < 70) {
        channels.push_back(std::make_unique<channel>());
        handles.push_back(&channels.back()->handle);
    }
    ASSERT_EQ(flows_add({flow_of(1, 100, FLOW_ACTION_CONTROLLER)}), SUCCESS);
    for (const size_t listening : {size_t{3}, size_t{35}, size_t{67}, size_t{69}}) {
        srvc_handle *const listener = handles[listening];
        ASSERT_EQ(kr_sdn_hal_srvc_event_register(listener, EVENT_PACKET_IN), SUCCESS);
        inject(1, frame_for(1));
        uint32_t mask = 0;
        ASSERT_EQ(kr_sdn_hal_srvc_select(handles.data(), 70, nullptr, &mask), SUCCESS);
        EXPECT_EQ(mask, 1U << (listening % 32));
        std::vector<size_t> ready;
        for (size_t i = listening % 32; i < channels.size(); i += 32) {
            if (channels[i]->readable()) {
                ready.push_back(i);
            }
        }
        EXPECT_THAT(ready, testing::ElementsAre(listening));
        EXPECT_EQ(channels[listening]->receive().type, uint32_t{EVENT_PACKET_IN});
        ASSERT_EQ(kr_sdn_hal_srvc_event_unregister(listener, EVENT_PACKET_IN), SUCCESS);
    }
}

} // namespace
