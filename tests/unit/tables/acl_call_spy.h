/*
 * Stands in front of the platform's calls that carry a record and keeps a copy of what the library passed, byte for
 * byte, before the platform sees it. It defines functions: include it in one source of a program.
 */
#ifndef KR_TESTS_ACL_CALL_SPY_H
#define KR_TESTS_ACL_CALL_SPY_H

#include <dlfcn.h>

#include <cstring>
#include <vector>

#include "kr_acl_rm.h"
#include "kr_psort.h"

namespace kr_test {

using bytes = std::vector<unsigned char>;

struct seen_call {
    uint32_t command;
    uint32_t acl_id;
    bytes record;
};

struct acl_call_spy {
    std::vector<seen_call> rule_set, rule_get, acl_set, acl_init, counter_set, psort_init, psort_entry_set;
    // What the next counter read shall find, instead of the platform's answer.
    bool has_counter_answer = false;
    kr_acl_counter_flags counter_flags{};
    kr_acl_counter_values counter_values{};
};

inline acl_call_spy spy;

template <typename Function> Function *platform_function(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

template <typename Record> seen_call seen(uint32_t command, uint32_t acl_id, const Record *record) {
    bytes copy(sizeof(Record));
    memcpy(copy.data(), record, sizeof(Record));
    return {command, acl_id, copy};
}

} // namespace kr_test

#define KR_SPY(function) static auto *const platform = kr_test::platform_function<decltype(function)>(#function)

extern "C" {

kr_status kr_acl_rm_api_init(kr_acl_rm_handle handle, const kr_acl_rm_init_params *params) {
    KR_SPY(kr_acl_rm_api_init);
    kr_test::spy.acl_init.push_back(kr_test::seen(0, 0, params));
    return platform(handle, params);
}

kr_status kr_acl_rm_api_acl_set(kr_acl_rm_handle handle, uint32_t command, kr_acl_attributes *attributes) {
    KR_SPY(kr_acl_rm_api_acl_set);
    kr_test::spy.acl_set.push_back(kr_test::seen(command, 0, attributes));
    return platform(handle, command, attributes);
}

kr_status kr_acl_rm_api_acl_rule_set(kr_acl_rm_handle handle, uint32_t command, uint32_t acl_id, kr_acl_rule *rules,
                                     uint32_t count) {
    KR_SPY(kr_acl_rm_api_acl_rule_set);
    kr_test::spy.rule_set.push_back(kr_test::seen(command, acl_id, rules));
    return platform(handle, command, acl_id, rules, count);
}

kr_status kr_acl_rm_api_acl_rule_get(kr_acl_rm_handle handle, uint32_t acl_id, uint32_t reserved, kr_acl_rule *rules,
                                     uint32_t *count) {
    KR_SPY(kr_acl_rm_api_acl_rule_get);
    kr_test::spy.rule_get.push_back(kr_test::seen(reserved, acl_id, rules));
    return platform(handle, acl_id, reserved, rules, count);
}

kr_status kr_acl_rm_api_counter_set(kr_acl_rm_handle handle, uint32_t command,
                                    const kr_acl_counter_attributes *attributes, uint32_t *counter_id) {
    KR_SPY(kr_acl_rm_api_counter_set);
    kr_test::spy.counter_set.push_back(kr_test::seen(command, 0, attributes));
    return platform(handle, command, attributes, counter_id);
}

kr_status kr_acl_rm_api_counter_get(kr_acl_rm_handle handle, uint32_t command, uint32_t counter_id,
                                    kr_acl_counter_flags *flags, kr_acl_counter_values *values) {
    KR_SPY(kr_acl_rm_api_counter_get);
    if (kr_test::spy.has_counter_answer) {
        *flags = kr_test::spy.counter_flags;
        *values = kr_test::spy.counter_values;
        return KR_STATUS_SUCCESS;
    }
    return platform(handle, command, counter_id, flags, values);
}

kr_utils_status psort_init(psort_handle *handle, const psort_table_attributes *attributes) {
    KR_SPY(psort_init);
    kr_test::spy.psort_init.push_back(kr_test::seen(0, 0, attributes));
    return platform(handle, attributes);
}

kr_utils_status psort_entry_set(psort_handle handle, uint32_t command, psort_entry *entry) {
    KR_SPY(psort_entry_set);
    kr_test::spy.psort_entry_set.push_back(kr_test::seen(command, 0, entry));
    return platform(handle, command, entry);
}
}

#endif
