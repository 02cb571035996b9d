/*
 * The port database under threads: look-ups beside a writer, and writers beside each other. What a look-up answers must
 * be what some moment of the database held; the thread sanitizer sees the rest.
 */
#include <atomic>
#include <barrier>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/port.h"
#include "kr_complib.h"
#include "kr_sdn_hal.h"

namespace {

// Whether a writer lets other threads run before it changes a map.
std::atomic<bool> writers_yield{false};

// What is done before a record goes back to the pool, and may be taken for another port.
void (*before_record_goes)() = nullptr;

constexpr auto SUCCESS = KR_SDN_HAL_STATUS_SUCCESS;
constexpr auto NOT_FOUND = KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;

// Long enough for a writer to be interrupted in the middle of a change; the thread sanitizer needs no such luck.
#ifdef __SANITIZE_THREAD__
constexpr uint32_t change_count = 3'000;
#else
constexpr uint32_t change_count = 60'000;
#endif
constexpr int reader_count = 2;

// Ports 1 to 60: every third one stays, and those around it come and go, so that its row moves. Interface index and
// logical port run the other way than the OF port, and no two identifiers of a port are the same.
constexpr uint32_t port_count = 60;

bool stays(uint32_t of_port) {
    return of_port % 3 == 0;
}
uint32_t ifindex_of(uint32_t of_port) {
    return 1000 - of_port;
}
uint32_t log_port_of(uint32_t of_port) {
    return 5000 - of_port;
}
uint32_t aux_of(uint32_t of_port) {
    return 7000 + of_port;
}

constexpr uint32_t requested_base = 32768;

kr_sdn_hal_status add(uint32_t of_port) {
    uint32_t assigned = 0;
    const auto requested = static_cast<int32_t>(of_port) - static_cast<int32_t>(requested_base);
    return port_set(PORT_CMD_ADD, ifindex_of(of_port), requested, log_port_of(of_port), aux_of(of_port), &assigned);
}

kr_sdn_hal_status remove(uint32_t of_port) {
    return port_set(PORT_CMD_REMOVE, 0, 0, 0, 0, &of_port);
}

class port_threads : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(port_init(), SUCCESS);
        for (uint32_t port = 1; port <= port_count; port++) {
            if (stays(port)) {
                ASSERT_EQ(add(port), SUCCESS);
            }
        }
    }

    void TearDown() override {
        writers_yield = false;
    }

    // Adds and removes the ports that do not stay, in an order that leaves ever other ones there.
    static void change_ports() {
        std::vector<bool> is_there(port_count + 1);
        for (uint32_t i = 0; i < change_count; i++) {
            const uint32_t port = 1 + i * 7 % port_count;
            if (!stays(port)) {
                ASSERT_EQ(is_there[port] ? remove(port) : add(port), SUCCESS) << port;
                is_there[port] = !is_there[port];
            }
        }
    }

    // Runs `read` again and again on some threads while the ports change; each thread at least once meanwhile.
    template <typename Read> void read_while_ports_change(Read read) {
        std::atomic<bool> is_over{false};
        std::barrier begin(reader_count + 1);
        std::vector<std::thread> readers;
        for (int i = 0; i < reader_count; i++) {
            readers.emplace_back([&] {
                begin.arrive_and_wait();
                do {
                    read();
                } while (!is_over && !HasFailure());
            });
        }
        begin.arrive_and_wait();
        change_ports();
        is_over = true;
        for (std::thread &reader : readers) {
            reader.join();
        }
    }
};

TEST_F(port_threads, look_ups_find_what_stays_and_only_what_belongs_together_while_ports_come_and_go) {
    read_while_ports_change([] {
        for (uint32_t port = 1; port <= port_count; port++) {
            const auto answers = [port](kr_sdn_hal_status status, uint32_t value, uint32_t expected) {
                return status == SUCCESS ? value == expected : status == NOT_FOUND && value == 0 && !stays(port);
            };
            uint32_t ifindex = 0;
            uint32_t log_port = 0;
            uint32_t of_ifindex = 0;
            uint32_t of_log_port = 0;
            kr_sdn_hal_status status = port_get_ifindex(port, &ifindex);
            ASSERT_TRUE(answers(status, ifindex, ifindex_of(port))) << port << ": " << status << " " << ifindex;
            status = port_get_log_port(port, &log_port);
            ASSERT_TRUE(answers(status, log_port, log_port_of(port))) << port << ": " << status << " " << log_port;
            status = port_translate_ifindex(ifindex_of(port), &of_ifindex);
            ASSERT_TRUE(answers(status, of_ifindex, port)) << port << ": " << status << " " << of_ifindex;
            status = port_translate_log_port(log_port_of(port), &of_log_port);
            ASSERT_TRUE(answers(status, of_log_port, port)) << port << ": " << status << " " << of_log_port;
        }
    });
}

TEST_F(port_threads, the_information_of_a_port_that_stays_stays_what_it_is_while_ports_come_and_go) {
    read_while_ports_change([] {
        for (uint32_t port = 3; port <= port_count; port += 3) {
            const port_info *info = nullptr;
            ASSERT_EQ(port_get(port, &info), SUCCESS);
            ASSERT_EQ(info->ifindex, ifindex_of(port));
            ASSERT_EQ(info->log_port, log_port_of(port));
            ASSERT_EQ(info->aux, aux_of(port));
        }
    });
}

TEST_F(port_threads, a_list_is_in_order_holds_no_port_twice_and_all_that_stay_while_ports_come_and_go) {
    read_while_ports_change([] {
        uint32_t ports[PORT_MAX_COUNT];
        uint32_t count = PORT_MAX_COUNT;
        ASSERT_EQ(port_get_arr(ports, &count), SUCCESS);
        uint32_t staying_count = 0;
        for (uint32_t i = 0; i < count; i++) {
            ASSERT_LE(ports[i], port_count);
            ASSERT_TRUE(i == 0 || ports[i - 1] < ports[i]) << ports[i - 1] << " before " << ports[i];
            staying_count += stays(ports[i]) ? 1 : 0;
        }
        ASSERT_EQ(staying_count, port_count / 3);
        uint32_t whole = 0;
        ASSERT_EQ(port_get_arr(nullptr, &whole), SUCCESS);
        ASSERT_GE(whole, port_count / 3);
        ASSERT_LE(whole, port_count);
    });
}

TEST_F(port_threads, of_two_threads_that_remove_the_same_port_one_gets_4) {
    constexpr uint32_t port = 1;
    constexpr uint32_t round_count = 20;
    writers_yield = true;
    std::barrier meeting(2);
    kr_sdn_hal_status statuses[2] = {};
    std::thread other([&] {
        for (uint32_t round = 0; round < round_count; round++) {
            meeting.arrive_and_wait();
            statuses[1] = remove(port);
            meeting.arrive_and_wait();
        }
    });
    for (uint32_t round = 0; round < round_count; round++) {
        EXPECT_EQ(add(port), SUCCESS);
        meeting.arrive_and_wait();
        statuses[0] = remove(port);
        meeting.arrive_and_wait();
        EXPECT_TRUE((statuses[0] == SUCCESS && statuses[1] == NOT_FOUND) ||
                    (statuses[0] == NOT_FOUND && statuses[1] == SUCCESS))
            << "round " << round << ": " << statuses[0] << ", " << statuses[1];
    }
    other.join();
    uint32_t count = 0;
    EXPECT_EQ(port_get_arr(nullptr, &count), SUCCESS);
    EXPECT_EQ(count, port_count / 3);
}

TEST_F(port_threads, no_look_up_finds_a_port_whose_record_is_free) {
    static bool seen;
    seen = false;
    EXPECT_EQ(add(1), SUCCESS);
    before_record_goes = [] {
        seen = true;
        uint32_t value = 9;
        const port_info *info = nullptr;
        EXPECT_EQ(port_get(1, &info), NOT_FOUND);
        EXPECT_EQ(port_get_ifindex(1, &value), NOT_FOUND);
        EXPECT_EQ(port_translate_ifindex(ifindex_of(1), &value), NOT_FOUND);
        EXPECT_EQ(port_translate_log_port(log_port_of(1), &value), NOT_FOUND);
        EXPECT_EQ(value, 9U);
    };
    EXPECT_EQ(remove(1), SUCCESS);
    before_record_goes = nullptr;
    EXPECT_TRUE(seen);
}

} // namespace

// Visible, since the linker reroutes the references of the sanitizers' shared libraries as well.
#pragma GCC visibility push(default)
extern "C" {

cl_map_item_t *__real_cl_qmap_insert(cl_qmap_t *map, uint64_t key, cl_map_item_t *item);
cl_map_item_t *__wrap_cl_qmap_insert(cl_qmap_t *map, uint64_t key, cl_map_item_t *item);
void __real_cl_qmap_remove_item(cl_qmap_t *map, cl_map_item_t *item);
void __wrap_cl_qmap_remove_item(cl_qmap_t *map, cl_map_item_t *item);

cl_map_item_t *__wrap_cl_qmap_insert(cl_qmap_t *map, uint64_t key, cl_map_item_t *item) {
    if (writers_yield) {
        std::this_thread::yield();
    }
    return __real_cl_qmap_insert(map, key, item);
}

void __real_cl_qpool_put(cl_qpool_t *pool, cl_pool_item_t *item);
void __wrap_cl_qpool_put(cl_qpool_t *pool, cl_pool_item_t *item);

void __wrap_cl_qpool_put(cl_qpool_t *pool, cl_pool_item_t *item) {
    if (before_record_goes != nullptr) {
        before_record_goes();
    }
    __real_cl_qpool_put(pool, item);
}

void __wrap_cl_qmap_remove_item(cl_qmap_t *map, cl_map_item_t *item) {
    if (writers_yield) {
        std::this_thread::yield();
    }
    __real_cl_qmap_remove_item(map, item);
}

} // extern "C"
#pragma GCC visibility pop
