/*
 * The channels behind host-interface descriptors; see channels.h.
 *
 * Two locks: the registry's, which a delivery and a look-up take shared, and each channel's own, under which its queue
 * and the state of its eventfd change together. A receiver holds neither while it waits. A channel lives as long as
 * somebody uses it, and its file descriptor with it: the number is not reused under a receiver's hands.
 */
#include "host_ifc/channels.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bitset>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "control/kr_soft.h"
#include "dataplane/frame.h"
#include "dataplane/frame_queue.h"
#include "dataplane/rw_lock.h"
#include "host_ifc/trap_delivery.h"

namespace kr_soft {
namespace {

struct channel {
    channel(int event_fd, uint64_t handle) : fd(event_fd), device_handle(handle) {}
    ~channel() {
        if (owns_fd) {
            close(fd);
        }
    }
    channel(const channel &) = delete;
    channel &operator=(const channel &) = delete;

    const int fd;
    const uint64_t device_handle;
    std::bitset<trap_id_limit> traps; // registry lock
    bool owns_fd = true;              // registry lock

    std::mutex mutex;
    bool closed = false;
    frame_queue<kr_receive_info, KR_SOFT_CHANNEL_QUEUE, wire_frame_size_max> queue;
};

struct registry {
    rw_lock lock;
    std::vector<std::shared_ptr<channel>> by_fd;
    uint32_t open_count = 0;
    std::array<std::vector<channel *>, trap_id_limit> by_trap;
    std::array<std::atomic<uint32_t>, trap_id_limit> trap_counts{}; // sizes of by_trap, for a look without the lock
};

registry &g() {
    // Never destroyed: the data plane's thread may still deliver while the process ends.
    static auto *const instance = new registry;
    return *instance;
}

using registry_shared = std::shared_lock<rw_lock>;
using registry_exclusive = std::unique_lock<rw_lock>;

// The eventfd's counter is 1 while something is queued or the channel is closed, else 0.
void readable_set(const channel &c) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(c.fd, &one, sizeof one);
}

void readable_clear(const channel &c) {
    uint64_t value;
    [[maybe_unused]] const ssize_t taken = read(c.fd, &value, sizeof value);
}

// With the registry locked. nullptr for a descriptor that is not open.
const std::shared_ptr<channel> *channel_find(const kr_host_ifc_fd &descriptor) {
    const registry &r = g();
    if (descriptor.valid != 1 || descriptor.fd < 0 || static_cast<size_t>(descriptor.fd) >= r.by_fd.size()) {
        return nullptr;
    }
    const std::shared_ptr<channel> &slot = r.by_fd[static_cast<size_t>(descriptor.fd)];
    return slot != nullptr ? &slot : nullptr;
}

// With the registry locked exclusively.
void trap_remove(channel &c, uint32_t trap_id) {
    registry &r = g();
    c.traps.reset(trap_id);
    std::erase(r.by_trap[trap_id], &c);
    r.trap_counts[trap_id].store(static_cast<uint32_t>(r.by_trap[trap_id].size()), std::memory_order_relaxed);
}

// Takes a channel out of the registry and wakes its readers. With the registry locked exclusively.
void channel_detach(const std::shared_ptr<channel> &detached) {
    registry &r = g();
    for (uint32_t trap_id = 0; trap_id < trap_id_limit; trap_id++) {
        if (detached->traps.test(trap_id)) {
            trap_remove(*detached, trap_id);
        }
    }
    r.by_fd[static_cast<size_t>(detached->fd)] = nullptr;
    r.open_count--;
    if (detached->owns_fd) {
        const std::lock_guard lock(detached->mutex);
        detached->closed = true;
        readable_set(*detached);
    }
}

uint32_t deliver(uint32_t trap_id, const kr_receive_info &info, const void *data, uint32_t size) {
    if (!trap_wanted(trap_id)) {
        return 0;
    }
    const registry_shared lock(g().lock);
    const std::vector<channel *> &channels = g().by_trap[trap_id];
    for (channel *const c : channels) {
        const std::lock_guard channel_lock(c->mutex);
        if (c->queue.room() == 0) {
            drop_count_add(KR_SOFT_DROP_CHANNEL_FULL);
            continue;
        }
        const bool was_empty = c->queue.empty();
        c->queue.push(info, data, size);
        if (was_empty) {
            readable_set(*c);
        }
    }
    return static_cast<uint32_t>(channels.size());
}

// Takes the oldest entry. False when there is none; a closed channel never has one.
bool entry_take(channel &c, void *data, uint32_t *size, kr_receive_info *info, kr_status *status) {
    const std::lock_guard lock(c.mutex);
    if (c.closed) {
        *status = KR_STATUS_INVALID_HANDLE;
        return true;
    }
    if (c.queue.empty()) {
        return false;
    }
    const uint32_t entry_size = c.queue.front().size;
    *info = c.queue.front().tag;
    *size = std::min(*size, entry_size);
    if (*size > 0) {
        std::memcpy(data, c.queue.front_data(), *size);
    }
    c.queue.pop();
    if (c.queue.empty()) {
        readable_clear(c);
    }
    *status = KR_STATUS_SUCCESS;
    return true;
}

} // namespace

/* ---- channels -------------------------------------------------------------------------------------------------- */

kr_status channel_open(uint64_t device_handle, kr_host_ifc_fd *descriptor) {
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        return KR_STATUS_NO_RESOURCES;
    }
    registry &r = g();
    std::shared_ptr<channel> opened;
    try {
        opened = std::make_shared<channel>(fd, device_handle);
    } catch (const std::bad_alloc &) {
        close(fd);
        return KR_STATUS_NO_RESOURCES;
    }
    const registry_exclusive lock(r.lock);
    try {
        if (r.by_fd.size() <= static_cast<size_t>(fd)) {
            r.by_fd.resize(static_cast<size_t>(fd) + 1);
        }
    } catch (const std::bad_alloc &) {
        return KR_STATUS_NO_RESOURCES;
    }
    const std::shared_ptr<channel> stale = r.by_fd[static_cast<size_t>(fd)];
    if (stale != nullptr) { // somebody closed its number without telling: the number is ours now
        stale->owns_fd = false;
        channel_detach(stale);
    }
    r.by_fd[static_cast<size_t>(fd)] = std::move(opened);
    r.open_count++;
    *descriptor = {.fd = fd, .valid = 1};
    return KR_STATUS_SUCCESS;
}

kr_status channel_owner_get(const kr_host_ifc_fd &descriptor, uint64_t *device_handle) {
    const registry_shared lock(g().lock);
    const std::shared_ptr<channel> *const found = channel_find(descriptor);
    if (found == nullptr) {
        return KR_STATUS_INVALID_HANDLE;
    }
    *device_handle = (*found)->device_handle;
    return KR_STATUS_SUCCESS;
}

kr_status channel_close(const kr_host_ifc_fd &descriptor) {
    std::shared_ptr<channel> closed; // goes away, in most cases with its file descriptor, when the lock is free
    const registry_exclusive lock(g().lock);
    const std::shared_ptr<channel> *const found = channel_find(descriptor);
    if (found == nullptr) {
        return KR_STATUS_INVALID_HANDLE;
    }
    closed = *found;
    channel_detach(closed);
    return KR_STATUS_SUCCESS;
}

kr_status channel_trap_register(const kr_host_ifc_fd &descriptor, uint32_t trap_id) {
    registry &r = g();
    const registry_exclusive lock(r.lock);
    const std::shared_ptr<channel> *const found = channel_find(descriptor);
    if (found == nullptr) {
        return KR_STATUS_INVALID_HANDLE;
    }
    if (!(*found)->traps.test(trap_id)) {
        try {
            r.by_trap[trap_id].push_back(found->get());
        } catch (const std::bad_alloc &) {
            return KR_STATUS_NO_MEMORY;
        }
        (*found)->traps.set(trap_id);
        r.trap_counts[trap_id].fetch_add(1, std::memory_order_relaxed);
    }
    return KR_STATUS_SUCCESS;
}

kr_status channel_trap_deregister(const kr_host_ifc_fd &descriptor, uint32_t trap_id) {
    const registry_exclusive lock(g().lock);
    const std::shared_ptr<channel> *const found = channel_find(descriptor);
    if (found == nullptr) {
        return KR_STATUS_INVALID_HANDLE;
    }
    if ((*found)->traps.test(trap_id)) {
        trap_remove(**found, trap_id);
    }
    return KR_STATUS_SUCCESS;
}

kr_status channel_receive(const kr_host_ifc_fd &descriptor, void *data, uint32_t *size, kr_receive_info *info) {
    std::shared_ptr<channel> source;
    {
        const registry_shared lock(g().lock);
        const std::shared_ptr<channel> *const found = channel_find(descriptor);
        if (found == nullptr) {
            return KR_STATUS_INVALID_HANDLE;
        }
        source = *found;
    }
    kr_status status = KR_STATUS_ERROR;
    while (!entry_take(*source, data, size, info, &status)) {
        pollfd waited = {.fd = source->fd, .events = POLLIN, .revents = 0};
        if (poll(&waited, 1, -1) < 0 && errno != EINTR) {
            return KR_STATUS_ERROR;
        }
    }
    return status;
}

bool channel_is_open(const kr_host_ifc_fd &descriptor) {
    const registry_shared lock(g().lock);
    return channel_find(descriptor) != nullptr;
}

/* ---- delivery -------------------------------------------------------------------------------------------------- */

bool trap_wanted(uint32_t trap_id) {
    return trap_id < trap_id_limit && g().trap_counts[trap_id].load(std::memory_order_relaxed) != 0;
}

uint32_t trap_frame_deliver(uint32_t trap_id, uint32_t source_log_port, const void *data, uint32_t size) {
    kr_receive_info info{};
    info.trap_id = trap_id;
    info.source_log_port = source_log_port;
    info.original_size = size;
    return deliver(trap_id, info, data, size);
}

uint32_t trap_port_event_deliver(uint32_t log_port, uint32_t oper_state) {
    kr_receive_info info{};
    info.trap_id = KR_TRAP_ID_PORT_UP_DOWN;
    info.port_up_down = {.log_port = log_port, .oper_state = oper_state};
    return deliver(KR_TRAP_ID_PORT_UP_DOWN, info, nullptr, 0);
}

/* ---- for control ----------------------------------------------------------------------------------------------- */

void channels_reset() {
    registry &r = g();
    const registry_exclusive lock(r.lock);
    for (size_t fd = 0; fd < r.by_fd.size(); fd++) {
        const std::shared_ptr<channel> open = r.by_fd[fd];
        if (open != nullptr) {
            channel_detach(open);
        }
    }
}

uint32_t channels_count() {
    const registry_shared lock(g().lock);
    return g().open_count;
}

void host_ifc_dump(FILE *stream) {
    const registry_shared lock(g().lock);
    std::fprintf(stream, "host-interface descriptors: %u\n", g().open_count);
    for (const std::shared_ptr<channel> &c : g().by_fd) {
        if (c == nullptr) {
            continue;
        }
        const std::lock_guard channel_lock(c->mutex);
        std::fprintf(stream, "  descriptor %d  queued %u  traps", c->fd, KR_SOFT_CHANNEL_QUEUE - c->queue.room());
        for (uint32_t trap_id = 0; trap_id < trap_id_limit; trap_id++) {
            if (c->traps.test(trap_id)) {
                std::fprintf(stream, " %u", trap_id);
            }
        }
        std::fprintf(stream, "\n");
    }
}

} // namespace kr_soft
