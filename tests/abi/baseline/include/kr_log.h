/*
 * The platform's logger.
 *
 * A message has a severity mask, a module name and a text. The logger formats the text and hands it to the callback
 * that was given at init. It does not filter: each module compares its own verbosity before it calls.
 */
#ifndef KR_LOG_H
#define KR_LOG_H

#include <stdint.h>

#include "kr_status.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Severity masks. The level of a mask is the position of the lowest set bit of mask + 1. */
enum {
    KR_LOG_ERROR = 1,    /* level 1 */
    KR_LOG_WARNING = 3,  /* level 2 */
    KR_LOG_NOTICE = 15,  /* level 4 */
    KR_LOG_DEBUG = 31,   /* level 5 */
    KR_LOG_FUNCTION = 63 /* level 6: function entry and exit */
};

/*
 * Receives one finished message. `module` and `text` are valid during the call only. May be called from any thread,
 * also from several at once, and may log itself.
 */
typedef void (*kr_log_callback)(uint32_t severity, const char *module, const char *text);

/*
 * Starts the logger. `callback` receives every message from now on; NULL sends them to standard error. A second init
 * replaces the callback. `mode` and `context` are reserved for the platform: 1 and NULL. When the call returns, the
 * callback that was there before has ended on every thread and is not called again, so that its code may be unloaded;
 * a call from within a callback can't wait for that and does not.
 */
kr_status kr_log_init(uint32_t mode, void *context, kr_log_callback callback);

/*
 * Ends the logger. Messages that come later go to standard error if they are errors, and are dropped otherwise. Waits
 * for the callback as init does. KR_STATUS_NOT_INITIALIZED when the logger was not started.
 */
kr_status kr_log_close(void);

/*
 * Logs one message. Safe from any thread; a message is delivered whole, never mixed with another. Before init and
 * after close errors go to standard error, so that none is lost silently.
 */
#if defined(__GNUC__)
__attribute__((format(printf, 3, 4)))
#endif
void kr_log(uint32_t severity, const char *module, const char *format, ...);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
