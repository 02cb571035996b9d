/*
 * Loading the connector, and the log lines that go to it.
 */
#include <dlfcn.h>
#include <unistd.h>

#include <vector>

#include "formatted.h"
#include "general_fixture.h"

using kr_test::call_list;
using kr_test::fake_plugin;
using kr_test::formatted;
using kr_test::general_fixture;
using kr_test::profile_of;
using kr_test::record_log;
using kr_test::take_calls;
using testing::ElementsAreArray;
using testing::HasSubstr;

namespace {

// Whether the loader keeps its reasons to itself.
bool loader_is_silent = false;

// How far standard error had been written, while it was captured, when a library was closed.
std::vector<off_t> told_at_close;

class general_connector_test : public general_fixture {
  protected:
    ~general_connector_test() override {
        loader_is_silent = false;
    }
    // Why the loader refuses a file.
    static std::string reason_not_to_open(const char *path) {
        EXPECT_EQ(nullptr, dlopen(path, RTLD_NOW));
        return dlerror();
    }
    // Init with this profile fails; what it wrote to standard error.
    std::string failing_load() {
        testing::internal::CaptureStderr();
        EXPECT_EQ(1u, kr_sdn_hal_init(&profile, record_log));
        EXPECT_EQ(0u, kr::general::g.initialized);
        EXPECT_EQ(nullptr, kr::general::g.connector_library);
        EXPECT_EQ(nullptr, kr::general::g.connector.conn_init);
        EXPECT_THAT(take_calls(), testing::IsEmpty());
        return testing::internal::GetCapturedStderr();
    }
};

class general_connector_symbol_test : public general_connector_test,
                                      public testing::WithParamInterface<const char *> {};

TEST_P(general_connector_symbol_test, missing_symbol_fails_the_load_and_closes_the_library) {
    const std::string path = fake_plugin(std::string("fake_connector_without_") + GetParam());
    profile = profile_of(path);
    const std::string reason = path + ": undefined symbol: " + GetParam();
    EXPECT_EQ(failing_load(), formatted("Loading symbol has failed [%s].\n", reason.c_str()));
    EXPECT_EQ(nullptr, dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD));
}

TEST_P(general_connector_symbol_test, missing_symbol_for_which_the_loader_has_no_reason_is_told_by_its_name) {
    profile = profile_of(fake_plugin(std::string("fake_connector_without_") + GetParam()));
    loader_is_silent = true;
    EXPECT_EQ(failing_load(), formatted("Loading symbol has failed [%s].\n", GetParam()));
}

INSTANTIATE_TEST_SUITE_P(symbols, general_connector_symbol_test,
                         testing::Values("conn_init", "conn_init_done_hal", "conn_init_done_shim", "conn_deinit",
                                         "conn_config_callback_register", "conn_event_callback_register",
                                         "conn_config_params_get", "conn_log"),
                         [](const auto &row) { return row.param; });

TEST_F(general_connector_test, missing_symbol_is_told_once_the_library_is_closed) {
    profile = profile_of(fake_plugin("fake_connector_without_conn_log"));
    told_at_close.clear();
    EXPECT_THAT(failing_load(), testing::StartsWith("Loading symbol has failed ["));
    EXPECT_THAT(told_at_close, testing::ElementsAre(0));
}

TEST_F(general_connector_test, missing_symbol_keeps_the_entry_points_of_an_earlier_load) {
    connector->config_register_status = 1;
    EXPECT_EQ(1u, kr_sdn_hal_init(&profile, record_log));
    auto *const earlier = kr::general::g.connector.conn_deinit;
    const system_profile broken = profile_of(fake_plugin("fake_connector_without_conn_log"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(1u, kr_sdn_hal_init(&broken, record_log));
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(earlier, kr::general::g.connector.conn_deinit);
}

TEST_F(general_connector_test, unloadable_file_is_told_with_path_and_reason) {
    profile = profile_of("/proc/self/status");
    EXPECT_EQ(failing_load(), formatted("dlopen() has failed loading connector library %s, [%s].\n",
                                        "/proc/self/status", reason_not_to_open("/proc/self/status").c_str()));
    loader_is_silent = true;
    EXPECT_EQ(failing_load(), "dlopen() has failed loading connector library /proc/self/status, [no reason].\n");
}

TEST_F(general_connector_test, empty_path_ends_with_1_and_a_message) {
    profile = profile_of("");
    EXPECT_THAT(failing_load(), testing::AnyOf(testing::StartsWith("dlopen() has failed loading connector library , ["),
                                               testing::StartsWith("Loading symbol has failed [")));
}

TEST_F(general_connector_test, path_without_an_end_is_refused_with_a_message) {
    memset(profile.connector_library_path, '/', sizeof profile.connector_library_path);
    EXPECT_THAT(failing_load(),
                formatted("dlopen() has failed loading connector library %s, [the path does not end].\n",
                          std::string(128, '/').c_str()));
}

TEST_F(general_connector_test, path_of_127_characters_reaches_the_loader_whole) {
    const std::string name = fake_plugin("fake_connector");
    ASSERT_LT(name.size(), 127u);
    profile = profile_of(std::string(127 - name.size(), '/') + name);
    EXPECT_EQ(0u, kr_sdn_hal_init(&profile, record_log));
}

/* ---- the log to the connector ---------------------------------------------------------------------------------- */

TEST_F(general_connector_test, log_before_init_has_finished_returns_0_and_calls_nothing) {
    connector->log = record_log;
    EXPECT_EQ(0u, kr_sdn_hal_log(1, "CLIENT", "early\n"));
    kr::general::g.connector.conn_log = [](uint32_t, const char *, const char *) { FAIL() << "called before init"; };
    EXPECT_EQ(0u, kr_sdn_hal_log(1, "CLIENT", "early\n"));
    EXPECT_THAT(take_calls(), testing::IsEmpty());
}

TEST_F(general_connector_test, log_reaches_conn_log_formatted_whatever_its_severity) {
    init();
    connector->log = record_log;
    EXPECT_EQ(0u, kr_sdn_hal_log(63, "CLIENT", "%s %d\n", "port", 5));
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{"63 CLIENT: port 5"}));
}

TEST_F(general_connector_test, log_of_300_characters_reaches_conn_log_cut_to_255) {
    init();
    connector->log = record_log;
    EXPECT_EQ(0u, kr_sdn_hal_log(1, "CLIENT", "%s", std::string(300, 'x').c_str()));
    EXPECT_EQ(0u, kr_sdn_hal_log(1, "CLIENT", "%s", std::string(255, 'y').c_str()));
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{
                                  "1 CLIENT: " + std::string(255, 'x') + " (no newline)",
                                  "1 CLIENT: " + std::string(255, 'y') + " (no newline)",
                              }));
}

TEST_F(general_connector_test, log_without_module_or_format_returns_8_and_calls_nothing) {
    init();
    connector->log = record_log;
    const char *volatile no_format = nullptr;
    EXPECT_EQ(8u, kr_sdn_hal_log(1, nullptr, "text"));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_EQ(8u, kr_sdn_hal_log(1, "CLIENT", no_format));
#pragma GCC diagnostic pop
    EXPECT_THAT(take_calls(), testing::IsEmpty());
}

TEST_F(general_connector_test, log_still_works_after_deinit) {
    init();
    EXPECT_EQ(0u, kr_sdn_hal_deinit());
    connector->log = record_log;
    (void)take_calls();
    EXPECT_EQ(0u, kr_sdn_hal_log(1, "CLIENT", "late\n"));
    EXPECT_THAT(take_calls(), ElementsAreArray(call_list{"1 CLIENT: late"}));
}

} // namespace

// Visible, since the linker reroutes the references of the sanitizers' shared libraries as well.
#pragma GCC visibility push(default)
extern "C" {

char *__real_dlerror(void);
char *__wrap_dlerror(void);

char *__wrap_dlerror(void) {
    char *const text = __real_dlerror();
    return loader_is_silent ? nullptr : text;
}

int __real_dlclose(void *library);
int __wrap_dlclose(void *library);

int __wrap_dlclose(void *library) {
    told_at_close.push_back(lseek(STDERR_FILENO, 0, SEEK_CUR));
    return __real_dlclose(library);
}

} // extern "C"
#pragma GCC visibility pop
