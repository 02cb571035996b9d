/*
 * Frames between switch and controllers: packet-ins from the frames that the switch delivers, packet-outs into it, and
 * the frames that are kept meanwhile because a controller asked for their start only. What a packet-out's actions mean
 * is worked out here in software; the frame then leaves by single ports.
 */
#ifndef KR_AGENT_PACKET_IO_H
#define KR_AGENT_PACKET_IO_H

#include <array>
#include <functional>
#include <optional>
#include <vector>

#include "audience.h"
#include "flow_table.h"
#include "ports.h"
#include "translate.h"

namespace agent {

/* Frames that wait for a controller's decision; the oldest gives way to the newest. */
class packet_buffers {
  public:
    static constexpr uint32_t count = 256;

    struct entry {
        uint32_t id = of10::buffer_none;
        uint16_t in_port = 0;
        bool was_used = false;
        std::vector<uint8_t> frame;
    };

    uint32_t keep(of10::byte_view frame, uint16_t in_port);
    /* Takes a frame out, or says which error its number deserves. */
    std::variant<entry, refusal> take(uint32_t id);
    uint64_t overwritten() const {
        return overwritten_;
    }

  private:
    std::array<entry, count> entries_;
    uint32_t next_ = 0;
    uint64_t overwritten_ = 0;
};

struct packet_counts {
    uint64_t received = 0;      // frames from the switch
    uint64_t no_controller = 0; // dropped: nobody is connected
    uint64_t no_packet_in = 0;  // dropped: the port's configuration says so
    uint64_t overwritten = 0;   // kept frames that gave way before a controller asked for them
    uint64_t sent = 0;          // frames into the switch
    uint64_t send_failed = 0;
};

class packet_io {
  public:
    /* Sends a frame out of a port; false if the switch does not take it. */
    using sender = std::function<bool(uint16_t port, of10::byte_view frame)>;

    packet_io(flow_table &table, const ports &known, audience &controllers, sender send)
        : table_(table), ports_(known), audience_(controllers), send_(std::move(send)) {}
    packet_io(const packet_io &) = delete;
    packet_io &operator=(const packet_io &) = delete;

    /* A frame from the switch; queued for the controllers. */
    void received(const hal_event_packet &packet, of10::packet_in_reason reason);

    std::optional<refusal> packet_out(of10::packet_out &&request);

    /* A flow-mod names a kept frame: it is treated as the flow's actions say. */
    std::optional<refusal> release(uint32_t buffer_id, const of10::action_list &actions);

    packet_counts counts() const {
        packet_counts all = counts_;
        all.overwritten = buffers_.overwritten();
        return all;
    }

    /* Sees every frame that comes from the switch or goes into it; unset: nobody looks. */
    using tap = std::function<void(uint16_t port, bool is_from_switch, of10::byte_view frame)>;
    tap watch;

  private:
    struct work {
        std::vector<uint8_t> frame;
        uint16_t in_port;
        bool may_look_up; // TABLE is for packet-outs, and not for the flow that TABLE found
    };

    std::optional<refusal> check(const of10::action_list &actions, uint16_t in_port) const;
    void execute(work &job, const of10::action_list &actions);
    void output(work &job, const of10::action_output &to);
    void output_port(const work &job, uint16_t port);
    void output_many(const work &job, uint32_t excluding_config);
    void look_up(const work &job);
    void deliver(of10::packet_in_reason reason, uint16_t in_port, of10::byte_view frame, uint16_t max_len);
    uint16_t max_len_of(of10::byte_view frame, uint16_t in_port);

    flow_table &table_;
    const ports &ports_;
    audience &audience_;
    sender send_;
    packet_buffers buffers_;
    packet_counts counts_;

    // How much of a frame flows send to the controller, while they all agree.
    uint64_t agreed_version_ = UINT64_MAX;
    std::optional<uint16_t> agreed_len_;
};

} // namespace agent

#endif
