/*
 * pSort: placement by priority.
 *
 * A pSort table decides at which index of a hardware table an entry sits, so that a higher priority never has a
 * higher index than a lower one. The order of entries of one priority is free. pSort itself moves nothing: to make
 * room it asks its owner, through the notification callback, to shift a block of entries, and believes the shift
 * once the callback has returned success.
 */
#ifndef KR_PSORT_H
#define KR_PSORT_H

#include <stddef.h>
#include <stdint.h>

#include "kr_status.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef void *psort_handle;

/* Commands of psort_entry_set. */
enum { PSORT_CMD_ADD = 0, PSORT_CMD_DELETE = 2 };

/* Notification types. */
enum {
    PSORT_TABLE_ALMOST_FULL = 0,  /* occupancy has risen to the almost-full threshold; the data is not meaningful */
    PSORT_TABLE_ALMOST_EMPTY = 1, /* occupancy has fallen to the almost-empty threshold; same */
    PSORT_TABLE_SHIFT = 2         /* move a block of entries */
};

/*
 * Data of a shift: the block of `size` indices that started at old_index now starts at new_index. The indices of the
 * destination that lie outside the source block hold no live entry. The source block may hold free indices.
 */
typedef struct psort_notification_data {
    uint32_t old_index;
    uint32_t new_index;
    uint32_t size;
} psort_notification_data;

/*
 * Called on the thread that called pSort, from inside psort_entry_set or psort_background_worker. `context` is the
 * table's cookie. A status other than 0 for a shift means that nothing was moved: the operation fails with that
 * status and the table stays as it is. Must not call back into pSort.
 */
typedef kr_utils_status (*psort_notification_callback)(uint32_t type, psort_notification_data *data, void *context);

typedef struct psort_table_attributes {
    uint32_t table_size;   /* number of indices, at least 1 */
    uint32_t delta_size;   /* how many free indices one background step may bring together at most */
    uint32_t max_priority; /* highest priority that an entry may have */
    uint32_t min_priority; /* lowest */
    uint32_t almost_full_percent;
    uint32_t almost_empty_percent;
    uint64_t cookie; /* handed to the callback as its context */
    psort_notification_callback notification_callback;
} psort_table_attributes;

typedef struct psort_entry {
    uint64_t key; /* unique in the table */
    uint32_t priority;
    uint32_t index; /* out on add; not read on delete */
} psort_entry;

#if defined(__cplusplus) || (defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L)
#ifdef __cplusplus
#define KR_PSORT_ASSERT static_assert
#else
#define KR_PSORT_ASSERT _Static_assert
#endif
KR_PSORT_ASSERT(sizeof(psort_notification_data) == 12, "notification data");
KR_PSORT_ASSERT(offsetof(psort_table_attributes, cookie) == 24, "table attributes");
KR_PSORT_ASSERT(offsetof(psort_table_attributes, notification_callback) == 32, "table attributes");
KR_PSORT_ASSERT(sizeof(psort_entry) == 16 && offsetof(psort_entry, index) == 12, "entry");
#undef KR_PSORT_ASSERT
#endif

/*
 * The thresholds, exactly, for `count` entries of `table_size`: almost full is notified by the add that makes
 * count * 100 >= table_size * almost_full_percent true, almost empty by the delete that makes
 * count * 100 <= table_size * almost_empty_percent true; each fires again only after it has become false in between.
 * So 100 and 0 mean full and empty. They are notified once the entry is in or out, and what the callback answers to
 * them is not looked at. A clear notifies nothing.
 *
 * Creates an empty table and writes its handle. Fails with PARAM_NULL, PARAM_ERROR (size 0, no callback, priorities or
 * thresholds reversed, a threshold above 100) or NO_MEMORY; *handle is then unchanged.
 */
kr_utils_status psort_init(psort_handle *handle, const psort_table_attributes *attributes);

/*
 * Command 0: places entry->key at a free index, after shifts if there is no room, and writes entry->index.
 * ENTRY_ALREADY_EXISTS if the key is present, NO_RESOURCES if the table is full, PARAM_EXCEEDS_RANGE for a priority
 * outside the table's range, or what a failing notification returned: the new entry is then not in the table, and the
 * table is valid, ordered and has lost nothing.
 * Command 2: removes entry->key; never notifies a shift. ENTRY_NOT_FOUND if the key is not present.
 * Any other command: CMD_UNSUPPORTED.
 * Calls on one table must be serialised by the caller.
 */
kr_utils_status psort_entry_set(psort_handle handle, uint32_t command, psort_entry *entry);

/*
 * Removes every entry and gives back the memory that the entries took. The table stays valid, empty, with the
 * attributes given at init. Notifies nothing. INVALID_HANDLE for a handle that psort_init did not make.
 */
kr_utils_status psort_clear_table(psort_handle handle);

/*
 * Does one small step of reorganisation (at most one shift) and sets *finished to 1 when nothing is left to do, else
 * to 0. What a failing notification returned is returned, with *finished 0 and the table as it was before the step.
 */
kr_utils_status psort_background_worker(psort_handle handle, uint32_t *finished);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
