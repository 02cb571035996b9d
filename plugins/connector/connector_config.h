/*
 * The connector's configuration file: which interfaces and capture files are ports of the switch, what is logged
 * where, which control protocols go to the CPU, which controllers the agent is told about.
 *
 * Reading is all or nothing: a file with a mistake gives a list of mistakes, each with file and line, and no
 * configuration. Nothing here looks at interfaces; a configured interface need not exist yet.
 */
#ifndef KR_CONNECTOR_CONFIG_H
#define KR_CONNECTOR_CONFIG_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kr_connector.h"

namespace kr_connector {

constexpr size_t max_configured_ports = 100; // what the library's port database holds
constexpr size_t max_config_file_size = 1 << 20;

enum class log_target { standard_error, syslog, none };

struct log_settings {
    log_target target = log_target::standard_error;
    uint32_t severity = KR_LOG_NOTICE; // least severe one that is written
    bool operator==(const log_settings &) const = default;
};

// A control protocol that the switch can hand to the CPU.
struct control_protocol {
    const char *name;
    uint32_t trap_id;
};
constexpr size_t control_protocol_count = 4;
extern const std::array<control_protocol, control_protocol_count> control_protocols;

// The files behind a port that no interface stands behind; an empty path: none.
struct capture_files {
    std::string input, output;
    bool operator==(const capture_files &) const = default;
};

struct connector_config {
    std::map<std::string, int32_t> ports;          // name of the port -> requested OF port, 0 for none
    std::map<std::string, capture_files> captures; // which of them stand on files; all others on interfaces
    log_settings log;
    std::array<bool, control_protocol_count> forward{}; // by index of control_protocols
    bool has_agent = false;
    conn_agent_config agent{};

    bool operator==(const connector_config &other) const;
};

struct config_mistake {
    unsigned line; // 0: the file as a whole
    std::string text;
};

struct config_result {
    bool ok = false;
    connector_config config;              // valid if ok
    std::vector<config_mistake> mistakes; // in order of lines; not empty unless ok
};

config_result config_read(const std::string &path);
// `folder`: where relative paths in the text start.
config_result config_parse(const std::string &text, const std::string &folder = {});

// "path:line: text", or "path: text" for a mistake of the file as a whole.
std::string config_mistake_text(const std::string &path, const config_mistake &mistake);

// Whether a text can be the name of a Linux interface.
bool interface_name_valid(const std::string &name);

// Parses "none" or a requested OF port; false if it is neither.
bool requested_port_parse(const std::string &text, int32_t *requested);

} // namespace kr_connector

#endif
