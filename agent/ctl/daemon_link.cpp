/*
 * The socket behind daemon_link.h.
 */
#include "daemon_link.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "control_place.h"

namespace ctl {
namespace {

// Connects; the error number if that can't be done.
int connect_to(const std::string &path, int *fd) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    *fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(*fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        return 0;
    }
    const int error = errno;
    close(*fd);
    *fd = -1;
    return error;
}

std::string hint(int error) {
    return error == EACCES || error == EPERM ? " (the daemon answers its own user and root)"
           : error == ECONNREFUSED           ? " (the daemon that made it is gone)"
                                             : "";
}

} // namespace

daemon_link::daemon_link(const std::string &path) {
    const char *const named = std::getenv("KRSDN_CONTROL");
    std::vector<std::string> places;
    if (!path.empty() || (named != nullptr && *named != '\0')) {
        places.push_back(path.empty() ? std::string(named) : path);
    } else {
        for (const std::string &folder : agent::control_folders()) {
            places.push_back(folder + "/" + agent::control_socket_name);
        }
    }
    std::string tried;
    for (const std::string &place : places) {
        const int error = connect_to(place, &fd_);
        if (error == 0) {
            return;
        }
        tried += "\n  " + place + ": " + std::strerror(error) + hint(error);
    }
    throw failure(exit_unreachable, "no daemon answers:" + tried);
}

daemon_link::~daemon_link() {
    close(fd_);
}

bool daemon_link::read_line(std::string *line) {
    for (;;) {
        const size_t end = input_.find('\n', used_);
        if (end != std::string::npos) {
            *line = input_.substr(used_, end - used_);
            used_ = end + 1;
            return true;
        }
        input_.erase(0, used_);
        used_ = 0;
        pollfd waits[] = {{fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
        if (poll(waits, std::size(waits), -1) < 0 && errno == EINTR) {
            continue;
        }
        char piece[16 * 1024];
        is_stopped_ = waits[1].revents != 0;
        const ssize_t size = is_stopped_ ? 0 : recv(fd_, piece, sizeof piece, 0);
        if (size <= 0) {
            return false;
        }
        input_.append(piece, static_cast<size_t>(size));
    }
}

void daemon_link::ask(const json &request, const std::function<bool(json &&)> &take) {
    const std::string line = request.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
    for (size_t sent = 0; sent < line.size();) {
        const ssize_t size = send(fd_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (size < 0) {
            throw failure(exit_unreachable, std::string("the daemon does not listen: ") + std::strerror(errno));
        }
        sent += static_cast<size_t>(size);
    }
    bool is_stream = false;
    for (std::string text; read_line(&text);) {
        json record = json::parse(text, nullptr, false);
        if (!record.is_object()) {
            throw failure(exit_bad, "the daemon's answer is no JSON: " + text.substr(0, 100));
        }
        if (record.contains("end")) {
            if (record["end"] == "ok") {
                return;
            }
            throw failure(exit_bad, record.value("message", "refused"));
        }
        if (record.contains("stream")) {
            is_stream = true;
        } else if (!take(std::move(record))) {
            return;
        }
    }
    if (!is_stream && !is_stopped_) {
        throw failure(exit_unreachable, "the daemon ended in the middle of its answer");
    }
}

std::vector<json> daemon_link::ask(const json &request) {
    std::vector<json> records;
    ask(request, [&](json &&one) {
        records.push_back(std::move(one));
        return true;
    });
    return records;
}

} // namespace ctl
