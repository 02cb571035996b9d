/*
 * What the demonstration prints: one aligned line per step, with a check mark or the reason for failing.
 */
#ifndef KR_DEMO_REPORT_H
#define KR_DEMO_REPORT_H

#include <cstdio>
#include <stdexcept>
#include <string>

#include "tools/demo/interrupt.h"

namespace demo {

// Why a step failed, in words for a person.
struct failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class report {
  public:
    void title(const char *text) const {
        printf("\n%s\n", text);
        fflush(stdout);
    }

    // A line of information that is not a step.
    void note(const std::string &text) const {
        printf("      %s\n", text.c_str());
        fflush(stdout);
    }

    // Runs one step. `step` returns a short result to print behind the text, or throws demo::failure.
    template <typename Step> void step(const char *text, Step run) {
        try {
            const std::string result = run();
            passed_++;
            printf("  \xe2\x9c\x93   %-60s %s\n", text, result.c_str());
        } catch (const failure &why) {
            throw_if_interrupted(); // then the rest of the way down is reason enough
            failed_++;
            printf("  \xe2\x9c\x97   %-60s %s\n", text, why.what());
        }
        fflush(stdout);
    }

    int passed() const {
        return passed_;
    }
    int failed() const {
        return failed_;
    }

  private:
    int passed_ = 0;
    int failed_ = 0;
};

} // namespace demo

#endif
