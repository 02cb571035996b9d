/*
 * The status codes of the platform's libraries.
 *
 * Two numberings meet here. `kr_status` is what the device SDK, the host-interface library and the ACL resource
 * manager return; `kr_utils_status` is the numbering of the platform's utility libraries, which pSort returns and
 * expects from its notification callback. Both are unsigned 32-bit, 0 is success.
 */
#ifndef KR_STATUS_H
#define KR_STATUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* What the device SDK, the host-interface library and the ACL resource manager return. */
typedef uint32_t kr_status;

enum {
    KR_STATUS_SUCCESS = 0,
    KR_STATUS_ERROR = 1,
    KR_STATUS_NOT_INITIALIZED = 2,
    KR_STATUS_CMD_UNSUPPORTED = 3,
    KR_STATUS_ENTRY_ALREADY_EXISTS = 4,
    KR_STATUS_ENTRY_NOT_FOUND = 5,
    KR_STATUS_NO_RESOURCES = 6,          /* a table, a pool or a group of the resource manager is full */
    KR_STATUS_NO_HARDWARE_RESOURCES = 7, /* the device itself has no room left */
    KR_STATUS_PARAM_ERROR = 8,
    KR_STATUS_PARAM_NULL = 9,
    KR_STATUS_PARAM_EXCEEDS_RANGE = 10,
    KR_STATUS_RESOURCE_IN_USE = 11,
    KR_STATUS_INVALID_HANDLE = 12,
    KR_STATUS_NO_MEMORY = 13,
    KR_STATUS_TIMEOUT = 14
};

/* Returns the text of a status. Never NULL, for any value; the text is static. */
const char *kr_status_str(kr_status status);

/* What the utility libraries return. */
typedef uint32_t kr_utils_status;

enum {
    KR_UTILS_STATUS_SUCCESS = 0,
    KR_UTILS_STATUS_ERROR = 1,
    KR_UTILS_STATUS_DEVICE_ERROR = 2,
    KR_UTILS_STATUS_NO_MEMORY = 3,
    KR_UTILS_STATUS_NOT_INITIALIZED = 4,
    KR_UTILS_STATUS_ENTRY_NOT_FOUND = 5,
    KR_UTILS_STATUS_CMD_UNSUPPORTED = 6,
    KR_UTILS_STATUS_PARAM_ERROR = 7,
    KR_UTILS_STATUS_PARAM_NULL = 8,
    KR_UTILS_STATUS_PARAM_EXCEEDS_RANGE = 9,
    KR_UTILS_STATUS_NO_RESOURCES = 10,
    KR_UTILS_STATUS_TIMEOUT = 11,
    KR_UTILS_STATUS_INTERRUPTED = 12,
    KR_UTILS_STATUS_BUSY = 13,
    KR_UTILS_STATUS_ENTRY_ALREADY_EXISTS = 14,
    KR_UTILS_STATUS_INVALID_HANDLE = 15,
    KR_UTILS_STATUS_INVALID_STATE = 16,
    KR_UTILS_STATUS_IO_ERROR = 17,
    KR_UTILS_STATUS_RESOURCE_IN_USE = 18
};

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
