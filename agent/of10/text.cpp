/*
 * The bodies of text.h: names in tables, numbers and addresses in small helpers, flows put together from both.
 */
#include "of10/text.h"

#include <algorithm>
#include <iterator>

namespace of10 {
namespace {

std::string hexadecimal(uint64_t value, size_t least_digits = 1) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    while (value != 0 || text.size() < least_digits) {
        text.insert(text.begin(), digits[value & 15]);
        value >>= 4;
    }
    return text;
}

std::string decimal(uint64_t value) {
    return std::to_string(value);
}

constexpr const char *message_names[] = {
    "OFPT_HELLO",
    "OFPT_ERROR",
    "OFPT_ECHO_REQUEST",
    "OFPT_ECHO_REPLY",
    "OFPT_VENDOR",
    "OFPT_FEATURES_REQUEST",
    "OFPT_FEATURES_REPLY",
    "OFPT_GET_CONFIG_REQUEST",
    "OFPT_GET_CONFIG_REPLY",
    "OFPT_SET_CONFIG",
    "OFPT_PACKET_IN",
    "OFPT_FLOW_REMOVED",
    "OFPT_PORT_STATUS",
    "OFPT_PACKET_OUT",
    "OFPT_FLOW_MOD",
    "OFPT_PORT_MOD",
    "OFPT_STATS_REQUEST",
    "OFPT_STATS_REPLY",
    "OFPT_BARRIER_REQUEST",
    "OFPT_BARRIER_REPLY",
    "OFPT_QUEUE_GET_CONFIG_REQUEST",
    "OFPT_QUEUE_GET_CONFIG_REPLY",
};
static_assert(std::size(message_names) == std::variant_size_v<message_body>);

struct named_error {
    error_type type;
    uint16_t code;
    const char *name;
};

constexpr named_error error_names[] = {
    {error_type::hello_failed, hello_failed::incompatible, "OFPHFC_INCOMPATIBLE"},
    {error_type::hello_failed, hello_failed::eperm, "OFPHFC_EPERM"},
    {error_type::bad_request, bad_request::bad_version, "OFPBRC_BAD_VERSION"},
    {error_type::bad_request, bad_request::bad_type, "OFPBRC_BAD_TYPE"},
    {error_type::bad_request, bad_request::bad_stat, "OFPBRC_BAD_STAT"},
    {error_type::bad_request, bad_request::bad_vendor, "OFPBRC_BAD_VENDOR"},
    {error_type::bad_request, bad_request::bad_subtype, "OFPBRC_BAD_SUBTYPE"},
    {error_type::bad_request, bad_request::eperm, "OFPBRC_EPERM"},
    {error_type::bad_request, bad_request::bad_len, "OFPBRC_BAD_LEN"},
    {error_type::bad_request, bad_request::buffer_empty, "OFPBRC_BUFFER_EMPTY"},
    {error_type::bad_request, bad_request::buffer_unknown, "OFPBRC_BUFFER_UNKNOWN"},
    {error_type::bad_action, bad_action::bad_type, "OFPBAC_BAD_TYPE"},
    {error_type::bad_action, bad_action::bad_len, "OFPBAC_BAD_LEN"},
    {error_type::bad_action, bad_action::bad_vendor, "OFPBAC_BAD_VENDOR"},
    {error_type::bad_action, bad_action::bad_vendor_type, "OFPBAC_BAD_VENDOR_TYPE"},
    {error_type::bad_action, bad_action::bad_out_port, "OFPBAC_BAD_OUT_PORT"},
    {error_type::bad_action, bad_action::bad_argument, "OFPBAC_BAD_ARGUMENT"},
    {error_type::bad_action, bad_action::eperm, "OFPBAC_EPERM"},
    {error_type::bad_action, bad_action::too_many, "OFPBAC_TOO_MANY"},
    {error_type::bad_action, bad_action::bad_queue, "OFPBAC_BAD_QUEUE"},
    {error_type::flow_mod_failed, flow_mod_failed::all_tables_full, "OFPFMFC_ALL_TABLES_FULL"},
    {error_type::flow_mod_failed, flow_mod_failed::overlap, "OFPFMFC_OVERLAP"},
    {error_type::flow_mod_failed, flow_mod_failed::eperm, "OFPFMFC_EPERM"},
    {error_type::flow_mod_failed, flow_mod_failed::bad_emerg_timeout, "OFPFMFC_BAD_EMERG_TIMEOUT"},
    {error_type::flow_mod_failed, flow_mod_failed::bad_command, "OFPFMFC_BAD_COMMAND"},
    {error_type::flow_mod_failed, flow_mod_failed::unsupported, "OFPFMFC_UNSUPPORTED"},
    {error_type::port_mod_failed, port_mod_failed::bad_port, "OFPPMFC_BAD_PORT"},
    {error_type::port_mod_failed, port_mod_failed::bad_hw_addr, "OFPPMFC_BAD_HW_ADDR"},
    {error_type::queue_op_failed, queue_op_failed::bad_port, "OFPQOFC_BAD_PORT"},
    {error_type::queue_op_failed, queue_op_failed::bad_queue, "OFPQOFC_BAD_QUEUE"},
    {error_type::queue_op_failed, queue_op_failed::eperm, "OFPQOFC_EPERM"},
};

struct named_port {
    uint16_t port;
    const char *name;
};

constexpr named_port port_names[] = {
    {ports::in_port, "IN_PORT"}, {ports::table, "TABLE"},           {ports::normal, "NORMAL"}, {ports::flood, "FLOOD"},
    {ports::all, "ALL"},         {ports::controller, "CONTROLLER"}, {ports::local, "LOCAL"},   {ports::none, "NONE"},
};

/* ---- Matches ------------------------------------------------------------------------------------------------------
 */

constexpr uint16_t ethertype_ip = 0x0800;
constexpr uint16_t ethertype_arp = 0x0806;

struct named_protocol {
    uint8_t number;
    const char *name;
    const char *first_field;
    const char *second_field;
};

constexpr named_protocol protocols[] = {
    {1, "icmp", "icmp_type", "icmp_code"},
    {6, "tcp", "tp_src", "tp_dst"},
    {17, "udp", "tp_src", "tp_dst"},
};

/* Fields with commas between. */
class field_list {
  public:
    void add(std::string_view text) {
        if (!text_.empty())
            text_ += ',';
        text_ += text;
    }
    void add(std::string_view name, std::string_view value) {
        add(name);
        text_ += '=';
        text_ += value;
    }
    std::string take() {
        return std::move(text_);
    }

  private:
    std::string text_;
};

void add_address(field_list &to, const char *name, uint32_t address, unsigned prefix) {
    if (prefix == 0)
        return;
    to.add(name, ipv4_name(address) + (prefix == 32 ? "" : "/" + decimal(prefix)));
}

std::string packets_and_bytes(uint64_t packets, uint64_t octets) {
    const auto count = [](uint64_t value) { return value == counter_unknown ? std::string("?") : decimal(value); };
    return "n_packets=" + count(packets) + ", n_bytes=" + count(octets);
}

std::string seconds(uint32_t sec, uint32_t nsec) {
    std::string fraction = decimal(nsec);
    fraction.insert(0, 9 - std::min<size_t>(fraction.size(), 9), '0');
    return decimal(sec) + "." + fraction + "s";
}

std::string priority_and_match(uint16_t priority, const flow_match &match) {
    const std::string fields = to_string(match);
    return "priority=" + decimal(priority) + (fields.empty() ? "" : ",") + fields;
}

std::string timeouts(uint16_t idle, uint16_t hard) {
    std::string text;
    if (idle != flow_permanent)
        text += "idle_timeout=" + decimal(idle) + ", ";
    if (hard != flow_permanent)
        text += "hard_timeout=" + decimal(hard) + ", ";
    return text;
}

/* ---- Actions: one overload each -------------------------------------------------------------------------------------
 */

std::string text_of(const action_output &one) {
    if (one.port == ports::controller)
        return "CONTROLLER:" + decimal(one.max_len);
    return (one.port < ports::in_port ? "output:" : "") + port_name(one.port);
}
std::string text_of(const action_set_vlan_vid &one) {
    return "mod_vlan_vid:" + decimal(one.vlan_vid);
}
std::string text_of(const action_set_vlan_pcp &one) {
    return "mod_vlan_pcp:" + decimal(one.vlan_pcp);
}
std::string text_of(const action_strip_vlan &) {
    return "strip_vlan";
}
std::string text_of(const action_set_dl_src &one) {
    return "mod_dl_src:" + mac_name(one.address);
}
std::string text_of(const action_set_dl_dst &one) {
    return "mod_dl_dst:" + mac_name(one.address);
}
std::string text_of(const action_set_nw_src &one) {
    return "mod_nw_src:" + ipv4_name(one.address);
}
std::string text_of(const action_set_nw_dst &one) {
    return "mod_nw_dst:" + ipv4_name(one.address);
}
std::string text_of(const action_set_nw_tos &one) {
    return "mod_nw_tos:" + decimal(one.nw_tos);
}
std::string text_of(const action_set_tp_src &one) {
    return "mod_tp_src:" + decimal(one.port);
}
std::string text_of(const action_set_tp_dst &one) {
    return "mod_tp_dst:" + decimal(one.port);
}
std::string text_of(const action_enqueue &one) {
    return "enqueue:" + port_name(one.port) + ":" + decimal(one.queue_id);
}
std::string text_of(const action_vendor &one) {
    return "vendor:0x" + hexadecimal(one.vendor) + "(" + decimal(one.body.size()) + " bytes)";
}

const char *name_of(flow_mod_command command) {
    switch (command) {
    case flow_mod_command::add:
        return "add";
    case flow_mod_command::modify:
        return "modify";
    case flow_mod_command::modify_strict:
        return "modify_strict";
    case flow_mod_command::del:
        return "delete";
    case flow_mod_command::del_strict:
        return "delete_strict";
    }
    return "unknown command";
}

const char *name_of(flow_removed_reason reason) {
    switch (reason) {
    case flow_removed_reason::idle_timeout:
        return "idle";
    case flow_removed_reason::hard_timeout:
        return "hard";
    case flow_removed_reason::del:
        return "delete";
    }
    return "unknown";
}

} // namespace

std::string message_name(uint8_t type) {
    return type < std::size(message_names) ? message_names[type] : "type " + decimal(type);
}

std::string message_name(message_type type) {
    return message_name(static_cast<uint8_t>(type));
}

std::string error_name(uint16_t type, uint16_t code) {
    for (const named_error &one : error_names)
        if (static_cast<uint16_t>(one.type) == type && one.code == code)
            return one.name;
    return "error " + decimal(type) + "/" + decimal(code);
}

std::string port_name(uint16_t port) {
    for (const named_port &one : port_names)
        if (one.port == port)
            return one.name;
    return decimal(port);
}

std::string mac_name(const mac_address &address) {
    std::string text;
    for (const uint8_t one : address)
        text += (text.empty() ? "" : ":") + hexadecimal(one, 2);
    return text;
}

std::string ipv4_name(uint32_t address) {
    return decimal(address >> 24) + "." + decimal(address >> 16 & 0xff) + "." + decimal(address >> 8 & 0xff) + "." +
           decimal(address & 0xff);
}

std::string to_string(const flow_match &match) {
    const flow_match plain = match_normalize(match);
    const auto fixed = [&](uint32_t bit) { return (plain.wildcards & bit) == 0; };
    const bool ip = fixed(wildcard::dl_type) && plain.dl_type == ethertype_ip;
    const bool arp = fixed(wildcard::dl_type) && plain.dl_type == ethertype_arp;
    const auto *const protocol =
        std::find_if(std::begin(protocols), std::end(protocols), [&](const named_protocol &one) {
            return ip && fixed(wildcard::nw_proto) && one.number == plain.nw_proto;
        });
    const bool named = protocol != std::end(protocols);

    field_list fields;
    if (ip || arp)
        fields.add(named ? protocol->name : ip ? "ip" : "arp");
    if (fixed(wildcard::in_port))
        fields.add("in_port", port_name(plain.in_port));
    if (fixed(wildcard::dl_vlan))
        fields.add("dl_vlan", plain.dl_vlan == vlan_none ? "0xffff" : decimal(plain.dl_vlan));
    if (fixed(wildcard::dl_vlan_pcp))
        fields.add("dl_vlan_pcp", decimal(plain.dl_vlan_pcp));
    if (fixed(wildcard::dl_src))
        fields.add("dl_src", mac_name(plain.dl_src));
    if (fixed(wildcard::dl_dst))
        fields.add("dl_dst", mac_name(plain.dl_dst));
    if (fixed(wildcard::dl_type) && !ip && !arp)
        fields.add("dl_type", "0x" + hexadecimal(plain.dl_type, 4));
    add_address(fields, arp ? "arp_spa" : "nw_src", plain.nw_src, match_nw_src_prefix(plain));
    add_address(fields, arp ? "arp_tpa" : "nw_dst", plain.nw_dst, match_nw_dst_prefix(plain));
    if (fixed(wildcard::nw_proto) && !named)
        fields.add(arp ? "arp_op" : "nw_proto", decimal(plain.nw_proto));
    if (fixed(wildcard::nw_tos))
        fields.add("nw_tos", decimal(plain.nw_tos));
    if (named && fixed(wildcard::tp_src))
        fields.add(protocol->first_field, decimal(plain.tp_src));
    if (named && fixed(wildcard::tp_dst))
        fields.add(protocol->second_field, decimal(plain.tp_dst));
    return fields.take();
}

std::string to_string(const action &one) {
    return std::visit([](const auto &kind) { return text_of(kind); }, one);
}

std::string to_string(const action_list &actions) {
    field_list all;
    for (const action &one : actions)
        all.add(to_string(one));
    return actions.empty() ? "drop" : all.take();
}

std::string to_string(const flow_mod &flow) {
    std::string text = name_of(flow.command);
    text += " cookie=0x" + hexadecimal(flow.cookie) + ", " + timeouts(flow.idle_timeout, flow.hard_timeout);
    if (flow.buffer_id != buffer_none)
        text += "buffer=0x" + hexadecimal(flow.buffer_id) + ", ";
    if (flow.out_port != ports::none)
        text += "out_port=" + port_name(flow.out_port) + ", ";
    if ((flow.flags & flow_mod_flag::send_flow_rem) != 0)
        text += "send_flow_rem, ";
    if ((flow.flags & flow_mod_flag::check_overlap) != 0)
        text += "check_overlap, ";
    if ((flow.flags & flow_mod_flag::emerg) != 0)
        text += "emerg, ";
    return text + priority_and_match(flow.priority, flow.match) + " actions=" + to_string(flow.actions);
}

std::string to_string(const flow_stats &flow) {
    return "cookie=0x" + hexadecimal(flow.cookie) + ", duration=" + seconds(flow.duration_sec, flow.duration_nsec) +
           ", table=" + decimal(flow.table_id) + ", " + packets_and_bytes(flow.packet_count, flow.byte_count) + ", " +
           timeouts(flow.idle_timeout, flow.hard_timeout) + priority_and_match(flow.priority, flow.match) +
           " actions=" + to_string(flow.actions);
}

std::string to_string(const flow_removed &flow) {
    return "cookie=0x" + hexadecimal(flow.cookie) + ", reason=" + name_of(flow.reason) +
           ", duration=" + seconds(flow.duration_sec, flow.duration_nsec) + ", " +
           packets_and_bytes(flow.packet_count, flow.byte_count) + ", " + timeouts(flow.idle_timeout, flow_permanent) +
           priority_and_match(flow.priority, flow.match);
}

} // namespace of10
