/*
 * Registration: which slot is taken and freed, which trap goes to the switch, under which lock, and what a refusal
 * leaves behind.
 */
#include <vector>

#include "channel_fixture.h"

using namespace kr_test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using stage = events_stage;

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto ERROR = KR_SDN_HAL_STATUS_ERROR;
constexpr auto SDK_ERROR = KR_SDN_HAL_STATUS_SDK_ERROR;
constexpr auto PARAM_ERROR = KR_SDN_HAL_STATUS_PARAM_ERROR;

constexpr auto trap_set = "kr_api_host_ifc_trap_id_register_set";

struct sdk_event {
    uint32_t type;
    const char *name;
    uint32_t trap_id;
};

class events_register_test : public channel_fixture {};
class events_unregister_test : public channel_fixture {};

// The three events that come from the switch.
class events_of_the_switch_test : public channel_fixture, public testing::WithParamInterface<sdk_event> {
  protected:
    trap_call trap(uint32_t command) const {
        return {fake_device_handle, command, 0, GetParam().trap_id, 0, channel.sdk_fd.fd};
    }
};

std::string registered(const char *name) {
    return events_debug("kr_sdn_hal_srvc_event_register",
                        formatted("HAL events - Registration for event (%s) finished successfully", name));
}
std::string unregistered(const char *name) {
    return events_debug("kr_sdn_hal_srvc_event_unregister",
                        formatted("HAL events - successfully unregistered from event (%s)", name));
}
std::string not_unregistered(const char *name) {
    return events_error(formatted("HAL events - Failed unregistering from event (%s)", name));
}

/* ---- register ---------------------------------------------------------------------------------------------------- */

TEST_F(events_register_test, takes_the_slot_under_the_exclusive_lock) {
    bring_up(stage::initialized);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 3), SUCCESS);
    EXPECT_THAT(take_events_calls(), ElementsAre("lock exclusive", "unlock", registered("PORT CAPABILITIES UPDATE")));
    for (uint32_t event = 0; event < 12; event++) {
        EXPECT_EQ(slots_of(event), event == 3 ? ten_slots({&channel}) : ten_slots({}));
    }
}

TEST_F(events_register_test, twice_keeps_its_slot_even_when_an_earlier_one_is_free) {
    bring_up(stage::initialized);
    srvc_handle *const first = open_another();
    register_for(first, 0);
    register_for(&channel, 0);
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(first, 0), SUCCESS);
    register_for(&channel, 0);
    EXPECT_EQ(slots_of(0), ten_slots({nullptr, &channel}));
}

TEST_F(events_register_test, takes_the_first_null_slot) {
    bring_up(stage::initialized);
    slots ten;
    for (int i = 0; i < 10; i++) {
        ten.push_back(open_another());
        register_for(ten.back(), 5);
    }
    EXPECT_EQ(slots_of(5), ten);
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(ten[7], 5), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(ten[2], 5), SUCCESS);
    register_for(&channel, 5);
    ten[2] = &channel;
    ten[7] = nullptr;
    EXPECT_EQ(slots_of(5), ten);
}

TEST_F(events_register_test, eleventh_handle_still_gets_the_trap_of_the_switch) {
    bring_up(stage::started);
    for (int i = 0; i < 10; i++) {
        register_for(open_another(), 10);
    }
    (void)take_trap_calls();
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, 10), SUCCESS);
    EXPECT_THAT(take_trap_calls(), ElementsAre(trap_call{fake_device_handle, 19, 0, 464, 0, channel.sdk_fd.fd}));
}

TEST_F(events_register_test, for_12_and_more_returns_7_and_gives_no_descriptor) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SUCCESS); // a good event would gain one now
    for (const uint32_t event : {12U, 13U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, event), PARAM_ERROR);
        EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, event), PARAM_ERROR);
    }
    EXPECT_EQ(channel.sdk_fd_open, 0U);
    EXPECT_THAT(device_descriptors(), IsEmpty());
    EXPECT_THAT(take_trap_calls(), IsEmpty());
}

TEST_F(events_register_test, gives_a_channel_that_was_opened_before_the_start_its_descriptor_once) {
    bring_up(stage::initialized);
    register_for(&channel, 0);
    EXPECT_EQ(channel.sdk_fd_open, 0U);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SUCCESS);
    register_for(&channel, 1);
    register_for(&channel, 2);
    EXPECT_EQ(channel.sdk_fd_open, 1U);
    EXPECT_THAT(take_device_calls(), ElementsAre(device_call{"kr_api_host_ifc_open", fake_device_handle,
                                                             static_cast<uint32_t>(channel.sdk_fd.fd)}));
}

TEST_F(events_register_test, without_the_descriptor_that_it_should_open_registers_nothing) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SUCCESS);
    set_result("kr_api_host_ifc_open", 6);
    for (uint32_t event = 0; event < 12; event++) {
        EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, event), SDK_ERROR);
        EXPECT_THAT(slots_of(event), Each(nullptr));
    }
    EXPECT_EQ(channel.sdk_fd_open, 0U);
    EXPECT_THAT(take_trap_calls(), IsEmpty());
}

/* ---- unregister -------------------------------------------------------------------------------------------------- */

TEST_F(events_unregister_test, frees_the_slot_under_the_exclusive_lock_and_leaves_the_others) {
    bring_up(stage::initialized);
    srvc_handle *const other = open_another();
    for (const uint32_t event : {2U, 9U}) {
        register_for(&channel, event);
        register_for(other, event);
    }
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, 2), SUCCESS);
    EXPECT_THAT(take_events_calls(), ElementsAre("lock exclusive", "unlock", unregistered("TABLE UPDATE")));
    EXPECT_EQ(slots_of(2), ten_slots({nullptr, other}));
    EXPECT_EQ(slots_of(9), ten_slots({&channel, other}));
}

TEST_F(events_unregister_test, of_an_unregistered_handle_returns_1_with_the_lock_released) {
    bring_up(stage::initialized);
    register_for(open_another(), 0);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, 0), ERROR);
    EXPECT_THAT(take_events_calls(), ElementsAre("lock exclusive", "unlock", not_unregistered("GENERAL READY")));
    EXPECT_EQ(slots_of(0), ten_slots({&more[0]}));
}

TEST_F(events_unregister_test, of_a_closed_handle_returns_7) {
    bring_up(stage::started);
    register_for(&channel, 0);
    EXPECT_EQ(kr_sdn_hal_srvc_close(&channel), SUCCESS);
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, 0), PARAM_ERROR);
}

/* ---- events of the switch ---------------------------------------------------------------------------------------- */

TEST_P(events_of_the_switch_test, register_sets_the_trap_before_the_slot) {
    bring_up(stage::started);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, GetParam().type), SUCCESS);
    EXPECT_THAT(take_events_calls(), ElementsAre(trap_set, "lock exclusive", "unlock", registered(GetParam().name)));
    EXPECT_THAT(take_trap_calls(), ElementsAre(trap(19)));
    EXPECT_EQ(slots_of(GetParam().type), ten_slots({&channel}));
}

TEST_P(events_of_the_switch_test, register_twice_tells_the_switch_twice) {
    bring_up(stage::started);
    register_for(&channel, GetParam().type);
    register_for(&channel, GetParam().type);
    EXPECT_THAT(take_trap_calls(), ElementsAre(trap(19), trap(19)));
    EXPECT_EQ(slots_of(GetParam().type), ten_slots({&channel}));
}

TEST_P(events_of_the_switch_test, register_before_the_start_returns_7_and_after_it_opens_the_descriptor) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, GetParam().type), PARAM_ERROR);
    EXPECT_THAT(take_events_calls(), IsEmpty());
    EXPECT_THAT(slots_of(GetParam().type), Each(nullptr));

    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SUCCESS);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, GetParam().type), SUCCESS);
    EXPECT_THAT(take_events_calls(),
                ElementsAre("kr_api_host_ifc_open", trap_set, "lock exclusive", "unlock", registered(GetParam().name)));
    EXPECT_THAT(take_trap_calls(), ElementsAre(trap(19)));
    EXPECT_EQ(slots_of(GetParam().type), ten_slots({&channel}));
}

TEST_P(events_of_the_switch_test, register_that_the_switch_refuses_returns_2_with_a_warning_and_is_not_stored) {
    bring_up(stage::started);
    set_result(trap_set, 11);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(&channel, GetParam().type), SDK_ERROR);
    EXPECT_THAT(take_events_calls(),
                ElementsAre(trap_set, events_warning(std::string("Failed registering for SDK event (") +
                                                     GetParam().name + "), err (" + kr_status_str(11) + ")")));
    EXPECT_THAT(slots_of(GetParam().type), Each(nullptr));
}

TEST_P(events_of_the_switch_test, unregister_ends_the_trap_before_the_slot) {
    bring_up(stage::started);
    register_for(&channel, GetParam().type);
    (void)take_trap_calls();
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, GetParam().type), SUCCESS);
    EXPECT_THAT(take_events_calls(), ElementsAre(trap_set, "lock exclusive", "unlock", unregistered(GetParam().name)));
    EXPECT_THAT(take_trap_calls(), ElementsAre(trap(20)));
    EXPECT_THAT(slots_of(GetParam().type), Each(nullptr));
}

TEST_P(events_of_the_switch_test, unregister_of_an_unregistered_handle_returns_1_after_the_trap_was_deregistered) {
    bring_up(stage::started);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, GetParam().type), ERROR);
    EXPECT_THAT(take_events_calls(),
                ElementsAre(trap_set, "lock exclusive", "unlock", not_unregistered(GetParam().name)));
    EXPECT_THAT(take_trap_calls(), ElementsAre(trap(20)));
}

TEST_P(events_of_the_switch_test, unregister_that_the_switch_refuses_returns_2_with_a_warning_and_stays_registered) {
    bring_up(stage::started);
    register_for(&channel, GetParam().type);
    set_result(trap_set, 12);
    record_everything();
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, GetParam().type), SDK_ERROR);
    EXPECT_THAT(take_events_calls(),
                ElementsAre(trap_set, events_warning(std::string("Failed unregistering from SDK event (") +
                                                     GetParam().name + "), err (" + kr_status_str(12) + ")")));
    EXPECT_EQ(slots_of(GetParam().type), ten_slots({&channel}));
}

TEST_P(events_of_the_switch_test, unregister_opens_no_descriptor) {
    bring_up(stage::initialized);
    EXPECT_EQ(kr_sdn_hal_srvc_dependent_init(), SUCCESS);
    (void)take_calls();
    EXPECT_EQ(kr_sdn_hal_srvc_event_unregister(&channel, GetParam().type), PARAM_ERROR);
    EXPECT_THAT(take_events_calls(), IsEmpty());
    EXPECT_EQ(channel.sdk_fd_open, 0U);
}

INSTANTIATE_TEST_SUITE_P(events, events_of_the_switch_test,
                         testing::Values(sdk_event{4, "PORT OPER STATE CHANGE", 8}, sdk_event{10, "PACKET IN", 464},
                                         sdk_event{11, "PACKET MISS", 479}),
                         [](const auto &row) { return "type_" + std::to_string(row.param.type); });

} // namespace
