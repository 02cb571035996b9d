/*
 * The audit of the flow table finds what is changed behind the library's back, each time what was changed and no more.
 * The library lives once in a process, so the cases follow each other in one.
 */
#include <cstring>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kr_acl_rm.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "table_audit.h"
#include "tables/tables_acl_impl.h"
#include "tests/support/fake_connector.h"

namespace {

using kr_audit::finding_kind;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr uint32_t flow_count = 3;

class table_audit : public testing::Test {
  protected:
    table_audit() : connector_(FAKE_PLUGIN_DIR "/fake_connector.so") {
        system_profile profile{};
        strcpy(profile.connector_library_path, FAKE_PLUGIN_DIR "/fake_connector.so");
        strcpy(profile.fpt_library_path, FAKE_PLUGIN_DIR "/fake_fpt.so");
        EXPECT_EQ(kr_sdn_hal_init(&profile, [](uint32_t, const char *, const char *) {}), KR_SDN_HAL_STATUS_SUCCESS);
        EXPECT_FALSE(kr_audit::audit_table().is_complete) << "there is no table yet";
        EXPECT_EQ(connector_->event_callback(CONN_EVENT_START, nullptr), 0U);
        for (uint32_t i = 0; i < flow_count; i++) { // flow 1 has the highest priority
            flow_record flow{};
            flow.flow_id = i + 1;
            flow.priority = 10 - i;
            flow.action = FLOW_ACTION_DROP;
            EXPECT_EQ(kr_sdn_hal_table_entry_set(KR_SDN_HAL_CMD_ADD, 0, &flow, 1), KR_SDN_HAL_STATUS_SUCCESS);
        }
        uint32_t count = 1;
        EXPECT_EQ(kr_soft_acls_get(&acl_id_, &count), KR_STATUS_SUCCESS);
        const kr_acl_rm_init_params params = {.mode = 1};
        EXPECT_EQ(kr_acl_rm_api_open(&resource_manager_, nullptr), KR_STATUS_SUCCESS);
        EXPECT_EQ(kr_acl_rm_api_init(resource_manager_, &params), KR_STATUS_SUCCESS);
    }

    static std::multiset<finding_kind> found() {
        const kr_audit::report report = kr_audit::audit_table();
        EXPECT_TRUE(report.is_complete);
        std::multiset<finding_kind> kinds;
        for (const kr_audit::finding &one : report.findings) {
            kinds.insert(one.kind);
        }
        expect_the_same_in_service(kinds);
        return kinds;
    }

    // Without the placement table: everything that does not name a place, and perhaps what follows from the flows
    // database alone.
    static void expect_the_same_in_service(const std::multiset<finding_kind> &all) {
        const kr_audit::report report = kr_audit::audit_table_in_service();
        EXPECT_TRUE(report.is_complete);
        std::multiset<finding_kind> kinds;
        for (const kr_audit::finding &one : report.findings) {
            kinds.insert(one.kind);
        }
        for (const finding_kind kind :
             {finding_kind::flow_without_rule, finding_kind::slot_differs, finding_kind::counter_differs,
              finding_kind::counter_shared, finding_kind::count_differs, finding_kind::read_back_failed,
              finding_kind::read_back_differs}) {
            EXPECT_EQ(kinds.count(kind), all.count(kind)) << kr_audit::text_of(kind);
        }
        EXPECT_EQ(kinds.empty(), all.empty());
    }

    static psort_entry place(uint32_t number) {
        psort_entry entries[flow_count + 1];
        uint32_t count = flow_count + 1;
        EXPECT_EQ(kr_soft_psort_entries_get(acl_psort_handle, entries, &count), KR_STATUS_SUCCESS);
        return entries[number];
    }

    kr_acl_rule rule_of(uint32_t offset) {
        kr_acl_rule rule{};
        rule.access_offset = offset;
        uint32_t count = 1;
        EXPECT_EQ(kr_acl_rm_api_acl_rule_get(resource_manager_, acl_id_, 0, &rule, &count), KR_STATUS_SUCCESS);
        rule.set_offset = offset;
        return rule;
    }
    void rule_write(kr_acl_rule rule) {
        EXPECT_EQ(kr_acl_rm_api_acl_rule_set(resource_manager_, KR_ACL_RM_CMD_RULE_SET, acl_id_, &rule, 1),
                  KR_STATUS_SUCCESS);
    }
    void rule_delete(uint32_t offset) {
        kr_acl_rule rule{};
        rule.access_offset = offset;
        EXPECT_EQ(kr_acl_rm_api_acl_rule_set(resource_manager_, KR_ACL_RM_CMD_RULE_DELETE, acl_id_, &rule, 1),
                  KR_STATUS_SUCCESS);
    }

    kr_test::loaded_fake_connector connector_;
    uint32_t acl_id_ = 0;
    kr_acl_rm_handle resource_manager_ = 0;
};

TEST_F(table_audit, finds_what_was_changed) {
    const kr_audit::report first = kr_audit::audit_table();
    EXPECT_EQ(first.flow_count, flow_count);
    EXPECT_EQ(first.place_count, flow_count);
    EXPECT_EQ(first.rule_count, flow_count);
    EXPECT_THAT(found(), ElementsAre());

    // The entries of the placement table, in order; with too little room, those that fit and how many there are.
    EXPECT_EQ(place(0).key, 1U);
    EXPECT_EQ(place(2).key, 3U);
    psort_entry one{};
    uint32_t room = 1;
    EXPECT_EQ(kr_soft_psort_entries_get(acl_psort_handle, &one, &room), KR_STATUS_NO_RESOURCES);
    EXPECT_EQ(room, flow_count);
    EXPECT_EQ(one.key, 1U);
    EXPECT_EQ(kr_soft_psort_entries_get(nullptr, &one, &room), KR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(kr_soft_psort_entries_get(acl_psort_handle, &one, nullptr), KR_STATUS_PARAM_NULL);

    // A rule is gone.
    const kr_acl_rule second = rule_of(place(1).index);
    rule_delete(place(1).index);
    EXPECT_THAT(found(), UnorderedElementsAre(finding_kind::place_without_rule, finding_kind::flow_without_rule,
                                              finding_kind::read_back_failed));
    // It is back without its counter, which went with it.
    kr_acl_rule without_counter = second;
    without_counter.counter_id = 0;
    rule_write(without_counter);
    EXPECT_THAT(found(), UnorderedElementsAre(finding_kind::counter_differs));
    // With the counter of another rule.
    without_counter.counter_id = rule_of(place(0).index).counter_id;
    rule_write(without_counter);
    EXPECT_THAT(found(), UnorderedElementsAre(finding_kind::counter_differs, finding_kind::counter_shared));
    without_counter.counter_id = 0;
    rule_write(without_counter);

    // A rule too many.
    kr_acl_rule too_many = without_counter;
    too_many.set_offset = 0;
    ASSERT_NE(place(0).index, 0U);
    rule_write(too_many);
    EXPECT_THAT(found(), UnorderedElementsAre(finding_kind::counter_differs, finding_kind::rule_without_place));
    EXPECT_EQ(kr_audit::audit_table_in_service().findings.size(), 2U);
    rule_delete(0);

    // The library forgets where a flow is, and its priority.
    acl_flows_db.slots[place(2).index].valid = 0;
    EXPECT_THAT(found(), UnorderedElementsAre(finding_kind::counter_differs, finding_kind::slot_differs));
    acl_flows_db.slots[place(2).index].valid = 1;
    acl_flows_db.active_entries++;
    EXPECT_THAT(found(), UnorderedElementsAre(finding_kind::counter_differs, finding_kind::count_differs));
    acl_flows_db.active_entries--;

    // A place is gone, and taken by a flow that the library does not know.
    psort_entry third = place(2);
    EXPECT_EQ(psort_entry_set(acl_psort_handle, PSORT_CMD_DELETE, &third), KR_UTILS_STATUS_SUCCESS);
    EXPECT_THAT(found(), UnorderedElementsAre(finding_kind::counter_differs, finding_kind::flow_without_place,
                                              finding_kind::rule_without_place));
    third.key = 99;
    EXPECT_EQ(psort_entry_set(acl_psort_handle, PSORT_CMD_ADD, &third), KR_UTILS_STATUS_SUCCESS);
    EXPECT_TRUE(found().contains(finding_kind::place_without_flow));
    EXPECT_EQ(kr_audit::to_text({finding_kind::place_without_flow, 99, 7}),
              "offset 7: flow 99 has a place and is not in the flows database");
}

} // namespace
