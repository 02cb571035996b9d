/*
 * One connection to a controller: cuts the byte stream into messages and hands them over, queues what is to be sent,
 * and watches that the peer lives. It does not know what messages mean, except that HELLO comes first.
 *
 * Back-pressure. There are two queues. Replies go first; when they pile up because the peer does not read, no further
 * request is read until they have drained. Packet-ins go behind them in pieces of bounded size; when theirs is full,
 * further ones are dropped and counted. So memory is bounded whatever the peer does, and a packet-in never waits in
 * front of more than one piece.
 */
#ifndef KR_AGENT_CONNECTION_H
#define KR_AGENT_CONNECTION_H

#include <memory>
#include <string>

#include "event_loop.h"
#include "of10/of10.h"
#include "stream.h"

namespace agent {

class connection;

/* What a connection tells its owner. All calls come from the loop; none of them may destroy the connection. */
class connection_handler {
  public:
    virtual ~connection_handler() = default;
    /* The stream is up. */
    virtual void connection_open(connection &from) = 0;
    /* One whole message; the bytes stay until connection_turn_end. */
    virtual void connection_message(connection &from, of10::byte_view wire) = 0;
    /* No message follows for now: what was put off has to be done. */
    virtual void connection_turn_end(connection &from) = 0;
    /* The peer has been silent for a while: it should be asked whether it lives. */
    virtual void connection_silent(connection &from) = 0;
    /* The connection is of no use any more; called once. */
    virtual void connection_closed(connection &from, const std::string &why) = 0;
};

struct connection_counts {
    uint64_t packets_dropped = 0;
    uint64_t messages_received = 0;
    uint64_t bytes_received = 0;
    uint64_t bytes_sent = 0;
};

class connection {
  public:
    static constexpr size_t reply_limit = 256 * 1024;  // above: no further request is read
    static constexpr size_t packet_limit = 256 * 1024; // above: packet-ins are dropped
    static constexpr size_t piece_size = 64 * 1024;    // of packet-ins that no reply can overtake

    /* `probe` : silence after which the peer is asked; after twice as long it counts as gone. 0: never. */
    connection(event_loop &loop, std::unique_ptr<stream> bytes, connection_handler &handler, nanoseconds probe);
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    void start(); // the handshake, then connection_open

    /* Appends to the queue of replies; send() follows at the end of the turn, or has to be called. */
    of10::bytes &replies() {
        return replies_;
    }
    /* The queue of packet-ins, or null, and the drop is counted. */
    of10::bytes *packets() {
        if (packets_.size() - packets_taken_ >= packet_limit || is_closed_) {
            counts_.packets_dropped++;
            return nullptr;
        }
        return &packets_;
    }
    void send();

    /* Ends the connection once the queued replies are out; the caller sees to it that this does not take for ever. */
    void close_after_sending(const std::string &why);
    void close(const std::string &why);
    bool is_closed() const {
        return is_closed_;
    }
    const connection_counts &counts() const {
        return counts_;
    }
    const stream &bytes() const {
        return *stream_;
    }
    /* Visits the queued messages of which not all bytes have gone out. */
    template <typename Visit> void visit_unsent(Visit visit) const {
        visit_messages(sending_, sent_, visit);
        visit_messages(replies_, 0, visit);
        visit_messages(packets_, packets_taken_, visit);
    }

  private:
    // Those that end behind the first `sent` bytes.
    template <typename Visit> static void visit_messages(of10::byte_view queue, size_t sent, Visit &visit) {
        for (size_t at = 0, size = 0; (size = of10::message_size(queue.subspan(at))) != 0; at += size) {
            if (at + size > sent) {
                visit(queue.subspan(at, size));
            }
        }
    }

    void ready(bool can_read, bool can_write);
    void shake_hands();
    void receive();
    void begin_turn();
    void end_turn();
    void handle_input();
    void handle_kept();
    size_t hand_over(of10::byte_view received);
    bool is_held() const {
        return replies_.size() + (sending_.size() - sent_) >= reply_limit;
    }
    bool fill_sending();
    void take_piece();
    void update_interest();
    void check_silence();

    event_loop &loop_;
    std::unique_ptr<stream> stream_;
    connection_handler &handler_;
    const nanoseconds probe_;
    std::unique_ptr<fd_watch> watch_;
    timer silence_;
    timer resume_;          // for requests that were held back: one round per turn of the loop
    nanoseconds heard_ = 0; // when the peer last said something, or was last not listened to
    nanoseconds asked_ = 0; // when it was asked, if it was
    bool has_asked_ = false;

    bool is_open_ = false; // the handshake is done
    bool is_closed_ = false;
    bool is_ending_ = false; // closes when the replies are out
    bool is_handling_ = false;
    bool is_turn_over_ = false; // it has taken its time
    nanoseconds turn_end_ = 0;
    io_state read_waits_ = io_state::wait_read;
    io_state write_waits_ = io_state::done; // done: nothing waits
    std::string end_reason_;

    of10::bytes input_;   // the start of a message that is not whole, or what is held back
    of10::bytes sending_; // what is on its way
    size_t sent_ = 0;
    of10::bytes replies_, packets_;
    size_t packets_taken_ = 0; // bytes at the start of packets_ that are on their way or sent
    connection_counts counts_;
};

} // namespace agent

#endif
