/*
 * The two holes of priority_map.h, and how one moves out of the way of a rank that is claimed.
 */
#include "priority_map.h"

#include <algorithm>

#include "flow_table.h"

namespace agent {

uint32_t priority_map::hardware_priority(uint32_t rank) const noexcept {
    if (rank >= exact_rank) {
        return exact_hardware_priority;
    }
    const auto holes_below = std::count_if(holes_.begin(), holes_.end(), [rank](uint32_t hole) { return hole < rank; });
    return rank - static_cast<uint32_t>(holes_below);
}

// Walks from a rank until it meets one that is neither used nor a hole, or the end (then *candidate is no priority),
// and returns the used ones on the way, the farthest first.
std::vector<uint32_t> priority_map::used_between(uint32_t rank, uint32_t step, uint32_t *candidate) const {
    std::vector<uint32_t> used;
    uint32_t at = rank + step;
    while (at < exact_rank) { // downwards it wraps around to a large number
        if (used_.contains(at)) {
            used.push_back(at);
        } else if (std::find(holes_.begin(), holes_.end(), at) == holes_.end()) {
            break;
        }
        at += step;
    }
    *candidate = at;
    std::reverse(used.begin(), used.end());
    return used;
}

bool priority_map::claim_moves(uint32_t rank) const noexcept {
    return std::find(holes_.begin(), holes_.end(), rank) != holes_.end();
}

std::vector<uint32_t> priority_map::claim(uint32_t rank) {
    if (rank >= exact_rank || ++used_[rank] > 1) {
        return {};
    }
    const auto hole = std::find(holes_.begin(), holes_.end(), rank);
    if (hole == holes_.end()) {
        return {};
    }
    uint32_t above = 0;
    uint32_t below = 0;
    std::vector<uint32_t> raised = used_between(rank, 1, &above);
    std::vector<uint32_t> lowered = used_between(rank, UINT32_MAX, &below);
    const bool goes_up = above < exact_rank && (below >= exact_rank || raised.size() <= lowered.size());
    *hole = goes_up ? above : below;
    std::sort(holes_.begin(), holes_.end());
    return goes_up ? raised : lowered;
}

void priority_map::release(uint32_t rank) noexcept {
    const auto found = used_.find(rank);
    if (found == used_.end() || --found->second > 0) {
        return;
    }
    used_.erase(found);
    if (used_.empty()) {
        holes_ = first_holes;
    }
}

} // namespace agent
