/* Records what a connector delivers. */
#include "fake_library.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>

namespace {

constexpr std::chrono::seconds long_time{30};

struct library_state {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::string> events;
    std::vector<std::string> log_lines;
    std::map<std::string, uint32_t> answers;
    std::map<std::string, conn_port_record> ports;
    conn_agent_config agent{};
    unsigned acknowledgements = 0;
    bool acknowledges_all = false;
    bool is_in_callback = false;
    bool is_initialised = false;
};
library_state g;

// Notes an event and returns the status that the test wants for it. The lock is held.
uint32_t note(const std::string &event) {
    if (g.is_in_callback) {
        g.events.push_back("two events at once");
    }
    g.events.push_back(event);
    g.changed.notify_all();
    const auto answer = g.answers.find(event);
    return answer == g.answers.end() ? 0 : answer->second;
}

uint32_t on_config(uint32_t command, void *data) {
    const std::lock_guard guard(g.lock);
    if (command == CONN_CONFIG_AGENT) {
        std::memcpy(&g.agent, data, sizeof(g.agent));
    }
    return note(command == CONN_CONFIG_AGENT ? "agent" : "config " + std::to_string(command));
}

uint32_t on_removal(const conn_port_record &record, std::unique_lock<std::mutex> &guard) {
    const uint32_t status = note(std::string("remove ") + record.interface_name);
    if (status != 0) {
        return status;
    }
    g.is_in_callback = true;
    g.changed.wait(guard, [] { return g.acknowledges_all || g.acknowledgements > 0; });
    g.is_in_callback = false;
    g.acknowledgements -= g.acknowledgements > 0 ? 1 : 0;
    return 0;
}

uint32_t on_event(uint32_t event, void *data) {
    std::unique_lock guard(g.lock);
    switch (event) {
    case CONN_EVENT_START:
        return note("start");
    case CONN_EVENT_STOP:
        return note("stop");
    case CONN_EVENT_PORT_ADDED: {
        conn_port_record record;
        std::memcpy(&record, data, sizeof(record));
        g.ports[record.interface_name] = record;
        return note(std::string("add ") + record.interface_name);
    }
    case CONN_EVENT_PORT_REMOVED: {
        conn_port_record record;
        std::memcpy(&record, data, sizeof(record));
        return on_removal(record, guard);
    }
    case CONN_EVENT_CONTROL_FORWARD: {
        conn_control_forward forward;
        std::memcpy(&forward, data, sizeof(forward));
        return note((forward.command == CONN_FORWARD_REGISTER ? "forward on " : "forward off ") +
                    std::to_string(forward.trap_id));
    }
    default:
        return note("event " + std::to_string(event));
    }
}

void on_log(uint32_t severity, const char *module, const char *text) {
    const std::lock_guard guard(g.lock);
    g.log_lines.push_back(std::to_string(severity) + " " + module + ": " + text);
    g.changed.notify_all();
}

template <typename T> void resolve(void *handle, const char *name, T *function) {
    *function = reinterpret_cast<T>(dlsym(handle, name));
    if (*function == nullptr) {
        throw std::runtime_error(std::string("no symbol ") + name);
    }
}

} // namespace

const connector_symbols &connector() {
    static const connector_symbols symbols = [] {
        void *handle = dlopen(KR_TEST_CONNECTOR_PATH, RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            throw std::runtime_error(dlerror());
        }
        connector_symbols s{};
        resolve(handle, "conn_init", &s.init);
        resolve(handle, "conn_init_done_hal", &s.init_done_hal);
        resolve(handle, "conn_init_done_shim", &s.init_done_shim);
        resolve(handle, "conn_deinit", &s.deinit);
        resolve(handle, "conn_config_callback_register", &s.config_callback_register);
        resolve(handle, "conn_event_callback_register", &s.event_callback_register);
        resolve(handle, "conn_config_params_get", &s.config_params_get);
        resolve(handle, "conn_log", &s.log);
        return s;
    }();
    return symbols;
}

fake_library::fake_library() {
    const std::lock_guard guard(g.lock);
    g.events.clear();
    g.log_lines.clear();
    g.answers.clear();
    g.ports.clear();
    g.agent = {};
    g.acknowledgements = 0;
    g.acknowledges_all = false;
    g.is_initialised = false;
}

fake_library::~fake_library() {
    acknowledge_all();
    while (g.is_initialised && deinit() != 0) {
        // A removal is on its way out of the callback.
        std::unique_lock guard(g.lock);
        g.changed.wait_for(guard, std::chrono::milliseconds(1));
    }
}

uint32_t fake_library::bring_up(uint32_t event_mask) {
    uint32_t status = connector().init(on_log);
    g.is_initialised = status == 0;
    if (status == 0) {
        status = connector().config_callback_register(on_config);
    }
    if (status == 0) {
        status = connector().event_callback_register(on_event, event_mask);
    }
    return status == 0 ? connector().init_done_hal() : status;
}

uint32_t fake_library::deinit() {
    const uint32_t status = connector().deinit();
    if (status == 0) {
        g.is_initialised = false;
    }
    return status;
}

std::vector<std::string> fake_library::events() const {
    const std::lock_guard guard(g.lock);
    return g.events;
}

bool fake_library::wait_for_events(size_t count) const {
    std::unique_lock guard(g.lock);
    return g.changed.wait_for(guard, long_time, [=] { return g.events.size() >= count; });
}

bool fake_library::wait_until(const std::function<bool()> &condition) const {
    const auto deadline = std::chrono::steady_clock::now() + long_time;
    while (!condition()) {
        std::unique_lock guard(g.lock);
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        g.changed.wait_for(guard, std::chrono::milliseconds(5));
    }
    return true;
}

conn_port_record fake_library::last_port(const std::string &interface_name) const {
    const std::lock_guard guard(g.lock);
    return g.ports.at(interface_name);
}

conn_agent_config fake_library::last_agent() const {
    const std::lock_guard guard(g.lock);
    return g.agent;
}

void fake_library::answer(const std::string &event, uint32_t status) {
    const std::lock_guard guard(g.lock);
    g.answers[event] = status;
}

void fake_library::acknowledge() {
    const std::lock_guard guard(g.lock);
    ++g.acknowledgements;
    g.changed.notify_all();
}

void fake_library::acknowledge_all() {
    const std::lock_guard guard(g.lock);
    g.acknowledges_all = true;
    g.changed.notify_all();
}

std::vector<std::string> fake_library::log_lines() const {
    const std::lock_guard guard(g.lock);
    return g.log_lines;
}

bool fake_library::has_logged(const std::string &part) const {
    const auto lines = log_lines();
    return std::any_of(lines.begin(), lines.end(), [&](const auto &l) { return l.find(part) != std::string::npos; });
}

connector_files::connector_files(const std::string &config) {
    std::string pattern = (std::filesystem::temp_directory_path() / "kr_connector_XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    directory = pattern;
    write_config(config);
    setenv("KR_CONNECTOR_CONFIG", config_path().c_str(), 1);
    setenv("KR_CONNECTOR_CONTROL", control_path().c_str(), 1);
}

connector_files::~connector_files() {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

void connector_files::write_config(const std::string &text) const {
    std::ofstream(config_path(), std::ios::trunc) << text;
}

void connector_files::replace_config(const std::string &text) const {
    const std::string temporary = directory + "/new.conf";
    std::ofstream(temporary, std::ios::trunc) << text;
    std::filesystem::rename(temporary, config_path());
}

control_client::control_client(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        close(fd_);
        fd_ = -1;
    }
}

control_client::~control_client() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

void control_client::send_bytes(const std::string &bytes) const {
    (void)!send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void control_client::end_input() const {
    shutdown(fd_, SHUT_WR);
}

bool control_client::has_answer_within(int milliseconds) const {
    pollfd descriptor{fd_, POLLIN, 0};
    return poll(&descriptor, 1, milliseconds) == 1;
}

std::string control_client::read_line() const {
    std::string line;
    char c = 0;
    while (has_answer_within(static_cast<int>(std::chrono::milliseconds(long_time).count())) && read(fd_, &c, 1) == 1) {
        if (c == '\n') {
            return line;
        }
        line += c;
    }
    return line;
}

std::string control_client::command(const std::string &line) const {
    send_bytes(line + "\n");
    return read_line();
}
