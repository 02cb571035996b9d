/*
 * The table of commands. An answer that is a list is made record by record while it is read, from a copy of the plain
 * records: so it is of one moment, and costs little memory.
 */
#include "control_commands.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "introspect.h"
#include "log.h"
#include "of10/text.h"
#include "packet_text.h"
#include "trace.h"

namespace agent {
namespace {

using json = nlohmann::ordered_json;

constexpr int max_depth = 4; // of a request

std::string text_of(const json &record) {
    return record.dump(-1, ' ', true, json::error_handler_t::replace); // bytes that are no UTF-8 are replaced
}

double seconds(nanoseconds time) {
    return static_cast<double>(time / millisecond_ns) / 1000;
}

double wall_clock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec / 1000) / 1e6;
}

json count(uint64_t value) {
    return value == of10::counter_unknown ? json() : json(value);
}

std::string hexadecimal(uint64_t value, int digits) {
    char text[24];
    std::snprintf(text, sizeof text, "%0*llx", digits, static_cast<unsigned long long>(value));
    return text;
}

std::string bytes_text(of10::byte_view bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

/* ---- answers --------------------------------------------------------------------------------------------------- */

// Records, each told by `tell` when its turn comes; then the end.
template <typename Record, typename Tell> class list_answer final : public control_answer {
  public:
    list_answer(std::vector<Record> records, Tell tell) : records_(std::move(records)), tell_(std::move(tell)) {}
    bool next(std::string &line) override {
        if (next_ > records_.size()) {
            return false;
        }
        line = next_ == records_.size() ? control_end() : text_of(tell_(records_[next_]));
        next_++;
        return true;
    }

  private:
    std::vector<Record> records_;
    Tell tell_;
    size_t next_ = 0;
};

template <typename Record, typename Tell> control_reply list(std::vector<Record> records, Tell tell) {
    return {std::make_unique<list_answer<Record, Tell>>(std::move(records), std::move(tell)), {}};
}

control_reply list(std::vector<json> records) {
    return list(std::move(records), [](const json &one) { return one; });
}

class refusal_answer final : public control_answer {
  public:
    explicit refusal_answer(std::string message) : message_(std::move(message)) {}
    bool next(std::string &line) override {
        line = is_told_ ? "" : control_error(message_);
        return !std::exchange(is_told_, true);
    }

  private:
    std::string message_;
    bool is_told_ = false;
};

control_reply refuse(std::string message) {
    return {std::make_unique<refusal_answer>(std::move(message)), {}};
}

/* ---- commands -------------------------------------------------------------------------------------------------- */

struct scene {
    datapath &of;
    const controllers &connected;
    const platform_view &platform;
    const control_server &server;
    nanoseconds started;
    const json &request;
};

json platform_name(const scene &s) {
    return s.platform.platform() != nullptr ? json(s.platform.platform()) : json();
}

control_reply show(const scene &s) {
    json controllers_told = json::array();
    for (const controllers::peer_view &one : s.connected.view()) {
        controllers_told.push_back({{"endpoint", one.endpoint},
                                    {"state", one.state},
                                    {"messages_received", one.counts.messages_received},
                                    {"bytes_received", one.counts.bytes_received},
                                    {"bytes_sent", one.counts.bytes_sent},
                                    {"packet_ins_dropped", one.counts.packets_dropped}});
    }
    json told = {{"version", KR_AGENT_VERSION},
                 {"pid", getpid()},
                 {"uptime_s", seconds(clock_now() - s.started)},
                 {"datapath_id", hexadecimal(s.of.id(), 16)},
                 {"description", s.of.identity.description},
                 {"table",
                  {{"name", s.of.table.name()},
                   {"size", s.of.table.size()},
                   {"flows", s.of.flows.size()},
                   {"rules", s.of.programmed.installed_count()},
                   {"counters", counter_budget},
                   {"counters_used", s.of.programmed.counters_used()},
                   {"groups", s.of.programmed.groups().size()}}},
                 {"ports", s.of.known_ports.all().size()},
                 {"platform", platform_name(s)},
                 {"control_socket", s.server.path()},
                 {"clients", s.server.client_count()},
                 {"streams", s.server.stream_count()},
                 {"controllers", std::move(controllers_told)}};
    return list({std::move(told)});
}

json port_told(const of10::phy_port &port) {
    const of10::port_stats stats = ports::read_stats(port.port_no);
    constexpr std::pair<uint32_t, unsigned> speeds[] = {{of10::port_feature::speed_10mb_fd, 10},
                                                        {of10::port_feature::speed_100mb_fd, 100},
                                                        {of10::port_feature::speed_1gb_fd, 1000},
                                                        {of10::port_feature::speed_10gb_fd, 10000}};
    json speed;
    for (const auto &[bit, mbit] : speeds) {
        speed = (port.curr & bit) != 0 ? json(mbit) : speed;
    }
    return {{"port", port.port_no},
            {"name", port.name},
            {"address", of10::mac_name(port.hw_addr)},
            {"link", (port.state & of10::port_state::link_down) != 0 ? "down" : "up"},
            {"config", port_config_text(port.config)},
            {"speed_mbit", speed},
            {"rx_packets", count(stats.rx_packets)},
            {"rx_bytes", count(stats.rx_bytes)},
            {"rx_dropped", count(stats.rx_dropped)},
            {"rx_errors", count(stats.rx_errors)},
            {"tx_packets", count(stats.tx_packets)},
            {"tx_bytes", count(stats.tx_bytes)},
            {"tx_dropped", count(stats.tx_dropped)},
            {"tx_errors", count(stats.tx_errors)}};
}

control_reply show_ports(const scene &s) {
    std::vector<of10::phy_port> all;
    for (const auto &[number, port] : s.of.known_ports.all()) {
        all.push_back(port);
    }
    return list(std::move(all), port_told);
}

const char *action_name(uint32_t action) {
    switch (action) {
    case FLOW_ACTION_DROP:
        return "drop";
    case FLOW_ACTION_CONTROLLER:
        return "trap";
    case FLOW_ACTION_OUTPUT:
        return "forward";
    case FLOW_ACTION_FLOOD:
        return "flood";
    case FLOW_ACTION_MC_GROUP:
        return "group";
    default:
        return "none";
    }
}

json flow_told(const flow_view &one, const std::map<uint64_t, krsdn_inspected_rule> &rules) {
    const auto rule = rules.find(one.rule_id);
    const bool is_placed = rule != rules.end();
    return {{"priority", one.priority},
            {"match", to_string(one.match)},
            {"actions", to_string(one.actions)},
            {"cookie", "0x" + hexadecimal(one.cookie, 1)},
            {"idle_timeout", one.idle_timeout},
            {"hard_timeout", one.hard_timeout},
            {"send_flow_removed", (one.flags & of10::flow_mod_flag::send_flow_rem) != 0},
            {"age_s", seconds(one.age)},
            {"idle_s", seconds(one.idle)},
            {"hit", one.idle != one.age},
            {"packets", count(one.packets)},
            {"bytes", count(one.bytes)},
            {"rule", one.rule_id != 0 ? json(one.rule_id) : json()},
            {"rule_action", one.rule_id != 0 ? json(action_name(one.rule_action)) : json()},
            {"counter", one.has_counter},
            {"offset", is_placed ? json(rule->second.offset) : json()},
            {"hit_packets", is_placed ? json(rule->second.hit_packets) : json()},
            {"hit_bytes", is_placed ? json(rule->second.hit_bytes) : json()}};
}

control_reply show_flows(const scene &s) {
    std::vector<flow_view> views = introspect_flows(s.of, clock_now());
    auto rules = s.platform.rules();
    const auto offset_of = [&](const flow_view &one) {
        const auto found = rules.find(one.rule_id);
        return found == rules.end() ? UINT32_MAX : found->second.offset;
    };
    const auto before = [&](const flow_view &a, const flow_view &b) {
        const uint32_t left = flow_rank(a.match, a.priority);
        const uint32_t right = flow_rank(b.match, b.priority);
        return left != right ? left > right : offset_of(a) < offset_of(b);
    };
    std::stable_sort(views.begin(), views.end(), before);
    return list(std::move(views), [rules = std::move(rules)](const flow_view &one) { return flow_told(one, rules); });
}

control_reply show_groups(const scene &s) {
    return list(introspect_groups(s.of), [](const group_view &one) {
        return json{{"group", one.id}, {"ports", one.ports}, {"rules", one.user_count}};
    });
}

control_reply show_counters(const scene &s) {
    const counters_view view = introspect_counters(s.of, s.connected);
    std::vector<json> all;
    const auto add = [&](const char *group, const std::string &name, uint64_t value) {
        all.push_back({{"group", group}, {"name", name}, {"count", value}});
    };
    add("packets", "frames from the switch", view.packets.received);
    add("packets", "dropped: no controller is connected", view.packets.no_controller);
    add("packets", "dropped: the port sends no packet-ins", view.packets.no_packet_in);
    add("packets", "packet-ins dropped: a controller did not read", view.packet_ins_dropped);
    add("packets", "packet-ins lost with a controller's connection", view.lost.packet_ins);
    add("packets", "kept frames overwritten before they were asked for", view.packets.overwritten);
    add("packets", "frames into the switch", view.packets.sent);
    add("packets", "not sent: the switch did not take the frame", view.packets.send_failed);
    add("rules", "calls of the library that failed", view.rules.refused);
    add("rules", "batches that failed in the middle", view.rules.lost_batches);
    add("rules", "rules that read back otherwise", view.rules.mismatches);
    add("rules", "left over now, and tried again: hardware did not let them go", view.strays);
    add("rules", "replacements with a gap, for the table was full", view.rules.gaps);
    add("events", "lost with a controller's connection: it had not taken them", view.lost.notices);
    add("events", "told to no controller: none was connected", view.untold);
    add("events", "not told to a client of the control socket: it did not read", s.server.lost_count());
    for (const platform_view::drop &one : s.platform.drops()) {
        add("platform", "dropped: " + one.reason, one.count);
    }
    return list(std::move(all));
}

control_reply show_audit(const scene &s) {
    const audit_view view = introspect_audit(s.of, s.platform);
    std::vector<json> all;
    for (const audit_finding &one : view.findings) {
        all.push_back({{"rule", one.rule_id != 0 ? json(one.rule_id) : json()}, {"finding", one.text}});
    }
    all.push_back({{"findings", view.findings.size()},
                   {"flows", view.flow_count},
                   {"rules", view.rule_count},
                   {"groups", view.group_count},
                   {"platform", view.has_platform ? platform_name(s) : json()}});
    return list(std::move(all));
}

/* ---- trace ----------------------------------------------------------------------------------------------------- */

const char *verdict_name(trace_verdict verdict) {
    switch (verdict) {
    case trace_verdict::taken:
        return "taken";
    case trace_verdict::hidden:
        return "hidden";
    case trace_verdict::absent:
        return "no rule";
    case trace_verdict::differs:
        break;
    }
    return "differs";
}

// What becomes of the packet whatever the flows say; empty: the flows decide.
std::string port_verdict(const datapath &of, uint16_t in_port) {
    const of10::phy_port *const port = of.known_ports.find(in_port);
    if (port == nullptr) {
        return "there is no port " + std::to_string(in_port);
    }
    if ((port->state & of10::port_state::link_down) != 0) {
        return "the link of port " + std::to_string(in_port) + " is down: nothing enters there";
    }
    if ((port->config & of10::port_config::no_recv) != 0) {
        return "port " + std::to_string(in_port) + " must not receive: the agent's own rule drops the packet";
    }
    return {};
}

control_reply show_trace(const scene &s) {
    const auto wanted = s.request.find("packet");
    if (wanted == s.request.end() || !wanted->is_string()) {
        return refuse("\"packet\" is missing: the fields of a packet, as text");
    }
    const auto parsed = packet_parse(wanted->get<std::string>());
    if (const auto *wrong = std::get_if<std::string>(&parsed)) {
        return refuse(*wrong);
    }
    const auto &packet = std::get<of10::flow_match>(parsed);
    const auto rules = s.platform.rules();
    const auto offset_of = [&](const flow &one) {
        const auto found = rules.find(one.rule.id);
        return found == rules.end() ? UINT32_MAX : found->second.offset;
    };
    const std::string before = port_verdict(s.of, packet.in_port);
    std::vector<json> all;
    json taken;
    for (const trace_step &step : trace(s.of.flows, packet, offset_of)) {
        const uint32_t offset = offset_of(*step.one);
        json told = {{"verdict", before.empty() || step.verdict != trace_verdict::taken
                                     ? verdict_name(step.verdict)
                                     : verdict_name(trace_verdict::hidden)},
                     {"priority", step.one->priority},
                     {"match", to_string(step.one->match)},
                     {"actions", to_string(step.one->actions)},
                     {"rule", step.one->rule.id != 0 ? json(step.one->rule.id) : json()},
                     {"offset", offset != UINT32_MAX ? json(offset) : json()},
                     {"reason", step.reason}};
        taken = before.empty() && step.verdict == trace_verdict::taken ? told : taken;
        all.push_back(std::move(told));
    }
    std::string result = before;
    if (result.empty()) {
        result = !taken.is_null()        ? "the flow that is taken: " + taken["actions"].get<std::string>()
                 : s.connected.has_any() ? "no flow matches: to the controller"
                                         : "no flow matches, and no controller is connected: dropped";
    }
    all.push_back({{"packet", to_string(packet)}, {"result", result}, {"taken", std::move(taken)}});
    return list(std::move(all));
}

/* ---- log, capture, events -------------------------------------------------------------------------------------- */

control_reply set_log(const scene &s) {
    const auto module = s.request.find("module");
    const auto level = s.request.find("level");
    if ((module != s.request.end() || level != s.request.end()) &&
        (module == s.request.end() || level == s.request.end() || !module->is_string() || !level->is_string())) {
        return refuse("\"module\" and \"level\" go together, both as text");
    }
    std::string why;
    if (module != s.request.end() && !log_module_set(module->get<std::string>(), level->get<std::string>(), &why)) {
        return refuse(why);
    }
    return list(log_modules(), [](const log_module &one) { return json{{"module", one.name}, {"level", one.level}}; });
}

control_reply capture(const scene &s) {
    const auto port = s.request.find("port");
    if (port == s.request.end() || !port->is_number_unsigned() || port->get<uint64_t>() > UINT16_MAX ||
        s.of.known_ports.find(port->get<uint16_t>()) == nullptr) {
        return refuse("\"port\" has to be the number of a port");
    }
    return {nullptr, {.wants_events = false, .captured_port = port->get<uint16_t>()}};
}

control_reply watch_events(const scene &) {
    return {nullptr, {.wants_events = true, .captured_port = {}}};
}

struct command {
    const char *name;
    control_reply (*run)(const scene &);
};
constexpr command commands[] = {
    {"show", show},        {"ports", show_ports},       {"flows", show_flows}, {"groups", show_groups},
    {"audit", show_audit}, {"counters", show_counters}, {"trace", show_trace}, {"log", set_log},
    {"capture", capture},  {"events", watch_events},
};

} // namespace

control_commands::control_commands(event_loop &loop, datapath &of, const controllers &connected,
                                   const platform_view &platform)
    : datapath_(of), controllers_(connected), platform_(platform), started_(clock_now()),
      server_(loop, [this](std::string_view request) { return handle(request); }) {
    server_.on_watchers_changed = [this] { watchers_changed(); };
}

control_commands::~control_commands() {
    datapath_.feed.listener = {};
    datapath_.packets.watch = {};
}

bool control_commands::open(const std::string &path, std::string *why) {
    if (!path.empty()) {
        return server_.open(path, why);
    }
    const std::string usual = folder_.emplace().socket_path();
    if (usual.empty()) {
        *why = "there is no folder for the control socket";
        return false;
    }
    return server_.open(usual, why) || server_.open(usual + "." + std::to_string(getpid()), why);
}

control_reply control_commands::handle(std::string_view request) {
    const json parsed = json::parse(
        request.begin(), request.end(), [](int depth, json::parse_event_t, json &) { return depth <= max_depth; },
        false);
    if (!parsed.is_object()) {
        return refuse("a request is one JSON object in one line");
    }
    const auto name = parsed.find("command");
    if (name == parsed.end() || !name->is_string()) {
        return refuse("\"command\" is missing");
    }
    const auto *const found =
        std::find_if(std::begin(commands), std::end(commands), [&](const command &one) { return *name == one.name; });
    if (found == std::end(commands)) {
        return refuse("there is no command \"" + name->get<std::string>() + "\"");
    }
    return found->run({datapath_, controllers_, platform_, server_, started_, parsed});
}

// Only while somebody looks is anything put together for them.
void control_commands::watchers_changed() {
    datapath_.feed.listener = {};
    datapath_.packets.watch = {};
    if (server_.has_watchers()) {
        datapath_.feed.listener = [this](const happening &one) {
            server_.tell_event([&] {
                json told = {{"event", one.kind}, {"what", one.what}, {"subject", one.subject}, {"time", wall_clock()}};
                if (!one.detail.empty()) {
                    told["detail"] = one.detail;
                }
                return text_of(told);
            });
        };
    }
    if (server_.has_captures()) {
        datapath_.packets.watch = [this](uint16_t port, bool is_from_switch, of10::byte_view frame) {
            server_.tell_frame(port, [&] {
                return text_of({{"time", wall_clock()},
                                {"direction", is_from_switch ? "in" : "out"},
                                {"frame", bytes_text(frame)}});
            });
        };
    }
}

} // namespace agent
