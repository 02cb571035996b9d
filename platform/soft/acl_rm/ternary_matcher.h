/*
 * A ternary match memory in software: finds the lowest offset whose rule matches a frame, for any mix of masks.
 *
 * The key is cut into nibbles. For each nibble of the key and each of its 16 values there is a row of bits, one per
 * offset: "the rule here accepts this value". A frame picks one row per nibble, their conjunction is the set of rules
 * that match, and its first bit is the winner. Nibbles that no rule looks at are skipped. The work for a frame does not
 * depend on how many different masks there are; writing a rule touches only the nibbles that its mask covers.
 *
 * No locking here: the caller excludes changes while it matches.
 */
#ifndef KR_SOFT_TERNARY_MATCHER_H
#define KR_SOFT_TERNARY_MATCHER_H

#include <cstdint>

#include "kr_acl_rm.h"

namespace kr_soft {

class ternary_matcher {
  public:
    static constexpr uint32_t capacity = 1024;
    static constexpr uint32_t no_match = UINT32_MAX;

    // Writes a rule at an offset where none is.
    void set(uint32_t offset, const kr_acl_key &key, const kr_acl_key &mask);
    // Removes the rule at an offset; `mask` is the one that it was set with.
    void clear(uint32_t offset, const kr_acl_key &mask);
    // The lowest offset whose rule matches the frame, or no_match.
    uint32_t match(const kr_acl_key &frame) const;

  private:
    static constexpr uint32_t key_size = sizeof(kr_acl_key);
    static constexpr uint32_t nibble_count = 2 * key_size; // all low halves, then all high halves
    static constexpr uint32_t value_count = 16;
    static constexpr uint32_t bits_per_word = 64;
    static constexpr uint32_t word_count = capacity / bits_per_word;

    // Which of 64 offsets accept each value of one nibble: two cache lines, all that a rule changes of the nibble.
    struct alignas(64) accepting {
        uint64_t by_value[value_count];
    };

    void nibble_use(uint32_t nibble);
    void nibble_release(uint32_t nibble);
    void used_nibbles_update();

    uint64_t valid_[word_count] = {};          // offsets that hold a rule
    uint16_t users_[nibble_count] = {};        // rules whose mask covers the nibble
    uint16_t used_nibbles_[nibble_count] = {}; // nibbles with users, the most telling first
    uint32_t used_nibble_count_ = 0;
    bool used_nibbles_stale_ = false;
    bool was_used_[nibble_count] = {}; // its rows have been initialised
    // Of a nibble that was used: 1 where the rule accepts the value or no rule is.
    accepting rows_[word_count][nibble_count];
};

} // namespace kr_soft

#endif
