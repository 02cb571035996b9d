/*
 * Sequences of exported calls with arguments of any kind, in any stage, over the software platform and fake plug-ins.
 * Every pointer is NULL or leads to exactly as much memory as the call may touch. Nothing may crash, hang or write
 * elsewhere; every status is one; and whatever happened, the table is in the order of priorities and agrees with
 * itself.
 *
 * A client's duties are kept: counts are those of arrays, a channel is received from only when it is ready, and is read
 * before it is full. Each input begins with a library that was never initialised; for that the library's own state is
 * set back here, as a new process would.
 */
#include <dlfcn.h>

#include <atomic>
#include <memory>

#include "core/general_state.h"
#include "core/port.h"
#include "kr_soft.h"
#include "table_audit.h"
#include "tables/tables_acl_internal.h"
#include "tables/tables_internal.h"
#include "tests/fuzz/fuzz_input.h"

using kr_fuzz::require;

namespace {

constexpr uint32_t channel_count = 3;
constexpr uint32_t port_count = 4;
constexpr uint32_t log_port_base = 0x10000;
constexpr uint32_t pipe_fill_max = 12; // of 16 records

struct state {
    srvc_handle channels[channel_count];
    uint32_t records_written; // into pipes, at most, since they were last emptied
};
state g;

void ignore_log(uint32_t, const char *, const char *) {}

void check(kr_sdn_hal_status status) {
    require(status <= KR_SDN_HAL_STATUS_RESOURCE_IN_USE, "a status is one of twelve");
}

/* ---- a fresh library ------------------------------------------------------------------------------------------- */

void plugins_keep() {
    static void *const connector = dlopen(FAKE_PLUGIN_DIR "/fake_connector.so", RTLD_NOW);
    static void *const fpt = dlopen(FAKE_PLUGIN_DIR "/fake_fpt.so", RTLD_NOW);
    require(connector != nullptr && fpt != nullptr, "the fake plug-ins are there");
}

void verbosities_set(int32_t level) {
    for (int32_t *const verbosity :
         {&kr_HAL_API_verb_level, &kr_HAL_EVENTS_API_verb_level, &kr_HAL_API_PORT_verb_level, &kr_FPT_verb_level,
          &kr_HAL_GEN_verb_level, &kr_HAL_PORT_verb_level, &kr_FLOWS_DB_verb_level, &kr_HAL_UTILS_verb_level,
          &kr_HAL_TABLES_API_verb_level}) {
        std::atomic_ref(*verbosity).store(level, std::memory_order_relaxed); // other threads log meanwhile
    }
}

bool is_ready(srvc_handle *channel) {
    timeval no_wait{};
    uint32_t mask = 0;
    return kr_sdn_hal_srvc_select(&channel, 1, &no_wait, &mask) == KR_SDN_HAL_STATUS_SUCCESS && mask != 0;
}

void channels_empty() {
    auto record = std::make_unique<hal_event_record>();
    for (srvc_handle &channel : g.channels) {
        while (is_ready(&channel)) {
            (void)kr_sdn_hal_srvc_recv(&channel, record.get());
        }
    }
    g.records_written = 0;
}

// Before a call that may write a record.
void record_expect() {
    if (++g.records_written >= pipe_fill_max) {
        channels_empty();
    }
}

void take_down() {
    kr_soft_fault_clear();
    verbosities_set(0);
    channels_empty();
    uint32_t ports[PORT_MAX_COUNT];
    uint32_t count = PORT_MAX_COUNT;
    (void)kr_sdn_hal_port_arr_get(ports, &count);
    for (uint32_t i = 0; i < count; i++) {
        (void)port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &ports[i]);
    }
    (void)general_event_cb(CONN_EVENT_STOP, nullptr);
    for (srvc_handle &channel : g.channels) {
        if (channel.is_open == 1) {
            (void)kr_sdn_hal_srvc_close(&channel);
        }
    }
    (void)kr_sdn_hal_deinit();
    kr::general::g = {};
    kr::tables::g = {};
    kr::tables_acl::g = {};
    acl_psort_handle = nullptr;
    acl_flows_db.initialized = 0;
    kr_soft_reset();
    g = {};
}

/* ---- calls ----------------------------------------------------------------------------------------------------- */

using kr_fuzz::input;

// An array of exactly `count` elements, filled from the input, or NULL once in a while.
template <typename Element> class array {
  public:
    array(input *from, uint32_t count) : memory_(new Element[count]) {
        is_null_ = from->take<uint8_t>() == 0xff;
        for (uint32_t i = 0; i < count; i++) {
            memory_[i] = from->take<Element>();
        }
    }
    Element *get() {
        return is_null_ ? nullptr : memory_.get();
    }
    Element &operator[](uint32_t index) {
        return memory_[index];
    }

  private:
    std::unique_ptr<Element[]> memory_;
    bool is_null_;
};

// Small numbers and every other one.
uint32_t number(input *from) {
    const auto small = from->take<uint8_t>();
    return small < 0xf0 ? small % 8 : from->take<uint32_t>();
}

uint32_t list_size(input *from) {
    const auto size = from->take<uint8_t>();
    return size < 0xf0 ? size % 6 : size; // up to 255
}

void flow_shape(input *from, flow_record *flow) {
    flow->flow_id = number(from);
    flow->priority = number(from);
    flow->in_port = number(from);
    flow->out_port = number(from);
    flow->action = number(from);
    flow->mc_group_id = number(from);
    if (from->take<uint8_t>() % 4 != 0) { // a match that is all wildcards is common
        memset(&flow->in_port_mask, 0, offsetof(flow_record, action) - offsetof(flow_record, in_port_mask));
    }
}

void call_life_cycle(input *from) {
    switch (from->below(6)) {
    case 0: {
        auto profile = from->take<system_profile>();
        if (from->take<uint8_t>() % 8 != 7) {
            profile = {};
            strcpy(profile.connector_library_path, FAKE_PLUGIN_DIR "/fake_connector.so");
            strcpy(profile.fpt_library_path, FAKE_PLUGIN_DIR "/fake_fpt.so");
        } else {
            profile.connector_library_path[0] = '\0'; // whatever a fuzzer thinks of is not loaded
        }
        check(kr_sdn_hal_init(from->take<uint8_t>() == 0xff ? nullptr : &profile, ignore_log));
        break;
    }
    case 1:
        check(kr_sdn_hal_activate());
        break;
    case 2: {
        array<capabilities> wanted(from, 1);
        check(kr_sdn_hal_capabilities_set(wanted.get()));
        break;
    }
    case 3: {
        array<capabilities> read(from, 1);
        check(kr_sdn_hal_capabilities_get(read.get()));
        break;
    }
    case 4: {
        const std::vector<uint8_t> text = from->take_bytes(from->below(400));
        const std::string terminated(text.begin(), text.end());
        check(kr_sdn_hal_log(number(from), "FUZZ", "%s", terminated.c_str()));
        break;
    }
    default:
        verbosities_set(static_cast<int32_t>(from->below(8)));
        break;
    }
}

// All but the removal of a port, which waits for a client in another thread.
void call_connector(input *from) {
    record_expect();
    switch (from->below(6)) {
    case 0:
        (void)general_event_cb(CONN_EVENT_START, nullptr);
        break;
    case 1:
        (void)general_event_cb(CONN_EVENT_STOP, nullptr);
        break;
    case 2:
    case 3: {
        auto port = from->take<conn_port_record>();
        port.log_port = log_port_base + 1 + port.log_port % port_count;
        port.ifindex = from->take<uint8_t>() < 0xf0 ? 1 + port.ifindex % 8 : port.ifindex;
        port.requested_of_port = from->take<uint8_t>() < 0xe0 ? 0 : port.requested_of_port;
        (void)general_event_cb(CONN_EVENT_PORT_ADDED, from->take<uint8_t>() == 0xff ? nullptr : &port);
        break;
    }
    case 4: {
        auto config = from->take<conn_agent_config>();
        (void)general_config_cb(number(from), from->take<uint8_t>() == 0xff ? nullptr : &config);
        break;
    }
    default: {
        uint32_t code = number(from);
        code = code == CONN_EVENT_PORT_REMOVED || code == CONN_EVENT_CONTROL_FORWARD ? 0 : code;
        auto port = from->take<conn_port_record>();
        (void)general_event_cb(code, &port);
        break;
    }
    }
}

void call_channels(input *from) {
    const uint32_t chosen = from->below(channel_count + 1);
    srvc_handle *const channel = chosen < channel_count ? &g.channels[chosen] : nullptr;
    const auto record = std::make_unique<hal_event_record>(from->take<hal_event_record>());
    switch (from->below(9)) {
    case 0:
        if (channel == nullptr || channel->is_open == 0) { // an open one would lose its descriptors
            check(kr_sdn_hal_srvc_open(channel));
        }
        break;
    case 1:
        check(kr_sdn_hal_srvc_close(channel));
        break;
    case 2:
    case 3:
        check(kr_sdn_hal_srvc_event_register(channel, from->below(14)));
        break;
    case 4:
        check(kr_sdn_hal_srvc_event_unregister(channel, from->below(14)));
        break;
    case 5:
        record->type = number(from);
        record_expect();
        check(kr_sdn_hal_srvc_process_event(record.get()));
        break;
    case 6: {
        std::vector<srvc_handle *> handles(from->below(40));
        for (srvc_handle *&handle : handles) {
            handle = &g.channels[from->below(channel_count)];
        }
        timeval no_wait{};
        uint32_t mask = 0;
        check(kr_sdn_hal_srvc_select(handles.data(), static_cast<uint32_t>(handles.size()), &no_wait, &mask));
        break;
    }
    case 7:
        if (channel == nullptr || channel->is_open == 0 || is_ready(channel)) {
            check(kr_sdn_hal_srvc_recv(channel, record.get()));
        }
        break;
    default: {
        const std::vector<uint8_t> packet = from->take_bytes(from->below(200));
        check(kr_sdn_hal_srvc_packet_send(channel, packet.data(), static_cast<uint32_t>(packet.size()), number(from),
                                          from->take<uint8_t>()));
        record->type = number(from);
        record->payload.port_update.reason = number(from);
        record->payload.port_update.port = number(from);
        check(kr_sdn_hal_srvc_event_ack(from->take<uint8_t>() == 0xff ? nullptr : record.get()));
        break;
    }
    }
}

void call_ports(input *from) {
    const uint32_t port = number(from);
    const auto value = static_cast<int32_t>(number(from));
    array<port_speed_admin> speed(from, 1);
    array<uint32_t> out(from, 1);
    array<int32_t> signed_out(from, 1);
    array<port_mac_address> mac(from, 1);
    array<port_counters> counters(from, 1);
    array<uint16_t> mtu(from, 1);
    switch (from->below(17)) {
    case 0: {
        uint32_t count = list_size(from);
        array<uint32_t> ports(from, count);
        check(kr_sdn_hal_port_arr_get(ports.get(), &count));
        break;
    }
    case 1:
        check(kr_sdn_hal_port_capabilities_get(port, out.get()));
        break;
    case 2:
        check(kr_sdn_hal_port_state_set(port, value));
        break;
    case 3:
        check(kr_sdn_hal_port_state_get(port, signed_out.get(), &signed_out[0]));
        break;
    case 4:
        check(kr_sdn_hal_port_rstp_state_set(port, value));
        break;
    case 5:
        check(kr_sdn_hal_port_rstp_state_get(port, signed_out.get()));
        break;
    case 6:
        check(kr_sdn_hal_port_phys_addr_get(port, mac.get()));
        break;
    case 7:
        check(kr_sdn_hal_port_speed_set(port, speed.get()));
        break;
    case 8:
        check(kr_sdn_hal_port_speed_get(port, speed.get(), out.get()));
        break;
    case 9:
        check(kr_sdn_hal_port_speed_capability_get(port, out.get()));
        break;
    case 10:
        check(kr_sdn_hal_port_flood_mode_set(port, number(from)));
        break;
    case 11:
        check(kr_sdn_hal_port_flood_mode_get(port, out.get()));
        break;
    case 12:
        check(kr_sdn_hal_port_mtu_set(port, static_cast<uint16_t>(value)));
        break;
    case 13:
        check(kr_sdn_hal_port_mtu_get(port, mtu.get()));
        break;
    case 14:
        check(kr_sdn_hal_port_cntr_get(port, counters.get()));
        break;
    case 15:
        check(kr_sdn_hal_port_arr_get(nullptr, out.get()));
        break;
    default:
        check(kr_sdn_hal_port_cntr_clear(port, value));
        break;
    }
}

void call_tables(input *from) {
    const uint32_t table = from->take<uint8_t>() < 0xf8 ? 0 : number(from);
    uint32_t count = list_size(from);
    switch (from->below(10)) {
    case 0:
    case 1:
    case 2: {
        array<flow_record> flows(from, count);
        for (uint32_t i = 0; i < count; i++) {
            flow_shape(from, &flows[i]);
        }
        const uint32_t command = from->take<uint8_t>();
        check(kr_sdn_hal_table_entry_set(command < 0xa0   ? uint32_t{KR_SDN_HAL_CMD_ADD}
                                         : command < 0xf0 ? uint32_t{KR_SDN_HAL_CMD_DELETE}
                                                          : number(from),
                                         table, flows.get(), count));
        break;
    }
    case 3: {
        array<uint64_t> ids(from, count);
        array<flow_record> flows(from, count);
        for (uint32_t i = 0; i < count; i++) {
            ids[i] %= 8;
        }
        check(kr_sdn_hal_table_entry_get(table, from->take<uint8_t>() == 0xff, ids.get(), &count, flows.get()));
        break;
    }
    case 4: {
        array<uint64_t> ids(from, count);
        array<uint32_t> activities(from, count);
        check(kr_sdn_hal_table_entry_activity_get(table, ids.get(), count, activities.get()));
        break;
    }
    case 5: {
        array<uint64_t> ids(from, count);
        array<flow_stats> stats(from, count);
        check(kr_sdn_hal_table_entry_stat_get(table, ids.get(), count, stats.get()));
        break;
    }
    case 6: {
        array<uint32_t> ports(from, count);
        array<uint32_t> group_id(from, 1);
        for (uint32_t i = 0; i < count; i++) {
            ports[i] %= 8;
        }
        group_id[0] %= 4;
        check(kr_sdn_hal_table_mcast_group_set(number(from), count, ports.get(), group_id.get()));
        break;
    }
    case 7: {
        array<uint32_t> ports(from, count);
        check(kr_sdn_hal_table_mcast_group_get(number(from) % 4, from->take<uint8_t>() == 0xff ? nullptr : &count,
                                               ports.get()));
        break;
    }
    case 8: {
        array<table_stats> stats(from, 1);
        array<table_capabilities> all(from, 1);
        array<uint32_t> table_count(from, 1);
        check(kr_sdn_hal_table_table_stat_get(table, stats.get()));
        check(kr_sdn_hal_table_table_capabilities_get(table, all.get()));
        check(kr_sdn_hal_table_capabilities_get(table_count.get()));
        break;
    }
    default: {
        const std::vector<uint8_t> frame = from->take_bytes(14 + from->below(80));
        (void)kr_soft_port_inject(log_port_base + 1 + from->below(port_count), frame.data(),
                                  static_cast<uint32_t>(frame.size()));
        break;
    }
    }
}

// What calls that fail leave behind is known; the rest has to agree.
void check_table() {
    for (const kr_audit::finding &found : kr_audit::audit_table().findings) {
        switch (found.kind) {
        case kr_audit::finding_kind::place_without_rule:
        case kr_audit::finding_kind::place_without_flow:
        case kr_audit::finding_kind::flow_without_place:
        case kr_audit::finding_kind::flow_without_rule:
        case kr_audit::finding_kind::read_back_failed:
            break;
        case kr_audit::finding_kind::order_broken:
        case kr_audit::finding_kind::priority_differs:
        case kr_audit::finding_kind::count_differs:
        case kr_audit::finding_kind::read_back_differs:
            require(false, kr_audit::to_text(found).c_str());
            break;
        default:
            break;
        }
    }
}

} // namespace

KR_FUZZ_TARGET(const uint8_t *data, size_t size) {
    plugins_keep();
    verbosities_set(0);
    for (uint32_t port = 1; port <= port_count; port++) {
        (void)kr_soft_port_add_memory(log_port_base + port);
    }
    input from(data, size);
    if (from.take<uint8_t>() % 8 != 0) { // mostly a switch that is up
        system_profile profile{};
        strcpy(profile.connector_library_path, FAKE_PLUGIN_DIR "/fake_connector.so");
        strcpy(profile.fpt_library_path, FAKE_PLUGIN_DIR "/fake_fpt.so");
        require(kr_sdn_hal_init(&profile, ignore_log) == KR_SDN_HAL_STATUS_SUCCESS, "the library comes up");
        require(general_event_cb(CONN_EVENT_START, nullptr) == KR_SDN_HAL_STATUS_SUCCESS, "the switch starts");
        for (uint32_t port = 1; port <= 2; port++) {
            conn_port_record added{};
            added.log_port = log_port_base + port;
            added.ifindex = port;
            require(general_event_cb(CONN_EVENT_PORT_ADDED, &added) == KR_SDN_HAL_STATUS_SUCCESS, "a port is added");
        }
    }
    void (*const calls[])(input *) = {call_life_cycle, call_connector, call_channels, call_channels,
                                      call_ports,      call_tables,    call_tables,   call_tables};
    for (int i = 0; i < 60 && !from.is_empty(); i++) {
        calls[from.below(std::size(calls))](&from);
    }
    check_table();
    take_down();
    return 0;
}
