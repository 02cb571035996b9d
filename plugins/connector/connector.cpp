/*
 * The reference connector: the eight functions that the library resolves, and the thread that delivers events to it.
 *
 * The ports are Linux interfaces that the connector adds to the software switch; which ones is read from a file. What
 * the thread does is in switch_driver; here are its life and the order of the calls.
 */
#include "kr_connector.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include "connector_config.h"
#include "connector_log.h"
#include "control_socket.h"
#include "kr_sdn_hal.h"
#include "log_sink.h"
#include "switch_driver.h"

namespace kr_connector {
namespace {

constexpr const char *config_path_variable = "KR_CONNECTOR_CONFIG";
constexpr const char *config_path_default = "/etc/krsdnhal/connector.conf";
constexpr const char *control_path_variable = "KR_CONNECTOR_CONTROL";

// What exists from conn_init to conn_deinit.
struct connector {
    std::string config_path;
    std::string control_path; // empty: no control socket
    config_result config;
    library_callbacks library;

    // From conn_init_done_shim on.
    delivery_gate gate;
    std::unique_ptr<switch_driver> driver;
    control_socket control;
    kr_plugin::unique_fd wake;
    std::atomic<bool> is_start_requested{false};
    std::thread thread;
};

struct connector_state {
    std::mutex lock;     // serialises the conn_* calls, except conn_log
    connector *instance; // never freed at process exit: the thread may still be on its way
};
constinit connector_state g{};

std::string from_environment(const char *variable, const char *otherwise) {
    const char *value = std::getenv(variable);
    return value == nullptr || *value == '\0' ? otherwise : value;
}

void wake_up(const connector &c) {
    const uint64_t one = 1;
    (void)!write(c.wake.get(), &one, sizeof(one)); // fails only when it is awake already
}

// One turn of the thread: waits until something happens, and deals with it.
void turn(connector &c) {
    std::vector<pollfd> descriptors = {
        {c.wake.get(), POLLIN, 0}, {c.driver->link_fd(), POLLIN, 0}, {c.driver->file_fd(), POLLIN, 0}};
    c.control.poll_add(&descriptors);
    if (poll(descriptors.data(), descriptors.size(), c.control.poll_timeout_ms()) < 0 && errno != EINTR) {
        log_error(std::string("poll: ") + std::strerror(errno));
    }
    uint64_t count = 0;
    (void)!read(c.wake.get(), &count, sizeof(count)); // non-blocking
    if (c.is_start_requested.exchange(false)) {
        c.driver->start_request();
    }
    c.driver->reconcile();
    if (!c.gate.is_closed()) {
        c.control.serve([&](const std::string &line) { return c.driver->command(line); });
    }
}

void thread_main(connector &c) {
    while (!c.gate.is_closed()) {
        try {
            turn(c);
        } catch (const std::bad_alloc &) {
            log_sink_write(KR_LOG_ERROR, "CONNECTOR", "out of memory");
        }
    }
}

// Signals are the client's business: the thread takes none.
void thread_start(connector &c) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        c.thread = std::thread(thread_main, std::ref(c));
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

kr_sdn_hal_status initialise(kr_log_callback log_callback) {
    connector_log_to(log_callback);
    log_sink_configure({});
    auto c = std::make_unique<connector>();
    c->config_path = from_environment(config_path_variable, config_path_default);
    c->control_path = from_environment(control_path_variable, "");
    c->config = config_read(c->config_path);
    if (c->config.ok) {
        log_sink_configure(c->config.config.log);
    }
    for (const config_mistake &mistake : c->config.mistakes) {
        log_error(config_mistake_text(c->config_path, mistake));
    }
    g.instance = c.release();
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status run(connector &c) {
    if (c.thread.joinable()) {
        c.is_start_requested = true;
        wake_up(c);
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    std::string why;
    auto driver = std::make_unique<switch_driver>(c.library, c.config_path, c.config.config, c.gate);
    kr_plugin::unique_fd wake(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)); // 1: the first turn does not wait
    if (!wake) {
        why = std::strerror(errno);
    }
    if (!wake || !driver->open(&why) || (!c.control_path.empty() && !c.control.open(c.control_path, &why))) {
        log_error("the connector can't run: " + why);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    c.driver = std::move(driver);
    c.wake = std::move(wake);
    thread_start(c);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status finish(connector &c) {
    if (c.thread.joinable()) {
        if (c.thread.get_id() == std::this_thread::get_id() || !c.gate.close()) {
            log_error("the connector can't end: a port removal waits for its acknowledgement");
            return KR_SDN_HAL_STATUS_RESOURCE_IN_USE;
        }
        wake_up(c);
        c.thread.join();
    }
    delete &c;
    g.instance = nullptr;
    connector_log_to(nullptr);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

// Every exported call: under the lock, on an initialised connector, and without an exception that gets out.
template <typename F> uint32_t with_connector(F function) noexcept {
    try {
        const std::lock_guard guard(g.lock);
        return g.instance == nullptr ? KR_SDN_HAL_STATUS_NOT_INITIALIZED : function(*g.instance);
    } catch (const std::bad_alloc &) {
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    } catch (...) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
}

} // namespace
} // namespace kr_connector

using kr_connector::connector;

uint32_t conn_init(kr_log_callback log_callback) {
    try {
        const std::lock_guard guard(kr_connector::g.lock);
        return kr_connector::g.instance != nullptr ? KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS
                                                   : kr_connector::initialise(log_callback);
    } catch (...) {
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    }
}

// The result of conn_init is ignored, so a bad configuration is refused here: the first call whose result counts.
uint32_t conn_config_callback_register(conn_config_callback callback) {
    return kr_connector::with_connector([=](connector &c) {
        if (callback == nullptr) {
            return KR_SDN_HAL_STATUS_PARAM_NULL;
        }
        c.library.config = callback;
        return c.config.ok ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_PARAM_ERROR;
    });
}

uint32_t conn_event_callback_register(conn_event_callback callback, uint32_t event_mask) {
    return kr_connector::with_connector([=](connector &c) {
        if (callback == nullptr) {
            return KR_SDN_HAL_STATUS_PARAM_NULL;
        }
        c.library.event = callback;
        c.library.event_mask = event_mask;
        return KR_SDN_HAL_STATUS_SUCCESS;
    });
}

uint32_t conn_init_done_hal(void) {
    return kr_connector::with_connector([](connector &c) {
        return c.config.ok && c.library.config != nullptr && c.library.event != nullptr
                   ? KR_SDN_HAL_STATUS_SUCCESS
                   : KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    });
}

uint32_t conn_init_done_shim(void) {
    return kr_connector::with_connector([](connector &c) {
        return c.config.ok && c.library.config != nullptr && c.library.event != nullptr
                   ? kr_connector::run(c)
                   : KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    });
}

uint32_t conn_deinit(void) {
    return kr_connector::with_connector([](connector &c) { return kr_connector::finish(c); });
}

uint32_t conn_config_params_get(void) {
    return KR_SDN_HAL_STATUS_SUCCESS;
}

void conn_log(uint32_t severity, const char *module, const char *text) {
    kr_connector::log_sink_write(severity, module, text);
}
