/*
 * The exported table functions: flows, what is known of them, and multicast groups. Batches stop at the first failure
 * and keep what was done; no step takes an earlier one back.
 */
#include "kr_soft.h"
#include "tests/sweep/operations.h"

namespace kr_test {
namespace {

using records = std::vector<flow_record>;

uint32_t set(uint32_t command, records flows, uint32_t table = 0) {
    return world::client(
        [&] { return kr_sdn_hal_table_entry_set(command, table, flows.data(), static_cast<uint32_t>(flows.size())); });
}
uint32_t add(const records &flows) {
    return set(KR_SDN_HAL_CMD_ADD, flows);
}
uint32_t remove(const records &flows) {
    return set(KR_SDN_HAL_CMD_DELETE, flows);
}

records batch() {
    records flows = {flow_of(11, 20), flow_of(12, 20, FLOW_ACTION_OUTPUT), flow_of(13, 20, FLOW_ACTION_FLOOD)};
    flows[1].out_port = 2;
    flows[1].in_port = 1;
    flows[1].in_port_mask = 1;
    return flows;
}
records one(uint64_t id, uint32_t priority, uint32_t action = FLOW_ACTION_DROP) {
    return {flow_of(id, priority, action)};
}
records to_group(const world &world) {
    records flows = one(11, 20, FLOW_ACTION_MC_GROUP);
    flows[0].mc_group_id = world.group_id;
    return flows;
}
records by_unknown_port(bool is_ingress) {
    records flows = one(11, 20, is_ingress ? FLOW_ACTION_DROP : FLOW_ACTION_OUTPUT);
    flows[0].in_port = 9;
    flows[0].in_port_mask = is_ingress ? 1 : 0;
    flows[0].out_port = 9;
    return flows;
}

// Priorities that close in on the middle: the gap between their places is used up, and one of them needs a shift.
records squeezed(uint32_t index) {
    return one(1000 + index, 20000 + (index % 2 == 0 ? index : 1000 - index));
}

uint32_t shift_count = 0;
kr_utils_status shift_counted(uint32_t type, psort_notification_data *, void *) {
    shift_count += type == PSORT_TABLE_SHIFT ? 1 : 0;
    return KR_UTILS_STATUS_SUCCESS;
}

// How many of them fit without a shift: a table like the library's says it beforehand.
uint32_t squeezed_count() {
    const psort_table_attributes attributes = {1000, 15, 65535, 0, 100, 0, 0, shift_counted};
    psort_handle scratch = nullptr;
    (void)psort_init(&scratch, &attributes);
    shift_count = 0;
    uint32_t count = 0;
    for (; shift_count == 0 && count < attributes.table_size; count++) {
        psort_entry entry = {count, squeezed(count)[0].priority, 0};
        (void)psort_entry_set(scratch, PSORT_CMD_ADD, &entry);
    }
    (void)psort_clear_table(scratch);
    return count - 1;
}
void squeeze(world &) {
    const uint32_t count = squeezed_count();
    for (uint32_t i = 0; i < count; i++) {
        (void)add(squeezed(i));
    }
}
uint32_t add_with_a_shift(world &) {
    static const uint32_t last = squeezed_count();
    records flows = squeezed(last);
    flows[0].flow_id = 11; // the record does not depend on how many there are
    return add(flows);
}

// The last three of a batch that is placed as a whole: the shift moves flows that are placed and have no rule yet.
constexpr uint32_t last_batch_count = 3;
void squeeze_all_but_a_batch(world &) {
    const uint32_t count = squeezed_count();
    for (uint32_t i = 0; i + last_batch_count <= count; i++) {
        (void)add(squeezed(i));
    }
}
uint32_t add_batch_with_a_shift(world &) {
    static const uint32_t last = squeezed_count();
    records flows;
    for (uint32_t i = 0; i < last_batch_count; i++) {
        flows.push_back(squeezed(last - last_batch_count + 1 + i)[0]);
        flows.back().flow_id = 11 + i;
    }
    return add(flows);
}

template <typename Value, auto Function> uint32_t read(std::vector<uint64_t> ids) {
    std::vector<Value> values(ids.size());
    return world::client([&] { return Function(0, ids.data(), static_cast<uint32_t>(ids.size()), values.data()); });
}
uint32_t activity(std::vector<uint64_t> ids) {
    return read<uint32_t, kr_sdn_hal_table_entry_activity_get>(std::move(ids));
}
uint32_t statistics(std::vector<uint64_t> ids) {
    return read<flow_stats, kr_sdn_hal_table_entry_stat_get>(std::move(ids));
}
uint32_t get(std::vector<uint64_t> ids, uint64_t start = 0) {
    records found(ids.size());
    auto count = static_cast<uint32_t>(ids.size());
    return world::client([&] { return kr_sdn_hal_table_entry_get(0, start, ids.data(), &count, found.data()); });
}

uint32_t group_set(uint32_t command, std::vector<uint32_t> ports, uint32_t *id) {
    return world::client([&] {
        return kr_sdn_hal_table_mcast_group_set(command, static_cast<uint32_t>(ports.size()), ports.data(), id);
    });
}
uint32_t group_get(uint32_t id) {
    uint32_t ports[100];
    uint32_t count = 100;
    return world::client([&] { return kr_sdn_hal_table_mcast_group_get(id, &count, ports); });
}
constexpr uint32_t flood_group = 1; // the first that the switch gives out

void add_flow_operations(std::vector<operation> &operations) {
    const char *const f = "kr_sdn_hal_table_entry_set";
    // A flow that failed keeps its place, and those behind it theirs, so that they are refused there until the switch
    // stops. A flow that the database did not take keeps its rule and its counter as well.
    const std::vector<remains> a_place = {{"psort_entry_set", {}, false},
                                          {"kr_acl_rm_api_acl_rule_set", {}, false},
                                          {"kr_acl_rm_api_acl_rule_move_block", {}, false},
                                          {"cl_qmap_get", {}, false},
                                          {"cl_qpool_get", {}, false}};
    const auto row = [&](const char *name, stage from, std::function<uint32_t(world &)> run) {
        operations.push_back({.name = name, .covers = f, .from = from, .run = std::move(run), .leaves = a_place});
    };
    row("flows_add", stage::ports, [](world &) { return add(batch()); });
    row("flows_add_to_group", stage::flows, [](world &world) { return add(to_group(world)); });
    row("flows_add_unknown_ingress_port", stage::ports, [](world &) { return add(by_unknown_port(true)); });
    row("flows_add_unknown_egress_port", stage::ports, [](world &) { return add(by_unknown_port(false)); });
    row("flows_add_twice", stage::flows, [](world &) { return add({flow_of(11, 20), flow_of(2, 20)}); });
    operations.push_back({.name = "flows_add_with_a_shift",
                          .covers = "pSort notification",
                          .from = stage::ports,
                          .run = add_with_a_shift,
                          .prepare = squeeze,
                          .leaves = a_place,
                          .must_call = "kr_acl_rm_api_acl_rule_move_block"});
    operations.push_back({.name = "flows_add_batch_with_a_shift",
                          .covers = "pSort notification",
                          .from = stage::ports,
                          .run = add_batch_with_a_shift,
                          .prepare = squeeze_all_but_a_batch,
                          .leaves = a_place,
                          .must_call = "kr_acl_rm_api_acl_rule_move_block"});
    operations.push_back(
        {"flows_add_output_all", f, stage::ports, [](world &) { return add(one(11, 20, FLOW_ACTION_OUTPUT_ALL)); }});
    operations.push_back({"flows_add_before_start", f, stage::initialized, [](world &) { return add(batch()); }});
    operations.push_back({"flows_add_before_init", f, stage::loaded, [](world &) { return add(batch()); }});
    operations.push_back({.name = "flows_delete",
                          .covers = f,
                          .from = stage::flows,
                          .run = [](world &world) { return remove(world.flows); },
                          // What was deleted before the failure is gone from pSort, which refuses to delete it again.
                          .leaves = {{"kr_acl_rm_api_acl_rule_set", {}, false},
                                     {"psort_entry_set", {}, false},
                                     {"cl_qmap_get", {}, false}}});
    operations.push_back({.name = "flows_delete_some_unknown",
                          .covers = f,
                          .from = stage::flows,
                          .run =
                              [](world &) {
                                  return remove({flow_of(9), flow_of(2)});
                              },
                          .leaves = {{"psort_entry_set", {}, false}, {"cl_qmap_get", {}, false}}});
    operations.push_back({"flows_delete_unknown", f, stage::flows, [](world &) { return remove(batch()); }});
    operations.push_back({"flows_modify", f, stage::flows, [](world &world) { return set(1, world.flows); }});
    operations.push_back({"flows_null", f, stage::flows, [](world &) {
                              return world::client([] { return kr_sdn_hal_table_entry_set(0, 0, nullptr, 1); });
                          }});
    operations.push_back(
        {"flows_of_another_table", f, stage::flows, [](world &world) { return set(0, world.flows, 1); }});
}

void add_reading_operations(std::vector<operation> &operations) {
    const char *f = "kr_sdn_hal_table_entry_get";
    operations.push_back({"flows_get", f, stage::flows, [](world &) { return get({1, 2, 3}); }});
    operations.push_back({"flows_get_unknown", f, stage::flows, [](world &) { return get({1, 9}); }});
    // Flow 3 comes from port 1 and goes to port 2.
    operations.push_back({"flows_get_to_a_removed_port", f, stage::flows,
                          [](world &) {
                              return get({1, 3});
                          },
                          [](world &world) { (void)world.remove_port(2); }});
    operations.push_back({"flows_get_from_a_removed_port", f, stage::flows,
                          [](world &) {
                              return get({1, 3});
                          },
                          [](world &world) { (void)world.remove_port(1); }});
    operations.push_back({"flows_get_from_a_start", f, stage::flows, [](world &) { return get({1}, 1); }});
    f = "kr_sdn_hal_table_entry_activity_get";
    operations.push_back({"activity", f, stage::flows, [](world &) { return activity({1, 9, 2}); }});
    operations.push_back({"activity_of_none", f, stage::flows, [](world &) {
                              uint64_t id = 0;
                              uint32_t value = 0;
                              return world::client(
                                  [&] { return kr_sdn_hal_table_entry_activity_get(0, &id, 0, &value); });
                          }});
    f = "kr_sdn_hal_table_entry_stat_get";
    operations.push_back({"statistics", f, stage::flows, [](world &) { return statistics({1, 2}); }});
    operations.push_back({"statistics_of_unknown", f, stage::flows, [](world &) { return statistics({9}); }});
    operations.push_back({"statistics_before_start", f, stage::initialized, [](world &) { return statistics({1}); }});

    operations.push_back({"table_statistics", "kr_sdn_hal_table_table_stat_get", stage::flows, [](world &) {
                              table_stats stats{};
                              return world::client([&] { return kr_sdn_hal_table_table_stat_get(0, &stats); });
                          }});
    operations.push_back(
        {"table_statistics_before_init", "kr_sdn_hal_table_table_stat_get", stage::loaded, [](world &) {
             table_stats stats{};
             return world::client([&] { return kr_sdn_hal_table_table_stat_get(0, &stats); });
         }});
    operations.push_back({"table_capabilities", "kr_sdn_hal_table_table_capabilities_get", stage::flows, [](world &) {
                              table_capabilities found{};
                              return world::client([&] { return kr_sdn_hal_table_table_capabilities_get(0, &found); });
                          }});
    operations.push_back(
        {"table_capabilities_before_init", "kr_sdn_hal_table_table_capabilities_get", stage::loaded, [](world &) {
             table_capabilities found{};
             return world::client([&] { return kr_sdn_hal_table_table_capabilities_get(0, &found); });
         }});
    operations.push_back({"tables_count", "kr_sdn_hal_table_capabilities_get", stage::flows, [](world &) {
                              uint32_t count = 0;
                              return world::client([&] { return kr_sdn_hal_table_capabilities_get(&count); });
                          }});
}

void add_group_operations(std::vector<operation> &operations) {
    const char *f = "kr_sdn_hal_table_mcast_group_set";
    operations.push_back({"group_create", f, stage::flows, [](world &) {
                              uint32_t id = 0;
                              return group_set(KR_SDN_HAL_GROUP_CREATE, {1, 2}, &id);
                          }});
    operations.push_back({"group_create_with_an_unknown_port", f, stage::flows, [](world &) {
                              uint32_t id = 0;
                              return group_set(KR_SDN_HAL_GROUP_CREATE, {1, 9}, &id);
                          }});
    operations.push_back({"group_add_ports", f, stage::flows,
                          [](world &world) { return group_set(KR_SDN_HAL_GROUP_ADD_PORTS, {2}, &world.group_id); }});
    operations.push_back({"group_add_no_ports", f, stage::flows, [](world &world) {
                              const uint32_t none = 0;
                              return world::client([&] {
                                  return kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_ADD_PORTS, 0, &none,
                                                                          &world.group_id);
                              });
                          }});
    operations.push_back({"group_remove_ports", f, stage::flows,
                          [](world &world) { return group_set(KR_SDN_HAL_GROUP_REMOVE_PORTS, {1}, &world.group_id); }});
    operations.push_back({"group_delete", f, stage::flows,
                          [](world &world) { return group_set(KR_SDN_HAL_GROUP_DELETE, {}, &world.group_id); }});
    operations.push_back({"group_delete_flood", f, stage::flows, [](world &) {
                              uint32_t id = flood_group;
                              return group_set(KR_SDN_HAL_GROUP_DELETE, {}, &id);
                          }});
    operations.push_back(
        {"group_unknown_command", f, stage::flows, [](world &world) { return group_set(1, {1}, &world.group_id); }});
    operations.push_back({"group_before_init", f, stage::loaded, [](world &) {
                              uint32_t id = 0;
                              return group_set(KR_SDN_HAL_GROUP_CREATE, {1}, &id);
                          }});
    f = "kr_sdn_hal_table_mcast_group_get";
    operations.push_back({"group_get", f, stage::flows, [](world &world) { return group_get(world.group_id); }});
    operations.push_back({"group_get_with_a_removed_port", f, stage::flows,
                          [](world &world) { return group_get(world.group_id); },
                          [](world &world) { (void)world.remove_port(1); }});
    operations.push_back({"group_get_unknown", f, stage::flows, [](world &) { return group_get(77); }});
    operations.push_back({"group_get_flood", f, stage::flows, [](world &) { return group_get(flood_group); }});
}

} // namespace

void add_table_operations(std::vector<operation> &operations) {
    add_flow_operations(operations);
    add_reading_operations(operations);
    add_group_operations(operations);
}

} // namespace kr_test
