/*
 * Flow-mods on a table in memory: what each leaves in the database and in hardware, with and without failures, and a
 * long random run after each step of which both are compared.
 */
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "fake_table.h"
#include "flow_mods.h"
#include "log.h"
#include "match.h"
#include "tests/support/test_seed.h"
#include "timeouts.h"

namespace agent {
namespace {

using kr_test::fake_table;
using of10::action_output;
using of10::flow_mod_command;

const port_lists four = {{1, 2, 3, 4}, {1, 2, 3, 4}, {1, 2, 3, 4}};

of10::flow_match to_vlan(uint16_t id) {
    of10::flow_match m;
    m.wildcards &= ~of10::wildcard::dl_vlan;
    m.dl_vlan = id;
    return m;
}

struct bench {
    explicit bench(uint32_t size = 1000) : hardware(size), programmed(hardware), mods(table, programmed, on_removed()) {
        log_level_set(log_level::error);
        mods.ports_changed(four);
    }
    flow_mods::removed_handler on_removed() {
        return [this](const flow &one, of10::flow_removed_reason reason, const rules::counts &last) {
            removed.push_back({one.cookie, reason, last.packets});
        };
    }
    std::optional<refusal> apply(of10::flow_mod mod) {
        return mods.apply(std::move(mod), now);
    }
    bool add(uint16_t id, uint16_t priority, of10::action_list actions = {}, uint16_t flags = 0) {
        return !apply(make(flow_mod_command::add, to_vlan(id), priority, std::move(actions), flags));
    }
    static of10::flow_mod make(flow_mod_command command, const of10::flow_match &match, uint16_t priority,
                               of10::action_list actions, uint16_t flags = 0) {
        of10::flow_mod mod;
        mod.command = command;
        mod.match = match;
        mod.priority = priority;
        mod.actions = std::move(actions);
        mod.flags = flags;
        mod.cookie = priority;
        return mod;
    }
    flow &only() {
        return *table.all().front();
    }

    // Database and hardware say the same.
    void audit() const {
        std::set<uint64_t> ids;
        std::set<uint32_t> groups;
        for (const auto &one : table.all()) {
            if (one->rule.id == 0) {
                continue;
            }
            ids.insert(one->rule.id);
            ASSERT_TRUE(hardware.rules.contains(one->rule.id));
            const flow_record &record = hardware.rules.at(one->rule.id).record;
            ASSERT_TRUE(records_equal(record, one->rule.record));
            ASSERT_EQ(hardware.rules.at(one->rule.id).is_counted, one->rule.has_counter);
            if (record.action == FLOW_ACTION_MC_GROUP) {
                groups.insert(record.mc_group_id);
                ASSERT_EQ(hardware.groups.at(record.mc_group_id), one->rule.group_ports);
            }
        }
        ASSERT_EQ(ids.size(), hardware.rules.size());
        ASSERT_EQ(programmed.installed_count(), hardware.rules.size());
        ASSERT_EQ(groups.size(), hardware.groups.size());
        ASSERT_EQ(groups.size(), programmed.groups().size());
        for (const auto &a : table.all()) {
            for (const auto &b : table.all()) {
                if (a->rule.id != 0 && b->rule.id != 0) {
                    ASSERT_EQ(a->rank < b->rank, a->rule.record.priority < b->rule.record.priority);
                }
            }
        }
    }

    struct removal {
        uint64_t cookie;
        of10::flow_removed_reason reason;
        uint64_t packets;
    };
    std::vector<removal> removed;
    nanoseconds now = 1000 * second_ns;
    fake_table hardware;
    flow_table table;
    rules programmed;
    flow_mods mods;
};

TEST(flow_mods, new_flows_are_one_batch_and_others_write_it_first) {
    bench b;
    const flow_mods::refused_handler nobody = [](uint64_t, const refusal &) { FAIL(); };
    for (uint16_t i = 0; i < 50; i++) {
        b.mods.submit(bench::make(flow_mod_command::add, to_vlan(i), i, {action_output{2, 0}}), i, nobody, b.now);
    }
    EXPECT_TRUE(b.hardware.rules.empty());
    b.mods.submit(bench::make(flow_mod_command::del, to_vlan(7), 0, {}), 50, nobody, b.now);
    EXPECT_EQ(b.hardware.batch_sizes, std::vector<size_t>{50});
    EXPECT_EQ(b.table.size(), 49u);
    b.audit();
}

TEST(flow_mods, a_modify_leaves_no_gap_where_there_is_room) {
    bench b(10);
    for (uint16_t i = 0; i < 9; i++) {
        ASSERT_TRUE(b.add(i, 5, {action_output{2, 0}}));
    }
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::modify, {}, 0, {action_output{3, 0}})));
    EXPECT_GE(b.hardware.lowest_rule_count, 9u);
    EXPECT_EQ(b.programmed.tally().gaps, 0u);
    b.audit();
    ASSERT_TRUE(b.add(9, 5, {action_output{2, 0}}));
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::modify, {}, 0, {action_output{4, 0}})));
    EXPECT_EQ(b.hardware.lowest_rule_count, 9u);
    EXPECT_EQ(b.programmed.tally().gaps, 10u);
    b.audit();
    EXPECT_EQ(b.apply(bench::make(flow_mod_command::add, to_vlan(99), 1, {}))->code,
              of10::flow_mod_failed::all_tables_full);
    EXPECT_EQ(b.table.size(), 10u);
}

TEST(flow_mods, counters_survive_a_modify_and_start_anew_with_an_add) {
    bench b;
    ASSERT_TRUE(b.add(1, 5, {action_output{2, 0}}));
    b.hardware.hit(b.only().rule.id, 10);
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::modify, {}, 0, {action_output{3, 0}})));
    b.hardware.hit(b.only().rule.id, 5);
    flow *const one = &b.only();
    EXPECT_EQ(b.programmed.read_counts({&one, 1})[0].packets, 15u);
    EXPECT_EQ(b.programmed.read_counts({&one, 1})[0].bytes, 1500u);
    for (const uint16_t port : {uint16_t{3}, uint16_t{4}}) { // the same rule stays, or a new one comes
        ASSERT_TRUE(b.add(1, 5, {action_output{port, 0}}));
        EXPECT_EQ(b.programmed.read_counts({&one, 1})[0].packets, 0u);
        b.hardware.hit(one->rule.id, 2);
        EXPECT_EQ(b.programmed.read_counts({&one, 1})[0].packets, 2u);
    }
}

TEST(flow_mods, the_counter_budget_is_known) {
    bench b;
    for (uint16_t i = 0; i < 129; i++) {
        ASSERT_TRUE(b.add(i, i, {action_output{2, 0}}));
    }
    b.audit();
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::modify, {}, 0, {action_output{3, 0}})));
    b.audit();
    int unknown = 0;
    for (const auto &one : b.table.all()) {
        unknown += one->is_counted ? 0 : 1;
    }
    EXPECT_EQ(unknown, 1);
}

TEST(flow_mods, groups_are_shared_and_go_with_the_last) {
    bench b;
    const of10::action_list both = {action_output{2, 0}, action_output{3, 0}};
    ASSERT_TRUE(b.add(1, 1, both));
    ASSERT_TRUE(b.add(2, 2, {action_output{3, 0}, action_output{2, 0}, action_output{3, 0}}));
    EXPECT_EQ(b.hardware.groups.size(), 1u);
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::del, to_vlan(1), 0, {})));
    EXPECT_EQ(b.hardware.groups.size(), 1u);
    b.hardware.group_room = 1;
    EXPECT_EQ(b.apply(bench::make(flow_mod_command::add, to_vlan(3), 0, {action_output{4, 0}}))->code,
              of10::flow_mod_failed::all_tables_full);
    EXPECT_EQ(b.table.size(), 1u);
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::del, {}, 0, {})));
    EXPECT_TRUE(b.hardware.groups.empty());
}

TEST(flow_mods, a_failing_write_is_told_and_leaves_what_was) {
    bench b;
    ASSERT_TRUE(b.add(1, 1, {action_output{2, 0}}));
    b.hardware.fail_add_in = 0;
    EXPECT_FALSE(b.add(2, 2, {action_output{2, 0}}));
    b.hardware.fail_add_in = 0;
    EXPECT_TRUE(b.apply(bench::make(flow_mod_command::modify, {}, 0, {action_output{3, 0}})));
    EXPECT_EQ(b.only().actions, of10::action_list{(action_output{2, 0})});
    b.hardware.misread = 1;
    EXPECT_FALSE(b.add(3, 3));
    b.hardware.misread = 0;
    EXPECT_EQ(b.programmed.tally().mismatches, 1u);
    EXPECT_EQ(b.table.size(), 1u);
    b.audit();
}

TEST(flow_mods, a_failing_batch_is_written_one_by_one) {
    bench b;
    std::set<uint64_t> refused;
    const flow_mods::refused_handler keep = [&](uint64_t token, const refusal &) { refused.insert(token); };
    b.hardware.fail_add_in = 3;
    for (uint16_t i = 0; i < 10; i++) {
        b.mods.submit(bench::make(flow_mod_command::add, to_vlan(i), i, {}), i, keep, b.now);
    }
    b.mods.flush(keep);
    EXPECT_TRUE(refused.empty());
    EXPECT_EQ(b.table.size(), 10u);
    EXPECT_EQ(b.programmed.tally().lost_batches, 1u);
    for (const auto &one : b.table.all()) {
        EXPECT_TRUE(b.hardware.rules.contains(one->rule.id));
    }
    b.hardware.batch_sizes.clear();
    for (uint16_t i = 20; i < 23; i++) {
        b.mods.submit(bench::make(flow_mod_command::add, to_vlan(i), i, {}), i, keep, b.now);
    }
    b.mods.flush(keep);
    EXPECT_EQ(b.hardware.batch_sizes, (std::vector<size_t>{1, 1, 1}));
}

TEST(flow_mods, what_hardware_does_not_let_go_stays) {
    bench b;
    ASSERT_TRUE(b.add(1, 1, {}, of10::flow_mod_flag::send_flow_rem));
    ASSERT_TRUE(b.add(2, 2, {}, of10::flow_mod_flag::send_flow_rem));
    b.hardware.stuck.insert(b.table.find(of10::match_normalize(to_vlan(1)), 1)->rule.id);
    EXPECT_TRUE(b.apply(bench::make(flow_mod_command::del, {}, 0, {})));
    ASSERT_EQ(b.removed.size(), 1u);
    EXPECT_EQ(b.removed[0].cookie, 2u);
    EXPECT_EQ(b.table.size(), 1u);
    b.hardware.stuck.clear();
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::del, {}, 0, {})));
    b.audit();
}

// The next rules that are written get these numbers.
std::vector<uint64_t> next_ids(const bench &b, uint64_t count) {
    std::vector<uint64_t> ids;
    for (uint64_t id = b.hardware.ids_seen.empty() ? 1 : *b.hardware.ids_seen.rbegin() + 1; ids.size() < count; id++) {
        ids.push_back(id);
    }
    return ids;
}

TEST(flow_mods, a_rule_of_a_batch_that_reads_back_otherwise_and_stays_is_refused_and_not_forgotten) {
    bench b;
    std::map<uint64_t, uint16_t> refused;
    const flow_mods::refused_handler keep = [&](uint64_t token, const refusal &why) { refused[token] = why.code; };
    const uint64_t bad = next_ids(b, 2)[1]; // the second from the top
    b.hardware.misread_ids = b.hardware.stuck = {bad};
    for (uint16_t i = 0; i < 3; i++) {
        b.mods.submit(bench::make(flow_mod_command::add, to_vlan(i), i, {action_output{2, 0}, action_output{3, 0}}), i,
                      keep, b.now);
    }
    b.mods.flush(keep);
    EXPECT_EQ(refused, (std::map<uint64_t, uint16_t>{{1, of10::flow_mod_failed::eperm}}));
    EXPECT_EQ(b.table.size(), 2u);
    EXPECT_EQ(b.table.find(of10::match_normalize(to_vlan(1)), 1), nullptr);
    ASSERT_EQ(b.programmed.strays().size(), 1u);
    EXPECT_EQ(b.programmed.strays()[0].id, bad);
    EXPECT_TRUE(b.hardware.rules.contains(bad));
    EXPECT_EQ(b.programmed.installed_count(), 3u);
    EXPECT_EQ(b.programmed.capacity(), 999u); // it takes a place
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::del, {}, 0, {})));
    EXPECT_EQ(b.hardware.groups.size(), 1u); // it still forwards to its group
    const uint64_t failures = b.programmed.tally().refused;
    EXPECT_TRUE(b.mods.repair());
    EXPECT_EQ(b.programmed.tally().refused, failures);
    b.hardware.stuck.clear();
    EXPECT_FALSE(b.mods.repair());
    EXPECT_EQ(b.programmed.stray_count(), 0u);
    EXPECT_TRUE(b.hardware.rules.empty() && b.hardware.groups.empty());
    b.audit();
}

TEST(flow_mods, the_new_rule_of_a_modify_that_reads_back_otherwise_and_stays_is_not_forgotten) {
    bench b;
    ASSERT_TRUE(b.add(1, 5, {action_output{2, 0}}));
    const uint64_t bad = next_ids(b, 1)[0];
    b.hardware.misread_ids = b.hardware.stuck = {bad};
    EXPECT_EQ(b.apply(bench::make(flow_mod_command::modify, {}, 0, {}))->code, of10::flow_mod_failed::eperm);
    EXPECT_EQ(b.only().actions.size(), 1u);
    ASSERT_EQ(b.programmed.stray_count(), 1u);
    b.hardware.kept = std::exchange(b.hardware.stuck, {}); // says that it goes, and keeps it
    EXPECT_TRUE(b.mods.repair());
    b.hardware.kept.clear();
    EXPECT_FALSE(b.mods.repair());
    b.audit();
}

TEST(flow_mods, a_group_that_stays_is_tried_again) {
    bench b;
    ASSERT_TRUE(b.add(1, 1, {action_output{2, 0}, action_output{3, 0}}));
    b.hardware.has_stuck_groups = true;
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::del, {}, 0, {})));
    EXPECT_EQ(b.programmed.stray_groups().size(), 1u);
    EXPECT_TRUE(b.mods.repair());
    b.hardware.has_stuck_groups = false;
    EXPECT_FALSE(b.mods.repair());
    b.audit();
}

// The switch gives the ids of its earlier groups to new ones.
TEST(flow_mods, groups_of_before_the_switch_was_started_anew_are_not_tried_again) {
    bench b;
    ASSERT_TRUE(b.add(1, 1, {action_output{2, 0}, action_output{3, 0}}));
    b.hardware.has_stuck_groups = true;
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::del, {}, 0, {})));
    ASSERT_EQ(b.programmed.stray_groups().size(), 1u);
    ASSERT_TRUE(b.add(2, 1, {action_output{1, 0}, action_output{2, 0}}));
    b.hardware.rules.clear(); // as the new start does
    b.mods.forget_all(0);
    EXPECT_EQ(b.programmed.stray_count(), 0u);
    EXPECT_FALSE(b.mods.repair());
}

TEST(flow_mods, a_modify_of_many_that_fails_in_the_middle_changes_none) {
    bench b;
    for (uint16_t i = 0; i < 5; i++) {
        ASSERT_TRUE(b.add(i, i, {action_output{2, 0}}));
    }
    b.hardware.fail_add_in = 3;
    EXPECT_TRUE(b.apply(bench::make(flow_mod_command::modify, {}, 0, {action_output{of10::ports::controller, 0}})));
    for (const auto &one : b.table.all()) {
        EXPECT_EQ(one->actions, of10::action_list{(action_output{2, 0})});
        EXPECT_EQ(one->rule.record.action, static_cast<uint32_t>(FLOW_ACTION_MC_GROUP));
    }
    b.audit();
}

TEST(flow_mods, a_flow_that_lost_its_rule_gets_it_again) {
    bench b(2);
    ASSERT_TRUE(b.add(1, 1, {action_output{2, 0}}));
    ASSERT_TRUE(b.add(2, 2, {action_output{2, 0}}));
    b.hardware.fail_adds = true; // neither the new rule nor the old one
    EXPECT_TRUE(b.apply(bench::make(flow_mod_command::modify_strict, to_vlan(1), 1, {})));
    EXPECT_EQ(b.hardware.rules.size(), 1u);
    EXPECT_EQ(b.table.size(), 2u);
    EXPECT_TRUE(b.mods.repair());
    b.hardware.fail_adds = false;
    EXPECT_FALSE(b.mods.repair());
    EXPECT_EQ(b.hardware.rules.size(), 2u);
    EXPECT_EQ(b.table.find(of10::match_normalize(to_vlan(1)), 1)->rule.record.action,
              static_cast<uint32_t>(FLOW_ACTION_MC_GROUP));
    b.audit();
}

TEST(flow_mods, a_rule_that_could_not_follow_the_ports_follows_later) {
    bench b;
    ASSERT_TRUE(b.add(1, 1, {action_output{4, 0}, action_output{2, 0}}));
    b.hardware.fail_adds = true;
    b.mods.ports_changed({{1, 2, 3}, {1, 2, 3}, {1, 2, 3}});
    EXPECT_TRUE(b.mods.repair());
    b.hardware.fail_adds = false;
    EXPECT_FALSE(b.mods.repair());
    EXPECT_EQ(b.only().rule.group_ports, std::vector<uint16_t>{2});
    b.audit();
}

TEST(flow_mods, a_drop_of_a_port_that_stays_is_told_and_not_written_twice) {
    bench b;
    EXPECT_FALSE(b.programmed.add_ingress_drop(3));
    const uint64_t id = b.programmed.ingress_drops().at(3).id;
    b.hardware.stuck = {id};
    EXPECT_FALSE(b.programmed.remove_ingress_drop(3));
    EXPECT_FALSE(b.programmed.add_ingress_drop(3));
    EXPECT_EQ(b.hardware.rules.size(), 1u);
    b.programmed.drop_ingress_drop(3);
    EXPECT_TRUE(b.programmed.ingress_drops().empty());
    EXPECT_EQ(b.programmed.stray_count(), 1u);
    b.hardware.stuck.clear();
    EXPECT_FALSE(b.mods.repair());
    b.audit();
}

TEST(flow_mods, a_group_is_read_back) {
    bench b;
    const of10::action_list both = {action_output{2, 0}, action_output{3, 0}};
    b.hardware.loses_member = true;
    EXPECT_FALSE(b.add(1, 1, both));
    EXPECT_EQ(b.programmed.tally().mismatches, 1u);
    EXPECT_TRUE(b.hardware.groups.empty() && b.hardware.rules.empty());
    EXPECT_EQ(b.table.size(), 0u);
    b.hardware.loses_member = false;
    EXPECT_TRUE(b.add(1, 1, both));
    b.audit();
}

TEST(flow_mods, a_removal_is_looked_at_and_not_believed) {
    bench b;
    for (uint16_t i = 1; i <= 3; i++) {
        ASSERT_TRUE(b.add(i, i, {}, of10::flow_mod_flag::send_flow_rem));
    }
    b.hardware.kept.insert(b.table.find(of10::match_normalize(to_vlan(2)), 2)->rule.id);
    EXPECT_TRUE(b.apply(bench::make(flow_mod_command::del, {}, 0, {})));
    EXPECT_EQ(b.removed.size(), 2u);
    EXPECT_EQ(b.only().cookie, 2u);
    b.removed.clear();
    EXPECT_TRUE(b.apply(bench::make(flow_mod_command::del_strict, to_vlan(2), 2, {})));
    EXPECT_TRUE(b.removed.empty());
    b.audit();
    b.hardware.kept.clear();
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::del, {}, 0, {})));
    EXPECT_EQ(b.table.size(), 0u);
    b.audit();
}

TEST(flow_mods, ports_that_go_and_come_back) {
    bench b;
    of10::flow_match ingress;
    ingress.wildcards &= ~of10::wildcard::in_port;
    ingress.in_port = 4;
    EXPECT_FALSE(b.apply(bench::make(flow_mod_command::add, ingress, 1, {action_output{1, 0}})));
    ASSERT_TRUE(b.add(1, 2, {action_output{4, 0}, action_output{2, 0}}));
    ASSERT_TRUE(b.add(2, 3, {action_output{of10::ports::flood, 0}}));
    b.mods.ports_changed({{1, 2, 3}, {1, 2, 3}, {1, 2, 3}});
    b.audit();
    EXPECT_EQ(b.hardware.rules.size(), 2u);
    EXPECT_EQ(b.table.size(), 3u);
    b.mods.ports_changed(four);
    b.audit();
    EXPECT_EQ(b.hardware.rules.size(), 3u);
}

TEST(timeouts, idle_and_hard) {
    bench b;
    auto idle = bench::make(flow_mod_command::add, to_vlan(1), 1, {}, of10::flow_mod_flag::send_flow_rem);
    idle.idle_timeout = 2;
    auto hard = bench::make(flow_mod_command::add, to_vlan(2), 2, {}, of10::flow_mod_flag::send_flow_rem);
    hard.hard_timeout = 5;
    const nanoseconds start = b.now;
    EXPECT_FALSE(b.apply(std::move(idle)));
    EXPECT_FALSE(b.apply(std::move(hard)));
    const nanoseconds last_hit = start + 3 * second_ns;
    bool was_hit = false;
    nanoseconds idle_end = 0;
    nanoseconds hard_end = 0;
    for (; b.now < start + 8 * second_ns; b.now += timeout_turn) {
        if (b.now - start == second_ns + second_ns / 2 || (b.now >= last_hit && !was_hit)) {
            b.hardware.hit(b.table.find(of10::match_normalize(to_vlan(1)), 1)->rule.id, 1);
            was_hit = b.now >= last_hit;
        }
        b.removed.clear();
        timeouts_turn(b.table, b.programmed, b.mods, b.now);
        for (const auto &one : b.removed) {
            const bool is_idle = one.reason == of10::flow_removed_reason::idle_timeout;
            EXPECT_EQ(one.cookie, is_idle ? 1u : 2u);
            (is_idle ? idle_end : hard_end) = b.now;
        }
    }
    EXPECT_GE(hard_end, start + 5 * second_ns);
    EXPECT_LE(hard_end, start + 6 * second_ns);
    EXPECT_GE(idle_end, last_hit + 2 * second_ns);
    EXPECT_LE(idle_end, last_hit + 3 * second_ns);
    EXPECT_EQ(b.table.size(), 0u);
}

// A table of 40 places, few matches and priorities, so that everything happens often.
class random_run {
  public:
    explicit random_run(uint64_t seed) : random_(seed), b(40) {}

    void step() {
        const unsigned what = pick(12);
        if (what == 0) {
            check();
            b.mods.ports_changed(pick(2) == 0 ? four : port_lists{{1, 2, 3}, {1, 2, 3}, {1, 3}});
            return;
        }
        of10::flow_match match = to_vlan(static_cast<uint16_t>(pick(30)));
        if (pick(3) == 0) {
            match.wildcards &= ~of10::wildcard::in_port;
            match.in_port = static_cast<uint16_t>(1 + pick(4));
        }
        if (pick(10) == 0) {
            match.wildcards = 0;
        } else if (pick(20) == 0) {
            match = {};
        }
        const flow_mod_command commands[] = {
            flow_mod_command::add,    flow_mod_command::add,           flow_mod_command::add,
            flow_mod_command::modify, flow_mod_command::modify_strict, flow_mod_command::del_strict,
            flow_mod_command::del};
        of10::action_list actions;
        for (unsigned i = pick(4); i > 0; i--) {
            constexpr uint16_t targets[] = {1, 2, 3, 4, of10::ports::flood, of10::ports::controller, 9};
            actions.push_back(action_output{targets[pick(7)], 0});
        }
        const auto priority = static_cast<uint16_t>(65535 - pick(8));
        b.mods.submit(
            bench::make(commands[pick(7)], match, priority, std::move(actions)), 0, [](uint64_t, const refusal &) {},
            b.now);
    }
    void check() {
        b.mods.flush([](uint64_t, const refusal &) {});
        b.audit();
        ASSERT_LE(b.table.size(), 40u);
        largest = std::max(largest, b.table.size());
    }

    unsigned pick(unsigned count) {
        return static_cast<unsigned>(random_() % count);
    }
    std::mt19937_64 random_;
    bench b;
    size_t largest = 0;
};

TEST(flow_mods, database_and_hardware_agree_in_a_random_run) {
    const uint64_t seed = kr_test::test_seed();
    SCOPED_TRACE(seed);
    random_run run(seed);
    for (int i = 0; i < 5000 && !testing::Test::HasFatalFailure(); i++) {
        run.step();
        if (run.pick(3) == 0) {
            run.check();
        }
    }
    EXPECT_GE(run.largest, 30u);
    run.b.mods.end_all();
    EXPECT_TRUE(run.b.hardware.rules.empty() && run.b.hardware.groups.empty());
}

} // namespace
} // namespace agent
