/*
 * The event service among fakes: the device, the port database and the general module are fakes that share one journal
 * with the log; pipes are real. Every test begins with the service as a fresh process has it.
 */
#ifndef KR_TESTS_EVENTS_FIXTURE_H
#define KR_TESTS_EVENTS_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "core/events_db.h"
#include "core/general.h"
#include "fakes.h"
#include "formatted.h"
#include "kr_sdn_hal.h"
#include "wrapped_calls.h"

namespace kr_test {

// How far the service is up.
enum class events_stage { uninitialized, initialized, started };

// The journal since the last take; the line number of a prefix, which may change, is shown as #.
call_list take_events_calls();

// A line of the service, as it stands in the journal; a debug line with the function that speaks.
std::string events_error(const std::string &text);
std::string events_warning(const std::string &text);
std::string events_debug(const std::string &function, const std::string &text);

class events_fixture : public testing::Test {
  protected:
    events_fixture();
    ~events_fixture() override;

    // Leads to the stage, opens `channel` there if it is asked for, and empties the journal.
    void bring_up(events_stage stage, bool open = true);

    // A record of a type whose payload tells it from others.
    static hal_event_record record_of(uint32_t type, uint8_t filling);
    // Queues a frame or event at the host-interface descriptor of the channel.
    void queue(uint32_t trap_id, uint32_t log_port, const std::string &frame = "a frame");
    void queue_port_event(uint32_t log_port, uint32_t oper_state);

    srvc_handle channel{};
};

} // namespace kr_test

#endif
