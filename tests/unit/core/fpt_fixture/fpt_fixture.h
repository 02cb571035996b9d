/*
 * What the test programs and the fixture of a port plug-in share: the plug-in writes down its calls in a record that
 * the program owns, and answers as the record says. It outlives the plug-in, which is unloaded during the tests.
 */
#ifndef KR_TESTS_FPT_FIXTURE_H
#define KR_TESTS_FPT_FIXTURE_H

#include <stdint.h>

#include "kr_sdn_hal.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { FPT_FIXTURE_MAX_CALLS = 64, FPT_FIXTURE_NAME_SIZE = 32 };

typedef struct fpt_fixture_call {
    char name[FPT_FIXTURE_NAME_SIZE];
    uint32_t port;
    uint32_t value; /* of the entries that take one */
    port_speed_admin speed;
    const void *output;
} fpt_fixture_call;

typedef struct fpt_fixture_state {
    uint32_t call_count; /* all calls; the first FPT_FIXTURE_MAX_CALLS are kept */
    fpt_fixture_call calls[FPT_FIXTURE_MAX_CALLS];
    char failing[FPT_FIXTURE_NAME_SIZE]; /* the entry that fails; it does write its output */
    uint32_t failure_status;
} fpt_fixture_state;

/* Defined by the program, which exports it. */
extern __attribute__((visibility("default"))) fpt_fixture_state fpt_fixture;

/* What the entries write to their outputs. */
enum {
    FPT_FIXTURE_STP_STATE = 2,
    FPT_FIXTURE_ADMIN_STATE = 1,
    FPT_FIXTURE_OPER_STATE = 2,
    FPT_FIXTURE_SPEED_CAPABILITY = 0x5A,
    FPT_FIXTURE_OPER_SPEED = 40000,
    FPT_FIXTURE_MTU = 1522
};

#ifdef __cplusplus
}
#endif

#endif
