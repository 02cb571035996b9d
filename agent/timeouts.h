/*
 * Time-outs of flows. Hardware tells whether a rule was hit since it was last asked, so the daemon asks once per turn;
 * a hit counts as of the turn that finds it, which makes an idle time-out late by less than two turns and never early.
 * A hard time-out is late by less than one turn.
 */
#ifndef KR_AGENT_TIMEOUTS_H
#define KR_AGENT_TIMEOUTS_H

#include "flow_mods.h"

namespace agent {

inline constexpr nanoseconds timeout_turn = 250 * millisecond_ns;

/* One turn: ends the flows whose time has come. */
void timeouts_turn(flow_table &table, rules &programmed, flow_mods &mods, nanoseconds now);

} // namespace agent

#endif
