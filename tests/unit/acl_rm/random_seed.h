/*
 * The seed of a random test: from KR_TEST_SEED, or a fixed one; printed, so that a failure can be played again.
 */
#ifndef KR_TEST_ACL_RM_RANDOM_SEED_H
#define KR_TEST_ACL_RM_RANDOM_SEED_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace kr_test {

inline uint64_t random_seed() {
    const char *const text = std::getenv("KR_TEST_SEED");
    const uint64_t seed = text != nullptr ? std::strtoull(text, nullptr, 0) : 20240229;
    std::printf("seed %llu (set KR_TEST_SEED for another)\n", static_cast<unsigned long long>(seed));
    return seed;
}

} // namespace kr_test

#endif
