/*
 * Formatting and filtering of the daemon's log. A line is put together in a buffer and written with one call, so that
 * lines of several threads do not mix.
 */
#include "log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace agent {
namespace {

constexpr size_t line_size = 1024;

struct log_state {
    std::atomic<log_level> least_severe;
};
constinit log_state g{log_level::notice};

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

void log_from_library(uint32_t severity, const char *module, const char *text) {
    const log_level level = severity <= 1    ? log_level::error
                            : severity <= 3  ? log_level::warning
                            : severity <= 15 ? log_level::notice
                                             : log_level::debug;
    if (silence_depth == 0 && log_passes(level)) {
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
