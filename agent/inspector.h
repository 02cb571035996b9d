/*
 * What the daemon may be told about a platform beyond the library's interface: where rules lie, why frames were
 * dropped, and whether the library's flows database and the resource manager agree. A module that the daemon loads at
 * run time offers it, for one platform each; the daemon itself includes nothing of any platform and works without.
 *
 * Plain C, so that module and daemon need not be built together. All calls come from the thread that changes flows.
 */
#ifndef KR_AGENT_INSPECTOR_H
#define KR_AGENT_INSPECTOR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { KRSDN_INSPECTOR_VERSION = 1 };

/* One flow of the library's database, and its rule. */
typedef struct krsdn_inspected_rule {
    uint64_t flow_id;
    uint64_t hit_packets, hit_bytes; /* with or without a counter */
    uint32_t offset;                 /* where the rule lies; of two that match, the lower one wins */
    uint32_t priority;
    uint32_t has_counter; /* 0 or 1 */
    uint32_t is_valid;    /* 0: there is no rule at the offset */
} krsdn_inspected_rule;

typedef struct krsdn_inspector {
    uint32_t version; /* KRSDN_INSPECTOR_VERSION */
    const char *platform;

    /* Calls back for every flow of the library's database. */
    void (*rules_visit)(void (*visit)(void *context, const krsdn_inspected_rule *rule), void *context);

    /*
     * Compares the flows database, the rules of the resource manager and what the library reads back, rule by rule,
     * and calls back for each disagreement; `flow_id` is 0 where none is known. Returns 0 if that could not be done:
     * the switch is not started, or rules are being moved all the time.
     */
    uint32_t (*audit)(void (*found)(void *context, uint64_t flow_id, uint32_t offset, const char *text), void *context,
                      uint32_t *flow_count, uint32_t *rule_count);

    /* The drop reason number `index`; NULL behind the last one. */
    const char *(*drop_reason)(uint32_t index, uint64_t *count);
} krsdn_inspector;

/* The one symbol of a module: krsdn_inspector_get. */
typedef const krsdn_inspector *krsdn_inspector_get_function(void);

#ifdef __cplusplus
}
#endif

#endif
