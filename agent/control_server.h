/*
 * The daemon's control socket: a Unix stream socket for its own user, on which tools ask with one line of JSON and are
 * answered with lines of JSON. It knows sockets, lines and limits; what a request means is control_commands' business.
 *
 * A client can do the daemon no harm: requests have a size, answers are made piece by piece as the client reads them,
 * what is told unasked is dropped and counted when nobody reads it, and who does not go on for a minute is left.
 */
#ifndef KR_AGENT_CONTROL_SERVER_H
#define KR_AGENT_CONTROL_SERVER_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "event_loop.h"
#include "of10/of10.h"
#include "stream.h"

namespace agent {

/* What answers a request: lines, without their ends. The last one says that it is the last. */
class control_answer {
  public:
    virtual ~control_answer() = default;
    /* False: there is no further line, now or ever. */
    virtual bool next(std::string &line) = 0;
};

/* What a client that asked for a stream wants to hear of. */
struct control_stream {
    bool wants_events = false;
    std::optional<uint16_t> captured_port;
};

struct control_reply {
    std::unique_ptr<control_answer> answer; // null: a stream
    control_stream stream;
};

class control_server {
  public:
    static constexpr size_t max_request_size = 64 * 1024;
    static constexpr size_t max_clients = 16;

    using handler = std::function<control_reply(std::string_view request)>;

    control_server(event_loop &loop, handler on_request);
    ~control_server(); // removes the socket
    control_server(const control_server &) = delete;
    control_server &operator=(const control_server &) = delete;

    /* Opens the socket. A socket that nobody listens on is replaced; anything else in its place is left alone. False,
     * and why. */
    bool open(const std::string &path, std::string *why);
    const std::string &path() const {
        return path_;
    }

    /* To those who want to hear it. `make` makes the line. */
    void tell_event(const std::function<std::string()> &make);
    void tell_frame(uint16_t port, const std::function<std::string()> &make);
    bool has_watchers() const;
    bool has_captures() const;
    size_t stream_count() const;

    /* Called when the two above may have changed. */
    std::function<void()> on_watchers_changed = [] {};

    size_t client_count() const {
        return clients_.size();
    }
    uint64_t lost_count() const {
        return lost_; // lines that were not told, because a client did not read
    }

  private:
    class client;

    void accept_one();
    void reap();
    void tell(const std::function<bool(const control_stream &)> &wants, const std::function<std::string()> &make);

    event_loop &loop_;
    handler on_request_;
    std::string path_;
    uint64_t device_ = 0, inode_ = 0; // of the socket in the file system
    unique_fd socket_;
    std::unique_ptr<fd_watch> watch_;
    std::vector<std::unique_ptr<client>> clients_;
    timer reaper_;
    timer pause_; // of accepting
    uint64_t lost_ = 0;
};

/* The last line of an answer. */
std::string control_end();
std::string control_error(const std::string &message);

/* A folder for the socket when nobody says otherwise: one that is there, or is made and goes with this object. */
class control_folder {
  public:
    control_folder();
    ~control_folder();
    control_folder(const control_folder &) = delete;
    control_folder &operator=(const control_folder &) = delete;

    /* Empty: there is no such place. */
    std::string socket_path() const;

  private:
    std::string path_;
    bool is_made_ = false;
};

} // namespace agent

#endif
