/*
 * The audit of the flow table: whether the placement library's table, the resource manager's rules, the library's flows
 * database and what the exported API reads back agree with each other.
 *
 * For tests and tools that run in the library's process over the software platform. It changes nothing. No flow may be
 * added or deleted meanwhile; when the background thread moves rules under its hands it begins anew.
 */
#ifndef KR_TOOLS_TABLE_AUDIT_H
#define KR_TOOLS_TABLE_AUDIT_H

#include <cstdint>
#include <string>
#include <vector>

namespace kr_audit {

/* clang-format off */
// What may be found, by name and text. Each names a flow (0: none is known) and an offset.
#define KR_AUDIT_FINDINGS(X)                                                                                           \
    X(order_broken,        "lies behind an entry of a lower priority")                                                 \
    X(place_without_rule,  "has a place where no rule is")                                                             \
    X(place_without_flow,  "has a place and is not in the flows database")                                             \
    X(rule_without_place,  "no flow has its place where this rule is")                                                 \
    X(flow_without_place,  "is in the flows database and has no place")                                                \
    X(flow_without_rule,   "no rule is where the flows database has it")                                               \
    X(offset_differs,      "has its place elsewhere than the flows database says")                                     \
    X(priority_differs,    "has another priority in its place than in the flows database")                             \
    X(slot_differs,        "the slot of its offset in the flows database names another flow, or none")                 \
    X(counter_differs,     "its rule has another counter than the flows database says")                                \
    X(counter_shared,      "its rule has the counter of another rule")                                                 \
    X(count_differs,       "the flows database counts wrong")                                                          \
    X(read_back_failed,    "the exported API can't read it")                                                           \
    X(read_back_differs,   "the exported API reads something else than its rule")
/* clang-format on */

enum class finding_kind : uint32_t {
#define X(name, text) name,
    KR_AUDIT_FINDINGS(X)
#undef X
        count
};

struct finding {
    finding_kind kind;
    uint64_t flow_id;
    uint32_t offset;
    bool operator==(const finding &) const = default;
};

struct report {
    bool is_complete; // false: the table is not there, or never came to rest
    uint32_t flow_count, place_count, rule_count;
    std::vector<finding> findings; // empty: all agree
};

// Audits Table 0, whose rules are in the ACL `acl_id`; 0: in the only ACL that there is.
report audit_table(uint32_t acl_id = 0);

// The same without the placement library's table, which may not be looked at while its background thread is at work:
// for a switch that is in service.
report audit_table_in_service();

// One line for a person, and its part that says what is wrong.
std::string to_text(const finding &found);
const char *text_of(finding_kind kind);

} // namespace kr_audit

#endif
