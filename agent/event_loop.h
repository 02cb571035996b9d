/*
 * The daemon's one loop: descriptors and timers, over libevent. Callbacks run on the loop's thread, one at a time; each
 * does a bounded piece of work, so that every descriptor gets its turn.
 */
#ifndef KR_AGENT_EVENT_LOOP_H
#define KR_AGENT_EVENT_LOOP_H

#include <functional>
#include <memory>

#include "clock.h"

struct event;
struct event_base;

namespace agent {

class event_loop {
  public:
    event_loop(); // throws std::runtime_error if the system has no descriptor left
    ~event_loop();
    event_loop(const event_loop &) = delete;
    event_loop &operator=(const event_loop &) = delete;

    /* Until stop(). After a descriptor was ready the loop looks again for `linger` before it sleeps: to be woken takes
     * longer than to do what most messages ask for. 0: it sleeps at once. */
    void run(nanoseconds linger);
    void stop();

    event_base *base() const {
        return base_.get();
    }

  private:
    struct base_free {
        void operator()(event_base *base) const;
    };
    friend class fd_watch;

    std::unique_ptr<event_base, base_free> base_;
    bool is_stopping_ = false;
    bool was_ready_ = false; // a descriptor, since the last look
};

struct event_free {
    void operator()(event *one) const;
};

/* Calls back while a descriptor is readable, or writable. It does not own the descriptor; destroy it first. */
class fd_watch {
  public:
    using callback = std::function<void(bool can_read, bool can_write)>;

    fd_watch(event_loop &loop, int fd, callback on_ready);
    fd_watch(const fd_watch &) = delete;
    fd_watch &operator=(const fd_watch &) = delete;

    void want(bool read, bool write);

  private:
    static void ready(int fd, short what, void *self);

    event_loop &loop_;
    int fd_;
    callback on_ready_;
    bool wants_read_ = false;
    bool wants_write_ = false;
    std::unique_ptr<event, event_free> event_;
};

/* Calls back once, some time after start(). It may be started again from its callback, or destroyed there. */
class timer {
  public:
    using callback = std::function<void()>;

    timer(event_loop &loop, callback on_time);
    timer(const timer &) = delete;
    timer &operator=(const timer &) = delete;

    void start(nanoseconds delay); // from now; forgets an earlier start
    void stop();
    bool is_running() const;

  private:
    callback on_time_;
    std::unique_ptr<event, event_free> event_;
};

} // namespace agent

#endif
