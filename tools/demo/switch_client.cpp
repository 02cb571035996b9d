/*
 * The life cycle as a client sees it, from kr_sdn_hal_init to kr_sdn_hal_deinit.
 */
#include "tools/demo/switch_client.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "examples/connector_control.h"
#include "tools/demo/interrupt.h"
#include "tools/demo/report.h"

namespace demo {
namespace {

constexpr auto patience = std::chrono::seconds(10);
constexpr auto slice = std::chrono::milliseconds(50);

void print_log(uint32_t severity, const char *module, const char *text) {
    fprintf(stderr, "      | %2u %-14s %s", severity, module, text);
}

// Without --verbose only what went wrong reaches the reader.
void print_errors(uint32_t severity, const char *module, const char *text) {
    if (severity == 1) {
        print_log(severity, module, text);
    }
}

} // namespace

const char *status_text(kr_sdn_hal_status status) {
    static constexpr std::array<const char *, 12> names = {
        "KR_SDN_HAL_STATUS_SUCCESS",         "KR_SDN_HAL_STATUS_ERROR",
        "KR_SDN_HAL_STATUS_SDK_ERROR",       "KR_SDN_HAL_STATUS_NOT_INITIALIZED",
        "KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND", "KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS",
        "KR_SDN_HAL_STATUS_CMD_UNSUPPORTED", "KR_SDN_HAL_STATUS_PARAM_ERROR",
        "KR_SDN_HAL_STATUS_PARAM_NULL",      "KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE",
        "KR_SDN_HAL_STATUS_NO_RESOURCES",    "KR_SDN_HAL_STATUS_RESOURCE_IN_USE",
    };
    return status < names.size() ? names[status] : "unknown status";
}

void require(kr_sdn_hal_status status, const char *operation) {
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        throw failure(std::string(operation) + ": " + status_text(status));
    }
}

switch_client::switch_client(const std::string &connector, const std::string &port_plugin, bool verbose) {
    if (verbose) {
        for (int32_t *level : {&kr_HAL_API_verb_level, &kr_HAL_EVENTS_API_verb_level, &kr_HAL_API_PORT_verb_level,
                               &kr_FPT_verb_level, &kr_HAL_GEN_verb_level, &kr_FLOWS_DB_verb_level}) {
            *level = 4;
        }
    }
    system_profile profile{};
    snprintf(profile.connector_library_path, sizeof profile.connector_library_path, "%s", connector.c_str());
    snprintf(profile.fpt_library_path, sizeof profile.fpt_library_path, "%s", port_plugin.c_str());
    require(kr_sdn_hal_init(&profile, verbose ? print_log : print_errors), "kr_sdn_hal_init");
    initialized_ = true;

    require(kr_sdn_hal_srvc_open(&channel_), "kr_sdn_hal_srvc_open");
    require(kr_sdn_hal_srvc_event_register(&channel_, EVENT_GENERAL_READY), "register for ready");
    require(kr_sdn_hal_srvc_event_register(&channel_, EVENT_PORT_CAPABILITIES_UPDATE), "register for ports");
    reader_ = std::thread([this] { read_events(); });
}

switch_client::~switch_client() {
    try {
        stop();
    } catch (const std::exception &) {
        // Nothing more can be done; the process ends.
    }
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    if (reader_.joinable()) {
        reader_.join();
    }
}

template <typename Condition> void switch_client::wait_until(const char *what, Condition condition) {
    std::unique_lock lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw failure(std::string("waited in vain for ") + what);
        }
        changed_.wait_for(lock, slice);
        throw_if_interrupted();
    }
}

void switch_client::start(size_t port_count) {
    require(kr_sdn_hal_activate(), "kr_sdn_hal_activate");
    running_ = true;
    wait_until("the switch to start", [&] { return ready_; });
    wait_until("the ports", [&] { return ports_.size() >= port_count; });
    // The switch is open now, so the channel can have frames and link changes too.
    for (const uint32_t event : {EVENT_PACKET_IN, EVENT_PACKET_MISS, EVENT_PORT_OPER_STATE_CHANGE}) {
        require(kr_sdn_hal_srvc_event_register(&channel_, event), "register for packets and link changes");
    }
}

void switch_client::stop() {
    if (running_) {
        running_ = false;
        ask_connector("stop");
    }
    if (initialized_) {
        initialized_ = false;
        {
            const std::lock_guard lock(mutex_);
            ending_ = true;
        }
        reader_.join();
        require(kr_sdn_hal_srvc_close(&channel_), "kr_sdn_hal_srvc_close");
        require(kr_sdn_hal_deinit(), "kr_sdn_hal_deinit");
    }
}

void switch_client::read_events() {
    for (;;) {
        {
            const std::lock_guard lock(mutex_);
            if (ending_) {
                return;
            }
        }
        srvc_handle *handles[] = {&channel_};
        timeval timeout{0, 50'000};
        uint32_t ready = 0;
        if (kr_sdn_hal_srvc_select(handles, 1, &timeout, &ready) != KR_SDN_HAL_STATUS_SUCCESS || ready == 0) {
            continue;
        }
        hal_event_record record;
        if (kr_sdn_hal_srvc_recv(&channel_, &record) == KR_SDN_HAL_STATUS_SUCCESS) {
            handle(record);
        }
    }
}

void switch_client::handle(const hal_event_record &record) {
    const std::lock_guard lock(mutex_);
    switch (record.type) {
    case EVENT_GENERAL_READY:
        ready_ = true;
        break;
    case EVENT_PORT_CAPABILITIES_UPDATE: {
        const hal_event_port_update &update = record.payload.port_update;
        const std::string name(update.interface_name, strnlen(update.interface_name, sizeof update.interface_name));
        if (update.reason == PORT_UPDATE_ADDED) {
            ports_.push_back({update.port, name});
        } else {
            std::erase_if(ports_, [&](const port &gone) { return gone.of_port == update.port; });
            // The connector waits for this; the removal is complete when it returns.
            (void)kr_sdn_hal_srvc_event_ack(&record);
        }
        break;
    }
    case EVENT_PORT_OPER_STATE_CHANGE:
        oper_states_[record.payload.port_oper.port] = record.payload.port_oper.oper_state;
        break;
    case EVENT_PACKET_IN:
    case EVENT_PACKET_MISS:
        if (packets_.size() < 64) {
            packets_.push_back(record);
        }
        break;
    default:
        break;
    }
    changed_.notify_all();
}

std::vector<port> switch_client::ports() {
    const std::lock_guard lock(mutex_);
    return ports_;
}

uint32_t switch_client::of_port(const std::string &interface_name) {
    for (const port &candidate : ports()) {
        if (candidate.interface_name == interface_name) {
            return candidate.of_port;
        }
    }
    throw failure("no port on " + interface_name);
}

hal_event_record switch_client::wait_packet(uint32_t type) {
    wait_until("a packet", [&] {
        std::erase_if(packets_, [&](const hal_event_record &record) { return record.type != type; });
        return !packets_.empty();
    });
    const std::lock_guard lock(mutex_);
    const hal_event_record record = packets_.front();
    packets_.pop_front();
    return record;
}

void switch_client::drop_packets() {
    const std::lock_guard lock(mutex_);
    packets_.clear();
}

void switch_client::wait_oper_state(uint32_t of_port, uint32_t oper_state) {
    wait_until("the link change", [&] {
        const auto last = oper_states_.find(of_port);
        return last != oper_states_.end() && last->second == oper_state;
    });
}

void switch_client::send(uint32_t of_port, const std::vector<uint8_t> &frame) {
    require(kr_sdn_hal_srvc_packet_send(&channel_, frame.data(), static_cast<uint32_t>(frame.size()), of_port, 0),
            "kr_sdn_hal_srvc_packet_send");
}

void switch_client::remove_port(const std::string &interface_name) {
    ask_connector("remove " + interface_name);
}

void switch_client::ask_connector(const std::string &command) {
    char answer[256];
    if (connector_request(command.c_str(), answer, sizeof answer) == 0) {
        throw failure(command + ": " + answer);
    }
}

} // namespace demo
