/*
 * The tables of the ACL resource manager, and the match of each frame against them.
 *
 * A rule lives in a slot that it keeps while it moves: a block move changes where slots stand and the bits of the
 * matcher, never the counts. What a frame needs of a rule is one cache line; the record as it was written is beside it.
 * Identifiers are handed out in turn and come back last, so that a stale one is found out rather than taken for
 * another.
 */
#include "acl_rm/acl_tables.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <new>

#include "acl_rm/acl_lookup.h"
#include "acl_rm/ternary_matcher.h"

namespace kr_soft {
namespace {

constexpr uint16_t no_slot = UINT16_MAX;
constexpr uint32_t max_rules = KR_SOFT_MAX_RULES;
constexpr uint32_t max_members = KR_SOFT_MAX_PORTS;
static_assert(max_rules <= ternary_matcher::capacity && max_rules < no_slot);

constexpr uint32_t known_vlan_edits[] = {
    KR_ACL_VLAN_EDIT_NONE, KR_ACL_VLAN_EDIT_SET_PCP,  KR_ACL_VLAN_EDIT_SET_VID,     KR_ACL_VLAN_EDIT_SET_VID_PCP,
    KR_ACL_VLAN_EDIT_POP,  KR_ACL_VLAN_EDIT_PUSH_VID, KR_ACL_VLAN_EDIT_PUSH_VID_PCP};

// Ids 1 to `size`: fresh ones first, then the one that came back the longest ago. 0: none left.
template <uint32_t size> struct id_pool {
    uint32_t fresh_count = 0; // ids that were never handed out follow this one
    uint32_t first = 0, returned_count = 0;
    std::array<uint32_t, size> returned{};

    uint32_t take() {
        if (fresh_count < size) {
            return ++fresh_count;
        }
        if (returned_count == 0) {
            return 0;
        }
        const uint32_t id = returned[first];
        first = (first + 1) % size;
        returned_count--;
        return id;
    }
    void give_back(uint32_t id) {
        returned[(first + returned_count++) % size] = id;
    }
};

// What a hit reads and writes of a rule.
struct alignas(64) rule_hot {
    rule_action action;
    uint32_t counter_id; // 0: none
    std::atomic<uint32_t> active;
    std::atomic<uint64_t> bytes, packets;
};
static_assert(sizeof(rule_hot) == 64);

struct acl {
    uint32_t region_size;
    uint32_t rule_count = 0;
    uint16_t slot_at[max_rules];    // by offset; no_slot where no rule is
    uint16_t free_slots[max_rules]; // a stack of region_size - rule_count
    kr_acl_rule records[max_rules]; // by slot
    rule_hot hot[max_rules];        // by slot
    ternary_matcher matcher;

    explicit acl(uint32_t size) : region_size(size) {
        for (uint32_t i = 0; i < size; i++) {
            slot_at[i] = no_slot;
            free_slots[i] = static_cast<uint16_t>(size - 1 - i); // slot 0 is taken first
        }
    }
};

struct counter {
    bool in_use;
    uint32_t rule_count; // that name it
    std::atomic<uint64_t> bytes, packets;
};

struct group {
    bool in_use;
    uint32_t member_count;
    uint32_t members[max_members];
};

struct binding {
    uint32_t log_port;
    uint32_t acl_id;
};

constexpr uint32_t binding_buckets = 2 * KR_SOFT_MAX_BINDINGS;
static_assert((binding_buckets & (binding_buckets - 1)) == 0);

struct state {
    acl *acls[KR_SOFT_MAX_ACLS]; // by id - 1
    uint32_t acl_count;
    id_pool<KR_SOFT_MAX_ACLS> acl_ids;

    binding bindings[KR_SOFT_MAX_BINDINGS]; // in the order of binding
    uint32_t binding_count;
    uint8_t binding_index[binding_buckets]; // open addressing: place in `bindings` + 1; 0: free

    counter counters[KR_SOFT_MAX_COUNTERS]; // by id - 1
    uint32_t counter_count;
    id_pool<KR_SOFT_MAX_COUNTERS> counter_ids;

    group groups[KR_SOFT_MAX_GROUPS]; // by id - 1
    uint32_t group_count;
    id_pool<KR_SOFT_MAX_GROUPS> group_ids;

    uint64_t moved_rule_count, block_move_count;
};
static_assert(KR_SOFT_MAX_BINDINGS < UINT8_MAX);

constinit state g KR_ACL_GUARDED_BY(acl_lock){};

acl *acl_find(uint32_t acl_id) KR_ACL_REQUIRES_SHARED(acl_lock) {
    return acl_id - 1 < KR_SOFT_MAX_ACLS ? g.acls[acl_id - 1] : nullptr; // id 0 wraps around
}

counter *counter_find(uint32_t counter_id) KR_ACL_REQUIRES_SHARED(acl_lock) {
    counter *const found = counter_id - 1 < KR_SOFT_MAX_COUNTERS ? &g.counters[counter_id - 1] : nullptr;
    return found != nullptr && found->in_use ? found : nullptr;
}

group *group_find(uint32_t group_id) KR_ACL_REQUIRES_SHARED(acl_lock) {
    group *const found = group_id - 1 < KR_SOFT_MAX_GROUPS ? &g.groups[group_id - 1] : nullptr;
    return found != nullptr && found->in_use ? found : nullptr;
}

// ---- bindings -------------------------------------------------------------------------------------------------------

uint32_t binding_bucket(uint32_t log_port) {
    return log_port * 0x9E3779B1U >> 24 & (binding_buckets - 1);
}
static_assert(binding_buckets == 256, "the hash has eight bits");

binding *binding_find(uint32_t log_port) KR_ACL_REQUIRES_SHARED(acl_lock) {
    for (uint32_t bucket = binding_bucket(log_port); g.binding_index[bucket] != 0;
         bucket = (bucket + 1) % binding_buckets) {
        binding *const found = &g.bindings[g.binding_index[bucket] - 1];
        if (found->log_port == log_port) {
            return found;
        }
    }
    return nullptr;
}

void binding_index_add(uint32_t place) KR_ACL_REQUIRES(acl_lock) {
    uint32_t bucket = binding_bucket(g.bindings[place].log_port);
    while (g.binding_index[bucket] != 0) {
        bucket = (bucket + 1) % binding_buckets;
    }
    g.binding_index[bucket] = static_cast<uint8_t>(place + 1);
}

// Keeps the bindings for which keep(binding) holds.
template <typename Keep> void bindings_filter(Keep keep) KR_ACL_REQUIRES(acl_lock) {
    const uint32_t count = g.binding_count;
    g.binding_count = 0;
    for (uint32_t i = 0; i < count; i++) {
        if (keep(g.bindings[i])) {
            g.bindings[g.binding_count++] = g.bindings[i];
        }
    }
    std::fill(std::begin(g.binding_index), std::end(g.binding_index), uint8_t{0});
    for (uint32_t i = 0; i < g.binding_count; i++) {
        binding_index_add(i);
    }
}

// ---- rules ----------------------------------------------------------------------------------------------------------

void counter_release(uint32_t counter_id) KR_ACL_REQUIRES(acl_lock) {
    g.counters[counter_id - 1].in_use = false;
    g.counter_count--;
    g.counter_ids.give_back(counter_id);
}

void counter_unname(uint32_t counter_id) KR_ACL_REQUIRES(acl_lock) {
    if (counter_id != 0 && --g.counters[counter_id - 1].rule_count == 0) {
        counter_release(counter_id);
    }
}

void rule_erase(acl *table, uint32_t offset) KR_ACL_REQUIRES(acl_lock) {
    const uint16_t slot = table->slot_at[offset];
    if (slot == no_slot) {
        return;
    }
    table->matcher.clear(offset, table->records[slot].mask);
    counter_unname(table->hot[slot].counter_id);
    table->slot_at[offset] = no_slot;
    table->rule_count--;
    table->free_slots[table->region_size - table->rule_count - 1] = slot;
}

// Writes a rule whose counter is named already.
void rule_write(acl *table, const kr_acl_rule &rule) KR_ACL_REQUIRES(acl_lock) {
    rule_erase(table, rule.set_offset);
    const uint16_t slot = table->free_slots[table->region_size - table->rule_count - 1];
    table->rule_count++;
    table->slot_at[rule.set_offset] = slot;
    table->records[slot] = rule;
    rule_hot &hot = table->hot[slot];
    hot.action = {.trap_action = rule.trap_action,
                  .trap_id = rule.trap_id,
                  .vlan_edit = rule.vlan_edit,
                  .vlan_id = rule.vlan_id,
                  .vlan_pcp = rule.vlan_pcp,
                  .forward_type = rule.forward_type,
                  .forward_log_port = rule.forward_log_port,
                  .forward_group_id = rule.forward_group_id};
    hot.counter_id = rule.counter_id;
    hot.active.store(0, std::memory_order_relaxed);
    hot.bytes.store(0, std::memory_order_relaxed);
    hot.packets.store(0, std::memory_order_relaxed);
    table->matcher.set(rule.set_offset, rule.key, rule.mask);
}

bool action_is_known(const kr_acl_rule &rule) {
    switch (rule.trap_action) {
    case KR_ACL_TRAP_ACTION_NONE:
    case KR_ACL_TRAP_ACTION_DISCARD:
        break;
    case KR_ACL_TRAP_ACTION_TRAP:
        if (rule.trap_mode != KR_ACL_TRAP_MODE_TRAP_ID) {
            return false;
        }
        break;
    default:
        return false;
    }
    return std::find(std::begin(known_vlan_edits), std::end(known_vlan_edits), rule.vlan_edit) !=
               std::end(known_vlan_edits) &&
           rule.forward_type <= KR_ACL_FORWARD_GROUP;
}

kr_status rule_check(const acl &table, const kr_acl_rule &rule) KR_ACL_REQUIRES_SHARED(acl_lock) {
    if (rule.set_offset >= table.region_size) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    if (rule.valid != 1 || rule.action_valid != 1 || rule.key_type != KR_ACL_KEY_TYPE_TWELVE_FIELDS ||
        rule.mask_type != KR_ACL_KEY_TYPE_TWELVE_FIELDS || !action_is_known(rule)) {
        return KR_STATUS_PARAM_ERROR;
    }
    if ((rule.forward_type == KR_ACL_FORWARD_GROUP && group_find(rule.forward_group_id) == nullptr) ||
        (rule.counter_id != 0 && counter_find(rule.counter_id) == nullptr)) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    return KR_STATUS_SUCCESS;
}

bool block_is_inside(const acl &table, uint32_t start, uint32_t size) {
    return start < table.region_size && size <= table.region_size - start;
}

// ---- groups ---------------------------------------------------------------------------------------------------------

// Appends those of the ports that are not in the list yet. False when they do not all fit; nothing is added then.
bool members_append(group *to, const uint32_t *log_ports, uint32_t count) {
    uint32_t filled = to->member_count;
    for (uint32_t i = 0; i < count; i++) {
        if (std::find(to->members, to->members + filled, log_ports[i]) != to->members + filled) {
            continue;
        }
        if (filled == max_members) {
            return false; // what was written lies behind member_count
        }
        to->members[filled++] = log_ports[i];
    }
    to->member_count = filled;
    return true;
}

} // namespace

constinit acl_lock_type acl_lock;

// ---- ACLs -----------------------------------------------------------------------------------------------------------

kr_status acl_create(kr_acl_attributes *attributes) {
    if (attributes->key_type != KR_ACL_KEY_TYPE_TWELVE_FIELDS || attributes->direction != 1 ||
        attributes->acl_type != 0 || attributes->region_flags != 0) {
        return KR_STATUS_PARAM_ERROR;
    }
    if (attributes->region_size == 0 || attributes->region_size_max < attributes->region_size) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    if (attributes->region_size_max > max_rules || g.acl_count == KR_SOFT_MAX_ACLS) {
        return KR_STATUS_NO_RESOURCES;
    }
    acl *const created = new (std::nothrow) acl(attributes->region_size);
    if (created == nullptr) {
        return KR_STATUS_NO_MEMORY;
    }
    attributes->acl_id = g.acl_ids.take();
    g.acls[attributes->acl_id - 1] = created;
    g.acl_count++;
    return KR_STATUS_SUCCESS;
}

kr_status acl_destroy(uint32_t acl_id) {
    acl *const table = acl_find(acl_id);
    if (table == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    for (uint32_t offset = 0; offset < table->region_size; offset++) {
        if (table->slot_at[offset] != no_slot) {
            counter_unname(table->hot[table->slot_at[offset]].counter_id);
        }
    }
    bindings_filter([acl_id](const binding &candidate) { return candidate.acl_id != acl_id; });
    delete table;
    g.acls[acl_id - 1] = nullptr;
    g.acl_count--;
    g.acl_ids.give_back(acl_id);
    return KR_STATUS_SUCCESS;
}

kr_status acl_ports_bind(uint32_t acl_id, const uint32_t *log_ports, uint32_t count) {
    if (acl_find(acl_id) == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    uint32_t added = 0;
    for (uint32_t i = 0; i < count; i++) {
        const binding *const bound = binding_find(log_ports[i]);
        if (bound != nullptr && bound->acl_id != acl_id) {
            return KR_STATUS_RESOURCE_IN_USE;
        }
        added += bound == nullptr && std::find(log_ports, log_ports + i, log_ports[i]) == log_ports + i ? 1 : 0;
        if (added > KR_SOFT_MAX_BINDINGS - g.binding_count) {
            return KR_STATUS_NO_HARDWARE_RESOURCES;
        }
    }
    for (uint32_t i = 0; i < count; i++) {
        if (binding_find(log_ports[i]) == nullptr) {
            g.bindings[g.binding_count] = {log_ports[i], acl_id};
            binding_index_add(g.binding_count++);
        }
    }
    return KR_STATUS_SUCCESS;
}

kr_status acl_ports_unbind(uint32_t acl_id, const uint32_t *log_ports, uint32_t count) {
    if (acl_find(acl_id) == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    bindings_filter([=](const binding &bound) {
        return bound.acl_id != acl_id || std::find(log_ports, log_ports + count, bound.log_port) == log_ports + count;
    });
    return KR_STATUS_SUCCESS;
}

// ---- rules ----------------------------------------------------------------------------------------------------------

kr_status acl_rules_write(uint32_t acl_id, const kr_acl_rule *rules, uint32_t count) {
    acl *const table = acl_find(acl_id);
    if (table == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    for (uint32_t i = 0; i < count; i++) {
        if (const kr_status status = rule_check(*table, rules[i]); status != KR_STATUS_SUCCESS) {
            return status;
        }
    }
    // All new names first: a counter passes from the old rule to the new one, or from rule to rule, without a gap.
    for (uint32_t i = 0; i < count; i++) {
        if (counter *const named = counter_find(rules[i].counter_id); named != nullptr) {
            named->rule_count++;
        }
    }
    for (uint32_t i = 0; i < count; i++) {
        rule_write(table, rules[i]);
    }
    return KR_STATUS_SUCCESS;
}

kr_status acl_rules_delete(uint32_t acl_id, const kr_acl_rule *rules, uint32_t count) {
    acl *const table = acl_find(acl_id);
    if (table == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    for (uint32_t i = 0; i < count; i++) {
        if (rules[i].access_offset >= table->region_size) {
            return KR_STATUS_PARAM_EXCEEDS_RANGE;
        }
    }
    for (uint32_t i = 0; i < count; i++) {
        rule_erase(table, rules[i].access_offset);
    }
    return KR_STATUS_SUCCESS;
}

kr_status acl_rules_read(uint32_t acl_id, kr_acl_rule *rules, uint32_t *count) {
    acl *const table = acl_find(acl_id);
    if (table == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    for (uint32_t i = 0; i < *count; i++) {
        if (rules[i].access_offset >= table->region_size) {
            return KR_STATUS_PARAM_EXCEEDS_RANGE;
        }
        if (rules[i].activity_mode != KR_ACL_ACTIVITY_NONE &&
            rules[i].activity_mode != KR_ACL_ACTIVITY_READ_AND_CLEAR) {
            return KR_STATUS_PARAM_ERROR;
        }
    }
    for (uint32_t i = 0; i < *count; i++) {
        const uint32_t offset = rules[i].access_offset;
        const uint32_t activity_mode = rules[i].activity_mode;
        const uint16_t slot = table->slot_at[offset];
        if (slot == no_slot) {
            *count = i;
            return KR_STATUS_ENTRY_NOT_FOUND;
        }
        rules[i] = table->records[slot];
        rules[i].set_offset = offset;
        rules[i].access_offset = offset;
        rules[i].activity_mode = activity_mode;
        rules[i].activity = 0;
        if (activity_mode == KR_ACL_ACTIVITY_READ_AND_CLEAR) {
            rules[i].activity = table->hot[slot].active.exchange(0, std::memory_order_relaxed) != 0 ? 1 : 0;
        }
    }
    return KR_STATUS_SUCCESS;
}

kr_status acl_rules_move(uint32_t acl_id, uint32_t old_start, uint32_t size, uint32_t new_start) {
    acl *const table = acl_find(acl_id);
    if (table == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (!block_is_inside(*table, old_start, size) || !block_is_inside(*table, new_start, size)) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    for (uint32_t offset = new_start; offset < new_start + size; offset++) {
        const bool in_source = offset >= old_start && offset < old_start + size;
        if (!in_source && table->slot_at[offset] != no_slot) {
            return KR_STATUS_RESOURCE_IN_USE;
        }
    }
    if (size == 0 || old_start == new_start) {
        return KR_STATUS_SUCCESS;
    }

    uint16_t moved[max_rules];
    std::copy_n(table->slot_at + old_start, size, moved);
    for (uint32_t i = 0; i < size; i++) {
        if (moved[i] != no_slot) {
            table->matcher.clear(old_start + i, table->records[moved[i]].mask);
        }
        table->slot_at[old_start + i] = no_slot;
    }
    for (uint32_t i = 0; i < size; i++) {
        if (moved[i] != no_slot) {
            const kr_acl_rule &record = table->records[moved[i]];
            table->matcher.set(new_start + i, record.key, record.mask);
            table->slot_at[new_start + i] = moved[i];
            g.moved_rule_count++;
        }
    }
    g.block_move_count++;
    return KR_STATUS_SUCCESS;
}

// ---- counters -------------------------------------------------------------------------------------------------------

kr_status acl_counter_create(uint32_t *counter_id) {
    const uint32_t id = g.counter_ids.take();
    if (id == 0) {
        return KR_STATUS_NO_RESOURCES;
    }
    counter &created = g.counters[id - 1];
    created.in_use = true;
    created.rule_count = 0;
    created.bytes.store(0, std::memory_order_relaxed);
    created.packets.store(0, std::memory_order_relaxed);
    g.counter_count++;
    *counter_id = id;
    return KR_STATUS_SUCCESS;
}

kr_status acl_counter_read(uint32_t counter_id, kr_acl_counter_values *values) {
    const counter *const found = counter_find(counter_id);
    if (found == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    *values = {found->bytes.load(std::memory_order_relaxed), found->packets.load(std::memory_order_relaxed)};
    return KR_STATUS_SUCCESS;
}

void acl_counters_unbound_release() {
    for (uint32_t id = 1; id <= KR_SOFT_MAX_COUNTERS; id++) {
        const counter *const candidate = counter_find(id);
        if (candidate != nullptr && candidate->rule_count == 0) {
            counter_release(id);
        }
    }
}

// ---- groups ---------------------------------------------------------------------------------------------------------

kr_status acl_group_create(const uint32_t *log_ports, uint32_t count, uint32_t *group_id) {
    group members{};
    if (!members_append(&members, log_ports, count)) {
        return KR_STATUS_NO_RESOURCES;
    }
    const uint32_t id = g.group_ids.take();
    if (id == 0) {
        return KR_STATUS_NO_RESOURCES;
    }
    members.in_use = true;
    g.groups[id - 1] = members;
    g.group_count++;
    *group_id = id;
    return KR_STATUS_SUCCESS;
}

kr_status acl_group_destroy(uint32_t group_id) {
    group *const found = group_find(group_id);
    if (found == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    found->in_use = false;
    g.group_count--;
    g.group_ids.give_back(group_id);
    return KR_STATUS_SUCCESS;
}

kr_status acl_group_ports_add(uint32_t group_id, const uint32_t *log_ports, uint32_t count) {
    group *const found = group_find(group_id);
    if (found == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    return members_append(found, log_ports, count) ? KR_STATUS_SUCCESS : KR_STATUS_NO_RESOURCES;
}

kr_status acl_group_ports_remove(uint32_t group_id, const uint32_t *log_ports, uint32_t count) {
    group *const found = group_find(group_id);
    if (found == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    uint32_t *const end = std::remove_if(found->members, found->members + found->member_count, [=](uint32_t member) {
        return std::find(log_ports, log_ports + count, member) != log_ports + count;
    });
    found->member_count = static_cast<uint32_t>(end - found->members);
    return KR_STATUS_SUCCESS;
}

kr_status acl_group_read(uint32_t group_id, uint32_t *log_ports, uint32_t *count) {
    const group *const found = group_find(group_id);
    if (found == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    const uint32_t room = *count;
    *count = found->member_count;
    if (found->member_count > room) {
        return KR_STATUS_NO_RESOURCES;
    }
    std::copy_n(found->members, found->member_count, log_ports);
    return KR_STATUS_SUCCESS;
}

void acl_tables_reset() {
    for (uint32_t id = 1; id <= KR_SOFT_MAX_ACLS; id++) {
        (void)acl_destroy(id);
    }
    acl_counters_unbound_release();
    for (uint32_t id = 1; id <= KR_SOFT_MAX_GROUPS; id++) {
        (void)acl_group_destroy(id);
    }
    g.acl_ids = {};
    g.counter_ids = {};
    g.group_ids = {};
    g.moved_rule_count = 0;
    g.block_move_count = 0;
}

// ---- what frames ask ------------------------------------------------------------------------------------------------

bool acl_match(const kr_acl_key &key, uint32_t byte_count, uint32_t packet_count, rule_action *action) {
    const acl_shared lock;
    const binding *const bound = binding_find(key.in_log_port);
    if (bound == nullptr) {
        return false;
    }
    acl *const table = g.acls[bound->acl_id - 1];
    const uint32_t offset = table->matcher.match(key);
    if (offset == ternary_matcher::no_match) {
        return false;
    }
    rule_hot &hit = table->hot[table->slot_at[offset]];
    hit.bytes.fetch_add(byte_count, std::memory_order_relaxed);
    hit.packets.fetch_add(packet_count, std::memory_order_relaxed);
    if (hit.active.load(std::memory_order_relaxed) == 0) {
        hit.active.store(1, std::memory_order_relaxed);
    }
    if (hit.counter_id != 0) {
        counter &counted = g.counters[hit.counter_id - 1];
        counted.bytes.fetch_add(byte_count, std::memory_order_relaxed);
        counted.packets.fetch_add(packet_count, std::memory_order_relaxed);
    }
    *action = hit.action;
    return true;
}

bool acl_group_members_get(uint32_t group_id, group_members *members) {
    const acl_shared lock;
    members->count = max_members;
    return acl_group_read(group_id, members->log_ports.data(), &members->count) == KR_STATUS_SUCCESS;
}

// ---- what control asks ----------------------------------------------------------------------------------------------

void acl_rm_reset() {
    const acl_exclusive lock;
    acl_tables_reset();
    acl_rm_handles_reset();
}

kr_status acl_rm_rules_get(uint32_t acl_id, kr_soft_rule_state *rules, uint32_t *count) {
    const acl_exclusive lock; // no frame in between: the counts of a rule belong together
    const acl *const table = acl_find(acl_id);
    if (table == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    const uint32_t room = *count;
    uint32_t found = 0;
    for (uint32_t offset = 0; offset < table->region_size; offset++) {
        const uint16_t slot = table->slot_at[offset];
        if (slot == no_slot) {
            continue;
        }
        if (found < room) {
            kr_soft_rule_state &state = rules[found];
            state.rule = table->records[slot];
            state.rule.set_offset = offset;
            state.activity = table->hot[slot].active.load(std::memory_order_relaxed);
            state.hit_bytes = table->hot[slot].bytes.load(std::memory_order_relaxed);
            state.hit_packets = table->hot[slot].packets.load(std::memory_order_relaxed);
        }
        found++;
    }
    *count = found;
    return found > room ? KR_STATUS_NO_RESOURCES : KR_STATUS_SUCCESS;
}

kr_status acl_rm_acls_get(uint32_t *acl_ids, uint32_t *count) {
    const acl_shared lock;
    const uint32_t room = *count;
    uint32_t found = 0;
    for (uint32_t id = 1; id <= KR_SOFT_MAX_ACLS; id++) {
        if (acl_find(id) == nullptr) {
            continue;
        }
        if (found < room) {
            acl_ids[found] = id;
        }
        found++;
    }
    *count = found;
    return found > room ? KR_STATUS_NO_RESOURCES : KR_STATUS_SUCCESS;
}

void acl_rm_usage_fill(kr_soft_usage *usage) {
    const acl_shared lock;
    usage->rule_count = 0;
    for (const acl *const table : g.acls) {
        usage->rule_count += table != nullptr ? table->rule_count : 0;
    }
    usage->acl_count = g.acl_count;
    usage->counter_count = g.counter_count;
    usage->group_count = g.group_count;
    usage->binding_count = g.binding_count;
    usage->acl_rm_handle_count = acl_rm_handle_count();
    usage->moved_rule_count = g.moved_rule_count;
    usage->block_move_count = g.block_move_count;
}

uint32_t acl_bound_ports_get(uint32_t acl_id, uint32_t *log_ports) {
    const acl_shared lock;
    uint32_t count = 0;
    for (uint32_t i = 0; i < g.binding_count; i++) {
        if (g.bindings[i].acl_id == acl_id) {
            log_ports[count++] = g.bindings[i].log_port;
        }
    }
    return count;
}

} // namespace kr_soft
