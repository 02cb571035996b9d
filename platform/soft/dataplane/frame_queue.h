/*
 * A bounded queue of frames that allocates once, when it is made: the queue of a host-interface descriptor and of a
 * port in memory.
 *
 * The room for the frames is reserved address space that the system backs only where it was touched, and the slot
 * that was freed last is used next, so that a queue that is mostly empty stays within a page or two of memory. Not
 * safe from several threads: the owner has a lock.
 */
#ifndef KR_SOFT_FRAME_QUEUE_H
#define KR_SOFT_FRAME_QUEUE_H

#include <cstdint>
#include <cstring>
#include <new>

#include <sys/mman.h>

namespace kr_soft {

template <typename Tag, uint32_t Capacity, uint32_t SlotSize> class frame_queue {
  public:
    struct entry {
        Tag tag;
        uint32_t size;
        uint32_t slot;
    };

    frame_queue() {
        void *room =
            mmap(nullptr, room_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (room == MAP_FAILED) {
            throw std::bad_alloc();
        }
        slots_ = static_cast<uint8_t *>(room);
        for (uint32_t i = 0; i < Capacity; i++) {
            free_slots_[i] = Capacity - 1 - i;
        }
    }
    ~frame_queue() {
        munmap(slots_, room_size);
    }
    frame_queue(const frame_queue &) = delete;
    frame_queue &operator=(const frame_queue &) = delete;

    bool empty() const {
        return count_ == 0;
    }
    uint32_t room() const {
        return Capacity - count_;
    }

    // There must be room, and `size` not above SlotSize.
    void push(const Tag &tag, const void *data, uint32_t size) {
        const uint32_t slot = free_slots_[Capacity - 1 - count_];
        entries_[(first_ + count_) % Capacity] = {tag, size, slot};
        if (size > 0) {
            std::memcpy(slots_ + static_cast<size_t>(slot) * SlotSize, data, size);
        }
        count_++;
    }

    // The oldest entry and its bytes; the queue must not be empty.
    const entry &front() const {
        return entries_[first_];
    }
    const uint8_t *front_data() const {
        return slots_ + static_cast<size_t>(front().slot) * SlotSize;
    }

    void pop() {
        count_--;
        free_slots_[Capacity - 1 - count_] = entries_[first_].slot;
        first_ = (first_ + 1) % Capacity;
    }

  private:
    static constexpr size_t room_size = static_cast<size_t>(Capacity) * SlotSize;

    uint8_t *slots_ = nullptr;
    entry entries_[Capacity];
    uint32_t free_slots_[Capacity]; // the first Capacity - count_ are free
    uint32_t first_ = 0;
    uint32_t count_ = 0;
};

} // namespace kr_soft

#endif
