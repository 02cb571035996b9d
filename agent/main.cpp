/*
 * krsdn-ofagentd: the OpenFlow 1.0 agent of the switch. Puts the parts together and runs the loop until a signal.
 *
 *   controllers --- session --- datapath --- rules --- hardware     (kr_sdn_hal_table_*)
 *     (sockets)    (messages)      |  \----- ports                  (kr_sdn_hal_port_*)
 *                                  |---- packet_io ---- switch_link (kr_sdn_hal_init, kr_sdn_hal_srvc_*)
 *
 * Signals are blocked before the first thread exists, in all of them, and arrive through a descriptor on the loop.
 */
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <malloc.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "control_commands.h"
#include "controllers.h"
#include "introspect.h"
#include "log.h"
#include "module_place.h"
#include "notify.h"
#include "options.h"
#include "remembered_id.h"
#include "switch_link.h"
#include "timeouts.h"

namespace agent {
namespace {

constexpr const char *config_variable = "KR_CONNECTOR_CONFIG";
constexpr const char *control_variable = "KR_CONNECTOR_CONTROL";
constexpr const char *state_variable = "STATE_DIRECTORY";
constexpr nanoseconds comparison_interval = 5 * second_ns; // at least, between two after failures
constexpr size_t max_findings_told = 10;                   // krsdnctl audit tells all

// A directory for the connector's control socket, which goes with the daemon.
class private_directory {
  public:
    private_directory() {
        const char *const parents[] = {getenv("RUNTIME_DIRECTORY"), "/run", "/tmp"};
        for (const char *parent : parents) {
            std::string name = std::string(parent != nullptr ? parent : "") + "/krsdn-ofagentd.XXXXXX";
            if (parent != nullptr && mkdtemp(name.data()) != nullptr) {
                path_ = name;
                return;
            }
        }
    }
    ~private_directory() {
        if (!path_.empty()) {
            unlink(socket().c_str());
            rmdir(path_.c_str());
        }
    }
    private_directory(const private_directory &) = delete;
    private_directory &operator=(const private_directory &) = delete;
    std::string socket() const {
        return path_ + "/connector";
    }

  private:
    std::string path_;
};

// Where a service manager lets things outlive the daemon; of several folders the first. Empty: nowhere.
std::string state_folder() {
    const char *const given = getenv(state_variable);
    const std::string folders = given != nullptr ? given : "";
    return folders.substr(0, folders.find(':'));
}

unique_fd signals_take() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int one : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        sigaddset(&signals, one);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    sigdelset(&signals, SIGPIPE);
    return unique_fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

class daemon_process {
  public:
    explicit daemon_process(options given)
        : options_(std::move(given)), signals_(signals_take()), control_path_(choose_control()),
          id_file_(state_folder()), remembered_(id_file_.read()),
          link_(loop_, {options_.connector, options_.port_plugin, control_path_, !options_.datapath_id && !remembered_},
                link_handlers()),
          datapath_({options_.datapath_id, options_.description, remembered_,
                     [this](uint64_t chosen) { id_file_.write(chosen); }},
                    [this](uint16_t port, of10::byte_view frame) { return link_.send(port, frame); }),
          turn_(loop_, [this] { turn(); }) {}

    int run() {
        std::string why;
        if (!prepare(&why) || !link_.start(datapath_, &why)) {
            log(log_level::error, "%s", why.c_str());
            return EXIT_FAILURE;
        }
        fd_watch on_signal(loop_, signals_.get(), [this](bool, bool) { signal(); });
        on_signal.want(true, false);
        loop_.run(options_.busy_poll);
        return status_;
    }

  private:
    // The reference connector takes its settings from the environment.
    std::string choose_control() {
        if (!options_.connector_config.empty()) {
            setenv(config_variable, options_.connector_config.c_str(), 1);
        }
        const char *const given = getenv(control_variable);
        const std::string path = !options_.connector_control.empty()  ? options_.connector_control
                                 : given != nullptr && *given != '\0' ? std::string(given)
                                                                      : directory_.emplace().socket();
        setenv(control_variable, path.c_str(), 1);
        return path;
    }

    switch_link::handlers link_handlers() {
        return {.settled = [this] { settled(); },
                .agent = [this](const hal_event_agent &told) { configured(told); },
                .stopped =
                    [this](bool is_clean) {
                        status_ = is_clean ? EXIT_SUCCESS : EXIT_FAILURE;
                        loop_.stop();
                    }};
    }

    bool prepare(std::string *why) {
        const tls_files &files = options_.tls;
        if (!files.private_key.empty() || !files.certificate.empty() || !files.ca_certificate.empty()) {
            tls_ = tls_context_open(files, why);
            if (tls_ == nullptr) {
                return false;
            }
        }
        controllers_.emplace(loop_, datapath_, controller_settings{options_.probe, tls_.get()});
        datapath_.set_audience(*controllers_);
        follows_connector_ = options_.endpoints.empty();
        if (follows_connector_) {
            endpoint here;
            here.is_listening = true;
            here.address = "127.0.0.1";
            here.port = default_openflow_port;
            options_.endpoints.push_back(here);
        }
        if ((options_.inspector != "none" && !platform_.load(options_.inspector, why)) || !open_control(why)) {
            return false;
        }
        for (const endpoint &where : options_.endpoints) {
            if (!where.is_listening) {
                controllers_->connect(where);
            } else if (!controllers_->listen(where, why)) {
                return false;
            }
        }
        return true;
    }

    // In the usual place it is a convenience, and no reason not to start.
    bool open_control(std::string *why) {
        if (options_.control == "none") {
            return true;
        }
        control_.emplace(loop_, datapath_, *controllers_, platform_);
        if (control_->open(options_.control, why)) {
            log(log_level::notice, "krsdnctl is answered on %s", control_->path().c_str());
            return true;
        }
        control_.reset();
        if (options_.control.empty()) {
            log(log_level::warning, "no control socket: %s", why->c_str());
        }
        return options_.control.empty();
    }

    void settled() {
        datapath_.settled();
        controllers_->start();
        turn_.start(timeout_turn);
        service_notify("READY=1");
    }

    // The connector names controllers and the datapath id; what the daemon was told itself goes before.
    void configured(const hal_event_agent &told) {
        if (told.trailer != 0) {
            datapath_.suggest_id(told.trailer);
        }
        if (follows_connector_) {
            follow(told);
        }
    }

    // The list is the whole of it: who is not on it any more is left.
    void follow(const hal_event_agent &told) {
        const auto is_among = [](const endpoint &one, const std::vector<endpoint> &all) {
            return std::find(all.begin(), all.end(), one) != all.end();
        };
        std::vector<endpoint> named;
        for (const hal_event_agent_entry &entry : told.entries) {
            const std::optional<endpoint> where = endpoint_of(entry);
            if (where && !is_among(*where, named)) {
                named.push_back(*where);
            }
        }
        std::swap(named, named_);
        for (const endpoint &before : named) {
            if (!is_among(before, named_)) {
                controllers_->disconnect(before, "the connector does not name it any more");
            }
        }
        for (const endpoint &now : named_) {
            if (!is_among(now, named)) {
                controllers_->connect(now);
            }
        }
    }

    static std::optional<endpoint> endpoint_of(const hal_event_agent_entry &entry) {
        if (entry.value != 4 && entry.value != 6) {
            return {};
        }
        char text[INET6_ADDRSTRLEN];
        inet_ntop(entry.value == 4 ? AF_INET : AF_INET6, entry.data + (entry.value == 4 ? 12 : 0), text, sizeof text);
        endpoint where;
        where.address = text;
        where.port = entry.number != 0 ? entry.number : default_openflow_port;
        return where;
    }

    void turn() {
        datapath_.turn(clock_now());
        compare_after_failures();
        turn_.start(timeout_turn);
    }

    // Whenever the library has failed: does hardware still have what the agent thinks, and the library's database too?
    void compare_after_failures() {
        const rule_counts &tally = datapath_.programmed.tally();
        const uint64_t failures = tally.refused + tally.mismatches;
        if (failures == failures_compared_ || clock_now() < next_comparison_) {
            return;
        }
        failures_compared_ = failures;
        next_comparison_ = clock_now() + comparison_interval;
        const audit_view seen = [this] {
            const log_silence silence; // the library would name every rule that it does not find
            return introspect_audit(datapath_, platform_);
        }();
        for (size_t i = 0; i < std::min(seen.findings.size(), max_findings_told); i++) {
            const audit_finding &one = seen.findings[i];
            const std::string which = one.rule_id != 0 ? "rule " + std::to_string(one.rule_id) + " " : "";
            log(log_level::error, "%s%s", which.c_str(), one.text.c_str());
        }
        log(seen.findings.empty() ? log_level::notice : log_level::error,
            "after a failure of the library agent and hardware were compared: %zu flows, %zu rules, %zu disagreements",
            seen.flow_count, seen.rule_count, seen.findings.size());
    }

    void signal() {
        signalfd_siginfo what;
        if (read(signals_.get(), &what, sizeof what) != static_cast<ssize_t>(sizeof what)) {
            return;
        }
        log(log_level::notice, "%s: stopping", strsignal(static_cast<int>(what.ssi_signo)));
        service_notify("STOPPING=1");
        turn_.stop();
        control_.reset();
        controllers_->stop();
        datapath_.shut_down();
        link_.stop();
    }

    options options_;
    std::optional<private_directory> directory_;
    unique_fd signals_; // before anything that could start a thread
    std::string control_path_;
    event_loop loop_;
    remembered_id id_file_;
    std::optional<uint64_t> remembered_;
    switch_link link_;
    datapath datapath_;
    std::unique_ptr<tls_context> tls_;
    std::optional<controllers> controllers_;
    platform_view platform_;
    std::optional<control_commands> control_;
    timer turn_;
    std::vector<endpoint> named_; // by the connector
    bool follows_connector_ = false;
    uint64_t failures_compared_ = 0;
    nanoseconds next_comparison_ = 0;
    int status_ = EXIT_FAILURE;
};

int main_of(int argument_count, char **arguments) {
    auto parsed = options_parse(argument_count, arguments);
    if (const auto *wrong = std::get_if<std::string>(&parsed)) {
        std::fprintf(stderr, "%s: %s\n%s: --help explains\n", arguments[0], wrong->c_str(), arguments[0]);
        return 2;
    }
    auto &given = std::get<options>(parsed);
    if (given.shows_help || given.shows_version) {
        std::fputs(given.shows_help ? options_help("krsdn-ofagentd").c_str() : "krsdn-ofagentd " KR_AGENT_VERSION "\n",
                   stdout);
        return 0;
    }
    given.connector = given.connector.empty() ? module_place("connector.so") : given.connector;
    given.port_plugin = given.port_plugin.empty() ? module_place("fpt_linux.so") : given.port_plugin;
    log_level_set(given.verbosity);
    // Small: the threads of the library allocate little, and what a large reply has taken goes back.
    mallopt(M_ARENA_MAX, 2);
    mallopt(M_MMAP_THRESHOLD, 64 * 1024);
    mallopt(M_TRIM_THRESHOLD, 64 * 1024);
    daemon_process self(std::move(given));
    return self.run();
}

} // namespace
} // namespace agent

int main(int argument_count, char **arguments) {
    try {
        return agent::main_of(argument_count, arguments);
    } catch (const std::exception &why) {
        std::fprintf(stderr, "krsdn-ofagentd: %s\n", why.what());
        return EXIT_FAILURE;
    }
}
