/*
 * The general module: the life of the library, its connector, the connector's events and configuration, the thread
 * that receives control frames, and the acknowledgement of port removals.
 */
#ifndef KR_CORE_GENERAL_H
#define KR_CORE_GENERAL_H

#include <cstdint>

#include "kr_connector.h"
#include "kr_log.h"
#include "kr_sdn_hal.h"

// The log callback in force: the client's, or the connector's conn_log.
extern "C" KR_SDN_HAL_API kr_log_callback general_log_cb;

kr_sdn_hal_status general_init(const system_profile *profile, kr_log_callback log_callback);
kr_sdn_hal_status general_activate();
kr_sdn_hal_status general_deinit();
kr_sdn_hal_status general_capabilities_set(const capabilities *cap);
kr_sdn_hal_status general_capabilities_get(capabilities *cap);

/* Registered with the connector, which calls them on its thread, one at a time. */
uint32_t general_event_cb(uint32_t event, void *data) noexcept;
uint32_t general_config_cb(uint32_t command, void *data) noexcept;

/* Hands a finished message to the connector's conn_log once the library is initialised; drops it before. */
void general_log_conn(uint32_t severity, const char *module, const char *text);

/* Registers (command 0) or deregisters (command 2) a trap id on the library's own descriptor. */
kr_sdn_hal_status general_control_forward_set(uint32_t command, uint32_t trap_id);

/* Completes a port removal on behalf of a client and releases the connector's waiting callback. */
kr_sdn_hal_status general_process_shim_event_ack(const hal_event_record *record);

#endif
