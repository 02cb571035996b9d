/*
 * The life of the library: init, activate, deinit and the capabilities record.
 *
 * Init is a table of steps that brings up the connector, the logger, the event service, the port database, the tables
 * and the port plug-in, in this order. Nothing here touches the switch: the connector's start event does
 * (general_events.cpp).
 */
#include "core/general.h"

#include <atomic>
#include <type_traits>

#include "common/guards.h"
#include "common/log.h"
#include "core/fpt.h"
#include "core/general_state.h"
#include "core/port.h"
#include "tables/tables.h"

int32_t kr_HAL_GEN_verb_level = 3;
kr_log_callback general_log_cb = nullptr;

KR_LOG_MODULE("HAL_GEN", kr_HAL_GEN_verb_level);

namespace kr::general {

constinit module_state g{};
static_assert(std::is_trivially_destructible_v<module_state>);

namespace {

constexpr uint32_t log_mode = 1;
constexpr uint16_t only_frame_size = 1500;

struct bring_up {
    const system_profile *profile;
    kr_log_callback log_callback;
};

struct init_step {
    kr_sdn_hal_status (*run)(const bring_up &context);
    void (*undo)();           // nullptr: nothing to take back
    const char *failure_text; // nullptr: the step tells for itself
};

// Adapters for the steps that take no argument and for those whose taking back may fail unnoticed.
template <auto Call> kr_sdn_hal_status run(const bring_up &) {
    return Call();
}
template <auto Call> void undo() {
    (void)Call();
}

kr_sdn_hal_status load(const bring_up &context) {
    return connector_load(context.profile, context.log_callback);
}

kr_sdn_hal_status start_logger(const bring_up &context) {
    relaxed_store(general_log_cb, context.log_callback != nullptr ? context.log_callback : g.connector.conn_log);
    (void)kr_log_init(log_mode, nullptr, general_log_cb);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status init_tables(const bring_up &) {
    constexpr uint8_t table_enabled = 1;
    return tables_init(&table_enabled);
}

kr_sdn_hal_status init_fpt(const bring_up &context) {
    return fpt_init(context.profile);
}

kr_sdn_hal_status init_port_disable_event(const bring_up &) {
    constexpr uint32_t manual_reset = 0;
    return cl_event_init(&g.port_disable_event, manual_reset) == CL_SUCCESS ? KR_SDN_HAL_STATUS_SUCCESS
                                                                            : KR_SDN_HAL_STATUS_ERROR;
}

void destroy_port_disable_event() {
    cl_event_destroy(&g.port_disable_event);
}

kr_sdn_hal_status tell_connector(const bring_up &) {
    return static_cast<kr_sdn_hal_status>(g.connector.conn_init_done_hal());
}

/* clang-format off */
constexpr init_step init_steps[] = {
    // run                       undo                          text
    {load,                       undo<connector_deinit>,       nullptr},
    {start_logger,               nullptr,                      nullptr}, // stays
    {run<connector_register>,    nullptr,                      "SDN HAL connector registration failed."},
    {run<kr_sdn_hal_srvc_init>,  undo<kr_sdn_hal_srvc_deinit>, "SDN HAL event module init failed."},
    {run<port_init>,             undo<port_deinit>,            "SDN HAL port module init failed."},
    {init_tables,                undo<tables_deinit>,          "SDN HAL tables module init failed."},
    {init_fpt,                   undo<fpt_deinit>,             "FPT init failed."},
    {init_port_disable_event,    destroy_port_disable_event,   "SDN HAL internal event initialization failed."},
    {tell_connector,             nullptr,                      "SDN Connector init done hal failed."},
};

struct deinit_step {
    kr_sdn_hal_status (*run)();
    const char *failure_text;
};

// The mirror of init, but for two things: it stops at the first step that fails, and the logger is closed as well.
constexpr deinit_step deinit_steps[] = {
    // run                   text
    {fpt_deinit,             "FPT deinit failed."},
    {tables_deinit,          "SDN HAL tables module deinit failed."},
    {port_deinit,            "SDN HAL port module deinit failed."},
    {kr_sdn_hal_srvc_deinit, "SDN HAL event module deinit failed."},
    {connector_deinit,       "SDN HAL event module deinit failed."}, // the event service's text, on purpose
};
/* clang-format on */

void undo_before(const init_step *failed) {
    for (const init_step *step = failed; step != init_steps;) {
        --step;
        if (step->undo != nullptr) {
            step->undo();
        }
    }
}

} // namespace
} // namespace kr::general

using namespace kr::general;

kr_sdn_hal_status general_init(const system_profile *profile, kr_log_callback log_callback) {
    // `initialized` also tells the threads that log that the connector's entry points are there: acquire and release.
    const std::atomic_ref initialized(g.initialized);
    if (initialized.load(std::memory_order_acquire) == 1) {
        HAL_ERROR("SDN HAL is already initialized.");
        return KR_SDN_HAL_STATUS_ERROR;
    }
    const bring_up context{profile, log_callback};
    for (const init_step &step : init_steps) {
        const kr_sdn_hal_status status = step.run(context);
        if (status == KR_SDN_HAL_STATUS_SUCCESS) {
            continue;
        }
        if (step.failure_text != nullptr) {
            HAL_ERROR("%s", step.failure_text);
        }
        undo_before(&step);
        return status;
    }
    initialized.store(1, std::memory_order_release);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status general_activate() {
    if (g.connector.conn_init_done_shim == nullptr) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    return static_cast<kr_sdn_hal_status>(g.connector.conn_init_done_shim());
}

kr_sdn_hal_status general_deinit() {
    cl_event_destroy(&g.port_disable_event);
    for (const deinit_step &step : deinit_steps) {
        const kr_sdn_hal_status status = step.run();
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("%s", step.failure_text);
            return status;
        }
    }
    (void)kr_log_close();
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status general_capabilities_set(const capabilities *cap) {
    if (cap->mode != 0) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (cap->frame_size != only_frame_size && cap->frame_size != 0) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    kr::relaxed_store(g.stored.mode, cap->mode);
    kr::relaxed_store(g.stored.frame_size, cap->frame_size);
    kr::relaxed_store(g.stored.reserved, cap->reserved);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status general_capabilities_get(capabilities *cap) {
    cap->mode = kr::relaxed_load(g.stored.mode);
    cap->frame_size = kr::relaxed_load(g.stored.frame_size);
    cap->reserved = kr::relaxed_load(g.stored.reserved);
    return KR_SDN_HAL_STATUS_SUCCESS;
}
