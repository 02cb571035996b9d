/*
 * Flows: added, deleted, read back, their activity and their statistics, through the library in batches, and straight
 * on the platform: the same calls of the placement library and the resource manager, with rules that are ready made.
 *
 * One round fills the table from empty to its 1000 flows, priorities at random, in batches of the size given; time and
 * allocations are per flow. Each round has a fresh switch, for counters are not given back before its stop.
 */
#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

#include "bench_library.h"
#include "kr_acl_rm.h"
#include "kr_psort.h"
#include "tests/support/allocation_counter.h"

namespace kr_bench {
namespace {

constexpr uint32_t table_size = 1000;
constexpr int rounds = 10; // most of a round is not measured
constexpr uint32_t counter_budget = 128;
constexpr uint32_t action_word_none = 0xFFFFFFFF;

std::vector<flow_record> make_flows() {
    std::mt19937_64 random(20260417);
    std::vector<flow_record> flows;
    for (uint64_t id = 1; id <= table_size; id++) {
        flow_record flow{};
        flow.flow_id = id;
        flow.priority = static_cast<uint32_t>(random() % 65536);
        memcpy(flow.eth_dst, &id, sizeof flow.eth_dst);
        memset(flow.eth_dst_mask, 0xFF, sizeof flow.eth_dst_mask);
        flow.action = FLOW_ACTION_DROP;
        flows.push_back(flow);
    }
    return flows;
}

const std::vector<flow_record> &all_flows() {
    static const std::vector<flow_record> flows = make_flows();
    return flows;
}

// Adds up the time and the allocations of the parts of a round that are measured.
class meter {
  public:
    template <typename Work> void measure(Work work) {
        const kr_test::allocation_counter allocations;
        const double start = thread_seconds();
        work();
        seconds_ += thread_seconds() - start;
        allocations_ += allocations.count();
    }
    void finish_round(benchmark::State &state) {
        state.SetIterationTime(seconds_);
        seconds_ = 0;
        rounds_++;
    }
    void finish(benchmark::State &state) const {
        const auto flows = static_cast<double>(rounds_ * table_size);
        state.SetItemsProcessed(static_cast<int64_t>(flows));
        state.counters["allocations/flow"] = static_cast<double>(allocations_) / flows;
    }

  private:
    double seconds_ = 0;
    uint64_t allocations_ = 0;
    uint64_t rounds_ = 0;
};

/* ---- the same without the library -------------------------------------------------------------------------------- */

struct straight_flow {
    uint64_t id;
    uint32_t priority;
    uint32_t offset;
    uint32_t counter_id;
    kr_acl_rule rule; // ready but for offset and counter
};

// A table of rules that is kept as simply as the platform allows: who lies where, and no more.
class straight_table {
  public:
    straight_table() {
        const kr_acl_rm_init_params params = {.mode = 1};
        require(kr_acl_rm_api_open(&handle_, nullptr) == 0, "kr_acl_rm_api_open");
        require(kr_acl_rm_api_init(handle_, &params) == 0, "kr_acl_rm_api_init");
        kr_acl_attributes attributes = {0, KR_ACL_KEY_TYPE_TWELVE_FIELDS, 1, 0, 0, table_size, table_size};
        require(kr_acl_rm_api_acl_set(handle_, KR_ACL_RM_CMD_CREATE, &attributes) == 0, "kr_acl_rm_api_acl_set");
        acl_id_ = attributes.acl_id;
        current() = this;
        for (const flow_record &flow : all_flows()) {
            straight_flow one{.id = flow.flow_id, .priority = flow.priority, .offset = 0, .counter_id = 0, .rule = {}};
            one.rule.valid = 1;
            one.rule.key_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
            one.rule.mask_type = KR_ACL_KEY_TYPE_TWELVE_FIELDS;
            one.rule.action_valid = 1;
            one.rule.action_word_312 = action_word_none;
            one.rule.action_word_328 = action_word_none;
            one.rule.trap_action = KR_ACL_TRAP_ACTION_DISCARD;
            memcpy(one.rule.key.eth_dst, flow.eth_dst, sizeof flow.eth_dst);
            memcpy(one.rule.mask.eth_dst, flow.eth_dst_mask, sizeof flow.eth_dst_mask);
            flows.push_back(one);
        }
    }
    ~straight_table() {
        require(psort_clear_table(psort()) == 0, "psort_clear_table");
        kr_acl_attributes attributes{};
        attributes.acl_id = acl_id_;
        require(kr_acl_rm_api_acl_set(handle_, KR_ACL_RM_CMD_DESTROY, &attributes) == 0, "kr_acl_rm_api_acl_set");
        require(kr_acl_rm_api_close(&handle_) == 0, "kr_acl_rm_api_close");
        kr_soft_reset();
    }
    straight_table(const straight_table &) = delete;
    straight_table &operator=(const straight_table &) = delete;

    void add(size_t first, size_t count) {
        for (size_t i = first; i < first + count; i++) {
            psort_entry entry = {.key = flows[i].id, .priority = flows[i].priority, .index = 0};
            require(psort_entry_set(psort(), PSORT_CMD_ADD, &entry) == 0, "psort_entry_set");
            flows[i].offset = entry.index;
            at_[entry.index] = &flows[i];
        }
        for (size_t i = first; i < first + count; i++) {
            straight_flow &flow = flows[i];
            if (counters_used_ < counter_budget) {
                const kr_acl_counter_attributes attributes = {.initial_state = 0, .counter_type = 1};
                require(kr_acl_rm_api_counter_set(handle_, KR_ACL_RM_CMD_CREATE, &attributes, &flow.counter_id) == 0,
                        "kr_acl_rm_api_counter_set");
                counters_used_++;
            }
            flow.rule.set_offset = flow.offset;
            flow.rule.counter_id = flow.counter_id;
            require(kr_acl_rm_api_acl_rule_set(handle_, KR_ACL_RM_CMD_RULE_SET, acl_id_, &flow.rule, 1) == 0,
                    "kr_acl_rm_api_acl_rule_set");
        }
    }
    void remove(size_t first, size_t count) {
        for (size_t i = first; i < first + count; i++) {
            kr_acl_rule none{};
            none.access_offset = flows[i].offset;
            none.action_word_312 = action_word_none;
            none.action_word_328 = action_word_none;
            require(kr_acl_rm_api_acl_rule_set(handle_, KR_ACL_RM_CMD_RULE_DELETE, acl_id_, &none, 1) == 0,
                    "kr_acl_rm_api_acl_rule_set");
            psort_entry entry = {.key = flows[i].id, .priority = flows[i].priority, .index = 0};
            require(psort_entry_set(psort(), PSORT_CMD_DELETE, &entry) == 0, "psort_entry_set");
            at_[flows[i].offset] = nullptr;
        }
    }
    void read(size_t first, size_t count, uint32_t activity_mode) {
        for (size_t i = first; i < first + count; i++) {
            kr_acl_rule rule{};
            uint32_t one = 1;
            rule.access_offset = flows[i].offset;
            rule.activity_mode = activity_mode;
            require(kr_acl_rm_api_acl_rule_get(handle_, acl_id_, 0, &rule, &one) == 0, "kr_acl_rm_api_acl_rule_get");
            benchmark::DoNotOptimize(rule);
        }
    }
    void read_counters(size_t first, size_t count) {
        for (size_t i = first; i < first + count; i++) {
            if (flows[i].counter_id != 0) {
                kr_acl_counter_flags flags{};
                kr_acl_counter_values values{};
                require(kr_acl_rm_api_counter_get(handle_, KR_ACL_RM_CMD_COUNTER_READ, flows[i].counter_id, &flags,
                                                  &values) == 0,
                        "kr_acl_rm_api_counter_get");
                benchmark::DoNotOptimize(values);
            }
        }
    }

    std::vector<straight_flow> flows;

  private:
    static straight_table *&current() {
        static straight_table *instance = nullptr;
        return instance;
    }
    static psort_handle psort() {
        static const psort_handle handle = [] {
            psort_handle made = nullptr;
            const psort_table_attributes attributes = {table_size, 15, 65535, 0, 100, 0, 0, notified};
            require(psort_init(&made, &attributes) == 0, "psort_init");
            return made;
        }();
        return handle;
    }
    static kr_utils_status notified(uint32_t type, psort_notification_data *data, void *) {
        return type == PSORT_TABLE_SHIFT ? current()->shift(*data) : kr_utils_status{KR_UTILS_STATUS_SUCCESS};
    }
    kr_utils_status shift(const psort_notification_data &data) {
        require(kr_acl_rm_api_acl_rule_move_block(handle_, acl_id_, data.old_index, data.size, data.new_index) == 0,
                "kr_acl_rm_api_acl_rule_move_block");
        straight_flow *moved[table_size];
        memcpy(moved, &at_[data.old_index], data.size * sizeof moved[0]);
        memset(&at_[data.old_index], 0, data.size * sizeof moved[0]);
        for (uint32_t i = 0; i < data.size; i++) {
            if (moved[i] != nullptr) {
                moved[i]->offset = data.new_index + i;
                at_[data.new_index + i] = moved[i];
            }
        }
        return KR_UTILS_STATUS_SUCCESS;
    }

    kr_acl_rm_handle handle_ = 0;
    uint32_t acl_id_ = 0;
    uint32_t counters_used_ = 0;
    straight_flow *at_[table_size] = {};
};

/* ---- the rounds -------------------------------------------------------------------------------------------------- */

template <typename Work> void in_batches(size_t batch_size, Work work) {
    for (size_t first = 0; first < table_size; first += batch_size) {
        work(first, std::min(batch_size, table_size - first));
    }
}

struct library_table {
    library_table() : flows(all_flows()) {
        for (const flow_record &flow : flows) {
            ids.push_back(flow.flow_id);
        }
    }
    void set(uint32_t command, size_t first, size_t count) {
        require(kr_sdn_hal_table_entry_set(command, 0, &flows[first], static_cast<uint32_t>(count)),
                "kr_sdn_hal_table_entry_set");
    }
    void add(size_t first, size_t count) {
        set(KR_SDN_HAL_CMD_ADD, first, count);
    }
    void remove(size_t first, size_t count) {
        set(KR_SDN_HAL_CMD_DELETE, first, count);
    }
    void read(size_t first, size_t count) {
        auto read_count = static_cast<uint32_t>(count);
        require(kr_sdn_hal_table_entry_get(0, 0, &ids[first], &read_count, read_back), "kr_sdn_hal_table_entry_get");
    }
    void activity(size_t first, size_t count) {
        require(kr_sdn_hal_table_entry_activity_get(0, &ids[first], static_cast<uint32_t>(count), activities),
                "kr_sdn_hal_table_entry_activity_get");
    }
    void statistics(size_t first, size_t count) {
        require(kr_sdn_hal_table_entry_stat_get(0, &ids[first], static_cast<uint32_t>(count), stats),
                "kr_sdn_hal_table_entry_stat_get");
    }

    started_switch running;
    std::vector<flow_record> flows;
    std::vector<uint64_t> ids;
    flow_record read_back[table_size];
    uint32_t activities[table_size];
    flow_stats stats[table_size];
};

enum class operation { add, remove, read, activity, statistics };

void through_library(benchmark::State &state, operation what) {
    const auto batch_size = static_cast<size_t>(state.range(0));
    meter costs;
    for (auto _ : state) {
        const auto table = std::make_unique<library_table>();
        const auto run = [&](operation wanted, auto work) {
            what == wanted ? costs.measure([&] { in_batches(batch_size, work); }) : in_batches(batch_size, work);
        };
        run(operation::add, [&](size_t first, size_t count) { table->add(first, count); });
        if (what == operation::read) {
            run(what, [&](size_t first, size_t count) { table->read(first, count); });
        } else if (what == operation::activity) {
            run(what, [&](size_t first, size_t count) { table->activity(first, count); });
        } else if (what == operation::statistics) {
            run(what, [&](size_t first, size_t count) { table->statistics(first, count); });
        }
        run(operation::remove, [&](size_t first, size_t count) { table->remove(first, count); });
        costs.finish_round(state);
    }
    costs.finish(state);
}

void straight(benchmark::State &state, operation what) {
    const auto batch_size = static_cast<size_t>(state.range(0));
    meter costs;
    for (auto _ : state) {
        const auto table = std::make_unique<straight_table>();
        const auto run = [&](operation wanted, auto work) {
            what == wanted ? costs.measure([&] { in_batches(batch_size, work); }) : in_batches(batch_size, work);
        };
        run(operation::add, [&](size_t first, size_t count) { table->add(first, count); });
        if (what == operation::read) {
            run(what, [&](size_t first, size_t count) { table->read(first, count, 0); });
        } else if (what == operation::activity) {
            run(what, [&](size_t first, size_t count) { table->read(first, count, KR_ACL_ACTIVITY_READ_AND_CLEAR); });
        } else if (what == operation::statistics) {
            run(what, [&](size_t first, size_t count) { table->read_counters(first, count); });
        }
        run(operation::remove, [&](size_t first, size_t count) { table->remove(first, count); });
        costs.finish_round(state);
    }
    costs.finish(state);
}

} // namespace

void register_flow_benchmarks() {
    const std::pair<const char *, operation> operations[] = {{"flow_add", operation::add},
                                                             {"flow_delete", operation::remove},
                                                             {"flow_read_back", operation::read},
                                                             {"flow_activity", operation::activity},
                                                             {"flow_statistics", operation::statistics}};
    for (const auto &[name, what] : operations) {
        for (const int64_t batch_size : {1, 32, 1000}) {
            benchmark::RegisterBenchmark((std::string(name) + "/library").c_str(), through_library, what)
                ->Arg(batch_size)
                ->ArgName("batch")
                ->Iterations(rounds)
                ->UseManualTime();
            benchmark::RegisterBenchmark((std::string(name) + "/straight").c_str(), straight, what)
                ->Arg(batch_size)
                ->ArgName("batch")
                ->Iterations(rounds)
                ->UseManualTime();
        }
    }
}

} // namespace kr_bench
