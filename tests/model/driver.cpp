/*
 * Steps on the library and on the model. Each operation calls the library first; the platform's choices are then handed
 * to the model, which says what had to come of it.
 */
#include "tests/model/driver.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "kr_soft.h"
#include "tables/tables_acl_impl.h"
#include "tests/model/platform_spies.h"

namespace kr_model {

namespace {

constexpr uint8_t untouched = 0xA5; // what outputs hold before a call

template <typename Record> Record untouched_record() {
    Record record;
    memset(static_cast<void *>(&record), untouched, sizeof record);
    return record;
}

template <typename Record> std::vector<Record> untouched_records(size_t count) {
    return std::vector<Record>(count, untouched_record<Record>());
}

template <typename Record>
void same_records(const std::vector<Record> &library, const std::vector<Record> &model, const char *what) {
    for (size_t i = 0; i < library.size(); i++) {
        KR_MODEL_REQUIRE(memcmp(&library[i], &model[i], sizeof(Record)) == 0,
                         std::string(what) + " " + std::to_string(i) + " differs");
    }
}

void ignore_log(uint32_t, const char *, const char *) {}

} // namespace

/* ---- the connector's thread ------------------------------------------------------------------------------------ */

// Never joined: it may be left waiting for good.
connector_thread::connector_thread() {
    std::thread([this] { body(); }).detach();
}

void connector_thread::body() {
    this_thread_role = thread_role::connector;
    std::unique_lock lock(spies.mutex);
    for (;;) {
        spies.changed.wait(lock, [this] { return event_ != nullptr; });
        const std::function<uint32_t()> *const event = event_;
        lock.unlock();
        const uint32_t answer = (*event)();
        lock.lock();
        event_ = nullptr;
        answer_ = answer;
        has_answer_ = true;
        spies.connector_in_wait = false;
        spies.changed.notify_all();
    }
}

bool connector_thread::run(const std::function<uint32_t()> &event, uint32_t *answer) {
    std::unique_lock lock(spies.mutex);
    left_waiting_ = event;
    has_answer_ = false;
    spies.connector_in_wait = false;
    event_ = &left_waiting_;
    spies.changed.notify_all();
    spies.changed.wait(lock, [this] { return has_answer_ || spies.connector_in_wait; });
    *answer = answer_;
    return has_answer_;
}

bool connector_thread::is_waiting() const {
    const std::lock_guard lock(spies.mutex);
    return !has_answer_;
}

uint32_t connector_thread::finish() {
    std::unique_lock lock(spies.mutex);
    spies.changed.wait(lock, [this] { return has_answer_; });
    return answer_;
}

/* ---- a step ---------------------------------------------------------------------------------------------------- */

driver::driver() : connector_(FAKE_PLUGIN_DIR "/fake_connector.so"), fpt_(FAKE_PLUGIN_DIR "/fake_fpt.so") {
    this_thread_role = thread_role::driver;
}

void driver::same_status(uint32_t library, uint32_t model) {
    last_status = library;
    KR_MODEL_REQUIRE(library == model, "status " + std::to_string(library) + ", not " + std::to_string(model));
}

void driver::called() {
    model_.hw.answers = std::exchange(spies.answers, {});
}

uint32_t driver::group_id_of(uint32_t slot) const {
    if (slot < group_slot_count) {
        return group_ids_[slot];
    }
    return slot == group_slot_flood ? model_.flood_group_id : 12345;
}

bool driver::is_left_out(const step &s) const {
    switch (s.what) {
    case op::init:
    case op::deinit: // takes the event away under the one who waits for it
    case op::connector_start:
    case op::connector_stop:
    case op::port_added:
    case op::port_removed:
    case op::control_forward:
    case op::other_event:
    case op::config:
        return model_.connector_waits || (s.what >= op::connector_start && connector_->event_callback == nullptr);
    case op::recv:
        return model_.srvc_initialized() && model_.channels[s.target].is_open && !model_.ready(s.target);
    case op::background:
        return !model_.tables_usable();
    case op::srvc_life_cycle: // only where it is refused: the rest is the library's own
        switch (s.value) {
        case 0:
            return !model_.srvc_initialized();
        case 2:
            return model_.srvc_initialized() && model_.srvc_dependent();
        default:
            return model_.srvc_initialized() && !model_.srvc_dependent();
        }
    default:
        return false;
    }
}

// Nobody writes to a pipe that is full: the driver is the only one who reads.
void driver::make_room() {
    constexpr size_t enough = 10; // of 16
    for (uint32_t channel = 0; channel < channel_count; channel++) {
        while (model_.srvc_initialized() && model_.channels[channel].pipe.size() > enough) {
            recv_compare(channel);
        }
    }
}

bool driver::run(const step &s) {
    if (is_left_out(s)) {
        return false;
    }
    make_room();
    plugins_prepare(s);
    const uint32_t faults_before = model_.hw.fault_count;
    if (!s.fault.function.empty()) {
        if (is_system_call(s.fault.function)) {
            system_fault_set(s.fault);
        } else {
            KR_MODEL_REQUIRE(kr_soft_fault_set(s.fault.function.c_str(), s.fault.nth, s.fault.code,
                                               s.fault.persistent) == KR_STATUS_SUCCESS,
                             "no such contract function: " + s.fault.function);
        }
        model_.hw.planned = s.fault;
    }
    if (s.what <= op::srvc_life_cycle) {
        run_life_cycle(s);
    } else if (s.what <= op::config) {
        run_connector(s);
    } else if (s.what <= op::background) {
        run_switch(s);
    } else if (s.what <= op::process_event) {
        run_channels(s);
    } else if (s.what <= op::port_operation) {
        run_ports(s);
    } else if (s.what <= op::table_info) {
        run_flows(s);
    } else if (s.what <= op::group_get) {
        run_groups(s);
    } else {
        run_null_arguments(s);
    }
    kr_soft_fault_clear();
    control_frames_wait(); // calls of the operating system may fail in it
    system_fault_set({});
    model_.hw.planned = {};
    fault_came_due = model_.hw.fault_count != faults_before;
    model_.hw.answers.require_empty();
    compare_after(s);
    return true;
}

void driver::plugins_prepare(const step &s) {
    plugin_answers &plugins = model_.plugins;
    plugins = {};
    connector_->init_done_hal_status = connector_->config_register_status = connector_->event_register_status = 0;
    connector_->init_done_shim_status = connector_->deinit_status = 0;
    fpt_->activate_status = fpt_->deinit_status = 0;
    switch (s.what) {
    case op::init:
        plugins.connector_loads = s.value != init_no_connector;
        plugins.fpt_loads = s.value != init_no_fpt;
        plugins.config_register = connector_->config_register_status =
            s.value == init_config_register_fails ? s.answer : 0;
        plugins.event_register = connector_->event_register_status =
            s.value == init_event_register_fails ? s.answer : 0;
        plugins.init_done_hal = connector_->init_done_hal_status = s.value == init_done_hal_fails ? s.answer : 0;
        break;
    case op::activate:
        plugins.init_done_shim = connector_->init_done_shim_status = s.answer;
        break;
    case op::deinit:
        plugins.conn_deinit = connector_->deinit_status = s.value == 1 ? s.answer : 0;
        plugins.fpt_deinit = fpt_->deinit_status = s.value == 2 ? s.answer : 0;
        break;
    case op::connector_start:
        plugins.fpt_activate = fpt_->activate_status = s.answer;
        break;
    case op::port_operation:
        plugins.fpt_port = s.answer;
#define X(name) fpt_->name##_status = s.answer;
        FPT_SYMBOLS(X)
#undef X
        fpt_->activate_status = fpt_->deinit_status = 0;
        break;
    default:
        break;
    }
}

/* ---- life cycle ------------------------------------------------------------------------------------------------ */

void driver::run_life_cycle(const step &s) {
    switch (s.what) {
    case op::init: {
        system_profile profile{};
        strcpy(profile.connector_library_path,
               s.value == init_no_connector ? "/nonexistent" : FAKE_PLUGIN_DIR "/fake_connector.so");
        strcpy(profile.fpt_library_path, s.value == init_no_fpt ? "/nonexistent" : FAKE_PLUGIN_DIR "/fake_fpt.so");
        const bool has_profile = s.value != init_no_profile;
        const status result = kr_sdn_hal_init(has_profile ? &profile : nullptr, ignore_log);
        same_status(result, model_.init(has_profile));
        break;
    }
    case op::activate:
        same_status(kr_sdn_hal_activate(), model_.activate());
        break;
    case op::deinit: {
        const status result = kr_sdn_hal_deinit();
        same_status(result, model_.deinit());
        break;
    }
    case op::capabilities_set: {
        const capabilities wanted = {.mode = s.value,
                                     .frame_size = static_cast<uint16_t>(s.count),
                                     .reserved = static_cast<uint16_t>(s.command)};
        same_status(kr_sdn_hal_capabilities_set(&wanted), model_.capabilities_set(wanted));
        break;
    }
    case op::capabilities_get: {
        auto read = untouched_record<capabilities>();
        same_status(kr_sdn_hal_capabilities_get(&read), KR_SDN_HAL_STATUS_SUCCESS);
        KR_MODEL_REQUIRE(memcmp(&read, &model_.stored, sizeof read) == 0, "the capabilities differ");
        break;
    }
    default: {
        kr_sdn_hal_status (*const functions[])() = {kr_sdn_hal_srvc_init, kr_sdn_hal_srvc_dependent_init,
                                                    kr_sdn_hal_srvc_dependent_deinit, kr_sdn_hal_srvc_deinit};
        same_status(functions[std::min<size_t>(s.value, 3)](), KR_SDN_HAL_STATUS_ERROR);
        break;
    }
    }
}

/* ---- the connector's events ------------------------------------------------------------------------------------ */

void driver::run_connector(const step &s) {
    if (s.what == op::config) {
        conn_agent_config config;
        memset(static_cast<void *>(&config), static_cast<int>(s.value & 0xff), sizeof config);
        config.entries[0].value = s.value;
        config.trailer = uint64_t{s.value} << 32 | s.command;
        uint32_t answer = 0;
        (void)connector_thread_.run([&] { return connector_->config_callback(s.command, &config); }, &answer);
        called();
        same_status(answer, model_.config(s.command, config));
        return;
    }
    uint32_t code = s.value;
    auto port = std::make_shared<conn_port_record>(s.port); // outlives this function when the event waits
    auto forward = std::make_shared<conn_control_forward>(conn_control_forward{s.command, s.value});
    void *data = nullptr;
    switch (s.what) {
    case op::connector_start:
        code = CONN_EVENT_START;
        break;
    case op::connector_stop:
        code = CONN_EVENT_STOP;
        break;
    case op::port_added:
    case op::port_removed:
        code = s.what == op::port_added ? CONN_EVENT_PORT_ADDED : CONN_EVENT_PORT_REMOVED;
        data = port.get();
        break;
    case op::control_forward:
        code = CONN_EVENT_CONTROL_FORWARD;
        data = forward.get();
        break;
    default:
        break;
    }
    uint32_t answer = 0;
    const auto callback = connector_->event_callback;
    const bool answered =
        connector_thread_.run([callback, code, data, port, forward] { return callback(code, data); }, &answer);
    called();
    const library_model::event_outcome outcome = model_.event(code, s.port, *forward);
    if (!answered && !outcome.waits) { // it only passed by: there is nothing to wait on
        answer = connector_thread_.finish();
    } else {
        KR_MODEL_REQUIRE(answered == !outcome.waits, answered ? "the connector did not wait" : "the connector waits");
    }
    if (!outcome.waits) {
        same_status(answer, outcome.result);
    }
}

/* ---- the switch ------------------------------------------------------------------------------------------------ */

void driver::run_switch(const step &s) {
    switch (s.what) {
    case op::switch_port_add:
        same_status(kr_soft_port_add_memory(s.value), model_.hw.port_add(s.value));
        break;
    case op::switch_port_remove:
        same_status(kr_soft_port_remove(s.value), model_.hw.port_remove(s.value));
        break;
    case op::link_set:
        same_status(kr_soft_port_link_set(s.value, s.command), model_.hw.link_set(s.value, s.command != 0));
        break;
    case op::frame: {
        const bytes data = frame_bytes(s.frame);
        same_status(kr_soft_port_inject(s.frame.log_port, data.data(), static_cast<uint32_t>(data.size())),
                    model_.hw.frame_enter(s.frame));
        break;
    }
    default: {
        uint32_t finished = 0;
        (void)psort_background_worker(acl_psort_handle, &finished);
        called();
        model_.background_step();
        last_status = 0; // nobody looks at it
        break;
    }
    }
}

void driver::control_frames_wait() {
    model_.control_frames_run();
    const uint32_t expected = model_.control_start_count + model_.control_frame_count;
    std::unique_lock lock(spies.mutex);
    spies.changed.wait(lock, [=] { return spies.control_wait_count >= expected; });
    KR_MODEL_REQUIRE(spies.control_wait_count == expected, "the thread of control frames received a frame too many");
}

/* ---- channels -------------------------------------------------------------------------------------------------- */

void driver::recv_compare(uint32_t channel) {
    const auto before = untouched_record<hal_event_record>();
    auto record = std::make_unique<hal_event_record>(before);
    const status result = kr_sdn_hal_srvc_recv(&handles_[channel], record.get());
    const received expected = model_.recv(channel, before);
    same_status(result, expected.result);
    const auto *const found = reinterpret_cast<const uint8_t *>(record.get());
    const auto *const wanted = reinterpret_cast<const uint8_t *>(&expected.record);
    KR_MODEL_REQUIRE(
        memcmp(found, wanted, expected.open_begin) == 0 &&
            memcmp(found + expected.open_end, wanted + expected.open_end, sizeof *record - expected.open_end) == 0,
        "a record of type " + std::to_string(expected.record.type) + " differs");
}

void driver::run_channels(const step &s) {
    srvc_handle *const handle = &handles_[s.target];
    switch (s.what) {
    case op::open: {
        const status result = kr_sdn_hal_srvc_open(handle);
        same_status(result, model_.open(s.target));
        break;
    }
    case op::close: {
        const status result = kr_sdn_hal_srvc_close(handle);
        same_status(result, model_.close(s.target));
        break;
    }
    case op::event_register: {
        const status result = kr_sdn_hal_srvc_event_register(handle, s.value);
        same_status(result, model_.event_register(s.target, s.value));
        break;
    }
    case op::event_unregister: {
        const status result = kr_sdn_hal_srvc_event_unregister(handle, s.value);
        same_status(result, model_.event_unregister(s.target, s.value));
        break;
    }
    case op::select: {
        std::vector<srvc_handle *> handles;
        std::vector<uint32_t> selected;
        for (const uint64_t channel : s.ids) {
            selected.push_back(static_cast<uint32_t>(channel % channel_count));
            handles.push_back(&handles_[selected.back()]);
        }
        timeval no_wait{};
        uint32_t library_mask = 0xA5A5A5A5;
        uint32_t model_mask = library_mask;
        same_status(
            kr_sdn_hal_srvc_select(handles.data(), static_cast<uint32_t>(handles.size()), &no_wait, &library_mask),
            model_.select(selected, &model_mask));
        KR_MODEL_REQUIRE(library_mask == model_mask, "the ready mask differs");
        break;
    }
    case op::recv:
        recv_compare(s.target);
        break;
    case op::packet_send: {
        bytes packet(s.count, static_cast<uint8_t>(s.value));
        const status result = kr_sdn_hal_srvc_packet_send(handle, packet.data() != nullptr ? packet.data() : &untouched,
                                                          s.count, s.value, 7);
        same_status(result, model_.packet_send(s.target, packet, s.value));
        break;
    }
    case op::event_ack: {
        hal_event_record record{};
        record.type = s.command == 2 ? EVENT_GENERAL_READY : EVENT_PORT_CAPABILITIES_UPDATE;
        record.payload.port_update.reason = s.command == 1 ? PORT_UPDATE_ADDED : PORT_UPDATE_REMOVED;
        record.payload.port_update.port = s.value;
        const hal_event_record *const given = s.command == 3 ? nullptr : &record;
        const bool waited = model_.connector_waits;
        KR_MODEL_REQUIRE(!waited || connector_thread_.is_waiting(),
                         "the connector did not wait for the acknowledgement");
        const status result = kr_sdn_hal_srvc_event_ack(given);
        same_status(result, model_.event_ack(given));
        if (waited && !model_.connector_waits) {
            KR_MODEL_REQUIRE(connector_thread_.finish() == KR_SDN_HAL_STATUS_SUCCESS,
                             "the port's removal failed in the end");
        }
        break;
    }
    default: {
        hal_event_record record;
        memset(static_cast<void *>(&record), static_cast<int>(s.command & 0xff) | 1, sizeof record);
        record.type = s.value;
        same_status(kr_sdn_hal_srvc_process_event(&record), model_.process_event(record));
        break;
    }
    }
}

/* ---- ports ----------------------------------------------------------------------------------------------------- */

void driver::run_ports(const step &s) {
    switch (s.what) {
    case op::port_arr_get: {
        std::vector<uint32_t> ports = untouched_records<uint32_t>(128);
        std::vector<uint32_t> expected_ports;
        uint32_t count = std::min(s.count, 128U);
        uint32_t expected_count = count;
        if (s.command == 2) {
            same_status(kr_sdn_hal_port_arr_get(ports.data(), nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
            break;
        }
        const bool has_array = s.command != 1;
        same_status(kr_sdn_hal_port_arr_get(has_array ? ports.data() : nullptr, &count),
                    model_.port_arr_get(has_array, expected_count, &expected_ports, &expected_count));
        KR_MODEL_REQUIRE(count == expected_count, "another number of ports");
        std::vector<uint32_t> whole = untouched_records<uint32_t>(128);
        std::ranges::copy(expected_ports, whole.begin());
        same_records(ports, whole, "port");
        break;
    }
    case op::port_capabilities: {
        uint32_t read = 0xA5A5A5A5;
        same_status(kr_sdn_hal_port_capabilities_get(s.value, &read), model_.port_capabilities_get(s.value));
        KR_MODEL_REQUIRE(read == (last_status == KR_SDN_HAL_STATUS_SUCCESS ? 0 : 0xA5A5A5A5),
                         "the port's capabilities differ");
        break;
    }
    default:
        run_port_operation(s);
        break;
    }
}

// The plug-in gets what the client gave, and the client what the plug-in gave, unless a range or the stage forbids it.
void driver::run_port_operation(const step &s) {
    const uint32_t port = s.value;
    const auto argument = static_cast<int32_t>(s.count);
    fpt_->port = ~port;
    const auto expect = [&](status result, bool in_range) {
        const status expected = in_range ? model_.port_operation() : KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
        same_status(result, expected);
        const bool reached = in_range && model_.fpt_initialized;
        KR_MODEL_REQUIRE(fpt_->port == (reached ? port : ~port),
                         reached ? "another port reached the plug-in" : "the plug-in was asked");
        return reached;
    };
    const auto set = [&](status result, bool in_range, auto &stored, auto wanted) {
        if (expect(result, in_range)) {
            KR_MODEL_REQUIRE(memcmp(&stored, &wanted, sizeof stored) == 0, "another value reached the plug-in");
        }
    };
    const auto get = [&](status result, const auto &read, const auto &given) {
        const auto otherwise = untouched_record<std::decay_t<decltype(read)>>();
        const void *const wanted = expect(result, true) ? static_cast<const void *>(&given) : &otherwise;
        KR_MODEL_REQUIRE(memcmp(&read, wanted, sizeof read) == 0, "another value came from the plug-in");
    };
    switch (s.command) {
    case 0:
        set(kr_sdn_hal_port_state_set(port, argument), argument >= 0 && argument <= 2, fpt_->admin_state, s.count);
        break;
    case 1:
    case 2:
    case 3:
    case 4: {
        fpt_->admin_state = s.count & 3;
        fpt_->oper_state = ~s.count & 3;
        auto admin = untouched_record<int32_t>();
        auto oper = untouched_record<int32_t>();
        const bool wants_admin = (s.command & 1) != 0;
        const bool wants_oper = s.command == 1 || s.command == 2;
        const status result =
            kr_sdn_hal_port_state_get(port, wants_admin ? &admin : nullptr, wants_oper ? &oper : nullptr);
        if (!wants_admin && !wants_oper) {
            same_status(result, KR_SDN_HAL_STATUS_SUCCESS);
            break;
        }
        const bool reached = expect(result, true);
        const bool second = reached && wants_oper && (!wants_admin || s.answer == 0);
        const auto none = untouched_record<int32_t>();
        KR_MODEL_REQUIRE(admin == (reached && wants_admin ? static_cast<int32_t>(fpt_->admin_state) : none),
                         "the admin state differs");
        KR_MODEL_REQUIRE(oper == (second ? static_cast<int32_t>(fpt_->oper_state) : none), "the oper state differs");
        break;
    }
    case 5:
        set(kr_sdn_hal_port_rstp_state_set(port, argument), argument >= 0 && argument <= 3, fpt_->stp_state, s.count);
        break;
    case 6: {
        fpt_->stp_state = s.count;
        auto read = untouched_record<uint32_t>();
        get(kr_sdn_hal_port_rstp_state_get(port, reinterpret_cast<int32_t *>(&read)), read, fpt_->stp_state);
        break;
    }
    case 7: {
        memset(&fpt_->mac_address, argument & 0xff, sizeof fpt_->mac_address);
        auto read = untouched_record<port_mac_address>();
        get(kr_sdn_hal_port_phys_addr_get(port, &read), read, fpt_->mac_address);
        break;
    }
    case 8: {
        const int32_t odd = s.count >= 16 ? 2 : 0;
        const port_speed_admin speed = {argument & 1, argument >> 1 & 1, (argument >> 2 & 1) + odd, argument >> 3 & 1};
        const bool in_range = speed.speed_40g <= 1;
        set(kr_sdn_hal_port_speed_set(port, &speed), in_range, fpt_->admin_speed, speed);
        break;
    }
    case 9: {
        fpt_->admin_speed = {1, 0, argument & 1, 1};
        fpt_->oper_speed = s.count;
        auto admin = untouched_record<port_speed_admin>();
        auto oper = untouched_record<uint32_t>();
        get(kr_sdn_hal_port_speed_get(port, &admin, &oper), admin, fpt_->admin_speed);
        const bool second = last_status == KR_SDN_HAL_STATUS_SUCCESS;
        KR_MODEL_REQUIRE(oper == (second ? s.count : untouched_record<uint32_t>()), "the oper speed differs");
        break;
    }
    case 10: {
        fpt_->speed_capability = s.count;
        auto read = untouched_record<uint32_t>();
        get(kr_sdn_hal_port_speed_capability_get(port, &read), read, fpt_->speed_capability);
        break;
    }
    case 11:
        same_status(kr_sdn_hal_port_flood_mode_set(port, s.count), KR_SDN_HAL_STATUS_SUCCESS);
        break;
    case 12: {
        auto read = untouched_record<uint32_t>();
        same_status(kr_sdn_hal_port_flood_mode_get(port, &read), KR_SDN_HAL_STATUS_SUCCESS);
        KR_MODEL_REQUIRE(read == untouched_record<uint32_t>(), "the flood mode was written");
        break;
    }
    case 13: {
        const auto mtu = static_cast<uint16_t>(s.count);
        set(kr_sdn_hal_port_mtu_set(port, mtu), mtu >= 68 && mtu <= 10000, fpt_->mtu, mtu);
        break;
    }
    case 14: {
        fpt_->mtu = static_cast<uint16_t>(s.count);
        auto read = untouched_record<uint16_t>();
        get(kr_sdn_hal_port_mtu_get(port, &read), read, fpt_->mtu);
        break;
    }
    case 15: {
        memset(static_cast<void *>(&fpt_->counters), argument & 0xff, sizeof fpt_->counters);
        auto read = untouched_record<port_counters>();
        get(kr_sdn_hal_port_cntr_get(port, &read), read, fpt_->counters);
        break;
    }
    default:
        set(kr_sdn_hal_port_cntr_clear(port, argument), argument == 0 || argument == 1, fpt_->all_ports, s.count);
        break;
    }
}

/* ---- flows ----------------------------------------------------------------------------------------------------- */

void driver::run_flows(const step &s) {
    const size_t count = s.ids.size();
    switch (s.what) {
    case op::flows_add:
    case op::flows_delete: {
        std::vector<flow_record> flows = s.flows;
        for (const uint64_t id : s.ids) {
            flows.emplace_back().flow_id = id;
        }
        if (flows.capacity() == 0) {
            flows.reserve(1); // NULL is another matter
        }
        for (flow_record &flow : flows) {
            if (flow.action == FLOW_ACTION_MC_GROUP) {
                flow.mc_group_id = group_id_of(flow.mc_group_id % (group_slot_unknown + 1));
            }
        }
        const uint32_t command = s.command != 0               ? s.command
                                 : s.what == op::flows_delete ? uint32_t{KR_SDN_HAL_CMD_DELETE}
                                                              : uint32_t{KR_SDN_HAL_CMD_ADD};
        std::vector<flow_record> expected = flows;
        const status result =
            kr_sdn_hal_table_entry_set(command, s.value, flows.data(), static_cast<uint32_t>(flows.size()));
        called();
        same_status(result, model_.entry_set(command, s.value, expected));
        same_records(flows, expected, "flow");
        break;
    }
    case op::flows_get: {
        std::vector<flow_record> flows = untouched_records<flow_record>(count + 1);
        std::vector<flow_record> expected = flows;
        auto room = static_cast<uint32_t>(count);
        const std::vector<uint64_t> ids = [&] {
            std::vector<uint64_t> copy = s.ids;
            copy.push_back(0);
            return copy;
        }();
        same_status(kr_sdn_hal_table_entry_get(s.value, s.command, ids.data(), &room, flows.data()),
                    model_.entry_get(s.value, s.command, s.ids, std::span(expected).first(count)));
        KR_MODEL_REQUIRE(room == count, "the count was written");
        same_records(flows, expected, "flow");
        break;
    }
    case op::activity_get: {
        std::vector<uint32_t> activities = untouched_records<uint32_t>(count + 1);
        std::vector<uint32_t> expected = activities;
        std::vector<uint64_t> ids = s.ids;
        ids.push_back(0);
        same_status(
            kr_sdn_hal_table_entry_activity_get(s.value, ids.data(), static_cast<uint32_t>(count), activities.data()),
            model_.activity_get(s.value, s.ids, expected));
        same_records(activities, expected, "activity");
        break;
    }
    case op::stats_get: {
        std::vector<flow_stats> stats = untouched_records<flow_stats>(count + 1);
        std::vector<flow_stats> expected = stats;
        std::vector<uint64_t> ids = s.ids;
        ids.push_back(0);
        same_status(kr_sdn_hal_table_entry_stat_get(s.value, ids.data(), static_cast<uint32_t>(count), stats.data()),
                    model_.stats_get(s.value, s.ids, std::span(expected).first(count)));
        same_records(stats, expected, "statistics");
        break;
    }
    default: {
        auto stats = untouched_record<table_stats>();
        table_stats expected_stats = stats;
        same_status(kr_sdn_hal_table_table_stat_get(s.value, &stats), model_.table_stat_get(s.value, &expected_stats));
        KR_MODEL_REQUIRE(memcmp(&stats, &expected_stats, sizeof stats) == 0, "the table's statistics differ");
        uint32_t table_count = 0;
        same_status(kr_sdn_hal_table_capabilities_get(&table_count), KR_SDN_HAL_STATUS_SUCCESS);
        KR_MODEL_REQUIRE(table_count == 1, "the number of tables differs");
        auto record = untouched_record<table_capabilities>();
        same_status(kr_sdn_hal_table_table_capabilities_get(s.value, &record), model_.table_capabilities_get(s.value));
        const table_capabilities wanted = {.name = "12 tuple ACL",
                                           .max_entries = 1000,
                                           .table_flag = 1,
                                           .instructions = 0x10,
                                           .write_actions = 0,
                                           .apply_actions = 0x60001,
                                           .match = 0xC1FFFB,
                                           .wildcards = 0xC1FFDB,
                                           .apply_setfields = 0xC0};
        const auto nothing = untouched_record<table_capabilities>();
        const table_capabilities &expected = last_status == KR_SDN_HAL_STATUS_SUCCESS ? wanted : nothing;
        KR_MODEL_REQUIRE(memcmp(&record, &expected, sizeof record) == 0, "the table's capabilities differ");
        break;
    }
    }
}

/* ---- groups ---------------------------------------------------------------------------------------------------- */

void driver::run_groups(const step &s) {
    uint32_t library_id = group_id_of(s.target);
    uint32_t model_id = library_id;
    std::vector<uint32_t> of_ports;
    for (const uint64_t port : s.ids) {
        of_ports.push_back(static_cast<uint32_t>(port));
    }
    if (s.what == op::group_get) {
        std::vector<uint32_t> members = untouched_records<uint32_t>(128);
        std::vector<uint32_t> expected_members;
        uint32_t count = s.count;
        uint32_t expected_count = s.count;
        same_status(kr_sdn_hal_table_mcast_group_get(library_id, &count, members.data()),
                    model_.group_get(model_id, &expected_count, &expected_members));
        KR_MODEL_REQUIRE(count == expected_count, "another number of members");
        std::vector<uint32_t> whole = untouched_records<uint32_t>(128);
        std::ranges::copy(expected_members, whole.begin());
        same_records(members, whole, "member");
        return;
    }
    uint32_t command = s.command;
    if (s.what != op::group_edit) {
        command = s.what == op::group_create ? KR_SDN_HAL_GROUP_CREATE : KR_SDN_HAL_GROUP_DELETE;
    }
    of_ports.reserve(1);
    const status result =
        kr_sdn_hal_table_mcast_group_set(command, static_cast<uint32_t>(of_ports.size()), of_ports.data(), &library_id);
    called();
    same_status(result, model_.group_set(command, of_ports, &model_id));
    KR_MODEL_REQUIRE(library_id == model_id, "another group id");
    if (s.what == op::group_create && s.target < group_slot_count) {
        group_ids_[s.target] = library_id;
    }
}

/* ---- arguments that are missing -------------------------------------------------------------------------------- */

// The stage matters to the event service alone.
void driver::run_null_arguments(const step &s) {
    constexpr status parameter_null = KR_SDN_HAL_STATUS_PARAM_NULL;
    const status no_channel = model_.srvc_initialized() ? KR_SDN_HAL_STATUS_PARAM_ERROR : KR_SDN_HAL_STATUS_ERROR;
    uint64_t id = 1;
    uint32_t number = 1;
    flow_record flow{};
    flow_stats stats{};
    timeval no_wait{};
    const bytes packet(60);
    const std::function<void()> calls[] = {
        [&] { same_status(kr_sdn_hal_table_entry_set(0, 0, nullptr, 1), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_entry_get(0, 0, nullptr, &number, &flow), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_entry_get(0, 0, &id, nullptr, &flow), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_entry_get(0, 0, &id, &number, nullptr), parameter_null); },
        [&] {
            same_status(kr_sdn_hal_table_entry_get(1, 5, nullptr, nullptr, nullptr), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
        },
        [&] { same_status(kr_sdn_hal_table_mcast_group_set(0, 1, &number, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_mcast_group_set(0, 1, nullptr, &number), parameter_null); },
        [&] {
            same_status(kr_sdn_hal_table_mcast_group_set(2, 101, nullptr, &number),
                        KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
        },
        [&] {
            same_status(kr_sdn_hal_table_mcast_group_set(1, 1, &number, &number), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
        },
        [&] { same_status(kr_sdn_hal_table_mcast_group_get(1, nullptr, &number), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_mcast_group_get(1, &number, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_capabilities_get(nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_table_capabilities_get(0, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_table_capabilities_get(1, nullptr), KR_SDN_HAL_STATUS_PARAM_ERROR); },
        [&] { same_status(kr_sdn_hal_table_entry_activity_get(0, nullptr, 1, &number), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_entry_activity_get(0, &id, 1, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_table_stat_get(0, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_entry_stat_get(0, nullptr, 1, &stats), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_entry_stat_get(0, &id, 1, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_table_entry_stat_get(0, nullptr, 0, nullptr), KR_SDN_HAL_STATUS_SUCCESS); },
        [&] { same_status(kr_sdn_hal_capabilities_set(nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_capabilities_get(nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_log(1, nullptr, "text"), parameter_null); },
        [&] { same_status(kr_sdn_hal_port_capabilities_get(1, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_port_phys_addr_get(1, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_port_speed_set(1, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_port_mtu_get(1, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_port_cntr_get(1, nullptr), parameter_null); },
        [&] { same_status(kr_sdn_hal_srvc_open(nullptr), no_channel); },
        [&] { same_status(kr_sdn_hal_srvc_close(nullptr), no_channel); },
        [&] { same_status(kr_sdn_hal_srvc_event_register(nullptr, 0), no_channel); },
        [&] { same_status(kr_sdn_hal_srvc_event_unregister(nullptr, 0), no_channel); },
        [&] { same_status(kr_sdn_hal_srvc_recv(&handles_[0], nullptr), no_channel); },
        [&] { same_status(kr_sdn_hal_srvc_select(nullptr, 1, &no_wait, &number), no_channel); },
        [&] { same_status(kr_sdn_hal_srvc_packet_send(&handles_[0], nullptr, 60, 1, 0), no_channel); },
        [&] { same_status(kr_sdn_hal_srvc_packet_send(nullptr, packet.data(), 60, 1, 0), no_channel); },
        [&] { same_status(kr_sdn_hal_srvc_process_event(nullptr), no_channel); },
    };
    calls[s.value % std::size(calls)]();
}

} // namespace kr_model
