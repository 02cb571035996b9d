/*
 * Everything at once, for KR_STRESS_SECONDS (3 unless set): connector thread, control-frame thread, background thread,
 * producers, clients that read and wait on several channels, channels that open, register, unregister and close, flows
 * that are set and read, packets that arrive and are sent, links that go down and up, ports that come and go.
 *
 * Ports change only while nobody looks one up, as the library asks of its clients and its connector: a gate keeps the
 * two apart. Each record that is written to a channel that stays open has to be read from it once, whole and in order.
 * Under the thread sanitizer the same run shows that the library has no race.
 */
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <random>

#include "tests/support/test_frames.h"
#include "tests/support/test_seed.h"
#include "tests/system/running_library.h"

using namespace kr_test;

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;

constexpr uint32_t port_count = 4;       // that stay
constexpr uint32_t passing_port_end = 9; // ports 5 to 8 come and go
constexpr uint32_t producer_count = 2;
constexpr uint32_t steady_channel_count = 4;
constexpr uint32_t burst_size = 20;
constexpr uint64_t trapped_flow_id = 0xF00000001; // its frames go to the controller
constexpr uint16_t data_eth_type = 0x88b5;
constexpr uint16_t lldp_eth_type = 0x88cc;

std::chrono::steady_clock::time_point end_of_run() {
    const char *const seconds = std::getenv("KR_STRESS_SECONDS");
    return std::chrono::steady_clock::now() + std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 3);
}

/* ---- what all threads share -------------------------------------------------------------------------------------- */

// Many may be inside as guests, or one alone; who wants to be alone keeps new guests out.
class gate {
  public:
    void enter() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !is_closed_; });
        guest_count_++;
    }
    void leave() {
        const std::lock_guard lock(mutex_);
        guest_count_--;
        changed_.notify_all();
    }
    void enter_alone() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !is_closed_; });
        is_closed_ = true;
        changed_.wait(lock, [this] { return guest_count_ == 0; });
    }
    void leave_alone() {
        const std::lock_guard lock(mutex_);
        is_closed_ = false;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    uint32_t guest_count_ = 0;
    bool is_closed_ = false;
};

class guest {
  public:
    explicit guest(gate &entered) : gate_(entered) {
        gate_.enter();
    }
    ~guest() {
        gate_.leave();
    }
    guest(const guest &) = delete;
    guest &operator=(const guest &) = delete;

  private:
    gate &gate_;
};

// What has been produced so far, for the readers to come up to.
struct produced {
    std::atomic<uint64_t> configurations{0}, control_frames{0}, data_frames{0}, link_changes{0}, port_updates{0};
    std::atomic<uint64_t> by_producer[producer_count]{};
};

/* ---- a channel that stays open ----------------------------------------------------------------------------------- */

// Reads what comes and holds it against what must come next.
class steady_channel {
  public:
    steady_channel()
        : channel_({EVENT_AGENT_UPDATE, EVENT_VLAN_UPDATE, EVENT_PACKET_IN, EVENT_PACKET_MISS,
                    EVENT_PORT_OPER_STATE_CHANGE, EVENT_PORT_CAPABILITIES_UPDATE}) {}

    srvc_handle *handle() {
        return &channel_.handle;
    }
    void receive() {
        hal_event_record record;
        memset(&record, 0xEE, sizeof record);
        ASSERT_EQ(kr_sdn_hal_srvc_recv(handle(), &record), SUCCESS);
        switch (record.type) {
        case EVENT_AGENT_UPDATE:
            return take_configuration(record);
        case EVENT_VLAN_UPDATE:
            return take_produced(record);
        case EVENT_PACKET_IN:
        case EVENT_PACKET_MISS:
            return take_packet(record);
        case EVENT_PORT_OPER_STATE_CHANGE:
            return take_link_change(record);
        case EVENT_PORT_CAPABILITIES_UPDATE:
            return take_port_update(record);
        default:
            FAIL() << "a record of type " << record.type;
        }
    }

    produced seen;

  private:
    void take_configuration(const hal_event_record &record) {
        const uint64_t number = record.payload.agent.trailer;
        ASSERT_EQ(number, seen.configurations);
        for (const hal_event_agent_entry &entry : record.payload.agent.entries) {
            ASSERT_EQ(entry.value, static_cast<uint32_t>(number));
            ASSERT_EQ(entry.number, static_cast<uint16_t>(number));
            ASSERT_EQ(entry.data[15], static_cast<uint8_t>(number));
        }
        ASSERT_EQ(record.payload.bytes[sizeof record.payload.bytes - 1], 0);
        seen.configurations++;
    }
    void take_produced(const hal_event_record &record) {
        const uint32_t producer = record.reserved;
        ASSERT_LT(producer, producer_count);
        const uint64_t number = seen.by_producer[producer];
        const auto filling = static_cast<uint8_t>(number * producer_count + producer);
        ASSERT_TRUE(std::all_of(record.payload.bytes + 8, record.payload.bytes + sizeof record.payload.bytes,
                                [filling](uint8_t byte) { return byte == filling; }));
        uint64_t written = 0;
        memcpy(&written, record.payload.bytes, sizeof written);
        ASSERT_EQ(written, number);
        seen.by_producer[producer]++;
    }
    void take_packet(const hal_event_record &record) {
        const hal_event_packet &packet = record.payload.packet;
        ASSERT_EQ(packet.length, 60U);
        const auto eth_type = static_cast<uint16_t>(packet.data[12] << 8 | packet.data[13]);
        std::atomic<uint64_t> &next = eth_type == lldp_eth_type ? seen.control_frames : seen.data_frames;
        ASSERT_TRUE(eth_type == lldp_eth_type ? record.type == EVENT_PACKET_MISS : eth_type == data_eth_type);
        uint64_t number = 0;
        memcpy(&number, packet.data + 14, sizeof number);
        ASSERT_EQ(number, next);
        ASSERT_EQ(packet.in_port, 1 + number % port_count);
        next++;
    }
    void take_link_change(const hal_event_record &record) {
        const uint64_t number = seen.link_changes; // down and up in turns, port after port
        ASSERT_EQ(record.payload.port_oper.port, 1 + number / 2 % port_count);
        ASSERT_EQ(record.payload.port_oper.oper_state, number % 2 == 0 ? 2U : 1U);
        seen.link_changes++;
    }
    void take_port_update(const hal_event_record &record) {
        const hal_event_port_update &update = record.payload.port_update;
        bool &is_there = ports_there_[update.port];
        ASSERT_EQ(update.reason, is_there ? uint32_t{PORT_UPDATE_REMOVED} : uint32_t{PORT_UPDATE_ADDED});
        ASSERT_EQ(update.mac_address[5], update.port);
        is_there = !is_there;
        seen.port_updates++;
    }

    channel channel_;
    std::map<uint32_t, bool> ports_there_;
};

/* ---- the run ----------------------------------------------------------------------------------------------------- */

class stress : public running_switch {
  protected:
    stress() : running_switch(port_count) {}

    // A machine that is busy, or slowed down by a sanitizer, gets more time: until rules were moved, which comes last.
    bool is_over() {
        kr_soft_usage usage{};
        kr_soft_usage_get(&usage);
        return HasFailure() || (std::chrono::steady_clock::now() >= end && usage.block_move_count > 0);
    }
    std::mt19937_64 random_of(uint64_t actor) const {
        return std::mt19937_64(test_seed() + actor);
    }

    // Waits until every steady channel has come up to what was produced of a kind.
    template <typename Kind> void wait_until_seen(Kind kind) {
        for (const std::unique_ptr<steady_channel> &one : steady) {
            while (kind(one->seen) != kind(made) && !HasFailure()) {
                sched_yield();
            }
        }
    }

    void read_channels(size_t first, size_t count);
    void produce(uint32_t producer);
    void configure();
    void change_ports();
    void acknowledge_removals();
    void inject_and_send();
    void set_flows(uint64_t first_id, uint64_t seed);
    void open_and_close_channels(uint64_t seed);
    void leave_unread();
    void change_verbosity();
    void change_groups(uint32_t member);

    std::chrono::steady_clock::time_point end = end_of_run();
    gate ports_gate;
    std::vector<std::unique_ptr<steady_channel>> steady;
    produced made;
    std::atomic<bool> has_produced_all{false};
};

// A client that waits on several channels and reads those that are ready.
void stress::read_channels(size_t first, size_t count) {
    std::vector<srvc_handle *> handles;
    for (size_t i = 0; i < count; i++) {
        handles.push_back(steady[first + i]->handle());
    }
    for (;;) {
        const bool is_last_look = has_produced_all;
        timeval timeout = {.tv_sec = 0, .tv_usec = 20'000};
        uint32_t mask = 0;
        ASSERT_EQ(kr_sdn_hal_srvc_select(handles.data(), static_cast<uint32_t>(count), &timeout, &mask), SUCCESS);
        for (size_t i = 0; i < count; i++) {
            if ((mask & 1U << i) != 0) {
                steady[first + i]->receive(); // after a failure too, or the producers would wait for ever
            }
        }
        if (mask == 0 && is_last_look) {
            return;
        }
    }
}

// Stands for a producer inside the library.
void stress::produce(uint32_t producer) {
    hal_event_record record;
    while (!is_over()) {
        const uint64_t number = made.by_producer[producer];
        memset(&record, static_cast<int>(static_cast<uint8_t>(number * producer_count + producer)), sizeof record);
        record.type = EVENT_VLAN_UPDATE;
        record.reserved = producer;
        memcpy(record.payload.bytes, &number, sizeof number);
        ASSERT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
        made.by_producer[producer]++;
    }
}

// The connector's configuration, on the connector's thread like its other events.
void stress::configure() {
    while (!is_over()) {
        const uint64_t number = made.configurations;
        conn_agent_config config{};
        for (conn_agent_entry &entry : config.entries) {
            memset(entry.data, static_cast<int>(static_cast<uint8_t>(number)), sizeof entry.data);
            entry.value = static_cast<uint32_t>(number);
            entry.number = static_cast<uint16_t>(number);
        }
        config.trailer = number;
        ASSERT_EQ(the_library.configure(CONN_CONFIG_AGENT, config).get(), 0U);
        made.configurations++;
    }
}

void stress::change_ports() {
    std::mt19937_64 random = random_of(1);
    std::map<uint32_t, bool> is_there;
    const conn_control_forward lldp_off = {CONN_FORWARD_DEREGISTER, KR_SOFT_TRAP_ID_LLDP};
    const conn_control_forward lldp_on = {CONN_FORWARD_REGISTER, KR_SOFT_TRAP_ID_LLDP};
    while (!is_over()) {
        const auto port = static_cast<uint32_t>(port_count + 1 + random() % (passing_port_end - port_count - 1));
        ports_gate.enter_alone();
        if (is_there[port]) {
            EXPECT_EQ(the_library.deliver(CONN_EVENT_PORT_REMOVED, port_record_of(port)).get(), 0U);
            EXPECT_EQ(kr_soft_port_remove(log_port_of(port)), KR_STATUS_SUCCESS);
        } else {
            EXPECT_EQ(kr_soft_port_add_memory(log_port_of(port)), KR_STATUS_SUCCESS);
            EXPECT_EQ(the_library.deliver(CONN_EVENT_PORT_ADDED, port_record_of(port)).get(), 0U);
        }
        is_there[port] = !is_there[port];
        made.port_updates++;
        EXPECT_EQ(the_library.deliver(CONN_EVENT_CONTROL_FORWARD, lldp_off).get(), 0U);
        EXPECT_EQ(the_library.deliver(CONN_EVENT_CONTROL_FORWARD, lldp_on).get(), 0U);
        ports_gate.leave_alone();
        sched_yield();
    }
}

void stress::acknowledge_removals() {
    channel client({EVENT_PORT_CAPABILITIES_UPDATE});
    srvc_handle *handles[] = {&client.handle};
    for (;;) {
        const bool is_last_look = has_produced_all;
        timeval timeout = {.tv_sec = 0, .tv_usec = 20'000};
        uint32_t mask = 0;
        ASSERT_EQ(kr_sdn_hal_srvc_select(handles, 1, &timeout, &mask), SUCCESS);
        if (mask == 0) {
            if (is_last_look) {
                return;
            }
            continue;
        }
        const hal_event_record record = client.receive();
        if (record.payload.port_update.reason == PORT_UPDATE_REMOVED) {
            ASSERT_EQ(kr_sdn_hal_srvc_event_ack(&record), SUCCESS);
        }
    }
}

bytes numbered_frame(uint16_t eth_type, uint64_t number) {
    static const bytes control = lldp_frame();
    static const bytes data = frame_for(trapped_flow_id);
    bytes frame = eth_type == lldp_eth_type ? control : data;
    frame.resize(60);
    memcpy(frame.data() + 14, &number, sizeof number);
    return frame;
}

// Frames arrive in bursts that fit the queues of the channels; packets are sent, and links go down and up.
void stress::inject_and_send() {
    channel sender;
    while (!is_over()) {
        const guest inside(ports_gate);
        for (uint32_t i = 0; i < burst_size; i++) {
            inject(1 + static_cast<uint32_t>(made.control_frames % port_count),
                   numbered_frame(lldp_eth_type, made.control_frames));
            made.control_frames++;
            inject(1 + static_cast<uint32_t>(made.data_frames % port_count),
                   numbered_frame(data_eth_type, made.data_frames));
            made.data_frames++;
        }
        const bytes packet = numbered_frame(data_eth_type, made.data_frames);
        const auto port = 1 + static_cast<uint32_t>(made.link_changes / 2 % port_count);
        ASSERT_EQ(
            kr_sdn_hal_srvc_packet_send(&sender.handle, packet.data(), static_cast<uint32_t>(packet.size()), port, 0),
            SUCCESS);
        bytes read(64);
        auto size = static_cast<uint32_t>(read.size());
        ASSERT_EQ(kr_soft_port_read(log_port_of(port), read.data(), &size, 0), KR_STATUS_SUCCESS);
        read.resize(size);
        ASSERT_EQ(read, packet);
        wait_until_seen([](produced & of) -> auto & { return of.control_frames; });
        wait_until_seen([](produced & of) -> auto & { return of.data_frames; });
        for (const uint32_t up : {0U, 1U}) {
            ASSERT_EQ(kr_soft_port_link_set(log_port_of(port), up), KR_STATUS_SUCCESS);
            made.link_changes++;
        }
        wait_until_seen([](produced & of) -> auto & { return of.link_changes; });
    }
}

void stress::set_flows(uint64_t first_id, uint64_t seed) {
    std::mt19937_64 random = random_of(seed);
    constexpr size_t most = 450; // of each of two threads
    std::map<uint64_t, flow_record> there;
    uint64_t next_id = first_id;
    const auto check = [&] {
        std::vector<uint64_t> ids;
        for (const auto &[id, flow] : there) {
            ids.push_back(id);
        }
        auto count = static_cast<uint32_t>(ids.size());
        if (count == 0) {
            return;
        }
        std::vector<flow_record> flows(count);
        ASSERT_EQ(kr_sdn_hal_table_entry_get(0, 0, ids.data(), &count, flows.data()), SUCCESS);
        for (const flow_record &flow : flows) {
            ASSERT_EQ(memcmp(&flow, &there.at(flow.flow_id), sizeof flow), 0) << flow.flow_id;
        }
        std::vector<uint32_t> activities(count);
        std::vector<flow_stats> stats(count);
        ASSERT_EQ(kr_sdn_hal_table_entry_activity_get(0, ids.data(), count, activities.data()), SUCCESS);
        ASSERT_EQ(kr_sdn_hal_table_entry_stat_get(0, ids.data(), count, stats.data()), SUCCESS);
        ASSERT_THAT(activities, testing::Each(uint32_t{FLOW_ACTIVITY_IDLE}));
    };
    while (!is_over()) {
        const guest inside(ports_gate);
        std::vector<flow_record> batch;
        const size_t size = 1 + random() % 64;
        if (there.size() + size <= most) {
            while (batch.size() < size) {
                flow_record flow = flow_of(next_id++, static_cast<uint32_t>(random() % 65536), FLOW_ACTION_OUTPUT);
                flow.out_port = 1 + static_cast<uint32_t>(random() % port_count);
                there[flow.flow_id] = flow;
                batch.push_back(flow);
            }
            ASSERT_EQ(flows_add(batch), SUCCESS);
        } else {
            for (auto flow = there.begin(); flow != there.end();) {
                const bool leaves = random() % 3 != 0;
                if (leaves) {
                    batch.push_back(flow->second);
                }
                flow = leaves ? there.erase(flow) : std::next(flow);
            }
            std::shuffle(batch.begin(), batch.end(), random);
            ASSERT_EQ(flows_delete(batch), SUCCESS);
        }
        ASSERT_NO_FATAL_FAILURE(check());
    }
    std::vector<flow_record> rest;
    for (const auto &[id, flow] : there) {
        rest.push_back(flow);
    }
    ASSERT_EQ(flows_delete(rest), SUCCESS);
}

// Groups are edited and deleted by one thread, as the library asks.
void stress::change_groups(uint32_t member) {
    while (!is_over()) {
        const guest inside(ports_gate);
        uint32_t group_id = 0;
        uint32_t found[100] = {};
        uint32_t count = 100;
        ASSERT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, 0, &member, &group_id), SUCCESS);
        ASSERT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_ADD_PORTS, 1, &member, &group_id), SUCCESS);
        ASSERT_EQ(kr_sdn_hal_table_mcast_group_get(group_id, &count, found), SUCCESS);
        ASSERT_EQ(count, 1U);
        ASSERT_EQ(found[0], member);
        ASSERT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_DELETE, 0, nullptr, &group_id), SUCCESS);
    }
}

// A client that comes and goes. It reads as long as it registers and unregisters: otherwise it would stop the
// producers, and wait for them itself.
void stress::open_and_close_channels(uint64_t seed) {
    std::mt19937_64 random = random_of(seed);
    while (!is_over()) {
        channel passing;
        std::atomic<bool> is_unregistered{false};
        std::thread reader([&] {
            srvc_handle *handles[] = {&passing.handle};
            hal_event_record record;
            for (;;) {
                const bool is_last_look = is_unregistered;
                timeval timeout = {.tv_sec = 0, .tv_usec = is_last_look ? 0 : 1000};
                uint32_t mask = 0;
                ASSERT_EQ(kr_sdn_hal_srvc_select(handles, 1, &timeout, &mask), SUCCESS);
                if (mask != 0) {
                    ASSERT_EQ(kr_sdn_hal_srvc_recv(&passing.handle, &record), SUCCESS);
                } else if (is_last_look) {
                    return;
                }
            }
        });
        // Only what the library itself sends: a frame that is left over would be looked up while ports change.
        std::vector<uint32_t> types = {EVENT_GENERAL_READY, EVENT_PORT_CAPABILITIES_UPDATE, EVENT_VLAN_UPDATE,
                                       EVENT_AGENT_UPDATE};
        std::shuffle(types.begin(), types.end(), random);
        for (const uint32_t type : types) {
            EXPECT_EQ(kr_sdn_hal_srvc_event_register(&passing.handle, type), SUCCESS);
        }
        for (uint64_t pause = random() % 50; pause > 0; pause--) {
            sched_yield();
        }
        for (const uint32_t type : types) {
            EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&passing.handle, type), SUCCESS);
        }
        is_unregistered = true;
        reader.join();
    }
}

// A client that hears of something, reads nothing, and leaves: close does not wait for the producers that it stopped.
void stress::leave_unread() {
    std::mt19937_64 random = random_of(6);
    while (!is_over()) {
        channel passing({EVENT_VLAN_UPDATE});
        for (uint64_t pause = random() % 200; pause > 0; pause--) {
            sched_yield();
        }
    }
}

// A client may change these at any time; it does so as the library reads them.
void stress::change_verbosity() {
    int32_t *const levels[] = {&kr_HAL_API_verb_level, &kr_HAL_EVENTS_API_verb_level, &kr_HAL_GEN_verb_level,
                               &kr_FLOWS_DB_verb_level, &kr_HAL_UTILS_verb_level};
    while (!is_over()) {
        for (const int32_t value : {6, 3}) {
            for (int32_t *const level : levels) {
                std::atomic_ref(*level).store(value, std::memory_order_relaxed);
            }
            for (const log_line &line : log.take()) {
                EXPECT_GT(line.severity, KR_LOG_WARNING) << line;
            }
        }
        capabilities cap{};
        EXPECT_EQ(kr_sdn_hal_capabilities_get(&cap), SUCCESS);
        EXPECT_EQ(kr_sdn_hal_capabilities_set(&cap), SUCCESS);
        EXPECT_EQ(kr_sdn_hal_log(KR_LOG_NOTICE, "CLIENT", "%s", "still here"), SUCCESS);
        std::this_thread::sleep_for(std::chrono::milliseconds(5)); // not to do nothing else
    }
}

TEST_F(stress, nothing_is_lost_doubled_torn_out_of_order_or_stuck) {
    SCOPED_TRACE(testing::Message() << "KR_TEST_SEED=" << test_seed());
    ASSERT_EQ(
        the_library
            .deliver(CONN_EVENT_CONTROL_FORWARD, conn_control_forward{CONN_FORWARD_REGISTER, KR_SOFT_TRAP_ID_LLDP})
            .get(),
        0U);
    ASSERT_EQ(flows_add({flow_of(trapped_flow_id, 65535, FLOW_ACTION_CONTROLLER)}), SUCCESS);
    while (steady.size() < steady_channel_count) {
        steady.push_back(std::make_unique<steady_channel>());
    }

    std::vector<std::thread> clients;
    clients.emplace_back([this] { read_channels(0, 1); });
    clients.emplace_back([this] { read_channels(1, 1); });
    clients.emplace_back([this] { read_channels(2, 2); });
    clients.emplace_back([this] { acknowledge_removals(); });
    std::vector<std::thread> makers;
    for (uint32_t producer = 0; producer < producer_count; producer++) {
        makers.emplace_back([this, producer] { produce(producer); });
    }
    makers.emplace_back([this] { configure(); });
    makers.emplace_back([this] { change_ports(); });
    makers.emplace_back([this] { inject_and_send(); });
    makers.emplace_back([this] { set_flows(0x100000000, 2); });
    makers.emplace_back([this] { set_flows(0x200000000, 3); });
    makers.emplace_back([this] { change_groups(1); });
    makers.emplace_back([this] { open_and_close_channels(4); });
    makers.emplace_back([this] { open_and_close_channels(5); });
    makers.emplace_back([this] { leave_unread(); });
    makers.emplace_back([this] { change_verbosity(); });
    for (std::thread &maker : makers) {
        maker.join();
    }
    has_produced_all = true;
    for (std::thread &client : clients) {
        client.join();
    }

    for (const std::unique_ptr<steady_channel> &one : steady) {
        EXPECT_EQ(one->seen.configurations, made.configurations);
        EXPECT_EQ(one->seen.control_frames, made.control_frames);
        EXPECT_EQ(one->seen.data_frames, made.data_frames);
        EXPECT_EQ(one->seen.link_changes, made.link_changes);
        EXPECT_EQ(one->seen.port_updates, made.port_updates);
        for (uint32_t producer = 0; producer < producer_count; producer++) {
            EXPECT_EQ(one->seen.by_producer[producer], made.by_producer[producer]);
        }
        timeval at_once{};
        uint32_t mask = 0;
        srvc_handle *handle = one->handle();
        EXPECT_EQ(kr_sdn_hal_srvc_select(&handle, 1, &at_once, &mask), SUCCESS);
        EXPECT_EQ(mask, 0U) << "something is left over";
    }
    // Each actor must have had its turn for the run to say anything.
    EXPECT_GT(made.configurations, 0U);
    EXPECT_GT(made.control_frames, 0U);
    EXPECT_GT(made.port_updates, 0U);
    EXPECT_GT(made.by_producer[0], 0U);
    kr_soft_usage usage{};
    kr_soft_usage_get(&usage);
    EXPECT_GT(usage.block_move_count, 0U);
    std::printf("configurations %lu, control frames %lu, packets %lu, link changes %lu, port changes %lu, records of "
                "producers %lu, rules moved %lu\n",
                made.configurations.load(), made.control_frames.load(), made.data_frames.load(),
                made.link_changes.load(), made.port_updates.load(),
                made.by_producer[0].load() + made.by_producer[1].load(), usage.moved_rule_count);
    steady.clear();
}

} // namespace
