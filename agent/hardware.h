/*
 * The flow table of the switch, through the library: the only place that calls kr_sdn_hal_table_*. It turns lists into
 * the library's arrays and keeps nothing but the size of the table.
 */
#ifndef KR_AGENT_HARDWARE_H
#define KR_AGENT_HARDWARE_H

#include <string>
#include <vector>

#include "table_driver.h"

namespace agent {

class hardware final : public table_driver {
  public:
    /* Asks for the table's size and name; the switch has to be started. */
    bool open();
    /* The switch is started, so there is a table to look at. */
    bool is_up() const;
    const std::string &name() const {
        return name_;
    }

    uint32_t size() const override {
        return size_;
    }
    kr_sdn_hal_status add(std::span<flow_record> flows) override;
    kr_sdn_hal_status remove(std::span<const uint64_t> ids) override;
    kr_sdn_hal_status read(std::span<const uint64_t> ids, std::span<flow_record> flows) override;
    kr_sdn_hal_status read_activity(std::span<const uint64_t> ids, std::span<uint32_t> activities) override;
    kr_sdn_hal_status read_stats(std::span<const uint64_t> ids, std::span<flow_stats> stats) override;
    kr_sdn_hal_status group_create(std::span<const uint16_t> ports, uint32_t *group_id) override;
    kr_sdn_hal_status group_delete(uint32_t group_id) override;
    kr_sdn_hal_status group_read(uint32_t group_id, std::vector<uint16_t> *ports) override;

  private:
    uint32_t size_ = 0;
    std::string name_;
    std::vector<flow_record> scratch_;
};

} // namespace agent

#endif
