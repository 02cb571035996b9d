/*
 * Seeing what another thread does, without sleeping for luck.
 */
#ifndef KR_TESTS_THREADS_H
#define KR_TESTS_THREADS_H

#include <dirent.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <string>

namespace kr_test {

inline pid_t thread_id() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// The kernel's ids of the threads of this process.
inline std::set<pid_t> thread_ids() {
    std::set<pid_t> ids;
    DIR *const folder = opendir("/proc/self/task");
    while (const dirent *const entry = readdir(folder)) {
        if (entry->d_name[0] != '.') {
            ids.insert(static_cast<pid_t>(std::stol(entry->d_name)));
        }
    }
    closedir(folder);
    return ids;
}

// The state letter of a thread: 'R' running, 'S' asleep in the kernel, 0 when it has ended.
inline char thread_state(pid_t id) {
    std::ifstream file("/proc/self/task/" + std::to_string(id) + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t end_of_name = text.rfind(')');
    return end_of_name == std::string::npos || end_of_name + 2 >= text.size() ? '\0' : text[end_of_name + 2];
}

// The name that a thread gave itself, or that of the program; empty when it has ended.
inline std::string thread_name(pid_t id) {
    std::ifstream file("/proc/self/task/" + std::to_string(id) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

// The thread of this name; 0 when there is none.
inline pid_t thread_named(const std::string &name) {
    for (const pid_t id : thread_ids()) {
        if (thread_name(id) == name) {
            return id;
        }
    }
    return 0;
}

// A thread that has been started names itself as soon as it runs.
inline pid_t wait_for_thread_named(const std::string &name) {
    pid_t id = 0;
    while ((id = thread_named(name)) == 0) {
        sched_yield();
    }
    return id;
}

// Returns once the thread is asleep in the kernel.
inline void wait_until_asleep(pid_t id) {
    while (thread_state(id) != 'S') {
        sched_yield();
    }
}

// Returns once the thread has ended.
inline void wait_until_ended(pid_t id) {
    while (thread_state(id) != '\0') {
        sched_yield();
    }
}

// While it lives, SIGUSR1 runs a handler that does nothing and interrupts system calls.
class interrupting_signal {
  public:
    interrupting_signal() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, &before_);
    }
    ~interrupting_signal() {
        sigaction(SIGUSR1, &before_, nullptr);
    }
    interrupting_signal(const interrupting_signal &) = delete;
    interrupting_signal &operator=(const interrupting_signal &) = delete;

    void send_to(pid_t thread) const {
        syscall(SYS_tgkill, getpid(), thread, SIGUSR1);
    }

  private:
    struct sigaction before_ {};
};

} // namespace kr_test

#endif
