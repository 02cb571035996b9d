/*
 * The passive lock's life; taking and releasing it is inline in the contract header.
 *
 * The POSIX lock inside is of the default kind, which lets a reader in while a writer waits. The gate in front of it
 * turns that round for threads that hold no passive lock: a writer keeps the gate shut while it waits. The kind that
 * prefers writers by itself would also stop a reader that holds the lock already, and with it the writer, for ever.
 */
#include "control/contract_call.h"
#include "kr_complib.h"

using kr_soft::contract_call;
using kr_soft::contract_call_void;
using kr_soft::contract_function;

__thread uint32_t cl_plock_held_count = 0;

cl_status_t cl_plock_init(cl_plock_t *lock) {
    return contract_call(
        contract_function::cl_plock_init,
        [&]() -> cl_status_t {
            if (lock == nullptr) {
                return CL_INVALID_PARAMETER;
            }
            lock->state = CL_STATE_UNINITIALIZED;
            if (pthread_rwlock_init(&lock->lock, nullptr) != 0) {
                return CL_ERROR;
            }
            if (pthread_mutex_init(&lock->gate, nullptr) != 0) {
                pthread_rwlock_destroy(&lock->lock);
                return CL_ERROR;
            }
            lock->waiting_writer_count = 0;
            lock->state = CL_STATE_INITIALIZED;
            return CL_SUCCESS;
        },
        [] { return std::string(); });
}

void cl_plock_destroy(cl_plock_t *lock) {
    contract_call_void(
        contract_function::cl_plock_destroy,
        [&] {
            if (lock == nullptr || lock->state != CL_STATE_INITIALIZED) {
                return;
            }
            lock->state = CL_STATE_UNINITIALIZED;
            const bool was_free = pthread_mutex_destroy(&lock->gate) == 0 && pthread_rwlock_destroy(&lock->lock) == 0;
            CL_ASSERT_AT(was_free, "plock.cpp");
        },
        [] { return std::string(); });
}
