/*
 * Stands in front of a few platform calls, to learn what the platform chose (see platform_answers), when the library's
 * own threads have done their work, to let calls that the library makes to the operating system fail, and to keep the
 * placement library's worker for the steps that ask for it: what the background thread would do between two steps
 * depends on time.
 */
#ifndef KR_TESTS_MODEL_PLATFORM_SPIES_H
#define KR_TESTS_MODEL_PLATFORM_SPIES_H

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "tests/model/switch_model.h"

namespace kr_model {

enum class thread_role { library, driver, connector };
extern thread_local thread_role this_thread_role;

struct platform_spies {
    platform_answers answers; // the driver's thread, or the connector's while the driver waits for it

    // Under the mutex.
    std::mutex mutex;
    std::condition_variable changed;
    uint32_t control_wait_count = 0; // how often the thread of control frames began to wait
    bool connector_in_wait = false;  // the connector's thread waits for an acknowledgement
    fault system_call;               // that is to fail
};
extern platform_spies spies;

// Whether it is a call of the operating system that can be made to fail.
bool is_system_call(const std::string &function);
// From now on; an empty one ends it.
void system_fault_set(const fault &planned);

} // namespace kr_model

#endif
