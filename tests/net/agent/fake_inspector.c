/*
 * An inspector that tells what is not so: of the first rule everything right, of the second another priority and no
 * counter, nothing of the third, and a rule that nobody has. What the agent makes of it shows that it compares.
 */
#include "inspector.h"

#include <stddef.h>

#ifndef FAKE_VERSION
#define FAKE_VERSION KRSDN_INSPECTOR_VERSION
#endif

static void rules_visit(void (*visit)(void *context, const krsdn_inspected_rule *rule), void *context) {
    const krsdn_inspected_rule rules[] = {
        {.flow_id = 1, .offset = 5, .priority = 300, .has_counter = 1, .is_valid = 1},
        {.flow_id = 2, .offset = 6, .priority = 201, .has_counter = 0, .is_valid = 1},
        {.flow_id = 77, .offset = 7, .priority = 9, .has_counter = 0, .is_valid = 1},
    };
    for (size_t i = 0; i < sizeof rules / sizeof rules[0]; i++) {
        visit(context, &rules[i]);
    }
}

static uint32_t audit(void (*found)(void *context, uint64_t flow_id, uint32_t offset, const char *text), void *context,
                      uint32_t *flow_count, uint32_t *rule_count) {
    *flow_count = 3;
    *rule_count = 3;
    found(context, 1, 5, "is not what it was");
    found(context, 0, 8, "is a stranger");
    return 1;
}

static const char *drop_reason(uint32_t index, uint64_t *count) {
    *count = 42;
    return index == 0 ? "for fun" : NULL;
}

static const krsdn_inspector inspector = {.version = FAKE_VERSION,
                                          .platform = "fake",
                                          .rules_visit = rules_visit,
                                          .audit = audit,
                                          .drop_reason = drop_reason};

__attribute__((visibility("default"))) const krsdn_inspector *krsdn_inspector_get(void);
const krsdn_inspector *krsdn_inspector_get(void) {
    return &inspector;
}
