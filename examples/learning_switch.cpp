/*
 * A learning switch: frames that no flow matches come to the client, which learns where their sender is and programs a
 * flow from sender to receiver. After the first frame of a pair the hardware forwards alone.
 *
 * Usage: learning_switch CONNECTOR PORT-PLUGIN; ends with Ctrl-C and prints how many frames came to it.
 */
#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include "connector_control.h"
#include "kr_sdn_hal.h"

namespace {

using mac = std::array<uint8_t, 6>;
constexpr uint32_t table = 0;

void print_log(uint32_t severity, const char *module, const char *text) {
    if (severity <= 3) { // errors and warnings
        fprintf(stderr, "%s: %s", module, text);
    }
}

bool check(kr_sdn_hal_status status, const char *what) {
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        fprintf(stderr, "learning_switch: %s failed with status %u\n", what, static_cast<unsigned>(status));
    }
    return status == KR_SDN_HAL_STATUS_SUCCESS;
}

class learning_switch {
  public:
    explicit learning_switch(srvc_handle &channel) : channel_(channel) {}

    void handle(const hal_event_record &record) {
        switch (record.type) {
        case EVENT_GENERAL_READY:
            // Not by the thread that reads: a registration waits for who writes events, and that one may wait for room.
            registrar_ = std::jthread([this] {
                (void)check(kr_sdn_hal_srvc_event_register(&channel_, EVENT_PACKET_MISS), "register for packets");
            });
            printf("switch ready\n");
            break;
        case EVENT_PORT_CAPABILITIES_UPDATE:
            handle_port(record);
            break;
        case EVENT_PACKET_MISS:
            handle_packet(record.payload.packet);
            break;
        }
        fflush(stdout);
    }

    unsigned packet_count() const {
        return packet_count_;
    }

  private:
    void handle_port(const hal_event_record &record) {
        const hal_event_port_update &update = record.payload.port_update;
        if (update.reason == PORT_UPDATE_ADDED) {
            ports_.push_back(update.port);
            printf("port %u added\n", update.port);
            return;
        }
        std::erase(ports_, update.port);
        forget(update.port);
        (void)check(kr_sdn_hal_srvc_event_ack(&record), "acknowledge the removal");
    }

    // Takes back the flows that lead to a port or away from it: a flow to a port that is gone would drop frames.
    void forget(uint32_t port) {
        std::erase_if(stations_, [&](const auto &station) { return station.second == port; });
        std::erase_if(flows_, [&](flow_record &flow) {
            return (flow.in_port == port || flow.out_port == port || flow.action == FLOW_ACTION_FLOOD) &&
                   check(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_DELETE, table, &flow, 1), "delete a flow");
        });
    }

    void handle_packet(const hal_event_packet &packet) {
        packet_count_++;
        mac to{}, from{};
        memcpy(to.data(), packet.data, to.size());
        memcpy(from.data(), packet.data + to.size(), from.size());
        stations_[from] = packet.in_port;

        // The flow is there before the frame goes on, so the answer already finds its way.
        const auto station = stations_.find(to);
        if ((to[0] & 1) != 0) { // to a group
            add_flow(from, to, packet.in_port, FLOW_ACTION_FLOOD, 0);
        } else if (station != stations_.end() && station->second != packet.in_port) {
            add_flow(from, to, packet.in_port, FLOW_ACTION_OUTPUT, station->second);
            send(packet, station->second);
            return;
        }
        for (const uint32_t port : ports_) {
            if (port != packet.in_port) {
                send(packet, port);
            }
        }
    }

    void add_flow(const mac &from, const mac &to, uint32_t in_port, flow_action action, uint32_t out_port) {
        flow_record flow{};
        flow.flow_id = next_id_++;
        flow.priority = 100;
        flow.in_port = in_port;
        flow.in_port_mask = 1;
        memcpy(flow.eth_src, from.data(), from.size());
        memset(flow.eth_src_mask, 0xFF, sizeof flow.eth_src_mask);
        memcpy(flow.eth_dst, to.data(), to.size());
        memset(flow.eth_dst_mask, 0xFF, sizeof flow.eth_dst_mask);
        flow.action = action;
        flow.out_port = out_port;
        if (check(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, table, &flow, 1), "add a flow")) {
            flows_.push_back(flow);
        }
    }

    void send(const hal_event_packet &packet, uint32_t port) {
        (void)check(kr_sdn_hal_srvc_packet_send(&channel_, packet.data, packet.length, port, 0), "send a packet");
    }

    srvc_handle &channel_;
    std::jthread registrar_;
    std::vector<uint32_t> ports_;
    std::map<mac, uint32_t> stations_;
    std::vector<flow_record> flows_;
    uint64_t next_id_ = 1;
    unsigned packet_count_ = 0;
};

void run(srvc_handle &channel) {
    learning_switch learner(channel);
    std::thread stopper;
    std::atomic<bool> done = false;
    while (!done) {
        sigset_t pending;
        sigpending(&pending);
        if (!stopper.joinable() && (sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1)) {
            stopper = std::thread([&] {
                char answer[256];
                if (connector_request("stop", answer, sizeof answer) == 0) {
                    fprintf(stderr, "learning_switch: %s\n", answer);
                }
                done = true;
            });
        }
        srvc_handle *handles[] = {&channel};
        timeval timeout{0, 100'000};
        uint32_t ready = 0;
        hal_event_record record;
        if (kr_sdn_hal_srvc_select(handles, 1, &timeout, &ready) == KR_SDN_HAL_STATUS_SUCCESS && ready != 0 &&
            kr_sdn_hal_srvc_recv(&channel, &record) == KR_SDN_HAL_STATUS_SUCCESS) {
            learner.handle(record);
        }
    }
    stopper.join();
    printf("%u frames came to the client\n", learner.packet_count());
}

} // namespace

int main(int argument_count, char **arguments) {
    if (argument_count != 3) {
        fprintf(stderr, "usage: %s CONNECTOR PORT-PLUGIN\n", arguments[0]);
        return 2;
    }
    sigset_t signals; // blocked in every thread, so that no wait of the library is interrupted
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    system_profile profile{};
    snprintf(profile.connector_library_path, sizeof profile.connector_library_path, "%s", arguments[1]);
    snprintf(profile.fpt_library_path, sizeof profile.fpt_library_path, "%s", arguments[2]);
    if (!check(kr_sdn_hal_init(&profile, print_log), "kr_sdn_hal_init")) {
        return 1;
    }
    srvc_handle channel;
    bool ok = check(kr_sdn_hal_srvc_open(&channel), "kr_sdn_hal_srvc_open") &&
              check(kr_sdn_hal_srvc_event_register(&channel, EVENT_GENERAL_READY), "register for ready") &&
              check(kr_sdn_hal_srvc_event_register(&channel, EVENT_PORT_CAPABILITIES_UPDATE), "register for ports") &&
              check(kr_sdn_hal_activate(), "kr_sdn_hal_activate");
    if (ok) {
        run(channel);
        ok = check(kr_sdn_hal_srvc_close(&channel), "kr_sdn_hal_srvc_close");
    }
    return check(kr_sdn_hal_deinit(), "kr_sdn_hal_deinit") && ok ? 0 : 1;
}
