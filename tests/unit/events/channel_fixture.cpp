/*
 * More channels, and a look at what the service does with them.
 */
#include "channel_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>

namespace kr_test {

channel_fixture::channel_fixture() {
    fake_ports()[known_of_port] = {known_of_port, 1, known_log_port};
    writes_before_failure(0);
    (void)take_selects();
    (void)take_reads();
    (void)take_device_calls();
}

channel_fixture::~channel_fixture() {
    record_system_calls(false);
    record_locks(false);
    fakes_reset(); // every call succeeds again
    for (srvc_handle &one : more) {
        (void)kr_sdn_hal_srvc_close(&one);
    }
}

srvc_handle *channel_fixture::open_another() {
    srvc_handle *const one = &more.at(next++);
    EXPECT_EQ(kr_sdn_hal_srvc_open(one), KR_SDN_HAL_STATUS_SUCCESS);
    return one;
}

void channel_fixture::register_for(srvc_handle *handle, uint32_t event) {
    EXPECT_EQ(kr_sdn_hal_srvc_event_register(handle, event), KR_SDN_HAL_STATUS_SUCCESS);
}

void channel_fixture::record_everything() {
    record_system_calls(true);
    record_locks(true);
    (void)take_calls();
}

slots channel_fixture::slots_of(uint32_t event) KR_NO_THREAD_SAFETY_ANALYSIS {
    return {std::begin(events_db.handles[event]), std::end(events_db.handles[event])};
}

slots channel_fixture::ten_slots(slots taken) {
    taken.resize(10, nullptr);
    return taken;
}

hal_event_record channel_fixture::pattern_record(uint32_t type) {
    hal_event_record record{};
    auto *const bytes = reinterpret_cast<uint8_t *>(&record);
    for (size_t i = 0; i < sizeof record; i++) {
        bytes[i] = static_cast<uint8_t>(i * 31 + i / 256);
    }
    record.type = type;
    return record;
}

bool channel_fixture::readable(int fd) {
    pollfd waited = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&waited, 1, 0) == 1 && (waited.revents & POLLIN) != 0;
}

bool channel_fixture::is_open_fd(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

hal_event_record channel_fixture::take_from_pipe(srvc_handle *handle) {
    hal_event_record record{};
    EXPECT_TRUE(readable(handle->hal_pipe[0]));
    EXPECT_EQ(::read(handle->hal_pipe[0], &record, sizeof record), static_cast<ssize_t>(sizeof record));
    return record;
}

bool equal(const hal_event_record &left, const hal_event_record &right) {
    return memcmp(&left, &right, sizeof left) == 0;
}

std::string bytes_of(const hal_event_record &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}

} // namespace kr_test
