/*
 * Hosts in network namespaces, driven through ip, ping and socat.
 */
#include "tools/demo/hosts.h"

#include <fcntl.h>
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

uint64_t number_in(const std::string &text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

} // namespace

int run_command(const std::string &command, std::string *output) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw failure("cannot start: " + command);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    // This process blocks the signals that end it; its children must not.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t nothing;
    sigemptyset(&nothing);
    posix_spawnattr_setsigmask(&attributes, &nothing);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    std::string text = command;
    std::string shell = "/bin/sh";
    std::string option = "-c";
    char *const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
    pid_t pid = -1;
    const int error = posix_spawn(&pid, shell.c_str(), &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(ends[1]);
    if (error != 0) {
        close(ends[0]);
        throw failure("cannot start: " + command);
    }

    char buffer[4096];
    ssize_t size = 0;
    while ((size = read(ends[0], buffer, sizeof buffer)) > 0) {
        if (output != nullptr) {
            output->append(buffer, static_cast<size_t>(size));
        }
    }
    close(ends[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    throw_if_interrupted();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int host::run(const std::string &command, std::string *output) const {
    return run_command("ip netns exec " + name_ + " " + command, output);
}

interface_counters host::counters() const {
    std::string text;
    if (run("cat /sys/class/net/eth0/statistics/rx_packets /sys/class/net/eth0/statistics/rx_bytes "
            "/sys/class/net/eth0/statistics/tx_packets /sys/class/net/eth0/statistics/tx_bytes",
            &text) != 0) {
        throw failure("cannot read the counters of " + name_);
    }
    uint64_t values[4] = {};
    size_t at = 0;
    for (uint64_t &value : values) {
        value = number_in(text.substr(at));
        at = text.find('\n', at) + 1;
    }
    return {values[0], values[1], values[2], values[3]};
}

int host::ping(const std::string &to, int count) const {
    std::string text;
    (void)run("ping -n -q -c " + std::to_string(count) + " -i 0.01 -W 1 " + to + " 2>&1", &text);
    const auto at = text.find(" received");
    if (at == std::string::npos) {
        throw failure("ping did not run: " + text.substr(0, text.find('\n')));
    }
    const auto start = text.rfind(' ', at - 1);
    return static_cast<int>(number_in(text.substr(start + 1)));
}

double host::transfer(const host &to, int megabytes) const {
    const char *const folder = getenv("KR_DEMO_FOLDER");
    const std::string base = folder != nullptr ? folder : "/tmp";
    const std::string sent = base + "/sent";
    const std::string got = base + "/got";
    if (run_command("head -c " + std::to_string(megabytes) + "000000 /dev/urandom >" + sent) != 0) {
        throw failure("cannot make the data to send");
    }
    // The receiver runs in the background of one shell with the sender, which retries until the receiver listens.
    const std::string command = "ip netns exec " + to.name() + " socat -u TCP-LISTEN:9000,reuseaddr CREATE:" + got +
                                " & ip netns exec " + name_ + " socat -u OPEN:" + sent + " TCP:" + to.address() +
                                ":9000,retry=50,interval=0.1,connect-timeout=5; sent=$?; " +
                                "[ $sent = 0 ] && wait $! || { kill $! 2>/dev/null; false; }";
    const auto start = std::chrono::steady_clock::now();
    const int status = run_command("timeout 40 sh -c '" + command + "'");
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
    return megabytes * 8e-3 / elapsed.count();
}

} // namespace demo
