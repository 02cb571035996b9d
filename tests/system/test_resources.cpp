/*
 * When the process runs out of descriptors, when a pipe is as small as it gets, and when signals come into the waits:
 * the outcome is the one that the header tells, nothing leaks, and everything works again afterwards.
 */
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>

#include <set>

#include "kr_api.h"
#include "tests/system/running_library.h"

using namespace kr_test;
using testing::ElementsAre;
using testing::IsEmpty;

extern "C" kr_api_handle sdk_handle; // exported data of the library

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr auto SDK_ERROR = KR_SDN_HAL_STATUS_SDK_ERROR;

log_line events_line(const std::string &text) {
    return {KR_LOG_ERROR, "HAL_EVENTS_API", text + "\n"};
}

std::set<int> open_descriptors() {
    std::set<int> numbers;
    DIR *const folder = opendir("/proc/self/fd");
    while (const dirent *const entry = readdir(folder)) {
        if (entry->d_name[0] != '.' && std::stoi(entry->d_name) != dirfd(folder)) {
            numbers.insert(std::stoi(entry->d_name));
        }
    }
    closedir(folder);
    return numbers;
}

// While it lives, the process can open so many descriptors more and no others.
class descriptors_left {
  public:
    explicit descriptors_left(unsigned count) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const std::set<int> numbers = open_descriptors();
        rlim_t limit = 0;
        for (unsigned free_count = 0; free_count < count || numbers.contains(static_cast<int>(limit)); limit++) {
            free_count += numbers.contains(static_cast<int>(limit)) ? 0 : 1;
        }
        rlimit lowered = before_;
        lowered.rlim_cur = limit;
        setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~descriptors_left() {
        setrlimit(RLIMIT_NOFILE, &before_);
    }
    descriptors_left(const descriptors_left &) = delete;
    descriptors_left &operator=(const descriptors_left &) = delete;

  private:
    rlimit before_{};
};

class resources : public running_switch {};

/* ---- descriptors ------------------------------------------------------------------------------------------------- */

// A channel takes its host-interface descriptor first and its pipe second.
TEST_F(resources, opening_a_channel_with_ever_more_descriptors_left_fails_as_told_and_works_in_the_end) {
    std::vector<kr_sdn_hal_status> outcomes;
    for (unsigned left = 0; outcomes.empty() || outcomes.back() != SUCCESS; left++) {
        ASSERT_LT(left, 8U);
        const std::set<int> before = open_descriptors();
        srvc_handle handle{};
        (void)log.take();
        {
            const descriptors_left limit(left);
            outcomes.push_back(kr_sdn_hal_srvc_open(&handle));
        }
        switch (outcomes.back()) {
        case SDK_ERROR:
            EXPECT_EQ(log.take(), std::vector<log_line>{events_line("Failed creating the SDK FD")});
            EXPECT_EQ(handle.is_open, 0U);
            break;
        case ERROR: // the descriptor that was made stays in the handle, for the client to close
            EXPECT_EQ(log.take(), std::vector<log_line>{events_line("Failed creating the HAL FD")});
            EXPECT_EQ(handle.is_open, 0U);
            EXPECT_EQ(handle.sdk_fd_open, 1U);
            EXPECT_EQ(kr_api_host_ifc_close(sdk_handle, &handle.sdk_fd), KR_STATUS_SUCCESS);
            break;
        default:
            ASSERT_EQ(outcomes.back(), SUCCESS);
            EXPECT_THAT(log.take(), IsEmpty());
            EXPECT_EQ(kr_sdn_hal_srvc_close(&handle), SUCCESS);
        }
        EXPECT_EQ(open_descriptors(), before) << "with " << left << " left";
    }
    // One descriptor short of the switch's need, and one and two of the pipe's.
    EXPECT_EQ(std::set<kr_sdn_hal_status>(outcomes.begin(), outcomes.end()),
              (std::set<kr_sdn_hal_status>{SUCCESS, ERROR, SDK_ERROR}));
    EXPECT_TRUE(std::is_sorted(outcomes.begin(), outcomes.end(), std::greater<>()));
}

TEST_F(resources, a_channel_that_cannot_gain_its_descriptor_stays_open_and_gains_it_later) {
    ASSERT_NO_FATAL_FAILURE(TearDown());
    channel early; // before the start
    SetUp();
    {
        const descriptors_left none(0);
        EXPECT_EQ(kr_sdn_hal_srvc_event_register(&early.handle, EVENT_PACKET_IN), SDK_ERROR);
        EXPECT_EQ(kr_sdn_hal_srvc_packet_send(&early.handle, "frame", 5, 1, 0), SDK_ERROR);
    }
    EXPECT_EQ(log.take(), (std::vector<log_line>{events_line("Failed creating the SDK FD"),
                                                 events_line("Failed creating the SDK FD")}));
    EXPECT_EQ(early.handle.is_open, 1U);
    EXPECT_EQ(early.handle.sdk_fd_open, 0U);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&early.handle, EVENT_PACKET_IN), SUCCESS);
    ASSERT_EQ(flows_add({flow_of(1, 100, FLOW_ACTION_CONTROLLER)}), SUCCESS);
    inject(3, frame_for(1));
    EXPECT_EQ(early.receive().payload.packet.in_port, 3U);
}

TEST_F(resources, a_start_without_descriptors_takes_back_what_it_did_and_works_later) {
    ASSERT_NO_FATAL_FAILURE(TearDown());
    const std::set<int> before = open_descriptors();
    uint32_t status = ERROR;
    std::set<std::string> texts;
    for (unsigned left = 0; status != SUCCESS; left++) {
        ASSERT_LT(left, 12U);
        (void)log.take();
        {
            const descriptors_left limit(left);
            status = the_library.deliver(CONN_EVENT_START).get();
        }
        for (const log_line &line : log.take()) {
            texts.insert(line.text);
        }
        if (status != SUCCESS) {
            EXPECT_EQ(status, uint32_t{ERROR});
            EXPECT_EQ(open_descriptors(), before) << "with " << left << " left";
            kr_soft_usage usage{};
            kr_soft_usage_get(&usage);
            EXPECT_EQ(usage.acl_count + usage.device_handle_count + usage.descriptor_count, 0U);
        }
    }
    // The descriptor of the host interface speaks; the stop pipe fails without a line.
    EXPECT_THAT(texts, ElementsAre("Failed to open host ifc No resources.\n"));
    ASSERT_EQ(the_library.deliver(CONN_EVENT_STOP).get(), 0U);
    SetUp();
    EXPECT_EQ(flows_add({flow_of(1)}), SUCCESS);
}

/* ---- the smallest pipe ------------------------------------------------------------------------------------------- */

TEST_F(resources, through_a_pipe_of_one_page_every_record_comes_whole_and_in_order) {
    channel client({EVENT_AGENT_UPDATE});
    const int page = fcntl(client.handle.hal_pipe[1], F_SETPIPE_SZ, 1);
    ASSERT_GE(page, static_cast<int>(sizeof(hal_event_record)));
    ASSERT_LT(page, 2 * static_cast<int>(sizeof(hal_event_record)));
    constexpr uint32_t producer_count = 3;
    constexpr uint32_t record_count = 500;
    std::vector<std::thread> producers;
    for (uint32_t producer = 0; producer < producer_count; producer++) {
        producers.emplace_back([producer] {
            hal_event_record record;
            for (uint32_t number = 0; number < record_count; number++) {
                memset(&record, static_cast<int>(producer * 80 + number % 80), sizeof record);
                record.type = EVENT_AGENT_UPDATE;
                record.payload.agent.entries[0].value = producer;
                record.payload.agent.entries[1].value = number;
                EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
            }
        });
    }
    uint32_t next[producer_count] = {};
    for (uint32_t i = 0; i < producer_count * record_count; i++) {
        const hal_event_record record = client.receive();
        const uint32_t producer = record.payload.agent.entries[0].value;
        ASSERT_LT(producer, producer_count);
        ASSERT_EQ(record.payload.agent.entries[1].value, next[producer]++);
        const auto filling = static_cast<uint8_t>(producer * 80 + (next[producer] - 1) % 80);
        ASSERT_EQ(record.payload.bytes[sizeof record.payload.bytes - 1], filling);
        ASSERT_EQ(record.payload.bytes[2000], filling);
    }
    for (std::thread &producer : producers) {
        producer.join();
    }
    EXPECT_FALSE(client.readable());
}

// A client that makes its pipe's write end non-blocking loses records instead of stopping the producer.
TEST_F(resources, a_pipe_that_does_not_block_gives_1_when_it_is_full_and_holds_whole_records_only) {
    channel client({EVENT_AGENT_UPDATE});
    ASSERT_EQ(fcntl(client.handle.hal_pipe[1], F_SETFL, O_NONBLOCK), 0);
    hal_event_record record{};
    record.type = EVENT_AGENT_UPDATE;
    uint64_t written = 0;
    while (kr_sdn_hal_srvc_process_event(&record) == SUCCESS) {
        record.payload.agent.trailer = ++written;
        ASSERT_LT(written, 1000U);
    }
    for (uint64_t number = 0; number < written; number++) {
        EXPECT_EQ(client.receive().payload.agent.trailer, number);
    }
    EXPECT_FALSE(client.readable());
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
}

/* ---- signals ----------------------------------------------------------------------------------------------------- */

class signals : public running_switch {
  protected:
    interrupting_signal signal;
};

TEST_F(signals, in_select_give_1_and_leave_the_mask) {
    channel client({EVENT_AGENT_UPDATE});
    uint32_t mask = 77;
    srvc_handle *handles[] = {&client.handle};
    call_on_a_thread waiting([&] { return kr_sdn_hal_srvc_select(handles, 1, nullptr, &mask); });
    EXPECT_FALSE(waiting.is_done());
    signal.send_to(waiting.id());
    EXPECT_EQ(waiting.join(), ERROR);
    EXPECT_EQ(mask, 77U);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_FALSE(client.readable());
}

TEST_F(signals, in_receive_give_1_and_take_nothing) {
    channel client({EVENT_AGENT_UPDATE});
    hal_event_record record{};
    call_on_a_thread waiting([&] { return kr_sdn_hal_srvc_recv(&client.handle, &record); });
    EXPECT_FALSE(waiting.is_done());
    signal.send_to(waiting.id());
    EXPECT_EQ(waiting.join(), ERROR);
    EXPECT_THAT(log.take(), IsEmpty());
    record.type = EVENT_AGENT_UPDATE;
    record.payload.agent.trailer = 5;
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_EQ(client.receive().payload.agent.trailer, 5U);
}

TEST_F(signals, in_a_producer_that_waits_for_room_give_1_and_leave_whole_records) {
    channel first({EVENT_AGENT_UPDATE});
    channel second({EVENT_AGENT_UPDATE});
    ASSERT_GT(fcntl(first.handle.hal_pipe[1], F_SETPIPE_SZ, 1), 0);
    hal_event_record record{};
    record.type = EVENT_AGENT_UPDATE;
    record.payload.agent.trailer = 1;
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_EQ(second.receive().payload.agent.trailer, 1U);
    record.payload.agent.trailer = 2;
    call_on_a_thread producer([&] { return kr_sdn_hal_srvc_process_event(&record); });
    EXPECT_FALSE(producer.is_done());
    signal.send_to(producer.id());
    EXPECT_EQ(producer.join(), ERROR);
    EXPECT_FALSE(second.readable()) << "the channels behind do not get the record";
    EXPECT_EQ(first.receive().payload.agent.trailer, 1U);
    EXPECT_FALSE(first.readable());
    // The registry's lock is free, and the next record arrives.
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&second.handle, EVENT_GENERAL_ERROR), SUCCESS);
    record.payload.agent.trailer = 3;
    EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
    EXPECT_EQ(first.receive().payload.agent.trailer, 3U);
    EXPECT_EQ(second.receive().payload.agent.trailer, 3U);
}

TEST_F(signals, in_the_wait_for_an_acknowledgement_give_1_and_the_removal_may_be_announced_again) {
    channel client({EVENT_PORT_CAPABILITIES_UPDATE});
    std::future<uint32_t> removal = the_library.deliver(CONN_EVENT_PORT_REMOVED, port_record_of(2));
    (void)client.receive();
    the_library.connector().wait_until_asleep();
    ASSERT_FALSE(is_done(removal));
    signal.send_to(the_library.connector().id());
    EXPECT_EQ(removal.get(), uint32_t{ERROR});
    EXPECT_EQ(log.take(),
              (std::vector<log_line>{
                  {KR_LOG_ERROR, "HAL_GEN", "Failed to wait until port disable operation completed. err [7].\n"}}));
    EXPECT_THAT(ports(), ElementsAre(1, 2, 3, 4));
    remove_port(2);
    EXPECT_THAT(ports(), ElementsAre(1, 3, 4));
}

TEST_F(signals, end_the_thread_of_control_frames_and_the_stop_still_works) {
    ASSERT_NO_FATAL_FAILURE(TearDown());
    const std::set<pid_t> before = thread_ids();
    SetUp();
    wait_for_thread_named("psort");
    std::vector<pid_t> frames_threads;
    for (const pid_t id : thread_ids()) {
        if (!before.contains(id) && thread_name(id) != "psort") {
            frames_threads.push_back(id);
        }
    }
    ASSERT_EQ(frames_threads.size(), 1U);
    wait_until_asleep(frames_threads[0]);
    signal.send_to(frames_threads[0]);
    wait_until_ended(frames_threads[0]);
    EXPECT_THAT(log.take(), IsEmpty());
    // TearDown stops the switch; a new start has the thread again.
    ASSERT_NO_FATAL_FAILURE(TearDown());
    SetUp();
    ASSERT_EQ(
        the_library
            .deliver(CONN_EVENT_CONTROL_FORWARD, conn_control_forward{CONN_FORWARD_REGISTER, KR_TRAP_ID_PORT_UP_DOWN})
            .get(),
        0U);
}

TEST_F(signals, in_the_background_thread_make_it_wait_again) {
    const pid_t background = wait_for_thread_named("psort");
    kr_soft_journal_start(); // knows the waits that begin from now on
    const std::string interrupted = "cl_event_wait_on(10000000, 1) = 7\n";
    for (std::string text; !text.starts_with(interrupted + interrupted);) {
        wait_until_asleep(background);
        signal.send_to(background);
        char *const lines = kr_soft_journal_text();
        text = lines;
        free(lines);
    }
    EXPECT_NE(thread_state(background), '\0');
    EXPECT_EQ(flows_add({flow_of(1)}), SUCCESS);
}

} // namespace
