/*
 * One process from its first breath: an init that has no descriptors, the first start and its background thread, a
 * second start that has none for long, and the end, behind which there is no new beginning.
 *
 * A program of its own with one test: what it shows can be shown once per process.
 */
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <cstring>

#include "tests/support/fake_connector.h"
#include "tests/support/fake_fpt.h"
#include "tests/support/log_capture.h"
#include "tests/support/threads.h"
#include "tests/system/flows_and_frames.h"

using namespace kr_test;

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr const char *background_thread = "psort";

class life : public testing::Test {
  protected:
    life() : connector(KR_FAKE_PLUGIN_DIR "/fake_connector.so"), fpt(KR_FAKE_PLUGIN_DIR "/fake_fpt.so") {
        strncpy(profile.connector_library_path, KR_FAKE_PLUGIN_DIR "/fake_connector.so", KR_SDN_HAL_PATH_SIZE - 1);
        strncpy(profile.fpt_library_path, KR_FAKE_PLUGIN_DIR "/fake_fpt.so", KR_SDN_HAL_PATH_SIZE - 1);
    }

    void init_without_descriptors() {
        rlimit before{};
        getrlimit(RLIMIT_NOFILE, &before);
        rlimit none = before;
        none.rlim_cur = 0;
        testing::internal::CaptureStderr();
        setrlimit(RLIMIT_NOFILE, &none);
        // A file that is not loaded yet has to be opened.
        system_profile other = profile;
        strncpy(other.connector_library_path, KR_FAKE_PLUGIN_DIR "/fake_connector_without_conn_log.so",
                KR_SDN_HAL_PATH_SIZE - 1);
        const kr_sdn_hal_status status = kr_sdn_hal_init(&other, log_capture::callback);
        setrlimit(RLIMIT_NOFILE, &before);
        EXPECT_EQ(status, ERROR);
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::StartsWith("dlopen() has failed loading connector library"));
    }

    // Starts the switch so that the background thread wakes at once, as it does after its time.
    void start_and_wake() {
        ASSERT_EQ(kr_soft_fault_set("cl_event_wait_on", 0, 6, 0), KR_STATUS_SUCCESS); // a time-out
        ASSERT_EQ(connector->event_callback(CONN_EVENT_START, nullptr), 0U);
    }
    void wait_for_journal(const std::string &call) {
        for (std::string text; text.find(call) == std::string::npos;) {
            char *const lines = kr_soft_journal_text();
            text = lines;
            free(lines);
        }
    }
    static void expect_flows_work() {
        std::vector<flow_record> flows;
        std::vector<uint64_t> ids;
        for (uint64_t id = 1; id <= 1000; id++) {
            flows.push_back(flow_of(id, static_cast<uint32_t>(id * 7919 % 65536)));
            ids.push_back(id);
        }
        EXPECT_EQ(flows_add(flows), SUCCESS);
        std::vector<flow_record> read_back(flows.size());
        uint32_t count = 1000;
        EXPECT_EQ(kr_sdn_hal_table_entry_get(0, 0, ids.data(), &count, read_back.data()), SUCCESS);
        EXPECT_EQ(memcmp(read_back.data(), flows.data(), flows.size() * sizeof(flow_record)), 0);
        EXPECT_EQ(flows_delete(flows), SUCCESS);
    }

    loaded_fake_connector connector;
    loaded_fake_fpt fpt;
    system_profile profile{};
    log_capture log;
};

TEST_F(life, has_one_init_many_starts_and_a_background_thread_in_the_first_start_only) {
    init_without_descriptors();
    ASSERT_EQ(kr_sdn_hal_init(&profile, log_capture::callback), SUCCESS);
    ASSERT_EQ(kr_sdn_hal_activate(), SUCCESS);
    EXPECT_EQ(thread_named(background_thread), 0);

    kr_soft_journal_start();
    start_and_wake();
    wait_for_journal("psort_background_worker(");
    const pid_t first = wait_for_thread_named(background_thread);
    wait_until_asleep(first); // it woke, worked, and waits again
    expect_flows_work();
    ASSERT_EQ(connector->event_callback(CONN_EVENT_STOP, nullptr), 0U);
    EXPECT_EQ(thread_named(background_thread), 0);

    for (int start = 2; start <= 3; start++) {
        kr_soft_journal_start();
        start_and_wake();
        wait_for_journal("cl_event_wait_on(");
        while (thread_named(background_thread) != 0) { // it wakes for the first time and ends
            sched_yield();
        }
        char *const lines = kr_soft_journal_text();
        EXPECT_THAT(lines, testing::Not(testing::HasSubstr("psort_background_worker(")));
        free(lines);
        expect_flows_work();
        ASSERT_EQ(connector->event_callback(CONN_EVENT_STOP, nullptr), 0U);
    }
    kr_soft_journal_stop();

    EXPECT_THAT(log.take(), testing::IsEmpty());
    EXPECT_EQ(kr_sdn_hal_deinit(), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_init(&profile, log_capture::callback), ERROR);
    EXPECT_EQ(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, nullptr, 1), KR_SDN_HAL_STATUS_PARAM_NULL);
    kr_soft_usage usage{};
    kr_soft_usage_get(&usage);
    EXPECT_EQ(usage.acl_count + usage.group_count + usage.descriptor_count + usage.device_handle_count, 0U);
}

} // namespace
