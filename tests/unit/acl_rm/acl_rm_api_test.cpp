/*
 * Handles, arguments, limits, bindings, counters without rules, groups, faults and the journal.
 */
#include <gmock/gmock.h>

#include <numeric>

#include "acl_rm_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class acl_rm_api : public acl_rm_test {};

constexpr kr_acl_rm_init_params mode_one{1};

std::vector<uint32_t> ports_from(uint32_t first, uint32_t count) {
    std::vector<uint32_t> ports(count);
    std::iota(ports.begin(), ports.end(), first);
    return ports;
}

// ---- handles --------------------------------------------------------------------------------------------------------

TEST_F(acl_rm_api, every_function_refuses_a_handle_that_is_not_open) {
    for (const kr_acl_rm_handle bad : {kr_acl_rm_handle{0}, handle + 1}) {
        kr_acl_attributes attributes = make_attributes();
        kr_acl_rule rule = make_rule(0);
        const kr_acl_counter_attributes counter_attributes{0, 1};
        kr_acl_counter_flags flags;
        kr_acl_counter_values values;
        uint32_t one = 1;
        kr_acl_rm_handle closing = bad;
        EXPECT_EQ(kr_acl_rm_api_init(bad, &mode_one), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_acl_rm_api_close(&closing), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(closing, bad);
        EXPECT_EQ(kr_acl_rm_api_acl_set(bad, KR_ACL_RM_CMD_CREATE, &attributes), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_acl_rm_api_acl_bind_port_set(bad, KR_ACL_RM_CMD_BIND, acl_id, &one, 1), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_acl_rm_api_acl_rule_set(bad, KR_ACL_RM_CMD_RULE_SET, acl_id, &rule, 1), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_acl_rm_api_acl_rule_get(bad, acl_id, 0, &rule, &one), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_acl_rm_api_acl_rule_move_block(bad, acl_id, 0, 1, 1), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_acl_rm_api_counter_set(bad, KR_ACL_RM_CMD_CREATE, &counter_attributes, &one),
                  KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_acl_rm_api_counter_get(bad, KR_ACL_RM_CMD_COUNTER_READ, 1, &flags, &values),
                  KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(bad, KR_ACL_RM_CMD_GROUP_CREATE, 0, nullptr, &one),
                  KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(bad, 1, &one, &one), KR_STATUS_INVALID_HANDLE);
    }
    const kr_soft_usage now = usage();
    EXPECT_EQ(now.acl_count, 1u);
    EXPECT_EQ(now.rule_count + now.counter_count + now.group_count + now.binding_count, 0u);
}

TEST_F(acl_rm_api, a_handle_has_to_be_initialised_with_mode_1) {
    kr_acl_rm_handle second = 0;
    ASSERT_EQ(kr_acl_rm_api_open(&second, nullptr), KR_STATUS_SUCCESS);
    kr_acl_attributes attributes = make_attributes();
    EXPECT_EQ(kr_acl_rm_api_acl_set(second, KR_ACL_RM_CMD_CREATE, &attributes), KR_STATUS_NOT_INITIALIZED);
    const kr_acl_rm_init_params mode_two{2};
    EXPECT_EQ(kr_acl_rm_api_init(second, &mode_two), KR_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_acl_rm_api_init(second, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_acl_set(second, KR_ACL_RM_CMD_CREATE, &attributes), KR_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(kr_acl_rm_api_init(second, &mode_one), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_acl_rm_api_init(second, &mode_one), KR_STATUS_SUCCESS) << "again: no change";
    EXPECT_EQ(kr_acl_rm_api_acl_set(second, KR_ACL_RM_CMD_CREATE, &attributes), KR_STATUS_SUCCESS);
}

TEST_F(acl_rm_api, open_and_close_check_their_pointer_and_handles_run_out_at_64) {
    EXPECT_EQ(kr_acl_rm_api_open(nullptr, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_close(nullptr), KR_STATUS_PARAM_NULL);
    std::vector<kr_acl_rm_handle> handles;
    kr_acl_rm_handle opened = 0;
    while (kr_acl_rm_api_open(&opened, nullptr) == KR_STATUS_SUCCESS) {
        handles.push_back(opened);
        ASSERT_LE(handles.size(), 63u);
    }
    EXPECT_EQ(handles.size(), 63u);
    EXPECT_EQ(kr_acl_rm_api_open(&opened, nullptr), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(usage().acl_rm_handle_count, 64u);
    const kr_acl_rm_handle stale = handles[0];
    EXPECT_EQ(kr_acl_rm_api_close(&handles[0]), KR_STATUS_SUCCESS);
    EXPECT_EQ(handles[0], 0u);
    EXPECT_EQ(kr_acl_rm_api_open(&opened, nullptr), KR_STATUS_SUCCESS);
    EXPECT_NE(opened, stale) << "a closed handle never becomes valid again";
}

TEST_F(acl_rm_api, close_of_the_last_handle_keeps_all_but_unbound_counters) {
    kr_acl_rule rule = make_rule(3);
    rule.counter_id = create_counter();
    ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
    const uint32_t unbound = create_counter();
    const uint32_t group = create_group({1, 2});
    kr_acl_rm_handle second = 0;
    ASSERT_EQ(kr_acl_rm_api_open(&second, nullptr), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_acl_rm_api_close(&second), KR_STATUS_SUCCESS);
    EXPECT_TRUE(counter_exists(unbound)) << "another handle is open";

    ASSERT_EQ(kr_acl_rm_api_close(&handle), KR_STATUS_SUCCESS);
    EXPECT_EQ(usage().counter_count, 1u);
    ASSERT_EQ(kr_acl_rm_api_open(&handle, nullptr), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_acl_rm_api_init(handle, &mode_one), KR_STATUS_SUCCESS);
    EXPECT_FALSE(counter_exists(unbound));
    EXPECT_TRUE(counter_exists(rule.counter_id));
    EXPECT_THAT(offsets(), ElementsAre(3));
    EXPECT_THAT(group_ports(group), ElementsAre(1, 2));
}

std::vector<std::string> logged;
void log_to_vector(uint32_t severity, const char *module, const char *text) {
    logged.push_back(std::to_string(severity) + " " + module + " " + text);
}

TEST_F(acl_rm_api, a_refusal_is_told_to_the_log_callback_of_its_handle) {
    logged.clear();
    kr_acl_rm_handle second = 0;
    ASSERT_EQ(kr_acl_rm_api_open(&second, log_to_vector), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_acl_rm_api_init(second, &mode_one), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_acl_rm_api_acl_rule_move_block(handle, 99, 0, 1, 1), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(logged, IsEmpty());
    EXPECT_EQ(kr_acl_rm_api_acl_rule_move_block(second, 99, 0, 1, 1), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_THAT(logged, ElementsAre(std::string("1 ACL_RM kr_acl_rm_api_acl_rule_move_block: ") +
                                    kr_status_str(KR_STATUS_ENTRY_NOT_FOUND)));
}

// ---- ACLs -----------------------------------------------------------------------------------------------------------

TEST_F(acl_rm_api, acl_set_checks_every_attribute) {
    struct row {
        const char *what;
        uint32_t kr_acl_attributes::*field;
        uint32_t value;
        kr_status status;
    };
    const row rows[] = {
        {"key type", &kr_acl_attributes::key_type, 0, KR_STATUS_PARAM_ERROR},
        {"direction", &kr_acl_attributes::direction, 2, KR_STATUS_PARAM_ERROR},
        {"type", &kr_acl_attributes::acl_type, 1, KR_STATUS_PARAM_ERROR},
        {"flags", &kr_acl_attributes::region_flags, 1, KR_STATUS_PARAM_ERROR},
        {"no rules", &kr_acl_attributes::region_size, 0, KR_STATUS_PARAM_EXCEEDS_RANGE},
        {"size above maximum", &kr_acl_attributes::region_size_max, 999, KR_STATUS_PARAM_EXCEEDS_RANGE},
        {"maximum above the device", &kr_acl_attributes::region_size_max, 1001, KR_STATUS_NO_RESOURCES},
    };
    for (const row &each : rows) {
        kr_acl_attributes attributes = make_attributes();
        attributes.*each.field = each.value;
        attributes.acl_id = 77;
        EXPECT_EQ(kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_CREATE, &attributes), each.status) << each.what;
        EXPECT_EQ(attributes.acl_id, 77u) << each.what;
    }
    kr_acl_attributes large = make_attributes(1001);
    EXPECT_EQ(kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_CREATE, &large), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_CREATE, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_acl_set(handle, 6, &large), KR_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(usage().acl_count, 1u);
}

TEST_F(acl_rm_api, acls_run_out_and_ids_of_destroyed_ones_come_back_last) {
    std::vector<uint32_t> ids = {acl_id};
    while (ids.size() < KR_SOFT_MAX_ACLS) {
        ids.push_back(create_acl(10));
    }
    EXPECT_THAT(ids, ElementsAre(1, 2, 3, 4));
    kr_acl_attributes attributes = make_attributes();
    EXPECT_EQ(kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_CREATE, &attributes), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(destroy_acl(3), KR_STATUS_SUCCESS);
    EXPECT_EQ(destroy_acl(3), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(destroy_acl(2), KR_STATUS_SUCCESS);
    EXPECT_EQ(create_acl(), 3u);
    EXPECT_EQ(create_acl(), 2u);
    EXPECT_EQ(destroy_acl(0), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(destroy_acl(5), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(destroy_acl(UINT32_MAX), KR_STATUS_ENTRY_NOT_FOUND);
}

TEST_F(acl_rm_api, destroying_an_acl_takes_rules_counters_and_bindings_with_it) {
    kr_acl_rule rule = make_rule(3);
    rule.counter_id = create_counter();
    ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
    const uint32_t other = create_acl();
    ASSERT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {1, 2, 3}), KR_STATUS_SUCCESS);
    ASSERT_EQ(bind(KR_ACL_RM_CMD_BIND, other, {4}), KR_STATUS_SUCCESS);
    EXPECT_EQ(destroy_acl(acl_id), KR_STATUS_SUCCESS);
    const kr_soft_usage now = usage();
    EXPECT_EQ(now.acl_count, 1u);
    EXPECT_EQ(now.rule_count, 0u);
    EXPECT_EQ(now.counter_count, 0u);
    EXPECT_EQ(now.binding_count, 1u);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, other, {1}), KR_STATUS_SUCCESS) << "port 1 is free again";
}

// ---- bindings -------------------------------------------------------------------------------------------------------

TEST_F(acl_rm_api, bind_checks_its_arguments) {
    const uint32_t port = 1;
    EXPECT_EQ(kr_acl_rm_api_acl_bind_port_set(handle, 9, acl_id, &port, 1), KR_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(kr_acl_rm_api_acl_bind_port_set(handle, KR_ACL_RM_CMD_BIND, acl_id, nullptr, 1), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_acl_bind_port_set(handle, KR_ACL_RM_CMD_BIND, acl_id, &port, 0),
              KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(kr_acl_rm_api_acl_bind_port_set(handle, KR_ACL_RM_CMD_BIND, acl_id + 1, &port, 1),
              KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_acl_rm_api_acl_bind_port_set(handle, KR_ACL_RM_CMD_UNBIND, acl_id + 1, &port, 1),
              KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(usage().binding_count, 0u);
}

TEST_F(acl_rm_api, binding_and_unbinding_twice_change_nothing) {
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {1, 2, 1}), KR_STATUS_SUCCESS);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {2}), KR_STATUS_SUCCESS);
    EXPECT_EQ(usage().binding_count, 2u);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_UNBIND, acl_id, {2}), KR_STATUS_SUCCESS);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_UNBIND, acl_id, {2}), KR_STATUS_SUCCESS);
    EXPECT_EQ(usage().binding_count, 1u);
}

TEST_F(acl_rm_api, a_port_is_bound_to_one_acl_only) {
    const uint32_t other = create_acl();
    ASSERT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {1}), KR_STATUS_SUCCESS);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, other, {2, 1}), KR_STATUS_RESOURCE_IN_USE);
    EXPECT_EQ(usage().binding_count, 1u) << "port 2 is not bound either";
    EXPECT_EQ(bind(KR_ACL_RM_CMD_UNBIND, other, {1}), KR_STATUS_SUCCESS);
    EXPECT_EQ(usage().binding_count, 1u) << "the binding to the first ACL stays";
}

TEST_F(acl_rm_api, bindings_run_out_with_a_code_of_their_own) {
    ASSERT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, ports_from(1, KR_SOFT_MAX_BINDINGS - 1)), KR_STATUS_SUCCESS);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {1000, 1001}), KR_STATUS_NO_HARDWARE_RESOURCES);
    EXPECT_EQ(usage().binding_count, KR_SOFT_MAX_BINDINGS - 1u);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {1000, 1000, 1}), KR_STATUS_SUCCESS) << "one new port";
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {1001}), KR_STATUS_NO_HARDWARE_RESOURCES);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {5}), KR_STATUS_SUCCESS) << "bound already";
    EXPECT_EQ(bind(KR_ACL_RM_CMD_UNBIND, acl_id, {7}), KR_STATUS_SUCCESS);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {1001}), KR_STATUS_SUCCESS);
}

TEST_F(acl_rm_api, frames_are_matched_at_bound_ports_only) {
    ASSERT_EQ(set_rule(make_rule(0)), KR_STATUS_SUCCESS);
    EXPECT_FALSE(hit(0x0800));
    for (const uint32_t port : ports_from(0, KR_SOFT_MAX_BINDINGS)) {
        ASSERT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {port * 0x10000 + 0x100}), KR_STATUS_SUCCESS);
    }
    ASSERT_EQ(bind(KR_ACL_RM_CMD_UNBIND, acl_id, {3 * 0x10000 + 0x100}), KR_STATUS_SUCCESS);
    for (uint32_t port = 0; port < KR_SOFT_MAX_BINDINGS + 10; port++) {
        EXPECT_EQ(hit(0x0800, 64, 1, port * 0x10000 + 0x100), port < KR_SOFT_MAX_BINDINGS && port != 3) << port;
    }
}

// ---- counters -------------------------------------------------------------------------------------------------------

TEST_F(acl_rm_api, counter_calls_check_their_arguments) {
    const kr_acl_counter_attributes good{0, 1};
    const kr_acl_counter_attributes bad_state{1, 1};
    const kr_acl_counter_attributes bad_type{0, 2};
    uint32_t id = 77;
    EXPECT_EQ(kr_acl_rm_api_counter_set(handle, 5, &good, &id), KR_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(kr_acl_rm_api_counter_set(handle, 4, nullptr, &id), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_counter_set(handle, 4, &good, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_counter_set(handle, 4, &bad_state, &id), KR_STATUS_PARAM_ERROR);
    EXPECT_EQ(kr_acl_rm_api_counter_set(handle, 4, &bad_type, &id), KR_STATUS_PARAM_ERROR);
    EXPECT_EQ(id, 77u);

    id = create_counter();
    kr_acl_counter_flags flags{7, 7};
    kr_acl_counter_values values{7, 7};
    EXPECT_EQ(kr_acl_rm_api_counter_get(handle, 12, id, &flags, &values), KR_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(kr_acl_rm_api_counter_get(handle, 13, id, nullptr, &values), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_counter_get(handle, 13, id, &flags, nullptr), KR_STATUS_PARAM_NULL);
    for (const uint32_t unknown : {0u, id + 1, KR_SOFT_MAX_COUNTERS + 1u, UINT32_MAX}) {
        EXPECT_EQ(kr_acl_rm_api_counter_get(handle, 13, unknown, &flags, &values), KR_STATUS_ENTRY_NOT_FOUND);
    }
    EXPECT_EQ(flags.first_valid + flags.second_valid + values.first + values.second, 28u) << "outputs unchanged";
    EXPECT_EQ(kr_acl_rm_api_counter_get(handle, 13, id, &flags, &values), KR_STATUS_SUCCESS);
    EXPECT_EQ(flags.first_valid, 1u);
    EXPECT_EQ(flags.second_valid, 1u);
    EXPECT_EQ(values.first + values.second, 0u);
}

TEST_F(acl_rm_api, counters_run_out) {
    for (uint32_t i = 1; i <= KR_SOFT_MAX_COUNTERS; i++) {
        ASSERT_EQ(create_counter(), i);
    }
    const kr_acl_counter_attributes attributes{0, 1};
    uint32_t id = 0;
    EXPECT_EQ(kr_acl_rm_api_counter_set(handle, 4, &attributes, &id), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(id, 0u);
    kr_acl_rule rule = make_rule(0);
    rule.counter_id = 500;
    ASSERT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
    ASSERT_EQ(delete_rule(0), KR_STATUS_SUCCESS);
    EXPECT_EQ(create_counter(), 500u);
}

// ---- groups ---------------------------------------------------------------------------------------------------------

TEST_F(acl_rm_api, group_calls_check_their_arguments) {
    uint32_t id = 77;
    uint32_t count = 1;
    uint32_t port = 1;
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, 2, 0, nullptr, &id), KR_STATUS_CMD_UNSUPPORTED);
    for (const uint32_t command : {1u, 3u, 9u, 10u}) {
        EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, command, 0, nullptr, nullptr), KR_STATUS_PARAM_NULL);
    }
    for (const uint32_t command : {1u, 9u, 10u}) {
        EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, command, 1, nullptr, &id), KR_STATUS_PARAM_NULL);
    }
    for (const uint32_t command : {3u, 9u, 10u}) {
        for (uint32_t unknown : {0u, 1u, KR_SOFT_MAX_GROUPS + 1u, UINT32_MAX}) {
            EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, command, 1, &port, &unknown), KR_STATUS_ENTRY_NOT_FOUND);
        }
    }
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(handle, 1, &count, &port), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(handle, 1, nullptr, &port), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(handle, 1, &count, nullptr), KR_STATUS_PARAM_NULL);
}

TEST_F(acl_rm_api, groups_keep_the_order_of_addition_and_no_duplicates) {
    const uint32_t id = create_group({5, 3, 5, 9});
    EXPECT_THAT(group_ports(id), ElementsAre(5, 3, 9));
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_ADD_PORTS, id, {3, 7, 7, 1}), KR_STATUS_SUCCESS);
    EXPECT_THAT(group_ports(id), ElementsAre(5, 3, 9, 7, 1));
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_REMOVE_PORTS, id, {3, 1, 4, 3}), KR_STATUS_SUCCESS);
    EXPECT_THAT(group_ports(id), ElementsAre(5, 9, 7));
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_ADD_PORTS, id, {}), KR_STATUS_SUCCESS);
    EXPECT_THAT(group_ports(id), ElementsAre(5, 9, 7));
    const uint32_t empty = create_group({});
    EXPECT_THAT(group_ports(empty), IsEmpty());
    kr_soft::group_members members{};
    EXPECT_TRUE(kr_soft::acl_group_members_get(id, &members));
    EXPECT_EQ(members.count, 3u);
    EXPECT_EQ(members.log_ports[1], 9u);
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_DESTROY, id, {}), KR_STATUS_SUCCESS);
    EXPECT_FALSE(kr_soft::acl_group_members_get(id, &members));
}

TEST_F(acl_rm_api, group_get_says_how_much_room_it_needs) {
    const uint32_t id = create_group({1, 2, 3});
    uint32_t ports[3] = {77, 77, 77};
    uint32_t count = 2;
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(handle, id, &count, ports), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(ports[0], 77u);
    count = 0;
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(handle, id, &count, nullptr), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(handle, id, &count, ports), KR_STATUS_SUCCESS);
    EXPECT_THAT(ports, ElementsAre(1, 2, 3));
}

TEST_F(acl_rm_api, groups_and_their_members_run_out) {
    const uint32_t full = create_group(ports_from(1, KR_SOFT_MAX_PORTS));
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_ADD_PORTS, full, {1, 2}), KR_STATUS_SUCCESS) << "present already";
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_ADD_PORTS, full, {1000}), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_REMOVE_PORTS, full, {128}), KR_STATUS_SUCCESS);
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_ADD_PORTS, full, {1000, 1001}), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(group_ports(full), ports_from(1, KR_SOFT_MAX_PORTS - 1)) << "neither of the two was added";

    uint32_t id = 77;
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, KR_ACL_RM_CMD_GROUP_CREATE, KR_SOFT_MAX_PORTS + 1,
                                             ports_from(1, KR_SOFT_MAX_PORTS + 1).data(), &id),
              KR_STATUS_NO_RESOURCES);
    for (uint32_t i = 2; i <= KR_SOFT_MAX_GROUPS; i++) {
        ASSERT_EQ(create_group({}), i);
    }
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, KR_ACL_RM_CMD_GROUP_CREATE, 0, nullptr, &id),
              KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(id, 77u);
    ASSERT_EQ(set_group(KR_ACL_RM_CMD_GROUP_DESTROY, 9, {}), KR_STATUS_SUCCESS);
    EXPECT_EQ(create_group({}), 9u);
    EXPECT_EQ(usage().group_count, static_cast<uint32_t>(KR_SOFT_MAX_GROUPS));
}

// ---- faults and journal ---------------------------------------------------------------------------------------------

TEST_F(acl_rm_api, a_fault_replaces_the_call) {
    ASSERT_EQ(kr_soft_fault_set("kr_acl_rm_api_acl_rule_set", 1, KR_STATUS_NO_RESOURCES, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(set_rule(make_rule(1)), KR_STATUS_SUCCESS);
    EXPECT_EQ(set_rule(make_rule(2)), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(set_rule(make_rule(3)), KR_STATUS_SUCCESS);
    EXPECT_THAT(offsets(), ElementsAre(1, 3));
}

TEST_F(acl_rm_api, every_function_takes_faults_and_does_nothing_then) {
    ASSERT_EQ(kr_soft_fault_set("*", 0, 99, 1), KR_STATUS_SUCCESS);
    kr_acl_rm_handle copy = handle;
    kr_acl_attributes attributes = make_attributes();
    kr_acl_rule rule = make_rule(0);
    const kr_acl_counter_attributes counter_attributes{0, 1};
    kr_acl_counter_flags flags;
    kr_acl_counter_values values;
    uint32_t one = 1;
    EXPECT_EQ(kr_acl_rm_api_open(&copy, nullptr), 99u);
    EXPECT_EQ(kr_acl_rm_api_init(handle, &mode_one), 99u);
    EXPECT_EQ(kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_CREATE, &attributes), 99u);
    EXPECT_EQ(kr_acl_rm_api_acl_bind_port_set(handle, KR_ACL_RM_CMD_BIND, acl_id, &one, 1), 99u);
    EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_SET, acl_id, &rule, 1), 99u);
    EXPECT_EQ(kr_acl_rm_api_acl_rule_get(handle, acl_id, 0, &rule, &one), 99u);
    EXPECT_EQ(kr_acl_rm_api_acl_rule_move_block(handle, acl_id, 0, 1, 1), 99u);
    EXPECT_EQ(kr_acl_rm_api_counter_set(handle, KR_ACL_RM_CMD_CREATE, &counter_attributes, &one), 99u);
    EXPECT_EQ(kr_acl_rm_api_counter_get(handle, KR_ACL_RM_CMD_COUNTER_READ, 1, &flags, &values), 99u);
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_set(handle, KR_ACL_RM_CMD_GROUP_CREATE, 0, nullptr, &one), 99u);
    EXPECT_EQ(kr_acl_rm_api_acl_mc_group_get(handle, 1, &one, &one), 99u);
    EXPECT_EQ(kr_acl_rm_api_close(&copy), 99u);
    EXPECT_EQ(copy, handle);
    const kr_soft_usage now = usage();
    EXPECT_EQ(now.acl_count, 1u);
    EXPECT_EQ(now.acl_rm_handle_count, 1u);
    EXPECT_EQ(now.rule_count + now.counter_count + now.group_count + now.binding_count, 0u);
    EXPECT_EQ(kr_soft_call_count("*"), 12u);
}

TEST_F(acl_rm_api, the_journal_shows_what_was_asked) {
    kr_soft_journal_start();
    const uint32_t second = create_acl(50);
    EXPECT_EQ(bind(KR_ACL_RM_CMD_BIND, acl_id, {0x10100, 0x10200}), KR_STATUS_SUCCESS);
    kr_acl_rule rule = make_rule(12);
    rule.counter_id = create_counter();
    EXPECT_EQ(set_rule(rule), KR_STATUS_SUCCESS);
    rule = make_rule(13);
    rule.trap_action = KR_ACL_TRAP_ACTION_TRAP;
    rule.trap_mode = KR_ACL_TRAP_MODE_TRAP_ID;
    rule.trap_id = 464;
    kr_acl_rule batch[3] = {rule, make_rule(14), make_rule(15)};
    batch[1].trap_action = KR_ACL_TRAP_ACTION_NONE;
    batch[1].forward_type = KR_ACL_FORWARD_PORT;
    batch[1].forward_log_port = 0x10100;
    batch[1].vlan_edit = KR_ACL_VLAN_EDIT_POP;
    batch[2].trap_action = KR_ACL_TRAP_ACTION_NONE;
    batch[2].forward_type = KR_ACL_FORWARD_GROUP;
    batch[2].forward_group_id = create_group({1});
    EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_SET, acl_id, batch, 3), KR_STATUS_SUCCESS);
    EXPECT_EQ(move(12, 4, 20), KR_STATUS_SUCCESS);
    EXPECT_EQ(read_activity(20), 0u);
    EXPECT_EQ(get_rule(21, &rule), KR_STATUS_SUCCESS);
    EXPECT_EQ(delete_rule(22), KR_STATUS_SUCCESS);
    EXPECT_TRUE(counter_exists(1));
    EXPECT_THAT(group_ports(1), ElementsAre(1));
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_ADD_PORTS, 1, ports_from(1, 10)), KR_STATUS_SUCCESS);
    EXPECT_EQ(set_group(KR_ACL_RM_CMD_GROUP_DESTROY, 1, {}), KR_STATUS_SUCCESS);
    EXPECT_EQ(destroy_acl(second), KR_STATUS_SUCCESS);
    EXPECT_EQ(destroy_acl(second), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(kr_acl_rm_api_close(&handle), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_acl_rm_api_open(&handle, nullptr), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_acl_rm_api_init(handle, &mode_one), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_acl_rm_api_acl_set(handle, KR_ACL_RM_CMD_DESTROY, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_acl_rm_api_acl_rule_set(handle, KR_ACL_RM_CMD_RULE_SET, 1, nullptr, 2), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(journal(),
              "kr_acl_rm_api_acl_set(cmd 4, acl 2, key_type 3, direction 1, size 50, size_max 50) = 0\n"
              "kr_acl_rm_api_acl_bind_port_set(cmd 7, acl 1, ports [0x10100, 0x10200], count 2) = 0\n"
              "kr_acl_rm_api_counter_set(cmd 4, counter 1) = 0\n"
              "kr_acl_rm_api_acl_rule_set(cmd 6, acl 1, offset 12 discard counter 1, count 1) = 0\n"
              "kr_acl_rm_api_acl_mc_group_set(cmd 1, group 1, ports [0x1], count 1) = 0\n"
              "kr_acl_rm_api_acl_rule_set(cmd 6, acl 1, offset 13 trap 464, offset 14 vlan_edit 16 port 0x10100, "
              "offset 15 group 1, count 3) = 0\n"
              "kr_acl_rm_api_acl_rule_move_block(acl 1, old_start 12, size 4, new_start 20) = 0\n"
              "kr_acl_rm_api_acl_rule_get(acl 1, offset 20 activity_mode 2, count 1) = 0\n"
              "kr_acl_rm_api_acl_rule_get(acl 1, offset 21, count 1) = 0\n"
              "kr_acl_rm_api_acl_rule_set(cmd 3, acl 1, offset 22, count 1) = 0\n"
              "kr_acl_rm_api_counter_get(cmd 13, counter 1) = 0\n"
              "kr_acl_rm_api_acl_mc_group_get(group 1, room 128) = 0\n"
              "kr_acl_rm_api_acl_mc_group_set(cmd 9, group 1, ports [0x1, 0x2, 0x3, 0x4, 0x5, 0x6, 0x7, 0x8, ...], "
              "count 10) = 0\n"
              "kr_acl_rm_api_acl_mc_group_set(cmd 3, group 1, ports [], count 0) = 0\n"
              "kr_acl_rm_api_acl_set(cmd 5, acl 2) = 0\n"
              "kr_acl_rm_api_acl_set(cmd 5, acl 2) = 5\n"
              "kr_acl_rm_api_close() = 0\n"
              "kr_acl_rm_api_open() = 0\n"
              "kr_acl_rm_api_init(mode 1) = 0\n"
              "kr_acl_rm_api_acl_set(cmd 5, acl 0) = 9\n"
              "kr_acl_rm_api_acl_rule_set(cmd 6, acl 1, count 2) = 9\n");
}

} // namespace
