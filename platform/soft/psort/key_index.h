/*
 * From the key of an entry to the slot where it sits: an open-addressing hash of slots with linear probing. The keys
 * themselves stay in the slots, so a cell is four bytes; every call is given the array of keys by slot. Sized once for
 * the fullest table and never more than half full, so it neither grows nor allocates afterwards.
 */
#ifndef KR_SOFT_PSORT_KEY_INDEX_H
#define KR_SOFT_PSORT_KEY_INDEX_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kr_soft::psort {

class key_index {
  public:
    static constexpr int32_t not_found = -1;

    key_index() = default;
    explicit key_index(int32_t capacity)
        : cells_(std::bit_ceil(static_cast<size_t>(capacity) * 2), not_found), mask_(cells_.size() - 1) {}

    // The slot of `key`, or not_found.
    int32_t find(uint64_t key, const std::vector<uint64_t> &keys) const {
        return cells_[cell_of(key, keys)];
    }

    // `key` is not present yet.
    void insert(uint64_t key, int32_t slot, const std::vector<uint64_t> &keys) {
        cells_[cell_of(key, keys)] = slot;
    }

    // `key` is present and keys[] still has it at its old slot.
    void move(uint64_t key, int32_t slot, const std::vector<uint64_t> &keys) {
        cells_[cell_of(key, keys)] = slot;
    }

    // Closes the hole by moving later cells of the cluster up, so that no marker of the deleted ever stays behind.
    void erase(uint64_t key, const std::vector<uint64_t> &keys) {
        size_t hole = cell_of(key, keys);
        for (size_t cell = (hole + 1) & mask_; cells_[cell] != not_found; cell = (cell + 1) & mask_) {
            const size_t home = home_of(keys[static_cast<size_t>(cells_[cell])]);
            if (((cell - home) & mask_) >= ((cell - hole) & mask_)) {
                cells_[hole] = cells_[cell];
                hole = cell;
            }
        }
        cells_[hole] = not_found;
    }

  private:
    // Keys may be consecutive numbers or anything else; the finalizer of MurmurHash3 spreads all of them.
    size_t home_of(uint64_t key) const {
        key = (key ^ (key >> 33)) * 0xff51afd7ed558ccdU;
        key = (key ^ (key >> 33)) * 0xc4ceb9fe1a85ec53U;
        return static_cast<size_t>(key ^ (key >> 33)) & mask_;
    }

    // The cell that holds `key`, or the free one where it would go.
    size_t cell_of(uint64_t key, const std::vector<uint64_t> &keys) const {
        size_t cell = home_of(key);
        while (cells_[cell] != not_found && keys[static_cast<size_t>(cells_[cell])] != key) {
            cell = (cell + 1) & mask_;
        }
        return cell;
    }

    std::vector<int32_t> cells_;
    size_t mask_ = 0;
};

} // namespace kr_soft::psort

#endif
