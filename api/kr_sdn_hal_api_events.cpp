/*
 * The event service: event channels, their registration by event type, the way of a record from a producer inside the
 * library to every registered channel, and what a client does with a channel: wait, receive, send, acknowledge.
 *
 * A channel is the client's memory. Records of the library reach it through its pipe; frames and port events of the
 * switch through its host-interface descriptor, which it gains once the switch has started.
 */
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <type_traits>

#include "common/descriptor_set.h"
#include "common/guards.h"
#include "common/log.h"
#include "core/events_db.h"
#include "core/general.h"
#include "core/port.h"
#include "kr_api.h"
#include "kr_host_ifc.h"
#include "kr_sdn_hal.h"

int32_t kr_HAL_EVENTS_API_verb_level = 3;
constinit hal_events_db events_db{};
constinit kr_api_handle sdk_handle = 0;

KR_LOG_MODULE("HAL_EVENTS_API", kr_HAL_EVENTS_API_verb_level);

namespace {

using kr::plock_exclusive;
using kr::plock_shared;

// Both are read by any thread without a lock.
constinit struct {
    uint32_t initialized;
    uint32_t dependent_initialized; // the module holds the device open: sdk_handle is valid
} g{};

constexpr uint8_t switch_id = 0;
constexpr uint32_t mask_bits = 32;
constexpr int no_descriptor = -1;
constexpr size_t atomic_pipe_write = 4096; // Linux; concurrent records in a pipe do not mix up to this size
static_assert(sizeof(hal_event_record) <= atomic_pipe_write);
static_assert(std::is_trivially_copyable_v<hal_event_record> && std::is_standard_layout_v<hal_event_record>);
static_assert(std::is_trivially_copyable_v<srvc_handle> && std::is_standard_layout_v<srvc_handle>);

// How an event reaches a channel: written into its pipe by the library, or as a trap of the switch.
enum class event_source { hal_pipe, sdk_trap };

struct event_row {
    hal_event_type type;
    const char *name;
    event_source source;
    uint32_t trap_id;
};

/* clang-format off */
constexpr event_row event_rows[] = {
    // type                          display name                source                  trap id
    {EVENT_GENERAL_READY,            "GENERAL READY",            event_source::hal_pipe, 0},
    {EVENT_GENERAL_ERROR,            "GENERAL ERROR",            event_source::hal_pipe, 0},
    {EVENT_TABLE_UPDATE,             "TABLE UPDATE",             event_source::hal_pipe, 0},
    {EVENT_PORT_CAPABILITIES_UPDATE, "PORT CAPABILITIES UPDATE", event_source::hal_pipe, 0},
    {EVENT_PORT_OPER_STATE_CHANGE,   "PORT OPER STATE CHANGE",   event_source::sdk_trap, KR_TRAP_ID_PORT_UP_DOWN},
    {EVENT_PORT_STP_STATE_CHANGE,    "PORT STP STATE CHANGE",    event_source::hal_pipe, 0},
    {EVENT_PORT_LACP_STATE_CHANGE,   "PORT LACP STATE CHANGE",   event_source::hal_pipe, 0},
    {EVENT_VLAN_UPDATE,              "VLAN UPDATE",              event_source::hal_pipe, 0},
    {EVENT_SWITCH_UPDATE,            "SWITCH UPDATE",            event_source::hal_pipe, 0},
    {EVENT_AGENT_UPDATE,             "AGENT UPDATE",             event_source::hal_pipe, 0},
    {EVENT_PACKET_IN,                "PACKET IN",                event_source::sdk_trap, KR_TRAP_ID_PACKET_IN},
    {EVENT_PACKET_MISS,              "PACKET MISS",              event_source::sdk_trap, KR_TRAP_ID_PACKET_MISS},
};
/* clang-format on */

static_assert(std::size(event_rows) == KR_SDN_HAL_EVENT_TYPE_COUNT);
static_assert([] {
    for (uint32_t i = 0; i < std::size(event_rows); i++) {
        if (event_rows[i].type != i) {
            return false;
        }
    }
    return true;
}());

constexpr bool is_sdk_event(uint32_t event) {
    return event >= std::size(event_rows) || event_rows[event].source == event_source::sdk_trap;
}

// The flags publish what was written before they were set: the lock, the device handle, a channel's descriptors.
bool is_set(const uint32_t &flag) {
    return kr::acquire_load(flag) == 1;
}

bool initialized() {
    return is_set(g.initialized);
}

// What a channel function that needs an open channel answers first.
kr_sdn_hal_status check_channel(srvc_handle *handle) {
    if (!initialized()) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    if (handle == nullptr || !is_set(handle->is_open)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

// Gives a channel its host-interface descriptor, if it has none and the switch is up.
kr_sdn_hal_status ensure_sdk_fd(srvc_handle *handle) {
    if (is_set(handle->sdk_fd_open) || !is_set(g.dependent_initialized)) {
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (kr_api_host_ifc_open(kr::relaxed_load(sdk_handle), &handle->sdk_fd) != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed creating the SDK FD");
        return KR_SDN_HAL_STATUS_SDK_ERROR;
    }
    kr::release_store(handle->sdk_fd_open, uint32_t{1});
    return KR_SDN_HAL_STATUS_SUCCESS;
}

// The flag first: the channel may be registered still, from before, and a producer may be looking at it.
void channel_clear(srvc_handle *handle) {
    kr::relaxed_store(handle->is_open, uint32_t{0});
    kr::relaxed_store(handle->sdk_fd_open, uint32_t{0});
    handle->sdk_fd = {};
    for (int &fd : handle->hal_pipe) {
        kr::release_store(fd, 0);
    }
}

// Where records for a channel go, or no_descriptor while it takes none. No lock keeps a client from opening a
// registered channel anew in the meantime, so the number counts only if it is the same on both sides of the flag: a
// cleared handle's 0 must not be taken for the pipe of the channel that is opened next.
int write_end_of(const srvc_handle &handle) {
    const int seen = kr::acquire_load(handle.hal_pipe[1]);
    return is_set(handle.is_open) && kr::acquire_load(handle.hal_pipe[1]) == seen ? seen : no_descriptor;
}

// A producer that waits for room in a full pipe holds the registry's lock. What it needs is room for the one record:
// no other is begun once the channel counts as closed.
void pipe_drain(int fd) {
    uint8_t unread[sizeof(hal_event_record)];
    if (fcntl(fd, F_SETFL, O_NONBLOCK) == 0) {
        while (read(fd, unread, sizeof unread) > 0) {
        }
    }
}

kr_status trap_set(srvc_handle *handle, uint32_t command, uint32_t event) {
    kr_user_channel channel{};
    channel.type = KR_USER_CHANNEL_TYPE_FD;
    channel.descriptor = handle->sdk_fd;
    return kr_api_host_ifc_trap_id_register_set(kr::relaxed_load(sdk_handle), command, switch_id,
                                                event_rows[event].trap_id, &channel);
}

/* ---- the registry ---------------------------------------------------------------------------------------------- */

// Before the lock exists there is nobody to keep out.
void registry_clear() KR_NO_THREAD_SAFETY_ANALYSIS {
    memset(events_db.handles, 0, sizeof events_db.handles);
}

srvc_handle **registry_find(uint32_t event, const srvc_handle *handle) KR_REQUIRES_SHARED(events_db.lock) {
    for (srvc_handle *&slot : events_db.handles[event]) {
        if (slot == handle) {
            return &slot;
        }
    }
    return nullptr;
}

// A type whose slots are all taken stays as it is: the channel then hears nothing of this type.
void registry_add(uint32_t event, srvc_handle *handle) KR_EXCLUDES(events_db.lock) {
    const plock_exclusive guard(events_db.lock);
    if (registry_find(event, handle) != nullptr) {
        return;
    }
    srvc_handle **const free_slot = registry_find(event, nullptr);
    if (free_slot != nullptr) {
        *free_slot = handle;
    }
}

bool registry_remove(uint32_t event, const srvc_handle *handle) KR_EXCLUDES(events_db.lock) {
    const plock_exclusive guard(events_db.lock);
    srvc_handle **const slot = registry_find(event, handle);
    if (slot == nullptr) {
        return false;
    }
    *slot = nullptr;
    return true;
}

void registry_remove_all(const srvc_handle *handle) KR_EXCLUDES(events_db.lock) {
    const plock_exclusive guard(events_db.lock);
    for (auto &slots : events_db.handles) {
        for (srvc_handle *&slot : slots) {
            slot = slot == handle ? nullptr : slot;
        }
    }
}

/* ---- the way of a record --------------------------------------------------------------------------------------- */

bool write_record(int fd, const hal_event_record &record) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    size_t remaining = sizeof record;
    while (remaining > 0) {
        const ssize_t written = write(fd, bytes, remaining);
        if (written < 1) {
            return false;
        }
        bytes += written;
        remaining -= static_cast<size_t>(written);
    }
    return true;
}

kr_sdn_hal_status read_hal_pipe(srvc_handle *handle, hal_event_record *record) {
    const ssize_t size = read(handle->hal_pipe[0], record, sizeof *record);
    if (size != static_cast<ssize_t>(sizeof *record)) {
        HAL_WARNING("Failed reading from HAL FD, err (%s).", size < 0 ? strerror(errno) : "Packet wrong size");
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

// The OF port of a logical port; 0 for one that the port database does not know.
kr_sdn_hal_status port_of_event(uint32_t log_port, uint32_t *of_port) {
    const kr_sdn_hal_status status = port_translate_log_port(log_port, of_port);
    if (status == KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
        *of_port = 0;
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed tranlating SDK log port to HAL port");
    }
    return status;
}

// Writes the named fields only; the type is written before a translation may fail.
kr_sdn_hal_status packet_convert(hal_event_record *record, hal_event_type type, const uint8_t *frame, uint32_t size,
                                 const kr_receive_info &info) {
    record->type = type;
    const kr_sdn_hal_status status = port_of_event(info.source_log_port, &record->payload.packet.in_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    memcpy(record->payload.packet.data, frame, KR_SDN_HAL_PACKET_SIZE);
    record->payload.packet.length = size;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status port_oper_convert(hal_event_record *record, const kr_receive_info &info) {
    record->type = EVENT_PORT_OPER_STATE_CHANGE;
    const kr_sdn_hal_status status = port_of_event(info.port_up_down.log_port, &record->payload.port_oper.port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    record->payload.port_oper.oper_state = info.port_up_down.oper_state;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status read_sdk_fd(srvc_handle *handle, hal_event_record *record) {
    uint8_t frame[KR_SDN_HAL_PACKET_SIZE] = {};
    uint32_t size = sizeof frame;
    kr_receive_info info{};
    const kr_status received = kr_lib_host_ifc_recv(&handle->sdk_fd, frame, &size, &info);
    if (received != KR_STATUS_SUCCESS) {
        HAL_WARNING("Failed reading from SDK FD, err (%s)", kr_status_str(received));
        return KR_SDN_HAL_STATUS_SDK_ERROR;
    }
    switch (info.trap_id) {
    case KR_TRAP_ID_PACKET_IN:
        return packet_convert(record, EVENT_PACKET_IN, frame, size, info);
    case KR_TRAP_ID_PACKET_MISS:
        return packet_convert(record, EVENT_PACKET_MISS, frame, size, info);
    case KR_TRAP_ID_PORT_UP_DOWN:
        return port_oper_convert(record, info);
    default: // trap ids are the platform's, most of them not for clients
        return KR_SDN_HAL_STATUS_SDK_ERROR;
    }
}

enum class readiness { hal_pipe, sdk_fd, none };

// Waits until a channel has something to read. A record in the pipe comes before anything of the switch.
readiness wait_readable(srvc_handle *handle) {
    const bool has_sdk_fd = is_set(handle->sdk_fd_open);
    kr::descriptor_set readable;
    if (!readable.add(handle->hal_pipe[0]) || (has_sdk_fd && !readable.add(handle->sdk_fd.fd)) ||
        readable.wait(nullptr) < 1) {
        return readiness::none;
    }
    if (readable.contains(handle->hal_pipe[0])) {
        return readiness::hal_pipe;
    }
    return has_sdk_fd && readable.contains(handle->sdk_fd.fd) ? readiness::sdk_fd : readiness::none;
}

kr_sdn_hal_status receive(srvc_handle *handle, hal_event_record *record) {
    switch (wait_readable(handle)) {
    case readiness::hal_pipe:
        return read_hal_pipe(handle, record);
    case readiness::sdk_fd:
        return read_sdk_fd(handle, record);
    case readiness::none:
        break;
    }
    return KR_SDN_HAL_STATUS_ERROR;
}

bool add_channels(kr::descriptor_set *readable, srvc_handle **handles, uint32_t handle_count) {
    for (uint32_t i = 0; i < handle_count; i++) {
        const srvc_handle &handle = *handles[i];
        // A channel that is not open has no descriptors, whatever its memory holds.
        if (!is_set(handle.is_open) || !readable->add(handle.hal_pipe[0]) ||
            (is_set(handle.sdk_fd_open) && !readable->add(handle.sdk_fd.fd))) {
            return false;
        }
    }
    return true;
}

// One bit per handle, by its index modulo 32: handles 32 apart share a bit.
uint32_t ready_bits(const kr::descriptor_set &readable, srvc_handle **handles, uint32_t handle_count) {
    uint32_t mask = 0;
    for (uint32_t i = 0; i < handle_count; i++) {
        const srvc_handle &handle = *handles[i];
        if (readable.contains(handle.hal_pipe[0]) ||
            (is_set(handle.sdk_fd_open) && readable.contains(handle.sdk_fd.fd))) {
            mask |= uint32_t{1} << (i % mask_bits);
        }
    }
    return mask;
}

bool any_null(srvc_handle **handles, uint32_t handle_count) {
    for (uint32_t i = 0; i < handle_count; i++) {
        if (handles[i] == nullptr) {
            return true;
        }
    }
    return false;
}

} // namespace

/* ---- life cycle, called by the general module ------------------------------------------------------------------ */

kr_sdn_hal_status kr_sdn_hal_srvc_init(void) noexcept {
    if (initialized() || kr::relaxed_load(g.dependent_initialized) == 1) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    registry_clear();
    if (cl_plock_init(&events_db.lock) != CL_SUCCESS) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    kr::release_store(g.initialized, uint32_t{1});
    HAL_DEBUG("HAL events module initialized successfully.");
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_srvc_dependent_init(void) noexcept {
    if (!initialized() || kr::relaxed_load(g.dependent_initialized) == 1) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    kr_api_handle handle = 0;
    if (kr_api_open(kr::relaxed_load(general_log_cb), &handle) != KR_STATUS_SUCCESS) {
        return KR_SDN_HAL_STATUS_SDK_ERROR;
    }
    kr::relaxed_store(sdk_handle, handle);
    kr::release_store(g.dependent_initialized, uint32_t{1});
    HAL_DEBUG("HAL events module dependent initialized successfully.");
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_srvc_dependent_deinit(void) noexcept {
    if (!initialized() || kr::relaxed_load(g.dependent_initialized) == 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    kr_api_handle handle = kr::relaxed_load(sdk_handle);
    if (kr_api_close(&handle) != KR_STATUS_SUCCESS) {
        return KR_SDN_HAL_STATUS_SDK_ERROR;
    }
    kr::relaxed_store(sdk_handle, handle);
    kr::release_store(g.dependent_initialized, uint32_t{0});
    HAL_DEBUG("HAL events module dependent deinitialized successfully.");
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_srvc_deinit(void) noexcept {
    if (!initialized() || kr::relaxed_load(g.dependent_initialized) == 1) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    cl_plock_destroy(&events_db.lock);
    kr::release_store(g.initialized, uint32_t{0});
    HAL_DEBUG("HAL events module deinitialized successfully");
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- channels and registration --------------------------------------------------------------------------------- */

kr_sdn_hal_status kr_sdn_hal_srvc_open(srvc_handle *handle) noexcept {
    if (!initialized()) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    if (handle == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    channel_clear(handle);
    const kr_sdn_hal_status status = ensure_sdk_fd(handle);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    int ends[2];
    if (pipe(ends) != 0) {
        HAL_ERROR("Failed creating the HAL FD");
        return KR_SDN_HAL_STATUS_ERROR;
    }
    kr::release_store(handle->hal_pipe[0], ends[0]);
    kr::release_store(handle->hal_pipe[1], ends[1]);
    kr::release_store(handle->is_open, uint32_t{1});
    HAL_DEBUG("HAL events - open finished successfully");
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_srvc_close(srvc_handle *handle) noexcept {
    if (!initialized()) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    if (handle == nullptr || !is_set(handle->is_open)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    kr::relaxed_store(handle->is_open, uint32_t{0});
    pipe_drain(handle->hal_pipe[0]);
    if (is_set(handle->sdk_fd_open)) {
        if (kr_api_host_ifc_close(kr::relaxed_load(sdk_handle), &handle->sdk_fd) != KR_STATUS_SUCCESS) {
            HAL_ERROR("Failed destroying the SDK FD");
        }
        kr::release_store(handle->sdk_fd_open, uint32_t{0});
    }
    registry_remove_all(handle); // producers are through with the pipe once this has returned
    for (int &fd : handle->hal_pipe) {
        close(fd);
        kr::release_store(fd, no_descriptor); // the number may soon be another file's
    }
    HAL_DEBUG("HAL events - close finished successfully");
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_srvc_event_register(srvc_handle *handle, uint32_t event) noexcept {
    kr_sdn_hal_status status = check_channel(handle);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (event >= KR_SDN_HAL_EVENT_TYPE_COUNT) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    status = ensure_sdk_fd(handle);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (is_sdk_event(event)) {
        if (!is_set(handle->sdk_fd_open)) {
            return KR_SDN_HAL_STATUS_PARAM_ERROR;
        }
        const kr_status sdk_status = trap_set(handle, KR_API_CMD_REGISTER, event);
        if (sdk_status != KR_STATUS_SUCCESS) {
            HAL_WARNING("Failed registering for SDK event (%s), err (%s)", event_rows[event].name,
                        kr_status_str(sdk_status));
            return KR_SDN_HAL_STATUS_SDK_ERROR;
        }
    }
    registry_add(event, handle);
    HAL_DEBUG("HAL events - Registration for event (%s) finished successfully", event_rows[event].name);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_srvc_event_unregister(srvc_handle *handle, uint32_t event) noexcept {
    const kr_sdn_hal_status status = check_channel(handle);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (event >= KR_SDN_HAL_EVENT_TYPE_COUNT) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    if (is_sdk_event(event)) {
        if (!is_set(handle->sdk_fd_open)) {
            return KR_SDN_HAL_STATUS_PARAM_ERROR;
        }
        const kr_status sdk_status = trap_set(handle, KR_API_CMD_DEREGISTER, event);
        if (sdk_status != KR_STATUS_SUCCESS) {
            HAL_WARNING("Failed unregistering from SDK event (%s), err (%s)", event_rows[event].name,
                        kr_status_str(sdk_status));
            return KR_SDN_HAL_STATUS_SDK_ERROR;
        }
    }
    if (!registry_remove(event, handle)) {
        HAL_ERROR("HAL events - Failed unregistering from event (%s)", event_rows[event].name);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    HAL_DEBUG("HAL events - successfully unregistered from event (%s)", event_rows[event].name);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- records and packets --------------------------------------------------------------------------------------- */

kr_sdn_hal_status kr_sdn_hal_srvc_process_event(const hal_event_record *record) noexcept {
    if (!initialized()) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    if (record == nullptr || record->type >= KR_SDN_HAL_EVENT_TYPE_COUNT) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    const plock_shared guard(events_db.lock);
    for (const srvc_handle *handle : events_db.handles[record->type]) {
        const int write_end = handle == nullptr ? no_descriptor : write_end_of(*handle);
        if (write_end != no_descriptor && !write_record(write_end, *record)) {
            return KR_SDN_HAL_STATUS_ERROR;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_srvc_select(srvc_handle **handles, uint32_t handle_count, struct timeval *timeout,
                                         uint32_t *ready_mask) noexcept {
    if (!initialized()) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    if (handles == nullptr || ready_mask == nullptr || handle_count == 0 || any_null(handles, handle_count)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    kr::descriptor_set readable;
    if (!add_channels(&readable, handles, handle_count)) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    const int ready = readable.wait(timeout);
    if (ready < 0) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    *ready_mask = 0;
    if (ready == 0) {
        HAL_DEBUG("HAL events - Select finished successfully, but no event is waiting");
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    *ready_mask = ready_bits(readable, handles, handle_count);
    HAL_DEBUG("HAL events - Select finished successfully, an event is waiting");
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_srvc_recv(srvc_handle *handle, hal_event_record *record) noexcept {
    kr_sdn_hal_status status = check_channel(handle);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (record == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    status = receive(handle, record);
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_DEBUG("HAL events - Receive finished successfully");
    }
    return status;
}

kr_sdn_hal_status kr_sdn_hal_srvc_packet_send(srvc_handle *handle, const void *packet, uint32_t length,
                                              uint32_t egress_port, uint8_t priority) noexcept {
    kr_sdn_hal_status status = check_channel(handle);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (packet == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    status = ensure_sdk_fd(handle);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (!is_set(handle->sdk_fd_open)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    uint32_t log_port = 0;
    status = port_get_log_port(egress_port, &log_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed translating HAL port to SDK log port");
        return status;
    }
    const kr_status sent =
        kr_lib_host_ifc_unicast_ctrl_send(&handle->sdk_fd, packet, length, switch_id, log_port, priority);
    if (sent != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed sending packet from SDN HAL, SDK error (%s)", kr_status_str(sent));
        return KR_SDN_HAL_STATUS_SDK_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status kr_sdn_hal_srvc_event_ack(const hal_event_record *record) noexcept {
    return initialized() ? general_process_shim_event_ack(record) : KR_SDN_HAL_STATUS_ERROR;
}
