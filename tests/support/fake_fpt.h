/*
 * The fake port plug-in: keeps what it is told and answers with values that a test sets. A test loads it beside the
 * library under test and steers it through the exported record `fake_fpt`.
 */
#ifndef KR_TESTS_FAKE_FPT_H
#define KR_TESTS_FAKE_FPT_H

#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>

#include "fpt_symbols.h"
#include "kr_sdn_hal.h"

struct fake_fpt_control {
#define X(name) uint32_t name##_status;
    FPT_SYMBOLS(X)
#undef X
    void (*record)(const char *call); // may be null: the name of each entry point, as it is called
    uint32_t port;                    // of the last call that names one

    // What the setters were given, and what the getters answer.
    uint32_t stp_state, admin_state, oper_state, speed_capability, oper_speed, all_ports;
    uint16_t mtu;
    port_speed_admin admin_speed;
    port_mac_address mac_address;
    port_counters counters;
};

namespace kr_test {

// Loads the fake port plug-in at `path` for the life of the object and gives its control record, cleared.
class loaded_fake_fpt {
  public:
    explicit loaded_fake_fpt(const char *path) : library_(dlopen(path, RTLD_NOW)) {
        if (library_ == nullptr) {
            abort();
        }
        control_ = static_cast<fake_fpt_control *>(dlsym(library_, "fake_fpt"));
        *control_ = {};
    }
    ~loaded_fake_fpt() {
        *control_ = {};
        dlclose(library_);
    }
    loaded_fake_fpt(const loaded_fake_fpt &) = delete;
    loaded_fake_fpt &operator=(const loaded_fake_fpt &) = delete;

    fake_fpt_control *operator->() const {
        return control_;
    }

  private:
    void *library_;
    fake_fpt_control *control_;
};

} // namespace kr_test

#endif
