/*
 * Calls of the operating system and of the component library, as the linker's --wrap reroutes them: each is recorded
 * under its name, fails when set_result says so, and otherwise goes on to the real one.
 */
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <utility>

#include "fakes.h"
#include "kr_complib.h"
#include "wrapped_calls.h"

using kr_test::called;
using kr_test::record;
using kr_test::result_of;

namespace kr_test {
namespace {
std::atomic<size_t> write_limit_value{SIZE_MAX};
std::atomic<int> writes_left{0};
std::atomic<bool> is_recording{false};

struct system_calls {
    std::mutex mutex;
    std::vector<written> writes;
    std::vector<int> closed;
};
system_calls &calls() {
    static auto *const instance = new system_calls; // threads of a failed test may outlive main
    return *instance;
}
} // namespace

void write_limit(size_t bytes) {
    write_limit_value = bytes;
}
void writes_before_failure(int count) {
    writes_left = count;
}
void record_system_calls(bool on) {
    if (on) {
        (void)take_writes();
        (void)take_closed();
    }
    is_recording = on;
}
std::vector<written> take_writes() {
    const std::lock_guard lock(calls().mutex);
    return std::exchange(calls().writes, {});
}
std::vector<int> take_closed() {
    const std::lock_guard lock(calls().mutex);
    return std::exchange(calls().closed, {});
}
} // namespace kr_test

// Visible, since the linker reroutes the references of the sanitizers' shared libraries as well.
#pragma GCC visibility push(default)
extern "C" {

kr_status __real_kr_log_init(uint32_t mode, void *context, kr_log_callback callback);
kr_status __wrap_kr_log_init(uint32_t mode, void *context, kr_log_callback callback);
kr_status __real_kr_log_close(void);
kr_status __wrap_kr_log_close(void);
cl_status_t __real_cl_event_init(cl_event_t *event, uint32_t manual_reset);
cl_status_t __wrap_cl_event_init(cl_event_t *event, uint32_t manual_reset);
void __real_cl_event_destroy(cl_event_t *event);
void __wrap_cl_event_destroy(cl_event_t *event);
cl_status_t __real_cl_event_signal(cl_event_t *event);
cl_status_t __wrap_cl_event_signal(cl_event_t *event);
cl_status_t __real_cl_event_wait_on(cl_event_t *event, uint32_t wait_us, uint32_t interruptible);
cl_status_t __wrap_cl_event_wait_on(cl_event_t *event, uint32_t wait_us, uint32_t interruptible);
cl_status_t __real_cl_thread_init(cl_thread_t *thread, cl_thread_function function, void *context, const char *name);
cl_status_t __wrap_cl_thread_init(cl_thread_t *thread, cl_thread_function function, void *context, const char *name);
void __real_cl_thread_destroy(cl_thread_t *thread);
void __wrap_cl_thread_destroy(cl_thread_t *thread);
cl_status_t __real_cl_plock_init(cl_plock_t *lock);
cl_status_t __wrap_cl_plock_init(cl_plock_t *lock);
void __real_cl_plock_destroy(cl_plock_t *lock);
void __wrap_cl_plock_destroy(cl_plock_t *lock);
int __real_pipe(int *ends);
int __wrap_pipe(int *ends);
int __real_close(int fd);
int __wrap_close(int fd);
ssize_t __real_write(int fd, const void *bytes, size_t size);
ssize_t __wrap_write(int fd, const void *bytes, size_t size);

kr_status __wrap_kr_log_init(uint32_t mode, void *context, kr_log_callback callback) {
    const uint32_t status = called(mode == 1 && context == nullptr ? "kr_log_init(1, NULL)" : "kr_log_init(?)");
    return status != 0 ? status : __real_kr_log_init(mode, context, callback);
}

kr_status __wrap_kr_log_close(void) {
    const uint32_t status = called("kr_log_close");
    return status != 0 ? status : __real_kr_log_close();
}

cl_status_t __wrap_cl_event_init(cl_event_t *event, uint32_t manual_reset) {
    const uint32_t status = called(manual_reset == 0 ? "cl_event_init(auto)" : "cl_event_init(manual)");
    return status != 0 ? status : __real_cl_event_init(event, manual_reset);
}

void __wrap_cl_event_destroy(cl_event_t *event) {
    record("cl_event_destroy");
    __real_cl_event_destroy(event);
}

cl_status_t __wrap_cl_event_signal(cl_event_t *event) {
    record("cl_event_signal");
    return __real_cl_event_signal(event);
}

cl_status_t __wrap_cl_event_wait_on(cl_event_t *event, uint32_t wait_us, uint32_t interruptible) {
    const uint32_t status =
        called(wait_us == 0xFFFFFFFF && interruptible == 1 ? "cl_event_wait_on(for ever)" : "cl_event_wait_on(?)");
    return status != 0 ? status : __real_cl_event_wait_on(event, wait_us, interruptible);
}

cl_status_t __wrap_cl_thread_init(cl_thread_t *thread, cl_thread_function function, void *context, const char *name) {
    const uint32_t status = called(context == nullptr && name == nullptr ? "cl_thread_init" : "cl_thread_init(?)");
    return status != 0 ? status : __real_cl_thread_init(thread, function, context, name);
}

void __wrap_cl_thread_destroy(cl_thread_t *thread) {
    __real_cl_thread_destroy(thread);
    record("cl_thread_destroy"); // after the join: what the thread did stands before it
}

cl_status_t __wrap_cl_plock_init(cl_plock_t *lock) {
    const uint32_t status = called("cl_plock_init");
    return status != 0 ? status : __real_cl_plock_init(lock);
}

void __wrap_cl_plock_destroy(cl_plock_t *lock) {
    record("cl_plock_destroy");
    __real_cl_plock_destroy(lock);
}

int __wrap_pipe(int *ends) {
    if (kr_test::is_recording) {
        record("pipe");
    }
    const uint32_t error = result_of("pipe");
    if (error != 0) {
        errno = static_cast<int>(error);
        return -1;
    }
    return __real_pipe(ends);
}

int __wrap_close(int fd) {
    if (kr_test::is_recording) {
        record("close");
        const std::lock_guard lock(kr_test::calls().mutex);
        kr_test::calls().closed.push_back(fd);
    }
    return __real_close(fd);
}

// result 0 of a write that fails is spelled 1000 here, for 0 means the real call.
ssize_t __wrap_write(int fd, const void *bytes, size_t size) {
    if (kr_test::is_recording) {
        record(("write " + std::to_string(size)).c_str());
        const std::lock_guard lock(kr_test::calls().mutex);
        kr_test::calls().writes.push_back({fd, std::string(static_cast<const char *>(bytes), size)});
    }
    const uint32_t error = kr_test::writes_left > 0 ? 0 : result_of("write");
    if (kr_test::writes_left > 0) {
        kr_test::writes_left--;
    }
    if (error == 1000) {
        return 0;
    }
    if (error != 0) {
        errno = static_cast<int>(error);
        return -1;
    }
    return __real_write(fd, bytes, std::min(size, kr_test::write_limit_value.load()));
}

} // extern "C"
#pragma GCC visibility pop
