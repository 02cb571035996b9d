/*
 * Runs the benchmarks of the library and prints, behind the usual table, how fast the library is next to the same work
 * straight on the platform or the system: 1.00 is as fast, 0.50 takes twice the time.
 *
 * Of each benchmark the best of all repetitions counts; they are interleaved at random.
 */
#include "bench_library.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <vector>

#include "kr_connector.h"
#include "tests/support/fake_connector.h"
#include "tests/support/fake_fpt.h"

namespace kr_bench {
namespace {

std::unique_ptr<kr_test::loaded_fake_connector> connector;
std::unique_ptr<kr_test::loaded_fake_fpt> port_plugin;
std::string wire;
std::string far_end;

conn_port_record record_of(uint32_t of_port) {
    conn_port_record port{};
    port.log_port = started_switch::log_port_of(of_port);
    port.ifindex = of_port;
    return port;
}

void library_init() {
    connector = std::make_unique<kr_test::loaded_fake_connector>(KR_FAKE_PLUGIN_DIR "/fake_connector.so");
    port_plugin = std::make_unique<kr_test::loaded_fake_fpt>(KR_FAKE_PLUGIN_DIR "/fake_fpt.so");
    system_profile profile{};
    strncpy(profile.connector_library_path, KR_FAKE_PLUGIN_DIR "/fake_connector.so", KR_SDN_HAL_PATH_SIZE - 1);
    strncpy(profile.fpt_library_path, KR_FAKE_PLUGIN_DIR "/fake_fpt.so", KR_SDN_HAL_PATH_SIZE - 1);
    require(kr_sdn_hal_init(&profile, nullptr), "kr_sdn_hal_init");
    require(kr_sdn_hal_activate(), "kr_sdn_hal_activate");
}

// A pair of interfaces that nobody else sees. Before the first thread: a user namespace wants a single one.
void wire_init() {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (uid != 0 || unshare(CLONE_NEWNET) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
            return;
        }
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
        std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
    }
    if (std::system("PATH=$PATH:/sbin:/usr/sbin; ip link add wire0 type veth peer name wire1 2>/dev/null && "
                    "sysctl -qw net.ipv6.conf.all.disable_ipv6=1 2>/dev/null; "
                    "ip link set wire0 up 2>/dev/null && ip link set wire1 up 2>/dev/null") == 0) {
        wire = "wire0";
        far_end = "wire1";
    }
}

// Keeps the best result of each benchmark, per item.
class comparing_reporter : public benchmark::ConsoleReporter {
  public:
    comparing_reporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run> &runs) override {
        std::vector<Run> repetitions; // without their means and medians: the ratios go by the best
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration) {
                repetitions.push_back(run);
            }
        }
        ConsoleReporter::ReportRuns(repetitions);
        for (const Run &run : repetitions) {
            const auto items = run.counters.find("items_per_second");
            if (items == run.counters.end()) {
                continue;
            }
            const auto median = run.counters.find("median_us");
            const double time = median != run.counters.end() ? median->second.value * 1e3 : 1e9 / items->second.value;
            std::string name = run.run_name.function_name;
            name += run.run_name.args.empty() ? "" : "/" + run.run_name.args;
            const auto best = best_.try_emplace(name, time).first;
            best->second = std::min(best->second, time);
        }
    }

    void print_ratios() const {
        std::printf("\n%-44s %12s %12s %7s\n", "", "library", "straight", "ratio");
        for (const auto &[name, time] : best_) {
            const size_t at = name.find("/library");
            if (at == std::string::npos) {
                continue;
            }
            std::string other = name;
            other.replace(at, strlen("/library"), "/straight");
            const auto straight = best_.find(other);
            if (straight == best_.end()) {
                continue;
            }
            std::string label = name;
            label.erase(at, strlen("/library"));
            std::printf("%-44s %9.0f ns %9.0f ns %7.2f\n", label.c_str(), time, straight->second,
                        straight->second / time);
        }
    }

  private:
    std::map<std::string, double> best_; // ns per item, or the median where there is one
};

} // namespace

void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "bench_library: %s failed\n", what);
        std::exit(1);
    }
}

started_switch::started_switch(uint32_t port_count) {
    require((*connector)->event_callback(CONN_EVENT_START, nullptr) == 0, "the start of the switch");
    for (uint32_t port = 1; port <= port_count; port++) {
        require(kr_soft_port_add_memory(log_port_of(port)) == KR_STATUS_SUCCESS, "a port in memory");
        add_port(port);
    }
}

void started_switch::add_port(uint32_t of_port) {
    conn_port_record port = record_of(of_port);
    require((*connector)->event_callback(CONN_EVENT_PORT_ADDED, &port) == 0, "a port");
}

started_switch::~started_switch() {
    uint32_t ports[100];
    uint32_t count = 100;
    require(kr_sdn_hal_port_arr_get(ports, &count), "kr_sdn_hal_port_arr_get");
    for (uint32_t i = 0; i < count; i++) {
        // Nobody listens here: the acknowledgement that the connector waits for is given before.
        hal_event_record record{};
        record.type = EVENT_PORT_CAPABILITIES_UPDATE;
        record.payload.port_update.reason = PORT_UPDATE_REMOVED;
        record.payload.port_update.port = ports[i];
        require(kr_sdn_hal_srvc_event_ack(&record), "kr_sdn_hal_srvc_event_ack");
    }
    require((*connector)->event_callback(CONN_EVENT_STOP, nullptr) == 0, "the stop of the switch");
    kr_soft_reset();
}

const std::string &wire_interface() {
    return wire;
}
const std::string &far_interface() {
    return far_end;
}

} // namespace kr_bench

int main(int argc, char **argv) {
    // Defaults that a command line overrides.
    std::vector<char *> arguments(argv, argv + argc);
    char repetitions[] = "--benchmark_repetitions=5";
    char interleaving[] = "--benchmark_enable_random_interleaving=true";
    char min_time[] = "--benchmark_min_time=0.1";
    arguments.insert(arguments.begin() + 1, {repetitions, interleaving, min_time});
    auto count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    kr_bench::wire_init();
    kr_bench::library_init();
    kr_bench::register_flow_benchmarks();
    kr_bench::register_event_benchmarks();
    kr_bench::register_packet_benchmarks();
    kr_bench::comparing_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios();
    if (kr_bench::wire_interface().empty()) {
        std::printf("\nwithout benchmarks on interfaces: no network namespace is to be had\n");
    }
    return kr_sdn_hal_deinit() == KR_SDN_HAL_STATUS_SUCCESS ? 0 : 1;
}
