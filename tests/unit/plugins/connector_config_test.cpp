/* The connector's configuration file: what it may say, and how a mistake is told. */
#include "connector_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "kr_soft.h"

namespace {

using kr_connector::config_parse;
using kr_connector::config_read;
using kr_connector::log_target;

TEST(connector_config, an_empty_file_is_a_switch_without_ports) {
    const auto result = config_parse("");
    ASSERT_TRUE(result.ok);
    EXPECT_TRUE(result.config.ports.empty());
    EXPECT_EQ(result.config.log.target, log_target::standard_error);
    EXPECT_EQ(result.config.log.severity, KR_LOG_NOTICE);
    EXPECT_FALSE(result.config.has_agent);
    EXPECT_EQ(result.config.forward, (std::array<bool, 4>{}));
}

TEST(connector_config, everything_that_it_may_say) {
    const auto result = config_parse("\xef\xbb\xbf# ports of the switch\n"
                                     "[ports]\n"
                                     "sw1 = 1\n"
                                     "   eth0.100=32511 ; the highest\n"
                                     "tap-a: none\r\n"
                                     "tap-b = 0\n"
                                     "\n[log]\ntarget = syslog\nseverity = debug\n"
                                     "[control]\nlldp = on\nlacp = on\nstp = off\n"
                                     "[agent]\ncontroller1 = 192.0.2.1:6653\ncontroller2 = [2001:db8::2]:6654\n"
                                     "datapath_id = 0x00000000000000ab");
    ASSERT_TRUE(result.ok) << result.mistakes.front().text;
    const auto &config = result.config;
    EXPECT_THAT(config.ports, testing::ElementsAre(testing::Pair("eth0.100", 32511), testing::Pair("sw1", 1),
                                                   testing::Pair("tap-a", 0), testing::Pair("tap-b", 0)));
    EXPECT_EQ(config.log.target, log_target::syslog);
    EXPECT_EQ(config.log.severity, KR_LOG_DEBUG);
    for (size_t i = 0; i < kr_connector::control_protocol_count; ++i) {
        const auto trap_id = kr_connector::control_protocols[i].trap_id;
        EXPECT_EQ(config.forward[i], trap_id == KR_SOFT_TRAP_ID_LLDP || trap_id == KR_SOFT_TRAP_ID_LACP) << i;
    }
    ASSERT_TRUE(config.has_agent);
    EXPECT_THAT(config.agent.entries[0].data,
                testing::ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 1));
    EXPECT_EQ(config.agent.entries[0].value, 4U);
    EXPECT_EQ(config.agent.entries[0].number, 6653);
    EXPECT_THAT(config.agent.entries[1].data,
                testing::ElementsAre(0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2));
    EXPECT_EQ(config.agent.entries[1].value, 6U);
    EXPECT_EQ(config.agent.entries[1].number, 6654);
    EXPECT_EQ(config.agent.trailer, 0xabU);
}

struct mistake_row {
    const char *name;
    std::string text;
    unsigned line;
    const char *says;
};

class connector_config_mistake : public testing::TestWithParam<mistake_row> {};

TEST_P(connector_config_mistake, names_the_line) {
    const auto result = config_parse(GetParam().text);
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.mistakes.front().line, GetParam().line);
    EXPECT_EQ(result.mistakes.front().text, GetParam().says);
}

std::string many_ports() {
    std::string text = "[ports]\n";
    for (int i = 0; i < 101; ++i) {
        text += "p" + std::to_string(i) + " = none\n";
    }
    return text;
}

const mistake_row mistake_rows[] = {
    {"no_section", "\nsw1 = 1\n", 2, "\"sw1\" stands before any section"},
    {"unknown_section", "[prots]\nsw1 = 1\n", 2, "unknown section [prots]: ports, captures, log, control or agent"},
    {"open_section", "[ports\n", 1, "neither a [section] nor \"name = value\" nor a comment"},
    {"no_value", "[ports]\nsw1 = 1\nsw2\n", 3, "neither a [section] nor \"name = value\" nor a comment"},
    {"no_name", "[ports]\n= 3\n", 2, "\"\" can't be the name of an interface (1 to 15 characters, no / or :)"},
    {"name_too_long", "[ports]\nabcdefghijklmnop = 3\n", 2,
     "\"abcdefghijklmnop\" can't be the name of an interface (1 to 15 characters, no / or :)"},
    {"slash", "[ports]\na/b = 3\n", 2, "\"a/b\" can't be the name of an interface (1 to 15 characters, no / or :)"},
    {"dots", "[ports]\n.. = 3\n", 2, "\"..\" can't be the name of an interface (1 to 15 characters, no / or :)"},
    {"port_is_a_word", "[ports]\nsw1 = one\n", 2, "requested port of sw1 is \"one\", must be none or 1 to 32511"},
    {"port_is_empty", "[ports]\nsw1 =\n", 2, "requested port of sw1 is \"\", must be none or 1 to 32511"},
    {"port_too_high", "[ports]\nsw1 = 32512\n", 2, "requested port of sw1 is \"32512\", must be none or 1 to 32511"},
    {"port_negative", "[ports]\nsw1 = -1\n", 2, "requested port of sw1 is \"-1\", must be none or 1 to 32511"},
    {"port_overflows", "[ports]\nsw1 = 4294967297\n", 2,
     "requested port of sw1 is \"4294967297\", must be none or 1 to 32511"},
    {"port_with_more", "[ports]\nsw1 = 1 2\n", 2, "requested port of sw1 is \"1 2\", must be none or 1 to 32511"},
    {"interface_twice", "[ports]\nsw1 = 1\nsw1 = 2\n", 3, "[ports] sw1 is given twice"},
    {"interface_twice_in_two_places", "[ports]\nsw1 = 1\n[log]\n[ports]\nsw1 = 2\n", 5, "[ports] sw1 is given twice"},
    {"port_twice", "[ports]\nsw1 = 7\nsw2 = 7\n", 3, "requested port 7 of sw2 is taken by sw1"},
    {"indented_line_is_a_line", "[ports]\nsw1 = 1\n  sw2 = x\n", 3,
     "requested port of sw2 is \"x\", must be none or 1 to 32511"},
    {"capture_without_files", "[captures]\nc = 1\n", 2, "c is \"1\", must be PORT INPUT OUTPUT, a file or - each"},
    {"capture_without_output", "[captures]\nc = 1 in\n", 2,
     "c is \"1 in\", must be PORT INPUT OUTPUT, a file or - each"},
    {"capture_with_more", "[captures]\nc = 1 in out x\n", 2,
     "c is \"1 in out x\", must be PORT INPUT OUTPUT, a file or - each"},
    {"capture_without_number", "[captures]\nc = none in out\n", 2,
     "requested port of c is \"none\", must be 1 to 32511"},
    {"capture_name", "[captures]\na/b = 1 in out\n", 2,
     "\"a/b\" can't be the name of a port (1 to 15 characters, no / or :)"},
    {"capture_and_interface", "[ports]\nc = 1\n[captures]\nc = 2 in out\n", 4, "c is a port already"},
    {"capture_number_taken", "[ports]\nc = 1\n[captures]\nd = 1 in out\n", 4, "requested port 1 of d is taken by c"},
    {"too_many_ports", many_ports(), 102, "more than 100 ports"},
    {"log_target", "[log]\ntarget = file\n", 2, "target is \"file\", must be stderr, syslog or none"},
    {"log_severity", "[log]\nseverity = loud\n", 2,
     "severity is \"loud\", must be error, warning, notice, debug or trace"},
    {"log_key", "[log]\nfile = x\n", 2, "[log] has no \"file\": target or severity"},
    {"control_value", "[control]\nlldp = yes\n", 2, "lldp is \"yes\", must be on or off"},
    {"control_key", "[control]\ncdp = on\n", 2, "[control] has no \"cdp\": lldp, stp, lacp or eapol"},
    {"agent_key", "[agent]\ncontroller3 = 192.0.2.1:1\n", 2,
     "[agent] has no \"controller3\": controller1, controller2 or datapath_id"},
    {"agent_no_port", "[agent]\ncontroller1 = 192.0.2.1\n", 2,
     "controller1 is \"192.0.2.1\", must be ADDRESS:PORT or [IPV6-ADDRESS]:PORT"},
    {"agent_port_0", "[agent]\ncontroller1 = 192.0.2.1:0\n", 2,
     "controller1 is \"192.0.2.1:0\", must be ADDRESS:PORT or [IPV6-ADDRESS]:PORT"},
    {"agent_port_too_high", "[agent]\ncontroller1 = 192.0.2.1:65536\n", 2,
     "controller1 is \"192.0.2.1:65536\", must be ADDRESS:PORT or [IPV6-ADDRESS]:PORT"},
    {"agent_name", "[agent]\ncontroller1 = localhost:6653\n", 2,
     "controller1 is \"localhost:6653\", must be ADDRESS:PORT or [IPV6-ADDRESS]:PORT"},
    {"agent_bare_ipv6", "[agent]\ncontroller1 = 2001:db8::1:6653\n", 2,
     "controller1 is \"2001:db8::1:6653\", must be ADDRESS:PORT or [IPV6-ADDRESS]:PORT"},
    {"agent_datapath", "[agent]\ndatapath_id = 0x1ffffffffffffffff\n", 2,
     "datapath_id is \"0x1ffffffffffffffff\", must be up to 16 hexadecimal digits"},
    {"nul_byte", std::string("[ports]\nsw\0 = 1\n", 15), 2, "a NUL byte"},
    {"long_line", "[ports]\nsw1 = " + std::string(300, '1') + "\n", 2, "the line is longer than 198 characters"},
};

INSTANTIATE_TEST_SUITE_P(rows, connector_config_mistake, testing::ValuesIn(mistake_rows),
                         [](const auto &row) { return row.param.name; });

TEST(connector_config, a_long_comment_is_no_mistake) {
    EXPECT_TRUE(config_parse("# " + std::string(1000, '-') + "\n[ports]\nsw1 = 1\n").ok);
}

TEST(connector_config, all_mistakes_are_listed_in_order) {
    const auto result = config_parse("[ports]\nsw1 = x\n[log]\nfoo\ntarget = y\n[control]\nlldp = z\n");
    ASSERT_EQ(result.mistakes.size(), 4U);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(result.mistakes[i].line, (std::array{2U, 4U, 5U, 7U})[i]);
    }
    EXPECT_EQ(kr_connector::config_mistake_text("a.conf", result.mistakes[0]),
              "a.conf:2: requested port of sw1 is \"x\", must be none or 1 to 32511");
}

class connector_config_file : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "kr_config_XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern;
    }
    void TearDown() override {
        std::filesystem::remove_all(directory);
    }
    std::string directory;
};

TEST_F(connector_config_file, that_is_not_there) {
    const auto result = config_read(directory + "/none.conf");
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(kr_connector::config_mistake_text("none.conf", result.mistakes.front()),
              "none.conf: No such file or directory");
}

TEST_F(connector_config_file, that_is_no_file) {
    EXPECT_EQ(config_read(directory).mistakes.front().text, "not a regular file");
    ASSERT_EQ(mkfifo((directory + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(config_read(directory + "/fifo").mistakes.front().text, "not a regular file");
}

TEST_F(connector_config_file, with_capture_files_relative_to_its_folder) {
    std::ofstream(directory + "/c.conf") << "[captures]\nc1 = 1 a \"b c\"\nc2 = 2 - /d\n";
    const auto result = config_read(directory + "/c.conf");
    ASSERT_TRUE(result.ok);
    EXPECT_EQ(result.config.ports.at("c1"), 1);
    EXPECT_EQ(result.config.captures.at("c1").input, directory + "/a");
    EXPECT_EQ(result.config.captures.at("c1").output, directory + "/b c");
    EXPECT_EQ(result.config.captures.at("c2").input, "");
    EXPECT_EQ(result.config.captures.at("c2").output, "/d");
}

TEST_F(connector_config_file, that_is_too_long) {
    std::ofstream(directory + "/long.conf") << std::string(kr_connector::max_config_file_size + 1, '\n');
    EXPECT_EQ(config_read(directory + "/long.conf").mistakes.front().text, "longer than 1048576 bytes");
}

TEST_F(connector_config_file, longer_than_one_read) {
    std::ofstream(directory + "/c.conf") << std::string(9000, '\n') << "[ports]\nsw1 = 5\n";
    const auto result = config_read(directory + "/c.conf");
    ASSERT_TRUE(result.ok);
    EXPECT_EQ(result.config.ports.at("sw1"), 5);
}

} // namespace
