/*
 * Fakes of the modules that the general module brings up: event service, tables, port plug-in. Each records its name.
 */
#include "core/events_db.h"
#include "core/fpt.h"
#include "fakes.h"
#include "tables/tables.h"

using kr_test::called;

namespace {

kr_sdn_hal_status status_of(const char *name) {
    return static_cast<kr_sdn_hal_status>(called(name));
}

} // namespace

constinit kr_api_handle sdk_handle = 0x77;

kr_sdn_hal_status kr_sdn_hal_srvc_init(void) noexcept {
    return status_of("kr_sdn_hal_srvc_init");
}
kr_sdn_hal_status kr_sdn_hal_srvc_dependent_init(void) noexcept {
    return status_of("kr_sdn_hal_srvc_dependent_init");
}
kr_sdn_hal_status kr_sdn_hal_srvc_dependent_deinit(void) noexcept {
    return status_of("kr_sdn_hal_srvc_dependent_deinit");
}
kr_sdn_hal_status kr_sdn_hal_srvc_deinit(void) noexcept {
    return status_of("kr_sdn_hal_srvc_deinit");
}
kr_sdn_hal_status kr_sdn_hal_srvc_process_event(const hal_event_record *record) noexcept {
    kr_test::add_delivered_record(*record);
    return status_of("kr_sdn_hal_srvc_process_event");
}

kr_sdn_hal_status tables_init(const uint8_t *table_enabled) {
    return status_of(*table_enabled == 1 ? "tables_init(1)" : "tables_init(?)");
}
kr_sdn_hal_status tables_dependent_init() {
    return status_of("tables_dependent_init");
}
kr_sdn_hal_status tables_dependent_deinit() {
    return status_of("tables_dependent_deinit");
}
kr_sdn_hal_status tables_deinit() {
    return status_of("tables_deinit");
}
kr_sdn_hal_status tables_port_added(uint32_t of_port) {
    kr_test::record(("of port " + std::to_string(of_port)).c_str());
    return status_of("tables_port_added");
}
kr_sdn_hal_status tables_port_removed(uint32_t of_port) {
    kr_test::record(("of port " + std::to_string(of_port)).c_str());
    return status_of("tables_port_removed");
}

kr_sdn_hal_status fpt_init(const system_profile *profile) {
    kr_test::record(profile->fpt_library_path);
    return status_of("fpt_init");
}
kr_sdn_hal_status fpt_activate() {
    return status_of("fpt_activate");
}
kr_sdn_hal_status fpt_deinit() {
    return status_of("fpt_deinit");
}
