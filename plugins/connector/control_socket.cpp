/* Line-based commands over a Unix stream socket. */
#include "control_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kr_connector {
namespace {

constexpr int listen_backlog = 16;
constexpr int retry_accept_ms = 1000;

bool answer(int fd, const std::string &text) {
    const std::string line = text + "\n";
    const ssize_t sent = send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent == static_cast<ssize_t>(line.size());
}

// Whether somebody listens on the socket file.
bool is_alive(const sockaddr_un &address) {
    const kr_plugin::unique_fd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 ||
           errno != ECONNREFUSED;
}

} // namespace

control_socket::~control_socket() {
    struct stat status {};
    if (listener_ && lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
        unlink(path_.c_str());
    }
}

bool control_socket::open(const std::string &path, std::string *why) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        *why = path + ": longer than " + std::to_string(sizeof(address.sun_path) - 1) + " bytes";
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
        if (!S_ISSOCK(status.st_mode)) {
            *why = path + ": exists and is no socket";
            return false;
        }
        if (is_alive(address)) {
            *why = path + ": in use";
            return false;
        }
        unlink(path.c_str());
    }
    kr_plugin::unique_fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // The mode of an unbound socket is the mode that its file is created with.
    if (!listener || fchmod(listener.get(), 0600) != 0 ||
        bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        *why = path + ": " + std::strerror(errno);
        return false;
    }
    if (listen(listener.get(), listen_backlog) != 0 || lstat(path.c_str(), &status) != 0) {
        *why = path + ": " + std::strerror(errno);
        unlink(path.c_str());
        return false;
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    path_ = path;
    listener_ = std::move(listener);
    return true;
}

void control_socket::poll_add(std::vector<pollfd> *descriptors) const {
    if (!listener_) {
        return;
    }
    if (!is_out_of_descriptors_) {
        descriptors->push_back({listener_.get(), POLLIN, 0});
    }
    for (const connection &peer : connections_) {
        descriptors->push_back({peer.fd.get(), POLLIN, 0});
    }
}

int control_socket::poll_timeout_ms() const {
    return is_out_of_descriptors_ ? retry_accept_ms : -1;
}

void control_socket::serve(const command_handler &handler) {
    if (!listener_) {
        return;
    }
    accept_all();
    std::erase_if(connections_, [&](connection &peer) { return !serve_one(peer, handler); });
}

void control_socket::accept_all() {
    is_out_of_descriptors_ = false;
    for (;;) {
        kr_plugin::unique_fd peer(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!peer) {
            // The listener stays readable while descriptors are short: look again later instead of at once.
            is_out_of_descriptors_ = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            if (errno == ECONNABORTED || errno == EINTR) {
                continue;
            }
            return;
        }
        if (connections_.size() == control_max_connections) {
            (void)answer(peer.get(), "error too many connections");
        } else {
            connections_.push_back({std::move(peer), {}});
        }
    }
}

bool control_socket::serve_one(connection &peer, const command_handler &handler) {
    char chunk[control_max_line];
    const ssize_t size = recv(peer.fd.get(), chunk, sizeof(chunk), MSG_DONTWAIT);
    if (size < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    peer.input.append(chunk, static_cast<size_t>(size));
    return handle_lines(peer, size == 0, handler) && size > 0;
}

bool control_socket::handle_lines(connection &peer, bool is_at_end, const command_handler &handler) {
    if (is_at_end && !peer.input.empty()) {
        peer.input += '\n'; // the last line may lack its newline
    }
    size_t end = 0;
    while ((end = peer.input.find('\n')) != std::string::npos && end <= control_max_line) {
        std::string line = peer.input.substr(0, end);
        peer.input.erase(0, end + 1);
        if (line.ends_with('\r')) {
            line.pop_back();
        }
        if (!answer(peer.fd.get(), handler(line))) {
            return false;
        }
    }
    if (peer.input.size() > control_max_line) {
        (void)answer(peer.fd.get(),
                     "error the line is longer than " + std::to_string(control_max_line) + " characters");
        return false;
    }
    return true;
}

} // namespace kr_connector
