/*
 * The exported table functions: flows, what is known of them, and multicast groups. Batches stop at the first failure
 * and keep what was done; no step takes an earlier one back.
 */
#include "kr_soft.h"
#include "tests/sweep/operations.h"

namespace kr_test {
namespace {

using records = std::vector<flow_record>;

uint32_t set(world &world, uint32_t command, const records &flows, uint32_t table = 0) {
    flow_record *const given = world.out.given("flows", flows);
    return world::client(
        [&] { return kr_sdn_hal_table_entry_set(command, table, given, static_cast<uint32_t>(flows.size())); });
}
uint32_t add(world &world, const records &flows) {
    return set(world, KR_SDN_HAL_CMD_ADD, flows);
}
uint32_t remove(world &world, const records &flows) {
    return set(world, KR_SDN_HAL_CMD_DELETE, flows);
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
void squeeze(world &world) {
    const uint32_t count = squeezed_count();
    for (uint32_t i = 0; i < count; i++) {
        (void)add(world, squeezed(i));
    }
}
uint32_t add_with_a_shift(world &world) {
    static const uint32_t last = squeezed_count();
    records flows = squeezed(last);
    flows[0].flow_id = 11; // the record does not depend on how many there are
    return add(world, flows);
}

// The last three of a batch that is placed as a whole: the shift moves flows that are placed and have no rule yet.
constexpr uint32_t last_batch_count = 3;
void squeeze_all_but_a_batch(world &world) {
    const uint32_t count = squeezed_count();
    for (uint32_t i = 0; i + last_batch_count <= count; i++) {
        (void)add(world, squeezed(i));
    }
}
uint32_t add_batch_with_a_shift(world &world) {
    static const uint32_t last = squeezed_count();
    records flows;
    for (uint32_t i = 0; i < last_batch_count; i++) {
        flows.push_back(squeezed(last - last_batch_count + 1 + i)[0]);
        flows.back().flow_id = 11 + i;
    }
    return add(world, flows);
}

constexpr uint32_t room_of_a_group = 4;

template <typename Value, auto Function>
uint32_t read(world &world, const char *name, const std::vector<uint64_t> &ids) {
    auto *const values = world.out.room<Value>(name, ids.size());
    return world::client([&] { return Function(0, ids.data(), static_cast<uint32_t>(ids.size()), values); });
}
uint32_t activity(world &world, const std::vector<uint64_t> &ids) {
    return read<uint32_t, kr_sdn_hal_table_entry_activity_get>(world, "activities", ids);
}
uint32_t statistics(world &world, const std::vector<uint64_t> &ids) {
    return read<flow_stats, kr_sdn_hal_table_entry_stat_get>(world, "statistics", ids);
}
uint32_t get(world &world, const std::vector<uint64_t> &ids, uint64_t start = 0) {
    uint32_t *const count = world.out.given<uint32_t>("count", {static_cast<uint32_t>(ids.size())});
    auto *const found = world.out.room<flow_record>("flows", ids.size());
    return world::client([&] { return kr_sdn_hal_table_entry_get(0, start, ids.data(), count, found); });
}

// For flows 1 and 2.
void with_frames(world &) {
    inject(1, frame_for(1));
    inject(1, frame_for(2, 100));
    inject(1, frame_for(2));
}

uint32_t group_set(uint32_t command, const std::vector<uint32_t> &ports, uint32_t *id) {
    return world::client([&] {
        return kr_sdn_hal_table_mcast_group_set(command, static_cast<uint32_t>(ports.size()), ports.data(), id);
    });
}
uint32_t group_create(world &world, const std::vector<uint32_t> &ports) {
    return group_set(KR_SDN_HAL_GROUP_CREATE, ports, world.out.room<uint32_t>("group"));
}
// Of the group that is there, unless another is named.
uint32_t group_change(world &world, uint32_t command, const std::vector<uint32_t> &ports, uint32_t id = 0) {
    return group_set(command, ports, world.out.given<uint32_t>("group", {id != 0 ? id : world.group_id}));
}
uint32_t group_get(world &world, uint32_t id) {
    uint32_t *const count = world.out.given<uint32_t>("count", {room_of_a_group});
    auto *const ports = world.out.room<uint32_t>("ports", room_of_a_group);
    return world::client([&] { return kr_sdn_hal_table_mcast_group_get(id, count, ports); });
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
    row("flows_add", stage::ports, [](world &world) { return add(world, batch()); });
    row("flows_add_to_group", stage::flows, [](world &world) { return add(world, to_group(world)); });
    row("flows_add_unknown_ingress_port", stage::ports, [](world &world) { return add(world, by_unknown_port(true)); });
    row("flows_add_unknown_egress_port", stage::ports, [](world &world) { return add(world, by_unknown_port(false)); });
    row("flows_add_twice", stage::flows, [](world &world) { return add(world, {flow_of(11, 20), flow_of(2, 20)}); });
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
    operations.push_back({"flows_add_output_all", f, stage::ports,
                          [](world &world) { return add(world, one(11, 20, FLOW_ACTION_OUTPUT_ALL)); }});
    operations.push_back(
        {"flows_add_before_start", f, stage::initialized, [](world &world) { return add(world, batch()); }});
    operations.push_back({"flows_add_before_init", f, stage::loaded, [](world &world) { return add(world, batch()); }});
    operations.push_back({.name = "flows_delete",
                          .covers = f,
                          .from = stage::flows,
                          .run = [](world &world) { return remove(world, world.flows); },
                          // What was deleted before the failure is gone from pSort, which refuses to delete it again.
                          .leaves = {{"kr_acl_rm_api_acl_rule_set", {}, false},
                                     {"psort_entry_set", {}, false},
                                     {"cl_qmap_get", {}, false}}});
    operations.push_back({.name = "flows_delete_some_unknown",
                          .covers = f,
                          .from = stage::flows,
                          .run =
                              [](world &world) {
                                  return remove(world, {flow_of(9), flow_of(2)}); // of another priority
                              },
                          .leaves = {{"psort_entry_set", {}, false}, {"cl_qmap_get", {}, false}}});
    operations.push_back(
        {"flows_delete_unknown", f, stage::flows, [](world &world) { return remove(world, batch()); }});
    operations.push_back({"flows_modify", f, stage::flows, [](world &world) { return set(world, 1, world.flows); }});
    operations.push_back({"flows_null", f, stage::flows, [](world &) {
                              return world::client([] { return kr_sdn_hal_table_entry_set(0, 0, nullptr, 1); });
                          }});
    operations.push_back(
        {"flows_of_another_table", f, stage::flows, [](world &world) { return set(world, 0, world.flows, 1); }});
}

void add_reading_operations(std::vector<operation> &operations) {
    const char *f = "kr_sdn_hal_table_entry_get";
    operations.push_back({"flows_get", f, stage::flows, [](world &world) { return get(world, {1, 2, 3}); }});
    operations.push_back({"flows_get_unknown", f, stage::flows, [](world &world) { return get(world, {1, 9}); }});
    // Flow 3 comes from port 1 and goes to port 2.
    operations.push_back({"flows_get_to_a_removed_port", f, stage::flows,
                          [](world &world) {
                              return get(world, {1, 3});
                          },
                          [](world &world) { (void)world.remove_port(2); }});
    operations.push_back({"flows_get_from_a_removed_port", f, stage::flows,
                          [](world &world) {
                              return get(world, {1, 3});
                          },
                          [](world &world) { (void)world.remove_port(1); }});
    operations.push_back({"flows_get_from_a_start", f, stage::flows, [](world &world) { return get(world, {1}, 1); }});
    f = "kr_sdn_hal_table_entry_activity_get";
    // What has been read is idle until the next frame.
    operations.push_back({.name = "activity",
                          .covers = f,
                          .from = stage::flows,
                          .run =
                              [](world &world) {
                                  return activity(world, {1, 9, 2});
                              },
                          .prepare = with_frames,
                          .leaves = {{"kr_acl_rm_api_acl_rule_get", {"outputs"}}}});
    operations.push_back({"activity_of_none", f, stage::flows, [](world &world) {
                              const uint64_t id = 0;
                              auto *const value = world.out.room<uint32_t>("activities");
                              return world::client(
                                  [&] { return kr_sdn_hal_table_entry_activity_get(0, &id, 0, value); });
                          }});
    f = "kr_sdn_hal_table_entry_stat_get";
    operations.push_back({"statistics", f, stage::flows,
                          [](world &world) {
                              return statistics(world, {1, 2});
                          },
                          with_frames});
    operations.push_back(
        {"statistics_of_unknown", f, stage::flows, [](world &world) { return statistics(world, {9}); }});
    operations.push_back(
        {"statistics_before_start", f, stage::initialized, [](world &world) { return statistics(world, {1}); }});

    operations.push_back({"table_statistics", "kr_sdn_hal_table_table_stat_get", stage::flows, [](world &world) {
                              auto *const stats = world.out.room<table_stats>("statistics");
                              return world::client([&] { return kr_sdn_hal_table_table_stat_get(0, stats); });
                          }});
    operations.push_back(
        {"table_statistics_before_init", "kr_sdn_hal_table_table_stat_get", stage::loaded, [](world &world) {
             auto *const stats = world.out.room<table_stats>("statistics");
             return world::client([&] { return kr_sdn_hal_table_table_stat_get(0, stats); });
         }});
    operations.push_back(
        {"table_capabilities", "kr_sdn_hal_table_table_capabilities_get", stage::flows, [](world &world) {
             auto *const found = world.out.room<table_capabilities>("capabilities");
             return world::client([&] { return kr_sdn_hal_table_table_capabilities_get(0, found); });
         }});
    operations.push_back(
        {"table_capabilities_before_init", "kr_sdn_hal_table_table_capabilities_get", stage::loaded, [](world &world) {
             auto *const found = world.out.room<table_capabilities>("capabilities");
             return world::client([&] { return kr_sdn_hal_table_table_capabilities_get(0, found); });
         }});
    operations.push_back({"tables_count", "kr_sdn_hal_table_capabilities_get", stage::flows, [](world &world) {
                              auto *const count = world.out.room<uint32_t>("count");
                              return world::client([&] { return kr_sdn_hal_table_capabilities_get(count); });
                          }});
}

void add_group_operations(std::vector<operation> &operations) {
    const char *f = "kr_sdn_hal_table_mcast_group_set";
    operations.push_back({"group_create", f, stage::flows, [](world &world) { return group_create(world, {1, 2}); }});
    operations.push_back({"group_create_with_an_unknown_port", f, stage::flows, [](world &world) {
                              return group_create(world, {1, 9});
                          }});
    operations.push_back({"group_add_ports", f, stage::flows,
                          [](world &world) { return group_change(world, KR_SDN_HAL_GROUP_ADD_PORTS, {2}); }});
    operations.push_back({"group_add_no_ports", f, stage::flows, [](world &world) {
                              const uint32_t none = 0;
                              return world::client([&] {
                                  return kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_ADD_PORTS, 0, &none,
                                                                          &world.group_id);
                              });
                          }});
    operations.push_back({"group_remove_ports", f, stage::flows,
                          [](world &world) { return group_change(world, KR_SDN_HAL_GROUP_REMOVE_PORTS, {1}); }});
    operations.push_back({"group_delete", f, stage::flows,
                          [](world &world) { return group_change(world, KR_SDN_HAL_GROUP_DELETE, {}); }});
    operations.push_back({"group_delete_flood", f, stage::flows,
                          [](world &world) { return group_change(world, KR_SDN_HAL_GROUP_DELETE, {}, flood_group); }});
    operations.push_back(
        {"group_unknown_command", f, stage::flows, [](world &world) { return group_change(world, 1, {1}); }});
    operations.push_back(
        {"group_before_init", f, stage::loaded, [](world &world) { return group_create(world, {1}); }});
    f = "kr_sdn_hal_table_mcast_group_get";
    operations.push_back({"group_get", f, stage::flows, [](world &world) { return group_get(world, world.group_id); }});
    operations.push_back({"group_get_with_a_removed_port", f, stage::flows,
                          [](world &world) { return group_get(world, world.group_id); },
                          [](world &world) {
                              (void)group_change(world, KR_SDN_HAL_GROUP_ADD_PORTS, {2});
                              (void)world.remove_port(2);
                          }});
    operations.push_back({"group_get_unknown", f, stage::flows, [](world &world) { return group_get(world, 77); }});
    operations.push_back(
        {"group_get_flood", f, stage::flows, [](world &world) { return group_get(world, flood_group); }});
}

} // namespace

void add_table_operations(std::vector<operation> &operations) {
    add_flow_operations(operations);
    add_reading_operations(operations);
    add_group_operations(operations);
}

} // namespace kr_test
