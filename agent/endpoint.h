/*
 * Where controllers are, or where they may come from, as a text: "tcp:192.0.2.1:6653", "ptcp:6653", "unix:/run/c".
 * Parsing and telling only; names are not looked up, because that could stop the daemon for seconds.
 */
#ifndef KR_AGENT_ENDPOINT_H
#define KR_AGENT_ENDPOINT_H

#include <cstdint>
#include <string>
#include <variant>

#include <sys/socket.h>
#include <sys/un.h>

namespace agent {

inline constexpr uint16_t default_openflow_port = 6653;

struct endpoint {
    enum class transport : uint8_t { tcp, ssl, unix_socket };

    transport kind = transport::tcp;
    bool is_listening = false;
    std::string address; // IP address without brackets, or path
    uint16_t port = 0;

    bool operator==(const endpoint &) const = default;
};

/* The endpoint, or what is wrong with the text. */
std::variant<endpoint, std::string> endpoint_parse(const std::string &text);
std::string endpoint_text(const endpoint &where);

struct socket_address {
    sockaddr_storage storage{};
    socklen_t size = 0;
    const sockaddr *get() const {
        return reinterpret_cast<const sockaddr *>(&storage);
    }
};
/* The address to connect or bind to. The endpoint is one that was parsed. */
socket_address endpoint_address(const endpoint &where);

} // namespace agent

#endif
