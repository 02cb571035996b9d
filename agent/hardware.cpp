/*
 * The calls behind hardware.h.
 */
#include "hardware.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

namespace agent {
namespace {

constexpr uint32_t table = 0;
constexpr size_t max_group_ports = 100; // of the library

uint32_t count_of(size_t size) {
    return static_cast<uint32_t>(size);
}

} // namespace

bool hardware::open() {
    table_stats stats{};
    table_capabilities capabilities_record{};
    if (kr_sdn_hal_table_table_stat_get(table, &stats) != KR_SDN_HAL_STATUS_SUCCESS ||
        kr_sdn_hal_table_table_capabilities_get(table, &capabilities_record) != KR_SDN_HAL_STATUS_SUCCESS) {
        return false;
    }
    size_ = stats.max_entries;
    name_.assign(capabilities_record.name, strnlen(capabilities_record.name, sizeof capabilities_record.name));
    return true;
}

bool hardware::is_up() const {
    table_stats stats{};
    return kr_sdn_hal_table_table_stat_get(table, &stats) == KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status hardware::add(std::span<flow_record> flows) {
    return kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, table, flows.data(), count_of(flows.size()));
}

kr_sdn_hal_status hardware::remove(std::span<const uint64_t> ids) {
    scratch_.assign(ids.size(), {});
    for (size_t i = 0; i < ids.size(); i++) {
        scratch_[i].flow_id = ids[i];
    }
    return kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_DELETE, table, scratch_.data(), count_of(ids.size()));
}

kr_sdn_hal_status hardware::read(std::span<const uint64_t> ids, std::span<flow_record> flows) {
    uint32_t count = count_of(ids.size());
    return kr_sdn_hal_table_entry_get(table, 0, ids.data(), &count, flows.data());
}

kr_sdn_hal_status hardware::read_activity(std::span<const uint64_t> ids, std::span<uint32_t> activities) {
    return ids.empty()
               ? KR_SDN_HAL_STATUS_SUCCESS
               : kr_sdn_hal_table_entry_activity_get(table, ids.data(), count_of(ids.size()), activities.data());
}

kr_sdn_hal_status hardware::read_stats(std::span<const uint64_t> ids, std::span<flow_stats> stats) {
    return kr_sdn_hal_table_entry_stat_get(table, ids.data(), count_of(ids.size()), stats.data());
}

kr_sdn_hal_status hardware::group_create(std::span<const uint16_t> ports, uint32_t *group_id) {
    const std::vector<uint32_t> wide(ports.begin(), ports.end());
    return kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_CREATE, count_of(wide.size()), wide.data(), group_id);
}

kr_sdn_hal_status hardware::group_delete(uint32_t group_id) {
    return kr_sdn_hal_table_mcast_group_set(KR_SDN_HAL_GROUP_DELETE, 0, nullptr, &group_id);
}

kr_sdn_hal_status hardware::group_read(uint32_t group_id, std::vector<uint16_t> *ports) {
    std::array<uint32_t, max_group_ports> wide;
    auto count = static_cast<uint32_t>(wide.size());
    const kr_sdn_hal_status status = kr_sdn_hal_table_mcast_group_get(group_id, &count, wide.data());
    ports->clear();
    if (status == KR_SDN_HAL_STATUS_SUCCESS) {
        std::transform(wide.begin(), wide.begin() + count, std::back_inserter(*ports),
                       [](uint32_t port) { return static_cast<uint16_t>(port); });
        std::sort(ports->begin(), ports->end());
    }
    return status;
}

} // namespace agent
