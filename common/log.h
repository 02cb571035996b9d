/*
 * Logging: each source file names its module once, and every text stands whole where it happens.
 *
 * A message is logged when the module's verbosity is at least the message's level. The arguments are not evaluated
 * otherwise. The macros add the newline; those of level 5 and above also the prefix of file, line and function.
 */
#ifndef KR_COMMON_LOG_H
#define KR_COMMON_LOG_H

#include <atomic>
#include <bit>
#include <cstdint>
#include <string_view>

#include "kr_log.h"

namespace kr {

struct log_module {
    const char *name;
    int32_t *verbosity; // may be changed by the client at any time
};

// The level of a severity mask: the position of the lowest set bit of mask + 1.
constexpr int32_t log_level(uint32_t severity) {
    return std::countr_zero(severity + 1);
}

static_assert(log_level(KR_LOG_ERROR) == 1 && log_level(KR_LOG_WARNING) == 2 && log_level(KR_LOG_NOTICE) == 4);
static_assert(log_level(KR_LOG_DEBUG) == 5 && log_level(KR_LOG_FUNCTION) == 6);

inline bool log_enabled(const log_module &module, uint32_t severity) {
    return std::atomic_ref(*module.verbosity).load(std::memory_order_relaxed) >= log_level(severity);
}

// The file name without its folders.
constexpr const char *log_file_name(const char *path) {
    const std::string_view text(path);
    const auto slash = text.rfind('/');
    return slash == std::string_view::npos ? path : path + slash + 1;
}

} // namespace kr

// Once per source file, at namespace scope.
#define KR_LOG_MODULE(name, verbosity)                                                                                 \
    namespace {                                                                                                        \
    constexpr kr::log_module log_module_here{name, &(verbosity)};                                                      \
    }                                                                                                                  \
    static_assert(true)

#define KR_LOG_PLAIN(severity, format, ...)                                                                            \
    do {                                                                                                               \
        if (kr::log_enabled(log_module_here, severity)) {                                                              \
            kr_log(severity, log_module_here.name, format "\n" __VA_OPT__(, ) __VA_ARGS__);                            \
        }                                                                                                              \
    } while (0)

#define KR_LOG_PREFIXED(severity, format, ...)                                                                         \
    KR_LOG_PLAIN(severity, "%s[%d]- %s: " format, kr::log_file_name(__FILE__), __LINE__,                               \
                 __func__ __VA_OPT__(, ) __VA_ARGS__)

#define HAL_ERROR(...) KR_LOG_PLAIN(KR_LOG_ERROR, __VA_ARGS__)
#define HAL_WARNING(...) KR_LOG_PLAIN(KR_LOG_WARNING, __VA_ARGS__)
#define HAL_NOTICE(...) KR_LOG_PLAIN(KR_LOG_NOTICE, __VA_ARGS__)
#define HAL_DEBUG(...) KR_LOG_PREFIXED(KR_LOG_DEBUG, __VA_ARGS__)
#define HAL_TRACE(...) KR_LOG_PREFIXED(KR_LOG_FUNCTION, __VA_ARGS__)

#endif
