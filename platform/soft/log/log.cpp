/*
 * The logger: formats a message and hands it to the callback of the last init, or writes it to standard error.
 *
 * No lock is held while a callback runs, so that it may log itself and several may run at once. Every delivery is
 * listed while it runs: who takes a callback away waits until no delivery uses it any more, because the code behind it
 * may be unloaded next.
 */
#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "control/contract_call.h"
#include "kr_log.h"

using kr_soft::contract_call;
using kr_soft::contract_function;
using kr_soft::text_of;

namespace {

constexpr size_t usual_text_size = 1024; // longer texts are formatted in memory of their own

// One message on its way; lives on the stack of the thread that logs.
struct delivery {
    uint64_t generation;
    delivery *next;
    delivery **link; // what points to this one
};

constinit struct {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t delivery_ended = PTHREAD_COND_INITIALIZER;
    kr_log_callback callback = nullptr;
    bool is_started = false;
    uint64_t generation = 0; // of the callback: each init and each close begins a new one
    delivery *deliveries = nullptr;
} g;

constinit thread_local uint32_t callback_depth = 0; // callbacks that this thread is in

class state_lock {
  public:
    state_lock() {
        pthread_mutex_lock(&g.mutex);
    }
    ~state_lock() {
        pthread_mutex_unlock(&g.mutex);
    }
    state_lock(const state_lock &) = delete;
    state_lock &operator=(const state_lock &) = delete;
};

const char *severity_name(uint32_t severity) {
    switch (severity) {
    case KR_LOG_ERROR:
        return "error";
    case KR_LOG_WARNING:
        return "warning";
    case KR_LOG_NOTICE:
        return "notice";
    case KR_LOG_DEBUG:
        return "debug";
    case KR_LOG_FUNCTION:
        return "trace";
    default:
        return "log";
    }
}

// The stream's own lock keeps the line whole.
void write_to_stderr(uint32_t severity, const char *module, std::string_view text) {
    const bool has_newline = text.ends_with('\n');
    fprintf(stderr, "%s: %s: %.*s%s", severity_name(severity), module, static_cast<int>(text.size()), text.data(),
            has_newline ? "" : "\n");
}

void delivery_begin(delivery &current) {
    current.generation = g.generation;
    current.next = g.deliveries;
    current.link = &g.deliveries;
    if (current.next != nullptr) {
        current.next->link = &current.next;
    }
    g.deliveries = &current;
}

void delivery_end(delivery &current) {
    const state_lock lock;
    *current.link = current.next;
    if (current.next != nullptr) {
        current.next->link = current.link;
    }
    pthread_cond_broadcast(&g.delivery_ended);
}

bool is_in_use(uint64_t generation) {
    for (const delivery *current = g.deliveries; current != nullptr; current = current->next) {
        if (current->generation <= generation) {
            return true;
        }
    }
    return false;
}

void deliver(uint32_t severity, const char *module, const char *text) {
    kr_log_callback callback = nullptr;
    bool is_started = false;
    delivery current;
    {
        const state_lock lock;
        callback = g.callback;
        is_started = g.is_started;
        if (callback != nullptr) {
            delivery_begin(current);
        }
    }
    if (callback != nullptr) {
        callback_depth++;
        callback(severity, module, text);
        callback_depth--;
        delivery_end(current);
    } else if (is_started || severity == KR_LOG_ERROR) {
        write_to_stderr(severity, module, text);
    }
}

/*
 * Puts `callback` in the place of the present one and waits for the deliveries that use that. From within a callback
 * it can't wait: it would wait for itself. The lock is held.
 */
void callback_replace(kr_log_callback callback, bool is_started) {
    const uint64_t replaced = g.generation++;
    g.callback = callback;
    g.is_started = is_started;
    while (callback_depth == 0 && is_in_use(replaced)) {
        pthread_cond_wait(&g.delivery_ended, &g.mutex);
    }
}

} // namespace

kr_status kr_log_init(uint32_t mode, void *, kr_log_callback callback) {
    return contract_call(
        contract_function::kr_log_init,
        [&]() -> kr_status {
            const state_lock lock;
            callback_replace(callback, true);
            return KR_STATUS_SUCCESS;
        },
        [&] { return text_of("%u, %s", mode, callback == nullptr ? "NULL" : "callback"); });
}

kr_status kr_log_close(void) {
    return contract_call(
        contract_function::kr_log_close,
        []() -> kr_status {
            const state_lock lock;
            if (!g.is_started) {
                return KR_STATUS_NOT_INITIALIZED;
            }
            callback_replace(nullptr, false);
            return KR_STATUS_SUCCESS;
        },
        [] { return std::string(); });
}

void kr_log(uint32_t severity, const char *module, const char *format, ...) {
    const int saved_errno = errno;
    char usual[usual_text_size];
    char *text = usual;
    std::unique_ptr<char, decltype(&free)> longer(nullptr, free);

    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(usual, sizeof usual, format, arguments);
    if (length >= static_cast<int>(sizeof usual)) {
        longer.reset(static_cast<char *>(malloc(static_cast<size_t>(length) + 1)));
        if (longer != nullptr && vsnprintf(longer.get(), static_cast<size_t>(length) + 1, format, again) == length) {
            text = longer.get(); // without memory the beginning has to do
        }
    } else if (length < 0) {
        snprintf(usual, sizeof usual, "%s", format); // arguments that can't be shown must not hide the message
    }
    va_end(again);
    va_end(arguments);

    deliver(severity, module == nullptr ? "" : module, text);
    errno = saved_errno;
}
