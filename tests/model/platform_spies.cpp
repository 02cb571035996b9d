/*
 * The platform calls that are looked at on their way. Each does what the platform does, but for the worker.
 */
#include "tests/model/platform_spies.h"

#include <dlfcn.h>
#include <sys/select.h>

#include "kr_complib.h"

namespace kr_model {

thread_local thread_role this_thread_role = thread_role::library;
platform_spies spies;

namespace {

template <typename Function> Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

psort_notification_callback library_callback;
seen_placement *current_placement;

kr_utils_status notified(uint32_t type, psort_notification_data *data, void *context) {
    const kr_utils_status answer = library_callback(type, data, context);
    if (type == PSORT_TABLE_SHIFT && current_placement != nullptr) {
        current_placement->shifts.push_back({data->old_index, data->new_index, data->size, answer});
    }
    return answer;
}

template <typename Call> kr_utils_status watched(seen_placement seen, Call call) {
    current_placement = &seen;
    seen.status = call(&seen);
    current_placement = nullptr;
    spies.answers.placements.push_back(seen);
    return seen.status;
}

} // namespace
} // namespace kr_model

using namespace kr_model;

#define SPY(function) static auto *const platform = next<decltype(function)>(#function)
#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED kr_utils_status psort_init(psort_handle *handle, const psort_table_attributes *attributes) {
    SPY(psort_init);
    psort_table_attributes watched_attributes = *attributes;
    library_callback = attributes->notification_callback;
    watched_attributes.notification_callback = notified;
    return platform(handle, &watched_attributes);
}

EXPORTED kr_utils_status psort_entry_set(psort_handle handle, uint32_t command, psort_entry *entry) {
    SPY(psort_entry_set);
    return watched({command, entry->key, entry->priority, 0, 0, {}}, [&](seen_placement *seen) {
        const kr_utils_status status = platform(handle, command, entry);
        seen->index = entry->index;
        return status;
    });
}

EXPORTED kr_utils_status psort_background_worker(psort_handle handle, uint32_t *finished) {
    SPY(psort_background_worker);
    if (this_thread_role == thread_role::library) {
        *finished = 1;
        return KR_UTILS_STATUS_SUCCESS;
    }
    return watched({placement_worker, 0, 0, 0, 0, {}}, [&](seen_placement *) { return platform(handle, finished); });
}

EXPORTED kr_status kr_acl_rm_api_acl_set(kr_acl_rm_handle handle, uint32_t command, kr_acl_attributes *attributes) {
    SPY(kr_acl_rm_api_acl_set);
    const kr_status status = platform(handle, command, attributes);
    if (status == KR_STATUS_SUCCESS && command == KR_ACL_RM_CMD_CREATE) {
        spies.answers.acl_ids.push_back(attributes->acl_id);
    }
    return status;
}

EXPORTED kr_status kr_acl_rm_api_counter_set(kr_acl_rm_handle handle, uint32_t command,
                                             const kr_acl_counter_attributes *attributes, uint32_t *counter_id) {
    SPY(kr_acl_rm_api_counter_set);
    const kr_status status = platform(handle, command, attributes, counter_id);
    if (status == KR_STATUS_SUCCESS) {
        spies.answers.counter_ids.push_back(*counter_id);
    }
    return status;
}

EXPORTED kr_status kr_acl_rm_api_acl_mc_group_set(kr_acl_rm_handle handle, uint32_t command, uint32_t port_count,
                                                  const uint32_t *log_ports, uint32_t *group_id) {
    SPY(kr_acl_rm_api_acl_mc_group_set);
    const kr_status status = platform(handle, command, port_count, log_ports, group_id);
    if (status == KR_STATUS_SUCCESS && command == KR_ACL_RM_CMD_GROUP_CREATE) {
        spies.answers.group_ids.push_back(*group_id);
    }
    return status;
}

// Between here and its end the connector's thread may be taken to wait: what it had to write is written.
EXPORTED cl_status_t cl_event_wait_on(cl_event_t *event, uint32_t wait_us, uint32_t interruptible) {
    SPY(cl_event_wait_on);
    if (this_thread_role == thread_role::connector) {
        const std::lock_guard lock(spies.mutex);
        spies.connector_in_wait = true;
        spies.changed.notify_all();
    }
    return platform(event, wait_us, interruptible);
}

// Only the thread of control frames waits here on a thread of the library.
EXPORTED int select(int count, fd_set *__restrict reads, fd_set *__restrict writes, fd_set *__restrict exceptions,
                    timeval *__restrict timeout) {
    SPY(select);
    if (this_thread_role == thread_role::library) {
        const std::lock_guard lock(spies.mutex);
        spies.control_wait_count++;
        spies.changed.notify_all();
    }
    return platform(count, reads, writes, exceptions, timeout);
}
