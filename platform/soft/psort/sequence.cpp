/*
 * Telling sequences from accidents. In random order about one add in count^2 / 2 is the third of a row that goes one
 * way, except that the first few entries of a table have hardly any other place to go.
 */
#include "psort/sequence.h"

#include <algorithm>

namespace kr_soft::psort {
namespace {

constexpr int32_t least_length = 3;
constexpr int32_t small_count = 30;
constexpr int32_t least_length_in_small = 6;

constexpr double memory = 0.25;           // how much the latest sequence counts for the usual length
constexpr double habit_memory = 1 / 32.0; // how much the latest add counts for the share of adds in sequence
constexpr double habit_share = 0.5;

constexpr double least_expectation = 4; // adds
constexpr double growth = 2;            // the first sequence goes on for this many times its length
constexpr double overtime = 1;          // one that is longer than usual for this part of the usual length

} // namespace

void sequence::follow(const shadow &table, const span &room) {
    const int32_t last = present_.length == 0 ? -1 : table.find(present_.last_key);
    const bool above_last = last >= 0 && room.below == last && !room.has_entries();
    const bool below_last = last >= 0 && room.above == last && !room.has_entries();
    next_ = present_;
    const bool is_beside_last = above_last || below_last;
    next_.direction = above_last ? upward : below_last ? downward : present_.direction;
    const bool continues = is_beside_last && (present_.length == 1 || next_.direction == present_.direction);
    next_.length = continues ? present_.length + 1 : 1;
    next_.share += habit_memory * ((continues ? 1 : 0) - next_.share);
    if (!continues && present_.length >= least_length) {
        const double weight = next_.usual_length == 0 ? 1 : memory;
        next_.usual_length += weight * (present_.length - next_.usual_length);
    }
}

void sequence::placed(uint64_t key) {
    present_ = next_;
    present_.last_key = key;
}

bool sequence::is_established(int32_t count) const {
    const bool is_habit = next_.usual_length > 0 && next_.share > habit_share;
    return is_habit || next_.length >= (count < small_count ? least_length_in_small : least_length);
}

double sequence::expected_more() const {
    const double usual = next_.usual_length;
    const double more = usual == 0 ? growth * next_.length : std::max(usual - next_.length, overtime * usual);
    return std::max(least_expectation, more);
}

} // namespace kr_soft::psort
