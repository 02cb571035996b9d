/*
 * Random sequences. A sequence depends on its seed alone, not on what the library does with it.
 */
#ifndef KR_TESTS_MODEL_GENERATOR_H
#define KR_TESTS_MODEL_GENERATOR_H

#include <cstdint>
#include <vector>

#include "tests/model/step.h"

namespace kr_model {

std::vector<step> make_sequence(uint64_t seed, uint32_t step_count);

} // namespace kr_model

#endif
