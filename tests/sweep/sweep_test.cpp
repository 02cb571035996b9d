/*
 * The sweep as tests: each operation's record is compared with the one in the tree, each rule that holds whatever
 * fails is checked, and the numbers of operations, calls and faults are those of records/coverage.txt.
 *
 * KR_SWEEP_RECORD=1 writes the records anew; KR_SWEEP_FAULT=NAME runs one fault, by the name under which a failure
 * names it, in this process.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/sweep/sweep.h"

namespace kr_test {

const std::vector<operation> &all_operations() {
    static const std::vector<operation> operations = [] {
        std::vector<operation> made;
        add_life_operations(made);
        add_event_operations(made);
        add_service_operations(made);
        add_port_operations(made);
        add_table_operations(made);
        add_thread_operations(made);
        return made;
    }();
    return operations;
}

void PrintTo(const operation &operation, std::ostream *out) {
    *out << operation.name;
}

namespace {

const std::string records = KR_SWEEP_RECORDS "/";

bool is_recording() {
    return getenv("KR_SWEEP_RECORD") != nullptr;
}

std::string read_file(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

struct counts {
    uint32_t calls = 0;
    uint32_t faults = 0;
    bool operator==(const counts &) const = default;
};
std::ostream &operator<<(std::ostream &out, const counts &of) {
    return out << of.calls << " calls, " << of.faults << " faults";
}

// A line per operation: its name, how many of its calls can fail, and under how many faults it ran.
std::map<std::string, counts> coverage_read() {
    std::ifstream file(records + "coverage.txt");
    std::map<std::string, counts> rows;
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string name;
        counts of;
        if (words >> name >> of.calls >> of.faults && name != "#") {
            rows[name] = of;
        }
    }
    return rows;
}

void coverage_write(const std::map<std::string, counts> &rows) {
    std::ofstream file(records + "coverage.txt");
    file << "# operation, its calls that can fail, the faults under which it ran; the last line is their sum\n";
    for (const auto &[name, of] : rows) {
        file << name << ' ' << of.calls << ' ' << of.faults << '\n';
    }
}

constexpr const char *sum_name = "~all"; // sorts behind the operations

counts sum_of(const std::map<std::string, counts> &rows) {
    counts sum;
    for (const auto &[name, of] : rows) {
        sum.calls += name != sum_name ? of.calls : 0;
        sum.faults += name != sum_name ? of.faults : 0;
    }
    return sum;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Where two records begin to differ, below the heading of the fault that it happens under.
std::string first_difference(const std::string &expected_text, const std::string &found_text) {
    const std::vector<std::string> expected = lines_of(expected_text);
    const std::vector<std::string> found = lines_of(found_text);
    std::string heading;
    size_t i = 0;
    for (; i < expected.size() && i < found.size() && expected[i] == found[i]; i++) {
        heading = expected[i].starts_with('[') || expected[i] == "no fault" ? expected[i] : heading;
    }
    return heading + "\n  recorded: " + (i < expected.size() ? expected[i] : "the end") +
           "\n  found:    " + (i < found.size() ? found[i] : "the end");
}

class sweep : public testing::TestWithParam<operation> {};

TEST_P(sweep, is_as_recorded) {
    const operation &operation = GetParam();
    const sweep_result result = sweep_operation(operation);
    for (const std::string &line : result.broken) {
        ADD_FAILURE() << line;
    }
    const std::string path = records + operation.name + ".txt";
    const counts found = {result.call_count, result.fault_count};
    printf("%s: %u calls, %u faults\n", operation.name.c_str(), found.calls, found.faults);
    std::map<std::string, counts> coverage = coverage_read();
    if (is_recording()) {
        std::ofstream(path) << result.record;
        coverage[operation.name] = found;
        coverage[sum_name] = sum_of(coverage);
        coverage_write(coverage);
        return;
    }
    EXPECT_EQ(coverage[operation.name], found) << "another number of calls or faults than records/coverage.txt says";
    const std::string expected = read_file(path);
    if (expected != result.record) {
        const std::string seen = testing::TempDir() + operation.name + ".txt";
        std::ofstream(seen) << result.record;
        ADD_FAILURE() << "differs from its record; all of it: diff " << path << ' ' << seen << "\n"
                      << first_difference(expected, result.record);
    }
}

INSTANTIATE_TEST_SUITE_P(all, sweep, testing::ValuesIn(all_operations()),
                         [](const auto &one) { return one.param.name; });

TEST(sweep_coverage, counts_what_is_recorded) {
    if (is_recording()) {
        GTEST_SKIP() << "they are being recorded";
    }
    const std::map<std::string, counts> rows = coverage_read();
    const counts sum = sum_of(rows);
    printf("the sweep covers %zu operations, %u calls, %u faults\n", all_operations().size(), sum.calls, sum.faults);
    EXPECT_EQ(rows.size(), all_operations().size() + 1) << "an operation came or went";
    ASSERT_TRUE(rows.contains(sum_name));
    EXPECT_EQ(rows.at(sum_name), sum);
    for (const operation &operation : all_operations()) {
        EXPECT_TRUE(rows.contains(operation.name)) << operation.name;
    }
}

TEST(sweep_coverage, has_every_exported_function) {
    std::set<std::string> covered;
    for (const operation &operation : all_operations()) {
        EXPECT_TRUE(covered.insert("operation " + operation.name).second) << operation.name << " is there twice";
        covered.insert(operation.covers);
    }
    std::ifstream symbols(KR_EXPORTED_SYMBOLS);
    std::string name;
    std::string kind;
    uint32_t function_count = 0;
    while (symbols >> name >> kind) {
        function_count += kind == "function" ? 1 : 0;
        EXPECT_TRUE(kind != "function" || covered.contains(name)) << name;
    }
    EXPECT_EQ(function_count, 44U);
    for (const char *const event : {"CONN_EVENT_START", "CONN_EVENT_STOP", "CONN_EVENT_PORT_ADDED",
                                    "CONN_EVENT_PORT_REMOVED", "CONN_EVENT_CONTROL_FORWARD", "CONN_CONFIG_AGENT",
                                    "control-frames thread", "background thread", "pSort notification"}) {
        EXPECT_TRUE(covered.contains(event)) << event;
    }
}

// What the client is handed is part of the records: wherever a function hands out anything.
TEST(sweep_coverage, tells_what_every_function_hands_out) {
    std::set<std::string> telling;
    for (const operation &operation : all_operations()) {
        if (read_file(records + operation.name + ".txt").find("\n  hands out ") != std::string::npos) {
            telling.insert(operation.covers);
        }
    }
    EXPECT_THAT(telling,
                testing::UnorderedElementsAre(
                    "kr_sdn_hal_capabilities_get", "kr_sdn_hal_port_arr_get", "kr_sdn_hal_port_capabilities_get",
                    "kr_sdn_hal_port_cntr_get", "kr_sdn_hal_port_flood_mode_get", "kr_sdn_hal_port_mtu_get",
                    "kr_sdn_hal_port_phys_addr_get", "kr_sdn_hal_port_rstp_state_get",
                    "kr_sdn_hal_port_speed_capability_get", "kr_sdn_hal_port_speed_get", "kr_sdn_hal_port_state_get",
                    "kr_sdn_hal_srvc_close", "kr_sdn_hal_srvc_event_register", "kr_sdn_hal_srvc_event_unregister",
                    "kr_sdn_hal_srvc_open", "kr_sdn_hal_srvc_packet_send", "kr_sdn_hal_srvc_recv",
                    "kr_sdn_hal_srvc_select", "kr_sdn_hal_table_capabilities_get",
                    "kr_sdn_hal_table_entry_activity_get", "kr_sdn_hal_table_entry_get", "kr_sdn_hal_table_entry_set",
                    "kr_sdn_hal_table_entry_stat_get", "kr_sdn_hal_table_mcast_group_get",
                    "kr_sdn_hal_table_mcast_group_set", "kr_sdn_hal_table_table_capabilities_get",
                    "kr_sdn_hal_table_table_stat_get", "pSort notification"));
}

TEST(one_fault, on_request) {
    const char *const name = getenv("KR_SWEEP_FAULT");
    if (name == nullptr) {
        GTEST_SKIP() << "KR_SWEEP_FAULT names none";
    }
    std::string operation_name;
    fault fault;
    ASSERT_TRUE(fault_of_name(name, &operation_name, &fault)) << name << " is not the name of a fault";
    for (const operation &operation : all_operations()) {
        if (operation.name == operation_name) {
            const outcome expected = run_in_a_process(operation, {}, nullptr);
            const outcome of = run_here(operation, fault, &expected);
            printf("%s\n%s\n%s", name, of.failed_call.c_str(), outcome_text(of).c_str());
            return;
        }
    }
    ADD_FAILURE() << "no operation " << operation_name;
}

} // namespace
} // namespace kr_test
