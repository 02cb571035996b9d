/*
 * The port database: pooled records, each linked into three maps by its three identifiers, and a published copy of the
 * maps that look-ups read, so that the threads of clients and of control frames may look ports up, without a lock and
 * without waiting, while the connector adds one or a client acknowledges a removal.
 *
 * Only the OF port is unique. Of records with the same interface index (or logical port) the oldest is linked in that
 * map, and the others wait: when it goes, the oldest of those that remain takes its place. The search for it walks the
 * at most PORT_MAX_COUNT records; nothing is allocated after init.
 */
#include "core/port.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <optional>
#include <thread>
#include <type_traits>

#include "common/guards.h"
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

// The three identifiers of a port, each of them the key of an index.
enum index_kind : uint32_t { by_of_port, by_ifindex, by_log_port, index_count };

// A published port.
struct view_row {
    std::atomic<uint32_t> keys[index_count];
    std::atomic<const port_info *> info;
};

// What look-ups read: the linked records of each map, by rising key.
struct view {
    std::atomic<uint32_t> row_counts[index_count];
    view_row rows[index_count][PORT_MAX_COUNT];
};

constinit struct {
    // Writers, one at a time.
    std::atomic_flag is_being_written;
    std::atomic<bool> is_initialized;
    cl_qpool_t records;
    cl_qmap_t maps[index_count];
    uint64_t next_age;

    // Readers: the view of version v is views[v % 2]. A writer fills the other one and raises the version then, so a
    // reader never waits; it starts again if the version has moved on under it.
    std::atomic<uint32_t> version;
    view views[2];
} g{};

bool is_usable() {
    return g.is_initialized.load(std::memory_order_acquire);
}

// Where the item of each map lies in a record.
constexpr size_t item_offsets[index_count] = {offsetof(port_record, by_of_port), offsetof(port_record, by_ifindex),
                                              offsetof(port_record, by_log_port)};

uint32_t key_of(const port_record *record, index_kind index) {
    const hal_port &port = record->port;
    const uint32_t keys[index_count] = {port.of_port, port.info.ifindex, port.info.log_port};
    return keys[index];
}
cl_map_item_t *item_of(index_kind index, port_record *record) {
    return reinterpret_cast<cl_map_item_t *>(reinterpret_cast<char *>(record) + item_offsets[index]);
}
port_record *record_of(index_kind index, cl_map_item_t *item) {
    return reinterpret_cast<port_record *>(reinterpret_cast<char *>(item) - item_offsets[index]);
}

/* ---- readers --------------------------------------------------------------------------------------------------- */

// Runs `read` on the published view until that stayed in place meanwhile, and returns what it read. The acquiring loads
// and releasing stores of the rows see to it that a reader of a row that is being rewritten also sees the new version.
template <typename Read> auto read_view(Read read) {
    for (;;) {
        const uint32_t version = g.version.load(std::memory_order_acquire);
        const auto result = read(g.views[version % 2]);
        if (g.version.load(std::memory_order_relaxed) == version) {
            return result;
        }
    }
}

uint32_t key_load(const view_row &row, index_kind index) {
    return row.keys[index].load(std::memory_order_acquire);
}

// Null when there is none.
const view_row *find_row(const view &view, index_kind index, uint32_t key) {
    const auto &rows = view.rows[index];
    uint32_t first = 0;
    uint32_t last = view.row_counts[index].load(std::memory_order_acquire);
    while (first < last) {
        const uint32_t middle = (first + last) / 2;
        const uint32_t found = key_load(rows[middle], index);
        if (found == key) {
            return &rows[middle];
        }
        (found < key ? first : last) = found < key ? middle + 1 : middle;
    }
    return nullptr;
}

// Writes one identifier of the port under the key of another.
kr_sdn_hal_status look_up(index_kind index, uint32_t key, index_kind wanted, uint32_t *value) {
    if (value == nullptr) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    const std::optional<uint32_t> found = read_view([=](const view &view) -> std::optional<uint32_t> {
        const view_row *const row = find_row(view, index, key);
        return row != nullptr ? std::optional(key_load(*row, wanted)) : std::nullopt;
    });
    if (!found) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    *value = *found;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

/* ---- writers --------------------------------------------------------------------------------------------------- */

// Two clients may acknowledge removals at once.
class write_turn {
  public:
    write_turn() {
        while (g.is_being_written.test_and_set(std::memory_order_acquire)) {
            std::this_thread::yield();
        }
    }
    ~write_turn() {
        g.is_being_written.clear(std::memory_order_release);
    }
    write_turn(const write_turn &) = delete;
    write_turn &operator=(const write_turn &) = delete;
};

void view_fill(view *view, index_kind index) {
    uint32_t count = 0;
    cl_qmap_t *const map = &g.maps[index];
    for (cl_map_item_t *item = cl_qmap_head(map); item != cl_qmap_end(map); item = cl_qmap_next(item)) {
        const port_record *const record = record_of(index, item);
        view_row &row = view->rows[index][count++];
        for (const index_kind key : {by_of_port, by_ifindex, by_log_port}) {
            row.keys[key].store(key_of(record, key), std::memory_order_release);
        }
        row.info.store(&record->port.info, std::memory_order_release);
    }
    view->row_counts[index].store(count, std::memory_order_release);
}

void publish() {
    const uint32_t next = g.version.load(std::memory_order_relaxed) + 1;
    for (const index_kind index : {by_of_port, by_ifindex, by_log_port}) {
        view_fill(&g.views[next % 2], index);
    }
    g.version.store(next, std::memory_order_release);
}

// The record that is linked under the key; null when there is none.
port_record *find(index_kind index, uint32_t key) {
    if (!is_usable()) {
        return nullptr;
    }
    cl_map_item_t *const item = cl_qmap_get(&g.maps[index], key);
    return item != cl_qmap_end(&g.maps[index]) ? record_of(index, item) : nullptr;
}

// Leaves the older record in place where the key is taken.
void index_insert(index_kind index, port_record *record) {
    cl_qmap_insert(&g.maps[index], key_of(record, index), item_of(index, record));
}

// Of the records in the primary map the oldest with this key; null when there is none.
port_record *find_oldest(index_kind index, uint32_t key) {
    port_record *oldest = nullptr;
    cl_qmap_t *const primary = &g.maps[by_of_port];
    for (cl_map_item_t *item = cl_qmap_head(primary); item != cl_qmap_end(primary); item = cl_qmap_next(item)) {
        port_record *const record = record_of(by_of_port, item);
        if (key_of(record, index) == key && (oldest == nullptr || record->age < oldest->age)) {
            oldest = record;
        }
    }
    return oldest;
}

// Takes a record, which has left the primary map, out of another one. A record that waits there is not linked, and
// the one that is stays.
void index_erase(index_kind index, port_record *record) {
    const uint32_t key = key_of(record, index);
    if (find(index, key) != record) {
        return;
    }
    cl_qmap_remove_item(&g.maps[index], item_of(index, record));
    port_record *const successor = find_oldest(index, key);
    if (successor != nullptr) {
        index_insert(index, successor);
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

// A reader of the port that the record held before may still hold its address (port_get).
void record_fill(port_record *record, uint32_t of_port, const port_info &info) {
    record->port.of_port = of_port;
    kr::relaxed_store(record->port.info.ifindex, info.ifindex);
    kr::relaxed_store(record->port.info.log_port, info.log_port);
    kr::relaxed_store(record->port.info.aux, info.aux);
    record->age = g.next_age++;
}

// The two ranges of OF ports overlap by design; the check for an OF port that exists covers that too.
kr_sdn_hal_status port_add(const port_info &info, int32_t requested, uint32_t *of_port) {
    const kr_sdn_hal_status status = assign_of_port(info.ifindex, requested, of_port);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    const write_turn turn;
    if (find(by_of_port, *of_port) != nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS;
    }
    cl_pool_item_t *const pool_item = is_usable() ? cl_qpool_get(&g.records) : nullptr;
    if (pool_item == nullptr) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
    auto *const record = reinterpret_cast<port_record *>(pool_item);
    record_fill(record, *of_port, info);
    index_insert(by_of_port, record);
    index_insert(by_ifindex, record);
    index_insert(by_log_port, record);
    publish();
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status port_remove(uint32_t of_port) {
    const write_turn turn;
    port_record *const record = find(by_of_port, of_port);
    if (record == nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    cl_qmap_remove_item(&g.maps[by_of_port], &record->by_of_port);
    index_erase(by_ifindex, record);
    index_erase(by_log_port, record);
    publish();
    cl_qpool_put(&g.records, &record->pool_item);
    return KR_SDN_HAL_STATUS_SUCCESS;
}

} // namespace

kr_sdn_hal_status port_init() {
    const write_turn turn;
    // deinit leaves pool and records in place, so an init that follows (the library's init failed later on and is
    // tried again) gives the old pool back first; the maps are made anew, so nothing points into it.
    const bool has_old_pool = g.is_initialized.exchange(false, std::memory_order_acq_rel);
    for (cl_qmap_t &map : g.maps) {
        cl_qmap_init(&map);
    }
    publish();
    if (has_old_pool) {
        cl_qpool_destroy(&g.records);
    }
    const cl_status_t pool_status =
        cl_qpool_init(&g.records, PORT_MAX_COUNT, PORT_MAX_COUNT, 0, sizeof(port_record), nullptr, nullptr, nullptr);
    if (pool_status != CL_SUCCESS) {
        return KR_SDN_HAL_STATUS_ERROR;
    }
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
    return command == PORT_CMD_ADD ? port_add({ifindex, log_port, aux}, requested_of_port, of_port)
                                   : port_remove(*of_port);
}

kr_sdn_hal_status port_get(uint32_t of_port, const port_info **info) {
    const port_info *const found = read_view([of_port](const view &view) -> const port_info * {
        const view_row *const row = find_row(view, by_of_port, of_port);
        return row != nullptr ? row->info.load(std::memory_order_acquire) : nullptr;
    });
    if (found == nullptr) {
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    }
    *info = found;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status port_get_ifindex(uint32_t of_port, uint32_t *ifindex) {
    return look_up(by_of_port, of_port, by_ifindex, ifindex);
}

kr_sdn_hal_status port_get_log_port(uint32_t of_port, uint32_t *log_port) {
    return look_up(by_of_port, of_port, by_log_port, log_port);
}

kr_sdn_hal_status port_translate_ifindex(uint32_t ifindex, uint32_t *of_port) {
    return look_up(by_ifindex, ifindex, by_of_port, of_port);
}

kr_sdn_hal_status port_translate_log_port(uint32_t log_port, uint32_t *of_port) {
    return look_up(by_log_port, log_port, by_of_port, of_port);
}

kr_sdn_hal_status port_get_arr(uint32_t *ports, uint32_t *count) {
    if (count == nullptr || (*count != 0 && ports == nullptr)) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    struct port_list {
        uint32_t count;
        uint32_t ports[PORT_MAX_COUNT];
    };
    const port_list list = read_view([](const view &view) {
        port_list found;
        found.count = view.row_counts[by_of_port].load(std::memory_order_acquire);
        for (uint32_t i = 0; i < found.count; ++i) {
            found.ports[i] = key_load(view.rows[by_of_port][i], by_of_port);
        }
        return found;
    });
    if (*count == 0) {
        *count = list.count;
        return KR_SDN_HAL_STATUS_SUCCESS;
    }
    *count = std::min(*count, list.count);
    std::copy_n(list.ports, *count, ports);
    return KR_SDN_HAL_STATUS_SUCCESS;
}
