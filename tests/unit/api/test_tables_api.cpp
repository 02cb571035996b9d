/*
 * The exported table functions: the order of their checks, their lines, their trace marks, and what they make of the
 * answers from below.
 */
#include <functional>
#include <regex>

#include "tests/unit/tables/tables_fixture.h"

using namespace kr_test;

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto PARAM_ERROR = KR_SDN_HAL_STATUS_PARAM_ERROR;
constexpr auto PARAM_NULL = KR_SDN_HAL_STATUS_PARAM_NULL;
constexpr auto EXCEEDS_RANGE = KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
constexpr auto UNSUPPORTED = KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;

const std::string null_parameter = "Null Parameter given";
const std::string no_such_table = "Table id (1) exceeds maximal table ID (0)";

// Arguments that are in order; flows 1 to 3 are in the table, 9 is not.
struct arguments {
    std::vector<flow_record> flows = make_flows(1, 3);
    std::vector<uint64_t> ids = {1, 2, 3};
    uint32_t count = 3;
    std::vector<uint32_t> values = std::vector<uint32_t>(100, 0xEEEEEEEE);
    std::vector<flow_stats> stats = std::vector<flow_stats>(3, flow_stats{7, 7});
    std::vector<uint32_t> ports = std::vector<uint32_t>(101, 1);
    uint32_t group_id = 0;
    table_capabilities capabilities_out{};
    table_stats whole{};
};

struct row {
    const char *name;
    std::function<kr_sdn_hal_status(arguments &)> run;
    kr_sdn_hal_status expected;
    std::vector<std::string> errors; // the error lines; nothing else of this level
    const char *function;
    bool has_exit_mark;
};

void PrintTo(const row &value, std::ostream *out) {
    *out << value.name;
}

class tables_api : public tables_started {
  protected:
    void SetUp() override {
        tables_started::SetUp();
        ASSERT_EQ(add(make_flows(1, 3)), SUCCESS);
        ASSERT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, 1, given.ports.data(), &given.group_id),
                  SUCCESS);
    }
    arguments given;
};

/* clang-format off */
const row rows[] = {
    {"set_without_flows", [](arguments &) { return kr_sdn_hal_table_entry_set(0, 1, nullptr, 1); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_entry_set", false},
    {"set_in_table_1", [](arguments &a) { return kr_sdn_hal_table_entry_set(0, 1, a.flows.data(), 1); },
     PARAM_ERROR, {no_such_table}, "kr_sdn_hal_table_entry_set", false},
    {"set_with_command_1", [](arguments &a) { return kr_sdn_hal_table_entry_set(1, 0, a.flows.data(), 1); },
     UNSUPPORTED, {}, "kr_sdn_hal_table_entry_set", false},
    {"set_of_flows_that_are_there", [](arguments &a) { return kr_sdn_hal_table_entry_set(0, 0, a.flows.data(), 3); },
     KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS, {}, "kr_sdn_hal_table_entry_set", false},
    {"set", [](arguments &a) { return kr_sdn_hal_table_entry_set(2, 0, a.flows.data(), 3); },
     SUCCESS, {}, "kr_sdn_hal_table_entry_set", true},

    {"get_from_a_start_even_if_all_else_is_null",
     [](arguments &) { return kr_sdn_hal_table_entry_get(1, 1, nullptr, nullptr, nullptr); },
     UNSUPPORTED, {"flow_start is not supported."}, "kr_sdn_hal_table_entry_get", false},
    {"get_without_ids", [](arguments &a) { return kr_sdn_hal_table_entry_get(1, 0, nullptr, &a.count, a.flows.data()); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_entry_get", false},
    {"get_without_count",
     [](arguments &a) { return kr_sdn_hal_table_entry_get(1, 0, a.ids.data(), nullptr, a.flows.data()); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_entry_get", false},
    {"get_without_flows",
     [](arguments &a) { return kr_sdn_hal_table_entry_get(1, 0, a.ids.data(), &a.count, nullptr); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_entry_get", false},
    {"get_from_table_1",
     [](arguments &a) { a.count = 0; return kr_sdn_hal_table_entry_get(1, 0, a.ids.data(), &a.count, a.flows.data()); },
     PARAM_ERROR, {no_such_table}, "kr_sdn_hal_table_entry_get", false},
    {"get_of_nothing_has_no_exit_mark",
     [](arguments &a) { a.count = 0; return kr_sdn_hal_table_entry_get(0, 0, a.ids.data(), &a.count, a.flows.data()); },
     SUCCESS, {}, "kr_sdn_hal_table_entry_get", false},
    {"get_of_an_unknown_flow",
     [](arguments &a) { a.ids[1] = 9; return kr_sdn_hal_table_entry_get(0, 0, a.ids.data(), &a.count, a.flows.data()); },
     KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND, {}, "kr_sdn_hal_table_entry_get", false},
    {"get", [](arguments &a) { return kr_sdn_hal_table_entry_get(0, 0, a.ids.data(), &a.count, a.flows.data()); },
     SUCCESS, {}, "kr_sdn_hal_table_entry_get", true},

    {"group_without_ports", [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(0, 1, nullptr, &a.group_id); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_without_id", [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(2, 0, a.ports.data(), nullptr); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_edit_without_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(3, 1, nullptr, &a.group_id); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_edit_without_ports_to_remove",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(4, 1, nullptr, &a.group_id); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_command_5_without_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(5, 1, nullptr, &a.group_id); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_edit_of_101_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(3, 101, a.ports.data(), &a.group_id); },
     EXCEEDS_RANGE, {"ports number exceeds range"}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_edit_that_removes_101_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(4, 101, a.ports.data(), &a.group_id); },
     EXCEEDS_RANGE, {"ports number exceeds range"}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_command_1_of_101_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(1, 101, a.ports.data(), &a.group_id); },
     EXCEEDS_RANGE, {"ports number exceeds range"}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_of_101_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(0, 101, a.ports.data(), &a.group_id); },
     EXCEEDS_RANGE, {"ports number exceeds range"}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_delete_of_101_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(2, 101, nullptr, &a.group_id); },
     EXCEEDS_RANGE, {"ports number exceeds range"}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_of_100_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(0, 100, a.ports.data(), &a.group_id); },
     SUCCESS, {}, "kr_sdn_hal_table_mcast_group_set", true},
    {"group_without_members_is_made",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(0, 0, a.ports.data(), &a.group_id); },
     SUCCESS, {}, "kr_sdn_hal_table_mcast_group_set", true},
    {"group_of_an_unknown_port",
     [](arguments &a) { a.ports[0] = 77; return kr_sdn_hal_table_mcast_group_set(0, 1, a.ports.data(), &a.group_id); },
     KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND, {"Failed to translate output port (77) rc (4)n "},
     "kr_sdn_hal_table_mcast_group_set", false},
    {"group_delete_needs_no_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(2, 0, nullptr, &a.group_id); },
     SUCCESS, {}, "kr_sdn_hal_table_mcast_group_set", true},
    {"group_delete_of_an_unknown_group",
     [](arguments &a) { a.group_id = 200; return kr_sdn_hal_table_mcast_group_set(2, 0, nullptr, &a.group_id); },
     ERROR, {"Failed to set mc group in ACL RM rc (5) "}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_edit_of_0_ports_is_still_made",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(3, 0, a.ports.data(), &a.group_id); },
     SUCCESS, {"ports number should be at least 1"}, "kr_sdn_hal_table_mcast_group_set", true},
    {"group_edit_that_removes_0_ports_is_still_made",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(4, 0, a.ports.data(), &a.group_id); },
     SUCCESS, {"ports number should be at least 1"}, "kr_sdn_hal_table_mcast_group_set", true},
    {"group_edit_of_an_unknown_port_succeeds",
     [](arguments &a) { a.ports[0] = 77; return kr_sdn_hal_table_mcast_group_set(3, 1, a.ports.data(), &a.group_id); },
     SUCCESS, {"Failed to translate output port (77) rc (4)n "}, "kr_sdn_hal_table_mcast_group_set", true},
    {"group_edit_that_fails_below_succeeds",
     [](arguments &a) { a.group_id = 200; return kr_sdn_hal_table_mcast_group_set(4, 1, a.ports.data(), &a.group_id); },
     SUCCESS, {"Failed to edit mc group in ACL RM rc (5) "}, "kr_sdn_hal_table_mcast_group_set", true},
    {"group_command_1", [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(1, 1, a.ports.data(), &a.group_id); },
     UNSUPPORTED, {}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_command_5", [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(5, 1, a.ports.data(), &a.group_id); },
     UNSUPPORTED, {}, "kr_sdn_hal_table_mcast_group_set", false},
    {"group_command_of_all_bits",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_set(UINT32_MAX, 1, a.ports.data(), &a.group_id); },
     UNSUPPORTED, {}, "kr_sdn_hal_table_mcast_group_set", false},

    {"group_get_without_count",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_get(a.group_id, nullptr, a.ports.data()); },
     PARAM_NULL, {"NULL params"}, "kr_sdn_hal_table_mcast_group_get", false},
    {"group_get_without_ports",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_get(a.group_id, &a.count, nullptr); },
     PARAM_NULL, {"NULL params"}, "kr_sdn_hal_table_mcast_group_get", false},
    {"group_get_with_room_for_none",
     [](arguments &a) { a.count = 0; return kr_sdn_hal_table_mcast_group_get(a.group_id, &a.count, a.ports.data()); },
     EXCEEDS_RANGE, {"ports number value is illegal"}, "kr_sdn_hal_table_mcast_group_get", false},
    {"group_get_with_room_for_101",
     [](arguments &a) { a.count = 101; return kr_sdn_hal_table_mcast_group_get(a.group_id, &a.count, a.ports.data()); },
     EXCEEDS_RANGE, {"ports number value is illegal"}, "kr_sdn_hal_table_mcast_group_get", false},
    {"group_get_of_an_unknown_group",
     [](arguments &a) { return kr_sdn_hal_table_mcast_group_get(200, &a.count, a.ports.data()); },
     KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND, {}, "kr_sdn_hal_table_mcast_group_get", false},
    {"group_get_has_no_exit_mark",
     [](arguments &a) { a.count = 100; return kr_sdn_hal_table_mcast_group_get(a.group_id, &a.count, a.ports.data()); },
     SUCCESS, {}, "kr_sdn_hal_table_mcast_group_get", false},

    {"table_count_without_room", [](arguments &) { return kr_sdn_hal_table_capabilities_get(nullptr); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_capabilities_get", false},
    {"table_count", [](arguments &a) { return kr_sdn_hal_table_capabilities_get(&a.count); },
     SUCCESS, {}, "kr_sdn_hal_table_capabilities_get", true},

    {"capabilities_of_table_1_before_the_pointer",
     [](arguments &) { return kr_sdn_hal_table_table_capabilities_get(1, nullptr); },
     PARAM_ERROR, {no_such_table}, "kr_sdn_hal_table_table_capabilities_get", false},
    {"capabilities_without_room", [](arguments &) { return kr_sdn_hal_table_table_capabilities_get(0, nullptr); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_table_capabilities_get", false},
    {"capabilities", [](arguments &a) { return kr_sdn_hal_table_table_capabilities_get(0, &a.capabilities_out); },
     SUCCESS, {}, "kr_sdn_hal_table_table_capabilities_get", true},

    {"activity_of_table_1",
     [](arguments &) { return kr_sdn_hal_table_entry_activity_get(1, nullptr, 0, nullptr); },
     PARAM_ERROR, {no_such_table}, "kr_sdn_hal_table_entry_activity_get", false},
    {"activity_without_ids",
     [](arguments &a) { return kr_sdn_hal_table_entry_activity_get(0, nullptr, 0, a.values.data()); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_entry_activity_get", false},
    {"activity_without_room",
     [](arguments &a) { return kr_sdn_hal_table_entry_activity_get(0, a.ids.data(), 0, nullptr); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_entry_activity_get", false},
    {"activity_of_no_flows",
     [](arguments &a) { return kr_sdn_hal_table_entry_activity_get(0, a.ids.data(), 0, a.values.data()); },
     PARAM_ERROR, {"Number of Flows ID is invalid "}, "kr_sdn_hal_table_entry_activity_get", false},
    {"activity_that_cannot_be_read",
     [](arguments &a) {
         (void)kr_soft_fault_set("kr_acl_rm_api_acl_rule_get", 0, 1, 0);
         return kr_sdn_hal_table_entry_activity_get(0, a.ids.data(), 3, a.values.data());
     },
     ERROR,
     {"Failed to retrieve rule activity from ACL RM rc (1) ",
      "Failed to retrieve flow (1) activity state from HW",
      "Failed to retrieve flows activity ", "Failed in flow activity get operation"},
     "kr_sdn_hal_table_entry_activity_get", false},
    {"activity", [](arguments &a) { return kr_sdn_hal_table_entry_activity_get(0, a.ids.data(), 3, a.values.data()); },
     SUCCESS, {}, "kr_sdn_hal_table_entry_activity_get", true},

    {"statistics_of_table_1_as_a_whole", [](arguments &) { return kr_sdn_hal_table_table_stat_get(1, nullptr); },
     PARAM_ERROR, {no_such_table}, "kr_sdn_hal_table_table_stat_get", false},
    {"statistics_without_room", [](arguments &) { return kr_sdn_hal_table_table_stat_get(0, nullptr); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_table_stat_get", false},
    {"statistics_as_a_whole", [](arguments &a) { return kr_sdn_hal_table_table_stat_get(0, &a.whole); },
     SUCCESS, {}, "kr_sdn_hal_table_table_stat_get", true},

    {"flow_statistics_of_table_1", [](arguments &) { return kr_sdn_hal_table_entry_stat_get(1, nullptr, 0, nullptr); },
     PARAM_ERROR, {no_such_table}, "kr_sdn_hal_table_entry_stat_get", false},
    {"flow_statistics_of_no_flows_need_no_pointers",
     [](arguments &) { return kr_sdn_hal_table_entry_stat_get(0, nullptr, 0, nullptr); },
     SUCCESS, {}, "kr_sdn_hal_table_entry_stat_get", true},
    {"flow_statistics_without_ids",
     [](arguments &a) { return kr_sdn_hal_table_entry_stat_get(0, nullptr, 1, a.stats.data()); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_entry_stat_get", false},
    {"flow_statistics_without_room",
     [](arguments &a) { return kr_sdn_hal_table_entry_stat_get(0, a.ids.data(), 1, nullptr); },
     PARAM_NULL, {null_parameter}, "kr_sdn_hal_table_entry_stat_get", false},
    {"flow_statistics_of_an_unknown_flow_succeed",
     [](arguments &a) { a.ids[1] = 9; return kr_sdn_hal_table_entry_stat_get(0, a.ids.data(), 3, a.stats.data()); },
     SUCCESS, {}, "kr_sdn_hal_table_entry_stat_get", true},
    {"flow_statistics_that_cannot_be_read",
     [](arguments &a) {
         (void)kr_soft_fault_set("kr_acl_rm_api_counter_get", 0, 1, 0);
         return kr_sdn_hal_table_entry_stat_get(0, a.ids.data(), 3, a.stats.data());
     },
     ERROR,
     {"Failed to get counter values. rc (1).", "Failed to get stat for flow ID (1). rc (1).",
      "Failed in getting table (0) statistics "},
     "kr_sdn_hal_table_entry_stat_get", false},
    {"flow_statistics",
     [](arguments &a) { return kr_sdn_hal_table_entry_stat_get(0, a.ids.data(), 3, a.stats.data()); },
     SUCCESS, {}, "kr_sdn_hal_table_entry_stat_get", true},
};
/* clang-format on */

class each_call : public tables_api, public testing::WithParamInterface<row> {};

TEST_P(each_call, gives_its_status_its_lines_and_its_marks) {
    const row &expected = GetParam();
    (void)log.take();
    kr_HAL_TABLES_API_verb_level = 6;
    EXPECT_EQ(expected.run(given), expected.expected);
    kr_HAL_TABLES_API_verb_level = 3;
    std::vector<std::string> errors;
    std::vector<std::string> marks;
    for (const log_line &line : log.take()) {
        if (line.severity == KR_LOG_ERROR) {
            EXPECT_EQ(line.module, "HAL_TABLES_API");
            errors.push_back(line.text.substr(0, line.text.size() - 1));
        } else if (line.severity == KR_LOG_FUNCTION) {
            marks.push_back(std::regex_replace(line.text, std::regex(R"(\[\d+\]-)"), "[#]-"));
        }
    }
    EXPECT_EQ(errors, expected.errors);
    const std::string function = expected.function;
    const std::string mark = "kr_sdn_hal_api_tables.cpp[#]- " + function + ": " + function;
    std::vector<std::string> expected_marks = {mark + ": [\n"};
    if (expected.has_exit_mark) {
        expected_marks.push_back(mark + ": ]\n");
    }
    EXPECT_EQ(marks, expected_marks);
}

INSTANTIATE_TEST_SUITE_P(rows, each_call, testing::ValuesIn(rows), [](const auto &one) { return one.param.name; });

TEST_F(tables_api, no_marks_below_verbosity_6) {
    kr_HAL_TABLES_API_verb_level = 5;
    EXPECT_EQ(kr_sdn_hal_table_capabilities_get(&given.count), SUCCESS);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(given.count, 1U);
}

TEST_F(tables_api, reading_no_flows_leaves_the_output) {
    given.count = 0;
    given.flows[0].flow_id = 77;
    EXPECT_EQ(kr_sdn_hal_table_entry_get(0, 0, given.ids.data(), &given.count, given.flows.data()), SUCCESS);
    EXPECT_EQ(given.flows[0].flow_id, 77U);
}

TEST_F(tables_api, reading_flows_clears_the_output_first_and_does_not_write_the_count) {
    memset(static_cast<void *>(given.flows.data()), 0xEE, 3 * sizeof(flow_record));
    given.ids[2] = 9;
    EXPECT_EQ(kr_sdn_hal_table_entry_get(0, 0, given.ids.data(), &given.count, given.flows.data()),
              KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(given.count, 3U);
    EXPECT_EQ(given.flows[2].flow_id, 9U);
    EXPECT_EQ(given.flows[2].priority, 0U);
    EXPECT_EQ(given.flows[0].out_port, 0U);
    given.ids[2] = 3;
    EXPECT_EQ(kr_sdn_hal_table_entry_get(0, 0, given.ids.data(), &given.count, given.flows.data()), SUCCESS);
    const flow_record expected = make_flow(3);
    EXPECT_EQ(memcmp(&given.flows[2], &expected, sizeof expected), 0);
}

TEST_F(tables_api, a_count_beyond_all_memory_is_refused_before_the_output_is_touched) {
    given.count = 0xFFFFFFFF;
    given.flows[0].flow_id = 77;
    EXPECT_EQ(kr_sdn_hal_table_entry_get(0, 0, given.ids.data(), &given.count, given.flows.data()), ERROR);
    EXPECT_EQ(given.flows[0].flow_id, 77U);
    EXPECT_EQ(kr_sdn_hal_table_entry_set(0, 0, given.flows.data(), 0xFFFFFFFF), ERROR);
}

TEST_F(tables_api, statistics_that_cannot_be_read_are_told_twice) {
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_counter_get", 1, 1, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_sdn_hal_table_entry_stat_get(0, given.ids.data(), 3, given.stats.data()), ERROR);
    EXPECT_EQ(log.take(), (std::vector<log_line>{error("Failed to get counter values. rc (1)."),
                                                 error("Failed to get stat for flow ID (2). rc (1)."),
                                                 error("Failed in getting table (0) statistics ")}));
    EXPECT_EQ(given.stats[2].count_first, 0U);
}

TEST_F(tables_api, activity_that_cannot_be_read_is_told_at_every_level) {
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_rule_get", 1, 1, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_sdn_hal_table_entry_activity_get(0, given.ids.data(), 3, given.values.data()), ERROR);
    EXPECT_EQ(log.take(), (std::vector<log_line>{error("Failed to retrieve rule activity from ACL RM rc (1) "),
                                                 error("Failed to retrieve flow (2) activity state from HW"),
                                                 error("Failed to retrieve flows activity "),
                                                 error("Failed in flow activity get operation")}));
    EXPECT_EQ(given.values[0], 0U);
    EXPECT_EQ(given.values[2], 0xEEEEEEEEU);
}

TEST_F(tables_api, an_edit_of_0_ports_reaches_the_hardware) {
    watch();
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(3, 0, given.ports.data(), &given.group_id), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(4, 0, given.ports.data(), &given.group_id), SUCCESS);
    const std::string group = std::to_string(given.group_id);
    EXPECT_THAT(journal(),
                ElementsAre("kr_acl_rm_api_acl_mc_group_set(cmd 9, group " + group + ", ports [], count 0) = 0",
                            "kr_acl_rm_api_acl_mc_group_set(cmd 10, group " + group + ", ports [], count 0) = 0"));
}

TEST_F(tables_api, what_the_arguments_refuse_reaches_nothing) {
    watch();
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(2, 101, nullptr, &given.group_id), EXCEEDS_RANGE);
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(5, 1, given.ports.data(), &given.group_id), UNSUPPORTED);
    given.count = 101;
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_get(given.group_id, &given.count, given.ports.data()), EXCEEDS_RANGE);
    EXPECT_EQ(kr_sdn_hal_table_entry_stat_get(0, nullptr, 0, nullptr), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_table_entry_activity_get(0, given.ids.data(), 0, given.values.data()), PARAM_ERROR);
    EXPECT_THAT(journal(), IsEmpty());
}

// The severities and texts of the log, without the places where the trace marks stand.
std::vector<std::string> plain_lines(const std::vector<log_line> &lines) {
    static const std::regex place(R"(^kr_sdn_hal_api_tables\.cpp\[\d+\]- \w+: )");
    std::vector<std::string> texts;
    for (const log_line &line : lines) {
        texts.push_back(std::to_string(line.severity) + " " + std::regex_replace(line.text, place, ""));
    }
    return texts;
}

TEST_F(tables_api, capabilities_mark_their_exit_before_the_call_also_when_it_fails) {
    const table_ops *const whole = kr::tables::g.operations[0];
    table_ops operations = *whole;
    operations.capabilities_get = nullptr;
    kr::relaxed_store(kr::tables::g.operations[0], static_cast<const table_ops *>(&operations));
    kr_HAL_TABLES_API_verb_level = 6;
    EXPECT_EQ(kr_sdn_hal_table_table_capabilities_get(0, &given.capabilities_out), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(plain_lines(log.take()),
                ElementsAre("63 kr_sdn_hal_table_table_capabilities_get: [\n",
                            "63 kr_sdn_hal_table_table_capabilities_get: ]\n", "1 Table (0) is unsupported\n"));
    kr::relaxed_store(kr::tables::g.operations[0], whole);
}

TEST_F(tables_api, a_flow_edit_of_a_group_shows_in_a_read) {
    const uint32_t ports[] = {2, 4};
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_ADD_PORTS, 2, ports, &given.group_id), SUCCESS);
    const uint32_t first = 1;
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_REMOVE_PORTS, 1, &first, &given.group_id), SUCCESS);
    given.count = 100;
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_get(given.group_id, &given.count, given.values.data()), SUCCESS);
    given.values.resize(given.count);
    EXPECT_THAT(given.values, ElementsAre(2U, 4U));
}

class tables_api_unstarted : public tables_unstarted {};

TEST_F(tables_api_unstarted, before_init_flows_are_refused_with_3_and_groups_with_1) {
    arguments given;
    EXPECT_EQ(kr_sdn_hal_table_entry_set(0, 0, given.flows.data(), 3), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(kr_sdn_hal_table_entry_get(0, 0, given.ids.data(), &given.count, given.flows.data()),
              KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(kr_sdn_hal_table_table_capabilities_get(0, &given.capabilities_out), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    (void)log.take();
    EXPECT_EQ(kr_sdn_hal_table_entry_activity_get(0, given.ids.data(), 3, given.values.data()),
              KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(log.take(), (std::vector<log_line>{error("SDN HAL Tables module is not initialized"),
                                                 error("Failed in flow activity get operation")}));
    EXPECT_EQ(kr_sdn_hal_table_entry_stat_get(0, given.ids.data(), 3, given.stats.data()),
              KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(log.take(), (std::vector<log_line>{error("SDN HAL Tables module is not initialized"),
                                                 error("Failed in getting table (0) statistics ")}));
    EXPECT_EQ(kr_sdn_hal_table_table_stat_get(0, &given.whole), UNSUPPORTED);
    EXPECT_EQ(log.take(), (std::vector<log_line>{error("Get table stats operation is unsupported for Table (0) "),
                                                 error("Failed in getting table (0) statistics ")}));
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(0, 1, given.ports.data(), &given.group_id), ERROR);
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(2, 1, given.ports.data(), &given.group_id), ERROR);
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(3, 1, given.ports.data(), &given.group_id), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_get(1, &given.count, given.ports.data()), ERROR);
    EXPECT_THAT(log.take(), IsEmpty());
}

} // namespace
