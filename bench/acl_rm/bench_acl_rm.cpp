/*
 * What a frame and a rule change cost in the ACL resource manager: match against 1000 rules of several kinds, from one
 * thread and from two, rule set, delete, read and block move. A frame's cost includes its counts and its activity.
 */
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "acl_rm/acl_lookup.h"
#include "kr_acl_rm.h"

namespace {

constexpr uint32_t port = 0x10100;
constexpr uint32_t rule_count = KR_SOFT_MAX_RULES;

struct table {
    kr_acl_rm_handle handle = 0;
    uint32_t acl_id = 0;
    std::vector<kr_acl_rule> rules;
};

void require(kr_status status) {
    if (status != KR_STATUS_SUCCESS) {
        std::abort();
    }
}

kr_acl_key random_key(std::mt19937_64 &random) {
    kr_acl_key key{};
    for (int i = 0; i < 6; i++) {
        key.eth_dst[i] = static_cast<uint8_t>(random());
        key.eth_src[i] = static_cast<uint8_t>(random());
    }
    key.eth_type = 0x0800;
    key.ipv4_dst = static_cast<uint32_t>(random());
    key.ipv4_src = static_cast<uint32_t>(random());
    key.tp_src = static_cast<uint16_t>(random());
    key.tp_dst = static_cast<uint16_t>(random());
    key.ip_proto = 6;
    key.in_log_port = port;
    return key;
}

template <size_t size> void fill(uint8_t (&bytes)[size]) {
    for (uint8_t &byte : bytes) {
        byte = 0xFF;
    }
}

enum kind { macs, all_fields, random_masks };

kr_acl_key mask_of(kind which, std::mt19937_64 &random) {
    kr_acl_key mask{};
    const uint64_t take = which == random_masks ? random() : ~uint64_t{0};
    if ((take & 1) != 0) {
        fill(mask.eth_dst);
    }
    if (which == macs) {
        return mask;
    }
    if ((take & 2) != 0) {
        fill(mask.eth_src);
    }
    mask.eth_type = 0xFFFF;
    mask.vlan_tagged = (take & 4) != 0 ? 255 : 0;
    mask.ipv4_dst = (take & 8) != 0 ? UINT32_MAX << (which == random_masks ? random() % 24 : 0) : 0;
    mask.ipv4_src = (take & 16) != 0 ? UINT32_MAX << (which == random_masks ? random() % 24 : 0) : 0;
    mask.tp_src = (take & 32) != 0 ? UINT16_MAX : 0;
    mask.tp_dst = (take & 64) != 0 ? UINT16_MAX : 0;
    mask.ip_proto = 0xFF;
    mask.in_log_port = (take & 128) != 0 ? UINT32_MAX : 0;
    return mask;
}

table make_table(kind which, uint32_t count = rule_count) {
    kr_soft::acl_rm_reset();
    table made;
    const kr_acl_rm_init_params params{1};
    require(kr_acl_rm_api_open(&made.handle, nullptr));
    require(kr_acl_rm_api_init(made.handle, &params));
    kr_acl_attributes attributes{0, KR_ACL_KEY_TYPE_TWELVE_FIELDS, 1, 0, 0, rule_count, rule_count};
    require(kr_acl_rm_api_acl_set(made.handle, KR_ACL_RM_CMD_CREATE, &attributes));
    made.acl_id = attributes.acl_id;
    require(kr_acl_rm_api_acl_bind_port_set(made.handle, KR_ACL_RM_CMD_BIND, made.acl_id, &port, 1));

    std::mt19937_64 random(1);
    for (uint32_t offset = 0; offset < rule_count; offset++) {
        kr_acl_rule rule{};
        rule.set_offset = rule.access_offset = offset;
        rule.valid = rule.action_valid = 1;
        rule.key_type = rule.mask_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
        rule.trap_action = KR_ACL_TRAP_ACTION_DISCARD;
        rule.key = random_key(random);
        rule.mask = mask_of(which, random);
        if (offset < 128) {
            const kr_acl_counter_attributes counter{0, 1};
            require(kr_acl_rm_api_counter_set(made.handle, KR_ACL_RM_CMD_CREATE, &counter, &rule.counter_id));
        }
        made.rules.push_back(rule);
    }
    require(kr_acl_rm_api_acl_rule_set(made.handle, KR_ACL_RM_CMD_RULE_SET, made.acl_id, made.rules.data(), count));
    return made;
}

// Frames that hit the rules one after the other.
void match_hit(benchmark::State &state) {
    static table shared;
    if (state.thread_index() == 0) {
        shared = make_table(static_cast<kind>(state.range(0)));
    }
    uint32_t at = static_cast<uint32_t>(state.thread_index()) * 333;
    kr_soft::rule_action action;
    for (auto _ : state) {
        at = (at + 617) % rule_count;
        bool matched = kr_soft::acl_match(shared.rules[at].key, 64, 1, &action);
        benchmark::DoNotOptimize(matched);
    }
}

// Frames that no rule matches.
void match_miss(benchmark::State &state) {
    const table made = make_table(static_cast<kind>(state.range(0)));
    std::mt19937_64 random(2);
    std::vector<kr_acl_key> frames;
    for (int i = 0; i < 1024; i++) {
        frames.push_back(random_key(random));
    }
    size_t at = 0;
    kr_soft::rule_action action;
    for (auto _ : state) {
        bool matched = kr_soft::acl_match(frames[at++ % frames.size()], 64, 1, &action);
        benchmark::DoNotOptimize(matched);
    }
}

void rule_overwrite(benchmark::State &state) {
    table made = make_table(static_cast<kind>(state.range(0)));
    uint32_t at = 128; // behind the rules with counters: those would not survive their rule
    for (auto _ : state) {
        at = at + 1 < rule_count ? at + 1 : 128;
        require(kr_acl_rm_api_acl_rule_set(made.handle, KR_ACL_RM_CMD_RULE_SET, made.acl_id, &made.rules[at], 1));
    }
}

void rule_delete_and_set(benchmark::State &state) {
    table made = make_table(static_cast<kind>(state.range(0)));
    uint32_t at = 128;
    for (auto _ : state) {
        at = at + 1 < rule_count ? at + 1 : 128;
        require(kr_acl_rm_api_acl_rule_set(made.handle, KR_ACL_RM_CMD_RULE_DELETE, made.acl_id, &made.rules[at], 1));
        require(kr_acl_rm_api_acl_rule_set(made.handle, KR_ACL_RM_CMD_RULE_SET, made.acl_id, &made.rules[at], 1));
    }
}

void rule_read(benchmark::State &state) {
    const table made = make_table(all_fields);
    kr_acl_rule rule{};
    uint32_t count = 1;
    for (auto _ : state) {
        rule.access_offset = (rule.access_offset + 617) % rule_count;
        require(kr_acl_rm_api_acl_rule_get(made.handle, made.acl_id, 0, &rule, &count));
    }
}

void counter_read(benchmark::State &state) {
    const table made = make_table(all_fields);
    kr_acl_counter_flags flags;
    kr_acl_counter_values values;
    uint32_t at = 0;
    for (auto _ : state) {
        at = at % 128 + 1;
        require(kr_acl_rm_api_counter_get(made.handle, KR_ACL_RM_CMD_COUNTER_READ, at, &flags, &values));
    }
}

// Moves a block of range(0) rules up and down by one offset in a table of rules over all fields.
void block_move(benchmark::State &state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    const table made = make_table(all_fields, size);
    uint32_t at = 0;
    for (auto _ : state) {
        require(kr_acl_rm_api_acl_rule_move_block(made.handle, made.acl_id, at, size, 1 - at));
        at = 1 - at;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * size);
}

BENCHMARK(match_hit)->ArgName("kind")->Arg(macs)->Arg(all_fields)->Arg(random_masks);
BENCHMARK(match_hit)->ArgName("kind")->Arg(all_fields)->Threads(2)->UseRealTime();
BENCHMARK(match_miss)->ArgName("kind")->Arg(macs)->Arg(all_fields)->Arg(random_masks);
BENCHMARK(rule_overwrite)->ArgName("kind")->Arg(macs)->Arg(all_fields)->Arg(random_masks);
BENCHMARK(rule_delete_and_set)->ArgName("kind")->Arg(macs)->Arg(all_fields)->Arg(random_masks);
BENCHMARK(rule_read);
BENCHMARK(counter_read);
BENCHMARK(block_move)->ArgName("rules")->Arg(1)->Arg(15)->Arg(100)->Arg(999);

} // namespace
