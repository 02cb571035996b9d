/*
 * A reader-writer lock that lets a waiting writer go first.
 *
 * The data plane reads for as long as frames come in; a port that is to be removed must not wait for the traffic to
 * stop. Not recursive: a thread that holds it shared must not take it again.
 */
#ifndef KR_SOFT_RW_LOCK_H
#define KR_SOFT_RW_LOCK_H

#include <pthread.h>

namespace kr_soft {

// Meets the requirements of std::shared_lock and std::unique_lock.
class rw_lock {
  public:
    rw_lock() {
        pthread_rwlockattr_t attributes;
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_init(&lock_, &attributes);
        pthread_rwlockattr_destroy(&attributes);
    }
    ~rw_lock() {
        pthread_rwlock_destroy(&lock_);
    }
    rw_lock(const rw_lock &) = delete;
    rw_lock &operator=(const rw_lock &) = delete;

    void lock() {
        pthread_rwlock_wrlock(&lock_);
    }
    void unlock() {
        pthread_rwlock_unlock(&lock_);
    }
    void lock_shared() {
        pthread_rwlock_rdlock(&lock_);
    }
    void unlock_shared() {
        pthread_rwlock_unlock(&lock_);
    }

  private:
    pthread_rwlock_t lock_;
};

} // namespace kr_soft

#endif
