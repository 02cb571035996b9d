/*
 * Packets: from the wire to kr_sdn_hal_srvc_recv, as median and 99th percentile, and sent per second.
 *
 * packet_in/memory injects a frame at a port in memory and receives it on the same thread. packet_in/wire sends it from
 * the far end of a pair of interfaces and receives it on a thread that waits; the time is that of the clock on the
 * wall, so it shows what else the machine does, too. packet_send is processor time of the sending thread.
 */
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "bench_library.h"
#include "kr_host_ifc.h"

namespace kr_bench {
namespace {

using steady = std::chrono::steady_clock;
constexpr uint32_t frame_size = 64;
constexpr uint16_t experimental_eth_type = 0x88b5;

struct frame {
    uint8_t bytes[frame_size] = {
        2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, experimental_eth_type >> 8, experimental_eth_type & 0xFF};
};

// A channel that gets every frame of the switch: one flow sends them all to the controller.
class controller {
  public:
    controller() {
        flow_record flow{};
        flow.flow_id = 1;
        flow.eth_type = experimental_eth_type;
        flow.eth_type_mask = 0xFFFF;
        flow.action = FLOW_ACTION_CONTROLLER;
        require(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, &flow, 1), "kr_sdn_hal_table_entry_set");
        require(kr_sdn_hal_srvc_open(&handle), "kr_sdn_hal_srvc_open");
        require(kr_sdn_hal_srvc_event_register(&handle, EVENT_PACKET_IN), "kr_sdn_hal_srvc_event_register");
    }
    ~controller() {
        require(kr_sdn_hal_srvc_close(&handle), "kr_sdn_hal_srvc_close");
    }
    controller(const controller &) = delete;
    controller &operator=(const controller &) = delete;

    void receive_through_library() {
        require(kr_sdn_hal_srvc_recv(&handle, &record), "kr_sdn_hal_srvc_recv");
    }
    void receive_straight() {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(handle.sdk_fd.fd, &set);
        require(select(handle.sdk_fd.fd + 1, &set, nullptr, nullptr, nullptr) == 1, "select");
        uint32_t size = sizeof record.payload.packet.data;
        kr_receive_info info{};
        require(kr_lib_host_ifc_recv(&handle.sdk_fd, record.payload.packet.data, &size, &info) == 0,
                "kr_lib_host_ifc_recv");
    }

    srvc_handle handle{};
    hal_event_record record{};
};

// A raw socket on an interface of the pair.
class raw_socket {
  public:
    explicit raw_socket(const std::string &interface_name) : fd_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
        require(fd_ >= 0, "socket");
        address_.sll_family = AF_PACKET;
        address_.sll_ifindex = static_cast<int>(if_nametoindex(interface_name.c_str()));
        address_.sll_halen = 6;
    }
    ~raw_socket() {
        close(fd_);
    }
    raw_socket(const raw_socket &) = delete;
    raw_socket &operator=(const raw_socket &) = delete;

    void send(const frame &f) const {
        require(sendto(fd_, f.bytes, sizeof f.bytes, 0, reinterpret_cast<const sockaddr *>(&address_),
                       sizeof address_) == static_cast<ssize_t>(sizeof f.bytes),
                "sendto");
    }

  private:
    int fd_;
    sockaddr_ll address_{};
};

void report_percentiles(benchmark::State &state, std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    state.counters["median_us"] = samples[samples.size() / 2] * 1e6;
    state.counters["p99_us"] = samples[samples.size() * 99 / 100] * 1e6;
    state.SetItemsProcessed(static_cast<int64_t>(samples.size()));
}

template <typename Arrive, typename Receive> void packet_in(benchmark::State &state, Arrive arrive, Receive receive) {
    std::vector<double> samples;
    for (auto _ : state) {
        const steady::time_point start = steady::now();
        arrive();
        receive();
        const double seconds = std::chrono::duration<double>(steady::now() - start).count();
        state.SetIterationTime(seconds);
        samples.push_back(seconds);
    }
    report_percentiles(state, std::move(samples));
}

template <void (controller::*Receive)()> void packet_in_memory(benchmark::State &state) {
    started_switch running(1);
    controller client;
    const frame f;
    packet_in(
        state,
        [&] {
            require(kr_soft_port_inject(started_switch::log_port_of(1), f.bytes, sizeof f.bytes) == 0,
                    "kr_soft_port_inject");
        },
        [&] { (client.*Receive)(); });
}

// The frame crosses the pair of interfaces and the switch's thread before it wakes the client.
template <void (controller::*Receive)()> void packet_in_wire(benchmark::State &state) {
    started_switch running;
    require(kr_soft_port_add_interface(started_switch::log_port_of(1), wire_interface().c_str()) == 0,
            "kr_soft_port_add_interface");
    running.add_port(1);
    controller client;
    const raw_socket far(far_interface());
    const frame f;
    packet_in(
        state, [&] { far.send(f); }, [&] { (client.*Receive)(); });
}

template <typename Send> void packet_send(benchmark::State &state, Send send) {
    constexpr int packets = 200;
    for (auto _ : state) {
        const double start = thread_seconds();
        for (int i = 0; i < packets; i++) {
            send();
        }
        state.SetIterationTime(thread_seconds() - start);
    }
    state.SetItemsProcessed(state.iterations() * packets);
}

void packet_send_library(benchmark::State &state) {
    started_switch running;
    require(kr_soft_port_add_interface(started_switch::log_port_of(1), wire_interface().c_str()) == 0,
            "kr_soft_port_add_interface");
    running.add_port(1);
    controller client;
    const frame f;
    packet_send(state, [&] {
        require(kr_sdn_hal_srvc_packet_send(&client.handle, f.bytes, sizeof f.bytes, 1, 0),
                "kr_sdn_hal_srvc_packet_send");
    });
}

// What of the cost above is the platform's.
void packet_send_platform(benchmark::State &state) {
    started_switch running;
    require(kr_soft_port_add_interface(started_switch::log_port_of(1), wire_interface().c_str()) == 0,
            "kr_soft_port_add_interface");
    running.add_port(1);
    controller client;
    const frame f;
    packet_send(state, [&] {
        require(kr_lib_host_ifc_unicast_ctrl_send(&client.handle.sdk_fd, f.bytes, sizeof f.bytes, 0,
                                                  started_switch::log_port_of(1), 0) == 0,
                "kr_lib_host_ifc_unicast_ctrl_send");
    });
}

void packet_send_straight(benchmark::State &state) {
    const raw_socket socket(wire_interface());
    const frame f;
    packet_send(state, [&] { socket.send(f); });
}

} // namespace

void register_packet_benchmarks() {
    benchmark::RegisterBenchmark("packet_in/library/memory", packet_in_memory<&controller::receive_through_library>)
        ->UseManualTime();
    benchmark::RegisterBenchmark("packet_in/straight/memory", packet_in_memory<&controller::receive_straight>)
        ->UseManualTime();
    if (wire_interface().empty()) {
        return;
    }
    benchmark::RegisterBenchmark("packet_in/library/wire", packet_in_wire<&controller::receive_through_library>)
        ->UseManualTime();
    benchmark::RegisterBenchmark("packet_in/straight/wire", packet_in_wire<&controller::receive_straight>)
        ->UseManualTime();
    benchmark::RegisterBenchmark("packet_send/library", packet_send_library)->UseManualTime();
    benchmark::RegisterBenchmark("packet_send/platform", packet_send_platform)->UseManualTime();
    benchmark::RegisterBenchmark("packet_send/straight", packet_send_straight)->UseManualTime();
}

} // namespace kr_bench
