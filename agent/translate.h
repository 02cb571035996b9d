/*
 * From an OpenFlow flow to the one hardware rule that does the same, or to the OpenFlow error that says why there is
 * none. Pure: it knows the ports as a list and asks nobody.
 *
 * The order of the action list is honoured by working it through: VLAN edits accumulate, each output takes the edits so
 * far, and the list is refused when two outputs would carry different frames. What is left is an edit and a set of
 * ports.
 *
 *   set of ports                                     rule
 *   empty                                            drop
 *   controller alone, without an edit                trap
 *   one port, and the match fixes another ingress    forward to the port
 *   IN_PORT alone, and the match fixes the ingress   forward to the ingress port
 *   every port that there is, by FLOOD or ALL        flood (which never returns a frame to its ingress)
 *   anything else                                    a multicast group (which never returns a frame either)
 *
 * A single port without a fixed ingress is a group of one, because a plain forward would send frames that came in by
 * that very port back.
 */
#ifndef KR_AGENT_TRANSLATE_H
#define KR_AGENT_TRANSLATE_H

#include <cstdint>
#include <string_view>
#include <variant>
#include <vector>

#include "kr_sdn_hal.h"
#include "of10/of10.h"

namespace agent {

/* The error that a request deserves, and a literal that says it to a person. */
struct refusal {
    of10::error_type type;
    uint16_t code;
    const char *reason;
};

/* The ports as translation sees them; every list in rising order. */
struct port_lists {
    std::vector<uint16_t> all;     // that exist
    std::vector<uint16_t> sending; // of these: frames may be forwarded to them
    std::vector<uint16_t> flooded; // of these: FLOOD includes them
};

struct rule_plan {
    flow_record record{};              // all but flow_id, priority and mc_group_id
    std::vector<uint16_t> group_ports; // rising; not empty if the record forwards to a group
    bool can_match = true;             // false: its ingress port does not exist, so no rule is needed
};

/* What a port that does not exist means: an error in a request, nothing in a flow that was there before. */
enum class missing_port { refuse, leave_out };

std::variant<rule_plan, refusal> translate(const of10::flow_match &key, const of10::action_list &actions,
                                           const port_lists &ports, missing_port policy);

/* The action types that flows and packet-outs may use, as FEATURES_REPLY tells them. */
inline constexpr uint32_t supported_actions = 1u << static_cast<unsigned>(of10::action_type::output) |
                                              1u << static_cast<unsigned>(of10::action_type::set_vlan_vid) |
                                              1u << static_cast<unsigned>(of10::action_type::set_vlan_pcp) |
                                              1u << static_cast<unsigned>(of10::action_type::strip_vlan);

/* The longest action list that is taken: room for every port twice, and memory that stays bounded. */
inline constexpr size_t max_actions = 512;

/* The length or type of an action list is refused for the same reasons in flows and packet-outs. */
std::variant<std::monostate, refusal> actions_check(const of10::action_list &actions);

} // namespace agent

#endif
