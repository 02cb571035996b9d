/*
 * What the library allocates once it is up: one buffer per entry set and read-back of flows, and nothing anywhere else:
 * neither for events on their way from producer to client, on the library's own threads as well, nor for look-ups.
 */
#include "tests/support/allocation_counter.h"
#include "tests/support/test_frames.h"
#include "tests/system/running_library.h"

using namespace kr_test;

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;

class allocations : public running_switch {};

class allocations_of_a_batch : public allocations, public testing::WithParamInterface<uint32_t> {};

TEST_P(allocations_of_a_batch, are_one_buffer_for_set_and_get_and_none_for_activity_and_statistics) {
    const uint32_t size = GetParam();
    std::vector<flow_record> flows;
    std::vector<uint64_t> ids;
    for (uint64_t id = 1; id <= size; id++) {
        flows.push_back(flow_of(id, static_cast<uint32_t>(id * 7919 % 65536)));
        ids.push_back(id);
    }
    std::vector<uint32_t> activities(size);
    std::vector<flow_stats> stats(size);
    uint32_t count = size;
    const auto expect = [](uint64_t expected, auto call) {
        const allocation_counter counter;
        const kr_sdn_hal_status status = call();
        const uint64_t allocated = counter.count();
        EXPECT_EQ(status, SUCCESS);
        EXPECT_EQ(allocated, expected);
    };
    for (int round = 0; round < 2; round++) {
        expect(1, [&] { return kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, flows.data(), size); });
        expect(1, [&] { return kr_sdn_hal_table_entry_get(0, 0, ids.data(), &count, flows.data()); });
        expect(0, [&] { return kr_sdn_hal_table_entry_activity_get(0, ids.data(), size, activities.data()); });
        expect(0, [&] { return kr_sdn_hal_table_entry_stat_get(0, ids.data(), size, stats.data()); });
        expect(1, [&] { return kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_DELETE, 0, flows.data(), size); });
    }
}

INSTANTIATE_TEST_SUITE_P(of_size, allocations_of_a_batch, testing::Values(1, 32, 1000),
                         testing::PrintToStringParamName());

TEST_F(allocations, of_a_refused_batch_are_one_buffer_or_none) {
    flow_record flow = flow_of(1);
    ASSERT_EQ(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, &flow, 1), SUCCESS);
    const allocation_counter counter;
    const kr_sdn_hal_status there = kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, &flow, 1);
    EXPECT_EQ(counter.count(), 1U);
    const kr_sdn_hal_status no_command = kr_sdn_hal_table_entry_set(1, 0, &flow, 1);
    EXPECT_EQ(counter.count(), 1U);
    EXPECT_EQ(there, KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(no_command, KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
}

TEST_F(allocations, of_an_event_to_ten_channels_and_back_are_none) {
    std::vector<std::unique_ptr<channel>> clients;
    std::vector<srvc_handle *> handles;
    while (clients.size() < KR_SDN_HAL_HANDLES_PER_EVENT) {
        clients.push_back(std::make_unique<channel>(std::initializer_list<uint32_t>{EVENT_AGENT_UPDATE}));
        handles.push_back(&clients.back()->handle);
    }
    hal_event_record record{};
    record.type = EVENT_AGENT_UPDATE;
    uint32_t mask = 0;
    bool good = true;
    const allocation_counter counter;
    for (int round = 0; round < 10; round++) {
        good = good && kr_sdn_hal_srvc_process_event(&record) == SUCCESS;
        good = good && kr_sdn_hal_srvc_select(handles.data(), 10, nullptr, &mask) == SUCCESS && mask == 0x3FF;
        for (srvc_handle *handle : handles) {
            good = good && kr_sdn_hal_srvc_recv(handle, &record) == SUCCESS;
        }
    }
    EXPECT_EQ(counter.count(), 0U);
    EXPECT_TRUE(good);
}

TEST_F(allocations, of_a_packet_in_are_none) {
    ASSERT_EQ(flows_add({flow_of(1, 100, FLOW_ACTION_CONTROLLER)}), SUCCESS);
    channel client({EVENT_PACKET_IN});
    hal_event_record record{};
    for (int round = 0; round < 3; round++) {
        inject(2, frame_for(1));
        const allocation_counter counter;
        const kr_sdn_hal_status status = kr_sdn_hal_srvc_recv(&client.handle, &record);
        EXPECT_EQ(counter.count(), 0U);
        EXPECT_EQ(status, SUCCESS);
        EXPECT_EQ(record.payload.packet.in_port, 2U);
    }
}

TEST_F(allocations, of_a_packet_sent_are_those_of_the_switch) {
    channel client({EVENT_PACKET_IN});
    const std::vector<uint8_t> frame = frame_for(1);
    const auto size = static_cast<uint32_t>(frame.size());
    // Behind a few frames of each kind, so that queues have grown.
    uint64_t through_library = 0;
    uint64_t bare = 0;
    for (int round = 0; round < 5; round++) {
        const allocation_counter library;
        const kr_sdn_hal_status sent = kr_sdn_hal_srvc_packet_send(&client.handle, frame.data(), size, 3, 0);
        through_library = library.count();
        EXPECT_EQ(sent, SUCCESS);
        const allocation_counter straight;
        const kr_status sent_straight =
            kr_lib_host_ifc_unicast_ctrl_send(&client.handle.sdk_fd, frame.data(), size, 0, log_port_of(3), 0);
        bare = straight.count();
        EXPECT_EQ(sent_straight, KR_STATUS_SUCCESS);
    }
    EXPECT_EQ(through_library, bare);
}

TEST_F(allocations, of_the_thread_of_control_frames_are_none) {
    ASSERT_EQ(
        the_library
            .deliver(CONN_EVENT_CONTROL_FORWARD, conn_control_forward{CONN_FORWARD_REGISTER, KR_SOFT_TRAP_ID_LLDP})
            .get(),
        0U);
    channel client;
    ASSERT_EQ(kr_sdn_hal_srvc_event_register(&client.handle, EVENT_PACKET_MISS), SUCCESS);
    const bytes frame = lldp_frame();
    hal_event_record record{};
    inject(1, frame); // what a first frame may need
    ASSERT_EQ(kr_sdn_hal_srvc_recv(&client.handle, &record), SUCCESS);
    const other_threads_allocation_counter counter;
    for (int round = 0; round < 20; round++) {
        inject(1, frame);
        ASSERT_EQ(kr_sdn_hal_srvc_recv(&client.handle, &record), SUCCESS);
        ASSERT_EQ(record.payload.packet.length, frame.size());
    }
    EXPECT_EQ(counter.count(), 0U);
}

TEST_F(allocations, of_port_look_ups_are_none) {
    uint32_t found[100] = {};
    uint32_t count = 100;
    uint32_t value = 0;
    bool good = true;
    const allocation_counter counter;
    good = good && kr_sdn_hal_port_arr_get(found, &count) == SUCCESS && count == 4;
    count = 0;
    good = good && kr_sdn_hal_port_arr_get(nullptr, &count) == SUCCESS && count == 4;
    good = good && kr_sdn_hal_port_capabilities_get(4, &value) == SUCCESS;
    good = good && kr_sdn_hal_port_mtu_set(4, 1500) == SUCCESS;
    EXPECT_EQ(counter.count(), 0U);
    EXPECT_TRUE(good);
}

// The counter itself: without it every zero above says nothing.
TEST_F(allocations, are_seen_on_this_thread_and_on_others) {
    const allocation_counter here;
    const other_threads_allocation_counter elsewhere;
    std::vector<uint64_t> block(100);
    EXPECT_EQ(here.count(), 1U);
    std::thread([&block] { block = std::vector<uint64_t>(200); }).join();
    EXPECT_GE(elsewhere.count(), 1U);
}

} // namespace
