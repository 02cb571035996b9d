/*
 * Flows as a client of the SDN HAL describes them and reads them back: the match of twelve fields with masks, the
 * action, statistics, activity and the capabilities of a table.
 *
 * Plain C11. Key values and masks reach the hardware as given; whether a value lies inside its mask, or whether fields
 * go together, is not checked.
 */
#ifndef KR_FLOW_RECORD_H
#define KR_FLOW_RECORD_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Commands of kr_sdn_hal_table_entry_set; the group command values are below. */
enum { KR_SDN_HAL_CMD_ADD = 0, KR_SDN_HAL_CMD_DELETE = 2 };

/* Commands of kr_sdn_hal_table_mcast_group_set. */
enum {
    KR_SDN_HAL_GROUP_CREATE = 0,
    KR_SDN_HAL_GROUP_DELETE = 2,
    KR_SDN_HAL_GROUP_ADD_PORTS = 3,
    KR_SDN_HAL_GROUP_REMOVE_PORTS = 4
};
enum { KR_SDN_HAL_GROUP_MAX_PORTS = 100 };

typedef enum flow_action {
    FLOW_ACTION_NONE = 0,       /* neither a trap nor a target is programmed */
    FLOW_ACTION_DROP = 1,       /* discard the packet */
    FLOW_ACTION_OUTPUT = 2,     /* send out of `out_port` */
    FLOW_ACTION_CONTROLLER = 3, /* deliver to the clients as EVENT_PACKET_IN */
    FLOW_ACTION_FLOOD = 4,      /* send to every port but the ingress port */
    FLOW_ACTION_MC_GROUP = 5,   /* send to the members of group `mc_group_id`, which is not checked to exist */
    FLOW_ACTION_OUTPUT_ALL = 6  /* refused on add, in the first flow of a batch; elsewhere as FLOW_ACTION_NONE */
} flow_action;

/* VLAN edits; vid and pcp are the operands `vlan_action_vid` and `vlan_action_pcp`. */
typedef enum flow_vlan_action {
    FLOW_VLAN_NONE = 0,
    FLOW_VLAN_PUSH_VID = 1,     /* push a tag with vid and the priority of the tag that it covers, 0 without one */
    FLOW_VLAN_SET_PCP = 2,      /* write pcp; an untagged frame gets a tag with id 0 */
    FLOW_VLAN_PUSH_VID_PCP = 3, /* push a tag with vid and pcp */
    FLOW_VLAN_POP = 4,          /* remove the outer tag, if there is one */
    FLOW_VLAN_SET_VID_PCP = 5,  /* write vid and pcp; an untagged frame gets a tag */
    FLOW_VLAN_SET_VID = 6       /* write vid; an untagged frame gets a tag with priority 0 */
} flow_vlan_action;

typedef struct flow_record {
    uint64_t flow_id;  /* the client's choice, unique in the table */
    uint32_t priority; /* 0 to 65535; the highest wins, and among equals it is open which one does */

    /* The match: each field is followed by its mask. Numbers are in host order. */
    uint32_t in_port;     /* ingress OF port */
    uint8_t in_port_mask; /* 0: any port, and in_port is not looked at; otherwise in_port exactly */
    uint8_t eth_src[6];   /* network order */
    uint8_t eth_src_mask[6];
    uint8_t eth_dst[6];
    uint8_t eth_dst_mask[6];
    uint8_t vlan_tagged;      /* 0 or 1 */
    uint8_t vlan_tagged_mask; /* 0: tagged or not; otherwise as vlan_tagged says */
    uint16_t vlan_id;
    uint16_t vlan_id_mask;
    uint8_t vlan_pcp;
    uint8_t vlan_pcp_mask;
    uint16_t eth_type;
    uint16_t eth_type_mask;
    uint8_t ip_tos;
    uint8_t ip_tos_mask;
    uint8_t ip_proto;
    uint8_t ip_proto_mask;
    uint32_t ipv4_src;
    uint32_t ipv4_src_mask;
    uint32_t ipv4_dst;
    uint32_t ipv4_dst_mask;
    uint16_t tp_src;
    uint16_t tp_src_mask;
    uint16_t tp_dst;
    uint16_t tp_dst_mask;

    /* The action. */
    uint32_t action;      /* a flow_action */
    uint32_t out_port;    /* OF port, for FLOW_ACTION_OUTPUT */
    uint32_t mc_group_id; /* for FLOW_ACTION_MC_GROUP */
    uint32_t vlan_action; /* a flow_vlan_action; a value above 6 counts as 0 */
    uint16_t vlan_action_vid;
    uint8_t vlan_action_pcp;
} flow_record;

/* Counts of one flow; both are 0 for a flow that has no counter. */
typedef struct flow_stats {
    uint64_t count_first;  /* packets, on a platform whose counters hold bytes first and packets second */
    uint64_t count_second; /* bytes, on such a platform */
} flow_stats;

/* Activity of one flow. */
enum { FLOW_ACTIVITY_IDLE = 0, FLOW_ACTIVITY_HIT = 1, FLOW_ACTIVITY_UNKNOWN_FLOW = 2 };

typedef struct table_stats {
    uint32_t max_entries;
    uint32_t reserved[3]; /* 0 */
} table_stats;

typedef struct table_capabilities {
    char name[32];            /* NUL-terminated */
    uint32_t max_entries;     /* flows */
    uint32_t table_flag;      /* 1 for Table 0 */
    uint64_t instructions;    /* bit n: OpenFlow 1.2 instruction type n */
    uint64_t write_actions;   /* bit n: OpenFlow 1.2 action type n */
    uint64_t apply_actions;   /* as above */
    uint64_t match;           /* bit n: OpenFlow 1.2 basic match field n can be matched */
    uint64_t wildcards;       /* bit n: field n can be a wildcard */
    uint64_t apply_setfields; /* bit n: field n can be set */
} table_capabilities;

#ifdef __cplusplus
#define KR_FLOW_FIELD(record, field, at, size)                                                                         \
    static_assert(offsetof(record, field) == (at) && sizeof(((record *)0)->field) == (size), #record "." #field)
#define KR_FLOW_SIZE(record, size) static_assert(sizeof(record) == (size), #record)
#else
#define KR_FLOW_FIELD(record, field, at, size)                                                                         \
    _Static_assert(offsetof(record, field) == (at) && sizeof(((record *)0)->field) == (size), #record "." #field)
#define KR_FLOW_SIZE(record, size) _Static_assert(sizeof(record) == (size), #record)
#endif

/* clang-format off */
//            record              field             offset size
KR_FLOW_FIELD(flow_record,        flow_id,               0,  8);
KR_FLOW_FIELD(flow_record,        priority,              8,  4);
KR_FLOW_FIELD(flow_record,        in_port,              12,  4);
KR_FLOW_FIELD(flow_record,        in_port_mask,         16,  1);
KR_FLOW_FIELD(flow_record,        eth_src,              17,  6);
KR_FLOW_FIELD(flow_record,        eth_src_mask,         23,  6);
KR_FLOW_FIELD(flow_record,        eth_dst,              29,  6);
KR_FLOW_FIELD(flow_record,        eth_dst_mask,         35,  6);
KR_FLOW_FIELD(flow_record,        vlan_tagged,          41,  1);
KR_FLOW_FIELD(flow_record,        vlan_tagged_mask,     42,  1);
KR_FLOW_FIELD(flow_record,        vlan_id,              44,  2);
KR_FLOW_FIELD(flow_record,        vlan_id_mask,         46,  2);
KR_FLOW_FIELD(flow_record,        vlan_pcp,             48,  1);
KR_FLOW_FIELD(flow_record,        vlan_pcp_mask,        49,  1);
KR_FLOW_FIELD(flow_record,        eth_type,             50,  2);
KR_FLOW_FIELD(flow_record,        eth_type_mask,        52,  2);
KR_FLOW_FIELD(flow_record,        ip_tos,               54,  1);
KR_FLOW_FIELD(flow_record,        ip_tos_mask,          55,  1);
KR_FLOW_FIELD(flow_record,        ip_proto,             56,  1);
KR_FLOW_FIELD(flow_record,        ip_proto_mask,        57,  1);
KR_FLOW_FIELD(flow_record,        ipv4_src,             60,  4);
KR_FLOW_FIELD(flow_record,        ipv4_src_mask,        64,  4);
KR_FLOW_FIELD(flow_record,        ipv4_dst,             68,  4);
KR_FLOW_FIELD(flow_record,        ipv4_dst_mask,        72,  4);
KR_FLOW_FIELD(flow_record,        tp_src,               76,  2);
KR_FLOW_FIELD(flow_record,        tp_src_mask,          78,  2);
KR_FLOW_FIELD(flow_record,        tp_dst,               80,  2);
KR_FLOW_FIELD(flow_record,        tp_dst_mask,          82,  2);
KR_FLOW_FIELD(flow_record,        action,               84,  4);
KR_FLOW_FIELD(flow_record,        out_port,             88,  4);
KR_FLOW_FIELD(flow_record,        mc_group_id,          92,  4);
KR_FLOW_FIELD(flow_record,        vlan_action,          96,  4);
KR_FLOW_FIELD(flow_record,        vlan_action_vid,     100,  2);
KR_FLOW_FIELD(flow_record,        vlan_action_pcp,     102,  1);
KR_FLOW_SIZE( flow_record,                                104);
KR_FLOW_FIELD(flow_stats,         count_first,           0,  8);
KR_FLOW_FIELD(flow_stats,         count_second,          8,  8);
KR_FLOW_SIZE( flow_stats,                                  16);
KR_FLOW_FIELD(table_stats,        max_entries,           0,  4);
KR_FLOW_SIZE( table_stats,                                 16);
KR_FLOW_FIELD(table_capabilities, name,                  0, 32);
KR_FLOW_FIELD(table_capabilities, max_entries,          32,  4);
KR_FLOW_FIELD(table_capabilities, table_flag,           36,  4);
KR_FLOW_FIELD(table_capabilities, instructions,         40,  8);
KR_FLOW_FIELD(table_capabilities, write_actions,        48,  8);
KR_FLOW_FIELD(table_capabilities, apply_actions,        56,  8);
KR_FLOW_FIELD(table_capabilities, match,                64,  8);
KR_FLOW_FIELD(table_capabilities, wildcards,            72,  8);
KR_FLOW_FIELD(table_capabilities, apply_setfields,      80,  8);
KR_FLOW_SIZE( table_capabilities,                          88);
/* clang-format on */

#undef KR_FLOW_FIELD
#undef KR_FLOW_SIZE

#ifdef __cplusplus
}
#endif

#endif
