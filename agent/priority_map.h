/*
 * From ranks to hardware priorities. Hardware has the priorities 0 to 65535, and OpenFlow 1.0 uses all of them for
 * flows with wildcards; above them come flows without a wildcard and the daemon's own rules (a port that must not
 * receive). So two priorities that no flow uses are left out, and what lies above them moves down by one each: at first
 * 65535 and 65534, which changes no number below. A table of 1000 flows always leaves two priorities unused.
 */
#ifndef KR_AGENT_PRIORITY_MAP_H
#define KR_AGENT_PRIORITY_MAP_H

#include <array>
#include <cstdint>
#include <map>
#include <vector>

namespace agent {

inline constexpr uint32_t own_hardware_priority = 65535;   // of the daemon's own rules
inline constexpr uint32_t exact_hardware_priority = 65534; // of flows without a wildcard

class priority_map {
  public:
    /* What the rank is in hardware now. Only of ranks that were claimed. */
    uint32_t hardware_priority(uint32_t rank) const noexcept;

    /* Whether claim() would change the hardware priority of ranks in use. */
    bool claim_moves(uint32_t rank) const noexcept;

    /*
     * Says that one more flow uses this rank. Returns the ranks in use whose hardware priority this has changed by one:
     * their rules have to be moved, in this order, before a rule of the new rank is written. Moved in this order, no
     * two ranks ever share a priority.
     */
    std::vector<uint32_t> claim(uint32_t rank);

    /* One flow less uses it. Changes no hardware priority of a rank in use. */
    void release(uint32_t rank) noexcept;

  private:
    std::vector<uint32_t> used_between(uint32_t rank, uint32_t step, uint32_t *candidate) const;

    static constexpr std::array<uint32_t, 2> first_holes = {65534, 65535};
    std::array<uint32_t, 2> holes_ = first_holes; // unused priorities, in rising order
    std::map<uint32_t, uint32_t> used_;           // rank -> how many flows; without exact ones
};

} // namespace agent

#endif
