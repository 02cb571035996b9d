/*
 * A port on a Linux interface (veth, TAP, physical), through a packet socket of its own.
 *
 * The socket hands frames over as the kernel has them: VLAN tag beside the frame, checksum perhaps left undone, perhaps
 * several segments in one; frames leave the same way, so that between two such ports nothing is computed twice. The
 * socket belongs to the network namespace of the thread that opened the port and outlives the interface: when one of
 * the same name appears, the port comes back.
 *
 * Frames come in on the data plane's thread (dataplane_thread.h), link changes from link_watch.h.
 */
#ifndef KR_SOFT_INTERFACE_PORT_H
#define KR_SOFT_INTERFACE_PORT_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "dataplane/link_watch.h"
#include "dataplane/port.h"
#include "kr_status.h"

namespace kr_soft {

class receive_buffers;

class interface_port final : public port {
  public:
    // Opens the interface in the calling thread's namespace. ENTRY_NOT_FOUND, ERROR; the reason is logged.
    static kr_status open(uint32_t log_port, const char *name, std::shared_ptr<interface_port> *opened);

    interface_port(uint32_t number, const char *name, std::shared_ptr<link_monitor> monitor);
    ~interface_port() override;

    int fd() const {
        return fd_;
    }
    const std::shared_ptr<link_monitor> &monitor() const {
        return monitor_;
    }
    bool stands_on_same_interface(const interface_port &other) const;
    std::string description() const override;

    // Lets the frames that wait enter the switch, a bounded number of them. The port table is held shared.
    void frames_receive(receive_buffers &buffers);

    // From the watching thread (and refresh also from the one that added the port); the port table is not held.
    void link_message(const link_info &info, bool deleted);
    void refresh();
    void carrier_look();

  private:
    transmit_result frame_send(const frame &f) override;

    bool socket_open();
    bool socket_attach(uint32_t index);
    void detach();
    bool carrier_read(const std::string &name) const;
    void state_apply(const link_info &info, bool raise_trap);
    void message_apply(const link_info &info, uint32_t index, bool deleted);

    const std::string configured_name_;
    const std::shared_ptr<link_monitor> monitor_;
    int fd_ = -1;
    std::atomic<uint32_t> mtu_{0};

    // Taken before link_mutex, over asking the kernel and applying what it says: else an answer that is overtaken by a
    // message would be applied last, and stay.
    std::mutex apply_mutex_;

    // With link_mutex.
    uint32_t index_ = 0; // 0: the interface is gone
    std::string name_;   // may differ from the configured one after a renaming
    bool running_ = false;
};

} // namespace kr_soft

#endif
