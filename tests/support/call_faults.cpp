/*
 * The table of calls, the hook that records them and lets them fail, and the functions that --wrap puts in their
 * places.
 */
#include "tests/support/call_faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>

#include "core/events_db.h"
#include "core/general_state.h"
#include "kr_acl_rm.h"
#include "kr_api.h"
#include "kr_complib.h"
#include "kr_host_ifc.h"
#include "kr_psort.h"
#include "tables/tables_internal.h"
#include "tests/support/threads.h"

namespace kr_test {
namespace {

/* ---- the table of calls ---------------------------------------------------------------------------------------- */

template <uint32_t... Values> constexpr failure_code codes[] = {{Values}...};

// Every status of a plug-in, of the switch's libraries (kr_status) and of pSort (kr_utils_status).
constexpr auto &any_status = codes<1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11>;
constexpr auto &any_of_the_switch = codes<1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14>;
constexpr auto &any_of_psort = codes<1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18>;

constexpr failure_code null_pointer[] = {{1, "NULL"}};
constexpr failure_code not_there[] = {{1, "not there"}};
constexpr failure_code no_descriptors[] = {{EMFILE, "EMFILE"}, {ENFILE, "ENFILE"}};
constexpr failure_code read_codes[] = {{EIO, "EIO"}, {EINTR, "EINTR"}, {code_nothing, "nothing"}, {code_part, "part"}};
constexpr failure_code write_codes[] = {
    {EIO, "EIO"}, {EINTR, "EINTR"}, {EPIPE, "EPIPE"}, {code_nothing, "nothing"}, {code_part, "part"}};
constexpr failure_code select_codes[] = {
    {EBADF, "EBADF"}, {EINTR, "EINTR"}, {ENOMEM, "ENOMEM"}, {code_nothing, "nothing"}};
constexpr failure_code close_codes[] = {{EIO, "EIO"}, {EINTR, "EINTR"}};
constexpr failure_code bad_descriptor[] = {{EBADF, "EBADF"}};

/* clang-format off */
constexpr call_row rows[] = {
    // device
    {"kr_api_open",                          call_class::device,      any_of_the_switch},
    {"kr_api_close",                         call_class::device,      any_of_the_switch},
    {"kr_api_port_state_get",                call_class::device,      any_of_the_switch},
    {"kr_api_host_ifc_open",                 call_class::device,      any_of_the_switch},
    {"kr_api_host_ifc_close",                call_class::device,      any_of_the_switch},
    {"kr_api_host_ifc_trap_id_register_set", call_class::device,      any_of_the_switch},
    {"kr_lib_host_ifc_recv",                 call_class::device,      any_of_the_switch},
    {"kr_lib_host_ifc_unicast_ctrl_send",    call_class::device,      any_of_the_switch},
    // ACL resource manager
    {"kr_acl_rm_api_open",                   call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_init",                   call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_close",                  call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_acl_set",                call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_acl_bind_port_set",      call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_acl_rule_set",           call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_acl_rule_get",           call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_acl_rule_move_block",    call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_counter_set",            call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_counter_get",            call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_acl_mc_group_set",       call_class::acl_rm,      any_of_the_switch},
    {"kr_acl_rm_api_acl_mc_group_get",       call_class::acl_rm,      any_of_the_switch},
    // pSort
    {"psort_init",                           call_class::psort,       any_of_psort},
    {"psort_entry_set",                      call_class::psort,       any_of_psort},
    {"psort_clear_table",                    call_class::psort,       any_of_psort},
    {"psort_background_worker",              call_class::psort,       any_of_psort},
    // plug-ins; conn_config_params_get is never called, conn_log returns nothing
    {"conn_init",                            call_class::connector,   any_status},
    {"conn_init_done_hal",                   call_class::connector,   any_status},
    {"conn_init_done_shim",                  call_class::connector,   any_status},
    {"conn_deinit",                          call_class::connector,   any_status},
    {"conn_config_callback_register",        call_class::connector,   any_status},
    {"conn_event_callback_register",         call_class::connector,   any_status},
    {"activate",                             call_class::port_plugin, any_status},
    {"deinit",                               call_class::port_plugin, any_status},
    {"rstp_port_state_set",                  call_class::port_plugin, any_status},
    {"rstp_port_state_get",                  call_class::port_plugin, any_status},
    {"port_phys_addr_get",                   call_class::port_plugin, any_status},
    {"port_speed_admin_set",                 call_class::port_plugin, any_status},
    {"port_speed_admin_get",                 call_class::port_plugin, any_status},
    {"port_speed_cabability_get",            call_class::port_plugin, any_status},
    {"port_speed_oper_get",                  call_class::port_plugin, any_status},
    {"port_state_set",                       call_class::port_plugin, any_status},
    {"port_state_get",                       call_class::port_plugin, any_status},
    {"port_oper_state_get",                  call_class::port_plugin, any_status},
    {"port_mtu_set",                         call_class::port_plugin, any_status},
    {"port_mtu_get",                         call_class::port_plugin, any_status},
    {"port_cntr_get",                        call_class::port_plugin, any_status},
    {"port_cntr_clear",                      call_class::port_plugin, any_status},
    // component library
    {"cl_plock_init",                        call_class::component,   codes<CL_ERROR>},
    {"cl_event_init",                        call_class::component,   codes<CL_ERROR>},
    {"cl_event_signal",                      call_class::component,   codes<CL_INVALID_STATE>},
    {"cl_event_reset",                       call_class::component,   codes<CL_INVALID_STATE>},
    {"cl_event_wait_on",                     call_class::component,   codes<CL_INTERRUPTED, CL_INVALID_STATE>},
    {"cl_thread_init",                       call_class::component,   codes<CL_ERROR, CL_INVALID_PARAMETER>},
    {"cl_qpool_init",                        call_class::memory,      codes<CL_INSUFFICIENT_MEMORY, CL_INVALID_PARAMETER>},
    {"cl_qpool_get",                         call_class::memory,      null_pointer},
    {"cl_malloc",                            call_class::memory,      null_pointer},
    {"cl_qmap_get",                          call_class::map,         not_there}, // of what is there
    // logger
    {"kr_log_init",                          call_class::logger,      codes<1>},
    {"kr_log_close",                         call_class::logger,      codes<1, 2>},
    // loader
    {"dlopen",                               call_class::loader,      null_pointer},
    {"dlsym",                                call_class::loader,      null_pointer},
    {"dlclose",                              call_class::loader,      codes<1>},
    // operating system
    {"pipe",                                 call_class::system,      no_descriptors},
    {"read",                                 call_class::system,      read_codes},
    {"write",                                call_class::system,      write_codes},
    {"select",                               call_class::system,      select_codes},
    {"close",                                call_class::system,      close_codes}, // the descriptor is closed all the same
    {"fcntl",                                call_class::system,      bad_descriptor},
};
/* clang-format on */

/* ---- the hook -------------------------------------------------------------------------------------------------- */

thread_local caller current_caller = caller::outside;
thread_local const char *pending_loader_error = nullptr;

constexpr size_t caller_count = 4;

struct hook {
    std::mutex mutex;

    bool is_armed = false;
    caller who = caller::client;
    kr_test::fault fault;
    call_class fault_class{};
    bool has_begun = false; // the fault: its first call has failed
    uint32_t next_index = 0;
    uint32_t failed_count = 0;
    std::vector<call_entry> entries;
    std::map<std::pair<caller, std::string>, uint32_t> counts;

    std::map<int, std::string> descriptors;
    uint32_t pipe_count = 0;
    uint32_t interface_count = 0;
    std::set<const void *> memory_blocks, threads;
    std::multiset<const void *> pools, locks,
        events; // one that is made anew before it is given back is lost, and counts
    std::map<const void *, uint32_t> libraries;

    std::map<uint32_t, uint64_t> places; // where pSort has put which key
};

hook &the_hook() {
    static auto *const instance = new hook; // threads of a failed test may outlive main
    return *instance;
}

std::array<std::atomic<uint32_t>, caller_count> wait_counts{};
std::array<std::atomic<bool>, caller_count> waiting{};
std::array<std::atomic<int>, caller_count> running{};
std::array<std::atomic<pid_t>, caller_count> thread_numbers{};
std::atomic<bool> time_passes{false};

std::string text_of(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string text_of(const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

// Whether the call with this index is to fail, and how; 0: it is not.
uint32_t code_due(hook &hook, const call_row &row, uint32_t index) {
    const fault &fault = hook.fault;
    if (hook.failed_count >= fault.limit) {
        return 0;
    }
    if (index == fault.nth && fault.reach != fault_reach::none) {
        hook.has_begun = true;
        hook.fault_class = row.kind;
        return fault.code;
    }
    const bool is_second = fault.second == index;
    const bool is_reached = fault.reach == fault_reach::everything ||
                            (fault.reach == fault_reach::this_class && row.kind == hook.fault_class);
    return hook.has_begun && (is_second || is_reached) ? row.codes.front().value : 0;
}

std::string text_of_code(const call_row &row, uint32_t code) {
    for (const failure_code &known : row.codes) {
        if (known.value == code && *known.text != '\0') {
            return known.text;
        }
    }
    return std::to_string(code);
}

// A call on its way: in the record from its beginning, with its result once it has one.
class call {
  public:
    call(const char *name, const std::string &arguments, bool can_fail = true) {
        hook &hook = the_hook();
        const std::lock_guard lock(hook.mutex);
        hook.counts[{current_caller, name}]++;
        if (!hook.is_armed || current_caller != hook.who) {
            return;
        }
        const call_row *const row = can_fail ? call_row_of(name) : nullptr;
        const int index = row != nullptr ? static_cast<int>(hook.next_index++) : -1;
        code_ = row != nullptr ? code_due(hook, *row, static_cast<uint32_t>(index)) : 0;
        hook.failed_count += code_ != 0 ? 1 : 0;
        std::string text = name + ('(' + arguments + ')');
        if (code_ != 0) {
            text += " = " + text_of_code(*row, code_);
        }
        entry_ = hook.entries.size();
        is_recorded_ = true;
        hook.entries.push_back({current_caller, false, index, name, std::move(text), code_ != 0});
    }
    // What the call is to return instead; 0: it is to go on.
    [[nodiscard]] uint32_t code() const {
        return code_;
    }
    uint32_t done(uint32_t status) {
        if (status != 0) {
            append(" = " + std::to_string(status));
        }
        return status;
    }
    void append(const std::string &text) {
        hook &hook = the_hook();
        const std::lock_guard lock(hook.mutex);
        if (is_recorded_ && entry_ < hook.entries.size()) {
            hook.entries[entry_].text += text;
        }
    }

  private:
    bool is_recorded_ = false;
    size_t entry_ = 0;
    uint32_t code_ = 0;
};

void note_log(const std::string &line) {
    hook &hook = the_hook();
    const std::lock_guard lock(hook.mutex);
    if (hook.is_armed && current_caller != caller::outside) {
        hook.entries.push_back({current_caller, true, -1, "", line, false});
    }
}

template <typename Change> void with_hook(Change change) {
    hook &hook = the_hook();
    const std::lock_guard lock(hook.mutex);
    change(hook);
}

void erase_one(std::multiset<const void *> *items, const void *item) {
    if (const auto found = items->find(item); found != items->end()) {
        items->erase(found);
    }
}

std::string name_of_lock(const void *lock) {
    if (lock == &events_db.lock || lock == &events_db.lock.lock) {
        return "registry";
    }
    const cl_plock_t &table = kr::tables::g.table_locks[0];
    return lock == &table || lock == &table.lock ? "table" : "unknown lock";
}

std::string name_of_event(const cl_event_t *event) {
    return event == &kr::general::g.port_disable_event ? "port disabled"
           : event == &kr::tables::g.stop_event        ? "stop"
                                                       : "unknown event";
}

/* Where pSort puts a flow is its own business: a record says whose place it is, once that is known to be true. */

std::string place_text(uint32_t offset) {
    hook &hook = the_hook();
    const std::lock_guard lock(hook.mutex);
    const auto found = hook.places.find(offset);
    return found != hook.places.end() ? "the place of " + std::to_string(found->second)
                                      : "offset " + std::to_string(offset);
}

// The block that pSort asked for last, as the library told it in its log.
struct shift {
    uint32_t from, to, size;
};
thread_local shift last_shift{};

void places_move(hook &hook, const shift &block) {
    std::map<uint32_t, uint64_t> moved;
    for (const auto &[offset, key] : hook.places) {
        const bool is_inside = offset >= block.from && offset < block.from + block.size;
        moved[is_inside ? offset - block.from + block.to : offset] = key;
    }
    hook.places = std::move(moved);
}

std::string without_places(std::string line) {
    uint64_t key = 0;
    uint32_t offset = 0;
    const size_t flow = line.find("flow ID [");
    const size_t at = line.find("at offset [");
    if (flow != std::string::npos && at != std::string::npos &&
        sscanf(line.c_str() + flow, "flow ID [%lu", &key) == 1 &&
        sscanf(line.c_str() + at, "at offset [%u", &offset) == 1 &&
        place_text(offset) == "the place of " + std::to_string(key)) {
        return line.replace(at, line.find(']', at) - at, "at offset [<its place>");
    }
    const size_t notified = line.find("old_index: ");
    shift asked{};
    if (notified != std::string::npos && sscanf(line.c_str() + notified, "old_index: %u, new_index: %u, size: %u",
                                                &asked.from, &asked.to, &asked.size) == 3) {
        last_shift = asked;
        return line.replace(notified, line.rfind(' ') - notified, "old_index: <from>, new_index: <to>, size: <size>");
    }
    const size_t moved = line.find("start block [");
    if (moved != std::string::npos &&
        sscanf(line.c_str() + moved, "start block [%u] , new start [%u] and size [%u]", &asked.from, &asked.to,
               &asked.size) == 3 &&
        asked.from == last_shift.from && asked.to == last_shift.to && asked.size == last_shift.size) {
        return line.replace(moved, std::string::npos, "start block [<from>] , new start [<to>] and size [<size>]");
    }
    const size_t entry = line.find("entry at offset  [");
    if (entry != std::string::npos && sscanf(line.c_str() + entry, "entry at offset  [%u", &offset) == 1 &&
        offset >= last_shift.from && offset < last_shift.from + last_shift.size) {
        return line.replace(entry, line.find(']', entry) - entry, "entry at offset  [<in the block>");
    }
    return line;
}

// Of the prefix of a debug line, the file and the function stay: "general.cpp[<line>]- general_init: ".
std::string without_line_number(std::string line) {
    char file[64];
    int begin = 0;
    int end = 0;
    if (sscanf(line.c_str(), "%63[a-z_].cpp[%n%*d%n]- ", file, &begin, &end) == 1 && end > begin &&
        line.compare(static_cast<size_t>(end), 3, "]- ") == 0) {
        line.replace(static_cast<size_t>(begin), static_cast<size_t>(end - begin), "<line>");
    }
    return line;
}

// A record is the same wherever the plug-ins lie: of an absolute path the name stays.
std::string without_folders(std::string line) {
    for (size_t begin = line.find('/'); begin != std::string::npos; begin = line.find('/', begin + 1)) {
        const bool begins_word = begin == 0 || line[begin - 1] == ' ' || line[begin - 1] == '[';
        const size_t end = std::min(line.find_first_of(" ,:]", begin), line.size());
        const size_t name = line.rfind('/', end - 1);
        if (begins_word && name != begin) {
            line.replace(begin, name - begin, "...");
            begin += 4;
        }
    }
    return line;
}

class waiting_here {
  public:
    waiting_here() : index_(static_cast<size_t>(current_caller)) {
        wait_counts[index_]++;
        waiting[index_] = true;
    }
    ~waiting_here() {
        waiting[index_] = false;
    }
    waiting_here(const waiting_here &) = delete;
    waiting_here &operator=(const waiting_here &) = delete;

  private:
    size_t index_;
};

// Threads of the library begin here: they say who they are.
struct thread_start {
    caller who;
    cl_thread_function function;
    void *context;
};

void thread_begin(void *start) {
    const thread_start mine = *static_cast<thread_start *>(start);
    delete static_cast<thread_start *>(start);
    const calling_as as(mine.who);
    thread_numbers[static_cast<size_t>(mine.who)] = thread_id();
    mine.function(mine.context);
    running[static_cast<size_t>(mine.who)]--;
}

caller caller_of(cl_thread_function function) {
    return function == __psort_background_thread ? caller::background : caller::control_frames;
}

} // namespace

const call_row *call_row_of(const std::string &name) {
    const auto *const found =
        std::find_if(std::begin(rows), std::end(rows), [&](const call_row &row) { return row.name == name; });
    return found != std::end(rows) ? found : nullptr;
}
std::span<const call_row> call_rows() {
    return rows;
}

calling_as::calling_as(caller who) : before_(std::exchange(current_caller, who)) {}
calling_as::~calling_as() {
    current_caller = before_;
}

void calls_arm(caller who, const fault &fault) {
    with_hook([&](hook &hook) {
        hook.is_armed = true;
        hook.who = who;
        hook.fault = fault;
        hook.has_begun = false;
        hook.next_index = 0;
        hook.failed_count = 0;
        hook.entries.clear();
    });
}

std::vector<call_entry> calls_disarm() {
    std::vector<call_entry> entries;
    with_hook([&](hook &hook) {
        hook.is_armed = false;
        entries = std::exchange(hook.entries, {});
    });
    return entries;
}

uint32_t calls_failed_count() {
    uint32_t count = 0;
    with_hook([&](const hook &hook) { count = hook.failed_count; });
    return count;
}

uint32_t calls_count(caller who, const std::string &name) {
    uint32_t count = 0;
    with_hook([&](hook &hook) { count = hook.counts[{who, name}]; });
    return count;
}

call_ledger ledger() {
    call_ledger held{};
    with_hook([&](const hook &hook) {
        held = {hook.memory_blocks.size(), hook.pools.size(),   hook.locks.size(),
                hook.events.size(),        hook.threads.size(), 0,
                hook.descriptors.size()};
        for (const auto &[library, count] : hook.libraries) {
            held.libraries += count;
        }
    });
    return held;
}

std::string name_of_descriptor(int fd) {
    hook &hook = the_hook();
    const std::lock_guard lock(hook.mutex);
    const auto found = hook.descriptors.find(fd);
    return found != hook.descriptors.end() ? found->second : fd < 0 ? "none" : "unknown descriptor";
}

uint32_t waits_begun(caller who) {
    return wait_counts[static_cast<size_t>(who)];
}
bool is_waiting(caller who) {
    return waiting[static_cast<size_t>(who)];
}
bool is_running(caller who) {
    return running[static_cast<size_t>(who)] != 0;
}
bool is_idle(caller who) {
    const auto index = static_cast<size_t>(who);
    return waiting[index] && thread_state(thread_numbers[index]) == 'S';
}
void let_time_pass() {
    time_passes = true;
}

uint32_t plugin_called(const char *name, const std::string &arguments) {
    return call(name, arguments).code();
}

} // namespace kr_test

/* ---- what --wrap puts in the place of the calls ---------------------------------------------------------------- */

using kr_test::call;
using kr_test::code_nothing;
using kr_test::code_part;
using kr_test::erase_one;
using kr_test::name_of_descriptor;
using kr_test::name_of_event;
using kr_test::name_of_lock;
using kr_test::text_of;
using kr_test::with_hook;

// Declares the real function and its wrapper.
#define KR_WRAPPED(result, name, ...)                                                                                  \
    result __real_##name(__VA_ARGS__);                                                                                 \
    result __wrap_##name(__VA_ARGS__);                                                                                 \
    result __wrap_##name(__VA_ARGS__)

// The usual wrapper: a status, and nothing to remember.
#define KR_FORWARD(name, text, ...)                                                                                    \
    {                                                                                                                  \
        call here(#name, text);                                                                                        \
        return here.code() != 0 ? here.code() : here.done(__real_##name(__VA_ARGS__));                                 \
    }

// Visible, since the linker reroutes the references of the sanitizers' shared libraries as well.
#pragma GCC visibility push(default)
extern "C" {

/* ---- device and host interface --------------------------------------------------------------------------------- */

KR_WRAPPED(kr_status, kr_api_open, kr_log_callback callback, kr_api_handle *handle)
KR_FORWARD(kr_api_open, "", callback, handle)

KR_WRAPPED(kr_status, kr_api_close, kr_api_handle *handle)
KR_FORWARD(kr_api_close, "", handle)

KR_WRAPPED(kr_status, kr_api_port_state_get, kr_api_handle handle, uint32_t log_port, uint32_t *oper, uint32_t *admin,
           uint32_t *module)
KR_FORWARD(kr_api_port_state_get, text_of("0x%x", log_port), handle, log_port, oper, admin, module)

KR_WRAPPED(kr_status, kr_api_host_ifc_open, kr_api_handle handle, kr_host_ifc_fd *descriptor) {
    call here("kr_api_host_ifc_open", "");
    if (here.code() != 0) {
        return here.code();
    }
    const kr_status status = here.done(__real_kr_api_host_ifc_open(handle, descriptor));
    if (status == KR_STATUS_SUCCESS) {
        std::string name;
        with_hook([&](auto &hook) {
            name = text_of("interface %u", ++hook.interface_count);
            hook.descriptors[descriptor->fd] = name;
        });
        here.append(" -> " + name);
    }
    return status;
}

KR_WRAPPED(kr_status, kr_api_host_ifc_close, kr_api_handle handle, kr_host_ifc_fd *descriptor) {
    const int fd = descriptor->fd;
    call here("kr_api_host_ifc_close", name_of_descriptor(fd));
    if (here.code() != 0) {
        return here.code();
    }
    const kr_status status = here.done(__real_kr_api_host_ifc_close(handle, descriptor));
    if (status == KR_STATUS_SUCCESS) {
        with_hook([&](auto &hook) { hook.descriptors.erase(fd); });
    }
    return status;
}

KR_WRAPPED(kr_status, kr_api_host_ifc_trap_id_register_set, kr_api_handle handle, uint32_t command, uint8_t swid,
           uint32_t trap_id, kr_user_channel *channel)
KR_FORWARD(kr_api_host_ifc_trap_id_register_set,
           text_of("command %u, trap %u, %s", command, trap_id, name_of_descriptor(channel->descriptor.fd).c_str()),
           handle, command, swid, trap_id, channel)

KR_WRAPPED(kr_status, kr_lib_host_ifc_recv, kr_host_ifc_fd *descriptor, void *frame, uint32_t *size,
           kr_receive_info *info)
KR_FORWARD(kr_lib_host_ifc_recv, text_of("%s, room %u", name_of_descriptor(descriptor->fd).c_str(), *size), descriptor,
           frame, size, info)

KR_WRAPPED(kr_status, kr_lib_host_ifc_unicast_ctrl_send, kr_host_ifc_fd *descriptor, const void *frame, uint32_t size,
           uint8_t swid, uint32_t log_port, uint8_t priority)
KR_FORWARD(kr_lib_host_ifc_unicast_ctrl_send,
           text_of("%s, %u bytes, port 0x%x, priority %u", name_of_descriptor(descriptor->fd).c_str(), size, log_port,
                   priority),
           descriptor, frame, size, swid, log_port, priority)

/* ---- ACL resource manager -------------------------------------------------------------------------------------- */

KR_WRAPPED(kr_status, kr_acl_rm_api_open, kr_acl_rm_handle *handle, kr_log_callback callback)
KR_FORWARD(kr_acl_rm_api_open, "", handle, callback)

KR_WRAPPED(kr_status, kr_acl_rm_api_init, kr_acl_rm_handle handle, const kr_acl_rm_init_params *params)
KR_FORWARD(kr_acl_rm_api_init, text_of("mode %u", params->mode), handle, params)

KR_WRAPPED(kr_status, kr_acl_rm_api_close, kr_acl_rm_handle *handle)
KR_FORWARD(kr_acl_rm_api_close, "", handle)

KR_WRAPPED(kr_status, kr_acl_rm_api_acl_set, kr_acl_rm_handle handle, uint32_t command, kr_acl_attributes *attributes)
KR_FORWARD(kr_acl_rm_api_acl_set,
           text_of("command %u, acl %u, size %u", command, attributes->acl_id, attributes->region_size), handle,
           command, attributes)

KR_WRAPPED(kr_status, kr_acl_rm_api_acl_bind_port_set, kr_acl_rm_handle handle, uint32_t command, uint32_t acl_id,
           const uint32_t *log_ports, uint32_t count)
KR_FORWARD(kr_acl_rm_api_acl_bind_port_set,
           text_of("command %u, acl %u, %u port: 0x%x", command, acl_id, count, log_ports[0]), handle, command, acl_id,
           log_ports, count)

KR_WRAPPED(kr_status, kr_acl_rm_api_acl_rule_set, kr_acl_rm_handle handle, uint32_t command, uint32_t acl_id,
           kr_acl_rule *rules, uint32_t count)
KR_FORWARD(kr_acl_rm_api_acl_rule_set,
           text_of("command %u, acl %u, counter %u, ", command, acl_id, rules->counter_id) +
               kr_test::place_text(command == KR_ACL_RM_CMD_RULE_SET ? rules->set_offset : rules->access_offset),
           handle, command, acl_id, rules, count)

KR_WRAPPED(kr_status, kr_acl_rm_api_acl_rule_get, kr_acl_rm_handle handle, uint32_t acl_id, uint32_t reserved,
           kr_acl_rule *rules, uint32_t *count)
KR_FORWARD(kr_acl_rm_api_acl_rule_get,
           text_of("acl %u, activity %u, ", acl_id, rules->activity_mode) + kr_test::place_text(rules->access_offset),
           handle, acl_id, reserved, rules, count)

KR_WRAPPED(kr_status, kr_acl_rm_api_acl_rule_move_block, kr_acl_rm_handle handle, uint32_t acl_id, uint32_t old_start,
           uint32_t size, uint32_t new_start) {
    const kr_test::shift &asked = kr_test::last_shift;
    const bool is_asked = asked.from == old_start && asked.to == new_start && asked.size == size;
    call here("kr_acl_rm_api_acl_rule_move_block",
              text_of("acl %u, ", acl_id) +
                  (is_asked ? "<from>, <size>, <to>" : text_of("%u, %u, %u", old_start, size, new_start)));
    if (here.code() != 0) {
        return here.code();
    }
    const kr_status status =
        here.done(__real_kr_acl_rm_api_acl_rule_move_block(handle, acl_id, old_start, size, new_start));
    if (status == KR_STATUS_SUCCESS) {
        with_hook([&](auto &hook) { kr_test::places_move(hook, {old_start, new_start, size}); });
    }
    return status;
}

KR_WRAPPED(kr_status, kr_acl_rm_api_counter_set, kr_acl_rm_handle handle, uint32_t command,
           const kr_acl_counter_attributes *attributes, uint32_t *counter_id)
KR_FORWARD(kr_acl_rm_api_counter_set,
           text_of("command %u, {%u, %u}", command, attributes->initial_state, attributes->counter_type), handle,
           command, attributes, counter_id)

KR_WRAPPED(kr_status, kr_acl_rm_api_counter_get, kr_acl_rm_handle handle, uint32_t command, uint32_t counter_id,
           kr_acl_counter_flags *flags, kr_acl_counter_values *values)
KR_FORWARD(kr_acl_rm_api_counter_get, text_of("command %u, counter %u", command, counter_id), handle, command,
           counter_id, flags, values)

KR_WRAPPED(kr_status, kr_acl_rm_api_acl_mc_group_set, kr_acl_rm_handle handle, uint32_t command, uint32_t port_count,
           const uint32_t *log_ports, uint32_t *group_id)
KR_FORWARD(kr_acl_rm_api_acl_mc_group_set,
           command == KR_ACL_RM_CMD_GROUP_CREATE
               ? text_of("command %u, %u ports", command, port_count)
               : text_of("command %u, %u ports, group %u", command, port_count, *group_id),
           handle, command, port_count, log_ports, group_id)

KR_WRAPPED(kr_status, kr_acl_rm_api_acl_mc_group_get, kr_acl_rm_handle handle, uint32_t group_id, uint32_t *port_count,
           uint32_t *log_ports)
KR_FORWARD(kr_acl_rm_api_acl_mc_group_get, text_of("group %u, room %u", group_id, *port_count), handle, group_id,
           port_count, log_ports)

/* ---- pSort ----------------------------------------------------------------------------------------------------- */

KR_WRAPPED(kr_utils_status, psort_init, psort_handle *handle, const psort_table_attributes *attributes)
KR_FORWARD(psort_init,
           text_of("%u, %u, %u, %u, %u, %u, %lu", attributes->table_size, attributes->delta_size,
                   attributes->max_priority, attributes->min_priority, attributes->almost_full_percent,
                   attributes->almost_empty_percent, attributes->cookie),
           handle, attributes)

KR_WRAPPED(kr_utils_status, psort_entry_set, psort_handle handle, uint32_t command, psort_entry *entry) {
    call here("psort_entry_set", text_of("command %u, key %lu, priority %u", command, entry->key, entry->priority));
    if (here.code() != 0) {
        return here.code();
    }
    const kr_utils_status status = here.done(__real_psort_entry_set(handle, command, entry));
    if (status == KR_UTILS_STATUS_SUCCESS && kr_test::current_caller != kr_test::caller::outside) {
        with_hook([&](auto &hook) {
            std::erase_if(hook.places, [&](const auto &place) { return place.second == entry->key; });
            if (command == PSORT_CMD_ADD) {
                hook.places[entry->index] = entry->key;
            }
        });
    }
    return status;
}

KR_WRAPPED(kr_utils_status, psort_clear_table, psort_handle handle)
KR_FORWARD(psort_clear_table, "", handle)

KR_WRAPPED(kr_utils_status, psort_background_worker, psort_handle handle, uint32_t *finished)
KR_FORWARD(psort_background_worker, "", handle, finished)

/* ---- component library ----------------------------------------------------------------------------------------- */

KR_WRAPPED(cl_status_t, cl_plock_init, cl_plock_t *lock) {
    call here("cl_plock_init", name_of_lock(lock));
    if (here.code() != 0) {
        return here.code();
    }
    with_hook([&](auto &hook) { hook.locks.insert(lock); });
    return here.done(__real_cl_plock_init(lock));
}

KR_WRAPPED(void, cl_plock_destroy, cl_plock_t *lock) {
    const call here("cl_plock_destroy", name_of_lock(lock), false);
    with_hook([&](auto &hook) { erase_one(&hook.locks, lock); });
    __real_cl_plock_destroy(lock);
}

KR_WRAPPED(int, pthread_rwlock_rdlock, pthread_rwlock_t *lock) {
    const call here("lock", name_of_lock(lock) + " shared", false);
    return __real_pthread_rwlock_rdlock(lock);
}

KR_WRAPPED(int, pthread_rwlock_wrlock, pthread_rwlock_t *lock) {
    const call here("lock", name_of_lock(lock) + " exclusive", false);
    return __real_pthread_rwlock_wrlock(lock);
}

KR_WRAPPED(int, pthread_rwlock_unlock, pthread_rwlock_t *lock) {
    const call here("unlock", name_of_lock(lock), false);
    return __real_pthread_rwlock_unlock(lock);
}

KR_WRAPPED(cl_status_t, cl_event_init, cl_event_t *event, uint32_t manual_reset) {
    call here("cl_event_init", name_of_event(event) + (manual_reset != 0 ? ", manual" : ", automatic"));
    if (here.code() != 0) {
        return here.code();
    }
    with_hook([&](auto &hook) { hook.events.insert(event); });
    return here.done(__real_cl_event_init(event, manual_reset));
}

KR_WRAPPED(void, cl_event_destroy, cl_event_t *event) {
    const call here("cl_event_destroy", name_of_event(event), false);
    with_hook([&](auto &hook) { erase_one(&hook.events, event); });
    __real_cl_event_destroy(event);
}

KR_WRAPPED(cl_status_t, cl_event_signal, cl_event_t *event)
KR_FORWARD(cl_event_signal, name_of_event(event), event)

KR_WRAPPED(cl_status_t, cl_event_reset, cl_event_t *event)
KR_FORWARD(cl_event_reset, name_of_event(event), event)

KR_WRAPPED(cl_status_t, cl_event_wait_on, cl_event_t *event, uint32_t wait_us, uint32_t interruptible) {
    call here("cl_event_wait_on", name_of_event(event) +
                                      (wait_us == CL_EVENT_NO_TIMEOUT ? ", for ever" : text_of(", %u us", wait_us)) +
                                      (interruptible != 0 ? "" : ", not interruptible"));
    if (here.code() != 0) {
        return here.code();
    }
    const kr_test::waiting_here waiting;
    if (kr_test::current_caller != kr_test::caller::background) {
        return here.done(__real_cl_event_wait_on(event, wait_us, interruptible));
    }
    // The test owns the time of the background thread: its seconds pass when the test says so.
    constexpr uint32_t slice_us = 1000;
    for (;;) {
        const cl_status_t status = __real_cl_event_wait_on(event, slice_us, interruptible);
        if (status != CL_TIMEOUT || kr_test::time_passes) {
            return here.done(status);
        }
    }
}

KR_WRAPPED(cl_status_t, cl_thread_init, cl_thread_t *thread, cl_thread_function function, void *context,
           const char *name) {
    const kr_test::caller who = kr_test::caller_of(function);
    call here("cl_thread_init", who == kr_test::caller::background ? "background" : "control frames");
    if (here.code() != 0) {
        return here.code();
    }
    auto *const start = new kr_test::thread_start{who, function, context};
    kr_test::running[static_cast<size_t>(who)]++;
    const cl_status_t status = here.done(__real_cl_thread_init(thread, kr_test::thread_begin, start, name));
    if (status == CL_SUCCESS) {
        with_hook([&](auto &hook) { hook.threads.insert(thread); });
    } else {
        kr_test::running[static_cast<size_t>(who)]--;
        delete start;
    }
    return status;
}

KR_WRAPPED(void, cl_thread_destroy, cl_thread_t *thread) {
    const bool is_background = thread == &kr::tables::g.background_thread;
    const call here("cl_thread_destroy", is_background ? "background" : "control frames", false);
    if (is_background) {
        kr_test::let_time_pass(); // whether it was woken or not: its time-out ends it
    }
    __real_cl_thread_destroy(thread);
    with_hook([&](auto &hook) { hook.threads.erase(thread); });
    kr_test::time_passes = false;
}

KR_WRAPPED(cl_status_t, cl_qpool_init, cl_qpool_t *pool, size_t min_count, size_t max_count, size_t growth_size,
           size_t object_size, cl_qpool_constructor constructor, cl_qpool_destructor destructor, void *context) {
    call here("cl_qpool_init", text_of("%zu, %zu, %zu", min_count, max_count, growth_size));
    if (here.code() != 0) {
        return here.code();
    }
    const cl_status_t status = here.done(
        __real_cl_qpool_init(pool, min_count, max_count, growth_size, object_size, constructor, destructor, context));
    if (status == CL_SUCCESS) {
        with_hook([&](auto &hook) { hook.pools.insert(pool); });
    }
    return status;
}

KR_WRAPPED(void, cl_qpool_destroy, cl_qpool_t *pool) {
    const call here("cl_qpool_destroy", "", false);
    with_hook([&](auto &hook) { erase_one(&hook.pools, pool); });
    __real_cl_qpool_destroy(pool);
}

KR_WRAPPED(cl_pool_item_t *, cl_qpool_get, cl_qpool_t *pool) {
    const call here("cl_qpool_get", "");
    return here.code() != 0 ? nullptr : __real_cl_qpool_get(pool);
}

KR_WRAPPED(void, cl_qpool_put, cl_qpool_t *pool, cl_pool_item_t *item) {
    const call here("cl_qpool_put", "", false);
    __real_cl_qpool_put(pool, item);
}

// What is not there cannot go missing: only a look-up that finds can fail.
KR_WRAPPED(cl_map_item_t *, cl_qmap_get, const cl_qmap_t *map, uint64_t key) {
    cl_map_item_t *const found = __real_cl_qmap_get(map, key);
    const bool is_found = found != cl_qmap_end(map);
    const call here("cl_qmap_get", text_of("0x%lx", key) + (is_found ? "" : ", not there"), is_found);
    return here.code() != 0 ? cl_qmap_end(map) : found;
}

KR_WRAPPED(void *, cl_malloc, size_t size) {
    const call here("cl_malloc", text_of("%zu", size));
    void *const memory = here.code() != 0 ? nullptr : __real_cl_malloc(size);
    if (memory != nullptr) {
        with_hook([&](auto &hook) { hook.memory_blocks.insert(memory); });
    }
    return memory;
}

KR_WRAPPED(void, free, void *memory) {
    bool is_known = false;
    with_hook([&](auto &hook) { is_known = hook.memory_blocks.erase(memory) != 0; });
    if (is_known) {
        const call here("free", "", false);
    }
    __real_free(memory);
}

/* ---- logger ---------------------------------------------------------------------------------------------------- */

KR_WRAPPED(kr_status, kr_log_init, uint32_t mode, void *context, kr_log_callback callback)
KR_FORWARD(kr_log_init,
           text_of("%u, %s, %s", mode, context == nullptr ? "NULL" : "a context",
                   callback == nullptr ? "NULL" : "a callback"),
           mode, context, callback)

KR_WRAPPED(kr_status, kr_log_close, void)
KR_FORWARD(kr_log_close, "")

void __real_kr_log(uint32_t severity, const char *module, const char *format, ...);
void __wrap_kr_log(uint32_t severity, const char *module, const char *format, ...);
void __wrap_kr_log(uint32_t severity, const char *module, const char *format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::string line(text, length > 0 && text[length - 1] == '\n' ? static_cast<size_t>(length) - 1 : 0);
    if (line.empty()) {
        line = std::string(text) + "(no newline)";
    }
    kr_test::note_log(text_of("%u %s: \"", severity, module) +
                      kr_test::without_folders(kr_test::without_line_number(kr_test::without_places(line))) + '"');
    const kr_test::calling_as outside(kr_test::caller::outside);
    __real_kr_log(severity, module, "%s", text);
}

/* ---- loader ---------------------------------------------------------------------------------------------------- */

KR_WRAPPED(void *, dlopen, const char *path, int flags) {
    const std::string_view whole(path != nullptr ? path : "the program");
    call here("dlopen", std::string(whole.substr(whole.rfind('/') + 1)) + text_of(", %d", flags));
    if (here.code() != 0) {
        kr_test::pending_loader_error = "made to fail";
        return nullptr;
    }
    void *const library = __real_dlopen(path, flags);
    if (library != nullptr && kr_test::current_caller != kr_test::caller::outside) {
        with_hook([&](auto &hook) { hook.libraries[library]++; });
    }
    return library;
}

KR_WRAPPED(void *, dlsym, void *library, const char *symbol) {
    const call here("dlsym", symbol);
    if (here.code() != 0) {
        kr_test::pending_loader_error = "made to fail";
        return nullptr;
    }
    return __real_dlsym(library, symbol);
}

KR_WRAPPED(char *, dlerror, void) {
    const char *const pending = std::exchange(kr_test::pending_loader_error, nullptr);
    return pending != nullptr ? const_cast<char *>(pending) : __real_dlerror();
}

KR_WRAPPED(int, dlclose, void *library) {
    call here("dlclose", "");
    if (here.code() != 0) {
        return static_cast<int>(here.code());
    }
    if (kr_test::current_caller != kr_test::caller::outside) {
        with_hook([&](auto &hook) { hook.libraries[library]--; });
    }
    return __real_dlclose(library);
}

int __real_fprintf(FILE *stream, const char *format, ...);
int __wrap_fprintf(FILE *stream, const char *format, ...);
int __wrap_fprintf(FILE *stream, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    int result = 0;
    if (kr_test::current_caller == kr_test::caller::outside) {
        result = vfprintf(stream, format, arguments);
    } else {
        char text[1024];
        result = vsnprintf(text, sizeof text, format, arguments);
        const std::string line = kr_test::without_folders(text);
        const bool is_ended = line.ends_with('\n');
        kr_test::note_log("standard error: \"" + line.substr(0, line.size() - (is_ended ? 1 : 0)) + '"' +
                          (is_ended ? "" : "(no newline)"));
    }
    va_end(arguments);
    return result;
}

/* ---- operating system ------------------------------------------------------------------------------------------ */

KR_WRAPPED(int, pipe, int *ends) {
    call here("pipe", "");
    if (here.code() != 0) {
        errno = static_cast<int>(here.code());
        return -1;
    }
    const int result = __real_pipe(ends);
    if (result == 0 && kr_test::current_caller != kr_test::caller::outside) {
        std::string name;
        with_hook([&](auto &hook) {
            name = text_of("pipe %u", ++hook.pipe_count);
            hook.descriptors[ends[0]] = name + " read end";
            hook.descriptors[ends[1]] = name + " write end";
        });
        here.append(" -> " + name);
    }
    return result;
}

KR_WRAPPED(int, close, int fd) {
    const call here("close", name_of_descriptor(fd));
    if (kr_test::current_caller != kr_test::caller::outside) {
        with_hook([&](auto &hook) { hook.descriptors.erase(fd); });
    }
    const int result = __real_close(fd);
    if (here.code() != 0) {
        errno = static_cast<int>(here.code());
        return -1;
    }
    return result;
}

KR_WRAPPED(ssize_t, read, int fd, void *bytes, size_t size) {
    call here("read", name_of_descriptor(fd) + text_of(", %zu", size));
    if (here.code() == code_nothing) {
        return 0;
    }
    if (here.code() == code_part) {
        const ssize_t part = __real_read(fd, bytes, size / 2);
        std::vector<uint8_t> rest(size - size / 2); // is lost
        return part > 0 && __real_read(fd, rest.data(), rest.size()) > 0 ? part : -1;
    }
    if (here.code() != 0) {
        errno = static_cast<int>(here.code());
        return -1;
    }
    const ssize_t result = __real_read(fd, bytes, size);
    here.append(result != static_cast<ssize_t>(size) ? text_of(" = %zd", result) : "");
    return result;
}

KR_WRAPPED(ssize_t, write, int fd, const void *bytes, size_t size) {
    const call here("write", name_of_descriptor(fd) + text_of(", %zu", size));
    if (here.code() == code_nothing) {
        return 0;
    }
    if (here.code() != 0 && here.code() != code_part) {
        errno = static_cast<int>(here.code());
        return -1;
    }
    return __real_write(fd, bytes, here.code() == code_part ? size / 2 : size);
}

KR_WRAPPED(int, select, int highest, fd_set *readable, fd_set *writable, fd_set *exceptional, struct timeval *timeout) {
    call here("select", timeout == nullptr ? "for ever" : "for a time");
    if (here.code() == code_nothing) {
        FD_ZERO(readable);
        return 0;
    }
    if (here.code() != 0) {
        errno = static_cast<int>(here.code());
        return -1;
    }
    const kr_test::waiting_here waiting;
    const int result = __real_select(highest, readable, writable, exceptional, timeout);
    here.append(text_of(" = %d", result));
    return result;
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    const call here("fcntl", name_of_descriptor(fd) + text_of(", %d", command));
    if (here.code() != 0) {
        errno = static_cast<int>(here.code());
        return -1;
    }
    return __real_fcntl(fd, command, argument);
}

} // extern "C"
#pragma GCC visibility pop
