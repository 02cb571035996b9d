/*
 * Ctrl-C, without a handler: SIGINT and SIGTERM stay blocked in every thread, so that they never interrupt a system
 * call of the library, and are looked for at places where stopping is easy.
 */
#ifndef KR_DEMO_INTERRUPT_H
#define KR_DEMO_INTERRUPT_H

#include <csignal>
#include <exception>

namespace demo {

// Somebody wants this to end.
struct interrupted : std::exception {};

// Before the first thread is started: every thread inherits the mask.
inline void block_interrupts() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

inline bool is_interrupted() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1 ||
           sigismember(&pending, SIGHUP) == 1;
}

inline void throw_if_interrupted() {
    if (is_interrupted()) {
        throw interrupted();
    }
}

} // namespace demo

#endif
