/*
 * The pSort contract functions: handles, argument checks, the executor of plans, threshold notifications.
 *
 * What to move is decided by the planner on the shadow of the owner's table; here it is carried out, one notification
 * after the other, and the shadow follows each shift that the owner has made. The library keeps every table that it
 * has made, because the contract has no call that ends one; psort_clear_table gives back all of its memory but a stub.
 */
#include "kr_psort.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

#include "control/contract_call.h"
#include "control/kr_soft.h"
#include "psort/planner.h"
#include "psort/shadow.h"
#include "psort/spreader.h"

namespace kr_soft::psort {
namespace {

// The memory that entries need, taken in one go so that an add in the middle of a table's life never allocates.
struct table_storage {
    explicit table_storage(const psort_table_attributes &attributes)
        : entries(static_cast<int32_t>(attributes.table_size)),
          plans(static_cast<int32_t>(attributes.table_size), attributes.min_priority, attributes.max_priority),
          background(static_cast<int32_t>(attributes.table_size)) {}

    shadow entries;
    planner plans;
    spreader background;
};

struct table {
    psort_table_attributes attributes;
    std::unique_ptr<table_storage> storage; // null from a clear to the next add
    bool in_notification = false;
};

/*
 * Every table ever made, by handle. Never destroyed: another thread may still be in a call while the process ends.
 */
struct table_registry {
    std::mutex mutex;
    std::unordered_map<psort_handle, std::unique_ptr<table>> tables;
};

table_registry &registry() {
    static auto *const instance = new table_registry;
    return *instance;
}

// The table of a handle, or null; the handle is looked up, never followed.
table *table_of(psort_handle handle) {
    table_registry &all = registry();
    const std::lock_guard lock(all.mutex);
    const auto found = all.tables.find(handle);
    return found == all.tables.end() ? nullptr : found->second.get();
}

kr_utils_status notify(table &owner, uint32_t type, psort_notification_data data) {
    owner.in_notification = true;
    const kr_utils_status status = owner.attributes.notification_callback(
        type, &data, reinterpret_cast<void *>(static_cast<uintptr_t>(owner.attributes.cookie)));
    owner.in_notification = false;
    return status;
}

// Asks the owner for one shift and follows it.
kr_utils_status make_shift(table &owner, const shift &move) {
    const psort_notification_data data = {static_cast<uint32_t>(move.old_index), static_cast<uint32_t>(move.new_index),
                                          static_cast<uint32_t>(move.size)};
    const kr_utils_status status = notify(owner, PSORT_TABLE_SHIFT, data);
    if (status == KR_UTILS_STATUS_SUCCESS) {
        owner.storage->entries.apply(move);
    }
    return status;
}

// count / size as a percentage, compared without rounding.
bool is_at_least(uint32_t count, const psort_table_attributes &attributes, uint32_t percent) {
    return uint64_t{count} * 100 >= uint64_t{attributes.table_size} * percent;
}

bool is_at_most(uint32_t count, const psort_table_attributes &attributes, uint32_t percent) {
    return uint64_t{count} * 100 <= uint64_t{attributes.table_size} * percent;
}

// The threshold notifications are news, not questions: what the owner answers changes nothing.
void notify_if_risen(table &owner, uint32_t count) {
    const uint32_t percent = owner.attributes.almost_full_percent;
    if (is_at_least(count, owner.attributes, percent) && !is_at_least(count - 1, owner.attributes, percent)) {
        (void)notify(owner, PSORT_TABLE_ALMOST_FULL, {});
    }
}

void notify_if_fallen(table &owner, uint32_t count) {
    const uint32_t percent = owner.attributes.almost_empty_percent;
    if (is_at_most(count, owner.attributes, percent) && !is_at_most(count + 1, owner.attributes, percent)) {
        (void)notify(owner, PSORT_TABLE_ALMOST_EMPTY, {});
    }
}

kr_utils_status ensure_storage(table &owner) {
    if (owner.storage) {
        return KR_UTILS_STATUS_SUCCESS;
    }
    try {
        owner.storage = std::make_unique<table_storage>(owner.attributes);
        return KR_UTILS_STATUS_SUCCESS;
    } catch (const std::bad_alloc &) {
        return KR_UTILS_STATUS_NO_MEMORY;
    }
}

kr_utils_status add_entry(table &owner, psort_entry &entry) {
    if (entry.priority < owner.attributes.min_priority || entry.priority > owner.attributes.max_priority) {
        return KR_UTILS_STATUS_PARAM_EXCEEDS_RANGE;
    }
    if (const kr_utils_status status = ensure_storage(owner); status != KR_UTILS_STATUS_SUCCESS) {
        return status;
    }
    shadow &entries = owner.storage->entries;
    if (entries.find(entry.key) >= 0) {
        return KR_UTILS_STATUS_ENTRY_ALREADY_EXISTS;
    }
    if (entries.free_count() == 0) {
        return KR_UTILS_STATUS_NO_RESOURCES;
    }
    owner.storage->background.restart();
    const plan &todo = owner.storage->plans.plan_add(entries, entry.priority);
    for (const shift &move : todo.shifts) {
        if (const kr_utils_status status = make_shift(owner, move); status != KR_UTILS_STATUS_SUCCESS) {
            return status;
        }
    }
    entries.place(entry.key, entry.priority, todo.slot);
    owner.storage->plans.added(entry.key);
    entry.index = static_cast<uint32_t>(todo.slot);
    notify_if_risen(owner, static_cast<uint32_t>(entries.count()));
    return KR_UTILS_STATUS_SUCCESS;
}

kr_utils_status delete_entry(table &owner, const psort_entry &entry) {
    const int32_t slot = owner.storage ? owner.storage->entries.find(entry.key) : -1;
    if (slot < 0) {
        return KR_UTILS_STATUS_ENTRY_NOT_FOUND;
    }
    owner.storage->entries.remove(slot);
    owner.storage->plans.removed();
    owner.storage->background.restart();
    notify_if_fallen(owner, static_cast<uint32_t>(owner.storage->entries.count()));
    return KR_UTILS_STATUS_SUCCESS;
}

kr_utils_status check_attributes(const psort_table_attributes &attributes) {
    constexpr uint32_t whole = 100;
    const bool valid = attributes.table_size != 0 && attributes.notification_callback != nullptr &&
                       attributes.min_priority <= attributes.max_priority &&
                       attributes.almost_empty_percent <= attributes.almost_full_percent &&
                       attributes.almost_full_percent <= whole;
    if (!valid) {
        return KR_UTILS_STATUS_PARAM_ERROR;
    }
    return attributes.table_size > static_cast<uint32_t>(bit_tree::max_size) ? KR_UTILS_STATUS_NO_MEMORY
                                                                             : KR_UTILS_STATUS_SUCCESS;
}

kr_utils_status init(psort_handle *handle, const psort_table_attributes *attributes) {
    if (handle == nullptr || attributes == nullptr) {
        return KR_UTILS_STATUS_PARAM_NULL;
    }
    if (const kr_utils_status status = check_attributes(*attributes); status != KR_UTILS_STATUS_SUCCESS) {
        return status;
    }
    try {
        auto made = std::make_unique<table>();
        made->attributes = *attributes;
        made->storage = std::make_unique<table_storage>(*attributes);
        table_registry &all = registry();
        const std::lock_guard lock(all.mutex);
        const psort_handle key = made.get();
        all.tables.emplace(key, std::move(made));
        *handle = key;
        return KR_UTILS_STATUS_SUCCESS;
    } catch (const std::bad_alloc &) {
        return KR_UTILS_STATUS_NO_MEMORY;
    }
}

// Runs `body` on the table of a handle, unless the handle is not one or the owner calls from its own notification.
template <typename Body> kr_utils_status with_table(psort_handle handle, Body body) {
    table *const owner = table_of(handle);
    if (owner == nullptr) {
        return KR_UTILS_STATUS_INVALID_HANDLE;
    }
    return owner->in_notification ? kr_utils_status{KR_UTILS_STATUS_BUSY} : body(*owner);
}

kr_utils_status entry_set(psort_handle handle, uint32_t command, psort_entry *entry) {
    return with_table(handle, [&](table &owner) -> kr_utils_status {
        if (entry == nullptr) {
            return KR_UTILS_STATUS_PARAM_NULL;
        }
        switch (command) {
        case PSORT_CMD_ADD:
            return add_entry(owner, *entry);
        case PSORT_CMD_DELETE:
            return delete_entry(owner, *entry);
        default:
            return KR_UTILS_STATUS_CMD_UNSUPPORTED;
        }
    });
}

kr_utils_status clear_table(psort_handle handle) {
    return with_table(handle, [](table &owner) -> kr_utils_status {
        owner.storage.reset();
        return KR_UTILS_STATUS_SUCCESS;
    });
}

kr_utils_status background_step(psort_handle handle, uint32_t *finished) {
    return with_table(handle, [&](table &owner) -> kr_utils_status {
        if (finished == nullptr) {
            return KR_UTILS_STATUS_PARAM_NULL;
        }
        *finished = 1;
        if (!owner.storage) {
            return KR_UTILS_STATUS_SUCCESS;
        }
        const auto delta_size =
            static_cast<int32_t>(std::min(owner.attributes.delta_size, owner.attributes.table_size));
        if (!spreader::is_worthwhile(owner.storage->entries, delta_size)) {
            return KR_UTILS_STATUS_SUCCESS;
        }
        const shift step = owner.storage->background.plan_step(owner.storage->entries, delta_size);
        if (step.size == 0) {
            owner.storage->plans.evened();
            return KR_UTILS_STATUS_SUCCESS;
        }
        *finished = 0;
        return make_shift(owner, step);
    });
}

kr_status entries_get(psort_handle handle, psort_entry *entries, uint32_t *count) {
    if (count == nullptr || (entries == nullptr && *count != 0)) {
        return KR_STATUS_PARAM_NULL;
    }
    const table *const owner = table_of(handle);
    if (owner == nullptr) {
        return KR_STATUS_INVALID_HANDLE;
    }
    const uint32_t room = *count;
    uint32_t found = 0;
    if (owner->storage) {
        const shadow &table = owner->storage->entries;
        for (int32_t slot = table.next_live(0); slot < table.size(); slot = table.next_live(slot + 1)) {
            if (found < room) {
                entries[found] = {table.key(slot), table.priority(slot), static_cast<uint32_t>(slot)};
            }
            found++;
        }
    }
    *count = found;
    return found > room ? KR_STATUS_NO_RESOURCES : KR_STATUS_SUCCESS;
}

const char *command_text(uint32_t command) {
    switch (command) {
    case PSORT_CMD_ADD:
        return "add";
    case PSORT_CMD_DELETE:
        return "delete";
    default:
        return "unknown";
    }
}

} // namespace
} // namespace kr_soft::psort

using kr_soft::contract_call;
using kr_soft::contract_function;
using kr_soft::text_of;

extern "C" {

kr_utils_status psort_init(psort_handle *handle, const psort_table_attributes *attributes) {
    return contract_call(
        contract_function::psort_init, [&] { return kr_soft::psort::init(handle, attributes); },
        [&] { return attributes == nullptr ? text_of("NULL") : text_of("size=%u", attributes->table_size); });
}

kr_utils_status psort_entry_set(psort_handle handle, uint32_t command, psort_entry *entry) {
    return contract_call(
        contract_function::psort_entry_set, [&] { return kr_soft::psort::entry_set(handle, command, entry); },
        [&] {
            const char *const name = kr_soft::psort::command_text(command);
            return entry == nullptr
                       ? text_of("%s, NULL", name)
                       : text_of("%s, key=%llu, priority=%u, index=%u", name,
                                 static_cast<unsigned long long>(entry->key), entry->priority, entry->index);
        });
}

kr_utils_status psort_clear_table(psort_handle handle) {
    return contract_call(
        contract_function::psort_clear_table, [&] { return kr_soft::psort::clear_table(handle); },
        [] { return text_of("%s", ""); });
}

kr_utils_status psort_background_worker(psort_handle handle, uint32_t *finished) {
    return contract_call(
        contract_function::psort_background_worker, [&] { return kr_soft::psort::background_step(handle, finished); },
        [&] { return finished == nullptr ? text_of("NULL") : text_of("finished=%u", *finished); });
}

kr_status kr_soft_psort_entries_get(psort_handle handle, psort_entry *entries, uint32_t *count) {
    return kr_soft::psort::entries_get(handle, entries, count);
}

} // extern "C"
