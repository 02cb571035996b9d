/*
 * Questions about OpenFlow matches: does one cover another, could one frame match both, does a frame match. Pure; all
 * matches but that of match_is_exact are normalized ones (of10::match_normalize).
 */
#ifndef KR_AGENT_MATCH_H
#define KR_AGENT_MATCH_H

#include <cstddef>
#include <cstdint>

#include "of10/of10.h"

namespace agent {

/* Every frame that `narrow` matches, `wide` matches too. */
bool match_covers(const of10::flow_match &wide, const of10::flow_match &narrow) noexcept;

/* Some frame could match both. */
bool match_overlaps(const of10::flow_match &a, const of10::flow_match &b) noexcept;

/* The match as it came has no wildcard: such a flow goes before all that have one, whatever its priority. */
bool match_is_exact(const of10::flow_match &match) noexcept;

size_t match_hash(const of10::flow_match &match) noexcept;

} // namespace agent

#endif
