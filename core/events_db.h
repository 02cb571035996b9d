/*
 * Exported data of the event service: the registry of event channels and the library's handle of the device.
 *
 * The event service (api/kr_sdn_hal_api_events.cpp) owns and defines both. The header stands here because the general
 * module uses the device handle too; nobody else touches the registry.
 */
#ifndef KR_CORE_EVENTS_DB_H
#define KR_CORE_EVENTS_DB_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "common/guards.h"
#include "kr_api.h"
#include "kr_complib.h"
#include "kr_sdn_hal.h"

extern "C" {

// Which channels are registered for which event type. A slot is null or holds a channel; a channel is in a type's
// slots at most once. Exclusive to register, unregister and close; shared while a record is written to the channels.
struct hal_events_db {
    cl_plock_t lock;
    srvc_handle *handles[KR_SDN_HAL_EVENT_TYPE_COUNT][KR_SDN_HAL_HANDLES_PER_EVENT] KR_GUARDED_BY(lock);
};

extern KR_SDN_HAL_API hal_events_db events_db;

// From kr_api_open; valid between the start and the stop of the switch, 0 before.
extern KR_SDN_HAL_API kr_api_handle sdk_handle;

} // extern "C"

static_assert(std::is_standard_layout_v<hal_events_db> && std::is_trivially_destructible_v<hal_events_db>);
static_assert(offsetof(hal_events_db, lock) == 0);

#endif
