/*
 * The table of settings, and the two readers that use it: the command line's and the file's (inih).
 */
#include "options.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>

#include <getopt.h>
#include <ini.h>

namespace agent {
namespace {

constexpr size_t max_path = 127;          // what the library's profile holds
constexpr double min_probe_seconds = 0.1; // less would keep both sides busy with nothing else
constexpr double max_probe_seconds = 3600;
constexpr uint32_t max_busy_poll_us = 10'000;

// Each takes a value over, or says what is expected instead.
using setter = std::string (*)(options &into, const std::string &value);

std::string set_path(std::string &into, const std::string &value) {
    if (value.empty() || value.size() > max_path) {
        return "a path of 1 to " + std::to_string(max_path) + " characters is expected";
    }
    into = value;
    return {};
}

std::string add_endpoint(options &into, const std::string &value) {
    auto parsed = endpoint_parse(value);
    if (const auto *wrong = std::get_if<std::string>(&parsed)) {
        return *wrong;
    }
    into.endpoints.push_back(std::get<endpoint>(std::move(parsed)));
    return {};
}

std::string set_controller(options &into, const std::string &value) {
    const std::string wrong = add_endpoint(into, value);
    return wrong.empty() && into.endpoints.back().is_listening ? "tcp:, ssl: or unix: is expected" : wrong;
}

std::string set_listen(options &into, const std::string &value) {
    const std::string wrong = add_endpoint(into, value);
    return wrong.empty() && !into.endpoints.back().is_listening ? "ptcp:, pssl: or punix: is expected" : wrong;
}

std::string set_datapath_id(options &into, const std::string &value) {
    const std::string_view digits = std::string_view(value).substr(value.starts_with("0x") ? 2 : 0);
    uint64_t id = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), id, 16);
    if (error != std::errc() || end != digits.data() + digits.size()) {
        return "1 to 16 hexadecimal digits are expected";
    }
    into.datapath_id = id;
    return {};
}

std::string set_probe(options &into, const std::string &value) {
    double seconds = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), seconds);
    const bool is_in_range = seconds == 0 || (seconds >= min_probe_seconds && seconds <= max_probe_seconds);
    if (error != std::errc() || end != value.data() + value.size() || !is_in_range) {
        return "seconds are expected: 0.1 to 3600, or 0 for never";
    }
    into.probe = static_cast<nanoseconds>(seconds * static_cast<double>(second_ns));
    return {};
}

std::string set_busy_poll(options &into, const std::string &value) {
    uint32_t microseconds = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), microseconds);
    if (error != std::errc() || end != value.data() + value.size() || microseconds > max_busy_poll_us) {
        return "microseconds, 0 to 10000, are expected";
    }
    into.busy_poll = static_cast<nanoseconds>(microseconds) * 1000;
    return {};
}

std::string set_log(options &into, const std::string &value) {
    constexpr const char *names[] = {"error", "warning", "notice", "debug"};
    const auto *const found = std::find(std::begin(names), std::end(names), value);
    if (found == std::end(names)) {
        return "error, warning, notice or debug is expected";
    }
    into.verbosity = static_cast<log_level>(found - std::begin(names));
    return {};
}

std::string set_control(options &into, const std::string &value) {
    if (value.empty() || value.size() >= sizeof(sockaddr_un::sun_path)) {
        return "a path of 1 to " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " characters is expected";
    }
    into.control = value;
    return {};
}

struct setting {
    const char *name;
    const char *value; // what it is, for people
    setter set;
    const char *help;
};
constexpr setting settings[] = {
    {"controller", "ENDPOINT", set_controller,
     "connect to a controller, and again whenever it is lost (may be repeated)"},
    {"listen", "ENDPOINT", set_listen, "wait for controllers (may be repeated)"},
    {"connector", "FILE", [](options &into, const std::string &value) { return set_path(into.connector, value); },
     "the connector that brings the switch up"},
    {"port-plugin", "FILE", [](options &into, const std::string &value) { return set_path(into.port_plugin, value); },
     "the plug-in for port operations"},
    {"connector-config", "FILE",
     [](options &into, const std::string &value) { return set_path(into.connector_config, value); },
     "configuration of the reference connector: which interfaces are ports"},
    {"connector-control", "SOCKET",
     [](options &into, const std::string &value) { return set_path(into.connector_control, value); },
     "control socket of the reference connector (default: a private one)"},
    {"control", "SOCKET", set_control,
     "socket for krsdnctl (default: control in $RUNTIME_DIRECTORY or /run/krsdn); none: no socket"},
    {"inspector", "FILE", [](options &into, const std::string &value) { return set_path(into.inspector, value); },
     "module that looks into the platform for krsdnctl (none: no module)"},
    {"datapath-id", "HEX", set_datapath_id,
     "datapath id (default: the lowest address of the ports, remembered in $STATE_DIRECTORY)"},
    {"description", "TEXT",
     [](options &into, const std::string &value) {
         into.description = value;
         return std::string();
     },
     "what controllers are shown as the datapath's description"},
    {"private-key", "FILE",
     [](options &into, const std::string &value) { return set_path(into.tls.private_key, value); },
     "PEM file for ssl: and pssl:"},
    {"certificate", "FILE",
     [](options &into, const std::string &value) { return set_path(into.tls.certificate, value); },
     "PEM file for ssl: and pssl:"},
    {"ca-cert", "FILE",
     [](options &into, const std::string &value) { return set_path(into.tls.ca_certificate, value); },
     "PEM file for ssl: and pssl:: whose certificates are accepted"},
    {"probe-interval", "SECONDS", set_probe,
     "silence after which a controller is asked whether it lives (default 5; 0: never)"},
    {"busy-poll", "MICROSECONDS", set_busy_poll,
     "go on looking for so long before sleeping, when something has come (default 50; 0: sleep at once)"},
    {"log", "LEVEL", set_log, "error, warning, notice (default) or debug"},
};

const setting *setting_find(const char *name) {
    const auto *const found = std::find_if(std::begin(settings), std::end(settings),
                                           [name](const setting &one) { return std::strcmp(one.name, name) == 0; });
    return found == std::end(settings) ? nullptr : found;
}

/* ---- the file -------------------------------------------------------------------------------------------------- */

struct file_reader {
    FILE *file;
    options result;
    int line = 0;
    int wrong_line = 0;
    std::string wrong;
};

bool is_at_end(FILE *file) {
    const int next = std::getc(file);
    return next == EOF || std::ungetc(next, file) == EOF;
}

// A line that is too long would be cut, and its rest taken for a line of its own: nothing is read behind it.
char *read_line(char *line, int room, void *reader) {
    auto &self = *static_cast<file_reader *>(reader);
    if (self.wrong_line != 0 || std::fgets(line, room, self.file) == nullptr) {
        return nullptr;
    }
    self.line++;
    const size_t size = std::strlen(line);
    if (size + 1 == static_cast<size_t>(room) && line[size - 1] != '\n' && !is_at_end(self.file)) {
        self.wrong = "a line of at most " + std::to_string(size) + " characters is expected";
        self.wrong_line = self.line;
        return nullptr;
    }
    return line;
}

int take_line(void *reader, const char *section, const char *name, const char *value) {
    auto &self = *static_cast<file_reader *>(reader);
    if (!self.wrong.empty()) {
        return 0;
    }
    const setting *const one = setting_find(name);
    self.wrong = *section != '\0' ? "there are no sections"
                 : one == nullptr ? "unknown setting \"" + std::string(name) + "\""
                                  : one->set(self.result, value == nullptr ? "" : value);
    if (!self.wrong.empty()) {
        self.wrong_line = self.line;
        if (one != nullptr && *section == '\0') {
            self.wrong = std::string(name) + ": " + self.wrong;
        }
        return 0;
    }
    return 1;
}

/* ---- what does not go together --------------------------------------------------------------------------------- */

std::string check(const options &one) {
    const bool needs_tls = std::any_of(one.endpoints.begin(), one.endpoints.end(),
                                       [](const endpoint &where) { return where.kind == endpoint::transport::ssl; });
    if (needs_tls && (one.tls.private_key.empty() || one.tls.certificate.empty() || one.tls.ca_certificate.empty())) {
        return "ssl: and pssl: need --private-key, --certificate and --ca-cert";
    }
    return {};
}

} // namespace

std::variant<options, std::string> options_read_file(const std::string &path, options base) {
    const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path.c_str(), "re"), std::fclose);
    if (file == nullptr) {
        return path + ": " + std::strerror(errno);
    }
    file_reader reader{file.get(), std::move(base), 0, 0, {}};
    const int bad_line = ini_parse_stream(read_line, &reader, take_line, &reader);
    if (std::ferror(file.get()) != 0) {
        return path + ": " + std::strerror(errno);
    }
    const int wrong_line = bad_line != 0 ? bad_line : reader.wrong_line;
    if (wrong_line == 0) {
        return std::move(reader.result);
    }
    const bool is_ours = wrong_line == reader.wrong_line;
    return path + ":" + std::to_string(wrong_line) + ": " +
           (is_ours ? reader.wrong : std::string("a line \"name = value\" is expected"));
}

std::variant<options, std::string> options_parse(int argument_count, char *const *arguments) {
    enum : int { option_help = 'h', option_version = 'V', option_file = 'f', option_setting = 256 };
    std::vector<option> known = {{"help", no_argument, nullptr, option_help},
                                 {"version", no_argument, nullptr, option_version},
                                 {"config", required_argument, nullptr, option_file}};
    for (int i = 0; i < static_cast<int>(std::size(settings)); i++) {
        known.push_back({settings[i].name, required_argument, nullptr, option_setting + i});
    }
    known.push_back({});

    options given;
    options from_file;
    struct deferred {
        const setting *which;
        std::string value;
    };
    std::vector<deferred> values; // they go on top of the file, wherever it is named
    optind = 0;
    opterr = 0;
    for (int found = 0; (found = getopt_long(argument_count, arguments, ":hVf:", known.data(), nullptr)) != -1;) {
        if (found == option_help) {
            given.shows_help = true;
        } else if (found == option_version) {
            given.shows_version = true;
        } else if (found == option_file) {
            auto read = options_read_file(optarg, std::move(from_file));
            if (auto *wrong = std::get_if<std::string>(&read)) {
                return std::move(*wrong);
            }
            from_file = std::get<options>(std::move(read));
        } else if (found >= option_setting) {
            values.push_back({&settings[found - option_setting], optarg});
        } else {
            const std::string text = arguments[optind - 1];
            return found == ':' ? text + " takes a value" : "unknown option " + text;
        }
    }
    const bool shows_help = given.shows_help;
    const bool shows_version = given.shows_version;
    given = std::move(from_file);
    given.shows_help = shows_help;
    given.shows_version = shows_version;

    std::vector<endpoint> of_file;
    std::swap(of_file, given.endpoints);
    for (const deferred &one : values) {
        const std::string wrong = one.which->set(given, one.value);
        if (!wrong.empty()) {
            return std::string("--") + one.which->name + " " + one.value + ": " + wrong;
        }
    }
    for (int i = optind; i < argument_count; i++) {
        const std::string wrong = add_endpoint(given, arguments[i]);
        if (!wrong.empty()) {
            return std::string(arguments[i]) + ": " + wrong;
        }
    }
    if (given.endpoints.empty()) {
        given.endpoints = std::move(of_file);
    }
    std::string wrong = check(given);
    if (!wrong.empty()) {
        return wrong;
    }
    return given;
}

std::string options_help(const char *program) {
    std::string text = std::string("usage: ") + program +
                       " [OPTION]... [ENDPOINT]...\n"
                       "\n"
                       "The OpenFlow 1.0 agent of the switch: lets controllers program its flow table.\n"
                       "\n"
                       "An ENDPOINT is a controller to connect to:\n"
                       "  tcp:ADDRESS[:PORT]      plain TCP; the port is 6653 unless given\n"
                       "  ssl:ADDRESS[:PORT]      TLS; both sides have to show a certificate\n"
                       "  unix:PATH               a Unix socket\n"
                       "or where controllers may connect:\n"
                       "  ptcp:[PORT][:ADDRESS]   TCP; on 127.0.0.1 unless an address is given, 0.0.0.0 for any\n"
                       "  pssl:[PORT][:ADDRESS]   TLS\n"
                       "  punix:PATH              a Unix socket, for the daemon's own user only\n"
                       "Without any, the daemon listens on ptcp:6653 and connects to what the connector names.\n"
                       "\n"
                       "Options:\n"
                       "  -f, --config FILE          read settings from FILE: lines \"name = value\", the names\n"
                       "                             being those below; the command line goes before the file\n";
    for (const setting &one : settings) {
        char line[256];
        std::snprintf(line, sizeof line, "      --%-22s %s\n", (std::string(one.name) + " " + one.value).c_str(),
                      one.help);
        text += line;
    }
    return text + "  -h, --help                 this text\n"
                  "  -V, --version              the version\n"
                  "\n"
                  "Examples:\n"
                  "  krsdn-ofagentd --connector-config ports.conf           # listens on 127.0.0.1:6653\n"
                  "  ovs-ofctl -O OpenFlow10 show tcp:127.0.0.1:6653\n"
                  "  krsdn-ofagentd --connector-config ports.conf tcp:192.0.2.1 tcp:192.0.2.2\n";
}

} // namespace agent
