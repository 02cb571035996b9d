/*
 * Where the control socket is when nobody says otherwise: the folders in the order in which daemon and krsdnctl go
 * through them. Shared by both, so that they meet.
 */
#ifndef KR_AGENT_CONTROL_PLACE_H
#define KR_AGENT_CONTROL_PLACE_H

#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

namespace agent {

inline constexpr const char *control_socket_name = "control";

inline std::vector<std::string> control_folders() {
    std::vector<std::string> folders;
    const char *const service = std::getenv("RUNTIME_DIRECTORY"); // of a service manager; several, with colons between
    const char *const session = std::getenv("XDG_RUNTIME_DIR");
    if (service != nullptr && *service == '/') {
        const std::string all(service);
        folders.push_back(all.substr(0, all.find(':')));
    }
    folders.emplace_back("/run/krsdn");
    if (session != nullptr && *session == '/') {
        folders.push_back(std::string(session) + "/krsdn");
    }
    folders.push_back("/tmp/krsdn-" + std::to_string(geteuid()));
    return folders;
}

} // namespace agent

#endif
