/* rtnetlink requests through libnl-route, and what its errors mean to the library. */
#include "kernel_link.h"

#include <netlink/errno.h>
#include <netlink/netlink.h>

#include <mutex>

namespace kr_fpt {
namespace {

struct link_state {
    std::mutex lock;
    nl_sock *socket; // opened by the first call
};
constinit link_state g{};

kr_sdn_hal_status status_of(int nl_error) {
    switch (nl_error < 0 ? -nl_error : nl_error) {
    case NLE_SUCCESS:
        return KR_SDN_HAL_STATUS_SUCCESS;
    case NLE_NODEV:
    case NLE_OBJ_NOTFOUND:
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    case NLE_OPNOTSUPP:
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    case NLE_RANGE:
    case NLE_INVAL:
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    case NLE_NOMEM:
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    case NLE_BUSY:
        return KR_SDN_HAL_STATUS_RESOURCE_IN_USE;
    default:
        return KR_SDN_HAL_STATUS_ERROR;
    }
}

void close_socket() {
    nl_socket_free(g.socket);
    g.socket = nullptr;
}

bool open_socket() {
    if (g.socket == nullptr) {
        g.socket = nl_socket_alloc();
        if (g.socket != nullptr && nl_connect(g.socket, NETLINK_ROUTE) != 0) {
            close_socket();
        }
    }
    return g.socket != nullptr;
}

// Runs one request. A socket that has lost its step (an answer that was not taken) is not used again.
template <typename F> kr_sdn_hal_status with_socket(F request) {
    const std::lock_guard guard(g.lock);
    if (!open_socket()) {
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    }
    const int result = request(g.socket);
    const kr_sdn_hal_status status = status_of(result);
    if (status == KR_SDN_HAL_STATUS_ERROR || status == KR_SDN_HAL_STATUS_NO_RESOURCES) {
        close_socket();
    }
    return status;
}

} // namespace

kr_sdn_hal_status link_read(uint32_t ifindex, link_ptr *link) {
    rtnl_link *found = nullptr;
    const kr_sdn_hal_status status = with_socket(
        [&](nl_sock *socket) { return rtnl_link_get_kernel(socket, static_cast<int>(ifindex), nullptr, &found); });
    link->reset(found);
    return status;
}

kr_sdn_hal_status link_change(uint32_t ifindex, rtnl_link *change) {
    const link_ptr which(rtnl_link_alloc());
    if (!which) {
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    }
    rtnl_link_set_ifindex(which.get(), static_cast<int>(ifindex));
    return with_socket([&](nl_sock *socket) { return rtnl_link_change(socket, which.get(), change, 0); });
}

void link_socket_close() {
    const std::lock_guard guard(g.lock);
    close_socket();
}

} // namespace kr_fpt
