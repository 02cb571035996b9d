/*
 * The thread and the netlink sockets behind link_watch.h.
 *
 * Ports are asked for with the port table locked and told with it free: telling may wait for the kernel. A message is
 * passed on as it came, so that a link that goes down and up again is seen to do so.
 */
#include "dataplane/link_watch.h"

#include <atomic>
#include <cerrno>
#include <new>
#include <shared_mutex>
#include <vector>

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "dataplane/interface_port.h"
#include "dataplane/port_table.h"
#include "dataplane/worker.h"

namespace kr_soft {
namespace {

constexpr int carrier_interval_ms = 40;
constexpr int event_buffer_size = 1 << 20;

struct state {
    std::mutex mutex;
    std::vector<std::weak_ptr<link_monitor>> monitors;
    worker thread;
};

state &g() {
    static auto *const instance = new state; // never destroyed: the thread may run while the process ends
    return *instance;
}

uint64_t namespace_cookie() {
    uint64_t cookie = 0;
    socklen_t size = sizeof cookie;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        (void)getsockopt(fd, SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &size);
        close(fd);
    }
    return cookie;
}

std::vector<std::shared_ptr<interface_port>> interface_ports() {
    std::vector<std::shared_ptr<interface_port>> result;
    const std::shared_lock lock(port_table_lock());
    for (uint32_t i = 0; i < port_count(); i++) {
        if (port_at(i)->kind == port_kind::interface) {
            result.push_back(std::static_pointer_cast<interface_port>(port_at(i)));
        }
    }
    return result;
}

std::vector<std::shared_ptr<link_monitor>> live_monitors() {
    std::vector<std::shared_ptr<link_monitor>> result;
    const std::lock_guard lock(g().mutex);
    std::erase_if(g().monitors, [](const auto &monitor) { return monitor.expired(); });
    for (const std::weak_ptr<link_monitor> &monitor : g().monitors) {
        if (std::shared_ptr<link_monitor> live = monitor.lock()) {
            result.push_back(std::move(live));
        }
    }
    return result;
}

// Waits for messages, the next look at the carriers, or a wake-up.
void watch(worker &thread) {
    while (!thread.stopping()) {
        const std::vector<std::shared_ptr<link_monitor>> monitors = live_monitors();
        std::vector<pollfd> waited = {{.fd = thread.wake_fd(), .events = POLLIN, .revents = 0}};
        for (const std::shared_ptr<link_monitor> &monitor : monitors) {
            waited.push_back({.fd = monitor->event_fd(), .events = POLLIN, .revents = 0});
        }
        const int ready = poll(waited.data(), waited.size(), monitors.empty() ? -1 : carrier_interval_ms);
        thread.wake_clear();
        for (size_t i = 0; ready > 0 && i < monitors.size(); i++) {
            if (waited[i + 1].revents != 0) {
                monitors[i]->events_read();
            }
        }
        for (const std::shared_ptr<interface_port> &p : interface_ports()) {
            p->carrier_look();
        }
    }
}

} // namespace

/* ---- one namespace --------------------------------------------------------------------------------------------- */

link_monitor::link_monitor(uint64_t namespace_cookie) : cookie(namespace_cookie) {}

link_monitor::~link_monitor() {
    nl_socket_free(events_);
    nl_socket_free(query_);
}

std::shared_ptr<link_monitor> link_monitor::of_this_namespace() {
    const uint64_t cookie = namespace_cookie();
    for (const std::shared_ptr<link_monitor> &monitor : live_monitors()) {
        if (cookie != 0 && monitor->cookie == cookie) {
            return monitor;
        }
    }
    auto opened = std::make_shared<link_monitor>(cookie);
    if (!opened->open()) {
        return nullptr;
    }
    const std::lock_guard lock(g().mutex);
    g().monitors.push_back(opened);
    return opened;
}

bool link_monitor::open() {
    events_ = nl_socket_alloc();
    query_ = nl_socket_alloc();
    if (events_ == nullptr || query_ == nullptr) {
        return false;
    }
    nl_socket_disable_seq_check(events_);
    nl_socket_modify_cb(events_, NL_CB_VALID, NL_CB_CUSTOM, message_take, this);
    if (nl_connect(events_, NETLINK_ROUTE) < 0 || nl_connect(query_, NETLINK_ROUTE) < 0 ||
        nl_socket_add_memberships(events_, RTNLGRP_LINK, 0) < 0 || nl_socket_set_nonblocking(events_) < 0) {
        return false;
    }
    (void)nl_socket_set_buffer_size(events_, event_buffer_size, 0); // as much as the system allows
    return true;
}

int link_monitor::event_fd() const {
    return nl_socket_get_fd(events_);
}

bool link_monitor::query(uint32_t index, const char *name, link_info *info) {
    const std::lock_guard lock(query_mutex_);
    rtnl_link *link = nullptr;
    if (rtnl_link_get_kernel(query_, static_cast<int>(index), name, &link) < 0 || link == nullptr) {
        return false;
    }
    *info = {
        .index = static_cast<uint32_t>(rtnl_link_get_ifindex(link)),
        .name = rtnl_link_get_name(link),
        .flags = rtnl_link_get_flags(link),
        .mtu = rtnl_link_get_mtu(link),
        .arp_type = rtnl_link_get_arptype(link),
    };
    rtnl_link_put(link);
    return true;
}

bool link_monitor::find(const char *name, link_info *info) {
    return query(0, name, info);
}

bool link_monitor::find(uint32_t index, link_info *info) {
    return query(index, nullptr, info);
}

void link_monitor::events_read() {
    int result;
    while ((result = nl_recvmsgs_default(events_)) >= 0) {
    }
    if (result == -NLE_AGAIN) {
        return;
    }
    // Messages were lost: look at everything.
    for (const std::shared_ptr<interface_port> &p : interface_ports()) {
        if (p->monitor().get() == this) {
            p->refresh();
        }
    }
}

int link_monitor::message_take(nl_msg *message, void *monitor) {
    nlmsghdr *const header = nlmsg_hdr(message);
    if (header->nlmsg_type != RTM_NEWLINK && header->nlmsg_type != RTM_DELLINK) {
        return NL_OK;
    }
    const auto *const body = static_cast<const ifinfomsg *>(nlmsg_data(header));
    if (body->ifi_family != AF_UNSPEC) {
        return NL_OK; // what a bridge says of its ports
    }
    const nlattr *const name = nlmsg_find_attr(header, sizeof *body, IFLA_IFNAME);
    const nlattr *const mtu = nlmsg_find_attr(header, sizeof *body, IFLA_MTU);
    const link_info info = {
        .index = static_cast<uint32_t>(body->ifi_index),
        .name = name != nullptr ? nla_get_string(name) : "",
        .flags = body->ifi_flags,
        .mtu = mtu != nullptr ? nla_get_u32(mtu) : 0,
        .arp_type = body->ifi_type,
    };
    for (const std::shared_ptr<interface_port> &p : interface_ports()) {
        if (p->monitor().get() == monitor) {
            p->link_message(info, header->nlmsg_type == RTM_DELLINK);
        }
    }
    return NL_OK;
}

/* ---- the thread ------------------------------------------------------------------------------------------------ */

bool link_watch_start() {
    return g().thread.start("kr-links", watch);
}

void link_watch_stop() {
    g().thread.stop();
}

} // namespace kr_soft
