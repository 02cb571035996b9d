/*
 * The bodies of rules.h. Every call of the driver that fails is counted and told here, once.
 */
#include "rules.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "log.h"

namespace agent {
namespace {

// The bytes of a record that carry fields: all but the id and the padding.
struct byte_range {
    size_t from, to;
};
constexpr byte_range record_ranges[] = {{offsetof(flow_record, priority), 43},
                                        {offsetof(flow_record, vlan_id), 58},
                                        {offsetof(flow_record, ipv4_src), 103}};
static_assert(offsetof(flow_record, vlan_tagged_mask) == 42 && offsetof(flow_record, ip_proto_mask) == 57 &&
              offsetof(flow_record, vlan_action_pcp) == 102 && offsetof(flow_record, priority) == 8);

constexpr refusal table_full = {of10::error_type::flow_mod_failed, of10::flow_mod_failed::all_tables_full,
                                "the table is full"};
constexpr refusal no_group = {of10::error_type::flow_mod_failed, of10::flow_mod_failed::all_tables_full,
                              "no room for another multicast group"};
constexpr refusal hardware_refused = {of10::error_type::flow_mod_failed, of10::flow_mod_failed::eperm,
                                      "the hardware refused"};

std::vector<uint64_t> ids_of(std::span<flow *const> targets) {
    std::vector<uint64_t> ids;
    ids.reserve(targets.size());
    for (const flow *const one : targets) {
        ids.push_back(one->rule.id);
    }
    return ids;
}

} // namespace

bool records_equal(const flow_record &a, const flow_record &b) noexcept {
    const auto *left = reinterpret_cast<const uint8_t *>(&a);
    const auto *right = reinterpret_cast<const uint8_t *>(&b);
    return std::all_of(std::begin(record_ranges), std::end(record_ranges), [&](const byte_range &range) {
        return std::memcmp(left + range.from, right + range.from, range.to - range.from) == 0;
    });
}

/* ---- groups ---------------------------------------------------------------------------------------------------- */

bool rules::group_acquire(const std::vector<uint16_t> &ports, uint32_t *id) {
    const auto found = groups_.find(ports);
    if (found != groups_.end()) {
        found->second.user_count++;
        *id = found->second.id;
        return true;
    }
    if (driver_.group_create(ports, id) != KR_SDN_HAL_STATUS_SUCCESS) {
        tally_.refused++;
        log(log_level::warning, "no multicast group for %zu ports", ports.size());
        return false;
    }
    std::vector<uint16_t> members;
    const kr_sdn_hal_status status = driver_.group_read(*id, &members);
    if (status != KR_SDN_HAL_STATUS_SUCCESS || members != ports) {
        tally_.mismatches++;
        log(log_level::error, "multicast group %u reads back otherwise than it was made (status %u): taken out", *id,
            static_cast<unsigned>(status));
        group_delete(*id);
        return false;
    }
    groups_.emplace(ports, group{*id, 1});
    return true;
}

void rules::group_release(const std::vector<uint16_t> &ports) {
    const auto found = groups_.find(ports);
    if (ports.empty() || found == groups_.end() || --found->second.user_count > 0) {
        return;
    }
    const uint32_t id = found->second.id;
    groups_.erase(found);
    group_delete(id);
}

void rules::group_delete(uint32_t id) {
    if (driver_.group_delete(id) != KR_SDN_HAL_STATUS_SUCCESS) {
        tally_.refused++;
        log(log_level::error, "multicast group %u could not be deleted; that is tried again", id);
        stray_groups_.push_back(id);
    }
}

/* ---- one rule -------------------------------------------------------------------------------------------------- */

// Makes the rule ready to be written, its group included.
bool rules::prepare(const flow &target, const rule_plan &plan, installed_rule &rule, std::optional<refusal> &refused) {
    rule.record = plan.record;
    rule.record.priority = priorities_.hardware_priority(target.rank);
    rule.group_ports = plan.group_ports;
    if (!plan.group_ports.empty() && !group_acquire(plan.group_ports, &rule.record.mc_group_id)) {
        refused = no_group;
        return false;
    }
    return true;
}

void rules::mark_written(installed_rule &rule) {
    installed_++;
    rule.has_counter = counters_used_ < counter_budget;
    counters_used_ += rule.has_counter ? 1 : 0;
}

// After the rule is gone from hardware.
void rules::mark_erased(installed_rule &rule) {
    installed_--;
    counters_used_ -= rule.has_counter ? 1 : 0;
    group_release(rule.group_ports);
    rule = {};
}

// Writes rules as one batch and reads them back; those that differ have id 0 then. False: none counts as written.
bool rules::write_batch(std::span<installed_rule> batch) {
    std::vector<flow_record> records;
    records.reserve(batch.size());
    for (installed_rule &rule : batch) {
        rule.id = next_id_++;
        rule.record.flow_id = rule.id;
        records.push_back(rule.record);
    }
    const kr_sdn_hal_status status = driver_.add(records);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        tally_.refused++;
        tally_.lost_batches++;
        writes_singly_ = true;
        log(log_level::error,
            "a batch of %zu rules failed with status %u: some of them may stay in hardware until the switch is "
            "stopped; rules are written one by one from now on",
            batch.size(), static_cast<unsigned>(status));
        return false;
    }
    for (installed_rule &rule : batch) {
        mark_written(rule);
    }
    (void)reads_back(batch);
    return true;
}

// True if hardware holds all of them as they were meant; otherwise those that differ are taken out (id 0).
bool rules::reads_back(std::span<installed_rule> batch) {
    std::vector<uint64_t> ids;
    for (const installed_rule &rule : batch) {
        ids.push_back(rule.id);
    }
    std::vector<flow_record> found(batch.size());
    const kr_sdn_hal_status status = driver_.read(ids, found);
    bool is_good = true;
    for (size_t i = 0; i < batch.size(); i++) {
        if (status == KR_SDN_HAL_STATUS_SUCCESS && records_equal(found[i], batch[i].record)) {
            continue;
        }
        is_good = false;
        tally_.mismatches++;
        log(log_level::error, "rule %llu reads back otherwise than it was written (status %u): taken out",
            static_cast<unsigned long long>(batch[i].id), static_cast<unsigned>(status));
        take_out(batch[i]);
    }
    return is_good;
}

// The rule's group is released if it could not be written.
std::optional<refusal> rules::write_one(installed_rule &rule) {
    rule.id = next_id_++;
    rule.record.flow_id = rule.id;
    flow_record record = rule.record;
    const kr_sdn_hal_status status = driver_.add({&record, 1});
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        mark_written(rule);
        return reads_back({&rule, 1}) ? std::nullopt : std::optional(hardware_refused);
    }
    tally_.refused++;
    group_release(rule.group_ports);
    rule = {};
    if (status == KR_SDN_HAL_STATUS_NO_RESOURCES) {
        return table_full;
    }
    log(log_level::error, "a rule could not be written: status %u", static_cast<unsigned>(status));
    return hardware_refused;
}

// True if the library holds none of these rules any more: it is asked, not believed.
bool rules::are_gone(std::span<const uint64_t> ids) {
    std::vector<uint32_t> activities(ids.size());
    return driver_.read_activity(ids, activities) == KR_SDN_HAL_STATUS_SUCCESS &&
           std::all_of(activities.begin(), activities.end(),
                       [](uint32_t activity) { return activity == FLOW_ACTIVITY_UNKNOWN_FLOW; });
}

// False if the rule is still in hardware.
bool rules::erase_rule(installed_rule &rule) {
    if (rule.id == 0) {
        return true;
    }
    const kr_sdn_hal_status status = driver_.remove({&rule.id, 1});
    if (status != KR_SDN_HAL_STATUS_SUCCESS || !are_gone({&rule.id, 1})) {
        tally_.refused++;
        flow_record found{};
        const bool is_there = driver_.read({&rule.id, 1}, {&found, 1}) == KR_SDN_HAL_STATUS_SUCCESS;
        if (!rule.is_stuck) { // told once, however often it is tried
            log(log_level::error, "rule %llu could not be deleted: status %u; it is %s",
                static_cast<unsigned long long>(rule.id), static_cast<unsigned>(status),
                is_there ? "still in hardware" : "gone from hardware, but not its place");
        }
        if (is_there) {
            rule.is_stuck = true;
            return false;
        }
    }
    mark_erased(rule);
    return true;
}

// Out of hardware with a rule that no flow is to have (id 0 afterwards). One that stays is a stray from now on.
void rules::take_out(installed_rule &rule) {
    if (!erase_rule(rule)) {
        log(log_level::error, "rule %llu belongs to no flow now; deleting it is tried again",
            static_cast<unsigned long long>(rule.id));
        strays_.push_back(std::exchange(rule, {}));
    }
}

// Silent, and not counted as failures anew: that these are left is known.
void rules::retry_strays() {
    const log_silence silence;
    std::erase_if(strays_, [this](installed_rule &rule) {
        const bool is_gone = driver_.remove({&rule.id, 1}) == KR_SDN_HAL_STATUS_SUCCESS && are_gone({&rule.id, 1});
        if (is_gone) {
            log(log_level::notice, "rule %llu, which was left over, is deleted",
                static_cast<unsigned long long>(rule.id));
            mark_erased(rule);
        }
        return is_gone;
    });
    std::erase_if(stray_groups_, [this](uint32_t id) {
        const bool is_gone = driver_.group_delete(id) == KR_SDN_HAL_STATUS_SUCCESS;
        if (is_gone) {
            log(log_level::notice, "multicast group %u, which was left over, is deleted", id);
        }
        return is_gone;
    });
}

/* ---- flows ----------------------------------------------------------------------------------------------------- */

void rules::add(std::span<addition> additions) {
    // Highest priority first: places are found much faster in order.
    std::vector<addition *> owners;
    for (addition &one : additions) {
        owners.push_back(&one);
    }
    std::stable_sort(owners.begin(), owners.end(),
                     [](const addition *a, const addition *b) { return a->target->rank > b->target->rank; });
    std::vector<installed_rule> batch;
    batch.reserve(owners.size());
    std::erase_if(owners, [&](addition *one) {
        installed_rule rule;
        if (!one->plan.can_match || !prepare(*one->target, one->plan, rule, one->refused)) {
            return true;
        }
        batch.push_back(std::move(rule));
        return false;
    });
    const bool as_batch = batch.size() > 1 && !writes_singly_ && write_batch(batch);
    for (size_t i = 0; i < batch.size(); i++) {
        if (!as_batch) {
            owners[i]->refused = write_one(batch[i]);
        } else if (batch[i].id == 0) {
            owners[i]->refused = hardware_refused; // it read back otherwise
        }
        owners[i]->target->rule = std::move(batch[i]);
        owners[i]->target->is_counted = owners[i]->target->rule.has_counter;
    }
}

// What the rule has counted, and whether it was hit, before it goes.
void rules::save_counts(flow &target, nanoseconds now) {
    flow *const one = &target;
    read_activity({&one, 1}, now);
    flow_stats stats{};
    if (target.rule.id != 0 && target.rule.has_counter &&
        driver_.read_stats({&target.rule.id, 1}, {&stats, 1}) == KR_SDN_HAL_STATUS_SUCCESS) {
        target.earlier_packets += stats.count_first;
        target.earlier_bytes += stats.count_second;
    }
}

std::optional<refusal> rules::replace(flow &target, const rule_plan &plan) {
    const std::optional<refusal> refused = replace_rule(target, plan);
    target.is_unsettled = target.is_unsettled && refused;
    return refused;
}

std::optional<refusal> rules::replace_rule(flow &target, const rule_plan &plan) {
    if (!plan.can_match) {
        save_counts(target, clock_now());
        return erase_rule(target.rule) ? std::nullopt : std::optional(hardware_refused);
    }
    installed_rule fresh;
    std::optional<refusal> refused;
    if (!prepare(target, plan, fresh, refused)) {
        return refused;
    }
    if (target.rule.id != 0 && records_equal(target.rule.record, fresh.record)) {
        group_release(fresh.group_ports);
        return {};
    }
    if (target.rule.id != 0 && installed_ >= driver_.size()) {
        return replace_without_room(target, fresh);
    }
    refused = write_one(fresh);
    if (refused) {
        return refused;
    }
    if (target.rule.id != 0) {
        const bool had_counter = target.rule.has_counter;
        save_counts(target, clock_now());
        if (!erase_rule(target.rule)) {
            take_out(fresh);
            return hardware_refused;
        }
        target.rule = std::move(fresh);
        if (had_counter && !target.rule.has_counter) {
            keep_counter(target);
        }
    } else {
        target.rule = std::move(fresh);
    }
    target.is_counted = target.is_counted && target.rule.has_counter;
    return {};
}

// At the last place: the old rule has to go first. Should the new one fail, the old one comes back.
std::optional<refusal> rules::replace_without_room(flow &target, installed_rule &fresh) {
    tally_.gaps++;
    save_counts(target, clock_now());
    installed_rule old = target.rule;
    if (!old.group_ports.empty()) {
        groups_.at(old.group_ports).user_count++; // the group stays while the rule may have to come back
    }
    if (!erase_rule(target.rule)) {
        group_release(old.group_ports);
        group_release(fresh.group_ports);
        return hardware_refused;
    }
    const std::optional<refusal> refused = write_one(fresh);
    if (!refused) {
        group_release(old.group_ports);
        target.rule = std::move(fresh);
        target.is_counted = target.is_counted && target.rule.has_counter;
        return {};
    }
    if (const auto lost = write_one(old)) {
        log(log_level::error, "a flow lost its rule: neither the new nor the old one could be written");
        target.is_unsettled = true;
        return lost;
    }
    target.rule = std::move(old);
    return refused;
}

// The old rule held the last counter while the new one was written; now that it is free, one more rule of the same kind
// gets it, and takes over.
void rules::keep_counter(flow &target) {
    installed_rule again = target.rule;
    if (!again.group_ports.empty()) {
        groups_.at(again.group_ports).user_count++;
    }
    if (!write_one(again)) {
        if (erase_rule(target.rule)) {
            target.rule = std::move(again);
        } else {
            take_out(again);
        }
    }
}

std::vector<bool> rules::remove(std::span<flow *const> targets) {
    std::vector<bool> gone(targets.size(), true);
    std::vector<flow *> present;
    for (flow *const one : targets) {
        if (one->rule.id != 0) {
            present.push_back(one);
        }
    }
    if (present.empty()) {
        return gone;
    }
    const std::vector<uint64_t> ids = ids_of(present);
    read_activity(present, clock_now());
    std::vector<flow_stats> stats(ids.size());
    if (driver_.read_stats(ids, stats) == KR_SDN_HAL_STATUS_SUCCESS) {
        for (size_t i = 0; i < present.size(); i++) {
            present[i]->earlier_packets += stats[i].count_first;
            present[i]->earlier_bytes += stats[i].count_second;
        }
    }
    if (driver_.remove(ids) == KR_SDN_HAL_STATUS_SUCCESS && are_gone(ids)) {
        for (flow *const one : present) {
            mark_erased(one->rule);
        }
        return gone;
    }
    tally_.refused++;
    for (size_t i = 0; i < targets.size(); i++) {
        gone[i] = erase_rule(targets[i]->rule);
    }
    return gone;
}

void rules::read_activity(std::span<flow *const> targets, nanoseconds now) {
    std::vector<uint64_t> ids = ids_of(targets);
    std::vector<uint32_t> activities(ids.size());
    if (driver_.read_activity(ids, activities) != KR_SDN_HAL_STATUS_SUCCESS) {
        tally_.refused++;
        for (flow *const one : targets) {
            one->used = now; // rather late than early
        }
        return;
    }
    for (size_t i = 0; i < targets.size(); i++) {
        if (activities[i] == FLOW_ACTIVITY_HIT) {
            targets[i]->used = now;
        }
    }
}

std::vector<rules::counts> rules::read_counts(std::span<flow *const> targets) {
    std::vector<counts> all(targets.size());
    std::vector<uint64_t> ids;
    std::vector<size_t> owners;
    for (size_t i = 0; i < targets.size(); i++) {
        const flow &one = *targets[i];
        all[i] = {one.earlier_packets, one.earlier_bytes};
        if (!one.is_counted) {
            all[i] = {of10::counter_unknown, of10::counter_unknown};
        } else if (one.rule.id != 0) {
            ids.push_back(one.rule.id);
            owners.push_back(i);
        }
    }
    std::vector<flow_stats> stats(ids.size());
    const bool is_read = driver_.read_stats(ids, stats) == KR_SDN_HAL_STATUS_SUCCESS;
    tally_.refused += is_read ? 0 : 1;
    for (size_t i = 0; i < ids.size(); i++) {
        counts &one = all[owners[i]];
        one = is_read ? counts{one.packets + stats[i].count_first, one.bytes + stats[i].count_second}
                      : counts{of10::counter_unknown, of10::counter_unknown};
    }
    return all;
}

/* ---- the daemon's own rules ------------------------------------------------------------------------------------ */

std::optional<refusal> rules::add_ingress_drop(uint16_t port) {
    installed_rule rule;
    rule.record.priority = own_hardware_priority;
    rule.record.in_port = port;
    rule.record.in_port_mask = 1;
    rule.record.action = FLOW_ACTION_DROP;
    if (drops_.contains(port)) {
        return {};
    }
    if (installed_ >= driver_.size()) {
        return table_full;
    }
    const std::optional<refusal> refused = write_one(rule);
    if (!refused) {
        drops_.emplace(port, std::move(rule));
    }
    return refused;
}

bool rules::remove_ingress_drop(uint16_t port) {
    const auto found = drops_.find(port);
    if (found != drops_.end() && !erase_rule(found->second)) {
        return false;
    }
    drops_.erase(port);
    return true;
}

void rules::drop_ingress_drop(uint16_t port) {
    const auto found = drops_.find(port);
    if (found != drops_.end()) {
        take_out(found->second);
        drops_.erase(found);
    }
}

void rules::forget_all() {
    // Gone with the switch or not: once only, for new groups will have these ids.
    for (const auto &[ports, one] : groups_) {
        (void)driver_.group_delete(one.id);
    }
    groups_.clear();
    stray_groups_.clear();
    drops_.clear();
    strays_.clear();
    installed_ = 0;
    counters_used_ = 0;
    writes_singly_ = false;
    priorities_ = {};
}

} // namespace agent
