/*
 * The OpenFlow 1.0 (wire version 0x01) codec: pure functions from the bytes of a message to a record and back.
 *
 * It knows layouts, lengths and the errors that a malformed message deserves. It knows no sockets, no switch and no
 * state: whether a port exists or a table is full is for its caller to say. Numbers in records are in host byte order,
 * lists keep the order and number in which they came, and what a record holds reads back equal after encode and decode.
 * Neighbours: text.h renders records for logs; the agent's connections call message_size(), decode() and encode().
 *
 * Every function here is free of side effects, safe to call from several threads at once, and throws nothing but
 * std::bad_alloc.
 */
#ifndef OF10_OF10_H
#define OF10_OF10_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace of10 {

using bytes = std::vector<uint8_t>;
using byte_view = std::span<const uint8_t>;
using mac_address = std::array<uint8_t, 6>;

/* ---- Numbers of the protocol ------------------------------------------------------------------------------------ */

inline constexpr uint8_t protocol_version = 0x01;
inline constexpr size_t header_size = 8;
inline constexpr size_t max_message_size = 0xffff; // the header's length field has 16 bits
inline constexpr size_t error_quote_size = 64;     // of a refused request, at least this much is quoted when it has it

inline constexpr uint32_t buffer_none = 0xffffffff;
inline constexpr uint16_t vlan_none = 0xffff; // flow_match::dl_vlan: the frame carries no VLAN tag
inline constexpr uint16_t default_priority = 0x8000;
inline constexpr uint16_t default_miss_send_len = 128;
inline constexpr uint16_t flow_permanent = 0; // as a time-out: never
inline constexpr uint8_t table_all = 0xff;
inline constexpr uint8_t table_emergency = 0xfe;
inline constexpr uint32_t queue_all = 0xffffffff;
inline constexpr uint64_t counter_unknown = UINT64_MAX; // how a statistic says that it is not kept

enum class message_type : uint8_t {
    hello = 0,
    error = 1,
    echo_request = 2,
    echo_reply = 3,
    vendor = 4,
    features_request = 5,
    features_reply = 6,
    get_config_request = 7,
    get_config_reply = 8,
    set_config = 9,
    packet_in = 10,
    flow_removed = 11,
    port_status = 12,
    packet_out = 13,
    flow_mod = 14,
    port_mod = 15,
    stats_request = 16,
    stats_reply = 17,
    barrier_request = 18,
    barrier_reply = 19,
    queue_get_config_request = 20,
    queue_get_config_reply = 21,
};

namespace ports { // 1 to `max` are physical
inline constexpr uint16_t max = 0xff00;
inline constexpr uint16_t in_port = 0xfff8;
inline constexpr uint16_t table = 0xfff9; // packet_out only
inline constexpr uint16_t normal = 0xfffa;
inline constexpr uint16_t flood = 0xfffb;
inline constexpr uint16_t all = 0xfffc;
inline constexpr uint16_t controller = 0xfffd;
inline constexpr uint16_t local = 0xfffe;
inline constexpr uint16_t none = 0xffff; // as a filter: every port
} // namespace ports

namespace wildcard { // bits of flow_match::wildcards
inline constexpr uint32_t in_port = 1u << 0;
inline constexpr uint32_t dl_vlan = 1u << 1;
inline constexpr uint32_t dl_src = 1u << 2;
inline constexpr uint32_t dl_dst = 1u << 3;
inline constexpr uint32_t dl_type = 1u << 4;
inline constexpr uint32_t nw_proto = 1u << 5;
inline constexpr uint32_t tp_src = 1u << 6;
inline constexpr uint32_t tp_dst = 1u << 7;
inline constexpr unsigned nw_src_shift = 8; // six bits: how many low bits of nw_src are ignored, 32 and more: all
inline constexpr uint32_t nw_src_bits = 0x3fu << nw_src_shift;
inline constexpr uint32_t nw_src_all = 32u << nw_src_shift;
inline constexpr unsigned nw_dst_shift = 14;
inline constexpr uint32_t nw_dst_bits = 0x3fu << nw_dst_shift;
inline constexpr uint32_t nw_dst_all = 32u << nw_dst_shift;
inline constexpr uint32_t dl_vlan_pcp = 1u << 20;
inline constexpr uint32_t nw_tos = 1u << 21;
inline constexpr uint32_t all = (1u << 22) - 1;
} // namespace wildcard

namespace port_config {
inline constexpr uint32_t port_down = 1u << 0;
inline constexpr uint32_t no_stp = 1u << 1;
inline constexpr uint32_t no_recv = 1u << 2;
inline constexpr uint32_t no_recv_stp = 1u << 3;
inline constexpr uint32_t no_flood = 1u << 4;
inline constexpr uint32_t no_fwd = 1u << 5;
inline constexpr uint32_t no_packet_in = 1u << 6;
} // namespace port_config

namespace port_state {
inline constexpr uint32_t link_down = 1u << 0;
inline constexpr uint32_t stp_listen = 0u << 8;
inline constexpr uint32_t stp_learn = 1u << 8;
inline constexpr uint32_t stp_forward = 2u << 8;
inline constexpr uint32_t stp_block = 3u << 8;
inline constexpr uint32_t stp_bits = 3u << 8;
} // namespace port_state

namespace port_feature {
inline constexpr uint32_t speed_10mb_hd = 1u << 0;
inline constexpr uint32_t speed_10mb_fd = 1u << 1;
inline constexpr uint32_t speed_100mb_hd = 1u << 2;
inline constexpr uint32_t speed_100mb_fd = 1u << 3;
inline constexpr uint32_t speed_1gb_hd = 1u << 4;
inline constexpr uint32_t speed_1gb_fd = 1u << 5;
inline constexpr uint32_t speed_10gb_fd = 1u << 6;
inline constexpr uint32_t copper = 1u << 7;
inline constexpr uint32_t fiber = 1u << 8;
inline constexpr uint32_t autoneg = 1u << 9;
inline constexpr uint32_t pause = 1u << 10;
inline constexpr uint32_t pause_asym = 1u << 11;
} // namespace port_feature

namespace capability {
inline constexpr uint32_t flow_stats = 1u << 0;
inline constexpr uint32_t table_stats = 1u << 1;
inline constexpr uint32_t port_stats = 1u << 2;
inline constexpr uint32_t stp = 1u << 3;
inline constexpr uint32_t reserved = 1u << 4; // must be zero
inline constexpr uint32_t ip_reasm = 1u << 5;
inline constexpr uint32_t queue_stats = 1u << 6;
inline constexpr uint32_t arp_match_ip = 1u << 7;
} // namespace capability

namespace config_flag { // the two low bits of switch_config::flags
inline constexpr uint16_t frag_normal = 0;
inline constexpr uint16_t frag_drop = 1;
inline constexpr uint16_t frag_reasm = 2;
inline constexpr uint16_t frag_bits = 3;
} // namespace config_flag

namespace flow_mod_flag {
inline constexpr uint16_t send_flow_rem = 1u << 0;
inline constexpr uint16_t check_overlap = 1u << 1;
inline constexpr uint16_t emerg = 1u << 2;
} // namespace flow_mod_flag

inline constexpr uint16_t stats_reply_more = 1u << 0;

enum class flow_mod_command : uint16_t { add = 0, modify = 1, modify_strict = 2, del = 3, del_strict = 4 };
enum class packet_in_reason : uint8_t { no_match = 0, action = 1 };
enum class flow_removed_reason : uint8_t { idle_timeout = 0, hard_timeout = 1, del = 2 };
enum class port_reason : uint8_t { add = 0, del = 1, modify = 2 };

enum class action_type : uint16_t {
    output = 0,
    set_vlan_vid = 1,
    set_vlan_pcp = 2,
    strip_vlan = 3,
    set_dl_src = 4,
    set_dl_dst = 5,
    set_nw_src = 6,
    set_nw_dst = 7,
    set_nw_tos = 8,
    set_tp_src = 9,
    set_tp_dst = 10,
    enqueue = 11,
    vendor = 0xffff,
};

enum class stats_type : uint16_t {
    desc = 0,
    flow = 1,
    aggregate = 2,
    table = 3,
    port = 4,
    queue = 5,
    vendor = 0xffff,
};

enum class error_type : uint16_t {
    hello_failed = 0,
    bad_request = 1,
    bad_action = 2,
    flow_mod_failed = 3,
    port_mod_failed = 4,
    queue_op_failed = 5,
};

namespace hello_failed {
inline constexpr uint16_t incompatible = 0;
inline constexpr uint16_t eperm = 1;
} // namespace hello_failed

namespace bad_request {
inline constexpr uint16_t bad_version = 0;
inline constexpr uint16_t bad_type = 1;
inline constexpr uint16_t bad_stat = 2;
inline constexpr uint16_t bad_vendor = 3;
inline constexpr uint16_t bad_subtype = 4;
inline constexpr uint16_t eperm = 5;
inline constexpr uint16_t bad_len = 6;
inline constexpr uint16_t buffer_empty = 7;
inline constexpr uint16_t buffer_unknown = 8;
} // namespace bad_request

namespace bad_action {
inline constexpr uint16_t bad_type = 0;
inline constexpr uint16_t bad_len = 1;
inline constexpr uint16_t bad_vendor = 2;
inline constexpr uint16_t bad_vendor_type = 3;
inline constexpr uint16_t bad_out_port = 4;
inline constexpr uint16_t bad_argument = 5;
inline constexpr uint16_t eperm = 6;
inline constexpr uint16_t too_many = 7;
inline constexpr uint16_t bad_queue = 8;
} // namespace bad_action

namespace flow_mod_failed {
inline constexpr uint16_t all_tables_full = 0;
inline constexpr uint16_t overlap = 1;
inline constexpr uint16_t eperm = 2;
inline constexpr uint16_t bad_emerg_timeout = 3;
inline constexpr uint16_t bad_command = 4;
inline constexpr uint16_t unsupported = 5;
} // namespace flow_mod_failed

namespace port_mod_failed {
inline constexpr uint16_t bad_port = 0;
inline constexpr uint16_t bad_hw_addr = 1;
} // namespace port_mod_failed

namespace queue_op_failed {
inline constexpr uint16_t bad_port = 0;
inline constexpr uint16_t bad_queue = 1;
inline constexpr uint16_t eperm = 2;
} // namespace queue_op_failed

/* ---- Match ------------------------------------------------------------------------------------------------------ */

/* As it came: fields that `wildcards` or the frame type make meaningless keep their values. The default matches all. */
struct flow_match {
    uint32_t wildcards = wildcard::all;
    uint16_t in_port = 0;
    mac_address dl_src{};
    mac_address dl_dst{};
    uint16_t dl_vlan = 0;
    uint8_t dl_vlan_pcp = 0;
    uint16_t dl_type = 0; // below 0x600: 802.3, 0x05ff stands for a frame without SNAP type
    uint8_t nw_tos = 0;   // the upper six bits: DSCP
    uint8_t nw_proto = 0; // for ARP: the low eight bits of the opcode
    uint32_t nw_src = 0;
    uint32_t nw_dst = 0;
    uint16_t tp_src = 0; // for ICMP: the type
    uint16_t tp_dst = 0; // for ICMP: the code
    bool operator==(const flow_match &) const = default;
};

/* How many leading bits of the address count: 0 to 32. */
unsigned match_nw_src_prefix(const flow_match &match) noexcept;
unsigned match_nw_dst_prefix(const flow_match &match) noexcept;
/* The same as a netmask in host byte order: 0 when no bit counts. */
uint32_t match_nw_src_mask(const flow_match &match) noexcept;
uint32_t match_nw_dst_mask(const flow_match &match) noexcept;

/* The one form in which two matches that select the same frames are equal: fields that cannot count (a wildcarded one;
 * one whose frame type or protocol is not fixed by the match; a priority beside "no tag") become wildcards, wildcarded
 * fields and address bits zero, and unknown wildcard bits are dropped. Use it to compare; keep the original to tell. */
flow_match match_normalize(const flow_match &match) noexcept;

/* ---- Actions ---------------------------------------------------------------------------------------------------- */

struct action_output {
    uint16_t port = 0;
    uint16_t max_len = 0; // bytes to send, when `port` is ports::controller
    bool operator==(const action_output &) const = default;
};
struct action_set_vlan_vid {
    uint16_t vlan_vid = 0; // 0 to 4095
    bool operator==(const action_set_vlan_vid &) const = default;
};
struct action_set_vlan_pcp {
    uint8_t vlan_pcp = 0; // 0 to 7
    bool operator==(const action_set_vlan_pcp &) const = default;
};
struct action_strip_vlan {
    bool operator==(const action_strip_vlan &) const = default;
};
struct action_set_dl_src {
    mac_address address{};
    bool operator==(const action_set_dl_src &) const = default;
};
struct action_set_dl_dst {
    mac_address address{};
    bool operator==(const action_set_dl_dst &) const = default;
};
struct action_set_nw_src {
    uint32_t address = 0;
    bool operator==(const action_set_nw_src &) const = default;
};
struct action_set_nw_dst {
    uint32_t address = 0;
    bool operator==(const action_set_nw_dst &) const = default;
};
struct action_set_nw_tos {
    uint8_t nw_tos = 0; // the two low bits are zero
    bool operator==(const action_set_nw_tos &) const = default;
};
struct action_set_tp_src {
    uint16_t port = 0;
    bool operator==(const action_set_tp_src &) const = default;
};
struct action_set_tp_dst {
    uint16_t port = 0;
    bool operator==(const action_set_tp_dst &) const = default;
};
struct action_enqueue {
    uint16_t port = 0;
    uint32_t queue_id = 0;
    bool operator==(const action_enqueue &) const = default;
};
struct action_vendor {
    uint32_t vendor = 0;
    bytes body{}; // a multiple of eight bytes
    bool operator==(const action_vendor &) const = default;
};

/* The alternatives stand in the order of their type numbers. */
using action = std::variant<action_output, action_set_vlan_vid, action_set_vlan_pcp, action_strip_vlan,
                            action_set_dl_src, action_set_dl_dst, action_set_nw_src, action_set_nw_dst,
                            action_set_nw_tos, action_set_tp_src, action_set_tp_dst, action_enqueue, action_vendor>;
using action_list = std::vector<action>;

action_type type_of(const action &one) noexcept;

/* Bytes that the list takes on the wire. */
size_t actions_size(const action_list &actions) noexcept;

/* The longest list that a flow statistics entry can carry. A flow-mod has room for a little more: what is longer than
 * this could not be told back, and deserves bad_action::too_many. */
inline constexpr size_t max_actions_size = (max_message_size - 12 - 88) / 8 * 8;

/* ---- Messages --------------------------------------------------------------------------------------------------- */

/* The version that the peer offered: any that negotiates to ours arrives here, others are a failure of decode(). */
struct hello {
    uint8_t version = protocol_version;
    bytes elements{}; // not looked at by this version, but for the version bitmap that newer peers send
    bool operator==(const hello &) const = default;
};

struct error {
    uint16_t type = 0; // an error_type, or one that only the peer knows
    uint16_t code = 0;
    bytes data{}; // the start of the refused request; text for hello_failed
    bool operator==(const error &) const = default;
};

struct echo_request {
    bytes data{};
    bool operator==(const echo_request &) const = default;
};
struct echo_reply {
    bytes data{};
    bool operator==(const echo_reply &) const = default;
};

struct vendor {
    uint32_t vendor_id = 0;
    bytes body{};
    bool operator==(const vendor &) const = default;
};

struct features_request {
    bool operator==(const features_request &) const = default;
};

struct phy_port {
    uint16_t port_no = 0;
    mac_address hw_addr{};
    std::string name{}; // 15 characters at most: encode() cuts what is longer, and at a NUL
    uint32_t config = 0;
    uint32_t state = 0;
    uint32_t curr = 0;
    uint32_t advertised = 0;
    uint32_t supported = 0;
    uint32_t peer = 0;
    bool operator==(const phy_port &) const = default;
};

struct features_reply {
    uint64_t datapath_id = 0;
    uint32_t n_buffers = 0;
    uint8_t n_tables = 0;
    uint32_t capabilities = 0;
    uint32_t actions = 0; // bit N: action type N is supported
    std::vector<phy_port> ports{};
    bool operator==(const features_reply &) const = default;
};

struct get_config_request {
    bool operator==(const get_config_request &) const = default;
};
struct get_config_reply {
    uint16_t flags = 0;
    uint16_t miss_send_len = default_miss_send_len;
    bool operator==(const get_config_reply &) const = default;
};
struct set_config {
    uint16_t flags = 0;
    uint16_t miss_send_len = default_miss_send_len;
    bool operator==(const set_config &) const = default;
};

/* All of a packet-in but the frame: for encode_packet_in(). */
struct packet_in_fields {
    uint32_t buffer_id = buffer_none;
    uint16_t total_len = 0; // of the whole frame, also when less of it is sent
    uint16_t in_port = 0;
    packet_in_reason reason = packet_in_reason::no_match;
    bool operator==(const packet_in_fields &) const = default;
};
struct packet_in : packet_in_fields {
    bytes data{};
    bool operator==(const packet_in &) const = default;
};

struct flow_removed {
    flow_match match{};
    uint64_t cookie = 0;
    uint16_t priority = default_priority;
    flow_removed_reason reason = flow_removed_reason::idle_timeout;
    uint32_t duration_sec = 0;
    uint32_t duration_nsec = 0;
    uint16_t idle_timeout = 0;
    uint64_t packet_count = 0;
    uint64_t byte_count = 0;
    bool operator==(const flow_removed &) const = default;
};

struct port_status {
    port_reason reason = port_reason::modify;
    phy_port desc{};
    bool operator==(const port_status &) const = default;
};

struct packet_out {
    uint32_t buffer_id = buffer_none;
    uint16_t in_port = ports::none;
    action_list actions{};
    bytes data{}; // meaningful when buffer_id is buffer_none
    bool operator==(const packet_out &) const = default;
};

struct flow_mod {
    flow_match match{};
    uint64_t cookie = 0;
    flow_mod_command command = flow_mod_command::add;
    uint16_t idle_timeout = flow_permanent;
    uint16_t hard_timeout = flow_permanent;
    uint16_t priority = default_priority;
    uint32_t buffer_id = buffer_none;
    uint16_t out_port = ports::none; // filter of the two deleting commands
    uint16_t flags = 0;
    action_list actions{};
    bool operator==(const flow_mod &) const = default;
};

struct port_mod {
    uint16_t port_no = 0;
    mac_address hw_addr{};
    uint32_t config = 0;
    uint32_t mask = 0;
    uint32_t advertise = 0;
    bool operator==(const port_mod &) const = default;
};

struct barrier_request {
    bool operator==(const barrier_request &) const = default;
};
struct barrier_reply {
    bool operator==(const barrier_reply &) const = default;
};

struct queue_get_config_request {
    uint16_t port = 0;
    bool operator==(const queue_get_config_request &) const = default;
};

enum class queue_property_type : uint16_t { none = 0, min_rate = 1 };

struct queue_property {
    queue_property_type type = queue_property_type::none;
    bytes body{}; // after the eight bytes of its head; of min_rate: the rate in two bytes, and six of padding
    bool operator==(const queue_property &) const = default;
};
struct packet_queue {
    uint32_t queue_id = 0;
    std::vector<queue_property> properties{};
    bool operator==(const packet_queue &) const = default;
};
struct queue_get_config_reply {
    uint16_t port = 0;
    std::vector<packet_queue> queues{};
    bool operator==(const queue_get_config_reply &) const = default;
};

/* ---- Statistics ------------------------------------------------------------------------------------------------- */

struct desc_stats_request {
    bool operator==(const desc_stats_request &) const = default;
};
struct flow_stats_request {
    flow_match match{};
    uint8_t table_id = table_all;
    uint16_t out_port = ports::none;
    bool operator==(const flow_stats_request &) const = default;
};
struct aggregate_stats_request {
    flow_match match{};
    uint8_t table_id = table_all;
    uint16_t out_port = ports::none;
    bool operator==(const aggregate_stats_request &) const = default;
};
struct table_stats_request {
    bool operator==(const table_stats_request &) const = default;
};
struct port_stats_request {
    uint16_t port_no = ports::none; // none: every port
    bool operator==(const port_stats_request &) const = default;
};
struct queue_stats_request {
    uint16_t port_no = ports::all; // all: every port
    uint32_t queue_id = queue_all;
    bool operator==(const queue_stats_request &) const = default;
};
struct vendor_stats {
    uint32_t vendor_id = 0;
    bytes body{};
    bool operator==(const vendor_stats &) const = default;
};

/* The alternatives stand in the order of the statistics types. */
using stats_request_body = std::variant<desc_stats_request, flow_stats_request, aggregate_stats_request,
                                        table_stats_request, port_stats_request, queue_stats_request, vendor_stats>;

struct stats_request {
    uint16_t flags = 0; // none is defined
    stats_request_body body{};
    bool operator==(const stats_request &) const = default;
};

/* Texts are cut to one less than their field on the wire: 255 characters, 31 of the serial number. */
struct desc_stats {
    std::string mfr_desc{};
    std::string hw_desc{};
    std::string sw_desc{};
    std::string serial_num{};
    std::string dp_desc{};
    bool operator==(const desc_stats &) const = default;
};
struct flow_stats {
    uint8_t table_id = 0;
    flow_match match{};
    uint32_t duration_sec = 0;
    uint32_t duration_nsec = 0;
    uint16_t priority = default_priority;
    uint16_t idle_timeout = 0;
    uint16_t hard_timeout = 0;
    uint64_t cookie = 0;
    uint64_t packet_count = 0;
    uint64_t byte_count = 0;
    action_list actions{};
    bool operator==(const flow_stats &) const = default;
};
struct aggregate_stats {
    uint64_t packet_count = 0;
    uint64_t byte_count = 0;
    uint32_t flow_count = 0;
    bool operator==(const aggregate_stats &) const = default;
};
struct table_stats {
    uint8_t table_id = 0;
    std::string name{}; // 31 characters at most
    uint32_t wildcards = 0;
    uint32_t max_entries = 0;
    uint32_t active_count = 0;
    uint64_t lookup_count = 0;
    uint64_t matched_count = 0;
    bool operator==(const table_stats &) const = default;
};
struct port_stats {
    uint16_t port_no = 0;
    uint64_t rx_packets = 0;
    uint64_t tx_packets = 0;
    uint64_t rx_bytes = 0;
    uint64_t tx_bytes = 0;
    uint64_t rx_dropped = 0;
    uint64_t tx_dropped = 0;
    uint64_t rx_errors = 0;
    uint64_t tx_errors = 0;
    uint64_t rx_frame_err = 0;
    uint64_t rx_over_err = 0;
    uint64_t rx_crc_err = 0;
    uint64_t collisions = 0;
    bool operator==(const port_stats &) const = default;
};
struct queue_stats {
    uint16_t port_no = 0;
    uint32_t queue_id = 0;
    uint64_t tx_bytes = 0;
    uint64_t tx_packets = 0;
    uint64_t tx_errors = 0;
    bool operator==(const queue_stats &) const = default;
};

using stats_reply_body = std::variant<desc_stats, std::vector<flow_stats>, aggregate_stats, std::vector<table_stats>,
                                      std::vector<port_stats>, std::vector<queue_stats>, vendor_stats>;

/* One part of a reply: stats_reply_more in `flags` says that another follows under the same transaction number. */
struct stats_reply {
    uint16_t flags = 0;
    stats_reply_body body{};
    bool operator==(const stats_reply &) const = default;
};

stats_type type_of(const stats_request_body &body) noexcept;
stats_type type_of(const stats_reply_body &body) noexcept;

/* ---- A message -------------------------------------------------------------------------------------------------- */

/* The alternatives stand in the order of the message types. */
using message_body = std::variant<hello, error, echo_request, echo_reply, vendor, features_request, features_reply,
                                  get_config_request, get_config_reply, set_config, packet_in, flow_removed,
                                  port_status, packet_out, flow_mod, port_mod, stats_request, stats_reply,
                                  barrier_request, barrier_reply, queue_get_config_request, queue_get_config_reply>;

struct message {
    uint32_t xid = 0;
    message_body body{};
    bool operator==(const message &) const = default;
};

message_type type_of(const message_body &body) noexcept;

/* Why a message was not understood, and the answer that it deserves. */
struct decode_failure {
    uint8_t type = 0;          // the type byte of the offending message, known or not
    uint32_t xid = 0;          // its transaction number: the answer carries the same
    of10::error answer{};      // type, code, and the first bytes of the message (for hello_failed: a text)
    bool answer_is_due = true; // false for an error message: errors are not answered by errors
    const char *reason = "";   // for the log, a literal
};

using decode_result = std::variant<message, decode_failure>;

/* ---- From bytes ------------------------------------------------------------------------------------------------- */

/*
 * How many bytes the message at the start of `buffered` takes, its header included.
 *
 * @return 0 while fewer than header_size bytes are there to tell; else header_size to max_message_size. A header that
 *         gives less than its own size counts as header_size: decode() answers it with bad_request::bad_len, and the
 *         stream goes on behind it.
 */
size_t message_size(byte_view buffered) noexcept;

/*
 * Reads one message.
 *
 * @param wire  exactly the message_size() bytes of it.
 * @return the record; or the failure, with the error to answer:
 *   hello_failed/incompatible   a HELLO whose offer does not include version 0x01
 *   bad_request/bad_version     any other message of another version
 *   bad_request/bad_type        a type that the protocol does not have
 *   bad_request/bad_len         a length that the type (or statistics type) cannot have, an entry of a list that does
 *                               not fit into it, or a header that disagrees with the size of `wire`
 *   bad_request/bad_stat        a statistics type that the protocol does not have
 *   bad_action/bad_type         an action type that the protocol does not have
 *   bad_action/bad_len          an action whose length is not the one of its type, or that reaches over the list's end
 *   bad_action/bad_argument     a VLAN id above 4095, a VLAN priority above 7, a type of service with its low bits set
 *   flow_mod_failed/bad_command a flow-mod command that the protocol does not have
 * Everything else is for the caller to judge: which ports exist, which messages a switch takes, flags, vendors.
 * Padding is not looked at.
 */
decode_result decode(byte_view wire);

/* ---- To bytes --------------------------------------------------------------------------------------------------- */

/*
 * Appends the message to `out`. A statistics reply whose list is too long for one message becomes several: all but the
 * last have stats_reply_more set, the last has the flags of the record.
 *
 * @return false when the record cannot be said: it needs more than the 16 bits of a length field, a vendor action's
 *         body is not a multiple of eight bytes, or a min_rate property's body is not eight. Nothing was appended then.
 */
[[nodiscard]] bool encode(bytes &out, uint32_t xid, const message_body &body);
[[nodiscard]] bool encode(bytes &out, const message &one);

/* The same for the hot path, from a frame that lies elsewhere. */
[[nodiscard]] bool encode_packet_in(bytes &out, uint32_t xid, const packet_in_fields &fields, byte_view frame);

/* Appends an error that quotes the start of `request` (a whole message, or what there is of it) under its transaction
 * number; text_error instead carries a text, as hello_failed does. */
void encode_error(bytes &out, byte_view request, error_type type, uint16_t code);
void encode_error_text(bytes &out, uint32_t xid, error_type type, uint16_t code, std::string_view text);

/*
 * Writes a statistics reply of unknown length entry by entry, beginning a new part where one is full. `out` is written
 * to by nobody else between the constructor and finish(); without finish() the reply is incomplete.
 */
class stats_reply_writer {
  public:
    /* `type` is flow, table, port or queue: the statistics that are lists. */
    stats_reply_writer(bytes &out, uint32_t xid, stats_type type);

    /* The entry's kind must be the writer's. False when the entry alone is too large (a flow's actions longer than
     * max_actions_size) or of another kind: nothing was appended. */
    [[nodiscard]] bool add(const flow_stats &entry);
    [[nodiscard]] bool add(const table_stats &entry);
    [[nodiscard]] bool add(const port_stats &entry);
    [[nodiscard]] bool add(const queue_stats &entry);

    /* Closes the last part with these flags. */
    void finish(uint16_t flags = 0);

  private:
    template <typename entry_type> bool add_entry(stats_type kind, const entry_type &entry);
    void begin_part();
    void end_part(size_t end, uint16_t flags);

    bytes &out_;
    size_t part_start_ = 0;
    uint32_t xid_;
    stats_type type_;
};

} // namespace of10

#endif
