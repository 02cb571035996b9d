/*
 * The contract functions of the ACL resource manager: handles, commands and arguments are checked here, the work is
 * done in acl_tables.cpp under acl_lock. Every call has the same course: fault or body, journal line, and a message to
 * the log callback of the handle when it is refused.
 */
#include "kr_acl_rm.h"

#include <string>

#include "acl_rm/acl_lookup.h"
#include "acl_rm/acl_tables.h"
#include "control/contract_call.h"

namespace kr_soft {
namespace {

constexpr uint32_t max_handles = 64;
constexpr uint64_t first_handle = 0xAC10000000000001; // no handle of another library looks like it
constexpr uint32_t listed_max = 8;                    // elements of a list that the journal shows

struct open_handle {
    kr_acl_rm_handle value; // 0: free
    bool initialized;
    kr_log_callback log_callback;
};

struct state {
    open_handle handles[max_handles];
    uint32_t handle_count;
    uint64_t opened_count; // never goes back: a stale handle stays stale
};

constinit state g KR_ACL_GUARDED_BY(acl_lock){};

open_handle *handle_find(kr_acl_rm_handle value) KR_ACL_REQUIRES_SHARED(acl_lock) {
    for (open_handle &candidate : g.handles) {
        if (value != 0 && candidate.value == value) {
            return &candidate;
        }
    }
    return nullptr;
}

// Every call but open, init and close needs a handle that is open and initialised.
kr_status handle_check(kr_acl_rm_handle value) KR_ACL_REQUIRES_SHARED(acl_lock) {
    const open_handle *const found = handle_find(value);
    if (found == nullptr) {
        return KR_STATUS_INVALID_HANDLE;
    }
    return found->initialized ? KR_STATUS_SUCCESS : KR_STATUS_NOT_INITIALIZED;
}

kr_log_callback log_callback_of(kr_acl_rm_handle value) {
    const acl_shared lock;
    const open_handle *const found = handle_find(value);
    return found != nullptr ? found->log_callback : nullptr;
}

template <typename Body, typename Describe>
kr_status run(contract_function function, const char *name, kr_acl_rm_handle handle, Body body, Describe describe) {
    const kr_status status = contract_call(function, body, describe);
    if (status != KR_STATUS_SUCCESS) {
        if (const kr_log_callback callback = log_callback_of(handle); callback != nullptr) {
            callback(KR_LOG_ERROR, "ACL_RM", text_of("%s: %s", name, kr_status_str(status)).c_str());
        }
    }
    return status;
}

// Runs `body` as a contract function on an initialised handle, with the lock held exclusively.
template <typename Body, typename Describe>
kr_status run_on(contract_function function, const char *name, kr_acl_rm_handle handle, Body body, Describe describe) {
    return run(
        function, name, handle,
        [&]() -> kr_status {
            const acl_exclusive lock;
            const kr_status status = handle_check(handle);
            return status != KR_STATUS_SUCCESS ? status : body();
        },
        describe);
}

#define RUN_ON(function, handle, ...) run_on(contract_function::function, #function, handle, __VA_ARGS__)

// ---- texts of the journal -------------------------------------------------------------------------------------------

// element(i) for the elements of a list, the first few of a long one.
template <typename Element> std::string list_text(uint32_t count, Element element) {
    std::string text;
    for (uint32_t i = 0; i < count && i < listed_max; i++) {
        text += (i == 0 ? "" : ", ") + element(i);
    }
    return count > listed_max ? text + ", ..." : text;
}

std::string ports_text(const uint32_t *log_ports, uint32_t count) {
    if (log_ports == nullptr) {
        return "ports [], count " + std::to_string(count);
    }
    const std::string list = list_text(count, [=](uint32_t i) { return text_of("0x%x", log_ports[i]); });
    return "ports [" + list + "], count " + std::to_string(count);
}

std::string rule_text(const kr_acl_rule &rule) {
    std::string text = text_of("offset %u", rule.set_offset);
    if (rule.trap_action == KR_ACL_TRAP_ACTION_TRAP) {
        text += text_of(" trap %u", rule.trap_id);
    } else if (rule.trap_action == KR_ACL_TRAP_ACTION_DISCARD) {
        text += " discard";
    }
    if (rule.vlan_edit != KR_ACL_VLAN_EDIT_NONE) {
        text += text_of(" vlan_edit %u", rule.vlan_edit);
    }
    if (rule.forward_type == KR_ACL_FORWARD_PORT) {
        text += text_of(" port 0x%x", rule.forward_log_port);
    } else if (rule.forward_type == KR_ACL_FORWARD_GROUP) {
        text += text_of(" group %u", rule.forward_group_id);
    }
    return rule.counter_id != 0 ? text + text_of(" counter %u", rule.counter_id) : text;
}

std::string rules_set_text(uint32_t command, const kr_acl_rule *rules, uint32_t count) {
    return list_text(rules != nullptr ? count : 0, [=](uint32_t i) {
        return command == KR_ACL_RM_CMD_RULE_SET ? rule_text(rules[i]) : text_of("offset %u", rules[i].access_offset);
    });
}

std::string rules_get_text(const kr_acl_rule *rules, uint32_t count) {
    return list_text(rules != nullptr ? count : 0, [=](uint32_t i) {
        const std::string text = text_of("offset %u", rules[i].access_offset);
        return rules[i].activity_mode != 0 ? text + text_of(" activity_mode %u", rules[i].activity_mode) : text;
    });
}

std::string with_comma(const std::string &text) {
    return text.empty() ? text : text + ", ";
}

// ---- handles --------------------------------------------------------------------------------------------------------

kr_status handle_open(kr_acl_rm_handle *handle, kr_log_callback log_callback) {
    const acl_exclusive lock;
    for (open_handle &place : g.handles) {
        if (place.value == 0) {
            place = {first_handle + g.opened_count++, false, log_callback};
            g.handle_count++;
            *handle = place.value;
            return KR_STATUS_SUCCESS;
        }
    }
    return KR_STATUS_NO_RESOURCES;
}

kr_status handle_init(kr_acl_rm_handle handle, const kr_acl_rm_init_params *params) {
    const acl_exclusive lock;
    open_handle *const found = handle_find(handle);
    if (found == nullptr) {
        return KR_STATUS_INVALID_HANDLE;
    }
    if (params == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    if (params->mode != 1) {
        return KR_STATUS_PARAM_ERROR;
    }
    found->initialized = true;
    return KR_STATUS_SUCCESS;
}

kr_status handle_close(kr_acl_rm_handle *handle) {
    const acl_exclusive lock;
    open_handle *const found = handle_find(*handle);
    if (found == nullptr) {
        return KR_STATUS_INVALID_HANDLE;
    }
    *found = {};
    *handle = 0;
    if (--g.handle_count == 0) {
        acl_counters_unbound_release();
    }
    return KR_STATUS_SUCCESS;
}

// The list of a call that needs at least one element.
kr_status list_check(const void *list, uint32_t count) {
    if (list == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    return count == 0 ? KR_STATUS_PARAM_EXCEEDS_RANGE : KR_STATUS_SUCCESS;
}

kr_status group_set(uint32_t command, uint32_t port_count, const uint32_t *log_ports, uint32_t *group_id)
    KR_ACL_REQUIRES(acl_lock) {
    const bool has_list = command != KR_ACL_RM_CMD_GROUP_DESTROY;
    switch (command) {
    case KR_ACL_RM_CMD_GROUP_CREATE:
    case KR_ACL_RM_CMD_GROUP_DESTROY:
    case KR_ACL_RM_CMD_GROUP_ADD_PORTS:
    case KR_ACL_RM_CMD_GROUP_REMOVE_PORTS:
        break;
    default:
        return KR_STATUS_CMD_UNSUPPORTED;
    }
    if (group_id == nullptr || (has_list && log_ports == nullptr && port_count != 0)) {
        return KR_STATUS_PARAM_NULL;
    }
    switch (command) {
    case KR_ACL_RM_CMD_GROUP_CREATE:
        return acl_group_create(log_ports, port_count, group_id);
    case KR_ACL_RM_CMD_GROUP_DESTROY:
        return acl_group_destroy(*group_id);
    case KR_ACL_RM_CMD_GROUP_ADD_PORTS:
        return acl_group_ports_add(*group_id, log_ports, port_count);
    default:
        return acl_group_ports_remove(*group_id, log_ports, port_count);
    }
}

} // namespace

uint32_t acl_rm_handle_count() {
    return g.handle_count;
}

void acl_rm_handles_reset() {
    for (open_handle &place : g.handles) {
        place = {};
    }
    g.handle_count = 0;
}

} // namespace kr_soft

using namespace kr_soft;

// The lock is held wherever RUN_ON runs a body; clang does not see that through the template.
#if defined(__clang__)
#define UNDER_ACL_LOCK __attribute__((no_thread_safety_analysis))
#else
#define UNDER_ACL_LOCK
#endif

kr_status kr_acl_rm_api_open(kr_acl_rm_handle *handle, kr_log_callback log_callback) {
    return contract_call(
        contract_function::kr_acl_rm_api_open,
        [=] { return handle == nullptr ? uint32_t{KR_STATUS_PARAM_NULL} : handle_open(handle, log_callback); },
        [] { return std::string(); });
}

kr_status kr_acl_rm_api_init(kr_acl_rm_handle handle, const kr_acl_rm_init_params *params) {
    return run(
        contract_function::kr_acl_rm_api_init, "kr_acl_rm_api_init", handle,
        [=] { return handle_init(handle, params); },
        [=] { return params != nullptr ? text_of("mode %u", params->mode) : std::string("NULL"); });
}

kr_status kr_acl_rm_api_close(kr_acl_rm_handle *handle) {
    return contract_call(
        contract_function::kr_acl_rm_api_close,
        [=] { return handle == nullptr ? uint32_t{KR_STATUS_PARAM_NULL} : handle_close(handle); },
        [] { return std::string(); });
}

kr_status kr_acl_rm_api_acl_set(kr_acl_rm_handle handle, uint32_t command, kr_acl_attributes *attributes) {
    uint32_t acl_id = attributes != nullptr && command != KR_ACL_RM_CMD_CREATE ? attributes->acl_id : 0;
    return RUN_ON(
        kr_acl_rm_api_acl_set, handle,
        [&]() UNDER_ACL_LOCK -> kr_status {
            if (command != KR_ACL_RM_CMD_CREATE && command != KR_ACL_RM_CMD_DESTROY) {
                return KR_STATUS_CMD_UNSUPPORTED;
            }
            if (attributes == nullptr) {
                return KR_STATUS_PARAM_NULL;
            }
            if (command == KR_ACL_RM_CMD_DESTROY) {
                return acl_destroy(attributes->acl_id);
            }
            const kr_status status = acl_create(attributes);
            acl_id = status == KR_STATUS_SUCCESS ? attributes->acl_id : 0;
            return status;
        },
        [&] {
            const std::string text = text_of("cmd %u, acl %u", command, acl_id);
            return attributes == nullptr || command != KR_ACL_RM_CMD_CREATE
                       ? text
                       : text + text_of(", key_type %u, direction %u, size %u, size_max %u", attributes->key_type,
                                        attributes->direction, attributes->region_size, attributes->region_size_max);
        });
}

kr_status kr_acl_rm_api_acl_bind_port_set(kr_acl_rm_handle handle, uint32_t command, uint32_t acl_id,
                                          const uint32_t *log_ports, uint32_t count) {
    return RUN_ON(
        kr_acl_rm_api_acl_bind_port_set, handle,
        [=]() UNDER_ACL_LOCK -> kr_status {
            if (command != KR_ACL_RM_CMD_BIND && command != KR_ACL_RM_CMD_UNBIND) {
                return KR_STATUS_CMD_UNSUPPORTED;
            }
            if (const kr_status status = list_check(log_ports, count); status != KR_STATUS_SUCCESS) {
                return status;
            }
            return command == KR_ACL_RM_CMD_BIND ? acl_ports_bind(acl_id, log_ports, count)
                                                 : acl_ports_unbind(acl_id, log_ports, count);
        },
        [=] { return text_of("cmd %u, acl %u, ", command, acl_id) + ports_text(log_ports, count); });
}

kr_status kr_acl_rm_api_acl_rule_set(kr_acl_rm_handle handle, uint32_t command, uint32_t acl_id, kr_acl_rule *rules,
                                     uint32_t count) {
    return RUN_ON(
        kr_acl_rm_api_acl_rule_set, handle,
        [=]() UNDER_ACL_LOCK -> kr_status {
            if (command != KR_ACL_RM_CMD_RULE_SET && command != KR_ACL_RM_CMD_RULE_DELETE) {
                return KR_STATUS_CMD_UNSUPPORTED;
            }
            if (const kr_status status = list_check(rules, count); status != KR_STATUS_SUCCESS) {
                return status;
            }
            return command == KR_ACL_RM_CMD_RULE_SET ? acl_rules_write(acl_id, rules, count)
                                                     : acl_rules_delete(acl_id, rules, count);
        },
        [=] {
            return text_of("cmd %u, acl %u, ", command, acl_id) + with_comma(rules_set_text(command, rules, count)) +
                   text_of("count %u", count);
        });
}

kr_status kr_acl_rm_api_acl_rule_get(kr_acl_rm_handle handle, uint32_t acl_id, uint32_t reserved, kr_acl_rule *rules,
                                     uint32_t *count) {
    const uint32_t wanted = count != nullptr ? *count : 0;
    return RUN_ON(
        kr_acl_rm_api_acl_rule_get, handle,
        [=]() UNDER_ACL_LOCK -> kr_status {
            if (count == nullptr) {
                return KR_STATUS_PARAM_NULL;
            }
            if (const kr_status status = list_check(rules, *count); status != KR_STATUS_SUCCESS) {
                return status;
            }
            return reserved == 0 ? acl_rules_read(acl_id, rules, count) : uint32_t{KR_STATUS_PARAM_ERROR};
        },
        [=] {
            return text_of("acl %u, ", acl_id) + with_comma(rules_get_text(rules, wanted)) +
                   text_of("count %u", wanted);
        });
}

kr_status kr_acl_rm_api_acl_rule_move_block(kr_acl_rm_handle handle, uint32_t acl_id, uint32_t old_start, uint32_t size,
                                            uint32_t new_start) {
    return RUN_ON(
        kr_acl_rm_api_acl_rule_move_block, handle,
        [=]() UNDER_ACL_LOCK { return acl_rules_move(acl_id, old_start, size, new_start); },
        [=] { return text_of("acl %u, old_start %u, size %u, new_start %u", acl_id, old_start, size, new_start); });
}

kr_status kr_acl_rm_api_counter_set(kr_acl_rm_handle handle, uint32_t command,
                                    const kr_acl_counter_attributes *attributes, uint32_t *counter_id) {
    uint32_t created_id = 0;
    return RUN_ON(
        kr_acl_rm_api_counter_set, handle,
        [&]() UNDER_ACL_LOCK -> kr_status {
            if (command != KR_ACL_RM_CMD_CREATE) {
                return KR_STATUS_CMD_UNSUPPORTED;
            }
            if (attributes == nullptr || counter_id == nullptr) {
                return KR_STATUS_PARAM_NULL;
            }
            if (attributes->initial_state != 0 || attributes->counter_type != 1) {
                return KR_STATUS_PARAM_ERROR;
            }
            const kr_status status = acl_counter_create(&created_id);
            *counter_id = status == KR_STATUS_SUCCESS ? created_id : *counter_id;
            return status;
        },
        [&] { return text_of("cmd %u, counter %u", command, created_id); });
}

kr_status kr_acl_rm_api_counter_get(kr_acl_rm_handle handle, uint32_t command, uint32_t counter_id,
                                    kr_acl_counter_flags *flags, kr_acl_counter_values *values) {
    return RUN_ON(
        kr_acl_rm_api_counter_get, handle,
        [=]() UNDER_ACL_LOCK -> kr_status {
            if (command != KR_ACL_RM_CMD_COUNTER_READ) {
                return KR_STATUS_CMD_UNSUPPORTED;
            }
            if (flags == nullptr || values == nullptr) {
                return KR_STATUS_PARAM_NULL;
            }
            const kr_status status = acl_counter_read(counter_id, values);
            if (status == KR_STATUS_SUCCESS) {
                *flags = {.first_valid = 1, .second_valid = 1};
            }
            return status;
        },
        [=] { return text_of("cmd %u, counter %u", command, counter_id); });
}

kr_status kr_acl_rm_api_acl_mc_group_set(kr_acl_rm_handle handle, uint32_t command, uint32_t port_count,
                                         const uint32_t *log_ports, uint32_t *group_id) {
    uint32_t shown_id = group_id != nullptr && command != KR_ACL_RM_CMD_GROUP_CREATE ? *group_id : 0;
    return RUN_ON(
        kr_acl_rm_api_acl_mc_group_set, handle,
        [&]() UNDER_ACL_LOCK -> kr_status {
            const kr_status status = group_set(command, port_count, log_ports, group_id);
            shown_id = status == KR_STATUS_SUCCESS ? *group_id : shown_id;
            return status;
        },
        [&] { return text_of("cmd %u, group %u, ", command, shown_id) + ports_text(log_ports, port_count); });
}

kr_status kr_acl_rm_api_acl_mc_group_get(kr_acl_rm_handle handle, uint32_t group_id, uint32_t *port_count,
                                         uint32_t *log_ports) {
    const uint32_t room = port_count != nullptr ? *port_count : 0;
    return RUN_ON(
        kr_acl_rm_api_acl_mc_group_get, handle,
        [=]() UNDER_ACL_LOCK -> kr_status {
            if (port_count == nullptr || (log_ports == nullptr && room != 0)) {
                return KR_STATUS_PARAM_NULL;
            }
            return acl_group_read(group_id, log_ports, port_count);
        },
        [=] { return text_of("group %u, room %u", group_id, room); });
}
