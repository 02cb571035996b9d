/*
 * What the library's own threads do: a control frame on its way to the clients, and a pass of the background thread.
 * Faults meet the calls of that thread; it goes on trying, so they end after a few.
 */
#include <sched.h>

#include "core/general_state.h"
#include "kr_soft.h"
#include "tables/tables_internal.h"
#include "tests/support/test_frames.h"
#include "tests/support/threads.h"
#include "tests/sweep/operations.h"

namespace kr_test {
namespace {

constexpr uint32_t tries = 3;

// Returns once the thread sleeps where it waits for work, with nothing left to do; or has ended.
void wait_until_idle(caller who, uint32_t waits_before) {
    while (is_running(who) && (waits_begun(who) == waits_before || !is_idle(who))) {
        sched_yield();
    }
}

std::vector<uint8_t> lacp_frame() {
    std::vector<uint8_t> frame = frame_for(0x0180C2000002);
    frame[12] = 0x88;
    frame[13] = 0x09;
    return frame;
}

void with_forwarding(world &world) {
    conn_control_forward forward = {CONN_FORWARD_REGISTER, KR_SOFT_TRAP_ID_LACP};
    (void)world.event(CONN_EVENT_CONTROL_FORWARD, &forward);
    (void)world::client([&] { return kr_sdn_hal_srvc_open(&world.channel); });
    (void)world::client([&] { return kr_sdn_hal_srvc_event_register(&world.channel, EVENT_PACKET_MISS); });
}

uint32_t control_frame(uint32_t of_port) {
    const uint32_t waits = waits_begun(caller::control_frames);
    inject(of_port, lacp_frame());
    wait_until_idle(caller::control_frames, waits);
    return 0;
}

uint32_t background_pass(world &) {
    const uint32_t waits = waits_begun(caller::background);
    const calling_as outside(caller::outside);
    (void)cl_event_signal(&kr::tables::g.stop_event); // without the flag: a wake-up and no more
    wait_until_idle(caller::background, waits);
    return 0;
}

// Flows whose deletion leaves something to bring together.
void with_holes(world &) {
    for (uint64_t id = 100; id < 140; id++) {
        (void)world::client([&] { return flows_add({flow_of(id, static_cast<uint32_t>(id))}); });
    }
    for (uint64_t id = 100; id < 140; id += 2) {
        (void)world::client([&] { return flows_delete({flow_of(id, static_cast<uint32_t>(id))}); });
    }
}

} // namespace

void add_thread_operations(std::vector<operation> &operations) {
    operations.push_back({.name = "control_frame",
                          .covers = "control-frames thread",
                          .from = stage::ports,
                          .run = [](world &) { return control_frame(1); },
                          .prepare = with_forwarding,
                          .who = caller::control_frames,
                          .limit = tries});
    operations.push_back({.name = "control_frame_of_an_unknown_port",
                          .covers = "control-frames thread",
                          .from = stage::ports,
                          .run = [](world &) { return control_frame(9); },
                          .prepare =
                              [](world &world) {
                                  with_forwarding(world);
                                  (void)kr_soft_port_add_memory(log_port_of(9));
                              },
                          .who = caller::control_frames,
                          .limit = tries});
    // The stop flag of the first life is still set: the thread ends when it wakes up.
    operations.push_back({.name = "background_pass_after_a_restart",
                          .covers = "background thread",
                          .from = stage::started,
                          .run = background_pass,
                          .prepare =
                              [](world &world) {
                                  (void)world.event(CONN_EVENT_STOP);
                                  (void)world.event(CONN_EVENT_START);
                                  while (!is_waiting(caller::background)) {
                                      sched_yield();
                                  }
                              },
                          .who = caller::background,
                          .limit = tries});
    operations.push_back({.name = "background_pass_without_work",
                          .covers = "background thread",
                          .from = stage::started,
                          .run = background_pass,
                          .who = caller::background,
                          .limit = tries});
    operations.push_back({.name = "background_pass",
                          .covers = "background thread",
                          .from = stage::flows,
                          .run = background_pass,
                          .prepare = with_holes,
                          .who = caller::background,
                          .limit = tries,
                          .must_call = "kr_acl_rm_api_acl_rule_move_block"});
}

} // namespace kr_test
