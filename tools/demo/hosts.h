/*
 * The hosts around the switch: network namespaces h1, h2, ... with one interface, eth0, each. They ping, transfer and
 * count with ordinary programs; nothing here knows the switch.
 */
#ifndef KR_DEMO_HOSTS_H
#define KR_DEMO_HOSTS_H

#include <cstdint>
#include <string>

namespace demo {

struct interface_counters {
    uint64_t rx_packets, rx_bytes, tx_packets, tx_bytes;
};

class host {
  public:
    explicit host(int number) : number_(number), name_("h" + std::to_string(number)) {}

    const std::string &name() const {
        return name_;
    }
    std::string address() const {
        return "10.0.0." + std::to_string(number_);
    }

    // What the host's own kernel counted on eth0.
    interface_counters counters() const;

    // Sends `count` echo requests 10 ms apart; returns how many were answered within a second.
    int ping(const std::string &address, int count) const;

    // Sends `megabytes` of random data over TCP; throws demo::failure unless what arrives has the same SHA-256.
    // Returns the rate in Gbit/s.
    double transfer(const host &to, int megabytes) const;

    // Runs a shell command in the host; its exit status, and what it printed if `output` is given.
    int run(const std::string &command, std::string *output = nullptr) const;

  private:
    int number_;
    std::string name_;
};

// Runs a shell command here; `output` receives what it prints. Throws demo::interrupted after Ctrl-C.
int run_command(const std::string &command, std::string *output = nullptr);

} // namespace demo

#endif
