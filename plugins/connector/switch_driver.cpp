/*
 * The connector's decisions. The order of the steps in reconcile is the order of the events: start, forwarding of
 * control protocols, agent configuration, ports that go, ports that come; and, when the switch shall stop, ports,
 * forwarding, stop.
 */
#include "switch_driver.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "connector_log.h"
#include "kr_soft.h"
#include "log_sink.h"
#include "plugin_status.h"
#include "port_map.h"

namespace kr_connector {

using kr_plugin::hal_status_text;

namespace {

// The library finds a port that goes by its interface index, so ports on files have one too, above any of the kernel's.
constexpr uint32_t capture_ifindex_base = 0x4000'0000;

} // namespace

// ---- the gate

bool delivery_gate::enter(bool is_removal) {
    const std::lock_guard guard(lock_);
    if (is_closed_) {
        return false;
    }
    is_removing_ = is_removal;
    return true;
}

void delivery_gate::leave() {
    const std::lock_guard guard(lock_);
    is_removing_ = false;
}

bool delivery_gate::close() {
    const std::lock_guard guard(lock_);
    is_closed_ = !is_removing_;
    return is_closed_;
}

bool delivery_gate::is_closed() const {
    const std::lock_guard guard(lock_);
    return is_closed_;
}

// ---- life

switch_driver::switch_driver(const library_callbacks &library, std::string config_path, connector_config config,
                             delivery_gate &gate)
    : library_(library), config_path_(std::move(config_path)), gate_(gate), config_(std::move(config)),
      wanted_ports_(config_.ports) {}

switch_driver::~switch_driver() {
    for (const port &p : ports_) {
        port_take_out(p);
    }
}

bool switch_driver::open(std::string *why) {
    return links_monitor_.open(why) && file_monitor_.open(config_path_, why);
}

void switch_driver::start_request() {
    is_run_wanted_ = true;
    has_start_failed_ = false;
}

void switch_driver::reconcile() {
    static constexpr bool (switch_driver::*steps[])() = {
        &switch_driver::step_stop,  &switch_driver::step_start,  &switch_driver::step_forward,
        &switch_driver::step_agent, &switch_driver::step_remove, &switch_driver::step_add,
    };
    bool has_acted = true;
    while (has_acted && !gate_.is_closed()) {
        refresh();
        has_acted = std::any_of(std::begin(steps), std::end(steps), [this](auto step) { return (this->*step)(); });
    }
}

// ---- looking at the world

void switch_driver::refresh() {
    if (file_monitor_.drain()) {
        (void)config_reread(false);
    }
    links_monitor_.drain([this](const link_change &change) { on_link_change(change); });
    if (are_links_stale_) {
        std::string why;
        if (links_monitor_.list(&links_, &why)) {
            are_links_stale_ = false;
        } else {
            failure("the list of interfaces can't be read: " + why);
        }
    }
}

void switch_driver::on_link_change(const link_change &change) {
    if (change.what == link_change::kind::unknown) {
        failures_forget();
        are_links_stale_ = true;
        return;
    }
    const bool is_vanished = change.what == link_change::kind::vanished;
    for (port &p : ports_) {
        if (p.record.ifindex != change.ifindex) {
            continue;
        }
        if (is_vanished) {
            p.is_gone = true; // even if an interface of the same name and index is back already
        }
        if (is_vanished || p.interface_name != change.name) {
            p.has_removal_failed = false;
            are_links_stale_ = true;
        }
    }
    if (!wanted_ports_.contains(change.name)) {
        return;
    }
    are_links_stale_ = true;
    // Adding and removing a port changes its interface a little, so not every change is a reason to try again.
    const auto failed = failed_adds_.find(change.name);
    if (failed != failed_adds_.end() &&
        (is_vanished || failed->second.ifindex != change.ifindex || failed->second.is_up != change.is_up)) {
        failed_adds_.erase(failed);
    }
}

std::string switch_driver::config_reread(bool is_forced) {
    const config_result result = config_read(config_path_);
    if (!result.ok) {
        std::string all;
        for (const config_mistake &mistake : result.mistakes) {
            all += config_mistake_text(config_path_, mistake) + "\n";
        }
        if (is_forced || all != last_mistakes_) {
            for (const config_mistake &mistake : result.mistakes) {
                log_error(config_mistake_text(config_path_, mistake));
            }
            log_error(config_path_ + " is not applied; the configuration in force stays");
        }
        last_mistakes_ = all;
        return config_mistake_text(config_path_, result.mistakes.front());
    }
    last_mistakes_.clear();
    if (is_forced || !(result.config == config_)) {
        config_apply(result.config);
    }
    return {};
}

void switch_driver::config_apply(const connector_config &config) {
    log_notice("applying " + config_path_);
    if (std::memcmp(&config.agent, &config_.agent, sizeof(config.agent)) != 0 ||
        config.has_agent != config_.has_agent) {
        is_agent_sent_ = false;
    }
    config_ = config;
    wanted_ports_ = config.ports;
    are_links_stale_ = true; // changes of interfaces that were not wanted have not been followed
    log_sink_configure(config.log);
    failures_forget();
}

void switch_driver::failures_forget() {
    failed_adds_.clear();
    has_forward_failed_ = {};
    for (port &p : ports_) {
        p.has_removal_failed = false;
    }
}

// ---- the steps

bool switch_driver::step_stop() {
    if (is_run_wanted_ || !is_started_ || has_stop_failed_) {
        return false;
    }
    const auto left = std::find_if(ports_.begin(), ports_.end(), [](const port &p) { return !p.has_removal_failed; });
    if (left != ports_.end()) {
        return port_remove(*left);
    }
    for (size_t i = 0; ports_.empty() && i < forwarded_.size(); ++i) {
        if (forwarded_[i] && !has_forward_failed_[i]) {
            return forward_set(i, false);
        }
    }
    if (!ports_.empty()) {
        has_stop_failed_ = true;
        return false;
    }
    const auto status = deliver(CONN_EVENT_STOP, nullptr);
    if (status && *status != KR_SDN_HAL_STATUS_SUCCESS) {
        failure(std::string("the switch does not stop: ") + hal_status_text(*status));
        has_stop_failed_ = true;
    } else if (status) {
        log_notice("the switch has stopped");
        is_started_ = false;
    }
    return status.has_value();
}

bool switch_driver::step_start() {
    if (!is_run_wanted_ || is_started_ || has_start_failed_) {
        return false;
    }
    const auto status = deliver(CONN_EVENT_START, nullptr);
    if (status && *status != KR_SDN_HAL_STATUS_SUCCESS) {
        failure(std::string("the switch does not start: ") + hal_status_text(*status));
        has_start_failed_ = true;
    } else if (status) {
        log_notice("the switch has started");
        is_started_ = true;
        forwarded_ = {};
        is_agent_sent_ = false;
        failures_forget();
    }
    return status.has_value();
}

bool switch_driver::step_forward() {
    for (size_t i = 0; is_started_ && is_run_wanted_ && i < forwarded_.size(); ++i) {
        if (forwarded_[i] != config_.forward[i] && !has_forward_failed_[i]) {
            return forward_set(i, config_.forward[i]);
        }
    }
    return false;
}

bool switch_driver::step_agent() {
    if (!is_started_ || !is_run_wanted_ || is_agent_sent_ || !(config_.has_agent || is_agent_known_)) {
        return false;
    }
    conn_agent_config agent = config_.agent;
    if (!gate_.enter(false)) {
        return false;
    }
    const uint32_t status = library_.config(CONN_CONFIG_AGENT, &agent);
    gate_.leave();
    is_agent_known_ = config_.has_agent || status != KR_SDN_HAL_STATUS_SUCCESS;
    is_agent_sent_ = true; // tried; a failure is not tried again before the file changes or "config" asks for it
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        failure(std::string("the agent configuration is not accepted: ") + hal_status_text(status));
    }
    return true;
}

bool switch_driver::step_remove() {
    if (!is_started_ || !is_run_wanted_) {
        return false;
    }
    const auto stale = std::find_if(ports_.begin(), ports_.end(),
                                    [this](const port &p) { return !p.has_removal_failed && port_is_stale(p); });
    return stale != ports_.end() && port_remove(*stale);
}

bool switch_driver::step_add() {
    if (!is_started_ || !is_run_wanted_) {
        return false;
    }
    for (const auto &[name, requested] : wanted_ports_) {
        if (port_is_possible(name) && port_find(name) == nullptr && !failed_adds_.contains(name)) {
            port_add(name, requested);
            return true;
        }
    }
    return false;
}

const capture_files *switch_driver::captures_of(const std::string &name) const {
    const auto found = config_.captures.find(name);
    return found == config_.captures.end() ? nullptr : &found->second;
}

bool switch_driver::port_is_possible(const std::string &name) const {
    return captures_of(name) != nullptr || links_.contains(name);
}

bool switch_driver::port_is_stale(const port &p) const {
    const auto wanted = wanted_ports_.find(p.interface_name);
    if (p.is_gone || wanted == wanted_ports_.end() || wanted->second != p.requested) {
        return true;
    }
    const capture_files *const captures = captures_of(p.interface_name);
    if (captures != nullptr || p.captures) {
        return captures == nullptr || !p.captures || *captures != *p.captures;
    }
    const auto link = links_.find(p.interface_name);
    return link == links_.end() || link->second.ifindex != p.record.ifindex;
}

switch_driver::port *switch_driver::port_find(const std::string &name) {
    const auto found =
        std::find_if(ports_.begin(), ports_.end(), [&](const port &p) { return p.interface_name == name; });
    return found == ports_.end() ? nullptr : &*found;
}

// ---- events

std::optional<uint32_t> switch_driver::deliver(uint32_t event, void *data) {
    if (!gate_.enter(event == CONN_EVENT_PORT_REMOVED)) {
        return std::nullopt;
    }
    const bool is_subscribed = (library_.event_mask & event) != 0;
    const uint32_t status = is_subscribed ? library_.event(event, data) : KR_SDN_HAL_STATUS_SUCCESS;
    gate_.leave();
    return status;
}

bool switch_driver::forward_set(size_t protocol, bool is_on) {
    const control_protocol &which = control_protocols[protocol];
    conn_control_forward data{is_on ? CONN_FORWARD_REGISTER : CONN_FORWARD_DEREGISTER, which.trap_id};
    const auto status = deliver(CONN_EVENT_CONTROL_FORWARD, &data);
    if (status && *status != KR_SDN_HAL_STATUS_SUCCESS) {
        failure(std::string("forwarding of ") + which.name + " can't be turned " + (is_on ? "on: " : "off: ") +
                hal_status_text(*status));
        has_forward_failed_[protocol] = true;
    } else if (status) {
        forwarded_[protocol] = is_on;
    }
    return status.has_value();
}

// Invalidates `p` when it succeeds.
bool switch_driver::port_remove(port &p) {
    conn_port_record record = p.record;
    log_notice("removing port " + p.interface_name + ", which a client has to acknowledge");
    const auto status = deliver(CONN_EVENT_PORT_REMOVED, &record);
    if (!status) {
        return false;
    }
    // A port that the library does not know is as good as removed.
    if (*status != KR_SDN_HAL_STATUS_SUCCESS && *status != KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
        failure("port " + p.interface_name + " can't be removed: " + hal_status_text(*status));
        p.has_removal_failed = true;
        return true;
    }
    log_notice("port " + p.interface_name + " is removed");
    port_take_out(p);
    ports_.erase(ports_.begin() + (&p - ports_.data()));
    return true;
}

// Out of the software switch and of the port map.
void switch_driver::port_take_out(const port &p) {
    kr_plugin::port_map_remove(p.of_port);
    (void)kr_soft_port_remove(p.record.log_port);
}

uint32_t switch_driver::port_plug_in(const port &p) {
    if (!p.captures) {
        return kr_soft_port_add_interface(p.record.log_port, p.interface_name.c_str());
    }
    const auto path_of = [](const std::string &path) { return path.empty() ? nullptr : path.c_str(); };
    return kr_soft_port_add_capture(p.record.log_port, path_of(p.captures->input), path_of(p.captures->output));
}

void switch_driver::port_add(const std::string &name, int32_t requested) {
    const capture_files *const captures = captures_of(name);
    const link_info link = captures == nullptr
                               ? links_.at(name)
                               : link_info{capture_ifindex_base + static_cast<uint32_t>(requested), true, {}};
    port p{.interface_name = name,
           .requested = requested,
           .of_port = kr_plugin::of_port_of(link.ifindex, requested),
           .record = {},
           .captures = captures == nullptr ? std::nullopt : std::optional(*captures)};
    p.record.log_port = kr_plugin::log_port_of(p.of_port);
    p.record.ifindex = link.ifindex;
    p.record.requested_of_port = requested;
    std::memcpy(p.record.interface_name, name.c_str(), std::min(name.size() + 1, sizeof(p.record.interface_name) - 1));
    std::memcpy(p.record.mac_address, link.mac_address.data(), link.mac_address.size());

    failed_adds_[name] = {link.ifindex, link.is_up}; // until it has succeeded
    const std::string who = "port " + name + " can't be added: ";
    if (requested == 0 && link.ifindex > kr_plugin::of_port_from_ifindex_max) {
        failure(who + "interface index " + std::to_string(link.ifindex) + " is no OF port; give it a number");
        return;
    }
    if (std::any_of(ports_.begin(), ports_.end(), [&](const port &q) { return q.of_port == p.of_port; })) {
        failure(who + "OF port " + std::to_string(p.of_port) + " is still in use");
        return;
    }
    const kr_status platform_status = port_plug_in(p);
    if (platform_status != KR_STATUS_SUCCESS) {
        failure(who + "the software switch says: " + hal_status_text(kr_plugin::hal_status_of(platform_status)));
        return;
    }
    // Known to the port plug-in before a client can hear of the port.
    if (!kr_plugin::port_map_put({p.of_port, p.captures ? 0 : p.record.ifindex, p.record.log_port})) {
        failure(who + "the port map is full");
        (void)kr_soft_port_remove(p.record.log_port);
        return;
    }
    conn_port_record record = p.record;
    const auto status = deliver(CONN_EVENT_PORT_ADDED, &record);
    if (status && *status == KR_SDN_HAL_STATUS_SUCCESS) {
        log_notice("port " + name + " is added as OF port " + std::to_string(p.of_port));
        failed_adds_.erase(name);
        ports_.push_back(std::move(p));
        return;
    }
    if (status) {
        failure(who + hal_status_text(*status));
    }
    // After these the library knows nothing of the port; after any other failure it may have kept it.
    const bool is_clean = !status || *status == KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS ||
                          *status == KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE || *status == KR_SDN_HAL_STATUS_NO_RESOURCES;
    if (!is_clean) {
        record = p.record;
        (void)deliver(CONN_EVENT_PORT_REMOVED, &record);
    }
    port_take_out(p);
}

void switch_driver::failure(const std::string &text) {
    last_failure_ = text;
    log_error(text);
}

// ---- commands

std::string switch_driver::command(const std::string &line) {
    std::istringstream words(line);
    std::string name, argument, number, rest;
    words >> name >> argument >> number >> rest;
    last_failure_.clear();
    struct plain_command {
        const char *name;
        std::string (switch_driver::*run)();
    };
    static constexpr plain_command plain_commands[] = {
        {"status", &switch_driver::command_status}, {"start", &switch_driver::command_start},
        {"stop", &switch_driver::command_stop},     {"reload", &switch_driver::command_reload},
        {"config", &switch_driver::command_config},
    };
    for (const plain_command &c : plain_commands) {
        if (name == c.name) {
            return argument.empty() ? (this->*c.run)() : "error " + name + " takes no argument";
        }
    }
    if (name == "add") {
        return argument.empty() || !rest.empty() ? "error usage: add INTERFACE [PORT]" : command_add(argument, number);
    }
    if (name == "remove") {
        return argument.empty() || !number.empty() ? "error usage: remove INTERFACE" : command_remove(argument);
    }
    if (name == "play") {
        return argument.empty() || !number.empty() ? "error usage: play NAME" : command_play(argument);
    }
    if (name == "link") {
        return (number != "up" && number != "down") || !rest.empty() ? "error usage: link INTERFACE up|down"
                                                                     : command_link(argument, number);
    }
    return "error unknown command: status, start, stop, add, remove, link, play, reload or config";
}

// The answer to a command that reconcile has carried out, or not.
std::string switch_driver::finish(bool is_done, const std::string &text) {
    if (is_done) {
        return text.empty() ? "ok" : "ok " + text;
    }
    return "error " + (!last_failure_.empty() ? last_failure_
                       : gate_.is_closed()    ? std::string("the connector is closing")
                                              : std::string("not done"));
}

std::string switch_driver::command_status() {
    std::string added, waiting;
    for (const auto &[name, requested] : wanted_ports_) {
        if (const port *p = port_find(name)) {
            added += (added.empty() ? "" : ",") + name + "=" + std::to_string(p->of_port);
        } else {
            waiting += (waiting.empty() ? "" : ",") + name + (failed_adds_.contains(name) ? "!" : "");
        }
    }
    return std::string("ok ") + (is_started_ ? "started" : "stopped") + " ports " + (added.empty() ? "-" : added) +
           " waiting " + (waiting.empty() ? "-" : waiting);
}

std::string switch_driver::command_start() {
    start_request();
    reconcile();
    return finish(is_started_);
}

std::string switch_driver::command_stop() {
    is_run_wanted_ = false;
    has_stop_failed_ = false;
    failures_forget();
    reconcile();
    return finish(!is_started_);
}

std::string switch_driver::command_reload() {
    const std::string mistake = config_reread(true);
    if (!mistake.empty()) {
        return "error " + mistake;
    }
    reconcile();
    return finish(last_failure_.empty());
}

std::string switch_driver::command_config() {
    if (!config_.has_agent || !is_started_) {
        return std::string("error ") + (config_.has_agent ? "the switch is stopped" : "the file has no [agent]");
    }
    is_agent_sent_ = false;
    reconcile();
    return finish(last_failure_.empty());
}

std::string switch_driver::command_add(const std::string &name, const std::string &number) {
    const auto configured = config_.ports.find(name);
    int32_t requested = configured == config_.ports.end() ? 0 : configured->second;
    if (!interface_name_valid(name)) {
        return "error that can't be the name of an interface";
    }
    if (!number.empty() && !requested_port_parse(number, &requested)) {
        return "error the port must be none or " + std::to_string(kr_plugin::requested_of_port_min) + " to " +
               std::to_string(kr_plugin::requested_of_port_max);
    }
    if (requested == 0 && captures_of(name) != nullptr) {
        return "error a port on capture files needs a number";
    }
    for (const auto &[other_name, other_requested] : wanted_ports_) {
        if (requested != 0 && other_requested == requested && other_name != name) {
            return "error port " + std::to_string(requested) + " is taken by " + other_name;
        }
    }
    if (!wanted_ports_.contains(name) && wanted_ports_.size() >= max_configured_ports) {
        return "error more than " + std::to_string(max_configured_ports) + " ports";
    }
    wanted_ports_[name] = requested;
    are_links_stale_ = true;
    failed_adds_.erase(name);
    reconcile();
    if (const port *p = port_find(name); p != nullptr && p->requested == requested) {
        return finish(true, "OF port " + std::to_string(p->of_port));
    }
    if (!is_started_) {
        return finish(true, "when the switch starts");
    }
    return finish(!failed_adds_.contains(name) && port_find(name) == nullptr, "when the interface appears");
}

std::string switch_driver::command_remove(const std::string &name) {
    port *p = port_find(name);
    if (wanted_ports_.erase(name) == 0 && p == nullptr) {
        return "error no such port";
    }
    if (p != nullptr) {
        p->has_removal_failed = false;
    }
    reconcile();
    return finish(port_find(name) == nullptr);
}

// Lets the frames of the input file enter the switch; they have all been handled when it answers.
std::string switch_driver::command_play(const std::string &name) {
    const port *const p = port_find(name);
    if (p == nullptr || !p->captures) {
        return "error no such port on capture files";
    }
    uint64_t frame_count = 0;
    const kr_status status = kr_soft_port_play(p->record.log_port, &frame_count);
    return status == KR_STATUS_SUCCESS ? "ok " + std::to_string(frame_count) + " frames"
                                       : "error " + p->captures->input + " can't be played to its end";
}

// As a hand that pulls the cable of a port and puts it back; what an interface does by itself comes on top.
std::string switch_driver::command_link(const std::string &name, const std::string &state) {
    const port *const p = port_find(name);
    if (p == nullptr) {
        return "error no such port";
    }
    const kr_status status = kr_soft_port_link_set(p->record.log_port, state == "up" ? 1 : 0);
    return finish(status == KR_STATUS_SUCCESS);
}

} // namespace kr_connector
