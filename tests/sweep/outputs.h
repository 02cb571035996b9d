/*
 * What a call hands out. The memory that it may write is full of a canary before it, and is told as text after it,
 * field by field: what the call has not written is `untouched`. Behind every array lies an element more, which no call
 * may write. What is given to a call and may come back changed is told as well.
 */
#ifndef KR_TESTS_SWEEP_OUTPUTS_H
#define KR_TESTS_SWEEP_OUTPUTS_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kr_sdn_hal.h"

namespace kr_test {

constexpr uint8_t canary = 0xA5;

std::string told(const int32_t &value);
std::string told(const uint16_t &value);
std::string told(const uint32_t &value);
std::string told(const port_speed_admin &speed);
std::string told(const port_mac_address &address);
std::string told(const port_counters &counters);
std::string told(const capabilities &stored);
std::string told(const flow_record &flow);
std::string told(const flow_stats &stats);
std::string told(const table_stats &stats);
std::string told(const table_capabilities &found);
std::string told(const hal_event_record &record);
std::string told(const srvc_handle &handle);

class outputs {
  public:
    // Room for what the call hands out.
    template <typename Value> Value *room(const char *name, size_t count = 1) {
        return keep(name, std::vector<Value>(count, filled<Value>()), {});
    }

    // What the call is given, and may change.
    template <typename Value> Value *given(const char *name, const std::vector<Value> &values) {
        return keep(name, values, values);
    }

    // The client's channel, which stays where it is. `is_new`: an open is to fill it.
    srvc_handle *channel(srvc_handle *handle, bool is_new = false) {
        if (is_new) {
            memset(handle, canary, sizeof *handle);
        }
        entries_.push_back([handle] { return "channel " + told(*handle); });
        return handle;
    }

    // "name value; name [value, untouched]"
    [[nodiscard]] std::string text() const;
    void clear() {
        entries_.clear();
    }

  private:
    template <typename Value> static Value filled() {
        Value value{};
        memset(&value, canary, sizeof value);
        return value;
    }

    template <typename Value>
    Value *keep(const char *name, const std::vector<Value> &values, const std::vector<Value> &given) {
        const auto kept = std::make_shared<std::vector<Value>>(values);
        kept->push_back(filled<Value>());
        entries_.push_back([=] { return told_all(name, *kept, given); });
        return kept->data();
    }

    template <typename Value>
    static std::string told_all(const char *name, const std::vector<Value> &kept, const std::vector<Value> &given) {
        const auto is_as_given = [&](size_t i) {
            return !given.empty() && memcmp(&kept[i], &given[i], sizeof given[i]) == 0;
        };
        std::string text;
        bool all_as_given = true;
        for (size_t i = 0; i + 1 < kept.size(); i++) {
            all_as_given &= is_as_given(i);
            text += (i == 0 ? "" : ", ") + (is_as_given(i) ? "as given" : told(kept[i]));
        }
        text = all_as_given ? "as given" : kept.size() == 2 ? text : '[' + text + ']';
        return name + (' ' + text) + (told(kept.back()) == "untouched" ? "" : " and BEYOND its end");
    }

    std::vector<std::function<std::string()>> entries_;
};

} // namespace kr_test

#endif
