/*
 * The search for the cheapest way to make room where there is none.
 *
 * Around the place of the new entry the live slots are cut into pieces: a level, or a few levels of one entry each,
 * without a free slot inside. A plan gives every piece a displacement; a piece that is displaced is part of a block
 * shift together with its neighbours of the same displacement, or, where it is one level, hops: just as many of its
 * entries as slots of displacement go from one of its ends to the other. Between two free slots that a plan leaves, the
 * displacement of one piece settles that of the next; so a dynamic programme from each free slot to the next, over all
 * places and displacements, finds the plan of the least price exactly: calls, rules moved, and what the free slots that
 * it leaves are expected to cost later, for being on the wrong side and for being far apart.
 */
#ifndef KR_SOFT_PSORT_PLAN_SEARCH_H
#define KR_SOFT_PSORT_PLAN_SEARCH_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "psort/rank_guess.h"
#include "psort/shadow.h"

namespace kr_soft::psort {

// Free slots [begin, end).
struct free_run {
    int32_t begin;
    int32_t end;
};

// How adds have come of late, as parts of all of them, the latest counting most.
struct add_habits {
    double replacing = 0; // for entries that had been deleted
    double scattered = 1; // far from the one before
    double evened = 0;    // soon after the background steps had come to their end
};

class plan_search {
  public:
    plan_search() = default;
    explicit plan_search(int32_t table_size);

    // Appends the shifts, in the order of their execution, after which the run that is returned is free where an entry
    // of `room` may go. There is a free slot in the table and none in `room`.
    free_run make_room(const shadow &table, const span &room, const add_habits &habits, std::vector<shift> *shifts);

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

    // The cheapest way so far to a state, and the run of pieces that ends there: its first piece with the displacement
    // of that, and the mode of its last piece.
    struct step {
        float price;
        int16_t from_piece;
        int8_t from_displacement;
        mode from_mode;
    };
    using steps = std::array<std::array<step, displacement_count>, mode_count>;

    // A place in front of a piece where a plan may leave a free slot.
    struct place {
        steps reached; // by displacement and mode of the piece before
        steps left;    // by displacement of the piece behind, and whether it goes on with the block of the one before
    };

    // While a run is followed: the price with its latest piece in either mode.
    using prices = std::array<float, mode_count>;

    struct choice {
        int8_t displacement;
        mode in;
    };

    // What plans are compared by.
    struct terms {
        float call_price;      // of a shift call, in rules moved
        float imbalance_worth; // of a free slot too many or too few
        float spacing_worth;   // of the way of a later add to the next free slot
        int32_t reach;         // the farthest displacement
        int32_t rules;         // that an add should move at most
    };

    // How free slots ought to be spread, for this table once the new entry is in.
    struct balance {
        explicit balance(const shadow &table);

        double free_slots;
        double margin; // at the ends of the table, as a part of the entries
        rank_guess ranks;
    };

    static constexpr int32_t before_all = -1; // the "piece" that the first run starts with
    static size_t index_of(int32_t displacement) {
        return static_cast<size_t>(displacement + max_displacement);
    }
    static piece piece_towards(const shadow &table, int32_t from, int32_t stop, int32_t single_limit,
                               int32_t least_level);
    static terms terms_for(const shadow &table, const add_habits &habits);
    int32_t piece_count() const {
        return static_cast<int32_t>(pieces_.size());
    }

    static void weigh(const shadow &table, const balance &even, int32_t free_before, double live_before, piece *each);
    void collect_above(const shadow &table, int32_t last, const balance &even);
    void collect_below(const shadow &table, int32_t first, const balance &even);
    void look_outside(const shadow &table);

    float imbalance_price(const piece &each, int32_t displacement) const;
    float spacing_price(int32_t from_piece, int32_t to_piece) const;
    int32_t rise_before(int32_t index) const;
    prices advance(int32_t index, int32_t displacement, const prices &before) const;
    prices cross(int32_t index, const prices &before) const;
    prices prices_at(int32_t from_piece, int32_t displacement) const;
    void reach_place(int32_t index, int32_t displacement, const prices &price, const step &run);
    void follow_run(int32_t from_piece, int32_t from_displacement);
    void leave_place(int32_t index);
    void search_below(float bound, int32_t reach);
    void search();
    int32_t rules_moved() const;
    void trace_back();
    mode trace_run(const step &run, int32_t end);
    void append_shifts(std::vector<shift> *shifts) const;
    size_t append_shift(size_t index, std::vector<shift> *shifts) const;

    terms terms_{};
    float bound_ = 0;                   // no plan of this price or more is sought
    int32_t reach_ = 0;                 // nor one of a farther displacement
    std::vector<piece> pieces_;         // by slot
    int32_t room_index_ = 0;            // the new entry goes before this piece
    bool is_split_ = false;             // with entries of its own level, which stay
    int32_t gap_behind_ = 0;            // free slots behind the last piece
    std::vector<float> weights_before_; // [piece], at the end of all and at the nearest free slot below them
    float weight_above_ = 0;            // from the nearest free slot above the pieces to them
    bool ends_outside_[2] = {};         // that there is no free slot above or below them, but the end of the table
    std::unique_ptr<place[]> places_;   // [piece], and one behind the last
    std::vector<std::array<float, displacement_count>> imbalances_; // [piece], the price by displacement
    step end_{};                                                    // of the cheapest plan
    std::vector<choice> choices_;                                   // [piece]
    std::vector<std::array<mode, mode_count>> came_from_;           // [piece], while a run is traced
};

} // namespace kr_soft::psort

#endif
