/*
 * The library's modules as they are, among fake plug-ins, on the software platform. Each test begins as a fresh process
 * does: nothing is initialised, the platform is empty, the verbosities are what the process started with.
 */
#ifndef KR_TESTS_LIBRARY_FIXTURE_H
#define KR_TESTS_LIBRARY_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "core/general.h"
#include "core/general_state.h"
#include "fake_connector.h"
#include "fake_fpt.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "log_capture.h"

namespace kr_test {

constexpr uint32_t log_port_of(uint32_t of_port) {
    return 0x10000 + of_port;
}

conn_port_record port_record_of(uint32_t of_port);
hal_event_record removal_of(uint32_t of_port);

// Where the fake plug-in of this name is.
std::string plugin(const char *name);

// The lines of the log as "<severity> <module>: <text>", and of the platform's journal as "<function> = <status>".
using lines = std::vector<std::string>;

class library_fixture : public testing::Test {
  protected:
    library_fixture();
    ~library_fixture() override;

    // What the client calls; the log is empty afterwards.
    void init();
    void start();
    kr_sdn_hal_status init_with(const std::string &fpt_library);
    // A port in memory, and the connector's event for it.
    void add_port(uint32_t of_port);
    static uint32_t event(uint32_t code, void *data = nullptr);

    lines take_log();
    // Without what the background thread of the tables does in its own time.
    static lines take_journal();
    static kr_soft_usage usage();

    // Runs a life that leaves modules behind which nothing can bring back, in a process of its own.
    template <typename Life> static void in_a_process_of_its_own(Life life) {
        const pid_t child = fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            life();
            fflush(nullptr);
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "what failed stands above";
    }

    loaded_fake_connector connector;
    loaded_fake_fpt fpt;
    log_capture log;
};

} // namespace kr_test

#endif
