/*
 * The bytes that a fuzzer gives, taken one value at a time. When they have run out, every value is 0.
 */
#ifndef KR_TESTS_FUZZ_INPUT_H
#define KR_TESTS_FUZZ_INPUT_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kr_fuzz {

class input {
  public:
    input(const uint8_t *data, size_t size) : data_(data), left_(size) {}

    bool is_empty() const {
        return left_ == 0;
    }
    template <typename Value> Value take() {
        Value value{};
        take_into(&value, sizeof value);
        return value;
    }
    uint32_t below(uint32_t limit) {
        return take<uint16_t>() % limit;
    }
    std::vector<uint8_t> take_bytes(size_t size) {
        std::vector<uint8_t> bytes(size);
        take_into(bytes.data(), size);
        return bytes;
    }
    std::vector<uint8_t> rest() {
        return take_bytes(left_);
    }

  private:
    void take_into(void *to, size_t size) {
        const size_t count = std::min(size, left_);
        if (count > 0) {
            memcpy(to, data_, count);
        }
        data_ += count;
        left_ -= count;
    }

    const uint8_t *data_;
    size_t left_;
};

inline void require(bool holds, const char *what) {
    if (!holds) {
        fprintf(stderr, "does not hold: %s\n", what);
        abort();
    }
}

} // namespace kr_fuzz

#define KR_FUZZ_TARGET extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput

#endif
