/*
 * The data plane on real interfaces: hosts in network namespaces behind veth pairs, with the offload settings that
 * Linux gives them. Rules are written through the resource manager.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include "net_namespaces.h"
#include "soft_switch.h"

namespace {

using namespace kr_test;

constexpr int patience_ms = 10000; // how long a test waits for what must come
constexpr uint32_t port_1 = 0x10100, port_2 = 0x10200, port_3 = 0x10300, memory_port = 0x10900;

const bool in_own_namespace = [] {
    own_network_namespace_or_skip();
    return true;
}();

class file_descriptor {
  public:
    explicit file_descriptor(int fd) : fd_(fd) {
        EXPECT_GE(fd, 0) << std::strerror(errno);
    }
    ~file_descriptor() {
        close(fd_);
    }
    file_descriptor(const file_descriptor &) = delete;
    file_descriptor &operator=(const file_descriptor &) = delete;
    operator int() const {
        return fd_;
    }

  private:
    int fd_;
};

sockaddr_in address_of(const char *ip, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, ip, &address.sin_addr);
    return address;
}

int bound_socket(const net_host &host, const char *ip, int type, uint16_t *port) {
    const inside there(host);
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const timeval timeout = {.tv_sec = patience_ms / 1000, .tv_usec = 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in address = address_of(ip, 0);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), size), 0) << std::strerror(errno);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    *port = ntohs(address.sin_port);
    return fd;
}

// Sends `total` bytes over TCP from one host to another; every byte must arrive as it was sent.
void transfer(const net_host &from, const char *from_ip, const net_host &to, const char *to_ip, size_t total) {
    const auto byte_at = [](size_t at) { return static_cast<uint8_t>(at * 2654435761U >> 13); };
    uint16_t port = 0;
    uint16_t own_port = 0;
    const file_descriptor listener(bound_socket(to, to_ip, SOCK_STREAM, &port));
    ASSERT_EQ(listen(listener, 1), 0);
    const file_descriptor sender(bound_socket(from, from_ip, SOCK_STREAM, &own_port));
    const sockaddr_in target = address_of(to_ip, port);
    ASSERT_EQ(connect(sender, reinterpret_cast<const sockaddr *>(&target), sizeof target), 0) << std::strerror(errno);
    const file_descriptor receiver(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));

    std::thread sending([&] {
        bytes chunk(1 << 18);
        for (size_t sent = 0; sent < total;) {
            const size_t size = std::min(chunk.size(), total - sent);
            for (size_t i = 0; i < size; i++) {
                chunk[i] = byte_at(sent + i);
            }
            for (size_t at = 0; at < size;) {
                const ssize_t step = send(sender, chunk.data() + at, size - at, MSG_NOSIGNAL);
                if (step <= 0) {
                    return;
                }
                at += static_cast<size_t>(step);
            }
            sent += size;
        }
        shutdown(sender, SHUT_WR);
    });
    size_t got = 0;
    bool intact = true;
    bytes chunk(1 << 18);
    for (ssize_t size; (size = recv(receiver, chunk.data(), chunk.size(), 0)) > 0;) {
        for (size_t i = 0; i < static_cast<size_t>(size); i++) {
            intact = intact && chunk[i] == byte_at(got + i);
        }
        got += static_cast<size_t>(size);
    }
    sending.join();
    EXPECT_EQ(got, total);
    EXPECT_TRUE(intact);
}

class dataplane_net : public soft_switch {
  protected:
    dataplane_net()
        : host_1(std::make_unique<net_host>("sw1", "10.0.0.1", "02:00:00:00:00:01")),
          host_2(std::make_unique<net_host>("sw2", "10.0.0.2", "02:00:00:00:00:02")) {
        add_interface(port_1, "sw1");
        add_interface(port_2, "sw2");
    }
    ~dataplane_net() override {
        // Before the hosts go: their ends of the cables take the switch's with them.
        kr_soft_reset();
        (void)run("ip link del sw1", 0, true);
        (void)run("ip link del sw2", 0, true);
        (void)run("ip link del sw3", 0, true);
    }

    void add_interface(uint32_t log_port, const char *name) {
        ASSERT_EQ(kr_soft_port_add_interface(log_port, name), KR_STATUS_SUCCESS);
        bind(log_port);
        wait_for_link(log_port, KR_PORT_OPER_UP);
    }
    void wait_for_link(uint32_t log_port, uint32_t wanted) {
        uint32_t oper = 0, admin = 0, module = 0;
        for (int i = 0; i < patience_ms && oper != wanted; i++) {
            ASSERT_EQ(kr_api_port_state_get(device, log_port, &oper, &admin, &module), KR_STATUS_SUCCESS);
            poll(nullptr, 0, oper != wanted ? 1 : 0);
        }
        ASSERT_EQ(oper, wanted);
    }
    void connect_hosts() {
        set(forward_rule(1, port_2, port_1));
        set(forward_rule(2, port_1, port_2));
    }
    // What the rule at an offset has matched.
    uint64_t bytes_matched(uint32_t offset) const {
        std::vector<kr_soft_rule_state> rules(KR_SOFT_MAX_RULES);
        auto count = static_cast<uint32_t>(rules.size());
        EXPECT_EQ(kr_soft_rules_get(acl_id, rules.data(), &count), KR_STATUS_SUCCESS);
        const auto found = std::find_if(rules.begin(), rules.begin() + count,
                                        [&](const kr_soft_rule_state &one) { return one.rule.set_offset == offset; });
        return found == rules.begin() + count ? 0 : found->hit_bytes;
    }
    // The next port up/down event, within the test's patience.
    static void expect_link_event(cpu_channel &channel, uint32_t log_port, uint32_t oper_state) {
        ASSERT_TRUE(channel.readable(patience_ms)) << "no event";
        const received event = channel.take();
        EXPECT_EQ(event.info.trap_id, static_cast<uint32_t>(KR_TRAP_ID_PORT_UP_DOWN));
        EXPECT_EQ(event.info.port_up_down.log_port, log_port);
        EXPECT_EQ(event.info.port_up_down.oper_state, oper_state);
        EXPECT_TRUE(event.data.empty());
    }
    // Sends one UDP datagram, with the checksum left to the device as Linux does it.
    static void send_datagram(const net_host &from, const char *from_ip, const char *to_ip, const std::string &text,
                              uint16_t to_port = 4000) {
        uint16_t own_port = 0;
        const file_descriptor fd(bound_socket(from, from_ip, SOCK_DGRAM, &own_port));
        const sockaddr_in target = address_of(to_ip, to_port);
        EXPECT_EQ(sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr *>(&target), sizeof target),
                  static_cast<ssize_t>(text.size()));
    }
    // So that no ARP is needed.
    void make_neighbours() const {
        must_run("ip neigh add 10.0.0.2 lladdr 02:00:00:00:00:02 dev eth0", host_1->pid);
        must_run("ip neigh add 10.0.0.1 lladdr 02:00:00:00:00:01 dev eth0", host_2->pid);
    }

    std::unique_ptr<net_host> host_1, host_2;
};

/* ---- traffic --------------------------------------------------------------------------------------------------- */

TEST_F(dataplane_net, ping_passes_when_rules_say_so_and_stops_when_they_do_not) {
    connect_hosts();
    EXPECT_EQ(host_1->run("ping -q -c 3 -i 0.01 -W 5 10.0.0.2"), 0);
    set(discard_rule(0));
    const uint64_t discarded = kr_soft_drop_count(KR_SOFT_DROP_RULE_DISCARD);
    EXPECT_NE(host_1->run("ping -q -c 1 -W 1 10.0.0.2"), 0);
    EXPECT_GT(kr_soft_drop_count(KR_SOFT_DROP_RULE_DISCARD), discarded);
}

TEST_F(dataplane_net, tcp_with_default_offloads_and_a_third_host_that_sees_nothing) {
    const net_host host_3("sw3", "10.0.0.3", "02:00:00:00:00:03");
    add_interface(port_3, "sw3");
    connect_hosts();
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 64 << 20);
    EXPECT_EQ(counters(port_3).tx_packets, 0U);
    const kr_soft_port_counters in = counters(port_1);
    EXPECT_GT(in.rx_bytes, 64U << 20);
    // Counted as frames of a wire, however many segments the kernel handed over at once.
    EXPECT_GE(in.rx_packets, (64U << 20) / 1460);
    EXPECT_LE(in.rx_bytes / in.rx_packets, 1514U);
}

// Tagged on one host, untagged on the other: the rules push and pop.
TEST_F(dataplane_net, tcp_between_an_untagged_and_a_tagged_host_through_push_and_pop) {
    if (run("ip link add link eth0 name vlan200 type vlan id 200", host_2->pid, true) != 0) {
        GTEST_SKIP() << "this kernel has no VLAN interfaces";
    }
    must_run("ip addr flush dev eth0", host_2->pid);
    must_run("ip addr add 10.0.0.2/24 dev vlan200", host_2->pid);
    must_run("ip link set vlan200 up", host_2->pid);
    kr_acl_rule push = forward_rule(0, port_2, port_1);
    push.vlan_edit = KR_ACL_VLAN_EDIT_PUSH_VID;
    push.vlan_id = 200;
    set(push);
    kr_acl_rule pop = forward_rule(1, port_1, port_2);
    pop.vlan_edit = KR_ACL_VLAN_EDIT_POP;
    set(pop);
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 16 << 20);
    transfer(*host_2, "10.0.0.2", *host_1, "10.0.0.1", 16 << 20);
}

// Both ends of one more cable are ports of the switch. What enters by a host's port leaves by the cable with a tag,
// which the kernel strips when it comes in again; rules for that tag take it off and hand it to the other host.
TEST_F(dataplane_net, tcp_through_a_tagged_cable_whose_tags_the_kernel_strips) {
    constexpr uint32_t cable_1 = 0x10400, cable_2 = 0x10500;
    must_run("ip link add cable1 type veth peer name cable2");
    must_run("ip link set cable1 up");
    must_run("ip link set cable2 up");
    add_interface(cable_1, "cable1");
    add_interface(cable_2, "cable2");
    const uint32_t hosts[] = {port_1, port_2};
    const uint32_t cables[] = {cable_1, cable_2};
    for (uint32_t i = 0; i < 2; i++) {
        kr_acl_rule push = forward_rule(10 + i, cables[i], hosts[i]);
        push.vlan_edit = KR_ACL_VLAN_EDIT_PUSH_VID_PCP;
        push.vlan_id = 200;
        push.vlan_pcp = 5;
        set(push);
        kr_acl_rule pop = forward_rule(20 + i, hosts[i], cables[i]);
        pop.key.vlan_tagged = 2;
        pop.mask.vlan_tagged = 255;
        pop.key.vlan_id = 200;
        pop.mask.vlan_id = 0xfff;
        pop.key.vlan_pcp = 5;
        pop.mask.vlan_pcp = 7;
        pop.vlan_edit = KR_ACL_VLAN_EDIT_POP;
        set(pop);
    }
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 16 << 20);
    transfer(*host_2, "10.0.0.2", *host_1, "10.0.0.1", 16 << 20);
    // What went over the cable had four bytes more in each frame. The last frames may still be on their way.
    uint64_t in_bytes = 1, out_bytes = 0;
    for (int i = 0; i < patience_ms && in_bytes != out_bytes; i++) {
        const kr_soft_port_counters out = counters(cable_1);
        in_bytes =
            bytes_matched(10); // not all that came in: a host may have said something before the rules were there
        out_bytes = out.tx_bytes - out.tx_packets * 4;
        poll(nullptr, 0, in_bytes != out_bytes ? 1 : 0);
    }
    EXPECT_EQ(in_bytes, out_bytes);
    EXPECT_EQ(kr_soft_drop_count(KR_SOFT_DROP_EGRESS_TOO_LONG), 0U);
    must_run("ip link del cable1");
}

// A port in memory listens in to a transfer: it sees frames of a wire, with checksums, where the hosts left both
// undone.
TEST_F(dataplane_net, super_frames_reach_ports_in_memory_as_frames_of_a_wire) {
    ASSERT_EQ(kr_soft_port_add_memory(memory_port), KR_STATUS_SUCCESS);
    set(group_rule(1, make_group({port_1, port_2, memory_port})));
    make_neighbours();
    std::atomic<bool> done{false};
    uint64_t tcp_count = 0, wrong_count = 0, long_count = 0;
    std::thread listener([&] {
        for (bytes frame; !(frame = read(memory_port, 20000)).empty() || !done;) {
            if (frame.size() < 54 || u16_at(frame, 12) != 0x0800 || frame[23] != 6) {
                continue;
            }
            tcp_count++;
            long_count += frame.size() > 1514;
            wrong_count += !ipv4_checksum_is_right(frame, 14) || !transport_checksum_is_right(frame, 14, 34, 6);
        }
    });
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 4 << 20);
    done = true;
    listener.join();
    EXPECT_GT(tcp_count, 1000U);
    EXPECT_EQ(wrong_count, 0U);
    EXPECT_EQ(long_count, 0U);
}

TEST_F(dataplane_net, members_join_and_leave_a_group_while_traffic_runs) {
    ASSERT_EQ(kr_soft_port_add_memory(memory_port), KR_STATUS_SUCCESS);
    const uint32_t group = make_group({port_1, port_2});
    set(group_rule(1, group));
    std::atomic<bool> done{false};
    std::thread changes([&] {
        while (!done) {
            change_group(KR_ACL_RM_CMD_GROUP_ADD_PORTS, group, {memory_port});
            change_group(KR_ACL_RM_CMD_GROUP_REMOVE_PORTS, group, {memory_port});
        }
    });
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 8 << 20);
    done = true;
    changes.join();
}

TEST_F(dataplane_net, ports_come_and_go_while_traffic_runs) {
    connect_hosts();
    std::atomic<bool> done{false};
    std::thread changes([&] {
        while (!done) {
            EXPECT_EQ(kr_soft_port_add_memory(memory_port), KR_STATUS_SUCCESS);
            EXPECT_EQ(kr_soft_port_remove(memory_port), KR_STATUS_SUCCESS);
        }
    });
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 8 << 20);
    done = true;
    changes.join();
}

TEST_F(dataplane_net, frames_longer_than_the_interface_takes_are_counted) {
    ASSERT_EQ(kr_soft_port_add_memory(memory_port), KR_STATUS_SUCCESS);
    bind(memory_port);
    set(forward_rule(1, port_1, memory_port));
    inject(memory_port, udp_frame(1, 2, 1500 - 28));
    EXPECT_EQ(kr_soft_drop_count(KR_SOFT_DROP_EGRESS_TOO_LONG), 0U);
    inject(memory_port, udp_frame(1, 2, 1501 - 28));
    EXPECT_EQ(kr_soft_drop_count(KR_SOFT_DROP_EGRESS_TOO_LONG), 1U);
    EXPECT_EQ(counters(port_1).tx_packets, 1U);
}

TEST_F(dataplane_net, super_frames_to_an_interface_of_smaller_mtu_are_counted_as_too_long) {
    make_neighbours();
    connect_hosts();
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 1 << 16);
    ASSERT_EQ(kr_soft_drop_count(KR_SOFT_DROP_EGRESS_TOO_LONG), 0U);
    must_run("ip link set sw2 mtu 1000");
    uint16_t own_port = 0;
    const file_descriptor fd(bound_socket(*host_1, "10.0.0.1", SOCK_DGRAM, &own_port));
    const int segment_size = 1200;
    if (setsockopt(fd, SOL_UDP, UDP_SEGMENT, &segment_size, sizeof segment_size) != 0) {
        GTEST_SKIP() << "no UDP segmentation offload here";
    }
    const sockaddr_in target = address_of("10.0.0.2", 4000);
    const bytes payload(5 * 1200);
    // The switch learns of the new MTU in its own time.
    for (int i = 0; i < patience_ms && kr_soft_drop_count(KR_SOFT_DROP_EGRESS_TOO_LONG) == 0; i++) {
        ASSERT_GT(
            sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr *>(&target), sizeof target),
            0);
        poll(nullptr, 0, 1);
    }
    EXPECT_GE(kr_soft_drop_count(KR_SOFT_DROP_EGRESS_TOO_LONG), 5U);
    EXPECT_EQ(kr_soft_drop_count(KR_SOFT_DROP_EGRESS_TOO_LONG) % 5, 0U) << "each segment is a frame";
}

/* ---- the CPU --------------------------------------------------------------------------------------------------- */

TEST_F(dataplane_net, a_trapped_frame_is_complete_and_tells_where_it_came_from) {
    make_neighbours();
    kr_acl_rule rule = trap_rule(1);
    rule.key.ip_proto = 17;
    rule.mask.ip_proto = 255;
    set(rule);
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN});
    const std::string text = "to the controller, please";
    send_datagram(*host_1, "10.0.0.1", "10.0.0.2", text);
    ASSERT_TRUE(channel.readable(patience_ms));
    const received packet = channel.take();
    EXPECT_EQ(packet.info.trap_id, static_cast<uint32_t>(KR_TRAP_ID_PACKET_IN));
    EXPECT_EQ(packet.info.source_log_port, port_1);
    ASSERT_EQ(packet.data.size(), 42 + text.size());
    EXPECT_EQ(std::string(packet.data.begin() + 42, packet.data.end()), text);
    EXPECT_TRUE(transport_checksum_is_right(packet.data, 14, 34, 17));
}

TEST_F(dataplane_net, a_super_frame_is_trapped_as_frames_of_a_wire) {
    make_neighbours();
    kr_acl_rule rule = trap_rule(1);
    rule.key.ip_proto = 17;
    rule.mask.ip_proto = 255;
    set(rule);
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN});
    uint16_t own_port = 0;
    const file_descriptor fd(bound_socket(*host_1, "10.0.0.1", SOCK_DGRAM, &own_port));
    const int segment_size = 1000;
    if (setsockopt(fd, SOL_UDP, UDP_SEGMENT, &segment_size, sizeof segment_size) != 0) {
        GTEST_SKIP() << "no UDP segmentation offload here";
    }
    const sockaddr_in target = address_of("10.0.0.2", 4000);
    const bytes payload(2500, 7);
    ASSERT_EQ(sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr *>(&target), sizeof target),
              2500);
    for (const size_t expected : {1042U, 1042U, 542U}) {
        ASSERT_TRUE(channel.readable(patience_ms));
        const received packet = channel.take();
        EXPECT_EQ(packet.data.size(), expected);
        EXPECT_TRUE(transport_checksum_is_right(packet.data, 14, 34, 17));
        EXPECT_TRUE(ipv4_checksum_is_right(packet.data, 14));
    }
}

TEST_F(dataplane_net, a_frame_of_the_cpu_reaches_the_host_past_rules_and_spanning_tree) {
    set(discard_rule(0));
    ASSERT_EQ(kr_soft_port_stp_set(port_2, KR_SOFT_STP_DISCARDING), KR_STATUS_SUCCESS);
    cpu_channel channel(device, {});
    uint16_t port = 0;
    const file_descriptor fd(bound_socket(*host_2, "10.0.0.2", SOCK_DGRAM, &port));
    bytes frame = ethernet(0x0800, {}, {0x02, 0, 0, 0, 0, 2}, {0x02, 0, 0, 0, 0, 1});
    append(frame, ipv4({.protocol = 17}, 12)); // from 10.0.0.1 to 10.0.0.2
    append_u16(frame, 7);
    append_u16(frame, port);
    append_u16(frame, 12);
    append_u16(frame, 0);
    append(frame, {'o', 'k', 'a', 'y'});
    ASSERT_EQ(kr_lib_host_ifc_unicast_ctrl_send(&channel.descriptor, frame.data(), static_cast<uint32_t>(frame.size()),
                                                0, port_2, 0),
              KR_STATUS_SUCCESS);
    char text[16];
    ASSERT_EQ(recv(fd, text, sizeof text, 0), 4);
    EXPECT_EQ(std::string(text, 4), "okay");
}

/* ---- links ----------------------------------------------------------------------------------------------------- */

TEST_F(dataplane_net, interface_set_down_and_up) {
    cpu_channel channel(device, {KR_TRAP_ID_PORT_UP_DOWN});
    must_run("ip link set sw1 down");
    expect_link_event(channel, port_1, KR_PORT_OPER_DOWN);
    uint32_t oper = 0, admin = 0, module = 0;
    ASSERT_EQ(kr_api_port_state_get(device, port_1, &oper, &admin, &module), KR_STATUS_SUCCESS);
    EXPECT_EQ(oper, static_cast<uint32_t>(KR_PORT_OPER_DOWN));
    EXPECT_EQ(admin, static_cast<uint32_t>(KR_PORT_ADMIN_DOWN));
    EXPECT_EQ(module, static_cast<uint32_t>(KR_PORT_MODULE_PLUGGED));
    must_run("ip link set sw1 up");
    expect_link_event(channel, port_1, KR_PORT_OPER_UP);
    connect_hosts();
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 1 << 20);
}

TEST_F(dataplane_net, cable_pulled_at_the_other_end_again_and_again) {
    cpu_channel channel(device, {KR_TRAP_ID_PORT_UP_DOWN});
    for (int i = 0; i < 3; i++) {
        must_run("ip link set eth0 down", host_1->pid);
        expect_link_event(channel, port_1, KR_PORT_OPER_DOWN);
        must_run("ip link set eth0 up", host_1->pid);
        expect_link_event(channel, port_1, KR_PORT_OPER_UP);
    }
    EXPECT_FALSE(channel.readable());
}

// However the changes are seen, late or one at a time: every loss is followed by a link, and the last word is the
// truth.
TEST_F(dataplane_net, cable_pulled_and_plugged_faster_than_anybody_looks) {
    cpu_channel channel(device, {KR_TRAP_ID_PORT_UP_DOWN});
    constexpr int rounds = 40;
    for (int i = 0; i < rounds; i++) {
        must_run("ip link set eth0 down", host_1->pid);
        must_run("ip link set eth0 up", host_1->pid);
    }
    must_run("ip link set eth0 down", host_1->pid);
    wait_for_link(port_1, KR_PORT_OPER_DOWN);
    uint32_t last = KR_PORT_OPER_UP;
    int count = 0;
    for (; channel.readable(last == KR_PORT_OPER_DOWN ? 0 : patience_ms); count++) {
        const uint32_t oper_state = channel.take().info.port_up_down.oper_state;
        ASSERT_NE(oper_state, last) << "after " << count << " events";
        last = oper_state;
    }
    EXPECT_EQ(last, static_cast<uint32_t>(KR_PORT_OPER_DOWN));
    EXPECT_LE(count, 2 * rounds + 1);
    must_run("ip link set eth0 up", host_1->pid);
    expect_link_event(channel, port_1, KR_PORT_OPER_UP);
    connect_hosts();
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 1 << 20);
}

// A port that is added while its link is changing: what was asked for at the beginning does not stay.
TEST_F(dataplane_net, a_port_added_while_its_link_comes_up_is_up_in_the_end) {
    must_run("ip link add sw3 type veth peer name far3");
    must_run("ip link set far3 up");
    for (int i = 0; i < 30; i++) {
        must_run("ip link set sw3 down");
        std::thread up([] { (void)kr_test::run("ip link set sw3 up"); });
        const kr_status added = kr_soft_port_add_interface(port_3, "sw3");
        up.join();
        ASSERT_EQ(added, KR_STATUS_SUCCESS);
        wait_for_link(port_3, KR_PORT_OPER_UP);
        ASSERT_EQ(kr_soft_port_remove(port_3), KR_STATUS_SUCCESS);
    }
}

TEST_F(dataplane_net, interface_deleted_is_a_port_down_and_comes_back_with_its_name) {
    cpu_channel channel(device, {KR_TRAP_ID_PORT_UP_DOWN});
    must_run("ip link del sw1");
    expect_link_event(channel, port_1, KR_PORT_OPER_DOWN);
    uint32_t oper = 0, admin = 0, module = 0;
    ASSERT_EQ(kr_api_port_state_get(device, port_1, &oper, &admin, &module), KR_STATUS_SUCCESS);
    EXPECT_EQ(module, static_cast<uint32_t>(KR_PORT_MODULE_UNPLUGGED));
    bytes frame = udp_frame(1, 2, 3);
    EXPECT_EQ(kr_lib_host_ifc_unicast_ctrl_send(&channel.descriptor, frame.data(), static_cast<uint32_t>(frame.size()),
                                                0, port_1, 0),
              KR_STATUS_ERROR);

    host_1 = std::make_unique<net_host>("sw1", "10.0.0.1", "02:00:00:00:00:01");
    expect_link_event(channel, port_1, KR_PORT_OPER_UP);
    connect_hosts();
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 1 << 20);
}

TEST_F(dataplane_net, interface_deleted_under_traffic) {
    connect_hosts();
    std::thread traffic([&] {
        for (int i = 0; i < 2000; i++) {
            send_datagram(*host_1, "10.0.0.1", "10.0.0.2", "x");
        }
    });
    must_run("ip link del sw2");
    wait_for_link(port_2, KR_PORT_OPER_DOWN);
    traffic.join();
    EXPECT_EQ(kr_soft_port_remove(port_2), KR_STATUS_SUCCESS);
}

TEST_F(dataplane_net, an_interface_renamed_stays_with_its_port) {
    cpu_channel channel(device, {KR_TRAP_ID_PORT_UP_DOWN});
    must_run("ip link set sw1 name sw9");
    must_run("ip link set sw9 down");
    expect_link_event(channel, port_1, KR_PORT_OPER_DOWN);
    must_run("ip link set sw9 up");
    expect_link_event(channel, port_1, KR_PORT_OPER_UP);
    connect_hosts();
    transfer(*host_1, "10.0.0.1", *host_2, "10.0.0.2", 1 << 20);
    must_run("ip link del sw9");
}

TEST_F(dataplane_net, a_port_forced_down_stays_down_whatever_its_interface_does) {
    cpu_channel channel(device, {KR_TRAP_ID_PORT_UP_DOWN});
    ASSERT_EQ(kr_soft_port_link_set(port_1, 0), KR_STATUS_SUCCESS);
    expect_link_event(channel, port_1, KR_PORT_OPER_DOWN);
    must_run("ip link set sw1 down");
    must_run("ip link set sw1 up");
    must_run("ip link set sw2 down"); // an event that comes behind whatever the above raised
    expect_link_event(channel, port_2, KR_PORT_OPER_DOWN);
    ASSERT_EQ(kr_soft_port_link_set(port_1, 1), KR_STATUS_SUCCESS);
    expect_link_event(channel, port_1, KR_PORT_OPER_UP);
}

TEST_F(dataplane_net, refusals) {
    EXPECT_EQ(kr_soft_port_add_interface(port_3, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_soft_port_add_interface(port_3, "nosuch0"), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_add_interface(port_3, "a_name_longer_than_any_interface"), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_add_interface(port_3, ""), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_soft_port_add_interface(port_3, "lo"), KR_STATUS_ERROR) << "no Ethernet interface";
    EXPECT_EQ(kr_soft_port_add_interface(port_1, "sw1"), KR_STATUS_ENTRY_ALREADY_EXISTS) << "the port";
    EXPECT_EQ(kr_soft_port_add_interface(port_3, "sw1"), KR_STATUS_ENTRY_ALREADY_EXISTS) << "the interface";
    uint32_t size = 14;
    uint8_t room[14];
    EXPECT_EQ(kr_soft_port_read(port_1, room, &size, 0), KR_STATUS_PARAM_ERROR);
    uint64_t count = 0;
    EXPECT_EQ(kr_soft_port_play(port_1, &count), KR_STATUS_PARAM_ERROR);
}

TEST_F(dataplane_net, ports_of_different_namespaces_in_one_switch) {
    const net_host host_3("sw3", "10.0.0.3", "02:00:00:00:00:03");
    cpu_channel channel(device, {KR_TRAP_ID_PORT_UP_DOWN});
    must_run("ip link add inner type veth peer name outer", host_3.pid);
    must_run("ip link set inner up", host_3.pid);
    must_run("ip link set outer up", host_3.pid);
    {
        const inside there(host_3);
        add_interface(port_3, "inner");
    }
    while (channel.readable()) {
        channel.take(); // the port may have come up after it was added
    }
    must_run("ip link set outer down", host_3.pid);
    expect_link_event(channel, port_3, KR_PORT_OPER_DOWN);
}

} // namespace
