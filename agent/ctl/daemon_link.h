/*
 * krsdnctl's connection to the daemon: finds the control socket, asks, and hands the answer's lines over as JSON.
 */
#ifndef KR_CTL_DAEMON_LINK_H
#define KR_CTL_DAEMON_LINK_H

#include <functional>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace ctl {

using json = nlohmann::ordered_json;

/* Ends the program with a message and this exit status. */
struct failure : std::runtime_error {
    failure(int exit_status, const std::string &text) : std::runtime_error(text), status(exit_status) {}
    int status;
};
enum : int { exit_good = 0, exit_bad = 1, exit_usage = 2, exit_unreachable = 3 };

class daemon_link {
  public:
    /* An empty path: the socket that KRSDN_CONTROL names, or the one in the usual place. Throws failure. */
    explicit daemon_link(const std::string &path);
    ~daemon_link();
    daemon_link(const daemon_link &) = delete;
    daemon_link &operator=(const daemon_link &) = delete;

    /* Calls back with each record of the answer; a stream goes on until `take` returns false or the daemon ends.
     * Throws failure when the daemon refuses. */
    void ask(const json &request, const std::function<bool(json &&)> &take);
    std::vector<json> ask(const json &request);

    /* A stream ends in good order as soon as this descriptor can be read. */
    void end_with(int fd) {
        stop_fd_ = fd;
    }

  private:
    bool read_line(std::string *line);

    int fd_ = -1;
    int stop_fd_ = -1; // poll() passes over it
    bool is_stopped_ = false;
    std::string input_;
    size_t used_ = 0;
};

} // namespace ctl

#endif
