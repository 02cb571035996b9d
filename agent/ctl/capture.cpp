/*
 * Both sources of capture.h, and the one way out: a pcap dump on standard output, flushed frame by frame.
 */
#include "capture.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ctl {
namespace {

constexpr int snap_length = 65535;
constexpr int wait_ms = 100;

struct pcap_closer {
    void operator()(pcap_t *one) const {
        pcap_close(one);
    }
    void operator()(pcap_dumper_t *one) const {
        pcap_dump_close(one);
    }
};
using pcap_ptr = std::unique_ptr<pcap_t, pcap_closer>;
using dumper_ptr = std::unique_ptr<pcap_dumper_t, pcap_closer>;

pcap_t *interrupted_capture = nullptr;
int interrupt_pipe[2] = {-1, -1}; // readable once somebody has interrupted
volatile std::sig_atomic_t is_interrupted = 0;

void interrupts_take(pcap_t *source) {
    interrupted_capture = source;
    if (pipe2(interrupt_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw failure(exit_bad, std::strerror(errno));
    }
    struct sigaction action {};
    action.sa_handler = [](int) {
        const int error = errno;
        is_interrupted = 1;
        (void)!write(interrupt_pipe[1], "", 1);
        if (interrupted_capture != nullptr) {
            pcap_breakloop(interrupted_capture);
        }
        errno = error;
    };
    for (const int one : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(one, &action, nullptr);
    }
}

// The first bytes go out at once, so that a reader sees that the capture has begun.
dumper_ptr dumper_open(pcap_t *source) {
    dumper_ptr dumper(pcap_dump_fopen(source, fdopen(dup(STDOUT_FILENO), "w")));
    if (dumper == nullptr || pcap_dump_flush(dumper.get()) != 0) {
        throw failure(exit_bad, "standard output can't be written to");
    }
    return dumper;
}

bool write_frame(pcap_dumper_t *dumper, const pcap_pkthdr *header, const uint8_t *frame) {
    pcap_dump(reinterpret_cast<uint8_t *>(dumper), header, frame);
    return pcap_dump_flush(dumper) == 0;
}

std::string address_of(const std::string &interface_name) {
    ifreq request{};
    interface_name.copy(request.ifr_name, IFNAMSIZ - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool is_there = ioctl(fd, SIOCGIFHWADDR, &request) == 0;
    close(fd);
    if (!is_there) {
        return {};
    }
    char text[24];
    const auto *const bytes = reinterpret_cast<const uint8_t *>(request.ifr_hwaddr.sa_data);
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
                  bytes[5]);
    return text;
}

[[noreturn]] void fail(const std::string &interface_name, const char *why) {
    throw failure(exit_bad, interface_name + ": " + why + "\n--agent captures what passes through the daemon instead");
}

void capture_interface(const json &port, const capture_wish &wish) {
    const std::string name = port.value("name", "");
    const std::string address = address_of(name);
    if (address.empty() || address != port.value("address", "")) {
        fail(name, address.empty() ? "there is no such interface in this network namespace"
                                   : "the interface of this name is not the port");
    }
    char error[PCAP_ERRBUF_SIZE] = "";
    const pcap_ptr source(pcap_create(name.c_str(), error));
    if (source == nullptr) {
        fail(name, error);
    }
    pcap_set_snaplen(source.get(), snap_length);
    pcap_set_timeout(source.get(), wait_ms);
    pcap_set_immediate_mode(source.get(), 1);
    const int activated = pcap_activate(source.get());
    if (activated < 0) {
        const char *const detail = pcap_geterr(source.get());
        fail(name, *detail != '\0' ? detail : pcap_statustostr(activated));
    }
    bpf_program filter{};
    if (pcap_compile(source.get(), &filter, wish.filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
        throw failure(exit_usage, "filter: " + std::string(pcap_geterr(source.get())));
    }
    const int set = pcap_setfilter(source.get(), &filter);
    pcap_freecode(&filter);
    if (set != 0) {
        fail(name, pcap_geterr(source.get()));
    }
    interrupts_take(source.get());
    const dumper_ptr dumper = dumper_open(source.get());
    for (uint64_t count = 0; is_interrupted == 0 && (wish.count == 0 || count < wish.count);) {
        pcap_pkthdr *header = nullptr;
        const uint8_t *frame = nullptr;
        const int result = pcap_next_ex(source.get(), &header, &frame);
        if (result == PCAP_ERROR) {
            fail(name, pcap_geterr(source.get()));
        }
        if (result == 1) {
            count++;
            if (!write_frame(dumper.get(), header, frame)) {
                return; // the reader has gone
            }
        }
    }
}

std::vector<uint8_t> bytes_of(const std::string &digits) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

void capture_daemon(daemon_link &daemon, const json &port, const capture_wish &wish) {
    if (!wish.filter.empty()) {
        throw failure(exit_usage, "--agent takes no filter");
    }
    const pcap_ptr form(pcap_open_dead(DLT_EN10MB, snap_length));
    interrupts_take(nullptr);
    daemon.end_with(interrupt_pipe[0]);
    const dumper_ptr dumper = dumper_open(form.get());
    uint64_t count = 0;
    daemon.ask({{"command", "capture"}, {"port", port["port"]}}, [&](json &&record) {
        if (!record.contains("frame")) {
            std::fprintf(stderr, "krsdnctl: %llu frames were lost: this end was too slow\n",
                         record.value("count", 0ULL));
            return true;
        }
        const std::vector<uint8_t> frame = bytes_of(record["frame"].get<std::string>());
        const double time = record.value("time", 0.0);
        pcap_pkthdr header{};
        header.ts.tv_sec = static_cast<time_t>(time);
        header.ts.tv_usec = static_cast<suseconds_t>((time - std::floor(time)) * 1e6);
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
        count++;
        return write_frame(dumper.get(), &header, frame.data()) && is_interrupted == 0 && count != wish.count;
    });
}

} // namespace

json port_find(daemon_link &daemon, const std::string &name) {
    for (json &port : daemon.ask({{"command", "ports"}})) {
        if (port["name"] == name || std::to_string(port.value("port", 0U)) == name) {
            return std::move(port);
        }
    }
    throw failure(exit_bad, "there is no port \"" + name + "\"; \"krsdnctl ports\" lists them");
}

void capture(daemon_link &daemon, const capture_wish &wish) {
    if (isatty(STDOUT_FILENO) != 0) {
        throw failure(exit_usage, "a capture is no text: send it to a file, or to \"tcpdump -nr -\"");
    }
    const json port = port_find(daemon, wish.port);
    if (wish.from_daemon) {
        capture_daemon(daemon, port, wish);
    } else {
        capture_interface(port, wish);
    }
}

} // namespace ctl
