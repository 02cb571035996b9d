/*
 * The model's event service and the connector's events: channels, registrations, the way of a record, port events and
 * their acknowledgement, control frames.
 */
#include <algorithm>
#include <cstring>

#include "kr_api.h"
#include "tests/model/library_model.h"

namespace kr_model {

namespace {

constexpr status SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr status ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr status PARAM_ERROR = KR_SDN_HAL_STATUS_PARAM_ERROR;

// The trap behind an event type of the switch; 0 for the library's own.
uint32_t trap_of(uint32_t event) {
    switch (event) {
    case EVENT_PORT_OPER_STATE_CHANGE:
        return 8;
    case EVENT_PACKET_IN:
        return 464;
    case EVENT_PACKET_MISS:
        return 479;
    default:
        return 0;
    }
}

} // namespace

/* ---- channels -------------------------------------------------------------------------------------------------- */

// A channel gains its descriptor when the switch is started.
status library_model::ensure_sdk_fd(channel_state &channel) {
    if (channel.has_sdk_fd || !srvc_dependent_) {
        return SUCCESS;
    }
    if (hw.host_ifc_open(device_handle_, &channel.descriptor) != KR_STATUS_SUCCESS) {
        return KR_SDN_HAL_STATUS_SDK_ERROR;
    }
    channel.has_sdk_fd = true;
    return SUCCESS;
}

// Opening an open channel loses what it had; its registrations stay and lead to the new pipe.
status library_model::open(uint32_t channel) {
    if (!srvc_initialized_) {
        return ERROR;
    }
    channels[channel] = {};
    if (const status result = ensure_sdk_fd(channels[channel]); result != SUCCESS) {
        return result;
    }
    if (hw.fault_due("pipe")) {
        return ERROR; // the descriptor of the switch stays open
    }
    channels[channel].is_open = true;
    return SUCCESS;
}

status library_model::close(uint32_t channel) {
    if (!srvc_initialized_) {
        return ERROR;
    }
    if (!channels[channel].is_open) {
        return PARAM_ERROR;
    }
    if (channels[channel].has_sdk_fd) {
        (void)hw.host_ifc_close(device_handle_, channels[channel].descriptor); // a failure is only logged
    }
    channels[channel] = {};
    for (auto &slots : registry) {
        std::ranges::replace(slots, static_cast<int>(channel), -1);
    }
    (void)hw.fault_due("read"); // what was unread is gone, and both ends of the pipe are, whatever the system says
    (void)hw.fault_due("close");
    (void)hw.fault_due("close");
    return SUCCESS;
}

status library_model::trap_change(channel_state &channel, uint32_t command, uint32_t event) {
    if (trap_of(event) == 0) {
        return SUCCESS;
    }
    if (!channel.has_sdk_fd) {
        return PARAM_ERROR;
    }
    return hw.trap_set(device_handle_, command, trap_of(event), channel.descriptor) == KR_STATUS_SUCCESS
               ? SUCCESS
               : KR_SDN_HAL_STATUS_SDK_ERROR;
}

// One channel too many is told success and not stored.
status library_model::event_register(uint32_t channel, uint32_t event) {
    if (!srvc_initialized_) {
        return ERROR;
    }
    channel_state &state = channels[channel];
    if (!state.is_open || event >= KR_SDN_HAL_EVENT_TYPE_COUNT) {
        return PARAM_ERROR;
    }
    if (const status result = ensure_sdk_fd(state); result != SUCCESS) {
        return result;
    }
    if (const status result = trap_change(state, KR_API_CMD_REGISTER, event); result != SUCCESS) {
        return result;
    }
    auto &slots = registry[event];
    if (std::ranges::find(slots, static_cast<int>(channel)) == slots.end()) {
        if (const auto free_slot = std::ranges::find(slots, -1); free_slot != slots.end()) {
            *free_slot = static_cast<int>(channel);
        }
    }
    return SUCCESS;
}

// The trap is gone even when the channel turns out not to be registered.
status library_model::event_unregister(uint32_t channel, uint32_t event) {
    if (!srvc_initialized_) {
        return ERROR;
    }
    channel_state &state = channels[channel];
    if (!state.is_open || event >= KR_SDN_HAL_EVENT_TYPE_COUNT) {
        return PARAM_ERROR;
    }
    if (const status result = trap_change(state, KR_API_CMD_DEREGISTER, event); result != SUCCESS) {
        return result;
    }
    const auto slot = std::ranges::find(registry[event], static_cast<int>(channel));
    if (slot == registry[event].end()) {
        return ERROR;
    }
    *slot = -1;
    return SUCCESS;
}

/* ---- records --------------------------------------------------------------------------------------------------- */

// The remainder of what was written in part is written until nothing is taken; no bytes of a record that fails lie in
// the pipe then, for a call either takes a part or fails.
bool library_model::pipe_write(size_t size) {
    while (size > 0) {
        const std::optional<uint32_t> code = hw.fault_due("write");
        if (code && *code != code_part) {
            return false;
        }
        size -= code ? (size + 1) / 2 : size;
    }
    return true;
}

// A channel that is registered but not open (it was opened anew, in vain) takes nothing. The first that cannot be
// written to ends it: those behind it do not get the record.
status library_model::process_event(const hal_event_record &record) {
    if (!srvc_initialized_) {
        return ERROR;
    }
    if (record.type >= KR_SDN_HAL_EVENT_TYPE_COUNT) {
        return PARAM_ERROR;
    }
    for (const int slot : registry[record.type]) {
        if (slot < 0) {
            continue;
        }
        channel_state &state = channels[static_cast<size_t>(slot)];
        if (state.is_open) {
            if (!pipe_write(sizeof record)) {
                return ERROR;
            }
            state.pipe.push_back(record);
        }
    }
    return SUCCESS;
}

size_t library_model::fullest_pipe() const {
    size_t fullest = 0;
    for (const channel_state &state : channels) {
        fullest = std::max(fullest, state.pipe.size());
    }
    return fullest;
}

bool library_model::ready(uint32_t channel) const {
    const channel_state &state = channels[channel];
    return !state.pipe.empty() ||
           (state.has_sdk_fd && !hw.descriptors[static_cast<size_t>(state.descriptor)].queue.empty());
}

status library_model::select(std::span<const uint32_t> selected, uint32_t *ready_mask) {
    if (!srvc_initialized_) {
        return ERROR;
    }
    if (selected.empty()) {
        return PARAM_ERROR;
    }
    for (const uint32_t channel : selected) {
        if (!channels[channel].is_open) {
            return ERROR;
        }
    }
    if (const std::optional<uint32_t> code = hw.fault_due("select")) {
        if (*code != code_nothing) {
            return ERROR; // the mask is as it was
        }
        *ready_mask = 0;
        return SUCCESS;
    }
    *ready_mask = 0;
    for (size_t i = 0; i < selected.size(); i++) {
        *ready_mask |= ready(selected[i]) ? uint32_t{1} << (i % 32) : 0;
    }
    return SUCCESS;
}

// The library's own records come first. Of an event of the switch only its fields are written.
received library_model::recv(uint32_t channel, const hal_event_record &before) {
    received result{.result = SUCCESS, .record = before};
    if (!srvc_initialized_) {
        result.result = ERROR;
        return result;
    }
    channel_state &state = channels[channel];
    if (!state.is_open) {
        result.result = PARAM_ERROR;
        return result;
    }
    if (!ready(channel)) {
        result.would_block = true;
        return result;
    }
    if (hw.fault_due("select")) {
        result.result = ERROR;
        return result;
    }
    if (!state.pipe.empty()) {
        const std::optional<uint32_t> code = hw.fault_due("read");
        if (!code || *code == code_part) { // a short read takes the record with it
            const hal_event_record &first = state.pipe.front();
            const size_t size = code ? sizeof first / 2 : sizeof first;
            memcpy(static_cast<void *>(&result.record), &first, size);
            if (first.type == EVENT_PACKET_MISS && first.reserved == 0) { // a control frame
                const hal_event_packet &packet = first.payload.packet;
                result.open_begin = std::min(offsetof(hal_event_record, payload.packet.data) + packet.length, size);
                result.open_end = std::min(offsetof(hal_event_record, payload.packet.length), size);
            }
            state.pipe.pop_front();
        }
        result.result = code ? ERROR : SUCCESS;
        return result;
    }
    if (hw.fault_due("kr_lib_host_ifc_recv")) {
        result.result = KR_SDN_HAL_STATUS_SDK_ERROR;
        return result;
    }
    std::deque<cpu_item> &queue = hw.descriptors[static_cast<size_t>(state.descriptor)].queue;
    const cpu_item item = queue.front();
    queue.pop_front();
    const port_entry *const port = port_by_log_port(item.log_port);
    const uint32_t of_port = port != nullptr ? port->of_port : 0;
    if (item.trap_id == KR_TRAP_ID_PORT_UP_DOWN) {
        result.record.type = EVENT_PORT_OPER_STATE_CHANGE;
        result.record.payload.port_oper = {of_port, item.oper_state};
        return result;
    }
    result.record.type = item.trap_id == KR_TRAP_ID_PACKET_IN ? EVENT_PACKET_IN : EVENT_PACKET_MISS;
    hal_event_packet &packet = result.record.payload.packet;
    packet.length = static_cast<uint32_t>(std::min<size_t>(item.frame.size(), KR_SDN_HAL_PACKET_SIZE));
    packet.in_port = of_port;
    memset(packet.data, 0, sizeof packet.data);
    memcpy(packet.data, item.frame.data(), packet.length);
    return result;
}

status library_model::packet_send(uint32_t channel, const bytes &packet, uint32_t of_port) {
    if (!srvc_initialized_) {
        return ERROR;
    }
    channel_state &state = channels[channel];
    if (!state.is_open) {
        return PARAM_ERROR;
    }
    if (const status result = ensure_sdk_fd(state); result != SUCCESS) {
        return result;
    }
    if (!state.has_sdk_fd) {
        return PARAM_ERROR;
    }
    const port_entry *const port = port_by_of_port(of_port);
    if (port == nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    return hw.packet_send(state.descriptor, packet, port->log_port) == KR_STATUS_SUCCESS ? SUCCESS
                                                                                         : KR_SDN_HAL_STATUS_SDK_ERROR;
}

// Only the removal of a port is acknowledged. A failure leaves the connector waiting.
status library_model::event_ack(const hal_event_record *record) {
    if (!srvc_initialized_) {
        return ERROR;
    }
    if (record == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    if (record->type != EVENT_PORT_CAPABILITIES_UPDATE || record->payload.port_update.reason != PORT_UPDATE_REMOVED) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    if (const status result = tables_port_removed(record->payload.port_update.port); result != SUCCESS) {
        return result;
    }
    const status removed = port_remove(record->payload.port_update.port);
    if (removed != SUCCESS && removed != KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
        return removed;
    }
    if (hw.fault_due("cl_event_signal") || !disable_event_exists_) {
        return SUCCESS; // whether the signal got through is not looked at
    }
    connector_waits = false;
    return SUCCESS;
}

/* ---- the connector's events ------------------------------------------------------------------------------------ */

library_model::event_outcome library_model::event(uint32_t code, const conn_port_record &port,
                                                  const conn_control_forward &forward) {
    if (code != CONN_EVENT_START && !started) {
        return {SUCCESS};
    }
    hal_event_record record{};
    event_outcome outcome{SUCCESS};
    switch (code) {
    case CONN_EVENT_START:
        if (started) {
            return {SUCCESS};
        }
        if (const status result = start(); result != SUCCESS) {
            return {result};
        }
        started = true;
        stored.mode = 0;
        stored.frame_size = 1500;
        record.type = EVENT_GENERAL_READY;
        return {process_event(record)};
    case CONN_EVENT_STOP: {
        const status result = stop();
        started = result != SUCCESS;
        return {result};
    }
    case CONN_EVENT_PORT_ADDED:
        outcome = port_added(port, &record);
        break;
    case CONN_EVENT_PORT_REMOVED:
        outcome = port_removed(port, &record);
        break;
    case CONN_EVENT_CONTROL_FORWARD:
        return {control_forward(forward)};
    default:
        return {SUCCESS};
    }
    if (outcome.result != SUCCESS) {
        return outcome;
    }
    if (const status result = process_event(record); result != SUCCESS) {
        return {result}; // without waiting
    }
    if (code == CONN_EVENT_PORT_REMOVED) {
        if (!disable_event_exists_) {
            return {ERROR};
        }
        connector_waits = true; // whatever was acknowledged before
    }
    return {SUCCESS, connector_waits};
}

namespace {
void port_update_fill(hal_event_record *record, uint32_t reason, uint32_t of_port, uint32_t oper_state,
                      const conn_port_record &port) {
    record->type = EVENT_PORT_CAPABILITIES_UPDATE;
    hal_event_port_update &update = record->payload.port_update;
    update.reason = reason;
    update.port = of_port;
    update.oper_state = oper_state;
    memcpy(update.mac_address, port.mac_address, sizeof update.mac_address);
    memcpy(update.interface_name, port.interface_name, sizeof update.interface_name);
}
} // namespace

// Only a table without room takes the port out of the database again.
library_model::event_outcome library_model::port_added(const conn_port_record &port, hal_event_record *record) {
    uint32_t oper_state = 0;
    if (hw.port_state_get(device_handle_, port.log_port, &oper_state) != KR_STATUS_SUCCESS) {
        return {ERROR};
    }
    uint32_t of_port = 0;
    if (const status result = port_add(port, &of_port); result != SUCCESS) {
        return {result};
    }
    if (const status result = tables_port_added(of_port); result != SUCCESS) {
        if (result == KR_SDN_HAL_STATUS_NO_RESOURCES) {
            (void)port_remove(of_port);
        }
        return {result};
    }
    port_update_fill(record, PORT_UPDATE_ADDED, of_port, oper_state, port);
    return {SUCCESS};
}

// The port stays until a client acknowledges.
library_model::event_outcome library_model::port_removed(const conn_port_record &port, hal_event_record *record) {
    uint32_t oper_state = 0;
    if (hw.port_state_get(device_handle_, port.log_port, &oper_state) != KR_STATUS_SUCCESS) {
        return {ERROR};
    }
    const port_entry *const found = port_by_ifindex(port.ifindex);
    if (found == nullptr) {
        return {KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND};
    }
    port_update_fill(record, PORT_UPDATE_REMOVED, found->of_port, oper_state, port);
    return {SUCCESS};
}

status library_model::control_forward(const conn_control_forward &forward) {
    if (forward.command != CONN_FORWARD_REGISTER && forward.command != CONN_FORWARD_DEREGISTER) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    const uint32_t command = forward.command == CONN_FORWARD_REGISTER ? KR_API_CMD_REGISTER : KR_API_CMD_DEREGISTER;
    return hw.trap_set(device_handle_, command, forward.trap_id, own_descriptor_) == KR_STATUS_SUCCESS ? SUCCESS
                                                                                                       : ERROR;
}

status library_model::config(uint32_t command, const conn_agent_config &config) {
    if (!started || command != CONN_CONFIG_AGENT) {
        return SUCCESS;
    }
    hal_event_record record{};
    record.type = EVENT_AGENT_UPDATE;
    for (size_t i = 0; i < std::size(config.entries); i++) {
        hal_event_agent_entry &to = record.payload.agent.entries[i];
        memcpy(to.data, config.entries[i].data, sizeof to.data);
        to.value = config.entries[i].value;
        to.number = config.entries[i].number;
    }
    record.payload.agent.trailer = config.trailer;
    return process_event(record);
}

/* ---- control frames -------------------------------------------------------------------------------------------- */

bool library_model::control_frames_reach_clients() const {
    return control_thread_runs_ && !hw.descriptors[static_cast<size_t>(own_descriptor_)].trap_ids.empty();
}

// The thread waits for more, and ends when it cannot.
void library_model::control_frames_select() {
    control_thread_runs_ = !hw.fault_due("select");
}

// Frames of ports that are not in the database are nobody's.
void library_model::control_frames_run() {
    if (!control_thread_runs_) {
        return;
    }
    std::deque<cpu_item> &queue = hw.descriptors[static_cast<size_t>(own_descriptor_)].queue;
    while (!queue.empty() && control_thread_runs_) {
        const cpu_item item = queue.front();
        queue.pop_front();
        control_frame_count++;
        const port_entry *const port = port_by_log_port(item.trap_id == KR_TRAP_ID_PORT_UP_DOWN ? 0 : item.log_port);
        if (port != nullptr) {
            hal_event_record record{};
            record.type = EVENT_PACKET_MISS;
            hal_event_packet &packet = record.payload.packet;
            packet.length = static_cast<uint32_t>(std::min<size_t>(item.frame.size(), KR_SDN_HAL_PACKET_SIZE));
            packet.in_port = port->of_port;
            memcpy(packet.data, item.frame.data(), packet.length);
            (void)process_event(record);
        }
        control_frames_select();
    }
}

} // namespace kr_model
