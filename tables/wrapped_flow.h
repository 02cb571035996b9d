/*
 * A flow on its way through the table layer: the client's record together with where its rule sits in hardware.
 *
 * Arrays of these lie in length-prefixed buffers, so they start four bytes behind what the allocator returned. The
 * record is declared with the alignment that it really has there; its layout is the natural one all the same.
 */
#ifndef KR_TABLES_WRAPPED_FLOW_H
#define KR_TABLES_WRAPPED_FLOW_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "flow_record.h"

struct __attribute__((packed, aligned(4))) wrapped_flow {
    flow_record *flow;   // the client's
    uint64_t offset;     // the rule's index in the table: pSort's choice on add, otherwise from the flows database
    uint64_t region;     // the ACL that holds the rule, from the flows database
    uint32_t counter_id; // the counter bound to the rule; 0: none
    uint32_t in_db;      // 1: the flows database knows the flow, and the fields above hold what it says
};

static_assert(offsetof(wrapped_flow, flow) == 0 && offsetof(wrapped_flow, offset) == 8);
static_assert(offsetof(wrapped_flow, region) == 16 && offsetof(wrapped_flow, counter_id) == 24);
static_assert(offsetof(wrapped_flow, in_db) == 28 && sizeof(wrapped_flow) == 32 && alignof(wrapped_flow) == 4);
static_assert(std::is_standard_layout_v<wrapped_flow> && std::is_trivially_copyable_v<wrapped_flow>);

#endif
