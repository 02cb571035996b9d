/*
 * What the daemon is told to do: on the command line, in a file, or by default. The same names serve both places:
 * "--probe-interval 5" on the command line, "probe-interval = 5" in the file. Parsing only; nothing is opened but the
 * file.
 */
#ifndef KR_AGENT_OPTIONS_H
#define KR_AGENT_OPTIONS_H

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "clock.h"
#include "endpoint.h"
#include "log.h"
#include "stream.h"

namespace agent {

struct options {
    std::vector<endpoint> endpoints; // in the order in which they were given
    std::string connector;           // empty: the one that came with the daemon
    std::string port_plugin;         // the same
    std::string connector_config;    // empty: the connector's own default
    std::string connector_control;   // empty: a socket of the daemon's own
    std::string control;             // socket for krsdnctl; empty: the usual place; "none": there is none
    std::string inspector;           // empty: the usual one, if it is there; "none": there is none
    std::optional<uint64_t> datapath_id;
    std::string description = "krsdn-ofagentd";
    tls_files tls;
    nanoseconds probe = 5 * second_ns;
    nanoseconds busy_poll = 50 * 1000;
    log_level verbosity = log_level::notice;

    bool shows_help = false;
    bool shows_version = false;
};

/* The options, or what is wrong: for the file with its name and line. */
std::variant<options, std::string> options_parse(int argument_count, char *const *arguments);

/* Reads a file on top of `base`. */
std::variant<options, std::string> options_read_file(const std::string &path, options base);

std::string options_help(const char *program);

} // namespace agent

#endif
