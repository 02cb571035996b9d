/*
 * For processes that end without the leak sanitizer's look at them: children that leave with _exit, because threads of
 * the library may still be running.
 */
#ifndef KR_TESTS_LEAKS_H
#define KR_TESTS_LEAKS_H

#if defined(__SANITIZE_ADDRESS__)
#define KR_TESTS_HAVE_LEAK_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KR_TESTS_HAVE_LEAK_SANITIZER
#endif
#endif

#ifdef KR_TESTS_HAVE_LEAK_SANITIZER
#include <sanitizer/lsan_interface.h>
#endif

namespace kr_test {

// Whether memory is lost: nothing points to it any more. Always false in a build without the sanitizer; otherwise what
// is lost is printed to standard error.
inline bool has_leaked() {
#ifdef KR_TESTS_HAVE_LEAK_SANITIZER
    return __lsan_do_recoverable_leak_check() != 0;
#else
    return false;
#endif
}

} // namespace kr_test

#endif
