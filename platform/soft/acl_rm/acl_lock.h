/*
 * The reader-writer lock of the ACL resource manager. Frames hold it shared while they are matched, changes hold it
 * exclusively, so a frame meets a rule table either before a change or after it, never in between. Writers go first:
 * steady traffic cannot keep a rule from being written. The annotations let clang prove who holds it.
 */
#ifndef KR_SOFT_ACL_LOCK_H
#define KR_SOFT_ACL_LOCK_H

#include <pthread.h>

#if defined(__clang__)
#define KR_ACL_ANNOTATE(annotation) __attribute__((annotation))
#else
#define KR_ACL_ANNOTATE(annotation)
#endif
#define KR_ACL_GUARDED_BY(lock) KR_ACL_ANNOTATE(guarded_by(lock))
#define KR_ACL_REQUIRES(lock) KR_ACL_ANNOTATE(requires_capability(lock))
#define KR_ACL_REQUIRES_SHARED(lock) KR_ACL_ANNOTATE(requires_shared_capability(lock))

namespace kr_soft {

class KR_ACL_ANNOTATE(capability("lock")) acl_lock_type {
  public:
    void lock() KR_ACL_ANNOTATE(acquire_capability()) {
        pthread_rwlock_wrlock(&lock_);
    }
    void lock_shared() KR_ACL_ANNOTATE(acquire_shared_capability()) {
        pthread_rwlock_rdlock(&lock_);
    }
    void unlock() KR_ACL_ANNOTATE(release_generic_capability()) {
        pthread_rwlock_unlock(&lock_);
    }

  private:
    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
};

extern acl_lock_type acl_lock;

class KR_ACL_ANNOTATE(scoped_lockable) acl_exclusive {
  public:
    acl_exclusive() KR_ACL_ANNOTATE(acquire_capability(acl_lock)) {
        acl_lock.lock();
    }
    ~acl_exclusive() KR_ACL_ANNOTATE(release_capability()) {
        acl_lock.unlock();
    }
    acl_exclusive(const acl_exclusive &) = delete;
    acl_exclusive &operator=(const acl_exclusive &) = delete;
};

class KR_ACL_ANNOTATE(scoped_lockable) acl_shared {
  public:
    acl_shared() KR_ACL_ANNOTATE(acquire_shared_capability(acl_lock)) {
        acl_lock.lock_shared();
    }
    ~acl_shared() KR_ACL_ANNOTATE(release_generic_capability()) {
        acl_lock.unlock();
    }
    acl_shared(const acl_shared &) = delete;
    acl_shared &operator=(const acl_shared &) = delete;
};

} // namespace kr_soft

#endif
