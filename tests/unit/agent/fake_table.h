/*
 * A flow table for tests of rules and flow-mods: holds rules and groups in memory, keeps what the library's does on a
 * failed batch, and fails on demand. It also watches that a flow never goes without a rule (gap_watch).
 */
#ifndef KR_TESTS_AGENT_FAKE_TABLE_H
#define KR_TESTS_AGENT_FAKE_TABLE_H

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "table_driver.h"

namespace kr_test {

class fake_table final : public agent::table_driver {
  public:
    struct rule {
        flow_record record{};
        bool is_counted = false;
        bool was_hit = false;
        flow_stats stats{};
    };

    explicit fake_table(uint32_t size = 1000) : size_(size) {}

    uint32_t size() const override {
        return size_;
    }
    kr_sdn_hal_status add(std::span<flow_record> flows) override {
        batch_sizes.push_back(flows.size());
        for (flow_record &one : flows) {
            EXPECT_TRUE(ids_seen.insert(one.flow_id).second) << "an id is used twice";
            if (rules.size() + lost_places >= size_) {
                return KR_SDN_HAL_STATUS_NO_RESOURCES;
            }
            if (fail_adds) {
                return KR_SDN_HAL_STATUS_ERROR;
            }
            if (fail_add_in == 0) {
                fail_add_in = -1;
                lost_places++;
                return KR_SDN_HAL_STATUS_ERROR;
            }
            fail_add_in -= fail_add_in > 0 ? 1 : 0;
            const auto counted = static_cast<uint32_t>(
                std::count_if(rules.begin(), rules.end(), [](const auto &entry) { return entry.second.is_counted; }));
            rules[one.flow_id] = {one, counted < 128, false, {}};
            if (one.action == FLOW_ACTION_MC_GROUP) {
                EXPECT_TRUE(groups.contains(one.mc_group_id)) << "a rule to a group that does not exist";
            }
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    kr_sdn_hal_status remove(std::span<const uint64_t> ids) override {
        for (const uint64_t id : ids) {
            if (stuck.contains(id)) {
                return KR_SDN_HAL_STATUS_ERROR;
            }
            if (kept.contains(id)) {
                continue;
            }
            rules.erase(id);
            lowest_rule_count = std::min(lowest_rule_count, rules.size());
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    kr_sdn_hal_status read(std::span<const uint64_t> ids, std::span<flow_record> flows) override {
        for (size_t i = 0; i < ids.size(); i++) {
            if (!rules.contains(ids[i])) {
                return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
            }
            flows[i] = rules[ids[i]].record;
            flows[i].tp_src ^= misread_ids.contains(ids[i]) ? uint16_t{1} : misread;
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    kr_sdn_hal_status read_activity(std::span<const uint64_t> ids, std::span<uint32_t> activities) override {
        for (size_t i = 0; i < ids.size(); i++) {
            const auto found = rules.find(ids[i]);
            activities[i] = found == rules.end()    ? FLOW_ACTIVITY_UNKNOWN_FLOW
                            : found->second.was_hit ? FLOW_ACTIVITY_HIT
                                                    : FLOW_ACTIVITY_IDLE;
            if (found != rules.end()) {
                found->second.was_hit = false;
            }
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    kr_sdn_hal_status read_stats(std::span<const uint64_t> ids, std::span<flow_stats> stats) override {
        for (size_t i = 0; i < ids.size(); i++) {
            stats[i] = rules.contains(ids[i]) && rules[ids[i]].is_counted ? rules[ids[i]].stats : flow_stats{};
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    kr_sdn_hal_status group_create(std::span<const uint16_t> ports, uint32_t *group_id) override {
        if (groups.size() >= group_room) {
            return KR_SDN_HAL_STATUS_ERROR;
        }
        *group_id = next_group++;
        groups[*group_id].assign(ports.begin(), ports.end());
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    kr_sdn_hal_status group_delete(uint32_t group_id) override {
        for (const auto &[id, one] : rules) {
            EXPECT_FALSE(one.record.action == FLOW_ACTION_MC_GROUP && one.record.mc_group_id == group_id)
                << "a group goes while a rule forwards to it";
        }
        if (has_stuck_groups) {
            return KR_SDN_HAL_STATUS_ERROR;
        }
        return groups.erase(group_id) == 1 ? KR_SDN_HAL_STATUS_SUCCESS : KR_SDN_HAL_STATUS_ERROR;
    }

    kr_sdn_hal_status group_read(uint32_t group_id, std::vector<uint16_t> *ports) override {
        *ports = groups.at(group_id);
        if (loses_member) {
            ports->pop_back();
        }
        return KR_SDN_HAL_STATUS_SUCCESS;
    }

    void hit(uint64_t id, uint64_t packets) {
        rules.at(id).was_hit = true;
        rules.at(id).stats.count_first += packets;
        rules.at(id).stats.count_second += packets * 100;
    }

    std::map<uint64_t, rule> rules;
    std::map<uint32_t, std::vector<uint16_t>> groups;
    std::set<uint64_t> ids_seen, stuck;
    std::set<uint64_t> misread_ids; // read back otherwise
    bool fail_adds = false;         // all of them, without a lost place
    bool has_stuck_groups = false;  // none can be deleted
    std::set<uint64_t> kept;        // are not removed, though the call says so
    std::vector<size_t> batch_sizes;
    size_t lowest_rule_count = SIZE_MAX; // after any removal
    size_t group_room = 255;
    size_t lost_places = 0;
    int fail_add_in = -1; // flows until one fails; -1: none
    uint16_t misread = 0;
    bool loses_member = false; // of a group that is read

  private:
    uint32_t size_;
    uint32_t next_group = 1;
};

} // namespace kr_test

#endif
