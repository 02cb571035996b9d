/*
 * How far to go for free slots: a pull pays for its calls and for every live slot that it passes, and is worth the adds
 * that will use what it brings. With a chance that falls off with each further slot, which is what is known of a
 * sequence's end, the pull of the least price for each slot that is used is the one to make.
 */
#include "psort/pull.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kr_soft::psort {
namespace {

// No pull brings more than this many times what is expected. What the sequence leaves is of use to those that follow.
constexpr double most_expected = 8;

} // namespace

void pull::side::add(int32_t begin, int32_t live_slots, int32_t free_slots) {
    stretches[count] = {begin, live_slots, free_slots, rules_with(count) + live_slots, free_with(count) + free_slots};
    ++count;
}

// Both sides, up to where there are `enough` free slots on each.
void pull::collect(const shadow &table, int32_t boundary, int32_t enough) {
    above_.count = 0;
    for (int32_t last = boundary - 1;
         last >= 0 && above_.count < max_runs && above_.free_with(above_.count) < enough;) {
        const int32_t free_last = table.prev_free(last);
        if (free_last < 0) {
            break;
        }
        const int32_t next = table.prev_live(free_last);
        above_.add(free_last + 1, last - free_last, free_last - next);
        last = next;
    }
    below_.count = 0;
    for (int32_t first = boundary;
         first < table.size() && below_.count < max_runs && below_.free_with(below_.count) < enough;) {
        const int32_t free_first = table.next_free(first);
        if (free_first == table.size()) {
            break;
        }
        const int32_t next = table.next_live(free_first);
        below_.add(first, free_first - first, next - free_first);
        first = next;
    }
}

pull::choice pull::cheapest(double expected) const {
    choice best = {0, 0};
    double best_price = std::numeric_limits<double>::infinity();
    for (size_t above = 0; above <= above_.count; ++above) {
        for (size_t below = above == 0 ? 1 : 0; below <= below_.count; ++below) {
            const double free_slots = above_.free_with(above) + below_.free_with(below);
            const double used = expected * (1 - std::exp(-free_slots / expected));
            const double cost =
                call_cost * static_cast<double>(above + below) + above_.rules_with(above) + below_.rules_with(below);
            if (cost < best_price * used) {
                best = {above, below};
                best_price = cost / used;
            }
        }
    }
    return best;
}

// From the farthest block inward, each into the free slots that it borders on and those that the one before it has
// left. `surplus` slots of the farthest run stay where they are. Direction -1 is towards the first slot.
void pull::append(const side &from, size_t taken, int32_t surplus, int32_t direction, std::vector<shift> *shifts) {
    int32_t distance = -surplus;
    for (size_t index = taken; index-- > 0;) {
        const stretch &each = from.stretches[index];
        distance += each.free_slots;
        shifts->push_back({each.begin, each.begin + direction * distance, each.live_slots});
    }
}

free_run pull::plan(const shadow &table, int32_t boundary, double expected, std::vector<shift> *shifts) {
    const auto enough = static_cast<int32_t>(std::min(most_expected * expected, static_cast<double>(table.size())));
    collect(table, boundary, enough);
    const choice best = cheapest(expected);
    const int32_t surplus = std::max(0, above_.free_with(best.above) + below_.free_with(best.below) - enough);
    // The surplus stays on one side, and a slot of the farthest run is always taken.
    const auto stays = [&](const side &from, size_t taken) {
        return taken == 0 ? 0 : std::min(surplus, from.stretches[taken - 1].free_slots - 1);
    };
    const int32_t stays_above = stays(above_, best.above);
    const int32_t stays_below = stays_above == 0 ? stays(below_, best.below) : 0;
    append(above_, best.above, stays_above, -1, shifts);
    append(below_, best.below, stays_below, 1, shifts);
    return {boundary - above_.free_with(best.above) + stays_above,
            boundary + below_.free_with(best.below) - stays_below};
}

} // namespace kr_soft::psort
