/*
 * Control frames: the thread that turns frames on the library's own descriptor into events for the clients, the choice
 * of the traps that reach this descriptor, and the acknowledgement of a port removal.
 *
 * The thread runs from start to stop (general_events.cpp) and is the only reader of the descriptor.
 */
#include "common/common.h"
#include "common/descriptor_set.h"
#include "common/guards.h"
#include "common/log.h"
#include "core/events_db.h"
#include "core/general.h"
#include "core/general_state.h"
#include "core/port.h"
#include "kr_api.h"
#include "tables/tables.h"

KR_LOG_MODULE("HAL_GEN", kr_HAL_GEN_verb_level);

namespace kr::general {
namespace {

constexpr uint8_t switch_id = 0;

enum class wait_result { frame, nothing, stop, failed };

wait_result wait_for_frame(int stop_fd, int frame_fd) {
    descriptor_set readable;
    if (!readable.add(stop_fd) || !readable.add(frame_fd) || readable.wait(nullptr) < 1) {
        return wait_result::failed;
    }
    if (readable.contains(stop_fd)) {
        return wait_result::stop;
    }
    return readable.contains(frame_fd) ? wait_result::frame : wait_result::nothing;
}

// Takes one frame and hands it to the clients. Nothing that goes wrong here ends the thread.
void deliver_frame(kr_host_ifc_fd *descriptor, hal_event_record *record) {
    hal_event_packet &packet = record->payload.packet;
    kr_receive_info info{};
    packet.length = KR_SDN_HAL_PACKET_SIZE;
    const kr_status received = kr_lib_host_ifc_recv(descriptor, packet.data, &packet.length, &info);
    if (received != KR_STATUS_SUCCESS) {
        HAL_WARNING("Failed reading from SDK FD, err (%s)", kr_status_str(received));
        return;
    }
    const kr_sdn_hal_status translated = port_translate_log_port(info.source_log_port, &packet.in_port);
    if (translated == KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
        return; // the connector has not added the port: its frames are nobody's
    }
    if (translated != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed translating SDK log port to HAL port");
        return;
    }
    record->type = EVENT_PACKET_MISS;
    const kr_sdn_hal_status status = kr_sdn_hal_srvc_process_event(record);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to generate event to client status = %u", static_cast<uint32_t>(status));
    }
}

kr_status trap_set(uint32_t command, uint32_t trap_id) {
    return kr_api_host_ifc_trap_id_register_set(relaxed_load(sdk_handle), command, switch_id, trap_id, &g.user_channel);
}

} // namespace

void __control_frames_thread(void *) {
    const int stop_fd = g.stop_pipe[0];
    kr_host_ifc_fd descriptor = g.user_channel.descriptor;
    hal_event_record record{};
    for (;;) {
        switch (wait_for_frame(stop_fd, descriptor.fd)) {
        case wait_result::frame:
            deliver_frame(&descriptor, &record);
            break;
        case wait_result::nothing:
            break;
        case wait_result::stop:
            HAL_NOTICE("Terminating controls thread");
            return;
        case wait_result::failed:
            return;
        }
    }
}

} // namespace kr::general

using namespace kr::general;

kr_sdn_hal_status general_control_forward_set(uint32_t command, uint32_t trap_id) {
    if (command == CONN_FORWARD_REGISTER) {
        const kr_status status = trap_set(KR_API_CMD_REGISTER, trap_id);
        if (status != KR_STATUS_SUCCESS) {
            HAL_ERROR("Failed to register trap ID [%u], err [%s].", trap_id, kr_status_str(status));
            return KR_SDN_HAL_STATUS_ERROR;
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (command == CONN_FORWARD_DEREGISTER) {
        const kr_status status = trap_set(KR_API_CMD_DEREGISTER, trap_id);
        if (status != KR_STATUS_SUCCESS) {
            HAL_ERROR("Failed to unregister trap ID [%u], err [%s].", trap_id, kr_status_str(status));
            return KR_SDN_HAL_STATUS_ERROR;
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    HAL_ERROR("unsupported cmd [%u].", command);
    return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
}

kr_sdn_hal_status general_process_shim_event_ack(const hal_event_record *record) {
    if (hal_utils_check_pointer(record, "Event record pointer") != KR_SDN_HAL_STATUS_SUCCESS) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    if (record->type != EVENT_PORT_CAPABILITIES_UPDATE || record->payload.port_update.reason != PORT_UPDATE_REMOVED) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    uint32_t of_port = record->payload.port_update.port;
    kr_sdn_hal_status status = tables_port_removed(of_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to delete port from HAL Table port DB.");
        return status;
    }
    status = port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &of_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS && status != KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
        HAL_ERROR("Failed to delete port from HAL port DB.");
        return status;
    }
    (void)cl_event_signal(&g.port_disable_event);
    return KR_SDN_HAL_STATUS_SUCCESS;
}
