/*
 * The exported life cycle over a general module that answers as it is told: what is passed on, what each function
 * returns, and what it says when its counterpart fails, in the cases too that the real module never has.
 */
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/general.h"
#include "kr_sdn_hal.h"
#include "tests/support/log_capture.h"

namespace {

using kr_test::log_line;
using log_lines = std::vector<log_line>;

// The general module: what it returns, and what it was given last.
struct {
    kr_sdn_hal_status status;
    const void *argument;
    kr_log_callback callback;
    log_lines logged;
} general;

log_line api_error(const std::string &text) {
    return {KR_LOG_ERROR, "HAL_API", text + "\n"};
}

constexpr uint32_t status_count = 12;

void client_log(uint32_t, const char *, const char *) {}

class life_cycle_api_test : public ::testing::Test {
  protected:
    void SetUp() override {
        general = {};
        kr_HAL_API_verb_level = 3;
    }
    void TearDown() override {
        kr_HAL_API_verb_level = 3;
    }
    void fails_with_a_line(kr_sdn_hal_status (*function)(), const std::string &text) {
        for (uint32_t status = 0; status < status_count; ++status) {
            general.status = static_cast<kr_sdn_hal_status>(status);
            EXPECT_EQ(function(), status);
            EXPECT_EQ(log.take(), status == 0 ? log_lines{} : log_lines{api_error(text)}) << status;
        }
    }
    kr_test::log_capture log;
};

TEST_F(life_cycle_api_test, init_passes_profile_and_callback_on_and_says_that_it_is_done) {
    const system_profile profile{};
    kr_HAL_API_verb_level = 4;
    EXPECT_EQ(kr_sdn_hal_init(&profile, client_log), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(general.argument, &profile);
    EXPECT_EQ(general.callback, &client_log);
    EXPECT_EQ(log.take(), (log_lines{{KR_LOG_NOTICE, "HAL_API", "SDN HAL init done.\n"}}));
    EXPECT_EQ(kr_sdn_hal_init(&profile, nullptr), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(general.callback, nullptr);
    (void)log.take();
    for (uint32_t status = 1; status < status_count; ++status) {
        general.status = static_cast<kr_sdn_hal_status>(status);
        EXPECT_EQ(kr_sdn_hal_init(&profile, client_log), status);
        EXPECT_EQ(log.take(), log_lines{}) << status; // the module has said what went wrong
    }
}

TEST_F(life_cycle_api_test, init_without_a_profile_reaches_nobody) {
    kr_HAL_API_verb_level = 6;
    EXPECT_EQ(kr_sdn_hal_init(nullptr, client_log), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(general.callback, nullptr);
    EXPECT_EQ(log.take(), log_lines{});
}

TEST_F(life_cycle_api_test, activate) {
    fails_with_a_line(kr_sdn_hal_activate, "SDN HAL modules activate failed.");
}

TEST_F(life_cycle_api_test, deinit) {
    fails_with_a_line(kr_sdn_hal_deinit, "SDN HAL modules deinit failed.");
}

TEST_F(life_cycle_api_test, capabilities_set) {
    static const capabilities given{};
    fails_with_a_line([] { return kr_sdn_hal_capabilities_set(&given); }, "general_capabilities_set failed.");
    EXPECT_EQ(general.argument, &given);
    general.argument = nullptr;
    EXPECT_EQ(kr_sdn_hal_capabilities_set(nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(log.take(), log_lines{api_error("<cap> param is NULL.")});
}

TEST_F(life_cycle_api_test, capabilities_get) {
    static capabilities read{};
    fails_with_a_line([] { return kr_sdn_hal_capabilities_get(&read); }, "general_capabilities_get failed.");
    EXPECT_EQ(general.argument, &read);
    EXPECT_EQ(kr_sdn_hal_capabilities_get(nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(log.take(), log_lines{api_error("<cap> param is NULL.")});
}

TEST_F(life_cycle_api_test, log_formats_and_passes_on) {
    EXPECT_EQ(kr_sdn_hal_log(31, "CLIENT", "%s %d", "port", 5), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr_sdn_hal_log(0, "", "%s", std::string(255, 'x').c_str()), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr_sdn_hal_log(1, "CUT", "%s", std::string(256, 'x').c_str()), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(kr_sdn_hal_log(1, nullptr, "%s", ""), KR_SDN_HAL_STATUS_PARAM_NULL);
    const char *volatile no_format = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_EQ(kr_sdn_hal_log(1, "CLIENT", no_format), KR_SDN_HAL_STATUS_PARAM_NULL);
#pragma GCC diagnostic pop
    EXPECT_EQ(general.logged,
              (log_lines{{31, "CLIENT", "port 5"}, {0, "", std::string(255, 'x')}, {1, "CUT", std::string(255, 'x')}}));
    EXPECT_EQ(log.take(), log_lines{});
}

} // namespace

kr_sdn_hal_status general_init(const system_profile *profile, kr_log_callback log_callback) {
    general.argument = profile;
    general.callback = log_callback;
    return general.status;
}
kr_sdn_hal_status general_activate() {
    return general.status;
}
kr_sdn_hal_status general_deinit() {
    return general.status;
}
kr_sdn_hal_status general_capabilities_set(const capabilities *cap) {
    general.argument = cap;
    return general.status;
}
kr_sdn_hal_status general_capabilities_get(capabilities *cap) {
    general.argument = cap;
    return general.status;
}
void general_log_conn(uint32_t severity, const char *module, const char *text) {
    general.logged.push_back({severity, module, text});
}
