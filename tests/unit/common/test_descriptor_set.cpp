/*
 * The set of descriptors, with numbers below and above what an fd_set holds.
 */
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>

#include <gtest/gtest.h>

#include "common/descriptor_set.h"

namespace {

constexpr timeval no_wait{0, 0};

class descriptor_set_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    }
    void TearDown() override {
        close(ends[0]);
        close(ends[1]);
    }
    void make_readable() {
        ASSERT_EQ(write(ends[1], "x", 1), 1);
    }
    // The read end under a number of at least `lowest`; -1 when the process may not have such numbers.
    int read_end_at(int lowest) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit original = limit;
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        const int fd = fcntl(ends[0], F_DUPFD_CLOEXEC, lowest);
        setrlimit(RLIMIT_NOFILE, &original);
        return fd;
    }
    // Its own allocation, so that the address sanitizer sees a write past its end.
    std::unique_ptr<kr::descriptor_set> set = std::make_unique<kr::descriptor_set>();
    std::array<int, 2> ends{};
};

TEST_F(descriptor_set_test, holds_what_was_added) {
    EXPECT_FALSE(set->contains(ends[0]));
    EXPECT_TRUE(set->add(ends[0]));
    EXPECT_TRUE(set->contains(ends[0]));
    EXPECT_FALSE(set->contains(ends[0] + 1));
}

TEST_F(descriptor_set_test, descriptor_0_is_one_and_a_negative_number_is_none) {
    EXPECT_FALSE(set->contains(0));
    EXPECT_TRUE(set->add(0));
    EXPECT_TRUE(set->contains(0));
    EXPECT_FALSE(set->add(-1));
    EXPECT_FALSE(set->contains(-1));
    EXPECT_FALSE(set->contains(1));
}

TEST_F(descriptor_set_test, words_that_are_not_in_use_do_not_count_whatever_the_memory_held) {
    const auto memory = std::make_unique<uint8_t[]>(sizeof(kr::descriptor_set));
    for (size_t i = 0; i < sizeof(kr::descriptor_set); i++) {
        static_cast<volatile uint8_t *>(memory.get())[i] = 0xFF;
    }
    auto *const of_full_memory = new (memory.get()) kr::descriptor_set; // has nothing to destroy
    EXPECT_FALSE(of_full_memory->contains(0));
    EXPECT_TRUE(of_full_memory->add(0));
    EXPECT_FALSE(of_full_memory->contains(63));
    EXPECT_FALSE(of_full_memory->contains(64));
}

TEST_F(descriptor_set_test, after_wait_holds_the_readable_ones) {
    std::array<int, 2> other{};
    ASSERT_EQ(pipe2(other.data(), O_CLOEXEC), 0);
    make_readable();
    ASSERT_TRUE(set->add(ends[0]));
    ASSERT_TRUE(set->add(other[0]));
    EXPECT_EQ(set->wait(nullptr), 1);
    EXPECT_TRUE(set->contains(ends[0]));
    EXPECT_FALSE(set->contains(other[0]));
    close(other[0]);
    close(other[1]);
}

TEST_F(descriptor_set_test, a_wait_that_runs_out_leaves_nothing) {
    timeval timeout = no_wait;
    ASSERT_TRUE(set->add(ends[0]));
    EXPECT_EQ(set->wait(&timeout), 0);
    EXPECT_FALSE(set->contains(ends[0]));
}

TEST_F(descriptor_set_test, an_empty_set_waits_for_the_time_alone) {
    timeval timeout = no_wait;
    EXPECT_EQ(set->wait(&timeout), 0);
}

TEST_F(descriptor_set_test, descriptors_of_1024_and_more_are_waited_for) {
    make_readable();
    int waited_for = 0;
    for (const int lowest : {1023, 1024, 1025, 4096, 65536, 1000000}) {
        const int fd = read_end_at(lowest);
        if (fd < 0) {
            continue;
        }
        auto high = std::make_unique<kr::descriptor_set>();
        ASSERT_TRUE(high->add(fd)) << fd;
        EXPECT_EQ(high->wait(nullptr), 1) << fd;
        EXPECT_TRUE(high->contains(fd)) << fd;
        EXPECT_FALSE(high->contains(fd - 1)) << fd;
        close(fd);
        waited_for += lowest >= 1024 ? 1 : 0;
    }
    if (waited_for == 0) {
        GTEST_SKIP() << "the process may not have a descriptor of 1024 or more";
    }
}

TEST_F(descriptor_set_test, a_descriptor_that_no_set_can_hold_is_refused) {
    const int too_high = kr::descriptor_set::max_descriptors;
    for (const int fd : {-1, INT32_MIN, too_high, INT32_MAX}) {
        EXPECT_FALSE(set->add(fd)) << fd;
        EXPECT_FALSE(set->contains(fd)) << fd;
    }
    EXPECT_TRUE(set->add(too_high - 1));
    EXPECT_TRUE(set->contains(too_high - 1));
    EXPECT_FALSE(set->contains(0));
}

TEST_F(descriptor_set_test, a_closed_descriptor_fails_the_wait_and_leaves_the_set) {
    const int fd = read_end_at(0);
    ASSERT_GE(fd, 0);
    close(fd);
    timeval timeout = no_wait;
    ASSERT_TRUE(set->add(fd));
    EXPECT_EQ(set->wait(&timeout), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(set->contains(fd));
}

} // namespace
