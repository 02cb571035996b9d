/*
 * Frames of hosts that do not exist, and the capture files that carry them.
 */
#include "tools/demo/capture_hosts.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cstdio>
#include <random>

#include "examples/connector_control.h"
#include "tools/demo/interrupt.h"
#include "tools/demo/report.h"

namespace demo {
namespace {

constexpr int cable_ends[2] = {4, 5};
constexpr int cable_rounds_max = 64; // a frame that runs in a circle does not run for ever
constexpr size_t transfer_size = 10'000'000;
constexpr size_t segment_size = 1448;
constexpr uint8_t protocol_icmp = 1;
constexpr uint8_t protocol_tcp = 6;
constexpr size_t ethernet_header_size = 14;
constexpr size_t ipv4_header_size = 20;
constexpr size_t tcp_header_size = 20;

void connector_ask(const std::string &command, const std::string &expected) {
    char answer[256];
    if (connector_request(command.c_str(), answer, sizeof answer) == 0 || answer != expected) {
        throw failure(command + ": " + answer);
    }
}

/* ---- frames ---------------------------------------------------------------------------------------------------- */

void put_u16(frame_bytes &to, uint32_t value) {
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

void put_u32(frame_bytes &to, uint32_t value) {
    put_u16(to, value >> 16);
    put_u16(to, value);
}

void put(frame_bytes &to, const frame_bytes &what) {
    to.insert(to.end(), what.begin(), what.end());
}

uint16_t checksum_of(const frame_bytes &data) {
    uint32_t sum = 0;
    for (size_t i = 0; i < data.size(); i++) {
        sum += i % 2 == 0 ? static_cast<uint32_t>(data[i]) << 8 : data[i];
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

void checksum_set(frame_bytes &data, size_t offset, uint16_t checksum) {
    data[offset] = static_cast<uint8_t>(checksum >> 8);
    data[offset + 1] = static_cast<uint8_t>(checksum);
}

frame_bytes mac_of(const host &h) {
    return {2, 0, 0, 0, 0, static_cast<uint8_t>(h.number())};
}

uint32_t ipv4_of(const host &h) {
    return 0x0A000000U + static_cast<uint32_t>(h.number());
}

frame_bytes make_ipv4(const host &from, const host &to, uint8_t protocol, const frame_bytes &payload) {
    frame_bytes header = {0x45, 0};
    put_u16(header, static_cast<uint32_t>(ipv4_header_size + payload.size()));
    put_u32(header, 0x00004000); // no identification; do not fragment
    header.push_back(64);
    header.push_back(protocol);
    put_u16(header, 0);
    put_u32(header, ipv4_of(from));
    put_u32(header, ipv4_of(to));
    checksum_set(header, 10, checksum_of(header));

    frame_bytes frame = mac_of(to);
    put(frame, mac_of(from));
    put_u16(frame, 0x0800);
    put(frame, header);
    put(frame, payload);
    return frame;
}

enum : uint8_t { echo_reply = 0, echo_request = 8 };

frame_bytes make_echo(const host &from, const host &to, uint8_t type, uint16_t sequence) {
    frame_bytes icmp = {type, 0, 0, 0};
    put_u16(icmp, 0x4B52);
    put_u16(icmp, sequence);
    for (uint8_t i = 0; i < 56; i++) {
        icmp.push_back(i);
    }
    checksum_set(icmp, 2, checksum_of(icmp));
    return make_ipv4(from, to, protocol_icmp, icmp);
}

frame_bytes make_segment(const host &from, const host &to, uint32_t sequence, const uint8_t *data, size_t size) {
    frame_bytes tcp;
    put_u16(tcp, 40000);
    put_u16(tcp, 9000);
    put_u32(tcp, sequence);
    put_u32(tcp, 1);
    put_u16(tcp, 0x5010); // five words of header, ACK
    put_u16(tcp, 0xFFFF);
    put_u32(tcp, 0);
    tcp.insert(tcp.end(), data, data + size);

    frame_bytes pseudo;
    put_u32(pseudo, ipv4_of(from));
    put_u32(pseudo, ipv4_of(to));
    put_u16(pseudo, protocol_tcp);
    put_u16(pseudo, static_cast<uint32_t>(tcp.size()));
    put(pseudo, tcp);
    checksum_set(tcp, 16, checksum_of(pseudo));
    return make_ipv4(from, to, protocol_tcp, tcp);
}

} // namespace

/* ---- files ----------------------------------------------------------------------------------------------------- */

capture_network::~capture_network() {
    for (pcap *output : outputs_) {
        if (output != nullptr) {
            pcap_close(output);
        }
    }
}

std::string capture_network::file(int port, const char *direction) const {
    return folder_ + "/s1-eth" + std::to_string(port) + "-" + direction + ".pcap";
}

void capture_network::play_file(int port, const std::vector<frame_bytes> &frames) const {
    pcap_t *const format = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t *const input = format == nullptr ? nullptr : pcap_dump_open(format, file(port, "in").c_str());
    for (size_t i = 0; input != nullptr && i < frames.size(); i++) {
        pcap_pkthdr header{};
        header.caplen = header.len = static_cast<uint32_t>(frames[i].size());
        pcap_dump(reinterpret_cast<u_char *>(input), &header, frames[i].data());
    }
    const bool is_written = input != nullptr && pcap_dump_flush(input) == 0;
    if (input != nullptr) {
        pcap_dump_close(input);
    }
    if (format != nullptr) {
        pcap_close(format);
    }
    if (!is_written) {
        throw failure("cannot write " + file(port, "in"));
    }
    connector_ask("play s1-eth" + std::to_string(port), "ok " + std::to_string(frames.size()) + " frames");
}

void capture_network::cable_carry() {
    for (int round = 0; round < cable_rounds_max; round++) {
        bool is_carrying = false;
        for (int i = 0; i < 2; i++) {
            const std::vector<frame_bytes> frames = take(cable_ends[i]);
            if (!frames.empty()) {
                play_file(cable_ends[1 - i], frames);
                is_carrying = true;
            }
        }
        if (!is_carrying) {
            return;
        }
    }
    throw failure("frames run in a circle");
}

void capture_network::play(int port, const std::vector<frame_bytes> &frames) {
    play_file(port, frames);
    cable_carry();
    throw_if_interrupted();
}

std::vector<frame_bytes> capture_network::take(int port) {
    pcap_t *&output = outputs_.at(static_cast<size_t>(port));
    char error[PCAP_ERRBUF_SIZE] = "";
    if (output == nullptr) {
        output = pcap_open_offline(file(port, "out").c_str(), error);
    }
    if (output == nullptr) {
        throw failure(error);
    }
    clearerr(pcap_file(output)); // what was the end the last time may have grown
    std::vector<frame_bytes> frames;
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    while (pcap_next_ex(output, &header, &data) == 1) {
        frames.emplace_back(data, data + header->caplen);
    }
    return frames;
}

/* ---- hosts ----------------------------------------------------------------------------------------------------- */

void capture_host::send(const std::vector<frame_bytes> &frames) {
    for (const frame_bytes &frame : frames) {
        counters_.tx_packets++;
        counters_.tx_bytes += frame.size();
    }
    network_.play(number(), frames);
}

std::vector<frame_bytes> capture_host::receive() {
    std::vector<frame_bytes> frames = network_.take(number());
    for (const frame_bytes &frame : frames) {
        counters_.rx_packets++;
        counters_.rx_bytes += frame.size();
    }
    return frames;
}

interface_counters capture_host::counters() {
    (void)receive();
    return counters_;
}

// The other host answers the requests that reach it as they were sent.
int capture_host::ping(host &to, int count, int /*patience_s*/) {
    auto &other = dynamic_cast<capture_host &>(to);
    (void)receive();
    (void)other.receive();
    std::vector<frame_bytes> requests, replies, answers;
    for (int i = 0; i < count; i++) {
        requests.push_back(make_echo(*this, other, echo_request, static_cast<uint16_t>(next_ping_ + i)));
    }
    send(requests);
    const std::vector<frame_bytes> arrived = other.receive();
    for (int i = 0; i < count; i++) {
        if (std::find(arrived.begin(), arrived.end(), requests[static_cast<size_t>(i)]) != arrived.end()) {
            replies.push_back(make_echo(other, *this, echo_reply, static_cast<uint16_t>(next_ping_ + i)));
        }
    }
    next_ping_ = static_cast<uint16_t>(next_ping_ + count);
    if (!replies.empty()) {
        other.send(replies);
        answers = receive();
    }
    return static_cast<int>(std::count_if(replies.begin(), replies.end(), [&](const frame_bytes &reply) {
        return std::find(answers.begin(), answers.end(), reply) != answers.end();
    }));
}

// One way only: nobody acknowledges what a file sends.
std::string capture_host::transfer(host &to) {
    auto &other = dynamic_cast<capture_host &>(to);
    std::mt19937 random(static_cast<unsigned>(number()));
    frame_bytes sent(transfer_size), got;
    std::generate(sent.begin(), sent.end(), [&] { return static_cast<uint8_t>(random()); });
    std::vector<frame_bytes> segments;
    for (size_t at = 0; at < sent.size(); at += segment_size) {
        segments.push_back(make_segment(*this, other, static_cast<uint32_t>(at), sent.data() + at,
                                        std::min(segment_size, sent.size() - at)));
    }
    (void)other.receive();
    send(segments);
    constexpr ptrdiff_t headers_size = ethernet_header_size + ipv4_header_size + tcp_header_size;
    for (const frame_bytes &frame : other.receive()) {
        got.insert(got.end(), frame.begin() + std::min(headers_size, static_cast<ptrdiff_t>(frame.size())),
                   frame.end());
    }
    if (got != sent) {
        throw failure("what arrived is not what was sent");
    }
    return std::to_string(sent.size() / 1'000'000) + " MB in TCP segments, every byte equal";
}

void capture_host::link_set(bool up) {
    connector_ask("link s1-eth" + std::to_string(number()) + (up ? " up" : " down"), "ok");
}

} // namespace demo
