/*
 * The model's port database, the exported port functions, and what a port is to the tables.
 */
#include <algorithm>

#include "tests/model/library_model.h"

namespace kr_model {

namespace {

constexpr status SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr status ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr status NOT_FOUND = KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;

// Of several ports with one identifier the oldest is the one that is found.
template <typename Matches> const port_entry *oldest(const std::vector<port_entry> &ports, Matches matches) {
    const auto found = std::ranges::find_if(ports, matches);
    return found != ports.end() ? &*found : nullptr;
}

} // namespace

const port_entry *library_model::port_by_of_port(uint32_t of_port) const {
    return oldest(ports, [=](const port_entry &port) { return port.of_port == of_port; });
}
const port_entry *library_model::port_by_ifindex(uint32_t ifindex) const {
    return oldest(ports, [=](const port_entry &port) { return port.ifindex == ifindex; });
}
const port_entry *library_model::port_by_log_port(uint32_t log_port) const {
    return oldest(ports, [=](const port_entry &port) { return port.log_port == log_port; });
}

// A requested OF port counts from 32768; without one the interface index is it. Only the OF port has to be unique.
status library_model::port_add(const conn_port_record &port, uint32_t *of_port) {
    const int64_t assigned = port.requested_of_port != 0 ? int64_t{port.requested_of_port} + 32768 : port.ifindex;
    const int64_t highest = port.requested_of_port != 0 ? 65279 : 32767;
    if (assigned < 0 || assigned > highest) {
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    *of_port = static_cast<uint32_t>(assigned);
    if (port_by_of_port(*of_port) != nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS;
    }
    if (hw.fault_due("cl_qpool_get") || ports.size() == port_limit) {
        return ERROR;
    }
    ports.push_back({*of_port, port.ifindex, port.log_port});
    return SUCCESS;
}

status library_model::port_remove(uint32_t of_port) {
    const auto removed = std::erase_if(ports, [=](const port_entry &port) { return port.of_port == of_port; });
    return removed != 0 ? SUCCESS : NOT_FOUND;
}

// Bound first, flooded to second; the first stays when the second fails.
status library_model::tables_port_added(uint32_t of_port) {
    if (!tables_initialized_) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    const port_entry *const port = port_by_of_port(of_port);
    if (port == nullptr) {
        return NOT_FOUND;
    }
    const kr_status bound = hw.bind(rm_handle_, acl_id, port->log_port);
    if (bound != KR_STATUS_SUCCESS) {
        return bound == KR_STATUS_NO_HARDWARE_RESOURCES ? KR_SDN_HAL_STATUS_NO_RESOURCES : ERROR;
    }
    return hw.group_add(rm_handle_, flood_group_id, {port->log_port}) == KR_STATUS_SUCCESS ? SUCCESS : ERROR;
}

status library_model::tables_port_removed(uint32_t of_port) {
    if (!tables_initialized_) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    const port_entry *const port = port_by_of_port(of_port);
    if (port == nullptr) {
        return NOT_FOUND;
    }
    if (hw.unbind(rm_handle_, acl_id, port->log_port) != KR_STATUS_SUCCESS) {
        return ERROR;
    }
    return hw.group_remove(rm_handle_, flood_group_id, {port->log_port}) == KR_STATUS_SUCCESS ? SUCCESS : ERROR;
}

// With no array, or no room, the number of ports; else the lowest OF ports.
status library_model::port_arr_get(bool has_array, uint32_t room, std::vector<uint32_t> *of_ports,
                                   uint32_t *count) const {
    of_ports->clear();
    if (!has_array || room == 0) {
        *count = static_cast<uint32_t>(ports.size());
        return SUCCESS;
    }
    for (const port_entry &port : ports) {
        of_ports->push_back(port.of_port);
    }
    std::ranges::sort(*of_ports);
    of_ports->resize(std::min<size_t>(of_ports->size(), room));
    *count = static_cast<uint32_t>(of_ports->size());
    return SUCCESS;
}

status library_model::port_capabilities_get(uint32_t of_port) const {
    return port_by_of_port(of_port) != nullptr ? SUCCESS : NOT_FOUND;
}

status library_model::port_operation() const {
    return fpt_initialized ? static_cast<status>(plugins.fpt_port) : KR_SDN_HAL_STATUS_NOT_INITIALIZED;
}

} // namespace kr_model
