/*
 * The fake port plug-in's entry points. FAKE_WITHOUT_<symbol> leaves that symbol out.
 */
#include "fake_fpt.h"

#include <atomic>

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED fake_fpt_control fake_fpt;
fake_fpt_control fake_fpt{};

namespace {

// The status is read after the call was recorded: who records it may choose it then.
uint32_t called(const char *name, const uint32_t &status) {
    if (fake_fpt.record != nullptr) {
        fake_fpt.record(name);
    }
    return status;
}

[[maybe_unused]] uint32_t called(const char *name, const uint32_t &status, uint32_t port) {
    std::atomic_ref(fake_fpt.port).store(port, std::memory_order_relaxed); // from any thread
    return called(name, status);
}

} // namespace

#ifndef FAKE_WITHOUT_activate
EXPORTED uint32_t activate();
uint32_t activate() {
    return called("activate", fake_fpt.activate_status);
}
#endif
#ifndef FAKE_WITHOUT_deinit
EXPORTED uint32_t deinit();
uint32_t deinit() {
    return called("deinit", fake_fpt.deinit_status);
}
#endif

// Setters store, getters answer.
#define FAKE_SETTER(name, type, field)                                                                                 \
    EXPORTED uint32_t name(uint32_t port, type value);                                                                 \
    uint32_t name(uint32_t port, type value) {                                                                         \
        fake_fpt.field = value;                                                                                        \
        return called(#name, fake_fpt.name##_status, port);                                                            \
    }                                                                                                                  \
    static_assert(true)
#define FAKE_GETTER(name, type, field)                                                                                 \
    EXPORTED uint32_t name(uint32_t port, type *value);                                                                \
    uint32_t name(uint32_t port, type *value) {                                                                        \
        *value = static_cast<type>(fake_fpt.field);                                                                    \
        return called(#name, fake_fpt.name##_status, port);                                                            \
    }                                                                                                                  \
    static_assert(true)

FAKE_SETTER(rstp_port_state_set, uint32_t, stp_state);
FAKE_GETTER(rstp_port_state_get, int32_t, stp_state);
FAKE_GETTER(port_phys_addr_get, port_mac_address, mac_address);
FAKE_SETTER(port_speed_admin_set, port_speed_admin, admin_speed);
FAKE_GETTER(port_speed_admin_get, port_speed_admin, admin_speed);
#ifdef FAKE_CORRECTED_SPELLING
EXPORTED uint32_t port_speed_capability_get(uint32_t port, uint32_t *value);
uint32_t port_speed_capability_get(uint32_t port, uint32_t *value) {
    *value = fake_fpt.speed_capability;
    return called("port_speed_capability_get", 0, port);
}
#else
FAKE_GETTER(port_speed_cabability_get, uint32_t, speed_capability);
#endif
FAKE_GETTER(port_speed_oper_get, uint32_t, oper_speed);
FAKE_SETTER(port_state_set, uint32_t, admin_state);
FAKE_GETTER(port_state_get, int32_t, admin_state);
FAKE_GETTER(port_oper_state_get, int32_t, oper_state);
FAKE_SETTER(port_mtu_set, uint16_t, mtu);
FAKE_GETTER(port_mtu_get, uint16_t, mtu);
FAKE_GETTER(port_cntr_get, port_counters, counters);
#ifndef FAKE_WITHOUT_port_cntr_clear
FAKE_SETTER(port_cntr_clear, uint32_t, all_ports);
#endif
