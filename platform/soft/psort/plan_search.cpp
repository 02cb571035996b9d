/*
 * The dynamic programme over displacements. Conventions: a displacement counts slots towards lower indices, so a piece
 * that makes room by moving up in the table has a positive one; the new entry takes one slot, so from the last piece
 * above it to the first below the displacement falls by one at least. Between two pieces with `gap` free slots it rises
 * by `gap` at most: that and nothing else is what keeps entries from moving onto each other.
 */
#include "psort/plan_search.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kr_soft::psort {
namespace {

constexpr int32_t hop_weight = 11; // crossing a level never costs more than a call and one rule

// Spreading the free slots.
constexpr double least_variance = 0.25;
constexpr double end_margin = 0.7; // the last free slots stay this part of a gap away from the ends of the table

// A plan that moves more than it should is sought again on terms that reach less far, a few times.
constexpr int32_t least_rules = 90;   // that always may be moved
constexpr int32_t rules_divisor = 11; // and this part of a large table
constexpr int32_t retries = 6;
constexpr float retry_worth = 0.3F;
constexpr float retry_reach = 0.9F;

// How far a search looks. Behind a free slot it stops after so much of the work that one add does for those to come,
// which is more where free slots are far apart. Pieces of single entries are short at first and grow with the distance.
constexpr float least_weight_behind_free = 64; // in rules
constexpr float most_weight_behind_free = 400;
constexpr float distances_behind_free = 3; // mean distances between free slots
constexpr size_t pieces_behind_free = 40;
constexpr float weight_of_piece = 2.5;      // more pieces where the weight is more
constexpr size_t exact_pieces = 64;         // after so many without a free slot
constexpr int32_t exact_piece_size = 8;     // pieces grow from this size
constexpr int32_t growth_divisor = 4;       // to this part of the way come so far
constexpr size_t max_pieces_per_side = 320; // what that comes to for the largest table

constexpr float unreachable = std::numeric_limits<float>::infinity();

} // namespace

plan_search::plan_search(int32_t table_size) {
    const size_t most = std::min(2 * max_pieces_per_side, static_cast<size_t>(table_size));
    pieces_.reserve(most);
    choices_.reserve(most);
    table_ = std::make_unique_for_overwrite<steps[]>(most + 1);
}

// ---- pieces --------------------------------------------------------------------------------------------------------

plan_search::balance::balance(const shadow &table)
    : free_slots(table.free_count() - 1), live_entries(table.count() + 1),
      margin(std::min(0.45, end_margin / (free_slots + 1))) {}

// If the adds to come are equally likely at every rank, the free slots before a rank ought to be in proportion to it,
// and as many adds as there are free slots will fall before it with the variance of a binomial distribution.
void plan_search::balance::weigh(piece *each, int32_t free_before, double live_before) const {
    const double rank = (live_before + each->size() / 2.0) / live_entries;
    const double share = free_slots * std::clamp((rank - margin) / (1 - 2 * margin), 0.0, 1.0);
    each->surplus = static_cast<float>(free_before - share);
    each->deviation = static_cast<float>(std::sqrt(free_slots * rank * std::max(0.0, 1 - rank) + least_variance));
    each->weight = static_cast<float>(each->is_level ? std::min(each->size(), hop_weight) : each->size());
}

// The piece that begins at the live slot `from` and goes towards `stop`, the next slot that is free or off the table: a
// level, or up to about `single_limit` entries of levels that are too small to be worth a hop.
plan_search::piece plan_search::piece_towards(const shadow &table, int32_t from, int32_t stop, int32_t single_limit) {
    const int32_t direction = stop < from ? -1 : 1;
    const int32_t least_level = single_limit == exact_piece_size ? 2 : single_limit / 2;
    int32_t end = from;
    bool is_level = false;
    while (end != stop && (end - from) * direction < single_limit && !is_level) {
        int32_t level_end = end + direction;
        if (level_end != stop && table.priority(level_end) == table.priority(end)) {
            const span level = table.span_of(table.priority(end));
            level_end = direction < 0 ? std::max(level.first - 1, stop) : std::min(level.last + 1, stop);
        }
        if ((level_end - end) * direction >= least_level) {
            if (end != from) {
                break;
            }
            is_level = true;
        }
        end = level_end;
    }
    const int32_t begin = direction < 0 ? end + 1 : from;
    return {begin, direction < 0 ? from + 1 : end, 0, is_level, 0, 0, 0};
}

namespace {

// When to stop collecting pieces on one side.
class reach {
  public:
    explicit reach(const shadow &table)
        : weight_behind_free_(std::clamp(distances_behind_free * static_cast<float>(table.size()) /
                                             static_cast<float>(table.free_count()),
                                         least_weight_behind_free, most_weight_behind_free)),
          pieces_behind_free_(
              std::max(pieces_behind_free, static_cast<size_t>(weight_behind_free_ / weight_of_piece))) {}

    bool goes_on() const {
        return count_ < max_pieces_per_side &&
               (!passed_free_ || (count_ < pieces_behind_free_ && weight_ <= weight_at_free_ + weight_behind_free_));
    }
    int32_t single_limit() const {
        return count_ < exact_pieces ? exact_piece_size : std::max(exact_piece_size, slots_ / growth_divisor);
    }
    void add(int32_t slots, float weight) {
        ++count_;
        slots_ += slots;
        weight_ += weight;
    }
    void pass_free() {
        weight_at_free_ = passed_free_ ? weight_at_free_ : weight_;
        passed_free_ = true;
    }

  private:
    float weight_behind_free_;
    size_t pieces_behind_free_;
    size_t count_ = 0;
    int32_t slots_ = 0;
    float weight_ = 0;
    float weight_at_free_ = 0;
    bool passed_free_ = false;
};

} // namespace

// Pieces from `last` towards the first slot.
void plan_search::collect_above(const shadow &table, int32_t last, const balance &even) {
    reach side(table);
    int32_t free_before = table.free_before(last + 1);
    int32_t stop = last < 0 ? -1 : table.prev_free(last);
    while (last >= 0 && side.goes_on()) {
        piece each = piece_towards(table, last, stop, side.single_limit());
        even.weigh(&each, free_before, each.begin - free_before);
        side.add(each.size(), each.weight);
        last = each.begin - 1;
        if (last == stop && stop >= 0) {
            last = table.prev_live(stop);
            each.gap = stop - last;
            free_before -= each.gap;
            stop = last < 0 ? -1 : table.prev_free(last);
            side.pass_free();
        }
        pieces_.push_back(each);
    }
    std::reverse(pieces_.begin(), pieces_.end());
}

// Pieces from `first` towards the last slot. The new entry is in front of them, in a slot that was free.
void plan_search::collect_below(const shadow &table, int32_t first, const balance &even) {
    reach side(table);
    int32_t free_before = table.free_before(first);
    int32_t stop = table.next_free(first);
    gap_behind_ = 0;
    while (first < table.size() && side.goes_on()) {
        piece each = piece_towards(table, first, stop, side.single_limit());
        even.weigh(&each, free_before - 1, each.begin - free_before + 1);
        side.add(each.size(), each.weight);
        each.gap = gap_behind_;
        gap_behind_ = 0;
        first = each.end;
        if (first == stop && stop < table.size()) {
            first = table.next_live(stop);
            gap_behind_ = first - stop;
            free_before += gap_behind_;
            stop = table.next_free(first);
            side.pass_free();
        }
        pieces_.push_back(each);
    }
}

// ---- the terms -----------------------------------------------------------------------------------------------------

// A shift call costs its owner about as much as ten rules; planning with half of that, or less where hops are many,
// buys fewer rules for a few more calls, measured over whole fills. Imbalance is worth little while a table of many
// levels is far from full, since most of it evens out by itself.
plan_search::terms plan_search::terms_for(const shadow &table) {
    constexpr int32_t any_number = std::numeric_limits<int32_t>::max();
    constexpr float worth = 0.25;
    if (table.has_few_levels()) {
        return {2, worth, 1, any_number};
    }
    if (table.level_count() * 4 <= table.count()) {
        return {2, worth, max_displacement, std::max(least_rules, table.size() / rules_divisor)};
    }
    const float occupancy = static_cast<float>(table.count()) / static_cast<float>(table.size());
    return {5, worth * occupancy * occupancy * occupancy * occupancy, max_displacement, any_number};
}

// ---- the programme -------------------------------------------------------------------------------------------------

// What the free slots before a piece that are too many or too few will cost: every one that is not used up by chance
// has to cross the piece some day. Smooth in between, since both are guesses.
float plan_search::imbalance_price(const piece &each, int32_t displacement) const {
    const float surplus = each.surplus - static_cast<float>(displacement);
    return terms_.imbalance_worth * each.weight *
           (std::sqrt(surplus * surplus + each.deviation * each.deviation) - each.deviation);
}

// For each displacement behind a gap, the cheapest state before it.
void plan_search::best_arrivals(const steps &before, int32_t gap, arrivals *best) const {
    step cheapest = {unreachable, 0, at_rest};
    int32_t seen = max_displacement + 1; // displacements from here on are in `cheapest`
    for (int32_t displacement = max_displacement; displacement >= -max_displacement; --displacement) {
        const int32_t lowest = std::max(displacement - gap, -max_displacement);
        while (seen > lowest) {
            --seen;
            for (const mode from : {at_rest, in_block}) {
                const float price = before[from][index_of(seen)].price;
                if (price < cheapest.price) {
                    cheapest = {price, static_cast<int8_t>(seen), from};
                }
            }
        }
        (*best)[index_of(displacement)] = cheapest;
    }
}

// The same across the place of the new entry. It is split when entries of its own level stay in the middle of it: then
// pieces can only draw away from them.
void plan_search::best_arrivals_at_room(const steps &before, bool is_split, arrivals *best) const {
    for (int32_t behind = -max_displacement; behind <= max_displacement; ++behind) {
        step cheapest = {unreachable, 0, at_rest};
        for (int32_t ahead = behind + 1; ahead <= max_displacement && !(is_split && behind > 0); ++ahead) {
            if (is_split && ahead < 0) {
                continue;
            }
            for (const mode from : {at_rest, in_block}) {
                const float price = before[from][index_of(ahead)].price;
                if (price < cheapest.price) {
                    cheapest = {price, static_cast<int8_t>(ahead), from};
                }
            }
        }
        (*best)[index_of(behind)] = cheapest;
    }
}

// From the arrivals at a piece to the states behind it.
void plan_search::advance(const piece &each, bool may_continue, const arrivals &best, const steps &before,
                          steps *after) const {
    for (int32_t displacement = -max_displacement; displacement <= max_displacement; ++displacement) {
        const size_t index = index_of(displacement);
        const float imbalance = imbalance_price(each, displacement);
        const int32_t distance = std::abs(displacement);
        step rest = best[index];
        step block = best[index];
        if (distance > terms_.reach) {
            rest.price = unreachable;
            block.price = unreachable;
        } else if (distance == 0) {
            rest.price += imbalance;
            block.price = unreachable;
        } else {
            const bool can_hop = each.is_level && distance < each.size();
            rest.price =
                can_hop ? rest.price + terms_.call_price + static_cast<float>(distance) + imbalance : unreachable;
            block.price += terms_.call_price;
            if (may_continue && before[in_block][index].price < block.price) {
                block = {before[in_block][index].price, static_cast<int8_t>(displacement), in_block};
            }
            block.price += static_cast<float>(each.size()) + imbalance;
        }
        (*after)[at_rest][index] = rest;
        (*after)[in_block][index] = block;
    }
}

void plan_search::search(bool is_split) {
    for (auto &of_mode : table_[0]) {
        of_mode.fill({unreachable, 0, at_rest});
    }
    table_[0][at_rest][index_of(0)].price = 0;
    arrivals best;
    for (size_t index = 0; index <= pieces_.size(); ++index) {
        const bool is_room = index == room_index_;
        const bool is_end = index == pieces_.size();
        if (is_room) {
            best_arrivals_at_room(table_[index], is_split, &best);
        } else {
            best_arrivals(table_[index], is_end ? gap_behind_ : pieces_[index].gap, &best);
        }
        if (!is_end) {
            advance(pieces_[index], !is_room, best, table_[index], &table_[index + 1]);
        }
    }
    trace_back(best[index_of(0)]); // behind the last piece nothing is displaced
}

void plan_search::trace_back(const step &end) {
    choices_.resize(pieces_.size());
    step from = end;
    for (size_t index = pieces_.size(); index-- > 0;) {
        choices_[index] = {from.from_displacement, from.from_mode};
        from = table_[index + 1][from.from_mode][index_of(from.from_displacement)];
    }
}

int32_t plan_search::rules_moved() const {
    int32_t rules = 0;
    for (size_t index = 0; index < pieces_.size(); ++index) {
        const choice chosen = choices_[index];
        rules += chosen.in == in_block ? pieces_[index].size() : std::abs(chosen.displacement);
    }
    return rules;
}

// ---- shifts --------------------------------------------------------------------------------------------------------

// Appends the shift that piece `index` starts; returns the first piece that is not part of it.
size_t plan_search::append_shift(size_t index, std::vector<shift> *shifts) const {
    const piece &first = pieces_[index];
    const choice chosen = choices_[index];
    const int32_t displacement = chosen.displacement;
    if (chosen.in == at_rest) {
        shifts->push_back(displacement > 0 ? shift{first.end - displacement, first.begin - displacement, displacement}
                                           : shift{first.begin, first.end, -displacement});
        return index + 1;
    }
    size_t end = index + 1;
    while (end < pieces_.size() && end != room_index_ && choices_[end].in == in_block &&
           choices_[end].displacement == displacement) {
        ++end;
    }
    shifts->push_back({first.begin, first.begin - displacement, pieces_[end - 1].end - first.begin});
    return end;
}

// Blocks that go up in order of their slots, then those that go down in the opposite order: each finds its destination
// left free, or made free by the one before it.
void plan_search::append_shifts(std::vector<shift> *shifts) const {
    const auto append = [&](bool goes_up) {
        for (size_t index = 0; index < pieces_.size();) {
            const int32_t displacement = choices_[index].displacement;
            index = displacement != 0 && (displacement > 0) == goes_up ? append_shift(index, shifts) : index + 1;
        }
    };
    append(true);
    const auto going_up = static_cast<std::ptrdiff_t>(shifts->size());
    append(false);
    std::reverse(shifts->begin() + going_up, shifts->end());
}

free_run plan_search::make_room(const shadow &table, const span &room, std::vector<shift> *shifts) {
    const int32_t above_end = room.has_entries() ? room.first : room.below;
    const int32_t below_begin = room.has_entries() ? room.last + 1 : room.below;
    const balance even(table);
    pieces_.clear();
    collect_above(table, above_end - 1, even);
    room_index_ = pieces_.size();
    collect_below(table, below_begin, even);

    terms_ = terms_for(table);
    search(room.has_entries());
    for (int32_t retry = 0; retry < retries && rules_moved() > terms_.rules; ++retry) {
        terms_.imbalance_worth *= retry_worth;
        terms_.reach = std::max(1, static_cast<int32_t>(static_cast<float>(terms_.reach) * retry_reach));
        search(room.has_entries());
    }
    append_shifts(shifts);

    const int32_t ahead = room_index_ == 0 ? 0 : choices_[room_index_ - 1].displacement;
    const int32_t behind = room_index_ == pieces_.size() ? 0 : choices_[room_index_].displacement;
    if (!room.has_entries()) {
        return {room.below - ahead, room.below - behind};
    }
    return ahead > 0 ? free_run{above_end - 1, above_end} : free_run{below_begin, below_begin + 1};
}

} // namespace kr_soft::psort
