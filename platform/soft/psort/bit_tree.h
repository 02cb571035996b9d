/*
 * A set of small numbers that answers "the next member from here on" and "the last member up to here" in a few loads,
 * whatever its size, and "how many below" in not many more: a bitmap under bitmaps of its non-empty words, 64 to one,
 * each word with the number of members under it. It allocates once, when it is made, and knows nothing of tables; the
 * shadow of a pSort table keeps one for its live slots and one for its free ones.
 */
#ifndef KR_SOFT_PSORT_BIT_TREE_H
#define KR_SOFT_PSORT_BIT_TREE_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kr_soft::psort {

class bit_tree {
  public:
    // Levels of 64 each: numbers below 64^4, about 16.7 million.
    static constexpr int32_t max_size = 1 << 24;

    bit_tree() = default;

    // An empty set for numbers in [0, size).
    explicit bit_tree(int32_t size) : size_(size) {
        for (auto words = static_cast<size_t>(size);;) {
            words = (words + 63) / 64;
            levels_[depth_].assign(words, 0);
            counts_[depth_++].assign(words, 0);
            if (words == 1) {
                break;
            }
        }
    }

    bool contains(int32_t number) const {
        return (levels_[0][word_of(number)] >> (number & 63) & 1) != 0;
    }

    // `number` is no member yet.
    void insert(int32_t number) {
        for (size_t level = 0; level < depth_; ++level, number >>= 6) {
            levels_[level][word_of(number)] |= bit(number);
            ++counts_[level][word_of(number)];
        }
    }

    // `number` is a member.
    void erase(int32_t number) {
        for (size_t level = 0; level < depth_; ++level, number >>= 6) {
            const bool is_empty_below = level == 0 || levels_[level - 1][static_cast<size_t>(number)] == 0;
            levels_[level][word_of(number)] &= is_empty_below ? ~bit(number) : ~uint64_t{0};
            --counts_[level][word_of(number)];
        }
    }

    // The first member at or behind `from`, or the size when there is none. `from` may be 0 to size.
    int32_t next(int32_t from) const {
        if (from >= size_) {
            return size_;
        }
        for (size_t level = 0; level < depth_; ++level) {
            const size_t index = word_of(from);
            if (index >= levels_[level].size()) {
                return size_;
            }
            const uint64_t rest = levels_[level][index] & (~uint64_t{0} << (from & 63));
            if (rest != 0) {
                return descend(level, index, rest, [](uint64_t word) { return std::countr_zero(word); });
            }
            from = (from >> 6) + 1;
        }
        return size_;
    }

    // The last member at or before `from`, or -1 when there is none. `from` may be -1 to size - 1.
    int32_t prev(int32_t from) const {
        for (size_t level = 0; level < depth_ && from >= 0; ++level) {
            const size_t index = word_of(from);
            const uint64_t rest = levels_[level][index] & (~uint64_t{0} >> (63 - (from & 63)));
            if (rest != 0) {
                return descend(level, index, rest, [](uint64_t word) { return 63 - std::countl_zero(word); });
            }
            from = (from >> 6) - 1;
        }
        return -1;
    }

    // Members below `end`, which may be 0 to size: those in the same word, and at each level those under the words of
    // the same group before it.
    int32_t count_below(int32_t end) const {
        int32_t count = (end & 63) == 0 ? 0 : std::popcount(levels_[0][word_of(end)] & (bit(end) - 1));
        for (size_t level = 0; level < depth_; ++level) {
            end >>= 6;
            for (auto index = static_cast<size_t>(end & ~63); index < static_cast<size_t>(end); ++index) {
                count += counts_[level][index];
            }
        }
        return count;
    }

  private:
    static size_t word_of(int32_t number) {
        return static_cast<size_t>(number) >> 6;
    }
    static uint64_t bit(int32_t number) {
        return uint64_t{1} << (number & 63);
    }

    // From a chosen bit of an upper level down to the member that it stands for, picking one bit of each word.
    template <typename Pick> int32_t descend(size_t level, size_t index, uint64_t word, Pick pick) const {
        size_t number = index * 64 + static_cast<size_t>(pick(word));
        while (level > 0) {
            word = levels_[--level][number];
            number = number * 64 + static_cast<size_t>(pick(word));
        }
        return static_cast<int32_t>(number);
    }

    int32_t size_ = 0;
    size_t depth_ = 0;
    std::array<std::vector<uint64_t>, 4> levels_;
    std::array<std::vector<int32_t>, 4> counts_; // [level][word], members under it
};

} // namespace kr_soft::psort

#endif
