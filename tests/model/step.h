/*
 * One step of a sequence: what is done, with all its arguments, so that a sequence can be replayed, shortened and
 * printed. Steps name channels, ports and groups by small numbers and make sense in any state.
 */
#ifndef KR_TESTS_MODEL_STEP_H
#define KR_TESTS_MODEL_STEP_H

#include <cstdint>
#include <string>
#include <vector>

#include "kr_connector.h"
#include "kr_sdn_hal.h"
#include "tests/model/frames.h"
#include "tests/model/switch_model.h"

namespace kr_model {

/* clang-format off */
// name, and what its fields mean
#define KR_MODEL_OPERATIONS(X)                                                                                         \
    X(init)              /* value: what is wrong with it (init_variant) */                                             \
    X(activate)          /* answer: of the connector */                                                                \
    X(deinit)            /* value 1: the connector answers, 2: the port plug-in */                                     \
    X(capabilities_set)  /* value: mode, count: frame size, command: reserved */                                       \
    X(capabilities_get)                                                                                                \
    X(srvc_life_cycle)   /* value: which of the four functions that only the library calls */                          \
    X(connector_start)   /* answer: of the port plug-in */                                                             \
    X(connector_stop)                                                                                                  \
    X(port_added)        /* port */                                                                                    \
    X(port_removed)      /* port */                                                                                    \
    X(control_forward)   /* command, value: trap id */                                                                 \
    X(other_event)       /* value: code */                                                                             \
    X(config)            /* command, value: pattern */                                                                 \
    X(switch_port_add)   /* value: logical port */                                                                     \
    X(switch_port_remove)/* value */                                                                                   \
    X(link_set)          /* value, command: up */                                                                      \
    X(frame)             /* frame */                                                                                   \
    X(background)                                                                                                      \
    X(open)              /* target: channel */                                                                         \
    X(close)             /* target */                                                                                  \
    X(event_register)    /* target, value: event */                                                                    \
    X(event_unregister)  /* target, value */                                                                           \
    X(select)            /* ids: channels */                                                                           \
    X(recv)              /* target */                                                                                  \
    X(packet_send)       /* target, value: OF port, count: size */                                                     \
    X(event_ack)         /* value: OF port, command: what is wrong with the record */                                  \
    X(process_event)     /* value: type */                                                                             \
    X(port_arr_get)      /* count: room, command 1: no array, 2: no count */                                           \
    X(port_capabilities) /* value: OF port */                                                                          \
    X(port_operation)    /* command: which, value: OF port, count: argument, answer: of the plug-in */                 \
    X(flows_add)         /* flows, value: table, command: instead of add */                                            \
    X(flows_delete)      /* ids */                                                                                     \
    X(flows_get)         /* ids, value: table, command: flow_start */                                                  \
    X(activity_get)      /* ids, value */                                                                              \
    X(stats_get)         /* ids, value */                                                                              \
    X(table_info)        /* value: table */                                                                            \
    X(group_create)      /* target: where its id is kept, ids: OF ports */                                             \
    X(group_delete)      /* target */                                                                                  \
    X(group_edit)        /* target, command, ids */                                                                    \
    X(group_get)         /* target, count: room */                                                                     \
    X(null_arguments)    /* value: which call */
/* clang-format on */

enum class op : uint8_t {
#define X(name) name,
    KR_MODEL_OPERATIONS(X)
#undef X
        count
};

enum init_variant : uint32_t {
    init_good,
    init_no_profile,
    init_no_connector,
    init_no_fpt,
    init_config_register_fails,
    init_event_register_fails,
    init_done_hal_fails,
    init_variant_count
};

// Where the ids of groups are kept; the last two are the group that floods, and one that does not exist.
constexpr uint32_t group_slot_count = 6, group_slot_flood = 6, group_slot_unknown = 7;

struct step {
    op what = op::init;
    uint32_t target = 0;
    uint32_t command = 0;
    uint32_t value = 0;
    uint32_t count = 0;
    uint32_t answer = 0;
    conn_port_record port{};
    frame_description frame{};
    std::vector<flow_record> flows;
    std::vector<uint64_t> ids;
    struct fault fault;
};

const char *op_name(op what);

// The step as an initialiser of C++.
std::string to_source(const step &s);

// The sequence as a test to paste.
std::string to_test(const std::vector<step> &steps, const std::string &name);

} // namespace kr_model

#endif
