/*
 * The kernel's network interfaces as the connector sees them, over rtnetlink: a list on demand, and a descriptor that
 * becomes readable when one appears, changes or vanishes. It keeps no list of its own and changes nothing.
 */
#ifndef KR_CONNECTOR_LINK_MONITOR_H
#define KR_CONNECTOR_LINK_MONITOR_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

struct nl_sock;

namespace kr_connector {

struct link_info {
    uint32_t ifindex;
    bool is_up;                         // administratively
    std::array<uint8_t, 6> mac_address; // all zero if the interface has none of six bytes
};
using link_table = std::map<std::string, link_info>; // by interface name

struct link_change {
    enum class kind { present, vanished, unknown } what; // unknown: changes were lost, anything may be different
    uint32_t ifindex;
    std::string name;
    bool is_up;
};

class link_monitor {
  public:
    link_monitor();
    ~link_monitor();
    link_monitor(const link_monitor &) = delete;
    link_monitor &operator=(const link_monitor &) = delete;

    // False if the kernel refuses; *why says what it said.
    bool open(std::string *why);
    int fd() const;
    // Hands out every change that is pending, without waiting.
    void drain(const std::function<void(const link_change &)> &on_change);
    // False if the list could not be read; *links is unchanged then.
    bool list(link_table *links, std::string *why);

  private:
    struct socket_free {
        void operator()(nl_sock *socket) const;
    };
    std::unique_ptr<nl_sock, socket_free> requests_, changes_;
};

} // namespace kr_connector

#endif
