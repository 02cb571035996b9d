/*
 * Formatting and filtering of the daemon's log. A line is put together in a buffer and written with one call, so that
 * lines of several threads do not mix.
 */
#include "log.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include <unistd.h>

#include "kr_sdn_hal.h"

namespace agent {
namespace {

constexpr size_t line_size = 1024;

// Levels as people say them, and what they are for the daemon and for the library.
struct named_level {
    const char *name;
    log_level level;
    int32_t verbosity;
};
constexpr named_level named_levels[] = {{"error", log_level::error, 1},
                                        {"warning", log_level::warning, 3},
                                        {"notice", log_level::notice, 4},
                                        {"debug", log_level::debug, 5},
                                        {"trace", log_level::debug, 6}};
constexpr const char *own_module = "agent";

struct library_module {
    const char *name;
    int32_t *verbosity;
};
constexpr library_module library_modules[] = {
    {"HAL_API", &kr_HAL_API_verb_level},           {"HAL_EVENTS_API", &kr_HAL_EVENTS_API_verb_level},
    {"HAL_API_PORT", &kr_HAL_API_PORT_verb_level}, {"FPT", &kr_FPT_verb_level},
    {"HAL_GEN", &kr_HAL_GEN_verb_level},           {"HAL_PORT", &kr_HAL_PORT_verb_level},
    {"FLOWS_DB", &kr_FLOWS_DB_verb_level},         {"HAL_UTILS", &kr_HAL_UTILS_verb_level},
};

struct log_state {
    std::atomic<log_level> least_severe;
    std::atomic<log_level> heard[std::size(library_modules)]; // of modules that were given a level; else error
};
constinit log_state g{log_level::notice, {}};

thread_local unsigned silence_depth = 0;

const char *name_of(log_level level) {
    switch (level) {
    case log_level::error:
        return "error";
    case log_level::warning:
        return "warning";
    case log_level::notice:
        return "notice";
    case log_level::debug:
        break;
    }
    return "debug";
}

void write_line(log_level level, const char *module, const char *text) {
    char line[line_size];
    int size = std::snprintf(line, sizeof line - 1, "krsdn-ofagentd: %s: %s%s%s", name_of(level), module,
                             *module != '\0' ? ": " : "", text);
    if (size < 0) {
        return;
    }
    auto length = static_cast<size_t>(size) < sizeof line - 1 ? static_cast<size_t>(size) : sizeof line - 2;
    while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == ' ')) {
        length--;
    }
    line[length++] = '\n';
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, length); // nowhere to tell if it fails
}

} // namespace

void log_level_set(log_level least_severe) noexcept {
    g.least_severe.store(least_severe, std::memory_order_relaxed);
}

bool log_passes(log_level level) noexcept {
    return level <= g.least_severe.load(std::memory_order_relaxed);
}

void log(log_level level, const char *format, ...) noexcept {
    if (!log_passes(level)) {
        return;
    }
    char text[line_size];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    write_line(level, "", text);
}

bool log_budget::take() noexcept {
    constexpr nanoseconds most = 20;
    const nanoseconds now = clock_now();
    const nanoseconds seconds = (now - refilled_) / second_ns;
    refilled_ += seconds * second_ns;
    left_ = static_cast<unsigned>(std::min(left_ + seconds, most));
    if (left_ == 0) {
        skipped_++;
        return false;
    }
    left_--;
    if (skipped_ > 0) {
        log(log_level::notice, "%llu lines like the next one were left out",
            static_cast<unsigned long long>(std::exchange(skipped_, 0)));
    }
    return true;
}

std::vector<log_module> log_modules() {
    const auto name_of_verbosity = [](int32_t verbosity) {
        const char *name = "none";
        for (const named_level &one : named_levels) {
            name = verbosity >= one.verbosity ? one.name : name;
        }
        return name;
    };
    std::vector<log_module> all = {{own_module, name_of(g.least_severe.load(std::memory_order_relaxed))}};
    for (const library_module &one : library_modules) {
        all.push_back({one.name, name_of_verbosity(std::atomic_ref(*one.verbosity).load(std::memory_order_relaxed))});
    }
    return all;
}

bool log_module_set(const std::string &module, const std::string &level, std::string *why) {
    const auto *const wanted = std::find_if(std::begin(named_levels), std::end(named_levels),
                                            [&](const named_level &one) { return level == one.name; });
    if (wanted == std::end(named_levels)) {
        *why = "\"" + level + "\" is none of error, warning, notice, debug and trace";
        return false;
    }
    if (module == own_module) {
        log_level_set(wanted->level);
        return true;
    }
    const auto *const found = std::find_if(std::begin(library_modules), std::end(library_modules),
                                           [&](const library_module &one) { return module == one.name; });
    if (found == std::end(library_modules)) {
        *why = "there is no module \"" + module + "\"";
        return false;
    }
    std::atomic_ref(*found->verbosity).store(wanted->verbosity, std::memory_order_relaxed);
    g.heard[found - library_modules].store(wanted->level, std::memory_order_relaxed);
    return true;
}

namespace {

bool is_heard(log_level level, const char *module) {
    for (size_t i = 0; i < std::size(library_modules); i++) {
        if (std::strcmp(module, library_modules[i].name) == 0) {
            return level <= g.heard[i].load(std::memory_order_relaxed);
        }
    }
    return false;
}

} // namespace

void log_from_library(uint32_t severity, const char *module, const char *text) {
    const log_level level = severity <= 1    ? log_level::error
                            : severity <= 3  ? log_level::warning
                            : severity <= 15 ? log_level::notice
                                             : log_level::debug;
    if (silence_depth == 0 && (log_passes(level) || is_heard(level, module))) {
        write_line(level, module, text);
    }
}

log_silence::log_silence() noexcept {
    silence_depth++;
}

log_silence::~log_silence() {
    silence_depth--;
}

} // namespace agent
