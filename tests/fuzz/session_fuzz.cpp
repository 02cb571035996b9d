/*
 * The agent's sessions: two controllers that say anything at all, frames, links and the clock, over the library on the
 * software platform. Controllers are sockets and the loop is the daemon's own, so connections, queues and the order of
 * things are the real ones.
 *
 * Nothing may crash or hang; whatever the agent says can be decoded; and whatever one controller did, the next one is
 * served: it gets its features, all flows, a barrier reply. At the end of each input agent, flows database, resource
 * manager and read-back agree rule by rule, everything can be deleted, and nothing is left in hardware.
 *
 * The library stays up from one input to the next; the agent does not.
 */
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <event2/event.h>

#include <memory>
#include <optional>

#include "agent/controllers.h"
#include "agent/introspect.h"
#include "agent/log.h"
#include "kr_connector.h"
#include "kr_soft.h"
#include "table_audit.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/fake_connector.h"

using kr_fuzz::input;
using kr_fuzz::require;

namespace {

constexpr uint32_t port_count = 4;
constexpr uint32_t log_port_base = 0x10000;
constexpr int operations_max = 200;
constexpr int turns_max = 10'000;

/* ---- the library, once ------------------------------------------------------------------------------------------ */

void ignore_log(uint32_t, const char *, const char *) {}

class switch_below {
  public:
    switch_below() : connector_(FAKE_PLUGIN_DIR "/fake_connector.so") {
        for (uint32_t port = 1; port <= port_count; port++) {
            require(kr_soft_port_add_memory(log_port_base + port) == KR_STATUS_SUCCESS, "a port in memory");
        }
        system_profile profile{};
        strcpy(profile.connector_library_path, FAKE_PLUGIN_DIR "/fake_connector.so");
        strcpy(profile.fpt_library_path, FAKE_PLUGIN_DIR "/fake_fpt.so");
        require(kr_sdn_hal_init(&profile, ignore_log) == KR_SDN_HAL_STATUS_SUCCESS, "the library comes up");
        require(kr_sdn_hal_srvc_open(&channel_) == KR_SDN_HAL_STATUS_SUCCESS &&
                    kr_sdn_hal_srvc_event_register(&channel_, EVENT_PORT_CAPABILITIES_UPDATE) ==
                        KR_SDN_HAL_STATUS_SUCCESS,
                "a channel for ports");
        require(connector_->event_callback(CONN_EVENT_START, nullptr) == KR_SDN_HAL_STATUS_SUCCESS, "a start");
        for (uint32_t port = 1; port <= port_count; port++) {
            conn_port_record added{};
            added.log_port = log_port_base + port;
            added.ifindex = port;
            snprintf(added.interface_name, sizeof added.interface_name, "port%u", port);
            added.mac_address[0] = 2;
            added.mac_address[5] = static_cast<uint8_t>(port);
            require(connector_->event_callback(CONN_EVENT_PORT_ADDED, &added) == KR_SDN_HAL_STATUS_SUCCESS, "a port");
            auto record = std::make_unique<hal_event_record>();
            require(kr_sdn_hal_srvc_recv(&channel_, record.get()) == KR_SDN_HAL_STATUS_SUCCESS, "its event");
            ports_.push_back(record->payload.port_update);
        }
        kr_soft_usage_get(&empty_);
    }

    const std::vector<hal_event_port_update> &ports() const {
        return ports_;
    }
    void require_empty() const {
        kr_soft_usage now;
        kr_soft_usage_get(&now);
        require(now.rule_count == empty_.rule_count, "no rule is left in hardware");
        require(now.group_count == empty_.group_count, "no group is left in hardware");
        require(now.counter_count == empty_.counter_count, "no counter is left in hardware");
    }

  private:
    kr_test::loaded_fake_connector connector_;
    srvc_handle channel_{};
    std::vector<hal_event_port_update> ports_;
    kr_soft_usage empty_{};
};

switch_below &the_switch() {
    static switch_below *const one = new switch_below; // for the life of the process
    return *one;
}

/* ---- a controller ----------------------------------------------------------------------------------------------- */

class controller {
  public:
    explicit controller(const sockaddr_un &where)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        require(fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr *>(&where), sizeof where) == 0,
                "the agent listens");
    }
    ~controller() {
        close(fd_);
    }
    controller(const controller &) = delete;
    controller &operator=(const controller &) = delete;

    void say(of10::byte_view bytes) {
        unsent_.insert(unsent_.end(), bytes.begin(), bytes.end());
    }
    void say(uint32_t xid, const of10::message_body &body) {
        (void)!of10::encode(unsent_, xid, body);
    }

    // One look at the socket, both ways. What the agent says is always a message.
    template <typename function> void turn(function heard) {
        if (!unsent_.empty()) {
            const ssize_t sent = send(fd_, unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
            unsent_.erase(unsent_.begin(), unsent_.begin() + std::max<ssize_t>(sent, 0));
        }
        uint8_t piece[65536];
        for (ssize_t got; (got = recv(fd_, piece, sizeof piece, 0)) > 0;) {
            received_.insert(received_.end(), piece, piece + got);
        }
        of10::byte_view rest(received_);
        for (size_t size; (size = of10::message_size(rest)) != 0 && size <= rest.size(); rest = rest.subspan(size)) {
            const of10::decode_result result = of10::decode(rest.first(size));
            require(std::holds_alternative<of10::message>(result), "what the agent says can be decoded");
            heard(std::get<of10::message>(result));
        }
        received_.erase(received_.begin(), received_.end() - static_cast<std::ptrdiff_t>(rest.size()));
    }

  private:
    int fd_;
    of10::bytes unsent_, received_;
};

/* ---- the agent -------------------------------------------------------------------------------------------------- */

class daemon {
  public:
    daemon()
        : path_("krsdn-fuzz-" + std::to_string(getpid())), state_({{}, "fuzzed"},
                                                                  [](uint16_t port, of10::byte_view) {
                                                                      return port % 2 == 0; // some frames are not taken
                                                                  }),
          controllers_(loop_, state_, {.probe = 0, .tls = nullptr}) {
        agent::log_level_set(agent::log_level::error);
        agent::endpoint here;
        here.kind = agent::endpoint::transport::unix_socket;
        here.is_listening = true;
        here.address = directory() + "/" + path_;
        (void)unlink(here.address.c_str());
        std::string why;
        require(controllers_.listen(here, &why), why.c_str());
        address_.sun_family = AF_UNIX;
        require(here.address.size() < sizeof address_.sun_path, "a short path");
        memcpy(address_.sun_path, here.address.c_str(), here.address.size());
        state_.set_audience(controllers_);
        state_.switch_ready();
        for (const hal_event_port_update &port : the_switch().ports()) {
            state_.port_added(port);
        }
        controllers_.start();
    }
    ~daemon() {
        controllers_.stop();
        state_.shut_down();
        (void)unlink(address_.sun_path);
    }
    daemon(const daemon &) = delete;
    daemon &operator=(const daemon &) = delete;

    void turn() {
        event_base_loop(loop_.base(), EVLOOP_NONBLOCK);
    }
    const sockaddr_un &address() const {
        return address_;
    }
    agent::datapath &state() {
        return state_;
    }

  private:
    static std::string directory() {
        const char *const given = getenv("TMPDIR");
        return given != nullptr && *given != '\0' ? given : "/tmp";
    }

    std::string path_;
    sockaddr_un address_{};
    agent::event_loop loop_;
    agent::datapath state_;
    agent::controllers controllers_;
};

/* ---- what may happen -------------------------------------------------------------------------------------------- */

uint16_t port_of(input *from) {
    const uint32_t chosen = from->below(12);
    constexpr uint16_t special[] = {of10::ports::in_port, of10::ports::table, of10::ports::normal,
                                    of10::ports::flood,   of10::ports::all,   of10::ports::controller,
                                    of10::ports::none};
    return chosen < port_count                        ? static_cast<uint16_t>(the_switch().ports()[chosen].port)
           : chosen - port_count < std::size(special) ? special[chosen - port_count]
                                                      : from->take<uint16_t>();
}

of10::action_list actions_of(input *from) {
    of10::action_list list;
    for (uint32_t left = from->below(4); left > 0; left--) {
        switch (from->below(8)) {
        case 0:
            list.push_back(of10::action_set_vlan_vid{static_cast<uint16_t>(from->below(4096))});
            break;
        case 1:
            list.push_back(of10::action_set_vlan_pcp{static_cast<uint8_t>(from->below(8))});
            break;
        case 2:
            list.push_back(of10::action_strip_vlan{});
            break;
        case 3:
            list.push_back(of10::action_set_nw_src{from->take<uint32_t>()});
            break;
        default:
            list.push_back(of10::action_output{port_of(from), from->take<uint16_t>()});
            break;
        }
    }
    return list;
}

// Few different values, so that requests meet each other.
of10::flow_match match_of(input *from) {
    of10::flow_match match;
    const auto wanted = from->take<uint8_t>();
    if ((wanted & 1) != 0) {
        match.wildcards &= ~of10::wildcard::in_port;
        match.in_port = port_of(from);
    }
    if ((wanted & 2) != 0) {
        match.wildcards &= ~of10::wildcard::dl_dst;
        match.dl_dst = {2, 0, 0, 0, 0, static_cast<uint8_t>(from->below(3))};
    }
    if ((wanted & 4) != 0) {
        match.wildcards &= ~of10::wildcard::dl_vlan;
        match.dl_vlan = from->below(2) == 0 ? of10::vlan_none : static_cast<uint16_t>(from->below(3));
    }
    if ((wanted & 8) != 0) {
        match.wildcards &= ~of10::wildcard::dl_type;
        match.dl_type = 0x0800;
        match.wildcards = (match.wildcards & ~of10::wildcard::nw_dst_bits) | from->below(34)
                                                                                 << of10::wildcard::nw_dst_shift;
        match.nw_dst = 0x0a000000 + from->below(4);
    }
    if ((wanted & 16) != 0) {
        match.wildcards = from->take<uint32_t>();
    }
    return match;
}

of10::message_body request_of(input *from) {
    switch (from->below(12)) {
    case 0:
        return of10::barrier_request{};
    case 1:
        return of10::stats_request{0, of10::flow_stats_request{match_of(from), of10::table_all, port_of(from)}};
    case 2: {
        of10::port_mod mod;
        mod.port_no = port_of(from);
        mod.hw_addr = {2, 0, 0, 0, 0, static_cast<uint8_t>(1 + from->below(port_count))};
        mod.config = from->take<uint8_t>();
        mod.mask = from->take<uint8_t>();
        return mod;
    }
    case 3:
        return of10::packet_out{from->below(2) == 0 ? of10::buffer_none : from->below(1024), port_of(from),
                                actions_of(from), from->take_bytes(from->below(100))};
    case 4:
        return of10::set_config{from->take<uint16_t>(), static_cast<uint16_t>(from->below(200))};
    default: {
        of10::flow_mod mod;
        mod.match = match_of(from);
        mod.command = static_cast<of10::flow_mod_command>(from->below(12) < 8 ? 0 : from->below(5));
        mod.priority = static_cast<uint16_t>(from->below(4) == 0 ? from->take<uint16_t>() : from->below(3));
        mod.cookie = from->take<uint8_t>();
        mod.idle_timeout = static_cast<uint16_t>(from->below(3));
        mod.hard_timeout = static_cast<uint16_t>(from->below(3));
        mod.buffer_id = from->below(4) != 0 ? of10::buffer_none : from->below(1024);
        mod.out_port = from->below(3) == 0 ? port_of(from) : of10::ports::none;
        mod.flags = static_cast<uint16_t>(from->below(8));
        mod.actions = actions_of(from);
        return mod;
    }
    }
}

class play {
  public:
    explicit play(input *from) : from_(from) {}

    void run() {
        for (int i = 0; i < operations_max && !from_->is_empty(); i++) {
            happen();
            turns(2);
        }
        for (auto &one : controllers_) {
            one.reset();
        }
        turns(2);
        require_service();
        require_agreement();
        require_all_deleted();
    }

  private:
    controller &chosen(bool greets) {
        auto &one = controllers_[from_->below(2)];
        if (one == nullptr) {
            one = std::make_unique<controller>(daemon_.address());
            if (greets) {
                one->say(1, of10::hello{});
            }
        }
        return *one;
    }

    void happen() {
        switch (from_->below(12)) {
        case 0: // bytes of any kind, from the very first one
            chosen(false).say(from_->take_bytes(from_->below(300)));
            break;
        case 1: { // a message whose head is right
            std::vector<uint8_t> message = from_->take_bytes(of10::header_size + from_->below(200));
            message[0] = of10::protocol_version;
            message[2] = static_cast<uint8_t>(message.size() >> 8);
            message[3] = static_cast<uint8_t>(message.size());
            chosen(true).say(message);
            break;
        }
        case 2: {
            auto packet = std::make_unique<hal_event_packet>();
            packet->in_port = port_of(from_);
            const std::vector<uint8_t> frame = from_->take_bytes(14 + from_->below(150));
            memcpy(packet->data, frame.data(), frame.size());
            packet->length = static_cast<uint32_t>(frame.size());
            daemon_.state().packet_received(*packet, static_cast<of10::packet_in_reason>(from_->below(2)));
            daemon_.state().packets_end();
            break;
        }
        case 3:
            daemon_.state().link_changed(port_of(from_), from_->below(2) == 0);
            break;
        case 4:
            later_ += static_cast<agent::nanoseconds>(from_->below(4)) * agent::second_ns;
            daemon_.state().turn(agent::clock_now() + later_);
            break;
        case 5: // gone, with whatever was half said
            controllers_[from_->below(2)].reset();
            break;
        case 6: {
            const hal_event_port_update &port = the_switch().ports()[from_->below(port_count)];
            if (from_->below(2) == 0) {
                daemon_.state().port_removed(port.port);
            } else {
                daemon_.state().port_added(port);
            }
            break;
        }
        default:
            chosen(true).say(from_->take<uint8_t>(), request_of(from_));
            break;
        }
    }

    void turns(int count) {
        for (int i = 0; i < count; i++) {
            for (auto &one : controllers_) {
                if (one != nullptr) {
                    one->turn([](const of10::message &) {});
                }
            }
            daemon_.turn();
        }
    }

    // Says it all to a controller that behaves, until the answer to the last of it is there.
    template <typename function> void exchange(controller &with, uint32_t xid, function heard) {
        with.say(xid, of10::barrier_request{});
        bool is_over = false;
        for (int i = 0; i < turns_max && !is_over; i++) {
            with.turn([&](const of10::message &one) {
                is_over |= one.xid == xid && std::holds_alternative<of10::barrier_reply>(one.body);
                heard(one);
            });
            daemon_.turn();
        }
        require(is_over, "a barrier is answered");
    }

    void require_service() {
        controller next(daemon_.address());
        next.say(1, of10::hello{});
        next.say(2, of10::features_request{});
        next.say(3, of10::stats_request{0, of10::flow_stats_request{}});
        size_t flows = 0;
        bool has_features = false, has_end = false;
        exchange(next, 4, [&](const of10::message &one) {
            has_features |= one.xid == 2 && std::holds_alternative<of10::features_reply>(one.body);
            if (const auto *reply = std::get_if<of10::stats_reply>(&one.body); reply != nullptr && one.xid == 3) {
                flows += std::get<std::vector<of10::flow_stats>>(reply->body).size();
                has_end |= (reply->flags & of10::stats_reply_more) == 0;
            }
        });
        require(has_features && has_end, "a new controller is served");
        require(flows == daemon_.state().flows.size(), "every flow is told");
    }

    void require_agreement() {
        const agent::audit_view audit = agent::introspect_audit(daemon_.state(), platform_);
        require(audit.findings.empty(), audit.findings.empty() ? "" : audit.findings.front().text.c_str());
        const auto found = kr_audit::audit_table().findings;
        require(found.empty(), found.empty() ? "" : kr_audit::to_text(found.front()).c_str());
    }

    void require_all_deleted() {
        controller last(daemon_.address());
        of10::flow_mod everything;
        everything.command = of10::flow_mod_command::del;
        last.say(1, of10::hello{});
        last.say(2, everything);
        exchange(last, 3, [](const of10::message &) {});
        require(daemon_.state().flows.size() == 0, "all flows are deleted");
    }

    input *from_;
    daemon daemon_;
    std::unique_ptr<controller> controllers_[2];
    agent::platform_view platform_;
    agent::nanoseconds later_ = 0;
};

} // namespace

KR_FUZZ_TARGET(const uint8_t *data, size_t size) {
    (void)the_switch();
    input from(data, size);
    play(&from).run();
    the_switch().require_empty();
    return 0;
}
