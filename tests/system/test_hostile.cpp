/*
 * Plug-ins that do not behave while the switch runs: slow ones, such that call the library back from within their entry
 * points, such that fail with any status or leave their outputs full, that log from many threads, and names that fill
 * their fields to the last byte.
 */
#include <atomic>
#include <cstring>
#include <latch>
#include <map>
#include <set>

#include "tests/support/formatted.h"
#include "tests/support/plugin_control.h"
#include "tests/system/running_library.h"

using namespace kr_test;

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;

// Any status, and what is none.
constexpr uint32_t failures[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 255, UINT32_MAX};

class hostile : public running_switch {
  protected:
    hostile() : running_switch(2) {}
    void SetUp() override {
        running_switch::SetUp();
        connector = plugin_control<fake_connector_control>(KR_FAKE_PLUGIN_DIR "/fake_connector.so", "fake_connector");
        fpt = plugin_control<fake_fpt_control>(KR_FAKE_PLUGIN_DIR "/fake_fpt.so", "fake_fpt");
    }
    void TearDown() override {
        *fpt = {};
        connector->log = nullptr;
        running_switch::TearDown();
    }

    // Everything that a client does, once; it takes every lock of the library, and leaves nothing behind.
    void use_everything() {
        channel own({EVENT_AGENT_UPDATE, EVENT_PACKET_IN});
        const std::vector<flow_record> flows = {flow_of(901, 5, FLOW_ACTION_CONTROLLER), flow_of(902)};
        EXPECT_EQ(flows_add(flows), SUCCESS);
        const uint64_t ids[] = {901, 902};
        flow_record read_back[2] = {};
        uint32_t count = 2;
        EXPECT_EQ(kr_sdn_hal_table_entry_get(0, 0, ids, &count, read_back), SUCCESS);
        EXPECT_EQ(read_back[0].priority, 5U);
        flow_stats stats[2];
        EXPECT_EQ(kr_sdn_hal_table_entry_stat_get(0, ids, 2, stats), SUCCESS);
        uint32_t group = 0;
        const uint32_t member = 1;
        EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, 1, &member, &group), SUCCESS);
        EXPECT_EQ(kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_DELETE, 0, nullptr, &group), SUCCESS);
        EXPECT_EQ(flows_delete(flows), SUCCESS);
        hal_event_record record{};
        record.type = EVENT_AGENT_UPDATE;
        record.payload.agent.trailer = 77;
        EXPECT_EQ(kr_sdn_hal_srvc_process_event(&record), SUCCESS);
        EXPECT_EQ(own.receive().payload.agent.trailer, 77U);
        EXPECT_EQ(ports().size(), 2U);
        uint32_t port_capabilities = 9;
        EXPECT_EQ(kr_sdn_hal_port_capabilities_get(1, &port_capabilities), SUCCESS);
        EXPECT_EQ(kr_sdn_hal_log(1, "CLIENT", "a line\n"), SUCCESS);
    }

    fake_connector_control *connector = nullptr;
    fake_fpt_control *fpt = nullptr;
};

/* ---- plug-ins that call back --------------------------------------------------------------------------------------
 */

TEST_F(hostile, a_port_plug_in_may_call_anything_from_within_each_of_its_entries) {
    std::multiset<std::string> outer;
    const call_hook hook(&fpt->record, [&](const std::string &call) {
        static thread_local int depth = 0;
        if (depth > 0) {
            return;
        }
        depth++;
        outer.insert(call);
        use_everything();
        int32_t state = 0;
        EXPECT_EQ(kr_sdn_hal_port_rstp_state_get(2, &state), SUCCESS); // and itself
        EXPECT_EQ(state, 3);
        depth--;
    });
    fpt->stp_state = 3;
    fpt->oper_speed = 40000;
    int32_t state = 0, oper = 0;
    uint32_t number = 0;
    uint16_t mtu = 0;
    port_mac_address mac{};
    port_speed_admin speed{1, 0, 0, 0};
    port_counters counters{};
    EXPECT_EQ(kr_sdn_hal_port_state_set(1, 1), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_state_get(1, &state, &oper), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_rstp_state_set(1, 3), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_rstp_state_get(1, &state), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_phys_addr_get(1, &mac), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_speed_set(1, &speed), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_speed_get(1, &speed, &number), SUCCESS);
    EXPECT_EQ(number, 40000U);
    EXPECT_EQ(kr_sdn_hal_port_speed_capability_get(1, &number), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_mtu_set(1, 1500), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_mtu_get(1, &mtu), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_cntr_get(1, &counters), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_port_cntr_clear(1, 0), SUCCESS);
    EXPECT_THAT(outer, testing::UnorderedElementsAre("port_state_set", "port_state_get", "port_oper_state_get",
                                                     "rstp_port_state_set", "rstp_port_state_get", "port_phys_addr_get",
                                                     "port_speed_admin_set", "port_speed_admin_get",
                                                     "port_speed_oper_get", "port_speed_cabability_get", "port_mtu_set",
                                                     "port_mtu_get", "port_cntr_get", "port_cntr_clear"));
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST_F(hostile, a_connector_may_call_anything_from_within_its_log) {
    static std::atomic<int> lines{0};
    static std::function<void()> work;
    lines = 0;
    work = [this] { use_everything(); }; // which logs in its turn
    connector->log = [](uint32_t, const char *, const char *) {
        if (lines++ == 0) {
            work();
        }
    };
    EXPECT_EQ(kr_sdn_hal_log(15, "CLIENT", "the first line\n"), SUCCESS);
    EXPECT_EQ(lines, 2);
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST_F(hostile, a_client_may_call_anything_while_the_port_plug_in_is_activated) {
    for (const uint32_t port : ports()) {
        remove_port(port);
    }
    ASSERT_EQ(the_library.deliver(CONN_EVENT_STOP).get(), 0U);
    int activated = 0;
    const call_hook hook(&fpt->record, [&](const std::string &call) {
        if (call != "activate") {
            return;
        }
        activated++;
        channel early({EVENT_PACKET_IN, EVENT_GENERAL_READY}); // the switch is open already
        EXPECT_EQ(flows_add({flow_of(7), flow_of(8)}), SUCCESS);
        EXPECT_EQ(flows_delete({flow_of(8)}), SUCCESS);
        EXPECT_TRUE(ports().empty());
        EXPECT_FALSE(early.readable());
    });
    channel client({EVENT_GENERAL_READY});
    ASSERT_EQ(the_library.deliver(CONN_EVENT_START).get(), 0U);
    EXPECT_EQ(activated, 1);
    EXPECT_EQ(client.receive().type, uint32_t{EVENT_GENERAL_READY});
    const uint64_t id = 7;
    uint32_t activity = 9;
    EXPECT_EQ(kr_sdn_hal_table_entry_activity_get(0, &id, 1, &activity), SUCCESS);
    EXPECT_EQ(activity, uint32_t{FLOW_ACTIVITY_IDLE});
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

/* ---- slow plug-ins ------------------------------------------------------------------------------------------------
 */

TEST_F(hostile, a_port_plug_in_that_takes_its_time_keeps_nobody_else_waiting) {
    std::latch may_go(1);
    const call_hook hook(&fpt->record, [&](const std::string &call) {
        if (call == "port_mtu_get") {
            may_go.wait();
        }
    });
    fpt->mtu = 9000;
    uint16_t mtu[2] = {0, 0};
    call_on_a_thread slow([&] { return kr_sdn_hal_port_mtu_get(1, &mtu[0]); });
    call_on_a_thread second([&] { return kr_sdn_hal_port_mtu_get(1, &mtu[1]); }); // of the same entry and port
    EXPECT_FALSE(slow.is_done());
    EXPECT_FALSE(second.is_done());
    use_everything();
    EXPECT_EQ(kr_sdn_hal_port_state_set(1, PORT_ADMIN_UP), SUCCESS);
    ASSERT_NO_FATAL_FAILURE(add_port(3));
    remove_port(3);
    EXPECT_FALSE(slow.is_done());
    may_go.count_down();
    EXPECT_EQ(slow.join(), SUCCESS);
    EXPECT_EQ(second.join(), SUCCESS);
    EXPECT_EQ(mtu[0], 9000);
    EXPECT_EQ(mtu[1], 9000);
}

TEST_F(hostile, a_port_whose_plug_in_call_lasts_may_go_meanwhile) {
    std::latch may_go(1);
    const call_hook hook(&fpt->record, [&](const std::string &) { may_go.wait(); });
    port_counters counters{};
    fpt->counters.rx_packets = 5;
    call_on_a_thread slow([&] { return kr_sdn_hal_port_cntr_get(2, &counters); });
    remove_port(2);
    EXPECT_EQ(ports(), std::vector<uint32_t>{1});
    may_go.count_down();
    EXPECT_EQ(slow.join(), SUCCESS);
    EXPECT_EQ(counters.rx_packets, 5U);
}

TEST_F(hostile, a_port_plug_in_slow_to_activate_holds_up_the_start_alone) {
    for (const uint32_t port : ports()) {
        remove_port(port);
    }
    ASSERT_EQ(the_library.deliver(CONN_EVENT_STOP).get(), 0U);
    std::latch may_go(1);
    const call_hook hook(&fpt->record, [&](const std::string &call) {
        if (call == "activate") {
            may_go.wait();
        }
    });
    channel client({EVENT_GENERAL_READY});
    std::future<uint32_t> start = the_library.deliver(CONN_EVENT_START);
    the_library.connector().wait_until_asleep();
    EXPECT_FALSE(is_done(start));
    EXPECT_FALSE(client.readable());
    EXPECT_EQ(flows_add({flow_of(1)}), SUCCESS);
    uint16_t mtu = 0;
    EXPECT_EQ(kr_sdn_hal_port_mtu_get(1, &mtu), SUCCESS);
    may_go.count_down();
    EXPECT_EQ(start.get(), 0U);
    EXPECT_EQ(client.receive().type, uint32_t{EVENT_GENERAL_READY});
}

TEST_F(hostile, a_connector_whose_log_takes_its_time_holds_up_those_that_log_to_it_alone) {
    static std::latch *may_go;
    static std::atomic<int> inside{0};
    std::latch latch(1);
    may_go = &latch;
    inside = 0;
    connector->log = [](uint32_t, const char *, const char *) {
        inside++;
        may_go->wait();
    };
    call_on_a_thread first([] { return kr_sdn_hal_log(1, "CLIENT", "first\n"); });
    call_on_a_thread second([] { return kr_sdn_hal_log(1, "CLIENT", "second\n"); });
    EXPECT_EQ(inside, 2); // both are in it at the same time
    connector->log = nullptr;
    use_everything();
    EXPECT_FALSE(first.is_done());
    latch.count_down();
    EXPECT_EQ(first.join(), SUCCESS);
    EXPECT_EQ(second.join(), SUCCESS);
}

/* ---- plug-ins that fail -------------------------------------------------------------------------------------------
 */

struct port_row {
    const char *entry;
    uint32_t fake_fpt_control::*status;
    const char *text;
    kr_sdn_hal_status (*call)();
};

// Room for every output.
struct {
    int32_t state, oper;
    uint32_t number;
    uint16_t mtu;
    port_mac_address mac;
    port_speed_admin speed;
    port_counters counters;
} out;

const port_row port_rows[] = {
    {"port_state_set", &fake_fpt_control::port_state_set_status, "fpt_port_state_set failed.",
     [] { return kr_sdn_hal_port_state_set(1, 2); }},
    {"port_state_get", &fake_fpt_control::port_state_get_status, "fpt_port_state_get failed.",
     [] { return kr_sdn_hal_port_state_get(1, &out.state, &out.oper); }},
    {"port_oper_state_get", &fake_fpt_control::port_oper_state_get_status, "fpt_port_oper_state_get failed.",
     [] { return kr_sdn_hal_port_state_get(1, &out.state, &out.oper); }},
    {"rstp_port_state_set", &fake_fpt_control::rstp_port_state_set_status, "fpt_rstp_port_state_set failed.",
     [] { return kr_sdn_hal_port_rstp_state_set(1, 3); }},
    {"rstp_port_state_get", &fake_fpt_control::rstp_port_state_get_status, "fpt_rstp_port_state_get failed.",
     [] { return kr_sdn_hal_port_rstp_state_get(1, &out.state); }},
    {"port_phys_addr_get", &fake_fpt_control::port_phys_addr_get_status, "fpt_port_phys_addr_get failed.",
     [] { return kr_sdn_hal_port_phys_addr_get(1, &out.mac); }},
    {"port_speed_admin_set", &fake_fpt_control::port_speed_admin_set_status, "fpt_port_speed_admin_set failed.",
     [] {
         const port_speed_admin speed{1, 1, 0, 0};
         return kr_sdn_hal_port_speed_set(1, &speed);
     }},
    {"port_speed_admin_get", &fake_fpt_control::port_speed_admin_get_status, "fpt_port_speed_admin_get failed.",
     [] { return kr_sdn_hal_port_speed_get(1, &out.speed, &out.number); }},
    {"port_speed_oper_get", &fake_fpt_control::port_speed_oper_get_status, "fpt_port_speed_oper_get failed.",
     [] { return kr_sdn_hal_port_speed_get(1, &out.speed, &out.number); }},
    {"port_speed_cabability_get", &fake_fpt_control::port_speed_cabability_get_status,
     "fpt_port_speed_cabability_get failed.", [] { return kr_sdn_hal_port_speed_capability_get(1, &out.number); }},
    {"port_mtu_set", &fake_fpt_control::port_mtu_set_status, "fpt_port_mtu_set failed.",
     [] { return kr_sdn_hal_port_mtu_set(1, 1500); }},
    {"port_mtu_get", &fake_fpt_control::port_mtu_get_status, "fpt_port_mtu_get failed.",
     [] { return kr_sdn_hal_port_mtu_get(1, &out.mtu); }},
    {"port_cntr_get", &fake_fpt_control::port_cntr_get_status, "fpt_port_cntr_get failed.",
     [] { return kr_sdn_hal_port_cntr_get(1, &out.counters); }},
    {"port_cntr_clear", &fake_fpt_control::port_cntr_clear_status, "fpt_port_cntr_get failed.",
     [] { return kr_sdn_hal_port_cntr_clear(1, 1); }},
};
static_assert(std::size(port_rows) == 14);

TEST_F(hostile, every_failure_of_the_port_plug_in_reaches_the_client_unchanged_with_one_line) {
    for (const port_row &row : port_rows) {
        for (const uint32_t status : failures) {
            SCOPED_TRACE(formatted("%s %u", row.entry, status));
            fpt->*row.status = status;
            EXPECT_EQ(row.call(), status);
            EXPECT_EQ(log.take(),
                      (std::vector<log_line>{{KR_LOG_ERROR, "HAL_API_PORT", std::string(row.text) + "\n"}}));
        }
        fpt->*row.status = 0;
        EXPECT_EQ(row.call(), SUCCESS) << row.entry;
        EXPECT_THAT(log.take(), testing::IsEmpty());
    }
}

TEST_F(hostile, a_port_plug_in_that_cannot_be_activated_ends_the_start_and_the_next_one_works) {
    for (const uint32_t port : ports()) {
        remove_port(port);
    }
    ASSERT_EQ(the_library.deliver(CONN_EVENT_STOP).get(), 0U);
    channel client({EVENT_GENERAL_READY});
    for (const uint32_t status : failures) {
        SCOPED_TRACE(status);
        fpt->activate_status = status;
        EXPECT_EQ(the_library.deliver(CONN_EVENT_START).get(), status);
        EXPECT_EQ(log.take(), (std::vector<log_line>{{KR_LOG_ERROR, "HAL_GEN", "FPT activate failed.\n"}}));
        kr_soft_usage usage{};
        kr_soft_usage_get(&usage);
        EXPECT_EQ(usage.acl_count + usage.device_handle_count + usage.acl_rm_handle_count + usage.descriptor_count, 0U);
        EXPECT_FALSE(client.readable());
    }
    fpt->activate_status = 0;
    EXPECT_EQ(the_library.deliver(CONN_EVENT_START).get(), 0U);
    EXPECT_EQ(client.receive().type, uint32_t{EVENT_GENERAL_READY});
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

/* ---- plug-ins that log from many threads --------------------------------------------------------------------------
 */

constexpr uint32_t logger_count = 8;
constexpr uint32_t lines_per_logger = 500;

// One line of a logger, as long as a line can be: the number of the logger and that of the line, again and again.
std::string long_line(uint32_t logger, uint32_t line) {
    std::string text;
    while (text.size() < 240) {
        text += formatted("%u.%u ", logger, line);
    }
    return text + "\n";
}

TEST_F(hostile, lines_that_many_threads_log_to_the_connector_arrive_whole) {
    static std::mutex mutex;
    static std::map<std::string, std::vector<std::string>> lines; // by module
    lines.clear();
    connector->log = [](uint32_t severity, const char *module, const char *text) {
        const std::lock_guard guard(mutex);
        EXPECT_EQ(severity, 63U);
        lines[module].emplace_back(text);
    };
    std::vector<std::thread> loggers;
    for (uint32_t logger = 0; logger < logger_count; logger++) {
        loggers.emplace_back([logger] {
            const std::string module = "LOGGER" + std::to_string(logger);
            for (uint32_t line = 0; line < lines_per_logger; line++) {
                EXPECT_EQ(kr_sdn_hal_log(63, module.c_str(), "%s", long_line(logger, line).c_str()), SUCCESS);
            }
        });
    }
    for (std::thread &logger : loggers) {
        logger.join();
    }
    connector->log = nullptr;
    ASSERT_EQ(lines.size(), logger_count);
    for (uint32_t logger = 0; logger < logger_count; logger++) {
        const std::vector<std::string> &of_logger = lines["LOGGER" + std::to_string(logger)];
        ASSERT_EQ(of_logger.size(), lines_per_logger);
        for (uint32_t line = 0; line < lines_per_logger; line++) {
            ASSERT_EQ(of_logger[line], long_line(logger, line));
        }
    }
}

TEST_F(hostile, lines_that_a_plug_in_logs_from_many_threads_arrive_whole_beside_the_librarys_own) {
    fpt->port_mtu_get_status = 6;
    const call_hook hook(&fpt->record,
                         [](const std::string &) { kr_log(KR_LOG_WARNING, "PLUGIN", "%s", long_line(3, 4).c_str()); });
    std::vector<std::thread> clients;
    for (uint32_t i = 0; i < logger_count; i++) {
        clients.emplace_back([] {
            for (uint32_t line = 0; line < lines_per_logger; line++) {
                uint16_t mtu = 0;
                EXPECT_EQ(kr_sdn_hal_port_mtu_get(1, &mtu), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
            }
        });
    }
    for (std::thread &client : clients) {
        client.join();
    }
    uint32_t of_plugin = 0, of_library = 0;
    for (const log_line &line : log.take()) {
        of_plugin += line == log_line{KR_LOG_WARNING, "PLUGIN", long_line(3, 4)} ? 1 : 0;
        of_library += line == log_line{KR_LOG_ERROR, "HAL_API_PORT", "fpt_port_mtu_get failed.\n"} ? 1 : 0;
    }
    EXPECT_EQ(of_plugin, logger_count * lines_per_logger);
    EXPECT_EQ(of_library, logger_count * lines_per_logger);
}

/* ---- longest names ------------------------------------------------------------------------------------------------
 */

TEST_F(hostile, a_name_without_an_end_reaches_the_client_whole_and_not_a_byte_more) {
    channel client({EVENT_PORT_CAPABILITIES_UPDATE});
    conn_port_record port = port_record_of(3);
    memset(port.interface_name, 'n', sizeof port.interface_name);
    memset(port.mac_address, 0xFF, sizeof port.mac_address);
    memset(port.reserved_34, 'x', sizeof port.reserved_34);
    ASSERT_EQ(kr_soft_port_add_memory(port.log_port), KR_STATUS_SUCCESS);
    ASSERT_EQ(the_library.deliver(CONN_EVENT_PORT_ADDED, port).get(), 0U);
    for (const uint32_t reason : {uint32_t{PORT_UPDATE_ADDED}, uint32_t{PORT_UPDATE_REMOVED}}) {
        std::future<uint32_t> removal;
        if (reason == PORT_UPDATE_REMOVED) {
            removal = the_library.deliver(CONN_EVENT_PORT_REMOVED, port);
        }
        const hal_event_record record = client.receive();
        hal_event_record expected{};
        expected.type = EVENT_PORT_CAPABILITIES_UPDATE;
        expected.payload.port_update.reason = reason;
        expected.payload.port_update.port = 3;
        expected.payload.port_update.oper_state = 1;
        memset(expected.payload.port_update.mac_address, 0xFF, 6);
        memset(expected.payload.port_update.interface_name, 'n', 16);
        EXPECT_EQ(memcmp(&record, &expected, sizeof record), 0) << reason;
        if (reason == PORT_UPDATE_REMOVED) {
            EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&record), SUCCESS);
            EXPECT_EQ(removal.get(), 0U);
        }
    }
    EXPECT_EQ(kr_soft_port_remove(port.log_port), KR_STATUS_SUCCESS);
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST_F(hostile, a_configuration_that_is_full_to_the_last_byte_reaches_the_client_whole) {
    channel client({EVENT_AGENT_UPDATE});
    conn_agent_config config;
    memset(&config, 'c', sizeof config);
    ASSERT_EQ(the_library.configure(CONN_CONFIG_AGENT, config).get(), 0U);
    const hal_event_record record = client.receive();
    EXPECT_EQ(record.type, uint32_t{EVENT_AGENT_UPDATE});
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(memcmp(record.payload.agent.entries[i].data, config.entries[i].data, 16), 0);
        EXPECT_EQ(record.payload.agent.entries[i].value, config.entries[i].value);
        EXPECT_EQ(record.payload.agent.entries[i].number, config.entries[i].number);
    }
    EXPECT_EQ(record.payload.agent.trailer, config.trailer);
}

TEST_F(hostile, outputs_that_the_port_plug_in_fills_with_anything_reach_the_client_as_they_are) {
    fpt->stp_state = UINT32_MAX;
    fpt->admin_state = 0x80000000;
    fpt->oper_state = 77;
    fpt->mtu = UINT16_MAX;
    memset(&fpt->counters, 0xFF, sizeof fpt->counters);
    memset(&fpt->admin_speed, 0xFE, sizeof fpt->admin_speed);
    int32_t state = 0, oper = 0;
    EXPECT_EQ(kr_sdn_hal_port_rstp_state_get(1, &state), SUCCESS);
    EXPECT_EQ(state, -1);
    EXPECT_EQ(kr_sdn_hal_port_state_get(1, &state, &oper), SUCCESS);
    EXPECT_EQ(state, INT32_MIN);
    EXPECT_EQ(oper, 77);
    uint16_t mtu = 0;
    EXPECT_EQ(kr_sdn_hal_port_mtu_get(1, &mtu), SUCCESS);
    EXPECT_EQ(mtu, UINT16_MAX);
    port_counters counters{};
    EXPECT_EQ(kr_sdn_hal_port_cntr_get(1, &counters), SUCCESS);
    EXPECT_EQ(memcmp(&counters, &fpt->counters, sizeof counters), 0);
    port_speed_admin speed{};
    EXPECT_EQ(kr_sdn_hal_port_speed_get(1, &speed, nullptr), SUCCESS);
    EXPECT_EQ(memcmp(&speed, &fpt->admin_speed, sizeof speed), 0);
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

} // namespace
