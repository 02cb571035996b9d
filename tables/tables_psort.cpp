/*
 * pSort's two ways into the tables module: the notifications with which it asks for rules to be moved, and the
 * background thread that gives it time to reorganise a table while the switch is idle.
 *
 * pSort calls back on the thread that called it, and whoever calls it holds the table's lock exclusively: an entry set,
 * or the background thread. So the handler takes no lock.
 */
#include "common/common.h"
#include "common/log.h"
#include "tables/tables_internal.h"

KR_LOG_MODULE("HAL_TABLES_API", kr_HAL_TABLES_API_verb_level);

using kr::relaxed_load;
using kr::relaxed_store;
using kr::tables::g;
using kr::tables::table_count;

namespace {

bool stop_requested() {
    return relaxed_load(g.stop_flag) == 1;
}

// One call of pSort's worker for a table, and how soon the next one is due.
void background_step(uint32_t table) {
    const kr::plock_exclusive lock(g.table_locks[table]);
    uint32_t finished = 0;
    (void)psort_background_worker(g.psort, &finished);
    const bool quiet = time(nullptr) - relaxed_load(g.last_entry_set_time) > kr::tables::quiet_time_s;
    relaxed_store(g.background_wait_us,
                  finished == 0 && quiet ? kr::tables::background_wait_busy_us : kr::tables::background_wait_rest_us);
}

void background_pass() {
    for (uint32_t table = 0; table < table_count; ++table) {
        if (stop_requested()) {
            return;
        }
        if (g.table_enabled[table] != 1 || g.psort == nullptr) {
            continue;
        }
        HAL_NOTICE("Calls psort_background_worker for table %u ", table);
        background_step(table);
    }
}

} // namespace

kr_utils_status tables_psort_notification_handler(uint32_t type, psort_notification_data *data, void *context) {
    const auto table = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(context));
    kr_sdn_hal_status status = KR_SDN_HAL_STATUS_SUCCESS;
    HAL_NOTICE("got pSort notification ");
    switch (type) {
    case PSORT_TABLE_SHIFT:
        HAL_NOTICE("notification Type: PSORT_TABLE_SHIFT , old_index: %u, new_index: %u, size: %u ", data->old_index,
                   data->new_index, data->size);
        status = tables_entries_shift(table, static_cast<uint16_t>(data->old_index),
                                      static_cast<uint16_t>(data->new_index), data->size);
        break;
    case PSORT_TABLE_ALMOST_EMPTY:
        HAL_NOTICE("notification Type:  PSORT_TABLE_ALMOST_EMPTY");
        status = tables_resize(table, TABLES_RESIZE_ALMOST_EMPTY);
        break;
    case PSORT_TABLE_ALMOST_FULL:
        HAL_NOTICE("notification Type:  PSORT_TABLE_ALMOST_FULL");
        status = tables_resize(table, TABLES_RESIZE_ALMOST_FULL);
        break;
    default: // a type of a later pSort is none of this module's business
        break;
    }
    return kr_sdn_hal_status_to_kr_utils_status(status);
}

void __psort_background_thread(void * /*context*/) {
    for (;;) {
        const cl_status_t waited = cl_event_wait_on(&g.stop_event, relaxed_load(g.background_wait_us), 1);
        if (waited != CL_SUCCESS && waited != CL_TIMEOUT) {
            HAL_NOTICE("PSort background thread wait operation failed");
            continue;
        }
        if (stop_requested()) {
            return;
        }
        background_pass();
    }
}
