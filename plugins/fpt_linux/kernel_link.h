/*
 * A network interface of the kernel: its link attributes over rtnetlink. Each call asks the kernel; nothing is kept.
 * One socket serves all threads, under a lock.
 */
#ifndef KR_FPT_KERNEL_LINK_H
#define KR_FPT_KERNEL_LINK_H

#include <netlink/route/link.h>

#include <cstdint>
#include <memory>

#include "kr_sdn_hal.h"

namespace kr_fpt {

struct link_put {
    void operator()(rtnl_link *link) const {
        rtnl_link_put(link);
    }
};
using link_ptr = std::unique_ptr<rtnl_link, link_put>;

// Reads an interface. ENTRY_NOT_FOUND if it is gone.
kr_sdn_hal_status link_read(uint32_t ifindex, link_ptr *link);

// Applies what is set in `change` to an interface. What the kernel refuses as a value is PARAM_EXCEEDS_RANGE, what the
// interface can't do CMD_UNSUPPORTED.
kr_sdn_hal_status link_change(uint32_t ifindex, rtnl_link *change);

// Closes the socket; a later call opens it again.
void link_socket_close();

} // namespace kr_fpt

#endif
