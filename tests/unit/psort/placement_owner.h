/*
 * The owner of a pSort table, for tests and benchmarks: a hardware table in miniature that learns of moves only through
 * the notifications, refuses what a device or a rule database would refuse, and knows independently of the library what
 * must be where. It shares no code with the library.
 */
#ifndef KR_TESTS_PSORT_PLACEMENT_OWNER_H
#define KR_TESTS_PSORT_PLACEMENT_OWNER_H

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "kr_psort.h"

namespace kr_test {

class placement_owner {
  public:
    explicit placement_owner(uint32_t size) : slots_(size) {}

    // Attributes like those of the flow table, for this owner.
    psort_table_attributes attributes() {
        psort_table_attributes made{};
        made.table_size = static_cast<uint32_t>(slots_.size());
        made.delta_size = 15;
        made.max_priority = 65535;
        made.min_priority = 0;
        made.almost_full_percent = 100;
        made.almost_empty_percent = 0;
        made.cookie = reinterpret_cast<uintptr_t>(this);
        made.notification_callback = &placement_owner::on_notification;
        return made;
    }

    // ---- what the owner is told ----

    void added(const psort_entry &entry) {
        if (put(entry)) {
            check_order(entry.index, entry.index + 1);
        }
    }

    // Many since the last shift, looked at together.
    void added(const std::vector<psort_entry> &entries) {
        for (const psort_entry &entry : entries) {
            put(entry);
        }
        check_order(0, slots_.size());
    }

    void deleted(uint64_t key) {
        slots_[where_.at(key)].live = false;
        where_.erase(key);
    }

    void cleared() {
        std::fill(slots_.begin(), slots_.end(), slot{});
        where_.clear();
    }

    // ---- what the owner does to the library ----

    // The shift notification after `successes` more ones fails with `status`, and so do all behind it until heal().
    void fail_shifts_after(uint64_t successes, kr_utils_status status) {
        fail_armed_ = true;
        fail_after_ = successes;
        fail_status_ = status;
    }
    void heal() {
        fail_armed_ = false;
    }
    void fail_thresholds_with(kr_utils_status status) {
        threshold_status_ = status;
    }

    // ---- what the owner has seen ----

    uint64_t shift_calls() const {
        return shift_calls_;
    } // that succeeded
    uint64_t rules_moved() const {
        return rules_moved_;
    }
    uint64_t failed_calls() const {
        return failed_calls_;
    }
    uint64_t almost_full_calls() const {
        return almost_full_calls_;
    }
    uint64_t almost_empty_calls() const {
        return almost_empty_calls_;
    }
    uint32_t count() const {
        return static_cast<uint32_t>(where_.size());
    }
    bool has(uint64_t key) const {
        return where_.count(key) != 0;
    }
    const std::vector<psort_notification_data> &last_shifts() const {
        return last_shifts_;
    }
    void forget_shifts() {
        last_shifts_.clear();
    }
    // The keys by slot, 0 where a slot is free (tests number keys from 1).
    std::vector<uint64_t> layout() const {
        std::vector<uint64_t> keys;
        for (const slot &each : slots_) {
            keys.push_back(each.live ? each.key : 0);
        }
        return keys;
    }

    // Every complaint so far, of everything that was checked as it happened; empty when all is well.
    const std::string &complaints() const {
        return complaints_;
    }

    // Looks at every slot and every entry once more.
    std::string check_all() {
        check_order(0, slots_.size());
        size_t live = 0;
        for (size_t index = 0; index < slots_.size(); ++index) {
            live += slots_[index].live ? 1 : 0;
            if (slots_[index].live && (!has(slots_[index].key) || where_.at(slots_[index].key) != index)) {
                complain("an entry is not where it should be");
            }
        }
        if (live != where_.size()) {
            complain("entries lost or doubled");
        }
        return complaints_;
    }

  private:
    struct slot {
        uint64_t key = 0;
        uint32_t priority = 0;
        bool live = false;
    };

    bool put(const psort_entry &entry) {
        if (entry.index >= slots_.size()) {
            complain("entry placed behind the end of the table");
            return false;
        }
        if (slots_[entry.index].live) {
            complain("entry placed on a live one");
        }
        slots_[entry.index] = {entry.key, entry.priority, true};
        where_[entry.key] = entry.index;
        return true;
    }

    static kr_utils_status on_notification(uint32_t type, psort_notification_data *data, void *context) {
        auto *const self = static_cast<placement_owner *>(context);
        switch (type) {
        case PSORT_TABLE_ALMOST_FULL:
            ++self->almost_full_calls_;
            return self->threshold_status_;
        case PSORT_TABLE_ALMOST_EMPTY:
            ++self->almost_empty_calls_;
            return self->threshold_status_;
        case PSORT_TABLE_SHIFT:
            return self->move_block(*data);
        default:
            self->complain("notification of an unknown type");
            return KR_UTILS_STATUS_ERROR;
        }
    }

    kr_utils_status move_block(const psort_notification_data &move) {
        if (fail_armed_ && fail_after_ == 0) {
            ++failed_calls_;
            return fail_status_;
        }
        fail_after_ -= fail_armed_ ? 1 : 0;
        if (move.size == 0 || move.old_index == move.new_index) {
            complain("a shift that moves nothing");
        }
        if (uint64_t{move.old_index} + move.size > slots_.size() ||
            uint64_t{move.new_index} + move.size > slots_.size()) {
            complain("a shift beyond the end of the table");
            return KR_UTILS_STATUS_PARAM_EXCEEDS_RANGE;
        }
        ++shift_calls_;
        last_shifts_.push_back(move);
        move_slots(move);
        check_order(std::min(move.old_index, move.new_index), std::max(move.old_index, move.new_index) + move.size);
        return KR_UTILS_STATUS_SUCCESS;
    }

    // One slot after the other from the end that moves first; a live destination is an error even under a free source.
    void move_slots(const psort_notification_data &move) {
        for (uint32_t step = 0; step < move.size; ++step) {
            const uint32_t offset = move.new_index > move.old_index ? move.size - 1 - step : step;
            slot &from = slots_[move.old_index + offset];
            slot &to = slots_[move.new_index + offset];
            if (to.live) {
                complain("a shift onto a live entry");
            }
            if (from.live) {
                to = from;
                from.live = false;
                where_[to.key] = move.new_index + offset;
                ++rules_moved_;
            }
        }
    }

    // Slots [begin, end) among themselves and with the nearest live slot on both sides.
    void check_order(size_t begin, size_t end) {
        while (begin > 0 && !slots_[begin - 1].live) {
            --begin;
        }
        begin -= begin > 0 ? 1 : 0;
        while (end < slots_.size() && !slots_[end].live) {
            ++end;
        }
        end += end < slots_.size() ? 1 : 0;
        uint32_t highest = UINT32_MAX;
        for (size_t index = begin; index < end; ++index) {
            if (slots_[index].live && slots_[index].priority > highest) {
                complain("a higher priority behind a lower one");
            }
            highest = slots_[index].live ? slots_[index].priority : highest;
        }
    }

    void complain(const std::string &text) {
        if (complaints_.size() < 1000) {
            complaints_ += text + "\n";
        }
    }

    std::vector<slot> slots_;
    std::unordered_map<uint64_t, uint32_t> where_;
    std::vector<psort_notification_data> last_shifts_;
    std::string complaints_;
    bool fail_armed_ = false;
    uint64_t fail_after_ = 0;
    kr_utils_status fail_status_ = KR_UTILS_STATUS_ERROR;
    kr_utils_status threshold_status_ = KR_UTILS_STATUS_SUCCESS;
    uint64_t shift_calls_ = 0;
    uint64_t rules_moved_ = 0;
    uint64_t failed_calls_ = 0;
    uint64_t almost_full_calls_ = 0;
    uint64_t almost_empty_calls_ = 0;
};

} // namespace kr_test

#endif
