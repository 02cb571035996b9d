/*
 * The client's side of the library's life: init, activation, the channels and the thread that reads them, and the way
 * down again. Everything goes through the exported interface; the connector is told what to do over its own socket.
 */
#ifndef KR_DEMO_SWITCH_CLIENT_H
#define KR_DEMO_SWITCH_CLIENT_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kr_sdn_hal.h"

namespace demo {

const char *status_text(kr_sdn_hal_status status);

// Throws demo::failure with the text of the status, unless it is success.
void require(kr_sdn_hal_status status, const char *operation);

struct port {
    uint32_t of_port;
    std::string interface_name;
};

class switch_client {
  public:
    // Loads the library's plug-ins and starts the thread that reads events.
    switch_client(const std::string &connector, const std::string &port_plugin, bool verbose);
    // Whatever is still up comes down.
    ~switch_client();
    switch_client(const switch_client &) = delete;
    switch_client &operator=(const switch_client &) = delete;

    // Tells the connector to start; returns once the switch is ready and `port_count` ports are there.
    void start(size_t port_count);
    // Removes every port, acknowledging each, stops the switch and ends the library.
    void stop();

    std::vector<port> ports();
    uint32_t of_port(const std::string &interface_name);

    // The next frame that came as `type` (packet-in or packet-miss); those of the other are passed over. Throws
    // demo::failure when none comes in time.
    hal_event_record wait_packet(uint32_t type);
    void drop_packets();
    // Waits for the operational state of a port to become `oper_state`.
    void wait_oper_state(uint32_t of_port, uint32_t oper_state);
    // Sends a frame out of a port, past the flows.
    void send(uint32_t of_port, const std::vector<uint8_t> &frame);
    // Asks the connector to remove one port; returns once the removal was acknowledged and has completed.
    void remove_port(const std::string &interface_name);

  private:
    void read_events();
    void handle(const hal_event_record &record);
    void ask_connector(const std::string &command);
    template <typename Condition> void wait_until(const char *what, Condition condition);

    srvc_handle channel_{};
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ready_ = false;
    bool ending_ = false;
    bool initialized_ = false;
    bool running_ = false;
    std::vector<port> ports_;
    std::deque<hal_event_record> packets_;
    std::map<uint32_t, uint32_t> oper_states_; // by OF port: what the last event said
};

} // namespace demo

#endif
