/*
 * A network namespace for the test program: its own as root, otherwise one inside a user namespace of its own. It
 * vanishes with the program. Programs call enter_network_namespace first thing in main, before any thread exists.
 */
#ifndef KR_TESTS_NET_NAMESPACE_H
#define KR_TESTS_NET_NAMESPACE_H

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <string>

namespace kr_test {

constexpr int exit_skipped = 77;

inline bool write_file(const char *path, const std::string &text) {
    std::ofstream file(path);
    file << text << std::flush;
    return file.good();
}

// Runs a command of the shell; returns its output, and its exit status if asked for.
inline std::string run(const std::string &command, int *status = nullptr) {
    std::string output;
    char chunk[4096];
    FILE *pipe = popen((command + " 2>&1").c_str(), "re");
    size_t size = 0;
    while (pipe != nullptr && (size = fread(chunk, 1, sizeof(chunk), pipe)) > 0) {
        output.append(chunk, size);
    }
    const int ended = pipe == nullptr ? -1 : pclose(pipe);
    if (status != nullptr) {
        *status = ended;
    } else if (ended != 0) {
        fprintf(stderr, "%s: %s\n", command.c_str(), output.c_str());
    }
    return output;
}

inline bool succeeds(const std::string &command) {
    int status = 0;
    (void)run(command, &status);
    return status == 0;
}

// False, after saying why, where a namespace can't be had or a tool is missing.
inline bool enter_network_namespace(std::initializer_list<const char *> tools) {
    for (const char *tool : tools) {
        if (!succeeds(std::string("command -v ") + tool)) {
            fprintf(stderr, "skipped: the program %s is missing\n", tool);
            return false;
        }
    }
    if (geteuid() == 0 && unshare(CLONE_NEWNET) == 0) {
        return true;
    }
    const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0 || !write_file("/proc/self/setgroups", "deny") ||
        !write_file("/proc/self/uid_map", "0 " + uid + " 1") || !write_file("/proc/self/gid_map", "0 " + gid + " 1")) {
        fprintf(stderr, "skipped: no network namespace without privileges here: %s\n", strerror(errno));
        return false;
    }
    return true;
}

} // namespace kr_test

#endif
