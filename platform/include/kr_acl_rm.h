/*
 * The ACL resource manager: ACLs and their rules, port bindings, counters and multicast groups.
 *
 * An ACL is a region of rules at fixed offsets. A frame that enters a port which the ACL is bound to is compared with
 * the valid rules; the one at the lowest offset wins. All records are plain and laid out to the byte; multi-byte
 * fields are in host order unless a comment says otherwise.
 */
#ifndef KR_ACL_RM_H
#define KR_ACL_RM_H

#include <stddef.h>
#include <stdint.h>

#include "kr_log.h"
#include "kr_status.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef uint64_t kr_acl_rm_handle;

/* Access commands. */
enum {
    KR_ACL_RM_CMD_GROUP_CREATE = 1,
    KR_ACL_RM_CMD_GROUP_DESTROY = 3,
    KR_ACL_RM_CMD_RULE_DELETE = 3,
    KR_ACL_RM_CMD_CREATE = 4,
    KR_ACL_RM_CMD_DESTROY = 5,
    KR_ACL_RM_CMD_RULE_SET = 6,
    KR_ACL_RM_CMD_BIND = 7,
    KR_ACL_RM_CMD_UNBIND = 8,
    KR_ACL_RM_CMD_GROUP_ADD_PORTS = 9,
    KR_ACL_RM_CMD_GROUP_REMOVE_PORTS = 10,
    KR_ACL_RM_CMD_COUNTER_READ = 13
};

/* The key of twelve fields, and its mask. */
enum { KR_ACL_KEY_TYPE_NONE = 0, KR_ACL_KEY_TYPE_TWELVE_FIELDS = 3 };

enum { KR_ACL_TRAP_ACTION_NONE = 0, KR_ACL_TRAP_ACTION_TRAP = 3, KR_ACL_TRAP_ACTION_DISCARD = 4 };
enum { KR_ACL_TRAP_MODE_NONE = 0, KR_ACL_TRAP_MODE_TRAP_ID = 3 };
enum { KR_ACL_FORWARD_NONE = 0, KR_ACL_FORWARD_PORT = 1, KR_ACL_FORWARD_GROUP = 2 };
enum { KR_ACL_ACTIVITY_NONE = 0, KR_ACL_ACTIVITY_READ_AND_CLEAR = 2 };

/*
 * VLAN edits are sums of three bits: 4 writes the priority operand, 8 writes the VLAN id operand, 16 changes the
 * number of tags: with 8 a tag is pushed, alone the outer tag is popped.
 */
enum {
    KR_ACL_VLAN_EDIT_NONE = 0,
    KR_ACL_VLAN_EDIT_SET_PCP = 4,
    KR_ACL_VLAN_EDIT_SET_VID = 8,
    KR_ACL_VLAN_EDIT_SET_VID_PCP = 12,
    KR_ACL_VLAN_EDIT_POP = 16,
    KR_ACL_VLAN_EDIT_PUSH_VID = 24,
    KR_ACL_VLAN_EDIT_PUSH_VID_PCP = 28
};

typedef struct kr_acl_rm_init_params {
    uint32_t mode; /* 1 */
} kr_acl_rm_init_params;

typedef struct kr_acl_attributes {
    uint32_t acl_id; /* out on create */
    uint32_t key_type;
    uint32_t direction;    /* 1: ingress */
    uint32_t acl_type;     /* 0 */
    uint32_t region_flags; /* 0 */
    uint32_t region_size;
    uint32_t region_size_max;
} kr_acl_attributes;

/* Key of a rule, and its mask: a frame matches when (frame ^ key) & mask is zero in every byte. */
typedef struct kr_acl_key {
    uint8_t eth_dst[6]; /* network order */
    uint8_t eth_src[6];
    uint16_t eth_type; /* of the payload behind all VLAN tags */
    uint8_t vlan_pcp;
    uint8_t reserved_15;
    uint16_t vlan_id;
    uint16_t reserved_18;
    uint32_t vlan_tagged; /* 2: the frame carries a VLAN tag, 0: it does not */
    uint32_t reserved_24;
    uint32_t ipv4_dst;
    uint32_t ipv4_src;
    uint16_t tp_src;
    uint16_t tp_dst;
    uint8_t ip_proto;
    uint8_t ip_tos;
    uint8_t reserved_42[6];
    uint32_t in_log_port;
    uint8_t reserved_52[76];
} kr_acl_key;

typedef struct kr_acl_rule {
    uint32_t set_offset;    /* where the rule is written */
    uint32_t access_offset; /* where a rule is read or deleted */
    uint8_t valid;
    uint8_t reserved_9[3];
    uint32_t key_type;
    kr_acl_key key;
    uint32_t mask_type;
    kr_acl_key mask;
    uint8_t reserved_276[4];
    uint32_t action_word_280; /* 0 */
    uint32_t reserved_284;
    uint32_t trap_action;
    uint8_t trap_mode;
    uint8_t reserved_293;
    uint16_t trap_id;
    uint32_t vlan_edit;
    uint16_t vlan_id;
    uint8_t vlan_pcp;
    uint8_t reserved_303[2];
    uint8_t action_valid;
    uint8_t reserved_306[2];
    uint32_t action_word_308; /* 0 */
    uint64_t action_word_312; /* 0xFFFFFFFF */
    uint32_t action_word_320; /* 0 */
    uint32_t action_word_324; /* 0 */
    uint32_t action_word_328; /* 0xFFFFFFFF */
    uint32_t reserved_332;
    uint32_t activity_mode;
    uint8_t activity; /* out: 1 when the rule was hit since the last read */
    uint8_t reserved_341[3];
    uint32_t forward_type;
    uint32_t forward_log_port;
    uint32_t forward_group_id;
    uint32_t counter_id; /* 0: none */
} kr_acl_rule;

typedef struct kr_acl_counter_attributes {
    uint32_t initial_state; /* 0 */
    uint32_t counter_type;  /* 1: bytes and packets */
} kr_acl_counter_attributes;

typedef struct kr_acl_counter_flags {
    uint32_t first_valid;
    uint32_t second_valid;
} kr_acl_counter_flags;

typedef struct kr_acl_counter_values {
    uint64_t first;  /* bytes */
    uint64_t second; /* packets */
} kr_acl_counter_values;

#ifdef __cplusplus
#define KR_FIELD(record, field, at, size)                                                                              \
    static_assert(offsetof(record, field) == (at) && sizeof(((record *)0)->field) == (size), #record "." #field)
#define KR_SIZE(record, size) static_assert(sizeof(record) == (size), #record)
#else
#define KR_FIELD(record, field, at, size)                                                                              \
    _Static_assert(offsetof(record, field) == (at) && sizeof(((record *)0)->field) == (size), #record "." #field)
#define KR_SIZE(record, size) _Static_assert(sizeof(record) == (size), #record)
#endif

/* clang-format off */
//       record        field             offset size
KR_FIELD(kr_acl_key,   eth_dst,               0,   6);
KR_FIELD(kr_acl_key,   eth_src,               6,   6);
KR_FIELD(kr_acl_key,   eth_type,             12,   2);
KR_FIELD(kr_acl_key,   vlan_pcp,             14,   1);
KR_FIELD(kr_acl_key,   vlan_id,              16,   2);
KR_FIELD(kr_acl_key,   vlan_tagged,          20,   4);
KR_FIELD(kr_acl_key,   ipv4_dst,             28,   4);
KR_FIELD(kr_acl_key,   ipv4_src,             32,   4);
KR_FIELD(kr_acl_key,   tp_src,               36,   2);
KR_FIELD(kr_acl_key,   tp_dst,               38,   2);
KR_FIELD(kr_acl_key,   ip_proto,             40,   1);
KR_FIELD(kr_acl_key,   ip_tos,               41,   1);
KR_FIELD(kr_acl_key,   in_log_port,          48,   4);
KR_SIZE( kr_acl_key,                              128);
KR_FIELD(kr_acl_rule,  set_offset,            0,   4);
KR_FIELD(kr_acl_rule,  access_offset,         4,   4);
KR_FIELD(kr_acl_rule,  valid,                 8,   1);
KR_FIELD(kr_acl_rule,  key_type,             12,   4);
KR_FIELD(kr_acl_rule,  key,                  16, 128);
KR_FIELD(kr_acl_rule,  mask_type,           144,   4);
KR_FIELD(kr_acl_rule,  mask,                148, 128);
KR_FIELD(kr_acl_rule,  action_word_280,     280,   4);
KR_FIELD(kr_acl_rule,  trap_action,         288,   4);
KR_FIELD(kr_acl_rule,  trap_mode,           292,   1);
KR_FIELD(kr_acl_rule,  trap_id,             294,   2);
KR_FIELD(kr_acl_rule,  vlan_edit,           296,   4);
KR_FIELD(kr_acl_rule,  vlan_id,             300,   2);
KR_FIELD(kr_acl_rule,  vlan_pcp,            302,   1);
KR_FIELD(kr_acl_rule,  action_valid,        305,   1);
KR_FIELD(kr_acl_rule,  action_word_308,     308,   4);
KR_FIELD(kr_acl_rule,  action_word_312,     312,   8);
KR_FIELD(kr_acl_rule,  action_word_320,     320,   4);
KR_FIELD(kr_acl_rule,  action_word_324,     324,   4);
KR_FIELD(kr_acl_rule,  action_word_328,     328,   4);
KR_FIELD(kr_acl_rule,  activity_mode,       336,   4);
KR_FIELD(kr_acl_rule,  activity,            340,   1);
KR_FIELD(kr_acl_rule,  forward_type,        344,   4);
KR_FIELD(kr_acl_rule,  forward_log_port,    348,   4);
KR_FIELD(kr_acl_rule,  forward_group_id,    352,   4);
KR_FIELD(kr_acl_rule,  counter_id,          356,   4);
KR_SIZE( kr_acl_rule,                             360);
KR_SIZE( kr_acl_attributes,                        28);
KR_SIZE( kr_acl_counter_attributes,                 8);
KR_SIZE( kr_acl_counter_flags,                      8);
KR_SIZE( kr_acl_counter_values,                    16);
/* clang-format on */

#undef KR_FIELD
#undef KR_SIZE

/* Opens the resource manager; `log_callback` may be NULL. */
kr_status kr_acl_rm_api_open(kr_acl_rm_handle *handle, kr_log_callback log_callback);
kr_status kr_acl_rm_api_init(kr_acl_rm_handle handle, const kr_acl_rm_init_params *params);
/* Closes the handle and clears *handle; the last one takes the counters that no rule names with it. */
kr_status kr_acl_rm_api_close(kr_acl_rm_handle *handle);

/*
 * Command 4 creates an ACL with room for region_size rules and writes acl_id; NO_RESOURCES when there are too many
 * ACLs or rules. Command 5 destroys the ACL acl_id with its rules, their counters and its port bindings.
 */
kr_status kr_acl_rm_api_acl_set(kr_acl_rm_handle handle, uint32_t command, kr_acl_attributes *attributes);

/*
 * Command 7 binds the ACL to ports (NO_HARDWARE_RESOURCES when the device has no room, RESOURCE_IN_USE for a port that
 * is bound to another ACL), 8 unbinds it. A port that is bound, or not bound, already succeeds without a change.
 */
kr_status kr_acl_rm_api_acl_bind_port_set(kr_acl_rm_handle handle, uint32_t command, uint32_t acl_id,
                                          const uint32_t *log_ports, uint32_t count);

/*
 * Command 6 writes `count` rules, each at its set_offset, over what was there; 3 deletes those at their access_offset.
 * Deleting where no rule is succeeds. All of a batch is written or, on failure, none. A counter belongs to the rules
 * that name it and is released with the last of them. PARAM_ERROR for a rule whose valid or action_valid is not 1 or
 * with a type or action that is not listed above, ENTRY_NOT_FOUND for an unknown ACL, group or counter,
 * PARAM_EXCEEDS_RANGE for an offset outside the region, NO_RESOURCES when the device can't take the rule.
 */
kr_status kr_acl_rm_api_acl_rule_set(kr_acl_rm_handle handle, uint32_t command, uint32_t acl_id, kr_acl_rule *rules,
                                     uint32_t count);

/*
 * Reads *count rules, each from its access_offset; *count becomes the number read. With activity_mode 2 the rule's
 * activity is reported and cleared, with 0 it is left alone and the activity byte is 0. `reserved` is 0.
 * ENTRY_NOT_FOUND where no valid rule is.
 */
kr_status kr_acl_rm_api_acl_rule_get(kr_acl_rm_handle handle, uint32_t acl_id, uint32_t reserved, kr_acl_rule *rules,
                                     uint32_t *count);

/*
 * Moves the `size` offsets from old_start to new_start; counters and activity stay with their rules. The blocks may
 * overlap. RESOURCE_IN_USE when a valid rule outside the source block would be overwritten; nothing is moved then.
 */
kr_status kr_acl_rm_api_acl_rule_move_block(kr_acl_rm_handle handle, uint32_t acl_id, uint32_t old_start, uint32_t size,
                                            uint32_t new_start);

/* Command 4 creates a counter and writes *counter_id (never 0); NO_RESOURCES when all are in use. */
kr_status kr_acl_rm_api_counter_set(kr_acl_rm_handle handle, uint32_t command,
                                    const kr_acl_counter_attributes *attributes, uint32_t *counter_id);

/* Command 13 reads a counter. ENTRY_NOT_FOUND for an id that is not in use. */
kr_status kr_acl_rm_api_counter_get(kr_acl_rm_handle handle, uint32_t command, uint32_t counter_id,
                                    kr_acl_counter_flags *flags, kr_acl_counter_values *values);

/*
 * Command 1 creates a multicast group of the listed ports and writes *group_id (never 0; NO_RESOURCES when there is
 * no room), 3 destroys it, 9 adds ports (those present stay), 10 removes ports (those absent are ignored).
 */
kr_status kr_acl_rm_api_acl_mc_group_set(kr_acl_rm_handle handle, uint32_t command, uint32_t port_count,
                                         const uint32_t *log_ports, uint32_t *group_id);

/*
 * Reads the members of a group. *port_count: in, room at log_ports; out, members written. ENTRY_NOT_FOUND for an
 * unknown group; NO_RESOURCES when the room does not suffice: *port_count is then the number of members.
 */
kr_status kr_acl_rm_api_acl_mc_group_get(kr_acl_rm_handle handle, uint32_t group_id, uint32_t *port_count,
                                         uint32_t *log_ports);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
