/*
 * The device API of the switch SDK: opening the device, port state, host-interface descriptors and traps.
 */
#ifndef KR_API_H
#define KR_API_H

#include <stdint.h>

#include "kr_host_ifc.h"
#include "kr_log.h"
#include "kr_status.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef uint64_t kr_api_handle;

/* Commands of kr_api_host_ifc_trap_id_register_set. */
enum { KR_API_CMD_REGISTER = 19, KR_API_CMD_DEREGISTER = 20 };

/* Operational state of a port. */
enum { KR_PORT_OPER_UP = 1, KR_PORT_OPER_DOWN = 2 };
/* Administrative state of a port. */
enum { KR_PORT_ADMIN_UP = 1, KR_PORT_ADMIN_DOWN = 2 };
/* State of the module that a port is plugged into. */
enum { KR_PORT_MODULE_PLUGGED = 1, KR_PORT_MODULE_UNPLUGGED = 2 };

/* Opens the device. `log_callback` may be NULL. Several handles may be open at once. */
kr_status kr_api_open(kr_log_callback log_callback, kr_api_handle *handle);
/* Closes a handle and clears *handle. KR_STATUS_INVALID_HANDLE for one that is not open. */
kr_status kr_api_close(kr_api_handle *handle);

/* Reads a port's states. KR_STATUS_ENTRY_NOT_FOUND for a logical port that does not exist; outputs are unchanged. */
kr_status kr_api_port_state_get(kr_api_handle handle, uint32_t log_port, uint32_t *oper_state, uint32_t *admin_state,
                                uint32_t *module_state);

/* Opens a host-interface descriptor. KR_STATUS_NO_RESOURCES when the process has no file descriptor left. */
kr_status kr_api_host_ifc_open(kr_api_handle handle, kr_host_ifc_fd *descriptor);
/* Closes a descriptor, drops what it holds and forgets its registrations. KR_STATUS_INVALID_HANDLE if not open. */
kr_status kr_api_host_ifc_close(kr_api_handle handle, kr_host_ifc_fd *descriptor);

/*
 * Command 19: frames and events with this trap id go to the channel from now on, beside every other channel that is
 * registered for it. Command 20 ends it. Registering twice, and ending what was not
 * registered, change nothing and succeed. KR_STATUS_INVALID_HANDLE for a descriptor that is not open,
 * KR_STATUS_CMD_UNSUPPORTED for another command.
 */
kr_status kr_api_host_ifc_trap_id_register_set(kr_api_handle handle, uint32_t command, uint8_t swid, uint32_t trap_id,
                                               kr_user_channel *channel);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
