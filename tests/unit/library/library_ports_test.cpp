/*
 * Ports with the modules as they are: what an add that fails leaves where, what an acknowledgement ends, and a stop
 * that meets a client who does not read.
 */
#include <fcntl.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "core/events_db.h"
#include "core/port.h"
#include "library_fixture.h"
#include "threads.h"

using namespace kr_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;

class library_ports_test : public library_fixture {
  protected:
    static bool is_in_database(uint32_t of_port) {
        uint32_t found = 0;
        return port_translate_ifindex(of_port, &found) == SUCCESS;
    }
    // Whether the event that the connector's thread waits for is signalled; if so, it is not afterwards.
    static bool take_signal() {
        return cl_event_wait_on(&kr::general::g.port_disable_event, 0, 1) == CL_SUCCESS;
    }
    static int bytes_in(const srvc_handle &channel) {
        int count = 0;
        EXPECT_EQ(ioctl(channel.hal_pipe[0], FIONREAD, &count), 0);
        return count;
    }
};

TEST_F(library_ports_test, duplicate_of_port_returns_5_with_its_line_and_no_event) {
    start();
    ASSERT_NO_FATAL_FAILURE(add_port(1));
    srvc_handle channel{};
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, EVENT_PORT_CAPABILITIES_UPDATE), SUCCESS);
    kr_soft_journal_start();
    conn_port_record port = port_record_of(1);
    EXPECT_EQ(event(CONN_EVENT_PORT_ADDED, &port), 5U);
    EXPECT_THAT(take_journal(), ElementsAre("kr_api_port_state_get = 0"));
    EXPECT_THAT(take_log(), ElementsAre("1 HAL_GEN: Port add failed."));
    EXPECT_EQ(bytes_in(channel), 0);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
}

TEST_F(library_ports_test, port_that_the_hardware_has_no_room_for_returns_10_and_leaves_the_database) {
    start();
    ASSERT_EQ(kr_soft_port_add_memory(log_port_of(1)), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_bind_port_set", 0, 7, 0), KR_STATUS_SUCCESS);
    conn_port_record port = port_record_of(1);
    EXPECT_EQ(event(CONN_EVENT_PORT_ADDED, &port), 10U);
    EXPECT_THAT(take_log(), ElementsAre("1 HAL_TABLES_API: Failed to bind port (0x10001) ACL RM rc (7) ",
                                        "1 HAL_TABLES_API: Failed to add port (0x1) to table (0) rc (10)",
                                        "1 HAL_GEN: Table port add failed."));
    EXPECT_FALSE(is_in_database(1));
    EXPECT_EQ(event(CONN_EVENT_PORT_ADDED, &port), 0U);
}

TEST_F(library_ports_test, port_that_the_hardware_refuses_otherwise_returns_1_and_stays_in_the_database) {
    start();
    ASSERT_EQ(kr_soft_port_add_memory(log_port_of(1)), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_bind_port_set", 0, 6, 0), KR_STATUS_SUCCESS);
    conn_port_record port = port_record_of(1);
    EXPECT_EQ(event(CONN_EVENT_PORT_ADDED, &port), 1U);
    EXPECT_THAT(take_log(), ElementsAre("1 HAL_TABLES_API: Failed to bind port (0x10001) ACL RM rc (6) ",
                                        "1 HAL_TABLES_API: Failed to add port (0x1) to table (0) rc (1)",
                                        "1 HAL_GEN: Table port add failed."));
    EXPECT_TRUE(is_in_database(1));
    uint32_t of_port = 1;
    EXPECT_EQ(port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &of_port), SUCCESS); // it was bound to nothing
}

TEST_F(library_ports_test, acknowledging_twice_returns_4_and_leaves_no_signal) {
    start();
    ASSERT_NO_FATAL_FAILURE(add_port(1));
    const hal_event_record removal = removal_of(1);
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&removal), SUCCESS);
    EXPECT_TRUE(take_signal());
    EXPECT_FALSE(is_in_database(1));
    (void)take_log();
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&removal), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(take_log(), ElementsAre("1 HAL_TABLES_API: Failed to translate port rc (4) ",
                                        "1 HAL_TABLES_API: Failed to remove port (0x1) table (0) rc (4)",
                                        "1 HAL_GEN: Failed to delete port from HAL Table port DB."));
    EXPECT_FALSE(take_signal());
}

TEST_F(library_ports_test, acknowledging_an_added_port_returns_6_removes_nothing_and_leaves_no_signal) {
    start();
    ASSERT_NO_FATAL_FAILURE(add_port(1));
    hal_event_record record = removal_of(1);
    record.payload.port_update.reason = PORT_UPDATE_ADDED;
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&record), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_TRUE(is_in_database(1));
    EXPECT_FALSE(take_signal());
    EXPECT_THAT(take_log(), IsEmpty());
}

TEST_F(library_ports_test, acknowledgement_that_the_hardware_refuses_keeps_the_port_and_leaves_no_signal) {
    start();
    ASSERT_NO_FATAL_FAILURE(add_port(1));
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_bind_port_set", 0, 7, 0), KR_STATUS_SUCCESS);
    const hal_event_record removal = removal_of(1);
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&removal), KR_SDN_HAL_STATUS_ERROR); // 7 is nothing special here
    EXPECT_THAT(take_log(), ElementsAre("1 HAL_TABLES_API: Failed to unbind port (0x10001) ACL RM rc (7) ",
                                        "1 HAL_TABLES_API: Failed to remove port (0x1) table (0) rc (1)",
                                        "1 HAL_GEN: Failed to delete port from HAL Table port DB."));
    EXPECT_TRUE(is_in_database(1));
    EXPECT_FALSE(take_signal());
}

// The pipe is the only buffer: the thread of control frames waits for the client, and the stop for the thread.
TEST_F(library_ports_test, stop_waits_for_a_control_frame_thread_blocked_in_a_full_pipe) {
    start();
    ASSERT_NO_FATAL_FAILURE(add_port(1));
    srvc_handle channel{};
    EXPECT_EQ(kr_sdn_hal_srvc_open(&channel), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, EVENT_PACKET_MISS), SUCCESS);
    (void)take_log();
    const conn_control_forward lldp = {CONN_FORWARD_REGISTER, KR_SOFT_TRAP_ID_LLDP};
    EXPECT_EQ(event(CONN_EVENT_CONTROL_FORWARD, const_cast<conn_control_forward *>(&lldp)), 0U);

    ASSERT_EQ(fcntl(channel.hal_pipe[1], F_SETPIPE_SZ, 4096), 4096); // room for one record
    uint8_t frame[60] = {0x01, 0x80, 0xc2, 0, 0, 0x0e, 2, 0, 0, 0, 0, 1, 0x88, 0xcc};
    kr_soft_journal_start(); // calls are counted from here
    for (int i = 0; i < 3; i++) {
        frame[59] = static_cast<uint8_t>(i);
        EXPECT_EQ(kr_soft_port_inject(log_port_of(1), frame, sizeof frame), KR_STATUS_SUCCESS);
    }
    // The second frame has been received, and its record is on its way under the registry's lock: it does not fit.
    const auto is_blocked = [] {
        if (kr_soft_call_count("kr_lib_host_ifc_recv") != 2) {
            return false;
        }
        if (pthread_rwlock_trywrlock(&events_db.lock.lock) == EBUSY) {
            return true;
        }
        EXPECT_EQ(pthread_rwlock_unlock(&events_db.lock.lock), 0);
        return false;
    };
    while (!is_blocked()) {
        sched_yield();
    }
    kr_soft_journal_stop();
    EXPECT_EQ(bytes_in(channel), 4016);

    const hal_event_record removal = removal_of(1);
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&removal), SUCCESS);
    std::atomic<pid_t> connector_id{0};
    std::atomic<bool> has_stopped{false};
    std::thread connector_thread([&] {
        connector_id = thread_id();
        connector_id.notify_one();
        EXPECT_EQ(event(CONN_EVENT_STOP), 0U);
        has_stopped = true;
    });
    connector_id.wait(0);
    wait_until_asleep(connector_id);
    EXPECT_FALSE(has_stopped);

    for (int i = 0; i < 2; i++) { // the record in the pipe, and the one that waits for room; the third is never taken
        hal_event_record record{};
        EXPECT_EQ(kr_sdn_hal_srvc_recv(&channel, &record), SUCCESS);
        EXPECT_EQ(record.type, 11U);
        EXPECT_EQ(record.payload.packet.in_port, 1U);
        EXPECT_EQ(record.payload.packet.length, 60U);
        EXPECT_EQ(record.payload.packet.data[59], i);
    }
    connector_thread.join();
    EXPECT_TRUE(has_stopped);
    EXPECT_EQ(bytes_in(channel), 0);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
}

} // namespace
