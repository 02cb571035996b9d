/*
 * The SDN HAL: how an OpenFlow agent drives a Korvane Ethernet switch.
 *
 * This is the whole interface for clients. It is plain C11, usable from C++, and links with libkrsdnhal.so.1.
 *
 * Life of the library: kr_sdn_hal_init loads the connector and the port plug-in; kr_sdn_hal_activate tells the
 * connector that the client is ready; the connector then starts the switch (EVENT_GENERAL_READY) and adds ports. At
 * the end the connector removes the ports (each removal has to be acknowledged with kr_sdn_hal_srvc_event_ack) and
 * stops the switch, and the client calls kr_sdn_hal_deinit. One process does this once.
 *
 * Every function returns a status and says what each one means. Unless a function says otherwise: pointers belong to
 * the caller and are used during the call only; ports are OF port numbers; functions may be called from any thread.
 */
#ifndef KR_SDN_HAL_H
#define KR_SDN_HAL_H

#include <stdint.h>
#include <sys/time.h>

#include "flow_record.h"
#include "kr_host_ifc.h"

#define KR_SDN_HAL_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* ---- statuses -------------------------------------------------------------------------------------------------- */

#ifdef __cplusplus
enum [[nodiscard]] kr_sdn_hal_status : uint32_t {
#else
typedef uint32_t kr_sdn_hal_status;
enum {
#endif
    KR_SDN_HAL_STATUS_SUCCESS = 0,
    KR_SDN_HAL_STATUS_ERROR = 1, /* a call of the platform failed, memory ran out, a wait failed */
    KR_SDN_HAL_STATUS_SDK_ERROR = 2,
    KR_SDN_HAL_STATUS_NOT_INITIALIZED = 3,
    KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND = 4,
    KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS = 5,
    KR_SDN_HAL_STATUS_CMD_UNSUPPORTED = 6,
    KR_SDN_HAL_STATUS_PARAM_ERROR = 7,
    KR_SDN_HAL_STATUS_PARAM_NULL = 8,
    KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE = 9,
    KR_SDN_HAL_STATUS_NO_RESOURCES = 10,
    KR_SDN_HAL_STATUS_RESOURCE_IN_USE = 11
};

/* ---- life cycle ------------------------------------------------------------------------------------------------ */

enum { KR_SDN_HAL_PATH_SIZE = 128 };

/* Which plug-ins to load. Both paths are NUL-terminated and handed to the dynamic loader as they are. */
typedef struct system_profile {
    char connector_library_path[KR_SDN_HAL_PATH_SIZE];
    char fpt_library_path[KR_SDN_HAL_PATH_SIZE];
} system_profile;

/* Receives finished log messages: severity mask (1 error, 3 warning, 15 notice, 31 debug, 63 trace), module, text. The
 * strings are valid during the call only. Called from any thread, also from several at once. */
typedef void (*kr_sdn_hal_log_callback)(uint32_t severity, const char *module, const char *text);

typedef struct capabilities {
    uint32_t mode;       /* 0 */
    uint16_t frame_size; /* bytes: 0 or 1500 */
    uint16_t reserved;   /* free for the client: kept and given back */
} capabilities;

KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_init(const system_profile *profile, kr_sdn_hal_log_callback log_callback);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_activate(void);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_deinit(void);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_capabilities_set(const capabilities *cap);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_capabilities_get(capabilities *cap);
__attribute__((format(printf, 3, 4))) KR_SDN_HAL_API kr_sdn_hal_status
kr_sdn_hal_log(uint32_t severity, const char *module, const char *format, ...);

/* ---- verbosity ------------------------------------------------------------------------------------------------- */

/* One per module; a message is logged when the module's value is at least its level: 1 error, 2 warning, 4 notice,
 * 5 debug, 6 function trace. 3 at first. May be changed at any time. */
KR_SDN_HAL_API extern int32_t kr_HAL_API_verb_level;
KR_SDN_HAL_API extern int32_t kr_HAL_EVENTS_API_verb_level;
KR_SDN_HAL_API extern int32_t kr_HAL_API_PORT_verb_level;
KR_SDN_HAL_API extern int32_t kr_FPT_verb_level;
KR_SDN_HAL_API extern int32_t kr_HAL_GEN_verb_level;
KR_SDN_HAL_API extern int32_t kr_HAL_PORT_verb_level; /* the port database logs nothing */
KR_SDN_HAL_API extern int32_t kr_FLOWS_DB_verb_level;
KR_SDN_HAL_API extern int32_t kr_HAL_UTILS_verb_level;

/* ---- event channels -------------------------------------------------------------------------------------------- */

/* A client's event channel. The client owns the memory; its fields are the library's between open and close. */
typedef struct srvc_handle {
    kr_host_ifc_fd sdk_fd; /* frames and port events from the switch */
    int hal_pipe[2];       /* events of the library: read end, write end */
    uint32_t sdk_fd_open;  /* 1 while sdk_fd is open */
    uint32_t is_open;      /* 1 between open and close */
} srvc_handle;

typedef enum hal_event_type {
    EVENT_GENERAL_READY = 0,
    EVENT_GENERAL_ERROR = 1,
    EVENT_TABLE_UPDATE = 2,
    EVENT_PORT_CAPABILITIES_UPDATE = 3,
    EVENT_PORT_OPER_STATE_CHANGE = 4,
    EVENT_PORT_STP_STATE_CHANGE = 5,
    EVENT_PORT_LACP_STATE_CHANGE = 6,
    EVENT_VLAN_UPDATE = 7,
    EVENT_SWITCH_UPDATE = 8,
    EVENT_AGENT_UPDATE = 9,
    EVENT_PACKET_IN = 10,
    EVENT_PACKET_MISS = 11
} hal_event_type;
enum { KR_SDN_HAL_EVENT_TYPE_COUNT = 12, KR_SDN_HAL_HANDLES_PER_EVENT = 10, KR_SDN_HAL_PACKET_SIZE = 4000 };

/* Reasons of EVENT_PORT_CAPABILITIES_UPDATE. */
enum { PORT_UPDATE_ADDED = 0, PORT_UPDATE_REMOVED = 1 };

typedef struct hal_event_packet {
    uint8_t data[KR_SDN_HAL_PACKET_SIZE];
    uint32_t length; /* bytes */
    uint32_t in_port; /* OF port; 0 when the port is not in the port database */
} hal_event_packet;

typedef struct hal_event_port_oper {
    uint32_t port; /* OF port; 0 when unknown */
    uint32_t oper_state;
} hal_event_port_oper;

typedef struct hal_event_port_update {
    uint32_t reason;
    uint32_t port; /* OF port */
    uint32_t oper_state;
    uint8_t mac_address[6];
    char interface_name[16];
} hal_event_port_update;

typedef struct hal_event_agent_entry {
    uint8_t data[16];
    uint32_t value;
    uint16_t number;
    uint8_t reserved[2];
} hal_event_agent_entry;

typedef struct hal_event_agent {
    hal_event_agent_entry entries[2];
    uint64_t trailer;
} hal_event_agent;

/* One event. Which member of the payload holds depends on the type. */
typedef struct hal_event_record {
    uint32_t type; /* a hal_event_type */
    uint32_t reserved;
    union {
        hal_event_packet packet;           /* EVENT_PACKET_IN, EVENT_PACKET_MISS */
        hal_event_port_oper port_oper;     /* EVENT_PORT_OPER_STATE_CHANGE */
        hal_event_port_update port_update; /* EVENT_PORT_CAPABILITIES_UPDATE */
        hal_event_agent agent;             /* EVENT_AGENT_UPDATE */
        uint8_t bytes[4008];
    } payload;
} hal_event_record;

/* The library's own: called by it during init, start, stop and deinit; exported for the connector's sake. */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_init(void);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_dependent_init(void);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_dependent_deinit(void);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_deinit(void);

KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_open(srvc_handle *handle);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_close(srvc_handle *handle);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_event_register(srvc_handle *handle, uint32_t event);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_event_unregister(srvc_handle *handle, uint32_t event);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_process_event(const hal_event_record *record);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_select(srvc_handle **handles, uint32_t handle_count,
                                                        struct timeval *timeout, uint32_t *ready_mask);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_recv(srvc_handle *handle, hal_event_record *record);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_packet_send(srvc_handle *handle, const void *packet, uint32_t length,
                                                             uint32_t egress_port, uint8_t priority);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_event_ack(const hal_event_record *record);

/* ---- ports ----------------------------------------------------------------------------------------------------- */

typedef enum port_admin_state { PORT_ADMIN_NA = 0, PORT_ADMIN_DOWN = 1, PORT_ADMIN_UP = 2 } port_admin_state;
typedef enum port_oper_state { PORT_OPER_NA = 0, PORT_OPER_DOWN = 1, PORT_OPER_UP = 2 } port_oper_state;
typedef enum port_stp_state {
    PORT_STP_NA = 0,
    PORT_STP_DISCARDING = 1,
    PORT_STP_LEARNING = 2,
    PORT_STP_FORWARDING = 3
} port_stp_state;
enum { PORT_MTU_MIN = 68, PORT_MTU_MAX = 10000 };

/* Speeds that a port may negotiate, each 0 or 1. */
typedef struct port_speed_admin {
    int32_t speed_1g;
    int32_t speed_10g;
    int32_t speed_40g;
    int32_t speed_100g;
} port_speed_admin;

/* Bits of a port's speed capability. */
enum {
    PORT_SPEED_CAPABILITY_1G = 1,
    PORT_SPEED_CAPABILITY_10G = 2,
    PORT_SPEED_CAPABILITY_40G = 4,
    PORT_SPEED_CAPABILITY_100G = 8,
    PORT_SPEED_CAPABILITY_OTHER = 16 /* a speed that has no bit of its own */
};

typedef struct port_mac_address {
    uint8_t bytes[6]; /* network order */
} port_mac_address;

typedef struct port_counters {
    uint64_t rx_packets, tx_packets;
    uint64_t rx_bytes, tx_bytes;
    uint64_t rx_dropped, tx_dropped;
    uint64_t rx_errors, tx_errors;
    uint64_t rx_frame_errors, rx_overrun_errors, rx_crc_errors;
    uint64_t collisions;
} port_counters;

KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_arr_get(uint32_t *ports, uint32_t *count);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_capabilities_get(uint32_t port, uint32_t *port_capabilities);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_state_set(uint32_t port, int32_t admin_state);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_state_get(uint32_t port, int32_t *admin_state, int32_t *oper_state);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_rstp_state_set(uint32_t port, int32_t stp_state);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_rstp_state_get(uint32_t port, int32_t *stp_state);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_phys_addr_get(uint32_t port, port_mac_address *mac_address);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_speed_set(uint32_t port, const port_speed_admin *admin_speed);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_speed_get(uint32_t port, port_speed_admin *admin_speed,
                                                           uint32_t *oper_speed);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_speed_capability_get(uint32_t port, uint32_t *speed_capability);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_flood_mode_set(uint32_t port, uint32_t mode);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_flood_mode_get(uint32_t port, uint32_t *mode);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_mtu_set(uint32_t port, uint16_t mtu);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_mtu_get(uint32_t port, uint16_t *mtu);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_cntr_get(uint32_t port, port_counters *counters);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_cntr_clear(uint32_t port, int32_t all_ports);

/* ---- flow tables ----------------------------------------------------------------------------------------------- */

KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_entry_set(uint32_t command, uint32_t table, flow_record *flows,
                                                            uint32_t flow_count);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_entry_get(uint32_t table, uint64_t flow_start,
                                                            const uint64_t *flow_ids, uint32_t *flow_count,
                                                            flow_record *flows);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_mcast_group_set(uint32_t command, uint32_t port_count,
                                                                  const uint32_t *ports, uint32_t *group_id);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_mcast_group_get(uint32_t group_id, uint32_t *port_count,
                                                                  uint32_t *ports);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_capabilities_get(uint32_t *table_count);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_table_capabilities_get(uint32_t table,
                                                                         table_capabilities *table_capabilities_out);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_entry_activity_get(uint32_t table, const uint64_t *flow_ids,
                                                                     uint32_t flow_count, uint32_t *activities);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_table_stat_get(uint32_t table, table_stats *stats);
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_entry_stat_get(uint32_t table, const uint64_t *flow_ids,
                                                                 uint32_t flow_count, flow_stats *stats);

#ifdef __cplusplus
}
#endif

#endif
