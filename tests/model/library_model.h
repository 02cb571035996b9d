/*
 * The library as its contract describes it, executable: one function per exported call and per event of the connector,
 * on plain state. It knows nothing of the library's code; where this model and the library differ, one of them is
 * wrong.
 *
 * What the contract leaves behind after a failure is left behind here too, because the steps are written in the order
 * in which the contract names them, and each stops where the contract says it stops.
 */
#ifndef KR_TESTS_MODEL_LIBRARY_MODEL_H
#define KR_TESTS_MODEL_LIBRARY_MODEL_H

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

#include "kr_connector.h"
#include "kr_sdn_hal.h"
#include "tests/model/switch_model.h"

namespace kr_model {

using status = kr_sdn_hal_status;

constexpr uint32_t channel_count = 12; // more than KR_SDN_HAL_HANDLES_PER_EVENT
constexpr uint32_t table_size = 1000;
constexpr uint32_t counter_budget = 128;
constexpr uint32_t port_limit = 100;

// Between the library's statuses and the utilities' numbering of the placement library.
status from_utils(kr_utils_status utils);
kr_utils_status to_utils(status result);

// What the plug-ins answer.
struct plugin_answers {
    bool connector_loads = true, fpt_loads = true;
    uint32_t config_register = 0, event_register = 0, init_done_hal = 0, init_done_shim = 0, conn_deinit = 0;
    uint32_t fpt_activate = 0, fpt_deinit = 0, fpt_port = 0;
};

struct port_entry {
    uint32_t of_port, ifindex, log_port;
};

struct channel_state {
    bool is_open = false;
    bool has_sdk_fd = false;
    int descriptor = -1;
    std::deque<hal_event_record> pipe;
};

struct flow_entry_state {
    uint32_t priority;
    uint32_t offset;
    uint32_t region; // the ACL when it was added
    uint32_t counter_id;
};

struct flows_db_state {
    bool initialized = false;
    bool has_pool = false;
    std::map<uint64_t, flow_entry_state> flows;
    std::map<uint32_t, uint64_t> slots; // offset to flow id: the valid ones
};

// What kr_sdn_hal_srvc_recv does.
struct received {
    status result;
    bool would_block = false;
    hal_event_record record; // the caller's, with what was written
    // Bytes that it is open what they are. The library's control frames share one record: behind a short one there is
    // the end of a longer one.
    size_t open_begin = sizeof(hal_event_record), open_end = sizeof(hal_event_record);
};

class library_model {
  public:
    switch_model hw;
    plugin_answers plugins;

    /* ---- life cycle */
    bool initialized = false;      // for good
    bool connector_loaded = false; // for good
    bool started = false;
    capabilities stored{};
    status init(bool has_profile);
    status activate();
    status deinit();
    status capabilities_set(const capabilities &wanted);

    /* ---- the connector's events */
    struct event_outcome {
        status result;
        bool waits = false; // the connector's thread waits for an acknowledgement; the result comes then
    };
    bool connector_waits = false;
    event_outcome event(uint32_t code, const conn_port_record &port, const conn_control_forward &forward);
    status config(uint32_t command, const conn_agent_config &config);
    // Frames that the thread of control frames has received since it exists, and how often it was started.
    uint32_t control_frame_count = 0, control_start_count = 0;
    // Lets that thread handle what is queued for it.
    void control_frames_run();
    bool control_frames_reach_clients() const;

    /* ---- event service */
    std::array<channel_state, channel_count> channels;
    // Channels by event type and slot; -1: free.
    std::array<std::array<int, KR_SDN_HAL_HANDLES_PER_EVENT>, KR_SDN_HAL_EVENT_TYPE_COUNT> registry = empty_registry();
    status srvc_init();
    status srvc_dependent_init();
    status srvc_dependent_deinit();
    status srvc_deinit();
    status open(uint32_t channel);
    status close(uint32_t channel);
    status event_register(uint32_t channel, uint32_t event);
    status event_unregister(uint32_t channel, uint32_t event);
    status process_event(const hal_event_record &record);
    status select(std::span<const uint32_t> selected, uint32_t *ready_mask);
    received recv(uint32_t channel, const hal_event_record &before);
    status packet_send(uint32_t channel, const bytes &packet, uint32_t of_port);
    status event_ack(const hal_event_record *record);
    bool ready(uint32_t channel) const;
    size_t fullest_pipe() const;

    /* ---- ports */
    bool ports_ready = false;
    std::vector<port_entry> ports; // oldest first
    status port_arr_get(bool has_array, uint32_t room, std::vector<uint32_t> *of_ports, uint32_t *count) const;
    status port_capabilities_get(uint32_t of_port) const;
    bool fpt_initialized = false;
    // Any of the functions that only the plug-in answers.
    status port_operation() const;

    /* ---- flows; `flows` are the caller's records and are written to where the contract says so */
    flows_db_state db;
    uint32_t counters_used = 0, counters_max = 0; // no budget before the table was first made
    status entry_set(uint32_t command, uint32_t table, std::span<flow_record> flows);
    status entry_get(uint32_t table, uint64_t flow_start, std::span<const uint64_t> ids, std::span<flow_record> flows);
    status activity_get(uint32_t table, std::span<const uint64_t> ids, std::span<uint32_t> activities);
    status stats_get(uint32_t table, std::span<const uint64_t> ids, std::span<flow_stats> stats);
    status table_stat_get(uint32_t table, table_stats *stats) const;
    status table_capabilities_get(uint32_t table) const;
    void background_step(); // of the placement library

    /* ---- groups */
    uint32_t flood_group_id = 0;
    status group_set(uint32_t command, std::span<const uint32_t> of_ports, uint32_t *group_id);
    status group_get(uint32_t group_id, uint32_t *count, std::vector<uint32_t> *of_ports);

    /* ---- for those who compare */
    uint32_t acl_id = 0;
    uint32_t placement_handle = 0;
    bool srvc_initialized() const {
        return srvc_initialized_;
    }
    bool srvc_dependent() const {
        return srvc_dependent_;
    }
    bool tables_usable() const { // the table exists in hardware
        return db.initialized;
    }

  private:
    // Life cycle.
    bool srvc_initialized_ = false, srvc_dependent_ = false;
    bool tables_initialized_ = false, tables_dependent_ = false, tables_ever_ = false;
    bool disable_event_exists_ = false;
    bool stop_pipe_open_ = false, control_thread_runs_ = false;
    int own_descriptor_ = -1;
    uint32_t device_handle_ = 0;
    uint32_t rm_handle_ = 0;

    status start();
    status stop();
    status tables_init();
    status tables_dependent_init();
    status tables_dependent_deinit();
    status tables_deinit();
    status fpt_init();
    status fpt_deinit();
    status table_0_init();
    status table_0_deinit();

    // Ports.
    const port_entry *port_by_of_port(uint32_t of_port) const;
    const port_entry *port_by_ifindex(uint32_t ifindex) const;
    const port_entry *port_by_log_port(uint32_t log_port) const;
    status port_add(const conn_port_record &port, uint32_t *of_port);
    status port_remove(uint32_t of_port);
    status tables_port_added(uint32_t of_port);
    status tables_port_removed(uint32_t of_port);
    event_outcome port_added(const conn_port_record &port, hal_event_record *record);
    event_outcome port_removed(const conn_port_record &port, hal_event_record *record);
    status control_forward(const conn_control_forward &forward);
    bool pipe_write(size_t size);
    void control_frames_select();
    status ensure_sdk_fd(channel_state &channel);
    status trap_change(channel_state &channel, uint32_t command, uint32_t event);

    // Flows.
    status flows_add(std::span<flow_record> flows);
    status flows_delete(std::span<flow_record> flows);
    status flow_install(const flow_record &flow, uint32_t *counter_id);
    status flow_read(flow_record *flow, const flow_entry_state &entry);
    status shift(uint32_t old_index, uint32_t new_index, uint32_t size);
    status db_move(uint32_t from, uint32_t to, uint32_t count);
    status of_ports_translate(std::span<const uint32_t> of_ports, std::vector<uint32_t> *log_ports) const;

    static std::array<std::array<int, KR_SDN_HAL_HANDLES_PER_EVENT>, KR_SDN_HAL_EVENT_TYPE_COUNT> empty_registry() {
        std::array<std::array<int, KR_SDN_HAL_HANDLES_PER_EVENT>, KR_SDN_HAL_EVENT_TYPE_COUNT> registry;
        for (auto &slots : registry) {
            slots.fill(-1);
        }
        return registry;
    }
};

} // namespace kr_model

#endif
