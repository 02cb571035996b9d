/*
 * The OpenFlow 1.0 codec on bytes of any kind, for libFuzzer and for the replay of the kept corpus.
 * Nothing may crash or touch memory that is not its own; beyond that: a message that is read is written, reads back
 * equal, and takes as many bytes; a refused one has an answer that can be sent; texts and normal forms can be made.
 */
#include "of10/of10.h"
#include "of10/text.h"

#include <cstdio>
#include <cstdlib>

namespace {

using namespace of10;

void require(bool holds, const char *what) {
    if (holds)
        return;
    std::fprintf(stderr, "of10_fuzz: does not hold: %s\n", what);
    std::abort();
}

void look_at(const flow_mod &flow) {
    const flow_match normal = match_normalize(flow.match);
    require(match_normalize(normal) == normal, "the normal form is its own");
    require(!to_string(flow).empty(), "a flow-mod has a text");
    require(actions_size(flow.actions) <= max_message_size - 72, "actions fit where they came from");
}
void look_at(const flow_removed &flow) {
    require(!to_string(flow).empty(), "a removed flow has a text");
}
void look_at(const stats_reply &reply) {
    if (const auto *const flows = std::get_if<std::vector<flow_stats>>(&reply.body))
        for (const flow_stats &flow : *flows)
            require(!to_string(flow).empty(), "a flow has a text");
}
void look_at(const packet_in &one) {
    bytes whole, from_elsewhere;
    require(encode(whole, 1, one) && encode_packet_in(from_elsewhere, 1, one, one.data), "a packet-in is written");
    require(whole == from_elsewhere, "both ways to write a packet-in agree");
}
template <typename record> void look_at(const record &) {}

void check_message(const message &one, size_t size) {
    bytes again;
    require(encode(again, one), "what was read can be written");
    require(again.size() == size && message_size(again) == size, "it takes the same number of bytes");
    const decode_result result = decode(again);
    require(std::holds_alternative<message>(result) && std::get<message>(result) == one, "it reads back equal");
    std::visit([](const auto &kind) { look_at(kind); }, one.body);
}

void check_failure(const decode_failure &failure, byte_view wire) {
    require(failure.reason != nullptr && *failure.reason != 0, "a failure has a reason");
    require(error_name(failure.answer.type, failure.answer.code).rfind("OFP", 0) == 0, "an error of the protocol");
    bytes answer;
    require(encode(answer, failure.xid, failure.answer), "the answer can be sent");
    require(std::holds_alternative<message>(decode(answer)), "the answer can be read");
    answer.clear();
    encode_error(answer, wire, error_type::bad_request, bad_request::eperm);
    require(std::holds_alternative<message>(decode(answer)), "an error about it can be read");
}

void check(byte_view wire) {
    const decode_result result = decode(wire);
    if (const auto *const one = std::get_if<message>(&result))
        check_message(*one, wire.size());
    else
        check_failure(std::get<decode_failure>(result), wire);
}

} // namespace

/* The bytes as they are, once as one message and once as a stream; and with a header whose length is right. */
extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const byte_view input(data, size);
    check(input);
    for (byte_view rest = input; !rest.empty();) {
        const size_t needed = message_size(rest);
        if (needed == 0 || needed > rest.size())
            break;
        require(needed >= header_size, "a stream goes on");
        check(rest.first(needed));
        rest = rest.subspan(needed);
    }
    if (size >= header_size && size <= max_message_size) {
        bytes fitted(input.begin(), input.end());
        fitted[2] = static_cast<uint8_t>(size >> 8);
        fitted[3] = static_cast<uint8_t>(size);
        check(fitted);
    }
    return 0;
}
