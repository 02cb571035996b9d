/*
 * The port plug-in: opens the library that the system profile names, resolves its sixteen entries and forwards each
 * port operation to one of them, arguments and status unchanged. It neither checks arguments (the port API does) nor
 * translates ports, and takes no lock: init and deinit belong to the life cycle, the plug-in is safe from any thread.
 */
#include "core/fpt.h"

#include <dlfcn.h>

#include <atomic>
#include <cstring>
#include <iterator>

#include "common/log.h"

int32_t kr_FPT_verb_level = 3;

KR_LOG_MODULE("FPT", kr_FPT_verb_level);

/*
 * The plug-in's entries in the order in which they are resolved: the name of the symbol, which is that of the slot
 * too, and the arguments. Each is called by the wrapper fpt_<name>, on the wrapper's thread, with no lock held, only
 * while the plug-in is initialised; outputs are the client's pointers; what it returns goes to the caller as it is.
 */
#define FPT_ENTRIES(X)                                                                                                 \
    X(activate, ())                                                                                                    \
    X(deinit, ())                                                                                                      \
    X(rstp_port_state_set, (uint32_t port, uint32_t stp_state))                                                        \
    X(rstp_port_state_get, (uint32_t port, int32_t * stp_state))                                                       \
    X(port_phys_addr_get, (uint32_t port, port_mac_address * mac_address))                                             \
    X(port_speed_admin_set, (uint32_t port, port_speed_admin admin_speed))                                             \
    X(port_speed_admin_get, (uint32_t port, port_speed_admin * admin_speed))                                           \
    X(port_speed_cabability_get, (uint32_t port, uint32_t * speed_capability))                                         \
    X(port_speed_oper_get, (uint32_t port, uint32_t * oper_speed))                                                     \
    X(port_state_set, (uint32_t port, uint32_t admin_state))                                                           \
    X(port_state_get, (uint32_t port, int32_t * admin_state))                                                          \
    X(port_oper_state_get, (uint32_t port, int32_t * oper_state))                                                      \
    X(port_mtu_set, (uint32_t port, uint16_t mtu))                                                                     \
    X(port_mtu_get, (uint32_t port, uint16_t * mtu))                                                                   \
    X(port_cntr_get, (uint32_t port, port_counters * counters))                                                        \
    X(port_cntr_clear, (uint32_t port, uint32_t all_ports))

namespace {

struct fpt_entries {
#define X(name, arguments) kr_sdn_hal_status(*name) arguments;
    FPT_ENTRIES(X)
#undef X
};

struct fpt_symbol {
    const char *name;
    void (*bind)(fpt_entries &entries, void *address);
};

constexpr fpt_symbol fpt_symbols[] = {
#define X(name, arguments)                                                                                             \
    {#name,                                                                                                            \
     [](fpt_entries &entries, void *address) { entries.name = reinterpret_cast<decltype(entries.name)>(address); }},
    FPT_ENTRIES(X)
#undef X
};

static_assert(std::size(fpt_symbols) == 16 && sizeof(fpt_entries) == 16 * sizeof(void *));

constinit struct {
    uint32_t fpt_initialized; // 1 once every symbol is resolved; any thread reads it
    void *fpt_lib_handle;
    fpt_entries fpt_ops;
} g{};

// Whoever sees the flag sees the resolved entries too.
bool is_initialized() {
    return std::atomic_ref(g.fpt_initialized).load(std::memory_order_acquire) != 0;
}
void set_initialized(uint32_t initialized) {
    std::atomic_ref(g.fpt_initialized).store(initialized, std::memory_order_release);
}

/*
 * Opens the library. For an empty path the loader may hand out the program itself, and it would read past a path that
 * has no end, so neither gets there. On failure *error says why.
 */
void *open_library(const char (&path)[KR_SDN_HAL_PATH_SIZE], const char **error) {
    const size_t length = strnlen(path, sizeof(path));
    if (length == 0 || length == sizeof(path)) {
        *error = length == 0 ? "the path is empty" : "the path is too long";
        return nullptr;
    }
    void *const handle = dlopen(path, RTLD_NOW);
    *error = handle == nullptr ? dlerror() : nullptr;
    return handle;
}

bool resolve(void *handle, const fpt_symbol &symbol) {
    (void)dlerror(); // nothing older is told of this symbol
    void *const address = dlsym(handle, symbol.name);
    const char *const error = dlerror();
    if (error != nullptr || address == nullptr) { // a symbol may exist and have no address
        HAL_ERROR("Failed to find function: [%s].", error != nullptr ? error : symbol.name);
        return false;
    }
    symbol.bind(g.fpt_ops, address);
    return true;
}

template <typename... Arguments>
kr_sdn_hal_status forward(kr_sdn_hal_status (*fpt_entries::*entry)(Arguments...), Arguments... arguments) {
    if (!is_initialized()) {
        HAL_ERROR("FPT is not initialized.");
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    return (g.fpt_ops.*entry)(arguments...);
}

} // namespace

kr_sdn_hal_status fpt_init(const system_profile *profile) {
    if (is_initialized()) {
        HAL_ERROR("FPT is already initialized.");
        return KR_SDN_HAL_STATUS_ERROR;
    }
    if (profile == nullptr) {
        HAL_ERROR("System profile is NULL.");
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    const char *error = nullptr;
    g.fpt_lib_handle = open_library(profile->fpt_library_path, &error);
    if (g.fpt_lib_handle == nullptr) {
        HAL_ERROR("Failed to open FPT library path: [%s].", error);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    for (const fpt_symbol &symbol : fpt_symbols) {
        if (!resolve(g.fpt_lib_handle, symbol)) {
            dlclose(g.fpt_lib_handle); // the handle and the entries so far stay; nobody uses them before the next init
            return KR_SDN_HAL_STATUS_ERROR;
        }
    }
    set_initialized(1);
    HAL_NOTICE("FPT init done.");
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status fpt_activate() {
    return forward(&fpt_entries::activate);
}

kr_sdn_hal_status fpt_deinit() {
    if (!is_initialized()) {
        HAL_ERROR("FPT is not initialized.");
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    const kr_sdn_hal_status status = g.fpt_ops.deinit();
    set_initialized(0); // before the code goes away: a client that calls now is refused
    dlclose(g.fpt_lib_handle);
    g.fpt_lib_handle = nullptr;
    return status;
}

kr_sdn_hal_status fpt_rstp_port_state_set(uint32_t port, uint32_t stp_state) {
    return forward(&fpt_entries::rstp_port_state_set, port, stp_state);
}

kr_sdn_hal_status fpt_rstp_port_state_get(uint32_t port, int32_t *stp_state) {
    return forward(&fpt_entries::rstp_port_state_get, port, stp_state);
}

kr_sdn_hal_status fpt_port_phys_addr_get(uint32_t port, port_mac_address *mac_address) {
    return forward(&fpt_entries::port_phys_addr_get, port, mac_address);
}

kr_sdn_hal_status fpt_port_speed_admin_set(uint32_t port, port_speed_admin admin_speed) {
    return forward(&fpt_entries::port_speed_admin_set, port, admin_speed);
}

kr_sdn_hal_status fpt_port_speed_admin_get(uint32_t port, port_speed_admin *admin_speed) {
    return forward(&fpt_entries::port_speed_admin_get, port, admin_speed);
}

kr_sdn_hal_status fpt_port_speed_cabability_get(uint32_t port, uint32_t *speed_capability) {
    return forward(&fpt_entries::port_speed_cabability_get, port, speed_capability);
}

kr_sdn_hal_status fpt_port_speed_oper_get(uint32_t port, uint32_t *oper_speed) {
    return forward(&fpt_entries::port_speed_oper_get, port, oper_speed);
}

kr_sdn_hal_status fpt_port_state_set(uint32_t port, uint32_t admin_state) {
    return forward(&fpt_entries::port_state_set, port, admin_state);
}

kr_sdn_hal_status fpt_port_state_get(uint32_t port, int32_t *admin_state) {
    return forward(&fpt_entries::port_state_get, port, admin_state);
}

kr_sdn_hal_status fpt_port_oper_state_get(uint32_t port, int32_t *oper_state) {
    return forward(&fpt_entries::port_oper_state_get, port, oper_state);
}

kr_sdn_hal_status fpt_port_mtu_set(uint32_t port, uint16_t mtu) {
    return forward(&fpt_entries::port_mtu_set, port, mtu);
}

kr_sdn_hal_status fpt_port_mtu_get(uint32_t port, uint16_t *mtu) {
    return forward(&fpt_entries::port_mtu_get, port, mtu);
}

kr_sdn_hal_status fpt_port_cntr_get(uint32_t port, port_counters *counters) {
    return forward(&fpt_entries::port_cntr_get, port, counters);
}

kr_sdn_hal_status fpt_port_cntr_clear(uint32_t port, uint32_t all_ports) {
    return forward(&fpt_entries::port_cntr_clear, port, all_ports);
}
