/*
 * The fake connector's entry points. FAKE_WITHOUT_<symbol> leaves that symbol out.
 */
#include "fake_connector.h"

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED fake_connector_control fake_connector;
fake_connector_control fake_connector{};

namespace {

// The status is read after the call was recorded: who records it may choose it then.
uint32_t called(const char *name, const uint32_t &status) {
    if (fake_connector.record != nullptr) {
        fake_connector.record(name);
    }
    return status;
}

} // namespace

#ifndef FAKE_WITHOUT_conn_init
uint32_t conn_init(kr_log_callback log_callback) {
    fake_connector.init_log_callback = log_callback;
    return called("conn_init", fake_connector.init_status);
}
#endif
#ifndef FAKE_WITHOUT_conn_init_done_hal
uint32_t conn_init_done_hal(void) {
    return called("conn_init_done_hal", fake_connector.init_done_hal_status);
}
#endif
#ifndef FAKE_WITHOUT_conn_init_done_shim
uint32_t conn_init_done_shim(void) {
    return called("conn_init_done_shim", fake_connector.init_done_shim_status);
}
#endif
#ifndef FAKE_WITHOUT_conn_deinit
uint32_t conn_deinit(void) {
    return called("conn_deinit", fake_connector.deinit_status);
}
#endif
#ifndef FAKE_WITHOUT_conn_config_callback_register
uint32_t conn_config_callback_register(conn_config_callback callback) {
    fake_connector.config_callback = callback;
    return called("conn_config_callback_register", fake_connector.config_register_status);
}
#endif
#ifndef FAKE_WITHOUT_conn_event_callback_register
uint32_t conn_event_callback_register(conn_event_callback callback, uint32_t event_mask) {
    fake_connector.event_callback = callback;
    fake_connector.event_mask = event_mask;
    return called("conn_event_callback_register", fake_connector.event_register_status);
}
#endif
#ifndef FAKE_WITHOUT_conn_config_params_get
uint32_t conn_config_params_get(void) {
    return called("conn_config_params_get", 0);
}
#endif
#ifndef FAKE_WITHOUT_conn_log
void conn_log(uint32_t severity, const char *module, const char *text) {
    if (fake_connector.log != nullptr) {
        fake_connector.log(severity, module, text);
    }
}
#endif
