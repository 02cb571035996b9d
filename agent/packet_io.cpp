/*
 * The bodies of packet_io.h.
 */
#include "packet_io.h"

#include <algorithm>

#include "clock.h"
#include "frame.h"

namespace agent {
namespace {

constexpr uint16_t whole_frame = 0xffff;

refusal refuse(of10::error_type type, uint16_t code, const char *reason) {
    return {type, code, reason};
}

} // namespace

/* ---- kept frames ----------------------------------------------------------------------------------------------- */

// A number is the slot in its low eight bits and, above, a count of how often the slots were gone through.
uint32_t packet_buffers::keep(of10::byte_view frame, uint16_t in_port) {
    entry &slot = entries_[next_ % count];
    overwritten_ += slot.id != of10::buffer_none && !slot.was_used ? 1 : 0;
    slot.id = next_;
    slot.in_port = in_port;
    slot.was_used = false;
    slot.frame.assign(frame.begin(), frame.end());
    next_ = (next_ + 1) & 0x7fffffff; // never buffer_none
    return slot.id;
}

std::variant<packet_buffers::entry, refusal> packet_buffers::take(uint32_t id) {
    entry &slot = entries_[id % count];
    if (slot.id != id) {
        return refuse(of10::error_type::bad_request, of10::bad_request::buffer_unknown, "no such buffer");
    }
    if (slot.was_used) {
        return refuse(of10::error_type::bad_request, of10::bad_request::buffer_empty, "a buffer that was used before");
    }
    slot.was_used = true;
    entry taken;
    taken.in_port = slot.in_port;
    taken.frame = std::move(slot.frame);
    slot.frame = {};
    return taken;
}

/* ---- from the switch ------------------------------------------------------------------------------------------- */

void packet_io::received(const hal_event_packet &packet, of10::packet_in_reason reason) {
    counts_.received++;
    const auto in_port = static_cast<uint16_t>(packet.in_port);
    if (watch) {
        watch(in_port, true, {packet.data, std::min<size_t>(packet.length, sizeof packet.data)});
    }
    if (!audience_.has_any()) {
        counts_.no_controller++;
        return;
    }
    const of10::phy_port *port = ports_.find(in_port);
    if (port != nullptr && (port->config & of10::port_config::no_packet_in) != 0) {
        counts_.no_packet_in++;
        return;
    }
    const of10::byte_view frame(packet.data, std::min<size_t>(packet.length, sizeof packet.data));
    deliver(reason, in_port, frame,
            reason == of10::packet_in_reason::action ? max_len_of(frame, in_port) : whole_frame);
}

void packet_io::deliver(of10::packet_in_reason reason, uint16_t in_port, of10::byte_view frame, uint16_t max_len) {
    of10::packet_in_fields fields;
    fields.in_port = in_port;
    fields.total_len = static_cast<uint16_t>(frame.size());
    fields.reason = reason;
    audience_.packet_in(fields, frame, max_len, [&] { return buffers_.keep(frame, in_port); });
}

// The hardware does not say which flow sent a frame here. That matters only when the flows do not agree on how much of
// it is wanted; then the frame is looked up.
uint16_t packet_io::max_len_of(of10::byte_view frame, uint16_t in_port) {
    const auto len_of = [](const flow &one) {
        std::optional<uint16_t> len;
        for (const of10::action &action : one.actions) {
            const auto *output = std::get_if<of10::action_output>(&action);
            if (output != nullptr && output->port == of10::ports::controller) {
                len = std::max(len.value_or(0), output->max_len);
            }
        }
        return len;
    };
    if (agreed_version_ != table_.version()) {
        agreed_version_ = table_.version();
        agreed_len_.reset();
        bool has_one = false;
        for (const auto &one : table_.all()) {
            const auto len = len_of(*one);
            if (len && has_one && len != agreed_len_) {
                agreed_len_.reset();
                break;
            }
            if (len) {
                agreed_len_ = len;
                has_one = true;
            }
        }
    }
    if (agreed_len_) {
        return *agreed_len_;
    }
    const flow *const found = table_.lookup(frame_match(frame, in_port));
    return found == nullptr ? whole_frame : len_of(*found).value_or(whole_frame);
}

/* ---- into the switch ------------------------------------------------------------------------------------------- */

std::optional<refusal> packet_io::check(const of10::action_list &actions, uint16_t in_port) const {
    const auto checked = actions_check(actions);
    if (const auto *refused = std::get_if<refusal>(&checked)) {
        return *refused;
    }
    for (const of10::action &one : actions) {
        const auto *output = std::get_if<of10::action_output>(&one);
        if (output == nullptr) {
            continue;
        }
        switch (output->port) {
        case of10::ports::table:
        case of10::ports::flood:
        case of10::ports::all:
        case of10::ports::controller:
            continue;
        case of10::ports::in_port:
            if (ports_.find(in_port) != nullptr) {
                continue;
            }
            break;
        default:
            if (ports_.find(output->port) != nullptr) {
                continue;
            }
        }
        return refuse(of10::error_type::bad_action, of10::bad_action::bad_out_port, "no such port");
    }
    return {};
}

std::optional<refusal> packet_io::packet_out(of10::packet_out &&request) {
    if (auto refused = check(request.actions, request.in_port)) {
        return refused;
    }
    work job{std::move(request.data), request.in_port, true};
    if (request.buffer_id != of10::buffer_none) {
        auto taken = buffers_.take(request.buffer_id);
        if (const auto *refused = std::get_if<refusal>(&taken)) {
            return *refused;
        }
        job.frame = std::move(std::get<packet_buffers::entry>(taken).frame);
    }
    if (job.frame.size() < min_frame_size && !request.actions.empty()) {
        return refuse(of10::error_type::bad_request, of10::bad_request::bad_len, "data that is no Ethernet frame");
    }
    execute(job, request.actions);
    return {};
}

std::optional<refusal> packet_io::release(uint32_t buffer_id, const of10::action_list &actions) {
    auto taken = buffers_.take(buffer_id);
    if (const auto *refused = std::get_if<refusal>(&taken)) {
        return *refused;
    }
    auto &kept = std::get<packet_buffers::entry>(taken);
    work job{std::move(kept.frame), kept.in_port, false};
    execute(job, actions);
    return {};
}

void packet_io::execute(work &job, const of10::action_list &actions) {
    for (const of10::action &one : actions) {
        if (const auto *to = std::get_if<of10::action_output>(&one)) {
            output(job, *to);
        } else if (const auto *vid = std::get_if<of10::action_set_vlan_vid>(&one)) {
            frame_set_vlan_id(job.frame, vid->vlan_vid);
        } else if (const auto *pcp = std::get_if<of10::action_set_vlan_pcp>(&one)) {
            frame_set_vlan_pcp(job.frame, pcp->vlan_pcp);
        } else if (std::holds_alternative<of10::action_strip_vlan>(one)) {
            frame_strip_vlan(job.frame);
        }
    }
}

void packet_io::output(work &job, const of10::action_output &to) {
    switch (to.port) {
    case of10::ports::in_port:
        output_port(job, job.in_port);
        return;
    case of10::ports::flood:
        output_many(job, of10::port_config::no_flood | of10::port_config::no_fwd);
        return;
    case of10::ports::all:
        output_many(job, of10::port_config::no_fwd);
        return;
    case of10::ports::controller:
        deliver(of10::packet_in_reason::action, job.in_port, job.frame, to.max_len);
        audience_.packets_send();
        return;
    case of10::ports::table:
        if (job.may_look_up) {
            look_up(job);
        }
        return;
    default:
        if (to.port != job.in_port) { // back to where it came from goes only what says IN_PORT
            output_port(job, to.port);
        }
    }
}

void packet_io::output_port(const work &job, uint16_t number) {
    const of10::phy_port *port = ports_.find(number);
    if (port == nullptr || (port->config & of10::port_config::no_fwd) != 0) {
        return;
    }
    const bool is_sent = send_(number, job.frame);
    if (watch && is_sent) {
        watch(number, false, job.frame);
    }
    (is_sent ? counts_.sent : counts_.send_failed)++;
}

void packet_io::output_many(const work &job, uint32_t excluding_config) {
    for (const auto &[number, port] : ports_.all()) {
        if (number != job.in_port && (port.config & excluding_config) == 0) {
            output_port(job, number);
        }
    }
}

// TABLE: what the hardware would do with the frame, in software.
void packet_io::look_up(const work &job) {
    flow *const found = table_.lookup(frame_match(job.frame, job.in_port));
    if (found == nullptr) {
        deliver(of10::packet_in_reason::no_match, job.in_port, job.frame, whole_frame);
        audience_.packets_send();
        return;
    }
    found->used = clock_now();
    found->earlier_packets++;
    found->earlier_bytes += job.frame.size();
    work inner{job.frame, job.in_port, false};
    execute(inner, found->actions);
}

} // namespace agent
