/*
 * The event service: channels, registration, and the way of records and packets.
 */
#include "kr_host_ifc.h"
#include "kr_soft.h"
#include "tests/sweep/operations.h"

namespace kr_test {
namespace {

uint32_t open(world &world) {
    return world::client([&] { return kr_sdn_hal_srvc_open(world.out.channel(&world.channel, true)); });
}
uint32_t close(world &world) {
    return world::client([&] { return kr_sdn_hal_srvc_close(world.out.channel(&world.channel)); });
}
template <uint32_t Event> uint32_t add(world &world) {
    return world::client([&] { return kr_sdn_hal_srvc_event_register(world.out.channel(&world.channel), Event); });
}
template <uint32_t Event> uint32_t remove(world &world) {
    return world::client([&] { return kr_sdn_hal_srvc_event_unregister(world.out.channel(&world.channel), Event); });
}
uint32_t process(uint32_t type, uint64_t content = 1) {
    hal_event_record record{};
    record.type = type;
    record.payload.agent.trailer = content;
    return world::client([&] { return kr_sdn_hal_srvc_process_event(&record); });
}
uint32_t receive(world &world) {
    auto *const record = world.out.room<hal_event_record>("record");
    return world::client([&] { return kr_sdn_hal_srvc_recv(&world.channel, record); });
}
uint32_t select(world &world) {
    srvc_handle *handles[] = {&world.channel};
    timeval at_once{};
    auto *const mask = world.out.room<uint32_t>("mask");
    return world::client([&] { return kr_sdn_hal_srvc_select(handles, 1, &at_once, mask); });
}
uint32_t send(world &world, uint32_t of_port) {
    const std::vector<uint8_t> frame = frame_for(9);
    return world::client([&] {
        return kr_sdn_hal_srvc_packet_send(world.out.channel(&world.channel), frame.data(),
                                           static_cast<uint32_t>(frame.size()), of_port, 3);
    });
}

// The channel is opened before the switch starts, so it has no interface yet.
void early_channel(world &world) {
    (void)open(world);
    (void)world.event(CONN_EVENT_START);
    (void)world.add_port(1);
    (void)world.add_port(2);
}
void two_listeners(world &world) {
    (void)open(world);
    (void)add<EVENT_AGENT_UPDATE>(world);
    (void)world::client([&] { return kr_sdn_hal_srvc_open(&world.other_channel); });
    (void)world::client([&] { return kr_sdn_hal_srvc_event_register(&world.other_channel, EVENT_AGENT_UPDATE); });
}
template <uint32_t Event> void registered(world &world) {
    (void)open(world);
    (void)add<Event>(world);
}
template <uint32_t Event> void add_first(world &world) {
    (void)add<Event>(world);
}
void with_record(world &world) {
    registered<EVENT_AGENT_UPDATE>(world);
    (void)process(EVENT_AGENT_UPDATE);
}
void with_packet_in(world &world) {
    (void)add<EVENT_PACKET_IN>(world);
    inject(1, frame_for(2)); // flow 2 goes to the controller
}
void with_packet_miss(world &world) {
    (void)add<EVENT_PACKET_MISS>(world);
    inject(1, frame_for(99)); // no flow
}
void with_link_change(world &world) {
    (void)add<EVENT_PORT_OPER_STATE_CHANGE>(world);
    (void)kr_soft_port_link_set(log_port_of(1), 0);
}

} // namespace

void add_service_operations(std::vector<operation> &operations) {
    const char *f = "kr_sdn_hal_srvc_open";
    // An interface that is open when the pipe cannot be had stays open: the next open forgets it.
    const std::set<std::string> interface = {"interfaces", "held descriptors", "open descriptors"};
    const std::set<std::string> interface_and_handle = {"interfaces", "held descriptors", "open descriptors",
                                                        "outputs"};
    operations.push_back({"channel_open_before_start", f, stage::initialized, open});
    operations.push_back({.name = "channel_open",
                          .covers = f,
                          .from = stage::ports,
                          .run = open,
                          .leaves = {{"pipe", interface_and_handle}}});
    operations.push_back({"channel_open_before_init", f, stage::loaded, open});
    operations.push_back({"channel_open_null", f, stage::initialized,
                          [](world &) { return world::client([] { return kr_sdn_hal_srvc_open(nullptr); }); }});

    f = "kr_sdn_hal_srvc_close";
    operations.push_back({.name = "channel_close",
                          .covers = f,
                          .from = stage::flows,
                          .run = close,
                          .prepare =
                              [](world &world) {
                                  (void)add<EVENT_AGENT_UPDATE>(world);
                                  (void)add<EVENT_PACKET_IN>(world);
                                  (void)process(EVENT_AGENT_UPDATE);
                              },
                          .leaves = {{"kr_api_host_ifc_close", interface}}});
    operations.push_back({"channel_close_closed", f, stage::initialized, close});

    f = "kr_sdn_hal_srvc_event_register";
    operations.push_back({"register_record", f, stage::flows, add<EVENT_AGENT_UPDATE>});
    operations.push_back({"register_twice", f, stage::flows, add<EVENT_AGENT_UPDATE>, add_first<EVENT_AGENT_UPDATE>});
    operations.push_back({"register_packet_in", f, stage::flows, add<EVENT_PACKET_IN>});
    operations.push_back({"register_packet_miss", f, stage::flows, add<EVENT_PACKET_MISS>});
    operations.push_back({"register_port_oper_state", f, stage::flows, add<EVENT_PORT_OPER_STATE_CHANGE>});
    operations.push_back({"register_packet_in_late", f, stage::initialized, add<EVENT_PACKET_IN>, early_channel});
    operations.push_back({"register_packet_in_before_start", f, stage::initialized, add<EVENT_PACKET_IN>,
                          [](world &world) { (void)open(world); }});
    operations.push_back({"register_unknown", f, stage::flows, add<12>});
    operations.push_back({"register_closed", f, stage::initialized, add<EVENT_AGENT_UPDATE>});

    f = "kr_sdn_hal_srvc_event_unregister";
    operations.push_back(
        {"unregister_record", f, stage::flows, remove<EVENT_AGENT_UPDATE>, add_first<EVENT_AGENT_UPDATE>});
    operations.push_back(
        {"unregister_packet_in", f, stage::flows, remove<EVENT_PACKET_IN>, add_first<EVENT_PACKET_IN>});
    operations.push_back({"unregister_not_registered", f, stage::flows, remove<EVENT_PACKET_IN>});
    operations.push_back({"unregister_unknown", f, stage::flows, remove<12>});

    f = "kr_sdn_hal_srvc_process_event";
    // The channels before the one that failed have the record, and get it again.
    operations.push_back({.name = "process_event",
                          .covers = f,
                          .from = stage::initialized,
                          .run = [](world &) { return process(EVENT_AGENT_UPDATE); },
                          .prepare = two_listeners,
                          .leaves = {{"write", {"unread"}}}});
    operations.push_back({"process_event_unknown", f, stage::initialized, [](world &) { return process(12); }});
    operations.push_back({"process_event_before_init", f, stage::loaded, [](world &) { return process(0); }});

    f = "kr_sdn_hal_srvc_select";
    operations.push_back({"select_record", f, stage::initialized, select, with_record});
    operations.push_back({"select_packet", f, stage::flows, select, with_packet_in});
    operations.push_back({"select_nothing", f, stage::flows, select});
    operations.push_back({"select_closed", f, stage::initialized, select});

    // What a read that fell short took is lost: the client waits for the next record.
    f = "kr_sdn_hal_srvc_recv";
    operations.push_back({.name = "receive_record",
                          .covers = f,
                          .from = stage::initialized,
                          .run = receive,
                          .prepare =
                              [](world &world) {
                                  with_record(world);
                                  (void)process(EVENT_AGENT_UPDATE, 2);
                              },
                          .leaves = {{"read", {"unread", "outputs"}}}});
    operations.push_back({"receive_packet_in", f, stage::flows, receive, with_packet_in});
    operations.push_back({"receive_packet_miss", f, stage::flows, receive, with_packet_miss});
    operations.push_back({"receive_link_change", f, stage::flows, receive, with_link_change});
    operations.push_back({"receive_closed", f, stage::initialized, receive});

    f = "kr_sdn_hal_srvc_packet_send";
    operations.push_back({"packet_send", f, stage::flows, [](world &world) { return send(world, 2); }});
    operations.push_back(
        {"packet_send_late", f, stage::initialized, [](world &world) { return send(world, 2); }, early_channel});
    operations.push_back({"packet_send_unknown_port", f, stage::flows, [](world &world) { return send(world, 9); }});
    operations.push_back({"packet_send_before_start", f, stage::initialized,
                          [](world &world) { return send(world, 1); }, [](world &world) { (void)open(world); }});
}

} // namespace kr_test
