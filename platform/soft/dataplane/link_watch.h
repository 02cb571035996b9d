/*
 * Watches the network interfaces that ports stand on, and tells the ports what happens to them.
 *
 * One thread listens to the kernel's link messages, for each network namespace that has a port, and looks at each
 * port's carrier at short intervals, because the kernel may hold a loss of carrier back for a second. It is not the
 * data plane's thread: asking for the carrier can wait for whoever configures the network.
 */
#ifndef KR_SOFT_LINK_WATCH_H
#define KR_SOFT_LINK_WATCH_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

struct nl_msg;
struct nl_sock;

namespace kr_soft {

struct link_info {
    uint32_t index;
    std::string name;
    uint32_t flags; // IFF_*
    uint32_t mtu;
    uint32_t arp_type; // ARPHRD_*
};

// The kernel's view of the interfaces of one network namespace.
class link_monitor {
  public:
    // That of the calling thread's namespace; empty when netlink can't be used.
    static std::shared_ptr<link_monitor> of_this_namespace();

    explicit link_monitor(uint64_t namespace_cookie);
    ~link_monitor();
    link_monitor(const link_monitor &) = delete;
    link_monitor &operator=(const link_monitor &) = delete;

    // False when there is no such interface.
    bool find(const char *name, link_info *info);
    bool find(uint32_t index, link_info *info);

    int event_fd() const;
    // Reads the messages that wait and tells the ports. On the watching thread.
    void events_read();

    const uint64_t cookie; // of the namespace; 0: unknown

  private:
    bool open();
    bool query(uint32_t index, const char *name, link_info *info);
    static int message_take(nl_msg *message, void *monitor);

    nl_sock *events_ = nullptr;
    std::mutex query_mutex_;
    nl_sock *query_ = nullptr;
};

// Starts the thread if need be and lets it see a new port. False when it can't be started.
bool link_watch_start();
void link_watch_stop();

} // namespace kr_soft

#endif
