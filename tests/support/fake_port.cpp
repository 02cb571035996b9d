/*
 * A fake of the port database that keeps the ports that a test or an add puts into it, and fails as it is told.
 */
#include "core/port.h"
#include "fakes.h"

using kr_test::called;
using kr_test::fake_port;
using kr_test::fake_ports;
using kr_test::result_of;

namespace {

kr_sdn_hal_status status_of(uint32_t result) {
    return static_cast<kr_sdn_hal_status>(result);
}

} // namespace

kr_sdn_hal_status port_init() {
    return status_of(called("port_init"));
}
kr_sdn_hal_status port_deinit() {
    return status_of(called("port_deinit"));
}

kr_sdn_hal_status port_set(uint32_t command, uint32_t ifindex, int32_t requested_of_port, uint32_t log_port,
                           uint32_t aux, uint32_t *of_port) {
    if (command == PORT_CMD_ADD) {
        const uint32_t status = called(aux == 0 ? "port_set(add)" : "port_set(add, aux not 0)");
        if (status != 0) {
            return status_of(status);
        }
        *of_port = requested_of_port == 0 ? ifindex : static_cast<uint32_t>(requested_of_port) + 32768;
        const bool added = fake_ports().try_emplace(*of_port, fake_port{*of_port, ifindex, log_port}).second;
        return added ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS;
    }
    const bool names_port_alone = ifindex == 0 && requested_of_port == 0 && log_port == 0 && aux == 0;
    const uint32_t status = called(names_port_alone ? "port_set(remove)" : "port_set(remove, and more)");
    if (status == 0) {
        return fake_ports().erase(*of_port) == 1 ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    return status_of(status);
}

kr_sdn_hal_status port_get_log_port(uint32_t of_port, uint32_t *log_port) {
    const uint32_t status = result_of("port_get_log_port");
    if (status != 0) {
        return status_of(status);
    }
    const auto found = fake_ports().find(of_port);
    if (found == fake_ports().end()) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    *log_port = found->second.log_port;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status port_translate_ifindex(uint32_t ifindex, uint32_t *of_port) {
    for (const auto &[key, port] : fake_ports()) {
        if (port.ifindex == ifindex) {
            *of_port = key;
            return KR_SDN_HAL_STATUS_SUCCESS;
        }
    }
    return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
}

kr_sdn_hal_status port_translate_log_port(uint32_t log_port, uint32_t *of_port) {
    const uint32_t status = result_of("port_translate_log_port");
    if (status != 0) {
        return status_of(status);
    }
    for (const auto &[key, port] : fake_ports()) {
        if (port.log_port == log_port) {
            *of_port = key;
            return KR_SDN_HAL_STATUS_SUCCESS;
        }
    }
    return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
}

kr_sdn_hal_status port_get_arr(uint32_t *, uint32_t *count) {
    const uint32_t status = result_of("port_get_arr");
    if (status == 0) {
        *count = static_cast<uint32_t>(fake_ports().size());
    }
    return status_of(status);
}
