/*
 * What the connector tells the library: start and stop, ports, control forwarding, configuration; and the client's
 * acknowledgement of a removal.
 */
#include "core/general.h"
#include "kr_soft.h"
#include "tests/sweep/operations.h"

namespace kr_test {
namespace {

uint32_t start(world &world) {
    const uint32_t status = world.event(CONN_EVENT_START);
    while (status == 0 && (!is_waiting(caller::background) || !is_waiting(caller::control_frames))) {
        sched_yield();
    }
    return status;
}
uint32_t stop(world &world) {
    return world.event(CONN_EVENT_STOP);
}
uint32_t control_forward(world &world, uint32_t command) {
    conn_control_forward forward = {command, KR_SOFT_TRAP_ID_LACP};
    return world.event(CONN_EVENT_CONTROL_FORWARD, &forward);
}
uint32_t configure(world &world, uint32_t command) {
    conn_agent_config config{};
    return world.configure(command, &config);
}
uint32_t acknowledge(uint32_t reason, uint32_t of_port) {
    hal_event_record record{};
    record.type = EVENT_PORT_CAPABILITIES_UPDATE;
    record.payload.port_update.reason = reason;
    record.payload.port_update.port = of_port;
    return world::client([&] { return kr_sdn_hal_srvc_event_ack(&record); });
}

// A channel that is registered for an event, whose records go into its pipe.
template <uint32_t Event> void with_listener(world &world) {
    (void)world::client([&] { return kr_sdn_hal_srvc_open(&world.channel); });
    (void)world::client([&] { return kr_sdn_hal_srvc_event_register(&world.channel, Event); });
}

// What a start that failed in the table leaves: nothing below is taken back.
const std::set<std::string> remains_of_a_start = {"managers", "ACLs", "groups"};

const std::set<std::string> an_interface = {"interfaces", "held descriptors", "open descriptors"};

// A stop that cannot tell the thread counts as one and leaves everything as it is. One that fails behind the thread's
// end cannot be repeated: the pipe that would tell the thread is gone, so that the next one counts as a stop at once.
const std::vector<remains> remains_of_a_stop = {
    {"write", {"*"}},
    {"cl_qmap_get", {"*"}}, // of the last flow that is deleted
    {"kr_api_host_ifc_close", an_interface},
    {"psort_clear_table", {"*"}},
    {"kr_acl_rm_api_acl_mc_group_set", {"*"}},
    {"kr_acl_rm_api_acl_set", {"*"}},
    {"kr_acl_rm_api_close", {"*"}},
    {"kr_api_close", {"devices", "locks", "way back"}},
};

} // namespace

void add_event_operations(std::vector<operation> &operations) {
    operations.push_back({.name = "start",
                          .covers = "CONN_EVENT_START",
                          .from = stage::initialized,
                          .run = start,
                          .prepare = with_listener<EVENT_GENERAL_READY>,
                          // A ready event that did not get through does not come again: the library has started.
                          .leaves = {{"*", remains_of_a_start}, {"write", {"unread"}}}});
    operations.push_back({.name = "start_after_a_stop",
                          .covers = "CONN_EVENT_START",
                          .from = stage::started,
                          .run = start,
                          .prepare = [](world &world) { (void)stop(world); },
                          .leaves = {{"*", remains_of_a_start}}});
    operations.push_back({"start_again", "CONN_EVENT_START", stage::started, start});
    operations.push_back({.name = "stop",
                          .covers = "CONN_EVENT_STOP",
                          .from = stage::started,
                          .run = stop,
                          .leaves = remains_of_a_stop});
    operations.push_back({.name = "stop_with_flows",
                          .covers = "CONN_EVENT_STOP",
                          .from = stage::flows,
                          .run = stop,
                          .prepare =
                              [](world &world) {
                                  (void)world.remove_port(1);
                                  (void)world.remove_port(2);
                              },
                          .leaves = remains_of_a_stop});
    operations.push_back({"stop_while_ports_exist", "CONN_EVENT_STOP", stage::ports, stop});
    operations.push_back({"stop_before_start", "CONN_EVENT_STOP", stage::initialized, stop});

    operations.push_back({.name = "port_added",
                          .covers = "CONN_EVENT_PORT_ADDED",
                          .from = stage::ports,
                          .run = [](world &world) { return world.add_port(3); },
                          .prepare = with_listener<EVENT_PORT_CAPABILITIES_UPDATE>,
                          // A port whose addition failed is in the database, unless the switch has no room for it.
                          .leaves = {{"kr_acl_rm_api_acl_bind_port_set", {}, false, {KR_STATUS_NO_HARDWARE_RESOURCES}},
                                     {"kr_acl_rm_api_acl_mc_group_set", {}, false},
                                     {"write", {}, false}}});
    operations.push_back(
        {"port_added_twice", "CONN_EVENT_PORT_ADDED", stage::ports, [](world &world) { return world.add_port(2); }});
    operations.push_back({"port_added_without_data", "CONN_EVENT_PORT_ADDED", stage::ports,
                          [](world &world) { return world.event(CONN_EVENT_PORT_ADDED); }});
    operations.push_back({"port_added_out_of_range", "CONN_EVENT_PORT_ADDED", stage::ports, [](world &world) {
                              (void)kr_soft_port_add_memory(log_port_of(32768));
                              conn_port_record port = port_record_of(32768);
                              return world.event(CONN_EVENT_PORT_ADDED, &port);
                          }});
    operations.push_back({"port_added_before_start", "CONN_EVENT_PORT_ADDED", stage::initialized,
                          [](world &world) { return world.add_port(1); }});
    operations.push_back({.name = "port_removed",
                          .covers = "CONN_EVENT_PORT_REMOVED",
                          .from = stage::ports,
                          .run = [](world &world) { return world.remove_port(2); },
                          .prepare = with_listener<EVENT_PORT_CAPABILITIES_UPDATE>,
                          // It is announced once more.
                          .leaves = {{"cl_event_wait_on", {"unread"}}}});
    operations.push_back({"port_removed_without_acknowledgement", "CONN_EVENT_PORT_REMOVED", stage::ports,
                          [](world &world) { return world.remove_port(2, false); }});
    operations.push_back({"port_removed_unknown", "CONN_EVENT_PORT_REMOVED", stage::ports, [](world &world) {
                              (void)kr_soft_port_add_memory(log_port_of(9));
                              return world.remove_port(9);
                          }});

    operations.push_back({"control_forward", "CONN_EVENT_CONTROL_FORWARD", stage::started,
                          [](world &world) { return control_forward(world, CONN_FORWARD_REGISTER); }});
    operations.push_back({"control_forward_ended", "CONN_EVENT_CONTROL_FORWARD", stage::started,
                          [](world &world) { return control_forward(world, CONN_FORWARD_DEREGISTER); },
                          [](world &world) { (void)control_forward(world, CONN_FORWARD_REGISTER); }});
    operations.push_back({"control_forward_unsupported", "CONN_EVENT_CONTROL_FORWARD", stage::started,
                          [](world &world) { return control_forward(world, 1); }});
    operations.push_back({"event_unknown", "no event", stage::started, [](world &world) { return world.event(32); }});

    operations.push_back({"configuration", "CONN_CONFIG_AGENT", stage::started,
                          [](world &world) { return configure(world, CONN_CONFIG_AGENT); },
                          with_listener<EVENT_AGENT_UPDATE>});
    operations.push_back({"configuration_before_start", "CONN_CONFIG_AGENT", stage::initialized,
                          [](world &world) { return configure(world, CONN_CONFIG_AGENT); }});
    operations.push_back(
        {"configuration_unknown", "no command", stage::started, [](world &world) { return configure(world, 1); }});

    operations.push_back({"acknowledgement", "kr_sdn_hal_srvc_event_ack", stage::ports,
                          [](world &) { return acknowledge(PORT_UPDATE_REMOVED, 2); }});
    operations.push_back({"acknowledgement_of_an_addition", "kr_sdn_hal_srvc_event_ack", stage::ports,
                          [](world &) { return acknowledge(PORT_UPDATE_ADDED, 2); }});
    operations.push_back({"acknowledgement_of_an_unknown_port", "kr_sdn_hal_srvc_event_ack", stage::ports,
                          [](world &) { return acknowledge(PORT_UPDATE_REMOVED, 9); }});
    operations.push_back({"acknowledgement_before_init", "kr_sdn_hal_srvc_event_ack", stage::loaded,
                          [](world &) { return acknowledge(PORT_UPDATE_REMOVED, 2); }});
}

} // namespace kr_test
