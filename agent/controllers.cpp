/*
 * Sockets, retries and the list of sessions. A session that ends is taken off the list by the reaper, one turn of the
 * loop later: it may be on the stack when it ends.
 */
#include "controllers.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"

namespace agent {
namespace {

constexpr nanoseconds first_retry = 500 * millisecond_ns;
constexpr nanoseconds last_retry = 8 * second_ns;
constexpr nanoseconds connect_patience = 10 * second_ns;
constexpr size_t max_sessions = 64;
constexpr int backlog = 16;
constexpr int unsent_limit = 64 * 1024; // bytes in the kernel that no reply can overtake

void socket_tune(int fd, const endpoint &where) {
    if (where.kind != endpoint::transport::unix_socket) {
        const int on = 1;
        const int dead_after_ms = 60'000;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsent_limit, sizeof unsent_limit);
        setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &dead_after_ms, sizeof dead_after_ms);
    } else {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &unsent_limit, sizeof unsent_limit); // the kernel takes it twice
    }
}

unique_fd socket_for(const socket_address &address) {
    return unique_fd(socket(address.get()->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

// A socket that a process left which is gone stands in the way of a new one.
void stale_socket_remove(const socket_address &address, const std::string &path) {
    struct stat what {};
    if (lstat(path.c_str(), &what) != 0 || !S_ISSOCK(what.st_mode)) {
        return;
    }
    const unique_fd probe = socket_for(address);
    if (connect(probe.get(), address.get(), address.size) != 0 && errno == ECONNREFUSED) {
        unlink(path.c_str());
    }
}

} // namespace

struct controllers::target {
    endpoint where;
    std::string name;
    nanoseconds delay = first_retry;
    std::unique_ptr<timer> clock; // to the next try, or for the patience with this one
    unique_fd socket;             // while connecting
    std::unique_ptr<fd_watch> watch;
    session *current = nullptr;
};

struct controllers::listener {
    endpoint where;
    unique_fd socket;
    std::unique_ptr<fd_watch> watch;
    std::unique_ptr<timer> pause;
    uint64_t accepted = 0;
    ~listener() {
        if (where.kind == endpoint::transport::unix_socket && socket) {
            unlink(where.address.c_str());
        }
    }
};

controllers::controllers(event_loop &loop, datapath &switch_state, controller_settings settings)
    : loop_(loop), datapath_(switch_state), settings_(settings), reaper_(loop, [this] { reap(); }) {}

controllers::~controllers() = default;

/* ---- listening ------------------------------------------------------------------------------------------------- */

bool controllers::listen(endpoint where, std::string *why) {
    const socket_address address = endpoint_address(where);
    auto one = std::make_unique<listener>();
    one->socket = socket_for(address);
    const int on = 1;
    mode_t mask = 0;
    if (where.kind == endpoint::transport::unix_socket) {
        stale_socket_remove(address, where.address);
        mask = umask(0177);
    } else {
        setsockopt(one->socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    const bool is_bound = bind(one->socket.get(), address.get(), address.size) == 0;
    const int error = errno;
    if (where.kind == endpoint::transport::unix_socket) {
        umask(mask);
    }
    if (!is_bound || ::listen(one->socket.get(), backlog) != 0) {
        *why = endpoint_text(where) + ": " + std::strerror(is_bound ? errno : error);
        one->socket = unique_fd();
        return false;
    }
    if (where.kind != endpoint::transport::unix_socket && where.port == 0) {
        sockaddr_in6 bound{};
        socklen_t size = sizeof bound;
        getsockname(one->socket.get(), reinterpret_cast<sockaddr *>(&bound), &size);
        where.port = ntohs(bound.sin6_port); // at the same place in an IPv4 address
    }
    log(log_level::notice, "listening on %s", endpoint_text(where).c_str());
    listener &self = *one;
    one->where = std::move(where);
    one->watch = std::make_unique<fd_watch>(loop_, one->socket.get(), [this, &self](bool, bool) { accept_from(self); });
    one->pause = std::make_unique<timer>(loop_, [&self] { self.watch->want(true, false); });
    listeners_.push_back(std::move(one));
    return true;
}

void controllers::accept_from(listener &from) {
    unique_fd accepted(accept4(from.socket.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!accepted) {
        // Who waits goes on waiting while there are no descriptors, and would be seen again at once.
        if (accept_lacks_means(errno)) {
            if (arrivals_.take()) {
                log(log_level::warning, "%s: %s", endpoint_text(from.where).c_str(), std::strerror(errno));
            }
            from.watch->want(false, false);
            from.pause->start(accept_pause);
        }
        return;
    }
    if (sessions_.size() >= max_sessions) {
        if (arrivals_.take()) {
            log(log_level::warning, "%s: more than %zu connections", endpoint_text(from.where).c_str(), max_sessions);
        }
        return;
    }
    const std::string name = endpoint_text(from.where) + " #" + std::to_string(++from.accepted);
    session_open(std::move(accepted), from.where, name, nullptr);
}

/* ---- connecting ------------------------------------------------------------------------------------------------ */

void controllers::connect(const endpoint &where) {
    auto one = std::make_unique<target>();
    target &self = *one;
    one->where = where;
    one->name = endpoint_text(where);
    one->clock = std::make_unique<timer>(loop_, [this, &self] {
        if (self.socket) {
            target_lost(self, "no answer");
        } else {
            try_target(self);
        }
    });
    targets_.push_back(std::move(one));
    if (is_started_) {
        try_target(self);
    }
}

void controllers::disconnect(const endpoint &where, const std::string &why) {
    const auto found = std::find_if(targets_.begin(), targets_.end(),
                                    [&](const auto &candidate) { return candidate->where == where; });
    if (found == targets_.end()) {
        return;
    }
    const std::unique_ptr<target> gone = std::move(*found);
    targets_.erase(found); // first: a session that ends would be tried again
    if (gone->current != nullptr) {
        gone->current->close(why);
    } else {
        log(log_level::notice, "%s: %s", gone->name.c_str(), why.c_str());
    }
}

void controllers::try_target(target &one) {
    const socket_address address = endpoint_address(one.where);
    one.socket = socket_for(address);
    if (::connect(one.socket.get(), address.get(), address.size) == 0) {
        target_connected(one);
        return;
    }
    if (errno != EINPROGRESS) {
        target_lost(one, std::strerror(errno));
        return;
    }
    one.clock->start(connect_patience);
    one.watch = std::make_unique<fd_watch>(loop_, one.socket.get(), [this, &one](bool, bool) {
        int error = 0;
        socklen_t size = sizeof error;
        getsockopt(one.socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
        one.watch->want(false, false);
        if (error != 0) {
            target_lost(one, std::strerror(error));
        } else {
            target_connected(one);
        }
    });
    one.watch->want(false, true);
}

void controllers::target_connected(target &one) {
    one.clock->stop();
    session_open(std::move(one.socket), one.where, one.name, &one);
}

// Tries again later; the time between tries doubles, until a controller has said HELLO.
void controllers::target_lost(target &one, const std::string &why) {
    log(one.delay == first_retry ? log_level::notice : log_level::debug, "%s: %s; trying again in %.1f s",
        one.name.c_str(), why.c_str(), static_cast<double>(one.delay) / static_cast<double>(second_ns));
    if (one.watch != nullptr) {
        one.watch->want(false, false);
    }
    one.socket = unique_fd();
    one.current = nullptr;
    one.clock->start(one.delay);
    one.delay = std::min(2 * one.delay, last_retry);
}

/* ---- sessions -------------------------------------------------------------------------------------------------- */

std::unique_ptr<stream> controllers::wrap(unique_fd socket, const endpoint &where, bool is_server) {
    socket_tune(socket.get(), where);
    return where.kind == endpoint::transport::ssl ? settings_.tls->wrap(std::move(socket), is_server)
                                                  : stream_plain(std::move(socket));
}

void controllers::session_open(unique_fd socket, const endpoint &where, const std::string &name, target *from) {
    std::unique_ptr<stream> bytes = wrap(std::move(socket), where, from == nullptr);
    if (bytes == nullptr) {
        log(log_level::error, "%s: no memory for TLS", name.c_str());
        if (from != nullptr) {
            target_lost(*from, "not connected");
        }
        return;
    }
    sessions_.push_back(std::make_unique<session>(
        loop_, std::move(bytes), datapath_, name, settings_.probe,
        session::handlers{[this](session &ready) { tell_feed(ready, "connected", ""); },
                          [this](session &closed, const std::string &why) { session_closed(closed, why); },
                          from == nullptr ? &arrivals_ : nullptr}));
    session &opened = *sessions_.back();
    if (from != nullptr) {
        from->current = &opened;
    }
    opened.start();
}

void controllers::tell_feed(const session &one, const char *what, const std::string &why) const {
    datapath_.feed.tell([&] { return happening{"controller", what, one.name(), why}; });
}

void controllers::session_closed(session &one, const std::string &why) {
    tell_feed(one, "lost", why);
    lost_.notices += one.lost().notices;
    lost_.packet_ins += one.lost().packet_ins;
    reaper_.start(0);
    const auto found = std::find_if(targets_.begin(), targets_.end(),
                                    [&](const auto &candidate) { return candidate->current == &one; });
    if (found != targets_.end()) {
        if (one.was_ready()) {
            (*found)->delay = first_retry;
        }
        target_lost(**found, "not connected");
    }
}

void controllers::reap() {
    for (const auto &one : sessions_) {
        if (one->link().is_closed()) {
            dropped_before_ += one->link().counts().packets_dropped;
        }
    }
    std::erase_if(sessions_, [](const auto &one) { return one->link().is_closed(); });
}

void controllers::start() {
    is_started_ = true;
    for (const auto &one : listeners_) {
        one->watch->want(true, false);
    }
    for (const auto &one : targets_) {
        try_target(*one);
    }
}

void controllers::stop() {
    targets_.clear();
    listeners_.clear();
    for (const auto &one : sessions_) {
        one->close("the daemon ends");
    }
    sessions_.clear();
    reaper_.stop();
}

/* ---- audience -------------------------------------------------------------------------------------------------- */

void controllers::tell_all(const of10::message_body &body) {
    untold_ += has_any() ? 0 : 1;
    for (const auto &one : sessions_) {
        if (one->is_ready()) {
            one->tell(body);
        }
    }
}

bool controllers::has_any() const {
    return std::any_of(sessions_.begin(), sessions_.end(), [](const auto &one) { return one->is_ready(); });
}

void controllers::packet_in(of10::packet_in_fields fields, of10::byte_view frame, uint16_t max_len,
                            const std::function<uint32_t()> &buffer) {
    uint32_t buffer_id = of10::buffer_none;
    for (const auto &one : sessions_) {
        if (!one->is_ready()) {
            continue;
        }
        const uint16_t wanted = fields.reason == of10::packet_in_reason::no_match ? one->miss_send_len() : max_len;
        if (wanted >= frame.size()) {
            fields.buffer_id = of10::buffer_none;
            one->packet_in(fields, frame);
            continue;
        }
        if (buffer_id == of10::buffer_none) {
            buffer_id = buffer();
        }
        fields.buffer_id = buffer_id;
        one->packet_in(fields, frame.first(wanted));
    }
}

void controllers::packets_send() {
    for (const auto &one : sessions_) {
        one->packets_send();
    }
}

std::vector<controllers::peer_view> controllers::view() const {
    std::vector<peer_view> peers;
    for (const auto &one : sessions_) {
        peers.push_back({one->name(), one->is_ready() ? "connected" : "greeting", one->link().counts()});
    }
    for (const auto &one : targets_) {
        if (one->current == nullptr) {
            peers.push_back({one->name, one->socket ? "connecting" : "waiting", {}});
        }
    }
    return peers;
}

uint64_t controllers::packets_dropped() const {
    uint64_t dropped = dropped_before_;
    for (const auto &one : sessions_) {
        dropped += one->link().counts().packets_dropped;
    }
    return dropped;
}

} // namespace agent
