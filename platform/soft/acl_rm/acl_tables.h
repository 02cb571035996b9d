/*
 * The objects of the ACL resource manager: ACLs with their rules and port bindings, counters and multicast groups. This
 * is the device; handles, NULL arguments and the journal are the business of acl_rm_api.cpp. Every function here says
 * with an annotation how acl_lock has to be held. A call that fails has changed nothing.
 */
#ifndef KR_SOFT_ACL_TABLES_H
#define KR_SOFT_ACL_TABLES_H

#include <cstdint>

#include "acl_rm/acl_lock.h"
#include "kr_acl_rm.h"

namespace kr_soft {

kr_status acl_create(kr_acl_attributes *attributes) KR_ACL_REQUIRES(acl_lock);
kr_status acl_destroy(uint32_t acl_id) KR_ACL_REQUIRES(acl_lock);

kr_status acl_ports_bind(uint32_t acl_id, const uint32_t *log_ports, uint32_t count) KR_ACL_REQUIRES(acl_lock);
kr_status acl_ports_unbind(uint32_t acl_id, const uint32_t *log_ports, uint32_t count) KR_ACL_REQUIRES(acl_lock);

kr_status acl_rules_write(uint32_t acl_id, const kr_acl_rule *rules, uint32_t count) KR_ACL_REQUIRES(acl_lock);
kr_status acl_rules_delete(uint32_t acl_id, const kr_acl_rule *rules, uint32_t count) KR_ACL_REQUIRES(acl_lock);
// Alone among these it may stop half-way: at the first offset without a rule, with *count the number read before it.
kr_status acl_rules_read(uint32_t acl_id, kr_acl_rule *rules, uint32_t *count) KR_ACL_REQUIRES(acl_lock);
kr_status acl_rules_move(uint32_t acl_id, uint32_t old_start, uint32_t size, uint32_t new_start)
    KR_ACL_REQUIRES(acl_lock);

kr_status acl_counter_create(uint32_t *counter_id) KR_ACL_REQUIRES(acl_lock);
kr_status acl_counter_read(uint32_t counter_id, kr_acl_counter_values *values) KR_ACL_REQUIRES(acl_lock);
// Releases the counters that no rule names.
void acl_counters_unbound_release() KR_ACL_REQUIRES(acl_lock);

kr_status acl_group_create(const uint32_t *log_ports, uint32_t count, uint32_t *group_id) KR_ACL_REQUIRES(acl_lock);
kr_status acl_group_destroy(uint32_t group_id) KR_ACL_REQUIRES(acl_lock);
kr_status acl_group_ports_add(uint32_t group_id, const uint32_t *log_ports, uint32_t count) KR_ACL_REQUIRES(acl_lock);
kr_status acl_group_ports_remove(uint32_t group_id, const uint32_t *log_ports, uint32_t count)
    KR_ACL_REQUIRES(acl_lock);
// *count: in, room; out, members.
kr_status acl_group_read(uint32_t group_id, uint32_t *log_ports, uint32_t *count) KR_ACL_REQUIRES_SHARED(acl_lock);

// The ports that an ACL is bound to, in the order of binding; room for KR_SOFT_MAX_BINDINGS. Takes the lock itself.
uint32_t acl_bound_ports_get(uint32_t acl_id, uint32_t *log_ports);

// Removes everything.
void acl_tables_reset() KR_ACL_REQUIRES(acl_lock);

// Handles that are open: kept by acl_rm_api.cpp.
uint32_t acl_rm_handle_count() KR_ACL_REQUIRES_SHARED(acl_lock);
void acl_rm_handles_reset() KR_ACL_REQUIRES(acl_lock);

} // namespace kr_soft

#endif
