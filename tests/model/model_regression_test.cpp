/*
 * Sequences worth keeping: those that once showed a difference between library and model, and a few that walk a whole
 * life. model_test prints a failing sequence in this form.
 */
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/model/frames.h"
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

/* ---- the operating system -------------------------------------------------------------------------------------- */

namespace {

const frame_description control_frame = {.log_port = 0x10001, .kind = frame_kind::lacp};
const step port_removed = {.what = op::port_removed, .port = {.log_port = 0x10001, .ifindex = 1}};

// Two channels that are registered for an event, a port, and control frames on their way to the clients.
std::vector<step> with_clients(uint32_t event) {
    return {
        {.what = op::switch_port_add, .value = 0x10001},
        {.what = op::switch_port_add, .value = 0x10002},
        {.what = op::init},
        {.what = op::connector_start},
        {.what = op::open},
        {.what = op::open, .target = 1},
        {.what = op::event_register, .value = event},
        {.what = op::event_register, .target = 1, .value = event},
        {.what = op::port_added, .port = {.log_port = 0x10001, .ifindex = 1}},
        {.what = op::control_forward, .value = frame_control_trap(control_frame)},
    };
}

// Everybody reads, a record comes, a control frame, the switch stops and starts.
void go_on(std::vector<step> *steps, uint32_t event) {
    const auto read = [&] {
        for (const uint32_t channel : {0U, 1U, 0U, 1U, 0U, 1U}) {
            steps->push_back({.what = op::recv, .target = channel});
        }
    };
    read();
    steps->push_back({.what = op::process_event, .value = event});
    steps->push_back({.what = op::frame, .frame = control_frame});
    steps->push_back({.what = op::select, .ids = {0, 1}});
    read();
    steps->push_back(port_removed);
    steps->push_back({.what = op::event_ack, .value = 1});
    steps->push_back({.what = op::event_ack, .value = 2});
    steps->push_back({.what = op::connector_stop});
    steps->push_back({.what = op::connector_start});
    steps->push_back({.what = op::frame, .frame = control_frame});
    read();
    steps->push_back({.what = op::connector_stop});
    steps->push_back({.what = op::close});
    steps->push_back({.what = op::deinit});
}

// The last of the first steps with the call failing in each way: the first alone, or all but the first.
void expect_agreement_under(const char *function, const std::vector<uint32_t> &codes, uint32_t event,
                            const std::vector<step> &first) {
    for (const uint32_t code : codes) {
        for (const uint32_t nth : {0U, 1U}) {
            std::vector<step> steps = with_clients(event);
            steps.insert(steps.end(), first.begin(), first.end());
            const op what = steps.back().what;
            steps.back().fault = {.function = function, .nth = nth, .code = code, .persistent = nth > 0};
            const uint64_t due_before = statistics_of(what).faults;
            go_on(&steps, event);
            expect_agreement(steps);
            EXPECT_TRUE(nth > 0 || statistics_of(what).faults == due_before + 1) << function << " = " << code;
        }
    }
}

const std::vector<uint32_t> pipe_codes = {EMFILE, ENFILE};
const std::vector<uint32_t> write_codes = {EPIPE, EINTR, code_nothing, code_part};
const std::vector<uint32_t> read_codes = {EIO, EINTR, code_nothing, code_part};
const std::vector<uint32_t> select_codes = {EBADF, EINTR, ENOMEM, code_nothing};
const std::vector<uint32_t> close_codes = {EIO, EINTR};

} // namespace

TEST(model_regression, writes_to_the_clients_fail) {
    expect_agreement_under("write", write_codes, EVENT_AGENT_UPDATE,
                           {{.what = op::process_event, .value = EVENT_AGENT_UPDATE}});
    expect_agreement_under("write", write_codes, EVENT_AGENT_UPDATE, {{.what = op::config, .value = 3}});
    expect_agreement_under("write", write_codes, EVENT_PORT_CAPABILITIES_UPDATE,
                           {{.what = op::port_added, .port = {.log_port = 0x10002, .ifindex = 2}}});
    expect_agreement_under("write", write_codes, EVENT_PORT_CAPABILITIES_UPDATE, {port_removed});
    expect_agreement_under("write", write_codes, EVENT_PACKET_MISS, {{.what = op::frame, .frame = control_frame}});
    expect_agreement_under("write", write_codes, EVENT_GENERAL_READY,
                           {port_removed,
                            {.what = op::event_ack, .value = 1},
                            {.what = op::connector_stop},
                            {.what = op::connector_start}});
}

TEST(model_regression, clients_can_neither_wait_nor_read) {
    const step record = {.what = op::process_event, .command = 7, .value = EVENT_AGENT_UPDATE};
    const step receive = {.what = op::recv};
    expect_agreement_under("read", read_codes, EVENT_AGENT_UPDATE, {record, record, receive});
    expect_agreement_under("select", select_codes, EVENT_AGENT_UPDATE, {record, receive});
    expect_agreement_under("select", select_codes, EVENT_AGENT_UPDATE, {record, {.what = op::select, .ids = {0, 1}}});
    expect_agreement_under("read", read_codes, EVENT_AGENT_UPDATE, {record, {.what = op::close}});
    expect_agreement_under("close", close_codes, EVENT_AGENT_UPDATE, {record, {.what = op::close}});
}

// What lies behind a control frame in its record is not told by a short read either.
TEST(model_regression, control_frame_behind_a_longer_one_read_in_part) {
    expect_agreement({
        {.what = op::switch_port_add, .value = 0x10001},
        {.what = op::switch_port_add, .value = 0x10005},
        {.what = op::init},
        {.what = op::open, .target = 1},
        {.what = op::connector_start},
        {.what = op::event_register, .target = 1, .value = EVENT_PACKET_MISS},
        {.what = op::port_added, .port = {.log_port = 0x10001, .ifindex = 1}},
        {.what = op::control_forward, .value = 479},
        {.what = op::frame, .frame = {.log_port = 0x10005, .src = 3, .padding = 56}},
        {.what = op::frame, .frame = {.log_port = 0x10001, .dst = 3, .padding = 11}},
        {.what = op::recv, .target = 1, .fault = {.function = "read", .code = code_part}},
    });
}

TEST(model_regression, there_is_no_pipe) {
    expect_agreement_under("pipe", pipe_codes, EVENT_AGENT_UPDATE, {{.what = op::open, .target = 2}});
    expect_agreement_under("pipe", pipe_codes, EVENT_AGENT_UPDATE, {{.what = op::open}}); // of an open channel
    const step acknowledged = {.what = op::event_ack, .value = 1};
    expect_agreement_under("pipe", pipe_codes, EVENT_AGENT_UPDATE,
                           {port_removed, acknowledged, {.what = op::connector_stop}, {.what = op::connector_start}});
}

TEST(model_regression, control_frames_cannot_be_waited_for_and_the_thread_cannot_be_told) {
    const step acknowledged = {.what = op::event_ack, .value = 1};
    expect_agreement_under("select", select_codes, EVENT_PACKET_MISS, {{.what = op::frame, .frame = control_frame}});
    expect_agreement_under("select", select_codes, EVENT_PACKET_MISS,
                           {port_removed, acknowledged, {.what = op::connector_stop}, {.what = op::connector_start}});
    expect_agreement_under("write", write_codes, EVENT_PACKET_MISS,
                           {port_removed, acknowledged, {.what = op::connector_stop}});
    expect_agreement_under("close", close_codes, EVENT_PACKET_MISS,
                           {port_removed, acknowledged, {.what = op::connector_stop}});
}
