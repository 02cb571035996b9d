/*
 * Endpoints and the command line.
 */
#include <gtest/gtest.h>

#include "options.h"

namespace agent {
namespace {

TEST(endpoint, texts) {
    const struct {
        const char *text;
        const char *told; // null: refused
    } rows[] = {
        {"tcp:192.0.2.1", "tcp:192.0.2.1:6653"},
        {"tcp:192.0.2.1:7", "tcp:192.0.2.1:7"},
        {"ssl:[2001:db8::1]", "ssl:[2001:db8::1]:6653"},
        {"ssl:[2001:db8::1]:65535", "ssl:[2001:db8::1]:65535"},
        {"unix:/run/a:b", "unix:/run/a:b"},
        {"ptcp:", "ptcp:6653:127.0.0.1"},
        {"ptcp", "ptcp:6653:127.0.0.1"},
        {"ptcp:7", "ptcp:7:127.0.0.1"},
        {"ptcp::0.0.0.0", "ptcp:6653:0.0.0.0"},
        {"pssl:0:[::1]", "pssl:0:[::1]"},
        {"punix:/run/c", "punix:/run/c"},
        {"tcp:", nullptr},
        {"tcp:localhost", nullptr},
        {"tcp:192.0.2.1:", nullptr},
        {"tcp:192.0.2.1:0", nullptr},
        {"tcp:192.0.2.1:65536", nullptr},
        {"tcp:192.0.2.1:7x", nullptr},
        {"tcp:2001:db8::1", nullptr},
        {"ssl:[2001:db8::1", nullptr},
        {"ptcp:x", nullptr},
        {"ptcp:7:", nullptr},
        {"ptcp:7:1.2.3.4:5", nullptr},
        {"unix:", nullptr},
        {"", nullptr},
        {"http:1.2.3.4", nullptr},
    };
    for (const auto &row : rows) {
        const auto parsed = endpoint_parse(row.text);
        const auto *where = std::get_if<endpoint>(&parsed);
        ASSERT_EQ(where != nullptr, row.told != nullptr) << row.text;
        if (where == nullptr) {
            EXPECT_FALSE(std::get<std::string>(parsed).empty());
            continue;
        }
        EXPECT_EQ(endpoint_text(*where), row.told);
        EXPECT_EQ(std::get<endpoint>(endpoint_parse(row.told)), *where);
    }
    EXPECT_TRUE(std::holds_alternative<std::string>(endpoint_parse("unix:/" + std::string(107, 'x'))));
    EXPECT_TRUE(std::holds_alternative<endpoint>(endpoint_parse("unix:/" + std::string(106, 'x'))));
}

std::variant<options, std::string> parse(std::vector<const char *> words) {
    words.insert(words.begin(), "krsdn-ofagentd");
    std::vector<char *> arguments;
    for (const char *word : words) {
        arguments.push_back(const_cast<char *>(word));
    }
    arguments.push_back(nullptr);
    return options_parse(static_cast<int>(words.size()), arguments.data());
}

TEST(options, values) {
    const auto parsed = parse({"--datapath-id", "0x00ab", "--probe-interval=2.5", "--busy-poll", "20", "tcp:1.2.3.4",
                               "--log", "debug", "--listen", "ptcp:7", "--description", "hall 3"});
    const auto *given = std::get_if<options>(&parsed);
    ASSERT_NE(given, nullptr) << std::get<std::string>(parsed);
    EXPECT_EQ(given->datapath_id, 0xabu);
    EXPECT_EQ(given->probe, 5 * second_ns / 2);
    EXPECT_EQ(given->busy_poll, 20'000);
    EXPECT_EQ(given->verbosity, log_level::debug);
    EXPECT_EQ(given->description, "hall 3");
    ASSERT_EQ(given->endpoints.size(), 2u);
    EXPECT_TRUE(given->endpoints[0].is_listening);
    EXPECT_EQ(given->endpoints[1].address, "1.2.3.4");
}

TEST(options, mistakes) {
    for (const std::vector<const char *> &words :
         std::vector<std::vector<const char *>>{{"--datapath-id", "xyz"},
                                                {"--datapath-id", ""},
                                                {"--datapath-id", "12345678901234567"},
                                                {"--probe-interval", "-1"},
                                                {"--probe-interval", "1e-9"},
                                                {"--probe-interval", "0.09"},
                                                {"--busy-poll", "-1"},
                                                {"--busy-poll", "10001"},
                                                {"--busy-poll", "5us"},
                                                {"--probe-interval", "1e9"},
                                                {"--log", "loud"},
                                                {"--controller", "ptcp:"},
                                                {"--listen", "unix:/x"},
                                                {"--connector", ""},
                                                {"--nothing"},
                                                {"--log"},
                                                {"ssl:1.2.3.4"},
                                                {"-x"}}) {
        EXPECT_TRUE(std::holds_alternative<std::string>(parse(words))) << words[0];
    }
}

} // namespace
} // namespace agent
