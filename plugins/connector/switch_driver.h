/*
 * What the connector's thread does: it compares what is wanted (configuration file, commands) with what is (the
 * library's state as this thread made it, the kernel's interfaces) and delivers one event after the other until there
 * is no difference left. It looks at the world anew before each event, because a removal may block for as long as the
 * client likes.
 *
 * Everything here belongs to one thread, except delivery_gate, through which conn_deinit asks it to end.
 */
#ifndef KR_CONNECTOR_SWITCH_DRIVER_H
#define KR_CONNECTOR_SWITCH_DRIVER_H

#include <array>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "connector_config.h"
#include "file_monitor.h"
#include "link_monitor.h"

namespace kr_connector {

// The library's side: the callbacks that it registered.
struct library_callbacks {
    conn_config_callback config = nullptr;
    conn_event_callback event = nullptr;
    uint32_t event_mask = 0;
};

/*
 * Every call into the library goes through the gate. Once it is closed no further call begins. It can't be closed
 * during the removal of a port: that call returns only when a client acknowledges it, which might be never.
 */
class delivery_gate {
  public:
    bool enter(bool is_removal); // false: closed
    void leave();
    bool close(); // false: a removal waits for its acknowledgement; the gate stays open
    bool is_closed() const;

  private:
    mutable std::mutex lock_;
    bool is_closed_ = false;
    bool is_removing_ = false;
};

class switch_driver {
  public:
    switch_driver(const library_callbacks &library, std::string config_path, connector_config config,
                  delivery_gate &gate);
    ~switch_driver(); // takes the ports out of the software switch; the library hears nothing
    switch_driver(const switch_driver &) = delete;
    switch_driver &operator=(const switch_driver &) = delete;

    bool open(std::string *why); // before anything else, on any thread
    int link_fd() const {
        return links_monitor_.fd();
    }
    int file_fd() const {
        return file_monitor_.fd();
    }

    void start_request(); // the switch shall run; reconcile makes it so
    void reconcile();     // follows file, kernel and requests until nothing is left to do
    std::string command(const std::string &line);

  private:
    struct port {
        std::string interface_name;
        int32_t requested;
        uint32_t of_port;
        conn_port_record record;
        std::optional<capture_files> captures; // none: it stands on an interface
        bool is_gone = false;                  // the kernel said that this interface vanished
        bool has_removal_failed = false;       // not tried again before something changes
    };
    struct failed_add { // what the interface was like when its port could not be added
        uint32_t ifindex;
        bool is_up;
    };

    // Each does at most one thing and returns whether it did it; reconcile goes on until none does.
    bool step_stop();
    bool step_start();
    bool step_forward();
    bool step_agent();
    bool step_remove();
    bool step_add();

    void refresh();
    void on_link_change(const link_change &change);
    std::string config_reread(bool is_forced); // empty, or the first mistake
    void config_apply(const connector_config &config);
    void failures_forget();

    std::optional<uint32_t> deliver(uint32_t event, void *data); // none: the gate is closed
    bool forward_set(size_t protocol, bool is_on);
    bool port_remove(port &p);
    void port_add(const std::string &name, int32_t requested);
    uint32_t port_plug_in(const port &p); // a platform status
    void port_take_out(const port &p);
    bool port_is_possible(const std::string &name) const; // what it stands on is there
    bool port_is_stale(const port &p) const;
    const capture_files *captures_of(const std::string &name) const; // NULL: it stands on an interface
    port *port_find(const std::string &name);
    void failure(const std::string &text);

    std::string command_status();
    std::string command_start();
    std::string command_stop();
    std::string command_reload();
    std::string command_config();
    std::string command_add(const std::string &name, const std::string &number);
    std::string command_remove(const std::string &name);
    std::string command_play(const std::string &name);
    std::string command_link(const std::string &name, const std::string &state);
    std::string finish(bool is_done, const std::string &text = {});

    const library_callbacks library_;
    const std::string config_path_;
    delivery_gate &gate_;
    link_monitor links_monitor_;
    file_monitor file_monitor_;

    // What is wanted. The ports are those of the file, until a command changes them.
    connector_config config_;
    std::map<std::string, int32_t> wanted_ports_;
    bool is_run_wanted_ = true;

    // What is.
    link_table links_;
    bool are_links_stale_ = true;
    bool is_started_ = false;
    std::vector<port> ports_;
    std::array<bool, control_protocol_count> forwarded_{};
    bool is_agent_sent_ = false;
    bool is_agent_known_ = false; // clients have heard of one: that it is gone has to be told as well

    // What failed, and is not tried again before something changes.
    bool has_start_failed_ = false;
    bool has_stop_failed_ = false;
    std::array<bool, control_protocol_count> has_forward_failed_{};
    std::map<std::string, failed_add> failed_adds_;
    std::string last_failure_;
    std::string last_mistakes_;
};

} // namespace kr_connector

#endif
