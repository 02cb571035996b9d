/*
 * What a client does with a started switch, with the n-th call of the platform failing, for
 * every n until none is left to fail: once as a single fault, once with everything failing from there on. Whatever the
 * calls answer, nothing crashes, hangs or leaks, no lock stays held, and the whole goes well when it is tried again.
 */
#include <dirent.h>

#include "kr_api.h"
#include "tests/system/running_library.h"

using namespace kr_test;

extern "C" kr_api_handle sdk_handle; // exported data of the library

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;

size_t descriptor_count() {
    size_t count = 0;
    DIR *const folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr) {
        count++;
    }
    closedir(folder);
    return count;
}

class sweep : public running_switch, public testing::WithParamInterface<bool> {
  protected:
    sweep() : running_switch(2) {}

    // Counts what failed; the client goes on as if nothing had.
    void note(uint32_t status) {
        failure_count += status != SUCCESS ? 1 : 0;
    }

    // Flows of ids behind `first`.
    void use_flows(uint64_t first) {
        const std::vector<flow_record> flows = {flow_of(first + 1, 10), flow_of(first + 2, 30, FLOW_ACTION_CONTROLLER),
                                                flow_of(first + 3, 20)};
        const uint64_t ids[] = {first + 1, first + 2, first + 3};
        uint32_t count = 3;
        flow_record read_back[3];
        uint32_t activities[3];
        flow_stats stats[3];
        note(flows_add(flows));
        note(kr_sdn_hal_table_entry_get(0, 0, ids, &count, read_back));
        inject(1, frame_for(first + 2));
        note(kr_sdn_hal_table_entry_activity_get(0, ids, 3, activities));
        note(kr_sdn_hal_table_entry_stat_get(0, ids, 3, stats));
        note(flows_delete(flows));
    }
    void use_groups() {
        const uint32_t members[] = {1, 2};
        uint32_t group_id = 0;
        uint32_t count = 100;
        uint32_t found[100];
        note(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, 1, members, &group_id));
        note(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_ADD_PORTS, 2, members, &group_id));
        note(kr_sdn_hal_table_mcast_group_get(group_id, &count, found));
        note(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_DELETE, 0, nullptr, &group_id));
    }
    void use_channel(uint64_t first_flow) {
        srvc_handle handle{};
        note(kr_sdn_hal_srvc_open(&handle));
        for (const uint32_t event : {EVENT_PACKET_IN, EVENT_PORT_OPER_STATE_CHANGE, EVENT_AGENT_UPDATE}) {
            note(kr_sdn_hal_srvc_event_register(&handle, event));
        }
        use_flows(first_flow);
        note(the_library.configure(CONN_CONFIG_AGENT, {}).get());
        const std::vector<uint8_t> frame = frame_for(9);
        note(kr_sdn_hal_srvc_packet_send(&handle, frame.data(), static_cast<uint32_t>(frame.size()), 2, 0));
        srvc_handle *handles[] = {&handle};
        for (uint32_t mask = 1; handle.is_open == 1 && mask != 0;) {
            timeval at_once{};
            hal_event_record record;
            ASSERT_EQ(kr_sdn_hal_srvc_select(handles, 1, &at_once, &mask), SUCCESS);
            if (mask != 0 && kr_sdn_hal_srvc_recv(&handle, &record) != SUCCESS) {
                failure_count++;
                break; // a switch that goes on failing would go on being readable
            }
        }
        note(kr_sdn_hal_srvc_event_unregister(&handle, EVENT_PACKET_IN));
        const bool was_open = handle.is_open == 1;
        const kr_sdn_hal_status closed = kr_sdn_hal_srvc_close(&handle);
        EXPECT_EQ(closed, was_open ? SUCCESS : KR_SDN_HAL_STATUS_PARAM_ERROR);
        if (handle.sdk_fd.valid == 1) { // what the switch did not close
            kr_soft_fault_clear();
            failure_count++;
            EXPECT_EQ(kr_api_host_ifc_close(sdk_handle, &handle.sdk_fd), KR_STATUS_SUCCESS);
        }
    }

    void use_all() {
        use_channel(0);
        use_groups();
    }

    uint32_t failure_count = 0;
};

TEST_P(sweep, of_every_call_that_fails_leaves_a_switch_that_works) {
    const bool is_persistent = GetParam();
    const size_t before = descriptor_count();
    // Lines of failures are not what this is about.
    for (int32_t *const level : {&kr_HAL_EVENTS_API_verb_level, &kr_FLOWS_DB_verb_level}) {
        *level = 0;
    }
    wait_until_asleep(wait_for_thread_named("psort")); // it makes no calls then
    kr_soft_journal_start();
    ASSERT_NO_FATAL_FAILURE(use_all());
    kr_soft_journal_stop();
    ASSERT_EQ(failure_count, 0U);
    const uint64_t call_count = kr_soft_call_count("*");
    ASSERT_GT(call_count, 40U) << "so few calls are made: this test shows nothing";
    uint32_t noticed_count = 0;
    for (uint32_t nth = 0; nth < call_count; nth++) {
        SCOPED_TRACE(testing::Message() << "call " << nth << " fails, "
                                        << (is_persistent ? "and all behind it" : "alone"));
        wait_until_asleep(wait_for_thread_named("psort"));
        ASSERT_EQ(kr_soft_fault_set("*", nth, 1, is_persistent ? 1 : 0), KR_STATUS_SUCCESS);
        failure_count = 0;
        ASSERT_NO_FATAL_FAILURE(use_all());
        kr_soft_fault_clear();
        noticed_count += failure_count != 0 ? 1 : 0;
        // A flow whose place was lost keeps it until the stop; everything else works at once.
        failure_count = 0;
        ASSERT_NO_FATAL_FAILURE(use_channel(100));
        use_groups();
        ASSERT_EQ(failure_count, 0U);
        ASSERT_NO_FATAL_FAILURE(TearDown());
        SetUp();
        ASSERT_FALSE(HasFailure());
        ASSERT_EQ(descriptor_count(), before);
    }
    EXPECT_GT(noticed_count, call_count / 2); // counters may fail, and edits of groups, and nobody is told
    kr_HAL_EVENTS_API_verb_level = 3;
    kr_FLOWS_DB_verb_level = 3;
}

INSTANTIATE_TEST_SUITE_P(single_and_persistent, sweep, testing::Bool(),
                         [](const auto &one) { return one.param ? "persistent" : "single"; });

} // namespace
