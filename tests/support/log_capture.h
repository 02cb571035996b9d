/*
 * Captures what the platform's logger delivers, so that a test can compare exact lines.
 */
#ifndef KR_TESTS_LOG_CAPTURE_H
#define KR_TESTS_LOG_CAPTURE_H

#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "kr_log.h"

namespace kr_test {

struct log_line {
    uint32_t severity;
    std::string module;
    std::string text; // with its newline

    bool operator==(const log_line &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const log_line &line) {
    return out << '{' << line.severity << ", \"" << line.module << "\", \"" << line.text << "\"}";
}

// While one lives, it is the logger's callback; log_capture::callback may also be given to the library itself.
class log_capture {
  public:
    log_capture() {
        current() = this;
        (void)kr_log_init(1, nullptr, callback);
    }
    ~log_capture() {
        (void)kr_log_close();
        const std::lock_guard guard(current_mutex());
        current() = nullptr;
    }
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    // The lines since the last take.
    std::vector<log_line> take() {
        const std::lock_guard guard(mutex_);
        return std::exchange(lines_, {});
    }

    static void callback(uint32_t severity, const char *module, const char *text) {
        const std::lock_guard guard(current_mutex());
        if (current() != nullptr) {
            const std::lock_guard lines_guard(current()->mutex_);
            current()->lines_.push_back({severity, module, text});
        }
    }

  private:
    static log_capture *&current() {
        static log_capture *instance = nullptr;
        return instance;
    }
    static std::mutex &current_mutex() {
        static std::mutex mutex;
        return mutex;
    }

    std::mutex mutex_;
    std::vector<log_line> lines_;
};

} // namespace kr_test

#endif
