/*
 * Control of the software platform: what a test, a tool or a reference plug-in does to a switch that a person would do
 * with hands: plug and unplug ports, feed and read frames, break things, and look inside.
 *
 * The library under the OpenFlow agent never includes this header. All functions are safe from any thread and return
 * a kr_status unless they say otherwise.
 */
#ifndef KR_SOFT_H
#define KR_SOFT_H

#include <stddef.h>
#include <stdint.h>

#include "kr_acl_rm.h"
#include "kr_psort.h"
#include "kr_status.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- limits of the device -------------------------------------------------------------------------------------- */

enum {
    KR_SOFT_MAX_PORTS = 128,
    KR_SOFT_MAX_ACLS = 4,
    KR_SOFT_MAX_RULES = 1000, /* of one ACL */
    KR_SOFT_MAX_GROUPS = 256, /* multicast groups, the flood group included */
    KR_SOFT_MAX_COUNTERS = 1024,
    KR_SOFT_MAX_BINDINGS = 128, /* ports bound to ACLs */
    KR_SOFT_MAX_FRAME = 10240,  /* bytes of one frame, tags included */
    KR_SOFT_CHANNEL_QUEUE = 512 /* frames and events that one host-interface descriptor holds */
};

/* Trap ids of control protocols. A frame of such a protocol is trapped before the rules see it, if a channel is
 * registered for the id; otherwise it goes on to the rules like any other. */
enum {
    KR_SOFT_TRAP_ID_STP = 16,   /* to 01:80:c2:00:00:00, LLC 42 42 03 */
    KR_SOFT_TRAP_ID_LACP = 17,  /* EtherType 0x8809 */
    KR_SOFT_TRAP_ID_EAPOL = 18, /* EtherType 0x888e */
    KR_SOFT_TRAP_ID_LLDP = 19   /* EtherType 0x88cc */
};

/* ---- the switch as a whole ------------------------------------------------------------------------------------- */

/*
 * Back to the state of a fresh process: no ports, ACLs, groups, counters, descriptors, faults or journal. For tests,
 * between cases; nothing of the platform may be in use.
 */
void kr_soft_reset(void);

/* ---- ports ----------------------------------------------------------------------------------------------------- */

/* Adds a port in memory: frames are injected and read by the caller. Its link is up. ENTRY_ALREADY_EXISTS. */
kr_status kr_soft_port_add_memory(uint32_t log_port);

/*
 * Adds a port on the Linux interface `interface_name` (veth, TAP, physical) of the calling thread's network namespace.
 * Its link follows the interface. ENTRY_NOT_FOUND when there is no such interface, ERROR when it can't be opened.
 */
kr_status kr_soft_port_add_interface(uint32_t log_port, const char *interface_name);

/*
 * Adds a port on capture files (pcap): frames of `input_path` (may be NULL) enter the switch when
 * kr_soft_port_play is called; what leaves is written to `output_path` (may be NULL). PARAM_ERROR when both are the
 * same file, ERROR when the input is no capture of Ethernet frames or a file can't be opened.
 */
kr_status kr_soft_port_add_capture(uint32_t log_port, const char *input_path, const char *output_path);

/* Feeds all frames of the port's input file, in order, on the calling thread; *frame_count receives how many. */
kr_status kr_soft_port_play(uint32_t log_port, uint64_t *frame_count);

/* Removes a port. Bindings and group memberships of the port stay, as on a device whose port loses its module. */
kr_status kr_soft_port_remove(uint32_t log_port);

/* Takes the link of a port in memory down (0) or up (1), or forces that of another port down; a change raises the
 * port up/down trap. Frames neither enter nor leave by a port that is down. */
kr_status kr_soft_port_link_set(uint32_t log_port, uint32_t up);

/* What spanning tree lets a port do: the values are those of the port API's STP states. */
enum { KR_SOFT_STP_NONE = 0, KR_SOFT_STP_DISCARDING = 1, KR_SOFT_STP_LEARNING = 2, KR_SOFT_STP_FORWARDING = 3 };

/* Discarding and learning stop data frames both ways; control protocols still reach the CPU. */
kr_status kr_soft_port_stp_set(uint32_t log_port, uint32_t stp_state);
kr_status kr_soft_port_stp_get(uint32_t log_port, uint32_t *stp_state);

typedef struct kr_soft_port_counters {
    uint64_t rx_packets, rx_bytes; /* entered the switch */
    uint64_t tx_packets, tx_bytes; /* left it */
} kr_soft_port_counters;

kr_status kr_soft_port_counters_get(uint32_t log_port, kr_soft_port_counters *counters);

/* Lets a frame enter the switch at a port. It is handled before the call returns. PARAM_EXCEEDS_RANGE for a size that
 * is no Ethernet frame (14 to KR_SOFT_MAX_FRAME bytes); ENTRY_NOT_FOUND for an unknown port. */
kr_status kr_soft_port_inject(uint32_t log_port, const void *frame, uint32_t size);

/*
 * Takes the oldest frame that left by a port in memory. *size: in, room; out, its size. KR_STATUS_TIMEOUT when none
 * came within `timeout_us` microseconds (0: do not wait).
 */
kr_status kr_soft_port_read(uint32_t log_port, void *frame, uint32_t *size, uint32_t timeout_us);

/* ---- faults and journal ---------------------------------------------------------------------------------------- */

/*
 * Of the next calls of the contract function `function` (its name, as "kr_acl_rm_api_acl_rule_set"; "*" for any), lets
 * the `nth` (0: the next one) fail with `code`, and with `persistent` not 0 every later one too. The call does nothing
 * else. For functions that return a pointer (cl_malloc, cl_qpool_get) the failure is NULL. Several faults may be
 * pending. PARAM_ERROR for a name that is not a contract function that can fail.
 */
kr_status kr_soft_fault_set(const char *function, uint32_t nth, uint32_t code, uint32_t persistent);
void kr_soft_fault_clear(void);

/* Calls of a contract function ("*": of all) since the process started or the last reset. Counted while the journal
 * is on or a fault is pending. */
uint64_t kr_soft_call_count(const char *function);

/*
 * The journal: one line for each call of a contract function that can fail, as it ended, in order:
 * name(arguments) = status. Functions that can't (kr_log, locks, quick map) are not in it. Off at first.
 */
void kr_soft_journal_start(void); /* empties it and turns it on */
void kr_soft_journal_stop(void);
/* The lines so far, each ended by a newline, NUL-terminated. The caller gives the text back with free(). */
char *kr_soft_journal_text(void);

/* ---- looking inside -------------------------------------------------------------------------------------------- */

typedef struct kr_soft_rule_state {
    kr_acl_rule rule; /* as it was written; set_offset is where it is now */
    uint32_t activity;
    uint64_t hit_bytes, hit_packets; /* of every rule, with or without a counter */
} kr_soft_rule_state;

/* Reads the valid rules of an ACL, lowest offset first; *count: in, room; out, how many there are. NO_RESOURCES when
 * there are more than fit: those that fit are written. ENTRY_NOT_FOUND for an unknown ACL. */
kr_status kr_soft_rules_get(uint32_t acl_id, kr_soft_rule_state *rules, uint32_t *count);

/* The ids of the ACLs that exist. *count: in, room; out, how many there are; NO_RESOURCES as above. */
kr_status kr_soft_acls_get(uint32_t *acl_ids, uint32_t *count);

/* Reads the entries of a pSort table, lowest index first. *count as above; NO_RESOURCES as above. INVALID_HANDLE for a
 * handle that psort_init did not make. No call on the table may be under way, as for all of pSort. */
kr_status kr_soft_psort_entries_get(psort_handle handle, psort_entry *entries, uint32_t *count);

typedef struct kr_soft_usage {
    uint32_t acl_count, rule_count, counter_count, group_count, binding_count, port_count, descriptor_count;
    uint32_t device_handle_count, acl_rm_handle_count;
    uint64_t moved_rule_count; /* rules moved by block moves since the last reset */
    uint64_t block_move_count;
} kr_soft_usage;

void kr_soft_usage_get(kr_soft_usage *usage);

/* Why frames were dropped. */
typedef enum kr_soft_drop_reason {
    KR_SOFT_DROP_INGRESS_DOWN,    /* entered by a port whose link is down */
    KR_SOFT_DROP_INGRESS_STP,     /* spanning tree blocks the ingress port */
    KR_SOFT_DROP_MALFORMED,       /* too short, too long */
    KR_SOFT_DROP_RULE_DISCARD,    /* a rule says so */
    KR_SOFT_DROP_RULE_NO_TARGET,  /* the rule has neither trap nor target */
    KR_SOFT_DROP_NO_MATCH,        /* no rule matches and no channel wants the frame */
    KR_SOFT_DROP_NO_TRAP_CHANNEL, /* trapped, and no channel is registered for the trap id */
    KR_SOFT_DROP_CHANNEL_FULL,    /* a channel's queue is full; counted per channel */
    KR_SOFT_DROP_NO_EGRESS_PORT,  /* the target port does not exist */
    KR_SOFT_DROP_NO_GROUP,        /* the target group does not exist */
    KR_SOFT_DROP_EMPTY_GROUP,     /* the group has no member but the ingress port */
    KR_SOFT_DROP_EGRESS_DOWN,     /* the target port's link is down; counted per port */
    KR_SOFT_DROP_EGRESS_STP,      /* spanning tree blocks the target port; counted per port */
    KR_SOFT_DROP_EGRESS_FULL,     /* the target port could not take it; counted per port */
    KR_SOFT_DROP_EGRESS_TOO_LONG, /* longer than the target interface takes; counted per port */
    KR_SOFT_DROP_REASON_COUNT
} kr_soft_drop_reason;

const char *kr_soft_drop_reason_name(kr_soft_drop_reason reason); /* static text, NULL for an unknown one */
uint64_t kr_soft_drop_count(kr_soft_drop_reason reason);

/* Writes rules, groups, bindings, ports and drop counts for a person to `stream` (a FILE *). */
void kr_soft_dump(void *stream);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
