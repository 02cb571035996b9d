/*
 * The status texts and converters, the pointer check and the length-prefixed buffers.
 */
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/common.h"
#include "kr_soft.h"
#include "tests/support/log_capture.h"

namespace {

using kr_test::log_line;
using log_lines = std::vector<log_line>;

log_line null_pointer(const std::string &description) {
    return {KR_LOG_ERROR, "HAL_UTILS", "NULL Pointer (" + description + ")\n"};
}

class common_test : public ::testing::Test {
  protected:
    void TearDown() override {
        kr_HAL_UTILS_verb_level = 3;
        kr_soft_fault_clear();
        EXPECT_EQ(log.take(), log_lines{});
    }
    // The captured lines are two failed assertions of `function`, each with a whole back trace.
    void expect_asserted_twice(const std::string &function) {
        const log_lines lines = log.take();
        size_t next = 0;
        for (int i = 0; i < 2; i++) {
            ASSERT_LT(next + 1, lines.size());
            EXPECT_TRUE(lines[next].text.starts_with("ASSERT in common.h[")) << lines[next];
            EXPECT_TRUE(lines[next].text.ends_with("]- " + function + "\n")) << lines[next];
            next++;
            size_t frame_count = 0;
            ASSERT_EQ(sscanf(lines[next].text.c_str(), "ASSERT - Retreived a list of %zu elements.", &frame_count), 1);
            next++;
            EXPECT_GT(frame_count, 0U);
            EXPECT_LE(frame_count, 20U);
            for (size_t frame = 0; frame < frame_count; frame++, next++) {
                ASSERT_LT(next, lines.size());
                EXPECT_TRUE(lines[next].text.starts_with("ASSERT - Element " + std::to_string(frame) + ": "))
                    << lines[next];
                EXPECT_TRUE(lines[next].text.ends_with(".\n")) << lines[next];
            }
        }
        EXPECT_EQ(next, lines.size());
        for (const log_line &line : lines) {
            EXPECT_EQ(line.module, "LOG");
            EXPECT_EQ(line.severity, uint32_t{KR_LOG_ERROR});
        }
    }
    kr_test::log_capture log;
};

// ---- statuses ---------------------------------------------------------------------------------------------------

TEST_F(common_test, each_status_has_its_value_and_its_text) {
    const char *const texts[] = {
        "Success",         "Internal Error",          "SDK Error",           "Korvane SDN HAL wasn't Initialized",
        "Entry not found", "Entry already exists",    "Command unsupported", "Parameter Error",
        "NULL parameter",  "Parameter exceeds range", "No resources",        "Resource is in use"};
    ASSERT_EQ(kr::hal_status_texts.size(), std::size(texts));
    for (size_t i = 0; i < std::size(texts); i++) {
        EXPECT_STREQ(kr::hal_status_texts[i], texts[i]);
    }
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_SUCCESS}, 0U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_ERROR}, 1U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_SDK_ERROR}, 2U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_NOT_INITIALIZED}, 3U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND}, 4U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS}, 5U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_CMD_UNSUPPORTED}, 6U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_PARAM_ERROR}, 7U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_PARAM_NULL}, 8U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE}, 9U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_NO_RESOURCES}, 10U);
    EXPECT_EQ(uint32_t{KR_SDN_HAL_STATUS_RESOURCE_IN_USE}, 11U);
}

TEST_F(common_test, every_status_converts_to_the_utilities_as_tabled) {
    const uint32_t expected[12] = {0, 1, 2, 4, 5, 14, 6, 7, 8, 9, 10, 18};
    for (uint32_t status = 0; status < 12; status++) {
        EXPECT_EQ(kr_sdn_hal_status_to_kr_utils_status(static_cast<kr_sdn_hal_status>(status)), expected[status]);
    }
}

TEST_F(common_test, every_utilities_status_converts_back_as_tabled) {
    const uint32_t expected[19] = {0, 1, 2, 1, 3, 4, 6, 7, 8, 9, 10, 1, 1, 1, 5, 1, 1, 1, 11};
    for (uint32_t status = 0; status < 19; status++) {
        EXPECT_EQ(kr_utils_status_to_kr_sdn_hal_status(status), expected[status]);
    }
}

TEST_F(common_test, utilities_14_is_already_exists_both_ways_and_3_collapses_to_1) {
    EXPECT_EQ(kr_utils_status_to_kr_sdn_hal_status(14), KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(kr_sdn_hal_status_to_kr_utils_status(KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS), 14U);
    EXPECT_EQ(kr_utils_status_to_kr_sdn_hal_status(3), 1U);
    EXPECT_EQ(kr_sdn_hal_status_to_kr_utils_status(KR_SDN_HAL_STATUS_ERROR), 1U);
}

TEST_F(common_test, status_12_or_negative_gives_utilities_status_1_and_assertions) {
    kr_HAL_UTILS_verb_level = 0; // assertions are not filtered
    for (const int32_t status : {12, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(kr_sdn_hal_status_to_kr_utils_status(static_cast<kr_sdn_hal_status>(status)), 1U);
        expect_asserted_twice("kr_sdn_hal_status_to_kr_utils_status");
    }
}

TEST_F(common_test, utilities_status_19_gives_error_and_assertions) {
    for (const int32_t status : {19, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(kr_utils_status_to_kr_sdn_hal_status(static_cast<kr_utils_status>(status)), KR_SDN_HAL_STATUS_ERROR);
        expect_asserted_twice("kr_utils_status_to_kr_sdn_hal_status");
    }
}

// ---- the pointer check ------------------------------------------------------------------------------------------

TEST_F(common_test, a_pointer_passes_without_a_line) {
    const int anything = 0;
    EXPECT_EQ(hal_utils_check_pointer(&anything, "Anything"), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(hal_utils_check_pointer(&anything, nullptr), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(common_test, null_returns_8_with_its_description) {
    EXPECT_EQ(hal_utils_check_pointer(nullptr, "Flow entry pointer"), 8U);
    EXPECT_EQ(log.take(), log_lines{null_pointer("Flow entry pointer")});
}

TEST_F(common_test, null_with_a_null_description_logs_no_pointer_description_and_returns_8) {
    EXPECT_EQ(hal_utils_check_pointer(nullptr, nullptr), 8U);
    EXPECT_EQ(log.take(), log_lines{null_pointer("no pointer description")});
}

TEST_F(common_test, a_description_is_no_format) {
    EXPECT_EQ(hal_utils_check_pointer(nullptr, "%s%n%d"), 8U);
    EXPECT_EQ(log.take(), log_lines{null_pointer("%s%n%d")});
}

TEST_F(common_test, verbosity_0_silences_the_pointer_check) {
    kr_HAL_UTILS_verb_level = 0;
    EXPECT_EQ(hal_utils_check_pointer(nullptr, "Buffer pointer"), 8U);
}

// ---- length-prefixed buffers ------------------------------------------------------------------------------------

uint32_t prefix_of(const void *buffer) {
    uint32_t size = 0;
    memcpy(&size, static_cast<const char *>(buffer) - sizeof(size), sizeof(size));
    return size;
}

TEST_F(common_test, memory_get_stores_the_size_in_front_and_allocates_4_bytes_more) {
    kr_soft_journal_start();
    void *buffer = nullptr;
    ASSERT_EQ(hal_utils_memory_get(&buffer, 100), KR_SDN_HAL_STATUS_SUCCESS);
    kr_soft_journal_stop();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(prefix_of(buffer), 100U);
    memset(buffer, 0xFF, 100);
    EXPECT_EQ(prefix_of(buffer), 100U);
    EXPECT_EQ(hal_utils_memory_put(buffer), KR_SDN_HAL_STATUS_SUCCESS);

    char *const journal = kr_soft_journal_text();
    EXPECT_STREQ(journal, "cl_malloc(104) = pointer\n");
    free(journal);
}

TEST_F(common_test, memory_get_of_0_yields_a_valid_pointer_whose_prefix_is_0) {
    void *buffer = nullptr;
    ASSERT_EQ(hal_utils_memory_get(&buffer, 0), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(prefix_of(buffer), 0U);
    EXPECT_EQ(hal_utils_memory_put(buffer), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(common_test, clr_memory_get_clears_the_product) {
    // Dirty memory of the same size first, so that clearing has something to clear.
    void *buffer = nullptr;
    ASSERT_EQ(hal_utils_memory_get(&buffer, 300), KR_SDN_HAL_STATUS_SUCCESS);
    memset(buffer, 0xFF, 300);
    ASSERT_EQ(hal_utils_memory_put(buffer), KR_SDN_HAL_STATUS_SUCCESS);

    ASSERT_EQ(hal_utils_clr_memory_get(&buffer, 100, 3), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(prefix_of(buffer), 300U);
    EXPECT_EQ(std::string(static_cast<const char *>(buffer), 300), std::string(300, '\0'));
    EXPECT_EQ(hal_utils_memory_put(buffer), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(common_test, clr_memory_get_multiplies_in_32_bits) {
    void *buffer = nullptr;
    ASSERT_EQ(hal_utils_clr_memory_get(&buffer, 0x10000, 0x10000), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(prefix_of(buffer), 0U);
    EXPECT_EQ(hal_utils_memory_put(buffer), KR_SDN_HAL_STATUS_SUCCESS);
    ASSERT_EQ(hal_utils_clr_memory_get(&buffer, 0x80000001, 6), KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(prefix_of(buffer), 6U);
    EXPECT_EQ(hal_utils_memory_put(buffer), KR_SDN_HAL_STATUS_SUCCESS);
}

TEST_F(common_test, without_memory_1_is_returned_the_pointer_is_null_and_nothing_is_logged) {
    int anything = 0;
    for (const bool cleared : {false, true}) {
        ASSERT_EQ(kr_soft_fault_set("cl_malloc", 0, 0, 0), KR_STATUS_SUCCESS);
        void *buffer = &anything;
        EXPECT_EQ(cleared ? hal_utils_clr_memory_get(&buffer, 2, 3) : hal_utils_memory_get(&buffer, 6), 1U);
        EXPECT_EQ(buffer, nullptr);
    }
}

TEST_F(common_test, null_buffer_pointers_return_8_as_buffer_pointer) {
    EXPECT_EQ(hal_utils_memory_get(nullptr, 4), 8U);
    EXPECT_EQ(hal_utils_clr_memory_get(nullptr, 1, 4), 8U);
    EXPECT_EQ(hal_utils_memory_put(nullptr), 8U);
    EXPECT_EQ(log.take(), log_lines(3, null_pointer("Buffer pointer")));
}

} // namespace
