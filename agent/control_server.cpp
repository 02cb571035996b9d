/*
 * Socket, clients and their limits, for control_server.h.
 */
#include "control_server.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "control_place.h"
#include "endpoint.h"
#include "log.h"

namespace agent {
namespace {

constexpr size_t output_goal = 32 * 1024;   // an answer is made as far as this ahead of its reader
constexpr size_t stream_limit = 256 * 1024; // what may wait for a reader of a stream
constexpr size_t read_size = 16 * 1024;
constexpr int writes_per_turn = 8;
constexpr nanoseconds patience = 60 * second_ns;
constexpr int backlog = 8;

socket_address address_of(const std::string &path) {
    endpoint where;
    where.kind = endpoint::transport::unix_socket;
    where.address = path;
    return endpoint_address(where);
}

// Nobody listens on it any more, and it is ours to remove.
bool is_stale(const std::string &path) {
    struct stat what {};
    if (lstat(path.c_str(), &what) != 0 || !S_ISSOCK(what.st_mode) || what.st_uid != geteuid()) {
        return false;
    }
    const socket_address address = address_of(path);
    const unique_fd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return connect(probe.get(), address.get(), address.size) != 0 && errno == ECONNREFUSED;
}

// Two daemons that start at the same time look at the socket one after the other.
unique_fd folder_lock(const std::string &path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
    unique_fd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) {
        (void)flock(fd.get(), LOCK_EX);
    }
    return fd;
}

bool is_own_folder(const std::string &path) {
    struct stat what {};
    return lstat(path.c_str(), &what) == 0 && S_ISDIR(what.st_mode) && what.st_uid == geteuid() &&
           (what.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

} // namespace

std::string control_end() {
    return R"({"end":"ok"})";
}

std::string control_error(const std::string &message) {
    const nlohmann::ordered_json line = {{"end", "error"}, {"message", message}};
    return line.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

control_folder::control_folder() {
    for (const std::string &folder : control_folders()) {
        is_made_ = mkdir(folder.c_str(), 0755) == 0;
        if (is_own_folder(folder)) {
            path_ = folder;
            return;
        }
    }
}

control_folder::~control_folder() {
    if (is_made_) {
        rmdir(path_.c_str()); // unless another daemon has moved in
    }
}

std::string control_folder::socket_path() const {
    return path_.empty() ? "" : path_ + "/" + control_socket_name;
}

/* ---- a client -------------------------------------------------------------------------------------------------- */

class control_server::client {
  public:
    client(control_server &server, unique_fd socket)
        : server_(server), socket_(std::move(socket)),
          watch_(server.loop_, socket_.get(), [this](bool can_read, bool can_write) { ready(can_read, can_write); }),
          patience_(server.loop_, [this] { check_patience(); }), turn_(server.loop_, [this] { go_on(); }) {
        patience_.start(patience);
        go_on();
    }

    bool is_closed() const {
        return is_closed_;
    }
    const std::optional<control_stream> &stream() const {
        return stream_;
    }

    void refuse(const std::string &why) {
        put(control_error(why));
        is_ending_ = true;
        go_on();
    }

    // A line of a stream. What does not fit is counted, and told once there is room.
    bool tell(const std::string &line) {
        if (output_.size() - sent_ + line.size() > stream_limit) {
            lost_++;
            return false;
        }
        if (lost_ > 0) {
            put(nlohmann::ordered_json{{"event", "lost"}, {"count", lost_}}.dump());
            lost_ = 0;
        }
        put(line);
        turn_.start(0); // the caller may be anywhere
        return true;
    }

  private:
    void put(const std::string &line) {
        output_ += line;
        output_ += '\n';
    }

    void ready(bool can_read, bool) {
        if (can_read) {
            receive();
        }
        go_on();
    }

    void receive() {
        char piece[read_size];
        const ssize_t size = recv(socket_.get(), piece, sizeof piece, 0);
        if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        has_moved_ = true;
        if (size <= 0) {
            is_input_over_ = true;
            is_closed_ = size < 0;
        } else if (!stream_) { // who has a stream has nothing more to say
            input_.append(piece, static_cast<size_t>(size));
        }
    }

    // Makes, sends and takes as much as one turn may.
    void go_on() {
        for (int i = 0; i < writes_per_turn && !is_closed_; i++) {
            make();
            if (sent_ == output_.size() || !write_some()) {
                break;
            }
        }
        const bool is_drained = sent_ == output_.size() && answer_ == nullptr;
        if (is_drained && (is_ending_ || (is_input_over_ && (stream_ || !has_request())))) {
            is_closed_ = true;
        }
        if (is_closed_) {
            close();
            return;
        }
        const bool is_busy = answer_ != nullptr || sent_ < output_.size();
        watch_.want(!is_input_over_ && !is_ending_ && (stream_ || !is_busy), is_busy);
        if (!is_busy && !stream_ && has_request()) {
            turn_.start(0); // others have their turn first
        }
    }

    bool has_request() const {
        return input_.find('\n') != std::string::npos;
    }

    void make() {
        while (answer_ == nullptr && !stream_ && !is_ending_ && sent_ == output_.size() && take_request()) {
        }
        std::string line;
        while (answer_ != nullptr && output_.size() - sent_ < output_goal) {
            if (answer_->next(line)) {
                put(line);
            } else {
                answer_.reset();
            }
        }
    }

    bool take_request() {
        const size_t end = input_.find('\n');
        if (std::min(end, input_.size()) > max_request_size) {
            put(control_error("a request is one line of at most " + std::to_string(max_request_size) + " bytes"));
            input_.clear();
            is_ending_ = true;
            return false;
        }
        if (end == std::string::npos) {
            return false;
        }
        const std::string request = input_.substr(0, end);
        input_.erase(0, end + 1);
        control_reply reply = server_.on_request_(request);
        answer_ = std::move(reply.answer);
        if (answer_ == nullptr) {
            stream_ = reply.stream;
            put(R"({"stream":"open"})");
            input_.clear();
            server_.on_watchers_changed();
        }
        return true;
    }

    bool write_some() {
        const ssize_t size = send(socket_.get(), output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
        if (size < 0) {
            is_closed_ = errno != EAGAIN && errno != EINTR;
            return false;
        }
        has_moved_ = true;
        sent_ += static_cast<size_t>(size);
        if (sent_ == output_.size()) {
            output_.clear();
            output_.shrink_to_fit();
            sent_ = 0;
        }
        return true;
    }

    void check_patience() {
        const bool waits_for_events = stream_ && sent_ == output_.size();
        if (!has_moved_ && !waits_for_events) {
            close();
            return;
        }
        has_moved_ = false;
        patience_.start(patience);
    }

    void close() {
        is_closed_ = true;
        watch_.want(false, false);
        patience_.stop();
        turn_.stop();
        answer_.reset();
        server_.reaper_.start(0);
    }

    control_server &server_;
    unique_fd socket_;
    fd_watch watch_;
    timer patience_, turn_;
    std::string input_, output_;
    size_t sent_ = 0;
    std::unique_ptr<control_answer> answer_;
    std::optional<control_stream> stream_;
    uint64_t lost_ = 0;
    bool has_moved_ = false;
    bool is_input_over_ = false;
    bool is_ending_ = false; // closes when everything is sent
    bool is_closed_ = false;
};

/* ---- the server ------------------------------------------------------------------------------------------------ */

control_server::control_server(event_loop &loop, handler on_request)
    : loop_(loop), on_request_(std::move(on_request)), reaper_(loop, [this] { reap(); }),
      pause_(loop, [this] { watch_->want(true, false); }) {}

control_server::~control_server() {
    struct stat what {};
    const unique_fd lock = path_.empty() ? unique_fd() : folder_lock(path_);
    if (socket_ && lstat(path_.c_str(), &what) == 0 && what.st_dev == device_ && what.st_ino == inode_) {
        unlink(path_.c_str());
    }
}

bool control_server::open(const std::string &path, std::string *why) {
    const unique_fd lock = folder_lock(path);
    if (is_stale(path)) {
        unlink(path.c_str());
    }
    const socket_address address = address_of(path);
    unique_fd opened(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const mode_t mask = umask(0177);
    const bool is_bound = bind(opened.get(), address.get(), address.size) == 0;
    const int error = errno;
    umask(mask);
    struct stat what {};
    if (!is_bound || listen(opened.get(), backlog) != 0 || lstat(path.c_str(), &what) != 0) {
        *why = path + ": " + std::strerror(is_bound ? errno : error);
        return false;
    }
    path_ = path;
    device_ = what.st_dev;
    inode_ = what.st_ino;
    socket_ = std::move(opened);
    watch_ = std::make_unique<fd_watch>(loop_, socket_.get(), [this](bool, bool) { accept_one(); });
    watch_->want(true, false);
    return true;
}

void control_server::accept_one() {
    unique_fd accepted(accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!accepted) {
        if (accept_lacks_means(errno)) {
            watch_->want(false, false);
            pause_.start(accept_pause);
        }
        return;
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(accepted.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        (peer.uid != geteuid() && peer.uid != 0)) {
        return;
    }
    const bool is_full = clients_.size() >= max_clients;
    if (clients_.size() >= 2 * max_clients) {
        return;
    }
    clients_.push_back(std::make_unique<client>(*this, std::move(accepted)));
    if (is_full) {
        clients_.back()->refuse("there are " + std::to_string(max_clients) + " clients already");
    }
}

void control_server::reap() {
    std::erase_if(clients_, [](const auto &one) { return one->is_closed(); });
    on_watchers_changed();
}

void control_server::tell(const std::function<bool(const control_stream &)> &wants,
                          const std::function<std::string()> &make) {
    std::string line;
    for (const auto &one : clients_) {
        if (one->is_closed() || !one->stream() || !wants(*one->stream())) {
            continue;
        }
        line = line.empty() ? make() : line;
        lost_ += one->tell(line) ? 0 : 1;
    }
}

void control_server::tell_event(const std::function<std::string()> &make) {
    tell([](const control_stream &stream) { return stream.wants_events; }, make);
}

void control_server::tell_frame(uint16_t port, const std::function<std::string()> &make) {
    tell([port](const control_stream &stream) { return stream.captured_port == port; }, make);
}

size_t control_server::stream_count() const {
    return static_cast<size_t>(std::count_if(clients_.begin(), clients_.end(),
                                             [](const auto &one) { return !one->is_closed() && one->stream(); }));
}

bool control_server::has_watchers() const {
    return std::any_of(clients_.begin(), clients_.end(), [](const auto &one) {
        return !one->is_closed() && one->stream() && one->stream()->wants_events;
    });
}

bool control_server::has_captures() const {
    return std::any_of(clients_.begin(), clients_.end(), [](const auto &one) {
        return !one->is_closed() && one->stream() && one->stream()->captured_port;
    });
}

} // namespace agent
