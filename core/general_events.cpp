/*
 * What the connector tells the library: start, stop, ports added and removed, control forwarding, configuration.
 *
 * Start is a table of steps that opens everything that needs the switch; stop closes it again. Both callbacks run on
 * the connector's thread, one at a time. Events for clients leave through the event service.
 */
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "common/common.h"
#include "common/guards.h"
#include "common/log.h"
#include "core/events_db.h"
#include "core/fpt.h"
#include "core/general.h"
#include "core/general_state.h"
#include "core/port.h"
#include "kr_api.h"
#include "tables/tables.h"

KR_LOG_MODULE("HAL_GEN", kr_HAL_GEN_verb_level);

namespace kr::general {
namespace {

constexpr uint16_t start_frame_size = 1500;

// What the connector promises of a port record; padding behind it need not be there.
constexpr size_t port_record_size = offsetof(conn_port_record, reserved_34);
static_assert(port_record_size == 34);

/* ---- start and stop -------------------------------------------------------------------------------------------- */

kr_sdn_hal_status open_host_ifc() {
    g.user_channel.type = KR_USER_CHANNEL_TYPE_FD;
    const kr_status status = kr_api_host_ifc_open(relaxed_load(sdk_handle), &g.user_channel.descriptor);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to open host ifc %s.", kr_status_str(status));
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status close_host_ifc() {
    const kr_status status = kr_api_host_ifc_close(relaxed_load(sdk_handle), &g.user_channel.descriptor);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed in host_ifc_close err (%u).", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status open_stop_pipe() {
    return pipe(g.stop_pipe) == 0 ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_ERROR;
}

kr_sdn_hal_status close_stop_pipe() {
    for (int &end : g.stop_pipe) {
        close(end);
        end = -1; // the number may soon be another file's, and a stop that failed further on may be tried again
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status start_control_frames_thread() {
    const cl_status_t status = cl_thread_init(&g.control_frames_thread, __control_frames_thread, nullptr, nullptr);
    return status == CL_SUCCESS ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_ERROR;
}

struct start_step {
    kr_sdn_hal_status (*run)();
    const char *failure_text;    // nullptr: the step tells for itself
    kr_sdn_hal_status (*undo)(); // nullptr: nothing to take back
    const char *undo_failure_text;
};

/* clang-format off */
constexpr start_step start_steps[] = {
    // run                              text; undo and its text below
    {kr_sdn_hal_srvc_dependent_init,    "SDN HAL events module dependent init failed.",
     kr_sdn_hal_srvc_dependent_deinit,  "SDN HAL events module dependent deinit failed."},
    {tables_dependent_init,             "SDN HAL table module dependent init failed.",
     tables_dependent_deinit,           "SDN HAL table module dependent deinit failed."},
    {fpt_activate,                      "FPT activate failed.",
     nullptr,                           nullptr}, // the port plug-in stays active
    {open_host_ifc,                     nullptr,
     close_host_ifc,                    nullptr},
    {open_stop_pipe,                    nullptr,  // silent
     close_stop_pipe,                   nullptr},
    {start_control_frames_thread,       "Could not create controls listener thread.",
     nullptr,                           nullptr},
};
/* clang-format on */

kr_sdn_hal_status run_and_tell(kr_sdn_hal_status (*call)(), const char *failure_text) {
    const kr_sdn_hal_status status = call();
    if (status != KR_SDN_HAL_STATUS_SUCCESS && failure_text != nullptr) {
        HAL_ERROR("%s", failure_text);
    }
    return status;
}

// Ends at the first step that cannot be taken back: what lies below it is still in use then.
void undo_before(const start_step *failed) {
    for (const start_step *step = failed; step != start_steps;) {
        --step;
        if (step->undo != nullptr && run_and_tell(step->undo, step->undo_failure_text) != KR_SDN_HAL_STATUS_SUCCESS) {
            return;
        }
    }
}

} // namespace

kr_sdn_hal_status __general_event_start() {
    if (relaxed_load(g.started) == 1) {
        HAL_NOTICE("SDN HAL has already started.");
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    for (const start_step &step : start_steps) {
        const kr_sdn_hal_status status = run_and_tell(step.run, step.failure_text);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            undo_before(&step);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

// Not the mirror of start: it is refused while ports exist, and a descriptor that cannot be closed does not end it.
kr_sdn_hal_status __general_event_stop() {
    uint32_t port_count = 0;
    kr_sdn_hal_status status = port_get_arr(nullptr, &port_count);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (port_count != 0) {
        HAL_ERROR("SDN HAL couldn't not be stopped when port(s) exists.");
        return KR_SDN_HAL_STATUS_RESOURCE_IN_USE;
    }

    constexpr uint32_t stop_word = 0;
    if (write(g.stop_pipe[1], &stop_word, sizeof stop_word) < static_cast<ssize_t>(sizeof stop_word)) {
        HAL_ERROR("SDN HAL thread deinit failed.");
        return KR_SDN_HAL_STATUS_SUCCESS; // stopped as far as the connector is concerned; everything stays open
    }
    cl_thread_destroy(&g.control_frames_thread);
    (void)close_stop_pipe();
    (void)close_host_ifc();

    status = run_and_tell(tables_dependent_deinit, "SDN HAL table module dependent deinit failed.");
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    return run_and_tell(kr_sdn_hal_srvc_dependent_deinit, "SDN HAL events module dependent deinit failed.");
}

namespace {

/* ---- events ---------------------------------------------------------------------------------------------------- */

// What an event ends with: its status and, on success, perhaps a record for the clients.
struct outcome {
    kr_sdn_hal_status status;
    bool has_record = false;
};

outcome event_start(hal_event_record *record) {
    if (relaxed_load(g.started) == 1) {
        HAL_NOTICE("SDN HAL has already started.");
        return {KR_SDN_HAL_STATUS_SUCCESS};
    }
    const kr_sdn_hal_status status = __general_event_start();
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return {status};
    }
    relaxed_store(g.stored.mode, uint32_t{0});
    relaxed_store(g.stored.frame_size, start_frame_size);
    record->type = EVENT_GENERAL_READY;
    relaxed_store(g.started, uint32_t{1});
    return {KR_SDN_HAL_STATUS_SUCCESS, true};
}

outcome event_stop() {
    if (relaxed_load(g.started) == 0) {
        HAL_NOTICE("SDN HAL has already stopped.");
        return {KR_SDN_HAL_STATUS_SUCCESS};
    }
    const kr_sdn_hal_status status = __general_event_stop();
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        relaxed_store(g.started, uint32_t{0});
    }
    return {status};
}

kr_sdn_hal_status port_oper_state_read(uint32_t log_port, uint32_t *oper_state) {
    uint32_t admin_state = 0;
    uint32_t module_state = 0;
    const kr_status status =
        kr_api_port_state_get(relaxed_load(sdk_handle), log_port, oper_state, &admin_state, &module_state);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to retrieve port status [%x], err [%s].", log_port, kr_status_str(status));
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

void port_update_fill(hal_event_record *record, uint32_t reason, uint32_t of_port, uint32_t oper_state,
                      const conn_port_record &port) {
    hal_event_port_update &update = record->payload.port_update;
    record->type = EVENT_PORT_CAPABILITIES_UPDATE;
    update.reason = reason;
    update.port = of_port;
    update.oper_state = oper_state;
    static_assert(sizeof update.mac_address == sizeof port.mac_address);
    static_assert(sizeof update.interface_name == sizeof port.interface_name);
    memcpy(update.mac_address, port.mac_address, sizeof update.mac_address);
    memcpy(update.interface_name, port.interface_name, sizeof update.interface_name);
}

// Only a table that is full takes the port out of the database again; after any other failure it stays there.
void port_add_take_back(kr_sdn_hal_status tables_status, uint32_t of_port) {
    if (tables_status != KR_SDN_HAL_STATUS_NO_RESOURCES) {
        return;
    }
    const kr_sdn_hal_status status = port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &of_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS && status != KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
        HAL_ERROR("Failed to delete port from HAL port DB.");
    }
}

outcome event_port_added(const conn_port_record &port, hal_event_record *record) {
    uint32_t oper_state = 0;
    kr_sdn_hal_status status = port_oper_state_read(port.log_port, &oper_state);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return {status};
    }
    uint32_t of_port = 0;
    constexpr uint32_t aux = 0;
    status = port_set(PORT_CMD_ADD, port.ifindex, port.requested_of_port, port.log_port, aux, &of_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Port add failed.");
        return {status};
    }
    status = tables_port_added(of_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Table port add failed.");
        port_add_take_back(status, of_port);
        return {status};
    }
    port_update_fill(record, PORT_UPDATE_ADDED, of_port, oper_state, port);
    return {KR_SDN_HAL_STATUS_SUCCESS, true};
}

// Only announces the removal: the client's acknowledgement carries it out.
outcome event_port_removed(const conn_port_record &port, hal_event_record *record) {
    uint32_t oper_state = 0;
    kr_sdn_hal_status status = port_oper_state_read(port.log_port, &oper_state);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return {status};
    }
    uint32_t of_port = 0;
    status = port_translate_ifindex(port.ifindex, &of_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to translate ifindex into OF port ID (%u).", static_cast<uint32_t>(status));
        return {status};
    }
    port_update_fill(record, PORT_UPDATE_REMOVED, of_port, oper_state, port);
    return {KR_SDN_HAL_STATUS_SUCCESS, true};
}

outcome event_control_forward(const void *data) {
    conn_control_forward forward;
    memcpy(&forward, data, sizeof forward);
    return {general_control_forward_set(forward.command, forward.trap_id)};
}

kr_sdn_hal_status wait_until_port_disabled() {
    constexpr uint32_t interruptible = 1;
    const cl_status_t status = cl_event_wait_on(&g.port_disable_event, CL_EVENT_NO_TIMEOUT, interruptible);
    if (status != CL_SUCCESS) {
        HAL_ERROR("Failed to wait until port disable operation completed. err [%u].", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

bool event_has_data(uint32_t event) {
    return event == CONN_EVENT_PORT_ADDED || event == CONN_EVENT_PORT_REMOVED || event == CONN_EVENT_CONTROL_FORWARD;
}

outcome event_handle(uint32_t event, const void *data, hal_event_record *record) {
    conn_port_record port{};
    if (event == CONN_EVENT_PORT_ADDED || event == CONN_EVENT_PORT_REMOVED) {
        memcpy(&port, data, port_record_size);
    }
    switch (event) {
    case CONN_EVENT_START:
        return event_start(record);
    case CONN_EVENT_STOP:
        return event_stop();
    case CONN_EVENT_PORT_ADDED:
        return event_port_added(port, record);
    case CONN_EVENT_PORT_REMOVED:
        return event_port_removed(port, record);
    case CONN_EVENT_CONTROL_FORWARD:
        return event_control_forward(data);
    default: // a code, not an enumeration: later connectors may know more
        return {KR_SDN_HAL_STATUS_SUCCESS};
    }
}

void agent_entry_copy(hal_event_agent_entry *to, const conn_agent_entry &from) {
    static_assert(sizeof to->data == sizeof from.data);
    memcpy(to->data, from.data, sizeof to->data);
    to->value = from.value;
    to->number = from.number;
}

} // namespace
} // namespace kr::general

using namespace kr::general;

uint32_t general_event_cb(uint32_t event, void *data) noexcept {
    if (event != CONN_EVENT_START && kr::relaxed_load(g.started) == 0) {
        HAL_NOTICE("General event cb called before start event, discarding event.");
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (event_has_data(event) && hal_utils_check_pointer(data, "Event data pointer") != KR_SDN_HAL_STATUS_SUCCESS) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    hal_event_record record{};
    const outcome ended = event_handle(event, data, &record);
    if (!ended.has_record) {
        return ended.status;
    }
    if (event == CONN_EVENT_PORT_REMOVED) {
        // A wait that was interrupted leaves the signal of a late acknowledgement behind; it is not this removal's.
        (void)cl_event_reset(&g.port_disable_event);
    }
    const kr_sdn_hal_status status = kr_sdn_hal_srvc_process_event(&record);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    return event == CONN_EVENT_PORT_REMOVED ? wait_until_port_disabled() : KR_SDN_HAL_STATUS_SUCCESS;
}

uint32_t general_config_cb(uint32_t command, void *data) noexcept {
    if (kr::relaxed_load(g.started) == 0) {
        HAL_NOTICE("General config cb called before start event, discarding config.");
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (command != CONN_CONFIG_AGENT) {
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (hal_utils_check_pointer(data, "Config data pointer") != KR_SDN_HAL_STATUS_SUCCESS) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    conn_agent_config config;
    memcpy(&config, data, sizeof config);
    hal_event_record record{};
    record.type = EVENT_AGENT_UPDATE;
    agent_entry_copy(&record.payload.agent.entries[0], config.entries[0]);
    agent_entry_copy(&record.payload.agent.entries[1], config.entries[1]);
    record.payload.agent.trailer = config.trailer;
    return kr_sdn_hal_srvc_process_event(&record);
}
