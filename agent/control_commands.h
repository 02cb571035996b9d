/*
 * What the requests of the control socket mean: each command reads the daemon's parts and tells them as JSON. The
 * protocol is described in docs/agent.md; krsdnctl is its usual client.
 */
#ifndef KR_AGENT_CONTROL_COMMANDS_H
#define KR_AGENT_CONTROL_COMMANDS_H

#include <optional>
#include <string>
#include <string_view>

#include "control_server.h"
#include "controllers.h"
#include "datapath.h"
#include "platform_view.h"

namespace agent {

class control_commands {
  public:
    control_commands(event_loop &loop, datapath &of, const controllers &connected, const platform_view &platform);
    ~control_commands(); // nobody is told any more
    control_commands(const control_commands &) = delete;
    control_commands &operator=(const control_commands &) = delete;

    /* An empty path: the usual place, or, where a daemon that lives has it, beside it. */
    bool open(const std::string &path, std::string *why);
    const std::string &path() const {
        return server_.path();
    }

  private:
    control_reply handle(std::string_view request);
    void watchers_changed();

    datapath &datapath_;
    const controllers &controllers_;
    const platform_view &platform_;
    const nanoseconds started_;
    std::optional<control_folder> folder_; // goes behind the socket in it
    control_server server_;
};

} // namespace agent

#endif
