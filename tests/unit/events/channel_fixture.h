/*
 * The event service among fakes, with more channels, and with its lock and its descriptors in view. The steps that fail
 * are in tests/contract/test_events_rows.cpp; the tests here show what the steps leave behind, and in which order.
 */
#ifndef KR_TESTS_CHANNEL_FIXTURE_H
#define KR_TESTS_CHANNEL_FIXTURE_H

#include <array>
#include <string>
#include <vector>

#include "tests/unit/api/events_fixture.h"
#include "wrapped_channel_calls.h"

namespace kr_test {

constexpr uint32_t known_of_port = 7;
constexpr uint32_t known_log_port = 0x10007;
constexpr uint32_t unknown_log_port = 0x10099;

using slots = std::vector<srvc_handle *>;

class channel_fixture : public events_fixture {
  protected:
    channel_fixture();
    ~channel_fixture() override;

    srvc_handle *open_another();
    void register_for(srvc_handle *handle, uint32_t event);
    // Records calls of the system and of the lock from now on; the journal is empty then.
    static void record_everything();

    // What the registry holds for a type.
    static slots slots_of(uint32_t event);
    static slots ten_slots(slots taken);

    static hal_event_record pattern_record(uint32_t type);
    // Whether something can be taken; asks the system, not the service.
    static bool readable(int fd);
    static bool is_open_fd(int fd);
    // Takes the record that the pipe of the channel holds; it must be there.
    static hal_event_record take_from_pipe(srvc_handle *handle);

    std::array<srvc_handle, 40> more{};
    size_t next = 0;
};

bool equal(const hal_event_record &left, const hal_event_record &right);
std::string bytes_of(const hal_event_record &record);

} // namespace kr_test

#endif
