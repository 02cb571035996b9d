/*
 * The hosts around the switch, as the demonstration's steps see them: they ping, transfer and count. They stand either
 * in network namespaces (here), where ordinary programs do that, or behind capture files (capture_hosts.h). Nothing
 * here knows the switch.
 */
#ifndef KR_DEMO_HOSTS_H
#define KR_DEMO_HOSTS_H

#include <cstdint>
#include <string>

namespace demo {

struct interface_counters {
    uint64_t rx_packets, rx_bytes, tx_packets, tx_bytes;
};

inline interface_counters operator-(const interface_counters &now, const interface_counters &before) {
    return {now.rx_packets - before.rx_packets, now.rx_bytes - before.rx_bytes, now.tx_packets - before.tx_packets,
            now.tx_bytes - before.tx_bytes};
}

// Every operation throws demo::failure when it can't be done, and demo::interrupted after Ctrl-C.
class host {
  public:
    explicit host(int number) : number_(number), name_("h" + std::to_string(number)) {}
    virtual ~host() = default;
    host(const host &) = delete;
    host &operator=(const host &) = delete;

    int number() const {
        return number_;
    }
    const std::string &name() const {
        return name_;
    }
    std::string address() const {
        return "10.0.0." + std::to_string(number_);
    }

    // What the host itself counted on its interface.
    virtual interface_counters counters() = 0;
    // Sends `count` echo requests, and waits for the last answers so long; returns how many were answered.
    virtual int ping(host &to, int count, int patience_s) = 0;
    // Sends much random data over TCP; throws unless what arrives is what was sent. Returns how it went, for a person.
    virtual std::string transfer(host &to) = 0;
    virtual void link_set(bool up) = 0;

  private:
    int number_;
    std::string name_;
};

// Network namespaces h1, h2, ... with one interface, eth0, each.
class namespace_host final : public host {
  public:
    using host::host;

    interface_counters counters() override;
    int ping(host &to, int count, int patience_s) override;
    std::string transfer(host &to) override;
    void link_set(bool up) override;

  private:
    int run(const std::string &command, std::string *output) const;
};

// Runs a shell command; `output` receives what it prints. Returns its exit status; -1 when it did not end by itself.
int run_command(const std::string &command, std::string *output = nullptr);

} // namespace demo

#endif
