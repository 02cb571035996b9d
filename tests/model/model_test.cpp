/*
 * Random sequences on the library and its model, side by side.
 *
 *   model_test [--steps=N] [--length=N] [--seed=N] [--sequence=N]
 *
 * --steps: that are run in all, in sequences of --length; --seed (or KR_TEST_SEED): of the whole run; --sequence: only
 * the sequence of this seed, as a failure names it. A sequence that fails is shortened and printed as a test.
 */
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "tests/model/generator.h"
#include "tests/model/replay.h"
#include "tests/support/test_seed.h"

namespace {

using namespace kr_model;

struct options {
    uint64_t step_count = KR_MODEL_STEPS;
    uint32_t sequence_length = 500;
    uint64_t seed = kr_test::test_seed();
    uint64_t only_sequence = 0;
};
options chosen;

uint64_t sequence_seed(uint64_t number) {
    return chosen.only_sequence != 0 ? chosen.only_sequence : chosen.seed * 1'000'003 + number + 1;
}

void report_failure(uint64_t seed, const std::vector<step> &steps, const outcome &first) {
    printf("sequence %" PRIu64 " (run it alone: --sequence=%" PRIu64 " --length=%u) differs at step %u: %s\n", seed,
           seed, chosen.sequence_length, first.step_index, first.what.c_str());
    const std::vector<step> shortest = shrink(steps, first);
    const outcome last = replay(shortest, true, first.hangs ? short_patience_ms : patience_ms);
    printf("shortened from %zu steps to %zu: %s\n\n%s\n", steps.size(), shortest.size(), last.what.c_str(),
           to_test(shortest, "sequence_" + std::to_string(seed)).c_str());
}

uint64_t steps_run() {
    uint64_t count = 0;
    for (size_t i = 0; i < static_cast<size_t>(op::count); i++) {
        count += statistics_of(static_cast<op>(i)).run;
    }
    return count;
}

void print_statistics() {
    uint64_t fault_count = 0;
    uint64_t system_fault_count = 0;
    for (size_t i = 0; i < static_cast<size_t>(op::count); i++) {
        fault_count += statistics_of(static_cast<op>(i)).faults;
        system_fault_count += statistics_of(static_cast<op>(i)).system_faults;
    }
    printf("%" PRIu64 " steps agree, %" PRIu64 " of them with a fault, %" PRIu64 " of those of the operating system\n",
           steps_run(), fault_count, system_fault_count);
    printf("at most %u places and %u counters at a time\n", most_places(), most_counters());
    printf("%-18s %9s %9s %9s  %s\n", "operation", "run", "left out", "faults", "status: how often");
    for (size_t i = 0; i < static_cast<size_t>(op::count); i++) {
        const op_statistics &s = statistics_of(static_cast<op>(i));
        printf("%-18s %9" PRIu64 " %9" PRIu64 " %9" PRIu64 " ", op_name(static_cast<op>(i)), s.run, s.left_out,
               s.faults);
        for (uint32_t status = 0; status < status_count; status++) {
            if (s.ended_with[status] != 0) {
                printf(" %u: %" PRIu64, status, s.ended_with[status]);
            }
        }
        printf("\n");
    }
}

TEST(model, agrees_with_the_library) {
    printf("seed %" PRIu64 ", sequences of %u steps\n", chosen.seed, chosen.sequence_length);
    // A step that is left out does not count.
    for (uint64_t i = 0; chosen.only_sequence != 0 ? i == 0 : steps_run() < chosen.step_count; i++) {
        const uint64_t seed = sequence_seed(i);
        const std::vector<step> steps = make_sequence(seed, chosen.sequence_length);
        const outcome result = replay(steps);
        if (i != 0 && i % 2000 == 0) {
            printf("%" PRIu64 " sequences\n", i);
        }
        if (!result.agrees) {
            report_failure(seed, steps, result);
            FAIL() << "step " << result.step_index << ": " << result.what;
        }
    }
    print_statistics();
    if (chosen.step_count < 50'000 || chosen.only_sequence != 0) {
        return;
    }
    // A run that does not reach an operation, or no fault, proves nothing.
    uint64_t fault_count = 0;
    uint64_t system_fault_count = 0;
    for (size_t i = 0; i < static_cast<size_t>(op::count); i++) {
        const op_statistics &statistics = statistics_of(static_cast<op>(i));
        fault_count += statistics.faults;
        system_fault_count += statistics.system_faults;
        EXPECT_GT(statistics.run, 0U) << op_name(static_cast<op>(i));
        if (static_cast<op>(i) != op::srvc_life_cycle && static_cast<op>(i) != op::null_arguments) {
            EXPECT_GT(statistics.ended_with[0], 0U) << op_name(static_cast<op>(i));
        }
    }
    EXPECT_GT(fault_count, chosen.step_count / 200);
    EXPECT_GT(system_fault_count, chosen.step_count / 1000);
    EXPECT_EQ(most_places(), 1000U);
    EXPECT_EQ(most_counters(), 128U);
}

bool option_read(const char *argument, const char *name, uint64_t *value) {
    const size_t length = strlen(name);
    if (strncmp(argument, name, length) != 0) {
        return false;
    }
    *value = strtoull(argument + length, nullptr, 0);
    return true;
}

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; i++) {
        uint64_t length = chosen.sequence_length;
        if (!option_read(argv[i], "--steps=", &chosen.step_count) && !option_read(argv[i], "--length=", &length) &&
            !option_read(argv[i], "--seed=", &chosen.seed) &&
            !option_read(argv[i], "--sequence=", &chosen.only_sequence)) {
            fprintf(stderr, "usage: %s [--steps=N] [--length=N] [--seed=N] [--sequence=N]\n", argv[0]);
            return 2;
        }
        chosen.sequence_length = static_cast<uint32_t>(length > 0 ? length : 1);
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return RUN_ALL_TESTS();
}
