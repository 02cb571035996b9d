/*
 * A record of the library on its way to the clients: written to 1, 4 and 10 channels and read again, next to the same
 * writes and reads of bare pipes.
 *
 * fan_out reads both sides with bare reads, so that it shows the producer's part alone; there_and_back reads with
 * kr_sdn_hal_srvc_recv, which waits with select before it reads, next to a select and a read.
 */
#include <sys/select.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <vector>

#include "bench_library.h"

namespace kr_bench {
namespace {

hal_event_record make_record() {
    hal_event_record record{};
    record.type = EVENT_AGENT_UPDATE;
    return record;
}

// Channels that are registered for the record.
class channels {
  public:
    explicit channels(size_t count) : handles(count) {
        for (srvc_handle &handle : handles) {
            require(kr_sdn_hal_srvc_open(&handle), "kr_sdn_hal_srvc_open");
            require(kr_sdn_hal_srvc_event_register(&handle, EVENT_AGENT_UPDATE), "kr_sdn_hal_srvc_event_register");
        }
    }
    ~channels() {
        for (srvc_handle &handle : handles) {
            require(kr_sdn_hal_srvc_close(&handle), "kr_sdn_hal_srvc_close");
        }
    }
    channels(const channels &) = delete;
    channels &operator=(const channels &) = delete;

    std::vector<srvc_handle> handles;
};

class pipes {
  public:
    explicit pipes(size_t count) : ends(count) {
        for (std::array<int, 2> &one : ends) {
            require(pipe(one.data()) == 0, "pipe");
        }
    }
    ~pipes() {
        for (const std::array<int, 2> &one : ends) {
            close(one[0]);
            close(one[1]);
        }
    }
    pipes(const pipes &) = delete;
    pipes &operator=(const pipes &) = delete;

    std::vector<std::array<int, 2>> ends;
};

void read_record(int fd, hal_event_record *record) {
    require(read(fd, record, sizeof *record) == static_cast<ssize_t>(sizeof *record), "read");
}

void select_one(int fd) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    require(select(fd + 1, &set, nullptr, nullptr, nullptr) == 1, "select");
}

// One round is one record to every channel, and back.
template <typename Round> void measure(benchmark::State &state, Round round) {
    constexpr int rounds = 200;
    for (auto _ : state) {
        const double start = thread_seconds();
        for (int i = 0; i < rounds; i++) {
            round();
        }
        state.SetIterationTime(thread_seconds() - start);
    }
    state.SetItemsProcessed(state.iterations() * rounds * state.range(0));
}

void fan_out_library(benchmark::State &state) {
    channels to(static_cast<size_t>(state.range(0)));
    const hal_event_record record = make_record();
    hal_event_record read_back;
    measure(state, [&] {
        require(kr_sdn_hal_srvc_process_event(&record), "kr_sdn_hal_srvc_process_event");
        for (const srvc_handle &handle : to.handles) {
            read_record(handle.hal_pipe[0], &read_back);
        }
    });
}

void fan_out_straight(benchmark::State &state) {
    pipes to(static_cast<size_t>(state.range(0)));
    const hal_event_record record = make_record();
    hal_event_record read_back;
    measure(state, [&] {
        for (const std::array<int, 2> &one : to.ends) {
            require(write(one[1], &record, sizeof record) == static_cast<ssize_t>(sizeof record), "write");
        }
        for (const std::array<int, 2> &one : to.ends) {
            read_record(one[0], &read_back);
        }
    });
}

void there_and_back_library(benchmark::State &state) {
    channels to(static_cast<size_t>(state.range(0)));
    const hal_event_record record = make_record();
    hal_event_record read_back;
    measure(state, [&] {
        require(kr_sdn_hal_srvc_process_event(&record), "kr_sdn_hal_srvc_process_event");
        for (srvc_handle &handle : to.handles) {
            require(kr_sdn_hal_srvc_recv(&handle, &read_back), "kr_sdn_hal_srvc_recv");
        }
    });
}

void there_and_back_straight(benchmark::State &state) {
    pipes to(static_cast<size_t>(state.range(0)));
    const hal_event_record record = make_record();
    hal_event_record read_back;
    measure(state, [&] {
        for (const std::array<int, 2> &one : to.ends) {
            require(write(one[1], &record, sizeof record) == static_cast<ssize_t>(sizeof record), "write");
        }
        for (const std::array<int, 2> &one : to.ends) {
            select_one(one[0]);
            read_record(one[0], &read_back);
        }
    });
}

} // namespace

void register_event_benchmarks() {
    const std::pair<const char *, void (*)(benchmark::State &)> all[] = {
        {"fan_out/library", fan_out_library},
        {"fan_out/straight", fan_out_straight},
        {"there_and_back/library", there_and_back_library},
        {"there_and_back/straight", there_and_back_straight},
    };
    for (const auto &[name, function] : all) {
        for (const int64_t channel_count : {1, 4, 10}) {
            benchmark::RegisterBenchmark(name, function)->Arg(channel_count)->ArgName("channels")->UseManualTime();
        }
    }
}

} // namespace kr_bench
