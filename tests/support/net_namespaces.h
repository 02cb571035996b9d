/*
 * Hosts for tests of real interfaces: network namespaces of the test's own, each kept by a child process, joined to
 * the switch by veth pairs. Nothing outlives the test: the namespaces go with their processes.
 *
 * Without root a user namespace gives the rights; where that is not allowed either the program says so and ends with
 * exit status 77.
 */
#ifndef KR_TESTS_NET_NAMESPACES_H
#define KR_TESTS_NET_NAMESPACES_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kr_test {

// To be called before the first thread exists: the process becomes root in a network namespace of its own.
inline void own_network_namespace_or_skip() {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (uid == 0 && unshare(CLONE_NEWNET) == 0) {
        return;
    }
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        std::printf("skipped: neither root nor a user namespace is available (%s)\n", std::strerror(errno));
        std::exit(77);
    }
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
}

inline std::vector<std::string> words_of(const std::string &line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

// Runs a command, in another process's network namespace if one is given, and returns its exit status.
inline int run(const std::string &line, pid_t where = 0, bool quiet = false) {
    const std::vector<std::string> words = words_of(line);
    std::vector<char *> arguments;
    for (const std::string &word : words) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const std::string path = "/proc/" + std::to_string(where) + "/ns/net";
    const pid_t child = fork();
    if (child == 0) {
        const int fd = where != 0 ? open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1;
        if (where != 0 && (fd < 0 || setns(fd, CLONE_NEWNET) != 0)) {
            _exit(126);
        }
        const int null = quiet ? open("/dev/null", O_WRONLY | O_CLOEXEC) : -1;
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline void must_run(const std::string &line, pid_t where = 0) {
    ASSERT_EQ(run(line, where), 0) << line;
}

// A network namespace with one interface, eth0, whose other end is `switch_interface` in the caller's namespace.
class net_host {
  public:
    net_host(const std::string &switch_interface, const std::string &address, const std::string &mac) {
        int ready[2];
        EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const char done = unshare(CLONE_NEWNET) == 0 ? 'y' : 'n';
            if (write(ready[1], &done, 1) != 1) {
                _exit(1);
            }
            for (;;) {
                pause();
            }
        }
        char done = 'n';
        EXPECT_EQ(::read(ready[0], &done, 1), 1);
        EXPECT_EQ(done, 'y');
        ::close(ready[0]);
        ::close(ready[1]);
        must_run("ip link add " + switch_interface + " type veth peer name eth0 address " + mac + " netns " +
                 std::to_string(pid));
        must_run("ip link set lo up", pid);
        must_run("ip addr add " + address + "/24 dev eth0", pid);
        must_run("ip link set eth0 up", pid);
        must_run("ip link set " + switch_interface + " up");
    }
    ~net_host() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    net_host(const net_host &) = delete;
    net_host &operator=(const net_host &) = delete;

    int run(const std::string &line) const {
        return kr_test::run(line, pid);
    }
    void must_run(const std::string &line, pid_t where = 0) const {
        kr_test::must_run(line, where);
    }

    pid_t pid = 0;
};

// Puts the calling thread into a host's namespace while it lives: sockets opened meanwhile stay there.
class inside {
  public:
    explicit inside(const net_host &host) : before_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
        const int there = open(("/proc/" + std::to_string(host.pid) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(setns(there, CLONE_NEWNET), 0);
        close(there);
    }
    ~inside() {
        EXPECT_EQ(setns(before_, CLONE_NEWNET), 0);
        close(before_);
    }
    inside(const inside &) = delete;
    inside &operator=(const inside &) = delete;

  private:
    int before_;
};

} // namespace kr_test

#endif
