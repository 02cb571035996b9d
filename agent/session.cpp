/*
 * Messages and their answers. Flow-mods that follow each other are gathered by flow_mods; everything else has them
 * written first, so that requests take effect in the order in which they came.
 */
#include "session.h"

#include <algorithm>

#include "log.h"

namespace agent {
namespace {

constexpr const char *manufacturer = "Korvane";
constexpr const char *hardware_text = "Ethernet switch with a 12-tuple flow table";
constexpr const char *software_text = "krsdn-ofagentd " KR_AGENT_VERSION;
constexpr const char *serial_text = "None";
constexpr uint32_t own_xid = 0; // of what nobody asked for
constexpr nanoseconds patience_time = 10 * second_ns;
constexpr size_t unread_limit = 4 * 1024 * 1024; // bytes that wait for a controller that does not read

refusal bad_request(uint16_t code, const char *reason) {
    return {of10::error_type::bad_request, code, reason};
}

} // namespace

session::session(event_loop &loop, std::unique_ptr<stream> bytes, datapath &switch_state, std::string name,
                 nanoseconds probe, handlers on)
    : datapath_(switch_state), name_(std::move(name)), on_(std::move(on)),
      patience_(loop,
                [this] { connection_.close(is_leaving_ ? "it does not take the last message" : "no HELLO in time"); }),
      connection_(loop, std::move(bytes), *this, probe) {}

/* ---- the connection -------------------------------------------------------------------------------------------- */

void session::start() {
    patience_.start(patience_time);
    connection_.start();
}

// The last message is given some time to go out.
void session::leave(const std::string &why) {
    is_leaving_ = true;
    patience_.start(patience_time);
    connection_.close_after_sending(why);
}

// Whoever may connect may do so again and again.
void session::say(const std::string &what) {
    if (on_.arrivals == nullptr || on_.arrivals->take()) {
        log(log_level::notice, "%s: %s", name_.c_str(), what.c_str());
    }
}

void session::connection_open(connection &) {
    reply(own_xid, of10::hello{});
}

void session::connection_closed(connection &, const std::string &why) {
    say(why);
    patience_.stop();
    gathered_.clear();
    connection_.visit_unsent([this](of10::byte_view wire) {
        const auto type = static_cast<of10::message_type>(wire[1]);
        lost_.notices += type == of10::message_type::flow_removed || type == of10::message_type::port_status ? 1 : 0;
        lost_.packet_ins += type == of10::message_type::packet_in ? 1 : 0;
    });
    on_.closed(*this, why);
}

void session::connection_silent(connection &) {
    reply(own_xid, of10::echo_request{});
}

void session::connection_turn_end(connection &) {
    flush();
}

void session::connection_message(connection &, of10::byte_view wire) {
    of10::decode_result result = of10::decode(wire);
    if (const auto *failure = std::get_if<of10::decode_failure>(&result)) {
        take_failure(*failure, wire);
        return;
    }
    auto &message = std::get<of10::message>(result);
    if (!is_ready_ && !std::holds_alternative<of10::hello>(message.body)) {
        if (std::holds_alternative<of10::error>(message.body)) {
            connection_.close("refused by the controller");
            return;
        }
        of10::encode_error_text(connection_.replies(), message.xid, of10::error_type::hello_failed,
                                of10::hello_failed::incompatible, "HELLO has to come first");
        leave("the first message was not HELLO");
        return;
    }
    if (auto *mod = std::get_if<of10::flow_mod>(&message.body)) {
        take_flow_mod(std::move(*mod), wire);
        return;
    }
    flush();
    const request from{wire, message.xid};
    std::visit(
        [&](auto &body) {
            if constexpr (requires { handle(from, body); }) {
                handle(from, body);
            } else {
                refuse(wire, bad_request(of10::bad_request::bad_type, "a message that only a switch sends"));
            }
        },
        message.body);
}

void session::take_failure(const of10::decode_failure &failure, of10::byte_view wire) {
    flush();
    if (complaints_.take()) {
        log(log_level::notice, "%s: message of type %u refused: %s", name_.c_str(), failure.type, failure.reason);
    }
    if (failure.answer_is_due && !of10::encode(connection_.replies(), failure.xid, failure.answer)) {
        of10::encode_error(connection_.replies(), wire, of10::error_type::bad_request, of10::bad_request::bad_len);
    }
    const bool is_hello = failure.answer.type == static_cast<uint16_t>(of10::error_type::hello_failed);
    if (is_hello || !is_ready_) {
        leave("no common version of OpenFlow");
    }
}

void session::reply(uint32_t xid, const of10::message_body &body) {
    if (!of10::encode(connection_.replies(), xid, body)) {
        log(log_level::error, "%s: a message that is too long was not sent", name_.c_str());
    }
}

void session::refuse(of10::byte_view wire, const refusal &why) {
    log(log_level::debug, "%s: refused: %s", name_.c_str(), why.reason);
    of10::encode_error(connection_.replies(), wire, why.type, why.code);
}

// What nobody asked for must not be left out silently, nor pile up without end.
void session::tell(const of10::message_body &body) {
    const bool is_too_much = connection_.replies().size() >= unread_limit;
    reply(own_xid, body);
    if (is_too_much) {
        connection_.close("the controller does not read what it is told");
    } else {
        connection_.send();
    }
}

void session::packet_in(const of10::packet_in_fields &fields, of10::byte_view frame) {
    of10::bytes *const queue = connection_.packets();
    if (queue != nullptr && !of10::encode_packet_in(*queue, own_xid, fields, frame)) {
        log(log_level::error, "%s: a frame that is too long was not sent", name_.c_str());
    }
}

/* ---- flow-mods ------------------------------------------------------------------------------------------------- */

void session::take_flow_mod(of10::flow_mod &&body, of10::byte_view wire) {
    const auto on_refused = [this](uint64_t token, const refusal &why) { refuse(gathered_[token], why); };
    if (body.buffer_id == of10::buffer_none || body.command == of10::flow_mod_command::del ||
        body.command == of10::flow_mod_command::del_strict) {
        gathered_.push_back(wire);
        datapath_.mods.submit(std::move(body), gathered_.size() - 1, on_refused, clock_now());
        return;
    }
    flush();
    const uint32_t buffer_id = body.buffer_id;
    const of10::action_list actions = body.actions;
    auto refused = datapath_.mods.apply(std::move(body), clock_now());
    if (!refused) {
        refused = datapath_.packets.release(buffer_id, actions);
    }
    if (refused) {
        refuse(wire, *refused);
    }
}

void session::flush() {
    if (!gathered_.empty()) {
        datapath_.mods.flush([this](uint64_t token, const refusal &why) { refuse(gathered_[token], why); });
        gathered_.clear();
    }
}

/* ---- plain requests -------------------------------------------------------------------------------------------- */

void session::handle(const request &, of10::hello &) {
    if (!is_ready_) {
        is_ready_ = true;
        const std::string peer = connection_.bytes().peer();
        patience_.stop();
        say("connected" + (peer.empty() ? "" : " as " + peer));
        on_.ready(*this);
    }
}

void session::handle(const request &, of10::error &body) {
    if (complaints_.take()) {
        log(log_level::notice, "%s: the controller reports error type %u code %u", name_.c_str(), body.type, body.code);
    }
}

void session::handle(const request &from, of10::echo_request &body) {
    reply(from.xid, of10::echo_reply{std::move(body.data)});
}

void session::handle(const request &from, of10::vendor &) {
    refuse(from.wire, bad_request(of10::bad_request::bad_vendor, "a vendor's message"));
}

void session::handle(const request &from, of10::features_request &) {
    reply(from.xid, datapath_.features());
}

void session::handle(const request &from, of10::get_config_request &) {
    reply(from.xid, of10::get_config_reply{config_.flags, config_.miss_send_len});
}

// Fragments are treated as the hardware treats them, normally; who asks for something else has to know that.
void session::handle(const request &from, of10::set_config &body) {
    if (body.flags != of10::config_flag::frag_normal) {
        log(log_level::notice,
            "%s: configuration flags %#x are refused: fragments can neither be dropped nor put together", name_.c_str(),
            static_cast<unsigned>(body.flags));
        refuse(from.wire, bad_request(of10::bad_request::eperm, "fragments are treated normally"));
        return;
    }
    config_ = body;
}

void session::handle(const request &from, of10::packet_out &body) {
    if (const auto refused = datapath_.packets.packet_out(std::move(body))) {
        refuse(from.wire, *refused);
    }
}

void session::handle(const request &from, of10::port_mod &body) {
    if (const auto refused = datapath_.port_mod(body)) {
        refuse(from.wire, *refused);
    }
}

// Everything before it was written and read back already: flow-mods by the flush before this.
void session::handle(const request &from, of10::barrier_request &) {
    reply(from.xid, of10::barrier_reply{});
}

void session::handle(const request &from, of10::queue_get_config_request &body) {
    if (datapath_.known_ports.find(body.port) == nullptr) {
        refuse(from.wire, {of10::error_type::queue_op_failed, of10::queue_op_failed::bad_port, "no such port"});
        return;
    }
    reply(from.xid, of10::queue_get_config_reply{body.port, {}});
}

/* ---- statistics ------------------------------------------------------------------------------------------------ */

void session::handle(const request &from, of10::stats_request &body) {
    std::visit([&](const auto &asked) { answer(from, asked); }, body.body);
}

void session::answer(const request &from, const of10::desc_stats_request &) {
    reply(from.xid, of10::stats_reply{0, of10::desc_stats{manufacturer, hardware_text, software_text, serial_text,
                                                          datapath_.identity.description}});
}

std::vector<flow *> session::flows_of(const of10::flow_match &match, uint8_t table_id, uint16_t out_port) const {
    if (table_id != 0 && table_id != of10::table_all) {
        return {};
    }
    return datapath_.flows.covered(of10::match_normalize(match), out_port);
}

void session::answer(const request &from, const of10::flow_stats_request &body) {
    const std::vector<flow *> asked = flows_of(body.match, body.table_id, body.out_port);
    const std::vector<rules::counts> counts = datapath_.programmed.read_counts(asked);
    const nanoseconds now = clock_now();
    of10::stats_reply_writer writer(connection_.replies(), from.xid, of10::stats_type::flow);
    for (size_t i = 0; i < asked.size(); i++) {
        const flow &one = *asked[i];
        const nanoseconds age = now - one.created;
        of10::flow_stats entry;
        entry.match = one.match;
        entry.duration_sec = static_cast<uint32_t>(age / second_ns);
        entry.duration_nsec = static_cast<uint32_t>(age % second_ns);
        entry.priority = one.priority;
        entry.idle_timeout = one.idle_timeout;
        entry.hard_timeout = one.hard_timeout;
        entry.cookie = one.cookie;
        entry.packet_count = counts[i].packets;
        entry.byte_count = counts[i].bytes;
        entry.actions = one.actions;
        if (!writer.add(entry)) {
            log(log_level::error, "%s: a flow is too long to be told", name_.c_str());
        }
    }
    writer.finish();
}

void session::answer(const request &from, const of10::aggregate_stats_request &body) {
    const std::vector<flow *> asked = flows_of(body.match, body.table_id, body.out_port);
    of10::aggregate_stats sum;
    sum.flow_count = static_cast<uint32_t>(asked.size());
    for (const rules::counts &one : datapath_.programmed.read_counts(asked)) {
        const bool is_known = one.packets != of10::counter_unknown && sum.packet_count != of10::counter_unknown;
        sum.packet_count = is_known ? sum.packet_count + one.packets : of10::counter_unknown;
        sum.byte_count = is_known ? sum.byte_count + one.bytes : of10::counter_unknown;
    }
    reply(from.xid, of10::stats_reply{0, sum});
}

void session::answer(const request &from, const of10::table_stats_request &) {
    of10::table_stats entry;
    entry.name = datapath_.table.name();
    entry.wildcards = of10::wildcard::all;
    entry.max_entries = datapath_.table.size();
    entry.active_count = static_cast<uint32_t>(datapath_.flows.size());
    entry.lookup_count = of10::counter_unknown;
    entry.matched_count = of10::counter_unknown;
    reply(from.xid, of10::stats_reply{0, std::vector{entry}});
}

void session::answer(const request &from, const of10::port_stats_request &body) {
    std::vector<of10::port_stats> entries;
    if (body.port_no == of10::ports::none) {
        for (const auto &[number, port] : datapath_.known_ports.all()) {
            entries.push_back(ports::read_stats(number));
        }
    } else if (datapath_.known_ports.find(body.port_no) != nullptr) {
        entries.push_back(ports::read_stats(body.port_no));
    }
    reply(from.xid, of10::stats_reply{0, std::move(entries)});
}

void session::answer(const request &from, const of10::queue_stats_request &body) {
    if (body.port_no != of10::ports::all && datapath_.known_ports.find(body.port_no) == nullptr) {
        refuse(from.wire, {of10::error_type::queue_op_failed, of10::queue_op_failed::bad_port, "no such port"});
        return;
    }
    if (body.queue_id != of10::queue_all) {
        refuse(from.wire, {of10::error_type::queue_op_failed, of10::queue_op_failed::bad_queue, "no such queue"});
        return;
    }
    reply(from.xid, of10::stats_reply{0, std::vector<of10::queue_stats>{}});
}

void session::answer(const request &from, const of10::vendor_stats &) {
    refuse(from.wire, bad_request(of10::bad_request::bad_vendor, "a vendor's statistics"));
}

} // namespace agent
