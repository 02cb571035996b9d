/*
 * What placement costs: rules moved, shift calls and time of each add on the traces of placement_traces.h, next to what
 * the nearest-slot baseline moves on the same traces. Figures of n rounds are those of all their adds together.
 *
 * The program fails when the library refuses an operation or when any check after any operation does not hold. With
 * --csv it writes the rules moved by occupancy, from which plot_occupancy.py draws.
 */
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "placement_measure.h"
#include "placement_traces.h"

namespace {

using kr_bench::measurement;
using kr_bench::named_trace;

constexpr double call_cost = 10; // the cost model: this per shift call, and 1 per rule moved

struct options {
    uint64_t seed = 1;
    uint32_t rounds = 3; // with seeds seed, seed + 1, ...
    std::vector<uint32_t> sizes = {1000, 6000, 65536};
    std::string only; // traces whose name contains this
    std::string csv;
};

struct summary {
    double mean = 0;
    uint32_t percentile_99 = 0;
    uint32_t max = 0;
    double calls = 0;
    double cost = 0;
};

summary summary_of(measurement *result) {
    std::sort(result->moved.begin(), result->moved.end());
    const size_t count = result->moved.size();
    uint64_t total = 0;
    for (uint32_t moved : result->moved) {
        total += moved;
    }
    const double mean = static_cast<double>(total) / static_cast<double>(count);
    const double calls = static_cast<double>(result->calls) / static_cast<double>(count);
    return {mean, result->moved[std::min(count - 1, count * 99 / 100)], result->moved.back(), calls,
            mean + call_cost * calls};
}

double median(std::vector<double> *values) {
    const auto middle = values->begin() + static_cast<std::ptrdiff_t>(values->size() / 2);
    std::nth_element(values->begin(), middle, values->end());
    return values->empty() ? 0 : *middle;
}

void print_heading(uint32_t size, const options &chosen) {
    double load = 0; // of a quiet machine when times are to mean something
    (void)getloadavg(&load, 1);
    std::printf("\n%u slots, seeds %" PRIu64 " to %" PRIu64 ", load average %.2f\n", size, chosen.seed,
                chosen.seed + chosen.rounds - 1, load);
    std::printf("%-25s %8s %6s %6s %8s %8s %8s %8s   %8s %6s %6s %9s   %s\n", "rules moved per add", "mean", "99 %",
                "max", "calls", "cost", "ns/op", "no move", "nearest:", "99 %", "max", "cost",
                size == 1000 ? "goal" : "");
}

void print_row(const named_trace &what, uint32_t size, measurement *library, measurement *baseline) {
    const summary ours = summary_of(library);
    const summary theirs = summary_of(baseline);
    std::printf("%-25s %8.3f %6u %6u %8.3f %8.3f %8.0f %8.0f   %8.2f %6u %6u %9.1f   %s\n", what.name, ours.mean,
                ours.percentile_99, ours.max, ours.calls, ours.cost,
                library->nanoseconds / static_cast<double>(library->timed_operations),
                median(&library->still_nanoseconds), theirs.mean, theirs.percentile_99, theirs.max, theirs.cost,
                size == 1000 ? what.goal : "");
    if (library->worker_calls != 0) {
        const auto adds = static_cast<double>(library->moved.size());
        std::printf("%-25s %8.3f %6s %6s %8.3f\n", "  and the worker, per add",
                    static_cast<double>(library->worker_moved) / adds, "", "",
                    static_cast<double>(library->worker_calls) / adds);
    }
    std::fflush(stdout);
}

void write_csv(std::FILE *csv, const named_trace &what, uint32_t size, const char *placement,
               const kr_bench::moves_by_occupancy &moves) {
    for (size_t index = 0; index < moves.class_count; ++index) {
        if (moves.has(index)) {
            std::fprintf(csv, "%u,%s,\"%s\",%.2f,%.4f\n", size, placement, what.name,
                         (static_cast<double>(index) + 0.5) / moves.class_count, moves.mean(index));
        }
    }
}

bool run_trace(const named_trace &what, uint32_t size, const options &chosen, std::FILE *csv) {
    measurement library;
    measurement baseline;
    for (uint32_t round = 0; round < chosen.rounds; ++round) {
        std::mt19937_64 random(chosen.seed + round);
        const kr_bench::trace steps = what.generate(random, size);
        kr_bench::measure_library(steps, size, &library);
        if (!library.failure.empty()) {
            std::fprintf(stderr, "placement_bench: %s (%s, %u slots, seed %" PRIu64 ")\n", library.failure.c_str(),
                         what.name, size, chosen.seed + round);
            return false;
        }
        kr_bench::measure_baseline(steps, size, &baseline);
    }
    print_row(what, size, &library, &baseline);
    if (csv != nullptr) {
        write_csv(csv, what, size, "library", library.occupancy);
        write_csv(csv, what, size, "nearest slot", baseline.occupancy);
    }
    return true;
}

[[noreturn]] void usage() {
    std::fprintf(stderr,
                 "usage: placement_bench [--seed N] [--rounds N] [--sizes N,N,...] [--only TEXT] [--csv FILE]\n");
    std::exit(2);
}

uint64_t number(const char *text, uint64_t least, uint64_t most) {
    char *end = nullptr;
    const uint64_t value = std::strtoull(text, &end, 0);
    if (end == text || *end != '\0' || value < least || value > most) {
        std::fprintf(stderr, "placement_bench: %s is not a number from %" PRIu64 " to %" PRIu64 "\n", text, least,
                     most);
        usage();
    }
    return value;
}

std::vector<uint32_t> numbers(std::string text) {
    std::vector<uint32_t> values;
    for (char *item = std::strtok(text.data(), ","); item != nullptr; item = std::strtok(nullptr, ",")) {
        values.push_back(static_cast<uint32_t>(number(item, 20, kr_bench::priority_range)));
    }
    return values;
}

options parse(int argc, char **argv) {
    options chosen;
    for (int index = 1; index < argc; index += 2) {
        const std::string_view name = argv[index];
        if (index + 1 == argc) {
            usage();
        }
        const char *const value = argv[index + 1];
        if (name == "--seed") {
            chosen.seed = number(value, 0, UINT64_MAX - 1000);
        } else if (name == "--rounds") {
            chosen.rounds = static_cast<uint32_t>(number(value, 1, 1000));
        } else if (name == "--sizes") {
            chosen.sizes = numbers(value);
        } else if (name == "--only") {
            chosen.only = value;
        } else if (name == "--csv") {
            chosen.csv = value;
        } else {
            usage();
        }
    }
    return chosen;
}

bool run_all(const options &chosen, std::FILE *csv) {
    for (uint32_t size : chosen.sizes) {
        print_heading(size, chosen);
        for (const named_trace &what : kr_bench::placement_traces) {
            if (std::string_view(what.name).find(chosen.only) != std::string_view::npos &&
                !run_trace(what, size, chosen, csv)) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    const options chosen = parse(argc, argv);
    std::FILE *const csv = chosen.csv.empty() ? nullptr : std::fopen(chosen.csv.c_str(), "w");
    if (!chosen.csv.empty() && csv == nullptr) {
        std::fprintf(stderr, "placement_bench: cannot write %s\n", chosen.csv.c_str());
        return 1;
    }
    if (csv != nullptr) {
        std::fprintf(csv, "slots,placement,trace,occupancy,rules moved per add\n");
    }
    const bool good = run_all(chosen, csv);
    const bool written = csv == nullptr || std::fclose(csv) == 0;
    return good && written ? 0 : 1;
}
