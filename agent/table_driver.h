/*
 * What the daemon asks of a flow table, as an interface: hardware.h answers with the library, a test with a table of
 * its own. Statuses are those of the library's table functions, and mean what they mean there.
 */
#ifndef KR_AGENT_TABLE_DRIVER_H
#define KR_AGENT_TABLE_DRIVER_H

#include <cstdint>
#include <span>
#include <vector>

#include "kr_sdn_hal.h"

namespace agent {

class table_driver {
  public:
    virtual ~table_driver() = default;

    virtual uint32_t size() const = 0; // rules that there is room for

    virtual kr_sdn_hal_status add(std::span<flow_record> flows) = 0;
    virtual kr_sdn_hal_status remove(std::span<const uint64_t> ids) = 0;
    virtual kr_sdn_hal_status read(std::span<const uint64_t> ids, std::span<flow_record> flows) = 0;
    virtual kr_sdn_hal_status read_activity(std::span<const uint64_t> ids, std::span<uint32_t> activities) = 0;
    virtual kr_sdn_hal_status read_stats(std::span<const uint64_t> ids, std::span<flow_stats> stats) = 0;

    virtual kr_sdn_hal_status group_create(std::span<const uint16_t> ports, uint32_t *group_id) = 0;
    virtual kr_sdn_hal_status group_delete(uint32_t group_id) = 0;
    /* The members, in rising order. */
    virtual kr_sdn_hal_status group_read(uint32_t group_id, std::vector<uint16_t> *ports) = 0;
};

} // namespace agent

#endif
