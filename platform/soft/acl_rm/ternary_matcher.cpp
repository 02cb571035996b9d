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

// [mask][value wanted][value met]: all ones where the masked nibble is accepted.
constexpr auto acceptance = [] {
    std::array<std::array<std::array<uint64_t, 16>, 16>, 16> table{};
    for (uint32_t mask = 0; mask < 16; mask++) {
        for (uint32_t wanted = 0; wanted < 16; wanted++) {
            for (uint32_t met = 0; met < 16; met++) {
                table[mask][wanted][met] = ((met ^ wanted) & mask) == 0 ? ~uint64_t{0} : 0;
            }
        }
    }
    return table;
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
    if (users_[nibble]++ != 0) {
        return;
    }
    used_nibbles_stale_ = true;
    if (!was_used_[nibble]) { // later they are all ones again whenever the last user has gone
        was_used_[nibble] = true;
        for (accepting(&of_word)[nibble_count] : rows_) {
            std::memset(&of_word[nibble], 0xff, sizeof of_word[nibble]);
        }
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
    const uint32_t word = offset / bits_per_word;
    const uint64_t bit = uint64_t{1} << offset % bits_per_word;
    uint8_t key_bytes[key_size];
    std::memcpy(key_bytes, &key, key_size);
    for_each_covered(mask, [&](uint32_t nibble, uint32_t mask_bits) {
        nibble_use(nibble);
        const uint32_t byte = key_bytes[nibble % key_size];
        const uint32_t wanted = nibble < key_size ? byte & 15U : byte >> 4;
        uint64_t *const __restrict row = rows_[word][nibble].by_value;
        const uint64_t *const __restrict accepted = acceptance[mask_bits][wanted].data();
        for (uint32_t value = 0; value < value_count; value++) {
            row[value] &= accepted[value] | ~bit;
        }
    });
    valid_[word] |= bit;
    used_nibbles_update();
}

void ternary_matcher::clear(uint32_t offset, const kr_acl_key &mask) {
    const uint32_t word = offset / bits_per_word;
    const uint64_t bit = uint64_t{1} << offset % bits_per_word;
    valid_[word] &= ~bit;
    for_each_covered(mask, [&](uint32_t nibble, uint32_t) {
        for (uint64_t &row : rows_[word][nibble].by_value) {
            row |= bit;
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
    for (uint32_t word = 0; word < word_count; word++) {
        uint64_t left = valid_[word];
        for (uint32_t i = 0; i < used_nibble_count_ && left != 0; i++) {
            const uint32_t nibble = used_nibbles_[i];
            left &= rows_[word][nibble].by_value[values[nibble]];
        }
        if (left != 0) {
            return word * bits_per_word + static_cast<uint32_t>(std::countr_zero(left));
        }
    }
    return no_match;
}

} // namespace kr_soft
