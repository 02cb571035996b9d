/*
 * Start and stop on the software platform: every call of the platform that can fail, with the status, the lines of all
 * modules and the platform's journal, in which the order of undoing stands.
 */
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "common/guards.h"
#include "library_fixture.h"

using namespace kr_test;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr int32_t with_notices = 4;

lines operator+(lines left, const lines &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

lines first_of(const lines &all, size_t count) {
    return {all.begin(), all.begin() + static_cast<ptrdiff_t>(count)};
}

/* clang-format off */
const lines whole_start = {
    "kr_api_open = 0",                    // event service
    "cl_qpool_init = 0",                  // flows
    "kr_acl_rm_api_open = 0",
    "kr_acl_rm_api_init = 0",
    "kr_acl_rm_api_acl_set = 0",
    "kr_acl_rm_api_acl_mc_group_set = 0",
    "psort_init = 0",
    "cl_thread_init = 0",                 // background thread
    "kr_api_host_ifc_open = 0",
    "cl_thread_init = 0",                 // control frames
};
const lines tables_down = {
    "cl_event_signal = 0",
    "cl_thread_destroy",
    "psort_clear_table = 0",
    "kr_acl_rm_api_acl_mc_group_set = 0",
    "kr_acl_rm_api_acl_set = 0",
    "kr_acl_rm_api_close = 0",
};
const lines events_down = {"kr_api_close = 0"};
const lines host_ifc_down = {"kr_api_host_ifc_close = 0"};
const lines whole_stop = lines{"cl_thread_destroy"} + host_ifc_down + tables_down + events_down;

struct start_row {
    const char *name;
    const char *function;
    uint32_t nth, code;
    uint32_t status;
    size_t calls_before; // of the whole start
    lines calls_after;
    lines log;
};

const char *const tables_line = "1 HAL_GEN: SDN HAL table module dependent init failed.";

const start_row start_rows[] = {
    {"device", "kr_api_open", 0, 7, 2, 0, {"kr_api_open = 7"},
     {"1 HAL_GEN: SDN HAL events module dependent init failed."}},
    {"resource_manager", "kr_acl_rm_api_open", 0, 1, 1, 2, lines{"kr_acl_rm_api_open = 1"} + events_down,
     {"1 HAL_TABLES_API: Failed to open handle to ACL RM rc(1)", "1 HAL_TABLES_API: Failed in ACL HW init ",
      "1 HAL_TABLES_API: Failed to initialize table (0) rc = 1", tables_line}},
    {"resource_manager_init", "kr_acl_rm_api_init", 0, 1, 1, 3, lines{"kr_acl_rm_api_init = 1"} + events_down,
     {"1 HAL_TABLES_API: Failed to init ACL RM rc(1)", "1 HAL_TABLES_API: Failed in ACL HW init ",
      "1 HAL_TABLES_API: Failed to initialize table (0) rc = 1", tables_line}},
    {"acl", "kr_acl_rm_api_acl_set", 0, 6, 1, 4, lines{"kr_acl_rm_api_acl_set = 6"} + events_down,
     {"1 HAL_TABLES_API: Failed to create ACL in ACL RM rc (6)", "1 HAL_TABLES_API: Failed in ACL HW init ",
      "1 HAL_TABLES_API: Failed to initialize table (0) rc = 1", tables_line}},
    {"flood_group_without_room", "kr_acl_rm_api_acl_mc_group_set", 0, 6, 10, 5,
     lines{"kr_acl_rm_api_acl_mc_group_set = 6"} + events_down,
     {"1 HAL_TABLES_API: Failed in ACL HW init ", "1 HAL_TABLES_API: Failed to initialize table (0) rc = 10",
      tables_line}},
    {"flood_group", "kr_acl_rm_api_acl_mc_group_set", 0, 7, 1, 5,
     lines{"kr_acl_rm_api_acl_mc_group_set = 7"} + events_down,
     {"1 HAL_TABLES_API: Failed to create FLOOD MC group in ACL RM rc (7)",
      "1 HAL_TABLES_API: Failed in ACL HW init ", "1 HAL_TABLES_API: Failed to initialize table (0) rc = 1",
      tables_line}},
    {"placement", "psort_init", 0, 3, 1, 6, lines{"psort_init = 3"} + events_down,
     {"1 HAL_TABLES_API: Failed in ACL pSort init ", "1 HAL_TABLES_API: Failed to initialize table (0) rc = 1",
      tables_line}},
    {"background_thread", "cl_thread_init", 0, 1, 1, 7, lines{"cl_thread_init = 1"} + events_down,
     {"1 HAL_TABLES_API: Could not create pSort background thread", tables_line}},
    {"host_interface", "kr_api_host_ifc_open", 0, 6, 1, 8,
     lines{"kr_api_host_ifc_open = 6"} + tables_down + events_down,
     {"1 HAL_GEN: Failed to open host ifc No resources."}},
    {"control_frames_thread", "cl_thread_init", 1, 1, 1, 9,
     lines{"cl_thread_init = 1"} + host_ifc_down + tables_down + events_down,
     {"1 HAL_GEN: Could not create controls listener thread."}},
};

struct stop_row {
    const char *name;
    const char *function;
    uint32_t code;
    uint32_t status;
    uint32_t started; // afterwards
    size_t calls_before; // of the whole stop
    lines calls_after;
    lines log; // behind the thread's notice
};

const char *const tables_stop_line = "1 HAL_GEN: SDN HAL table module dependent deinit failed.";

const stop_row stop_rows[] = {
    {"host_interface_goes_on", "kr_api_host_ifc_close", 12, 0, 0, 1,
     lines{"kr_api_host_ifc_close = 12"} + tables_down + events_down,
     {"1 HAL_GEN: Failed in host_ifc_close err (12)."}},
    {"placement", "psort_clear_table", 1, 1, 1, 4, {"psort_clear_table = 1"},
     {"1 HAL_TABLES_API: Failed in ACL pSort deinit ", "1 HAL_TABLES_API: Failed to deinit table (0) rc = 1",
      tables_stop_line}},
    {"flood_group", "kr_acl_rm_api_acl_mc_group_set", 1, 1, 1, 5, {"kr_acl_rm_api_acl_mc_group_set = 1"},
     {"1 HAL_TABLES_API: Failed to delete FLOOD MC group in ACL RM rc (1)",
      "1 HAL_TABLES_API: Failed in ACL HW deinit ", "1 HAL_TABLES_API: Failed to deinit table (0) rc = 1",
      tables_stop_line}},
    {"acl", "kr_acl_rm_api_acl_set", 11, 1, 1, 6, {"kr_acl_rm_api_acl_set = 11"},
     {"1 HAL_TABLES_API: Failed to destroy ACL in ACL RM rc (11)", "1 HAL_TABLES_API: Failed in ACL HW deinit ",
      "1 HAL_TABLES_API: Failed to deinit table (0) rc = 1", tables_stop_line}},
    {"resource_manager", "kr_acl_rm_api_close", 12, 1, 1, 7, {"kr_acl_rm_api_close = 12"},
     {"1 HAL_TABLES_API: Failed to close handle to ACL RM rc(12)", "1 HAL_TABLES_API: Failed in ACL HW deinit ",
      "1 HAL_TABLES_API: Failed to deinit table (0) rc = 1", tables_stop_line}},
    {"device", "kr_api_close", 12, 2, 1, 8, {"kr_api_close = 12"},
     {"1 HAL_GEN: SDN HAL events module dependent deinit failed."}},
};
/* clang-format on */

class library_start_stop_test : public library_fixture {};
class library_start_failure_test : public library_fixture, public testing::WithParamInterface<start_row> {};
class library_stop_failure_test : public library_fixture, public testing::WithParamInterface<stop_row> {};

TEST_F(library_start_stop_test, start_and_stop_make_their_calls_in_order_and_leave_nothing) {
    init();
    kr::relaxed_store(kr_HAL_GEN_verb_level, with_notices); // the library's threads read it
    kr_soft_journal_start();
    EXPECT_EQ(event(CONN_EVENT_START), 0U);
    EXPECT_THAT(take_journal(), ElementsAreArray(whole_start));
    EXPECT_THAT(take_log(), IsEmpty());
    kr_soft_journal_start();
    EXPECT_EQ(event(CONN_EVENT_STOP), 0U);
    EXPECT_THAT(take_journal(), ElementsAreArray(whole_stop));
    EXPECT_THAT(take_log(), ElementsAre("15 HAL_GEN: Terminating controls thread"));
    EXPECT_EQ(usage().acl_count + usage().group_count + usage().descriptor_count, 0U);
    EXPECT_EQ(usage().device_handle_count + usage().acl_rm_handle_count, 0U);
}

TEST_F(library_start_stop_test, second_start_calls_nothing) {
    start();
    kr::relaxed_store(kr_HAL_GEN_verb_level, with_notices); // the library's threads read it
    kr_soft_journal_start();
    EXPECT_EQ(event(CONN_EVENT_START), 0U);
    EXPECT_THAT(take_journal(), IsEmpty());
    EXPECT_THAT(take_log(), ElementsAre("15 HAL_GEN: SDN HAL has already started."));
}

TEST_P(library_start_failure_test, has_its_status_lines_and_calls_and_may_be_retried) {
    const start_row &row = GetParam();
    init();
    ASSERT_EQ(kr_soft_fault_set(row.function, row.nth, row.code, 0), KR_STATUS_SUCCESS);
    kr_soft_journal_start();
    EXPECT_EQ(event(CONN_EVENT_START), row.status);
    EXPECT_THAT(take_journal(), ElementsAreArray(first_of(whole_start, row.calls_before) + row.calls_after));
    EXPECT_THAT(take_log(), ElementsAreArray(row.log));
    EXPECT_EQ(kr::general::g.started, 0U);
    EXPECT_EQ(usage().descriptor_count, 0U);
    EXPECT_EQ(usage().device_handle_count, 0U);
    kr_soft_fault_clear();
    EXPECT_EQ(event(CONN_EVENT_START), 0U);
    EXPECT_EQ(kr::general::g.started, 1U);
}

INSTANTIATE_TEST_SUITE_P(rows, library_start_failure_test, testing::ValuesIn(start_rows),
                         [](const auto &row) { return row.param.name; });

TEST_F(library_start_stop_test, start_whose_port_plug_in_fails_takes_the_tables_and_the_device_down) {
    init();
    fpt->activate_status = 9;
    kr_soft_journal_start();
    EXPECT_EQ(event(CONN_EVENT_START), 9U);
    EXPECT_THAT(take_journal(), ElementsAreArray(first_of(whole_start, 8) + tables_down + events_down));
    EXPECT_THAT(take_log(), ElementsAre("1 HAL_GEN: FPT activate failed."));
    EXPECT_EQ(usage().acl_count + usage().device_handle_count, 0U);
}

TEST_P(library_stop_failure_test, has_its_status_lines_and_calls) {
    in_a_process_of_its_own([this] {
        const stop_row &row = GetParam();
        start();
        kr::relaxed_store(kr_HAL_GEN_verb_level, with_notices); // the library's threads read it
        ASSERT_EQ(kr_soft_fault_set(row.function, 0, row.code, 0), KR_STATUS_SUCCESS);
        kr_soft_journal_start();
        EXPECT_EQ(event(CONN_EVENT_STOP), row.status);
        EXPECT_THAT(take_journal(), ElementsAreArray(first_of(whole_stop, row.calls_before) + row.calls_after));
        EXPECT_THAT(take_log(), ElementsAreArray(lines{"15 HAL_GEN: Terminating controls thread"} + row.log));
        EXPECT_EQ(kr::general::g.started, row.started);
    });
}

INSTANTIATE_TEST_SUITE_P(rows, library_stop_failure_test, testing::ValuesIn(stop_rows),
                         [](const auto &row) { return row.param.name; });

TEST_F(library_start_stop_test, stop_with_a_port_returns_11_and_calls_nothing) {
    start();
    ASSERT_NO_FATAL_FAILURE(add_port(1));
    kr_soft_journal_start();
    EXPECT_EQ(event(CONN_EVENT_STOP), 11U);
    EXPECT_THAT(take_journal(), IsEmpty());
    EXPECT_THAT(take_log(), ElementsAre("1 HAL_GEN: SDN HAL couldn't not be stopped when port(s) exists."));
    EXPECT_EQ(kr::general::g.started, 1U);
}

} // namespace
