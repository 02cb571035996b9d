/*
 * Which lock each slot of a table's operations runs under, and which calls take none. The slots are replaced by ones
 * that ask the lock, from another thread, how it is held, and then go on to Table 0's own.
 */
#include <pthread.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include "tests/unit/tables/tables_fixture.h"

using namespace kr_test;

namespace {

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;

using slot_list = std::vector<std::string>;

// What another thread can get of the lock.
std::string table_lock_state() {
    return std::async(std::launch::async,
                      [] {
                          pthread_rwlock_t *const lock = &kr::tables::g.table_locks[0].lock;
                          if (pthread_rwlock_trywrlock(lock) == 0) {
                              pthread_rwlock_unlock(lock);
                              return "free";
                          }
                          if (pthread_rwlock_tryrdlock(lock) == 0) {
                              pthread_rwlock_unlock(lock);
                              return "shared";
                          }
                          return "exclusive";
                      })
        .get();
}

// The slots that were called, each with the state of the lock.
struct {
    std::mutex mutex;
    slot_list slots;
    // What a slot that was entered with the lock shared does besides, once.
    std::function<void()> inside_shared;
} seen;

void saw(const char *slot) {
    const std::string state = table_lock_state();
    std::function<void()> inside;
    {
        const std::lock_guard guard(seen.mutex);
        seen.slots.push_back(std::string(slot) + ": " + state);
        if (state == "shared") {
            inside = std::exchange(seen.inside_shared, nullptr);
        }
    }
    if (inside) {
        inside();
    }
}

slot_list take_seen() {
    const std::lock_guard guard(seen.mutex);
    return std::exchange(seen.slots, {});
}

constexpr table_ops watching_operations = {
    .init =
        [](const uint8_t *table_enabled, psort_handle *psort) {
            saw("init");
            return tables_acl_init(table_enabled, psort);
        },
    .deinit =
        [] {
            saw("deinit");
            return tables_acl_deinit();
        },
    .capabilities_get =
        [](table_capabilities *out) {
            saw("capabilities_get");
            return tables_acl_capabilities_get(out);
        },
    .config =
        [](wrapped_flow *flows, uint32_t *count) {
            saw("config");
            return tables_acl_config(flows, count);
        },
    .del =
        [](wrapped_flow *flows, uint32_t *count) {
            saw("delete");
            return tables_acl_delete(flows, count);
        },
    .add_port =
        [](uint32_t of_port) {
            saw("add_port");
            return tables_acl_add_port(of_port);
        },
    .del_port =
        [](uint32_t of_port) {
            saw("del_port");
            return tables_acl_del_port(of_port);
        },
    .activity_get =
        [](const uint64_t *flow_ids, uint32_t count, uint32_t *activities) {
            saw("activity_get");
            return tables_acl_activity_get(flow_ids, count, activities);
        },
    .table_stats_get =
        [](table_stats *stats) {
            saw("table_stats_get");
            return tables_acl_table_stats_get(stats);
        },
    .flows_stats_get =
        [](const uint64_t *flow_ids, uint32_t count, flow_stats *stats) {
            saw("flows_stats_get");
            return tables_acl_flows_stats_get(flow_ids, count, stats);
        },
    .rules_shift =
        [](uint32_t old_index, uint32_t new_index, uint32_t size) {
            saw("rules_shift");
            return tables_acl_rules_shift(old_index, new_index, size);
        },
    .rule_get =
        [](uint32_t count, wrapped_flow *flows) {
            saw("rule_get");
            return tables_acl_rule_get(count, flows);
        },
    .flows_db_set =
        [](uint32_t command, wrapped_flow *flow) {
            saw("flows_db_set");
            return tables_acl_flows_db_set(command, flow);
        },
    .flows_db_get =
        [](wrapped_flow *flow) {
            saw("flows_db_get");
            return tables_acl_flows_db_get(flow);
        },
    .flows_db_rules_shift =
        [](uint32_t old_index, uint32_t new_index, uint32_t size) {
            saw("flows_db_rules_shift");
            return tables_acl_flows_db_rules_shift(old_index, new_index, size);
        },
};

kr_sdn_hal_status get_flow_1() {
    const uint64_t id = 1;
    flow_record flow{};
    return tables_entry_get(0, &id, 1, &flow);
}
kr_sdn_hal_status activity_of_flow_1() {
    const uint64_t id = 1;
    uint32_t activity = 0;
    return tables_flow_activity_get(0, &id, 1, &activity);
}
kr_sdn_hal_status statistics_of_flow_1() {
    const uint64_t id = 1;
    flow_stats stats{};
    return tables_entries_stat_get(0, &id, 1, &stats);
}
kr_sdn_hal_status capabilities_of_the_table() {
    table_capabilities capabilities{};
    return tables_capability_get(0, &capabilities);
}
kr_sdn_hal_status statistics_of_the_table() {
    table_stats stats{};
    return tables_table_stat_get(0, &stats);
}

// Flow 1 is there, flow 2 is not.
class tables_locks : public tables_started {
  protected:
    void SetUp() override {
        tables_started::SetUp();
        ASSERT_EQ(add({make_flow(1)}), SUCCESS);
        kr::relaxed_store(kr::tables::g.operations[0], &watching_operations);
        seen.inside_shared = nullptr;
        (void)take_seen();
    }
};

struct row {
    const char *name;
    std::function<kr_sdn_hal_status()> run;
    slot_list expected;
};

void PrintTo(const row &value, std::ostream *out) {
    *out << value.name;
}

/* clang-format off */
const row rows[] = {
    {"add", [] { return add({make_flow(2)}); },
     {"flows_db_get: exclusive", "config: exclusive", "flows_db_set: exclusive"}},
    {"delete", [] { return remove({make_flow(1)}); },
     {"flows_db_get: exclusive", "delete: exclusive", "flows_db_set: exclusive"}},
    {"get", get_flow_1, {"flows_db_get: shared", "rule_get: shared"}},
    {"activity", activity_of_flow_1, {"activity_get: shared"}},
    {"flow_statistics", statistics_of_flow_1, {"flows_stats_get: shared"}},
    {"capabilities", capabilities_of_the_table, {"capabilities_get: free"}},
    {"table_statistics", statistics_of_the_table, {"table_stats_get: free"}},
    {"shift", [] { return tables_entries_shift(0, static_cast<uint32_t>(offset_of(1)), 999, 1); },
     {"rules_shift: free", "flows_db_rules_shift: free"}},
    {"port_removed", [] { return tables_port_removed(2); }, {"del_port: free"}},
    {"port_added", [] { return tables_port_added(2); }, {"add_port: free"}},
    {"stop", [] { return tables_dependent_deinit(); }, {"deinit: exclusive"}},
    {"start", [] { (void)tables_dependent_deinit(); (void)take_seen(); return tables_dependent_init(); },
     {"init: exclusive"}},
};
/* clang-format on */

class each_operation : public tables_locks, public testing::WithParamInterface<row> {};

TEST_P(each_operation, holds_the_lock_in_its_way_and_releases_it) {
    EXPECT_EQ(GetParam().run(), SUCCESS);
    EXPECT_EQ(take_seen(), GetParam().expected);
    EXPECT_EQ(table_lock_state(), "free");
}

INSTANTIATE_TEST_SUITE_P(rows, each_operation, testing::ValuesIn(rows), [](const auto &one) { return one.param.name; });

TEST_F(tables_locks, entry_set_holds_the_lock_exclusively_while_psort_moves_rules) {
    // One place is left, at the lower end, and the next flow belongs to the upper one: there has to be a shift.
    std::vector<flow_record> flows;
    for (uint64_t id = 2; id <= 999; ++id) {
        flows.push_back(make_flow(id, static_cast<uint32_t>(60 * id)));
    }
    kr::relaxed_store(kr::tables::g.operations[0], [] {
        static table_ops unwatched;
        unwatched = watching_operations;
        unwatched.flows_db_get = tables_acl_flows_db_get; // a thousand times, which is of no interest
        unwatched.flows_db_set = tables_acl_flows_db_set;
        return static_cast<const table_ops *>(&unwatched);
    }());
    ASSERT_EQ(add(flows), SUCCESS);
    uint32_t free_offset = 0;
    while (acl_flows_db.slots[free_offset].valid != 0) {
        ++free_offset;
    }
    (void)take_seen();
    ASSERT_EQ(add({make_flow(5000, free_offset < 500 ? 1 : 65000)}), SUCCESS);
    const slot_list slots = take_seen();
    EXPECT_THAT(slots, testing::Contains("rules_shift: exclusive"));
    EXPECT_THAT(slots, testing::Contains("flows_db_rules_shift: exclusive"));
    EXPECT_THAT(slots, testing::Each(testing::EndsWith(": exclusive")));
}

TEST_F(tables_locks, reads_run_beside_each_other) {
    const std::pair<const char *, std::function<kr_sdn_hal_status()>> reads[] = {
        {"rule_get: shared", get_flow_1},
        {"activity_get: shared", activity_of_flow_1},
        {"flows_stats_get: shared", statistics_of_flow_1},
    };
    for (const auto &outer : reads) {
        for (const auto &inner : reads) {
            kr_sdn_hal_status inner_status = KR_SDN_HAL_STATUS_ERROR;
            seen.inside_shared = [&] { std::thread([&] { inner_status = inner.second(); }).join(); };
            EXPECT_EQ(outer.second(), SUCCESS) << outer.first;
            EXPECT_EQ(inner_status, SUCCESS) << outer.first << " around " << inner.first;
            EXPECT_THAT(take_seen(), testing::IsSupersetOf({outer.first, inner.first}));
        }
    }
}

TEST_F(tables_locks, capabilities_table_statistics_shifts_groups_and_ports_do_not_wait_for_the_lock) {
    std::promise<void> done;
    std::promise<void> is_held;
    std::thread holder([&] {
        cl_plock_excl_acquire(&kr::tables::g.table_locks[0]);
        is_held.set_value();
        done.get_future().wait();
        cl_plock_release(&kr::tables::g.table_locks[0]);
    });
    is_held.get_future().wait();
    // Whoever takes the lock waits for ever.
    EXPECT_EQ(capabilities_of_the_table(), SUCCESS);
    EXPECT_EQ(statistics_of_the_table(), SUCCESS);
    EXPECT_EQ(tables_entries_shift(0, static_cast<uint32_t>(offset_of(1)), 999, 1), SUCCESS);
    EXPECT_EQ(tables_resize(0, TABLES_RESIZE_ALMOST_FULL), SUCCESS);
    EXPECT_EQ(tables_port_removed(2), SUCCESS);
    EXPECT_EQ(tables_port_added(2), SUCCESS);
    const uint32_t port = 1;
    uint32_t group_id = 0;
    EXPECT_EQ(tables_mcast_group_add(1, &port, &group_id), SUCCESS);
    EXPECT_EQ(tables_mcast_group_edit(KR_SDN_HAL_GROUP_ADD_PORTS, 1, &port, &group_id), SUCCESS);
    uint32_t count = 1;
    uint32_t member = 0;
    EXPECT_EQ(tables_mcast_group_get(group_id, &count, &member), SUCCESS);
    EXPECT_EQ(tables_mcast_group_del(&group_id), SUCCESS);
    EXPECT_THAT(take_seen(),
                ElementsAre("capabilities_get: exclusive", "table_stats_get: exclusive", "rules_shift: exclusive",
                            "flows_db_rules_shift: exclusive", "del_port: exclusive", "add_port: exclusive"));
    done.set_value();
    holder.join();
}

/* ---- the background thread --------------------------------------------------------------------------------------- */

std::atomic<bool> worker_is_watched{false};

TEST_F(tables_locks, the_background_worker_runs_under_the_exclusive_lock) {
    worker_is_watched = true;
    ASSERT_EQ(cl_event_signal(&kr::tables::g.stop_event), CL_SUCCESS); // without the stop flag: a pass
    worker_is_watched.wait(true);
    EXPECT_THAT(take_seen(), ElementsAre("psort_background_worker: exclusive"));
}

} // namespace

// Visible, since the linker reroutes the references of the sanitizers' shared libraries as well.
#pragma GCC visibility push(default)
extern "C" {

kr_utils_status __real_psort_background_worker(psort_handle handle, uint32_t *finished);
kr_utils_status __wrap_psort_background_worker(psort_handle handle, uint32_t *finished);

kr_utils_status __wrap_psort_background_worker(psort_handle handle, uint32_t *finished) {
    if (worker_is_watched) {
        saw("psort_background_worker");
        worker_is_watched = false;
        worker_is_watched.notify_all();
    }
    return __real_psort_background_worker(handle, finished);
}

} // extern "C"
#pragma GCC visibility pop
