/*
 * Flow-mods: what each of the five commands does to the database of flows and to the rules in hardware. Everything that
 * can be refused is refused before the library is called. It knows requests and refusals, but no controllers: who is
 * told is the caller's business.
 *
 * New flows that follow each other are gathered and written as one batch, which hardware places much faster; anything
 * else, and flush(), writes what is gathered first. So after flush() hardware has what every submitted request asked
 * for, or its refusal was reported.
 */
#ifndef KR_AGENT_FLOW_MODS_H
#define KR_AGENT_FLOW_MODS_H

#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "flow_table.h"
#include "rules.h"
#include "translate.h"

namespace agent {

class flow_mods {
  public:
    /* Told of each flow that goes and has asked for it (SEND_FLOW_REM); the counts are the last ones. */
    using removed_handler = std::function<void(const flow &, of10::flow_removed_reason, const rules::counts &)>;
    /* Told of everything that happens to a flow, in words, after it has happened; `why` may be empty. */
    using watcher = std::function<void(const flow &, const char *what, const char *why)>;
    /* Told of each request that is refused; `token` is the one that came with it. */
    using refused_handler = std::function<void(uint64_t token, const refusal &)>;

    flow_mods(flow_table &table, rules &programmed, removed_handler on_removed)
        : table_(table), rules_(programmed), on_removed_(std::move(on_removed)) {}
    flow_mods(const flow_mods &) = delete;
    flow_mods &operator=(const flow_mods &) = delete;

    void watch(watcher on_change) {
        on_change_ = std::move(on_change);
    }

    void submit(of10::flow_mod &&request, uint64_t token, const refused_handler &on_refused, nanoseconds now);
    void flush(const refused_handler &on_refused);

    /* The same for one request whose outcome is wanted at once. Nothing may be gathered. */
    std::optional<refusal> apply(of10::flow_mod &&request, nanoseconds now);

    /* The ports have changed: every rule is made what its flow means now. Nothing may be gathered, here and below. */
    void ports_changed(const port_lists &ports);

    /* Hardware has refused something before: tries again to make it what it should be. False if nothing is left. */
    bool repair();

    /* Ends flows for another reason than a request: time-outs. Those that hardware does not let go stay. */
    void expire(std::span<flow *const> flows, of10::flow_removed_reason reason, nanoseconds now);

    /* Ends all flows, with their rules. */
    void end_all();

    /* The switch has lost all rules: ends all flows. */
    void forget_all(nanoseconds now);

  private:
    struct pending_add {
        flow *target;
        rule_plan plan;
        uint64_t token;
    };

    std::optional<refusal> check(const of10::flow_mod &request) const;
    std::optional<refusal> add(of10::flow_mod &&request, uint64_t token, const refused_handler &on_refused,
                               nanoseconds now);
    std::optional<refusal> add_again(flow &existing, of10::flow_mod &&request, const rule_plan &plan, nanoseconds now);
    std::optional<refusal> modify(of10::flow_mod &&request, bool strict, uint64_t token,
                                  const refused_handler &on_refused, nanoseconds now);
    std::optional<refusal> remove(const of10::flow_mod &request, bool strict, nanoseconds now);
    std::optional<refusal> execute(of10::flow_mod &&request, uint64_t token, const refused_handler &on_refused,
                                   nanoseconds now);
    void claim(uint32_t rank);
    void drop_from_table(flow &one);
    bool end_flows(std::span<flow *const> flows, of10::flow_removed_reason reason);
    void reprogram(flow &one);

    flow_table &table_;
    rules &rules_;
    removed_handler on_removed_;
    watcher on_change_ = [](const flow &, const char *, const char *) {};
    port_lists ports_;
    std::vector<pending_add> pending_;
};

} // namespace agent

#endif
