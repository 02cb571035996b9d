/*
 * Threads that meet where they seldom do: linked into a test, this stands before the locks and the system calls by
 * which the library's threads wait for each other, and now and then lets the caller give way or sleep for a moment.
 * When is a matter of the seed (KR_TEST_SEED) and of the thread's turn, not of the machine's load.
 *
 * The calls go on to whoever defines them next: the C library, or the thread sanitizer.
 */
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

constexpr uint32_t yield_one_in = 8;
constexpr uint32_t sleep_one_in = 128;
constexpr long sleep_max_ns = 200'000;

std::atomic<uint64_t> thread_count{0};

uint64_t seed_of_thread() {
    const char *const given = getenv("KR_TEST_SEED");
    const uint64_t seed = given != nullptr ? strtoull(given, nullptr, 0) : 1;
    return (seed + 1) * 0x9E3779B97F4A7C15U + thread_count.fetch_add(1, std::memory_order_relaxed) + 1;
}

uint64_t next_random() {
    static thread_local uint64_t state = 0;
    if (state == 0) {
        state = seed_of_thread();
    }
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

void perturb() {
    const uint64_t random = next_random() >> 16;
    if (random % sleep_one_in == 0) {
        const timespec moment{0, static_cast<long>((random >> 16) % sleep_max_ns)};
        nanosleep(&moment, nullptr);
    } else if (random % yield_one_in == 0) {
        sched_yield();
    }
}

template <typename Function> Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// A moment may pass before the call: between two steps of the caller, and before others are let in.
#define PERTURBED(result, name, parameters, arguments)                                                                 \
    extern "C" __attribute__((visibility("default"))) result name parameters {                                         \
        static auto *const real = next<result parameters>(#name);                                                      \
        perturb();                                                                                                     \
        return real arguments;                                                                                         \
    }                                                                                                                  \
    static_assert(true)

PERTURBED(int, pthread_rwlock_rdlock, (pthread_rwlock_t * lock), (lock));
PERTURBED(int, pthread_rwlock_wrlock, (pthread_rwlock_t * lock), (lock));
PERTURBED(int, pthread_rwlock_unlock, (pthread_rwlock_t * lock), (lock));
PERTURBED(ssize_t, read, (int fd, void *to, size_t size), (fd, to, size));
PERTURBED(ssize_t, write, (int fd, const void *from, size_t size), (fd, from, size));
PERTURBED(int, select, (int count, fd_set *readable, fd_set *writable, fd_set *special, timeval *timeout),
          (count, readable, writable, special, timeout));
