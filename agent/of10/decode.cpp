/*
 * From the bytes of a message to its record, or to the error that it deserves.
 * Fixed parts are read by their sheets (wire.h) after their length was checked; what follows them, payloads and lists,
 * is read here. A reader answers null, or the flaw that it found; the record is then half filled and thrown away.
 */
#include "of10/wire.h"

#include <utility>

namespace of10 {
namespace {

using wire::load_number;
using wire::sheet;

struct flaw {
    error_type type;
    uint16_t code;
    const char *reason;
};
using verdict = const flaw *;
constexpr verdict sound = nullptr;

constexpr flaw foreign_hello{error_type::hello_failed, hello_failed::incompatible,
                             "the peer does not offer version 0x01"};
constexpr flaw foreign_version{error_type::bad_request, bad_request::bad_version, "a message of another version"};
constexpr flaw torn_header{error_type::bad_request, bad_request::bad_len, "the header's length is not the message's"};
constexpr flaw unknown_message{error_type::bad_request, bad_request::bad_type, "an unknown message type"};
constexpr flaw message_length{error_type::bad_request, bad_request::bad_len, "a length that the type cannot have"};
constexpr flaw entry_length{error_type::bad_request, bad_request::bad_len, "an entry that does not fit into its list"};
constexpr flaw actions_length{error_type::bad_request, bad_request::bad_len,
                              "a length of actions that is not a multiple of eight, or more than the message has"};
constexpr flaw unknown_statistics{error_type::bad_request, bad_request::bad_stat, "an unknown statistics type"};
constexpr flaw unknown_action{error_type::bad_action, bad_action::bad_type, "an unknown action type"};
constexpr flaw action_length{error_type::bad_action, bad_action::bad_len, "an action of a wrong length"};
constexpr flaw action_argument{error_type::bad_action, bad_action::bad_argument, "an action's argument out of range"};
constexpr flaw unknown_command{error_type::flow_mod_failed, flow_mod_failed::bad_command,
                               "an unknown flow-mod command"};

constexpr char foreign_hello_text[] = "Only OpenFlow version 0x01 is spoken here.";

void assign(bytes &to, byte_view from) {
    to.assign(from.begin(), from.end());
}

/* The fixed part, when there is enough for it. */
template <typename record> verdict read_head(byte_view wire, record &to) {
    if (wire.size() < sheet<record>::size)
        return &message_length;
    wire::load(wire.data(), to);
    return sound;
}

/* The fixed part and nothing behind it: what a message is unless one of the overloads below knows better. */
template <typename record> verdict read(byte_view wire, record &to) {
    return wire.size() == sheet<record>::size ? read_head(wire, to) : &message_length;
}

/* The fixed part and a payload. */
template <typename record> verdict read_with_payload(byte_view wire, record &to, bytes &payload) {
    if (const verdict found = read_head(wire, to))
        return found;
    assign(payload, wire.subspan(sheet<record>::size));
    return sound;
}

/* Entries of one size that fill the rest of a message. */
template <typename record> verdict read_entries(byte_view wire, std::vector<record> &to) {
    if (wire.size() % sheet<record>::size != 0)
        return &message_length;
    to.resize(wire.size() / sheet<record>::size);
    for (record &one : to) {
        wire::load(wire.data(), one);
        wire = wire.subspan(sheet<record>::size);
    }
    return sound;
}

/* ---- Actions ------------------------------------------------------------------------------------------------------
 */

template <typename kind> bool is_in_range(const kind &) {
    return true;
}
bool is_in_range(const action_set_vlan_vid &one) {
    return one.vlan_vid <= 0xfff;
}
bool is_in_range(const action_set_vlan_pcp &one) {
    return one.vlan_pcp <= 7;
}
bool is_in_range(const action_set_nw_tos &one) {
    return (one.nw_tos & 3) == 0;
}

template <typename kind> verdict read_action(byte_view wire, action_list &to) {
    if constexpr (!std::same_as<kind, action_vendor>)
        if (wire.size() != sheet<kind>::size)
            return &action_length;
    kind &one = std::get<kind>(to.emplace_back(kind{}));
    wire::load(wire.data(), one);
    if constexpr (std::same_as<kind, action_vendor>)
        assign(one.body, wire.subspan(sheet<kind>::size));
    return is_in_range(one) ? sound : &action_argument;
}

template <size_t... index> constexpr auto make_action_readers(std::index_sequence<index...>) {
    return std::array{&read_action<std::variant_alternative_t<index, action>>...};
}
constexpr auto action_readers = make_action_readers(std::make_index_sequence<std::variant_size_v<action>>());

verdict read_actions(byte_view wire, action_list &to) {
    if (wire.size() % wire::action_align != 0)
        return &actions_length;
    to.reserve(wire.size() / wire::action_align);
    while (!wire.empty()) {
        const auto type = load_number<uint16_t>(wire.data());
        const size_t length = load_number<uint16_t>(wire.data() + 2);
        if (length == 0 || length % wire::action_align != 0 || length > wire.size())
            return &action_length;
        const size_t index = wire::index_of_type<action>(type);
        if (index == std::variant_npos)
            return &unknown_action;
        if (const verdict found = action_readers[index](wire.first(length), to))
            return found;
        wire = wire.subspan(length);
    }
    return sound;
}

/* ---- Statistics ---------------------------------------------------------------------------------------------------
 */

verdict read(byte_view wire, vendor_stats &to) {
    return read_with_payload(wire, to, to.body);
}

template <typename record> verdict read(byte_view wire, std::vector<record> &to) {
    return read_entries(wire.subspan(wire::stats_head_size), to);
}

verdict read(byte_view wire, std::vector<flow_stats> &to) {
    constexpr size_t head = sheet<flow_stats>::size;
    for (wire = wire.subspan(wire::stats_head_size); !wire.empty();) {
        if (wire.size() < head)
            return &entry_length;
        const size_t length = load_number<uint16_t>(wire.data() + wire::offset_flow_stats_length);
        if (length < head || length > wire.size())
            return &entry_length;
        flow_stats &one = to.emplace_back();
        wire::load(wire.data(), one);
        if (const verdict found = read_actions(wire.subspan(head, length - head), one.actions))
            return found;
        wire = wire.subspan(length);
    }
    return sound;
}

template <typename body, size_t index> verdict read_stats_body(byte_view wire, body &to) {
    return read(wire, to.template emplace<index>());
}
template <typename body, size_t... index> constexpr auto make_stats_readers(std::index_sequence<index...>) {
    return std::array{&read_stats_body<body, index>...};
}
template <typename body>
constexpr auto stats_readers = make_stats_readers<body>(std::make_index_sequence<std::variant_size_v<body>>());

template <typename record> verdict read_stats(byte_view wire, record &to) {
    if (wire.size() < wire::stats_head_size)
        return &message_length;
    using body = decltype(to.body);
    const size_t index = wire::index_of_type<body>(load_number<uint16_t>(wire.data() + wire::offset_stats_type));
    if (index == std::variant_npos)
        return &unknown_statistics;
    to.flags = load_number<uint16_t>(wire.data() + wire::offset_stats_flags);
    return stats_readers<body>[index](wire, to.body);
}

/* ---- Messages with something behind their fixed part --------------------------------------------------------------
 */

/* Newer peers add elements to their HELLO: type, length, and for type 1 a bitmap of the versions that they speak. An
 * element that cannot be understood says nothing. */
bool elements_exclude_version(byte_view elements) {
    constexpr size_t element_head = 4;
    constexpr uint16_t version_bitmap = 1;
    while (elements.size() >= element_head) {
        const auto type = load_number<uint16_t>(elements.data());
        const size_t length = load_number<uint16_t>(elements.data() + 2);
        if (length < element_head || length > elements.size())
            return false;
        if (type == version_bitmap && length >= element_head + sizeof(uint32_t))
            return (load_number<uint32_t>(elements.data() + element_head) & 1u << protocol_version) == 0;
        elements = elements.subspan(std::min((length + 7) / 8 * 8, elements.size()));
    }
    return false;
}

/* The lower of both sides' versions is spoken, unless the peer says otherwise: all from 0x01 up will do. */
verdict read(byte_view wire, hello &to) {
    to.version = wire[wire::offset_version];
    assign(to.elements, wire.subspan(header_size));
    const bool excluded = to.version > protocol_version && elements_exclude_version(to.elements);
    return to.version >= protocol_version && !excluded ? sound : &foreign_hello;
}

verdict read(byte_view wire, error &to) {
    return read_with_payload(wire, to, to.data);
}
verdict read(byte_view wire, echo_request &to) {
    return read_with_payload(wire, to, to.data);
}
verdict read(byte_view wire, echo_reply &to) {
    return read_with_payload(wire, to, to.data);
}
verdict read(byte_view wire, vendor &to) {
    return read_with_payload(wire, to, to.body);
}

verdict read(byte_view wire, features_reply &to) {
    if (const verdict found = read_head(wire, to))
        return found;
    return read_entries(wire.subspan(sheet<features_reply>::size), to.ports);
}

verdict read(byte_view wire, packet_in &to) {
    return read_with_payload(wire, static_cast<packet_in_fields &>(to), to.data);
}

verdict read(byte_view wire, packet_out &to) {
    if (const verdict found = read_head(wire, to))
        return found;
    const size_t length = load_number<uint16_t>(wire.data() + wire::offset_actions_length);
    wire = wire.subspan(sheet<packet_out>::size);
    if (length > wire.size())
        return &actions_length;
    assign(to.data, wire.subspan(length));
    return read_actions(wire.first(length), to.actions);
}

verdict read(byte_view wire, flow_mod &to) {
    if (const verdict found = read_head(wire, to))
        return found;
    if (to.command > flow_mod_command::del_strict)
        return &unknown_command;
    return read_actions(wire.subspan(sheet<flow_mod>::size), to.actions);
}

verdict read(byte_view wire, stats_request &to) {
    return read_stats(wire, to);
}
verdict read(byte_view wire, stats_reply &to) {
    return read_stats(wire, to);
}

verdict read_properties(byte_view wire, std::vector<queue_property> &to) {
    constexpr size_t head = sheet<queue_property>::size;
    while (!wire.empty()) {
        if (wire.size() < head)
            return &entry_length;
        const size_t length = load_number<uint16_t>(wire.data() + wire::offset_property_length);
        if (length < head || length > wire.size())
            return &entry_length;
        queue_property &one = to.emplace_back();
        wire::load(wire.data(), one);
        if (one.type == queue_property_type::min_rate && length != head + wire::min_rate_body_size)
            return &entry_length;
        assign(one.body, wire.subspan(head, length - head));
        wire = wire.subspan(length);
    }
    return sound;
}

verdict read(byte_view wire, queue_get_config_reply &to) {
    if (const verdict found = read_head(wire, to))
        return found;
    constexpr size_t head = sheet<packet_queue>::size;
    for (wire = wire.subspan(sheet<queue_get_config_reply>::size); !wire.empty();) {
        if (wire.size() < head)
            return &entry_length;
        const size_t length = load_number<uint16_t>(wire.data() + wire::offset_queue_length);
        if (length < head || length > wire.size())
            return &entry_length;
        packet_queue &one = to.queues.emplace_back();
        wire::load(wire.data(), one);
        if (const verdict found = read_properties(wire.subspan(head, length - head), one.properties))
            return found;
        wire = wire.subspan(length);
    }
    return sound;
}

/* ---- One message --------------------------------------------------------------------------------------------------
 */

template <size_t index> verdict read_body(byte_view wire, message_body &to) {
    return read(wire, to.emplace<index>());
}
template <size_t... index> constexpr auto make_message_readers(std::index_sequence<index...>) {
    return std::array{&read_body<index>...};
}
constexpr auto message_readers = make_message_readers(std::make_index_sequence<std::variant_size_v<message_body>>());

verdict read_message(byte_view wire, message &to) {
    if (wire.size() < header_size)
        return &torn_header;
    const uint8_t type = wire[wire::offset_type];
    if (wire[wire::offset_version] != protocol_version && type != static_cast<uint8_t>(message_type::hello))
        return &foreign_version;
    if (load_number<uint16_t>(wire.data() + wire::offset_length) != wire.size())
        return &torn_header;
    if (type >= message_readers.size())
        return &unknown_message;
    to.xid = load_number<uint32_t>(wire.data() + wire::offset_xid);
    return message_readers[type](wire, to.body);
}

decode_failure make_failure(byte_view wire, const flaw &found) {
    decode_failure failure;
    if (wire.size() >= header_size) {
        failure.type = wire[wire::offset_type];
        failure.xid = load_number<uint32_t>(wire.data() + wire::offset_xid);
        failure.answer_is_due = failure.type != static_cast<uint8_t>(message_type::error);
    }
    failure.answer.type = static_cast<uint16_t>(found.type);
    failure.answer.code = found.code;
    if (found.type == error_type::hello_failed)
        failure.answer.data.assign(std::begin(foreign_hello_text), std::end(foreign_hello_text) - 1);
    else
        assign(failure.answer.data, wire.first(std::min(wire.size(), error_quote_size)));
    failure.reason = found.reason;
    return failure;
}

} // namespace

decode_result decode(byte_view wire) {
    decode_result result;
    if (const verdict found = read_message(wire, std::get<message>(result)))
        result = make_failure(wire, *found);
    return result;
}

} // namespace of10
