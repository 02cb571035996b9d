/*
 * What placement costs through the whole library: the traces of bench/psort, each operation one
 * kr_sdn_hal_table_entry_set on a started switch of the software platform. Rules moved are those that the platform has
 * counted in its ACL. After each trace the placement, the rules, the flows database and what the API reads back are
 * compared pairwise.
 *
 * The program fails when the library refuses an operation, when any two of the four differ, or when they hold another
 * number of flows than the trace has left. Background steps are called for by this program on the library's own pSort
 * table, when the trace says so, as the library's background thread would; that one is at rest, since it keeps its own
 * time.
 */
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string_view>
#include <vector>

#include "bench/psort/placement_traces.h"
#include "kr_connector.h"
#include "kr_psort.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "table_audit.h"
#include "tables/tables_acl_impl.h"
#include "tests/support/fake_connector.h"
#include "tests/support/fake_fpt.h"

namespace {

using kr_bench::named_trace;
using kr_bench::trace;
using kr_bench::trace_operation;

constexpr uint32_t table_size = 1000;
constexpr double call_cost = 10; // the cost model: this per block move, and 1 per rule moved

struct options {
    uint64_t seed = 1;
    uint64_t rounds = 3;
    std::string_view only;
};

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "bench_placement: %s\n", what);
    std::exit(1);
}

double thread_nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

kr_soft_usage usage_now() {
    kr_soft_usage usage{};
    kr_soft_usage_get(&usage);
    return usage;
}

// The library over its fake plug-ins, for the life of the program; the switch is started for each round.
class library {
  public:
    library() : connector_(KR_FAKE_PLUGIN_DIR "/fake_connector.so"), ports_(KR_FAKE_PLUGIN_DIR "/fake_fpt.so") {
        system_profile profile{};
        strncpy(profile.connector_library_path, KR_FAKE_PLUGIN_DIR "/fake_connector.so", KR_SDN_HAL_PATH_SIZE - 1);
        strncpy(profile.fpt_library_path, KR_FAKE_PLUGIN_DIR "/fake_fpt.so", KR_SDN_HAL_PATH_SIZE - 1);
        if (kr_sdn_hal_init(&profile, nullptr) != KR_SDN_HAL_STATUS_SUCCESS ||
            kr_sdn_hal_activate() != KR_SDN_HAL_STATUS_SUCCESS) {
            fail("the library does not start");
        }
        start(); // once stopped, the background thread of a switch that is started again ends before its first step
        stop();
    }
    ~library() {
        (void)kr_sdn_hal_deinit();
    }
    library(const library &) = delete;
    library &operator=(const library &) = delete;

    void start() {
        if (connector_->event_callback(CONN_EVENT_START, nullptr) != 0) {
            fail("the switch does not start");
        }
    }
    void stop() {
        if (connector_->event_callback(CONN_EVENT_STOP, nullptr) != 0) {
            fail("the switch does not stop");
        }
        kr_soft_reset();
    }

  private:
    kr_test::loaded_fake_connector connector_;
    kr_test::loaded_fake_fpt ports_;
};

struct figures {
    std::vector<uint64_t> moved; // per measured add
    uint64_t calls = 0;
    uint64_t worker_moved = 0;
    uint64_t worker_calls = 0;
    double nanoseconds = 0; // of all adds and deletes
    uint64_t operations = 0;
    uint64_t flows_compared = 0;
};

// Each shift goes through the library's notification handler, to the rules and to the flows database.
void run_worker(const trace_operation &step, figures *result) {
    const kr_soft_usage before = usage_now();
    for (uint32_t finished = 0; finished == 0;) {
        if (psort_background_worker(acl_psort_handle, &finished) != KR_UTILS_STATUS_SUCCESS) {
            fail("a background step failed");
        }
    }
    if (step.measured) {
        const kr_soft_usage after = usage_now();
        result->worker_moved += after.moved_rule_count - before.moved_rule_count;
        result->worker_calls += after.block_move_count - before.block_move_count;
    }
}

void set_flow(const trace_operation &step, figures *result) {
    flow_record flow{};
    flow.flow_id = step.key;
    flow.priority = step.priority;
    memcpy(flow.eth_dst, &step.key, sizeof flow.eth_dst);
    memset(flow.eth_dst_mask, 0xFF, sizeof flow.eth_dst_mask);
    flow.action = FLOW_ACTION_DROP;
    const uint32_t command = step.kind == trace_operation::add ? KR_SDN_HAL_CMD_ADD : KR_SDN_HAL_CMD_DELETE;
    const kr_soft_usage before = usage_now();
    const double start = thread_nanoseconds();
    const kr_sdn_hal_status status = kr_sdn_hal_table_entry_set(command, 0, &flow, 1);
    result->nanoseconds += thread_nanoseconds() - start;
    ++result->operations;
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        fail("the library refused an operation");
    }
    if (step.measured && step.kind == trace_operation::add) {
        const kr_soft_usage after = usage_now();
        result->moved.push_back(after.moved_rule_count - before.moved_rule_count);
        result->calls += after.block_move_count - before.block_move_count;
    }
}

void compare(const trace &steps, figures *result) {
    uint32_t flow_count = 0;
    for (const trace_operation &step : steps) {
        flow_count += step.kind == trace_operation::add ? 1U : step.kind == trace_operation::remove ? -1U : 0U;
    }
    const kr_audit::report found = kr_audit::audit_table();
    for (const kr_audit::finding &each : found.findings) {
        std::fprintf(stderr, "%s\n", kr_audit::to_text(each).c_str());
    }
    if (!found.is_complete || !found.findings.empty() || found.flow_count != flow_count ||
        found.place_count != flow_count || found.rule_count != flow_count) {
        fail("placement, rules, flows database and read-back do not agree");
    }
    result->flows_compared += flow_count;
}

void print_row(const named_trace &what, figures *result) {
    std::sort(result->moved.begin(), result->moved.end());
    const size_t count = result->moved.size();
    double sum = 0;
    for (const uint64_t moved : result->moved) {
        sum += static_cast<double>(moved);
    }
    const double mean = sum / static_cast<double>(count);
    const double calls = static_cast<double>(result->calls) / static_cast<double>(count);
    std::printf("%-25s %8.3f %6" PRIu64 " %6" PRIu64 " %8.3f %8.3f %8.0f   %" PRIu64 " agree\n", what.name, mean,
                result->moved[count * 99 / 100], result->moved.back(), calls, mean + call_cost * calls,
                result->nanoseconds / static_cast<double>(result->operations), result->flows_compared);
    if (result->worker_calls != 0) {
        std::printf("%-25s %8.3f %6s %6s %8.3f\n", "  and the worker, per add",
                    static_cast<double>(result->worker_moved) / static_cast<double>(count), "", "",
                    static_cast<double>(result->worker_calls) / static_cast<double>(count));
    }
    std::fflush(stdout);
}

void run_trace(library *all, const named_trace &what, const options &chosen) {
    figures result;
    for (uint64_t round = 0; round < chosen.rounds; ++round) {
        std::mt19937_64 random(chosen.seed + round);
        const trace steps = what.generate(random, table_size);
        all->start();
        for (const trace_operation &step : steps) {
            step.kind == trace_operation::background ? run_worker(step, &result) : set_flow(step, &result);
        }
        compare(steps, &result);
        all->stop();
    }
    print_row(what, &result);
}

options parse(int argc, char **argv) {
    options chosen;
    for (int index = 1; index < argc; index += 2) {
        const std::string_view name = argv[index];
        char *end = nullptr;
        const char *const value = index + 1 < argc ? argv[index + 1] : "";
        const uint64_t number = std::strtoull(value, &end, 0);
        const bool is_number = *value != '\0' && *end == '\0';
        if (name == "--seed" && is_number) {
            chosen.seed = number;
        } else if (name == "--rounds" && is_number && number >= 1 && number <= 1000) {
            chosen.rounds = number;
        } else if (name == "--only" && *value != '\0') {
            chosen.only = value;
        } else {
            std::fprintf(stderr, "usage: bench_placement [--seed N] [--rounds 1..1000] [--only TEXT]\n");
            std::exit(2);
        }
    }
    return chosen;
}

} // namespace

int main(int argc, char **argv) {
    const options chosen = parse(argc, argv);
    const auto all = std::make_unique<library>();
    double load = 0;
    (void)getloadavg(&load, 1);
    std::printf("%u slots, through the library, seeds %" PRIu64 " to %" PRIu64 ", load average %.2f\n", table_size,
                chosen.seed, chosen.seed + chosen.rounds - 1, load);
    std::printf("%-25s %8s %6s %6s %8s %8s %8s   %s\n", "rules moved per add", "mean", "99 %", "max", "calls", "cost",
                "ns/op", "flows in placement, rules, database and read-back");
    for (const named_trace &what : kr_bench::placement_traces) {
        if (std::string_view(what.name).find(chosen.only) != std::string_view::npos) {
            run_trace(all.get(), what, chosen);
        }
    }
    return 0;
}
