/*
 * The grammar of endpoint.h:
 *   tcp:ADDRESS[:PORT]     ssl:ADDRESS[:PORT]     unix:PATH
 *   ptcp:[PORT][:ADDRESS]  pssl:[PORT][:ADDRESS]  punix:PATH
 * An IPv6 address stands in brackets.
 */
#include "endpoint.h"

#include <charconv>
#include <cstring>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace agent {
namespace {

constexpr const char *loopback = "127.0.0.1";

struct scheme {
    const char *name;
    endpoint::transport kind;
    bool is_listening;
};
constexpr scheme schemes[] = {
    {"tcp", endpoint::transport::tcp, false},          {"ssl", endpoint::transport::ssl, false},
    {"unix", endpoint::transport::unix_socket, false}, {"ptcp", endpoint::transport::tcp, true},
    {"pssl", endpoint::transport::ssl, true},          {"punix", endpoint::transport::unix_socket, true},
};

std::optional<uint16_t> port_parse(std::string_view text) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(port) : std::nullopt;
}

bool is_ip_address(const std::string &text) {
    in6_addr scratch;
    return inet_pton(AF_INET, text.c_str(), &scratch) == 1 || inet_pton(AF_INET6, text.c_str(), &scratch) == 1;
}

// Takes an address off the front: up to the next colon, or what stands in brackets.
std::optional<std::string> address_take(std::string_view &rest) {
    std::string address;
    if (!rest.empty() && rest.front() == '[') {
        const size_t end = rest.find(']');
        if (end == std::string_view::npos) {
            return {};
        }
        address = rest.substr(1, end - 1);
        rest.remove_prefix(end + 1);
    } else {
        const size_t end = std::min(rest.find(':'), rest.size());
        address = rest.substr(0, end);
        rest.remove_prefix(end);
    }
    return is_ip_address(address) ? std::optional(address) : std::nullopt;
}

std::variant<endpoint, std::string> path_parse(endpoint where, std::string_view rest) {
    if (rest.empty() || rest.size() >= sizeof(sockaddr_un::sun_path)) {
        return "a path of 1 to " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " characters is expected";
    }
    where.address = rest;
    return where;
}

std::variant<endpoint, std::string> active_parse(endpoint where, std::string_view rest) {
    const auto address = address_take(rest);
    where.port = default_openflow_port;
    if (!address) {
        return std::string("an IP address is expected (an IPv6 address in brackets)");
    }
    if (!rest.empty()) {
        const auto port = rest.front() == ':' ? port_parse(rest.substr(1)) : std::nullopt;
        if (!port || *port == 0) {
            return std::string("a port of 1 to 65535 is expected behind the address");
        }
        where.port = *port;
    }
    where.address = *address;
    return where;
}

std::variant<endpoint, std::string> passive_parse(endpoint where, std::string_view rest) {
    const size_t end = std::min(rest.find(':'), rest.size());
    const auto port = end == 0 ? std::optional(default_openflow_port) : port_parse(rest.substr(0, end));
    if (!port) {
        return std::string("a port of 0 to 65535 is expected (0: any that is free)");
    }
    rest.remove_prefix(end);
    where.port = *port;
    where.address = loopback;
    if (!rest.empty()) {
        rest.remove_prefix(1);
        const auto address = address_take(rest);
        if (!address || !rest.empty()) {
            return std::string("an IP address is expected behind the port (an IPv6 address in brackets)");
        }
        where.address = *address;
    }
    return where;
}

} // namespace

std::variant<endpoint, std::string> endpoint_parse(const std::string &text) {
    const size_t colon = text.find(':');
    const std::string name = text.substr(0, colon);
    for (const scheme &one : schemes) {
        if (name != one.name) {
            continue;
        }
        endpoint where;
        where.kind = one.kind;
        where.is_listening = one.is_listening;
        const std::string_view rest =
            colon == std::string::npos ? std::string_view() : std::string_view(text).substr(colon + 1);
        return one.kind == endpoint::transport::unix_socket ? path_parse(where, rest)
               : one.is_listening                           ? passive_parse(where, rest)
                                                            : active_parse(where, rest);
    }
    return "\"" + name + "\" is none of tcp, ssl, unix, ptcp, pssl and punix";
}

std::string endpoint_text(const endpoint &where) {
    const std::string prefix = where.is_listening ? "p" : "";
    if (where.kind == endpoint::transport::unix_socket) {
        return prefix + "unix:" + where.address;
    }
    const std::string name = prefix + (where.kind == endpoint::transport::ssl ? "ssl" : "tcp");
    const std::string address =
        where.address.find(':') == std::string::npos ? where.address : "[" + where.address + "]";
    const std::string port = std::to_string(where.port);
    return name + ":" + (where.is_listening ? port + ":" + address : address + ":" + port);
}

socket_address endpoint_address(const endpoint &where) {
    socket_address address;
    if (where.kind == endpoint::transport::unix_socket) {
        auto &unix_address = reinterpret_cast<sockaddr_un &>(address.storage);
        unix_address.sun_family = AF_UNIX;
        std::memcpy(unix_address.sun_path, where.address.c_str(), where.address.size() + 1);
        address.size = sizeof unix_address;
        return address;
    }
    auto &v4 = reinterpret_cast<sockaddr_in &>(address.storage);
    auto &v6 = reinterpret_cast<sockaddr_in6 &>(address.storage);
    if (inet_pton(AF_INET, where.address.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(where.port);
        address.size = sizeof v4;
    } else {
        inet_pton(AF_INET6, where.address.c_str(), &v6.sin6_addr);
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(where.port);
        address.size = sizeof v6;
    }
    return address;
}

} // namespace agent
