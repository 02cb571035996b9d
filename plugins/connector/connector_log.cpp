/* Chooses where the connector's own messages go. */
#include "connector_log.h"

#include <atomic>

#include "log_sink.h"

namespace kr_connector {
namespace {

constexpr const char *log_module = "CONNECTOR";

struct log_state {
    std::atomic<kr_log_callback> callback{nullptr};
};
constinit log_state g{};

} // namespace

void connector_log_to(kr_log_callback callback) noexcept {
    g.callback.store(callback, std::memory_order_release);
}

void log_message(uint32_t severity, const std::string &text) noexcept {
    const kr_log_callback callback = g.callback.load(std::memory_order_acquire);
    if (callback == nullptr) {
        log_sink_write(severity, log_module, text.c_str());
    } else if (log_sink_passes(severity)) {
        callback(severity, log_module, text.c_str());
    }
}

} // namespace kr_connector
