/*
 * A client as it was compiled against the baseline's headers, with a connector and a port plug-in of the same age: the
 * whole life of the library, every kind of event, every port operation, flows and groups, and each record that comes
 * back field by field. Usage: old_client CONNECTOR PORT-PLUG-IN
 *
 * Not to be changed with the library: it stands for clients that exist. Nothing but the baseline's headers is included;
 * the software switch's own functions, which make its ports, are declared here.
 */
#include "kr_sdn_hal.h"

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

extern kr_status kr_soft_port_add_memory(uint32_t log_port);
extern kr_status kr_soft_port_inject(uint32_t log_port, const void *frame, uint32_t size);
extern kr_status kr_soft_port_link_set(uint32_t log_port, uint32_t up);

struct old_connector_state {
    uint32_t calls;
    uint32_t answers[10];
    uint32_t answer_count;
    uint32_t log_count;
};

static int failures;

static void expect(int holds, const char *text, int line) {
    if (!holds) {
        printf("line %d: %s\n", line, text);
        failures++;
    }
}
#define EXPECT(condition) expect((condition), #condition, __LINE__)
#define SUCCEEDS(call) EXPECT((call) == KR_SDN_HAL_STATUS_SUCCESS)

static void log_line(uint32_t severity, const char *module, const char *text) {
    printf("%u %s: %s", (unsigned)severity, module, text);
}

static srvc_handle channel;
static hal_event_record record;

static void expect_event(uint32_t type) {
    memset(&record, 0xA5, sizeof record);
    SUCCEEDS(kr_sdn_hal_srvc_recv(&channel, &record));
    EXPECT(record.type == type);
}

static void expect_port_update(uint32_t reason, uint32_t port) {
    expect_event(EVENT_PORT_CAPABILITIES_UPDATE);
    const hal_event_port_update *const update = &record.payload.port_update;
    EXPECT(update->reason == reason && update->port == port && update->oper_state == 1);
    EXPECT(memcmp(update->interface_name, "a_longest_name_1", sizeof update->interface_name) == 0);
    EXPECT(update->mac_address[0] == 2 && update->mac_address[5] == port);
}

static void check_start(void) {
    expect_event(EVENT_GENERAL_READY);
    expect_port_update(PORT_UPDATE_ADDED, 1);
    expect_port_update(PORT_UPDATE_ADDED, 2);
    expect_event(EVENT_AGENT_UPDATE);
    const hal_event_agent *const agent = &record.payload.agent;
    EXPECT(memcmp(agent->entries[0].data, "controller one..", 16) == 0 && agent->entries[0].value == 0x01020304);
    EXPECT(agent->entries[1].number == 6633 && agent->trailer == 0x1122334455667788);

    capabilities cap = {7, 7, 7};
    SUCCEEDS(kr_sdn_hal_capabilities_get(&cap));
    EXPECT(cap.mode == 0 && cap.frame_size == 1500 && cap.reserved == 0);
    cap.reserved = 5;
    SUCCEEDS(kr_sdn_hal_capabilities_set(&cap));
}

static void check_ports(void) {
    uint32_t ports[3] = {0, 0, 9}, count = 3, number = 0;
    SUCCEEDS(kr_sdn_hal_port_arr_get(ports, &count));
    EXPECT(count == 1 && ports[0] == 1 && ports[2] == 9);
    SUCCEEDS(kr_sdn_hal_port_capabilities_get(1, &number));
    SUCCEEDS(kr_sdn_hal_port_state_set(1, PORT_ADMIN_UP));
    int32_t admin = 0, oper = 0, stp = 0;
    SUCCEEDS(kr_sdn_hal_port_state_get(1, &admin, &oper));
    EXPECT(admin == PORT_ADMIN_DOWN && oper == PORT_OPER_UP);
    SUCCEEDS(kr_sdn_hal_port_rstp_state_set(1, PORT_STP_LEARNING));
    SUCCEEDS(kr_sdn_hal_port_rstp_state_get(1, &stp));
    EXPECT(stp == PORT_STP_FORWARDING);
    port_mac_address mac;
    SUCCEEDS(kr_sdn_hal_port_phys_addr_get(1, &mac));
    EXPECT(mac.bytes[0] == 0x10 && mac.bytes[5] == 0x15);
    port_speed_admin speed = {0, 1, 0, 1};
    SUCCEEDS(kr_sdn_hal_port_speed_set(1, &speed));
    SUCCEEDS(kr_sdn_hal_port_speed_get(1, &speed, &number));
    EXPECT(speed.speed_1g == 1 && speed.speed_10g == 0 && speed.speed_40g == 1 && speed.speed_100g == 0);
    EXPECT(number == 40000);
    SUCCEEDS(kr_sdn_hal_port_speed_capability_get(1, &number));
    EXPECT(number == (PORT_SPEED_CAPABILITY_10G | PORT_SPEED_CAPABILITY_OTHER));
    uint16_t mtu = 0;
    SUCCEEDS(kr_sdn_hal_port_mtu_set(1, 9000));
    SUCCEEDS(kr_sdn_hal_port_mtu_get(1, &mtu));
    EXPECT(mtu == 1500);
    port_counters counters;
    SUCCEEDS(kr_sdn_hal_port_cntr_get(1, &counters));
    EXPECT(counters.rx_packets == 1 && counters.tx_packets == 2 && counters.rx_bytes == 3 && counters.tx_bytes == 4);
    EXPECT(counters.rx_dropped == 5 && counters.tx_dropped == 6 && counters.rx_errors == 7 && counters.tx_errors == 8);
    EXPECT(counters.rx_frame_errors == 9 && counters.rx_overrun_errors == 10 && counters.rx_crc_errors == 11);
    EXPECT(counters.collisions == 12);
    SUCCEEDS(kr_sdn_hal_port_cntr_clear(1, 1));
    EXPECT(kr_sdn_hal_port_flood_mode_set(1, 0) == kr_sdn_hal_port_flood_mode_get(1, &number));
}

static void check_flows(void) {
    flow_record flows[2], read_back[2];
    memset(flows, 0, sizeof flows);
    flows[0].flow_id = 11;
    flows[0].priority = 500;
    flows[0].eth_type = 0x0800;
    flows[0].eth_type_mask = 0xFFFF;
    flows[0].ipv4_dst = 0x0A000001;
    flows[0].ipv4_dst_mask = 0xFFFFFFFF;
    flows[0].tp_dst = 80;
    flows[0].tp_dst_mask = 0xFFFF;
    flows[0].action = FLOW_ACTION_CONTROLLER;
    flows[1].flow_id = 12;
    flows[1].in_port = 1;
    flows[1].in_port_mask = 1;
    flows[1].action = FLOW_ACTION_DROP;
    SUCCEEDS(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, flows, 2));
    const uint64_t ids[2] = {11, 12};
    uint32_t count = 2, activity[2] = {9, 9};
    memset(read_back, 0, sizeof read_back);
    SUCCEEDS(kr_sdn_hal_table_entry_get(0, 0, ids, &count, read_back));
    EXPECT(count == 2 && read_back[0].flow_id == 11 && read_back[0].priority == 500);
    EXPECT(read_back[0].ipv4_dst == 0x0A000001 && read_back[0].tp_dst == 80 && read_back[0].eth_type == 0x0800);
    EXPECT(read_back[0].action == FLOW_ACTION_CONTROLLER && read_back[1].action == FLOW_ACTION_DROP);
    EXPECT(read_back[1].in_port == 1 && read_back[1].in_port_mask == 1);
    EXPECT(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, flows, 2) == KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);

    /* A frame that the first flow sends to the controller. */
    uint8_t frame[64] = {2, 0, 0, 0,  0, 1, 2, 0,  0, 0, 0, 2,  8, 0, 0x45, 0, 0, 50, 0,
                         0, 0, 0, 64, 6, 0, 0, 10, 0, 0, 9, 10, 0, 0, 1,    4, 0, 0,  80};
    SUCCEEDS(kr_sdn_hal_srvc_event_register(&channel, EVENT_PACKET_IN));
    EXPECT(kr_soft_port_inject(0x10001, frame, sizeof frame) == KR_STATUS_SUCCESS);
    expect_event(EVENT_PACKET_IN);
    EXPECT(record.payload.packet.length == sizeof frame && record.payload.packet.in_port == 1);
    EXPECT(memcmp(record.payload.packet.data, frame, sizeof frame) == 0);
    SUCCEEDS(kr_sdn_hal_srvc_event_unregister(&channel, EVENT_PACKET_IN));
    SUCCEEDS(kr_sdn_hal_srvc_packet_send(&channel, frame, sizeof frame, 1, 0));

    SUCCEEDS(kr_sdn_hal_table_entry_activity_get(0, ids, 2, activity));
    EXPECT(activity[0] == FLOW_ACTIVITY_HIT && activity[1] == FLOW_ACTIVITY_IDLE);
    flow_stats stats[2];
    SUCCEEDS(kr_sdn_hal_table_entry_stat_get(0, ids, 2, stats));
    EXPECT(stats[0].count_first == 1 && stats[0].count_second == sizeof frame && stats[1].count_first == 0);
    table_stats of_table;
    SUCCEEDS(kr_sdn_hal_table_table_stat_get(0, &of_table));
    EXPECT(of_table.max_entries == 1000);
    table_capabilities can;
    SUCCEEDS(kr_sdn_hal_table_table_capabilities_get(0, &can));
    EXPECT(can.max_entries == 1000 && can.table_flag == 1 && memchr(can.name, '\0', sizeof can.name) != NULL);
    SUCCEEDS(kr_sdn_hal_table_capabilities_get(&count));
    EXPECT(count == 1);

    uint32_t group = 0, members[2] = {1, 0};
    SUCCEEDS(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, 1, members, &group));
    count = 2;
    members[0] = 0;
    SUCCEEDS(kr_sdn_hal_table_mcast_group_get(group, &count, members));
    EXPECT(count == 1 && members[0] == 1);
    SUCCEEDS(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_DELETE, 0, NULL, &group));
    SUCCEEDS(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_DELETE, 0, flows, 2));
}

static void check_link(void) {
    SUCCEEDS(kr_sdn_hal_srvc_event_register(&channel, EVENT_PORT_OPER_STATE_CHANGE));
    EXPECT(kr_soft_port_link_set(0x10001, 0) == KR_STATUS_SUCCESS);
    expect_event(EVENT_PORT_OPER_STATE_CHANGE);
    EXPECT(record.payload.port_oper.port == 1 && record.payload.port_oper.oper_state == 2);
    EXPECT(kr_soft_port_link_set(0x10001, 1) == KR_STATUS_SUCCESS);
    expect_event(EVENT_PORT_OPER_STATE_CHANGE);
    EXPECT(record.payload.port_oper.oper_state == 1);
}

static void *connector;

static void wait_for_the_stop(void) {
    int (*wait)(void);
    *(void **)&wait = dlsym(connector, "old_connector_wait");
    EXPECT(wait() == 0);
}

static void check_connector(void) {
    const struct old_connector_state *const state = dlsym(connector, "old_connector");
    EXPECT(state->calls == 0x3F && state->log_count == 1 && state->answer_count == 10);
    for (uint32_t i = 0; i < state->answer_count; i++) {
        EXPECT(state->answers[i] == (i == 7 ? KR_SDN_HAL_STATUS_RESOURCE_IN_USE : KR_SDN_HAL_STATUS_SUCCESS));
    }
}

int main(int argument_count, char **arguments) {
    if (argument_count != 3) {
        return 2;
    }
    system_profile profile;
    memset(&profile, 0, sizeof profile);
    strncpy(profile.connector_library_path, arguments[1], sizeof profile.connector_library_path - 1);
    strncpy(profile.fpt_library_path, arguments[2], sizeof profile.fpt_library_path - 1);
    kr_HAL_API_verb_level = 1;
    EXPECT(kr_soft_port_add_memory(0x10001) == KR_STATUS_SUCCESS);
    EXPECT(kr_soft_port_add_memory(0x10002) == KR_STATUS_SUCCESS);
    const kr_sdn_hal_status brought_up = kr_sdn_hal_init(&profile, log_line);
    if (brought_up != KR_SDN_HAL_STATUS_SUCCESS) {
        printf("init: %u\n", (unsigned)brought_up);
        return 1;
    }
    connector = dlopen(arguments[1], RTLD_NOW);
    SUCCEEDS(kr_sdn_hal_log(15, "OLD", "%d words\n", 7));
    SUCCEEDS(kr_sdn_hal_srvc_open(&channel));
    SUCCEEDS(kr_sdn_hal_srvc_event_register(&channel, EVENT_GENERAL_READY));
    SUCCEEDS(kr_sdn_hal_srvc_event_register(&channel, EVENT_PORT_CAPABILITIES_UPDATE));
    SUCCEEDS(kr_sdn_hal_srvc_event_register(&channel, EVENT_AGENT_UPDATE));
    SUCCEEDS(kr_sdn_hal_activate());
    check_start();
    expect_port_update(PORT_UPDATE_REMOVED, 2);
    SUCCEEDS(kr_sdn_hal_srvc_event_ack(&record));
    srvc_handle *const handles[1] = {&channel};
    uint32_t ready = 0;
    SUCCEEDS(kr_sdn_hal_srvc_select((srvc_handle **)handles, 1, NULL, &ready));
    EXPECT(ready == 1);
    expect_port_update(PORT_UPDATE_REMOVED, 1); /* the connector waits; the port is there until this is acknowledged */
    const hal_event_record last = record;
    check_ports();
    check_flows();
    check_link();
    SUCCEEDS(kr_sdn_hal_srvc_close(&channel));
    SUCCEEDS(kr_sdn_hal_srvc_event_ack(&last));
    wait_for_the_stop();
    SUCCEEDS(kr_sdn_hal_deinit());
    check_connector();
    dlclose(connector);
    printf("%d failures\n", failures);
    return failures == 0 ? 0 : 1;
}
