/*
 * The switch below the library, as the contract headers describe it: ACLs with rules, counters, groups, port bindings,
 * ports, frames, host-interface descriptors, and placement tables. Part of the model; it calls nothing of the platform.
 *
 * Where the contract leaves a choice to the platform (the ids it gives out, and where a placement table puts an entry)
 * the model is told what the platform chose (platform_answers) and checks that the choice was allowed.
 */
#ifndef KR_TESTS_MODEL_SWITCH_MODEL_H
#define KR_TESTS_MODEL_SWITCH_MODEL_H

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "kr_acl_rm.h"
#include "kr_host_ifc.h"
#include "kr_psort.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "tests/model/frames.h"

namespace kr_model {

// Library and model differ, or the platform did what its contract does not allow.
struct mismatch : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws unless `holds`. The text is made only then: this stands in front of every rule that is compared.
#define KR_MODEL_REQUIRE(holds, what)                                                                                  \
    do {                                                                                                               \
        if (!(holds)) {                                                                                                \
            throw kr_model::mismatch(what);                                                                            \
        }                                                                                                              \
    } while (0)

/* ---- faults ---------------------------------------------------------------------------------------------------- */

// The nth next call of a contract function, or of the operating system, fails with a code, and every later one too if
// it is persistent. Codes of a system call are errnos, and these.
enum : uint32_t { code_nothing = 1000, code_part = 1001 }; // read, write, select: none; about half of the bytes
struct fault {
    std::string function; // empty: none
    uint32_t nth = 0;
    uint32_t code = 0;
    bool persistent = false;

    bool operator==(const fault &) const = default;
};

/* ---- what the platform chose ----------------------------------------------------------------------------------- */

struct seen_shift {
    uint32_t old_index, new_index, size;
    kr_utils_status answer; // of the library
};

constexpr uint32_t placement_worker = 100; // beside PSORT_CMD_*

// One call of the placement library, as it went.
struct seen_placement {
    uint32_t command; // PSORT_CMD_ADD, PSORT_CMD_DELETE or placement_worker
    uint64_t key;
    uint32_t priority;
    uint32_t index; // of an add that succeeded
    kr_utils_status status;
    std::vector<seen_shift> shifts;
};

// In the order of the calls. Filled while the library runs a step, used up while the model does.
struct platform_answers {
    std::deque<seen_placement> placements;
    std::deque<uint32_t> acl_ids, group_ids, counter_ids;

    seen_placement take_placement(uint32_t command);
    static uint32_t take_id(std::deque<uint32_t> &ids, const char *what);
    void require_empty() const;
};

/* ---- the switch ------------------------------------------------------------------------------------------------ */

struct rule_state {
    kr_acl_rule record; // byte for byte as it is expected in hardware, but for set_offset
    flow_record flow;   // what it was made from
    bool is_active = false;
    uint64_t packets = 0, bytes = 0;
};

struct acl_state {
    std::map<uint32_t, rule_state> rules; // by offset; the lowest wins
};

struct counter_state {
    uint64_t packets = 0, bytes = 0;
    uint32_t rule_count = 0; // that name it
};

struct cpu_item {
    uint32_t trap_id;
    uint32_t log_port;
    uint32_t oper_state; // of KR_TRAP_ID_PORT_UP_DOWN
    bytes frame;
};

struct descriptor_state {
    bool is_open = true;
    std::set<uint32_t> trap_ids;
    std::deque<cpu_item> queue;
};

struct switch_port {
    bool is_up = true;
    std::deque<bytes> sent; // frames that left
};

struct place {
    uint64_t key;
    uint32_t priority;
};

struct placement_table {
    std::map<uint32_t, place> by_index;
    std::map<uint64_t, uint32_t> index_of;
};

class switch_model {
  public:
    platform_answers answers;
    fault planned;
    uint32_t fault_count = 0; // that came due

    // The code with which the call fails that is made now; none: it does its work. Every contract call asks first.
    std::optional<uint32_t> fault_due(const char *function);

    /* ---- device */
    uint32_t open_handle = 0, next_handle = 1; // the library opens one at a time
    kr_status device_open(uint32_t *handle);
    kr_status device_close(uint32_t *handle);
    kr_status port_state_get(uint32_t handle, uint32_t log_port, uint32_t *oper_state);

    std::deque<descriptor_state> descriptors; // closed ones stay
    kr_status host_ifc_open(uint32_t handle, int *descriptor);
    kr_status host_ifc_close(uint32_t handle, int descriptor);
    kr_status trap_set(uint32_t handle, uint32_t command, uint32_t trap_id, int descriptor);
    kr_status packet_send(int descriptor, const bytes &frame, uint32_t log_port);

    /* ---- resource manager: handle 0 is none */
    std::map<uint32_t, bool> rm_handles; // to whether it is initialised
    uint32_t next_rm_handle = 1;
    kr_status rm_open(uint32_t *handle);
    kr_status rm_init(uint32_t handle);
    kr_status rm_close(uint32_t *handle);

    std::map<uint32_t, acl_state> acls;
    kr_status acl_create(uint32_t handle, uint32_t *acl_id);
    kr_status acl_destroy(uint32_t handle, uint32_t acl_id);

    std::map<uint32_t, uint32_t> bindings; // logical port to ACL
    kr_status bind(uint32_t handle, uint32_t acl_id, uint32_t log_port);
    kr_status unbind(uint32_t handle, uint32_t acl_id, uint32_t log_port);

    kr_status rule_set(uint32_t handle, uint32_t acl_id, uint32_t offset, const rule_state &rule);
    kr_status rule_delete(uint32_t handle, uint32_t acl_id, uint32_t offset);
    // *rule points to the rule in the table.
    kr_status rule_get(uint32_t handle, uint32_t acl_id, uint32_t offset, rule_state **rule);
    kr_status rules_move(uint32_t handle, uint32_t acl_id, uint32_t old_start, uint32_t size, uint32_t new_start);

    std::map<uint32_t, counter_state> counters;
    kr_status counter_create(uint32_t handle, uint32_t *counter_id);
    kr_status counter_get(uint32_t handle, uint32_t counter_id, counter_state *values);

    std::map<uint32_t, std::vector<uint32_t>> groups; // id to members, oldest first
    kr_status group_create(uint32_t handle, const std::vector<uint32_t> &log_ports, uint32_t *group_id);
    kr_status group_destroy(uint32_t handle, uint32_t group_id);
    kr_status group_add(uint32_t handle, uint32_t group_id, const std::vector<uint32_t> &log_ports);
    kr_status group_remove(uint32_t handle, uint32_t group_id, const std::vector<uint32_t> &log_ports);
    // NO_RESOURCES, with *members all the same, when there are more than `room`.
    kr_status group_get(uint32_t handle, uint32_t group_id, uint32_t room, std::vector<uint32_t> *members);

    /* ---- placement tables: handle 0 is none, handle n the n-th that was made */
    std::vector<placement_table> placement_tables;
    placement_table *placement_of(uint32_t handle);
    kr_utils_status psort_init(uint32_t *handle);
    kr_utils_status psort_clear(uint32_t handle);
    // `shift` is the library's part of a shift: (old index, new index, size), answering a utilities' status.
    template <typename Shift> kr_utils_status psort_add(uint32_t handle, uint64_t key, uint32_t priority, Shift shift);
    kr_utils_status psort_delete(uint32_t handle, uint64_t key);
    template <typename Shift> void psort_work(uint32_t handle, Shift shift);

    /* ---- ports and frames */
    std::map<uint32_t, switch_port> ports;
    uint64_t drops[KR_SOFT_DROP_REASON_COUNT] = {};
    kr_status port_add(uint32_t log_port);
    kr_status port_remove(uint32_t log_port);
    kr_status link_set(uint32_t log_port, bool up);
    kr_status frame_enter(const frame_description &frame);

    kr_soft_usage usage() const;

  private:
    kr_status rm_handle_check(uint32_t handle) const;
    void counter_unname(uint32_t counter_id);
    uint32_t trap(uint32_t trap_id, uint32_t log_port, uint32_t oper_state, const bytes &frame);
    void leave(uint32_t log_port, const bytes &frame);
    void action_apply(const kr_acl_rule &rule, uint32_t log_port, const bytes &frame);
    template <typename Shift>
    kr_utils_status shifts_follow(placement_table &table, const seen_placement &seen, Shift shift);
};

/* ---- placement, in full: the model follows the platform's choices and says whether they were allowed --------------
 */

// Follows the shifts of a call. The status of the last one.
template <typename Shift>
kr_utils_status switch_model::shifts_follow(placement_table &table, const seen_placement &seen, Shift shift) {
    kr_utils_status status = KR_UTILS_STATUS_SUCCESS;
    for (const seen_shift &move : seen.shifts) {
        KR_MODEL_REQUIRE(status == KR_UTILS_STATUS_SUCCESS,
                         "the placement library went on after a shift that was refused");
        KR_MODEL_REQUIRE(move.old_index + move.size <= KR_SOFT_MAX_RULES &&
                             move.new_index + move.size <= KR_SOFT_MAX_RULES,
                         "a shift leaves the table");
        for (uint32_t i = 0; i < move.size; i++) {
            const uint32_t target = move.new_index + i;
            const bool in_source = target >= move.old_index && target < move.old_index + move.size;
            KR_MODEL_REQUIRE(in_source || !table.by_index.contains(target), "a shift lands on a live entry");
        }
        status = shift(move.old_index, move.new_index, move.size);
        KR_MODEL_REQUIRE(status == move.answer, "a shift was answered with " + std::to_string(move.answer) + ", not " +
                                                    std::to_string(status));
        if (status != KR_UTILS_STATUS_SUCCESS) {
            continue;
        }
        std::map<uint32_t, place> moved;
        for (uint32_t i = 0; i < move.size; i++) {
            if (const auto found = table.by_index.find(move.old_index + i); found != table.by_index.end()) {
                moved[move.new_index + i] = found->second;
                table.by_index.erase(found);
            }
        }
        for (const auto &[index, entry] : moved) {
            table.by_index[index] = entry;
            table.index_of[entry.key] = index;
        }
    }
    return status;
}

template <typename Shift>
kr_utils_status switch_model::psort_add(uint32_t handle, uint64_t key, uint32_t priority, Shift shift) {
    const seen_placement seen = answers.take_placement(PSORT_CMD_ADD);
    KR_MODEL_REQUIRE(seen.key == key && seen.priority == priority, "a place was asked for another flow or priority");
    const auto refused = [&](kr_utils_status status) {
        KR_MODEL_REQUIRE(seen.shifts.empty(), "shifts for an entry that was refused");
        KR_MODEL_REQUIRE(seen.status == status, "the placement library answered " + std::to_string(seen.status) +
                                                    ", not " + std::to_string(status));
        return status;
    };
    if (const auto code = fault_due("psort_entry_set")) {
        return refused(*code);
    }
    placement_table *const table = placement_of(handle);
    if (table == nullptr) {
        return refused(KR_UTILS_STATUS_INVALID_HANDLE);
    }
    if (priority > 65535) {
        return refused(KR_UTILS_STATUS_PARAM_EXCEEDS_RANGE);
    }
    if (table->index_of.contains(key)) {
        return refused(KR_UTILS_STATUS_ENTRY_ALREADY_EXISTS);
    }
    if (table->by_index.size() == KR_SOFT_MAX_RULES) {
        return refused(KR_UTILS_STATUS_NO_RESOURCES);
    }
    const kr_utils_status shifted = shifts_follow(*table, seen, shift);
    KR_MODEL_REQUIRE(seen.status == shifted, "the placement library did not hand on what a shift was answered");
    if (shifted != KR_UTILS_STATUS_SUCCESS) {
        return shifted;
    }
    // Any free index will do that keeps a higher priority from lying behind a lower one.
    KR_MODEL_REQUIRE(seen.index < KR_SOFT_MAX_RULES && !table->by_index.contains(seen.index),
                     "a place that is not free");
    const auto behind = table->by_index.lower_bound(seen.index);
    KR_MODEL_REQUIRE(behind == table->by_index.end() || behind->second.priority <= priority,
                     "flow " + std::to_string(key) + " lies before one of a higher priority");
    KR_MODEL_REQUIRE(behind == table->by_index.begin() || std::prev(behind)->second.priority >= priority,
                     "flow " + std::to_string(key) + " lies behind one of a lower priority");
    table->by_index[seen.index] = {key, priority};
    table->index_of[key] = seen.index;
    return KR_UTILS_STATUS_SUCCESS;
}

template <typename Shift> void switch_model::psort_work(uint32_t handle, Shift shift) {
    const seen_placement seen = answers.take_placement(placement_worker);
    if (fault_due("psort_background_worker")) {
        KR_MODEL_REQUIRE(seen.shifts.empty(), "shifts in a call that failed");
        return;
    }
    placement_table *const table = placement_of(handle);
    if (table == nullptr) {
        KR_MODEL_REQUIRE(seen.status == KR_UTILS_STATUS_INVALID_HANDLE, "the placement library worked on no table");
        return;
    }
    KR_MODEL_REQUIRE(seen.shifts.size() <= 1, "more than one shift in one step");
    KR_MODEL_REQUIRE(seen.status == shifts_follow(*table, seen, shift),
                     "a step did not hand on what a shift was answered");
}

} // namespace kr_model

#endif
