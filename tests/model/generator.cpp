/*
 * Steps drawn from small domains, so that flows meet their like, frames meet flows, and ports meet both. A sequence
 * mostly begins with a switch that is started and has ports; each has a character of its own: few flows or many, few
 * ports or many, faults or none.
 */
#include "tests/model/generator.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

namespace kr_model {
namespace {

// std::mt19937_64 is the same everywhere; the distributions of the standard library are not.
class dice {
  public:
    explicit dice(uint64_t seed) : engine_(seed) {}
    uint32_t below(uint32_t limit) {
        return static_cast<uint32_t>(engine_() % limit);
    }
    bool one_in(uint32_t count) {
        return below(count) == 0;
    }
    template <typename Item, size_t Count> Item of(const Item (&items)[Count]) {
        return items[below(Count)];
    }

  private:
    std::mt19937_64 engine_;
};

struct character {
    uint32_t id_count = 40;
    uint32_t priority_count = 4;
    uint32_t batch_max = 4, delete_max = 4;
    uint32_t port_count = 5;
    uint32_t fault_one_in = 0; // 0: no faults
    bool strange_ports = false;
};

/* clang-format off */
// The contract calls that a step may make, by step.
struct fault_row {
    op what;
    const char *functions[8];
};
constexpr fault_row fault_rows[] = {
    {op::init,             {"cl_plock_init", "cl_qpool_init", "cl_event_init", "kr_log_init"}},
    {op::connector_start,  {"kr_api_open", "cl_qpool_init", "kr_acl_rm_api_open", "kr_acl_rm_api_init",
                            "kr_acl_rm_api_acl_set", "kr_acl_rm_api_acl_mc_group_set", "psort_init", "cl_thread_init"}},
    {op::connector_start,  {"kr_api_host_ifc_open", "kr_api_host_ifc_close", "kr_api_close", "psort_clear_table",
                            "kr_acl_rm_api_close"}},
    {op::connector_stop,   {"kr_api_host_ifc_close", "psort_clear_table", "kr_acl_rm_api_acl_mc_group_set",
                            "kr_acl_rm_api_acl_set", "kr_acl_rm_api_close", "kr_api_close"}},
    {op::port_added,       {"kr_api_port_state_get", "cl_qpool_get", "kr_acl_rm_api_acl_bind_port_set",
                            "kr_acl_rm_api_acl_mc_group_set"}},
    {op::connector_start,  {"pipe", "write", "select"}},
    {op::connector_stop,   {"write", "close"}},
    {op::port_added,       {"write"}},
    {op::port_removed,     {"kr_api_port_state_get", "write"}},
    {op::config,           {"write"}},
    {op::process_event,    {"write"}},
    {op::frame,            {"write", "select"}}, // of the thread of control frames
    {op::control_forward,  {"kr_api_host_ifc_trap_id_register_set"}},
    {op::background,       {"psort_background_worker", "kr_acl_rm_api_acl_rule_move_block"}},
    {op::open,             {"kr_api_host_ifc_open", "pipe"}},
    {op::close,            {"kr_api_host_ifc_close", "read", "close"}},
    {op::select,           {"select"}},
    {op::event_register,   {"kr_api_host_ifc_open", "kr_api_host_ifc_trap_id_register_set"}},
    {op::event_unregister, {"kr_api_host_ifc_trap_id_register_set"}},
    {op::recv,             {"kr_lib_host_ifc_recv", "select", "read"}},
    {op::packet_send,      {"kr_api_host_ifc_open", "kr_lib_host_ifc_unicast_ctrl_send"}},
    {op::event_ack,        {"kr_acl_rm_api_acl_bind_port_set", "kr_acl_rm_api_acl_mc_group_set", "cl_event_signal"}},
    {op::flows_add,        {"cl_malloc", "psort_entry_set", "kr_acl_rm_api_counter_set", "kr_acl_rm_api_acl_rule_set",
                            "cl_qpool_get", "kr_acl_rm_api_acl_rule_move_block"}},
    {op::flows_delete,     {"cl_malloc", "kr_acl_rm_api_acl_rule_set", "psort_entry_set"}},
    {op::flows_get,        {"cl_malloc", "kr_acl_rm_api_acl_rule_get"}},
    {op::activity_get,     {"kr_acl_rm_api_acl_rule_get"}},
    {op::stats_get,        {"kr_acl_rm_api_counter_get"}},
    {op::group_create,     {"kr_acl_rm_api_acl_mc_group_set"}},
    {op::group_delete,     {"kr_acl_rm_api_acl_mc_group_set"}},
    {op::group_edit,       {"kr_acl_rm_api_acl_mc_group_set"}},
    {op::group_get,        {"kr_acl_rm_api_acl_mc_group_get"}},
};

// How a call of the operating system may fail; all others fail with a status.
struct system_code_row {
    const char *function;
    uint32_t codes[4];
};
constexpr system_code_row system_code_rows[] = {
    {"pipe",   {EMFILE, ENFILE, EMFILE, ENFILE}},
    {"close",  {EIO, EINTR, EIO, EINTR}},
    {"read",   {EIO, EINTR, code_nothing, code_part}},
    {"write",  {EPIPE, EINTR, code_nothing, code_part}},
    {"select", {EBADF, EINTR, ENOMEM, code_nothing}},
};

// How often each operation is drawn, of the sum.
struct weight_row {
    op what;
    uint32_t weight;
};
constexpr weight_row weights[] = {
    {op::init, 2}, {op::activate, 2}, {op::capabilities_set, 3}, {op::capabilities_get, 3}, {op::srvc_life_cycle, 3},
    {op::connector_start, 5}, {op::connector_stop, 5}, {op::port_added, 25}, {op::port_removed, 12},
    {op::control_forward, 12}, {op::other_event, 2}, {op::config, 8},
    {op::switch_port_add, 6}, {op::switch_port_remove, 3}, {op::link_set, 10}, {op::frame, 120}, {op::background, 15},
    {op::open, 10}, {op::close, 4}, {op::event_register, 25}, {op::event_unregister, 8}, {op::select, 12},
    {op::recv, 60}, {op::packet_send, 12}, {op::event_ack, 14}, {op::process_event, 8},
    {op::port_arr_get, 8}, {op::port_capabilities, 5}, {op::port_operation, 20},
    {op::flows_add, 130}, {op::flows_delete, 70}, {op::flows_get, 40}, {op::activity_get, 25}, {op::stats_get, 25},
    {op::table_info, 3}, {op::group_create, 8}, {op::group_delete, 5}, {op::group_edit, 12}, {op::group_get, 10},
    {op::null_arguments, 6},
};
/* clang-format on */

class generator {
  public:
    explicit generator(uint64_t seed) : dice_(seed) {
        draw_character();
    }

    std::vector<step> make(uint32_t step_count) {
        std::vector<step> steps;
        if (!dice_.one_in(12)) {
            bring_up(&steps);
        }
        uint32_t weight_sum = 0;
        for (const weight_row &row : weights) {
            weight_sum += row.weight;
        }
        // Late in some sequences the library goes down.
        const uint32_t deinit_at = dice_.one_in(3) ? step_count - dice_.below(step_count / 4 + 1) : step_count;
        while (steps.size() < step_count) {
            if (steps.size() == deinit_at) {
                steps.push_back(deinit());
                continue;
            }
            uint32_t drawn = dice_.below(weight_sum);
            const weight_row *row = weights;
            while (drawn >= row->weight) {
                drawn -= row->weight;
                row++;
            }
            if (row->what == op::connector_stop && dice_.one_in(4)) {
                restart(&steps);
            } else {
                steps.push_back(with_fault(draw(row->what)));
            }
        }
        steps.resize(step_count);
        return steps;
    }

  private:
    void draw_character() {
        const uint32_t kind = dice_.below(10);
        if (kind < 2) { // a full table
            character_.id_count = 100'000;
            character_.priority_count = 200;
            character_.batch_max = 120;
            character_.delete_max = 60;
        } else if (kind < 4) {
            character_.id_count = 200;
            character_.priority_count = 20;
            character_.batch_max = character_.delete_max = 30;
        }
        if (dice_.one_in(5)) {
            character_.port_count = 120;
        }
        character_.strange_ports = dice_.one_in(3);
        const uint32_t faults[] = {0, 0, 3, 8, 20};
        character_.fault_one_in = dice_.of(faults);
    }

    void bring_up(std::vector<step> *steps) {
        for (uint32_t i = 1; i <= character_.port_count; i++) {
            steps->push_back({.what = op::switch_port_add, .value = log_port(i)});
        }
        steps->push_back({.what = op::init});
        for (uint32_t channel = 0; channel < 2; channel++) {
            steps->push_back({.what = op::open, .target = channel});
            steps->push_back({.what = op::event_register, .target = channel, .value = EVENT_GENERAL_READY});
            steps->push_back({.what = op::event_register, .target = channel, .value = EVENT_PORT_CAPABILITIES_UPDATE});
        }
        steps->push_back({.what = op::activate});
        steps->push_back({.what = op::connector_start});
        for (const uint32_t event : {EVENT_PORT_OPER_STATE_CHANGE, EVENT_PACKET_IN, EVENT_PACKET_MISS}) {
            steps->push_back({.what = op::event_register, .target = event % 2, .value = event});
        }
        for (uint32_t i = 1; i <= character_.port_count; i++) {
            step added{.what = op::port_added};
            added.port = port_record(i);
            steps->push_back(added);
        }
    }

    // All ports go, the switch stops, perhaps for good, and comes up again.
    void restart(std::vector<step> *steps) {
        for (uint32_t i = 1; i <= character_.port_count; i++) {
            step removed{.what = op::port_removed};
            removed.port = port_record(i);
            steps->push_back(removed);
            steps->push_back({.what = op::event_ack, .value = i});
        }
        steps->push_back(with_fault({.what = op::connector_stop}));
        if (dice_.one_in(8)) {
            steps->push_back(deinit());
        }
        steps->push_back(with_fault({.what = op::connector_start}));
        for (uint32_t i = 1; i <= character_.port_count; i++) {
            step added{.what = op::port_added};
            added.port = port_record(i);
            steps->push_back(added);
        }
        live_.clear();
    }

    static uint32_t log_port(uint32_t number) {
        return 0x10000 + number;
    }
    uint32_t number() {
        return 1 + dice_.below(character_.port_count);
    }
    uint32_t of_port() {
        return dice_.one_in(15) ? dice_.below(70000) : number();
    }
    // Of the ports that flows and groups name one that does not exist is rare: it costs the whole batch.
    uint32_t good_of_port() {
        return dice_.one_in(300) ? dice_.below(70000) : number();
    }
    uint64_t flow_id() {
        return 1 + dice_.below(character_.id_count);
    }
    // Mostly one that was added and not deleted since, as far as one can tell from here.
    uint64_t live_id() {
        return live_.empty() || dice_.one_in(8) ? flow_id() : live_[dice_.below(static_cast<uint32_t>(live_.size()))];
    }

    static conn_port_record port_record(uint32_t number) {
        conn_port_record port{};
        port.log_port = log_port(number);
        port.ifindex = number;
        snprintf(port.interface_name, sizeof port.interface_name, "port%u", number);
        port.mac_address[5] = static_cast<uint8_t>(number);
        return port;
    }

    conn_port_record drawn_port_record() {
        conn_port_record port = port_record(number());
        if (character_.strange_ports) {
            constexpr int32_t requested[] = {1, -32768 + 2, -32767, -32768, -32769, 32511, 32512, 7};
            constexpr uint32_t ifindexes[] = {32767, 32768, 1, 2, 0};
            port.requested_of_port = dice_.one_in(3) ? dice_.of(requested) : 0;
            port.ifindex = dice_.one_in(4) ? dice_.of(ifindexes) : port.ifindex;
            port.log_port = dice_.one_in(4) ? log_port(number()) : port.log_port;
        }
        return port;
    }

    uint8_t small_mask() {
        constexpr uint8_t masks[] = {0xff, 0xff, 0x0f, 0x01, 0xf0};
        return dice_.of(masks);
    }

    // Each field of the match with one chance in six or so.
    void draw_match(flow_record *flow) {
        const auto wanted = [this] { return dice_.one_in(6); };
        if (wanted()) {
            flow->in_port = good_of_port();
            flow->in_port_mask = static_cast<uint8_t>(1 + dice_.below(3));
        } else if (wanted()) {
            flow->in_port = dice_.below(9); // behind a mask of 0
        }
        const auto address = [this](uint8_t(&value)[6], uint8_t(&mask)[6]) {
            value[0] = 2;
            value[5] = static_cast<uint8_t>(dice_.below(4));
            memset(mask, 0xff, 6);
            mask[5] = small_mask();
        };
        if (wanted()) {
            address(flow->eth_src, flow->eth_src_mask);
        }
        if (wanted()) {
            address(flow->eth_dst, flow->eth_dst_mask);
        }
        if (wanted()) {
            flow->vlan_tagged = static_cast<uint8_t>(dice_.below(3));
            flow->vlan_tagged_mask = static_cast<uint8_t>(dice_.below(3));
        }
        if (wanted()) {
            flow->vlan_id = static_cast<uint16_t>(dice_.below(4));
            flow->vlan_id_mask = dice_.one_in(4) ? 0xffff : 0x0fff;
        }
        if (wanted()) {
            flow->vlan_pcp = static_cast<uint8_t>(dice_.below(8));
            flow->vlan_pcp_mask = static_cast<uint8_t>(dice_.one_in(2) ? 7 : 4);
        }
        if (wanted()) {
            constexpr uint16_t types[] = {0x0800, 0x0806, other_eth_type, 0x05ff, 0x88cc};
            flow->eth_type = dice_.of(types);
            flow->eth_type_mask = dice_.one_in(4) ? 0xff00 : 0xffff;
        }
        if (wanted()) {
            flow->ip_tos = static_cast<uint8_t>(dice_.below(4) * 4);
            flow->ip_tos_mask = small_mask();
        }
        if (wanted()) {
            constexpr uint8_t protocols[] = {1, 6, 17, 2};
            flow->ip_proto = dice_.of(protocols);
            flow->ip_proto_mask = small_mask();
        }
        if (wanted()) {
            flow->ipv4_src = 0x0a000000 + dice_.below(4);
            flow->ipv4_src_mask = dice_.one_in(3) ? 0xffffff00 : 0xffffffff;
        }
        if (wanted()) {
            flow->ipv4_dst = 0x0a000000 + dice_.below(4);
            flow->ipv4_dst_mask = dice_.one_in(3) ? 0xff000001 : 0xffffffff;
        }
        if (wanted()) {
            flow->tp_src = static_cast<uint16_t>(dice_.below(4));
            flow->tp_src_mask = dice_.one_in(3) ? 1 : 0xffff;
        }
        if (wanted()) {
            flow->tp_dst = static_cast<uint16_t>(dice_.below(4));
            flow->tp_dst_mask = dice_.one_in(3) ? 2 : 0xffff;
        }
    }

    flow_record drawn_flow() {
        flow_record flow{};
        flow.priority = dice_.one_in(400) ? 65535 + dice_.below(2) : dice_.below(character_.priority_count);
        draw_match(&flow);
        constexpr uint32_t actions[] = {FLOW_ACTION_NONE,   FLOW_ACTION_DROP,  FLOW_ACTION_OUTPUT,
                                        FLOW_ACTION_OUTPUT, FLOW_ACTION_FLOOD, FLOW_ACTION_CONTROLLER,
                                        FLOW_ACTION_FLOOD,  FLOW_ACTION_DROP};
        flow.action = dice_.of(actions);
        if (dice_.one_in(8) && groups_made_ != 0) { // a slot: the driver puts the id in
            flow.action = FLOW_ACTION_MC_GROUP;
            flow.mc_group_id = dice_.below(group_slot_count);
            while ((groups_made_ >> flow.mc_group_id & 1) == 0) {
                flow.mc_group_id = (flow.mc_group_id + 1) % group_slot_count;
            }
        } else if (dice_.one_in(150)) {
            constexpr uint32_t rare_actions[] = {FLOW_ACTION_MC_GROUP, FLOW_ACTION_OUTPUT_ALL,
                                                 FLOW_ACTION_OUTPUT_ALL + 1};
            flow.action = dice_.of(rare_actions);
            flow.mc_group_id = dice_.below(group_slot_unknown + 1);
        }
        flow.out_port = good_of_port();
        if (dice_.one_in(3)) {
            flow.vlan_action = dice_.below(8);
            flow.vlan_action_vid = static_cast<uint16_t>(dice_.one_in(4) ? 0xf000 + dice_.below(8) : dice_.below(8));
            flow.vlan_action_pcp = static_cast<uint8_t>(dice_.below(12));
        }
        return flow;
    }

    frame_description drawn_frame() {
        frame_description frame;
        frame.log_port = dice_.one_in(30) ? log_port(200) : log_port(number());
        frame.kind = dice_.one_in(3) ? static_cast<frame_kind>(dice_.below(static_cast<uint32_t>(frame_kind::count)))
                                     : static_cast<frame_kind>(dice_.below(2));
        frame.src = static_cast<uint8_t>(dice_.below(4));
        frame.dst = static_cast<uint8_t>(dice_.below(4));
        frame.ip_src = static_cast<uint8_t>(dice_.below(4));
        frame.ip_dst = static_cast<uint8_t>(dice_.below(4));
        frame.tos = static_cast<uint8_t>(dice_.below(4) * 4);
        frame.tp_src = static_cast<uint16_t>(dice_.below(4));
        frame.tp_dst = static_cast<uint16_t>(dice_.below(4));
        if (dice_.one_in(3)) {
            frame.tci = dice_.below(8) << 13 | dice_.below(4);
        }
        frame.padding = dice_.one_in(20) ? dice_.below(10300) : dice_.below(64);
        return frame;
    }

    std::vector<uint64_t> drawn_ids() {
        std::vector<uint64_t> ids(dice_.below(character_.delete_max + 1));
        std::ranges::generate(ids, [this] { return live_id(); });
        distinct(&ids);
        return ids;
    }

    // The same id twice in a batch is rare, for what it leaves behind stays for long.
    void distinct(std::vector<uint64_t> *ids) {
        if (!dice_.one_in(40)) {
            std::ranges::sort(*ids);
            ids->erase(std::unique(ids->begin(), ids->end()), ids->end());
        }
    }

    std::vector<flow_record> drawn_batch() {
        std::vector<uint64_t> ids(1 + dice_.below(character_.batch_max));
        std::ranges::generate(ids, [this] { return flow_id(); });
        if (!dice_.one_in(10)) { // what is there already refuses the batch
            std::erase_if(ids, [this](uint64_t id) { return std::ranges::find(live_, id) != live_.end(); });
        }
        distinct(&ids);
        std::vector<flow_record> flows;
        for (const uint64_t id : ids) {
            flows.push_back(drawn_flow());
            flows.back().flow_id = id;
            live_.push_back(id);
        }
        return flows;
    }

    std::vector<uint64_t> drawn_of_ports(uint32_t limit) {
        std::vector<uint64_t> ports(dice_.one_in(30) ? 99 + dice_.below(3) : dice_.below(limit));
        std::ranges::generate(ports, [this] { return dice_.one_in(4) ? good_of_port() : number(); });
        return ports;
    }

    uint32_t drawn_answer() {
        return dice_.one_in(6) ? 1 + dice_.below(11) : 0;
    }

    step deinit() {
        return {.what = op::deinit, .value = dice_.below(3), .answer = drawn_answer()};
    }

    step draw(op what) {
        step s{.what = what};
        switch (what) {
        case op::init:
            s.value = dice_.below(init_variant_count);
            s.answer = 1 + dice_.below(11);
            break;
        case op::activate:
        case op::connector_start:
            s.answer = drawn_answer();
            break;
        case op::capabilities_set: {
            constexpr uint32_t sizes[] = {0, 1500, 1400, 1501};
            s.value = dice_.one_in(5) ? dice_.below(3) : 0;
            s.count = dice_.of(sizes);
            s.command = dice_.below(100);
            break;
        }
        case op::srvc_life_cycle:
            s.value = dice_.below(4);
            break;
        case op::port_added:
        case op::port_removed:
            s.port = drawn_port_record();
            break;
        case op::control_forward: {
            constexpr uint32_t traps[] = {16, 17, 18, 19, 19, 464, 479, 8, 1023, 1024};
            s.command = dice_.one_in(8) ? dice_.below(4) : (dice_.one_in(3) ? 2 : 0);
            s.value = dice_.of(traps);
            break;
        }
        case op::other_event:
            s.value = 32U << dice_.below(4);
            break;
        case op::config:
            s.command = dice_.one_in(5) ? 1 : 0;
            s.value = dice_.below(1000);
            break;
        case op::switch_port_add:
        case op::switch_port_remove:
            s.value = log_port(number());
            break;
        case op::link_set:
            s.value = log_port(number());
            s.command = dice_.below(3) != 0;
            break;
        case op::frame:
            s.frame = drawn_frame();
            break;
        case op::open:
        case op::close:
            s.target = drawn_channel();
            break;
        case op::event_register:
        case op::event_unregister: {
            constexpr uint32_t events[] = {0, 1, 2, 3, 3, 3, 4, 4, 5, 6, 7, 8, 9, 9, 10, 10, 11, 11, 11, 12};
            s.target = drawn_channel();
            s.value = dice_.of(events);
            break;
        }
        case op::select:
            s.ids.resize(dice_.one_in(6) ? 30 + dice_.below(10) : dice_.below(4));
            std::ranges::generate(s.ids, [this] { return drawn_channel(); });
            break;
        case op::recv:
            s.target = drawn_channel();
            break;
        case op::packet_send: {
            constexpr uint32_t sizes[] = {60, 14, 13, 1500, 10240, 10241, 0};
            s.target = drawn_channel();
            s.value = of_port();
            s.count = dice_.of(sizes);
            break;
        }
        case op::event_ack:
            s.value = of_port();
            s.command = dice_.one_in(6) ? dice_.below(4) : 0;
            break;
        case op::process_event:
            s.value = dice_.below(13);
            s.command = dice_.below(256);
            break;
        case op::port_arr_get:
            s.count = dice_.below(dice_.one_in(4) ? 130 : 6);
            s.command = dice_.one_in(4) ? dice_.below(3) : 0;
            break;
        case op::port_capabilities:
            s.value = of_port();
            break;
        case op::port_operation: {
            constexpr uint32_t arguments[] = {0, 1, 2, 3, 4, 15, 16, 67, 68, 1500, 10000, 10001, 0xffffffff};
            s.command = dice_.below(17);
            s.value = of_port();
            s.count = dice_.of(arguments);
            s.answer = drawn_answer();
            break;
        }
        case op::flows_add:
            s.flows = drawn_batch();
            s.value = dice_.one_in(80) ? 1 : 0;
            s.command = dice_.one_in(80) ? 1 + dice_.below(3) : 0;
            break;
        case op::flows_delete:
            s.ids = drawn_ids();
            std::erase_if(live_, [&](uint64_t id) { return std::ranges::find(s.ids, id) != s.ids.end(); });
            break;
        case op::flows_get:
        case op::activity_get:
        case op::stats_get:
            s.ids = drawn_ids();
            if (dice_.one_in(2)) {
                s.ids.resize(std::min<size_t>(s.ids.size(), 1));
            }
            s.value = dice_.one_in(60) ? 1 : 0;
            s.command = what == op::flows_get && dice_.one_in(60) ? 1 : 0;
            break;
        case op::table_info:
            s.value = dice_.one_in(6) ? 1 : 0;
            break;
        case op::group_create:
            s.target = dice_.below(group_slot_count);
            groups_made_ |= 1U << s.target;
            s.ids = drawn_of_ports(5);
            break;
        case op::group_delete:
            s.target = dice_.below(group_slot_unknown + 1);
            groups_made_ &= ~(1U << s.target);
            break;
        case op::group_edit: {
            constexpr uint32_t commands[] = {3, 3, 4, 1, 5};
            s.target = drawn_group();
            s.command = dice_.of(commands);
            s.ids = drawn_of_ports(4);
            break;
        }
        case op::group_get: {
            constexpr uint32_t rooms[] = {100, 100, 2, 1, 0, 101};
            s.target = drawn_group();
            s.count = dice_.of(rooms);
            break;
        }
        case op::null_arguments:
            s.value = dice_.below(37);
            break;
        default:
            break;
        }
        return s;
    }

    uint32_t drawn_group() {
        const uint32_t slot = dice_.below(group_slot_unknown + 1);
        return dice_.one_in(4) || groups_made_ == 0 ? slot : static_cast<uint32_t>(std::countr_zero(groups_made_));
    }

    uint32_t drawn_channel() {
        return dice_.one_in(4) ? dice_.below(channel_count_drawn) : dice_.below(3);
    }

    step with_fault(step s) {
        // The life cycle has few steps, and each of them many calls; a fault in a frame may end the thread of control
        // frames until the switch starts again.
        const bool is_rare = s.what == op::connector_start || s.what == op::connector_stop || s.what == op::open;
        const uint32_t one_in = is_rare               ? (character_.fault_one_in + 3) / 4
                                : s.what == op::frame ? 10 * character_.fault_one_in
                                                      : character_.fault_one_in;
        if (one_in == 0 || !dice_.one_in(one_in)) {
            return s;
        }
        std::vector<const char *> functions;
        for (const fault_row &row : fault_rows) {
            for (const char *const function : row.functions) {
                if (row.what == s.what && function != nullptr) {
                    functions.push_back(function);
                }
            }
        }
        if (functions.empty()) {
            return s;
        }
        constexpr uint32_t codes[] = {1, 1, 5, 6, 7, 10, 13};
        s.fault.function = functions[dice_.below(static_cast<uint32_t>(functions.size()))];
        s.fault.nth = is_rare || dice_.one_in(2) ? dice_.below(2) : dice_.below(character_.batch_max + 1);
        s.fault.code = dice_.of(codes);
        for (const system_code_row &row : system_code_rows) {
            s.fault.code = s.fault.function == row.function ? dice_.of(row.codes) : s.fault.code;
        }
        s.fault.persistent = dice_.one_in(4);
        return s;
    }

    static constexpr uint32_t channel_count_drawn = 12;
    dice dice_;
    character character_;
    std::vector<uint64_t> live_; // flows that are probably there
    uint32_t groups_made_ = 0;   // slots whose groups probably are
};

} // namespace

std::vector<step> make_sequence(uint64_t seed, uint32_t step_count) {
    return generator(seed).make(step_count);
}

} // namespace kr_model
