/*
 * What the tests of the OpenFlow 1.0 codec share: bytes written as hexadecimal text, the record or the failure out of a
 * decode, and one sample of every kind of message.
 */
#ifndef KR_TESTS_OF10_SUPPORT_H
#define KR_TESTS_OF10_SUPPORT_H

#include "of10/of10.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace of10_test {

/* Blanks and line ends separate; "(12)" stands for so many zero bytes. Any other character fails the test. */
of10::bytes hex(std::string_view text);

/* A printed form for failures, 16 bytes a line. */
std::string dump(of10::byte_view wire);

/* The message's bytes; fails the test when it cannot be said. */
of10::bytes encoded(const of10::message &one);

/* The record; fails the test and answers an empty one when the bytes were refused. */
of10::message decoded(of10::byte_view wire);

/* The failure; fails the test when the bytes were taken. */
of10::decode_failure refused(of10::byte_view wire);

void expect_error(of10::byte_view wire, of10::error_type type, uint16_t code);

/* Overwrites a big-endian number. */
void put16(of10::bytes &wire, size_t offset, uint16_t value);

struct sample {
    std::string name;
    of10::message message;
};

/* Every message type, every statistics type in both directions, every action: no field zero, none equal to its
 * neighbour. */
std::vector<sample> samples();

of10::action_list every_action();
of10::flow_match busy_match();

} // namespace of10_test

#endif
