/*
 * Reads the configuration file through libinih. The reader hands libinih one whole line at a time, which gives every
 * value its line number and keeps lines that libinih would cut or join out of it.
 */
#include "connector_config.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ini.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iomanip>
#include <optional>
#include <set>
#include <sstream>

#include "kr_soft.h"
#include "port_map.h"
#include "unique_fd.h"

namespace kr_connector {

const std::array<control_protocol, control_protocol_count> control_protocols = {{
    {"lldp", KR_SOFT_TRAP_ID_LLDP},
    {"stp", KR_SOFT_TRAP_ID_STP},
    {"lacp", KR_SOFT_TRAP_ID_LACP},
    {"eapol", KR_SOFT_TRAP_ID_EAPOL},
}};

namespace {

constexpr size_t interface_name_max = sizeof(conn_port_record::interface_name) - 1;
constexpr uint32_t agent_address_none = 0;
constexpr uint32_t agent_address_ipv4 = 4; // the last four bytes of ::ffff:a.b.c.d
constexpr uint32_t agent_address_ipv6 = 6;

struct parser {
    const std::string &text;
    const std::string &folder;
    size_t position = 0;
    unsigned line = 0;
    config_result result;
    std::set<std::string> keys_seen;                // "section\nname"
    std::map<int32_t, std::string> ports_by_number; // requested OF port -> name of the port that has it

    void mistake(std::string what) {
        result.mistakes.push_back({line, std::move(what)});
    }
};

template <typename T> struct choice {
    const char *name;
    T value;
};

// Picks the value of a name out of a table; names all of them in the mistake if there is none.
template <typename T, size_t N> std::optional<T> choose(const choice<T> (&choices)[N], const char *name) {
    for (const auto &c : choices) {
        if (std::strcmp(c.name, name) == 0) {
            return c.value;
        }
    }
    return std::nullopt;
}

template <typename T, size_t N> std::string names_of(const choice<T> (&choices)[N]) {
    std::string names;
    for (size_t i = 0; i < N; ++i) {
        names += (i == 0 ? "" : i + 1 == N ? " or " : ", ");
        names += choices[i].name;
    }
    return names;
}

constexpr choice<log_target> log_targets[] = {
    {"stderr", log_target::standard_error}, {"syslog", log_target::syslog}, {"none", log_target::none}};
constexpr choice<uint32_t> log_severities[] = {{"error", KR_LOG_ERROR},
                                               {"warning", KR_LOG_WARNING},
                                               {"notice", KR_LOG_NOTICE},
                                               {"debug", KR_LOG_DEBUG},
                                               {"trace", KR_LOG_FUNCTION}};
constexpr choice<bool> switches[] = {{"on", true}, {"off", false}};

template <typename T, size_t N>
void set_choice(parser &p, const choice<T> (&choices)[N], const char *name, const char *value, T *out) {
    if (const auto chosen = choose(choices, value)) {
        *out = *chosen;
    } else {
        p.mistake(std::string(name) + " is \"" + value + "\", must be " + names_of(choices));
    }
}

std::string requested_port_range() {
    return std::to_string(kr_plugin::requested_of_port_min) + " to " + std::to_string(kr_plugin::requested_of_port_max);
}

// False, and a mistake, when the port can't be had.
bool port_put(parser &p, const std::string &name, int32_t requested) {
    if (p.result.config.ports.contains(name)) {
        p.mistake(name + " is a port already");
        return false;
    }
    if (p.result.config.ports.size() == max_configured_ports) {
        p.mistake("more than " + std::to_string(max_configured_ports) + " ports");
        return false;
    }
    if (requested != 0) {
        const auto [other, is_new] = p.ports_by_number.emplace(requested, name);
        if (!is_new) {
            p.mistake("requested port " + std::to_string(requested) + " of " + name + " is taken by " + other->second);
            return false;
        }
    }
    p.result.config.ports.emplace(name, requested);
    return true;
}

void port_line(parser &p, const char *name, const char *value) {
    int32_t requested = 0;
    if (!interface_name_valid(name)) {
        p.mistake("\"" + std::string(name) + "\" can't be the name of an interface (1 to 15 characters, no / or :)");
    } else if (!requested_port_parse(value, &requested)) {
        p.mistake("requested port of " + std::string(name) + " is \"" + value + "\", must be none or " +
                  requested_port_range());
    } else {
        (void)port_put(p, name, requested);
    }
}

// "-" is no file; a relative path starts in the folder of the configuration file.
std::string capture_path(const parser &p, const std::string &path) {
    return path == "-" ? "" : path.starts_with('/') || p.folder.empty() ? path : p.folder + "/" + path;
}

void capture_line(parser &p, const char *name, const char *value) {
    std::istringstream words(value);
    std::string number, input, output, rest;
    int32_t requested = 0;
    words >> number >> std::quoted(input) >> std::quoted(output);
    if (!interface_name_valid(name)) {
        p.mistake("\"" + std::string(name) + "\" can't be the name of a port (1 to 15 characters, no / or :)");
    } else if (number.empty() || input.empty() || output.empty() || words >> rest) {
        p.mistake(std::string(name) + " is \"" + value + "\", must be PORT INPUT OUTPUT, a file or - each");
    } else if (!requested_port_parse(number, &requested) || requested == 0) {
        p.mistake("requested port of " + std::string(name) + " is \"" + number + "\", must be " +
                  requested_port_range());
    } else if (port_put(p, name, requested)) {
        p.result.config.captures.emplace(name, capture_files{capture_path(p, input), capture_path(p, output)});
    }
}

void log_line(parser &p, const char *name, const char *value) {
    if (std::strcmp(name, "target") == 0) {
        set_choice(p, log_targets, name, value, &p.result.config.log.target);
    } else if (std::strcmp(name, "severity") == 0) {
        set_choice(p, log_severities, name, value, &p.result.config.log.severity);
    } else {
        p.mistake("[log] has no \"" + std::string(name) + "\": target or severity");
    }
}

void control_line(parser &p, const char *name, const char *value) {
    for (size_t i = 0; i < control_protocols.size(); ++i) {
        if (std::strcmp(control_protocols[i].name, name) == 0) {
            set_choice(p, switches, name, value, &p.result.config.forward[i]);
            return;
        }
    }
    p.mistake("[control] has no \"" + std::string(name) + "\": lldp, stp, lacp or eapol");
}

template <typename T> bool number_parse(const char *text, int base, T *value) {
    const char *end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, *value, base);
    return error == std::errc() && stop == end && text != end;
}

// "192.0.2.1:6653" or "[2001:db8::1]:6653".
bool controller_parse(const std::string &text, conn_agent_entry *entry) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    uint16_t port = 0;
    if (!number_parse(text.c_str() + colon + 1, 10, &port) || port == 0) {
        return false;
    }
    std::string host = text.substr(0, colon);
    in_addr ipv4{};
    *entry = {};
    entry->number = port;
    if (inet_pton(AF_INET, host.c_str(), &ipv4) == 1) {
        entry->value = agent_address_ipv4;
        entry->data[10] = entry->data[11] = 0xff;
        std::memcpy(entry->data + 12, &ipv4, sizeof(ipv4));
        return true;
    }
    if (host.size() < 2 || host.front() != '[' || host.back() != ']') {
        return false;
    }
    host = host.substr(1, host.size() - 2);
    entry->value = agent_address_ipv6;
    return inet_pton(AF_INET6, host.c_str(), entry->data) == 1;
}

void agent_line(parser &p, const char *name, const char *value) {
    conn_agent_config &agent = p.result.config.agent;
    const bool is_first = std::strcmp(name, "controller1") == 0;
    if (is_first || std::strcmp(name, "controller2") == 0) {
        static_assert(agent_address_none == 0, "an entry that is not configured is all zero");
        if (!controller_parse(value, &agent.entries[is_first ? 0 : 1])) {
            p.mistake(std::string(name) + " is \"" + value + "\", must be ADDRESS:PORT or [IPV6-ADDRESS]:PORT");
        }
    } else if (std::strcmp(name, "datapath_id") == 0) {
        const bool has_prefix = std::strncmp(value, "0x", 2) == 0;
        if (!number_parse(value + (has_prefix ? 2 : 0), 16, &agent.trailer)) {
            p.mistake("datapath_id is \"" + std::string(value) + "\", must be up to 16 hexadecimal digits");
        }
    } else {
        p.mistake("[agent] has no \"" + std::string(name) + "\": controller1, controller2 or datapath_id");
        return;
    }
    p.result.config.has_agent = true;
}

struct section {
    const char *name;
    void (*line)(parser &p, const char *name, const char *value);
};
constexpr section sections[] = {{"ports", port_line},
                                {"captures", capture_line},
                                {"log", log_line},
                                {"control", control_line},
                                {"agent", agent_line}};

// libinih's handler: one "name = value". Always answers 1; mistakes are kept in the parser.
int on_line(void *user, const char *section_name, const char *name, const char *value) {
    parser &p = *static_cast<parser *>(user);
    const auto *found = std::find_if(std::begin(sections), std::end(sections),
                                     [=](const section &s) { return std::strcmp(s.name, section_name) == 0; });
    if (found == std::end(sections)) {
        p.mistake(*section_name == '\0'
                      ? std::string("\"") + name + "\" stands before any section"
                      : std::string("unknown section [") + section_name + "]: ports, captures, log, control or agent");
    } else if (!p.keys_seen.insert(std::string(section_name) + '\n' + name).second) {
        p.mistake(std::string("[") + section_name + "] " + name + " is given twice");
    } else {
        found->line(p, name, value);
    }
    return 1;
}

// libinih's reader, as fgets: the next line, without its indentation (libinih would take an indented line for the
// continuation of the one before). A line that does not fit becomes an empty one, and a mistake.
char *next_line(char *buffer, int room, void *stream) {
    parser &p = *static_cast<parser *>(stream);
    if (p.position == p.text.size()) {
        return nullptr;
    }
    ++p.line;
    const size_t end = std::min(p.text.find('\n', p.position), p.text.size());
    std::string line = p.text.substr(p.position, end - p.position);
    p.position = std::min(end + 1, p.text.size());
    line.erase(0, line.find_first_not_of(" \t\r\v\f"));
    if (line.starts_with('#') || line.starts_with(';')) {
        line.clear();
    } else if (line.find('\0') != std::string::npos) {
        p.mistake("a NUL byte");
        line.clear();
    } else if (line.size() + 2 > static_cast<size_t>(room)) {
        p.mistake("the line is longer than " + std::to_string(room - 2) + " characters");
        line.clear();
    }
    line += '\n';
    std::memcpy(buffer, line.c_str(), line.size() + 1);
    return buffer;
}

config_result failure_of(std::string text) {
    config_result result;
    result.mistakes.push_back({0, std::move(text)});
    return result;
}

} // namespace

bool connector_config::operator==(const connector_config &other) const {
    return ports == other.ports && captures == other.captures && log == other.log && forward == other.forward &&
           has_agent == other.has_agent &&
           std::memcmp(&agent, &other.agent, sizeof(agent)) == 0; // no byte of it is padding
}

config_result config_parse(const std::string &text, const std::string &folder) {
    parser p{.text = text, .folder = folder, .result = {}, .keys_seen = {}, .ports_by_number = {}};
    const int first_bad_line = ini_parse_stream(next_line, &p, on_line, &p);
    if (first_bad_line > 0) {
        p.line = static_cast<unsigned>(first_bad_line);
        p.mistake("neither a [section] nor \"name = value\" nor a comment");
    } else if (first_bad_line < 0) {
        return failure_of("out of memory");
    }
    std::stable_sort(p.result.mistakes.begin(), p.result.mistakes.end(),
                     [](const config_mistake &a, const config_mistake &b) { return a.line < b.line; });
    p.result.ok = p.result.mistakes.empty();
    return std::move(p.result);
}

config_result config_read(const std::string &path) {
    // Not blocking, so that a pipe in the file's place can't hold the caller up.
    const kr_plugin::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        return failure_of(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return failure_of("not a regular file");
    }
    std::string text;
    char chunk[4096];
    ssize_t size = 0;
    while ((size = read(file.get(), chunk, sizeof(chunk))) != 0) {
        if (size < 0) {
            return failure_of(std::strerror(errno));
        }
        text.append(chunk, static_cast<size_t>(size));
        if (text.size() > max_config_file_size) {
            return failure_of("longer than " + std::to_string(max_config_file_size) + " bytes");
        }
    }
    const size_t slash = path.rfind('/');
    return config_parse(text, slash == std::string::npos ? "" : path.substr(0, slash));
}

std::string config_mistake_text(const std::string &path, const config_mistake &mistake) {
    return path + (mistake.line == 0 ? "" : ":" + std::to_string(mistake.line)) + ": " + mistake.text;
}

bool interface_name_valid(const std::string &name) {
    return !name.empty() && name.size() <= interface_name_max && name != "." && name != ".." &&
           std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c != '/' && c != ':' && c != 0x7f; });
}

bool requested_port_parse(const std::string &text, int32_t *requested) {
    if (text == "none" || text == "0") {
        *requested = 0;
        return true;
    }
    return number_parse(text.c_str(), 10, requested) && *requested >= kr_plugin::requested_of_port_min &&
           *requested <= kr_plugin::requested_of_port_max;
}

} // namespace kr_connector
