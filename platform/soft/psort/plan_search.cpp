/*
 * The dynamic programme over displacements. Conventions: a displacement counts slots towards lower indices, so a piece
 * that makes room by moving up in the table has a positive one; the new entry takes one slot, so from the last piece
 * above it to the first below the displacement falls by one at least. Between two pieces with `gap` free slots it rises
 * by `gap` at most: that and nothing else is what keeps entries from moving onto each other. Where it rises by less, or
 * falls by more, a free slot is left.
 */
#include "psort/plan_search.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kr_soft::psort {
namespace {

constexpr int32_t hop_weight = 11; // crossing a level never costs more than a call and one rule

// Spreading the free slots.
constexpr double least_variance = 0.4;
constexpr double end_margin = 0.7; // the last free slots stay this part of a gap away from the ends of the table
constexpr double most_margin = 0.45;
constexpr double most_priority_part = 0.7; // of the guess where adds will come; the rest goes by the entries there are
constexpr double spacing_horizon = 0.115;  // adds that a free slot waits for its use, as a part of the free slots

// A plan that moves more than it should is sought again on terms that count later adds for less and reach less far, a
// few times.
constexpr int32_t least_rules = 90;   // that always may be moved
constexpr int32_t rules_divisor = 11; // and this part of a large table
constexpr int32_t retries = 20;
constexpr float retry_worth = 0.75F;

// How far a search looks. Behind a free slot it stops after so much of the work that one add does for those to come,
// which is more where free slots are far apart. Pieces of single entries are a part of that distance, and grow where
// they are many.
constexpr float least_weight_behind_free = 64; // in rules
constexpr float most_weight_behind_free = 400;
constexpr float distances_behind_free = 3; // mean distances between free slots
constexpr int32_t pieces_behind_free = 40;
constexpr int32_t least_piece_size = 8;
constexpr int32_t pieces_per_distance = 6;
constexpr int32_t exact_pieces = 64;         // after so many without a free slot
constexpr int32_t growth_divisor = 4;        // pieces grow to this part of the way come so far
constexpr int32_t max_pieces_per_side = 160; // the last of them, if need be, is all that is left to the free slot

constexpr float unreachable = std::numeric_limits<float>::infinity();

enum side_type : size_t { above, below };

} // namespace

plan_search::plan_search(int32_t table_size) {
    const auto most = static_cast<size_t>(std::min(2 * max_pieces_per_side, table_size));
    pieces_.reserve(most);
    choices_.reserve(most);
    weights_before_.reserve(most + 2);
    imbalances_.resize(most);
    came_from_.resize(most);
    places_ = std::make_unique_for_overwrite<place[]>(most + 1);
}

// ---- pieces --------------------------------------------------------------------------------------------------------

plan_search::balance::balance(const shadow &table)
    : free_slots(table.free_count() - 1), margin(std::min(most_margin, end_margin / (free_slots + 1))),
      ranks(table, table.count() + 1, most_priority_part) {}

// The free slots before a rank ought to be in proportion to the adds that will come before it, and those come with the
// variance of a binomial distribution.
void plan_search::weigh(const shadow &table, const balance &even, int32_t free_before, double live_before,
                        piece *each) {
    const double priority = (table.priority(each->begin) + 0.0 + table.priority(each->end - 1)) / 2;
    const double rank = even.ranks.rank_of(live_before + each->size() / 2.0, priority);
    const double share = even.free_slots * std::clamp((rank - even.margin) / (1 - 2 * even.margin), 0.0, 1.0);
    each->surplus = static_cast<float>(free_before - share);
    each->deviation = static_cast<float>(std::sqrt(even.free_slots * rank * std::max(0.0, 1 - rank) + least_variance));
    each->weight = static_cast<float>(each->is_level ? std::min(each->size(), hop_weight) : each->size());
}

// The piece that begins at the live slot `from` and goes towards `stop`, the next slot that is free or off the table: a
// level, or up to about `single_limit` entries of levels that are too small to be worth a hop.
plan_search::piece plan_search::piece_towards(const shadow &table, int32_t from, int32_t stop, int32_t single_limit,
                                              int32_t least_level) {
    const int32_t direction = stop < from ? -1 : 1;
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
        : distance_(table.size() / table.free_count()),
          weight_behind_free_(std::clamp(distances_behind_free * static_cast<float>(distance_),
                                         least_weight_behind_free, most_weight_behind_free)),
          piece_size_(std::max(least_piece_size, distance_ / pieces_per_distance)) {}

    bool goes_on() const {
        return count_ < max_pieces_per_side && (!passed_free_ || (count_ < count_at_free_ + pieces_behind_free &&
                                                                  weight_ <= weight_at_free_ + weight_behind_free_));
    }
    int32_t single_limit() const {
        if (is_last_before_free()) {
            return any_size;
        }
        return count_ < exact_pieces ? piece_size_ : std::max(piece_size_, slots_ / growth_divisor);
    }
    int32_t least_level() const {
        return count_ < exact_pieces ? 2 : single_limit() / 2;
    }
    void add(int32_t slots, float weight) {
        ++count_;
        slots_ += slots;
        weight_ += weight;
    }
    void pass_free() {
        if (!passed_free_) {
            weight_at_free_ = weight_;
            count_at_free_ = count_;
            passed_free_ = true;
        }
    }

  private:
    static constexpr int32_t any_size = std::numeric_limits<int32_t>::max();

    // Pieces go on to the nearest free slot in any case: without it there might be no plan.
    bool is_last_before_free() const {
        return !passed_free_ && count_ == max_pieces_per_side - 1;
    }

    int32_t distance_; // between free slots, in the mean
    float weight_behind_free_;
    int32_t piece_size_;
    int32_t count_ = 0;
    int32_t slots_ = 0;
    float weight_ = 0;
    float weight_at_free_ = 0;
    int32_t count_at_free_ = 0;
    bool passed_free_ = false;
};

} // namespace

// Pieces from `last` towards the first slot.
void plan_search::collect_above(const shadow &table, int32_t last, const balance &even) {
    reach side(table);
    int32_t free_before = table.free_before(last + 1);
    int32_t stop = last < 0 ? -1 : table.prev_free(last);
    while (last >= 0 && side.goes_on()) {
        piece each = piece_towards(table, last, stop, side.single_limit(), side.least_level());
        weigh(table, even, free_before, each.begin - free_before, &each);
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
        piece each = piece_towards(table, first, stop, side.single_limit(), side.least_level());
        weigh(table, even, free_before - 1, each.begin - free_before + 1, &each);
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

// How far it is from the pieces to the free slots that no plan touches.
void plan_search::look_outside(const shadow &table) {
    weights_before_.assign(1, 0);
    for (const piece &each : pieces_) {
        weights_before_.push_back(weights_before_.back() + each.weight);
    }
    const int32_t before = pieces_.empty() ? -1 : pieces_.front().begin - pieces_.front().gap - 1;
    const int32_t behind = pieces_.empty() ? table.size() : pieces_.back().end + gap_behind_;
    const int32_t free_above = before < 0 ? -1 : table.prev_free(before);
    const int32_t free_below = behind >= table.size() ? table.size() : table.next_free(behind);
    weight_above_ = static_cast<float>(before - free_above);
    weights_before_.push_back(weights_before_.back() + static_cast<float>(free_below - behind));
    ends_outside_[above] = free_above < 0;
    ends_outside_[below] = free_below >= table.size();
}

// ---- the terms -----------------------------------------------------------------------------------------------------

namespace {

// Imbalance is worth little while a table of many levels is far from full, since most of it evens out by itself; all
// the more where entries are only replaced. The last few free slots are worth most. While the background steps keep
// free slots even, adds need not.
float imbalance_worth(const shadow &table, const add_habits &habits) {
    constexpr double worth = 0.4;
    constexpr double steepness = 4;
    constexpr double steepness_of_replacing = 10;
    constexpr double worth_of_last = 4;
    constexpr double background_part = 0.8;
    const double occupancy = static_cast<double>(table.count()) / table.size();
    const double few = 1 + worth_of_last * (1 - habits.replacing) / std::max(1, table.free_count() - 1);
    return static_cast<float>(worth * std::pow(occupancy, steepness + steepness_of_replacing * habits.replacing) * few *
                              (1 - background_part * habits.evened));
}

} // namespace

// A shift call costs its owner about as much as ten rules; planning with half of that, or less where hops are many,
// buys fewer rules for a few more calls, measured over whole fills.
plan_search::terms plan_search::terms_for(const shadow &table, const add_habits &habits) {
    constexpr int32_t any_number = std::numeric_limits<int32_t>::max();
    constexpr float worth = 0.25F; // of imbalance where entries share levels
    if (table.has_few_levels()) {
        return {2, worth, 0, 1, any_number};
    }
    if (table.level_count() * 4 <= table.count()) {
        return {2, worth, 0, max_displacement, std::max(least_rules, table.size() / rules_divisor)};
    }
    const int32_t free_slots = table.free_count() - 1;
    const double spacing = habits.scattered * spacing_horizon * free_slots / (table.count() + 1) / 4;
    return {5, imbalance_worth(table, habits), static_cast<float>(spacing), max_displacement, any_number};
}

// ---- the programme -------------------------------------------------------------------------------------------------

// What the free slots before a piece that are too many or too few will cost: every one that is not used up by chance
// has to cross the piece some day. Smooth in between, since both are guesses.
float plan_search::imbalance_price(const piece &each, int32_t displacement) const {
    const float surplus = each.surplus - static_cast<float>(displacement);
    return terms_.imbalance_worth * each.weight *
           (std::sqrt(surplus * surplus + each.deviation * each.deviation) - each.deviation);
}

// What the adds that will come between two free slots, in front of `from_piece` and of `to_piece`, have to cross: with
// a free slot at both ends half as much as with one. before_all and one more than there are places stand for the free
// slots outside.
float plan_search::spacing_price(int32_t from_piece, int32_t to_piece) const {
    const bool from_outside = from_piece == before_all;
    const bool to_outside = to_piece > piece_count();
    const float from = from_outside ? -weight_above_ : weights_before_[static_cast<size_t>(from_piece)];
    const float to = weights_before_[static_cast<size_t>(to_piece)];
    const bool one_sided = (from_outside && ends_outside_[above]) || (to_outside && ends_outside_[below]);
    return terms_.spacing_worth * (to - from) * (to - from) * (one_sided ? 2.0F : 1.0F);
}

// By how much the displacement rises in front of a piece, or behind the last, where no free slot is left there.
int32_t plan_search::rise_before(int32_t index) const {
    return index == room_index_ ? -1 : index == piece_count() ? gap_behind_ : pieces_[static_cast<size_t>(index)].gap;
}

// The prices once a piece, too, is displaced.
plan_search::prices plan_search::advance(int32_t index, int32_t displacement, const prices &before) const {
    const piece &each = pieces_[static_cast<size_t>(index)];
    const float imbalance = imbalances_[static_cast<size_t>(index)][index_of(displacement)];
    const float cheapest = std::min(before[at_rest], before[in_block]);
    if (displacement == 0) {
        return {cheapest + imbalance, unreachable};
    }
    const int32_t distance = std::abs(displacement);
    const bool can_hop = each.is_level && distance < each.size();
    const float opened = cheapest + terms_.call_price;
    return {can_hop ? opened + static_cast<float>(distance) + imbalance : unreachable,
            std::min(before[in_block], opened) + static_cast<float>(each.size()) + imbalance};
}

// The prices in front of a piece where the displacement rises, or falls for the new entry: no block goes on there.
plan_search::prices plan_search::cross(int32_t index, const prices &before) const {
    return rise_before(index) == 0 ? before : prices{std::min(before[at_rest], before[in_block]), unreachable};
}

plan_search::prices plan_search::prices_at(int32_t from_piece, int32_t displacement) const {
    if (from_piece == before_all) {
        return {0, unreachable};
    }
    const steps &left = places_[static_cast<size_t>(from_piece)].left;
    return {left[at_rest][index_of(displacement)].price, left[in_block][index_of(displacement)].price};
}

// The place in front of a piece gets a free slot, the first behind that of the run.
void plan_search::reach_place(int32_t index, int32_t displacement, const prices &price, const step &run) {
    const float spacing = spacing_price(run.from_piece, index);
    for (const mode last : {at_rest, in_block}) {
        step &best = places_[static_cast<size_t>(index)].reached[last][index_of(displacement)];
        if (price[last] + spacing < best.price) {
            best = {price[last] + spacing, run.from_piece, run.from_displacement, last};
        }
    }
}

// From a free slot in front of a piece to each place where the next one may be left, as long as the displacement that
// this gives the pieces can be had.
void plan_search::follow_run(int32_t from_piece, int32_t from_displacement) {
    prices price = prices_at(from_piece, from_displacement);
    step run = {price[at_rest], static_cast<int16_t>(from_piece), static_cast<int8_t>(from_displacement), at_rest};
    int32_t displacement = from_displacement;
    for (int32_t index = from_piece; index < piece_count(); ++index) {
        if (index != before_all) {
            price = advance(index, displacement, price);
        }
        reach_place(index + 1, displacement, price, run);
        const bool draws_from_own_level = is_split_ && index + 1 == room_index_;
        if (draws_from_own_level && displacement != 0 && displacement != 1) {
            return;
        }
        run.price = std::min(price[at_rest], price[in_block]);
        run.from_mode = price[at_rest] <= price[in_block] ? at_rest : in_block;
        displacement += rise_before(index + 1);
        price = cross(index + 1, price);
        if (run.price >= bound_ || std::abs(displacement) > reach_) {
            return;
        }
    }
    run.price += spacing_price(from_piece, piece_count() + 1);
    if (displacement == 0 && run.price < end_.price) { // behind the last piece nothing is displaced
        end_ = run;
    }
}

// For each displacement behind a place the cheapest one before it that leaves a free slot there. Entries of the new
// one's own level in the middle of its place stay: pieces can only draw away from them.
void plan_search::leave_place(int32_t index) {
    place &here = places_[static_cast<size_t>(index)];
    const bool is_split = is_split_ && index == room_index_;
    const int32_t rise = rise_before(index);
    step cheapest = {unreachable, 0, 0, at_rest};
    int32_t seen = max_displacement + 1; // displacements from here on are in `cheapest`
    for (int32_t displacement = max_displacement; displacement >= -max_displacement; --displacement) {
        const int32_t lowest = std::max(displacement + 1 - rise, is_split ? 0 : -max_displacement);
        while (seen > lowest) {
            --seen;
            for (const mode from : {at_rest, in_block}) {
                const step &before = here.reached[from][index_of(seen)];
                cheapest = before.price < cheapest.price ? before : cheapest;
            }
        }
        const size_t at = index_of(displacement);
        here.left[at_rest][at] = cheapest;
        here.left[in_block][at] = here.reached[in_block][at];
        if (is_split && displacement > 0) {
            here.left[at_rest][at].price = unreachable;
        }
        if (rise <= 0 || displacement == 0) {
            here.left[in_block][at].price = unreachable;
        }
    }
}

// The cheapest plan, if its price is below a bound.
void plan_search::search_below(float bound, int32_t reach) {
    constexpr step nowhere = {unreachable, 0, 0, at_rest};
    for (int32_t index = 0; index <= piece_count(); ++index) {
        for (auto &of_mode : places_[static_cast<size_t>(index)].reached) {
            of_mode.fill(nowhere);
        }
    }
    end_ = nowhere;
    bound_ = bound;
    reach_ = reach;
    follow_run(before_all, 0);
    for (int32_t index = 0; index <= piece_count(); ++index) {
        leave_place(index);
        for (int32_t displacement = -reach; displacement <= reach; ++displacement) {
            if (prices_at(index, displacement)[at_rest] < bound) {
                follow_run(index, displacement);
            }
        }
    }
}

// Prices never fall on the way, so what is dearer than a plan of short displacements, which is soon found, need not be
// followed to its end.
void plan_search::search() {
    for (size_t index = 0; index < pieces_.size(); ++index) {
        for (int32_t displacement = -terms_.reach; displacement <= terms_.reach; ++displacement) {
            imbalances_[index][index_of(displacement)] = imbalance_price(pieces_[index], displacement);
        }
    }
    search_below(unreachable, 1);
    if (terms_.reach > 1) {
        search_below(std::nextafter(end_.price, unreachable), terms_.reach);
    }
    trace_back();
}

void plan_search::trace_back() {
    choices_.resize(pieces_.size());
    step run = end_;
    for (int32_t end = piece_count(); end > 0;) {
        const mode entered = trace_run(run, end);
        if (run.from_piece == before_all) {
            return;
        }
        end = run.from_piece;
        run = places_[static_cast<size_t>(end)].left[entered][index_of(run.from_displacement)];
    }
}

// The choices for the pieces of one run, up to `end`; returns the mode in which it was entered.
plan_search::mode plan_search::trace_run(const step &run, int32_t end) {
    prices price = prices_at(run.from_piece, run.from_displacement);
    int32_t displacement = run.from_displacement;
    const int32_t first = std::max<int32_t>(run.from_piece, 0);
    for (int32_t index = first; index < end; ++index) {
        const mode cheaper = price[at_rest] <= price[in_block] ? at_rest : in_block;
        if (index != run.from_piece) {
            displacement += rise_before(index);
            price = cross(index, price);
        }
        const bool goes_on = price[in_block] <= std::min(price[at_rest], price[in_block]) + terms_.call_price;
        came_from_[static_cast<size_t>(index)] = {cheaper, goes_on ? in_block : cheaper};
        choices_[static_cast<size_t>(index)].displacement = static_cast<int8_t>(displacement);
        price = advance(index, displacement, price);
    }
    mode last = run.from_mode;
    for (int32_t index = end; index-- > first;) {
        choices_[static_cast<size_t>(index)].in = last;
        last = came_from_[static_cast<size_t>(index)][last];
    }
    return last;
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
    while (end < pieces_.size() && end != static_cast<size_t>(room_index_) && choices_[end].in == in_block &&
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

free_run plan_search::make_room(const shadow &table, const span &room, const add_habits &habits,
                                std::vector<shift> *shifts) {
    const int32_t above_end = room.has_entries() ? room.first : room.below;
    const int32_t below_begin = room.has_entries() ? room.last + 1 : room.below;
    const balance even(table);
    pieces_.clear();
    is_split_ = room.has_entries();
    collect_above(table, above_end - 1, even);
    room_index_ = piece_count();
    collect_below(table, below_begin, even);

    look_outside(table);

    terms_ = terms_for(table, habits);
    search();
    for (int32_t retry = 0; retry < retries && rules_moved() > terms_.rules; ++retry) {
        terms_.imbalance_worth *= retry_worth;
        search();
    }
    append_shifts(shifts);

    const int32_t ahead = room_index_ == 0 ? 0 : choices_[static_cast<size_t>(room_index_) - 1].displacement;
    const int32_t behind = room_index_ == piece_count() ? 0 : choices_[static_cast<size_t>(room_index_)].displacement;
    if (!room.has_entries()) {
        return {room.below - ahead, room.below - behind};
    }
    return ahead > 0 ? free_run{above_end - 1, above_end} : free_run{below_begin, below_begin + 1};
}

} // namespace kr_soft::psort
