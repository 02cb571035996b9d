/*
 * The daemon's link to the library: brings it up, receives its events and frames on the loop, sends frames, and takes
 * it down again. What an event means is the datapath's business.
 *
 * Two channels. One, opened at once, brings the library's own events (ready, ports, configuration) through its pipe.
 * The other is opened once the switch is ready and brings frames and link changes. Setting a channel up waits for the
 * library's producers, and those wait for this loop to read what they have written: so it is done on a thread of its
 * own, while the loop goes on reading.
 */
#ifndef KR_AGENT_SWITCH_LINK_H
#define KR_AGENT_SWITCH_LINK_H

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "event_loop.h"
#include "kr_sdn_hal.h"
#include "of10/of10.h"
#include "stream.h"

namespace agent {

class datapath;

struct switch_settings {
    std::string connector, port_plugin;
    std::string control_path; // of the connector
    bool needs_all_ports;     // controllers are not served before the ports have ceased to come
};

class switch_link {
  public:
    struct handlers {
        std::function<void()> settled;                      // ready, and the first ports are known; called once
        std::function<void(const hal_event_agent &)> agent; // configuration from the connector
        std::function<void(bool is_clean)> stopped;         // after stop()
    };

    switch_link(event_loop &loop, switch_settings settings, handlers on);
    ~switch_link();
    switch_link(const switch_link &) = delete;
    switch_link &operator=(const switch_link &) = delete;

    /* Initialises the library and tells the connector to start. False, and why. */
    bool start(datapath &switch_state, std::string *why);

    bool send(uint16_t port, of10::byte_view frame);

    /* Has the connector remove the ports and stop the switch, and takes the library down. */
    void stop();

  private:
    void read_events();
    void take_event(const hal_event_record &record);
    void read_packets();
    void take_packet(const hal_event_record &record);
    void run_aside(std::function<void()> work, std::function<void()> then);
    void start_aside();
    void end_aside();
    void open_packets();
    void close_watches();
    void packets_opened();
    void ask_connector();
    void read_answer();
    void finish(bool is_clean);

    event_loop &loop_;
    const switch_settings settings_;
    handlers on_;
    datapath *datapath_ = nullptr;

    srvc_handle events_{};
    srvc_handle packets_{};
    bool has_packets_ = false;
    std::unique_ptr<fd_watch> events_watch_, packets_pipe_watch_, packets_sdk_watch_;
    hal_event_record record_;

    struct aside_work {
        std::function<void()> work, then; // on the thread aside; afterwards on the loop
    };
    std::deque<aside_work> aside_queue_; // the first is being done
    std::thread aside_;
    unique_fd aside_done_;
    std::unique_ptr<fd_watch> aside_watch_;

    timer settle_, settle_limit_, stop_limit_;
    bool has_settled_ = false;
    bool is_initialised_ = false;
    bool is_stopping_ = false;
    unique_fd control_;
    std::unique_ptr<fd_watch> control_watch_;
    std::string answer_;
};

} // namespace agent

#endif
