/*
 * The general module among fakes: every test begins with the module as a fresh process has it.
 */
#ifndef KR_TESTS_GENERAL_FIXTURE_H
#define KR_TESTS_GENERAL_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/general.h"
#include "core/general_state.h"
#include "fake_connector.h"
#include "fakes.h"
#include "kr_sdn_hal.h"

namespace kr_test {

std::string fake_plugin(const std::string &name);
system_profile profile_of(const std::string &connector, const std::string &fpt = "the port plug-in");

class general_fixture : public testing::Test {
  protected:
    general_fixture();
    ~general_fixture() override;

    // Brings the library up, and started if it is asked for; the journal is empty afterwards.
    void init();
    void start();
    // A stop that succeeds, whatever the test left behind.
    void stop();

    loaded_fake_connector connector;
    system_profile profile;
};

} // namespace kr_test

#endif
