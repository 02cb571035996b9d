/*
 * The demonstration: a client of the library programs a software switch between three hosts and shows what their
 * frames do, through the exported interface alone. It runs inside network namespaces that tools/demo/inside has made,
 * or, with --capture, on capture files in a folder that tools/demo/captures has made.
 */
#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kr_sdn_hal.h"
#include "tools/demo/capture_hosts.h"
#include "tools/demo/hosts.h"
#include "tools/demo/interrupt.h"
#include "tools/demo/report.h"
#include "tools/demo/switch_client.h"

namespace demo {
namespace {

constexpr uint32_t table = 0;
constexpr uint32_t table_size = 1000;
constexpr uint32_t ethernet_arp = 0x0806;

/* ---- flows ----------------------------------------------------------------------------------------------------- */

flow_record make_flow(uint64_t id, uint32_t priority, flow_action action) {
    flow_record flow{};
    flow.flow_id = id;
    flow.priority = priority;
    flow.action = action;
    return flow;
}

// Everything that enters by one port.
flow_record make_port_flow(uint64_t id, uint32_t priority, uint32_t in_port, flow_action action,
                           uint32_t out_port = 0) {
    flow_record flow = make_flow(id, priority, action);
    flow.in_port = in_port;
    flow.in_port_mask = 1;
    flow.out_port = out_port;
    return flow;
}

constexpr uint16_t trunk_vlan = 100;

// Onto the trunk: what enters by a port leaves by another with a tag.
flow_record tag_flow(uint64_t id, uint32_t in_port, uint32_t out_port) {
    flow_record flow = make_port_flow(id, 160, in_port, FLOW_ACTION_OUTPUT, out_port);
    flow.vlan_action = FLOW_VLAN_PUSH_VID;
    flow.vlan_action_vid = trunk_vlan;
    return flow;
}

// Off the trunk: only frames with the tag, which is popped.
flow_record untag_flow(uint64_t id, uint32_t in_port, uint32_t out_port) {
    flow_record flow = make_port_flow(id, 160, in_port, FLOW_ACTION_OUTPUT, out_port);
    flow.vlan_tagged = 1;
    flow.vlan_tagged_mask = 1;
    flow.vlan_id = trunk_vlan;
    flow.vlan_id_mask = 0x0FFF;
    flow.vlan_action = FLOW_VLAN_POP;
    return flow;
}

void add(std::vector<flow_record> flows) {
    require(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, table, flows.data(), static_cast<uint32_t>(flows.size())),
            "add flows");
}

void remove(const std::vector<uint64_t> &ids) {
    std::vector<flow_record> flows;
    for (const uint64_t id : ids) {
        flows.push_back(make_flow(id, 0, FLOW_ACTION_NONE));
    }
    require(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_DELETE, table, flows.data(), static_cast<uint32_t>(flows.size())),
            "delete flows");
}

std::vector<flow_record> read_back(const std::vector<uint64_t> &ids) {
    std::vector<flow_record> flows(ids.size());
    auto count = static_cast<uint32_t>(ids.size());
    require(kr_sdn_hal_table_entry_get(table, 0, ids.data(), &count, flows.data()), "read flows back");
    return flows;
}

flow_stats stats_of(uint64_t id) {
    flow_stats stats{};
    require(kr_sdn_hal_table_entry_stat_get(table, &id, 1, &stats), "read statistics");
    return stats;
}

uint32_t activity_of(uint64_t id) {
    uint32_t activity = 0;
    require(kr_sdn_hal_table_entry_activity_get(table, &id, 1, &activity), "read activity");
    return activity;
}

/* ---- small helpers --------------------------------------------------------------------------------------------- */

__attribute__((format(printf, 1, 2))) std::string text(const char *format, ...) {
    char buffer[256];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

void expect(bool condition, const std::string &otherwise) {
    if (!condition) {
        throw failure(otherwise);
    }
}

std::string expect_pings(host &from, host &to, int count, int expected) {
    // Silence is waited for briefly; an answer may take its time on a busy machine.
    const int answered = from.ping(to, count, expected == 0 ? 1 : 10);
    expect(answered == expected, text("%d of %d answered, expected %d", answered, count, expected));
    return text("%d of %d answered", answered, count);
}

/* ---- the steps ------------------------------------------------------------------------------------------------- */

struct scene {
    report out;
    switch_client &hal;
    host &h1, &h2, &h3;
    bool has_interfaces;             // otherwise the ports stand on capture files
    uint32_t p1 = 0, p2 = 0, p3 = 0; // to the hosts
    uint32_t p4 = 0, p5 = 0;         // joined by a cable
    unsigned seed;
};

// What the port plug-in tells of a port on an interface.
std::string interface_text(uint32_t of_port) {
    port_mac_address mac{};
    uint16_t mtu = 0;
    int32_t admin = 0;
    int32_t oper = 0;
    require(kr_sdn_hal_port_phys_addr_get(of_port, &mac), "read the MAC address");
    require(kr_sdn_hal_port_mtu_get(of_port, &mtu), "read the MTU");
    require(kr_sdn_hal_port_state_get(of_port, &admin, &oper), "read the state");
    return text("%02x:%02x:%02x:%02x:%02x:%02x  mtu %u  admin %s  link %s", mac.bytes[0], mac.bytes[1], mac.bytes[2],
                mac.bytes[3], mac.bytes[4], mac.bytes[5], mtu, admin == PORT_ADMIN_UP ? "up" : "down",
                oper == PORT_OPER_UP ? "up" : "down");
}

void show_switch(scene &s) {
    s.out.title("The switch");
    s.out.step("the library is up: ready event and five ports", [&] {
        s.hal.start(5);
        s.p1 = s.hal.of_port("s1-eth1");
        s.p2 = s.hal.of_port("s1-eth2");
        s.p3 = s.hal.of_port("s1-eth3");
        s.p4 = s.hal.of_port("s1-eth4");
        s.p5 = s.hal.of_port("s1-eth5");
        return std::string();
    });
    for (const port &p : s.hal.ports()) {
        s.out.note(text("port %-6u %-10s ", p.of_port, p.interface_name.c_str()) +
                   (s.has_interfaces ? interface_text(p.of_port) : "capture files"));
    }
    s.out.step("the table tells what it can do", [&] {
        table_capabilities can{};
        require(kr_sdn_hal_table_table_capabilities_get(table, &can), "read the capabilities");
        expect(can.max_entries == table_size, "unexpected size");
        return text("\"%s\", %u flows, match 0x%llx", can.name, can.max_entries,
                    static_cast<unsigned long long>(can.match));
    });
}

void show_forwarding(scene &s) {
    s.out.title("Two flows join h1 and h2");
    const interface_counters before = s.h3.counters();
    s.out.step("ping from h1 to h2", [&] {
        add({make_port_flow(1, 100, s.p1, FLOW_ACTION_OUTPUT, s.p2),
             make_port_flow(2, 100, s.p2, FLOW_ACTION_OUTPUT, s.p1)});
        return expect_pings(s.h1, s.h2, 20, 20);
    });
    s.out.step("a large transfer arrives as it was sent", [&] { return s.h1.transfer(s.h2); });
    s.out.step("h3 saw none of it", [&] {
        const interface_counters after = s.h3.counters();
        expect(after.rx_packets == before.rx_packets,
               text("%llu frames", static_cast<unsigned long long>(after.rx_packets - before.rx_packets)));
        return std::string("0 frames");
    });
}

void show_priorities(scene &s) {
    s.out.title("A flow of higher priority overrides them");
    s.out.step("a drop at priority 200 stops the traffic", [&] {
        add({make_port_flow(3, 200, s.p1, FLOW_ACTION_DROP)});
        return expect_pings(s.h1, s.h2, 3, 0);
    });
    s.out.step("without it the traffic flows again", [&] {
        remove({3});
        return expect_pings(s.h1, s.h2, 5, 5);
    });
}

void show_counters(scene &s) {
    s.out.title("Counters and activity of the flows, beside the hosts' own counters");
    s.out.step("25 echo requests: the flow counts what h1 sent", [&] {
        const flow_stats there = stats_of(1);
        const flow_stats back = stats_of(2);
        const interface_counters sent = s.h1.counters();
        (void)expect_pings(s.h1, s.h2, 25, 25);
        const interface_counters now = s.h1.counters();
        const uint64_t packets = stats_of(1).count_first - there.count_first;
        const uint64_t bytes = stats_of(1).count_second - there.count_second;
        const uint64_t answers = stats_of(2).count_first - back.count_first;
        expect(packets == now.tx_packets - sent.tx_packets && bytes == now.tx_bytes - sent.tx_bytes,
               text("flow: %llu packets, %llu bytes; h1: %llu packets, %llu bytes",
                    static_cast<unsigned long long>(packets), static_cast<unsigned long long>(bytes),
                    static_cast<unsigned long long>(now.tx_packets - sent.tx_packets),
                    static_cast<unsigned long long>(now.tx_bytes - sent.tx_bytes)));
        expect(answers == now.rx_packets - sent.rx_packets, "the way back counts differently");
        return text("%llu packets, %llu bytes on both sides", static_cast<unsigned long long>(packets),
                    static_cast<unsigned long long>(bytes));
    });
    s.out.step("a flow is active after traffic, and idle after it was read", [&] {
        expect(activity_of(1) == FLOW_ACTIVITY_HIT, "not active");
        expect(activity_of(1) == FLOW_ACTIVITY_IDLE, "still active");
        return std::string("hit, then idle");
    });
}

// h1 pings h2 while its frames are copied: h2 and h3 receive every frame of h1, and h1 what h2 sends, nothing else.
std::string expect_copies(scene &s) {
    const interface_counters h1_before = s.h1.counters(), h2_before = s.h2.counters(), h3_before = s.h3.counters();
    const std::string result = expect_pings(s.h1, s.h2, 10, 10);
    const interface_counters h1 = s.h1.counters() - h1_before, h2 = s.h2.counters() - h2_before,
                             h3 = s.h3.counters() - h3_before;
    expect(h2.rx_packets == h1.tx_packets && h3.rx_packets == h1.tx_packets && h1.rx_packets == h2.tx_packets,
           text("h1 sent %llu frames, h2 %llu; h1, h2 and h3 received %llu, %llu and %llu",
                static_cast<unsigned long long>(h1.tx_packets), static_cast<unsigned long long>(h2.tx_packets),
                static_cast<unsigned long long>(h1.rx_packets), static_cast<unsigned long long>(h2.rx_packets),
                static_cast<unsigned long long>(h3.rx_packets)));
    return text("%s; %llu frames to h2 and to h3, 0 back", result.c_str(),
                static_cast<unsigned long long>(h3.rx_packets));
}

void show_actions(scene &s) {
    s.out.title("Flood, group, controller, VLAN");
    s.out.step("flood: h2 and h3 receive what h1 sends, h1 none of it", [&] {
        add({make_port_flow(4, 150, s.p1, FLOW_ACTION_FLOOD)});
        const std::string result = expect_copies(s);
        remove({4});
        return result;
    });
    s.out.step("a multicast group of two ports does the same", [&] {
        const uint32_t members[] = {s.p2, s.p3};
        uint32_t group = 0;
        require(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, 2, members, &group), "create the group");
        flow_record flow = make_port_flow(5, 150, s.p1, FLOW_ACTION_MC_GROUP);
        flow.mc_group_id = group;
        add({flow});
        const std::string result = expect_copies(s);
        remove({5});
        require(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_DELETE, 0, nullptr, &group), "delete the group");
        return result;
    });
    hal_event_record packet{};
    s.out.step("to the controller: a frame of h3 arrives as a packet-in", [&] {
        add({make_port_flow(6, 150, s.p3, FLOW_ACTION_CONTROLLER)});
        s.hal.drop_packets();
        (void)s.h3.ping(s.h1, 1, 1);
        packet = s.hal.wait_packet(EVENT_PACKET_IN);
        const hal_event_packet &in = packet.payload.packet;
        expect(in.in_port == s.p3, text("ingress port %u", in.in_port));
        const uint32_t type = static_cast<uint32_t>(in.data[12]) << 8 | in.data[13];
        return text("ingress port %u, %u bytes, %s", in.in_port, in.length, type == ethernet_arp ? "ARP" : "IPv4");
    });
    s.out.step("packet-out: the frame goes on to h1", [&] {
        const hal_event_packet &in = packet.payload.packet;
        const interface_counters before = s.h1.counters();
        s.hal.send(s.p1, std::vector<uint8_t>(in.data, in.data + in.length));
        uint64_t got = 0;
        for (int i = 0; i < 100 && got == 0; i++) {
            got = s.h1.counters().rx_packets - before.rx_packets;
        }
        remove({6});
        expect(got >= 1, "h1 received nothing");
        return std::string("h1 received it");
    });
    s.out.step("VLAN: h1 and h2 talk over a trunk, tagged with VLAN 100", [&] {
        add({tag_flow(7, s.p1, s.p4), untag_flow(8, s.p5, s.p2), tag_flow(9, s.p2, s.p5), untag_flow(10, s.p4, s.p1)});
        const std::string result = expect_pings(s.h1, s.h2, 10, 10);
        const uint64_t pushed = stats_of(7).count_first;
        const uint64_t popped = stats_of(8).count_first;
        remove({7, 8, 9, 10});
        expect(pushed >= 10 && popped == pushed, "the trunk did not carry every frame with its tag");
        return text("%s, %llu tags pushed and popped", result.c_str(), static_cast<unsigned long long>(pushed));
    });
}

void show_link(scene &s) {
    s.out.title("A link goes down and comes back");
    s.out.step("link of s1-eth2 down: an event tells the client", [&] {
        s.h2.link_set(false);
        s.hal.wait_oper_state(s.p2, 2);
        return text("port %u down", s.p2);
    });
    s.out.step("and up: traffic flows again", [&] {
        s.h2.link_set(true);
        s.hal.wait_oper_state(s.p2, 1);
        return expect_pings(s.h1, s.h2, 5, 5);
    });
}

// A table's worth of flows: three that matter and fillers that match no frame here, in random order of priority.
std::vector<flow_record> make_full_table(const scene &s) {
    std::vector<flow_record> flows = {make_port_flow(1, 40000, s.p1, FLOW_ACTION_OUTPUT, s.p2),
                                      make_port_flow(2, 40000, s.p2, FLOW_ACTION_OUTPUT, s.p1),
                                      make_port_flow(3, 30000, s.p1, FLOW_ACTION_DROP)};
    std::mt19937 random(s.seed);
    for (uint32_t id = 4; id <= table_size; id++) {
        flow_record flow = make_flow(id, static_cast<uint32_t>(random() % 65536), FLOW_ACTION_DROP);
        const uint8_t unused[6] = {2, 0xEE, 0, 0, static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)};
        memcpy(flow.eth_dst, unused, sizeof unused);
        memset(flow.eth_dst_mask, 0xFF, sizeof flow.eth_dst_mask);
        flows.push_back(flow);
    }
    std::shuffle(flows.begin(), flows.end(), random);
    return flows;
}

std::string expect_intact(const std::vector<flow_record> &written) {
    std::vector<uint64_t> ids(written.size());
    std::transform(written.begin(), written.end(), ids.begin(), [](const flow_record &flow) { return flow.flow_id; });
    const std::vector<flow_record> got = read_back(ids);
    for (size_t i = 0; i < written.size(); i++) {
        expect(memcmp(&written[i], &got[i], sizeof(flow_record)) == 0,
               text("flow %llu reads back differently", static_cast<unsigned long long>(written[i].flow_id)));
    }
    return text("%zu flows read back as written", written.size());
}

void show_full_table(scene &s) {
    s.out.title(text("A full table, in random order of priority (seed %u)", s.seed).c_str());
    remove({1, 2});
    std::vector<flow_record> flows = make_full_table(s);
    s.out.step("1000 flows in one call", [&] {
        const auto start = std::chrono::steady_clock::now();
        add(flows);
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
        return text("%.1f ms", took.count());
    });
    s.out.step("flow 1001 is refused and nothing is lost", [&] {
        flow_record more = make_flow(table_size + 1, 50000, FLOW_ACTION_DROP);
        const kr_sdn_hal_status status = kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, table, &more, 1);
        expect(status == KR_SDN_HAL_STATUS_NO_RESOURCES, status_text(status));
        return expect_intact(flows);
    });
    s.out.step("the forward at 40000 wins over the drop at 30000", [&] { return expect_pings(s.h1, s.h2, 5, 5); });
    s.out.step("without it, the drop holds", [&] {
        remove({1});
        return expect_pings(s.h1, s.h2, 3, 0);
    });
}

void show_end(scene &s) {
    s.out.title("The way down");
    s.out.step("port s1-eth3 is removed once the client has acknowledged", [&] {
        s.hal.remove_port("s1-eth3");
        uint32_t count = 0;
        require(kr_sdn_hal_port_arr_get(nullptr, &count), "count the ports");
        expect(count == 4, text("%u ports are left", count));
        return text("%u ports left", count);
    });
    s.out.step("the others follow; the switch stops, the library ends", [&] {
        s.hal.stop();
        return std::string();
    });
}

struct options {
    const char *connector;
    const char *port_plugin;
    unsigned seed;
    bool capture = false;
    bool verbose = false;
};

int run(const options &wanted) {
    switch_client hal(wanted.connector, wanted.port_plugin, wanted.verbose);
    const char *const folder = getenv("KR_DEMO_FOLDER");
    capture_network network(folder != nullptr ? folder : ".");
    std::vector<std::unique_ptr<host>> hosts;
    for (int i = 1; i <= 3; i++) {
        if (wanted.capture) {
            hosts.push_back(std::make_unique<capture_host>(i, network));
        } else {
            hosts.push_back(std::make_unique<namespace_host>(i));
        }
    }
    scene s{.out = {},
            .hal = hal,
            .h1 = *hosts[0],
            .h2 = *hosts[1],
            .h3 = *hosts[2],
            .has_interfaces = !wanted.capture,
            .seed = wanted.seed};
    try {
        show_switch(s);
        show_forwarding(s);
        show_priorities(s);
        show_counters(s);
        show_actions(s);
        show_link(s);
        show_full_table(s);
        show_end(s);
    } catch (const interrupted &) {
        printf("\ninterrupted: removing the ports and stopping the switch\n");
        return 130;
    } catch (const failure &why) {
        printf("\nfailed: %s\n", why.what());
        return 1;
    }
    printf("\n%d steps passed, %d failed\n", s.out.passed(), s.out.failed());
    return s.out.failed() == 0 ? 0 : 1;
}

} // namespace
} // namespace demo

int main(int argument_count, char **arguments) {
    if (argument_count < 4) {
        fprintf(stderr, "usage: %s CONNECTOR PORT-PLUGIN SEED [--capture] [--verbose]\n", arguments[0]);
        return 2;
    }
    demo::block_interrupts();
    demo::options wanted{arguments[1], arguments[2], static_cast<unsigned>(strtoul(arguments[3], nullptr, 10))};
    for (int i = 4; i < argument_count; i++) {
        wanted.capture = wanted.capture || strcmp(arguments[i], "--capture") == 0;
        wanted.verbose = wanted.verbose || strcmp(arguments[i], "--verbose") == 0;
    }
    try {
        return demo::run(wanted);
    } catch (const std::exception &why) {
        fprintf(stderr, "failed: %s\n", why.what());
        return 1;
    }
}
