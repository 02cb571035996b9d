/*
 * The component library: maps, pools, reader-writer locks, events, threads and allocation.
 *
 * Containers are intrusive: an item is a member of the caller's object and the library allocates nothing per item.
 * The short accessors are inline and assert their conditions; a failed assertion is logged under module "LOG" with a
 * back trace, and the program goes on. All other functions live in the platform's shared library.
 */
#ifndef KR_COMPLIB_H
#define KR_COMPLIB_H

#include <execinfo.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/types.h>

#include "kr_log.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Lets clang check who holds a passive lock; nothing elsewhere. */
#if defined(__clang__) && !defined(SWIG)
#define CL_CAPABILITY(name) __attribute__((capability(name)))
#else
#define CL_CAPABILITY(name)
#endif

/* ---- status ---------------------------------------------------------------------------------------------------- */

typedef uint32_t cl_status_t;

enum {
    CL_SUCCESS = 0,
    CL_ERROR = 1,
    CL_INVALID_PARAMETER = 2,
    CL_INSUFFICIENT_MEMORY = 3,
    CL_INSUFFICIENT_RESOURCES = 4,
    CL_INVALID_STATE = 5,
    CL_TIMEOUT = 6,
    CL_INTERRUPTED = 7 /* a signal ended an interruptible wait */
};

/* ---- assertions ------------------------------------------------------------------------------------------------ */

/*
 * Logs a failed assertion and at most 20 frames of back trace, at error severity under module "LOG", and returns.
 */
static inline void cl_assert_report(const char *file, int line, const char *function) {
    void *frames[20];
    int frame_count;
    char **symbols;
    int i;

    kr_log(KR_LOG_ERROR, "LOG", "ASSERT in %s[%d]- %s\n", file, line, function);
    frame_count = backtrace(frames, 20);
    symbols = backtrace_symbols(frames, frame_count);
    kr_log(KR_LOG_ERROR, "LOG", "ASSERT - Retreived a list of %zd elements.\n", (ssize_t)frame_count);
    for (i = 0; symbols != NULL && i < frame_count; i++) {
        kr_log(KR_LOG_ERROR, "LOG", "ASSERT - Element %zd: %s.\n", (ssize_t)i, symbols[i]);
    }
    free(symbols);
}

#define CL_ASSERT_AT(condition, file)                                                                                  \
    do {                                                                                                               \
        if (__builtin_expect(!(condition), 0)) {                                                                       \
            cl_assert_report(file, __LINE__, __func__);                                                                \
        }                                                                                                              \
    } while (0)

#define CL_ASSERT(condition) CL_ASSERT_AT(condition, "kr_complib.h")

/* ---- allocation ------------------------------------------------------------------------------------------------ */

/* Allocates `size` bytes, uninitialised; NULL when there are none. Given back with free(). */
void *cl_malloc(size_t size);

/* ---- quick map: ordered map of caller's items by u64 key ------------------------------------------------------- */

typedef struct cl_map_item {
    struct cl_map_item *left;
    struct cl_map_item *right;
    struct cl_map_item *parent;
    struct cl_map_item *previous; /* neighbours in key order; the map's `nil` item closes the ring */
    struct cl_map_item *next;
    uint64_t key;
    uint32_t color;
    uint32_t reserved; /* tells the item's map; not 0 while the item is in one */
} cl_map_item_t;

typedef struct cl_qmap {
    cl_map_item_t *root;
    cl_map_item_t nil; /* end marker, and leaf of the tree */
    size_t count;
    uint32_t state;
} cl_qmap_t;

enum { CL_STATE_UNINITIALIZED = 0, CL_STATE_INITIALIZED = 0x434c0001 };

/* Makes an empty map. The map must not be moved afterwards. */
void cl_qmap_init(cl_qmap_t *map);

/*
 * Inserts `item`, which is in no map, under `key` and returns it. When the key is present, nothing changes and the
 * older item is returned. The end marker, after an assertion, for a map that is not initialised or no item.
 */
cl_map_item_t *cl_qmap_insert(cl_qmap_t *map, uint64_t key, cl_map_item_t *item);

/* Returns the item under `key`, or cl_qmap_end(map). Logarithmic. */
cl_map_item_t *cl_qmap_get(const cl_qmap_t *map, uint64_t key);

/* Returns the first item whose key is not below `key`, or cl_qmap_end(map). */
cl_map_item_t *cl_qmap_get_not_below(const cl_qmap_t *map, uint64_t key);

/*
 * Removes an item that is in this map. NULL, the end marker, an item of another map and one that was removed already
 * (also by cl_qmap_remove_all) are ignored, whatever is stored under their keys. The memory has to be an item still.
 */
void cl_qmap_remove_item(cl_qmap_t *map, cl_map_item_t *item);

/* Removes the item under `key` and returns it, or cl_qmap_end(map). */
cl_map_item_t *cl_qmap_remove(cl_qmap_t *map, uint64_t key);

/* Empties the map without touching the items. */
void cl_qmap_remove_all(cl_qmap_t *map);

static inline size_t cl_qmap_count(const cl_qmap_t *map) {
    CL_ASSERT(map->state == CL_STATE_INITIALIZED);
    return map->count;
}

/* The item with the lowest key, or cl_qmap_end(map) when the map is empty. */
static inline cl_map_item_t *cl_qmap_head(const cl_qmap_t *map) {
    CL_ASSERT(map->state == CL_STATE_INITIALIZED);
    return map->nil.next;
}

static inline cl_map_item_t *cl_qmap_tail(const cl_qmap_t *map) {
    CL_ASSERT(map->state == CL_STATE_INITIALIZED);
    return map->nil.previous;
}

/* The end marker: never an item of the caller's. */
static inline cl_map_item_t *cl_qmap_end(const cl_qmap_t *map) {
    CL_ASSERT(map->state == CL_STATE_INITIALIZED);
    return (cl_map_item_t *)(uintptr_t)&map->nil;
}

static inline cl_map_item_t *cl_qmap_next(const cl_map_item_t *item) {
    CL_ASSERT(item != NULL);
    return item->next;
}

static inline cl_map_item_t *cl_qmap_prev(const cl_map_item_t *item) {
    CL_ASSERT(item != NULL);
    return item->previous;
}

static inline uint64_t cl_qmap_key(const cl_map_item_t *item) {
    CL_ASSERT(item != NULL);
    return item->key;
}

/* ---- pools ----------------------------------------------------------------------------------------------------- */

/* Every object of a quick pool starts with this item; it is the pool's while the object is in the pool. */
typedef struct cl_pool_item {
    struct cl_pool_item *next;
    void *owner; /* the pool that made the object */
} cl_pool_item_t;

/*
 * Makes one object ready for its first use. `components` are its `component_count` memory blocks (one for a quick
 * pool), aligned for any type; *pool_item receives the item that links it, and is preset to the start of the first
 * block when that is large enough. Any status but CL_SUCCESS stops the growth of the pool.
 */
typedef cl_status_t (*cl_pool_constructor)(void **components, uint32_t component_count, void *context,
                                           cl_pool_item_t **pool_item);
typedef void (*cl_pool_destructor)(cl_pool_item_t *pool_item, void *context);

/* Quick composite pool: objects that consist of several memory blocks of given sizes. */
typedef struct cl_qcpool {
    uint32_t component_count;
    uint32_t state;
    size_t *component_sizes;
    void **component_scratch;
    size_t object_count; /* made so far, in use or not */
    size_t free_count;
    size_t max_objects; /* 0: no bound */
    size_t growth_size; /* 0: does not grow after init */
    cl_pool_constructor constructor;
    cl_pool_destructor destructor;
    void *context;
    cl_pool_item_t *free_list;
    void *allocations; /* blocks of memory, newest first */
} cl_qcpool_t;

/*
 * Makes a composite pool of at least `min_count` objects. CL_INVALID_PARAMETER (no components, a maximum below the
 * minimum, components too small for a pool item without a constructor), CL_INSUFFICIENT_MEMORY, or what the
 * constructor returned; the pool is then unusable and holds nothing. Not thread-safe.
 */
cl_status_t cl_qcpool_init(cl_qcpool_t *pool, size_t min_count, size_t max_count, size_t growth_size,
                           const size_t *component_sizes, uint32_t component_count, cl_pool_constructor constructor,
                           cl_pool_destructor destructor, void *context);

/* Destructs every object, also those not put back, and gives the memory back. Ignores a pool that is not usable. */
void cl_qcpool_destroy(cl_qcpool_t *pool);

/* Takes an object; NULL when the pool is empty and may not grow, or is not usable. */
cl_pool_item_t *cl_qcpool_get(cl_qcpool_t *pool);

/* Puts an object back that came from this pool. One more than were taken is a failed assertion, and ignored. */
void cl_qcpool_put(cl_qcpool_t *pool, cl_pool_item_t *item);

/*
 * Makes `object_count` more objects. CL_INSUFFICIENT_RESOURCES when they would be more than the maximum, and
 * CL_INSUFFICIENT_MEMORY: nothing was made. What the constructor returned: those made before it failed stay.
 */
cl_status_t cl_qcpool_grow(cl_qcpool_t *pool, size_t object_count);

/* Quick pool: objects of one size. */
typedef cl_status_t (*cl_qpool_constructor)(void *object, void *context, cl_pool_item_t **pool_item);
typedef void (*cl_qpool_destructor)(const cl_pool_item_t *pool_item, void *context);

typedef struct cl_qpool {
    cl_qcpool_t pool;
    cl_qpool_constructor constructor;
    cl_qpool_destructor destructor;
    void *context;
} cl_qpool_t;

/*
 * Makes a pool of objects of `object_size` bytes, sizeof(cl_pool_item_t) at least; arguments and results as for the
 * composite pool. A pool of no objects is valid, and empty. The pool must not be moved afterwards.
 */
cl_status_t cl_qpool_init(cl_qpool_t *pool, size_t min_count, size_t max_count, size_t growth_size, size_t object_size,
                          cl_qpool_constructor constructor, cl_qpool_destructor destructor, void *context);

/* Destructs every object, also those not put back, and gives the memory back. Ignores a pool that is not usable. */
void cl_qpool_destroy(cl_qpool_t *pool);

/* Takes an object; NULL when the pool is empty and may not grow, or is not usable. */
cl_pool_item_t *cl_qpool_get(cl_qpool_t *pool);

/* Puts an object back that came from this pool. */
void cl_qpool_put(cl_qpool_t *pool, cl_pool_item_t *item);

static inline size_t cl_qpool_count(const cl_qpool_t *pool) {
    CL_ASSERT(pool->pool.state == CL_STATE_INITIALIZED);
    return pool->pool.free_count;
}

/* ---- passive lock: many readers or one writer, blocking -------------------------------------------------------- */

/*
 * Writers do not starve: a reader that comes while a writer waits lets the writer go first. Only a thread that holds a
 * passive lock already goes in at once, so that a thread may take a lock shared again that it holds shared.
 */
typedef struct CL_CAPABILITY("passive lock") cl_plock {
    pthread_rwlock_t lock;
    uint32_t state;
    uint32_t waiting_writer_count;
    pthread_mutex_t gate; /* held by the writer that waits for the readers to leave */
} cl_plock_t;

/* Passive locks that the calling thread holds, shared or exclusively. */
extern __thread uint32_t cl_plock_held_count;

/* CL_SUCCESS or CL_ERROR; the lock is then unusable. */
cl_status_t cl_plock_init(cl_plock_t *lock);
/* Nobody may hold the lock. One that was never initialised is ignored. */
void cl_plock_destroy(cl_plock_t *lock);

static inline void cl_plock_acquire(cl_plock_t *lock) {
    int result;
    CL_ASSERT(lock->state == CL_STATE_INITIALIZED);
    if (cl_plock_held_count == 0 && __atomic_load_n(&lock->waiting_writer_count, __ATOMIC_RELAXED) != 0) {
        pthread_mutex_lock(&lock->gate);
        pthread_mutex_unlock(&lock->gate);
    }
    result = pthread_rwlock_rdlock(&lock->lock);
    CL_ASSERT(result == 0);
    if (result == 0) {
        cl_plock_held_count++;
    }
}

static inline void cl_plock_excl_acquire(cl_plock_t *lock) {
    int result;
    CL_ASSERT(lock->state == CL_STATE_INITIALIZED);
    __atomic_fetch_add(&lock->waiting_writer_count, 1, __ATOMIC_RELAXED);
    pthread_mutex_lock(&lock->gate);
    result = pthread_rwlock_wrlock(&lock->lock);
    pthread_mutex_unlock(&lock->gate);
    __atomic_fetch_sub(&lock->waiting_writer_count, 1, __ATOMIC_RELAXED);
    CL_ASSERT(result == 0);
    if (result == 0) {
        cl_plock_held_count++;
    }
}

static inline void cl_plock_release(cl_plock_t *lock) {
    int result;
    CL_ASSERT(lock->state == CL_STATE_INITIALIZED);
    result = pthread_rwlock_unlock(&lock->lock);
    CL_ASSERT(result == 0 && cl_plock_held_count > 0);
    if (result == 0 && cl_plock_held_count > 0) {
        cl_plock_held_count--;
    }
}

/* ---- event ----------------------------------------------------------------------------------------------------- */

typedef struct cl_event {
    uint32_t word; /* lowest bit: signalled; the rest: how many wait */
    uint32_t manual_reset;
    uint32_t state;
} cl_event_t;

#define CL_EVENT_NO_TIMEOUT 0xFFFFFFFFu

/* Makes an event that is not signalled. An event that is not manual-reset releases one waiter and resets itself. */
cl_status_t cl_event_init(cl_event_t *event, uint32_t manual_reset);
/* Nobody may be waiting. An event that was never initialised is ignored. */
void cl_event_destroy(cl_event_t *event);
/*
 * Signals the event, waiting or not: CL_SUCCESS, also when it is signalled already, or CL_INVALID_STATE for an event
 * that is not initialised. Does not touch the event any more once a waiter's wait can return: the waiter may destroy
 * it.
 */
cl_status_t cl_event_signal(cl_event_t *event);
/* Takes an unused signal back. A waiter that was woken but has not run yet goes on waiting. */
cl_status_t cl_event_reset(cl_event_t *event);

/*
 * Waits until the event is signalled, or `wait_us` microseconds have passed on the monotonic clock (0 polls,
 * CL_EVENT_NO_TIMEOUT waits for ever): CL_SUCCESS or CL_TIMEOUT. An interruptible wait may also end with
 * CL_INTERRUPTED when a signal handler ran on the waiting thread, with SA_RESTART or without; a handler that ran before
 * the thread went to sleep is not noticed. CL_INVALID_STATE for an event that is not
 * initialised.
 */
cl_status_t cl_event_wait_on(cl_event_t *event, uint32_t wait_us, uint32_t interruptible);

/* ---- thread ---------------------------------------------------------------------------------------------------- */

typedef void (*cl_thread_function)(void *context);

typedef struct cl_thread {
    pthread_t thread;
    cl_thread_function function;
    void *context;
    char name[16];
    uint32_t state;
} cl_thread_t;

/*
 * Starts `function(context)` on a new thread; the object has to stay where it is. `name`, of which 15 characters count,
 * may be NULL. CL_SUCCESS, CL_INVALID_PARAMETER (no function) or CL_ERROR (no thread to be had).
 */
cl_status_t cl_thread_init(cl_thread_t *thread, cl_thread_function function, void *context, const char *name);

/*
 * Waits for the thread to end. A thread that was never started, or is destroyed already, is ignored. Called by the
 * thread itself it is a failed assertion and does nothing: the thread is still there for another one to destroy.
 */
void cl_thread_destroy(cl_thread_t *thread);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
