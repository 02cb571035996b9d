/*
 * Faults and the journal of contract calls: the slow path behind contract_call.h, taken only while something is armed.
 */
#include "control/contract_call.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <vector>

#include "control/kr_soft.h"

namespace kr_soft {
namespace detail {
std::atomic<uint32_t> hooks_armed{0};
}

namespace {

constexpr auto function_count = static_cast<uint32_t>(contract_function::count);
constexpr uint32_t any_function = function_count;

constexpr std::array<const char *, function_count> function_names = {
#define X(name) #name,
    KR_SOFT_CONTRACT_FUNCTIONS(X)
#undef X
};

struct fault {
    uint32_t function; // any_function: whichever is called
    uint32_t calls_until;
    uint32_t code;
    bool persistent;
};

struct hook_state {
    std::mutex mutex;
    std::vector<fault> faults;
    std::array<uint64_t, function_count> call_counts{};
    std::string journal;
    bool journal_on = false;
};

hook_state &state() {
    // Never destroyed: threads of the platform may still call while the process ends.
    static auto *const instance = new hook_state;
    return *instance;
}

// The index of a name, any_function for "*", or any_function + 1 for a name that is not a contract function.
uint32_t function_index(const char *name) {
    if (name == nullptr) {
        return any_function + 1;
    }
    if (std::string_view(name) == "*") {
        return any_function;
    }
    for (uint32_t i = 0; i < function_count; i++) {
        if (std::string_view(name) == function_names[i]) {
            return i;
        }
    }
    return any_function + 1;
}

void update_armed(const hook_state &hooks) {
    detail::hooks_armed.store(hooks.journal_on || !hooks.faults.empty() ? 1 : 0, std::memory_order_relaxed);
}

} // namespace

namespace detail {

bool fault_due(contract_function function, uint32_t *code) {
    hook_state &hooks = state();
    const std::lock_guard lock(hooks.mutex);
    const auto index = static_cast<uint32_t>(function);
    hooks.call_counts[index]++;

    bool due = false;
    for (auto it = hooks.faults.begin(); it != hooks.faults.end();) {
        if (it->function != any_function && it->function != index) {
            ++it;
        } else if (it->calls_until > 0) {
            it->calls_until--;
            ++it;
        } else if (due) {
            ++it;
        } else {
            due = true;
            *code = it->code;
            it = it->persistent ? it + 1 : hooks.faults.erase(it);
        }
    }
    update_armed(hooks);
    return due;
}

bool journal_on() {
    const std::lock_guard lock(state().mutex);
    return state().journal_on;
}

void journal_write(contract_function function, const std::string &arguments, const char *result) {
    hook_state &hooks = state();
    const std::lock_guard lock(hooks.mutex);
    if (!hooks.journal_on) {
        return;
    }
    hooks.journal += function_names[static_cast<uint32_t>(function)];
    hooks.journal += '(' + arguments + ')';
    if (*result != '\0') {
        hooks.journal += " = ";
        hooks.journal += result;
    }
    hooks.journal += '\n';
}

std::string result_text(uint32_t status) {
    return std::to_string(status);
}

std::string result_text(const void *pointer) {
    return pointer == nullptr ? "NULL" : "pointer";
}

} // namespace detail

std::string text_of(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int size = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (size < 0) {
        return {};
    }
    std::string copy(text, static_cast<size_t>(size));
    free(text);
    return copy;
}

void contract_call_reset() {
    hook_state &hooks = state();
    const std::lock_guard lock(hooks.mutex);
    hooks.faults.clear();
    hooks.call_counts.fill(0);
    hooks.journal.clear();
    hooks.journal_on = false;
    update_armed(hooks);
}

} // namespace kr_soft

using kr_soft::any_function;

kr_status kr_soft_fault_set(const char *function, uint32_t nth, uint32_t code, uint32_t persistent) {
    const uint32_t index = kr_soft::function_index(function);
    if (index > any_function) {
        return KR_STATUS_PARAM_ERROR;
    }
    kr_soft::hook_state &hooks = kr_soft::state();
    const std::lock_guard lock(hooks.mutex);
    hooks.faults.push_back({index, nth, code, persistent != 0});
    kr_soft::update_armed(hooks);
    return KR_STATUS_SUCCESS;
}

void kr_soft_fault_clear(void) {
    kr_soft::hook_state &hooks = kr_soft::state();
    const std::lock_guard lock(hooks.mutex);
    hooks.faults.clear();
    kr_soft::update_armed(hooks);
}

uint64_t kr_soft_call_count(const char *function) {
    const uint32_t index = kr_soft::function_index(function);
    kr_soft::hook_state &hooks = kr_soft::state();
    const std::lock_guard lock(hooks.mutex);
    if (index < any_function) {
        return hooks.call_counts[index];
    }
    uint64_t sum = 0;
    for (const uint64_t count : hooks.call_counts) {
        sum += index == any_function ? count : 0;
    }
    return sum;
}

void kr_soft_journal_start(void) {
    kr_soft::hook_state &hooks = kr_soft::state();
    const std::lock_guard lock(hooks.mutex);
    hooks.journal.clear();
    hooks.journal_on = true;
    kr_soft::update_armed(hooks);
}

void kr_soft_journal_stop(void) {
    kr_soft::hook_state &hooks = kr_soft::state();
    const std::lock_guard lock(hooks.mutex);
    hooks.journal_on = false;
    kr_soft::update_armed(hooks);
}

char *kr_soft_journal_text(void) {
    const std::lock_guard lock(kr_soft::state().mutex);
    return strdup(kr_soft::state().journal.c_str());
}
