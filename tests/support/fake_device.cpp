/*
 * A fake of the device API and of the host interface, for tests of one module. Descriptors are eventfds; what a
 * descriptor holds is queued by the test.
 */
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>

#include "fakes.h"
#include "kr_api.h"

namespace kr_test {
namespace {

struct queued {
    kr_receive_info info;
    std::string frame;
};

struct device_state {
    std::mutex mutex;
    std::map<int, std::deque<queued>> queues;
    std::vector<int> descriptors;
    std::vector<device_call> calls;
    std::vector<trap_call> traps;
    std::vector<sent_packet> packets;
    kr_log_callback log_callback = nullptr;
    bool keep_frames = false;
};

device_state &state() {
    static auto *const instance = new device_state;
    return *instance;
}

void add_device_call(const char *name, uint64_t handle, uint32_t argument) {
    const std::lock_guard lock(state().mutex);
    state().calls.push_back({name, handle, argument});
}

} // namespace

void device_reset() {
    const std::lock_guard lock(state().mutex);
    for (const int fd : state().descriptors) {
        syscall(SYS_close, fd); // not wrapped
    }
    state().queues.clear();
    state().descriptors.clear();
    state().calls.clear();
    state().traps.clear();
    state().packets.clear();
    state().log_callback = nullptr;
    state().keep_frames = false;
}

void device_queue(int fd, const kr_receive_info &info, const std::string &frame) {
    const std::lock_guard lock(state().mutex);
    state().queues.at(fd).push_back({info, frame});
    (void)eventfd_write(fd, 1);
}

void device_keep_frames(bool keep) {
    const std::lock_guard lock(state().mutex);
    state().keep_frames = keep;
}

std::vector<int> device_descriptors() {
    const std::lock_guard lock(state().mutex);
    return state().descriptors;
}

std::vector<device_call> take_device_calls() {
    const std::lock_guard lock(state().mutex);
    return std::exchange(state().calls, {});
}

std::vector<trap_call> take_trap_calls() {
    const std::lock_guard lock(state().mutex);
    return std::exchange(state().traps, {});
}

std::vector<sent_packet> take_sent_packets() {
    const std::lock_guard lock(state().mutex);
    return std::exchange(state().packets, {});
}

kr_log_callback device_log_callback() {
    const std::lock_guard lock(state().mutex);
    return state().log_callback;
}

} // namespace kr_test

using namespace kr_test;

kr_status kr_api_open(kr_log_callback log_callback, kr_api_handle *handle) {
    const uint32_t status = called("kr_api_open");
    if (status == 0) {
        const std::lock_guard lock(state().mutex);
        state().log_callback = log_callback;
        *handle = fake_device_handle;
    }
    return status;
}

kr_status kr_api_close(kr_api_handle *handle) {
    const uint32_t status = called("kr_api_close");
    add_device_call("kr_api_close", *handle, 0);
    if (status == 0) {
        *handle = 0;
    }
    return status;
}

kr_status kr_api_port_state_get(kr_api_handle handle, uint32_t log_port, uint32_t *oper_state, uint32_t *admin_state,
                                uint32_t *module_state) {
    const uint32_t status = called("kr_api_port_state_get");
    add_device_call("kr_api_port_state_get", handle, log_port);
    if (status == 0) {
        *oper_state = log_port + 1; // a value that no default could be
        *admin_state = KR_PORT_ADMIN_UP;
        *module_state = KR_PORT_MODULE_PLUGGED;
    }
    return status;
}

kr_status kr_api_host_ifc_open(kr_api_handle handle, kr_host_ifc_fd *descriptor) {
    const uint32_t status = called("kr_api_host_ifc_open");
    if (status == 0) {
        const std::lock_guard lock(state().mutex);
        descriptor->fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK);
        descriptor->valid = 1;
        state().descriptors.push_back(descriptor->fd);
        state().queues[descriptor->fd];
    }
    add_device_call("kr_api_host_ifc_open", handle, status == 0 ? static_cast<uint32_t>(descriptor->fd) : 0);
    return status;
}

kr_status kr_api_host_ifc_close(kr_api_handle handle, kr_host_ifc_fd *descriptor) {
    const uint32_t status = called("kr_api_host_ifc_close");
    add_device_call("kr_api_host_ifc_close", handle, static_cast<uint32_t>(descriptor->fd));
    if (status == 0) {
        const std::lock_guard lock(state().mutex);
        std::erase(state().descriptors, descriptor->fd);
        state().queues.erase(descriptor->fd);
        syscall(SYS_close, descriptor->fd);
        descriptor->valid = 0;
    }
    return status;
}

kr_status kr_api_host_ifc_trap_id_register_set(kr_api_handle handle, uint32_t command, uint8_t swid, uint32_t trap_id,
                                               kr_user_channel *channel) {
    const uint32_t status = called("kr_api_host_ifc_trap_id_register_set");
    const std::lock_guard lock(state().mutex);
    state().traps.push_back(
        {handle, command, swid, trap_id, channel->type, channel->descriptor.fd, channel->descriptor.valid});
    return status;
}

kr_status kr_lib_host_ifc_recv(kr_host_ifc_fd *descriptor, void *frame, uint32_t *size, kr_receive_info *info) {
    const uint32_t status = result_of("kr_lib_host_ifc_recv");
    const std::lock_guard lock(state().mutex);
    std::deque<queued> &queue = state().queues.at(descriptor->fd);
    const queued entry = queue.front();
    if (!state().keep_frames) {
        eventfd_t count = 0;
        (void)eventfd_read(descriptor->fd, &count);
        queue.pop_front();
    }
    if (status == 0) {
        *size = std::min(*size, static_cast<uint32_t>(entry.frame.size()));
        memcpy(frame, entry.frame.data(), *size);
        *info = entry.info;
    }
    return status;
}

kr_status kr_lib_host_ifc_unicast_ctrl_send(kr_host_ifc_fd *descriptor, const void *frame, uint32_t size, uint8_t swid,
                                            uint32_t egress_log_port, uint8_t priority) {
    const uint32_t status = called("kr_lib_host_ifc_unicast_ctrl_send");
    const std::lock_guard lock(state().mutex);
    state().packets.push_back(
        {descriptor->fd, std::string(static_cast<const char *>(frame), size), swid, egress_log_port, priority});
    return status;
}
