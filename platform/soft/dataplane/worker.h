/*
 * A thread of the platform that waits on file descriptors: started once, woken through one of them, stopped and joined.
 * It takes no signals: those are the program's.
 */
#ifndef KR_SOFT_WORKER_H
#define KR_SOFT_WORKER_H

#include <atomic>
#include <mutex>

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kr_soft {

class worker {
  public:
    worker() = default;
    worker(const worker &) = delete;
    worker &operator=(const worker &) = delete;

    // Starts body(*this) on a thread of its own, or wakes the one that runs. False when there are no resources.
    bool start(const char *name, void (*body)(worker &)) {
        const std::lock_guard lock(mutex_);
        if (running_) {
            wake();
            return true;
        }
        wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wake_fd_ < 0) {
            return false;
        }
        body_ = body;
        stopping_.store(false);
        sigset_t all, before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        running_ = pthread_create(&thread_, nullptr, run, this) == 0;
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        if (!running_) {
            close(wake_fd_);
            return false;
        }
        pthread_setname_np(thread_, name);
        return true;
    }

    // Waits for the thread's end. Nothing happens when it does not run.
    void stop() {
        const std::lock_guard lock(mutex_);
        if (!running_) {
            return;
        }
        stopping_.store(true);
        wake();
        pthread_join(thread_, nullptr);
        close(wake_fd_);
        running_ = false;
    }

    // For the thread itself.
    bool stopping() const {
        return stopping_.load();
    }
    int wake_fd() const {
        return wake_fd_;
    }
    void wake_clear() {
        eventfd_t value;
        (void)eventfd_read(wake_fd_, &value);
    }

  private:
    static void *run(void *self) {
        auto *const me = static_cast<worker *>(self);
        me->body_(*me);
        return nullptr;
    }
    void wake() {
        (void)eventfd_write(wake_fd_, 1);
    }

    std::mutex mutex_;
    bool running_ = false;
    pthread_t thread_{};
    void (*body_)(worker &) = nullptr;
    std::atomic<bool> stopping_{false};
    int wake_fd_ = -1;
};

} // namespace kr_soft

#endif
