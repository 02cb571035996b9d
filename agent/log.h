/*
 * The daemon's log: lines on standard error, one write each, below a level chosen at start. The library's and the
 * platform's messages come through the same door, under their own module names. Knows nothing of its callers.
 */
#ifndef KR_AGENT_LOG_H
#define KR_AGENT_LOG_H

#include <cstdint>

namespace agent {

enum class log_level : uint8_t { error, warning, notice, debug };

void log_level_set(log_level least_severe) noexcept;
bool log_passes(log_level level) noexcept;

__attribute__((format(printf, 2, 3))) void log(log_level level, const char *format, ...) noexcept;

/* The library's log callback: any thread may call it. */
void log_from_library(uint32_t severity, const char *module, const char *text);

/* While one of these lives, what the library says on this thread is not logged: for questions that may be refused. */
class log_silence {
  public:
    log_silence() noexcept;
    ~log_silence();
    log_silence(const log_silence &) = delete;
    log_silence &operator=(const log_silence &) = delete;
};

} // namespace agent

#endif
