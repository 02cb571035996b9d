/*
 * The connector's own messages. They go to the log callback that the client gave the library, if it gave one, and to
 * the connector's own sink otherwise, under the module name "CONNECTOR".
 */
#ifndef KR_CONNECTOR_LOG_H
#define KR_CONNECTOR_LOG_H

#include <cstdint>
#include <string>

#include "kr_log.h"

namespace kr_connector {

void connector_log_to(kr_log_callback callback) noexcept; // NULL: the sink

void log_message(uint32_t severity, const std::string &text) noexcept;

inline void log_error(const std::string &text) noexcept {
    log_message(KR_LOG_ERROR, text);
}
inline void log_warning(const std::string &text) noexcept {
    log_message(KR_LOG_WARNING, text);
}
inline void log_notice(const std::string &text) noexcept {
    log_message(KR_LOG_NOTICE, text);
}

} // namespace kr_connector

#endif
