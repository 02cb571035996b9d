/*
 * Events: one 32-bit word per event, waited for with futex(2). A condition variable would not do: its wait goes on
 * after a signal handler, and the last one to touch it has to be known before its memory may go.
 *
 * The word's lowest bit says that the event is signalled; the rest counts the waiters. A signal sets the bit and
 * learns in the same step whether anybody has to be woken; from then on it uses the event's address only, so that a
 * waiter may destroy and free the event as soon as its wait has returned.
 */
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>

#include "control/contract_call.h"
#include "kr_complib.h"

using kr_soft::contract_call;
using kr_soft::contract_call_void;
using kr_soft::contract_function;
using kr_soft::text_of;

namespace {

constexpr uint32_t signaled_bit = 1;
constexpr uint32_t one_waiter = 2;
constexpr uint32_t us_per_s = 1000000;
constexpr long ns_per_us = 1000;
constexpr long ns_per_s = 1000000000;
constexpr time_t forever_s = 1000000000; // some thirty years from the start of the monotonic clock

using event_word = std::atomic_ref<uint32_t>;
static_assert(event_word::is_always_lock_free);

bool is_initialized(const cl_event_t *event) {
    return event->state == CL_STATE_INITIALIZED;
}

timespec deadline_of(uint32_t wait_us) {
    timespec deadline{};
    if (wait_us == CL_EVENT_NO_TIMEOUT) {
        deadline.tv_sec = forever_s;
        return deadline;
    }
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(wait_us / us_per_s);
    deadline.tv_nsec += static_cast<long>(wait_us % us_per_s) * ns_per_us;
    if (deadline.tv_nsec >= ns_per_s) {
        deadline.tv_nsec -= ns_per_s;
        deadline.tv_sec++;
    }
    return deadline;
}

/*
 * Sleeps while the word is `expected`, until the deadline; returns 0 or the error. There always is a deadline: the
 * kernel resumes a sleep without one by itself after a handler that was installed with SA_RESTART.
 */
int futex_wait(uint32_t *word, uint32_t expected, const timespec &deadline) {
    const long result =
        syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, expected, &deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
    return result == 0 ? 0 : errno;
}

void futex_wake(uint32_t *word, int waiter_count) {
    (void)syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, waiter_count, nullptr, nullptr, 0);
}

// Takes the signal, if there is one. `leaving` is what the word loses besides: nothing, or one waiter.
bool take_signal(event_word word, bool manual_reset, uint32_t leaving) {
    uint32_t value = word.load(std::memory_order_acquire);
    while ((value & signaled_bit) != 0) {
        const uint32_t taken = value - leaving - (manual_reset ? 0 : signaled_bit);
        if (taken == value || word.compare_exchange_weak(value, taken, std::memory_order_acq_rel)) {
            return true;
        }
    }
    return false;
}

cl_status_t sleep_until_signaled(cl_event_t *event, uint32_t wait_us, bool interruptible) {
    const bool manual_reset = event->manual_reset != 0;
    const timespec deadline = deadline_of(wait_us);
    const event_word word(event->word);
    word.fetch_add(one_waiter, std::memory_order_relaxed);
    for (;;) {
        int error = 0;
        const uint32_t value = word.load(std::memory_order_relaxed);
        if ((value & signaled_bit) == 0) {
            error = futex_wait(&event->word, value, deadline);
        }
        // A signal comes before the reasons to give up: it must not be lost.
        if (take_signal(word, manual_reset, one_waiter)) {
            return CL_SUCCESS;
        }
        const bool has_timed_out = error == ETIMEDOUT && wait_us != CL_EVENT_NO_TIMEOUT;
        if (has_timed_out || (error == EINTR && interruptible)) {
            word.fetch_sub(one_waiter, std::memory_order_release);
            return has_timed_out ? CL_TIMEOUT : CL_INTERRUPTED;
        }
    }
}

cl_status_t event_wait(cl_event_t *event, uint32_t wait_us, bool interruptible) {
    if (event == nullptr) {
        return CL_INVALID_PARAMETER;
    }
    if (!is_initialized(event)) {
        return CL_INVALID_STATE;
    }
    if (take_signal(event_word(event->word), event->manual_reset != 0, 0)) {
        return CL_SUCCESS;
    }
    return wait_us == 0 ? cl_status_t{CL_TIMEOUT} : sleep_until_signaled(event, wait_us, interruptible);
}

cl_status_t event_signal(cl_event_t *event) {
    if (event == nullptr) {
        return CL_INVALID_PARAMETER;
    }
    if (!is_initialized(event)) {
        return CL_INVALID_STATE;
    }
    uint32_t *const address = &event->word;
    const int wake_count = event->manual_reset != 0 ? INT_MAX : 1;
    // From here on the event may be gone. A signal that was there already wakes whom it has to.
    const uint32_t before = event_word(*address).fetch_or(signaled_bit, std::memory_order_acq_rel);
    if ((before & signaled_bit) == 0 && before >= one_waiter) {
        futex_wake(address, wake_count);
    }
    return CL_SUCCESS;
}

} // namespace

cl_status_t cl_event_init(cl_event_t *event, uint32_t manual_reset) {
    return contract_call(
        contract_function::cl_event_init,
        [&]() -> cl_status_t {
            if (event == nullptr) {
                return CL_INVALID_PARAMETER;
            }
            event->word = 0;
            event->manual_reset = manual_reset;
            event->state = CL_STATE_INITIALIZED;
            return CL_SUCCESS;
        },
        [&] { return text_of("%u", manual_reset); });
}

void cl_event_destroy(cl_event_t *event) {
    contract_call_void(
        contract_function::cl_event_destroy,
        [&] {
            if (event == nullptr || !is_initialized(event)) {
                return;
            }
            CL_ASSERT_AT(event_word(event->word).load(std::memory_order_acquire) < one_waiter, "event.cpp");
            event->state = CL_STATE_UNINITIALIZED;
        },
        [] { return std::string(); });
}

cl_status_t cl_event_signal(cl_event_t *event) {
    return contract_call(
        contract_function::cl_event_signal, [&] { return event_signal(event); }, [] { return std::string(); });
}

cl_status_t cl_event_reset(cl_event_t *event) {
    if (event == nullptr) {
        return CL_INVALID_PARAMETER;
    }
    if (!is_initialized(event)) {
        return CL_INVALID_STATE;
    }
    event_word(event->word).fetch_and(~signaled_bit, std::memory_order_acq_rel);
    return CL_SUCCESS;
}

cl_status_t cl_event_wait_on(cl_event_t *event, uint32_t wait_us, uint32_t interruptible) {
    return contract_call(
        contract_function::cl_event_wait_on, [&] { return event_wait(event, wait_us, interruptible != 0); },
        [&] { return text_of("%u, %u", wait_us, interruptible); });
}
