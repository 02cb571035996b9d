/*
 * The daemon's own database of OpenFlow flows: what controllers asked for, as they asked, and what was made of it in
 * hardware. It keeps and finds; it programs nothing, sends nothing and knows no time of its own.
 *
 * Two flows are the same when their normalized match and their rank are: the rank is the priority, or, for a match
 * without any wildcard, a value above all priorities, because OpenFlow 1.0 lets such a flow go first whatever its
 * priority says. Finding the same flow takes constant time; everything else walks the table (1000 flows at most).
 */
#ifndef KR_AGENT_FLOW_TABLE_H
#define KR_AGENT_FLOW_TABLE_H

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "clock.h"
#include "kr_sdn_hal.h"
#include "of10/of10.h"

namespace agent {

inline constexpr uint32_t exact_rank = 0x10000;

/* The rule that a flow has in hardware. */
struct installed_rule {
    uint64_t id = 0;                   // 0: none (no frame could match it now)
    flow_record record{};              // as it was given to hardware
    std::vector<uint16_t> group_ports; // members of its group, when it forwards to one
    bool has_counter = false;
    bool is_stuck = false; // hardware did not let it go when it was asked to
};

struct flow {
    of10::flow_match match; // as it came
    of10::flow_match key;   // normalized
    uint32_t rank = 0;
    uint16_t priority = 0;
    uint64_t cookie = 0;
    uint16_t idle_timeout = 0;
    uint16_t hard_timeout = 0;
    uint16_t flags = 0;
    of10::action_list actions; // in the order and number in which they came

    nanoseconds created = 0;
    nanoseconds used = 0; // no frame hit it after that

    installed_rule rule;
    bool is_unsettled = false;    // hardware refused what the flow means: the rule is an earlier one, or missing
    uint64_t earlier_packets = 0; // counted by rules that this flow had before, and by the daemon itself
    uint64_t earlier_bytes = 0;
    bool is_counted = true; // false once a rule of this flow had no counter

    size_t position = 0; // in the table's list
};

struct flow_key {
    const of10::flow_match *match;
    uint32_t rank;
    bool operator==(const flow_key &other) const noexcept {
        return rank == other.rank && *match == *other.match;
    }
};
struct flow_key_hash {
    size_t operator()(const flow_key &key) const noexcept;
};

/* The rank of a flow with this match, as it came, and this priority. */
uint32_t flow_rank(const of10::flow_match &match, uint16_t priority) noexcept;

/* Whether an action list sends to this port number; none: any list does. */
bool actions_output_to(const of10::action_list &actions, uint16_t port) noexcept;

class flow_table {
  public:
    flow_table() = default;
    flow_table(const flow_table &) = delete;
    flow_table &operator=(const flow_table &) = delete;

    size_t size() const noexcept {
        return flows_.size();
    }
    /* All flows, in no particular order; stays valid until the next insert or erase. */
    const std::vector<std::unique_ptr<flow>> &all() const noexcept {
        return flows_;
    }

    /* The same flow, or null. */
    flow *find(const of10::flow_match &key, uint32_t rank) const noexcept;

    /* Flows that `key` covers and that output to `out_port` (none: all of them). */
    std::vector<flow *> covered(const of10::flow_match &key, uint16_t out_port) const;

    /* A flow of this rank that a frame could match together with `key`, or null. */
    flow *overlapping(const of10::flow_match &key, uint32_t rank) const noexcept;

    /* The flow that a frame takes: `frame` is an exact match made from it (frame_match). */
    flow *lookup(const of10::flow_match &frame) const;

    /* match, priority and actions are set by the caller, key and rank here. The same flow must not be in it. */
    flow &insert(std::unique_ptr<flow> one);
    std::unique_ptr<flow> erase(flow &one) noexcept;

    /* Changes whenever a flow comes, goes or is said to have changed. */
    uint64_t version() const noexcept {
        return version_;
    }
    void changed() noexcept {
        version_++;
    }

  private:
    std::vector<std::unique_ptr<flow>> flows_;
    std::unordered_map<flow_key, flow *, flow_key_hash> index_;
    mutable std::vector<flow *> by_rank_; // for look-ups: highest first
    mutable bool is_sorted_ = true;
    uint64_t version_ = 0;
};

} // namespace agent

#endif
