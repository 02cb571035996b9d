/*
 * The contract functions of the device API and the host interface: they check handles and arguments, run under the
 * platform's faults and journal, and leave the work to the channels and the ports.
 */
#include <algorithm>
#include <array>
#include <mutex>

#include "control/contract_call.h"
#include "control/kr_soft.h"
#include "dataplane/frame.h"
#include "dataplane/switch_ports.h"
#include "host_ifc/channels.h"
#include "host_ifc/trap_delivery.h"
#include "kr_api.h"
#include "kr_host_ifc.h"

namespace kr_soft {
namespace {

constexpr uint32_t device_handles_max = 64;
constexpr uint8_t only_swid = 0;

struct state {
    std::mutex mutex;
    std::array<kr_api_handle, device_handles_max> handles{}; // 0: free
    kr_api_handle last_handle = 0;                           // never given out twice
};
constinit state g;

kr_api_handle *handle_slot(kr_api_handle handle) {
    const auto slot = std::find(g.handles.begin(), g.handles.end(), handle);
    return slot != g.handles.end() ? &*slot : nullptr;
}

bool handle_is_open(kr_api_handle handle) {
    const std::lock_guard lock(g.mutex);
    return handle != 0 && handle_slot(handle) != nullptr;
}

kr_status device_open(kr_api_handle *handle) {
    if (handle == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    const std::lock_guard lock(g.mutex);
    kr_api_handle *const slot = handle_slot(0);
    if (slot == nullptr) {
        return KR_STATUS_NO_RESOURCES;
    }
    *slot = ++g.last_handle;
    *handle = *slot;
    return KR_STATUS_SUCCESS;
}

kr_status device_close(kr_api_handle *handle) {
    if (handle == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    const std::lock_guard lock(g.mutex);
    kr_api_handle *const slot = *handle != 0 ? handle_slot(*handle) : nullptr;
    if (slot == nullptr) {
        return KR_STATUS_INVALID_HANDLE;
    }
    *slot = 0;
    *handle = 0;
    return KR_STATUS_SUCCESS;
}

kr_status states_get(kr_api_handle handle, uint32_t log_port, uint32_t *oper, uint32_t *admin, uint32_t *module) {
    if (!handle_is_open(handle)) {
        return KR_STATUS_INVALID_HANDLE;
    }
    if (oper == nullptr || admin == nullptr || module == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    port_state port;
    const kr_status status = port_state_get(log_port, &port);
    if (status == KR_STATUS_SUCCESS) {
        *oper = port.oper_state;
        *admin = port.admin_state;
        *module = port.module_state;
    }
    return status;
}

kr_status descriptor_open(kr_api_handle handle, kr_host_ifc_fd *descriptor) {
    if (!handle_is_open(handle)) {
        return KR_STATUS_INVALID_HANDLE;
    }
    return descriptor != nullptr ? channel_open(handle, descriptor) : static_cast<kr_status>(KR_STATUS_PARAM_NULL);
}

/*
 * A descriptor may outlive the device handle that it was opened with. It can be closed then whatever the caller gives
 * for a handle: otherwise nobody could, and it would leak.
 */
kr_status descriptor_close(kr_api_handle handle, kr_host_ifc_fd *descriptor) {
    if (descriptor == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    kr_api_handle owner = 0;
    const kr_status status = channel_owner_get(*descriptor, &owner);
    if (status != KR_STATUS_SUCCESS) {
        return status;
    }
    if (!handle_is_open(handle) && handle_is_open(owner)) {
        return KR_STATUS_INVALID_HANDLE;
    }
    const kr_status closed = channel_close(*descriptor);
    if (closed == KR_STATUS_SUCCESS) {
        *descriptor = {.fd = -1, .valid = 0};
    }
    return closed;
}

kr_status trap_register_set(kr_api_handle handle, uint32_t command, uint8_t swid, uint32_t trap_id,
                            const kr_user_channel *channel) {
    if (!handle_is_open(handle)) {
        return KR_STATUS_INVALID_HANDLE;
    }
    if (channel == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    if (command != KR_API_CMD_REGISTER && command != KR_API_CMD_DEREGISTER) {
        return KR_STATUS_CMD_UNSUPPORTED;
    }
    if (channel->type != KR_USER_CHANNEL_TYPE_FD) {
        return KR_STATUS_PARAM_ERROR;
    }
    if (swid != only_swid || trap_id >= trap_id_limit) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    return command == KR_API_CMD_REGISTER ? channel_trap_register(channel->descriptor, trap_id)
                                          : channel_trap_deregister(channel->descriptor, trap_id);
}

kr_status receive(const kr_host_ifc_fd *descriptor, void *frame, uint32_t *size, kr_receive_info *info) {
    if (descriptor == nullptr || size == nullptr || info == nullptr || (frame == nullptr && *size > 0)) {
        return KR_STATUS_PARAM_NULL;
    }
    return channel_receive(*descriptor, frame, size, info);
}

kr_status send(const kr_host_ifc_fd *descriptor, const void *frame, uint32_t size, uint8_t swid, uint32_t log_port) {
    if (descriptor == nullptr || frame == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    if (!channel_is_open(*descriptor)) {
        return KR_STATUS_INVALID_HANDLE;
    }
    if (swid != only_swid || size < eth_header_size || size > KR_SOFT_MAX_FRAME) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    return port_transmit(log_port, frame, size);
}

} // namespace

void host_ifc_reset() {
    channels_reset();
    const std::lock_guard lock(g.mutex);
    g.handles.fill(0);
}

void host_ifc_usage_fill(kr_soft_usage *usage) {
    usage->descriptor_count = channels_count();
    const std::lock_guard lock(g.mutex);
    usage->device_handle_count =
        device_handles_max - static_cast<uint32_t>(std::count(g.handles.begin(), g.handles.end(), kr_api_handle{0}));
}

} // namespace kr_soft

using namespace kr_soft;

// Values that differ from run to run (handles, file descriptors, addresses) are not in the journal's texts.

kr_status kr_api_open(kr_log_callback, kr_api_handle *handle) {
    return contract_call(
        contract_function::kr_api_open, [&] { return device_open(handle); }, [&] { return text_of("handle"); });
}

kr_status kr_api_close(kr_api_handle *handle) {
    return contract_call(
        contract_function::kr_api_close, [&] { return device_close(handle); }, [&] { return text_of("handle"); });
}

kr_status kr_api_port_state_get(kr_api_handle handle, uint32_t log_port, uint32_t *oper_state, uint32_t *admin_state,
                                uint32_t *module_state) {
    return contract_call(
        contract_function::kr_api_port_state_get,
        [&] { return states_get(handle, log_port, oper_state, admin_state, module_state); },
        [&] { return text_of("handle, 0x%x", log_port); });
}

kr_status kr_api_host_ifc_open(kr_api_handle handle, kr_host_ifc_fd *descriptor) {
    return contract_call(
        contract_function::kr_api_host_ifc_open, [&] { return descriptor_open(handle, descriptor); },
        [&] { return text_of("handle"); });
}

kr_status kr_api_host_ifc_close(kr_api_handle handle, kr_host_ifc_fd *descriptor) {
    return contract_call(
        contract_function::kr_api_host_ifc_close, [&] { return descriptor_close(handle, descriptor); },
        [&] { return text_of("handle"); });
}

kr_status kr_api_host_ifc_trap_id_register_set(kr_api_handle handle, uint32_t command, uint8_t swid, uint32_t trap_id,
                                               kr_user_channel *channel) {
    return contract_call(
        contract_function::kr_api_host_ifc_trap_id_register_set,
        [&] { return trap_register_set(handle, command, swid, trap_id, channel); },
        [&] { return text_of("handle, %u, %u, %u", command, swid, trap_id); });
}

kr_status kr_lib_host_ifc_recv(kr_host_ifc_fd *descriptor, void *frame, uint32_t *size, kr_receive_info *info) {
    kr_status status = KR_STATUS_ERROR; // until the body has run: the outputs are the caller's then
    return contract_call(
        contract_function::kr_lib_host_ifc_recv,
        [&] {
            status = receive(descriptor, frame, size, info);
            return status;
        },
        [&] {
            return status == KR_STATUS_SUCCESS ? text_of("descriptor, %u bytes, trap %u", *size, info->trap_id)
                                               : text_of("descriptor");
        });
}

kr_status kr_lib_host_ifc_unicast_ctrl_send(kr_host_ifc_fd *descriptor, const void *frame, uint32_t size, uint8_t swid,
                                            uint32_t egress_log_port, uint8_t priority) {
    return contract_call(
        contract_function::kr_lib_host_ifc_unicast_ctrl_send,
        [&] { return send(descriptor, frame, size, swid, egress_log_port); },
        [&] { return text_of("descriptor, %u bytes, %u, 0x%x, %u", size, swid, egress_log_port, priority); });
}
