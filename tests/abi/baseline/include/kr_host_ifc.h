/*
 * The host interface: packets between the switch and its CPU.
 *
 * A host-interface descriptor is a queue of trapped frames and events with a file descriptor that select() sees as
 * readable while something is queued. Which frames reach it is chosen by trap id, with
 * kr_api_host_ifc_trap_id_register_set of the device API.
 */
#ifndef KR_HOST_IFC_H
#define KR_HOST_IFC_H

#include <stdint.h>

#include "kr_status.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A host-interface descriptor, as kr_api_host_ifc_open fills it. Copied by value freely. */
typedef struct kr_host_ifc_fd {
    int fd;
    uint32_t valid; /* 1 between open and close */
} kr_host_ifc_fd;

/* Where trapped frames go: a channel type, 0 for a descriptor, and the descriptor. */
typedef struct kr_user_channel {
    uint32_t type;
    kr_host_ifc_fd descriptor;
} kr_user_channel;

enum { KR_USER_CHANNEL_TYPE_FD = 0 };

/* Trap ids that every platform has. Ids of control protocols are the platform's own. */
enum {
    KR_TRAP_ID_PORT_UP_DOWN = 8, /* an event, not a frame */
    KR_TRAP_ID_PACKET_IN = 464,  /* a frame that a rule traps */
    KR_TRAP_ID_PACKET_MISS = 479 /* a frame that no rule matches */
};

/* What came with a received frame or event. */
typedef struct kr_receive_info {
    uint32_t trap_id;
    uint32_t source_log_port; /* of a frame */
    struct {
        uint32_t log_port;
        uint32_t oper_state;
    } port_up_down;         /* of trap id 8 */
    uint32_t original_size; /* bytes that the frame had before it was cut to the room given */
} kr_receive_info;

/*
 * Takes the oldest frame or event of a descriptor. `size`: in, the room at `frame` in bytes; out, the bytes received
 * (0 for an event). A longer frame is cut to the room. Blocks while nothing is queued. KR_STATUS_INVALID_HANDLE,
 * KR_STATUS_PARAM_NULL or KR_STATUS_ERROR on failure; nothing is taken then.
 */
kr_status kr_lib_host_ifc_recv(kr_host_ifc_fd *descriptor, void *frame, uint32_t *size, kr_receive_info *info);

/*
 * Sends a frame out of a port, past the rules. `swid` is 0. KR_STATUS_ENTRY_NOT_FOUND for a port that does not exist,
 * KR_STATUS_PARAM_EXCEEDS_RANGE for a size that is no Ethernet frame, KR_STATUS_ERROR when the port could not take it.
 */
kr_status kr_lib_host_ifc_unicast_ctrl_send(kr_host_ifc_fd *descriptor, const void *frame, uint32_t size, uint8_t swid,
                                            uint32_t egress_log_port, uint8_t priority);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
