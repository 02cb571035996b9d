/*
 * A stand-in for the ports of the software switch, for tests of the plug-ins alone. The test program exports these
 * functions, so the plug-ins that it loads find them before those of the platform's library.
 */
#ifndef KR_TESTS_FAKE_PLATFORM_H
#define KR_TESTS_FAKE_PLATFORM_H

#include <cstdint>
#include <map>
#include <string>

namespace fake_platform {

void reset();
std::map<uint32_t, std::string> ports(); // logical port -> interface, or "INPUT > OUTPUT"
void fail_adds_with(uint32_t status);    // 0: adds succeed again
void fail_plays_with(uint32_t status);   // 0: plays succeed again, with three frames
bool is_up(uint32_t log_port);

} // namespace fake_platform

#endif
