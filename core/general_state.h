/*
 * What the files of the general module share: its state, and the calls that they make to each other. Nobody outside
 * the module includes it; general.h is the module's face.
 */
#ifndef KR_CORE_GENERAL_STATE_H
#define KR_CORE_GENERAL_STATE_H

#include <cstdint>

#include "core/general.h"
#include "kr_complib.h"
#include "kr_connector.h"
#include "kr_host_ifc.h"

namespace kr::general {

// The connector's entry points, in the order in which they are resolved.
#define KR_CONNECTOR_SYMBOLS(X)                                                                                        \
    X(conn_init)                                                                                                       \
    X(conn_init_done_hal)                                                                                              \
    X(conn_init_done_shim)                                                                                             \
    X(conn_deinit)                                                                                                     \
    X(conn_config_callback_register)                                                                                   \
    X(conn_event_callback_register)                                                                                    \
    X(conn_config_params_get) /* never called */                                                                       \
    X(conn_log)

// All null until a connector is loaded, none of them null from then on.
struct connector_entries {
#define X(name) decltype(&::name) name;
    KR_CONNECTOR_SYMBOLS(X)
#undef X
};

// No lock: the client calls the life cycle functions one at a time, the connector delivers one event at a time.
struct module_state {
    uint32_t initialized;        // 1 from the end of a successful init, for ever
    uint32_t started;            // 1 between a successful start event and a successful stop event
    capabilities stored;         // written by the client and by the start event
    void *connector_library;     // never closed
    connector_entries connector; // published by `initialized` to the threads that log
    cl_event_t port_disable_event;

    // From start to stop.
    kr_user_channel user_channel; // the library's own host-interface descriptor, and the channel type around it
    int stop_pipe[2];             // read end, write end
    cl_thread_t control_frames_thread;
};

extern constinit module_state g;

/* Loads the connector and calls its conn_init. ERROR after a message to standard error; nothing is kept then. */
kr_sdn_hal_status connector_load(const system_profile *profile, kr_log_callback log_callback);

/* Registers the two callbacks. What the connector returned, from the first that failed. */
kr_sdn_hal_status connector_register();

/* conn_deinit of the connector; NOT_INITIALIZED when none was ever loaded. */
kr_sdn_hal_status connector_deinit();

/*
 * Opens and closes everything that needs the switch. A start that fails has taken back what it did; a stop is refused
 * with RESOURCE_IN_USE while ports exist. Neither touches `started`.
 */
kr_sdn_hal_status __general_event_start();
kr_sdn_hal_status __general_event_stop();

/* The body of the control-frame thread. */
void __control_frames_thread(void *context);

} // namespace kr::general

#endif
