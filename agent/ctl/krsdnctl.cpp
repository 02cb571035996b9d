/*
 * krsdnctl: what a person asks the OpenFlow agent. One table of commands; each asks the daemon over its control socket
 * and tells the answer, as aligned text or, with --json, as JSON.
 */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <getopt.h>

#include "capture.h"
#include "daemon_link.h"
#include "text_table.h"

namespace ctl {
namespace {

struct options {
    std::string socket;
    bool is_json = false;
    bool from_daemon = false;
    bool shows_all = false;
    uint64_t count = 0;
    std::vector<std::string> words; // behind the command
};

void print(const std::string &text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw failure(exit_bad, std::string("standard output: ") + std::strerror(errno));
    }
}

void print_json(const json &value) {
    print(value.dump(2) + "\n");
}

// A field as text; "-" where the daemon does not know.
std::string text_of(const json &record, const char *name) {
    const auto found = record.find(name);
    if (found == record.end() || found->is_null()) {
        return "-";
    }
    return found->is_string() ? found->get<std::string>() : found->dump();
}

std::string or_dash(const std::string &text) {
    return text.empty() ? "-" : text;
}

std::string seconds_text(const json &record, const char *name) {
    char text[32];
    const double seconds = record.value(name, 0.0);
    std::snprintf(text, sizeof text, seconds < 10 ? "%.1fs" : "%.0fs", seconds);
    return text;
}

/* ---- lists ----------------------------------------------------------------------------------------------------- */

int show(daemon_link &daemon, const options &given) {
    const json told = daemon.ask({{"command", "show"}}).at(0);
    if (given.is_json) {
        print_json(told);
        return exit_good;
    }
    const json &table = told["table"];
    std::string text;
    const auto add = [&](const char *name, const std::string &value) {
        text += std::string(name) + std::string(16 - std::strlen(name), ' ') + value + "\n";
    };
    add("daemon", "krsdn-ofagentd " + text_of(told, "version") + ", process " + text_of(told, "pid") + ", up " +
                      seconds_text(told, "uptime_s"));
    add("datapath", text_of(told, "datapath_id") + " (" + text_of(told, "description") + ")");
    add("table", "\"" + text_of(table, "name") + "\": " + text_of(table, "flows") + " flows, " +
                     text_of(table, "rules") + " of " + text_of(table, "size") + " rules");
    add("counters", text_of(table, "counters_used") + " of " + text_of(table, "counters"));
    add("groups", text_of(table, "groups"));
    add("ports", text_of(told, "ports"));
    add("platform", told["platform"].is_null() ? "cannot be looked into" : text_of(told, "platform"));
    add("control socket", text_of(told, "control_socket") + ", " + text_of(told, "clients") + " clients");
    text_table controllers({"CONTROLLER", "STATE", ">MESSAGES", ">BYTES IN", ">BYTES OUT", ">PACKET-INS DROPPED"});
    for (const json &one : told["controllers"]) {
        controllers.add({text_of(one, "endpoint"), text_of(one, "state"), text_of(one, "messages_received"),
                         text_of(one, "bytes_received"), text_of(one, "bytes_sent"),
                         text_of(one, "packet_ins_dropped")});
    }
    print(text + (told["controllers"].empty() ? "no controller is connected\n" : "\n" + controllers.text()));
    return exit_good;
}

struct column {
    const char *title; // '>': numbers
    std::string (*text)(const json &record);
};

template <size_t N>
int print_list(daemon_link &daemon, const options &given, const json &request, const column (&columns)[N]) {
    const std::vector<json> records = daemon.ask(request);
    if (given.is_json) {
        print_json(json(records));
        return exit_good;
    }
    std::vector<std::string> titles;
    for (const column &one : columns) {
        titles.emplace_back(one.title);
    }
    text_table table(std::move(titles));
    for (const json &record : records) {
        std::vector<std::string> row;
        for (const column &one : columns) {
            row.push_back(one.text(record));
        }
        table.add(std::move(row));
    }
    print(table.text());
    return exit_good;
}

#define FIELD(name) [](const json &record) { return text_of(record, name); }

int ports(daemon_link &daemon, const options &given) {
    static constexpr column columns[] = {{">PORT", FIELD("port")},
                                         {"NAME", FIELD("name")},
                                         {"LINK", FIELD("link")},
                                         {">MBIT/S", FIELD("speed_mbit")},
                                         {"ADDRESS", FIELD("address")},
                                         {">RX PACKETS", FIELD("rx_packets")},
                                         {">RX BYTES", FIELD("rx_bytes")},
                                         {">DROPPED", FIELD("rx_dropped")},
                                         {">TX PACKETS", FIELD("tx_packets")},
                                         {">TX BYTES", FIELD("tx_bytes")},
                                         {">DROPPED", FIELD("tx_dropped")},
                                         {"CONFIG", [](const json &one) { return or_dash(text_of(one, "config")); }}};
    return print_list(daemon, given, {{"command", "ports"}}, columns);
}

std::string activity_text(const json &flow) {
    return flow.value("hit", false) ? seconds_text(flow, "idle_s") + " ago" : "never";
}

// Of a rule without a counter the platform's own count, where it tells one.
std::string packets_text(const json &flow) {
    if (!flow["packets"].is_null()) {
        return text_of(flow, "packets");
    }
    return flow["hit_packets"].is_null() ? "-" : "(" + text_of(flow, "hit_packets") + ")";
}

int flows(daemon_link &daemon, const options &given) {
    static constexpr column columns[] = {
        {">OFFSET", FIELD("offset")},
        {">PRIORITY", FIELD("priority")},
        {"RULE", FIELD("rule_action")},
        {"COUNTER", [](const json &one) { return std::string(one.value("counter", false) ? "yes" : "no"); }},
        {">PACKETS", packets_text},
        {">BYTES", FIELD("bytes")},
        {"USED", activity_text},
        {">AGE", [](const json &one) { return seconds_text(one, "age_s"); }},
        {"COOKIE", FIELD("cookie")},
        {"MATCH", [](const json &one) { return text_of(one, "match").empty() ? "any" : text_of(one, "match"); }},
        {"ACTIONS", FIELD("actions")}};
    return print_list(daemon, given, {{"command", "flows"}}, columns);
}

int groups(daemon_link &daemon, const options &given) {
    static constexpr column columns[] = {{">GROUP", FIELD("group")},
                                         {">RULES", FIELD("rules")},
                                         {"PORTS", [](const json &one) {
                                              std::string text;
                                              for (const json &port : one["ports"]) {
                                                  text += (text.empty() ? "" : ",") + port.dump();
                                              }
                                              return text;
                                          }}};
    return print_list(daemon, given, {{"command", "groups"}}, columns);
}

int counters(daemon_link &daemon, const options &given) {
    static constexpr column columns[] = {
        {"GROUP", FIELD("group")}, {">COUNT", FIELD("count")}, {"WHAT", FIELD("name")}};
    return print_list(daemon, given, {{"command", "counters"}}, columns);
}

int log_levels(daemon_link &daemon, const options &given) {
    static constexpr column columns[] = {{"MODULE", FIELD("module")}, {"LEVEL", FIELD("level")}};
    json request = {{"command", "log"}};
    if (given.words.size() == 1) {
        throw failure(exit_usage, "log takes a module and a level, or nothing");
    }
    if (!given.words.empty()) {
        request["module"] = given.words[0];
        request["level"] = given.words[1];
    }
    return print_list(daemon, given, request, columns);
}

/* ---- audit and trace ------------------------------------------------------------------------------------------- */

int audit(daemon_link &daemon, const options &given) {
    std::vector<json> records = daemon.ask({{"command", "audit"}});
    json summary = records.back();
    records.pop_back();
    if (given.is_json) {
        summary["disagreements"] = records;
        print_json(summary);
    } else {
        std::string text;
        for (const json &one : records) {
            text +=
                (one["rule"].is_null() ? "" : "rule " + text_of(one, "rule") + " ") + text_of(one, "finding") + "\n";
        }
        const std::string sources =
            summary["platform"].is_null()
                ? "the agent and what the library reads back (flows database and resource manager: not available on "
                  "this platform)"
                : "the agent, the library's flows database, the resource manager of the " +
                      text_of(summary, "platform") + " and what the library reads back";
        print(text + text_of(summary, "flows") + " flows, " + text_of(summary, "rules") + " rules, " +
              text_of(summary, "groups") + " groups compared: " + sources + "\n" +
              (records.empty() ? "they agree" : text_of(summary, "findings") + " disagreements") + "\n");
    }
    return records.empty() ? exit_good : exit_bad;
}

// in_port=NAME: the port's number takes the place of its name.
std::string packet_text(daemon_link &daemon, const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : ",") + word;
    }
    constexpr std::string_view field = "in_port=";
    const size_t at = text.find(field);
    if (at == std::string::npos) {
        return text;
    }
    const size_t start = at + field.size();
    const size_t end = std::min(text.find_first_of(", ", start), text.size());
    const std::string name = text.substr(start, end - start);
    if (name.empty() || name.find_first_not_of("0123456789") == std::string::npos || name.starts_with("0x")) {
        return text;
    }
    return text.replace(start, end - start, text_of(port_find(daemon, name), "port"));
}

int trace(daemon_link &daemon, const options &given) {
    std::vector<json> records = daemon.ask({{"command", "trace"}, {"packet", packet_text(daemon, given.words)}});
    json summary = records.back();
    records.pop_back();
    if (given.is_json) {
        summary["flows"] = records;
        print_json(summary);
        return exit_good;
    }
    // Those below the flow that is taken are of no interest, unless somebody asks.
    text_table table({">OFFSET", ">PRIORITY", "VERDICT", "FLOW", "WHY"});
    size_t left_out = 0;
    bool is_decided = false;
    for (const json &one : records) {
        const std::string verdict = text_of(one, "verdict");
        if (is_decided && !given.shows_all) {
            left_out++;
            continue;
        }
        is_decided = is_decided || verdict == "taken";
        const std::string match = text_of(one, "match").empty() ? "any" : text_of(one, "match");
        const char *const reason = verdict == "hidden"  ? "would match, and does not get to decide"
                                   : verdict == "taken" ? "all that it asks for is so"
                                                        : "";
        table.add({text_of(one, "offset"), text_of(one, "priority"), verdict,
                   match + " actions=" + text_of(one, "actions"), *reason != '\0' ? reason : text_of(one, "reason")});
    }
    std::string text = "packet: " + text_of(summary, "packet") + "\n";
    text += records.empty() ? "" : table.text();
    if (left_out > 0) {
        text += std::to_string(left_out) + " flows below it (--all shows them)\n";
    }
    print(text + text_of(summary, "result") + "\n");
    return exit_good;
}

/* ---- what goes on ---------------------------------------------------------------------------------------------- */

int events(daemon_link &daemon, const options &given) {
    uint64_t seen = 0;
    daemon.ask({{"command", "events"}}, [&](json &&one) {
        if (given.is_json) {
            print(one.dump() + "\n");
        } else if (one["event"] == "lost") {
            print("        ... " + text_of(one, "count") + " events were lost: this end was too slow\n");
        } else {
            const double time = one.value("time", 0.0);
            const auto whole = static_cast<time_t>(time);
            tm parts{};
            char clock[16];
            localtime_r(&whole, &parts);
            std::strftime(clock, sizeof clock, "%H:%M:%S", &parts);
            char line[64];
            std::snprintf(line, sizeof line, "%s.%03d  %-10s  %-12s  ", clock,
                          static_cast<int>((time - static_cast<double>(whole)) * 1000), one.value("event", "").c_str(),
                          one.value("what", "").c_str());
            print(line + text_of(one, "subject") + (one.contains("detail") ? " (" + text_of(one, "detail") + ")" : "") +
                  "\n");
        }
        return ++seen != given.count;
    });
    return exit_good;
}

int capture_port(daemon_link &daemon, const options &given) {
    capture_wish wish;
    wish.port = given.words[0];
    wish.count = given.count;
    wish.from_daemon = given.from_daemon;
    for (size_t i = 1; i < given.words.size(); i++) {
        wish.filter += (i > 1 ? " " : "") + given.words[i];
    }
    capture(daemon, wish);
    return exit_good;
}

/* ---- the command line ------------------------------------------------------------------------------------------ */

struct command {
    const char *name;
    const char *words; // that follow, for people
    size_t least, most;
    int (*run)(daemon_link &daemon, const options &given);
    const char *help;
    const char *more; // shown by "help COMMAND"
};
constexpr size_t any_number = SIZE_MAX;
constexpr command commands[] = {
    {"show", "", 0, 0, show, "the daemon, its table and its controllers", ""},
    {"ports", "", 0, 0, ports, "ports with their links and counters", ""},
    {"flows", "", 0, 0, flows, "flows with their place in hardware, their counts and when they were used",
     "OFFSET   where the flow's rule lies: of two that match, the lower one decides\n"
     "RULE     what the rule does; \"-\" for a flow that has none, because its ingress port is gone\n"
     "COUNTER  whether hardware counts for it; 128 rules have one\n"
     "PACKETS  \"-\" where nobody counts; in brackets what the platform itself has counted\n"
     "USED     when a packet last hit it, as far as somebody has looked: the agent does so all the time\n"},
    {"groups", "", 0, 0, groups, "multicast groups, and how many rules use each", ""},
    {"counters", "", 0, 0, counters, "what was counted: packets, every reason of a drop, every lost event", ""},
    {"audit", "", 0, 0, audit, "compares agent, flows database, resource manager and hardware, rule by rule",
     "Exit status 0 if all agree, 1 if something differs. Where the platform can't be looked into, the agent is\n"
     "compared with what the library reads back alone.\n"},
    {"trace", "PACKET", 1, any_number, trace, "which flow a packet would take, and why not the others",
     "PACKET is written like the match of a flow in ovs-ofctl, or as the bytes of a frame in hexadecimal:\n"
     "  krsdnctl trace in_port=s1,tcp,nw_src=10.0.0.1,nw_dst=10.0.0.2,tp_dst=80\n"
     "  krsdnctl trace in_port=32769 frame=ffffffffffff020000000001080600010800...\n"
     "Fields: in_port (name or number), dl_src, dl_dst, dl_vlan, dl_vlan_pcp, dl_type, nw_src, nw_dst, nw_proto,\n"
     "nw_tos, arp_spa, arp_tpa, arp_op, tp_src, tp_dst, icmp_type, icmp_code, and ip, arp, icmp, tcp, udp.\n"
     "What is not given is zero, and there is no tag.\n"},
    {"log", "[MODULE LEVEL]", 0, 2, log_levels, "shows what is logged, or changes it",
     "LEVEL is error, warning, notice, debug or trace. The module \"agent\" is the daemon's own.\n"
     "  krsdnctl log FPT debug\n"},
    {"capture", "PORT [FILTER]", 1, any_number, capture_port, "frames of a port, in pcap format on standard output",
     "Frames are taken from the port's interface, as tcpdump does it, with the same filters; that needs CAP_NET_RAW\n"
     "in the daemon's network namespace. --agent takes those that pass through the daemon instead, packet-ins and\n"
     "packet-outs: without privileges, and on any platform.\n"
     "  krsdnctl capture s1 tcp port 80 | tcpdump -nr -\n"},
    {"events", "", 0, 0, events, "what happens: ports, flows, controllers; until interrupted", ""},
};

const command *command_find(const std::string &name) {
    const auto *const found =
        std::find_if(std::begin(commands), std::end(commands), [&](const command &one) { return name == one.name; });
    return found == std::end(commands) ? nullptr : found;
}

std::string help_text() {
    std::string text = "usage: krsdnctl [OPTION]... COMMAND [WORD]...\n"
                       "\n"
                       "Asks krsdn-ofagentd, the OpenFlow agent of the switch, what it has and what it does.\n"
                       "\n"
                       "Commands:\n";
    for (const command &one : commands) {
        char line[160];
        std::snprintf(line, sizeof line, "  %-22s %s\n", (std::string(one.name) + " " + one.words).c_str(), one.help);
        text += line;
    }
    return text + "  help [COMMAND]         this text, or more about a command\n"
                  "\n"
                  "Options:\n"
                  "  -s, --socket SOCKET    the daemon's control socket (default: $KRSDN_CONTROL, or the usual place,\n"
                  "                         /run/krsdn/control)\n"
                  "  -j, --json             for programs: JSON instead of text\n"
                  "  -c, --count N          events, capture: end after N\n"
                  "      --agent            capture: what passes through the daemon\n"
                  "      --all              trace: also the flows behind the one that is taken\n"
                  "  -h, --help             this text\n"
                  "  -V, --version          the version\n"
                  "\n"
                  "Exit status: 0 done, 1 refused or (audit) something differs, 2 wrong usage, 3 no daemon answers.\n"
                  "\n"
                  "Examples:\n"
                  "  krsdnctl flows\n"
                  "  krsdnctl trace in_port=s1,icmp,nw_dst=10.0.0.2\n"
                  "  krsdnctl --json ports | jq '.[] | select(.link == \"down\") | .name'\n"
                  "  krsdnctl capture s1 | tcpdump -nr -\n";
}

int help(const std::vector<std::string> &words) {
    if (words.empty()) {
        print(help_text());
        return exit_good;
    }
    const command *const one = command_find(words[0]);
    if (one == nullptr) {
        throw failure(exit_usage, "there is no command \"" + words[0] + "\"");
    }
    print("usage: krsdnctl [OPTION]... " + std::string(one->name) + (*one->words != '\0' ? " " : "") + one->words +
          "\n" + one->help + "\n" + (*one->more != '\0' ? "\n" : "") + one->more);
    return exit_good;
}

uint64_t count_parse(const char *text) {
    char *end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || value == 0) {
        throw failure(exit_usage, std::string("--count: a number above 0 is expected, not ") + text);
    }
    return value;
}

int run(int argument_count, char **arguments) {
    enum : int { option_agent = 256, option_all };
    constexpr option known[] = {
        {"socket", required_argument, nullptr, 's'}, {"json", no_argument, nullptr, 'j'},
        {"count", required_argument, nullptr, 'c'},  {"agent", no_argument, nullptr, option_agent},
        {"all", no_argument, nullptr, option_all},   {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},      {}};
    options given;
    opterr = 0;
    for (int found = 0; (found = getopt_long(argument_count, arguments, ":s:jc:hV", known, nullptr)) != -1;) {
        switch (found) {
        case 's':
            given.socket = optarg;
            break;
        case 'j':
            given.is_json = true;
            break;
        case 'c':
            given.count = count_parse(optarg);
            break;
        case option_agent:
            given.from_daemon = true;
            break;
        case option_all:
            given.shows_all = true;
            break;
        case 'h':
            return help({});
        case 'V':
            print("krsdnctl " KR_AGENT_VERSION "\n");
            return exit_good;
        default:
            throw failure(exit_usage, found == ':' ? std::string(arguments[optind - 1]) + " takes a value"
                                                   : "unknown option " + std::string(arguments[optind - 1]));
        }
    }
    given.words.assign(arguments + optind, arguments + argument_count);
    if (given.words.empty()) {
        throw failure(exit_usage, "a command is missing");
    }
    const std::string name = given.words.front();
    given.words.erase(given.words.begin());
    if (name == "help") {
        return help(given.words);
    }
    const command *const one = command_find(name);
    if (one == nullptr) {
        throw failure(exit_usage, "there is no command \"" + name + "\"");
    }
    if (given.words.size() < one->least || given.words.size() > one->most) {
        throw failure(exit_usage, name + (one->most == 0 ? " takes no words" : std::string(" takes ") + one->words));
    }
    daemon_link daemon(given.socket);
    return one->run(daemon, given);
}

} // namespace
} // namespace ctl

int main(int argument_count, char **arguments) {
    try {
        return ctl::run(argument_count, arguments);
    } catch (const ctl::failure &why) {
        std::fprintf(stderr, "krsdnctl: %s\n%s", why.what(),
                     why.status == ctl::exit_usage ? "krsdnctl: --help explains\n" : "");
        return why.status;
    } catch (const std::exception &why) {
        std::fprintf(stderr, "krsdnctl: %s\n", why.what());
        return ctl::exit_bad;
    }
}
