/*
 * What all ports share, and ports in memory and on capture files; see port.h.
 */
#include "dataplane/port.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include <pcap/pcap.h>

#include "host_ifc/trap_delivery.h"
#include "kr_api.h"

namespace kr_soft {

/* ---- link ------------------------------------------------------------------------------------------------------ */

port_state port::state_get() const {
    const std::lock_guard lock(link_mutex);
    return {
        .oper_state = is_up() ? KR_PORT_OPER_UP : KR_PORT_OPER_DOWN,
        .admin_state = medium_.admin_up ? KR_PORT_ADMIN_UP : KR_PORT_ADMIN_DOWN,
        .module_state = medium_.plugged ? KR_PORT_MODULE_PLUGGED : KR_PORT_MODULE_UNPLUGGED,
    };
}

void port::link_force(bool up) {
    const std::lock_guard lock(link_mutex);
    forced_down_ = !up;
    link_update();
}

void port::medium_update(const medium_state &medium) {
    medium_ = medium;
    link_update();
}

void port::medium_set_initial(const medium_state &medium) {
    medium_ = medium;
    up_.store(medium.plugged && medium.admin_up && medium.carrier, std::memory_order_relaxed);
}

// The trap is raised with the lock held, so that a port's traps come in the order of its changes.
void port::link_update() {
    const bool up = medium_.plugged && medium_.admin_up && medium_.carrier && !forced_down_;
    if (up_.exchange(up, std::memory_order_relaxed) != up) {
        trap_port_event_deliver(log_port, up ? KR_PORT_OPER_UP : KR_PORT_OPER_DOWN);
    }
}

void port::link_change_tell() const {
    if (is_up()) {
        trap_port_event_deliver(log_port, KR_PORT_OPER_DOWN);
        trap_port_event_deliver(log_port, KR_PORT_OPER_UP);
    }
}

/* ---- frames ---------------------------------------------------------------------------------------------------- */

transmit_result port::transmit(const frame &f) {
    if (!is_up()) {
        return transmit_result::link_down;
    }
    const transmit_result result = frame_send(f);
    if (result == transmit_result::sent) {
        tx_packets.fetch_add(f.segment_count, std::memory_order_relaxed);
        tx_bytes.fetch_add(frame_wire_bytes(f), std::memory_order_relaxed);
    }
    return result;
}

void port::receive_count(const frame &f) {
    rx_packets.fetch_add(f.segment_count, std::memory_order_relaxed);
    rx_bytes.fetch_add(frame_wire_bytes(f), std::memory_order_relaxed);
}

/* ---- ports in memory ------------------------------------------------------------------------------------------- */

transmit_result memory_port::frame_send(const frame &f) {
    if (f.segment_count == 1 && f.size > KR_SOFT_MAX_FRAME) {
        return transmit_result::too_long;
    }
    const std::lock_guard lock(queue_mutex_);
    // A frame of several segments goes in whole or not at all.
    if (queue_.room() < f.segment_count) {
        return transmit_result::full;
    }
    frame_wire_frames(f, [this](const uint8_t *data, uint32_t size) { queue_.push({}, data, size); });
    frame_came_.notify_all();
    return transmit_result::sent;
}

kr_status memory_port::read(void *data, uint32_t *size, uint32_t timeout_us) {
    std::unique_lock lock(queue_mutex_);
    const auto ready = [this] { return closed_ || !queue_.empty(); };
    if (timeout_us == 0 ? !ready() : !frame_came_.wait_for(lock, std::chrono::microseconds(timeout_us), ready)) {
        return KR_STATUS_TIMEOUT;
    }
    if (queue_.empty()) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    const uint32_t frame_size = queue_.front().size;
    std::memcpy(data, queue_.front_data(), std::min(frame_size, *size));
    *size = frame_size;
    queue_.pop();
    return KR_STATUS_SUCCESS;
}

void memory_port::close() {
    const std::lock_guard lock(queue_mutex_);
    closed_ = true;
    frame_came_.notify_all();
}

/* ---- ports on capture files ------------------------------------------------------------------------------------ */

bool capture_port::output_open(const char *path) {
    output_path_ = path;
    output_format_ = pcap_open_dead(DLT_EN10MB, wire_frame_size_max);
    output_ = output_format_ != nullptr ? pcap_dump_open(output_format_, path) : nullptr;
    return output_ != nullptr && pcap_dump_flush(output_) == 0;
}

capture_port::~capture_port() {
    if (output_ != nullptr) {
        pcap_dump_close(output_);
    }
    if (output_format_ != nullptr) {
        pcap_close(output_format_);
    }
}

// Without an output file the frame leaves and is gone. Each frame is flushed, so that the file can be read any time.
transmit_result capture_port::frame_send(const frame &f) {
    if (f.segment_count == 1 && f.size > KR_SOFT_MAX_FRAME) {
        return transmit_result::too_long;
    }
    if (output_ == nullptr) {
        return transmit_result::sent;
    }
    timespec time = f.captured_at;
    if (time.tv_sec == 0 && time.tv_nsec == 0) {
        clock_gettime(CLOCK_REALTIME, &time);
    }
    pcap_pkthdr header{};
    header.ts = {.tv_sec = time.tv_sec, .tv_usec = time.tv_nsec / 1000};
    const std::lock_guard lock(output_mutex_);
    frame_wire_frames(f, [&](const uint8_t *data, uint32_t size) {
        header.caplen = size;
        header.len = size;
        pcap_dump(reinterpret_cast<u_char *>(output_), &header, data);
    });
    return pcap_dump_flush(output_) == 0 ? transmit_result::sent : transmit_result::full;
}

} // namespace kr_soft
