/*
 * The commands of flow_mods.h.
 */
#include "flow_mods.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "log.h"

namespace agent {
namespace {

namespace failed = of10::flow_mod_failed;
using of10::error_type;
using of10::flow_mod_command;

constexpr uint64_t no_cookie = UINT64_MAX; // in a modify: leave it as it is

refusal refuse(uint16_t code, const char *reason) {
    return {error_type::flow_mod_failed, code, reason};
}

const char *name_of(of10::flow_removed_reason reason) {
    switch (reason) {
    case of10::flow_removed_reason::idle_timeout:
        return "idle time-out";
    case of10::flow_removed_reason::hard_timeout:
        return "hard time-out";
    case of10::flow_removed_reason::del:
        break;
    }
    return "deleted";
}

// What a flow takes over from the request that makes it, or makes it anew.
void flow_fill(flow &one, of10::flow_mod &&request, nanoseconds now) {
    one.match = request.match;
    one.priority = request.priority;
    one.cookie = request.cookie;
    one.idle_timeout = request.idle_timeout;
    one.hard_timeout = request.hard_timeout;
    one.flags = request.flags;
    one.actions = std::move(request.actions);
    one.created = now;
    one.used = now;
}

} // namespace

/* ---- requests -------------------------------------------------------------------------------------------------- */

std::optional<refusal> flow_mods::check(const of10::flow_mod &request) const {
    if ((request.flags & of10::flow_mod_flag::emerg) != 0) {
        if (request.idle_timeout != 0 || request.hard_timeout != 0) {
            return refuse(failed::bad_emerg_timeout, "an emergency flow with a time-out");
        }
        return refuse(failed::all_tables_full, "there is no table of emergency flows");
    }
    return {};
}

std::optional<refusal> flow_mods::execute(of10::flow_mod &&request, uint64_t token, const refused_handler &on_refused,
                                          nanoseconds now) {
    if (auto refused = check(request)) {
        return refused;
    }
    switch (request.command) {
    case flow_mod_command::add:
        return add(std::move(request), token, on_refused, now);
    case flow_mod_command::modify:
    case flow_mod_command::modify_strict: {
        const bool strict = request.command == flow_mod_command::modify_strict;
        flush(on_refused);
        return modify(std::move(request), strict, token, on_refused, now);
    }
    case flow_mod_command::del:
    case flow_mod_command::del_strict:
        flush(on_refused);
        return remove(request, request.command == flow_mod_command::del_strict, now);
    }
    return refuse(failed::bad_command, "no such command");
}

void flow_mods::submit(of10::flow_mod &&request, uint64_t token, const refused_handler &on_refused, nanoseconds now) {
    if (const auto refused = execute(std::move(request), token, on_refused, now)) {
        on_refused(token, *refused);
    }
}

std::optional<refusal> flow_mods::apply(of10::flow_mod &&request, nanoseconds now) {
    std::optional<refusal> outcome;
    const refused_handler keep = [&](uint64_t, const refusal &refused) { outcome = refused; };
    submit(std::move(request), 0, keep, now);
    flush(keep);
    return outcome;
}

void flow_mods::flush(const refused_handler &on_refused) {
    if (pending_.empty()) {
        return;
    }
    std::vector<rules::addition> additions;
    additions.reserve(pending_.size());
    for (pending_add &one : pending_) {
        additions.push_back({one.target, std::move(one.plan), {}});
    }
    const std::vector<pending_add> flushed = std::move(pending_);
    pending_.clear();
    rules_.add(additions);
    for (size_t i = 0; i < flushed.size(); i++) {
        if (additions[i].refused) {
            drop_from_table(*flushed[i].target);
            on_refused(flushed[i].token, *additions[i].refused);
        } else {
            on_change_(*flushed[i].target, "added", "");
        }
    }
}

/* ---- add ------------------------------------------------------------------------------------------------------- */

// Counts a flow under its rank; moves the rules that have to make room.
void flow_mods::claim(uint32_t rank) {
    for (const uint32_t moved : rules_.priorities().claim(rank)) {
        for (const auto &one : table_.all()) {
            if (one->rank == moved) {
                reprogram(*one);
            }
        }
    }
}

std::optional<refusal> flow_mods::add(of10::flow_mod &&request, uint64_t token, const refused_handler &on_refused,
                                      nanoseconds now) {
    const of10::flow_match key = of10::match_normalize(request.match);
    const uint32_t rank = flow_rank(request.match, request.priority);
    auto translated = translate(key, request.actions, ports_, missing_port::refuse);
    if (const auto *refused = std::get_if<refusal>(&translated)) {
        return *refused;
    }
    auto &plan = std::get<rule_plan>(translated);
    flow *existing = table_.find(key, rank);
    if ((request.flags & of10::flow_mod_flag::check_overlap) != 0) {
        const flow *other = table_.overlapping(key, rank);
        if (other != nullptr) {
            return refuse(failed::overlap, "another flow of this priority overlaps");
        }
    }
    if (existing != nullptr) {
        flush(on_refused);
        existing = table_.find(key, rank); // it may have been refused just now
    }
    if (existing != nullptr) {
        return add_again(*existing, std::move(request), plan, now);
    }
    if (table_.size() >= rules_.capacity()) {
        return refuse(failed::all_tables_full, "the table is full");
    }
    if (rules_.priorities().claim_moves(rank)) {
        flush(on_refused);
    }
    claim(rank);
    auto fresh = std::make_unique<flow>();
    flow_fill(*fresh, std::move(request), now);
    pending_.push_back({&table_.insert(std::move(fresh)), std::move(plan), token});
    return {};
}

// An add of a flow that is there: it starts anew, and its rule matches all the while.
std::optional<refusal> flow_mods::add_again(flow &existing, of10::flow_mod &&request, const rule_plan &plan,
                                            nanoseconds now) {
    if (auto refused = rules_.replace(existing, plan)) {
        return refused;
    }
    flow *const one = &existing;
    existing.is_counted = existing.rule.has_counter;
    existing.earlier_packets = 0;
    existing.earlier_bytes = 0;
    const rules::counts counted = rules_.read_counts({&one, 1}).front();
    if (existing.is_counted) { // a rule that could stay goes on counting: what it has counted is taken off
        existing.earlier_packets = 0 - counted.packets;
        existing.earlier_bytes = 0 - counted.bytes;
    }
    // Identity stays, byte by byte: the index holds a pointer to the key.
    flow_fill(existing, std::move(request), now);
    table_.changed();
    on_change_(existing, "added", "in place of the same flow");
    return {};
}

/* ---- modify ---------------------------------------------------------------------------------------------------- */

std::optional<refusal> flow_mods::modify(of10::flow_mod &&request, bool strict, uint64_t token,
                                         const refused_handler &on_refused, nanoseconds now) {
    const of10::flow_match key = of10::match_normalize(request.match);
    std::vector<flow *> targets;
    if (strict) {
        if (flow *const one = table_.find(key, flow_rank(request.match, request.priority))) {
            targets.push_back(one);
        }
    } else {
        targets = table_.covered(key, of10::ports::none);
    }
    if (targets.empty()) {
        return add(std::move(request), token, on_refused, now);
    }
    std::vector<rule_plan> plans;
    for (const flow *const one : targets) {
        auto translated = translate(one->key, request.actions, ports_, missing_port::leave_out);
        if (const auto *refused = std::get_if<refusal>(&translated)) {
            return *refused;
        }
        plans.push_back(std::move(std::get<rule_plan>(translated)));
    }
    // The ingress port of a flow that is there may be gone; the ports of the new actions may not.
    const auto checked = translate(targets.front()->key, request.actions, ports_, missing_port::refuse);
    if (const auto *refused = std::get_if<refusal>(&checked);
        refused != nullptr && refused->type == error_type::bad_action) {
        return *refused;
    }
    for (size_t i = 0; i < targets.size(); i++) {
        if (auto refused = rules_.replace(*targets[i], plans[i])) {
            while (i-- > 0) {
                reprogram(*targets[i]); // its actions are still the old ones
            }
            return refused;
        }
    }
    for (size_t i = 0; i < targets.size(); i++) {
        targets[i]->actions = request.actions;
        // As Open vSwitch does under this version of the protocol, which leaves it open; all ones: none was given.
        if (request.cookie != no_cookie) {
            targets[i]->cookie = request.cookie;
        }
        table_.changed();
        on_change_(*targets[i], "modified", "");
    }
    return {};
}

/* ---- delete ---------------------------------------------------------------------------------------------------- */

std::optional<refusal> flow_mods::remove(const of10::flow_mod &request, bool strict, nanoseconds) {
    const of10::flow_match key = of10::match_normalize(request.match);
    std::vector<flow *> targets;
    if (strict) {
        flow *const one = table_.find(key, flow_rank(request.match, request.priority));
        if (one != nullptr && actions_output_to(one->actions, request.out_port)) {
            targets.push_back(one);
        }
    } else {
        targets = table_.covered(key, request.out_port);
    }
    if (!end_flows(targets, of10::flow_removed_reason::del)) {
        return refuse(failed::eperm, "the hardware did not let a flow go");
    }
    return {};
}

void flow_mods::expire(std::span<flow *const> flows, of10::flow_removed_reason reason, nanoseconds) {
    (void)end_flows(flows, reason);
}

void flow_mods::drop_from_table(flow &one) {
    rules_.priorities().release(one.rank);
    (void)table_.erase(one);
}

// False if hardware kept one of them; those are still in the table.
bool flow_mods::end_flows(std::span<flow *const> flows, of10::flow_removed_reason reason) {
    const std::vector<bool> gone = rules_.remove(flows);
    bool is_good = true;
    for (size_t i = 0; i < flows.size(); i++) {
        if (!gone[i]) {
            is_good = false;
            continue;
        }
        rules_.priorities().release(flows[i]->rank);
        const std::unique_ptr<flow> ended = table_.erase(*flows[i]);
        on_change_(*ended, "removed", name_of(reason));
        if ((ended->flags & of10::flow_mod_flag::send_flow_rem) != 0) {
            const flow *const one = ended.get();
            const rules::counts last = one->is_counted ? rules::counts{one->earlier_packets, one->earlier_bytes}
                                                       : rules::counts{of10::counter_unknown, of10::counter_unknown};
            on_removed_(*ended, reason, last);
        }
    }
    return is_good;
}

void flow_mods::end_all() {
    std::vector<flow *> all;
    for (const auto &one : table_.all()) {
        all.push_back(one.get());
    }
    (void)end_flows(all, of10::flow_removed_reason::del);
}

void flow_mods::forget_all(nanoseconds now) {
    pending_.clear();
    std::vector<flow *> all;
    for (const auto &one : table_.all()) {
        one->rule = {};
        all.push_back(one.get());
    }
    expire(all, of10::flow_removed_reason::del, now);
    rules_.forget_all();
}

/* ---- changes around the flows ---------------------------------------------------------------------------------- */

void flow_mods::reprogram(flow &one) {
    auto translated = translate(one.key, one.actions, ports_, missing_port::leave_out);
    const auto *plan = std::get_if<rule_plan>(&translated);
    const auto refused = plan == nullptr ? std::optional(std::get<refusal>(translated)) : rules_.replace(one, *plan);
    if (refused && !std::exchange(one.is_unsettled, true)) {
        log(log_level::error, "the rule of a flow with priority %u could not be changed: %s; that is tried again",
            one.priority, refused->reason);
    }
}

bool flow_mods::repair() {
    assert(pending_.empty());
    bool is_left = false;
    for (const auto &one : table_.all()) {
        if (one->is_unsettled) {
            reprogram(*one);
            is_left = is_left || one->is_unsettled;
        }
    }
    rules_.retry_strays();
    return is_left || rules_.stray_count() > 0;
}

void flow_mods::ports_changed(const port_lists &ports) {
    assert(pending_.empty());
    ports_ = ports;
    for (const auto &one : table_.all()) {
        reprogram(*one);
    }
}

} // namespace agent
