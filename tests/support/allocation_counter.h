/*
 * Counts what the calling thread allocates, and what all threads do, so that a test can show that a call allocates
 * nothing.
 *
 * It stands in front of the C library's allocation functions, through which operator new goes too; under a sanitizer,
 * which stands there already, it asks the sanitizer. It defines functions: include it in one source of a program.
 */
#ifndef KR_TESTS_ALLOCATION_COUNTER_H
#define KR_TESTS_ALLOCATION_COUNTER_H

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KR_TESTS_UNDER_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KR_TESTS_UNDER_SANITIZER 1
#endif

namespace kr_test {

// Of this thread, since it started.
inline thread_local uint64_t thread_allocation_count = 0;
// Of all threads, since the process started.
inline constinit std::atomic<uint64_t> process_allocation_count{0};

inline void count_allocation() {
    thread_allocation_count = thread_allocation_count + 1;
    process_allocation_count.fetch_add(1, std::memory_order_relaxed);
}

// How many allocations the thread has made since the counter was made.
class allocation_counter {
  public:
    allocation_counter() : start_(thread_allocation_count) {}
    [[nodiscard]] uint64_t count() const {
        return thread_allocation_count - start_;
    }

  private:
    uint64_t start_;
};

// How many allocations all other threads have made since the counter was made.
class other_threads_allocation_counter {
  public:
    other_threads_allocation_counter() : start_(process_allocation_count) {}
    [[nodiscard]] uint64_t count() const {
        return process_allocation_count - start_ - mine_.count();
    }

  private:
    uint64_t start_;
    allocation_counter mine_;
};

} // namespace kr_test

#ifdef KR_TESTS_UNDER_SANITIZER

extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void *, size_t),
                                                         void (*free_hook)(const volatile void *));

namespace kr_test {
inline const int allocation_hooks_installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void *, size_t) { count_allocation(); }, [](const volatile void *) {});
} // namespace kr_test

#else

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
void *__libc_memalign(size_t alignment, size_t size);

__attribute__((visibility("default"))) void *malloc(size_t size) {
    kr_test::count_allocation();
    return __libc_malloc(size);
}
__attribute__((visibility("default"))) void *calloc(size_t count, size_t size) {
    kr_test::count_allocation();
    return __libc_calloc(count, size);
}
__attribute__((visibility("default"))) void *realloc(void *memory, size_t size) {
    kr_test::count_allocation();
    return __libc_realloc(memory, size);
}
__attribute__((visibility("default"))) void *memalign(size_t alignment, size_t size) {
    kr_test::count_allocation();
    return __libc_memalign(alignment, size);
}
__attribute__((visibility("default"))) void *aligned_alloc(size_t alignment, size_t size) {
    kr_test::count_allocation();
    return __libc_memalign(alignment, size);
}
__attribute__((visibility("default"))) int posix_memalign(void **memory, size_t alignment, size_t size) {
    kr_test::count_allocation();
    void *const block = __libc_memalign(alignment, size);
    if (block == nullptr) {
        return ENOMEM;
    }
    *memory = block;
    return 0;
}
}

#endif

#endif
