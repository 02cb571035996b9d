/*
 * One controller's OpenFlow conversation: negotiates the version, does what requests ask and answers them. It holds
 * what is the controller's own (configuration, the requests of this turn); everything else is the datapath's.
 */
#ifndef KR_AGENT_SESSION_H
#define KR_AGENT_SESSION_H

#include <functional>
#include <memory>
#include <string>

#include "connection.h"
#include "datapath.h"
#include "log.h"

namespace agent {

class session final : public connection_handler {
  public:
    struct handlers {
        std::function<void(session &)> ready;
        std::function<void(session &, const std::string &why)> closed;
        log_budget *arrivals = nullptr; // for what is logged of its coming and going; null: it comes rarely enough
    };

    session(event_loop &loop, std::unique_ptr<stream> bytes, datapath &switch_state, std::string name,
            nanoseconds probe, handlers on);

    void start();
    void close(const std::string &why) {
        connection_.close(why);
    }
    /* HELLO went both ways. */
    bool is_ready() const {
        return is_ready_ && !connection_.is_closed();
    }
    bool was_ready() const {
        return is_ready_;
    }
    const std::string &name() const {
        return name_;
    }
    const connection &link() const {
        return connection_;
    }

    void tell(const of10::message_body &body);
    /* What the connection had still to send when it ended. */
    struct losses {
        uint64_t notices = 0; // FLOW_REMOVED and PORT_STATUS
        uint64_t packet_ins = 0;
    };
    const losses &lost() const {
        return lost_;
    }
    /* How much of a frame that missed this controller wants. */
    uint16_t miss_send_len() const {
        return config_.miss_send_len;
    }
    void packet_in(const of10::packet_in_fields &fields, of10::byte_view frame);
    void packets_send() {
        connection_.send();
    }

    /* connection_handler */
    void connection_open(connection &from) override;
    void connection_message(connection &from, of10::byte_view wire) override;
    void connection_turn_end(connection &from) override;
    void connection_silent(connection &from) override;
    void connection_closed(connection &from, const std::string &why) override;

  private:
    struct request { // what is being answered
        of10::byte_view wire;
        uint32_t xid;
    };

    void leave(const std::string &why);
    void say(const std::string &what);
    void take_failure(const of10::decode_failure &failure, of10::byte_view wire);
    void take_flow_mod(of10::flow_mod &&body, of10::byte_view wire);
    void flush();
    void refuse(of10::byte_view wire, const refusal &why);
    void reply(uint32_t xid, const of10::message_body &body);

    void handle(const request &from, of10::hello &body);
    void handle(const request &from, of10::error &body);
    void handle(const request &from, of10::echo_request &body);
    void handle(const request &from, of10::vendor &body);
    void handle(const request &from, of10::features_request &body);
    void handle(const request &from, of10::get_config_request &body);
    void handle(const request &from, of10::set_config &body);
    void handle(const request &from, of10::packet_out &body);
    void handle(const request &from, of10::port_mod &body);
    void handle(const request &from, of10::barrier_request &body);
    void handle(const request &from, of10::queue_get_config_request &body);
    void handle(const request &from, of10::stats_request &body);
    void handle(const request &from, of10::echo_reply &) {
        (void)from;
    }

    void answer(const request &from, const of10::desc_stats_request &body);
    void answer(const request &from, const of10::flow_stats_request &body);
    void answer(const request &from, const of10::aggregate_stats_request &body);
    void answer(const request &from, const of10::table_stats_request &body);
    void answer(const request &from, const of10::port_stats_request &body);
    void answer(const request &from, const of10::queue_stats_request &body);
    void answer(const request &from, const of10::vendor_stats &body);
    std::vector<flow *> flows_of(const of10::flow_match &match, uint8_t table_id, uint16_t out_port) const;

    datapath &datapath_;
    const std::string name_;
    handlers on_;
    of10::set_config config_; // as the controller has set it
    bool is_ready_ = false;
    losses lost_;
    log_budget complaints_; // about what the controller sends
    timer patience_;        // for HELLO, and for the last message
    bool is_leaving_ = false;
    std::vector<of10::byte_view> gathered_; // the flow-mods of this turn, for their errors
    connection connection_;
};

} // namespace agent

#endif
