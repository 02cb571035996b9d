/*
 * Which flow a packet would take, and why not the others: the question of a person who looks at a table of a thousand
 * flows. Pure; it reads flows and asks neither hardware nor ports.
 */
#ifndef KR_AGENT_TRACE_H
#define KR_AGENT_TRACE_H

#include <functional>
#include <string>
#include <vector>

#include "flow_table.h"

namespace agent {

enum class trace_verdict : uint8_t {
    taken,   // the packet takes this flow
    hidden,  // it matches, but another flow that does goes first
    differs, // it does not match
    absent,  // it matches, but the flow has no rule in hardware now
};

struct trace_step {
    const flow *one;
    trace_verdict verdict;
    std::string reason; // of differs: every field that does, "nw_dst is 10.0.0.2, not 10.0.0.1"
};

/* Where a flow's rule lies; of flows of the same rank, the lower one goes first. */
using place_of_flow = std::function<uint32_t(const flow &)>;

/* All flows in the order in which hardware goes through them. `packet` is as frame_match() makes it. */
std::vector<trace_step> trace(const flow_table &table, const of10::flow_match &packet, const place_of_flow &place);

/* The fields in which a packet differs from a match; empty: it matches. Both normalized. */
std::string match_difference(const of10::flow_match &match, const of10::flow_match &packet);

} // namespace agent

#endif
