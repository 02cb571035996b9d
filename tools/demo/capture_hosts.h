/*
 * Hosts that are capture files: what a host sends is written to the input of its port and played, what it receives is
 * read from the output. For machines where no network namespace can be made; the switch is the same.
 */
#ifndef KR_DEMO_CAPTURE_HOSTS_H
#define KR_DEMO_CAPTURE_HOSTS_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/demo/hosts.h"

struct pcap;

namespace demo {

using frame_bytes = std::vector<uint8_t>;

// The files of the ports s1-eth1, s1-eth2, ... in one folder, and the cable that joins the last two of them.
class capture_network {
  public:
    static constexpr int port_count = 5;

    explicit capture_network(std::string folder) : folder_(std::move(folder)) {}
    ~capture_network();
    capture_network(const capture_network &) = delete;
    capture_network &operator=(const capture_network &) = delete;

    // Lets frames enter the switch; returns when all that they cause has happened.
    void play(int port, const std::vector<frame_bytes> &frames);
    // The frames that left by a port since the last call.
    std::vector<frame_bytes> take(int port);

  private:
    std::string file(int port, const char *direction) const;
    void play_file(int port, const std::vector<frame_bytes> &frames) const;
    void cable_carry();

    std::string folder_;
    std::array<pcap *, port_count + 1> outputs_{}; // by port, open for reading
};

class capture_host final : public host {
  public:
    capture_host(int number, capture_network &network) : host(number), network_(network) {}

    interface_counters counters() override;
    int ping(host &to, int count, int patience_s) override;
    std::string transfer(host &to) override;
    void link_set(bool up) override;

  private:
    void send(const std::vector<frame_bytes> &frames);
    std::vector<frame_bytes> receive();

    capture_network &network_;
    interface_counters counters_{};
    uint16_t next_ping_ = 1;
};

} // namespace demo

#endif
