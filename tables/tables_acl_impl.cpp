/*
 * Flows in hardware: their places in the pSort table, their rules in the ACL, counters while the budget lasts, activity
 * and statistics, the moves that pSort asks for, and Table 0's side of the flows database.
 *
 * A batch is placed as a whole before its first rule is installed. Both stop at the first failure and keep what they
 * have done.
 */
#include "tables/tables_acl_impl.h"

#include <cstring>
#include <iterator>

#include "common/common.h"
#include "common/log.h"
#include "tables/tables.h"
#include "tables/tables_acl_internal.h"

KR_LOG_MODULE("HAL_TABLES_API", kr_HAL_TABLES_API_verb_level);

using kr::relaxed_load;
using kr::tables_acl::g;

namespace {

// Bits by OpenFlow 1.2: apply-actions; output, push VLAN, pop VLAN; VLAN id and priority.
constexpr table_capabilities table_0_capabilities = {
    .name = "12 tuple ACL",
    .max_entries = TABLES_ACL_SIZE,
    .table_flag = 1,
    .instructions = 0x10,
    .write_actions = 0,
    .apply_actions = 0x60001,
    .match = 0xC1FFFB,
    .wildcards = 0xC1FFDB, // an EtherType cannot be left out
    .apply_setfields = 0xC0,
};

void batch_at_set(uint64_t offset, wrapped_flow *flow) {
    if (offset < std::size(g.batch_at)) {
        g.batch_at[offset] = flow;
    }
}

// While one lives, shifts move the offsets of the flows that have been placed.
class batch_in_progress {
  public:
    explicit batch_in_progress(wrapped_flow *flows) {
        g.batch_flows = flows;
        g.batch_placed_count = 0;
    }
    ~batch_in_progress() {
        for (uint32_t i = 0; i < g.batch_placed_count; ++i) {
            batch_at_set(g.batch_flows[i].offset, nullptr);
        }
        g.batch_flows = nullptr;
        g.batch_placed_count = 0;
    }
    batch_in_progress(const batch_in_progress &) = delete;
    batch_in_progress &operator=(const batch_in_progress &) = delete;

    void flow_placed() {
        wrapped_flow &flow = g.batch_flows[g.batch_placed_count++];
        batch_at_set(flow.offset, &flow);
    }
};

void batch_flow_move(wrapped_flow *flow, uint64_t offset) {
    batch_at_set(flow->offset, nullptr);
    batch_at_set(offset, flow);
    flow->offset = offset;
}

// A shift has happened: the flows of the batch in progress that lie in the block go along. Towards higher offsets the
// last one goes first, as in the flows database.
void batch_offsets_shift(uint16_t old_start, uint16_t new_start, uint32_t size) {
    if (g.batch_placed_count == 0) {
        return;
    }
    const bool is_upwards = old_start < new_start;
    for (uint32_t step = 0; step < size; ++step) {
        const uint32_t index = is_upwards ? size - 1 - step : step;
        const uint32_t offset = old_start + index;
        if (offset < std::size(g.batch_at) && g.batch_at[offset] != nullptr) {
            batch_flow_move(g.batch_at[offset], new_start + index);
        }
    }
}

kr_sdn_hal_status psort_place(wrapped_flow *flow) {
    psort_entry entry;
    __convert_flows_to_psort_entries(flow, 1, &entry);
    const kr_sdn_hal_status status =
        kr_utils_status_to_kr_sdn_hal_status(psort_entry_set(acl_psort_handle, PSORT_CMD_ADD, &entry));
    if (status == KR_SDN_HAL_STATUS_NO_RESOURCES) {
        HAL_NOTICE("Due to lack of resources failed to get flow index from pSort lib for flow ID (%lu) Table 0",
                   flow->flow->flow_id);
        return status;
    }
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to get flow index from pSort lib for flow ID (%lu) Table 0", flow->flow->flow_id);
        return status;
    }
    __convert_psort_entries_to_flows(&entry, 1, flow);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status psort_remove(const wrapped_flow *flow) {
    psort_entry entry;
    __convert_flows_to_psort_entries(flow, 1, &entry);
    const kr_sdn_hal_status status =
        kr_utils_status_to_kr_sdn_hal_status(psort_entry_set(acl_psort_handle, PSORT_CMD_DELETE, &entry));
    if (status == KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
        HAL_NOTICE("Failed to remove flows index from pSort table - for flow ID (%lu) Table 0 - entry not found",
                   flow->flow->flow_id);
    } else if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to remove flows index from pSort table - for flow ID (%lu) Table 0", flow->flow->flow_id);
    }
    return status;
}

} // namespace

/* ---- places ---------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status __tables_psort_entry_set(uint32_t command, uint32_t count, wrapped_flow *flows) {
    if (command == TABLES_CMD_ADD) {
        batch_in_progress batch(flows);
        for (uint32_t i = 0; i < count; ++i) {
            const kr_sdn_hal_status status = psort_place(&flows[i]);
            if (status != KR_SDN_HAL_STATUS_SUCCESS) {
                return status;
            }
            batch.flow_placed();
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (command == TABLES_CMD_DELETE) {
        for (uint32_t i = 0; i < count; ++i) {
            const kr_sdn_hal_status status = psort_remove(&flows[i]);
            if (status != KR_SDN_HAL_STATUS_SUCCESS) {
                return status;
            }
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
}

/* ---- install --------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_acl_config(wrapped_flow *flows, uint32_t *count) {
    kr_sdn_hal_status status = __tables_psort_entry_set(TABLES_CMD_ADD, *count, flows);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    for (uint32_t i = 0; i < *count; ++i) {
        status = __convert_flow_to_acl_rule(&flows[i]);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_NOTICE("Failed to configure flow (%lu) ", flows[i].flow->flow_id);
            *count = i;
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __allocate_flow_counter(wrapped_flow *flow, kr_acl_rule *rule) {
    rule->counter_id = 0;
    flow->counter_id = 0;
    if (g.flow_counters_used < g.flow_counters_max) {
        const kr_acl_counter_attributes attributes = {.initial_state = 0, .counter_type = 1};
        const kr_status status = kr_acl_rm_api_counter_set(relaxed_load(g.acl_rm_handle), KR_ACL_RM_CMD_CREATE,
                                                           &attributes, &rule->counter_id);
        if (status == KR_STATUS_SUCCESS) {
            ++g.flow_counters_used;
        } else {
            HAL_NOTICE("Failed to bind counter to rule in ACL RM. rc (%u).", status);
        }
        flow->counter_id = rule->counter_id;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __config_acl_rule(wrapped_flow *flow, kr_acl_rule *rule) {
    const kr_sdn_hal_status translated = __flow_target_to_acl_forward(flow->flow, rule);
    if (translated != KR_SDN_HAL_STATUS_SUCCESS) {
        return translated;
    }
    rule->set_offset = static_cast<uint32_t>(flow->offset);
    rule->valid = 1;
    HAL_NOTICE("Adds ACL rule to Table 0 with flow ID [%lu] ,Priority [%u] at offset [%lu]", flow->flow->flow_id,
               flow->flow->priority, flow->offset);
    const kr_status status = kr_acl_rm_api_acl_rule_set(relaxed_load(g.acl_rm_handle), KR_ACL_RM_CMD_RULE_SET,
                                                        relaxed_load(g.acl_id), rule, 1);
    if (status == KR_STATUS_NO_RESOURCES) {
        HAL_NOTICE("Due to lack of resources failed to set rules in ACL RM rc (%u) ", status);
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    }
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to set rules in ACL RM rc (%u) ", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- delete ---------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_acl_delete(wrapped_flow *flows, uint32_t *count) {
    uint32_t deleted_count = 0;
    for (uint32_t i = 0; i < *count; ++i) {
        if (flows[i].in_db != 1) {
            continue;
        }
        kr_sdn_hal_status status = __clear_acl_rule(&flows[i]);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_NOTICE("Failed to delete flow (%lu) from HW", flows[i].flow->flow_id);
            *count = deleted_count;
            return status;
        }
        ++deleted_count;
        status = __tables_psort_entry_set(TABLES_CMD_DELETE, 1, &flows[i]);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_NOTICE("Failed in psort entry set while delete operation");
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __clear_acl_rule(wrapped_flow *flow) {
    kr_acl_rule rule{};
    __acl_action_reset(&rule);
    rule.access_offset = static_cast<uint32_t>(flow->offset);
    HAL_DEBUG("Deletes ACL rule from Table 0 with flow ID [%lu] ,Priority [%u] at offset [%lu]", flow->flow->flow_id,
              flow->flow->priority, flow->offset);
    const kr_status status = kr_acl_rm_api_acl_rule_set(relaxed_load(g.acl_rm_handle), KR_ACL_RM_CMD_RULE_DELETE,
                                                        static_cast<uint32_t>(flow->region), &rule, 1);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to delete rules in ACL RM rc (%u) ", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    // A delete that is repeated after a failure further on frees the same counter again: never below none.
    if (flow->counter_id != 0 && g.flow_counters_used > 0) {
        --g.flow_counters_used;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- read back ------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_acl_rule_get(uint32_t count, wrapped_flow *flows) {
    for (uint32_t i = 0; i < count; ++i) {
        const kr_sdn_hal_status status = __convert_acl_rule_to_flow(&flows[i]);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to retrieve flow (%lu) from HW", flows[i].flow->flow_id);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __get_acl_rule(wrapped_flow *flow, kr_acl_rule *rule) {
    uint32_t count = 1;
    rule->access_offset = static_cast<uint32_t>(flow->offset);
    HAL_DEBUG("Retrieves ACL rule from Table 0 with flow ID [%lu] ,Priority [%u] at offset [%lu]", flow->flow->flow_id,
              flow->flow->priority, flow->offset);
    const kr_status status =
        kr_acl_rm_api_acl_rule_get(relaxed_load(g.acl_rm_handle), relaxed_load(g.acl_id), 0, rule, &count);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to retrieve rules from ACL RM rc (%u) ", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return __acl_forward_to_flow_target(flow->flow, rule);
}

/* ---- activity and statistics ----------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_acl_activity_get(const uint64_t *flow_ids, uint32_t count, uint32_t *activities) {
    for (uint32_t i = 0; i < count; ++i) {
        flow_entry entry{};
        entry.flow_id = flow_ids[i];
        kr_sdn_hal_status status = flows_db_entry_get(&acl_flows_db, &entry);
        if (status == KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) {
            activities[i] = FLOW_ACTIVITY_UNKNOWN_FLOW;
            continue;
        }
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to get flow (%lu) from DB", flow_ids[i]);
            return status;
        }
        status = __get_acl_rule_activity(&entry, &activities[i]);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to retrieve flow (%lu) activity state from HW", flow_ids[i]);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __get_acl_rule_activity(const flow_entry *entry, uint32_t *activity) {
    kr_acl_rule rule{};
    uint32_t count = 1;
    rule.access_offset = static_cast<uint32_t>(entry->offset);
    rule.activity_mode = KR_ACL_ACTIVITY_READ_AND_CLEAR;
    const kr_status status = kr_acl_rm_api_acl_rule_get(relaxed_load(g.acl_rm_handle),
                                                        static_cast<uint32_t>(entry->region), 0, &rule, &count);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to retrieve rule activity from ACL RM rc (%u) ", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    *activity = rule.activity;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_acl_flows_stats_get(const uint64_t *flow_ids, uint32_t count, flow_stats *stats) {
    memset(stats, 0, size_t{count} * sizeof(flow_stats));
    for (uint32_t i = 0; i < count; ++i) {
        flow_entry entry{};
        entry.flow_id = flow_ids[i];
        kr_sdn_hal_status status = flows_db_entry_get(&acl_flows_db, &entry);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            return status;
        }
        status = __get_flow_counter(entry.counter, &stats[i]);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_ERROR("Failed to get stat for flow ID (%lu). rc (%u).", flow_ids[i], status);
            return status;
        }
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status __get_flow_counter(uint32_t counter_id, flow_stats *stats) {
    *stats = {};
    if (counter_id == 0) {
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    kr_acl_counter_flags flags{};
    kr_acl_counter_values values{};
    const kr_status status = kr_acl_rm_api_counter_get(relaxed_load(g.acl_rm_handle), KR_ACL_RM_CMD_COUNTER_READ,
                                                       counter_id, &flags, &values);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to get counter values. rc (%u).", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    if (flags.first_valid != 0) {
        stats->count_second = values.first;
    }
    if (flags.second_valid != 0) {
        stats->count_first = values.second;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_acl_table_stats_get(table_stats *stats) {
    *stats = {.max_entries = TABLES_ACL_SIZE, .reserved = {}};
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_acl_capabilities_get(table_capabilities *capabilities_out) {
    *capabilities_out = table_0_capabilities;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- moves ----------------------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_acl_rules_shift(uint32_t old_index, uint32_t new_index, uint32_t size) {
    return __shift_acl_rules(static_cast<uint16_t>(old_index), static_cast<uint16_t>(new_index), size);
}

kr_sdn_hal_status __shift_acl_rules(uint16_t old_start, uint16_t new_start, uint32_t size) {
    HAL_DEBUG("move ACL rules block in Table 0 with start block [%u] , new start [%u] and size [%u]", old_start,
              new_start, size);
    const kr_status status = kr_acl_rm_api_acl_rule_move_block(relaxed_load(g.acl_rm_handle), relaxed_load(g.acl_id),
                                                               old_start, size, new_start);
    if (status != KR_STATUS_SUCCESS) {
        HAL_ERROR("Failed to shift rules block in ACL RM rc (%u) ", status);
        return KR_SDN_HAL_STATUS_ERROR;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status tables_acl_flows_db_rules_shift(uint32_t old_index, uint32_t new_index, uint32_t size) {
    const auto old_start = static_cast<uint16_t>(old_index);
    const auto new_start = static_cast<uint16_t>(new_index);
    const kr_sdn_hal_status status = flows_db_modify_offset(&acl_flows_db, old_start, new_start, size);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        HAL_ERROR("Failed to shift flows in flows DB");
        return status;
    }
    batch_offsets_shift(old_start, new_start, size);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- flows database -------------------------------------------------------------------------------------------- */

kr_sdn_hal_status tables_acl_flows_db_set(uint32_t command, wrapped_flow *flow) {
    if (command == TABLES_CMD_ADD) {
        const flow_entry entry = {
            .flow_id = flow->flow->flow_id,
            .priority = flow->flow->priority,
            .offset = flow->offset,
            .region = relaxed_load(g.acl_id),
            .counter = flow->counter_id,
        };
        const kr_sdn_hal_status status = flows_db_entry_add(&acl_flows_db, &entry);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_NOTICE("Failed to add flow to DB");
        }
        return status;
    }
    if (command == TABLES_CMD_DELETE) {
        if (flow->in_db != 1) {
            return KR_SDN_HAL_STATUS_SUCCESS;
        }
        const kr_sdn_hal_status status = flows_db_entry_delete(&acl_flows_db, flow->flow->flow_id);
        if (status != KR_SDN_HAL_STATUS_SUCCESS) {
            HAL_NOTICE("Failed to delete flow from DB");
        }
        return status;
    }
    return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
}

kr_sdn_hal_status tables_acl_flows_db_get(wrapped_flow *flow) {
    flow->in_db = 0;
    flow_entry entry{};
    entry.flow_id = flow->flow->flow_id;
    const kr_sdn_hal_status status = flows_db_entry_get(&acl_flows_db, &entry);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    flow->in_db = 1;
    flow->offset = entry.offset;
    flow->region = entry.region;
    flow->counter_id = entry.counter;
    flow->flow->priority = entry.priority;
    return KR_SDN_HAL_STATUS_SUCCESS;
}
