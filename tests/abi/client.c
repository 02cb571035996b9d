/*
 * A client in strict C11 that includes the public header and nothing else of the project: it calls every function of
 * the library and looks at every record byte by byte.
 *
 * It is compiled alone, and linked with the shared library and run. The library is never initialised here, so each call
 * answers what its place in the header says for that stage.
 */
#include "kr_sdn_hal.h"

#include <stdio.h>
#include <string.h>

static int failures;

static void expect(const char *call, kr_sdn_hal_status status, kr_sdn_hal_status expected) {
    if (status != expected) {
        printf("%s: %u, should be %u\n", call, (unsigned)status, (unsigned)expected);
        failures++;
    }
}
#define EXPECT(call, expected) expect(#call, call, expected)

/* ---- records ----------------------------------------------------------------------------------------------------- */

/* Written down a second time on purpose: the header's own checks could be changed together with a record. */
#define FIELD(record, field, at, size)                                                                                 \
    _Static_assert(offsetof(record, field) == (at) && sizeof(((record *)0)->field) == (size), #record "." #field)
#define SIZE(record, size) _Static_assert(sizeof(record) == (size), #record)

FIELD(system_profile, connector_library_path, 0, 128);
FIELD(system_profile, fpt_library_path, 128, 128);
FIELD(capabilities, mode, 0, 4);
FIELD(capabilities, frame_size, 4, 2);
FIELD(capabilities, reserved, 6, 2);
SIZE(capabilities, 8);
FIELD(srvc_handle, sdk_fd, 0, sizeof(kr_host_ifc_fd));
FIELD(kr_host_ifc_fd, fd, 0, sizeof(int));
FIELD(srvc_handle, hal_pipe, sizeof(kr_host_ifc_fd), 2 * sizeof(int));
FIELD(srvc_handle, sdk_fd_open, sizeof(kr_host_ifc_fd) + 8, 4);
FIELD(srvc_handle, is_open, sizeof(kr_host_ifc_fd) + 12, 4);
FIELD(hal_event_record, type, 0, 4);
FIELD(hal_event_record, payload, 8, 4008);
FIELD(hal_event_record, payload.packet.data, 8, 4000);
FIELD(hal_event_record, payload.packet.length, 4008, 4);
FIELD(hal_event_record, payload.packet.in_port, 4012, 4);
FIELD(hal_event_record, payload.port_oper.port, 8, 4);
FIELD(hal_event_record, payload.port_oper.oper_state, 12, 4);
FIELD(hal_event_record, payload.port_update.reason, 8, 4);
FIELD(hal_event_record, payload.port_update.port, 12, 4);
FIELD(hal_event_record, payload.port_update.oper_state, 16, 4);
FIELD(hal_event_record, payload.port_update.mac_address, 20, 6);
FIELD(hal_event_record, payload.port_update.interface_name, 26, 16);
FIELD(hal_event_record, payload.agent.entries, 8, 48);
FIELD(hal_event_record, payload.agent.trailer, 56, 8);
SIZE(hal_event_record, 4016);
FIELD(hal_event_agent_entry, data, 0, 16);
FIELD(hal_event_agent_entry, value, 16, 4);
FIELD(hal_event_agent_entry, number, 20, 2);
SIZE(hal_event_agent_entry, 24);
SIZE(port_speed_admin, 16);
FIELD(flow_record, flow_id, 0, 8);
FIELD(flow_record, priority, 8, 4);
FIELD(flow_record, in_port, 12, 4);
FIELD(flow_record, in_port_mask, 16, 1);
FIELD(flow_record, eth_src, 17, 6);
FIELD(flow_record, eth_dst_mask, 35, 6);
FIELD(flow_record, vlan_tagged, 41, 1);
FIELD(flow_record, vlan_id, 44, 2);
FIELD(flow_record, eth_type_mask, 52, 2);
FIELD(flow_record, ip_proto_mask, 57, 1);
FIELD(flow_record, ipv4_src, 60, 4);
FIELD(flow_record, tp_dst_mask, 82, 2);
FIELD(flow_record, action, 84, 4);
FIELD(flow_record, out_port, 88, 4);
FIELD(flow_record, mc_group_id, 92, 4);
FIELD(flow_record, vlan_action, 96, 4);
FIELD(flow_record, vlan_action_vid, 100, 2);
FIELD(flow_record, vlan_action_pcp, 102, 1);
SIZE(flow_record, 104);
FIELD(flow_stats, count_first, 0, 8);
FIELD(flow_stats, count_second, 8, 8);
SIZE(flow_stats, 16);
FIELD(table_stats, max_entries, 0, 4);
SIZE(table_stats, 16);
FIELD(table_capabilities, name, 0, 32);
FIELD(table_capabilities, max_entries, 32, 4);
FIELD(table_capabilities, table_flag, 36, 4);
FIELD(table_capabilities, instructions, 40, 8);
FIELD(table_capabilities, write_actions, 48, 8);
FIELD(table_capabilities, apply_actions, 56, 8);
FIELD(table_capabilities, match, 64, 8);
FIELD(table_capabilities, wildcards, 72, 8);
FIELD(table_capabilities, apply_setfields, 80, 8);
SIZE(table_capabilities, 88);
_Static_assert(sizeof(kr_sdn_hal_status) == 4 && (kr_sdn_hal_status)-1 > 0, "a status is an unsigned 32-bit number");

/* ---- calls ------------------------------------------------------------------------------------------------------- */

static void check_life_cycle(void) {
    capabilities cap = {1, 2, 3};
    EXPECT(kr_sdn_hal_init(NULL, NULL), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT(kr_sdn_hal_activate(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_capabilities_set(NULL), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT(kr_sdn_hal_capabilities_get(&cap), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT(cap.mode == 0 && cap.frame_size == 0 && cap.reserved == 0 ? KR_SDN_HAL_STATUS_SUCCESS
                                                                     : KR_SDN_HAL_STATUS_ERROR,
           KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT(kr_sdn_hal_log(1, "CLIENT", "%d of %s", 1, "them"), KR_SDN_HAL_STATUS_SUCCESS);
}

static void check_events(void) {
    srvc_handle handle;
    srvc_handle *handles[] = {&handle};
    hal_event_record record;
    struct timeval at_once = {0, 0};
    uint32_t mask = 0;
    memset(&handle, 0, sizeof handle);
    memset(&record, 0, sizeof record);
    EXPECT(kr_sdn_hal_srvc_dependent_init(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_dependent_deinit(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_deinit(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_open(&handle), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_close(&handle), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_event_register(&handle, EVENT_PACKET_IN), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_event_unregister(&handle, EVENT_PACKET_IN), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_process_event(&record), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_select(handles, 1, &at_once, &mask), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_recv(&handle, &record), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_packet_send(&handle, "", 0, 1, 0), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_srvc_event_ack(&record), KR_SDN_HAL_STATUS_ERROR);
    /* The one that needs nothing before it; nothing is left of it. */
    EXPECT(kr_sdn_hal_srvc_init(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT(kr_sdn_hal_srvc_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
}

static void check_ports(void) {
    uint32_t ports[4] = {0};
    uint32_t count = 4, value = 0;
    int32_t admin = 0, oper = 0;
    uint16_t mtu = 0;
    port_mac_address mac;
    port_speed_admin speed = {1, 0, 1, 0};
    port_counters counters;
    EXPECT(kr_sdn_hal_port_arr_get(ports, &count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT(kr_sdn_hal_port_capabilities_get(1, &value), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT(kr_sdn_hal_port_state_set(1, PORT_ADMIN_UP), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_state_get(1, &admin, &oper), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_rstp_state_set(1, PORT_STP_FORWARDING), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_rstp_state_get(1, &admin), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_phys_addr_get(1, &mac), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_speed_set(1, &speed), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_speed_get(1, &speed, &value), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_speed_capability_get(1, &value), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_flood_mode_set(1, 0), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT(kr_sdn_hal_port_flood_mode_get(1, &value), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT(kr_sdn_hal_port_mtu_set(1, 1500), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_mtu_get(1, &mtu), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_cntr_get(1, &counters), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_port_cntr_clear(1, 1), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
}

static void check_tables(void) {
    flow_record flow;
    uint64_t id = 1;
    uint32_t count = 1, group = 1, activity = 0;
    uint32_t ports[] = {1};
    flow_stats stats;
    table_stats whole;
    table_capabilities cap;
    memset(&flow, 0, sizeof flow);
    EXPECT(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, &flow, 1), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_table_entry_get(0, 0, &id, &count, &flow), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, 1, ports, &group), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_table_mcast_group_get(group, &count, ports), KR_SDN_HAL_STATUS_ERROR);
    EXPECT(kr_sdn_hal_table_capabilities_get(&count), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT(kr_sdn_hal_table_table_capabilities_get(0, &cap), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_table_entry_activity_get(0, &id, 1, &activity), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT(kr_sdn_hal_table_table_stat_get(0, &whole), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT(kr_sdn_hal_table_entry_stat_get(0, &id, 1, &stats), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
}

static void silence(void) {
    int32_t *const levels[] = {&kr_HAL_API_verb_level,  &kr_HAL_EVENTS_API_verb_level, &kr_HAL_API_PORT_verb_level,
                               &kr_FPT_verb_level,      &kr_HAL_GEN_verb_level,        &kr_HAL_PORT_verb_level,
                               &kr_FLOWS_DB_verb_level, &kr_HAL_UTILS_verb_level};
    for (size_t i = 0; i < sizeof levels / sizeof levels[0]; i++) {
        if (*levels[i] != 3) {
            printf("verbosity %zu is %d, should be 3\n", i, *levels[i]);
            failures++;
        }
        *levels[i] = 0;
    }
}

int main(void) {
    silence();
    check_life_cycle();
    check_events();
    check_ports();
    check_tables();
    EXPECT(kr_sdn_hal_deinit(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    printf("%d failures\n", failures);
    return failures == 0 ? 0 : 1;
}
