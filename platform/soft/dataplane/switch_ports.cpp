/*
 * The switch's ports as others see them: control adds, removes and steers them and feeds and reads frames; the device
 * API asks for their state; the host interface sends by them.
 *
 * What a frame meets inside the switch is in forwarding.cpp, what a port does in port.h and interface_port.h.
 */
#include "dataplane/switch_ports.h"

#include <cinttypes>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>

#include <pcap/pcap.h>
#include <sys/stat.h>

#include "control/kr_soft.h"
#include "dataplane/dataplane_thread.h"
#include "dataplane/forwarding.h"
#include "dataplane/interface_port.h"
#include "dataplane/link_watch.h"
#include "dataplane/port_table.h"
#include "host_ifc/trap_delivery.h"
#include "kr_api.h"
#include "kr_log.h"

namespace kr_soft {
namespace {

constexpr const char *log_module = "DATAPLANE";

using table_shared = std::shared_lock<rw_lock>;
using table_exclusive = std::unique_lock<rw_lock>;

bool is_frame_size(uint32_t size) {
    return size >= eth_header_size && size <= KR_SOFT_MAX_FRAME;
}

// A copy of a frame in a buffer of its own, with the headroom that the switch needs to edit it.
class frame_copy {
  public:
    frame_copy(const void *data, uint32_t size) : frame_{room_ + frame_headroom, size, frame_headroom} {
        std::memcpy(frame_.data, data, size);
    }
    frame &operator*() {
        return frame_;
    }

  private:
    uint8_t room_[frame_headroom + KR_SOFT_MAX_FRAME];
    frame frame_;
};

template <typename Port, typename... Arguments> std::shared_ptr<Port> port_make(Arguments... arguments) noexcept {
    try {
        return std::make_shared<Port>(arguments...);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

kr_status port_add(const std::shared_ptr<port> &added) {
    if (added == nullptr) {
        return KR_STATUS_NO_MEMORY;
    }
    const table_exclusive lock(port_table_lock());
    return port_insert(added);
}

/* Runs use(port &) with the port in place, or returns ENTRY_NOT_FOUND. */
template <typename Use> kr_status port_with(uint32_t log_port, Use use) {
    const table_shared lock(port_table_lock());
    port *const found = port_find(log_port);
    return found != nullptr ? use(*found) : static_cast<kr_status>(KR_STATUS_ENTRY_NOT_FOUND);
}

// Serialises what starts and stops the threads: adding ports on interfaces, and reset.
constinit std::mutex threads_mutex;

bool interface_in_use(const interface_port &wanted) {
    for (uint32_t i = 0; i < port_count(); i++) {
        const std::shared_ptr<port> other = port_at(i);
        if (other->kind == port_kind::interface &&
            wanted.stands_on_same_interface(static_cast<const interface_port &>(*other))) {
            return true;
        }
    }
    return false;
}

kr_status interface_port_add(const std::shared_ptr<interface_port> &added) {
    const std::lock_guard threads_lock(threads_mutex);
    if (!dataplane_thread_start() || !link_watch_start()) {
        return KR_STATUS_NO_RESOURCES;
    }
    const table_exclusive lock(port_table_lock());
    if (interface_in_use(*added)) {
        return KR_STATUS_ENTRY_ALREADY_EXISTS;
    }
    const kr_status status = port_insert(added);
    if (status == KR_STATUS_SUCCESS && !dataplane_thread_watch(*added)) {
        port_erase(added->log_port);
        return KR_STATUS_NO_RESOURCES;
    }
    return status;
}

struct pcap_closer {
    void operator()(pcap_t *file) const {
        pcap_close(file);
    }
};
using capture_file = std::unique_ptr<pcap_t, pcap_closer>;

capture_file capture_open(const char *path) {
    char error[PCAP_ERRBUF_SIZE] = "";
    capture_file file(pcap_open_offline_with_tstamp_precision(path, PCAP_TSTAMP_PRECISION_NANO, error));
    if (file == nullptr) {
        kr_log(KR_LOG_ERROR, log_module, "Capture file %s can't be read: %s", path, error);
    } else if (pcap_datalink(file.get()) != DLT_EN10MB) {
        kr_log(KR_LOG_ERROR, log_module, "Capture file %s does not hold Ethernet frames", path);
        file.reset();
    }
    return file;
}

// Opening the output empties it, so it must not be the input under another name.
bool is_same_file(const char *one, const char *other) {
    struct stat first {
    }, second{};
    return stat(one, &first) == 0 && stat(other, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

// Lets one frame enter whatever its size: what no wire would carry counts as malformed.
void capture_frame_feed(port &ingress, const pcap_pkthdr &header, const u_char *data) {
    const table_shared lock(port_table_lock());
    if (!is_frame_size(header.caplen)) {
        drop_count_add(ingress.is_up() ? KR_SOFT_DROP_MALFORMED : KR_SOFT_DROP_INGRESS_DOWN);
        return;
    }
    frame_copy copy(data, header.caplen);
    (*copy).captured_at = {.tv_sec = header.ts.tv_sec, .tv_nsec = header.ts.tv_usec};
    frame_forward(ingress, *copy);
}

} // namespace

/* ---- for the device API and the host interface ----------------------------------------------------------------- */

kr_status port_state_get(uint32_t log_port, port_state *state) {
    return port_with(log_port, [&](const port &p) -> kr_status {
        *state = p.state_get();
        return KR_STATUS_SUCCESS;
    });
}

kr_status port_transmit(uint32_t log_port, const void *data, uint32_t size) {
    return port_with(log_port, [&](port &p) -> kr_status {
        frame_copy copy(data, size);
        return p.transmit(*copy) == transmit_result::sent ? KR_STATUS_SUCCESS : KR_STATUS_ERROR;
    });
}

/* ---- for control ----------------------------------------------------------------------------------------------- */

void dataplane_reset() {
    for (;;) {
        std::shared_ptr<port> first;
        {
            const table_shared lock(port_table_lock());
            first = port_at(0);
        }
        if (first == nullptr) {
            break;
        }
        kr_soft_port_remove(first->log_port);
    }
    const std::lock_guard threads_lock(threads_mutex);
    dataplane_thread_stop();
    link_watch_stop();
    drop_counts_reset();
}

void dataplane_usage_fill(kr_soft_usage *usage) {
    const table_shared lock(port_table_lock());
    usage->port_count = port_count();
}

void dataplane_dump(FILE *stream) {
    constexpr const char *stp_names[] = {"none", "discarding", "learning", "forwarding"};
    const table_shared lock(port_table_lock());
    std::fprintf(stream, "ports: %u\n", port_count());
    for (uint32_t i = 0; i < port_count(); i++) {
        const port &p = *port_at(i);
        std::fprintf(stream,
                     "  port 0x%x  link %s  stp %s  rx %" PRIu64 " frames %" PRIu64 " bytes  tx %" PRIu64
                     " frames %" PRIu64 " bytes  %s\n",
                     p.log_port, p.is_up() ? "up" : "down", stp_names[p.stp_state], p.rx_packets.load(),
                     p.rx_bytes.load(), p.tx_packets.load(), p.tx_bytes.load(), p.description().c_str());
    }
    std::fprintf(stream, "dropped frames:\n");
    for (uint32_t i = 0; i < KR_SOFT_DROP_REASON_COUNT; i++) {
        const auto reason = static_cast<kr_soft_drop_reason>(i);
        if (kr_soft_drop_count(reason) != 0) {
            std::fprintf(stream, "  %-40s %" PRIu64 "\n", kr_soft_drop_reason_name(reason), kr_soft_drop_count(reason));
        }
    }
}

} // namespace kr_soft

using namespace kr_soft;

kr_status kr_soft_port_add_memory(uint32_t log_port) {
    return port_add(port_make<memory_port>(log_port));
}

kr_status kr_soft_port_add_interface(uint32_t log_port, const char *interface_name) {
    if (interface_name == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    {
        const table_shared lock(port_table_lock());
        if (port_find(log_port) != nullptr) {
            return KR_STATUS_ENTRY_ALREADY_EXISTS;
        }
    }
    std::shared_ptr<interface_port> added;
    kr_status status = KR_STATUS_ERROR;
    try {
        status = interface_port::open(log_port, interface_name, &added);
    } catch (const std::bad_alloc &) {
        return KR_STATUS_NO_MEMORY;
    }
    if (status == KR_STATUS_SUCCESS) {
        status = interface_port_add(added);
    }
    if (status == KR_STATUS_SUCCESS) {
        added->refresh(); // what changed before the thread that watches links knew the port
    }
    return status;
}

kr_status kr_soft_port_add_capture(uint32_t log_port, const char *input_path, const char *output_path) {
    {
        const table_shared lock(port_table_lock());
        if (port_find(log_port) != nullptr) {
            return KR_STATUS_ENTRY_ALREADY_EXISTS; // before an output file is emptied
        }
    }
    if (input_path != nullptr && capture_open(input_path) == nullptr) {
        return KR_STATUS_ERROR;
    }
    if (input_path != nullptr && output_path != nullptr && is_same_file(input_path, output_path)) {
        kr_log(KR_LOG_ERROR, log_module, "Capture file %s can't be input and output of one port", input_path);
        return KR_STATUS_PARAM_ERROR;
    }
    const std::shared_ptr<capture_port> added =
        port_make<capture_port>(log_port, input_path == nullptr ? "" : input_path);
    if (added != nullptr && output_path != nullptr && !added->output_open(output_path)) {
        kr_log(KR_LOG_ERROR, log_module, "Capture file %s can't be written", output_path);
        return KR_STATUS_ERROR;
    }
    return port_add(added);
}

kr_status kr_soft_port_play(uint32_t log_port, uint64_t *frame_count) {
    if (frame_count == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    *frame_count = 0;
    std::shared_ptr<port> ingress;
    {
        const table_shared lock(port_table_lock());
        ingress = port_share(log_port);
    }
    if (ingress == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (ingress->kind != port_kind::capture) {
        return KR_STATUS_PARAM_ERROR;
    }
    const auto &capture = static_cast<const capture_port &>(*ingress);
    if (capture.input_path().empty()) {
        return KR_STATUS_SUCCESS;
    }
    const capture_file file = capture_open(capture.input_path().c_str());
    if (file == nullptr) {
        return KR_STATUS_ERROR;
    }
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    int result;
    while ((result = pcap_next_ex(file.get(), &header, &data)) == 1) {
        capture_frame_feed(*ingress, *header, data);
        ++*frame_count;
    }
    if (result != PCAP_ERROR_BREAK) {
        kr_log(KR_LOG_ERROR, log_module, "Capture file %s: %s", capture.input_path().c_str(), pcap_geterr(file.get()));
        return KR_STATUS_ERROR;
    }
    return KR_STATUS_SUCCESS;
}

kr_status kr_soft_port_remove(uint32_t log_port) {
    std::shared_ptr<port> removed;
    {
        const table_exclusive lock(port_table_lock());
        removed = port_erase(log_port);
        if (removed != nullptr && removed->kind == port_kind::interface) {
            dataplane_thread_forget(static_cast<const interface_port &>(*removed));
        }
    }
    if (removed == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (removed->kind == port_kind::memory) {
        static_cast<memory_port &>(*removed).close();
    }
    return KR_STATUS_SUCCESS;
}

kr_status kr_soft_port_link_set(uint32_t log_port, uint32_t up) {
    return port_with(log_port, [&](port &p) -> kr_status {
        p.link_force(up != 0);
        return KR_STATUS_SUCCESS;
    });
}

kr_status kr_soft_port_stp_set(uint32_t log_port, uint32_t stp_state) {
    if (stp_state > KR_SOFT_STP_FORWARDING) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    return port_with(log_port, [&](port &p) -> kr_status {
        p.stp_state.store(stp_state, std::memory_order_relaxed);
        return KR_STATUS_SUCCESS;
    });
}

kr_status kr_soft_port_stp_get(uint32_t log_port, uint32_t *stp_state) {
    if (stp_state == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    return port_with(log_port, [&](const port &p) -> kr_status {
        *stp_state = p.stp_state.load(std::memory_order_relaxed);
        return KR_STATUS_SUCCESS;
    });
}

kr_status kr_soft_port_counters_get(uint32_t log_port, kr_soft_port_counters *counters) {
    if (counters == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    return port_with(log_port, [&](const port &p) -> kr_status {
        *counters = {
            .rx_packets = p.rx_packets.load(std::memory_order_relaxed),
            .rx_bytes = p.rx_bytes.load(std::memory_order_relaxed),
            .tx_packets = p.tx_packets.load(std::memory_order_relaxed),
            .tx_bytes = p.tx_bytes.load(std::memory_order_relaxed),
        };
        return KR_STATUS_SUCCESS;
    });
}

kr_status kr_soft_port_inject(uint32_t log_port, const void *data, uint32_t size) {
    if (data == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    if (!is_frame_size(size)) {
        return KR_STATUS_PARAM_EXCEEDS_RANGE;
    }
    return port_with(log_port, [&](port &p) -> kr_status {
        frame_copy copy(data, size);
        frame_forward(p, *copy);
        return KR_STATUS_SUCCESS;
    });
}

kr_status kr_soft_port_read(uint32_t log_port, void *data, uint32_t *size, uint32_t timeout_us) {
    if (data == nullptr || size == nullptr) {
        return KR_STATUS_PARAM_NULL;
    }
    std::shared_ptr<port> source;
    {
        const table_shared lock(port_table_lock());
        source = port_share(log_port);
    }
    if (source == nullptr) {
        return KR_STATUS_ENTRY_NOT_FOUND;
    }
    if (source->kind != port_kind::memory) {
        return KR_STATUS_PARAM_ERROR;
    }
    return static_cast<memory_port &>(*source).read(data, size, timeout_us);
}
