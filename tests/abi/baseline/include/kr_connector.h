/*
 * The contract with the connector: the plug-in on the OpenFlow agent's side that tells the library about start, stop,
 * ports and configuration. The library loads it at run time and resolves the eight conn_* symbols by name.
 */
#ifndef KR_CONNECTOR_H
#define KR_CONNECTOR_H

#include <stddef.h>
#include <stdint.h>

#include "kr_log.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Event codes; the registration mask is their sum. */
enum {
    CONN_EVENT_START = 1,           /* no data */
    CONN_EVENT_STOP = 2,            /* no data */
    CONN_EVENT_PORT_ADDED = 4,      /* conn_port_record */
    CONN_EVENT_PORT_REMOVED = 8,    /* conn_port_record; returns once a client has acknowledged the removal */
    CONN_EVENT_CONTROL_FORWARD = 16 /* conn_control_forward */
};
enum { CONN_EVENT_MASK_ALL = 31 };

/* Configuration commands. */
enum { CONN_CONFIG_AGENT = 0 /* conn_agent_config */ };

typedef struct conn_port_record {
    uint32_t log_port;
    uint32_t ifindex;
    int32_t requested_of_port; /* 0: none; the interface index becomes the OF port then */
    char interface_name[16];
    uint8_t mac_address[6];
    uint8_t reserved_34[2];
} conn_port_record;

/* Commands of conn_control_forward. */
enum { CONN_FORWARD_REGISTER = 0, CONN_FORWARD_DEREGISTER = 2 };

typedef struct conn_control_forward {
    uint32_t command;
    uint32_t trap_id;
} conn_control_forward;

typedef struct conn_agent_entry {
    uint8_t data[16];
    uint32_t value;
    uint16_t number;
    uint8_t reserved_22[2];
} conn_agent_entry;

/* The library copies it to its clients without reading it. */
typedef struct conn_agent_config {
    conn_agent_entry entries[2];
    uint64_t trailer;
} conn_agent_config;

#ifdef __cplusplus
#define CONN_ASSERT static_assert
#else
#define CONN_ASSERT _Static_assert
#endif
CONN_ASSERT(offsetof(conn_port_record, log_port) == 0, "log_port");
CONN_ASSERT(offsetof(conn_port_record, ifindex) == 4, "ifindex");
CONN_ASSERT(offsetof(conn_port_record, requested_of_port) == 8, "requested_of_port");
CONN_ASSERT(offsetof(conn_port_record, interface_name) == 12, "interface_name");
CONN_ASSERT(offsetof(conn_port_record, mac_address) == 28, "mac_address");
CONN_ASSERT(offsetof(conn_agent_entry, value) == 16, "value");
CONN_ASSERT(offsetof(conn_agent_entry, number) == 20, "number");
CONN_ASSERT(sizeof(conn_agent_entry) == 24, "agent entry");
CONN_ASSERT(offsetof(conn_agent_config, trailer) == 48, "trailer");
#undef CONN_ASSERT

/* The callbacks that the library registers; each returns a kr_sdn_hal_status. One call at a time, on one thread. */
typedef uint32_t (*conn_config_callback)(uint32_t command, void *data);
typedef uint32_t (*conn_event_callback)(uint32_t event, void *data);

/* What a connector exports. Each status is a kr_sdn_hal_status. */
uint32_t conn_init(kr_log_callback log_callback); /* result ignored; the callback may be NULL */
uint32_t conn_init_done_hal(void);                /* the library is ready for the client */
uint32_t conn_init_done_shim(void);               /* the client is ready: events may start */
uint32_t conn_deinit(void);
uint32_t conn_config_callback_register(conn_config_callback callback);
uint32_t conn_event_callback_register(conn_event_callback callback, uint32_t event_mask);
uint32_t conn_config_params_get(void);                                  /* required to exist; not called */
void conn_log(uint32_t severity, const char *module, const char *text); /* from any thread */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
