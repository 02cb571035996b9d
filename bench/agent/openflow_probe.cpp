/*
 * A controller that measures. It talks to any OpenFlow 1.0 switch over a Unix socket, sends frames into a cable whose
 * other end is a port of that switch, and prints one line "name value unit" for each figure. bench/agent/compare runs
 * it against the agent and against another switch, one after the other, with the same arguments.
 *
 * Usage: openflow_probe start SOCKET COMMAND...      from the start of a program to its FEATURES_REPLY
 *        openflow_probe measure SOCKET INTERFACE IN-PORT OUT-PORT
 *        openflow_probe fill SOCKET IN-PORT OUT-PORT  leaves 1000 flows behind
 */
#include <net/if.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "of10/of10.h"

namespace {

using namespace std::chrono_literals;
using monotonic = std::chrono::steady_clock;

constexpr unsigned flow_count = 1000;
constexpr auto patience = 30s;
constexpr auto quiet = 300ms; // after so long nothing more is on its way

double microseconds(monotonic::duration span) {
    return std::chrono::duration<double, std::micro>(span).count();
}

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + (errno != 0 ? std::string(": ") + strerror(errno) : ""));
}

double quantile(std::vector<double> samples, double which) {
    std::sort(samples.begin(), samples.end());
    return samples[std::min(samples.size() - 1, static_cast<size_t>(which * static_cast<double>(samples.size())))];
}

void report(const char *name, double value, const char *unit) {
    printf("%s %.6g %s\n", name, value, unit);
    fflush(stdout);
}

// ---- The connection -------------------------------------------------------------------------------------------------

class connection {
  public:
    explicit connection(const std::string &path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof address.sun_path) {
            throw std::runtime_error("the socket's path is too long");
        }
        memcpy(address.sun_path, path.c_str(), path.size());
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        connected_ = fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    }
    ~connection() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    bool connected() const {
        return connected_;
    }

    // What goes out with the next exchange. Requests are made before a measurement begins.
    static void append(of10::bytes &out, const of10::message_body &body, uint32_t xid) {
        if (!of10::encode(out, xid, body)) {
            throw std::runtime_error("a request that cannot be said");
        }
    }

    // Sends and reads together, until `seen` says that an answer was the last one that is waited for.
    template <typename predicate> void exchange(of10::byte_view out, predicate seen) {
        const auto end = monotonic::now() + patience;
        bool done = false;
        while (!done || !out.empty()) {
            pollfd wait{fd_, static_cast<short>(POLLIN | (out.empty() ? 0 : POLLOUT)), 0};
            if (monotonic::now() > end || poll(&wait, 1, 1000) < 0) {
                throw std::runtime_error("no answer");
            }
            if ((wait.revents & POLLOUT) != 0) {
                const ssize_t sent = send(fd_, out.data(), out.size(), MSG_NOSIGNAL);
                if (sent < 0 && errno != EAGAIN) {
                    fail("send");
                }
                out = out.subspan(sent > 0 ? static_cast<size_t>(sent) : 0);
            }
            if ((wait.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                take([&](const of10::message &answer) { done |= seen(answer); });
            }
        }
    }

    // One look for what has come, for at most `longest`.
    template <typename function> void listen(std::chrono::milliseconds longest, function with) {
        pollfd wait{fd_, POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(longest.count())) > 0) {
            take(with);
        }
    }

    template <typename answer_type> answer_type ask(const of10::message_body &body) {
        of10::bytes out;
        const uint32_t xid = next_xid_++;
        append(out, body, xid);
        std::optional<answer_type> found;
        exchange(out, [&](const of10::message &answer) {
            if (answer.xid == xid && std::holds_alternative<answer_type>(answer.body)) {
                found = std::get<answer_type>(answer.body);
            }
            return found.has_value();
        });
        return *found;
    }

    // Until the switch has done everything that was sent before; returns how many packet-ins came meanwhile.
    uint32_t barrier(of10::bytes out = {}) {
        const uint32_t xid = next_xid_++;
        uint32_t packets = 0;
        append(out, of10::barrier_request{}, xid);
        exchange(out, [&](const of10::message &answer) {
            packets += std::holds_alternative<of10::packet_in>(answer.body) ? 1 : 0;
            return answer.xid == xid && std::holds_alternative<of10::barrier_reply>(answer.body);
        });
        return packets;
    }

    void greet() {
        of10::bytes out;
        append(out, of10::hello{}, next_xid_++);
        append(out, of10::set_config{}, next_xid_++);
        exchange(out, [](const of10::message &answer) { return std::holds_alternative<of10::hello>(answer.body); });
    }

  private:
    template <typename function> void take(function with) {
        const size_t room = 256 * 1024;
        const size_t had = in_.size();
        in_.resize(had + room);
        const ssize_t got = recv(fd_, in_.data() + had, room, 0);
        in_.resize(had + (got > 0 ? static_cast<size_t>(got) : 0));
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
            throw std::runtime_error("the switch has closed the connection");
        }
        of10::byte_view rest(in_);
        for (size_t size; (size = of10::message_size(rest)) != 0 && size <= rest.size(); rest = rest.subspan(size)) {
            const of10::decode_result result = of10::decode(rest.first(size));
            if (!std::holds_alternative<of10::message>(result)) {
                throw std::runtime_error("an answer that cannot be understood");
            }
            const auto &answer = std::get<of10::message>(result);
            if (const auto *error = std::get_if<of10::error>(&answer.body)) {
                throw std::runtime_error("error " + std::to_string(error->type) + "/" + std::to_string(error->code));
            }
            if (const auto *request = std::get_if<of10::echo_request>(&answer.body)) {
                of10::bytes out;
                append(out, of10::echo_reply{request->data}, answer.xid);
                if (send(fd_, out.data(), out.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(out.size())) {
                    fail("send");
                }
                continue;
            }
            with(answer);
        }
        in_.erase(in_.begin(), in_.end() - static_cast<std::ptrdiff_t>(rest.size()));
    }

    int fd_ = -1;
    bool connected_ = false;
    uint32_t next_xid_ = 1;
    of10::bytes in_;
};

// ---- Flows ----------------------------------------------------------------------------------------------------------

struct switch_ports {
    uint16_t in, out;
};

of10::flow_mod add_to(uint16_t port) {
    of10::flow_mod mod;
    mod.actions = {of10::action_output{port, 0}};
    return mod;
}

of10::flow_mod exact_flow(const switch_ports &ports, unsigned number) {
    of10::flow_mod mod = add_to(ports.out);
    of10::flow_match &match = mod.match;
    match.wildcards = 0;
    match.in_port = ports.in;
    match.dl_src = {2, 0, 0, 0, 0, 1};
    match.dl_dst = {2, 0, 0, 0, 0, 2};
    match.dl_vlan = of10::vlan_none;
    match.dl_type = 0x0800;
    match.nw_proto = 6;
    match.nw_src = 0x0a000001;
    match.nw_dst = 0x0a010000 + number;
    match.tp_src = static_cast<uint16_t>(1024 + number);
    match.tp_dst = 80;
    return mod;
}

// Four kinds that a controller would mix, each with a priority of its own.
of10::flow_mod wildcard_flow(const switch_ports &ports, unsigned number, std::mt19937 &random) {
    of10::flow_mod mod = add_to(ports.out);
    mod.priority = static_cast<uint16_t>(1 + random() % 65000);
    of10::flow_match &match = mod.match;
    switch (number % 4) {
    case 0: // a station
        match.wildcards &= ~of10::wildcard::dl_dst;
        match.dl_dst = {2, 1, 0, 0, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
        break;
    case 1: // a subnet
        match.wildcards &= ~(of10::wildcard::dl_type | of10::wildcard::nw_dst_bits);
        match.wildcards |= 8u << of10::wildcard::nw_dst_shift;
        match.dl_type = 0x0800;
        match.nw_dst = 0x0a000000 + (number << 8);
        break;
    case 2: // a service
        match.wildcards &= ~(of10::wildcard::dl_type | of10::wildcard::nw_proto | of10::wildcard::tp_dst);
        match.dl_type = 0x0800;
        match.nw_proto = 6;
        match.tp_dst = static_cast<uint16_t>(number);
        break;
    default: // a port and a VLAN
        match.wildcards &= ~(of10::wildcard::in_port | of10::wildcard::dl_vlan);
        match.in_port = ports.in;
        match.dl_vlan = static_cast<uint16_t>(number);
        break;
    }
    return mod;
}

of10::bytes flows(const std::function<of10::flow_mod(unsigned)> &flow) {
    of10::bytes out;
    for (unsigned number = 0; number < flow_count; number++) {
        connection::append(out, flow(number), number);
    }
    return out;
}

void delete_all(connection &peer) {
    of10::flow_mod mod;
    mod.command = of10::flow_mod_command::del;
    of10::bytes out;
    connection::append(out, mod, 0);
    peer.barrier(out);
}

void expect_flows(connection &peer, unsigned count) {
    const auto reply = peer.ask<of10::stats_reply>(of10::stats_request{0, of10::aggregate_stats_request{}});
    const auto &stats = std::get<of10::aggregate_stats>(reply.body);
    if (stats.flow_count != count) {
        throw std::runtime_error("the switch has " + std::to_string(stats.flow_count) + " flows, not " +
                                 std::to_string(count));
    }
}

void measure_flows(connection &peer, const char *name, const of10::bytes &out) {
    std::vector<double> spans;
    for (int round = 0; round < 11; round++) {
        const auto begin = monotonic::now();
        peer.barrier(out);
        spans.push_back(microseconds(monotonic::now() - begin) / 1000);
        expect_flows(peer, flow_count);
        delete_all(peer);
    }
    report(name, quantile(spans, 0.5), "ms");
}

void measure_single(connection &peer, const switch_ports &ports) {
    std::vector<double> barriers, adds;
    for (unsigned round = 0; round < 1000; round++) {
        auto begin = monotonic::now();
        peer.barrier();
        barriers.push_back(microseconds(monotonic::now() - begin) / 1000);
        of10::bytes out;
        connection::append(out, exact_flow(ports, round), 0);
        begin = monotonic::now();
        peer.barrier(out);
        adds.push_back(microseconds(monotonic::now() - begin) / 1000);
    }
    expect_flows(peer, 1000);
    delete_all(peer);
    report("barrier", quantile(barriers, 0.5), "ms");
    report("one_flow_and_barrier", quantile(adds, 0.5), "ms");
}

// ---- Frames ---------------------------------------------------------------------------------------------------------

class wire {
  public:
    explicit wire(const char *interface) {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
        fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0); // protocol 0: only to send
        if (fd_ < 0 || address.sll_ifindex == 0 ||
            bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            fail(interface);
        }
    }
    ~wire() {
        close(fd_);
    }
    wire(const wire &) = delete;
    wire &operator=(const wire &) = delete;

    void send(uint32_t number) {
        uint8_t frame[64] = {2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1, 0x88, 0xb5};
        memcpy(frame + number_at, &number, sizeof number);
        if (::send(fd_, frame, sizeof frame, 0) != sizeof frame && errno != ENOBUFS) {
            fail("send a frame");
        }
    }

    // Which of ours a packet-in carries.
    static std::optional<uint32_t> number_of(const of10::message &answer) {
        const auto *packet = std::get_if<of10::packet_in>(&answer.body);
        uint32_t number = 0;
        if (packet == nullptr || packet->data.size() < number_at + sizeof number || packet->data[12] != 0x88 ||
            packet->data[13] != 0xb5) {
            return std::nullopt;
        }
        memcpy(&number, packet->data.data() + number_at, sizeof number);
        return number;
    }

  private:
    static constexpr size_t number_at = 14;
    int fd_;
};

void measure_latency(connection &peer, wire &cable) {
    std::vector<double> spans;
    for (uint32_t number = 1; number <= 3000; number++) {
        const auto begin = monotonic::now();
        cable.send(number);
        peer.exchange({}, [&](const of10::message &answer) { return wire::number_of(answer) == number; });
        spans.push_back(microseconds(monotonic::now() - begin));
    }
    report("packet_in_median", quantile(spans, 0.5), "us");
    report("packet_in_p99", quantile(spans, 0.99), "us");
}

// Sends for a second at this rate; which share of the frames came.
double share_received(connection &peer, wire &cable, double rate) {
    static uint32_t first = 1'000'000;
    const auto total = static_cast<uint32_t>(rate);
    std::atomic<bool> sent = false;
    std::thread sender([&] {
        const auto begin = monotonic::now();
        for (uint32_t number = 0; number < total;) {
            const double elapsed = microseconds(monotonic::now() - begin) / 1e6;
            const auto due = std::min(total, static_cast<uint32_t>(elapsed * rate) + 1);
            for (; number < due; number++) {
                cable.send(first + number);
            }
            std::this_thread::sleep_for(200us);
        }
        sent = true;
    });
    uint32_t received = 0;
    auto last = monotonic::now();
    while (received < total && (!sent || monotonic::now() - last < quiet)) {
        peer.listen(50ms, [&](const of10::message &answer) {
            const auto number = wire::number_of(answer);
            if (number && *number >= first && *number < first + total) {
                received++;
                last = monotonic::now();
            }
        });
    }
    sender.join();
    first += total;
    return static_cast<double>(received) / total;
}

// The highest rate, in steps of an eighth, at which no more than one frame in a thousand is lost; and with none lost.
void measure_rate(connection &peer, wire &cable) {
    double nearly = 0, lossless = 0;
    int misses = 0;
    for (double rate = 2000; rate < 2e6 && misses < 3; rate *= 1.125) {
        double share = 0;
        for (int round = 0; round < 2 && share < 1; round++) { // one disturbance of the machine is no limit
            share = std::max(share, share_received(peer, cable, rate));
        }
        lossless = share >= 1 ? rate : lossless;
        nearly = share >= 0.999 ? rate : nearly;
        misses = share >= 0.999 ? 0 : misses + 1;
    }
    report("packet_in_rate_lossless", lossless, "1/s");
    report("packet_in_rate_nearly", nearly, "1/s");
}

// While frames come as fast as they can be sent, and every one of them is a packet-in, how long a barrier takes. The
// flood is still there after the last one, so none of them was measured without it.
void measure_barrier_in_flood(connection &peer, wire &cable) {
    constexpr unsigned barrier_count = 2000;
    std::atomic<bool> ended = false;
    std::thread sender([&] {
        for (uint32_t number = 1; !ended; number++) {
            cable.send(number);
        }
    });
    uint32_t packets = 0;
    std::vector<double> spans;
    const auto end = monotonic::now() + 20 * patience;
    const auto begin_all = monotonic::now();
    try {
        while (spans.size() < barrier_count && monotonic::now() < end) {
            const auto begin = monotonic::now();
            packets += peer.barrier();
            spans.push_back(microseconds(monotonic::now() - begin) / 1000);
        }
        const double elapsed = microseconds(monotonic::now() - begin_all) / 1e6;
        if (packets < barrier_count / 100) {
            throw std::runtime_error("there was no flood of packet-ins");
        }
        report("flood_packet_in_rate", packets / elapsed, "1/s");
    } catch (...) {
        ended = true;
        sender.join();
        throw;
    }
    ended = true;
    sender.join();
    report("barrier_in_flood_median", quantile(spans, 0.5), "ms");
    report("barrier_in_flood_p99", quantile(spans, 0.99), "ms");
    report("barrier_in_flood_max", quantile(spans, 1), "ms");
}

// ---- What to do -----------------------------------------------------------------------------------------------------

void greet(connection &peer) {
    if (!peer.connected()) {
        fail("connect");
    }
    peer.greet();
}

void measure_start(const char *path, char **command) {
    const auto begin = monotonic::now();
    const pid_t child = fork();
    if (child == 0) {
        execv(command[0], command);
        _exit(127);
    }
    bool answered = false;
    while (!answered && monotonic::now() - begin < patience) {
        connection peer(path);
        if (peer.connected()) {
            peer.greet();
            (void)peer.ask<of10::features_reply>(of10::features_request{});
            answered = true;
        } else {
            errno = 0;
            std::this_thread::sleep_for(200us);
        }
    }
    const double span = microseconds(monotonic::now() - begin) / 1000;
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    if (!answered) {
        throw std::runtime_error("no FEATURES_REPLY");
    }
    report("start_to_features_reply", span, "ms");
}

switch_ports ports_of(char **arguments) {
    return {static_cast<uint16_t>(atoi(arguments[0])), static_cast<uint16_t>(atoi(arguments[1]))};
}

void run(int count, char **arguments) {
    const std::string what = count > 2 ? arguments[1] : "";
    if (what == "start" && count > 3) {
        measure_start(arguments[2], arguments + 3);
    } else if (what == "measure" && count == 6) {
        connection peer(arguments[2]);
        greet(peer);
        const switch_ports ports = ports_of(arguments + 4);
        std::mt19937 random(1);
        delete_all(peer);
        measure_flows(peer, "exact_1000", flows([&](unsigned number) { return exact_flow(ports, number); }));
        measure_flows(peer, "wildcard_1000",
                      flows([&](unsigned number) { return wildcard_flow(ports, number, random); }));
        measure_single(peer, ports);
        wire cable(arguments[3]);
        measure_latency(peer, cable);
        measure_rate(peer, cable);
        measure_barrier_in_flood(peer, cable);
    } else if (what == "fill" && count == 5) {
        connection peer(arguments[2]);
        greet(peer);
        const switch_ports ports = ports_of(arguments + 3);
        delete_all(peer);
        peer.barrier(flows([&](unsigned number) { return exact_flow(ports, number); }));
        expect_flows(peer, flow_count);
    } else {
        throw std::runtime_error("usage: openflow_probe start SOCKET COMMAND... | measure SOCKET INTERFACE IN-PORT "
                                 "OUT-PORT | fill SOCKET IN-PORT OUT-PORT");
    }
}

} // namespace

int main(int count, char **arguments) {
    try {
        run(count, arguments);
        return 0;
    } catch (const std::exception &error) {
        fprintf(stderr, "openflow_probe: %s\n", error.what());
        return 1;
    }
}
