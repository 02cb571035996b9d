/*
 * One turn over the table.
 */
#include "timeouts.h"

namespace agent {

void timeouts_turn(flow_table &table, rules &programmed, flow_mods &mods, nanoseconds now) {
    std::vector<flow *> watched;
    std::vector<flow *> idle;
    std::vector<flow *> over;
    for (const auto &one : table.all()) {
        if (one->hard_timeout != 0 && now - one->created >= one->hard_timeout * second_ns) {
            over.push_back(one.get());
        } else if (one->idle_timeout != 0 && one->rule.id != 0) {
            watched.push_back(one.get());
        } else if (one->idle_timeout != 0 && now - one->used >= one->idle_timeout * second_ns) {
            idle.push_back(one.get());
        }
    }
    programmed.read_activity(watched, now);
    for (flow *const one : watched) {
        if (now - one->used >= one->idle_timeout * second_ns) {
            idle.push_back(one);
        }
    }
    mods.expire(over, of10::flow_removed_reason::hard_timeout, now);
    mods.expire(idle, of10::flow_removed_reason::idle_timeout, now);
}

} // namespace agent
