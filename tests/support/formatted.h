/*
 * A text with values in it, for expectations: the whole text stands in one literal of the test, where tools/check-texts
 * finds it.
 */
#ifndef KR_TESTS_FORMATTED_H
#define KR_TESTS_FORMATTED_H

#include <cstdarg>
#include <cstdio>
#include <string>

namespace kr_test {

[[gnu::format(printf, 1, 2)]] inline std::string formatted(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(static_cast<size_t>(length), '\0');
    (void)vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

} // namespace kr_test

#endif
