/*
 * Rules in hardware for flows in the table: adds, replaces and removes them, shares multicast groups between rules with
 * the same ports, knows which rules have a counter, and reads back what it wrote. It is told what to write (rule_plan)
 * and decides neither what a flow means nor what a controller hears.
 *
 * Hardware ids are never used twice. A batch that hardware refuses in the middle leaves rules that nobody can delete;
 * that is told once as an error, counted (lost_batches), and from then on rules are written one by one, which leaves
 * none. Everything that is written is read back and compared; a rule that reads back otherwise is taken out again. One
 * that hardware does not let go then belongs to no flow: it is a stray, which keeps its place and its group, is told by
 * the audit, and is tried again until it is gone (retry_strays).
 */
#ifndef KR_AGENT_RULES_H
#define KR_AGENT_RULES_H

#include <map>
#include <optional>
#include <span>
#include <vector>

#include "flow_table.h"
#include "priority_map.h"
#include "table_driver.h"
#include "translate.h"

namespace agent {

inline constexpr uint32_t counter_budget = 128; // rules that the library gives a counter at the same time

/* Equal but for the id. */
bool records_equal(const flow_record &a, const flow_record &b) noexcept;

struct rule_counts {
    uint64_t refused = 0;      // calls of the library that failed
    uint64_t lost_batches = 0; // batches that failed in the middle
    uint64_t mismatches = 0;   // rules that read back otherwise
    uint64_t gaps = 0;         // replacements without a spare place: the old rule went before the new one came
};

class rules {
  public:
    explicit rules(table_driver &driver) : driver_(driver) {}
    rules(const rules &) = delete;
    rules &operator=(const rules &) = delete;

    struct addition {
        flow *target;
        rule_plan plan;
        std::optional<refusal> refused; // out
    };

    /* Writes rules for flows that have none. The ranks are claimed. Those refused have no rule afterwards. */
    void add(std::span<addition> additions);

    /* Makes the flow's rule what the plan says; the old one matches until the new one does, where there is room for
     * both. Refused: the old rule is still there. */
    std::optional<refusal> replace(flow &target, const rule_plan &plan);

    /* Removes the rules of flows; counts and activity are read before. False for one that hardware did not let go: it
     * still has its rule. */
    std::vector<bool> remove(std::span<flow *const> targets);

    /* The daemon's own rule above all flows: drops what enters by the port. */
    std::optional<refusal> add_ingress_drop(uint16_t port);
    /* False if hardware did not let it go: it still drops. */
    bool remove_ingress_drop(uint16_t port);
    /* The port is gone, so the rule must not be there for the next of that number. */
    void drop_ingress_drop(uint16_t port);

    /* Reads activity and moves `used` of those that were hit. */
    void read_activity(std::span<flow *const> targets, nanoseconds now);

    /* Packets and bytes of flows; counter_unknown where no counter keeps them. */
    struct counts {
        uint64_t packets, bytes;
    };
    std::vector<counts> read_counts(std::span<flow *const> targets);

    priority_map &priorities() {
        return priorities_;
    }
    size_t installed_count() const {
        return installed_;
    }
    /* Flows that may exist beside the daemon's own rules. */
    size_t capacity() const {
        return driver_.size() - drops_.size() - strays_.size();
    }
    const rule_counts &tally() const {
        return tally_;
    }
    struct group {
        uint32_t id;
        uint32_t user_count;
    };
    const std::map<std::vector<uint16_t>, group> &groups() const {
        return groups_;
    }

    /* The daemon's own rules, by port. */
    const std::map<uint16_t, installed_rule> &ingress_drops() const {
        return drops_;
    }
    uint32_t counters_used() const {
        return counters_used_;
    }

    /* Rules and groups that nothing needs any more, and that hardware did not let go. */
    const std::vector<installed_rule> &strays() const {
        return strays_;
    }
    const std::vector<uint32_t> &stray_groups() const {
        return stray_groups_;
    }
    size_t stray_count() const {
        return strays_.size() + stray_groups_.size();
    }
    /* Tries again to get them out of hardware. */
    void retry_strays();

    /* The switch was stopped, and took every rule with it: forgets them, and removes the groups, which stayed. */
    void forget_all();

  private:
    bool prepare(const flow &target, const rule_plan &plan, installed_rule &rule, std::optional<refusal> &refused);
    bool write_batch(std::span<installed_rule> batch);
    std::optional<refusal> write_one(installed_rule &rule);
    bool reads_back(std::span<installed_rule> batch);
    bool are_gone(std::span<const uint64_t> ids);
    bool erase_rule(installed_rule &rule);
    void take_out(installed_rule &rule);
    std::optional<refusal> replace_rule(flow &target, const rule_plan &plan);
    void save_counts(flow &target, nanoseconds now);
    std::optional<refusal> replace_without_room(flow &target, installed_rule &fresh);
    void keep_counter(flow &target);
    void mark_written(installed_rule &rule);
    void mark_erased(installed_rule &rule);
    bool group_acquire(const std::vector<uint16_t> &ports, uint32_t *id);
    void group_release(const std::vector<uint16_t> &ports);
    void group_delete(uint32_t id);

    table_driver &driver_;
    priority_map priorities_;
    std::map<std::vector<uint16_t>, group> groups_;
    std::map<uint16_t, installed_rule> drops_;
    std::vector<installed_rule> strays_;
    std::vector<uint32_t> stray_groups_;
    uint64_t next_id_ = 1;
    size_t installed_ = 0;
    uint32_t counters_used_ = 0;
    bool writes_singly_ = false;
    rule_counts tally_;
};

} // namespace agent

#endif
