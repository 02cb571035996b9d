/*
 * The thin layer over libevent behind event_loop.h.
 */
#include "event_loop.h"

#include <stdexcept>

#include <sched.h>

#include <event2/event.h>

namespace agent {

void event_loop::base_free::operator()(event_base *base) const {
    event_base_free(base);
}

void event_free::operator()(event *one) const {
    ::event_free(one);
}

event_loop::event_loop() {
    // One thread only, and timers that are exact to the millisecond: coarse clocks tick every four.
    event_config *const config = event_config_new();
    if (config != nullptr) {
        event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK | EVENT_BASE_FLAG_PRECISE_TIMER);
        base_.reset(event_base_new_with_config(config));
        event_config_free(config);
    }
    if (base_ == nullptr) {
        throw std::runtime_error("no event loop: out of descriptors or memory");
    }
}

event_loop::~event_loop() = default;

void event_loop::run(nanoseconds linger) {
    for (nanoseconds awake_until = 0; !is_stopping_;) {
        was_ready_ = false;
        const bool may_sleep = linger == 0 || clock_now() >= awake_until;
        event_base_loop(base_.get(), (may_sleep ? EVLOOP_ONCE : EVLOOP_NONBLOCK) | EVLOOP_NO_EXIT_ON_EMPTY);
        if (was_ready_) {
            awake_until = clock_now() + linger;
        } else if (!may_sleep) {
            sched_yield(); // whoever is waited for may need this processor
        }
    }
}

void event_loop::stop() {
    is_stopping_ = true;
    event_base_loopbreak(base_.get());
}

/* ---- descriptors ----------------------------------------------------------------------------------------------- */

fd_watch::fd_watch(event_loop &loop, int fd, callback on_ready)
    : loop_(loop), fd_(fd), on_ready_(std::move(on_ready)) {}

void fd_watch::ready(int, short what, void *self) {
    auto *const watch = static_cast<fd_watch *>(self);
    watch->loop_.was_ready_ = true;
    watch->on_ready_((what & EV_READ) != 0, (what & EV_WRITE) != 0);
}

void fd_watch::want(bool read, bool write) {
    if (read == wants_read_ && write == wants_write_) {
        return;
    }
    wants_read_ = read;
    wants_write_ = write;
    event_.reset();
    if (!read && !write) {
        return;
    }
    const int what = (read ? EV_READ : 0) | (write ? EV_WRITE : 0) | EV_PERSIST;
    event_.reset(event_new(loop_.base(), fd_, static_cast<short>(what), ready, this));
    if (event_ == nullptr || event_add(event_.get(), nullptr) != 0) {
        throw std::runtime_error("a descriptor could not be watched");
    }
}

/* ---- timers ---------------------------------------------------------------------------------------------------- */

timer::timer(event_loop &loop, callback on_time) : on_time_(std::move(on_time)) {
    event_.reset(evtimer_new(
        loop.base(), [](int, short, void *self) { static_cast<timer *>(self)->on_time_(); }, this));
    if (event_ == nullptr) {
        throw std::bad_alloc();
    }
}

void timer::start(nanoseconds delay) {
    const timeval after = {static_cast<time_t>(delay / second_ns), static_cast<suseconds_t>(delay % second_ns / 1000)};
    evtimer_add(event_.get(), &after);
}

void timer::stop() {
    evtimer_del(event_.get());
}

bool timer::is_running() const {
    return evtimer_pending(event_.get(), nullptr) != 0;
}

} // namespace agent
