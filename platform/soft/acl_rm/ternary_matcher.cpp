/*
 * The bit rows of the ternary matcher. An offset without a rule has all its bits set in every row, so that a rule has
 * to be written, and erased, only in the nibbles that its mask covers; whether a rule is there at all is one more row.
 */
#include "acl_rm/ternary_matcher.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstring>

namespace kr_soft {
namespace {

constexpr uint32_t key_size = sizeof(kr_acl_key);

// Bytes in which rules of one table differ most, first: a frame that matches nothing in a block is known early then.
constexpr uint32_t telling_bytes[] = {
    offsetof(kr_acl_key, eth_dst) + 5,     offsetof(kr_acl_key, eth_src) + 5,     offsetof(kr_acl_key, ipv4_dst),
    offsetof(kr_acl_key, ipv4_src),        offsetof(kr_acl_key, tp_dst),          offsetof(kr_acl_key, tp_src),
    offsetof(kr_acl_key, in_log_port),     offsetof(kr_acl_key, vlan_id),         offsetof(kr_acl_key, eth_dst) + 4,
    offsetof(kr_acl_key, eth_src) + 4,     offsetof(kr_acl_key, ipv4_dst) + 1,    offsetof(kr_acl_key, ipv4_src) + 1,
    offsetof(kr_acl_key, tp_dst) + 1,      offsetof(kr_acl_key, tp_src) + 1,      offsetof(kr_acl_key, ip_proto),
    offsetof(kr_acl_key, in_log_port) + 1, offsetof(kr_acl_key, in_log_port) + 2,
};

constexpr auto byte_order = [] {
    std::array<uint8_t, key_size> order{};
    std::array<bool, key_size> listed{};
    uint32_t count = 0;
    for (const uint32_t byte : telling_bytes) {
        order[count++] = static_cast<uint8_t>(byte);
        listed[byte] = true;
    }
    for (uint32_t byte = 0; byte < key_size; byte++) {
        if (!listed[byte]) {
            order[count++] = static_cast<uint8_t>(byte);
        }
    }
    return order;
}();

// Calls body(nibble, bits of the mask) for each nibble that the mask covers.
template <typename Body> void for_each_covered(const kr_acl_key &mask, Body body) {
    uint8_t bytes[key_size];
    std::memcpy(bytes, &mask, key_size);
    for (uint32_t start = 0; start < key_size; start += sizeof(uint64_t)) {
        uint64_t word;
        std::memcpy(&word, bytes + start, sizeof word);
        if (word == 0) {
            continue;
        }
        for (uint32_t byte = start; byte < start + sizeof word; byte++) {
            if ((bytes[byte] & 15U) != 0) {
                body(byte, bytes[byte] & 15U);
            }
            if (bytes[byte] >> 4 != 0) {
                body(byte + key_size, uint32_t{bytes[byte]} >> 4);
            }
        }
    }
}

} // namespace

void ternary_matcher::nibble_use(uint32_t nibble) {
    if (users_[nibble]++ == 0) {
        std::memset(&rows_[nibble], 0xff, sizeof rows_[nibble]);
        used_nibbles_stale_ = true;
    }
}

void ternary_matcher::nibble_release(uint32_t nibble) {
    if (--users_[nibble] == 0) {
        used_nibbles_stale_ = true;
    }
}

void ternary_matcher::used_nibbles_update() {
    if (!used_nibbles_stale_) {
        return;
    }
    used_nibbles_stale_ = false;
    used_nibble_count_ = 0;
    for (const uint32_t byte : byte_order) {
        for (const uint32_t nibble : {byte, byte + key_size}) {
            if (users_[nibble] != 0) {
                used_nibbles_[used_nibble_count_++] = static_cast<uint16_t>(nibble);
            }
        }
    }
}

void ternary_matcher::set(uint32_t offset, const kr_acl_key &key, const kr_acl_key &mask) {
    const position at = position_of(offset);
    uint8_t key_bytes[key_size];
    std::memcpy(key_bytes, &key, key_size);
    for_each_covered(mask, [&](uint32_t nibble, uint32_t mask_bits) {
        nibble_use(nibble);
        const uint32_t wanted =
            nibble < key_size ? key_bytes[nibble] & 15U : uint32_t{key_bytes[nibble - key_size]} >> 4;
        for (uint32_t value = 0; value < value_count; value++) {
            if (((value ^ wanted) & mask_bits) != 0) {
                rows_[nibble][at.block][value].words[at.word] &= ~at.bit;
            }
        }
    });
    valid_[at.block].words[at.word] |= at.bit;
    used_nibbles_update();
}

void ternary_matcher::clear(uint32_t offset, const kr_acl_key &mask) {
    const position at = position_of(offset);
    valid_[at.block].words[at.word] &= ~at.bit;
    for_each_covered(mask, [&](uint32_t nibble, uint32_t) {
        for (row &accepting : rows_[nibble][at.block]) {
            accepting.words[at.word] |= at.bit;
        }
        nibble_release(nibble);
    });
    used_nibbles_update();
}

uint32_t ternary_matcher::match(const kr_acl_key &frame) const {
    uint8_t bytes[key_size];
    uint8_t values[nibble_count];
    std::memcpy(bytes, &frame, key_size);
    for (uint32_t i = 0; i < key_size; i++) {
        values[i] = bytes[i] & 15U;
        values[i + key_size] = static_cast<uint8_t>(bytes[i] >> 4);
    }

    for (uint32_t block = 0; block < block_count; block++) {
        row left = valid_[block];
        uint64_t any = left.words[0] | left.words[1] | left.words[2] | left.words[3];
        for (uint32_t i = 0; i < used_nibble_count_ && any != 0; i++) {
            const uint32_t nibble = used_nibbles_[i];
            const row &accepting = rows_[nibble][block][values[nibble]];
            any = 0;
            for (uint32_t word = 0; word < words_per_block; word++) {
                left.words[word] &= accepting.words[word];
                any |= left.words[word];
            }
        }
        for (uint32_t word = 0; word < words_per_block && any != 0; word++) {
            if (left.words[word] != 0) {
                return block * block_bits + word * 64 + static_cast<uint32_t>(std::countr_zero(left.words[word]));
            }
        }
    }
    return no_match;
}

} // namespace kr_soft
