/*
 * The log of one test: all lines so far, and how many begin in a given way.
 */
#ifndef KR_TESTS_CAPTURED_LOG_H
#define KR_TESTS_CAPTURED_LOG_H

#include <algorithm>
#include <string>
#include <vector>

#include "support/log_capture.h"

class captured_log {
  public:
    const std::vector<kr_test::log_line> &messages() {
        for (auto &line : capture_.take()) {
            lines_.push_back(std::move(line));
        }
        return lines_;
    }
    size_t count_of(const std::string &beginning) {
        const auto &all = messages();
        return static_cast<size_t>(
            std::count_if(all.begin(), all.end(), [&](const auto &line) { return line.text.starts_with(beginning); }));
    }

  private:
    kr_test::log_capture capture_;
    std::vector<kr_test::log_line> lines_;
};

#endif
