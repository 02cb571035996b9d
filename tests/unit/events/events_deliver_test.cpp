/*
 * The way of a record into the pipes: order, lock, writes that fall short, and a client that does not read.
 */
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "channel_fixture.h"
#include "tests/support/threads.h"

using namespace kr_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using stage = events_stage;

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr auto PARAM_ERROR = KR_SDN_HAL_STATUS_PARAM_ERROR;

class events_deliver_test : public channel_fixture {
  protected:
    // Three channels registered for one type, in the order of their slots.
    std::vector<srvc_handle *> three(uint32_t event) {
        bring_up(stage::initialized, false);
        std::vector<srvc_handle *> handles;
        for (int i = 0; i < 3; i++) {
            handles.push_back(open_another());
            register_for(handles.back(), event);
        }
        return handles;
    }
};

TEST_F(events_deliver_test, writes_the_whole_record_to_each_slot_in_order_under_the_shared_lock) {
    const std::vector<srvc_handle *> handles = three(8);
    const hal_event_record record = pattern_record(8);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_THAT(take_events_calls(), ElementsAre("lock shared", "write 4016", "write 4016", "write 4016", "unlock"));
    const std::string bytes = bytes_of(record);
    EXPECT_EQ(take_writes(), (std::vector<written>{{handles[0]->hal_pipe[1], bytes},
                                                   {handles[1]->hal_pipe[1], bytes},
                                                   {handles[2]->hal_pipe[1], bytes}}));
}

TEST_F(events_deliver_test, skips_slots_that_are_empty) {
    const std::vector<srvc_handle *> handles = three(0);
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(handles[1], 0), SUCCESS);
    const hal_event_record record = pattern_record(0);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_THAT(take_events_calls(), ElementsAre("lock shared", "write 4016", "write 4016", "unlock"));
    EXPECT_TRUE(readable(handles[0]->hal_pipe[0]));
    EXPECT_FALSE(readable(handles[1]->hal_pipe[0]));
    EXPECT_TRUE(readable(handles[2]->hal_pipe[0]));
}

TEST_F(events_deliver_test, of_types_above_11_and_of_no_record_returns_7_and_takes_no_lock) {
    (void)three(0);
    record_everything();
    for (const uint32_t type : {12U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        const hal_event_record record = pattern_record(type);
        EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), PARAM_ERROR);
    }
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(nullptr), PARAM_ERROR);
    EXPECT_THAT(take_events_calls(), IsEmpty());
}

TEST_F(events_deliver_test, ends_at_the_first_short_write_and_releases_the_lock) {
    const std::vector<srvc_handle *> handles = three(3);
    const hal_event_record record = pattern_record(3);
    for (const uint32_t failure : {uint32_t{EIO}, uint32_t{1000}}) { // an error, and nothing written
        set_result("write", failure);
        writes_before_failure(1);
        record_everything();
        EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), ERROR);
        EXPECT_THAT(take_events_calls(), ElementsAre("lock shared", "write 4016", "write 4016", "unlock"));
        EXPECT_TRUE(equal(take_from_pipe(handles[0]), record)); // what is done is kept
        EXPECT_FALSE(readable(handles[1]->hal_pipe[0]));
        EXPECT_FALSE(readable(handles[2]->hal_pipe[0]));
    }
}

TEST_F(events_deliver_test, continues_a_partial_write_and_ends_when_the_rest_fails) {
    const std::vector<srvc_handle *> handles = three(3);
    const hal_event_record record = pattern_record(3);
    const std::string bytes = bytes_of(record);
    write_limit(1500);
    writes_before_failure(2);
    set_result("write", EAGAIN);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), ERROR);
    EXPECT_THAT(take_events_calls(), ElementsAre("lock shared", "write 4016", "write 2516", "write 1016", "unlock"));
    const int pipe = handles[0]->hal_pipe[1];
    EXPECT_EQ(take_writes(),
              (std::vector<written>{{pipe, bytes}, {pipe, bytes.substr(1500)}, {pipe, bytes.substr(3000)}}));
    EXPECT_FALSE(readable(handles[1]->hal_pipe[0]));
}

TEST_F(events_deliver_test, into_a_full_pipe_waits_until_the_client_reads_and_so_do_registrations) {
    bring_up(stage::initialized);
    register_for(&channel, 0);
    hal_event_record record = pattern_record(0);
    uint32_t filled = 0;
    ASSERT_EQ(fcntl(channel.hal_pipe[1], F_SETFL, O_NONBLOCK), 0);
    while (kr_sdn_hal_srvc_process_event(&record) == SUCCESS) {
        filled++;
    }
    ASSERT_EQ(fcntl(channel.hal_pipe[1], F_SETFL, 0), 0);
    EXPECT_GE(filled, 1U);

    std::atomic<pid_t> producer_id{0};
    std::thread producer([&] {
        producer_id = thread_id();
        producer_id.notify_one();
        record.payload.bytes[0]++;
        EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    });
    producer_id.wait(0);
    wait_until_asleep(producer_id);
    std::atomic<pid_t> client_id{0};
    std::atomic<bool> is_registered{false};
    std::thread client([&] {
        client_id = thread_id();
        client_id.notify_one();
        register_for(&channel, 1);
        is_registered = true;
    });
    client_id.wait(0);
    wait_until_asleep(client_id);
    EXPECT_FALSE(is_registered);

    const hal_event_record first = take_from_pipe(&channel);
    producer.join();
    client.join();
    EXPECT_TRUE(is_registered);
    for (uint32_t i = 1; i < filled; i++) {
        EXPECT_TRUE(equal(take_from_pipe(&channel), first));
    }
    EXPECT_TRUE(equal(take_from_pipe(&channel), record));
    EXPECT_FALSE(readable(channel.hal_pipe[0]));
}

} // namespace
