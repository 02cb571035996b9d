/*
 * Where conn_log writes: standard error or syslog, whole lines, from any thread, filtered by severity. It does not
 * format messages and knows nothing of the logger that calls it.
 */
#ifndef KR_CONNECTOR_LOG_SINK_H
#define KR_CONNECTOR_LOG_SINK_H

#include <cstdint>

#include "connector_config.h"

namespace kr_connector {

void log_sink_configure(const log_settings &settings) noexcept;
void log_sink_write(uint32_t severity, const char *module, const char *text) noexcept;

// Whether a message of this severity passes the filter.
bool log_sink_passes(uint32_t severity) noexcept;

} // namespace kr_connector

#endif
