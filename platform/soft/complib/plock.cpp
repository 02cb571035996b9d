/*
 * The passive lock's life: a POSIX reader-writer lock of the default kind. Taking and releasing it is inline in the
 * contract header.
 *
 * The default kind lets a reader in while a writer waits, so that a thread that holds the lock shared may take it
 * shared again without waiting for that writer, who waits for it. The price is that readers who never leave a gap keep
 * a writer waiting.
 */
#include "control/contract_call.h"
#include "kr_complib.h"

using kr_soft::contract_call;
using kr_soft::contract_call_void;
using kr_soft::contract_function;

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
            const int result = pthread_rwlock_destroy(&lock->lock);
            CL_ASSERT_AT(result == 0, "plock.cpp");
        },
        [] { return std::string(); });
}
