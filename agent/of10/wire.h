/*
 * The data sheet of the OpenFlow 1.0 wire: for every fixed part of a message, an action or a list's entry, the offset
 * of each field. Reading and writing are both made from these rows, so they cannot disagree; the compiler checks that
 * the rows leave no gap, do not overlap and add up to the size that the protocol gives. Internal to the codec:
 * decode.cpp and encode.cpp include it. What has no fixed place (lists, payloads) is theirs.
 */
#ifndef OF10_WIRE_H
#define OF10_WIRE_H

#include "of10/of10.h"

#include <algorithm>
#include <concepts>
#include <cstring>
#include <tuple>
#include <type_traits>

namespace of10::wire {

/* ---- Rows ------------------------------------------------------------------------------------------------------- */

template <typename record, typename member> struct field {
    size_t offset;
    size_t size;
    member record::*where;
};

/* Zero when written, not looked at when read. */
struct padding {
    size_t offset;
    size_t size;
};

/* Bytes that are not the record's own: the header, a type, a length. */
struct elsewhere {
    size_t offset;
    size_t size;
};

template <typename record> struct sheet;

template <typename member> consteval size_t size_on_wire() {
    if constexpr (std::integral<member> || std::is_enum_v<member>)
        return sizeof(member);
    else if constexpr (std::same_as<member, mac_address>)
        return std::tuple_size_v<mac_address>;
    else
        return sheet<member>::size;
}

template <typename record, typename member> consteval auto at(size_t offset, member record::*where) {
    return field<record, member>{offset, size_on_wire<member>(), where};
}
/* A text in a field of fixed size: cut to leave a final NUL, filled up with NULs. */
template <typename record> consteval auto text_at(size_t offset, size_t size, std::string record::*where) {
    return field<record, std::string>{offset, size, where};
}
consteval padding pad(size_t offset, size_t size) {
    return {offset, size};
}
consteval elsewhere other(size_t offset, size_t size) {
    return {offset, size};
}

/* ---- Records inside others -------------------------------------------------------------------------------------- */

template <> struct sheet<flow_match> {
    static constexpr size_t size = 40;
    static constexpr auto rows =
        std::tuple(at(0, &flow_match::wildcards), at(4, &flow_match::in_port), at(6, &flow_match::dl_src),
                   at(12, &flow_match::dl_dst), at(18, &flow_match::dl_vlan), at(20, &flow_match::dl_vlan_pcp),
                   pad(21, 1), at(22, &flow_match::dl_type), at(24, &flow_match::nw_tos), at(25, &flow_match::nw_proto),
                   pad(26, 2), at(28, &flow_match::nw_src), at(32, &flow_match::nw_dst), at(36, &flow_match::tp_src),
                   at(38, &flow_match::tp_dst));
};

template <> struct sheet<phy_port> {
    static constexpr size_t size = 48;
    static constexpr auto rows =
        std::tuple(at(0, &phy_port::port_no), at(2, &phy_port::hw_addr), text_at(8, 16, &phy_port::name),
                   at(24, &phy_port::config), at(28, &phy_port::state), at(32, &phy_port::curr),
                   at(36, &phy_port::advertised), at(40, &phy_port::supported), at(44, &phy_port::peer));
};

/* ---- Actions: offsets from the action's type --------------------------------------------------------------------- */

inline constexpr size_t action_head_size = 4; // type, length
inline constexpr size_t action_align = 8;

template <> struct sheet<action_output> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_output::port), at(6, &action_output::max_len));
};
template <> struct sheet<action_set_vlan_vid> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_set_vlan_vid::vlan_vid), pad(6, 2));
};
template <> struct sheet<action_set_vlan_pcp> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_set_vlan_pcp::vlan_pcp), pad(5, 3));
};
template <> struct sheet<action_strip_vlan> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), pad(4, 4));
};
template <> struct sheet<action_set_dl_src> {
    static constexpr size_t size = 16;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_set_dl_src::address), pad(10, 6));
};
template <> struct sheet<action_set_dl_dst> {
    static constexpr size_t size = 16;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_set_dl_dst::address), pad(10, 6));
};
template <> struct sheet<action_set_nw_src> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_set_nw_src::address));
};
template <> struct sheet<action_set_nw_dst> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_set_nw_dst::address));
};
template <> struct sheet<action_set_nw_tos> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_set_nw_tos::nw_tos), pad(5, 3));
};
template <> struct sheet<action_set_tp_src> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_set_tp_src::port), pad(6, 2));
};
template <> struct sheet<action_set_tp_dst> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_set_tp_dst::port), pad(6, 2));
};
template <> struct sheet<action_enqueue> {
    static constexpr size_t size = 16;
    static constexpr auto rows =
        std::tuple(other(0, 4), at(4, &action_enqueue::port), pad(6, 6), at(12, &action_enqueue::queue_id));
};
template <> struct sheet<action_vendor> { // the body follows
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(other(0, 4), at(4, &action_vendor::vendor));
};

/* ---- Messages: offsets from the header's version ------------------------------------------------------------------
 */

inline constexpr size_t offset_version = 0;
inline constexpr size_t offset_type = 1;
inline constexpr size_t offset_length = 2;
inline constexpr size_t offset_xid = 4;

/* A message that is its header alone, or the header and a payload. */
struct bare_sheet {
    static constexpr size_t size = header_size;
    static constexpr auto rows = std::tuple(other(0, 8));
};
template <> struct sheet<hello> : bare_sheet {}; // elements follow
template <> struct sheet<echo_request> : bare_sheet {};
template <> struct sheet<echo_reply> : bare_sheet {};
template <> struct sheet<features_request> : bare_sheet {};
template <> struct sheet<get_config_request> : bare_sheet {};
template <> struct sheet<barrier_request> : bare_sheet {};
template <> struct sheet<barrier_reply> : bare_sheet {};

template <> struct sheet<error> { // the quotation follows
    static constexpr size_t size = 12;
    static constexpr auto rows = std::tuple(other(0, 8), at(8, &error::type), at(10, &error::code));
};
template <> struct sheet<vendor> { // the body follows
    static constexpr size_t size = 12;
    static constexpr auto rows = std::tuple(other(0, 8), at(8, &vendor::vendor_id));
};
template <> struct sheet<features_reply> { // ports follow
    static constexpr size_t size = 32;
    static constexpr auto rows =
        std::tuple(other(0, 8), at(8, &features_reply::datapath_id), at(16, &features_reply::n_buffers),
                   at(20, &features_reply::n_tables), pad(21, 3), at(24, &features_reply::capabilities),
                   at(28, &features_reply::actions));
};
template <> struct sheet<get_config_reply> {
    static constexpr size_t size = 12;
    static constexpr auto rows =
        std::tuple(other(0, 8), at(8, &get_config_reply::flags), at(10, &get_config_reply::miss_send_len));
};
template <> struct sheet<set_config> {
    static constexpr size_t size = 12;
    static constexpr auto rows = std::tuple(other(0, 8), at(8, &set_config::flags), at(10, &set_config::miss_send_len));
};
template <> struct sheet<packet_in_fields> { // the frame follows, not aligned
    static constexpr size_t size = 18;
    static constexpr auto rows =
        std::tuple(other(0, 8), at(8, &packet_in_fields::buffer_id), at(12, &packet_in_fields::total_len),
                   at(14, &packet_in_fields::in_port), at(16, &packet_in_fields::reason), pad(17, 1));
};
template <> struct sheet<flow_removed> {
    static constexpr size_t size = 88;
    static constexpr auto rows = std::tuple(other(0, 8), at(8, &flow_removed::match), at(48, &flow_removed::cookie),
                                            at(56, &flow_removed::priority), at(58, &flow_removed::reason), pad(59, 1),
                                            at(60, &flow_removed::duration_sec), at(64, &flow_removed::duration_nsec),
                                            at(68, &flow_removed::idle_timeout), pad(70, 2),
                                            at(72, &flow_removed::packet_count), at(80, &flow_removed::byte_count));
};
template <> struct sheet<port_status> {
    static constexpr size_t size = 64;
    static constexpr auto rows =
        std::tuple(other(0, 8), at(8, &port_status::reason), pad(9, 7), at(16, &port_status::desc));
};
inline constexpr size_t offset_actions_length = 14; // of a packet-out
template <> struct sheet<packet_out> {              // actions and the frame follow
    static constexpr size_t size = 16;
    static constexpr auto rows = std::tuple(other(0, 8), at(8, &packet_out::buffer_id), at(12, &packet_out::in_port),
                                            other(offset_actions_length, 2));
};
template <> struct sheet<flow_mod> { // actions follow
    static constexpr size_t size = 72;
    static constexpr auto rows =
        std::tuple(other(0, 8), at(8, &flow_mod::match), at(48, &flow_mod::cookie), at(56, &flow_mod::command),
                   at(58, &flow_mod::idle_timeout), at(60, &flow_mod::hard_timeout), at(62, &flow_mod::priority),
                   at(64, &flow_mod::buffer_id), at(68, &flow_mod::out_port), at(70, &flow_mod::flags));
};
template <> struct sheet<port_mod> {
    static constexpr size_t size = 32;
    static constexpr auto rows =
        std::tuple(other(0, 8), at(8, &port_mod::port_no), at(10, &port_mod::hw_addr), at(16, &port_mod::config),
                   at(20, &port_mod::mask), at(24, &port_mod::advertise), pad(28, 4));
};
template <> struct sheet<queue_get_config_request> {
    static constexpr size_t size = 12;
    static constexpr auto rows = std::tuple(other(0, 8), at(8, &queue_get_config_request::port), pad(10, 2));
};
template <> struct sheet<queue_get_config_reply> { // queues follow
    static constexpr size_t size = 16;
    static constexpr auto rows = std::tuple(other(0, 8), at(8, &queue_get_config_reply::port), pad(10, 6));
};

/* A queue, and a property of it: their lengths include what follows. */
inline constexpr size_t offset_queue_length = 4;
template <> struct sheet<packet_queue> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(at(0, &packet_queue::queue_id), other(offset_queue_length, 2), pad(6, 2));
};
inline constexpr size_t offset_property_length = 2;
inline constexpr size_t min_rate_body_size = 8;
template <> struct sheet<queue_property> {
    static constexpr size_t size = 8;
    static constexpr auto rows = std::tuple(at(0, &queue_property::type), other(offset_property_length, 2), pad(4, 4));
};

/* ---- Statistics: of requests and single records, offsets from the header's version ------------------------------- */

inline constexpr size_t offset_stats_type = 8;
inline constexpr size_t offset_stats_flags = 10;
inline constexpr size_t stats_head_size = 12;

struct bare_stats_sheet {
    static constexpr size_t size = stats_head_size;
    static constexpr auto rows = std::tuple(other(0, 12));
};
template <> struct sheet<desc_stats_request> : bare_stats_sheet {};
template <> struct sheet<table_stats_request> : bare_stats_sheet {};

template <> struct sheet<flow_stats_request> {
    static constexpr size_t size = 56;
    static constexpr auto rows =
        std::tuple(other(0, 12), at(12, &flow_stats_request::match), at(52, &flow_stats_request::table_id), pad(53, 1),
                   at(54, &flow_stats_request::out_port));
};
template <> struct sheet<aggregate_stats_request> {
    static constexpr size_t size = 56;
    static constexpr auto rows =
        std::tuple(other(0, 12), at(12, &aggregate_stats_request::match), at(52, &aggregate_stats_request::table_id),
                   pad(53, 1), at(54, &aggregate_stats_request::out_port));
};
template <> struct sheet<port_stats_request> {
    static constexpr size_t size = 20;
    static constexpr auto rows = std::tuple(other(0, 12), at(12, &port_stats_request::port_no), pad(14, 6));
};
template <> struct sheet<queue_stats_request> {
    static constexpr size_t size = 20;
    static constexpr auto rows = std::tuple(other(0, 12), at(12, &queue_stats_request::port_no), pad(14, 2),
                                            at(16, &queue_stats_request::queue_id));
};
template <> struct sheet<vendor_stats> { // the body follows
    static constexpr size_t size = 16;
    static constexpr auto rows = std::tuple(other(0, 12), at(12, &vendor_stats::vendor_id));
};
template <> struct sheet<desc_stats> {
    static constexpr size_t size = 1068;
    static constexpr auto rows =
        std::tuple(other(0, 12), text_at(12, 256, &desc_stats::mfr_desc), text_at(268, 256, &desc_stats::hw_desc),
                   text_at(524, 256, &desc_stats::sw_desc), text_at(780, 32, &desc_stats::serial_num),
                   text_at(812, 256, &desc_stats::dp_desc));
};
template <> struct sheet<aggregate_stats> {
    static constexpr size_t size = 36;
    static constexpr auto rows =
        std::tuple(other(0, 12), at(12, &aggregate_stats::packet_count), at(20, &aggregate_stats::byte_count),
                   at(28, &aggregate_stats::flow_count), pad(32, 4));
};

/* ---- Statistics: entries of lists, offsets from the entry's first byte --------------------------------------------
 */

inline constexpr size_t offset_flow_stats_length = 0;
template <> struct sheet<flow_stats> { // actions follow
    static constexpr size_t size = 88;
    static constexpr auto rows = std::tuple(
        other(offset_flow_stats_length, 2), at(2, &flow_stats::table_id), pad(3, 1), at(4, &flow_stats::match),
        at(44, &flow_stats::duration_sec), at(48, &flow_stats::duration_nsec), at(52, &flow_stats::priority),
        at(54, &flow_stats::idle_timeout), at(56, &flow_stats::hard_timeout), pad(58, 6), at(64, &flow_stats::cookie),
        at(72, &flow_stats::packet_count), at(80, &flow_stats::byte_count));
};
template <> struct sheet<table_stats> {
    static constexpr size_t size = 64;
    static constexpr auto rows = std::tuple(at(0, &table_stats::table_id), pad(1, 3),
                                            text_at(4, 32, &table_stats::name), at(36, &table_stats::wildcards),
                                            at(40, &table_stats::max_entries), at(44, &table_stats::active_count),
                                            at(48, &table_stats::lookup_count), at(56, &table_stats::matched_count));
};
template <> struct sheet<port_stats> {
    static constexpr size_t size = 104;
    static constexpr auto rows =
        std::tuple(at(0, &port_stats::port_no), pad(2, 6), at(8, &port_stats::rx_packets),
                   at(16, &port_stats::tx_packets), at(24, &port_stats::rx_bytes), at(32, &port_stats::tx_bytes),
                   at(40, &port_stats::rx_dropped), at(48, &port_stats::tx_dropped), at(56, &port_stats::rx_errors),
                   at(64, &port_stats::tx_errors), at(72, &port_stats::rx_frame_err), at(80, &port_stats::rx_over_err),
                   at(88, &port_stats::rx_crc_err), at(96, &port_stats::collisions));
};
template <> struct sheet<queue_stats> {
    static constexpr size_t size = 32;
    static constexpr auto rows =
        std::tuple(at(0, &queue_stats::port_no), pad(2, 2), at(4, &queue_stats::queue_id),
                   at(8, &queue_stats::tx_bytes), at(16, &queue_stats::tx_packets), at(24, &queue_stats::tx_errors));
};

/* ---- The sheets proven ------------------------------------------------------------------------------------------- */

template <typename record> consteval bool is_gapless() {
    size_t end = 0;
    bool ok = true;
    std::apply([&](const auto &...row) { ((ok = ok && row.offset == end, end = row.offset + row.size), ...); },
               sheet<record>::rows);
    return ok && end == sheet<record>::size;
}
template <typename... records> consteval bool are_gapless() {
    return (is_gapless<records>() && ...);
}

static_assert(are_gapless<flow_match, phy_port>());
static_assert(are_gapless<action_output, action_set_vlan_vid, action_set_vlan_pcp, action_strip_vlan, action_set_dl_src,
                          action_set_dl_dst, action_set_nw_src, action_set_nw_dst, action_set_nw_tos, action_set_tp_src,
                          action_set_tp_dst, action_enqueue, action_vendor>());
static_assert(are_gapless<hello, error, echo_request, echo_reply, vendor, features_request, features_reply,
                          get_config_request, get_config_reply, set_config, packet_in_fields, flow_removed, port_status,
                          packet_out, flow_mod, port_mod, barrier_request, barrier_reply, queue_get_config_request,
                          queue_get_config_reply, packet_queue, queue_property>());
static_assert(are_gapless<desc_stats_request, flow_stats_request, aggregate_stats_request, table_stats_request,
                          port_stats_request, queue_stats_request, vendor_stats, desc_stats, flow_stats,
                          aggregate_stats, table_stats, port_stats, queue_stats>());
static_assert(max_actions_size == (max_message_size - stats_head_size - sheet<flow_stats>::size) / 8 * 8);

/* ---- Values ------------------------------------------------------------------------------------------------------ */

template <std::unsigned_integral number> constexpr number load_number(const uint8_t *from) noexcept {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(number); ++i)
        value = value << 8 | from[i];
    return static_cast<number>(value);
}

template <std::unsigned_integral number> constexpr void store_number(uint8_t *to, number value) noexcept {
    for (size_t i = 0; i < sizeof(number); ++i)
        to[i] = static_cast<uint8_t>(uint64_t{value} >> (8 * (sizeof(number) - 1 - i)));
}

/* Reads and writes the fixed part of a record that begins at an address with sheet<record>::size bytes. Writing leaves
 * padding and what is other's alone: the caller's bytes are zero before. */
template <typename record> void load(const uint8_t *from, record &to);
template <typename record> void store(uint8_t *to, const record &from);

template <typename value> void load_value(const uint8_t *from, [[maybe_unused]] size_t size, value &to) {
    if constexpr (std::unsigned_integral<value>)
        to = load_number<value>(from);
    else if constexpr (std::is_enum_v<value>)
        to = static_cast<value>(load_number<std::underlying_type_t<value>>(from));
    else if constexpr (std::same_as<value, mac_address>)
        std::copy_n(from, to.size(), to.begin());
    else if constexpr (std::same_as<value, std::string>)
        to.assign(from, std::find(from, from + size - 1, uint8_t{0}));
    else
        load(from, to);
}

template <typename value> void store_value(uint8_t *to, [[maybe_unused]] size_t size, const value &from) {
    if constexpr (std::unsigned_integral<value>)
        store_number(to, from);
    else if constexpr (std::is_enum_v<value>)
        store_number(to, static_cast<std::underlying_type_t<value>>(from));
    else if constexpr (std::same_as<value, mac_address>)
        std::copy(from.begin(), from.end(), to);
    else if constexpr (std::same_as<value, std::string>)
        std::memcpy(to, from.data(), std::min({from.size(), from.find('\0'), size - 1}));
    else
        store(to, from);
}

template <typename record, typename owner, typename member>
void load_row(const uint8_t *start, record &to, const field<owner, member> &row) {
    load_value(start + row.offset, row.size, to.*row.where);
}
template <typename record> void load_row(const uint8_t *, record &, const padding &) {}
template <typename record> void load_row(const uint8_t *, record &, const elsewhere &) {}

template <typename record, typename owner, typename member>
void store_row(uint8_t *start, const record &from, const field<owner, member> &row) {
    store_value(start + row.offset, row.size, from.*row.where);
}
template <typename record> void store_row(uint8_t *, const record &, const padding &) {}
template <typename record> void store_row(uint8_t *, const record &, const elsewhere &) {}

template <typename record> void load(const uint8_t *from, record &to) {
    std::apply([&](const auto &...row) { (load_row(from, to, row), ...); }, sheet<record>::rows);
}
template <typename record> void store(uint8_t *to, const record &from) {
    std::apply([&](const auto &...row) { (store_row(to, from, row), ...); }, sheet<record>::rows);
}

/* ---- Type numbers ------------------------------------------------------------------------------------------------ */

/* The alternatives of a variant stand in the order of their types; the vendor's, numbered 0xffff, is the last. */
template <typename variant> constexpr size_t index_of_type(uint16_t type) noexcept {
    constexpr size_t last = std::variant_size_v<variant> - 1;
    if (type == 0xffff)
        return last;
    return type < last ? type : std::variant_npos;
}
template <typename variant, typename kind> consteval size_t index_of_alternative() {
    return []<size_t... index>(std::index_sequence<index...>) {
        return ((std::same_as<kind, std::variant_alternative_t<index, variant>> ? index : 0) + ...);
    }
    (std::make_index_sequence<std::variant_size_v<variant>>());
}
template <typename variant, typename type> constexpr type type_of_index(size_t index) noexcept {
    constexpr size_t last = std::variant_size_v<variant> - 1;
    return static_cast<type>(index == last ? 0xffff : index);
}

static_assert(std::variant_size_v<message_body> == static_cast<size_t>(message_type::queue_get_config_reply) + 1);
static_assert(index_of_type<action>(11) == 11 && index_of_type<action>(12) == std::variant_npos &&
              index_of_type<action>(0xffff) == 12);
static_assert(index_of_type<stats_reply_body>(5) == 5 && index_of_type<stats_reply_body>(6) == std::variant_npos &&
              index_of_type<stats_reply_body>(0xffff) == 6);

} // namespace of10::wire

#endif
