/*
 * The search for the cheapest way to make room where there is none.
 *
 * Around the place of the new entry the live slots are cut into pieces: a level, or a few levels of one entry each,
 * without a free slot inside. A plan gives every piece a displacement; a piece that is displaced is part of a block
 * shift together with its neighbours of the same displacement, or, where it is one level, hops: just as many of its
 * entries as slots of displacement go from one of its ends to the other. A dynamic programme over the pieces, with the
 * displacement and "in a block or not" as its state, finds the plan of the least price exactly: calls, rules moved, and
 * what the free slots that it leaves unevenly spread are expected to cost later.
 */
#ifndef KR_SOFT_PSORT_PLAN_SEARCH_H
#define KR_SOFT_PSORT_PLAN_SEARCH_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "psort/shadow.h"

namespace kr_soft::psort {

// Free slots [begin, end).
struct free_run {
    int32_t begin;
    int32_t end;
};

class plan_search {
  public:
    plan_search() = default;
    explicit plan_search(int32_t table_size);

    // Appends the shifts, in the order of their execution, after which the run that is returned is free where an entry
    // of `room` may go. There is a free slot in the table and none in `room`.
    free_run make_room(const shadow &table, const span &room, std::vector<shift> *shifts);

    size_t max_shifts() const {
        return pieces_.capacity();
    }

  private:
    static constexpr int32_t max_displacement = 24; // towards either side
    static constexpr size_t displacement_count = 2 * max_displacement + 1;

    // Live slots [begin, end), all of them, and how the free slots before them are out of balance.
    struct piece {
        int32_t begin;
        int32_t end;
        int32_t gap;     // free slots between the piece before and this one
        bool is_level;   // more than one entry, all of one priority
        float weight;    // what a free slot pays to cross it, in rules
        float surplus;   // free slots before it, less its share of all
        float deviation; // of that number, to be expected from the adds still to come

        int32_t size() const {
            return end - begin;
        }
    };

    enum mode : uint8_t { at_rest, in_block, mode_count }; // a hop leaves a piece at rest

    // The cheapest way to have reached a piece in a state, and the state of the piece before that it came from.
    struct step {
        float price;
        int8_t from_displacement;
        mode from_mode;
    };
    using arrivals = std::array<step, displacement_count>;
    using steps = std::array<arrivals, mode_count>;

    struct choice {
        int8_t displacement;
        mode in;
    };

    // What plans are compared by.
    struct terms {
        float call_price;      // of a shift call, in rules moved
        float imbalance_worth; // of a free slot too many or too few
        int32_t reach;         // the farthest displacement
        int32_t rules;         // that an add should move at most
    };

    // How free slots ought to be spread, for this table once the new entry is in.
    struct balance {
        explicit balance(const shadow &table);
        void weigh(piece *each, int32_t free_before, double live_before) const;

        double free_slots;
        double live_entries;
        double margin;
    };

    static size_t index_of(int32_t displacement) {
        return static_cast<size_t>(displacement + max_displacement);
    }
    static piece piece_towards(const shadow &table, int32_t from, int32_t stop, int32_t single_limit);
    static terms terms_for(const shadow &table);
    float imbalance_price(const piece &each, int32_t displacement) const;

    void collect_above(const shadow &table, int32_t last, const balance &even);
    void collect_below(const shadow &table, int32_t first, const balance &even);
    void best_arrivals(const steps &before, int32_t gap, arrivals *best) const;
    void best_arrivals_at_room(const steps &before, bool is_split, arrivals *best) const;
    void advance(const piece &each, bool may_continue, const arrivals &best, const steps &before, steps *after) const;
    void search(bool is_split);
    int32_t rules_moved() const;
    void trace_back(const step &end);
    void append_shifts(std::vector<shift> *shifts) const;
    size_t append_shift(size_t index, std::vector<shift> *shifts) const;

    terms terms_{};
    std::vector<piece> pieces_;      // by slot
    size_t room_index_ = 0;          // the new entry goes before this piece
    int32_t gap_behind_ = 0;         // free slots behind the last piece
    std::unique_ptr<steps[]> table_; // [piece + 1]; [0] is the state before all pieces
    std::vector<choice> choices_;    // [piece]
};

} // namespace kr_soft::psort

#endif
