/*
 * Scopes: the two ways to hold a passive lock, and a named step that is taken back unless it is kept.
 *
 * Nobody acquires or releases a passive lock by hand; clang's analysis follows these two classes.
 */
#ifndef KR_COMMON_GUARDS_H
#define KR_COMMON_GUARDS_H

#include <atomic>
#include <utility>

#include "kr_complib.h"

#if defined(__clang__)
#define KR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KR_THREAD_ANNOTATION(x)
#endif
#define KR_GUARDED_BY(lock) KR_THREAD_ANNOTATION(guarded_by(lock))
#define KR_REQUIRES(lock) KR_THREAD_ANNOTATION(requires_capability(lock))
#define KR_REQUIRES_SHARED(lock) KR_THREAD_ANNOTATION(requires_shared_capability(lock))
#define KR_EXCLUDES(lock) KR_THREAD_ANNOTATION(locks_excluded(lock))
#define KR_NO_THREAD_SAFETY_ANALYSIS KR_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace kr {

class KR_THREAD_ANNOTATION(scoped_lockable) plock_shared {
  public:
    explicit plock_shared(cl_plock_t &lock) KR_THREAD_ANNOTATION(acquire_shared_capability(lock)) : lock_(&lock) {
        cl_plock_acquire(lock_);
    }
    ~plock_shared() KR_THREAD_ANNOTATION(release_generic_capability()) {
        cl_plock_release(lock_);
    }
    plock_shared(const plock_shared &) = delete;
    plock_shared &operator=(const plock_shared &) = delete;

  private:
    cl_plock_t *lock_;
};

class KR_THREAD_ANNOTATION(scoped_lockable) plock_exclusive {
  public:
    explicit plock_exclusive(cl_plock_t &lock) KR_THREAD_ANNOTATION(acquire_capability(lock)) : lock_(&lock) {
        cl_plock_excl_acquire(lock_);
    }
    ~plock_exclusive() KR_THREAD_ANNOTATION(release_capability()) {
        cl_plock_release(lock_);
    }
    plock_exclusive(const plock_exclusive &) = delete;
    plock_exclusive &operator=(const plock_exclusive &) = delete;

  private:
    cl_plock_t *lock_;
};

// Runs `undo` at the end of the scope unless keep() was called.
template <typename Undo> class [[nodiscard]] undo_guard {
  public:
    explicit undo_guard(Undo undo) noexcept : undo_(std::move(undo)) {}
    ~undo_guard() {
        if (armed_) {
            undo_();
        }
    }
    void keep() noexcept {
        armed_ = false;
    }
    undo_guard(const undo_guard &) = delete;
    undo_guard &operator=(const undo_guard &) = delete;

  private:
    Undo undo_;
    bool armed_ = true;
};

// A plain variable that several threads touch by design, read and written as a whole without ordering.
template <typename T> T relaxed_load(const T &variable) noexcept {
    return std::atomic_ref(const_cast<T &>(variable)).load(std::memory_order_relaxed);
}
template <typename T> void relaxed_store(T &variable, T value) noexcept {
    std::atomic_ref(variable).store(value, std::memory_order_relaxed);
}

// The same for a flag that publishes what was written before it was stored: a lock, a descriptor, an entry point.
template <typename T> T acquire_load(const T &flag) noexcept {
    return std::atomic_ref(const_cast<T &>(flag)).load(std::memory_order_acquire);
}
template <typename T> void release_store(T &flag, T value) noexcept {
    std::atomic_ref(flag).store(value, std::memory_order_release);
}

} // namespace kr

#endif
