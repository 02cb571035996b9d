/*
 * Hosts in network namespaces, driven through ip, ping and socat.
 */
#include "tools/demo/hosts.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "tools/demo/interrupt.h"
#include "tools/demo/report.h"

namespace demo {
namespace {

constexpr int transfer_megabytes = 100;
constexpr auto command_time_limit = std::chrono::seconds(40);
constexpr int interrupt_poll_ms = 50;

uint64_t number_in(const std::string &text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

// Starts a shell in a process group of its own, with the signals that this process blocks as they are by default.
pid_t shell_start(const std::string &command, int output_fd) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output_fd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output_fd, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t nothing, ending;
    sigemptyset(&nothing);
    sigemptyset(&ending);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaddset(&ending, signal);
    }
    posix_spawnattr_setsigmask(&attributes, &nothing);
    posix_spawnattr_setsigdefault(&attributes, &ending);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    std::string text = command;
    std::string shell = "/bin/sh";
    std::string option = "-c";
    char *const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
    pid_t pid = -1;
    const int error = posix_spawn(&pid, shell.c_str(), &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return error == 0 ? pid : -1;
}

// Takes over what the processes of the group print until the last of them has ended. Ends them after the time limit,
// or when somebody wants the demonstration to end.
void output_collect(int fd, pid_t group, std::string *output) {
    const auto deadline = std::chrono::steady_clock::now() + command_time_limit;
    pollfd readable{.fd = fd, .events = POLLIN, .revents = 0};
    for (;;) {
        if (is_interrupted() || std::chrono::steady_clock::now() > deadline) {
            kill(-group, SIGKILL);
        }
        if (poll(&readable, 1, interrupt_poll_ms) <= 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t size = read(fd, buffer, sizeof buffer);
        if (size <= 0) {
            return;
        }
        if (output != nullptr) {
            output->append(buffer, static_cast<size_t>(size));
        }
    }
}

} // namespace

int run_command(const std::string &command, std::string *output) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw failure("cannot start: " + command);
    }
    const pid_t pid = shell_start(command, ends[1]);
    close(ends[1]);
    if (pid < 0) {
        close(ends[0]);
        throw failure("cannot start: " + command);
    }
    output_collect(ends[0], pid, output);
    close(ends[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    throw_if_interrupted();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int namespace_host::run(const std::string &command, std::string *output) const {
    return run_command("ip netns exec " + name() + " " + command, output);
}

interface_counters namespace_host::counters() {
    std::string text;
    if (run("cat /sys/class/net/eth0/statistics/rx_packets /sys/class/net/eth0/statistics/rx_bytes "
            "/sys/class/net/eth0/statistics/tx_packets /sys/class/net/eth0/statistics/tx_bytes",
            &text) != 0) {
        throw failure("cannot read the counters of " + name());
    }
    uint64_t values[4] = {};
    size_t at = 0;
    for (uint64_t &value : values) {
        value = number_in(text.substr(at));
        at = text.find('\n', at) + 1;
    }
    return {values[0], values[1], values[2], values[3]};
}

// 10 ms apart.
int namespace_host::ping(host &to, int count, int patience_s) {
    std::string text;
    (void)run("ping -n -q -c " + std::to_string(count) + " -i 0.01 -W " + std::to_string(patience_s) + " " +
                  to.address() + " 2>&1",
              &text);
    const auto at = text.find(" received");
    if (at == std::string::npos) {
        throw failure("ping did not run: " + text.substr(0, text.find('\n')));
    }
    const auto start = text.rfind(' ', at - 1);
    return static_cast<int>(number_in(text.substr(start + 1)));
}

std::string namespace_host::transfer(host &to) {
    const char *const folder = getenv("KR_DEMO_FOLDER");
    const std::string base = folder != nullptr ? folder : ".";
    const std::string sent = "'" + base + "/sent'";
    const std::string got = "'" + base + "/got'";
    const std::string megabytes = std::to_string(transfer_megabytes);
    if (run_command("head -c " + megabytes + "000000 /dev/urandom >" + sent) != 0) {
        throw failure("cannot make the data to send");
    }
    // The receiver runs in the background of one shell with the sender, which retries until the receiver listens.
    const std::string command = "ip netns exec " + to.name() + " socat -u TCP-LISTEN:9000,reuseaddr STDOUT >" + got +
                                " & ip netns exec " + name() + " socat -u STDIN TCP:" + to.address() +
                                ":9000,retry=50,interval=0.1,connect-timeout=5 <" + sent + "; sent=$?; " +
                                "[ $sent = 0 ] && wait $! || { kill $! 2>/dev/null; false; }";
    const auto start = std::chrono::steady_clock::now();
    const int status = run_command(command);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    std::string sums;
    (void)run_command("sha256sum <" + sent + "; sha256sum <" + got, &sums);
    (void)run_command("rm -f " + sent + " " + got);
    if (status != 0) {
        throw failure("the transfer did not finish");
    }
    if (sums.size() < 136 || sums.substr(0, 64) != sums.substr(68, 64)) {
        throw failure("what arrived is not what was sent");
    }
    char rate[32];
    snprintf(rate, sizeof rate, "%.2f", transfer_megabytes * 8e-3 / elapsed.count());
    return megabytes + " MB over TCP, equal SHA-256, " + rate + " Gbit/s";
}

void namespace_host::link_set(bool up) {
    if (run_command("ip -n " + name() + " link set eth0 " + (up ? "up" : "down")) != 0) {
        throw failure("cannot change the link of " + name());
    }
}

} // namespace demo
