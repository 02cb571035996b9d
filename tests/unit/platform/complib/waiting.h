/*
 * Lets a test know, without guessing at times, that another thread has gone to sleep in the kernel.
 */
#ifndef KR_TESTS_WAITING_H
#define KR_TESTS_WAITING_H

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>

// The kernel's id of a thread, which the thread itself sets.
class thread_id {
  public:
    void set_to_caller() {
        id_.store(static_cast<int>(syscall(SYS_gettid)));
    }
    void clear() {
        id_.store(0);
    }
    int get() const {
        while (id_.load() == 0) {
            sched_yield();
        }
        return id_.load();
    }
    // Returns when the thread sleeps. The caller has seen to it that there is one place only where it may.
    void wait_until_asleep() const {
        const std::string path = "/proc/self/task/" + std::to_string(get()) + "/stat";
        for (;;) {
            std::ifstream stat(path);
            std::string text;
            std::getline(stat, text);
            const size_t after_name = text.rfind(") ");
            if (after_name != std::string::npos && text[after_name + 2] == 'S') {
                return;
            }
            sched_yield();
        }
    }

  private:
    std::atomic<int> id_{0};
};

#endif
