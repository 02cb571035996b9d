/*
 * The text of each record that a client can be handed.
 */
#include "tests/sweep/outputs.h"

#include <algorithm>
#include <cstdio>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tests/support/call_faults.h"

namespace kr_test {
namespace {

constexpr const char *untouched = "untouched";

template <typename Value> std::span<const uint8_t> bytes_of(const Value &value) {
    return {reinterpret_cast<const uint8_t *>(&value), sizeof value};
}
template <typename Value> bool is_full_of(const Value &value, uint8_t wanted) {
    const std::span<const uint8_t> bytes = bytes_of(value);
    return std::all_of(bytes.begin(), bytes.end(), [=](uint8_t byte) { return byte == wanted; });
}

// In hexadecimal; what goes on for long is counted.
std::string bytes_text(std::span<const uint8_t> bytes) {
    constexpr ptrdiff_t long_run = 8;
    std::string text;
    bool is_run = true;
    for (auto at = bytes.begin(); at != bytes.end();) {
        const auto end = std::find_if(at, bytes.end(), [&](uint8_t byte) { return byte != *at; });
        const bool was_run = std::exchange(is_run, end - at >= long_run || *at == canary);
        char digits[3];
        (void)snprintf(digits, sizeof digits, "%02x", *at);
        text += !text.empty() && (was_run || is_run) ? " " : "";
        if (is_run) {
            text += (*at == canary ? untouched : digits) + ("*" + std::to_string(end - at));
        } else {
            for (auto byte = at; byte != end; ++byte) {
                text += digits;
            }
        }
        at = end;
    }
    return text;
}

template <typename Field> std::string field_text(const Field &field) {
    if (is_full_of(field, canary)) {
        return untouched;
    }
    if constexpr (std::is_integral_v<Field>) {
        return std::to_string(field);
    } else if constexpr (std::is_same_v<Field, char[sizeof(Field)]>) {
        return '"' + std::string(field, strnlen(field, sizeof field)) + '"';
    } else {
        return bytes_text(bytes_of(field));
    }
}

// The fields that are not 0, with their names out of "first, second".
template <typename Record, typename... Fields>
std::string record_text(const Record &record, std::string_view names, const Fields &...fields) {
    if (is_full_of(record, canary)) {
        return untouched;
    }
    std::string text;
    const auto add = [&](const auto &field) {
        const std::string_view name = names.substr(0, names.find(','));
        names.remove_prefix(std::min(names.size(), name.size() + 2));
        if (!is_full_of(field, 0)) {
            text += (text.empty() ? "" : ", ") + std::string(name) + ' ' + field_text(field);
        }
    };
    (add(fields), ...);
    return text.empty() ? "{zero}" : '{' + text + '}';
}

// All fields of a record, in their order.
#define TOLD(type, ...)                                                                                                \
    std::string told(const type &record) {                                                                             \
        const auto &[__VA_ARGS__] = record;                                                                            \
        return record_text(record, #__VA_ARGS__, __VA_ARGS__);                                                         \
    }                                                                                                                  \
    static_assert(true)

// A descriptor, by what the library has it for.
std::string descriptor_text(int fd) {
    return is_full_of(fd, canary) ? untouched : fd == 0 ? "0" : name_of_descriptor(fd);
}

} // namespace

std::string told(const int32_t &value) {
    return field_text(value);
}
std::string told(const uint16_t &value) {
    return field_text(value);
}
std::string told(const uint32_t &value) {
    return field_text(value);
}
std::string told(const port_mac_address &address) {
    return field_text(address.bytes);
}

TOLD(port_speed_admin, speed_1g, speed_10g, speed_40g, speed_100g);
TOLD(port_counters, rx_packets, tx_packets, rx_bytes, tx_bytes, rx_dropped, tx_dropped, rx_errors, tx_errors,
     rx_frame_errors, rx_overrun_errors, rx_crc_errors, collisions);
TOLD(capabilities, mode, frame_size, reserved);
TOLD(flow_record, flow_id, priority, in_port, in_port_mask, eth_src, eth_src_mask, eth_dst, eth_dst_mask, vlan_tagged,
     vlan_tagged_mask, vlan_id, vlan_id_mask, vlan_pcp, vlan_pcp_mask, eth_type, eth_type_mask, ip_tos, ip_tos_mask,
     ip_proto, ip_proto_mask, ipv4_src, ipv4_src_mask, ipv4_dst, ipv4_dst_mask, tp_src, tp_src_mask, tp_dst,
     tp_dst_mask, action, out_port, mc_group_id, vlan_action, vlan_action_vid, vlan_action_pcp);
TOLD(flow_stats, count_first, count_second);
TOLD(table_stats, max_entries, reserved);
TOLD(table_capabilities, name, max_entries, table_flag, instructions, write_actions, apply_actions, match, wildcards,
     apply_setfields);

// The payload as that of a packet, the largest: bytes, and two numbers behind them.
std::string told(const hal_event_record &record) {
    const hal_event_packet &packet = record.payload.packet;
    return record_text(record, "type, reserved, payload, length, port", record.type, record.reserved, packet.data,
                       packet.length, packet.in_port);
}

std::string told(const srvc_handle &handle) {
    if (is_full_of(handle, canary)) {
        return untouched;
    }
    return "{sdk_fd " + descriptor_text(handle.sdk_fd.fd) + ", hal_pipe " + descriptor_text(handle.hal_pipe[0]) +
           " and " + descriptor_text(handle.hal_pipe[1]) + ", sdk_fd_open " + field_text(handle.sdk_fd_open) +
           ", is_open " + field_text(handle.is_open) + '}';
}

std::string outputs::text() const {
    std::string text;
    for (const auto &entry : entries_) {
        text += (text.empty() ? "" : "; ") + entry();
    }
    return text;
}

} // namespace kr_test
