/*
 * Why frames were dropped: one counter per reason, added to from any thread.
 */
#include <atomic>
#include <cstdio>

#include "control/kr_soft.h"
#include "dataplane/forwarding.h"
#include "host_ifc/trap_delivery.h"

namespace {

constexpr const char *reason_names[] = {
    "ingress port down",
    "ingress port blocked by spanning tree",
    "malformed frame",
    "discarded by a rule",
    "rule without target",
    "no rule matches",
    "trapped, no channel registered",
    "channel queue full",
    "no such egress port",
    "no such group",
    "group without another member",
    "egress port down",
    "egress port blocked by spanning tree",
    "egress port full",
    "too long for the egress port",
};
static_assert(sizeof reason_names / sizeof *reason_names == KR_SOFT_DROP_REASON_COUNT);

struct state {
    std::atomic<uint64_t> counts[KR_SOFT_DROP_REASON_COUNT];
};
constinit state g{};

} // namespace

namespace kr_soft {

void drop_count_add(uint32_t reason) {
    drop_counts_add(reason, 1);
}

void drop_counts_add(uint32_t reason, uint32_t frame_count) {
    if (reason < KR_SOFT_DROP_REASON_COUNT) {
        g.counts[reason].fetch_add(frame_count, std::memory_order_relaxed);
    }
}

void drop_counts_reset() {
    for (auto &count : g.counts) {
        count.store(0, std::memory_order_relaxed);
    }
}

} // namespace kr_soft

const char *kr_soft_drop_reason_name(kr_soft_drop_reason reason) {
    const auto index = static_cast<uint32_t>(reason);
    return index < KR_SOFT_DROP_REASON_COUNT ? reason_names[index] : nullptr;
}

uint64_t kr_soft_drop_count(kr_soft_drop_reason reason) {
    const auto index = static_cast<uint32_t>(reason);
    return index < KR_SOFT_DROP_REASON_COUNT ? g.counts[index].load(std::memory_order_relaxed) : 0;
}
