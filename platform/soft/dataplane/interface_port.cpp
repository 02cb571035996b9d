/*
 * Packet sockets and the state of the interfaces behind them; see interface_port.h.
 */
#include "dataplane/interface_port.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <linux/ethtool.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "dataplane/forwarding.h"
#include "dataplane/receive_buffers.h"
#include "host_ifc/trap_delivery.h"
#include "kr_log.h"

namespace kr_soft {
namespace {

constexpr const char *log_module = "DATAPLANE";

constexpr int socket_buffer_size = 16 << 20;
// Calls per turn: a port that floods the switch lets the others have theirs.
constexpr int receive_calls_per_turn = 4;

bool option_set(int fd, int level, int option, int value) {
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

// As much as the system allows: beyond the administrator's limit only with privileges.
void buffer_enlarge(int fd, int forced_option, int option) {
    if (!option_set(fd, SOL_SOCKET, forced_option, socket_buffer_size)) {
        (void)option_set(fd, SOL_SOCKET, option, socket_buffer_size);
    }
}

} // namespace

/* ---- opening --------------------------------------------------------------------------------------------------- */

interface_port::interface_port(uint32_t number, const char *name, std::shared_ptr<link_monitor> monitor)
    : port(number, port_kind::interface), configured_name_(name), monitor_(std::move(monitor)), name_(name) {}

interface_port::~interface_port() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

kr_status interface_port::open(uint32_t log_port, const char *name, std::shared_ptr<interface_port> *opened) {
    std::shared_ptr<link_monitor> monitor = link_monitor::of_this_namespace();
    if (monitor == nullptr) {
        kr_log(KR_LOG_ERROR, log_module, "Interface %s: netlink can't be opened: %s", name, std::strerror(errno));
        return KR_STATUS_ERROR;
    }
    link_info info;
    if (std::strlen(name) >= IFNAMSIZ || !monitor->find(name, &info)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (info.arp_type != ARPHRD_ETHER) {
        kr_log(KR_LOG_ERROR, log_module, "Interface %s is no Ethernet interface", name);
        return KR_STATUS_ERROR;
    }
    auto added = std::make_shared<interface_port>(log_port, name, std::move(monitor));
    if (!added->socket_open() || !added->socket_attach(info.index)) {
        kr_log(KR_LOG_ERROR, log_module, "Interface %s can't be opened: %s", name, std::strerror(errno));
        return KR_STATUS_ERROR;
    }
    added->state_apply(info, false);
    *opened = std::move(added);
    return KR_STATUS_SUCCESS;
}

// Protocol 0: nothing is received until the socket is bound to its interface.
bool interface_port::socket_open() {
    fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        return false;
    }
    buffer_enlarge(fd_, SO_RCVBUFFORCE, SO_RCVBUF);
    buffer_enlarge(fd_, SO_SNDBUFFORCE, SO_SNDBUF);
    return option_set(fd_, SOL_PACKET, PACKET_VNET_HDR, 1) && option_set(fd_, SOL_PACKET, PACKET_AUXDATA, 1) &&
           option_set(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1);
}

bool interface_port::socket_attach(uint32_t index) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(index);
    packet_mreq promiscuous{};
    promiscuous.mr_ifindex = address.sll_ifindex;
    promiscuous.mr_type = PACKET_MR_PROMISC;
    if (bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        setsockopt(fd_, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promiscuous, sizeof promiscuous) != 0) {
        return false;
    }
    const std::lock_guard lock(link_mutex);
    index_ = index;
    return true;
}

bool interface_port::stands_on_same_interface(const interface_port &other) const {
    const std::scoped_lock lock(link_mutex, other.link_mutex);
    return monitor_ == other.monitor_ && index_ != 0 && index_ == other.index_;
}

std::string interface_port::description() const {
    const std::lock_guard lock(link_mutex);
    return "interface " + name_ + (index_ == 0 ? " (gone)" : "");
}

/* ---- link ------------------------------------------------------------------------------------------------------ */

// True unless the driver says that there is no carrier. May wait for whoever configures the network, so that no lock is
// held meanwhile.
bool interface_port::carrier_read(const std::string &name) const {
    ethtool_value link{};
    link.cmd = ETHTOOL_GLINK;
    ifreq request{};
    std::memcpy(request.ifr_name, name.c_str(), std::min(name.size(), sizeof request.ifr_name - 1));
    request.ifr_data = reinterpret_cast<char *>(&link);
    return ioctl(fd_, SIOCETHTOOL, &request) != 0 || link.data != 0;
}

void interface_port::state_apply(const link_info &info, bool raise_trap) {
    const bool running = (info.flags & IFF_RUNNING) != 0;
    const medium_state medium = {
        .plugged = true,
        .admin_up = (info.flags & IFF_UP) != 0,
        .carrier = running && carrier_read(info.name),
    };
    if (info.mtu != 0) {
        mtu_.store(info.mtu, std::memory_order_relaxed);
    }
    const std::lock_guard lock(link_mutex);
    name_ = info.name;
    running_ = running;
    raise_trap ? medium_update(medium) : medium_set_initial(medium);
}

void interface_port::detach() {
    const std::lock_guard lock(link_mutex);
    index_ = 0;
    running_ = false;
    medium_update({.plugged = false, .admin_up = false, .carrier = false});
}

void interface_port::link_message(const link_info &info, bool deleted) {
    const std::lock_guard applying(apply_mutex_);
    uint32_t index = 0;
    {
        const std::lock_guard lock(link_mutex);
        index = index_;
    }
    message_apply(info, index, deleted);
}

// A message may have waited behind others, or be older than the port. One that says that the interface does not run,
// while it does, must not keep frames out until the message behind it is read: the link's change is told, and the port
// stays up.
void interface_port::message_apply(const link_info &info, uint32_t index, bool deleted) {
    if (info.index == index) {
        link_info now;
        const bool is_old = !deleted && (info.flags & IFF_RUNNING) == 0 && monitor_->find(index, &now) &&
                            (now.flags & IFF_RUNNING) != 0;
        if (is_old) {
            const std::lock_guard lock(link_mutex);
            link_change_tell();
        }
        deleted ? detach() : state_apply(is_old ? now : info, true);
    } else if (index == 0 && !deleted && info.name == configured_name_ && info.arp_type == ARPHRD_ETHER &&
               socket_attach(info.index)) {
        state_apply(info, true);
    }
}

// Asks the kernel instead of waiting for messages: after some were lost, or were sent before the port was known.
void interface_port::refresh() {
    const std::lock_guard applying(apply_mutex_);
    uint32_t index = 0;
    {
        const std::lock_guard lock(link_mutex);
        index = index_;
    }
    link_info info;
    if (index != 0 && monitor_->find(index, &info)) {
        state_apply(info, true);
        return;
    }
    if (index != 0) {
        detach();
    }
    if (monitor_->find(configured_name_.c_str(), &info)) {
        message_apply(info, 0, false);
    }
}

// A carrier that is lost is seen here before the kernel tells of it. One that comes is not taken for a link until the
// kernel says so, for it passes no frame before; but newer kernels put that off for up to a second unless asked.
void interface_port::carrier_look() {
    std::string name;
    {
        const std::lock_guard lock(link_mutex);
        if (index_ == 0 || !medium_.admin_up) {
            return;
        }
        name = name_;
    }
    const bool carrier = carrier_read(name);
    const std::lock_guard lock(link_mutex);
    if (index_ != 0 && medium_.admin_up && running_ && carrier != medium_.carrier) {
        medium_update({.plugged = true, .admin_up = true, .carrier = carrier});
    }
}

/* ---- frames ---------------------------------------------------------------------------------------------------- */

void interface_port::frames_receive(receive_buffers &buffers) {
    for (int call = 0; call < receive_calls_per_turn; call++) {
        const int count = recvmmsg(fd_, buffers.prepare(), receive_batch_size, MSG_DONTWAIT, nullptr);
        if (count < 0) {
            // The error of an interface that went down or away is taken by this call; links are watched elsewhere.
            if (errno == EINVAL) {
                drop_count_add(KR_SOFT_DROP_MALFORMED); // segments of a kind that the socket can't describe
                continue;
            }
            return;
        }
        for (uint32_t i = 0; i < static_cast<uint32_t>(count); i++) {
            frame f{};
            if (buffers.frame_take(i, &f)) {
                frame_forward(*this, f);
            } else {
                drop_count_add(KR_SOFT_DROP_MALFORMED);
            }
        }
        if (static_cast<uint32_t>(count) < receive_batch_size) {
            return;
        }
    }
}

transmit_result interface_port::frame_send(const frame &f) {
    const bool is_super_frame = f.offload.gso_type != gso_none;
    const uint32_t segment_l3_size = f.segment_header_size - f.l3_offset + f.offload.gso_size;
    if (is_super_frame && segment_l3_size > mtu_.load(std::memory_order_relaxed)) {
        return transmit_result::too_long;
    }
    frame_offload offload = f.offload;
    iovec vectors[2] = {{.iov_base = &offload, .iov_len = sizeof offload}, {.iov_base = f.data, .iov_len = f.size}};
    msghdr message{};
    message.msg_iov = vectors;
    message.msg_iovlen = 2;
    if (sendmsg(fd_, &message, MSG_DONTWAIT) >= 0) {
        return transmit_result::sent;
    }
    switch (errno) {
    case EMSGSIZE:
        return transmit_result::too_long;
    case ENETDOWN:
    case ENXIO:
    case ENODEV:
        return transmit_result::link_down;
    default:
        return transmit_result::full;
    }
}

/* ---- receive buffers ------------------------------------------------------------------------------------------- */

receive_buffers::receive_buffers() : room_(new uint8_t[receive_batch_size * stride]) {
    for (uint32_t i = 0; i < receive_batch_size; i++) {
        vectors_[i][0] = {.iov_base = &offloads_[i], .iov_len = sizeof offloads_[i]};
        vectors_[i][1] = {.iov_base = room_.get() + i * stride + frame_headroom, .iov_len = super_frame_size_max};
        messages_[i].msg_hdr.msg_iov = vectors_[i].data();
        messages_[i].msg_hdr.msg_iovlen = vectors_[i].size();
        messages_[i].msg_hdr.msg_control = &controls_[i];
    }
}

mmsghdr *receive_buffers::prepare() {
    for (mmsghdr &message : messages_) {
        message.msg_hdr.msg_controllen = sizeof(control_room);
        message.msg_hdr.msg_flags = 0;
    }
    return messages_.data();
}

bool receive_buffers::frame_take(uint32_t index, frame *f) {
    mmsghdr &message = messages_[index];
    if ((message.msg_hdr.msg_flags & MSG_TRUNC) != 0 || message.msg_len < sizeof(frame_offload) + eth_header_size) {
        return false;
    }
    f->data = static_cast<uint8_t *>(vectors_[index][1].iov_base);
    f->size = message.msg_len - static_cast<uint32_t>(sizeof(frame_offload));
    f->headroom = frame_headroom;
    f->offload = offloads_[index];

    const cmsghdr *const control = CMSG_FIRSTHDR(&message.msg_hdr);
    if (control != nullptr && control->cmsg_level == SOL_PACKET && control->cmsg_type == PACKET_AUXDATA) {
        tpacket_auxdata auxiliary;
        std::memcpy(&auxiliary, CMSG_DATA(control), sizeof auxiliary);
        if ((auxiliary.tp_status & TP_STATUS_VLAN_VALID) != 0) {
            const bool has_tpid = (auxiliary.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0;
            return frame_vlan_push(*f, has_tpid ? auxiliary.tp_vlan_tpid : vlan_tpid_customer, auxiliary.tp_vlan_tci);
        }
    }
    return true;
}

} // namespace kr_soft
