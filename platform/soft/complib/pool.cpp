/*
 * The composite pool, and the quick pool as a composite pool of one component.
 *
 * Objects are made in blocks: one allocation holds a header, the pool items of its objects (the destructor needs them,
 * also of objects that are in use) and the objects. Nothing but growth allocates, and nothing is freed before the pool
 * is destroyed.
 */
#include <algorithm>
#include <cstddef>

#include "control/contract_call.h"
#include "kr_complib.h"

using kr_soft::contract_call;
using kr_soft::contract_function;
using kr_soft::text_of;

namespace {

constexpr const char *source_name = "pool.cpp";
constexpr size_t alignment = alignof(std::max_align_t);

struct block {
    block *older;
    size_t object_count;
    cl_pool_item_t **items;
    std::byte *objects;
};

bool is_usable(const cl_qcpool_t *pool) {
    return pool != nullptr && pool->state == CL_STATE_INITIALIZED;
}

// Adds up sizes; an overflow sticks.
struct checked_size {
    size_t value = 0;
    bool has_overflowed = false;

    void add(size_t more) {
        has_overflowed |= __builtin_add_overflow(value, more, &value);
    }
    void multiply(size_t factor) {
        has_overflowed |= __builtin_mul_overflow(value, factor, &value);
    }
    void align() {
        add(alignment - 1);
        value -= value % alignment;
    }
};

checked_size object_size_of(const cl_qcpool_t *pool) {
    checked_size size;
    for (uint32_t i = 0; i < pool->component_count; i++) {
        size.add(pool->component_sizes[i]);
        size.align();
    }
    return size;
}

block *block_make(const cl_qcpool_t *pool, size_t object_count) {
    checked_size objects_offset{object_count};
    objects_offset.multiply(sizeof(cl_pool_item_t *));
    objects_offset.add(sizeof(block));
    objects_offset.align();
    checked_size size = object_size_of(pool);
    size.multiply(object_count);
    size.add(objects_offset.value);
    if (size.has_overflowed || objects_offset.has_overflowed) {
        return nullptr;
    }
    void *const memory = malloc(size.value);
    if (memory == nullptr) {
        return nullptr;
    }
    auto *const bytes = static_cast<std::byte *>(memory);
    return new (memory)
        block{nullptr, 0, reinterpret_cast<cl_pool_item_t **>(bytes + sizeof(block)), bytes + objects_offset.value};
}

// Makes one object at `memory`. Without a word from the constructor its item is at its start.
cl_status_t object_make(cl_qcpool_t *pool, std::byte *memory, cl_pool_item_t **item) {
    for (uint32_t i = 0; i < pool->component_count; i++) {
        pool->component_scratch[i] = memory;
        memory += (pool->component_sizes[i] + alignment - 1) / alignment * alignment;
    }
    *item = pool->component_sizes[0] < sizeof(cl_pool_item_t)
                ? nullptr
                : static_cast<cl_pool_item_t *>(pool->component_scratch[0]);
    if (pool->constructor != nullptr) {
        const cl_status_t status =
            pool->constructor(pool->component_scratch, pool->component_count, pool->context, item);
        if (status != CL_SUCCESS) {
            return status;
        }
    }
    return *item == nullptr ? cl_status_t{CL_INVALID_PARAMETER} : cl_status_t{CL_SUCCESS};
}

void free_list_push(cl_qcpool_t *pool, cl_pool_item_t *item) {
    item->next = pool->free_list;
    item->owner = pool;
    pool->free_list = item;
    pool->free_count++;
}

cl_status_t grow(cl_qcpool_t *pool, size_t object_count) {
    if (object_count == 0) {
        return CL_SUCCESS;
    }
    if (pool->max_objects != 0 && object_count > pool->max_objects - pool->object_count) {
        return CL_INSUFFICIENT_RESOURCES;
    }
    block *const made = block_make(pool, object_count);
    if (made == nullptr) {
        return CL_INSUFFICIENT_MEMORY;
    }
    const size_t object_size = object_size_of(pool).value;
    cl_status_t status = CL_SUCCESS;
    while (status == CL_SUCCESS && made->object_count < object_count) {
        cl_pool_item_t *item = nullptr;
        status = object_make(pool, made->objects + made->object_count * object_size, &item);
        if (status == CL_SUCCESS) {
            made->items[made->object_count++] = item;
        }
    }
    if (made->object_count == 0) {
        free(made);
        return status;
    }
    made->older = static_cast<block *>(pool->allocations);
    pool->allocations = made;
    pool->object_count += made->object_count;
    for (size_t i = made->object_count; i > 0; i--) { // objects leave the pool in the order of their making
        free_list_push(pool, made->items[i - 1]);
    }
    return status;
}

void release(cl_qcpool_t *pool) {
    for (auto *current = static_cast<block *>(pool->allocations); current != nullptr;) {
        for (size_t i = 0; pool->destructor != nullptr && i < current->object_count; i++) {
            pool->destructor(current->items[i], pool->context);
        }
        block *const older = current->older;
        free(current);
        current = older;
    }
    free(pool->component_sizes);
    free(pool->component_scratch);
    *pool = {};
}

bool are_valid(size_t min_count, size_t max_count, const size_t *component_sizes, uint32_t component_count,
               bool has_constructor) {
    if (component_sizes == nullptr || component_count == 0 || (max_count != 0 && max_count < min_count)) {
        return false;
    }
    return has_constructor || component_sizes[0] >= sizeof(cl_pool_item_t);
}

cl_status_t init(cl_qcpool_t *pool, size_t min_count, const size_t *component_sizes) {
    pool->component_sizes = static_cast<size_t *>(calloc(pool->component_count, sizeof(size_t)));
    pool->component_scratch = static_cast<void **>(calloc(pool->component_count, sizeof(void *)));
    cl_status_t status = CL_INSUFFICIENT_MEMORY;
    if (pool->component_sizes != nullptr && pool->component_scratch != nullptr) {
        std::copy_n(component_sizes, pool->component_count, pool->component_sizes);
        status = object_size_of(pool).has_overflowed ? cl_status_t{CL_INSUFFICIENT_MEMORY} : grow(pool, min_count);
    }
    if (status != CL_SUCCESS) {
        release(pool);
        return status;
    }
    pool->state = CL_STATE_INITIALIZED;
    return CL_SUCCESS;
}

cl_status_t construct_for_quick_pool(void **components, uint32_t, void *context, cl_pool_item_t **pool_item) {
    const auto *const pool = static_cast<const cl_qpool_t *>(context);
    return pool->constructor(components[0], pool->context, pool_item);
}

void destruct_for_quick_pool(cl_pool_item_t *pool_item, void *context) {
    const auto *const pool = static_cast<const cl_qpool_t *>(context);
    pool->destructor(pool_item, pool->context);
}

} // namespace

cl_status_t cl_qcpool_init(cl_qcpool_t *pool, size_t min_count, size_t max_count, size_t growth_size,
                           const size_t *component_sizes, uint32_t component_count, cl_pool_constructor constructor,
                           cl_pool_destructor destructor, void *context) {
    if (pool == nullptr) {
        return CL_INVALID_PARAMETER;
    }
    *pool = {};
    if (!are_valid(min_count, max_count, component_sizes, component_count, constructor != nullptr)) {
        return CL_INVALID_PARAMETER;
    }
    pool->component_count = component_count;
    pool->max_objects = max_count;
    pool->growth_size = growth_size;
    pool->constructor = constructor;
    pool->destructor = destructor;
    pool->context = context;
    return init(pool, min_count, component_sizes);
}

void cl_qcpool_destroy(cl_qcpool_t *pool) {
    if (is_usable(pool)) {
        release(pool);
    }
}

cl_pool_item_t *cl_qcpool_get(cl_qcpool_t *pool) {
    if (!is_usable(pool)) {
        return nullptr;
    }
    if (pool->free_list == nullptr) {
        const size_t room = pool->max_objects == 0 ? SIZE_MAX : pool->max_objects - pool->object_count;
        (void)grow(pool, std::min(pool->growth_size, room)); // what it did make is in the list
    }
    cl_pool_item_t *const item = pool->free_list;
    if (item != nullptr) {
        pool->free_list = item->next;
        pool->free_count--;
        item->next = nullptr;
    }
    return item;
}

void cl_qcpool_put(cl_qcpool_t *pool, cl_pool_item_t *item) {
    const bool may_come_back = is_usable(pool) && item != nullptr && pool->free_count < pool->object_count;
    CL_ASSERT_AT(may_come_back, source_name);
    if (may_come_back) {
        free_list_push(pool, item);
    }
}

cl_status_t cl_qcpool_grow(cl_qcpool_t *pool, size_t object_count) {
    return is_usable(pool) ? grow(pool, object_count) : cl_status_t{CL_INVALID_STATE};
}

cl_status_t cl_qpool_init(cl_qpool_t *pool, size_t min_count, size_t max_count, size_t growth_size, size_t object_size,
                          cl_qpool_constructor constructor, cl_qpool_destructor destructor, void *context) {
    return contract_call(
        contract_function::cl_qpool_init,
        [&]() -> cl_status_t {
            if (pool == nullptr) {
                return CL_INVALID_PARAMETER;
            }
            *pool = {};
            if (object_size < sizeof(cl_pool_item_t)) {
                return CL_INVALID_PARAMETER;
            }
            pool->constructor = constructor;
            pool->destructor = destructor;
            pool->context = context;
            return cl_qcpool_init(&pool->pool, min_count, max_count, growth_size, &object_size, 1,
                                  constructor == nullptr ? nullptr : construct_for_quick_pool,
                                  destructor == nullptr ? nullptr : destruct_for_quick_pool, pool);
        },
        [&] { return text_of("%zu, %zu, %zu, %zu", min_count, max_count, growth_size, object_size); });
}

void cl_qpool_destroy(cl_qpool_t *pool) {
    if (pool != nullptr) {
        cl_qcpool_destroy(&pool->pool);
    }
}

cl_pool_item_t *cl_qpool_get(cl_qpool_t *pool) {
    return contract_call(
        contract_function::cl_qpool_get, [&] { return pool == nullptr ? nullptr : cl_qcpool_get(&pool->pool); },
        [] { return std::string(); });
}

void cl_qpool_put(cl_qpool_t *pool, cl_pool_item_t *item) {
    cl_qcpool_put(pool == nullptr ? nullptr : &pool->pool, item);
}
