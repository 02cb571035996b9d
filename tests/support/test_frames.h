/*
 * Builds Ethernet frames for tests, byte by byte, and checks checksums the slow and obvious way. Knows nothing of the
 * code under test.
 */
#ifndef KR_TESTS_TEST_FRAMES_H
#define KR_TESTS_TEST_FRAMES_H

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace kr_test {

using bytes = std::vector<uint8_t>;

inline void append(bytes &to, const bytes &what) {
    to.insert(to.end(), what.begin(), what.end());
}

inline void append_u16(bytes &to, uint32_t value) {
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

inline void append_u32(bytes &to, uint32_t value) {
    append_u16(to, value >> 16);
    append_u16(to, value);
}

inline uint32_t u16_at(const bytes &from, size_t at) {
    return static_cast<uint32_t>(from.at(at) << 8 | from.at(at + 1));
}

inline uint32_t u32_at(const bytes &from, size_t at) {
    return u16_at(from, at) << 16 | u16_at(from, at + 2);
}

inline const bytes mac_a = {0x02, 0, 0, 0, 0, 0x0a};
inline const bytes mac_b = {0x02, 0, 0, 0, 0, 0x0b};
constexpr uint32_t ip_a = 0x0a000001;
constexpr uint32_t ip_b = 0x0a000002;

struct vlan_tag {
    uint16_t tpid;
    uint16_t tci;
};

// Ethernet header from a to b with tags and a type.
inline bytes ethernet(uint16_t eth_type, std::initializer_list<vlan_tag> tags = {}, const bytes &dst = mac_b,
                      const bytes &src = mac_a) {
    bytes header = dst;
    append(header, src);
    for (const vlan_tag &tag : tags) {
        append_u16(header, tag.tpid);
        append_u16(header, tag.tci);
    }
    append_u16(header, eth_type);
    return header;
}

inline uint32_t ones_sum(const bytes &data, size_t from, size_t to, uint32_t sum = 0) {
    for (size_t i = from; i < to; i += 2) {
        sum += static_cast<uint32_t>(data[i] << 8) + (i + 1 < to ? data[i + 1] : 0U);
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return sum;
}

struct ipv4_fields {
    uint8_t protocol;
    uint8_t tos = 0;
    uint16_t fragment = 0; // flags and offset as in the header
    uint16_t identification = 0x1234;
    uint8_t option_words = 0;
};

// IPv4 header with a correct checksum, for `payload_size` bytes behind it.
inline bytes ipv4(const ipv4_fields &fields, uint32_t payload_size) {
    const uint32_t header_size = 20 + fields.option_words * 4U;
    bytes header = {static_cast<uint8_t>(0x40 | header_size / 4), fields.tos};
    append_u16(header, header_size + payload_size);
    append_u16(header, fields.identification);
    append_u16(header, fields.fragment);
    append(header, {64, fields.protocol, 0, 0});
    append_u32(header, ip_a);
    append_u32(header, ip_b);
    header.resize(header_size, 1); // options: no operation
    const uint32_t checksum = ~ones_sum(header, 0, header.size()) & 0xffff;
    header[10] = static_cast<uint8_t>(checksum >> 8);
    header[11] = static_cast<uint8_t>(checksum);
    return header;
}

// The sum of the pseudo header of the packet whose IP header is at `l3`.
inline uint32_t pseudo_sum(const bytes &frame, size_t l3, uint8_t protocol, size_t transport_size) {
    const bool is_ipv4 = frame[l3] >> 4 == 4;
    const uint32_t sum = is_ipv4 ? ones_sum(frame, l3 + 12, l3 + 20) : ones_sum(frame, l3 + 8, l3 + 40);
    const uint32_t total = sum + protocol + static_cast<uint32_t>(transport_size);
    return (total & 0xffff) + (total >> 16);
}

inline bool transport_checksum_is_right(const bytes &frame, size_t l3, size_t l4, uint8_t protocol) {
    return ones_sum(frame, l4, frame.size(), pseudo_sum(frame, l3, protocol, frame.size() - l4)) == 0xffff;
}

inline bool ipv4_checksum_is_right(const bytes &frame, size_t l3) {
    return ones_sum(frame, l3, l3 + (frame[l3] & 0xfU) * 4) == 0xffff;
}

inline bytes tcp_header(uint16_t src, uint16_t dst, uint32_t sequence, uint8_t flags, uint32_t option_words = 0) {
    bytes header;
    append_u16(header, src);
    append_u16(header, dst);
    append_u32(header, sequence);
    append_u32(header, 0x99887766);
    append(header, {static_cast<uint8_t>((5 + option_words) << 4), flags, 0xff, 0xff, 0, 0, 0, 0});
    header.resize(20 + option_words * 4, 1);
    return header;
}

// A UDP datagram in IPv4 without a checksum.
inline bytes udp_frame(uint16_t src_port, uint16_t dst_port, uint32_t payload_size,
                       std::initializer_list<vlan_tag> tags = {}) {
    bytes frame = ethernet(0x0800, tags);
    append(frame, ipv4({.protocol = 17}, 8 + payload_size));
    append_u16(frame, src_port);
    append_u16(frame, dst_port);
    append_u16(frame, 8 + payload_size);
    append_u16(frame, 0);
    for (uint32_t i = 0; i < payload_size; i++) {
        frame.push_back(static_cast<uint8_t>(i));
    }
    return frame;
}

inline bytes lldp_frame() {
    bytes frame = ethernet(0x88cc, {}, {0x01, 0x80, 0xc2, 0, 0, 0x0e});
    append(frame, {0x02, 0x07, 0x04, 2, 0, 0, 0, 0, 10, 0, 0});
    return frame;
}

inline bytes stp_frame() {
    bytes frame = ethernet(38, {}, {0x01, 0x80, 0xc2, 0, 0, 0});
    append(frame, {0x42, 0x42, 0x03, 0, 0, 0, 0});
    frame.resize(60);
    return frame;
}

} // namespace kr_test

#endif
