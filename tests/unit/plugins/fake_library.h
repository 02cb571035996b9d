/*
 * The library as a connector sees it, for tests: it loads the connector, goes through the calls of the life cycle and
 * records every event. The removal of a port blocks until the test acknowledges it.
 */
#ifndef KR_TESTS_FAKE_LIBRARY_H
#define KR_TESTS_FAKE_LIBRARY_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kr_connector.h"

// The connector's functions, resolved by name from the module under test.
struct connector_symbols {
    decltype(&conn_init) init;
    decltype(&conn_init_done_hal) init_done_hal;
    decltype(&conn_init_done_shim) init_done_shim;
    decltype(&conn_deinit) deinit;
    decltype(&conn_config_callback_register) config_callback_register;
    decltype(&conn_event_callback_register) event_callback_register;
    decltype(&conn_config_params_get) config_params_get;
    decltype(&conn_log) log;
};
const connector_symbols &connector();

// What the fake library saw and how it answers. One at a time; it resets everything when it is constructed.
class fake_library {
  public:
    fake_library();
    ~fake_library(); // acknowledges what is pending and ends the connector

    // "start", "add sw1", "remove sw1", "forward on 19", "forward off 19", "agent", "stop", in order.
    std::vector<std::string> events() const;
    // Waits until so many events have come; false after a long time.
    bool wait_for_events(size_t count) const;
    bool wait_until(const std::function<bool()> &condition) const; // looks after each event and log line
    conn_port_record last_port(const std::string &interface_name) const;
    conn_agent_config last_agent() const;

    void answer(const std::string &event, uint32_t status); // for every event of this text from now on
    void acknowledge();                                     // lets one pending or coming removal return
    void acknowledge_all();                                 // from now on

    std::vector<std::string> log_lines() const;
    bool has_logged(const std::string &part) const;

    // init, both registrations and init_done_hal; the first status that is not 0.
    uint32_t bring_up(uint32_t event_mask = CONN_EVENT_MASK_ALL);
    uint32_t deinit(); // and remembers that it is done
};

// A directory with a configuration file and a control socket, both told to the connector by the environment.
class connector_files {
  public:
    explicit connector_files(const std::string &config);
    ~connector_files();

    void write_config(const std::string &text) const;   // in place
    void replace_config(const std::string &text) const; // by another file, at once
    std::string config_path() const {
        return directory + "/connector.conf";
    }
    std::string control_path() const {
        return directory + "/control";
    }

    std::string directory;
};

// A client of the control socket.
class control_client {
  public:
    explicit control_client(const std::string &path);
    ~control_client();
    control_client(const control_client &) = delete;
    control_client &operator=(const control_client &) = delete;

    bool is_connected() const {
        return fd_ >= 0;
    }
    void send_bytes(const std::string &bytes) const;
    void end_input() const;
    std::string read_line() const; // empty: the connection has ended
    bool has_answer_within(int milliseconds) const;
    std::string command(const std::string &line) const;

  private:
    int fd_;
};

#endif
