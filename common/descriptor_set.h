/*
 * A set of descriptors for select() that is safe with any descriptor number.
 *
 * fd_set ends at 1024 and its macros write past it. The kernel itself takes a longer bit map, so this set brings one
 * for as many descriptors as Linux gives a process by default at the most, on the stack, of which only the part up to
 * the highest descriptor is ever touched. A descriptor beyond even that is refused by add().
 */
#ifndef KR_COMMON_DESCRIPTOR_SET_H
#define KR_COMMON_DESCRIPTOR_SET_H

#include <sys/select.h>
#include <sys/time.h>

#include <cstdint>

namespace kr {

class descriptor_set {
  public:
    static constexpr int max_descriptors = 1 << 20;

    descriptor_set() noexcept {} // the words are cleared as they come into use
    descriptor_set(const descriptor_set &) = delete;
    descriptor_set &operator=(const descriptor_set &) = delete;

    // False for a descriptor that no set can hold; the set is then unchanged.
    [[nodiscard]] bool add(int fd) noexcept {
        if (fd < 0 || fd >= max_descriptors) {
            return false;
        }
        while (words_used_ <= fd / bits_per_word) {
            words_[words_used_++] = 0;
        }
        words_[fd / bits_per_word] |= bit_of(fd);
        highest_ = fd > highest_ ? fd : highest_;
        return true;
    }

    // After wait(): whether the descriptor is readable.
    [[nodiscard]] bool contains(int fd) const noexcept {
        return fd >= 0 && fd / bits_per_word < words_used_ && (words_[fd / bits_per_word] & bit_of(fd)) != 0;
    }

    // select() for reading; NULL waits without limit. What it returns; the set then holds the readable descriptors, and
    // is as it was when it failed.
    int wait(struct timeval *timeout) noexcept {
        return ::select(highest_ + 1, reinterpret_cast<fd_set *>(words_), nullptr, nullptr, timeout);
    }

  private:
    using word = unsigned long; // the unit of the kernel's bit map
    static constexpr int bits_per_word = 8 * static_cast<int>(sizeof(word));
    static word bit_of(int fd) noexcept {
        return word{1} << (fd % bits_per_word);
    }

    int highest_ = -1;
    int words_used_ = 0;
    word words_[max_descriptors / bits_per_word];
};

} // namespace kr

#endif
