/*
 * A port plug-in that writes down how it is called, in plain C. Variants are built from this file by renaming entries
 * on the compiler's command line: to the loader a renamed entry is missing.
 */
#include "fpt_fixture.h"

#include <string.h>

#define EXPORTED __attribute__((visibility("default")))

static kr_sdn_hal_status record(const char *name, uint32_t port, uint32_t value, const port_speed_admin *speed,
                                const void *output) {
    const uint32_t index = __atomic_fetch_add(&fpt_fixture.call_count, 1, __ATOMIC_RELAXED);
    if (index < FPT_FIXTURE_MAX_CALLS) {
        fpt_fixture_call *const call = &fpt_fixture.calls[index];
        strncpy(call->name, name, sizeof(call->name) - 1);
        call->port = port;
        call->value = value;
        if (speed != NULL) {
            call->speed = *speed;
        }
        call->output = output;
    }
    return strcmp(fpt_fixture.failing, name) == 0 ? fpt_fixture.failure_status : KR_SDN_HAL_STATUS_SUCCESS;
}

// A renamed entry keeps its name in the record: the name is stringized before it is replaced.
#define PLAIN(name)                                                                                                    \
    EXPORTED kr_sdn_hal_status name(void);                                                                             \
    EXPORTED kr_sdn_hal_status name(void) {                                                                            \
        return record(#name, 0, 0, NULL, NULL);                                                                        \
    }

#define SETTER(name, type)                                                                                             \
    EXPORTED kr_sdn_hal_status name(uint32_t port, type value);                                                        \
    EXPORTED kr_sdn_hal_status name(uint32_t port, type value) {                                                       \
        return record(#name, port, value, NULL, NULL);                                                                 \
    }

#define GETTER(name, type, ...)                                                                                        \
    EXPORTED kr_sdn_hal_status name(uint32_t port, type *output);                                                      \
    EXPORTED kr_sdn_hal_status name(uint32_t port, type *output) {                                                     \
        const type answer = __VA_ARGS__;                                                                               \
        *output = answer;                                                                                              \
        return record(#name, port, 0, NULL, output);                                                                   \
    }

PLAIN(activate)
PLAIN(deinit)
SETTER(rstp_port_state_set, uint32_t)
GETTER(rstp_port_state_get, int32_t, FPT_FIXTURE_STP_STATE)
GETTER(port_phys_addr_get, port_mac_address, {{2, 0, 0, 0, 0, (uint8_t)port}})
GETTER(port_speed_admin_get, port_speed_admin, {1, 0, 1, 0})
GETTER(port_speed_cabability_get, uint32_t, FPT_FIXTURE_SPEED_CAPABILITY)
GETTER(port_speed_oper_get, uint32_t, FPT_FIXTURE_OPER_SPEED)
SETTER(port_state_set, uint32_t)
GETTER(port_state_get, int32_t, FPT_FIXTURE_ADMIN_STATE)
GETTER(port_oper_state_get, int32_t, FPT_FIXTURE_OPER_STATE)
SETTER(port_mtu_set, uint16_t)
GETTER(port_mtu_get, uint16_t, FPT_FIXTURE_MTU)
GETTER(port_cntr_get, port_counters, {.rx_packets = port, .collisions = 12})
SETTER(port_cntr_clear, uint32_t)

EXPORTED kr_sdn_hal_status port_speed_admin_set(uint32_t port, port_speed_admin speed);
EXPORTED kr_sdn_hal_status port_speed_admin_set(uint32_t port, port_speed_admin speed) {
    return record("port_speed_admin_set", port, 0, &speed, NULL);
}

#ifdef FPT_FIXTURE_NULL_ENTRY
// An entry that exists and has no address.
__asm__(".globl port_mtu_get\n.set port_mtu_get, 0\n");
#endif
