/*
 * The Unix socket through which a person, a test or the client tells the connector what to do: lines in, one line back
 * for each. This is the transport only: what a command means is the handler's business.
 *
 * Everything is non-blocking; a peer that sends nothing, too much or garbage costs its own connection only.
 */
#ifndef KR_CONNECTOR_CONTROL_SOCKET_H
#define KR_CONNECTOR_CONTROL_SOCKET_H

#include <poll.h>

#include <functional>
#include <string>
#include <vector>

#include "unique_fd.h"

namespace kr_connector {

constexpr size_t control_max_connections = 8;
constexpr size_t control_max_line = 256;

class control_socket {
  public:
    // Handles one command line (without its newline) and returns the answer (without newline).
    using command_handler = std::function<std::string(const std::string &)>;

    control_socket() = default;
    ~control_socket();
    control_socket(const control_socket &) = delete;
    control_socket &operator=(const control_socket &) = delete;

    // Creates the socket, mode 0600. A socket that a dead process left is replaced. False, and why, if it can't.
    bool open(const std::string &path, std::string *why);

    // Adds what the caller has to poll.
    void poll_add(std::vector<pollfd> *descriptors) const;
    // How long that poll may wait at most; -1: for ever.
    int poll_timeout_ms() const;
    // Accepts, reads, handles and answers whatever is there.
    void serve(const command_handler &handler);

  private:
    struct connection {
        kr_plugin::unique_fd fd;
        std::string input;
    };

    void accept_all();
    bool serve_one(connection &peer, const command_handler &handler); // false: close it
    bool handle_lines(connection &peer, bool is_at_end, const command_handler &handler);

    kr_plugin::unique_fd listener_;
    std::string path_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    bool is_out_of_descriptors_ = false;
    std::vector<connection> connections_;
};

} // namespace kr_connector

#endif
