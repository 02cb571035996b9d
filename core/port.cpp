/*
 * The port database: pooled records, each linked into three maps by its three identifiers.
 *
 * Only the OF port is unique. Of records with the same interface index (or logical port) the oldest is linked in that
 * map, and the others wait: when it goes, the oldest of those that remain takes its place. The search for it walks the
 * at most PORT_MAX_COUNT records; nothing is allocated after init.
 */
#include "core/port.h"

#include <atomic>
#include <cstddef>
#include <type_traits>

#include "kr_complib.h"

int32_t kr_HAL_PORT_verb_level = 3;

namespace {

constexpr uint32_t max_ifindex_as_of_port = 32767;
constexpr uint32_t requested_of_port_base = 32768;
constexpr uint32_t max_of_port = 65279;

struct port_record {
    cl_pool_item_t pool_item;
    cl_map_item_t by_of_port;
    cl_map_item_t by_ifindex;
    cl_map_item_t by_log_port;
    hal_port port;
    uint64_t age; // counts up with each add: lower is older
};

static_assert(offsetof(port_record, pool_item) == 0 && std::is_standard_layout_v<port_record>);
static_assert(offsetof(hal_port, of_port) == 0 && offsetof(hal_port, info) == 4 && sizeof(hal_port) == 16);
static_assert(offsetof(port_info, ifindex) == 0 && offsetof(port_info, log_port) == 4 && offsetof(port_info, aux) == 8);
static_assert(sizeof(port_info) == 12);

constinit struct {
    // A client may ask for ports before init, and finds none.
    std::atomic<bool> is_initialized;
    cl_qpool_t records;
    cl_qmap_t by_of_port;
    cl_qmap_t by_ifindex;
    cl_qmap_t by_log_port;
    uint64_t next_age;
} g{};

bool is_usable() {
    return g.is_initialized.load(std::memory_order_acquire);
}

// A map, where its item lies in a record, and which field of the port is its key.
struct port_index {
    cl_qmap_t *map;
    size_t item_offset;
    uint32_t (*key)(const hal_port &port);
};

constexpr port_index of_port_index = {&g.by_of_port, offsetof(port_record, by_of_port),
                                      [](const hal_port &port) { return port.of_port; }};
constexpr port_index ifindex_index = {&g.by_ifindex, offsetof(port_record, by_ifindex),
                                      [](const hal_port &port) { return port.info.ifindex; }};
constexpr port_index log_port_index = {&g.by_log_port, offsetof(port_record, by_log_port),
                                       [](const hal_port &port) { return port.info.log_port; }};

cl_map_item_t *item_of(const port_index &index, port_record *record) {
    return reinterpret_cast<cl_map_item_t *>(reinterpret_cast<char *>(record) + index.item_offset);
}
port_record *record_of(const port_index &index, cl_map_item_t *item) {
    return reinterpret_cast<port_record *>(reinterpret_cast<char *>(item) - index.item_offset);
}

// The record that is linked under the key; null when there is none.
port_record *find(const port_index &index, uint32_t key) {
    if (!is_usable()) {
        return nullptr;
    }
    cl_map_item_t *const item = cl_qmap_get(index.map, key);
    return item != cl_qmap_end(index.map) ? record_of(index, item) : nullptr;
}

// Leaves the older record in place where the key is taken.
void link(const port_index &index, port_record *record) {
    cl_qmap_insert(index.map, index.key(record->port), item_of(index, record));
}

// Of the records in the primary map the oldest with this key; null when there is none.
port_record *find_oldest(const port_index &index, uint32_t key) {
    port_record *oldest = nullptr;
    for (cl_map_item_t *item = cl_qmap_head(&g.by_of_port); item != cl_qmap_end(&g.by_of_port);
         item = cl_qmap_next(item)) {
        port_record *const record = record_of(of_port_index, item);
        if (index.key(record->port) == key && (oldest == nullptr || record->age < oldest->age)) {
            oldest = record;
        }
    }
    return oldest;
}

// Takes a record, which has left the primary map, out of another one. A record that waits there is not linked, and
// the one that is stays.
void unlink(const port_index &index, port_record *record) {
    const uint32_t key = index.key(record->port);
    if (find(index, key) != record) {
        return;
    }
    cl_qmap_remove_item(index.map, item_of(index, record));
    port_record *const successor = find_oldest(index, key);
    if (successor != nullptr) {
        link(index, successor);
    }
}

kr_sdn_hal_status assign_of_port(uint32_t ifindex, int32_t requested, uint32_t *of_port) {
    const bool is_requested = requested != 0;
    const uint32_t assigned = is_requested ? static_cast<uint32_t>(requested) + requested_of_port_base : ifindex;
    if (assigned > (is_requested ? max_of_port : max_ifindex_as_of_port)) {
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    }
    *of_port = assigned;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

// The two ranges of OF ports overlap by design; the check for an OF port that exists covers that too.
kr_sdn_hal_status add(const port_info &info, int32_t requested, uint32_t *of_port) {
    const kr_sdn_hal_status status = assign_of_port(info.ifindex, requested, of_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (find(of_port_index, *of_port) != nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS;
    }
    cl_pool_item_t *const pool_item = is_usable() ? cl_qpool_get(&g.records) : nullptr;
    if (pool_item == nullptr) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    auto *const record = reinterpret_cast<port_record *>(pool_item);
    record->port = {*of_port, info};
    record->age = g.next_age++;
    link(of_port_index, record);
    link(ifindex_index, record);
    link(log_port_index, record);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status remove(uint32_t of_port) {
    port_record *const record = find(of_port_index, of_port);
    if (record == nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    cl_qmap_remove_item(&g.by_of_port, &record->by_of_port);
    unlink(ifindex_index, record);
    unlink(log_port_index, record);
    cl_qpool_put(&g.records, &record->pool_item);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

// Writes one field of the record under the key.
kr_sdn_hal_status look_up(const port_index &index, uint32_t key, const port_index &wanted, uint32_t *value) {
    if (value == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    const port_record *const record = find(index, key);
    if (record == nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    *value = wanted.key(record->port);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

} // namespace

kr_sdn_hal_status port_init() {
    // deinit leaves pool and records in place, so an init that follows (the library's init failed later on and is
    // tried again) gives the old pool back first; the maps are made anew, so nothing points into it.
    g.is_initialized.store(false, std::memory_order_release);
    cl_qpool_destroy(&g.records);
    const cl_status_t pool_status =
        cl_qpool_init(&g.records, PORT_MAX_COUNT, PORT_MAX_COUNT, 0, sizeof(port_record), nullptr, nullptr, nullptr);
    if (pool_status != CL_SUCCESS) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    cl_qmap_init(&g.by_of_port);
    cl_qmap_init(&g.by_ifindex);
    cl_qmap_init(&g.by_log_port);
    g.is_initialized.store(true, std::memory_order_release);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status port_deinit() {
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status port_set(uint32_t command, uint32_t ifindex, int32_t requested_of_port, uint32_t log_port,
                           uint32_t aux, uint32_t *of_port) {
    if (command != PORT_CMD_ADD && command != PORT_CMD_REMOVE) {
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    if (of_port == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    return command == PORT_CMD_ADD ? add({ifindex, log_port, aux}, requested_of_port, of_port) : remove(*of_port);
}

kr_sdn_hal_status port_get(uint32_t of_port, const port_info **info) {
    const port_record *const record = find(of_port_index, of_port);
    if (record == nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    *info = &record->port.info;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status port_get_ifindex(uint32_t of_port, uint32_t *ifindex) {
    return look_up(of_port_index, of_port, ifindex_index, ifindex);
}

kr_sdn_hal_status port_get_log_port(uint32_t of_port, uint32_t *log_port) {
    return look_up(of_port_index, of_port, log_port_index, log_port);
}

kr_sdn_hal_status port_translate_ifindex(uint32_t ifindex, uint32_t *of_port) {
    return look_up(ifindex_index, ifindex, of_port_index, of_port);
}

kr_sdn_hal_status port_translate_log_port(uint32_t log_port, uint32_t *of_port) {
    return look_up(log_port_index, log_port, of_port_index, of_port);
}

kr_sdn_hal_status port_get_arr(uint32_t *ports, uint32_t *count) {
    if (count == nullptr || (*count != 0 && ports == nullptr)) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    const uint32_t room = *count;
    if (room == 0 || !is_usable()) {
        *count = is_usable() ? static_cast<uint32_t>(cl_qmap_count(&g.by_of_port)) : 0;
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    uint32_t written = 0;
    for (cl_map_item_t *item = cl_qmap_head(&g.by_of_port); item != cl_qmap_end(&g.by_of_port) && written < room;
         item = cl_qmap_next(item)) {
        ports[written++] = record_of(of_port_index, item)->port.of_port;
    }
    *count = written;
    return KR_SDN_HAL_STATUS_SUCCESS;
}
