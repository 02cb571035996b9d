/*
 * One run: the stage, the operation under its fault, the rules, the operation once more, the way back. In a process of
 * its own the outcome comes back through a pipe, a field per line.
 */
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "tests/support/leaks.h"
#include "tests/sweep/sweep.h"

namespace kr_test {
namespace {

constexpr unsigned longest_run_s = 30; // a run that takes longer hangs

void fill_calls(const std::vector<call_entry> &entries, bool has_fault, outcome *result) {
    bool has_begun = !has_fault;
    for (const call_entry &entry : entries) {
        if (entry.index >= 0) {
            result->calls.push_back({static_cast<uint32_t>(entry.index), entry.name});
        }
        if (!has_begun && entry.has_failed) {
            has_begun = true;
            result->failed_call = entry.text;
        } else if (has_begun) {
            const std::string index = entry.index >= 0 ? std::to_string(entry.index) : "";
            result->lines.push_back(index + '\t' + entry.text);
        }
    }
}

// The lines of the thread that the operation is about, in order, and behind them what other threads logged.
std::vector<call_entry> by_thread(std::vector<call_entry> entries, caller who) {
    std::stable_partition(entries.begin(), entries.end(), [who](const call_entry &entry) { return entry.who == who; });
    return entries;
}

void run_again(const operation &operation, world &world, const outcome &expected, outcome *result) {
    world.out.clear();
    const uint32_t status = operation.run(world);
    const std::string outputs = world.out.text();
    if (std::to_string(status) != expected.status) {
        result->again_status = std::to_string(status);
    }
    if (outputs != expected.outputs) {
        result->again_outputs = outputs.empty() ? "nothing" : outputs;
    }
    result->again_state = deviations(expected.after, world.observe());
}

} // namespace

outcome run_here(const operation &operation, const fault &fault, const outcome *expected) {
    outcome result;
    const bool has_fault = fault.reach != fault_reach::none;
    world world;
    world.reach(operation.from);
    if (operation.prepare) {
        operation.prepare(world);
    }
    const state before = world.observe();
    kr_test::fault limited = fault;
    limited.limit = operation.limit;
    calls_arm(operation.who, limited);
    world.out.clear();
    result.status = std::to_string(operation.run(world));
    result.outputs = world.out.text();
    world::settle();
    result.failed_count = calls_failed_count();
    fill_calls(by_thread(calls_disarm(), operation.who), has_fault, &result);
    result.changes = difference(before, world.observe());
    result.broken = world.check_rules();
    if (!result.broken.empty()) {
        return result; // with a lock that is held nothing goes on
    }
    result.after = world.observe();
    if (has_fault && expected != nullptr && result.status != expected->status) {
        run_again(operation, world, *expected, &result);
    }
    result.trouble = world.take_down();
    const std::vector<std::string> broken = world.check_rules();
    result.broken.insert(result.broken.end(), broken.begin(), broken.end());
    result.at_end = world.observe();
    if (expected != nullptr) {
        result.left = deviations(expected->at_end, result.at_end);
    }
    world::reap();
    return result;
}

namespace {

void pack(std::string *text, char field, const std::string &value) {
    *text += field + value + '\n';
}
void pack(std::string *text, char field, const std::vector<std::string> &values) {
    for (const std::string &value : values) {
        pack(text, field, value);
    }
}
void pack(std::string *text, char field, const state &values) {
    for (const auto &[name, value] : values) {
        pack(text, field, name + '\t' + value);
    }
}

// Fields by their first letter, one a line.
std::string packed(const outcome &outcome) {
    std::string text;
    for (const failing_call &call : outcome.calls) {
        pack(&text, 'c', std::to_string(call.index) + ' ' + call.name);
    }
    pack(&text, 'n', std::to_string(outcome.failed_count));
    pack(&text, 'f', outcome.failed_call);
    pack(&text, 'l', outcome.lines);
    pack(&text, 's', outcome.status);
    pack(&text, 'd', outcome.changes);
    pack(&text, 'o', outcome.outputs);
    pack(&text, 'g', outcome.again_status);
    pack(&text, 'p', outcome.again_outputs);
    pack(&text, 'a', outcome.again_state);
    pack(&text, 't', outcome.trouble);
    pack(&text, 'r', outcome.left);
    pack(&text, 'A', outcome.after);
    pack(&text, 'E', outcome.at_end);
    pack(&text, 'b', outcome.broken);
    return text + "e\n";
}

void unpack(char field, const std::string &text, outcome *outcome) {
    const size_t tab = text.find('\t');
    switch (field) {
    case 'c':
        outcome->calls.push_back({static_cast<uint32_t>(std::stoul(text)), text.substr(text.find(' ') + 1)});
        break;
    case 'n':
        outcome->failed_count = static_cast<uint32_t>(std::stoul(text));
        break;
    case 'f':
        outcome->failed_call = text;
        break;
    case 'l':
        outcome->lines.push_back(text);
        break;
    case 's':
        outcome->status = text;
        break;
    case 'd':
        outcome->changes = text;
        break;
    case 'o':
        outcome->outputs = text;
        break;
    case 'p':
        outcome->again_outputs = text;
        break;
    case 'g':
        outcome->again_status = text;
        break;
    case 'a':
        outcome->again_state.push_back(text);
        break;
    case 't':
        outcome->trouble.push_back(text);
        break;
    case 'r':
        outcome->left.push_back(text);
        break;
    case 'A':
        outcome->after.emplace_back(text.substr(0, tab), text.substr(tab + 1));
        break;
    case 'E':
        outcome->at_end.emplace_back(text.substr(0, tab), text.substr(tab + 1));
        break;
    case 'b':
        outcome->broken.push_back(text);
        break;
    default:
        break;
    }
}

std::string read_all(int fd) {
    std::string text;
    char bytes[4096];
    for (ssize_t size = read(fd, bytes, sizeof bytes); size > 0; size = read(fd, bytes, sizeof bytes)) {
        text.append(bytes, static_cast<size_t>(size));
    }
    return text;
}

void write_all(int fd, const std::string &text) {
    for (size_t written = 0; written < text.size();) {
        const ssize_t size = write(fd, text.data() + written, text.size() - written);
        if (size <= 0) {
            return;
        }
        written += static_cast<size_t>(size);
    }
}

outcome outcome_of(const std::string &text, int end) {
    outcome result;
    for (size_t begin = 0; begin < text.size();) {
        const size_t newline = std::min(text.find('\n', begin), text.size());
        unpack(text[begin], text.substr(begin + 1, newline - begin - 1), &result);
        begin = newline + 1;
    }
    if (!text.ends_with("e\n") || end != 0) {
        result.has_ended = false;
        result.broken.push_back(WIFSIGNALED(end) && WTERMSIG(end) == SIGALRM ? "it hangs"
                                : WIFSIGNALED(end) ? "it ends with signal " + std::to_string(WTERMSIG(end))
                                                   : "it ends with " + std::to_string(WEXITSTATUS(end)));
    }
    return result;
}

} // namespace

#ifdef KR_COVERAGE
extern "C" void __gcov_dump(void); // a process that ends with _exit has to write its counts itself
#endif

outcome run_in_a_process(const operation &operation, const fault &fault, const outcome *expected) {
    int ends[2];
    if (pipe(ends) != 0) {
        abort();
    }
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        alarm(longest_run_s);
        outcome of = run_here(operation, fault, expected);
        if (has_leaked()) {
            of.broken.emplace_back("memory is lost");
        }
        write_all(ends[1], packed(of));
#ifdef KR_COVERAGE
        __gcov_dump();
#endif
        _exit(0);
    }
    close(ends[1]);
    const std::string text = read_all(ends[0]);
    close(ends[0]);
    int end = 0;
    waitpid(child, &end, 0);
    return outcome_of(text, end);
}

} // namespace kr_test
