/*
 * The exported port functions: those that ask the port database, and those that go to the port plug-in.
 */
#include "tests/sweep/operations.h"

namespace kr_test {
namespace {

constexpr uint32_t port = 2;

template <typename Value, auto Function> uint32_t get(world &world) {
    auto *const value = world.out.room<Value>("value");
    return world::client([&] { return Function(port, value); });
}
template <auto Function> uint32_t get_null(world &) {
    return world::client([] { return Function(port, nullptr); });
}
template <auto Function, auto Value> uint32_t set(world &) {
    return world::client([] { return Function(port, Value); });
}
uint32_t list(world &world) {
    auto *const ports = world.out.room<uint32_t>("ports", 4);
    uint32_t *const count = world.out.given<uint32_t>("count", {4});
    return world::client([&] { return kr_sdn_hal_port_arr_get(ports, count); });
}
uint32_t speed_set(port_speed_admin speed) {
    return world::client([&] { return kr_sdn_hal_port_speed_set(port, &speed); });
}

} // namespace

void add_port_operations(std::vector<operation> &operations) {
    const auto add = [&](const char *name, const char *function, std::function<uint32_t(world &)> run) {
        operations.push_back({name, function, stage::ports, std::move(run)});
    };
    add("port_list", "kr_sdn_hal_port_arr_get", list);
    add("port_list_null", "kr_sdn_hal_port_arr_get",
        [](world &) { return world::client([] { return kr_sdn_hal_port_arr_get(nullptr, nullptr); }); });
    add("port_count", "kr_sdn_hal_port_arr_get", [](world &world) {
        uint32_t *const count = world.out.given<uint32_t>("count", {4});
        return world::client([&] { return kr_sdn_hal_port_arr_get(nullptr, count); });
    });
    add("port_capabilities", "kr_sdn_hal_port_capabilities_get", get<uint32_t, kr_sdn_hal_port_capabilities_get>);
    add("port_capabilities_null", "kr_sdn_hal_port_capabilities_get", get_null<kr_sdn_hal_port_capabilities_get>);
    add("port_capabilities_unknown", "kr_sdn_hal_port_capabilities_get", [](world &world) {
        auto *const found = world.out.room<uint32_t>("value");
        return world::client([&] { return kr_sdn_hal_port_capabilities_get(9, found); });
    });
    add("port_state_set", "kr_sdn_hal_port_state_set", set<kr_sdn_hal_port_state_set, PORT_ADMIN_UP>);
    add("port_state_set_refused", "kr_sdn_hal_port_state_set", set<kr_sdn_hal_port_state_set, 3>);
    add("port_state_get", "kr_sdn_hal_port_state_get", [](world &world) {
        auto *const admin = world.out.room<int32_t>("admin");
        auto *const oper = world.out.room<int32_t>("oper");
        return world::client([&] { return kr_sdn_hal_port_state_get(port, admin, oper); });
    });
    add("port_rstp_state_set", "kr_sdn_hal_port_rstp_state_set",
        set<kr_sdn_hal_port_rstp_state_set, PORT_STP_FORWARDING>);
    add("port_rstp_state_set_refused", "kr_sdn_hal_port_rstp_state_set", set<kr_sdn_hal_port_rstp_state_set, 4>);
    add("port_rstp_state_get", "kr_sdn_hal_port_rstp_state_get", get<int32_t, kr_sdn_hal_port_rstp_state_get>);
    add("port_rstp_state_get_null", "kr_sdn_hal_port_rstp_state_get", get_null<kr_sdn_hal_port_rstp_state_get>);
    add("port_phys_addr", "kr_sdn_hal_port_phys_addr_get", get<port_mac_address, kr_sdn_hal_port_phys_addr_get>);
    add("port_phys_addr_null", "kr_sdn_hal_port_phys_addr_get", get_null<kr_sdn_hal_port_phys_addr_get>);
    add("port_speed_set", "kr_sdn_hal_port_speed_set", [](world &) { return speed_set({1, 0, 1, 0}); });
    add("port_speed_set_refused", "kr_sdn_hal_port_speed_set", [](world &) { return speed_set({1, 0, 2, 0}); });
    add("port_speed_set_null", "kr_sdn_hal_port_speed_set", get_null<kr_sdn_hal_port_speed_set>);
    add("port_speed_get", "kr_sdn_hal_port_speed_get", [](world &world) {
        auto *const admin = world.out.room<port_speed_admin>("admin");
        auto *const oper = world.out.room<uint32_t>("oper");
        return world::client([&] { return kr_sdn_hal_port_speed_get(port, admin, oper); });
    });
    add("port_speed_capability", "kr_sdn_hal_port_speed_capability_get",
        get<uint32_t, kr_sdn_hal_port_speed_capability_get>);
    add("port_speed_capability_null", "kr_sdn_hal_port_speed_capability_get",
        get_null<kr_sdn_hal_port_speed_capability_get>);
    add("port_flood_mode_set", "kr_sdn_hal_port_flood_mode_set", set<kr_sdn_hal_port_flood_mode_set, 1>);
    add("port_flood_mode_get", "kr_sdn_hal_port_flood_mode_get", get<uint32_t, kr_sdn_hal_port_flood_mode_get>);
    add("port_mtu_set", "kr_sdn_hal_port_mtu_set", set<kr_sdn_hal_port_mtu_set, uint16_t{1500}>);
    add("port_mtu_set_refused", "kr_sdn_hal_port_mtu_set", set<kr_sdn_hal_port_mtu_set, uint16_t{67}>);
    add("port_mtu_get", "kr_sdn_hal_port_mtu_get", get<uint16_t, kr_sdn_hal_port_mtu_get>);
    add("port_mtu_get_null", "kr_sdn_hal_port_mtu_get", get_null<kr_sdn_hal_port_mtu_get>);
    add("port_counters_get", "kr_sdn_hal_port_cntr_get", get<port_counters, kr_sdn_hal_port_cntr_get>);
    add("port_counters_get_null", "kr_sdn_hal_port_cntr_get", get_null<kr_sdn_hal_port_cntr_get>);
    add("port_counters_clear", "kr_sdn_hal_port_cntr_clear", set<kr_sdn_hal_port_cntr_clear, 1>);
    add("port_counters_clear_refused", "kr_sdn_hal_port_cntr_clear", set<kr_sdn_hal_port_cntr_clear, 2>);
    operations.push_back({"port_state_set_before_init", "kr_sdn_hal_port_state_set", stage::loaded,
                          set<kr_sdn_hal_port_state_set, PORT_ADMIN_UP>});
}

} // namespace kr_test
