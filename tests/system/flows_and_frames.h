/*
 * Short ways to make what the tests of the whole library give it: ports, flows and the frames that match them.
 */
#ifndef KR_TESTS_FLOWS_AND_FRAMES_H
#define KR_TESTS_FLOWS_AND_FRAMES_H

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "kr_connector.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"

namespace kr_test {

constexpr uint32_t log_port_base = 0x10000;
constexpr uint32_t log_port_of(uint32_t of_port) {
    return log_port_base + of_port;
}

inline conn_port_record port_record_of(uint32_t of_port) {
    conn_port_record port{};
    port.log_port = log_port_of(of_port);
    port.ifindex = of_port;
    snprintf(port.interface_name, sizeof port.interface_name, "port%u", of_port);
    port.mac_address[0] = 2;
    port.mac_address[5] = static_cast<uint8_t>(of_port);
    return port;
}

// A flow that drops one Ethernet destination, which is as good as its id.
inline flow_record flow_of(uint64_t flow_id, uint32_t priority = 100, uint32_t action = FLOW_ACTION_DROP) {
    flow_record flow{};
    flow.flow_id = flow_id;
    flow.priority = priority;
    for (uint32_t i = 0; i < 6; ++i) {
        flow.eth_dst[i] = static_cast<uint8_t>(flow_id >> (8 * (5 - i)));
        flow.eth_dst_mask[i] = 0xFF;
    }
    flow.action = action;
    return flow;
}

// A frame that such a flow matches.
inline std::vector<uint8_t> frame_for(uint64_t flow_id, size_t size = 60) {
    std::vector<uint8_t> frame(size);
    for (uint32_t i = 0; i < 6; ++i) {
        frame[i] = static_cast<uint8_t>(flow_id >> (8 * (5 - i)));
    }
    frame[6] = 2;
    frame[11] = 0x77;
    frame[12] = 0x88; // an EtherType for local experiments
    frame[13] = 0xb5;
    return frame;
}

inline void inject(uint32_t of_port, const std::vector<uint8_t> &frame) {
    EXPECT_EQ(kr_soft_port_inject(log_port_of(of_port), frame.data(), static_cast<uint32_t>(frame.size())),
              KR_STATUS_SUCCESS);
}

inline kr_sdn_hal_status flows_set(uint32_t command, std::vector<flow_record> flows) {
    return kr_sdn_hal_table_entry_set(command, 0, flows.data(), static_cast<uint32_t>(flows.size()));
}
inline kr_sdn_hal_status flows_add(std::vector<flow_record> flows) {
    return flows_set(KR_SDN_HAL_CMD_ADD, std::move(flows));
}
inline kr_sdn_hal_status flows_delete(std::vector<flow_record> flows) {
    return flows_set(KR_SDN_HAL_CMD_DELETE, std::move(flows));
}

} // namespace kr_test

#endif
