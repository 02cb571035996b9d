/*
 * An analyser that nobody here wrote reads every sample: each message travels in a TCP segment of a capture file, and
 * tshark must take all of them for the message that they are, with nothing malformed and nothing left over.
 */
#include "peer_program.h"
#include "support.h"

namespace {

using namespace of10;
using namespace of10_test;

constexpr uint16_t openflow_port = 6653;

void append(bytes &to, byte_view more) {
    to.insert(to.end(), more.begin(), more.end());
}

void append16(bytes &to, size_t value) {
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

void append32(bytes &to, size_t value) {
    append16(to, value >> 16 & 0xffff);
    append16(to, value & 0xffff);
}

/* Ethernet, IPv4 and TCP around one message; checksums are not looked at. */
bytes segment(byte_view message, size_t sequence) {
    bytes frame = hex("02 00 00 00 00 02 02 00 00 00 00 01 08 00  45 00");
    append16(frame, 20 + 20 + message.size());
    append(frame, hex("00 00 40 00 40 06 00 00  0a 00 00 01 0a 00 00 02"));
    append16(frame, 40000);
    append16(frame, openflow_port);
    append32(frame, sequence);
    append(frame, hex("00 00 00 01 50 18 ff ff 00 00 00 00"));
    append(frame, message);
    return frame;
}

bytes capture_of(const std::vector<bytes> &messages) {
    bytes file = hex("a1 b2 c3 d4 00 02 00 04 (8) 00 04 00 00 00 00 00 01");
    size_t sequence = 1;
    for (const bytes &one : messages) {
        const bytes frame = segment(one, sequence);
        append(file, hex("(8)"));
        append32(file, frame.size());
        append32(file, frame.size());
        append(file, frame);
        sequence += one.size();
    }
    return file;
}

struct analysis {
    int version = 0;
    int type = -1;
    std::string complaints;
};

/* One entry per segment: version, type, and whatever the analyser complains about. */
std::vector<analysis> analyse(const std::vector<bytes> &messages) {
    const scratch_directory scratch;
    const std::string file = scratch.file("messages.pcap", capture_of(messages));
    std::istringstream lines(output_of("tshark -n -r " + file +
                                       " -T fields -E separator='|' -e openflow.version -e openflow_1_0.type"
                                       " -e _ws.malformed -e _ws.expert.message"));
    std::vector<analysis> all;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string version, type, malformed, expert;
        std::getline(fields, version, '|');
        std::getline(fields, type, '|');
        std::getline(fields, malformed, '|');
        std::getline(fields, expert);
        all.push_back({version.empty() ? 0 : std::stoi(version, nullptr, 0), type.empty() ? -1 : std::stoi(type),
                       malformed + expert});
    }
    return all;
}

/* What tshark 4.0 says of every message of the kind, however it was made: it has no reader for the bodies of statistics
 * and of queues, and tells so. That is no complaint about the message. */
bool is_harmless(const std::string &complaints) {
    return complaints.empty() || complaints == "Message data not dissected yet";
}

/* Of a flow-mod and of a packet-out it reads one action in any case, and runs over the end when there is none. */
bool is_readable(const message &one) {
    const auto *const flow = std::get_if<flow_mod>(&one.body);
    const auto *const out = std::get_if<packet_out>(&one.body);
    return (flow == nullptr || !flow->actions.empty()) && (out == nullptr || !out->actions.empty());
}

TEST(Tshark, TakesEverySampleForWhatItIs) {
    std::vector<sample> sent;
    std::vector<bytes> messages;
    for (sample &one : samples()) {
        const auto *const offer = std::get_if<hello>(&one.message.body);
        if (!is_readable(one.message) || (offer != nullptr && offer->version != protocol_version))
            continue;
        messages.push_back(encoded(one.message));
        sent.push_back(std::move(one));
    }
    const std::vector<analysis> seen = analyse(messages);
    ASSERT_EQ(seen.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        SCOPED_TRACE(sent[i].name);
        EXPECT_EQ(seen[i].version, 1);
        EXPECT_EQ(seen[i].type, static_cast<int>(type_of(sent[i].message.body)));
        EXPECT_TRUE(is_harmless(seen[i].complaints)) << seen[i].complaints;
    }
}

/* The check can fail: a message whose length is torn is complained about. */
TEST(Tshark, ComplainsAboutATornMessage) {
    bytes torn = encoded({1, features_reply{}});
    torn.resize(20);
    put16(torn, 2, 20);
    const std::vector<analysis> seen = analyse({torn});
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_FALSE(is_harmless(seen[0].complaints));
}

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    require_program("tshark", "tshark");
    return RUN_ALL_TESTS();
}
