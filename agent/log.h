/*
 * The daemon's log: lines on standard error, one write each, below a level chosen at start. The library's and the
 * platform's messages come through the same door, under their own module names. Knows nothing of its callers.
 */
#ifndef KR_AGENT_LOG_H
#define KR_AGENT_LOG_H

#include <cstdint>
#include <string>
#include <vector>

#include "clock.h"

namespace agent {

enum class log_level : uint8_t { error, warning, notice, debug };

void log_level_set(log_level least_severe) noexcept;
bool log_passes(log_level level) noexcept;

__attribute__((format(printf, 2, 3))) void log(log_level level, const char *format, ...) noexcept;

/* The library's log callback: any thread may call it. */
void log_from_library(uint32_t severity, const char *module, const char *text);

/*
 * The modules of the log: the daemon's own, "agent", and those of the library whose verbosity can be set. A module of
 * the library that was given a level here is heard down to that level, whatever the daemon's own level is.
 */
struct log_module {
    const char *name;
    const char *level; // its name
};
std::vector<log_module> log_modules();
/* False, and why, for a module or a level that does not exist. */
bool log_module_set(const std::string &module, const std::string &level, std::string *why);

/* For lines that others can cause as often as they like: twenty at once, then one per second. The rest is counted, and
 * how many they were is logged with the next one. */
class log_budget {
  public:
    bool take() noexcept; // whether a line may be logged now

  private:
    unsigned left_ = 20;
    uint64_t skipped_ = 0;
    nanoseconds refilled_ = 0;
};

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
