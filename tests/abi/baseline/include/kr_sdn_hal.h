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

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#include "flow_record.h"
#include "kr_host_ifc.h"

#define KR_SDN_HAL_API __attribute__((visibility("default")))

/* No exception leaves the library. */
#ifdef __cplusplus
#define KR_SDN_HAL_NOEXCEPT noexcept
#else
#define KR_SDN_HAL_NOEXCEPT
#endif

/* Checks the layout of a record: `at` and `size` are bytes. */
#ifdef __cplusplus
#define KR_SDN_HAL_FIELD(record, field, at, size)                                                                      \
    static_assert(offsetof(record, field) == (at) && sizeof(((record *)0)->field) == (size), #record "." #field)
#define KR_SDN_HAL_SIZE(record, size) static_assert(sizeof(record) == (size), #record)
#else
#define KR_SDN_HAL_FIELD(record, field, at, size)                                                                      \
    _Static_assert(offsetof(record, field) == (at) && sizeof(((record *)0)->field) == (size), #record "." #field)
#define KR_SDN_HAL_SIZE(record, size) _Static_assert(sizeof(record) == (size), #record)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- statuses -------------------------------------------------------------------------------------------------- */

/* clang-format off */
#ifdef __cplusplus
enum [[nodiscard]] kr_sdn_hal_status : uint32_t {
#else
typedef uint32_t kr_sdn_hal_status;
enum {
#endif
    KR_SDN_HAL_STATUS_SUCCESS = 0,
    KR_SDN_HAL_STATUS_ERROR = 1,                /* a call of the platform failed, memory ran out, a wait failed */
    KR_SDN_HAL_STATUS_SDK_ERROR = 2,            /* a channel's way to the switch could not be made or used */
    KR_SDN_HAL_STATUS_NOT_INITIALIZED = 3,      /* called before init, or after deinit */
    KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND = 4,      /* there is no such port, flow or group */
    KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS = 5, /* the port or the flow is there already */
    KR_SDN_HAL_STATUS_CMD_UNSUPPORTED = 6,      /* no such command, or not for this table or record */
    KR_SDN_HAL_STATUS_PARAM_ERROR = 7,          /* a value that means nothing here */
    KR_SDN_HAL_STATUS_PARAM_NULL = 8,           /* a pointer that must not be NULL is */
    KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE = 9,  /* a number outside its range */
    KR_SDN_HAL_STATUS_NO_RESOURCES = 10,        /* the table or the hardware is full */
    KR_SDN_HAL_STATUS_RESOURCE_IN_USE = 11      /* refused while something depends on it: a stop while ports exist */
};
/* clang-format on */

/* ---- life cycle ------------------------------------------------------------------------------------------------ */

/*
 * The stages: loaded, initialised (modules ready, connector and port plug-in loaded), started (the switch is open).
 * init leads to the second; the connector's start event leads to the third and its stop event back. The connector's
 * stop is refused while ports exist. A process gets from loaded to initialised once: deinit does not lead back.
 *
 * The functions of this section take no lock: call init, activate and deinit from one thread, one at a time.
 *
 * Signals: the library waits in select, read and write, and on an event, and does not repeat a wait that a signal
 * handler interrupted; the thread that receives control frames even ends when that happens to it. Block the signals
 * that the process handles in the threads that call this library and in those of the connector, and take them in a
 * thread of their own. Closing one end of a channel's pipe behind the library's back raises SIGPIPE.
 *
 * A switch that is stopped and started again has no background thread that tidies its flow table any more: flows work
 * as before, but the table is not compacted while it is idle.
 */

enum { KR_SDN_HAL_PATH_SIZE = 128 };

/* Which plug-ins to load. Both paths are NUL-terminated and handed to the dynamic loader as they are. */
typedef struct system_profile {
    char connector_library_path[KR_SDN_HAL_PATH_SIZE];
    char fpt_library_path[KR_SDN_HAL_PATH_SIZE];
} system_profile;
KR_SDN_HAL_FIELD(system_profile, connector_library_path, 0, 128);
KR_SDN_HAL_FIELD(system_profile, fpt_library_path, 128, 128);

/* Receives finished log messages: severity mask (1 error, 3 warning, 15 notice, 31 debug, 63 trace), module, text. The
 * strings are valid during the call only. Called from any thread, also from several at once. */
typedef void (*kr_sdn_hal_log_callback)(uint32_t severity, const char *module, const char *text);

typedef struct capabilities {
    uint32_t mode;       /* 0 */
    uint16_t frame_size; /* bytes: 0 or 1500 */
    uint16_t reserved;   /* free for the client: kept and given back */
} capabilities;
KR_SDN_HAL_FIELD(capabilities, mode, 0, 4);
KR_SDN_HAL_FIELD(capabilities, frame_size, 4, 2);
KR_SDN_HAL_FIELD(capabilities, reserved, 6, 2);
KR_SDN_HAL_SIZE(capabilities, 8);

/*
 * Brings the library up: loads the connector and the port plug-in and makes every module ready. The switch itself is
 * opened later, by the connector's start event.
 *
 * profile       in: the plug-ins; read during the call only.
 * log_callback  in: receives the log of the library and of the platform until deinit; NULL: the connector's conn_log
 *               does. It must stay callable as long as the process uses the library.
 *
 * SUCCESS        the library is initialised.
 * PARAM_NULL     profile is NULL; nothing was changed, nothing logged.
 * ERROR          the library is or was initialised in this process: nothing was changed. Or the connector could not be
 *                loaded (the reason is on standard error): nothing was changed. Or a module could not be brought up.
 * any other      what the connector, the port plug-in or a module answered.
 *
 * When a module cannot be brought up, those before it are taken down again in reverse order; only the connector
 * library stays loaded, and the logger stays initialised. Init may then be tried again, which loads the connector and
 * calls its conn_init anew.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_init(const system_profile *profile,
                                                 kr_sdn_hal_log_callback log_callback) KR_SDN_HAL_NOEXCEPT;

/*
 * Tells the connector that the client is ready: channels are open and registered, events may come.
 *
 * SUCCESS          the connector was told; it starts the switch when it sees fit.
 * NOT_INITIALIZED  no connector is loaded; nothing was changed.
 * any other        what the connector answered.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_activate(void) KR_SDN_HAL_NOEXCEPT;

/*
 * Takes the library down, after the connector's stop event; it does not stop a started switch itself. Close the
 * channels before: afterwards they cannot be closed any more.
 *
 * SUCCESS          every module is down and the logger is closed. Plug-in libraries and the port database stay as they
 *                  are, and a later init is refused.
 * NOT_INITIALIZED  the library is not initialised, or already taken down; nothing was changed.
 * ERROR            a module could not be taken down; the switch may still be started.
 * any other        what the connector, the port plug-in or a module answered.
 *
 * Deinit ends at the first step that fails and does not take it back: what comes after stays up. The port plug-in is
 * the first step, the flow table the second, and that one refuses while the switch is started: a deinit before the stop
 * therefore leaves a switch that runs without its port plug-in, that no later deinit takes down (NOT_INITIALIZED), and
 * whose connector waits for ever if a removal was not acknowledged yet.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_deinit(void) KR_SDN_HAL_NOEXCEPT;

/*
 * Stores the capabilities record. The start of the switch sets mode to 0 and frame_size to 1500 in it.
 *
 * cap  in: mode 0, frame_size 0 or 1500 bytes, reserved as you like.
 *
 * SUCCESS      the record was stored.
 * PARAM_NULL   cap is NULL; nothing was changed.
 * PARAM_ERROR  mode or frame_size is another value; nothing was changed.
 *
 * May be called in any stage and from any thread; a get meanwhile may see one field new and the next one old.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_capabilities_set(const capabilities *cap) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads the capabilities record; all zero before the first set and the first start.
 *
 * cap  out: the record.
 *
 * SUCCESS     *cap was written.
 * PARAM_NULL  cap is NULL.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_capabilities_get(capabilities *cap) KR_SDN_HAL_NOEXCEPT;

/*
 * Sends a line of the client's own to the connector's conn_log. It does not pass the logger or any verbosity.
 *
 * severity  in: a severity mask, handed on as it is.
 * module    in: the name of the part that speaks.
 * format    in: as for printf; a text of more than 255 bytes is cut to 255.
 *
 * SUCCESS     the line was handed over, or dropped because the library is not initialised yet.
 * PARAM_NULL  module or format is NULL; nothing was handed over.
 *
 * May be called from any thread.
 */
/* clang-format off */
__attribute__((format(printf, 3, 4)))
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_log(uint32_t severity, const char *module, const char *format,
                                                ...) KR_SDN_HAL_NOEXCEPT;
/* clang-format on */

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

/*
 * A channel has two sources: a pipe, through which the library sends its own events (types 0 to 3, 5 to 9, and 11 for
 * control frames), and a host-interface descriptor of the switch for types 4, 10 and 11. The switch has to be started
 * for the second: a channel that was opened before gains its descriptor with the first registration or packet that
 * follows the start. Wait for EVENT_GENERAL_READY, then register for types 4, 10 and 11.
 *
 * A registered client has to read. The pipe is the only buffer of the library's events (16 records on Linux); once it
 * is full, the thread that produces the next event waits until the client reads, and with it the connector, the thread
 * of control frames, every other channel, and whoever registers, unregisters or closes another channel. Only reading
 * that channel, or closing it, helps.
 *
 * A client that hears of a port's removal has to acknowledge it (kr_sdn_hal_srvc_event_ack). Until some client does,
 * the port stays, and the connector's event thread waits, without a limit. With no channel registered for
 * EVENT_PORT_CAPABILITIES_UPDATE nobody hears of it, and the connector waits as well.
 *
 * Threads: all functions may be called from any thread. One channel is read by one thread at a time, and is not in use
 * elsewhere when it is opened or closed. The first registration or packet after the start, which gives a channel its
 * descriptor, must not be made by two threads at once, or one descriptor is lost; a wait that is under way then does
 * not notice the new descriptor, the next one does. The waiting functions need 130 KiB of stack. Descriptors of 1024
 * and above are fine.
 *
 * ERROR, from every function of this section, also means that the event service is not initialised; nothing was
 * changed then.
 */

/* A client's event channel. The client owns the memory, which has to stay in place; the fields are the library's
 * between open and close. */
typedef struct srvc_handle {
    kr_host_ifc_fd sdk_fd; /* frames and port events from the switch */
    int hal_pipe[2];       /* events of the library: read end, write end */
    uint32_t sdk_fd_open;  /* 1 while sdk_fd is open */
    uint32_t is_open;      /* 1 between open and close */
} srvc_handle;

typedef enum hal_event_type {
    EVENT_GENERAL_READY = 0, /* the switch has started; no payload */
    EVENT_GENERAL_ERROR = 1,
    EVENT_TABLE_UPDATE = 2,
    EVENT_PORT_CAPABILITIES_UPDATE = 3, /* a port was added, or is about to be removed */
    EVENT_PORT_OPER_STATE_CHANGE = 4,   /* a link went up or down; from the switch */
    EVENT_PORT_STP_STATE_CHANGE = 5,
    EVENT_PORT_LACP_STATE_CHANGE = 6,
    EVENT_VLAN_UPDATE = 7,
    EVENT_SWITCH_UPDATE = 8,
    EVENT_AGENT_UPDATE = 9, /* configuration of the agent, as the connector delivered it */
    EVENT_PACKET_IN = 10,   /* a frame that a flow sends to the controller; from the switch */
    EVENT_PACKET_MISS = 11  /* a frame that no flow matches, from the switch; or a control frame */
} hal_event_type;           /* 1, 2 and 5 to 8 are kept free: nothing produces them yet */
enum { KR_SDN_HAL_EVENT_TYPE_COUNT = 12, KR_SDN_HAL_HANDLES_PER_EVENT = 10, KR_SDN_HAL_PACKET_SIZE = 4000 };

/* Reasons of EVENT_PORT_CAPABILITIES_UPDATE. */
enum { PORT_UPDATE_ADDED = 0, PORT_UPDATE_REMOVED = 1 };

typedef struct hal_event_packet {
    uint8_t data[KR_SDN_HAL_PACKET_SIZE]; /* the frame; a longer one is cut */
    uint32_t length;                      /* bytes */
    uint32_t in_port;                     /* OF port; 0 when the port is not in the port database */
} hal_event_packet;

typedef struct hal_event_port_oper {
    uint32_t port;       /* OF port; 0 when unknown */
    uint32_t oper_state; /* as the switch reports it: 1 up, 2 down */
} hal_event_port_oper;

typedef struct hal_event_port_update {
    uint32_t reason;     /* PORT_UPDATE_REMOVED: has to be acknowledged */
    uint32_t port;       /* OF port */
    uint32_t oper_state; /* as the switch reports it: 1 up, 2 down */
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

/* clang-format off */
/*               record                 field                          offset size */
KR_SDN_HAL_FIELD(hal_event_record,      type,                               0,    4);
KR_SDN_HAL_FIELD(hal_event_record,      reserved,                           4,    4);
KR_SDN_HAL_FIELD(hal_event_record,      payload,                            8, 4008);
KR_SDN_HAL_FIELD(hal_event_record,      payload.packet.data,                8, 4000);
KR_SDN_HAL_FIELD(hal_event_record,      payload.packet.length,           4008,    4);
KR_SDN_HAL_FIELD(hal_event_record,      payload.packet.in_port,          4012,    4);
KR_SDN_HAL_FIELD(hal_event_record,      payload.port_oper.port,             8,    4);
KR_SDN_HAL_FIELD(hal_event_record,      payload.port_oper.oper_state,      12,    4);
KR_SDN_HAL_FIELD(hal_event_record,      payload.port_update.reason,         8,    4);
KR_SDN_HAL_FIELD(hal_event_record,      payload.port_update.port,          12,    4);
KR_SDN_HAL_FIELD(hal_event_record,      payload.port_update.oper_state,    16,    4);
KR_SDN_HAL_FIELD(hal_event_record,      payload.port_update.mac_address,   20,    6);
KR_SDN_HAL_FIELD(hal_event_record,      payload.port_update.interface_name, 26,  16);
KR_SDN_HAL_FIELD(hal_event_record,      payload.agent.entries,              8,   48);
KR_SDN_HAL_FIELD(hal_event_record,      payload.agent.trailer,             56,    8);
KR_SDN_HAL_SIZE( hal_event_record,                                              4016);
KR_SDN_HAL_FIELD(hal_event_agent_entry, data,                               0,   16);
KR_SDN_HAL_FIELD(hal_event_agent_entry, value,                             16,    4);
KR_SDN_HAL_FIELD(hal_event_agent_entry, number,                            20,    2);
KR_SDN_HAL_FIELD(hal_event_agent_entry, reserved,                          22,    2);
KR_SDN_HAL_SIZE( hal_event_agent_entry,                                          24);
KR_SDN_HAL_FIELD(srvc_handle,           sdk_fd,                             0, sizeof(kr_host_ifc_fd));
KR_SDN_HAL_FIELD(srvc_handle,           hal_pipe,      sizeof(kr_host_ifc_fd), 2 * sizeof(int));
KR_SDN_HAL_FIELD(srvc_handle,           sdk_fd_open,   sizeof(kr_host_ifc_fd) + 8, 4);
KR_SDN_HAL_FIELD(srvc_handle,           is_open,       sizeof(kr_host_ifc_fd) + 12, 4);
/* clang-format on */

/*
 * The library's own: called by it during init, start, stop and deinit; exported for the connector's sake. A client
 * does not call them. SUCCESS; ERROR in the wrong stage or without a lock, nothing was changed; SDK_ERROR from the two
 * in the middle when the device could not be opened or closed, nothing was changed.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_init(void) KR_SDN_HAL_NOEXCEPT;
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_dependent_init(void) KR_SDN_HAL_NOEXCEPT;
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_dependent_deinit(void) KR_SDN_HAL_NOEXCEPT;
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_deinit(void) KR_SDN_HAL_NOEXCEPT;

/*
 * Opens a channel: makes its pipe, and its host-interface descriptor if the switch is started.
 *
 * handle  out: the channel; cleared first, whatever it held. Opening a channel that is open loses its descriptors,
 *         which are never closed then, and leaves its registrations in place for the new ones; if that open fails they
 *         stay as well, and the channel's memory has to stay in place until an open and a close have succeeded.
 *
 * SUCCESS      the channel is open and registered for nothing.
 * PARAM_ERROR  handle is NULL.
 * SDK_ERROR    no host-interface descriptor could be made; the channel is closed.
 * ERROR        no pipe could be made; the channel is closed, but a host-interface descriptor that was made stays open
 *              in handle->sdk_fd.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_open(srvc_handle *handle) KR_SDN_HAL_NOEXCEPT;

/*
 * Closes a channel: ends its registrations, waits until no producer writes to it any more, and closes its descriptors.
 * Unread events are lost; a producer that waits for room in this channel goes on. Close the channel before the switch
 * is stopped, or its host-interface descriptor cannot be closed in an orderly way, which is logged.
 *
 * handle  in/out: an open channel; its memory is free for another use afterwards.
 *
 * SUCCESS      the channel is closed.
 * PARAM_ERROR  handle is NULL or not open; nothing was changed.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_close(srvc_handle *handle) KR_SDN_HAL_NOEXCEPT;

/*
 * Lets a channel hear of an event type. Registering twice changes nothing. A type has room for
 * KR_SDN_HAL_HANDLES_PER_EVENT channels: one more is told SUCCESS, but does not get what the library itself sends.
 *
 * handle  in/out: an open channel; gains a host-interface descriptor if it has none and the switch is started.
 * event   in: a hal_event_type.
 *
 * SUCCESS      the channel is registered, if there was room.
 * PARAM_ERROR  handle is NULL or not open, or event is no type, or a type of the switch while the channel has no
 *              host-interface descriptor and the switch is not started; nothing was changed.
 * SDK_ERROR    no host-interface descriptor could be made, or the switch refused, as it does after a stop; the channel
 * is not registered.
 *
 * Waits while an event is written to the channels.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_event_register(srvc_handle *handle,
                                                                uint32_t event) KR_SDN_HAL_NOEXCEPT;

/*
 * Ends what kr_sdn_hal_srvc_event_register began. Events that are under way still arrive.
 *
 * handle  in: an open channel.
 * event   in: a hal_event_type.
 *
 * SUCCESS      the channel is not registered any more.
 * PARAM_ERROR  handle is NULL or not open, or event is no type, or a type of the switch and the channel has no
 *              host-interface descriptor; nothing was changed.
 * SDK_ERROR    the switch refused; the channel is still registered.
 * ERROR        the channel was not registered; the switch sends it nothing of this type any more all the same.
 *
 * Waits while an event is written to the channels.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_event_unregister(srvc_handle *handle,
                                                                  uint32_t event) KR_SDN_HAL_NOEXCEPT;

/*
 * Writes a record to every channel that is registered for its type. Called by the producers inside the library.
 *
 * record  in: the record; copied.
 *
 * SUCCESS      every registered channel has the record; also when there is none.
 * PARAM_ERROR  record is NULL, or its type is no hal_event_type; nothing was written.
 * ERROR        a pipe could not take the record: that channel and those after it did not get it.
 *
 * Waits while the pipe of a registered channel is full.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_process_event(const hal_event_record *record) KR_SDN_HAL_NOEXCEPT;

/*
 * Waits until one of several channels has something to receive.
 *
 * handles       in: handle_count open channels.
 * handle_count  in: 1 or more.
 * timeout       in/out: as for select(): NULL waits without limit, zero does not wait, and Linux writes back what is
 *               left of it.
 * ready_mask    out: bit (index modulo 32) for each channel that is ready. With more than 32 channels, those whose
 *               indexes lie 32 apart share a bit: receive from such a channel only if a select of its own says so.
 *
 * SUCCESS      *ready_mask was written; 0 when the time ran out.
 * PARAM_ERROR  handles, one of the channels or ready_mask is NULL, or handle_count is 0; *ready_mask is unchanged.
 * ERROR        select() failed: a channel is closed, or a signal came; *ready_mask is unchanged.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_select(srvc_handle **handles, uint32_t handle_count,
                                                        struct timeval *timeout,
                                                        uint32_t *ready_mask) KR_SDN_HAL_NOEXCEPT;

/*
 * Takes one event from a channel; waits for it. The library's own events come before those of the switch.
 *
 * handle  in: an open channel.
 * record  out: the event. Of an event of the switch only the fields of its payload are written.
 *
 * SUCCESS      *record holds the event.
 * PARAM_ERROR  handle is NULL or not open, or record is NULL; nothing was taken.
 * SDK_ERROR    the switch could not deliver, or delivered something that is no event for clients; that is gone.
 * ERROR        waiting or reading failed, or a signal came; nothing was taken, *record is undefined.
 * any other    the ingress port could not be looked up; the event is gone, *record is undefined.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_recv(srvc_handle *handle,
                                                      hal_event_record *record) KR_SDN_HAL_NOEXCEPT;

/*
 * Sends a frame out of a port, past the flow table.
 *
 * handle       in/out: an open channel; gains a host-interface descriptor if it has none and the switch is started.
 * packet       in: the frame, from the destination address on.
 * length       in: its length in bytes.
 * egress_port  in: OF port.
 * priority     in: 0 to 255, for the switch to interpret.
 *
 * SUCCESS          the switch took the frame.
 * PARAM_ERROR      handle is NULL or not open, packet is NULL, or the channel has no host-interface descriptor and the
 *                  switch is not started; nothing was sent.
 * ENTRY_NOT_FOUND  there is no such port; nothing was sent.
 * SDK_ERROR        no host-interface descriptor could be made, or the switch refused the frame; nothing was sent.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_packet_send(srvc_handle *handle, const void *packet, uint32_t length,
                                                             uint32_t egress_port,
                                                             uint8_t priority) KR_SDN_HAL_NOEXCEPT;

/*
 * Acknowledges an event. For the removal of a port (EVENT_PORT_CAPABILITIES_UPDATE with PORT_UPDATE_REMOVED) this is
 * what removes the port from the flow table and the port database, and lets the connector go on. One client does it,
 * once, when it is done with the port; from any thread but the connector's. No other event needs it.
 *
 * record  in: the event as it was received.
 *
 * SUCCESS          the port is gone and the connector goes on.
 * PARAM_NULL       record is NULL; nothing was changed.
 * CMD_UNSUPPORTED  the record is not the removal of a port; nothing was changed.
 * ENTRY_NOT_FOUND  there is no such port: its removal was acknowledged before. Nothing was changed.
 * any other        the port could not be taken out of the flow table or the port database; it stays there, and the
 *                  connector goes on waiting until an acknowledgement succeeds.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_srvc_event_ack(const hal_event_record *record) KR_SDN_HAL_NOEXCEPT;

/* ---- ports ----------------------------------------------------------------------------------------------------- */

/*
 * A port is named by its OF port: 0 to 65279 (0xFEFF), assigned when the connector adds the port and reported in
 * EVENT_PORT_CAPABILITIES_UPDATE. At most 100 ports exist at a time. The list of the ports and their capabilities come
 * from the library's own port database; everything else is done by the port plug-in of the system profile, which gets
 * the port number as the client gave it and decides what it refuses.
 *
 * Of all functions of this section, unless one says otherwise:
 *
 * SUCCESS               it is done, or the output is written.
 * NOT_INITIALIZED       no port plug-in is loaded: before kr_sdn_hal_init or after kr_sdn_hal_deinit; nothing was
 *                       changed.
 * PARAM_NULL            a pointer that must not be NULL is; neither plug-in nor database was asked.
 * PARAM_EXCEEDS_RANGE   a value lies outside the range given here; the plug-in was not asked.
 * any other             the plug-in's answer, unchanged; an output then holds what the plug-in left there.
 *
 * The functions take no lock and may be called from any thread, also while ports come and go; the plug-in serialises
 * what it has to. None may be called while kr_sdn_hal_deinit runs.
 */

/* What is asked of a port. PORT_ADMIN_NA is passed on like the others; what it means is the plug-in's affair. */
typedef enum port_admin_state { PORT_ADMIN_NA = 0, PORT_ADMIN_DOWN = 1, PORT_ADMIN_UP = 2 } port_admin_state;

/* What a port is. */
typedef enum port_oper_state { PORT_OPER_NA = 0, PORT_OPER_DOWN = 1, PORT_OPER_UP = 2 } port_oper_state;

/* What spanning tree lets a port do. */
typedef enum port_stp_state {
    PORT_STP_NA = 0,
    PORT_STP_DISCARDING = 1,
    PORT_STP_LEARNING = 2,
    PORT_STP_FORWARDING = 3
} port_stp_state;

/* Bytes, both included. */
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

/* Counts since the port was made or its counters were cleared. rx: into the switch; tx: out of it. */
typedef struct port_counters {
    uint64_t rx_packets, tx_packets;
    uint64_t rx_bytes, tx_bytes;
    uint64_t rx_dropped, tx_dropped; /* packets without an error that were not handed on */
    uint64_t rx_errors, tx_errors;   /* packets; those of the next three are among rx_errors */
    uint64_t rx_frame_errors, rx_overrun_errors, rx_crc_errors;
    uint64_t collisions;
} port_counters;

/* clang-format off */
/*               record            field            offset size */
KR_SDN_HAL_FIELD(port_speed_admin, speed_1g,             0,  4);
KR_SDN_HAL_FIELD(port_speed_admin, speed_10g,            4,  4);
KR_SDN_HAL_FIELD(port_speed_admin, speed_40g,            8,  4);
KR_SDN_HAL_FIELD(port_speed_admin, speed_100g,          12,  4);
KR_SDN_HAL_SIZE( port_speed_admin,                          16);
KR_SDN_HAL_SIZE( port_mac_address,                           6);
KR_SDN_HAL_FIELD(port_counters,    rx_packets,           0,  8);
KR_SDN_HAL_FIELD(port_counters,    tx_packets,           8,  8);
KR_SDN_HAL_FIELD(port_counters,    rx_bytes,            16,  8);
KR_SDN_HAL_FIELD(port_counters,    tx_bytes,            24,  8);
KR_SDN_HAL_FIELD(port_counters,    rx_dropped,          32,  8);
KR_SDN_HAL_FIELD(port_counters,    tx_dropped,          40,  8);
KR_SDN_HAL_FIELD(port_counters,    rx_errors,           48,  8);
KR_SDN_HAL_FIELD(port_counters,    tx_errors,           56,  8);
KR_SDN_HAL_FIELD(port_counters,    rx_frame_errors,     64,  8);
KR_SDN_HAL_FIELD(port_counters,    rx_overrun_errors,   72,  8);
KR_SDN_HAL_FIELD(port_counters,    rx_crc_errors,       80,  8);
KR_SDN_HAL_FIELD(port_counters,    collisions,          88,  8);
KR_SDN_HAL_SIZE( port_counters,                             96);
/* clang-format on */

/*
 * Lists the ports, or counts them.
 *
 * ports  out: OF ports in rising order; NULL to count only.
 * count  in: how many `ports` has room for; out: how many were written. With ports NULL or 0 on entry it receives the
 *        number of ports, and nothing else is written.
 *
 * SUCCESS     also when there are more ports than room: the lowest were written.
 * PARAM_NULL  count is NULL.
 *
 * Works in every stage; there are no ports before the connector adds one.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_arr_get(uint32_t *ports, uint32_t *count) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads the capabilities word of a port.
 *
 * port               in: OF port.
 * port_capabilities  out: 0 for a port that the connector's port event added.
 *
 * ENTRY_NOT_FOUND  there is no such port; *port_capabilities is unchanged.
 * PARAM_NULL       port_capabilities is NULL.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_capabilities_get(uint32_t port,
                                                                  uint32_t *port_capabilities) KR_SDN_HAL_NOEXCEPT;

/*
 * Sets the administrative state of a port.
 *
 * port         in: OF port.
 * admin_state  in: a port_admin_state; PARAM_EXCEEDS_RANGE for a value outside 0 to 2.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_state_set(uint32_t port, int32_t admin_state) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads the administrative and the operational state of a port, in this order.
 *
 * port         in: OF port.
 * admin_state  out: a port_admin_state; NULL: not wanted.
 * oper_state   out: a port_oper_state; NULL: not wanted.
 *
 * SUCCESS    also when neither is wanted; the plug-in is not asked then.
 * any other  of the read that failed. If that is the first one, the second was not made and *oper_state is unchanged.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_state_get(uint32_t port, int32_t *admin_state,
                                                           int32_t *oper_state) KR_SDN_HAL_NOEXCEPT;

/*
 * Sets the spanning-tree state of a port.
 *
 * port       in: OF port.
 * stp_state  in: a port_stp_state; PARAM_EXCEEDS_RANGE for a value outside 0 to 3.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_rstp_state_set(uint32_t port, int32_t stp_state) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads the spanning-tree state of a port.
 *
 * port       in: OF port.
 * stp_state  out: a port_stp_state; PARAM_NULL for NULL.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_rstp_state_get(uint32_t port, int32_t *stp_state) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads the MAC address of a port.
 *
 * port         in: OF port.
 * mac_address  out: the address; PARAM_NULL for NULL.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_phys_addr_get(uint32_t port,
                                                               port_mac_address *mac_address) KR_SDN_HAL_NOEXCEPT;

/*
 * Sets the speeds that a port may negotiate.
 *
 * port         in: OF port.
 * admin_speed  in: the flags; PARAM_NULL for NULL, PARAM_EXCEEDS_RANGE when a flag is neither 0 nor 1.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_speed_set(uint32_t port,
                                                           const port_speed_admin *admin_speed) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads the speeds that a port may negotiate and the speed that it has, in this order.
 *
 * port         in: OF port.
 * admin_speed  out: the flags; NULL: not wanted.
 * oper_speed   out: Mb/s; NULL: not wanted.
 *
 * SUCCESS    also when neither is wanted; the plug-in is not asked then.
 * any other  of the read that failed. If that is the first one, the second was not made and *oper_speed is unchanged.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_speed_get(uint32_t port, port_speed_admin *admin_speed,
                                                           uint32_t *oper_speed) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads which speeds a port is capable of.
 *
 * port              in: OF port.
 * speed_capability  out: PORT_SPEED_CAPABILITY_ bits; PARAM_NULL for NULL.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_speed_capability_get(uint32_t port,
                                                                      uint32_t *speed_capability) KR_SDN_HAL_NOEXCEPT;

/*
 * Does nothing: a port is flooded to as soon as it exists. Always SUCCESS, also for a port that does not exist; nothing
 * is written to *mode, which may be NULL.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_flood_mode_set(uint32_t port, uint32_t mode) KR_SDN_HAL_NOEXCEPT;
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_flood_mode_get(uint32_t port, uint32_t *mode) KR_SDN_HAL_NOEXCEPT;

/*
 * Sets the MTU of a port.
 *
 * port  in: OF port.
 * mtu   in: bytes; PARAM_EXCEEDS_RANGE for a value outside PORT_MTU_MIN to PORT_MTU_MAX.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_mtu_set(uint32_t port, uint16_t mtu) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads the MTU of a port.
 *
 * port  in: OF port.
 * mtu   out: bytes; PARAM_NULL for NULL.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_mtu_get(uint32_t port, uint16_t *mtu) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads the counters of a port.
 *
 * port      in: OF port.
 * counters  out: the counts; PARAM_NULL for NULL.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_cntr_get(uint32_t port, port_counters *counters) KR_SDN_HAL_NOEXCEPT;

/*
 * Starts the counters of a port, or of all ports, at 0 again.
 *
 * port       in: OF port.
 * all_ports  in: 0 this port, 1 all ports; PARAM_EXCEEDS_RANGE for another value.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_port_cntr_clear(uint32_t port, int32_t all_ports) KR_SDN_HAL_NOEXCEPT;

/* ---- flow tables ----------------------------------------------------------------------------------------------- */

/*
 * There is one table, Table 0: 1000 rules in hardware. A frame takes the matching flow of the highest priority; which
 * one of several with the same priority it takes is open. The table can be used between the start of the switch
 * (EVENT_GENERAL_READY) and its stop, which takes all flows with it; before and after that, flow functions return
 * ERROR.
 *
 * A flow is known by its id, which the client chooses. The first flows get a hardware counter each, 128 of them at a
 * time; a flow that is added when all are taken works like any other but its statistics stay 0. Deleting a flow that
 * has a counter frees it for a flow that is added later.
 *
 * Flow functions may be called from any thread, but not while kr_sdn_hal_deinit runs. An entry set holds the table for
 * its whole batch; reads wait for it, and run beside each other. Group functions take no lock: do not edit or delete a
 * group from two threads at once.
 *
 * The counts given must be those of the arrays; nothing here can check them. More than 134217727 flows in one entry set
 * or entry get are refused with ERROR before any memory is touched.
 */

/*
 * Adds or deletes a batch of flows.
 *
 * command     in: KR_SDN_HAL_CMD_ADD or KR_SDN_HAL_CMD_DELETE.
 * table       in: 0.
 * flows       in/out: the flows, one after the other. A delete looks at flow_id alone. For a flow that the table
 *             already holds, `priority` is overwritten with the one it was added with; nothing else is written.
 * flow_count  in: how many; 0 succeeds and does nothing.
 *
 * SUCCESS               all flows were added; or all flows named are gone, those that the table never held included.
 * PARAM_NULL            flows is NULL; nothing was changed.
 * PARAM_ERROR           there is no such table; or an add whose first flow has FLOW_ACTION_OUTPUT_ALL. Nothing was
 *                       changed. (Behind the first flow that action is not noticed, and the flow is as one with
 *                       FLOW_ACTION_NONE.)
 * NOT_INITIALIZED       the library is not initialised; nothing was changed.
 * CMD_UNSUPPORTED       another command; there is no modify. Nothing was changed.
 * ENTRY_ALREADY_EXISTS  the table holds one of the flows: nothing was changed. Or an id comes twice in the batch, or
 *                       was part of an add that failed: see below.
 * ENTRY_NOT_FOUND       an ingress or output port of an added flow is not in the port database: see below. On delete:
 *                       the place of a flow was lost, by an earlier failure or because its id comes twice in the batch.
 * PARAM_EXCEEDS_RANGE   an added flow has a priority above 65535: see below.
 * NO_RESOURCES          the table or the hardware has no room for one of the flows: see below.
 * ERROR                 the switch is not started, there is no memory, or a call of the hardware failed: see below.
 *
 * An add gives every flow of the batch its place first, and installs the flows in order then. It ends at the first
 * flow that fails and takes nothing back:
 * - if a flow gets no place, no rule was installed, but the flows before it keep theirs;
 * - if a flow cannot be installed, those before it are in hardware and forward frames, and all keep their places.
 * Either way none of the batch's flows that kept a place is known to the table: it can be neither read nor deleted, nor
 * added under the same id, and its place is not free, until the switch is stopped. A client that has to know which
 * flow is at fault adds flows one by one.
 *
 * A delete ends at the first flow that fails as well: the rules of those before it are gone from hardware, but the
 * table still knows all flows of the batch. To delete them again fails at the first one whose place is gone, and if a
 * flow that was added since has that place, it loses its rule. So name no flow twice in a delete, and after a delete
 * that failed add nothing before the switch was stopped and started again.
 *
 * A flow that could not be installed keeps the counter it was given out of the budget of 128, too, until the stop.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_entry_set(uint32_t command, uint32_t table, flow_record *flows,
                                                            uint32_t flow_count) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads flows back from hardware.
 *
 * table       in: 0.
 * flow_start  in: 0.
 * flow_ids    in: the flows to read.
 * flow_count  in: how many; not written. 0 succeeds and touches nothing.
 * flows       out: room for *flow_count records; the i-th becomes that of flow_ids[i]. It is rebuilt from the rule:
 *             booleans come back as 0 or 1, a vlan_action above 6 as 0, and out_port and mc_group_id only where the
 *             action uses them.
 *
 * SUCCESS          all records were written.
 * CMD_UNSUPPORTED  flow_start is not 0.
 * PARAM_NULL       a pointer is NULL.
 * PARAM_ERROR      there is no such table.
 * NOT_INITIALIZED  the library is not initialised.
 * ENTRY_NOT_FOUND  the table does not hold one of the flows: no rule was read; the records hold the ids and, of flows
 *                  that it holds, the priority. Or a rule names a port that is no longer in the port database: the
 *                  records before it were written.
 * ERROR            the switch is not started, there is no memory, or a rule could not be read: the records before it
 *                  were written.
 *
 * Unless the first four lines apply, or the count is one that is refused, all records were cleared first.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_entry_get(uint32_t table, uint64_t flow_start,
                                                            const uint64_t *flow_ids, uint32_t *flow_count,
                                                            flow_record *flows) KR_SDN_HAL_NOEXCEPT;

/*
 * Creates, deletes or edits a multicast group, to which flows forward with FLOW_ACTION_MC_GROUP.
 *
 * command     in: KR_SDN_HAL_GROUP_CREATE, _DELETE, _ADD_PORTS or _REMOVE_PORTS.
 * port_count  in: 0 to 100. 0 creates an empty group; it changes nothing in an edit, and is logged as an error there.
 * ports       in: OF ports, all of them in the port database. May be NULL for a delete.
 * group_id    out for a create, in otherwise.
 *
 * SUCCESS              the group was created (*group_id is its id) or deleted. For an edit it says that the command
 *                      was understood, no more: whether it was carried out shows in the log, or by reading the group.
 * PARAM_NULL           group_id is NULL, or ports is and the command is not a delete.
 * PARAM_EXCEEDS_RANGE  more than 100 ports; also for a delete.
 * CMD_UNSUPPORTED      another command.
 * ENTRY_NOT_FOUND      create: a port is not in the port database. Delete: the group is the one that floods, which
 *                      belongs to the library.
 * ERROR                the library is not initialised, or the hardware refused: no room for a group, no such group.
 *
 * A create or delete that fails changes nothing. A group is not tied to the flows that forward to it: deleting it
 * leaves them without a target. Groups outlive the flows, and the stop of the switch: delete them before.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_mcast_group_set(uint32_t command, uint32_t port_count,
                                                                  const uint32_t *ports,
                                                                  uint32_t *group_id) KR_SDN_HAL_NOEXCEPT;

/*
 * Reads the members of a multicast group.
 *
 * group_id    in: the group.
 * port_count  in: room at `ports`, 1 to 100; out: how many members there are.
 * ports       out: the members, as OF ports.
 *
 * SUCCESS              the members were written.
 * PARAM_NULL           a pointer is NULL.
 * PARAM_EXCEEDS_RANGE  *port_count is 0 or above 100.
 * ENTRY_NOT_FOUND      there is no such group, or it is the one that floods: nothing was written. Or a member is no
 *                      longer in the port database: the members before it were written, and *port_count is how many
 *                      there are in all.
 * ERROR                the library is not initialised, or the hardware refused; with too little room *port_count may
 *                      tell how many members there are.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_mcast_group_get(uint32_t group_id, uint32_t *port_count,
                                                                  uint32_t *ports) KR_SDN_HAL_NOEXCEPT;

/*
 * How many tables there are: 1, in any stage.
 *
 * table_count  out.
 *
 * SUCCESS     *table_count was written.
 * PARAM_NULL  table_count is NULL.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_capabilities_get(uint32_t *table_count) KR_SDN_HAL_NOEXCEPT;

/*
 * What a table can do. The answer never changes.
 *
 * table                   in: 0.
 * table_capabilities_out  out.
 *
 * SUCCESS          the record was written.
 * PARAM_ERROR      there is no such table.
 * PARAM_NULL       table_capabilities_out is NULL.
 * NOT_INITIALIZED  the library is not initialised.
 */
KR_SDN_HAL_API kr_sdn_hal_status
kr_sdn_hal_table_table_capabilities_get(uint32_t table, table_capabilities *table_capabilities_out) KR_SDN_HAL_NOEXCEPT;

/*
 * Whether frames have hit flows since their activity was last read. Reading it clears it.
 *
 * table       in: 0.
 * flow_ids    in: the flows.
 * flow_count  in: how many, at least 1.
 * activities  out: one value per flow: FLOW_ACTIVITY_IDLE, _HIT, or _UNKNOWN_FLOW for one that the table does not hold.
 *
 * SUCCESS          all values were written.
 * PARAM_ERROR      there is no such table, or flow_count is 0.
 * PARAM_NULL       a pointer is NULL.
 * NOT_INITIALIZED  the library is not initialised.
 * ERROR            the switch is not started, or a rule could not be read: the values before it were written, and
 *                  their activity is cleared.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_entry_activity_get(uint32_t table, const uint64_t *flow_ids,
                                                                     uint32_t flow_count,
                                                                     uint32_t *activities) KR_SDN_HAL_NOEXCEPT;

/*
 * Statistics of a table as a whole: how many flows it holds at most.
 *
 * table  in: 0.
 * stats  out.
 *
 * SUCCESS          the record was written.
 * PARAM_ERROR      there is no such table.
 * PARAM_NULL       stats is NULL.
 * CMD_UNSUPPORTED  the library was never initialised. After deinit the table still answers.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_table_stat_get(uint32_t table,
                                                                 table_stats *stats) KR_SDN_HAL_NOEXCEPT;

/*
 * Counts of frames and bytes that flows have matched since they were added.
 *
 * table       in: 0.
 * flow_ids    in: the flows.
 * flow_count  in: how many; 0 succeeds, whatever the pointers are.
 * stats       out: one record per flow; 0 for a flow without a counter.
 *
 * SUCCESS          the records were written up to the first flow that the table does not hold; those from there on are
 *                  0. To tell such a flow from one that nothing has hit, read the activity.
 * PARAM_ERROR      there is no such table.
 * PARAM_NULL       a pointer is NULL.
 * NOT_INITIALIZED  the library is not initialised.
 * ERROR            the switch is not started, or a counter could not be read: the records before it were written, the
 *                  others are 0.
 */
KR_SDN_HAL_API kr_sdn_hal_status kr_sdn_hal_table_entry_stat_get(uint32_t table, const uint64_t *flow_ids,
                                                                 uint32_t flow_count,
                                                                 flow_stats *stats) KR_SDN_HAL_NOEXCEPT;

#undef KR_SDN_HAL_FIELD
#undef KR_SDN_HAL_SIZE

#ifdef __cplusplus
}
#endif

#endif
