/*
 * The texts of the platform's status codes.
 */
#include <array>

#include "kr_status.h"

namespace {

// Indexed by kr_status.
constexpr std::array<const char *, KR_STATUS_TIMEOUT + 1> status_texts = {
    "Success",
    "Internal error",
    "Not initialized",
    "Command unsupported",
    "Entry already exists",
    "Entry not found",
    "No resources",
    "No hardware resources",
    "Parameter error",
    "NULL parameter",
    "Parameter exceeds range",
    "Resource in use",
    "Invalid handle",
    "No memory",
    "Timeout",
};

} // namespace

const char *kr_status_str(kr_status status) {
    return status < status_texts.size() ? status_texts[status] : "Unknown status";
}
