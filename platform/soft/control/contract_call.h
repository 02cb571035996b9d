/*
 * How a contract function of the software platform runs: through one helper that knows about faults and the journal.
 *
 * With neither a fault pending nor the journal on, a call costs one relaxed load more than its body. Every module of
 * the platform uses this header; its list of functions is the one place where they are named.
 */
#ifndef KR_SOFT_CONTRACT_CALL_H
#define KR_SOFT_CONTRACT_CALL_H

#include <atomic>
#include <cstdint>
#include <string>
#include <type_traits>

#include "kr_status.h"

// Every contract function that can fail, by library.
#define KR_SOFT_CONTRACT_FUNCTIONS(X)                                                                                  \
    X(kr_api_open)                                                                                                     \
    X(kr_api_close)                                                                                                    \
    X(kr_api_port_state_get)                                                                                           \
    X(kr_api_host_ifc_open)                                                                                            \
    X(kr_api_host_ifc_close)                                                                                           \
    X(kr_api_host_ifc_trap_id_register_set)                                                                            \
    X(kr_lib_host_ifc_recv)                                                                                            \
    X(kr_lib_host_ifc_unicast_ctrl_send)                                                                               \
    X(kr_acl_rm_api_open)                                                                                              \
    X(kr_acl_rm_api_init)                                                                                              \
    X(kr_acl_rm_api_close)                                                                                             \
    X(kr_acl_rm_api_acl_set)                                                                                           \
    X(kr_acl_rm_api_acl_bind_port_set)                                                                                 \
    X(kr_acl_rm_api_acl_rule_set)                                                                                      \
    X(kr_acl_rm_api_acl_rule_get)                                                                                      \
    X(kr_acl_rm_api_acl_rule_move_block)                                                                               \
    X(kr_acl_rm_api_counter_set)                                                                                       \
    X(kr_acl_rm_api_counter_get)                                                                                       \
    X(kr_acl_rm_api_acl_mc_group_set)                                                                                  \
    X(kr_acl_rm_api_acl_mc_group_get)                                                                                  \
    X(psort_init)                                                                                                      \
    X(psort_entry_set)                                                                                                 \
    X(psort_clear_table)                                                                                               \
    X(psort_background_worker)                                                                                         \
    X(kr_log_init)                                                                                                     \
    X(kr_log_close)                                                                                                    \
    X(cl_malloc)                                                                                                       \
    X(cl_qpool_init)                                                                                                   \
    X(cl_qpool_get)                                                                                                    \
    X(cl_plock_init)                                                                                                   \
    X(cl_plock_destroy)                                                                                                \
    X(cl_event_init)                                                                                                   \
    X(cl_event_destroy)                                                                                                \
    X(cl_event_signal)                                                                                                 \
    X(cl_event_wait_on)                                                                                                \
    X(cl_thread_init)                                                                                                  \
    X(cl_thread_destroy)

namespace kr_soft {

enum class contract_function : uint32_t {
#define X(name) name,
    KR_SOFT_CONTRACT_FUNCTIONS(X)
#undef X
        count
};

namespace detail {
extern std::atomic<uint32_t> hooks_armed; // not 0: a fault is pending or the journal is on

// Counts the call; true when it has to fail with *code.
bool fault_due(contract_function function, uint32_t *code);
bool journal_on();
void journal_write(contract_function function, const std::string &arguments, const char *result);
std::string result_text(uint32_t status);
std::string result_text(const void *pointer); // "pointer" or "NULL": addresses differ from run to run
inline std::string result_text(void *pointer) {
    return result_text(static_cast<const void *>(pointer));
}

template <typename Result> Result failure(uint32_t code) {
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        return static_cast<Result>(code);
    }
}
} // namespace detail

/*
 * Runs `body` as the contract function `function`, or fails in its place when a fault is due. `describe` returns the
 * arguments as text for the journal; it is called after the body, so it may show outputs.
 */
template <typename Body, typename Describe>
auto contract_call(contract_function function, Body body, Describe describe) -> decltype(body()) {
    using result_type = decltype(body());
    if (__builtin_expect(detail::hooks_armed.load(std::memory_order_relaxed) == 0, 1)) {
        return body();
    }
    uint32_t code = 0;
    const bool faulty = detail::fault_due(function, &code);
    const result_type result = faulty ? detail::failure<result_type>(code) : body();
    if (detail::journal_on()) {
        detail::journal_write(function, describe(), detail::result_text(result).c_str());
    }
    return result;
}

/* The same for a function that returns nothing: it cannot fail, but is counted and in the journal. */
template <typename Body, typename Describe>
void contract_call_void(contract_function function, Body body, Describe describe) {
    if (__builtin_expect(detail::hooks_armed.load(std::memory_order_relaxed) == 0, 1)) {
        body();
        return;
    }
    uint32_t code = 0;
    (void)detail::fault_due(function, &code);
    body();
    if (detail::journal_on()) {
        detail::journal_write(function, describe(), "");
    }
}

// printf into a string, for the arguments of the journal.
__attribute__((format(printf, 1, 2))) std::string text_of(const char *format, ...);

// Drops faults, counts and the journal; part of kr_soft_reset.
void contract_call_reset();

} // namespace kr_soft

#endif
