/*
 * The port plug-in's loader and wrappers, against plug-ins that are really loaded: complete ones, and such that lack
 * an entry.
 */
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/fpt.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/log_capture.h"
#include "tests/unit/core/fpt_fixture/fpt_fixture.h"

fpt_fixture_state fpt_fixture;

namespace {

using kr_test::log_line;
using log_lines = std::vector<log_line>;

log_line fpt_error(const std::string &text) {
    return {KR_LOG_ERROR, "FPT", text + "\n"};
}

// The plug-in's entries in the order of the look-up.
const std::vector<std::string> entry_names = {"activate",
                                              "deinit",
                                              "rstp_port_state_set",
                                              "rstp_port_state_get",
                                              "port_phys_addr_get",
                                              "port_speed_admin_set",
                                              "port_speed_admin_get",
                                              "port_speed_cabability_get",
                                              "port_speed_oper_get",
                                              "port_state_set",
                                              "port_state_get",
                                              "port_oper_state_get",
                                              "port_mtu_set",
                                              "port_mtu_get",
                                              "port_cntr_get",
                                              "port_cntr_clear"};

// From the fixtures' directory, where the program is: the profile has no room for any depth of build directory.
std::string fixture_path(const std::string &name) {
    return "./" + name + ".so";
}

const int change_directory_result = chdir(FPT_FIXTURE_DIR);

system_profile profile_of(const std::string &path) {
    system_profile profile{};
    path.copy(profile.fpt_library_path, sizeof(profile.fpt_library_path) - 1);
    memset(profile.connector_library_path, 'c', sizeof(profile.connector_library_path)); // none of this module's
    return profile;
}

bool is_loaded(const std::string &path) {
    void *const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

void fail_with(const std::string &name, kr_sdn_hal_status status) {
    memset(fpt_fixture.failing, 0, sizeof(fpt_fixture.failing));
    name.copy(fpt_fixture.failing, sizeof(fpt_fixture.failing) - 1);
    fpt_fixture.failure_status = status;
}

// The outputs of all wrappers, and one call of each but init and deinit.
struct outputs {
    int32_t stp_state, admin_state, oper_state;
    port_mac_address mac_address;
    port_speed_admin admin_speed;
    uint32_t speed_capability, oper_speed;
    uint16_t mtu;
    port_counters counters;
};

struct wrapper {
    const char *name; // of the entry that it calls
    uint32_t value;   // what it passes on
    kr_sdn_hal_status (*call)(uint32_t port, outputs &out);
    const void *(*output)(const outputs &out); // nullptr: none
};

const wrapper wrappers[] = {
    {"rstp_port_state_set", 0xFFFFFFFF,
     [](uint32_t port, outputs &) { return fpt_rstp_port_state_set(port, 0xFFFFFFFF); }, nullptr},
    {"rstp_port_state_get", 0,
     [](uint32_t port, outputs &out) { return fpt_rstp_port_state_get(port, &out.stp_state); },
     [](const outputs &out) -> const void * { return &out.stp_state; }},
    {"port_phys_addr_get", 0,
     [](uint32_t port, outputs &out) { return fpt_port_phys_addr_get(port, &out.mac_address); },
     [](const outputs &out) -> const void * { return &out.mac_address; }},
    {"port_speed_admin_set", 0,
     [](uint32_t port, outputs &) {
         return fpt_port_speed_admin_set(port, {-1, 2, INT32_MAX, 4});
     },
     nullptr},
    {"port_speed_admin_get", 0,
     [](uint32_t port, outputs &out) { return fpt_port_speed_admin_get(port, &out.admin_speed); },
     [](const outputs &out) -> const void * { return &out.admin_speed; }},
    {"port_speed_cabability_get", 0,
     [](uint32_t port, outputs &out) { return fpt_port_speed_cabability_get(port, &out.speed_capability); },
     [](const outputs &out) -> const void * { return &out.speed_capability; }},
    {"port_speed_oper_get", 0,
     [](uint32_t port, outputs &out) { return fpt_port_speed_oper_get(port, &out.oper_speed); },
     [](const outputs &out) -> const void * { return &out.oper_speed; }},
    {"port_state_set", 77, [](uint32_t port, outputs &) { return fpt_port_state_set(port, 77); }, nullptr},
    {"port_state_get", 0, [](uint32_t port, outputs &out) { return fpt_port_state_get(port, &out.admin_state); },
     [](const outputs &out) -> const void * { return &out.admin_state; }},
    {"port_oper_state_get", 0,
     [](uint32_t port, outputs &out) { return fpt_port_oper_state_get(port, &out.oper_state); },
     [](const outputs &out) -> const void * { return &out.oper_state; }},
    {"port_mtu_set", 0xFFFF, [](uint32_t port, outputs &) { return fpt_port_mtu_set(port, 0xFFFF); }, nullptr},
    {"port_mtu_get", 0, [](uint32_t port, outputs &out) { return fpt_port_mtu_get(port, &out.mtu); },
     [](const outputs &out) -> const void * { return &out.mtu; }},
    {"port_cntr_get", 0, [](uint32_t port, outputs &out) { return fpt_port_cntr_get(port, &out.counters); },
     [](const outputs &out) -> const void * { return &out.counters; }},
    {"port_cntr_clear", 99, [](uint32_t port, outputs &) { return fpt_port_cntr_clear(port, 99); }, nullptr},
};

class fpt_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(change_directory_result, 0) << FPT_FIXTURE_DIR;
        fpt_fixture = {};
    }
    void TearDown() override {
        kr_FPT_verb_level = 3;
        fpt_fixture = {};
        const log_lines left_over = log.take();
        (void)fpt_deinit();
        log.take();
        EXPECT_EQ(left_over, log_lines{});
        EXPECT_FALSE(is_loaded(fixture_path("fpt_complete")));
    }
    void init_complete() {
        const system_profile profile = profile_of(fixture_path("fpt_complete"));
        ASSERT_EQ(fpt_init(&profile), KR_SDN_HAL_STATUS_SUCCESS);
    }
    void expect_not_initialized(kr_sdn_hal_status status) {
        EXPECT_EQ(status, 3U);
        EXPECT_EQ(log.take(), log_lines{fpt_error("FPT is not initialized.")});
    }
    kr_test::log_capture log;
};

// ---- init -------------------------------------------------------------------------------------------------------

TEST_F(fpt_test, init_loads_the_plug_in_and_calls_nothing) {
    init_complete();
    EXPECT_TRUE(is_loaded(fixture_path("fpt_complete")));
    EXPECT_EQ(fpt_fixture.call_count, 0U);
}

TEST_F(fpt_test, init_done_is_a_notice) {
    kr_FPT_verb_level = 4;
    init_complete();
    EXPECT_EQ(log.take(), (log_lines{{KR_LOG_NOTICE, "FPT", "FPT init done.\n"}}));
}

TEST_F(fpt_test, init_while_initialised_returns_1_and_keeps_the_plug_in) {
    init_complete();
    const system_profile profile = profile_of(fixture_path("fpt_misspelled"));
    EXPECT_EQ(fpt_init(&profile), 1U);
    EXPECT_EQ(fpt_init(nullptr), 1U) << "the state is checked before the pointer";
    EXPECT_EQ(log.take(), log_lines(2, fpt_error("FPT is already initialized.")));
    EXPECT_EQ(fpt_port_state_set(1, 1), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(fpt_test, null_profile_returns_8) {
    EXPECT_EQ(fpt_init(nullptr), 8U);
    EXPECT_EQ(log.take(), log_lines{fpt_error("System profile is NULL.")});
}

TEST_F(fpt_test, a_path_that_does_not_open_returns_1_with_the_loaders_text) {
    for (const std::string path : {"/nonexistent/plug-in.so", "/"}) {
        ASSERT_EQ(dlopen(path.c_str(), RTLD_NOW), nullptr);
        const std::string loader_text = dlerror();
        const system_profile profile = profile_of(path);
        EXPECT_EQ(fpt_init(&profile), 1U);
        EXPECT_EQ(log.take(), log_lines{fpt_error("Failed to open FPT library path: [" + loader_text + "].")});
        expect_not_initialized(fpt_activate());
    }
}

TEST_F(fpt_test, an_empty_path_returns_1) {
    const system_profile profile = profile_of("");
    EXPECT_EQ(fpt_init(&profile), 1U);
    EXPECT_EQ(log.take(), log_lines{fpt_error("Failed to open FPT library path: [the path is empty].")});
    expect_not_initialized(fpt_activate());
}

TEST_F(fpt_test, a_path_without_an_end_returns_1) {
    // On the heap and exactly as long as the record, so that the address sanitizer sees who reads on.
    const auto profile = std::make_unique<system_profile>();
    memset(profile.get(), 'x', sizeof(system_profile));
    EXPECT_EQ(fpt_init(profile.get()), 1U);
    EXPECT_EQ(log.take(), log_lines{fpt_error("Failed to open FPT library path: [the path is too long].")});
}

TEST_F(fpt_test, the_longest_path_goes_to_the_loader) {
    const system_profile profile = profile_of("/" + std::string(sizeof(profile.fpt_library_path) - 2, 'x'));
    EXPECT_EQ(fpt_init(&profile), 1U);
    const log_lines lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_NE(lines[0].text.find("cannot open shared object file"), std::string::npos) << lines[0].text;
}

class fpt_missing_entry : public fpt_test, public ::testing::WithParamInterface<size_t> {
  protected:
    void expect_fails_at(const std::string &fixture, const std::string &entry) {
        const std::string path = fixture_path(fixture);
        const system_profile profile = profile_of(path);
        EXPECT_EQ(fpt_init(&profile), 1U);
        EXPECT_EQ(log.take(),
                  log_lines{fpt_error("Failed to find function: [" + path + ": undefined symbol: " + entry + "].")});
        EXPECT_FALSE(is_loaded(path)) << "the library is closed again";
        outputs out{};
        for (const wrapper &each : wrappers) {
            expect_not_initialized(each.call(1, out));
        }
        expect_not_initialized(fpt_activate());
        expect_not_initialized(fpt_deinit());
        EXPECT_EQ(fpt_fixture.call_count, 0U);
    }
};

TEST_P(fpt_missing_entry, fails_init_with_a_line_that_names_it_and_later_calls_return_3) {
    const std::string &entry = entry_names[GetParam()];
    ASSERT_NO_FATAL_FAILURE(expect_fails_at("fpt_without_" + entry, entry));
    init_complete(); // a retry with a whole plug-in works
    EXPECT_EQ(fpt_activate(), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_P(fpt_missing_entry, is_the_first_one_reported_when_all_that_follow_are_missing_too) {
    const std::string &entry = entry_names[GetParam()];
    ASSERT_NO_FATAL_FAILURE(expect_fails_at("fpt_up_to_" + entry, entry));
}

INSTANTIATE_TEST_SUITE_P(entries, fpt_missing_entry, ::testing::Range(size_t{0}, size_t{16}),
                         [](const auto &param_info) { return entry_names[param_info.param]; });

TEST_F(fpt_test, an_entry_named_port_speed_capability_get_is_not_the_one_that_is_looked_up) {
    const std::string path = fixture_path("fpt_misspelled");
    const system_profile profile = profile_of(path);
    EXPECT_EQ(fpt_init(&profile), 1U);
    EXPECT_EQ(log.take(), log_lines{fpt_error("Failed to find function: [" + path +
                                              ": undefined symbol: port_speed_cabability_get].")});
    expect_not_initialized(fpt_port_state_set(1, 1));
}

TEST_F(fpt_test, an_entry_without_an_address_counts_as_missing) {
    const system_profile profile = profile_of(fixture_path("fpt_null_entry"));
    EXPECT_EQ(fpt_init(&profile), 1U);
    EXPECT_EQ(log.take(), log_lines{fpt_error("Failed to find function: [port_mtu_get].")});
    expect_not_initialized(fpt_port_state_set(1, 1));
}

// ---- activate and deinit ----------------------------------------------------------------------------------------

TEST_F(fpt_test, before_init_everything_returns_3) {
    outputs out{};
    for (const wrapper &each : wrappers) {
        expect_not_initialized(each.call(1, out));
    }
    expect_not_initialized(fpt_activate());
    expect_not_initialized(fpt_deinit());
}

TEST_F(fpt_test, activate_may_be_called_again_and_passes_the_status_on) {
    init_complete();
    EXPECT_EQ(fpt_activate(), KR_SDN_HAL_STATUS_SUCCESS);
    fail_with("activate", KR_SDN_HAL_STATUS_SDK_ERROR);
    EXPECT_EQ(fpt_activate(), KR_SDN_HAL_STATUS_SDK_ERROR);
    EXPECT_EQ(fpt_fixture.call_count, 2U);
    EXPECT_STREQ(fpt_fixture.calls[0].name, "activate");
    EXPECT_STREQ(fpt_fixture.calls[1].name, "activate");
}

TEST_F(fpt_test, deinit_twice_returns_3_the_second_time) {
    init_complete();
    EXPECT_EQ(fpt_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(fpt_fixture.call_count, 1U);
    EXPECT_STREQ(fpt_fixture.calls[0].name, "deinit");
    EXPECT_FALSE(is_loaded(fixture_path("fpt_complete")));
    expect_not_initialized(fpt_deinit());
    EXPECT_EQ(fpt_fixture.call_count, 1U);
}

TEST_F(fpt_test, deinit_unloads_also_when_the_plug_in_refuses_and_returns_its_status) {
    init_complete();
    fail_with("deinit", KR_SDN_HAL_STATUS_RESOURCE_IN_USE);
    EXPECT_EQ(fpt_deinit(), KR_SDN_HAL_STATUS_RESOURCE_IN_USE);
    EXPECT_FALSE(is_loaded(fixture_path("fpt_complete")));
    expect_not_initialized(fpt_deinit());
}

TEST_F(fpt_test, init_works_again_after_deinit) {
    for (int round = 0; round < 3; round++) {
        init_complete();
        EXPECT_EQ(fpt_port_state_set(1, 1), KR_SDN_HAL_STATUS_SUCCESS);
        EXPECT_EQ(fpt_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    }
}

// ---- wrappers ---------------------------------------------------------------------------------------------------

TEST_F(fpt_test, every_wrapper_calls_its_entry_with_its_arguments_unchanged) {
    init_complete();
    for (const wrapper &each : wrappers) {
        SCOPED_TRACE(each.name);
        fpt_fixture = {};
        outputs out{};
        EXPECT_EQ(each.call(0xFFFFFFFE, out), KR_SDN_HAL_STATUS_SUCCESS);
        ASSERT_EQ(fpt_fixture.call_count, 1U);
        const fpt_fixture_call &call = fpt_fixture.calls[0];
        EXPECT_STREQ(call.name, each.name);
        EXPECT_EQ(call.port, 0xFFFFFFFEU);
        EXPECT_EQ(call.value, each.value);
        EXPECT_EQ(call.output, each.output != nullptr ? each.output(out) : nullptr);
    }
}

TEST_F(fpt_test, the_admin_speed_record_is_passed_whole) {
    init_complete();
    EXPECT_EQ(fpt_port_speed_admin_set(1, {-1, 2, INT32_MAX, 4}), KR_SDN_HAL_STATUS_SUCCESS);
    const port_speed_admin &speed = fpt_fixture.calls[0].speed;
    EXPECT_EQ(speed.speed_1g, -1);
    EXPECT_EQ(speed.speed_10g, 2);
    EXPECT_EQ(speed.speed_40g, INT32_MAX);
    EXPECT_EQ(speed.speed_100g, 4);
}

TEST_F(fpt_test, every_wrapper_returns_the_plug_ins_status_and_logs_nothing) {
    init_complete();
    for (const wrapper &each : wrappers) {
        SCOPED_TRACE(each.name);
        outputs out{};
        for (const uint32_t status : {1U, 4U, 11U, 12U, 0xFFFFFFFFU}) {
            fail_with(each.name, static_cast<kr_sdn_hal_status>(status));
            EXPECT_EQ(each.call(1, out), status);
        }
    }
}

TEST_F(fpt_test, wrappers_allocate_nothing) {
    init_complete();
    outputs out{};
    uint32_t statuses = 0;
    const kr_test::allocation_counter allocations;
    for (const wrapper &each : wrappers) {
        statuses |= each.call(1, out);
    }
    EXPECT_EQ(allocations.count(), 0U);
    EXPECT_EQ(statuses, 0U);
}

TEST_F(fpt_test, threads_that_call_while_init_runs_get_3_or_the_plug_in) {
    kr_FPT_verb_level = 0; // one line per refused call would be many
    std::atomic<uint32_t> wrong_count{0};
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < 3; i++) {
        threads.emplace_back([&, i] {
            outputs out{};
            size_t served = 0;
            while (served < std::size(wrappers)) { // ends when init is done
                const uint32_t status = wrappers[served].call(i, out);
                served += status == 0 ? 1 : 0;
                wrong_count += status != 0 && status != 3 ? 1 : 0;
                std::this_thread::yield();
            }
        });
    }
    init_complete();
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong_count, 0U);
    EXPECT_EQ(fpt_fixture.call_count, 3 * std::size(wrappers));
}

} // namespace
