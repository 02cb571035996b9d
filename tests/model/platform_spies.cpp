/*
 * The platform calls that are looked at on their way. Each does what the platform does, but for the worker.
 */
#include "tests/model/platform_spies.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <vector>

#include "kr_complib.h"
#include "kr_sdn_hal.h"

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

/* ---- calls of the operating system ----------------------------------------------------------------------------- */

constexpr const char *system_calls[] = {"pipe", "close", "read", "write", "select"};

struct address_range {
    uintptr_t begin = 0, end = 0;
};

// Where the library's code lies.
address_range library_range() {
    Dl_info info{};
    (void)dladdr(reinterpret_cast<void *>(&kr_sdn_hal_init), &info);
    struct search {
        uintptr_t base;
        address_range found;
    } search{reinterpret_cast<uintptr_t>(info.dli_fbase), {}};
    (void)dl_iterate_phdr(
        [](dl_phdr_info *object, size_t, void *context) {
            auto *const wanted = static_cast<struct search *>(context);
            for (size_t i = 0; i < object->dlpi_phnum; i++) {
                const ElfW(Phdr) &header = object->dlpi_phdr[i];
                if (object->dlpi_addr == wanted->base && header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
                    const uintptr_t begin = object->dlpi_addr + header.p_vaddr;
                    wanted->found = {begin, begin + header.p_memsz};
                }
            }
            return 0;
        },
        &search);
    return search.found;
}

std::atomic<bool> has_system_fault{false};

// The code with which the call is to fail; 0: it is not.
uint32_t system_call_due(const char *name, const void *return_address) {
    if (!has_system_fault) {
        return 0;
    }
    static const address_range library = library_range();
    const auto address = reinterpret_cast<uintptr_t>(return_address);
    if (address < library.begin || address >= library.end) {
        return 0;
    }
    const std::lock_guard lock(spies.mutex);
    fault &planned = spies.system_call;
    if (planned.function != name) {
        return 0;
    }
    if (planned.nth > 0) {
        planned.nth--;
        return 0;
    }
    const uint32_t code = planned.code;
    if (!planned.persistent) {
        planned = {};
    }
    return code;
}

int failed(uint32_t code) {
    if (code == code_nothing) {
        return 0;
    }
    errno = static_cast<int>(code);
    return -1;
}

} // namespace

bool is_system_call(const std::string &function) {
    return std::ranges::find(system_calls, function) != std::end(system_calls);
}

void system_fault_set(const fault &planned) {
    const std::lock_guard lock(spies.mutex);
    spies.system_call = planned;
    has_system_fault = !planned.function.empty();
}

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

/* ---- the operating system -------------------------------------------------------------------------------------- */

// Only what the library itself calls may fail: it is told by the address that the call returns to.
#define DUE(name) system_call_due(name, __builtin_return_address(0))

EXPORTED int pipe(int *ends) noexcept {
    SPY(pipe);
    const uint32_t code = DUE("pipe");
    return code != 0 ? failed(code) : platform(ends);
}

EXPORTED int close(int fd) {
    SPY(close);
    const uint32_t code = DUE("close");
    const int result = platform(fd); // it is closed all the same
    return code != 0 ? failed(code) : result;
}

EXPORTED ssize_t read(int fd, void *bytes, size_t size) {
    SPY(read);
    const uint32_t code = DUE("read");
    if (code == code_part) { // the rest is lost
        const ssize_t part = platform(fd, bytes, size / 2);
        std::vector<uint8_t> rest(size - size / 2);
        return part > 0 && platform(fd, rest.data(), rest.size()) > 0 ? part : -1;
    }
    return code != 0 ? failed(code) : platform(fd, bytes, size);
}

EXPORTED ssize_t write(int fd, const void *bytes, size_t size) {
    SPY(write);
    const uint32_t code = DUE("write");
    if (code == code_part) {
        return platform(fd, bytes, (size + 1) / 2);
    }
    return code != 0 ? failed(code) : platform(fd, bytes, size);
}

// Only the thread of control frames waits here on a thread of the library.
EXPORTED int select(int count, fd_set *__restrict reads, fd_set *__restrict writes, fd_set *__restrict exceptions,
                    timeval *__restrict timeout) {
    SPY(select);
    const uint32_t code = DUE("select");
    if (this_thread_role == thread_role::library) {
        const std::lock_guard lock(spies.mutex);
        spies.control_wait_count++;
        spies.changed.notify_all();
    }
    return code != 0 ? failed(code) : platform(count, reads, writes, exceptions, timeout);
}
