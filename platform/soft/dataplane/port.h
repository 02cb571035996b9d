/*
 * A port of the switch, whatever it stands on: its link, its spanning tree state, its counters, and the one thing that
 * differs: how a frame leaves.
 *
 * Ports in memory and on capture files are here too; those on Linux interfaces are in interface_port.h. How frames
 * enter is not the port's business but that of who has them: control, the data plane's thread.
 */
#ifndef KR_SOFT_PORT_H
#define KR_SOFT_PORT_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "dataplane/frame.h"
#include "dataplane/frame_queue.h"
#include "dataplane/switch_ports.h"

struct pcap;
struct pcap_dumper;

namespace kr_soft {

enum class port_kind { memory, interface, capture };

enum class transmit_result { sent, link_down, full, too_long };

constexpr uint32_t memory_port_queue_size = 1024; // frames that left and were not read yet

class port {
  public:
    port(uint32_t number, port_kind what) : log_port(number), kind(what) {}
    virtual ~port() = default;
    port(const port &) = delete;
    port &operator=(const port &) = delete;

    const uint32_t log_port;
    const port_kind kind;

    bool is_up() const {
        return up_.load(std::memory_order_relaxed);
    }
    bool stp_blocks() const {
        const uint32_t state = stp_state.load(std::memory_order_relaxed);
        return state == KR_SOFT_STP_DISCARDING || state == KR_SOFT_STP_LEARNING;
    }
    port_state state_get() const;
    // What the port stands on, for a person.
    virtual std::string description() const = 0;

    // Control's hand on the link: a port that it forces down stays down whatever its medium says.
    void link_force(bool up);

    // Sends a frame if the link is up, and counts it.
    transmit_result transmit(const frame &f);
    void receive_count(const frame &f);

    std::atomic<uint32_t> stp_state{KR_SOFT_STP_NONE};
    std::atomic<uint64_t> rx_packets{0}, rx_bytes{0}, tx_packets{0}, tx_bytes{0};

  protected:
    struct medium_state {
        bool plugged = true;
        bool admin_up = true;
        bool carrier = true;
    };
    // Takes over what the medium says and raises the port up/down trap when that changes the link. `link_mutex` held.
    void medium_update(const medium_state &medium);
    // Raises both traps of a link that was down and is up again already, if it was up before. `link_mutex` held.
    void link_change_tell() const;

    mutable std::mutex link_mutex; // orders link changes and their traps
    medium_state medium_;

  private:
    virtual transmit_result frame_send(const frame &f) = 0;
    void link_update();

    bool forced_down_ = false;
    std::atomic<bool> up_{true};

  protected:
    // For a port that does not start with its link up; no trap.
    void medium_set_initial(const medium_state &medium);
};

class memory_port final : public port {
  public:
    explicit memory_port(uint32_t number) : port(number, port_kind::memory) {}

    // KR_STATUS_TIMEOUT, or ENTRY_NOT_FOUND when the port is removed meanwhile.
    kr_status read(void *data, uint32_t *size, uint32_t timeout_us);
    // The port leaves the switch: readers that wait return.
    void close();
    std::string description() const override {
        return "memory";
    }

  private:
    struct no_tag {};
    transmit_result frame_send(const frame &f) override;

    std::mutex queue_mutex_;
    std::condition_variable frame_came_;
    frame_queue<no_tag, memory_port_queue_size, wire_frame_size_max> queue_;
    bool closed_ = false;
};

class capture_port final : public port {
  public:
    capture_port(uint32_t number, const char *input_path) : port(number, port_kind::capture), input_path_(input_path) {}
    ~capture_port() override;

    // Opens the output file; false when that can't be done.
    bool output_open(const char *path);
    const std::string &input_path() const {
        return input_path_;
    }
    std::string description() const override {
        return "capture " + input_path_ + " -> " + output_path_;
    }

  private:
    transmit_result frame_send(const frame &f) override;

    std::string input_path_; // empty: none
    std::string output_path_;
    std::mutex output_mutex_;
    pcap *output_format_ = nullptr;
    pcap_dumper *output_ = nullptr;
};

} // namespace kr_soft

#endif
