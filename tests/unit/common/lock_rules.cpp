/*
 * Code that keeps the rules of the passive locks, and, with one of the RULE_ macros, breaks one of them: the tests of
 * the locks' annotations let clang read it and expect it to refuse the latter.
 */
#include "common/guards.h"

namespace {

cl_plock_t lock;
int guarded KR_GUARDED_BY(lock);

int read_locked() KR_REQUIRES_SHARED(lock) {
    return guarded;
}

} // namespace

int lock_rules_read();
int lock_rules_read() {
#ifndef RULE_CALLED_WITHOUT_LOCK
    const kr::plock_shared guard(lock);
#endif
    return read_locked();
}

void lock_rules_write();
void lock_rules_write() {
#if defined(RULE_GUARDED_WITHOUT_LOCK)
#elif defined(RULE_WRITTEN_UNDER_SHARED_LOCK)
    const kr::plock_shared guard(lock);
#else
    const kr::plock_exclusive guard(lock);
#endif
    guarded = 1;
}
