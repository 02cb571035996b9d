/*
 * The whole library with the reference plug-ins on real interfaces: what the kernel, the connector's file and hosts do
 * arrives at a client as events, and what a client programs happens to frames. Everything goes through exported
 * functions, the file and the connector's socket; the software platform is only looked into.
 *
 * A process initialises the library once: the environment does. Each test has hosts and ports of its own.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include "examples/connector_control.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "tests/support/net_namespaces.h"

namespace {

using namespace kr_test;
using clock_type = std::chrono::steady_clock;
using bytes = std::vector<uint8_t>;

constexpr auto patience = std::chrono::seconds(30); // how long a test waits for what must come
constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr uint32_t table = 0;
constexpr uint32_t port_1 = 32769, port_2 = 32770, port_3 = 32771; // as the file asks for 1, 2 and 3
constexpr uint16_t experimental_type = 0x88b5;

const bool in_own_namespace = [] {
    own_network_namespace_or_skip();
    return true;
}();

template <typename Condition> bool wait_until(Condition condition) {
    const auto deadline = clock_type::now() + patience;
    while (!condition()) {
        if (clock_type::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/* ---- a client --------------------------------------------------------------------------------------------------- */

struct arrived_event {
    hal_event_record record;
    clock_type::time_point when;
};

bool is_removal(const hal_event_record &record) {
    return record.type == EVENT_PORT_CAPABILITIES_UPDATE && record.payload.port_update.reason == PORT_UPDATE_REMOVED;
}

enum class removals { acknowledge, leave };

// A channel and the thread that reads it.
class client {
  public:
    explicit client(std::initializer_list<uint32_t> events, removals what = removals::acknowledge)
        : acknowledges_(what == removals::acknowledge) {
        EXPECT_EQ(kr_sdn_hal_srvc_open(&channel_), SUCCESS);
        for (const uint32_t event : events) {
            EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel_, event), SUCCESS) << event;
        }
        reader_ = std::thread([this] { read(); });
    }
    ~client() {
        is_ending_ = true;
        reader_.join();
        EXPECT_EQ(kr_sdn_hal_srvc_close(&channel_), SUCCESS);
    }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    // Takes the oldest event that fits, if there is one.
    template <typename Condition> std::optional<arrived_event> take(Condition condition) {
        const std::lock_guard lock(mutex_);
        const auto at = std::find_if(events_.begin(), events_.end(),
                                     [&](const arrived_event &event) { return condition(event.record); });
        if (at == events_.end()) {
            return std::nullopt;
        }
        const arrived_event found = *at;
        events_.erase(at);
        return found;
    }
    // The same, once there is one.
    template <typename Condition> std::optional<arrived_event> wait_for(Condition condition) {
        std::optional<arrived_event> found;
        (void)wait_until([&] {
            found = take(condition);
            return found.has_value();
        });
        return found;
    }
    std::optional<arrived_event> wait_for_link(uint32_t of_port, uint32_t oper_state) {
        return wait_for([=](const hal_event_record &record) {
            return record.type == EVENT_PORT_OPER_STATE_CHANGE && record.payload.port_oper.port == of_port &&
                   record.payload.port_oper.oper_state == oper_state;
        });
    }
    std::optional<arrived_event> wait_for_port(uint32_t of_port, uint32_t reason) {
        return wait_for([=](const hal_event_record &record) {
            return record.type == EVENT_PORT_CAPABILITIES_UPDATE && record.payload.port_update.port == of_port &&
                   record.payload.port_update.reason == reason;
        });
    }
    size_t count_of(uint32_t type) {
        const std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count_if(events_.begin(), events_.end(),
                                                 [=](const arrived_event &e) { return e.record.type == type; }));
    }

  private:
    void read() {
        while (!is_ending_) {
            srvc_handle *handles[] = {&channel_};
            timeval timeout{0, 20'000};
            uint32_t ready = 0;
            hal_event_record record;
            if (kr_sdn_hal_srvc_select(handles, 1, &timeout, &ready) != SUCCESS || ready == 0 ||
                kr_sdn_hal_srvc_recv(&channel_, &record) != SUCCESS) {
                continue;
            }
            const auto now = clock_type::now();
            if (is_removal(record) && acknowledges_) {
                EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&record), SUCCESS);
            }
            const std::lock_guard lock(mutex_);
            events_.push_back({record, now});
        }
    }

    srvc_handle channel_{};
    const bool acknowledges_;
    std::atomic<bool> is_ending_{false};
    std::mutex mutex_;
    std::list<arrived_event> events_;
    std::thread reader_;
};

/* ---- the library ------------------------------------------------------------------------------------------------ */

std::string connector_answer(const std::string &command) {
    char answer[256];
    (void)connector_request(command.c_str(), answer, sizeof answer);
    return answer;
}

class library_environment : public testing::Environment {
  public:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "kr_library_net_XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
        setenv("KR_CONNECTOR_CONFIG", (folder + "/connector.conf").c_str(), 1);
        setenv("KR_CONNECTOR_CONTROL", (folder + "/control").c_str(), 1);
        configure("");
        system_profile profile{};
        strncpy(profile.connector_library_path, KR_TEST_CONNECTOR_PATH, KR_SDN_HAL_PATH_SIZE - 1);
        strncpy(profile.fpt_library_path, KR_TEST_FPT_PATH, KR_SDN_HAL_PATH_SIZE - 1);
        ASSERT_EQ(kr_sdn_hal_init(&profile, nullptr), SUCCESS);
        client waiting({EVENT_GENERAL_READY});
        ASSERT_EQ(kr_sdn_hal_activate(), SUCCESS);
        ASSERT_TRUE(
            waiting.wait_for([](const hal_event_record &record) { return record.type == EVENT_GENERAL_READY; }));
    }
    void TearDown() override {
        EXPECT_EQ(connector_answer("stop"), "ok");
        EXPECT_EQ(kr_sdn_hal_deinit(), SUCCESS);
        std::filesystem::remove_all(folder);
    }

    // The connector follows the file; a command that it answers later has seen the change.
    void configure(const std::string &text) const {
        std::ofstream(folder + "/new.conf") << "[log]\nseverity = error\n" << text;
        std::filesystem::rename(folder + "/new.conf", folder + "/connector.conf");
    }

    std::string folder;
};

auto *const the_library =
    static_cast<library_environment *>(testing::AddGlobalTestEnvironment(new library_environment));

uint32_t port_count() {
    uint32_t count = 0;
    EXPECT_EQ(kr_sdn_hal_port_arr_get(nullptr, &count), SUCCESS);
    return count;
}

void flow_set(uint32_t command, const flow_record &flow) {
    flow_record copy = flow;
    ASSERT_EQ(kr_sdn_hal_table_entry_set(command, table, &copy, 1), SUCCESS) << flow.flow_id;
}

flow_record flow_of(uint64_t id, uint32_t in_port, flow_action action, uint32_t out_port = 0) {
    flow_record flow{};
    flow.flow_id = id;
    flow.priority = 100;
    flow.in_port = in_port;
    flow.in_port_mask = 1;
    flow.action = action;
    flow.out_port = out_port;
    return flow;
}

uint64_t packets_of(uint64_t flow_id) {
    flow_stats stats{};
    EXPECT_EQ(kr_sdn_hal_table_entry_stat_get(table, &flow_id, 1, &stats), SUCCESS);
    return stats.count_first;
}

// A flow for the life of the object.
class installed_flow {
  public:
    explicit installed_flow(const flow_record &flow) : flow_(flow) {
        flow_set(KR_SDN_HAL_CMD_ADD, flow_);
    }
    ~installed_flow() {
        flow_set(KR_SDN_HAL_CMD_DELETE, flow_);
    }
    installed_flow(const installed_flow &) = delete;
    installed_flow &operator=(const installed_flow &) = delete;

  private:
    flow_record flow_;
};

/* ---- frames of hosts -------------------------------------------------------------------------------------------- */

bytes ethernet_frame(const bytes &destination, uint16_t type, uint32_t number = 0) {
    bytes frame = destination;
    frame.insert(frame.end(), {0x02, 0, 0, 0, 0, 0x01, static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type)});
    for (int shift = 24; shift >= 0; shift -= 8) {
        frame.push_back(static_cast<uint8_t>(number >> shift));
    }
    frame.resize(60);
    return frame;
}

const bytes broadcast(6, 0xff);

// A packet socket on a host's eth0 that sees one EtherType (0: sends only).
class host_wire {
  public:
    explicit host_wire(const net_host &host, uint16_t type = 0) {
        const inside there(host);
        fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
        const int on = 1, size = 4 << 20;
        setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(type);
        address.sll_ifindex = static_cast<int>(if_nametoindex("eth0"));
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << std::strerror(errno);
    }
    ~host_wire() {
        close(fd_);
    }
    host_wire(const host_wire &) = delete;
    host_wire &operator=(const host_wire &) = delete;

    void send(const bytes &frame) const {
        ASSERT_EQ(::send(fd_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()))
            << std::strerror(errno);
    }
    // The next frame; empty when there is none at once or within the patience.
    bytes receive(bool waits) const {
        pollfd readable{.fd = fd_, .events = POLLIN, .revents = 0};
        const int timeout_ms =
            waits ? static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(patience).count()) : 0;
        bytes frame(2000);
        if (poll(&readable, 1, timeout_ms) != 1) {
            return {};
        }
        const ssize_t size = recv(fd_, frame.data(), frame.size(), 0);
        frame.resize(size > 0 ? static_cast<size_t>(size) : 0);
        return frame;
    }

  private:
    int fd_ = -1;
};

uint32_t number_in(const bytes &frame) {
    return static_cast<uint32_t>(frame.at(14) << 24 | frame.at(15) << 16 | frame.at(16) << 8 | frame.at(17));
}

const std::string three_ports = "[ports]\nsw1 = 1\nsw2 = 2\nsw3 = 3\n";

class library_net : public testing::Test {
  protected:
    void SetUp() override {
        acknowledging = std::make_unique<client>(std::initializer_list<uint32_t>{EVENT_PORT_CAPABILITIES_UPDATE});
        for (int i = 1; i <= 3; i++) {
            const std::string n = std::to_string(i);
            hosts.push_back(std::make_unique<net_host>("sw" + n, "10.0.0." + n, "02:00:00:00:00:0" + n));
        }
        the_library->configure(three_ports);
        ASSERT_TRUE(wait_until([] { return port_count() == 3; })) << connector_answer("status");
        for (const uint32_t port : {port_1, port_2, port_3}) {
            ASSERT_TRUE(wait_until([&] {
                int32_t admin = 0, oper = 0;
                return kr_sdn_hal_port_state_get(port, &admin, &oper) == SUCCESS && oper == PORT_OPER_UP;
            }));
        }
    }
    void TearDown() override {
        if (acknowledging == nullptr) {
            acknowledging = std::make_unique<client>(std::initializer_list<uint32_t>{EVENT_PORT_CAPABILITIES_UPDATE});
        }
        the_library->configure("");
        EXPECT_TRUE(wait_until([] { return port_count() == 0; })) << "ports are left";
        EXPECT_EQ(connector_answer("status"), "ok started ports - waiting -");
        for (const char *name : {"sw1", "sw2", "sw3"}) { // the kernel takes its time with namespaces that end
            (void)run(std::string("ip link del ") + name, 0, true);
        }
    }
    // The file as it is plus something, and the connector has followed it.
    static void configure_more(const std::string &more) {
        the_library->configure(three_ports + more);
        EXPECT_THAT(connector_answer("status"), testing::StartsWith("ok started"));
    }

    std::vector<std::unique_ptr<net_host>> hosts;
    std::unique_ptr<client> acknowledging; // a removal that nobody hears of waits for ever
};

/* ---- links ------------------------------------------------------------------------------------------------------ */

struct link_change {
    const char *what;
    const char *command;
    int host; // where it is given; 0: beside the switch
    uint32_t oper_state;
};
constexpr uint32_t link_up = 1, link_down = 2;

// Prints how long each change took from the start of the program that makes it to the client's channel.
TEST_F(library_net, link_changes_of_an_interface_arrive_as_port_up_and_down) {
    acknowledging.reset(); // the port stays known until its last event has come
    client events({EVENT_PORT_OPER_STATE_CHANGE, EVENT_PORT_CAPABILITIES_UPDATE}, removals::leave);
    constexpr link_change changes[] = {
        {"interface set down", "ip link set sw1 down", 0, link_down},
        {"interface set up", "ip link set sw1 up", 0, link_up},
        {"cable pulled at the other end", "ip link set eth0 down", 1, link_down},
        {"cable put back", "ip link set eth0 up", 1, link_up},
        {"interface deleted", "ip link del sw1", 0, link_down},
    };
    for (const link_change &change : changes) {
        const auto start = clock_type::now();
        ASSERT_EQ(run(change.command, change.host == 0 ? 0 : hosts[0]->pid), 0) << change.what;
        const auto event = events.wait_for_link(port_1, change.oper_state);
        ASSERT_TRUE(event) << change.what;
        const std::chrono::duration<double, std::milli> took = event->when - start;
        printf("%-32s %6.1f ms\n", change.what, took.count());
        RecordProperty(change.what, std::to_string(took.count()) + " ms");
    }
    EXPECT_EQ(events.count_of(EVENT_PORT_OPER_STATE_CHANGE), 0U) << "each change is told once";
    const auto removal = events.wait_for_port(port_1, PORT_UPDATE_REMOVED);
    ASSERT_TRUE(removal);
    EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&removal->record), SUCCESS);
}

TEST_F(library_net, frames_meet_a_link_that_is_down_as_a_reason_for_their_drop) {
    client events({EVENT_PORT_OPER_STATE_CHANGE});
    const installed_flow flow(flow_of(1, port_1, FLOW_ACTION_OUTPUT, port_2));
    must_run("ip link set eth0 down", hosts[1]->pid);
    ASSERT_TRUE(events.wait_for_link(port_2, link_down));
    const uint64_t before = kr_soft_drop_count(KR_SOFT_DROP_EGRESS_DOWN);
    host_wire(*hosts[0]).send(ethernet_frame(broadcast, experimental_type));
    EXPECT_TRUE(wait_until([&] { return kr_soft_drop_count(KR_SOFT_DROP_EGRESS_DOWN) > before; }));
}

/* ---- ports that come and go ------------------------------------------------------------------------------------- */

TEST_F(library_net, the_file_adds_and_removes_ports_while_the_switch_runs) {
    acknowledging.reset();
    client events({EVENT_PORT_CAPABILITIES_UPDATE}, removals::leave);
    the_library->configure("[ports]\nsw1 = 1\nsw2 = 2\n");
    const auto removal = events.wait_for_port(port_3, PORT_UPDATE_REMOVED);
    ASSERT_TRUE(removal);
    EXPECT_STREQ(removal->record.payload.port_update.interface_name, "sw3");
    EXPECT_EQ(port_count(), 3U) << "it is complete when a client has acknowledged it";
    ASSERT_EQ(kr_sdn_hal_srvc_event_ack(&removal->record), SUCCESS);
    EXPECT_TRUE(wait_until([] { return port_count() == 2; }));

    the_library->configure(three_ports);
    const auto addition = events.wait_for_port(port_3, PORT_UPDATE_ADDED);
    ASSERT_TRUE(addition);
    EXPECT_STREQ(addition->record.payload.port_update.interface_name, "sw3");
    EXPECT_EQ(addition->record.payload.port_update.oper_state, link_up);
    EXPECT_EQ(port_count(), 3U);
}

double process_cpu_seconds() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
}

TEST_F(library_net, an_interface_that_vanishes_is_down_at_once_and_removed_when_acknowledged) {
    client links({EVENT_PORT_OPER_STATE_CHANGE});
    acknowledging.reset();
    client events({EVENT_PORT_CAPABILITIES_UPDATE}, removals::leave);
    must_run("ip link del sw3");
    EXPECT_TRUE(links.wait_for_link(port_3, link_down));
    const auto removal = events.wait_for_port(port_3, PORT_UPDATE_REMOVED);
    ASSERT_TRUE(removal);
    EXPECT_EQ(port_count(), 3U);

    // Nobody spins on what is gone, and the other ports go on, while the removal waits.
    const double before = process_cpu_seconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LT(process_cpu_seconds() - before, 0.25) << "half a second of a busy loop takes half a second";
    {
        const installed_flow flow(flow_of(1, port_1, FLOW_ACTION_OUTPUT, port_2));
        const host_wire receiver(*hosts[1], experimental_type);
        host_wire(*hosts[0]).send(ethernet_frame(broadcast, experimental_type, 7));
        EXPECT_EQ(number_in(receiver.receive(true)), 7U);
    }

    ASSERT_EQ(kr_sdn_hal_srvc_event_ack(&removal->record), SUCCESS);
    EXPECT_TRUE(wait_until([] { return port_count() == 2; }));
    EXPECT_EQ(connector_answer("status"), "ok started ports sw1=32769,sw2=32770 waiting sw3");

    hosts[2] = std::make_unique<net_host>("sw3", "10.0.0.3", "02:00:00:00:00:03");
    EXPECT_TRUE(events.wait_for_port(port_3, PORT_UPDATE_ADDED)) << "it is back";
    EXPECT_EQ(port_count(), 3U);
}

/* ---- control protocols ------------------------------------------------------------------------------------------ */

// The hosts' kernels have things to say as well, so a frame is known by all its bytes.
bool is_miss_of(const hal_event_record &record, const bytes &frame) {
    const hal_event_packet &packet = record.payload.packet;
    return record.type == EVENT_PACKET_MISS && bytes(packet.data, packet.data + packet.length) == frame;
}

std::optional<arrived_event> wait_for_frame(client &events, const bytes &frame) {
    return events.wait_for([&](const hal_event_record &record) { return is_miss_of(record, frame); });
}

struct control_protocol {
    const char *name; // in the file
    bytes frame;
};

bytes stp_frame() { // IEEE 802.3 with a length, LLC of spanning tree
    bytes frame = ethernet_frame({0x01, 0x80, 0xc2, 0, 0, 0}, 38);
    frame[14] = frame[15] = 0x42;
    frame[16] = 0x03;
    return frame;
}

// A flow for each protocol drops its frames, so that those which do not go to the CPU are seen to meet the rules.
TEST_F(library_net, the_file_switches_the_forwarding_of_control_protocols_on_and_off) {
    const control_protocol protocols[] = {
        {"lldp", ethernet_frame({0x01, 0x80, 0xc2, 0, 0, 0x0e}, 0x88cc)},
        {"stp", stp_frame()},
        {"lacp", ethernet_frame({0x01, 0x80, 0xc2, 0, 0, 0x02}, 0x8809)},
        {"eapol", ethernet_frame({0x01, 0x80, 0xc2, 0, 0, 0x03}, 0x888e)},
    };
    constexpr uint64_t protocol_count = 4;
    client events({EVENT_PACKET_MISS});
    std::list<installed_flow> dropping;
    std::array<uint64_t, protocol_count + 1> dropped{}; // by flow: 1 and up
    for (uint64_t id = 1; id <= protocol_count; id++) {
        flow_record flow = flow_of(id, port_1, FLOW_ACTION_DROP);
        memcpy(flow.eth_dst, protocols[id - 1].frame.data(), sizeof flow.eth_dst);
        memset(flow.eth_dst_mask, 0xFF, sizeof flow.eth_dst_mask);
        dropping.emplace_back(flow);
    }
    const host_wire sender(*hosts[0]);
    const auto expect_dropped = [&](uint64_t id) {
        sender.send(protocols[id - 1].frame);
        dropped[id]++;
        ASSERT_TRUE(wait_until([&] { return packets_of(id) == dropped[id]; })) << protocols[id - 1].name;
    };
    for (uint64_t id = 1; id <= protocol_count; id++) {
        const control_protocol &protocol = protocols[id - 1];
        for (int round = 0; round < 2; round++) {
            SCOPED_TRACE(protocol.name);
            expect_dropped(id);
            configure_more(std::string("[control]\n") + protocol.name + " = on\n");
            sender.send(protocol.frame);
            const auto event = wait_for_frame(events, protocol.frame);
            ASSERT_TRUE(event);
            EXPECT_EQ(event->record.payload.packet.in_port, port_1);
            for (uint64_t other = 1; other <= protocol_count; other++) {
                if (other != id) {
                    expect_dropped(other); // each protocol is switched by itself
                }
            }
            EXPECT_EQ(packets_of(id), dropped[id]) << "what goes to the CPU goes past the rules";
            configure_more("");
        }
    }
    EXPECT_FALSE(events.take([&](const hal_event_record &record) {
        return std::any_of(std::begin(protocols), std::end(protocols),
                           [&](const control_protocol &protocol) { return is_miss_of(record, protocol.frame); });
    })) << "a frame came twice";
}

TEST_F(library_net, a_frame_of_a_host_that_no_flow_matches_is_a_packet_miss) {
    client events({EVENT_PACKET_MISS});
    const bytes frame = ethernet_frame(broadcast, experimental_type, 5);
    host_wire(*hosts[1]).send(frame);
    const auto event = wait_for_frame(events, frame);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->record.payload.packet.in_port, port_2);
}

/* ---- groups ----------------------------------------------------------------------------------------------------- */

void group_change(uint32_t command, uint32_t group_id, uint32_t of_port) {
    uint32_t id = group_id;
    ASSERT_EQ(kr_sdn_hal_table_mcast_group_set(command, 1, &of_port, &id), SUCCESS);
}

// Host 2 is a member all the time and gets every frame once, host 3 comes and goes, and the ingress port is a member
// now and then without anything leaving by it.
TEST_F(library_net, members_come_and_go_while_traffic_runs_and_nothing_returns_to_its_sender) {
    constexpr uint32_t window_count = 60, window_size = 50; // small enough for any host's queue
    const uint32_t members[] = {port_2};
    uint32_t group_id = 0;
    ASSERT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, 1, members, &group_id), SUCCESS);
    {
        flow_record flow = flow_of(1, port_1, FLOW_ACTION_MC_GROUP);
        flow.mc_group_id = group_id;
        const installed_flow to_group(flow);
        const host_wire h1(*hosts[0], experimental_type), h2(*hosts[1], experimental_type),
            h3(*hosts[2], experimental_type);

        std::atomic<bool> is_done{false};
        std::atomic<uint32_t> changes{0};
        std::thread changing([&] {
            while (!is_done) {
                for (const uint32_t command : {KR_SDN_HAL_GROUP_ADD_PORTS, KR_SDN_HAL_GROUP_REMOVE_PORTS}) {
                    group_change(command, group_id, port_1);
                    group_change(command, group_id, port_3);
                    changes++;
                }
            }
        });
        uint32_t received = 0;
        for (uint32_t window = 0; window < window_count && !HasFailure(); window++) {
            const uint32_t changes_before = changes;
            for (uint32_t i = 0; i < window_size; i++) {
                h1.send(ethernet_frame(broadcast, experimental_type, window * window_size + i));
            }
            for (uint32_t i = 0; i < window_size && !HasFailure(); i++, received++) {
                const bytes frame = h2.receive(true);
                ASSERT_FALSE(frame.empty()) << "frame " << received << " is lost";
                EXPECT_EQ(number_in(frame), received);
            }
            EXPECT_TRUE(wait_until([&] { return changes > changes_before; }));
        }
        is_done = true;
        changing.join();

        uint32_t seen_by_h3 = 0, expected_at_least = 0;
        for (bytes frame; !(frame = h3.receive(false)).empty(); seen_by_h3++) {
            EXPECT_GE(number_in(frame), expected_at_least) << "once each, in order";
            expected_at_least = number_in(frame) + 1;
        }
        EXPECT_TRUE(h1.receive(false).empty()) << "a frame came back to its sender";
        EXPECT_TRUE(h2.receive(false).empty()) << "a frame came twice";
        printf("%u frames, %u of them to the member that came and went, %u changes\n", received, seen_by_h3,
               changes.load());
    }
    EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_DELETE, 0, nullptr, &group_id), SUCCESS);
}

/* ---- spanning tree ---------------------------------------------------------------------------------------------- */

TEST_F(library_net, spanning_tree_states_stop_data_and_let_control_protocols_pass) {
    client events({EVENT_PACKET_MISS});
    configure_more("[control]\nlldp = on\n");
    const installed_flow flow(flow_of(1, port_1, FLOW_ACTION_OUTPUT, port_2));
    const host_wire sender(*hosts[0]), receiver(*hosts[1], experimental_type);
    const bytes lldp = ethernet_frame({0x01, 0x80, 0xc2, 0, 0, 0x0e}, 0x88cc);
    struct row {
        uint32_t port;
        kr_soft_drop_reason reason;
    };
    for (const row &r : {row{port_1, KR_SOFT_DROP_INGRESS_STP}, row{port_2, KR_SOFT_DROP_EGRESS_STP}}) {
        for (const port_stp_state state : {PORT_STP_DISCARDING, PORT_STP_LEARNING}) {
            SCOPED_TRACE(testing::Message() << "port " << r.port << " state " << state);
            ASSERT_EQ(kr_sdn_hal_port_rstp_state_set(r.port, state), SUCCESS);
            const uint64_t dropped = kr_soft_drop_count(r.reason);
            sender.send(ethernet_frame(broadcast, experimental_type, 1));
            ASSERT_TRUE(wait_until([&] { return kr_soft_drop_count(r.reason) > dropped; }));
            sender.send(lldp);
            ASSERT_TRUE(wait_for_frame(events, lldp));

            ASSERT_EQ(kr_sdn_hal_port_rstp_state_set(r.port, PORT_STP_FORWARDING), SUCCESS);
            sender.send(ethernet_frame(broadcast, experimental_type, 2));
            EXPECT_EQ(number_in(receiver.receive(true)), 2U) << "and not the one that came before";
        }
    }
    configure_more("");
}

} // namespace
