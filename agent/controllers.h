/*
 * All controllers: connects to those that are configured and tries again when one is lost, accepts those that come,
 * and hands out what is meant for all of them. A connection's messages go to a session, made here for each.
 */
#ifndef KR_AGENT_CONTROLLERS_H
#define KR_AGENT_CONTROLLERS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "connection.h"
#include "endpoint.h"
#include "session.h"

namespace agent {

struct controller_settings {
    nanoseconds probe = 5 * second_ns;
    const tls_context *tls = nullptr;
};

class controllers final : public audience {
  public:
    controllers(event_loop &loop, datapath &switch_state, controller_settings settings);
    ~controllers() override;
    controllers(const controllers &) = delete;
    controllers &operator=(const controllers &) = delete;

    /* Opens a listening socket; connections wait in it until start(). False, and why. */
    bool listen(endpoint where, std::string *why);
    void connect(const endpoint &where); // from start() on
    /* Ends what connect() began: the connection, if there is one, and the tries. */
    void disconnect(const endpoint &where, const std::string &why);

    void start();
    void stop(); // closes everything

    /* audience */
    void tell_all(const of10::message_body &body) override;
    bool has_any() const override;
    void packet_in(of10::packet_in_fields fields, of10::byte_view frame, uint16_t max_len,
                   const std::function<uint32_t()> &buffer) override;
    void packets_send() override;

    struct peer_view { // for people
        std::string endpoint, state;
        connection_counts counts;
    };
    std::vector<peer_view> view() const;
    uint64_t packets_dropped() const;
    const session::losses &lost() const {
        return lost_; // with connections that ended before they had sent it
    }
    uint64_t untold() const {
        return untold_; // messages for all controllers, when there was none
    }

  private:
    struct target;
    struct listener;

    void accept_from(listener &from);
    void try_target(target &one);
    void target_connected(target &one);
    void target_lost(target &one, const std::string &why);
    void session_closed(session &one, const std::string &why);
    void tell_feed(const session &one, const char *what, const std::string &why) const;
    std::unique_ptr<stream> wrap(unique_fd socket, const endpoint &where, bool is_server);
    void session_open(unique_fd socket, const endpoint &where, const std::string &name, target *from);
    void reap();

    event_loop &loop_;
    datapath &datapath_;
    const controller_settings settings_;
    std::vector<std::unique_ptr<target>> targets_;
    std::vector<std::unique_ptr<listener>> listeners_;
    std::vector<std::unique_ptr<session>> sessions_;
    timer reaper_;
    bool is_started_ = false;
    log_budget arrivals_;
    uint64_t untold_ = 0;
    session::losses lost_;
    uint64_t dropped_before_ = 0; // by connections that are gone
};

} // namespace agent

#endif
