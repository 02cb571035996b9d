/*
 * Calls that the linker's --wrap reroutes here: recorded, failing when set_result says so, and otherwise the real ones.
 */
#include "wrapped_channel_calls.h"

#include <pthread.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include "fakes.h"

using kr_test::record;
using kr_test::result_of;

namespace kr_test {
namespace {

struct channel_calls {
    std::mutex mutex;
    std::vector<select_call> selects;
    std::vector<size_t> reads;
};

channel_calls &calls() {
    static auto *const instance = new channel_calls; // threads of a failed test may outlive main
    return *instance;
}

std::atomic<bool> is_recording_locks{false};

void record_lock(const char *line) {
    if (is_recording_locks) {
        record(line);
    }
}

} // namespace

void record_locks(bool on) {
    is_recording_locks = on;
}

std::vector<select_call> take_selects() {
    const std::lock_guard lock(calls().mutex);
    return std::exchange(calls().selects, {});
}

std::vector<size_t> take_reads() {
    const std::lock_guard lock(calls().mutex);
    return std::exchange(calls().reads, {});
}

} // namespace kr_test

// Visible, since the linker reroutes the references of the sanitizers' shared libraries as well.
#pragma GCC visibility push(default)
extern "C" {

int __real_pthread_rwlock_rdlock(pthread_rwlock_t *lock);
int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t *lock);
int __real_pthread_rwlock_wrlock(pthread_rwlock_t *lock);
int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t *lock);
int __real_pthread_rwlock_unlock(pthread_rwlock_t *lock);
int __wrap_pthread_rwlock_unlock(pthread_rwlock_t *lock);
int __real_select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, struct timeval *timeout);
int __wrap_select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, struct timeval *timeout);
ssize_t __real_read(int fd, void *bytes, size_t size);
ssize_t __wrap_read(int fd, void *bytes, size_t size);

int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t *lock) {
    const int result = __real_pthread_rwlock_rdlock(lock);
    kr_test::record_lock("lock shared");
    return result;
}

int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t *lock) {
    const int result = __real_pthread_rwlock_wrlock(lock);
    kr_test::record_lock("lock exclusive");
    return result;
}

int __wrap_pthread_rwlock_unlock(pthread_rwlock_t *lock) {
    kr_test::record_lock("unlock");
    return __real_pthread_rwlock_unlock(lock);
}

int __wrap_select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, struct timeval *timeout) {
    {
        const std::lock_guard lock(kr_test::calls().mutex);
        kr_test::calls().selects.push_back(
            {count, readable != nullptr && writable == nullptr && exceptional == nullptr, timeout});
    }
    const uint32_t error = result_of("select");
    if (error == 0) {
        return __real_select(count, readable, writable, exceptional, timeout);
    }
    if (error == kr_test::select_nothing || error == kr_test::select_something_else) {
        const size_t bits = 8 * sizeof(unsigned long);
        memset(readable, 0, (static_cast<size_t>(count) + bits - 1) / bits * sizeof(unsigned long)); // may be longer
        return error == kr_test::select_nothing ? 0 : 1;
    }
    errno = static_cast<int>(error);
    return -1;
}

ssize_t __wrap_read(int fd, void *bytes, size_t size) {
    {
        const std::lock_guard lock(kr_test::calls().mutex);
        kr_test::calls().reads.push_back(size);
    }
    const uint32_t error = result_of("read");
    if (error != 0) {
        errno = static_cast<int>(error);
        return -1;
    }
    return __real_read(fd, bytes, size);
}

} // extern "C"
#pragma GCC visibility pop
