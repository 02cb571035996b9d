/* Link lists and link notifications through libnl-route. */
#include "link_monitor.h"

#include <net/if.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace kr_connector {
namespace {

using change_function = std::function<void(const link_change &)>;

const link_change changes_were_lost = {link_change::kind::unknown, 0, {}, false};
constexpr int receive_buffer_size = 1 << 20; // bytes; a removal may keep the thread from reading for long

int on_message(nl_msg *message, void *context) {
    const auto &on_change = **static_cast<const change_function **>(context);
    nlmsghdr *header = nlmsg_hdr(message);
    if (header->nlmsg_type != RTM_NEWLINK && header->nlmsg_type != RTM_DELLINK) {
        return NL_OK;
    }
    if (nlmsg_valid_hdr(header, sizeof(ifinfomsg)) == 0) {
        return NL_OK;
    }
    const auto *info = static_cast<const ifinfomsg *>(nlmsg_data(header));
    const nlattr *name = nlmsg_find_attr(header, sizeof(ifinfomsg), IFLA_IFNAME);
    // A bridge reports a port that leaves it as a vanished link of its own family; the interface is still there.
    if (info->ifi_family != AF_UNSPEC || name == nullptr) {
        return NL_OK;
    }
    on_change({header->nlmsg_type == RTM_DELLINK ? link_change::kind::vanished : link_change::kind::present,
               static_cast<uint32_t>(info->ifi_index), nla_get_string(name), (info->ifi_flags & IFF_UP) != 0});
    return NL_OK;
}

link_info info_of(rtnl_link *link) {
    link_info info{static_cast<uint32_t>(rtnl_link_get_ifindex(link)), (rtnl_link_get_flags(link) & IFF_UP) != 0, {}};
    const nl_addr *address = rtnl_link_get_addr(link);
    if (address != nullptr && nl_addr_get_len(address) == info.mac_address.size()) {
        std::memcpy(info.mac_address.data(), nl_addr_get_binary_addr(address), info.mac_address.size());
    }
    return info;
}

} // namespace

void link_monitor::socket_free::operator()(nl_sock *socket) const {
    nl_socket_free(socket);
}

link_monitor::link_monitor() = default;
link_monitor::~link_monitor() = default;

bool link_monitor::open(std::string *why) {
    requests_.reset(nl_socket_alloc());
    changes_.reset(nl_socket_alloc());
    if (!requests_ || !changes_) {
        *why = "out of memory";
        return false;
    }
    nl_socket_disable_seq_check(changes_.get());
    int result = nl_connect(requests_.get(), NETLINK_ROUTE);
    if (result == 0) {
        result = nl_connect(changes_.get(), NETLINK_ROUTE);
    }
    if (result == 0) {
        result = nl_socket_add_membership(changes_.get(), RTNLGRP_LINK);
    }
    if (result == 0) {
        result = nl_socket_set_nonblocking(changes_.get());
    }
    if (result == 0) {
        result = nl_socket_set_buffer_size(changes_.get(), receive_buffer_size, 0);
    }
    if (result != 0) {
        *why = nl_geterror(result);
    }
    return result == 0;
}

int link_monitor::fd() const {
    return nl_socket_get_fd(changes_.get());
}

void link_monitor::drain(const std::function<void(const link_change &)> &on_change) {
    const change_function *context = &on_change;
    nl_socket_modify_cb(changes_.get(), NL_CB_VALID, NL_CB_CUSTOM, on_message, static_cast<void *>(&context));
    for (;;) {
        const int result = nl_recvmsgs_default(changes_.get());
        if (result == -NLE_AGAIN) {
            return;
        }
        if (result == -NLE_NOMEM || result == -NLE_MSG_TRUNC || result == -NLE_DUMP_INTR) {
            on_change(changes_were_lost); // the kernel's queue ran over; it goes on after it
        } else if (result < 0 && result != -NLE_INTR) {
            on_change(changes_were_lost);
            return;
        }
    }
}

bool link_monitor::list(link_table *links, std::string *why) {
    nl_cache *cache = nullptr;
    const int result = rtnl_link_alloc_cache(requests_.get(), AF_UNSPEC, &cache);
    if (result != 0) {
        *why = nl_geterror(result);
        return false;
    }
    links->clear();
    for (nl_object *object = nl_cache_get_first(cache); object != nullptr; object = nl_cache_get_next(object)) {
        auto *link = reinterpret_cast<rtnl_link *>(object);
        if (const char *name = rtnl_link_get_name(link)) {
            links->emplace(name, info_of(link));
        }
    }
    nl_cache_free(cache);
    return true;
}

} // namespace kr_connector
