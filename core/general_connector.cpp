/*
 * The connector library: loading it, registering the library's two callbacks with it, and the log lines that go to it.
 *
 * Messages about loading go to standard error, for the logger comes up only after the load.
 */
#include <dlfcn.h>

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "core/general.h"
#include "core/general_state.h"

namespace kr::general {
namespace {

// A copy of the loader's message outlives the library that it is about; it holds a longest path and a symbol.
constexpr size_t error_text_size = PATH_MAX + 256;

struct symbol {
    const char *name;
    size_t offset; // in connector_entries
};

constexpr symbol symbols[] = {
#define X(name) {#name, offsetof(connector_entries, name)},
    KR_CONNECTOR_SYMBOLS(X)
#undef X
};

static_assert(sizeof(connector_entries) == sizeof symbols / sizeof symbols[0] * sizeof(void *));

// The loader's message; a symbol whose address is null does not have one.
const char *loader_error(const char *otherwise) {
    const char *const text = dlerror();
    return text != nullptr ? text : otherwise;
}

// False, with the loader's message in `error`, when a symbol is missing.
bool resolve(void *library, connector_entries *entries, char (&error)[error_text_size]) {
    for (const symbol &symbol : symbols) {
        (void)dlerror();
        void *const address = dlsym(library, symbol.name);
        const char *const reason = address == nullptr ? loader_error(symbol.name) : dlerror();
        if (reason != nullptr) {
            snprintf(error, sizeof error, "%s", reason);
            return false;
        }
        memcpy(reinterpret_cast<char *>(entries) + symbol.offset, &address, sizeof address);
    }
    return true;
}

// Null, after a message, for a file that cannot be loaded.
void *open_library(const char (&path)[KR_SDN_HAL_PATH_SIZE]) {
    if (memchr(path, '\0', sizeof path) == nullptr) {
        fprintf(stderr, "dlopen() has failed loading connector library %.*s, [%s].\n", KR_SDN_HAL_PATH_SIZE, path,
                "the path does not end");
        return nullptr;
    }
    (void)dlerror();
    void *const library = dlopen(path, RTLD_NOW);
    if (library == nullptr) {
        fprintf(stderr, "dlopen() has failed loading connector library %s, [%s].\n", path, loader_error("no reason"));
    }
    return library;
}

} // namespace

kr_sdn_hal_status connector_load(const system_profile *profile, kr_log_callback log_callback) {
    void *const library = open_library(profile->connector_library_path);
    if (library == nullptr) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    connector_entries entries{};
    char error[error_text_size];
    if (!resolve(library, &entries, error)) {
        dlclose(library);
        fprintf(stderr, "Loading symbol has failed [%s].\n", error);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    g.connector_library = library;
    g.connector = entries;
    (void)g.connector.conn_init(log_callback);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status connector_register() {
    const uint32_t status = g.connector.conn_config_callback_register(general_config_cb);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return static_cast<kr_sdn_hal_status>(status);
    }
    return static_cast<kr_sdn_hal_status>(
        g.connector.conn_event_callback_register(general_event_cb, CONN_EVENT_MASK_ALL));
}

kr_sdn_hal_status connector_deinit() {
    if (g.connector.conn_deinit == nullptr) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    return static_cast<kr_sdn_hal_status>(g.connector.conn_deinit());
}

} // namespace kr::general

using namespace kr::general;

void general_log_conn(uint32_t severity, const char *module, const char *text) {
    if (std::atomic_ref(g.initialized).load(std::memory_order_acquire) == 1) {
        g.connector.conn_log(severity, module, text);
    }
}
