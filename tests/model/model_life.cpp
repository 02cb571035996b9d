/*
 * The model's life cycle: init, activate, deinit, start and stop, and what each module's own life adds to them.
 */
#include "kr_api.h"
#include "tests/model/library_model.h"

namespace kr_model {

namespace {
constexpr status SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr status ERROR = KR_SDN_HAL_STATUS_ERROR;
} // namespace

/* ---- init, deinit ---------------------------------------------------------------------------------------------- */

// Each step that fails takes back those before it, in reverse order. The connector stays loaded.
status library_model::init(bool has_profile) {
    if (!has_profile) {
        return KR_SDN_HAL_STATUS_PARAM_NULL;
    }
    if (initialized || !plugins.connector_loads) {
        return ERROR;
    }
    connector_loaded = true;
    (void)hw.fault_due("kr_log_init"); // whether the logger starts is not looked at
    if (plugins.config_register != 0) {
        return static_cast<status>(plugins.config_register);
    }
    if (plugins.event_register != 0) {
        return static_cast<status>(plugins.event_register);
    }
    if (const status result = srvc_init(); result != SUCCESS) {
        return result;
    }
    ports_ready = false;
    ports.clear();
    if (hw.fault_due("cl_qpool_init")) {
        (void)srvc_deinit();
        return ERROR;
    }
    ports_ready = true;
    if (const status result = tables_init(); result != SUCCESS) {
        (void)srvc_deinit();
        return result;
    }
    if (const status result = fpt_init(); result != SUCCESS) {
        (void)tables_deinit();
        (void)srvc_deinit();
        return result;
    }
    if (hw.fault_due("cl_event_init")) {
        (void)fpt_deinit();
        (void)tables_deinit();
        (void)srvc_deinit();
        return ERROR;
    }
    disable_event_exists_ = true;
    if (plugins.init_done_hal != 0) {
        disable_event_exists_ = false;
        (void)fpt_deinit();
        (void)tables_deinit();
        (void)srvc_deinit();
        return static_cast<status>(plugins.init_done_hal);
    }
    initialized = true;
    return SUCCESS;
}

status library_model::activate() {
    return connector_loaded ? static_cast<status>(plugins.init_done_shim) : KR_SDN_HAL_STATUS_NOT_INITIALIZED;
}

// Ends at the first step that fails. `initialized` stays set: a process gets here once.
status library_model::deinit() {
    disable_event_exists_ = false;
    if (const status result = fpt_deinit(); result != SUCCESS) {
        return result;
    }
    if (const status result = tables_deinit(); result != SUCCESS) {
        return result;
    }
    if (const status result = srvc_deinit(); result != SUCCESS) {
        return result;
    }
    return static_cast<status>(plugins.conn_deinit);
}

status library_model::capabilities_set(const capabilities &wanted) {
    if (wanted.mode != 0 || (wanted.frame_size != 0 && wanted.frame_size != 1500)) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    stored = wanted;
    return SUCCESS;
}

/* ---- start, stop ----------------------------------------------------------------------------------------------- */

// Taking back ends at the first step that cannot be taken back. The port plug-in stays active.
status library_model::start() {
    if (const status result = srvc_dependent_init(); result != SUCCESS) {
        return result;
    }
    const auto undo_from_tables = [&] {
        if (tables_dependent_deinit() == SUCCESS) {
            (void)srvc_dependent_deinit();
        }
    };
    if (const status result = tables_dependent_init(); result != SUCCESS) {
        (void)srvc_dependent_deinit();
        return result;
    }
    if (const status result =
            fpt_initialized ? static_cast<status>(plugins.fpt_activate) : KR_SDN_HAL_STATUS_NOT_INITIALIZED;
        result != SUCCESS) {
        undo_from_tables();
        return result;
    }
    if (hw.host_ifc_open(device_handle_, &own_descriptor_) != KR_STATUS_SUCCESS) {
        undo_from_tables();
        return ERROR;
    }
    stop_pipe_open_ = !hw.fault_due("pipe");
    if (!stop_pipe_open_ || hw.fault_due("cl_thread_init")) {
        stop_pipe_open_ = false;
        if (hw.host_ifc_close(device_handle_, own_descriptor_) == KR_STATUS_SUCCESS) {
            undo_from_tables();
        }
        return ERROR;
    }
    control_thread_runs_ = true;
    control_start_count++;
    control_frames_select();
    return SUCCESS;
}

// Refused while ports exist. With its pipe gone (an earlier stop failed half-way) everything stays open, and the
// library counts as stopped.
status library_model::stop() {
    if (!ports.empty()) {
        return KR_SDN_HAL_STATUS_RESOURCE_IN_USE;
    }
    if (!stop_pipe_open_) {
        return SUCCESS;
    }
    if (const std::optional<uint32_t> code = hw.fault_due("write")) {
        control_thread_runs_ &= *code != code_part; // two bytes of four end the thread, but not the switch
        return SUCCESS;
    }
    control_thread_runs_ = false;
    stop_pipe_open_ = false;
    (void)hw.fault_due("close"); // both ends of the pipe are gone, whatever the system says
    (void)hw.fault_due("close");
    (void)hw.host_ifc_close(device_handle_, own_descriptor_);
    if (const status result = tables_dependent_deinit(); result != SUCCESS) {
        return result;
    }
    return srvc_dependent_deinit();
}

/* ---- the modules ----------------------------------------------------------------------------------------------- */

status library_model::srvc_init() {
    if (srvc_initialized_ || srvc_dependent_) {
        return ERROR;
    }
    registry = empty_registry();
    if (hw.fault_due("cl_plock_init")) {
        return ERROR;
    }
    srvc_initialized_ = true;
    return SUCCESS;
}

status library_model::srvc_dependent_init() {
    if (!srvc_initialized_ || srvc_dependent_) {
        return ERROR;
    }
    if (hw.device_open(&device_handle_) != KR_STATUS_SUCCESS) {
        return KR_SDN_HAL_STATUS_SDK_ERROR;
    }
    srvc_dependent_ = true;
    return SUCCESS;
}

status library_model::srvc_dependent_deinit() {
    if (!srvc_initialized_ || !srvc_dependent_) {
        return ERROR;
    }
    if (hw.device_close(&device_handle_) != KR_STATUS_SUCCESS) {
        return KR_SDN_HAL_STATUS_SDK_ERROR;
    }
    srvc_dependent_ = false;
    return SUCCESS;
}

status library_model::srvc_deinit() {
    if (!srvc_initialized_ || srvc_dependent_) {
        return ERROR;
    }
    srvc_initialized_ = false;
    return SUCCESS;
}

status library_model::tables_init() {
    if (tables_initialized_ || tables_dependent_) {
        return ERROR;
    }
    tables_ever_ = true;
    if (hw.fault_due("cl_plock_init") || hw.fault_due("cl_event_init")) {
        return ERROR;
    }
    tables_initialized_ = true;
    return SUCCESS;
}

// The thread that tidies the table comes last; without it the table stays up in hardware.
status library_model::tables_dependent_init() {
    if (!tables_initialized_ || tables_dependent_) {
        return ERROR;
    }
    if (const status result = table_0_init(); result != SUCCESS) {
        return result;
    }
    if (hw.fault_due("cl_thread_init")) {
        return ERROR;
    }
    tables_dependent_ = true;
    return SUCCESS;
}

status library_model::tables_dependent_deinit() {
    if (!tables_initialized_ || !tables_dependent_) {
        return ERROR;
    }
    if (const status result = table_0_deinit(); result != SUCCESS) {
        return result;
    }
    tables_dependent_ = false;
    return SUCCESS;
}

status library_model::tables_deinit() {
    if (!tables_initialized_ || tables_dependent_) {
        return ERROR;
    }
    tables_initialized_ = false;
    return SUCCESS;
}

status library_model::fpt_init() {
    if (fpt_initialized || !plugins.fpt_loads) {
        return ERROR;
    }
    fpt_initialized = true;
    return SUCCESS;
}

// The plug-in is gone whatever it answers.
status library_model::fpt_deinit() {
    if (!fpt_initialized) {
        return KR_SDN_HAL_STATUS_NOT_INITIALIZED;
    }
    fpt_initialized = false;
    return static_cast<status>(plugins.fpt_deinit);
}

/* ---- Table 0 --------------------------------------------------------------------------------------------------- */

// Nothing is undone here: what an earlier step made stays.
status library_model::table_0_init() {
    db = {.initialized = true, .has_pool = !hw.fault_due("cl_qpool_init"), .flows = {}, .slots = {}};
    if (hw.rm_open(&rm_handle_) != KR_STATUS_SUCCESS || hw.rm_init(rm_handle_) != KR_STATUS_SUCCESS ||
        hw.acl_create(rm_handle_, &acl_id) != KR_STATUS_SUCCESS) {
        return ERROR;
    }
    if (const kr_status created = hw.group_create(rm_handle_, {}, &flood_group_id); created != KR_STATUS_SUCCESS) {
        return created == KR_STATUS_NO_RESOURCES ? KR_SDN_HAL_STATUS_NO_RESOURCES : ERROR;
    }
    if (const status result = from_utils(hw.psort_init(&placement_handle)); result != SUCCESS) {
        return result;
    }
    counters_used = 0;
    counters_max = counter_budget;
    return SUCCESS;
}

status library_model::table_0_deinit() {
    if (!db.initialized) {
        return ERROR;
    }
    db = {};
    counters_used = 0;
    if (const status result = from_utils(hw.psort_clear(placement_handle)); result != SUCCESS) {
        return result;
    }
    if (hw.group_destroy(rm_handle_, flood_group_id) != KR_STATUS_SUCCESS ||
        hw.acl_destroy(rm_handle_, acl_id) != KR_STATUS_SUCCESS || hw.rm_close(&rm_handle_) != KR_STATUS_SUCCESS) {
        return ERROR;
    }
    return SUCCESS;
}

} // namespace kr_model
