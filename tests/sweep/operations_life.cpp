/*
 * The life of the library: init, activate, deinit, capabilities, log, and the event service's own four steps.
 */
#include <cstring>

#include "core/events_db.h"
#include "tests/sweep/operations.h"

namespace kr_test {
namespace {

uint32_t init(world &world) {
    return world::client([&] { return kr_sdn_hal_init(&world.profile, [](uint32_t, const char *, const char *) {}); });
}
uint32_t deinit(world &) {
    return world::client([] { return kr_sdn_hal_deinit(); });
}
uint32_t activate(world &) {
    return world::client([] { return kr_sdn_hal_activate(); });
}
uint32_t log(world &) {
    return world::client([] { return kr_sdn_hal_log(1, "MODULE", "text %d", 7); });
}
void with_connector(world &world, const char *path) {
    memset(&world.profile, 0, sizeof world.profile);
    strncpy(world.profile.connector_library_path, path, KR_SDN_HAL_PATH_SIZE - 1);
}

template <auto Call> uint32_t plain(world &) {
    return world::client([] { return Call(); });
}
uint32_t capabilities_set(capabilities wanted) {
    return world::client([&] { return kr_sdn_hal_capabilities_set(&wanted); });
}

} // namespace

void add_life_operations(std::vector<operation> &operations) {
    const char *const f = "kr_sdn_hal_init";
    // What the loader does not close stays. A table whose stop event cannot be had keeps its lock, which is then made
    // anew.
    const std::vector<remains> an_init = {{"*", {"libraries"}}, {"cl_event_init", {"locks"}}};
    operations.push_back({.name = "init", .covers = f, .from = stage::loaded, .run = init, .leaves = an_init});
    operations.push_back(
        {.name = "init_without_a_callback",
         .covers = f,
         .from = stage::loaded,
         .run = [](world &world) { return world::client([&] { return kr_sdn_hal_init(&world.profile, nullptr); }); },
         .leaves = an_init});
    operations.push_back({"init_without_a_profile", f, stage::loaded,
                          [](world &) { return world::client([] { return kr_sdn_hal_init(nullptr, nullptr); }); }});
    const std::vector<remains> a_library = {{"*", {"libraries"}}};
    operations.push_back({"init_no_connector", f, stage::loaded, init,
                          [](world &world) { with_connector(world, "no-such-connector.so"); }});
    operations.push_back({"init_connector_without_a_path", f, stage::loaded, init, [](world &world) {
                              memset(world.profile.connector_library_path, 'x', KR_SDN_HAL_PATH_SIZE);
                          }});
    operations.push_back(
        {.name = "init_connector_without_a_symbol",
         .covers = f,
         .from = stage::loaded,
         .run = init,
         .prepare =
             [](world &world) { with_connector(world, KR_FAKE_PLUGIN_DIR "/fake_connector_without_conn_log.so"); },
         .leaves = a_library});
    operations.push_back({"init_twice", f, stage::initialized, init});
    operations.push_back({"init_after_deinit", f, stage::initialized, init, [](world &world) { (void)deinit(world); }});

    operations.push_back({"activate", "kr_sdn_hal_activate", stage::initialized, activate});
    operations.push_back({"activate_before_init", "kr_sdn_hal_activate", stage::loaded, activate});

    // Deinit ends at the first step that fails, and those before it refuse to be made once more.
    const remains loader = {"dlclose", {"libraries"}};
    operations.push_back(
        {.name = "deinit",
         .covers = "kr_sdn_hal_deinit",
         .from = stage::initialized,
         .run = deinit,
         .leaves = {{"deinit", {"tables", "locks", "events", "way back"}, false}, {"conn_deinit", {}, false}, loader}});
    operations.push_back(
        {.name = "deinit_before_init", .covers = "kr_sdn_hal_deinit", .from = stage::loaded, .run = deinit});
    operations.push_back({.name = "deinit_while_started",
                          .covers = "kr_sdn_hal_deinit",
                          .from = stage::started,
                          .run = deinit,
                          .leaves = {{"*", {"way back"}, false}, loader}});

    operations.push_back({"capabilities_set", "kr_sdn_hal_capabilities_set", stage::initialized, [](world &) {
                              return capabilities_set({0, 1500, 7});
                          }});
    operations.push_back({"capabilities_set_refused", "kr_sdn_hal_capabilities_set", stage::initialized, [](world &) {
                              return capabilities_set({0, 1400, 0});
                          }});
    operations.push_back({"capabilities_set_null", "kr_sdn_hal_capabilities_set", stage::initialized,
                          [](world &) { return world::client([] { return kr_sdn_hal_capabilities_set(nullptr); }); }});
    operations.push_back({"capabilities_get", "kr_sdn_hal_capabilities_get", stage::initialized, [](world &world) {
                              auto *const stored = world.out.room<capabilities>("capabilities");
                              return world::client([&] { return kr_sdn_hal_capabilities_get(stored); });
                          }});
    operations.push_back({"capabilities_get_null", "kr_sdn_hal_capabilities_get", stage::initialized,
                          [](world &) { return world::client([] { return kr_sdn_hal_capabilities_get(nullptr); }); }});
    operations.push_back({"log", "kr_sdn_hal_log", stage::initialized, log});
    operations.push_back({"log_before_init", "kr_sdn_hal_log", stage::loaded, log});

    operations.push_back({"srvc_init", "kr_sdn_hal_srvc_init", stage::loaded, plain<kr_sdn_hal_srvc_init>});
    operations.push_back({"srvc_init_twice", "kr_sdn_hal_srvc_init", stage::initialized, plain<kr_sdn_hal_srvc_init>});
    operations.push_back({"srvc_dependent_init", "kr_sdn_hal_srvc_dependent_init", stage::loaded,
                          plain<kr_sdn_hal_srvc_dependent_init>,
                          [](world &world) { (void)plain<kr_sdn_hal_srvc_init>(world); }});
    operations.push_back({"srvc_dependent_init_too_early", "kr_sdn_hal_srvc_dependent_init", stage::loaded,
                          plain<kr_sdn_hal_srvc_dependent_init>});
    operations.push_back({"srvc_dependent_deinit", "kr_sdn_hal_srvc_dependent_deinit", stage::loaded,
                          plain<kr_sdn_hal_srvc_dependent_deinit>, [](world &world) {
                              (void)plain<kr_sdn_hal_srvc_init>(world);
                              (void)plain<kr_sdn_hal_srvc_dependent_init>(world);
                          }});
    operations.push_back({"srvc_dependent_deinit_too_early", "kr_sdn_hal_srvc_dependent_deinit", stage::initialized,
                          plain<kr_sdn_hal_srvc_dependent_deinit>});
    operations.push_back({"srvc_deinit", "kr_sdn_hal_srvc_deinit", stage::loaded, plain<kr_sdn_hal_srvc_deinit>,
                          [](world &world) { (void)plain<kr_sdn_hal_srvc_init>(world); }});
    operations.push_back(
        {"srvc_deinit_while_started", "kr_sdn_hal_srvc_deinit", stage::started, plain<kr_sdn_hal_srvc_deinit>});
}

} // namespace kr_test
