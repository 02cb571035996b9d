/*
 * Bringing the library to a stage and back, and looking at it.
 */
#include "tests/sweep/world.h"

#include <dirent.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>

#include "core/events_db.h"
#include "core/general_state.h"
#include "core/port.h"
#include "kr_soft.h"
#include "tables/tables_acl_internal.h"
#include "tables/tables_internal.h"
#include "tests/support/threads.h"
#include "tools/audit/table_audit.h"

extern "C" {
extern int32_t kr_HAL_TABLES_API_verb_level; // not exported, but the modules' own
}

namespace kr_test {
namespace {

constexpr int32_t most_verbose = 6; // every line, function traces included

// The statuses of the fakes, by the names of their entry points.
std::map<std::string, uint32_t *> &plugin_statuses() {
    static auto *const statuses = new std::map<std::string, uint32_t *>;
    return *statuses;
}

fake_connector_control *connector_control = nullptr;
fake_fpt_control *fpt_control = nullptr;

const char *callback_text(const void *callback) {
    return callback == nullptr ? "NULL" : "a callback";
}

// What the call was given.
std::string plugin_arguments(const std::string &name) {
    if (name == "conn_init") {
        return callback_text(reinterpret_cast<const void *>(connector_control->init_log_callback));
    }
    if (name == "conn_config_callback_register") {
        return callback_text(reinterpret_cast<const void *>(connector_control->config_callback));
    }
    if (name == "conn_event_callback_register") {
        return callback_text(reinterpret_cast<const void *>(connector_control->event_callback)) +
               (", mask " + std::to_string(connector_control->event_mask));
    }
    const bool has_port = name.find("port") != std::string::npos;
    return has_port ? "port " + std::to_string(fpt_control->port) : "";
}

void plugin_call(const char *name) {
    const uint32_t code = plugin_called(name, plugin_arguments(name));
    const auto status = plugin_statuses().find(name);
    if (status != plugin_statuses().end()) {
        *status->second = code;
    }
}

void connector_log(uint32_t severity, const char *module, const char *text) {
    (void)plugin_called("conn_log", std::to_string(severity) + ", " + module + ", " + text);
}

void client_log(uint32_t, const char *, const char *) {}

void fill_path(char (&path)[KR_SDN_HAL_PATH_SIZE], const char *text) {
    strncpy(path, text, sizeof path - 1);
}

void expect(uint32_t status, const char *what) {
    if (status != 0) {
        fprintf(stderr, "the stage cannot be reached: %s returned %u\n", what, status);
        _exit(3);
    }
}

size_t descriptor_count() {
    size_t count = 0;
    DIR *const folder = opendir("/proc/self/fd");
    while (const dirent *const entry = readdir(folder)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(folder);
    return count - 1; // the folder's own
}

size_t registration_count() {
    size_t count = 0;
    for (const auto &slots : events_db.handles) {
        count += static_cast<size_t>(
            std::count_if(std::begin(slots), std::end(slots), [](auto *slot) { return slot != nullptr; }));
    }
    return count;
}

uint32_t psort_entry_count() {
    if (acl_psort_handle == nullptr) {
        return 0;
    }
    std::vector<psort_entry> entries(TABLES_ACL_SIZE);
    auto count = static_cast<uint32_t>(entries.size());
    return kr_soft_psort_entries_get(acl_psort_handle, entries.data(), &count) == KR_STATUS_SUCCESS ? count : 0;
}

std::string ports_text() {
    uint32_t ports[PORT_MAX_COUNT];
    uint32_t count = PORT_MAX_COUNT;
    (void)kr_sdn_hal_port_arr_get(ports, &count);
    std::string text;
    for (uint32_t i = 0; i < count; i++) {
        text += (i == 0 ? "" : " ") + std::to_string(ports[i]);
    }
    return text.empty() ? "none" : text;
}

std::string channel_text(const srvc_handle &channel) {
    return std::string(channel.is_open == 1 ? "open" : "closed") + (channel.sdk_fd_open == 1 ? " with interface" : "");
}

// What waits for the client: bytes in the pipe, and whether something is queued at the interface.
std::string unread_text(const srvc_handle &channel) {
    if (channel.is_open != 1) {
        return "none";
    }
    int bytes = 0;
    (void)ioctl(channel.hal_pipe[0], FIONREAD, &bytes);
    pollfd interface = {.fd = channel.sdk_fd_open == 1 ? channel.sdk_fd.fd : -1, .events = POLLIN, .revents = 0};
    return std::to_string(bytes) + (poll(&interface, 1, 0) == 1 ? " and a frame" : "");
}

// Whether places, rules, flows database and what the exported API reads back agree.
std::string audit_text() {
    constexpr const char *names[] = {
#define X(name, text) #name,
        KR_AUDIT_FINDINGS(X)
#undef X
    };
    const kr_audit::report report = kr_audit::audit_table(kr::tables_acl::g.acl_id);
    if (!report.is_complete) {
        return "no table";
    }
    std::map<std::string, uint32_t> counts;
    for (const kr_audit::finding &finding : report.findings) {
        counts[names[static_cast<size_t>(finding.kind)]]++;
    }
    std::string text;
    for (const auto &[name, count] : counts) {
        text += (text.empty() ? "" : ", ") + name + ' ' + std::to_string(count);
    }
    return text.empty() ? "agrees" : text;
}

// How many ports are in each group that has any.
std::string members_text() {
    constexpr uint32_t last_group = 8;
    std::string text;
    for (uint32_t group = 1; group <= last_group; group++) {
        uint32_t ports[KR_SDN_HAL_GROUP_MAX_PORTS];
        uint32_t count = KR_SDN_HAL_GROUP_MAX_PORTS;
        const kr_status status = kr_acl_rm_api_acl_mc_group_get(kr::tables_acl::g.acl_rm_handle, group, &count, ports);
        if (status == KR_STATUS_SUCCESS && count != 0) {
            text += (text.empty() ? "" : " ") + std::to_string(count);
        }
    }
    return text.empty() ? "none" : text;
}

std::string capabilities_text() {
    capabilities stored{};
    (void)kr_sdn_hal_capabilities_get(&stored);
    return std::to_string(stored.mode) + " " + std::to_string(stored.frame_size) + " " +
           std::to_string(stored.reserved);
}

// A passive lock that is initialised can be had at once.
bool is_free(cl_plock_t &lock) {
    if (lock.state != CL_STATE_INITIALIZED) {
        return true;
    }
    if (pthread_rwlock_trywrlock(&lock.lock) != 0) {
        return false;
    }
    (void)pthread_rwlock_unlock(&lock.lock);
    return lock.waiting_writer_count == 0;
}

} // namespace

const std::vector<const char *> state_names = {
    // the library
    "initialized",
    "started",
    "capabilities",
    "ports",
    "tables",
    "flows",
    "places",
    "audit",
    "counters in use",
    "channel",
    "other channel",
    "unread",
    "unread of the other",
    "registrations",
    "devices",
    "managers",
    "ACLs",
    "bindings",
    "groups",
    "members",
    "rules",
    "counters",
    "interfaces",
    "libraries",
    "locks",
    "events",
    "pools",
    "threads",
    "running threads",
    "memory",
    "held descriptors",
    "open descriptors"};

const char *stage_name(stage of) {
    constexpr const char *names[] = {"loaded", "initialized", "started", "ports", "flows"};
    return names[static_cast<size_t>(of)];
}

std::string difference(const state &before, const state &after) {
    std::string text;
    for (size_t i = 0; i < after.size(); i++) {
        if (before[i].second != after[i].second) {
            text += (text.empty() ? "" : "; ") + after[i].first + " " + before[i].second + " -> " + after[i].second;
        }
    }
    return text;
}

std::vector<std::string> deviations(const state &expected, const state &found) {
    std::vector<std::string> differing;
    for (size_t i = 0; i < expected.size() && i < found.size(); i++) {
        if (expected[i].second != found[i].second) {
            differing.push_back(found[i].first + ' ' + found[i].second + " instead of " + expected[i].second);
        }
    }
    return differing;
}

world::world() : descriptors_at_first(descriptor_count()) {
    connector = std::make_unique<loaded_fake_connector>(KR_FAKE_PLUGIN_DIR "/fake_connector.so");
    fpt = std::make_unique<loaded_fake_fpt>(KR_FAKE_PLUGIN_DIR "/fake_fpt.so");
    fill_path(profile.connector_library_path, KR_FAKE_PLUGIN_DIR "/fake_connector.so");
    fill_path(profile.fpt_library_path, KR_FAKE_PLUGIN_DIR "/fake_fpt.so");
    connector_control = connector->operator->();
    fpt_control = fpt->operator->();
    (*connector)->record = plugin_call;
    (*connector)->log = connector_log;
    (*fpt)->record = plugin_call;
    plugin_statuses() = {{"conn_init", &(*connector)->init_status},
                         {"conn_init_done_hal", &(*connector)->init_done_hal_status},
                         {"conn_init_done_shim", &(*connector)->init_done_shim_status},
                         {"conn_deinit", &(*connector)->deinit_status},
                         {"conn_config_callback_register", &(*connector)->config_register_status},
                         {"conn_event_callback_register", &(*connector)->event_register_status},
#define X(name) {#name, &(*fpt)->name##_status},
                         FPT_SYMBOLS(X)
#undef X
    };
    (*fpt)->stp_state = PORT_STP_LEARNING;
    (*fpt)->admin_state = PORT_ADMIN_UP;
    (*fpt)->oper_state = PORT_OPER_DOWN;
    (*fpt)->admin_speed = {0, 1, 0, 1};
    (*fpt)->speed_capability = PORT_SPEED_CAPABILITY_10G;
    (*fpt)->oper_speed = 10000;
    (*fpt)->mtu = 9000;
    (*fpt)->mac_address = {{2, 0, 0, 0, 0, 2}};
    (*fpt)->counters = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    for (int32_t *const level : {&kr_HAL_API_verb_level, &kr_HAL_EVENTS_API_verb_level, &kr_HAL_API_PORT_verb_level,
                                 &kr_FPT_verb_level, &kr_HAL_GEN_verb_level, &kr_HAL_PORT_verb_level,
                                 &kr_FLOWS_DB_verb_level, &kr_HAL_UTILS_verb_level, &kr_HAL_TABLES_API_verb_level}) {
        *level = most_verbose;
    }
    // Of one priority: their places need no shift, whatever pSort does.
    flows = {flow_of(1, 20), flow_of(2, 20, FLOW_ACTION_CONTROLLER), flow_of(3, 20, FLOW_ACTION_OUTPUT)};
    flows[2].out_port = 2;
    flows[2].in_port = 1;
    flows[2].in_port_mask = 1;
}

void world::reach(stage goal) {
    if (goal >= stage::initialized) {
        expect(client([&] { return kr_sdn_hal_init(&profile, client_log); }), "init");
    }
    if (goal >= stage::started) {
        expect(event(CONN_EVENT_START), "start");
        while (!is_waiting(caller::background) || !is_waiting(caller::control_frames)) {
            sched_yield();
        }
    }
    if (goal >= stage::ports) {
        expect(add_port(1), "port 1");
        expect(add_port(2), "port 2");
    }
    if (goal >= stage::flows) {
        const uint32_t members[] = {1};
        std::vector<flow_record> copies = flows;
        expect(client([&] { return kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, copies.data(), 3); }), "flows");
        expect(client([&] { return kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, 1, members, &group_id); }),
               "group");
        expect(client([&] { return kr_sdn_hal_srvc_open(&channel); }), "channel");
    }
}

uint32_t world::event(uint32_t code, void *data) {
    return client([&] { return (*connector)->event_callback(code, data); });
}

uint32_t world::configure(uint32_t command, void *data) {
    return client([&] { return (*connector)->config_callback(command, data); });
}

uint32_t world::add_port(uint32_t of_port) {
    (void)kr_soft_port_add_memory(log_port_of(of_port));
    conn_port_record port = port_record_of(of_port);
    return event(CONN_EVENT_PORT_ADDED, &port);
}

uint32_t world::remove_port(uint32_t of_port, bool acknowledge) {
    static const interrupting_signal interruption;
    conn_port_record port = port_record_of(of_port);
    std::atomic<bool> is_done{false};
    std::atomic<pid_t> id{0};
    uint32_t status = 0;
    std::thread connector_thread([&] {
        id = thread_id();
        status = event(CONN_EVENT_PORT_REMOVED, &port);
        is_done = true;
    });
    while (!is_done && !is_waiting(caller::client)) {
        sched_yield();
    }
    if (!is_done && acknowledge) {
        hal_event_record announced{};
        announced.type = EVENT_PORT_CAPABILITIES_UPDATE;
        announced.payload.port_update.reason = PORT_UPDATE_REMOVED;
        announced.payload.port_update.port = of_port;
        acknowledge = kr_sdn_hal_srvc_event_ack(&announced) == KR_SDN_HAL_STATUS_SUCCESS;
    }
    while (!is_done && !acknowledge) { // nobody has acknowledged: a signal ends the wait
        if (thread_state(id) == 'S') {
            interruption.send_to(id);
        }
        sched_yield();
    }
    connector_thread.join();
    return status;
}

std::vector<std::string> world::take_down() {
    std::vector<std::string> trouble;
    const auto note = [&](const std::string &what, uint32_t status) {
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            trouble.push_back(what + " returned " + std::to_string(status));
        }
    };
    for (srvc_handle *const handle : {&channel, &other_channel}) {
        if (handle->is_open == 1) {
            note("close", client([&] { return kr_sdn_hal_srvc_close(handle); }));
        }
    }
    if (kr::general::g.started == 1) {
        uint32_t ports[PORT_MAX_COUNT];
        uint32_t count = PORT_MAX_COUNT;
        (void)kr_sdn_hal_port_arr_get(ports, &count);
        for (uint32_t i = 0; i < count; i++) {
            note("port removed", remove_port(ports[i]));
        }
        note("stop", event(CONN_EVENT_STOP));
    }
    if (kr::general::g.initialized == 1 && kr::tables::g.initialized == 1) {
        note("deinit", client([] { return kr_sdn_hal_deinit(); }));
    }
    return trouble;
}

// A thread that has been told to end has ended before anything is looked at.
void world::settle() {
    pollfd stop = {.fd = kr::general::g.stop_pipe[0], .events = POLLIN, .revents = 0};
    while (is_running(caller::control_frames) && poll(&stop, 1, 0) == 1) {
        sched_yield();
    }
}

void world::reap() {
    if (!is_running(caller::control_frames)) {
        cl_thread_destroy(&kr::general::g.control_frames_thread);
    }
}

state world::observe() {
    const call_ledger held = ledger();
    kr_soft_usage usage{};
    kr_soft_usage_get(&usage);
    const auto number = [](uint64_t value) { return std::to_string(value); };
    const std::vector<std::string> values = {
        number(kr::general::g.initialized),                                      // initialized
        number(kr::general::g.started),                                          // started
        capabilities_text(),                                                     // capabilities
        ports_text(),                                                            // ports
        number(kr::tables::g.initialized + kr::tables::g.dependent_initialized), // tables
        number(acl_flows_db.initialized == 1 ? acl_flows_db.active_entries : 0), // flows
        number(psort_entry_count()),                                             // places
        audit_text(),
        number(kr::tables_acl::g.flow_counters_used), // counters in use
        channel_text(channel),                        // channel
        channel_text(other_channel),                  // other channel
        unread_text(channel),
        unread_text(other_channel),
        number(registration_count()),      // registrations
        number(usage.device_handle_count), // devices
        number(usage.acl_rm_handle_count), // managers
        number(usage.acl_count),           // ACLs
        number(usage.binding_count),       // bindings
        number(usage.group_count),         // groups
        members_text(),
        number(usage.rule_count),       // rules
        number(usage.counter_count),    // counters
        number(usage.descriptor_count), // interfaces
        number(held.libraries),         // libraries
        number(held.locks),             // locks
        number(held.events),            // events
        number(held.pools),             // pools
        number(held.threads),           // threads
        number((is_running(caller::control_frames) ? 1U : 0U) + (is_running(caller::background) ? 1U : 0U)),
        number(held.memory_blocks),                        // memory
        number(held.descriptors),                          // held descriptors
        number(descriptor_count() - descriptors_at_first), // open descriptors
    };
    state seen;
    for (size_t i = 0; i < state_names.size(); i++) {
        seen.emplace_back(state_names[i], values.at(i));
    }
    return seen;
}

std::vector<std::string> world::check_rules() {
    std::vector<std::string> broken;
    if (cl_plock_held_count != 0) {
        broken.emplace_back("the thread holds a passive lock");
    }
    if (!is_free(events_db.lock)) {
        broken.emplace_back("the registry is locked");
    }
    if (!is_free(kr::tables::g.table_locks[0])) {
        broken.emplace_back("the table is locked");
    }
    const call_ledger held = ledger();
    if (descriptor_count() - descriptors_at_first != held.descriptors) {
        broken.push_back(std::to_string(descriptor_count() - descriptors_at_first) + " descriptors are open, " +
                         std::to_string(held.descriptors) + " of them the library's");
    }
    if (held.memory_blocks != 0) {
        broken.emplace_back("memory is held");
    }
    return broken;
}

} // namespace kr_test
