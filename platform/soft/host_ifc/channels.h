/*
 * Host-interface descriptors: queues of trapped frames and events behind file descriptors.
 *
 * A descriptor's file descriptor is an eventfd that is readable exactly while something is queued, so that select(),
 * poll() and epoll see it. Which channel a trap goes to is kept here; the contract functions, with their checks of
 * device handles, are in device.cpp.
 */
#ifndef KR_SOFT_CHANNELS_H
#define KR_SOFT_CHANNELS_H

#include <cstdint>

#include "kr_host_ifc.h"

namespace kr_soft {

// Opens a channel on behalf of a device handle. NO_RESOURCES when the process has no descriptor (or memory) left.
kr_status channel_open(uint64_t device_handle, kr_host_ifc_fd *descriptor);

// INVALID_HANDLE for a descriptor that is not open. *device_handle becomes the one that it was opened with.
kr_status channel_owner_get(const kr_host_ifc_fd &descriptor, uint64_t *device_handle);

// Ends the channel: readers that wait return INVALID_HANDLE, what is queued is dropped.
kr_status channel_close(const kr_host_ifc_fd &descriptor);

// Both succeed when there is nothing to change. `trap_id` is below trap_id_limit.
kr_status channel_trap_register(const kr_host_ifc_fd &descriptor, uint32_t trap_id);
kr_status channel_trap_deregister(const kr_host_ifc_fd &descriptor, uint32_t trap_id);

// Waits for the oldest frame or event and takes it; see kr_lib_host_ifc_recv.
kr_status channel_receive(const kr_host_ifc_fd &descriptor, void *data, uint32_t *size, kr_receive_info *info);

bool channel_is_open(const kr_host_ifc_fd &descriptor);

// Closes every channel.
void channels_reset();
uint32_t channels_count();

} // namespace kr_soft

#endif
