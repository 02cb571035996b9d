/*
 * Life of the library, from init to deinit, on the loop.
 */
#include "switch_link.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "datapath.h"
#include "endpoint.h"
#include "log.h"

namespace agent {
namespace {

constexpr nanoseconds settle_time = 8 * millisecond_ns;          // without a further port: these are the first ones
constexpr nanoseconds settle_time_for_all = 16 * millisecond_ns; // the same where all ports are needed
constexpr nanoseconds settle_limit_time = 30 * millisecond_ns;   // further ports are told one by one
constexpr nanoseconds settle_limit_for_all = second_ns;
constexpr nanoseconds stop_patience = 10 * second_ns;
constexpr int frames_per_turn = 64;
constexpr int events_per_turn = 32;

bool check(kr_sdn_hal_status status, const char *what, std::string *why) {
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        *why = std::string(what) + " failed with status " + std::to_string(status);
    }
    return status == KR_SDN_HAL_STATUS_SUCCESS;
}

bool is_readable(int first, int second) {
    pollfd descriptors[] = {{first, POLLIN, 0}, {second, POLLIN, 0}};
    return poll(descriptors, second >= 0 ? 2 : 1, 0) > 0;
}

} // namespace

switch_link::switch_link(event_loop &loop, switch_settings settings, handlers on)
    : loop_(loop), settings_(std::move(settings)), on_(std::move(on)), settle_(loop,
                                                                               [this] {
                                                                                   if (!has_settled_ && !is_stopping_) {
                                                                                       has_settled_ = true;
                                                                                       settle_limit_.stop();
                                                                                       on_.settled();
                                                                                   }
                                                                               }),
      settle_limit_(loop, [this] { settle_.start(0); }), stop_limit_(loop, [this] {
          log(log_level::error, "the connector does not stop the switch");
          finish(false);
      }) {}

switch_link::~switch_link() {
    if (aside_.joinable()) {
        aside_.join();
    }
}

/* ---- up -------------------------------------------------------------------------------------------------------- */

bool switch_link::start(datapath &switch_state, std::string *why) {
    datapath_ = &switch_state;
    aside_done_ = unique_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!aside_done_) {
        *why = std::strerror(errno);
        return false;
    }
    system_profile profile{};
    std::snprintf(profile.connector_library_path, sizeof profile.connector_library_path, "%s",
                  settings_.connector.c_str());
    std::snprintf(profile.fpt_library_path, sizeof profile.fpt_library_path, "%s", settings_.port_plugin.c_str());
    if (!check(kr_sdn_hal_init(&profile, log_from_library), "kr_sdn_hal_init", why)) {
        return false;
    }
    is_initialised_ = true;
    if (!check(kr_sdn_hal_srvc_open(&events_), "kr_sdn_hal_srvc_open", why)) {
        return false;
    }
    for (const uint32_t event : {EVENT_GENERAL_READY, EVENT_PORT_CAPABILITIES_UPDATE, EVENT_AGENT_UPDATE}) {
        if (!check(kr_sdn_hal_srvc_event_register(&events_, event), "registering for events", why)) {
            return false;
        }
    }
    events_watch_ = std::make_unique<fd_watch>(loop_, events_.hal_pipe[0], [this](bool, bool) { read_events(); });
    events_watch_->want(true, false);
    return check(kr_sdn_hal_activate(), "kr_sdn_hal_activate", why);
}

// Does something that may have to wait for the library's producers, while the loop goes on; one after the other.
void switch_link::run_aside(std::function<void()> work, std::function<void()> then) {
    aside_queue_.push_back({std::move(work), std::move(then)});
    if (aside_queue_.size() == 1) {
        start_aside();
    }
}

void switch_link::start_aside() {
    if (aside_watch_ == nullptr) {
        aside_watch_ = std::make_unique<fd_watch>(loop_, aside_done_.get(), [this](bool, bool) { end_aside(); });
        aside_watch_->want(true, false);
    }
    aside_ = std::thread([this, work = aside_queue_.front().work] {
        work();
        const uint64_t one = 1;
        (void)!write(aside_done_.get(), &one, sizeof one);
    });
}

void switch_link::end_aside() {
    uint64_t count = 0;
    (void)!read(aside_done_.get(), &count, sizeof count);
    aside_.join();
    const std::function<void()> then = std::move(aside_queue_.front().then);
    aside_queue_.pop_front();
    if (!aside_queue_.empty()) {
        start_aside();
    }
    then();
}

// From here until packets_opened() the channel belongs to the thread aside.
void switch_link::open_packets() {
    close_watches();
    run_aside(
        [this] {
            if (packets_.is_open != 0) { // of before the switch was started anew
                (void)!kr_sdn_hal_srvc_close(&packets_);
            }
            std::string why;
            bool is_good = check(kr_sdn_hal_srvc_open(&packets_), "opening the channel of frames", &why);
            for (const uint32_t event : {EVENT_PORT_OPER_STATE_CHANGE, EVENT_PACKET_IN, EVENT_PACKET_MISS}) {
                is_good =
                    is_good && check(kr_sdn_hal_srvc_event_register(&packets_, event), "registering for frames", &why);
            }
            if (!is_good) {
                log(log_level::error, "%s", why.c_str());
            }
        },
        [this] { packets_opened(); });
}

void switch_link::close_watches() {
    has_packets_ = false;
    packets_sdk_watch_.reset();
    packets_pipe_watch_.reset();
}

void switch_link::packets_opened() {
    if (!aside_queue_.empty()) {
        return; // something else is to be done with the channel already
    }
    has_packets_ = packets_.is_open != 0 && packets_.sdk_fd_open != 0;
    if (has_packets_) {
        const auto on_ready = [this](bool, bool) { read_packets(); };
        packets_pipe_watch_ = std::make_unique<fd_watch>(loop_, packets_.hal_pipe[0], on_ready);
        packets_pipe_watch_->want(true, false);
        packets_sdk_watch_ = std::make_unique<fd_watch>(loop_, packets_.sdk_fd.fd, on_ready);
        packets_sdk_watch_->want(true, false);
    }
    datapath_->ports_refresh(); // link changes before this moment were not told
    if (!has_settled_) {
        settle_.start(settings_.needs_all_ports ? settle_time_for_all : settle_time);
        settle_limit_.start(settings_.needs_all_ports ? settle_limit_for_all : settle_limit_time);
    }
}

/* ---- events and frames ----------------------------------------------------------------------------------------- */

void switch_link::read_events() {
    for (int i = 0; i < events_per_turn && is_readable(events_.hal_pipe[0], -1); i++) {
        if (kr_sdn_hal_srvc_recv(&events_, &record_) == KR_SDN_HAL_STATUS_SUCCESS) {
            take_event(record_);
        }
    }
}

void switch_link::take_event(const hal_event_record &record) {
    switch (record.type) {
    case EVENT_GENERAL_READY:
        datapath_->switch_ready();
        open_packets();
        return;
    case EVENT_AGENT_UPDATE:
        on_.agent(record.payload.agent);
        return;
    case EVENT_PORT_CAPABILITIES_UPDATE:
        break;
    default:
        return;
    }
    const hal_event_port_update &update = record.payload.port_update;
    if (update.reason == PORT_UPDATE_REMOVED) {
        datapath_->port_removed(update.port);
        std::string why;
        if (!check(kr_sdn_hal_srvc_event_ack(&record), "acknowledging the removal of a port", &why)) {
            log(log_level::error, "%s", why.c_str());
        }
        return;
    }
    datapath_->port_added(update);
    if (!has_settled_ && settle_.is_running()) {
        settle_.start(settings_.needs_all_ports ? settle_time_for_all : settle_time);
    }
}

// A bounded number of frames per turn, so that requests never wait long behind a flood.
void switch_link::read_packets() {
    int count = 0;
    for (; count < frames_per_turn && is_readable(packets_.sdk_fd.fd, packets_.hal_pipe[0]); count++) {
        if (kr_sdn_hal_srvc_recv(&packets_, &record_) == KR_SDN_HAL_STATUS_SUCCESS) {
            take_packet(record_);
        }
    }
    if (count > 0) {
        datapath_->packets_end();
    }
}

void switch_link::take_packet(const hal_event_record &record) {
    switch (record.type) {
    case EVENT_PACKET_IN:
        datapath_->packet_received(record.payload.packet, of10::packet_in_reason::action);
        return;
    case EVENT_PACKET_MISS:
        datapath_->packet_received(record.payload.packet, of10::packet_in_reason::no_match);
        return;
    case EVENT_PORT_OPER_STATE_CHANGE: {
        const hal_event_port_oper &change = record.payload.port_oper;
        datapath_->link_changed(static_cast<uint16_t>(change.port), change.oper_state == event_link_up);
        return;
    }
    default:
        return;
    }
}

bool switch_link::send(uint16_t port, of10::byte_view frame) {
    return has_packets_ && kr_sdn_hal_srvc_packet_send(&packets_, frame.data(), static_cast<uint32_t>(frame.size()),
                                                       port, 0) == KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- down ------------------------------------------------------------------------------------------------------ */

void switch_link::stop() {
    if (is_stopping_) {
        return;
    }
    is_stopping_ = true;
    settle_.stop();
    settle_limit_.stop();
    if (!is_initialised_ || datapath_ == nullptr) {
        finish(true);
        return;
    }
    stop_limit_.start(stop_patience);
    close_watches();
    run_aside(
        [this] {
            if (packets_.is_open != 0) {
                (void)!kr_sdn_hal_srvc_close(&packets_);
            }
        },
        [this] { ask_connector(); });
}

void switch_link::ask_connector() {
    endpoint where;
    where.kind = endpoint::transport::unix_socket;
    where.address = settings_.control_path;
    const socket_address address = endpoint_address(where);
    control_ = unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    constexpr std::string_view request = "stop\n";
    if (connect(control_.get(), address.get(), address.size) != 0 ||
        ::send(control_.get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        log(log_level::error, "the connector can't be asked to stop the switch: %s: %s", settings_.control_path.c_str(),
            std::strerror(errno));
        finish(false);
        return;
    }
    control_watch_ = std::make_unique<fd_watch>(loop_, control_.get(), [this](bool, bool) { read_answer(); });
    control_watch_->want(true, false);
}

void switch_link::read_answer() {
    char piece[256];
    const ssize_t size = read(control_.get(), piece, sizeof piece);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    answer_.append(piece, size > 0 ? static_cast<size_t>(size) : 0);
    if (size > 0 && answer_.find('\n') == std::string::npos) {
        return;
    }
    control_watch_->want(false, false);
    const bool is_clean = answer_.starts_with("ok");
    if (!is_clean) {
        log(log_level::error, "the connector did not stop the switch: %s", answer_.c_str());
    }
    finish(is_clean);
}

void switch_link::finish(bool is_clean) {
    stop_limit_.stop();
    if (events_watch_ != nullptr) {
        events_watch_->want(false, false);
    }
    std::string why;
    if (is_initialised_ && is_clean) {
        if (events_.is_open != 0) {
            is_clean = check(kr_sdn_hal_srvc_close(&events_), "closing the channel of events", &why);
        }
        is_clean = check(kr_sdn_hal_deinit(), "kr_sdn_hal_deinit", &why) && is_clean;
        if (!is_clean) {
            log(log_level::error, "%s", why.c_str());
        }
    }
    on_.stopped(is_clean);
}

} // namespace agent
