/*
 * What the tests of the tables share: the tables module on a fresh software platform with four ports in memory, short
 * ways to make flows, and what the log, the journal and the hardware say afterwards.
 *
 * The modules keep their state for the life of a process, so each test starts by setting it back to what it was then.
 */
#ifndef KR_TESTS_TABLES_FIXTURE_H
#define KR_TESTS_TABLES_FIXTURE_H

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/port.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "tables/tables.h"
#include "tables/tables_acl_internal.h"
#include "tables/tables_internal.h"
#include "tests/support/formatted.h"
#include "tests/support/log_capture.h"

namespace kr_test {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t test_log_port_base = 0x10000;
constexpr uint32_t test_port_count = 4; // OF ports 1 to 4, on logical ports 0x10001 to 0x10004
constexpr uint32_t unknown_of_port = 77;

constexpr uint32_t log_port_of(uint32_t of_port) {
    return test_log_port_base + of_port;
}

// A flow that drops one Ethernet destination, which is as good as its id.
inline flow_record make_flow(uint64_t flow_id, uint32_t priority = 100, uint32_t action = FLOW_ACTION_DROP) {
    flow_record flow{};
    flow.flow_id = flow_id;
    flow.priority = priority;
    for (uint32_t i = 0; i < 6; ++i) {
        flow.eth_dst[i] = static_cast<uint8_t>(flow_id >> (8 * (5 - i)));
        flow.eth_dst_mask[i] = 0xFF;
    }
    flow.action = action;
    return flow;
}

inline std::vector<flow_record> make_flows(uint64_t first_id, uint32_t count, uint32_t priority = 100) {
    std::vector<flow_record> flows;
    for (uint32_t i = 0; i < count; ++i) {
        flows.push_back(make_flow(first_id + i, priority));
    }
    return flows;
}

inline std::vector<uint64_t> ids_of(const std::vector<flow_record> &flows) {
    std::vector<uint64_t> ids;
    for (const flow_record &flow : flows) {
        ids.push_back(flow.flow_id);
    }
    return ids;
}

inline kr_sdn_hal_status add(std::vector<flow_record> flows) {
    return tables_entry_set(TABLES_CMD_ADD, 0, flows.data(), static_cast<uint32_t>(flows.size()));
}

inline kr_sdn_hal_status remove(std::vector<flow_record> flows) {
    return tables_entry_set(TABLES_CMD_DELETE, 0, flows.data(), static_cast<uint32_t>(flows.size()));
}

// The lines of the journal, without the waits of the background thread, which end when they please.
inline std::vector<std::string> journal() {
    char *const text = kr_soft_journal_text();
    std::istringstream stream(text);
    free(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        if (!line.starts_with("cl_event_wait_on(")) {
            lines.push_back(line);
        }
    }
    return lines;
}

inline std::vector<kr_soft_rule_state> rules() {
    std::vector<kr_soft_rule_state> states(KR_SOFT_MAX_RULES);
    uint32_t acl_id = 0;
    uint32_t acl_count = 1;
    EXPECT_EQ(kr_soft_acls_get(&acl_id, &acl_count), KR_STATUS_SUCCESS);
    uint32_t count = KR_SOFT_MAX_RULES;
    EXPECT_EQ(kr_soft_rules_get(acl_id, states.data(), &count), KR_STATUS_SUCCESS);
    states.resize(count);
    return states;
}

inline kr_soft_usage usage() {
    kr_soft_usage state{};
    kr_soft_usage_get(&state);
    return state;
}

inline uint32_t flows_db_count() {
    uint32_t count = 0;
    EXPECT_EQ(flows_db_occupancy_get(&acl_flows_db, &count), KR_SDN_HAL_STATUS_SUCCESS);
    return count;
}

inline uint64_t offset_of(uint64_t flow_id) {
    flow_entry entry{};
    entry.flow_id = flow_id;
    EXPECT_EQ(flows_db_entry_get(&acl_flows_db, &entry), KR_SDN_HAL_STATUS_SUCCESS) << flow_id;
    return entry.offset;
}

// Lines of the table modules, by severity.
inline log_line error(const std::string &text) {
    return {KR_LOG_ERROR, "HAL_TABLES_API", text + "\n"};
}
inline log_line notice(const std::string &text) {
    return {KR_LOG_NOTICE, "HAL_TABLES_API", text + "\n"};
}

// The tables module as it is when the process starts, and ports in the port database and in the switch.
class tables_unstarted : public testing::Test {
  protected:
    void SetUp() override {
        static const kr_sdn_hal_status port_database = port_init();
        ASSERT_EQ(port_database, KR_SDN_HAL_STATUS_SUCCESS);
        kr_soft_reset();
        set_back();
        for (uint32_t port = 1; port <= test_port_count; ++port) {
            uint32_t of_port = 0;
            ASSERT_EQ(port_set(PORT_CMD_ADD, port, 0, log_port_of(port), 0, &of_port), KR_SDN_HAL_STATUS_SUCCESS);
            ASSERT_EQ(of_port, port);
            ASSERT_EQ(kr_soft_port_add_memory(log_port_of(port)), KR_STATUS_SUCCESS);
        }
    }

    void TearDown() override {
        kr_soft_fault_clear();
        kr_soft_journal_stop();
        kr_HAL_TABLES_API_verb_level = 0;
        kr_FLOWS_DB_verb_level = 0;
        (void)tables_dependent_deinit();
        (void)flows_db_deinit(&acl_flows_db);
        (void)tables_deinit();
        for (uint32_t port = 1; port <= test_port_count; ++port) {
            uint32_t of_port = port;
            (void)port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &of_port);
        }
        kr_soft_reset();
        set_back();
    }

    static void set_back() {
        kr::tables::g = {};
        kr::tables_acl::g = {};
        acl_psort_handle = nullptr;
        acl_flows_db.initialized = 0;
        kr_HAL_TABLES_API_verb_level = 3;
        kr_FLOWS_DB_verb_level = 3;
    }

    static kr_sdn_hal_status init(uint8_t table_0_enabled = 1) {
        return tables_init(&table_0_enabled);
    }

    // Only what a case is about goes to its log and journal: both start here.
    void watch() {
        kr_HAL_TABLES_API_verb_level = 4;
        (void)log.take();
        kr_soft_journal_start();
    }

    log_capture log;
};

// The same, with Table 0 up, its ports bound, and the background thread at rest.
class tables_started : public tables_unstarted {
  protected:
    void SetUp() override {
        tables_unstarted::SetUp();
        ASSERT_EQ(init(), KR_SDN_HAL_STATUS_SUCCESS);
        ASSERT_EQ(tables_dependent_init(), KR_SDN_HAL_STATUS_SUCCESS);
        for (uint32_t port = 1; port <= test_port_count; ++port) {
            ASSERT_EQ(tables_port_added(port), KR_SDN_HAL_STATUS_SUCCESS);
        }
        ASSERT_EQ(log.take(), std::vector<log_line>{});
    }
};

} // namespace kr_test

#endif
