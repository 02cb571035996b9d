/*
 * Writes log lines: "krsdnhal: SEVERITY: MODULE: text". A line goes out in one write unless it is longer than the
 * buffer on the stack; a lock keeps lines whole in either case. Nothing is allocated.
 */
#include "log_sink.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

namespace kr_connector {
namespace {

struct sink_state {
    std::atomic<log_target> target{log_target::standard_error};
    std::atomic<uint32_t> severity{KR_LOG_NOTICE};
    std::mutex line; // held while one line is written
};

constinit sink_state g{};

struct severity_row {
    uint32_t mask;
    const char *name;
    int syslog_priority;
};
constexpr severity_row severity_rows[] = {{KR_LOG_ERROR, "error", LOG_ERR},
                                          {KR_LOG_WARNING, "warning", LOG_WARNING},
                                          {KR_LOG_NOTICE, "notice", LOG_NOTICE},
                                          {KR_LOG_DEBUG, "debug", LOG_DEBUG},
                                          {KR_LOG_FUNCTION, "trace", LOG_DEBUG}};

const severity_row &row_of(uint32_t severity) {
    for (const auto &row : severity_rows) {
        if (severity <= row.mask) {
            return row;
        }
    }
    return severity_rows[std::size(severity_rows) - 1];
}

// Collects one line and writes it to standard error. Line breaks inside become blanks; one at the end is dropped.
class line_writer {
  public:
    void put(const char *text) {
        for (; *text != '\0'; ++text) {
            const auto c = static_cast<unsigned char>(*text);
            put_char(c < ' ' || c == 0x7f ? ' ' : *text);
        }
    }
    void end() {
        while (size_ > 0 && buffer_[size_ - 1] == ' ') {
            --size_;
        }
        put_char('\n');
        flush();
    }

  private:
    void put_char(char c) {
        if (size_ == sizeof(buffer_)) {
            flush();
        }
        buffer_[size_++] = c;
    }
    void flush() {
        size_t written = 0;
        while (written < size_) {
            const ssize_t n = ::write(STDERR_FILENO, buffer_ + written, size_ - written);
            if (n > 0) {
                written += static_cast<size_t>(n);
            } else if (errno != EINTR) {
                break; // standard error is gone or full: there is nobody left to tell
            }
        }
        size_ = 0;
    }

    char buffer_[2048];
    size_t size_ = 0;
};

} // namespace

void log_sink_configure(const log_settings &settings) noexcept {
    g.target.store(settings.target, std::memory_order_relaxed);
    g.severity.store(settings.severity, std::memory_order_relaxed);
}

bool log_sink_passes(uint32_t severity) noexcept {
    return severity <= g.severity.load(std::memory_order_relaxed);
}

void log_sink_write(uint32_t severity, const char *module, const char *text) noexcept {
    const log_target target = g.target.load(std::memory_order_relaxed);
    if (target == log_target::none || !log_sink_passes(severity)) {
        return;
    }
    const int saved_errno = errno;
    const severity_row &row = row_of(severity);
    module = module == nullptr ? "" : module;
    text = text == nullptr ? "" : text;
    if (target == log_target::syslog) {
        ::syslog(LOG_DAEMON | row.syslog_priority, "%s: %s", module, text);
    } else {
        const std::lock_guard guard(g.line);
        line_writer line;
        for (const char *piece : {"krsdnhal: ", row.name, ": ", module, ": ", text}) {
            line.put(piece);
        }
        line.end();
    }
    errno = saved_errno;
}

} // namespace kr_connector
