/*
 * Threads of the component library: start with a name, and join once. The object of a thread is its owner's; it has to
 * stay where it is until the thread is destroyed.
 */
#include <pthread.h>

#include <atomic>
#include <cstring>

#include "control/contract_call.h"
#include "kr_complib.h"

using kr_soft::contract_call;
using kr_soft::contract_call_void;
using kr_soft::contract_function;

namespace {

void *thread_main(void *argument) {
    auto *const thread = static_cast<cl_thread_t *>(argument);
    if (thread->name[0] != '\0') {
        (void)pthread_setname_np(pthread_self(), thread->name);
    }
    thread->function(thread->context);
    return nullptr;
}

cl_status_t thread_start(cl_thread_t *thread, cl_thread_function function, void *context, const char *name) {
    if (thread == nullptr || function == nullptr) {
        return CL_INVALID_PARAMETER;
    }
    *thread = {};
    thread->function = function;
    thread->context = context;
    if (name != nullptr) {
        strncpy(thread->name, name, sizeof thread->name - 1);
    }
    // Before the start: the new thread may look at its own object.
    const std::atomic_ref state(thread->state);
    state.store(CL_STATE_INITIALIZED);
    if (pthread_create(&thread->thread, nullptr, thread_main, thread) != 0) {
        state.store(CL_STATE_UNINITIALIZED);
        return CL_ERROR;
    }
    return CL_SUCCESS;
}

void thread_join(cl_thread_t *thread) {
    if (thread == nullptr) {
        return;
    }
    const std::atomic_ref state(thread->state);
    if (state.load() != CL_STATE_INITIALIZED) {
        return;
    }
    const bool is_own_thread = pthread_equal(thread->thread, pthread_self()) != 0;
    CL_ASSERT_AT(!is_own_thread, "thread.cpp");
    if (is_own_thread) {
        return; // it is still there for another thread to destroy
    }
    if (state.exchange(CL_STATE_UNINITIALIZED) == CL_STATE_INITIALIZED) {
        const int result = pthread_join(thread->thread, nullptr);
        CL_ASSERT_AT(result == 0, "thread.cpp");
    }
}

} // namespace

cl_status_t cl_thread_init(cl_thread_t *thread, cl_thread_function function, void *context, const char *name) {
    return contract_call(
        contract_function::cl_thread_init, [&] { return thread_start(thread, function, context, name); },
        [&] { return std::string(name == nullptr ? "NULL" : name); });
}

void cl_thread_destroy(cl_thread_t *thread) {
    contract_call_void(
        contract_function::cl_thread_destroy, [&] { thread_join(thread); }, [] { return std::string(); });
}
