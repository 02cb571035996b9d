/*
 * The containers behind flow_table.h: a list, an index by identity, and an order by rank that is made anew for the
 * first look-up after a change.
 */
#include "flow_table.h"

#include <algorithm>
#include <cassert>

#include "match.h"

namespace agent {

size_t flow_key_hash::operator()(const flow_key &key) const noexcept {
    return match_hash(*key.match) ^ (size_t{key.rank} * 0x9e3779b97f4a7c15U);
}

uint32_t flow_rank(const of10::flow_match &match, uint16_t priority) noexcept {
    return match_is_exact(match) ? exact_rank : priority;
}

bool actions_output_to(const of10::action_list &actions, uint16_t port) noexcept {
    return port == of10::ports::none || std::any_of(actions.begin(), actions.end(), [port](const of10::action &one) {
               const auto *output = std::get_if<of10::action_output>(&one);
               const auto *enqueue = std::get_if<of10::action_enqueue>(&one);
               return (output != nullptr && output->port == port) || (enqueue != nullptr && enqueue->port == port);
           });
}

flow *flow_table::find(const of10::flow_match &key, uint32_t rank) const noexcept {
    const auto found = index_.find({&key, rank});
    return found == index_.end() ? nullptr : found->second;
}

std::vector<flow *> flow_table::covered(const of10::flow_match &key, uint16_t out_port) const {
    std::vector<flow *> found;
    for (const auto &one : flows_) {
        if (match_covers(key, one->key) && actions_output_to(one->actions, out_port)) {
            found.push_back(one.get());
        }
    }
    return found;
}

flow *flow_table::overlapping(const of10::flow_match &key, uint32_t rank) const noexcept {
    for (const auto &one : flows_) {
        if (one->rank == rank && match_overlaps(key, one->key)) {
            return one.get();
        }
    }
    return nullptr;
}

flow *flow_table::lookup(const of10::flow_match &frame) const {
    if (!is_sorted_) {
        by_rank_.clear();
        for (const auto &one : flows_) {
            by_rank_.push_back(one.get());
        }
        std::stable_sort(by_rank_.begin(), by_rank_.end(),
                         [](const flow *a, const flow *b) { return a->rank > b->rank; });
        is_sorted_ = true;
    }
    for (flow *const one : by_rank_) {
        if (match_covers(one->key, frame)) {
            return one;
        }
    }
    return nullptr;
}

flow &flow_table::insert(std::unique_ptr<flow> one) {
    one->key = of10::match_normalize(one->match);
    one->rank = flow_rank(one->match, one->priority);
    one->position = flows_.size();
    flow &placed = *one;
    flows_.push_back(std::move(one));
    [[maybe_unused]] const bool is_new = index_.emplace(flow_key{&placed.key, placed.rank}, &placed).second;
    assert(is_new);
    is_sorted_ = false;
    version_++;
    return placed;
}

std::unique_ptr<flow> flow_table::erase(flow &one) noexcept {
    index_.erase({&one.key, one.rank});
    version_++;
    std::unique_ptr<flow> out = std::move(flows_[one.position]);
    if (one.position + 1 < flows_.size()) {
        flows_[one.position] = std::move(flows_.back());
        flows_[one.position]->position = one.position;
    }
    flows_.pop_back();
    if (is_sorted_) {
        std::erase(by_rank_, &one);
    }
    return out;
}

} // namespace agent
