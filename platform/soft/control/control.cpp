/*
 * Control of the switch as a whole: reset, usage and dump, each the sum of what the platform's modules contribute, and
 * the view into the rule tables. Ports and frames are controlled in the data plane, faults in contract_call.cpp.
 */
#include "control/kr_soft.h"

#include <cstdio>

#include "acl_rm/acl_lookup.h"
#include "control/contract_call.h"
#include "dataplane/switch_ports.h"
#include "host_ifc/trap_delivery.h"

using namespace kr_soft;

void kr_soft_reset(void) {
    dataplane_reset(); // first: no frame meets what follows half-way
    host_ifc_reset();
    acl_rm_reset();
    contract_call_reset();
}

void kr_soft_usage_get(kr_soft_usage *usage) {
    if (usage == nullptr) {
        return;
    }
    *usage = {};
    acl_rm_usage_fill(usage);
    dataplane_usage_fill(usage);
    host_ifc_usage_fill(usage);
}

void kr_soft_dump(void *stream) {
    if (stream == nullptr) {
        return;
    }
    auto *const file = static_cast<FILE *>(stream);
    acl_rm_dump(file);
    dataplane_dump(file);
    host_ifc_dump(file);
    fflush(file);
}

kr_status kr_soft_rules_get(uint32_t acl_id, kr_soft_rule_state *rules, uint32_t *count) {
    if (count == nullptr || (rules == nullptr && *count != 0)) {
        return KR_STATUS_PARAM_NULL;
    }
    return acl_rm_rules_get(acl_id, rules, count);
}

kr_status kr_soft_acls_get(uint32_t *acl_ids, uint32_t *count) {
    if (count == nullptr || (acl_ids == nullptr && *count != 0)) {
        return KR_STATUS_PARAM_NULL;
    }
    return acl_rm_acls_get(acl_ids, count);
}
