/*
 * The fake connector: a plug-in that does nothing by itself. A test loads it beside the library under test, steers it
 * through the exported record `fake_connector`, and delivers events through the callbacks that it was given.
 */
#ifndef KR_TESTS_FAKE_CONNECTOR_H
#define KR_TESTS_FAKE_CONNECTOR_H

#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>

#include "kr_connector.h"

struct fake_connector_control {
    // What each entry point returns.
    uint32_t init_status, init_done_hal_status, init_done_shim_status, deinit_status;
    uint32_t config_register_status, event_register_status;

    void (*record)(const char *call);                                     // may be null: each call, as it comes
    void (*log)(uint32_t severity, const char *module, const char *text); // may be null: what conn_log is given

    // What the library gave.
    kr_log_callback init_log_callback;
    conn_config_callback config_callback;
    conn_event_callback event_callback;
    uint32_t event_mask;
};

namespace kr_test {

// Loads the fake connector at `path` for the life of the object and gives its control record, cleared.
class loaded_fake_connector {
  public:
    explicit loaded_fake_connector(const char *path) : library_(dlopen(path, RTLD_NOW)) {
        if (library_ == nullptr) {
            abort();
        }
        control_ = static_cast<fake_connector_control *>(dlsym(library_, "fake_connector"));
        *control_ = {};
    }
    ~loaded_fake_connector() {
        *control_ = {};
        dlclose(library_);
    }
    loaded_fake_connector(const loaded_fake_connector &) = delete;
    loaded_fake_connector &operator=(const loaded_fake_connector &) = delete;

    fake_connector_control *operator->() const {
        return control_;
    }

  private:
    void *library_;
    fake_connector_control *control_;
};

} // namespace kr_test

#endif
