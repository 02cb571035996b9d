/*
 * The child tells how far it got and how it ended in a shared page; the parent waits as long as there is progress.
 */
#include "tests/model/replay.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "tests/model/driver.h"
#include "tests/model/platform_spies.h"
#include "tests/support/leaks.h"

extern "C" __attribute__((weak)) void __gcov_dump();

// The thread sanitizer asks. The thread of control frames may have ended and never be joined, when a stop fails; and a
// child has nothing to wait for at its end.
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options();
const char *__tsan_default_options() {
    return "report_thread_leaks=0:atexit_sleep_ms=0";
}

namespace kr_model {
namespace {

constexpr uint32_t replay_budget = 3000;

struct shared_page {
    uint32_t step_index; // being run
    bool differs;
    char what[512];
    op_statistics statistics[static_cast<size_t>(op::count)];
    uint32_t most_places, most_counters;
};

shared_page &page() {
    static auto *const instance = static_cast<shared_page *>(
        mmap(nullptr, sizeof(shared_page), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return *instance;
}

void redirect(int fd, int flags) {
    const int null = open("/dev/null", flags);
    dup2(null, fd);
    ::close(null);
}

[[noreturn]] void child_main(const std::vector<step> &steps, bool verbose) {
    redirect(STDIN_FILENO, O_RDWR); // a write that goes astray to descriptor 0 succeeds, and is noticed
    if (!verbose) {
        redirect(STDERR_FILENO, O_WRONLY);
    }
    shared_page &shared = page();
    try {
        driver both;
        for (uint32_t i = 0; i < steps.size(); i++) {
            shared.step_index = i;
            op_statistics &statistics = shared.statistics[static_cast<size_t>(steps[i].what)];
            if (!both.run(steps[i])) {
                statistics.left_out++;
                continue;
            }
            statistics.run++;
            statistics.ended_with[std::min(both.last_status, status_count - 1)]++;
            statistics.faults += both.fault_came_due ? 1 : 0;
            statistics.system_faults += both.fault_came_due && is_system_call(steps[i].fault.function) ? 1 : 0;
            shared.most_places = std::max(shared.most_places, both.place_count());
            shared.most_counters = std::max(shared.most_counters, both.flow_counters_used());
        }
        both.compare_all();
    } catch (const mismatch &difference) {
        shared.differs = true;
        strncpy(shared.what, difference.what(), sizeof shared.what - 1);
    }
    if (!shared.differs && kr_test::has_leaked()) {
        shared.differs = true;
        strncpy(shared.what, "memory is lost", sizeof shared.what - 1);
    }
    if (__gcov_dump != nullptr) {
        __gcov_dump();
    }
    _exit(0); // threads of the library may still be running
}

// True when the child has ended by itself.
bool wait_for_end(int end_of_child, int no_progress_ms) {
    for (;;) {
        const uint32_t step_before = page().step_index;
        pollfd waited = {.fd = end_of_child, .events = POLLIN, .revents = 0};
        if (poll(&waited, 1, no_progress_ms) != 0) {
            return true;
        }
        if (page().step_index == step_before) {
            return false;
        }
    }
}

} // namespace

const op_statistics &statistics_of(op what) {
    return page().statistics[static_cast<size_t>(what)];
}

uint32_t most_places() {
    return page().most_places;
}
uint32_t most_counters() {
    return page().most_counters;
}

outcome replay(const std::vector<step> &steps, bool verbose, int no_progress_ms) {
    shared_page &shared = page();
    shared.step_index = 0;
    shared.differs = false;
    memset(shared.what, 0, sizeof shared.what);
    int end_of_child[2];
    if (pipe2(end_of_child, O_CLOEXEC) != 0) {
        return {false, 0, "no pipe"};
    }
    const pid_t child = fork();
    if (child == 0) {
        ::close(end_of_child[0]);
        child_main(steps, verbose);
    }
    ::close(end_of_child[1]);
    const bool ended = wait_for_end(end_of_child[0], no_progress_ms);
    ::close(end_of_child[0]);
    if (!ended) {
        kill(child, SIGKILL);
    }
    int wait_status = 0;
    waitpid(child, &wait_status, 0);
    outcome result{true, shared.step_index, ""};
    if (!ended) {
        result = {false, shared.step_index, "hangs", true};
    } else if (shared.differs) {
        result = {false, shared.step_index, shared.what};
    } else if (WIFSIGNALED(wait_status)) {
        result = {false, shared.step_index, std::string("crashes: ") + strsignal(WTERMSIG(wait_status))};
    } else if (WEXITSTATUS(wait_status) != 0) {
        result = {false, shared.step_index, "ends with status " + std::to_string(WEXITSTATUS(wait_status))};
    }
    return result;
}

/* ---- shrinking ------------------------------------------------------------------------------------------------- */

namespace {

class shrinker {
  public:
    shrinker(std::vector<step> steps, const outcome &first)
        : steps_(std::move(steps)), first_(first), left_(first.hangs ? replay_budget / 20 : replay_budget) {}

    std::vector<step> run() {
        truncate();
        size_t size_before;
        do {
            size_before = weight();
            remove_blocks();
            simplify_steps();
        } while (weight() < size_before && left_ > 0);
        return steps_;
    }

  private:
    size_t weight() const {
        size_t sum = 0;
        for (const step &s : steps_) {
            sum += 1 + s.flows.size() + s.ids.size() + (s.fault.function.empty() ? 0 : 1);
        }
        return sum;
    }

    bool still_fails(const std::vector<step> &candidate) {
        if (left_ == 0) {
            return false;
        }
        left_--;
        const outcome result = replay(candidate, false, short_patience_ms);
        return !result.agrees && result.hangs == first_.hangs;
    }

    bool take(std::vector<step> candidate) {
        if (!still_fails(candidate)) {
            return false;
        }
        steps_ = std::move(candidate);
        return true;
    }

    // What comes behind the step that differs is not needed.
    void truncate() {
        std::vector<step> candidate(steps_.begin(),
                                    steps_.begin() + std::min<ptrdiff_t>(first_.step_index + 1, std::ssize(steps_)));
        (void)take(candidate);
    }

    void remove_blocks() {
        for (size_t size = std::max<size_t>(steps_.size() / 2, 1); size > 0; size /= 2) {
            for (size_t end = steps_.size(); end > 0 && left_ > 0; end -= std::min(end, size)) {
                const size_t begin = end - std::min(end, size);
                if (begin >= steps_.size()) {
                    continue;
                }
                std::vector<step> candidate = steps_;
                candidate.erase(candidate.begin() + static_cast<ptrdiff_t>(begin),
                                candidate.begin() + static_cast<ptrdiff_t>(std::min(end, candidate.size())));
                (void)take(candidate);
            }
        }
    }

    template <typename Change> void try_change(size_t index, Change change) {
        std::vector<step> candidate = steps_;
        change(&candidate[index]);
        (void)take(candidate);
    }

    template <typename List> void shorten_list(size_t index, List step::*list) {
        for (size_t item = (steps_[index].*list).size(); item-- > 0 && left_ > 0;) {
            if (item < (steps_[index].*list).size()) {
                try_change(index,
                           [=](step *s) { (s->*list).erase((s->*list).begin() + static_cast<ptrdiff_t>(item)); });
            }
        }
    }

    void simplify_steps() {
        for (size_t i = 0; i < steps_.size() && left_ > 0; i++) {
            if (!steps_[i].fault.function.empty()) {
                try_change(i, [](step *s) { s->fault = {}; });
            }
            shorten_list(i, &step::flows);
            shorten_list(i, &step::ids);
            for (size_t flow = 0; flow < steps_[i].flows.size(); flow++) {
                try_change(i, [=](step *s) { // id, priority and action alone
                    const flow_record whole = s->flows[flow];
                    s->flows[flow] = {};
                    s->flows[flow].flow_id = whole.flow_id;
                    s->flows[flow].priority = whole.priority;
                    s->flows[flow].action = whole.action;
                    s->flows[flow].out_port = whole.out_port;
                    s->flows[flow].mc_group_id = whole.mc_group_id;
                });
            }
        }
    }

    std::vector<step> steps_;
    const outcome first_;
    uint32_t left_;
};

} // namespace

std::vector<step> shrink(const std::vector<step> &steps, const outcome &first) {
    return shrinker(steps, first).run();
}

void expect_agreement(const std::vector<step> &steps) {
    const outcome result = replay(steps, true);
    EXPECT_TRUE(result.agrees) << "step " << result.step_index << ", "
                               << (result.step_index < steps.size() ? to_source(steps[result.step_index]) : "") << ": "
                               << result.what;
}

} // namespace kr_model
