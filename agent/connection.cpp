/*
 * Reading, cutting, queueing and writing of connection.h.
 */
#include "connection.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace agent {
namespace {

constexpr size_t arrival_size = 256 * 1024;
constexpr size_t large_read = 16 * 1024;                // after one of these, more is likely to be there
constexpr nanoseconds turn_limit = 10 * millisecond_ns; // a message that begins later waits for the next turn
constexpr size_t kept_capacity = 64 * 1024;             // of a queue that was larger once

// Where bytes arrive before they are cut into messages; one is enough, because the loop has one thread.
alignas(64) std::array<uint8_t, arrival_size> arrival;

void queue_reset(of10::bytes &queue) {
    queue.clear();
    if (queue.capacity() > kept_capacity) {
        queue.shrink_to_fit();
    }
}

} // namespace

connection::connection(event_loop &loop, std::unique_ptr<stream> bytes, connection_handler &handler, nanoseconds probe)
    : loop_(loop), stream_(std::move(bytes)), handler_(handler), probe_(probe),
      silence_(loop, [this] { check_silence(); }), resume_(loop, [this] { handle_kept(); }) {}

void connection::start() {
    watch_ = std::make_unique<fd_watch>(loop_, stream_->fd(),
                                        [this](bool can_read, bool can_write) { ready(can_read, can_write); });
    heard_ = clock_now();
    if (probe_ > 0) {
        silence_.start(probe_);
    }
    shake_hands();
}

void connection::shake_hands() {
    const io_result result = stream_->handshake();
    switch (result.state) {
    case io_state::wait_read:
        watch_->want(true, false);
        return;
    case io_state::wait_write:
        watch_->want(false, true);
        return;
    case io_state::closed:
    case io_state::failed:
        close("handshake: " + (result.state == io_state::failed ? stream_->text() : "closed by the peer"));
        return;
    case io_state::done:
        break;
    }
    is_open_ = true;
    handler_.connection_open(*this);
    send();
}

void connection::ready(bool can_read, bool can_write) {
    if (!is_open_) {
        shake_hands();
        return;
    }
    // Under TLS a write may wait for reading, and the other way round.
    if ((write_waits_ == io_state::wait_write && can_write) || (write_waits_ == io_state::wait_read && can_read)) {
        send();
    }
    if (!is_closed_ &&
        ((read_waits_ == io_state::wait_read && can_read) || (read_waits_ == io_state::wait_write && can_write))) {
        receive();
    }
}

/* ---- receiving ------------------------------------------------------------------------------------------------- */

// Reads what is there, as much as one turn may take, and hands it over piece by piece: a sender of many messages goes
// on sending meanwhile, so that flow-mods which were sent together are written together. Pieces lie behind each other,
// and stay where they are until the turn ends.
void connection::receive() {
    if (is_held() || is_ending_) {
        return;
    }
    std::copy(input_.begin(), input_.end(), arrival.begin()); // the start of a message
    size_t size = input_.size();
    size_t used = 0;
    io_result result{io_state::done, 0};
    begin_turn();
    do {
        result = stream_->read(std::span(arrival).subspan(size));
        size += result.size;
        counts_.bytes_received += result.size;
        used += hand_over(of10::byte_view(arrival).subspan(used, size - used));
    } while (result.state == io_state::done && size < arrival.size() && !is_closed_ && !is_ending_ && !is_held() &&
             !is_turn_over_ && (result.size >= large_read || stream_->has_pending()));
    read_waits_ = result.state == io_state::wait_write ? io_state::wait_write : io_state::wait_read;
    if (size > input_.size()) {
        heard_ = clock_now();
        has_asked_ = false;
        end_turn();
        input_.assign(arrival.begin() + static_cast<ptrdiff_t>(used), arrival.begin() + static_cast<ptrdiff_t>(size));
    }
    is_handling_ = false;
    send();
    if (result.state == io_state::closed || result.state == io_state::failed) {
        close(result.state == io_state::closed ? "closed by the peer" : stream_->text());
    } else if (!is_closed_ && stream_->has_pending()) {
        resume_.start(0);
        update_interest();
    }
}

// Others want their turn too, however much this peer asks for.
void connection::begin_turn() {
    is_handling_ = true;
    is_turn_over_ = false;
    turn_end_ = clock_now() + turn_limit;
}

void connection::end_turn() {
    if (!is_closed_) {
        handler_.connection_turn_end(*this);
    }
}

// Hands over what was held back.
void connection::handle_input() {
    begin_turn();
    const size_t used = hand_over(input_);
    end_turn();
    input_.erase(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(used));
    is_handling_ = false;
    send();
}

// Goes on with what was held back, or waits inside the stream.
void connection::handle_kept() {
    if (is_closed_ || is_held()) {
        return;
    }
    const size_t kept = of10::message_size(input_);
    if (kept != 0 && kept <= input_.size()) {
        handle_input();
    } else {
        receive();
    }
}

size_t connection::hand_over(of10::byte_view received) {
    size_t used = 0;
    while (!is_closed_ && !is_ending_ && !is_held() && !is_turn_over_) {
        const of10::byte_view rest = received.subspan(used);
        const size_t size = of10::message_size(rest);
        if (size == 0 || size > rest.size()) {
            break;
        }
        counts_.messages_received++;
        handler_.connection_message(*this, rest.first(size));
        used += size;
        is_turn_over_ = clock_now() >= turn_end_;
    }
    return used;
}

/* ---- sending --------------------------------------------------------------------------------------------------- */

// True if there is something to send.
bool connection::fill_sending() {
    if (sent_ < sending_.size()) {
        return true;
    }
    sent_ = 0;
    queue_reset(sending_);
    if (!replies_.empty()) {
        std::swap(sending_, replies_);
    } else if (!packets_.empty()) {
        take_piece();
    }
    return !sending_.empty();
}

// Some whole packet-ins: a reply that comes now goes in front of the others.
void connection::take_piece() {
    const of10::byte_view waiting = of10::byte_view(packets_).subspan(packets_taken_);
    size_t size = 0;
    while (size < waiting.size() && size < piece_size) {
        size += of10::message_size(waiting.subspan(size));
    }
    if (packets_taken_ == 0 && size == packets_.size()) {
        std::swap(sending_, packets_);
        return;
    }
    sending_.assign(waiting.begin(), waiting.begin() + static_cast<ptrdiff_t>(size));
    packets_taken_ += size;
    if (packets_taken_ == packets_.size()) {
        queue_reset(packets_);
        packets_taken_ = 0;
    } else if (packets_taken_ >= packet_limit / 2) {
        packets_.erase(packets_.begin(), packets_.begin() + static_cast<ptrdiff_t>(packets_taken_));
        packets_taken_ = 0;
    }
}

void connection::send() {
    if (is_closed_ || !is_open_ || is_handling_) {
        return;
    }
    write_waits_ = io_state::done;
    while (fill_sending()) {
        const io_result result = stream_->write(of10::byte_view(sending_).subspan(sent_));
        if (result.state == io_state::done) {
            sent_ += result.size;
            counts_.bytes_sent += result.size;
            continue;
        }
        if (result.state == io_state::failed || result.state == io_state::closed) {
            close(result.state == io_state::failed ? stream_->text() : "closed by the peer");
            return;
        }
        write_waits_ = result.state;
        break;
    }
    if (is_ending_ && write_waits_ == io_state::done) {
        close(end_reason_);
        return;
    }
    const size_t kept = of10::message_size(input_);
    if (kept != 0 && kept <= input_.size() && !is_held() && !is_ending_) {
        resume_.start(0);
    }
    update_interest();
}

void connection::update_interest() {
    if (is_closed_) {
        return;
    }
    const bool reads = !is_held() && !is_ending_ && !resume_.is_running();
    const bool for_read = (reads && read_waits_ == io_state::wait_read) || write_waits_ == io_state::wait_read;
    const bool for_write = (reads && read_waits_ == io_state::wait_write) || write_waits_ == io_state::wait_write;
    watch_->want(for_read, for_write);
}

/* ---- ending ---------------------------------------------------------------------------------------------------- */

// Silence counts while the peer is listened to. One that did not read is asked once it does again: it could not answer.
void connection::check_silence() {
    const nanoseconds now = clock_now();
    const bool can_ask = is_open_ && !is_ending_;
    if (can_ask && (is_held() || resume_.is_running())) {
        heard_ = now;
        has_asked_ = false;
    } else if (can_ask && !has_asked_ && now - heard_ >= probe_) {
        has_asked_ = true;
        asked_ = now;
        handler_.connection_silent(*this);
        send();
    } else if (can_ask ? has_asked_ && now - asked_ >= probe_ : now - heard_ >= 2 * probe_) {
        close(is_open_ ? "no answer to echo requests" : "no answer");
    }
    if (!is_closed_) {
        silence_.start(probe_ / 2);
    }
}

void connection::close_after_sending(const std::string &why) {
    is_ending_ = true;
    end_reason_ = why;
}

void connection::close(const std::string &why) {
    if (is_closed_) {
        return;
    }
    is_closed_ = true;
    silence_.stop();
    resume_.stop();
    if (watch_ != nullptr) {
        watch_->want(false, false);
    }
    handler_.connection_closed(*this, why);
}

} // namespace agent
