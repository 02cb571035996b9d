/*
 * The seed of random tests: always the same unless KR_TEST_SEED names another one. A test prints it when it fails.
 */
#ifndef KR_TESTS_TEST_SEED_H
#define KR_TESTS_TEST_SEED_H

#include <cstdint>
#include <cstdlib>

namespace kr_test {

inline uint64_t test_seed() {
    const char *const text = std::getenv("KR_TEST_SEED");
    return text != nullptr ? std::strtoull(text, nullptr, 0) : 20260417;
}

} // namespace kr_test

#endif
