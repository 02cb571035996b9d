/*
 * The table of fields, and the reader that goes over a text with it.
 */
#include "packet_text.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <vector>

#include <arpa/inet.h>

#include "frame.h"

namespace agent {
namespace {

constexpr uint16_t type_ipv4 = 0x0800;
constexpr uint16_t type_arp = 0x0806;
constexpr size_t max_frame_size = 10240;

using of10::flow_match;

std::optional<uint64_t> number_parse(std::string_view text, uint64_t max) {
    const int base = text.starts_with("0x") ? 16 : 10;
    text.remove_prefix(base == 16 ? 2 : 0);
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    const bool is_whole = error == std::errc() && end == text.data() + text.size();
    return is_whole && value <= max ? std::optional(value) : std::nullopt;
}

// Each takes a value over, or returns false.
template <auto Field, uint64_t Max = UINT16_MAX> bool set_number(flow_match &into, std::string_view value) {
    using type = std::remove_reference_t<decltype(into.*Field)>;
    const auto number = number_parse(value, Max);
    into.*Field = static_cast<type>(number.value_or(0));
    return number.has_value();
}

template <auto Field> bool set_mac(flow_match &into, std::string_view value) {
    of10::mac_address &address = into.*Field;
    for (size_t i = 0; i < address.size(); i++) {
        const char *const at = value.data() + 3 * i;
        if (value.size() != 3 * address.size() - 1 || (i > 0 && at[-1] != ':')) {
            return false;
        }
        const auto [end, error] = std::from_chars(at, at + 2, address[i], 16);
        if (error != std::errc() || end != at + 2) {
            return false;
        }
    }
    return true;
}

template <auto Field> bool set_address(flow_match &into, std::string_view value) {
    in_addr address{};
    const bool is_good = inet_pton(AF_INET, std::string(value).c_str(), &address) == 1;
    into.*Field = ntohl(address.s_addr);
    return is_good;
}

bool set_vlan(flow_match &into, std::string_view value) {
    if (value == "0xffff" || value == "none") {
        return true;
    }
    const auto id = number_parse(value, 0x0fff);
    into.dl_vlan = static_cast<uint16_t>(id.value_or(0));
    into.wildcards &= ~of10::wildcard::dl_vlan_pcp; // a tag has a priority
    return id.has_value();
}

bool set_vlan_pcp(flow_match &into, std::string_view value) {
    const auto pcp = number_parse(value, 7);
    into.dl_vlan_pcp = static_cast<uint8_t>(pcp.value_or(0));
    into.dl_vlan = into.dl_vlan == of10::vlan_none ? uint16_t{0} : into.dl_vlan;
    into.wildcards &= ~of10::wildcard::dl_vlan_pcp;
    return pcp.has_value();
}

bool set_tos(flow_match &into, std::string_view value) {
    const auto tos = number_parse(value, 255);
    into.nw_tos = static_cast<uint8_t>(tos.value_or(0) & 0xfc);
    return tos.has_value();
}

struct field {
    const char *name;
    bool (*set)(flow_match &into, std::string_view value);
    const char *expected;
};
constexpr const char *a_port = "a number of 0 to 65535";
constexpr const char *a_byte = "a number of 0 to 255";
constexpr const char *a_mac = "a MAC address";
constexpr const char *an_address = "an IPv4 address";
constexpr field fields[] = {
    {"in_port", set_number<&flow_match::in_port>, a_port},
    {"dl_src", set_mac<&flow_match::dl_src>, a_mac},
    {"dl_dst", set_mac<&flow_match::dl_dst>, a_mac},
    {"dl_vlan", set_vlan, "a VLAN id of 0 to 4095, or none"},
    {"dl_vlan_pcp", set_vlan_pcp, "a priority of 0 to 7"},
    {"dl_type", set_number<&flow_match::dl_type>, a_port},
    {"nw_tos", set_tos, a_byte},
    {"nw_proto", set_number<&flow_match::nw_proto, UINT8_MAX>, a_byte},
    {"arp_op", set_number<&flow_match::nw_proto, UINT8_MAX>, a_byte},
    {"nw_src", set_address<&flow_match::nw_src>, an_address},
    {"nw_dst", set_address<&flow_match::nw_dst>, an_address},
    {"arp_spa", set_address<&flow_match::nw_src>, an_address},
    {"arp_tpa", set_address<&flow_match::nw_dst>, an_address},
    {"tp_src", set_number<&flow_match::tp_src>, a_port},
    {"tp_dst", set_number<&flow_match::tp_dst>, a_port},
    {"icmp_type", set_number<&flow_match::tp_src, UINT8_MAX>, a_byte},
    {"icmp_code", set_number<&flow_match::tp_dst, UINT8_MAX>, a_byte},
};

struct protocol {
    const char *name;
    uint16_t type;
    uint8_t number; // 0: none
};
constexpr protocol protocols[] = {
    {"ip", type_ipv4, 0}, {"arp", type_arp, 0}, {"icmp", type_ipv4, 1}, {"tcp", type_ipv4, 6}, {"udp", type_ipv4, 17}};

std::optional<std::vector<uint8_t>> frame_parse(std::string_view digits) {
    std::vector<uint8_t> frame;
    for (size_t i = 0; i < digits.size(); i += 2) {
        uint8_t byte = 0;
        const char *const at = digits.data() + i;
        const auto [end, error] = std::from_chars(at, at + std::min<size_t>(2, digits.size() - i), byte, 16);
        if (error != std::errc() || end != at + 2 || frame.size() >= max_frame_size) {
            return {};
        }
        frame.push_back(byte);
    }
    return frame.size() >= min_frame_size ? std::optional(std::move(frame)) : std::nullopt;
}

class reader {
  public:
    reader() {
        packet_.wildcards = of10::wildcard::dl_vlan_pcp;
        packet_.dl_vlan = of10::vlan_none;
    }

    // What is wrong, or nothing.
    std::string take(std::string_view word) {
        const size_t equals = word.find('=');
        const std::string name(word.substr(0, equals));
        if (equals == std::string_view::npos) {
            return take_protocol(name);
        }
        const std::string_view value = word.substr(equals + 1);
        if (name == "frame") {
            frame_ = frame_parse(value);
            return frame_ ? "" : "frame: 14 to 10240 bytes are expected, two hexadecimal digits each";
        }
        const auto *const found =
            std::find_if(std::begin(fields), std::end(fields), [&](const field &one) { return name == one.name; });
        if (found == std::end(fields)) {
            return "there is no field \"" + name + "\"";
        }
        has_port_ = has_port_ || name == "in_port";
        has_others_ = has_others_ || name != "in_port";
        return found->set(packet_, value) ? "" : name + ": " + found->expected + " is expected";
    }

    std::variant<flow_match, std::string> finish() const {
        if (!has_port_) {
            return "in_port is missing: where does the packet enter?";
        }
        if (!frame_) {
            return packet_;
        }
        if (has_others_) {
            return "beside frame only in_port can be given";
        }
        return frame_match(*frame_, packet_.in_port);
    }

  private:
    std::string take_protocol(const std::string &name) {
        const auto *const found = std::find_if(std::begin(protocols), std::end(protocols),
                                               [&](const protocol &one) { return name == one.name; });
        if (found == std::end(protocols)) {
            return "\"" + name + "\" is neither FIELD=VALUE nor one of ip, arp, icmp, tcp and udp";
        }
        has_others_ = true;
        packet_.dl_type = found->type;
        packet_.nw_proto = found->number != 0 ? found->number : packet_.nw_proto;
        return {};
    }

    flow_match packet_;
    std::optional<std::vector<uint8_t>> frame_;
    bool has_port_ = false;
    bool has_others_ = false;
};

} // namespace

std::variant<flow_match, std::string> packet_parse(const std::string &text) {
    constexpr const char *separators = ", \t";
    reader all;
    for (size_t at = text.find_first_not_of(separators); at != std::string::npos;) {
        const size_t end = std::min(text.find_first_of(separators, at), text.size());
        std::string wrong = all.take(std::string_view(text).substr(at, end - at));
        if (!wrong.empty()) {
            return wrong;
        }
        at = text.find_first_not_of(separators, end);
    }
    return all.finish();
}

} // namespace agent
