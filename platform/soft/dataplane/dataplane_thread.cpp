/*
 * One epoll loop over the packet sockets. A port is looked up by its number for each turn, so that an event of a port
 * that was removed meanwhile finds nothing. Level-triggered: what a turn leaves is seen again, behind the other ports.
 */
#include "dataplane/dataplane_thread.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <shared_mutex>

#include <sched.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "dataplane/interface_port.h"
#include "dataplane/port_table.h"
#include "dataplane/receive_buffers.h"
#include "dataplane/worker.h"

namespace kr_soft {
namespace {

constexpr uint64_t wake_event = uint64_t{1} << 32; // above any logical port number
constexpr int events_per_wait = 64;
// After a frame the thread looks again for so long before it sleeps: to be woken takes longer than to forward.
constexpr std::chrono::microseconds linger{50};

struct state {
    worker thread;
    int epoll_fd = -1;
};

state &g() {
    static auto *const instance = new state; // never destroyed: the thread may run while the process ends
    return *instance;
}

bool epoll_add(int fd, uint64_t data) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = data;
    return epoll_ctl(g().epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

void port_turn(uint32_t log_port, receive_buffers &buffers) {
    const std::shared_lock lock(port_table_lock());
    port *const ready = port_find(log_port);
    if (ready != nullptr && ready->kind == port_kind::interface) {
        static_cast<interface_port &>(*ready).frames_receive(buffers);
    }
}

void forward_frames(worker &thread) {
    const auto buffers = std::make_unique<receive_buffers>();
    std::array<epoll_event, events_per_wait> events;
    epoll_add(thread.wake_fd(), wake_event);
    std::chrono::steady_clock::time_point awake_until;
    while (!thread.stopping()) {
        const bool may_sleep = std::chrono::steady_clock::now() >= awake_until;
        const int count = epoll_wait(g().epoll_fd, events.data(), events_per_wait, may_sleep ? -1 : 0);
        if (count == 0) {
            sched_yield(); // whoever is waited for may need this processor
        }
        for (int i = 0; i < count; i++) {
            const uint64_t data = events[static_cast<size_t>(i)].data.u64;
            if (data == wake_event) {
                thread.wake_clear();
            } else {
                port_turn(static_cast<uint32_t>(data), *buffers);
                awake_until = std::chrono::steady_clock::now() + linger;
            }
        }
    }
}

} // namespace

bool dataplane_thread_start() {
    if (g().epoll_fd < 0) {
        g().epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    }
    return g().epoll_fd >= 0 && g().thread.start("kr-dataplane", forward_frames);
}

void dataplane_thread_stop() {
    g().thread.stop();
    if (g().epoll_fd >= 0) {
        close(g().epoll_fd);
        g().epoll_fd = -1;
    }
}

bool dataplane_thread_watch(const interface_port &watched) {
    return epoll_add(watched.fd(), watched.log_port);
}

void dataplane_thread_forget(const interface_port &watched) {
    (void)epoll_ctl(g().epoll_fd, EPOLL_CTL_DEL, watched.fd(), nullptr);
}

} // namespace kr_soft
