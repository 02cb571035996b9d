/*
 * Sequences worth keeping: those that once showed a difference between library and model, and a few that walk a whole
 * life. model_test prints a failing sequence in this form.
 */
#include <gtest/gtest.h>

#include "tests/model/replay.h"

using namespace kr_model;

TEST(model_regression, whole_life) {
    expect_agreement({
        {.what = op::switch_port_add, .value = 0x10001},
        {.what = op::switch_port_add, .value = 0x10002},
        {.what = op::init},
        {.what = op::open},
        {.what = op::event_register, .value = EVENT_PORT_CAPABILITIES_UPDATE},
        {.what = op::connector_start},
        {.what = op::port_added, .port = {.log_port = 0x10001, .ifindex = 1}},
        {.what = op::port_added, .port = {.log_port = 0x10002, .ifindex = 2}},
        {.what = op::flows_add, .flows = {{.flow_id = 1, .priority = 7, .action = FLOW_ACTION_FLOOD}}},
        {.what = op::frame, .frame = {.log_port = 0x10001}},
        {.what = op::stats_get, .ids = {1}},
        {.what = op::flows_delete, .ids = {1}},
        {.what = op::port_removed, .port = {.log_port = 0x10001, .ifindex = 1}},
        {.what = op::event_ack, .value = 1},
        {.what = op::port_removed, .port = {.log_port = 0x10002, .ifindex = 2}},
        {.what = op::event_ack, .value = 2},
        {.what = op::connector_stop},
        {.what = op::close},
        {.what = op::deinit},
        {.what = op::init},
    });
}

// The record of the removal once went to descriptor 0.
TEST(model_regression, registered_channel_that_could_not_be_opened_anew) {
    expect_agreement({
        {.what = op::switch_port_add, .value = 65539},
        {.what = op::init},
        {.what = op::open, .target = 1},
        {.what = op::event_register, .target = 1, .value = EVENT_PORT_CAPABILITIES_UPDATE},
        {.what = op::connector_start},
        {.what = op::port_added, .port = {.log_port = 65539, .ifindex = 3}},
        {.what = op::open, .target = 1, .fault = {.function = "kr_api_host_ifc_open", .code = 6}},
        {.what = op::port_removed, .port = {.log_port = 65539, .ifindex = 3}},
    });
}

// The second stop once wrote into whatever had got the number of the closed stop pipe.
TEST(model_regression, stop_after_a_stop_that_failed_half_way) {
    expect_agreement({
        {.what = op::init},
        {.what = op::connector_start},
        {.what = op::connector_stop,
         .fault = {.function = "kr_acl_rm_api_acl_mc_group_set", .code = 10, .persistent = true}},
        {.what = op::open, .target = 1},
        {.what = op::connector_stop},
    });
}
