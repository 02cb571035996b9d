/*
 * The port table: the ports in the order of their addition, and an open hash table from logical port number to them.
 */
#include "dataplane/port_table.h"

#include <array>

namespace kr_soft {
namespace {

constexpr uint32_t bucket_bits = 9; // never more than a quarter of the buckets in use
constexpr uint32_t bucket_count = 1U << bucket_bits;
static_assert(bucket_count >= 4 * KR_SOFT_MAX_PORTS);

struct table {
    rw_lock lock;
    std::array<std::shared_ptr<port>, KR_SOFT_MAX_PORTS> ports;
    uint32_t count = 0;
    std::array<port *, bucket_count> buckets{};
};

table &g() {
    // Never destroyed: the data plane's thread may still run while the process ends.
    static auto *const instance = new table;
    return *instance;
}

uint32_t bucket_of(uint32_t log_port) {
    return log_port * 2654435761U >> (32 - bucket_bits);
}

void buckets_rebuild() {
    table &t = g();
    t.buckets.fill(nullptr);
    for (uint32_t i = 0; i < t.count; i++) {
        uint32_t bucket = bucket_of(t.ports[i]->log_port);
        while (t.buckets[bucket] != nullptr) {
            bucket = (bucket + 1) % bucket_count;
        }
        t.buckets[bucket] = t.ports[i].get();
    }
}

} // namespace

rw_lock &port_table_lock() {
    return g().lock;
}

port *port_find(uint32_t log_port) {
    const table &t = g();
    for (uint32_t bucket = bucket_of(log_port);; bucket = (bucket + 1) % bucket_count) {
        port *const candidate = t.buckets[bucket];
        if (candidate == nullptr || candidate->log_port == log_port) {
            return candidate;
        }
    }
}

std::shared_ptr<port> port_share(uint32_t log_port) {
    const table &t = g();
    for (uint32_t i = 0; i < t.count; i++) {
        if (t.ports[i]->log_port == log_port) {
            return t.ports[i];
        }
    }
    return nullptr;
}

kr_status port_insert(const std::shared_ptr<port> &added) {
    table &t = g();
    if (port_find(added->log_port) != nullptr) {
        return KR_STATUS_ENTRY_ALREADY_EXISTS;
    }
    if (t.count == KR_SOFT_MAX_PORTS) {
        return KR_STATUS_NO_RESOURCES;
    }
    t.ports[t.count++] = added;
    buckets_rebuild();
    return KR_STATUS_SUCCESS;
}

std::shared_ptr<port> port_erase(uint32_t log_port) {
    table &t = g();
    for (uint32_t i = 0; i < t.count; i++) {
        if (t.ports[i]->log_port == log_port) {
            std::shared_ptr<port> erased = std::move(t.ports[i]);
            for (uint32_t next = i + 1; next < t.count; next++) {
                t.ports[next - 1] = std::move(t.ports[next]);
            }
            t.ports[--t.count] = nullptr;
            buckets_rebuild();
            return erased;
        }
    }
    return nullptr;
}

uint32_t port_count() {
    return g().count;
}

std::shared_ptr<port> port_at(uint32_t index) {
    const table &t = g();
    return index < t.count ? t.ports[index] : nullptr;
}

} // namespace kr_soft
