/*
 * The whole library as a client has it: the shared library with its plug-ins (fakes that do nothing by themselves), on
 * the software platform with ports in memory. Nothing but exported functions is used.
 *
 * A process initialises the library once: the environment does, and takes it down at the end. Each test starts the
 * switch and stops it, and leaves nothing in the platform.
 */
#ifndef KR_TESTS_RUNNING_LIBRARY_H
#define KR_TESTS_RUNNING_LIBRARY_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kr_connector.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "tests/support/fake_connector.h"
#include "tests/support/fake_fpt.h"
#include "tests/support/log_capture.h"

namespace kr_test {

constexpr uint32_t log_port_base = 0x10000;
constexpr uint32_t log_port_of(uint32_t of_port) {
    return log_port_base + of_port;
}

// A thread that delivers events to the library one at a time, as a connector does.
class connector_thread {
  public:
    connector_thread() : thread_([this] { run(); }) {}
    ~connector_thread() {
        post({});
        thread_.join();
    }
    connector_thread(const connector_thread &) = delete;
    connector_thread &operator=(const connector_thread &) = delete;

    // The status of the event, once the library has returned it.
    template <typename Work> std::future<uint32_t> deliver(Work work) {
        auto task = std::make_shared<std::packaged_task<uint32_t()>>(std::move(work));
        std::future<uint32_t> result = task->get_future();
        post([task] { (*task)(); });
        return result;
    }

  private:
    void post(std::function<void()> work) {
        const std::lock_guard lock(mutex_);
        queue_.push_back(std::move(work));
        changed_.notify_one();
    }
    void run() {
        for (;;) {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return !queue_.empty(); });
            const std::function<void()> work = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            if (!work) {
                return;
            }
            work();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> queue_;
    std::thread thread_; // last: the rest is there when it starts
};

// The library, initialised for the life of the process.
class library_environment : public testing::Environment {
  public:
    static library_environment &get() {
        static auto *const instance =
            static_cast<library_environment *>(testing::AddGlobalTestEnvironment(new library_environment));
        return *instance;
    }

    void SetUp() override {
        connector_ = std::make_unique<loaded_fake_connector>(KR_FAKE_PLUGIN_DIR "/fake_connector.so");
        fpt_ = std::make_unique<loaded_fake_fpt>(KR_FAKE_PLUGIN_DIR "/fake_fpt.so");
        system_profile profile{};
        strncpy(profile.connector_library_path, KR_FAKE_PLUGIN_DIR "/fake_connector.so", KR_SDN_HAL_PATH_SIZE - 1);
        strncpy(profile.fpt_library_path, KR_FAKE_PLUGIN_DIR "/fake_fpt.so", KR_SDN_HAL_PATH_SIZE - 1);
        ASSERT_EQ(kr_sdn_hal_init(&profile, log_capture::callback), KR_SDN_HAL_STATUS_SUCCESS);
        ASSERT_EQ(kr_sdn_hal_activate(), KR_SDN_HAL_STATUS_SUCCESS);
        thread_ = std::make_unique<connector_thread>();
    }
    void TearDown() override {
        thread_.reset();
        EXPECT_EQ(kr_sdn_hal_deinit(), KR_SDN_HAL_STATUS_SUCCESS);
    }

    // What the library answers to an event that the connector's thread delivers.
    std::future<uint32_t> deliver(uint32_t event) {
        return thread_->deliver([this, event] { return (*connector_)->event_callback(event, nullptr); });
    }
    template <typename Data> std::future<uint32_t> deliver(uint32_t event, Data data) {
        return thread_->deliver([this, event, data]() mutable { return (*connector_)->event_callback(event, &data); });
    }
    std::future<uint32_t> configure(uint32_t command, conn_agent_config config) {
        return thread_->deliver(
            [this, command, config]() mutable { return (*connector_)->config_callback(command, &config); });
    }

  private:
    library_environment() = default;
    std::unique_ptr<loaded_fake_connector> connector_;
    std::unique_ptr<loaded_fake_fpt> fpt_;
    std::unique_ptr<connector_thread> thread_;
};

// Before main: the framework then knows the environment when it starts.
inline library_environment &the_library = library_environment::get();

inline conn_port_record port_record_of(uint32_t of_port) {
    conn_port_record port{};
    port.log_port = log_port_of(of_port);
    port.ifindex = of_port;
    snprintf(port.interface_name, sizeof port.interface_name, "port%u", of_port);
    port.mac_address[0] = 2;
    port.mac_address[5] = static_cast<uint8_t>(of_port);
    return port;
}

// A channel for the life of the object.
class channel {
  public:
    explicit channel(std::initializer_list<uint32_t> events = {}) {
        EXPECT_EQ(kr_sdn_hal_srvc_open(&handle), KR_SDN_HAL_STATUS_SUCCESS);
        for (const uint32_t event : events) {
            EXPECT_EQ(kr_sdn_hal_srvc_event_register(&handle, event), KR_SDN_HAL_STATUS_SUCCESS);
        }
    }
    ~channel() {
        if (handle.is_open == 1) {
            EXPECT_EQ(kr_sdn_hal_srvc_close(&handle), KR_SDN_HAL_STATUS_SUCCESS);
        }
    }
    channel(const channel &) = delete;
    channel &operator=(const channel &) = delete;

    bool readable() {
        srvc_handle *handles[] = {&handle};
        timeval at_once{};
        uint32_t mask = 0;
        EXPECT_EQ(kr_sdn_hal_srvc_select(handles, 1, &at_once, &mask), KR_SDN_HAL_STATUS_SUCCESS);
        return mask != 0;
    }
    // Waits for the next event.
    hal_event_record receive() {
        hal_event_record record{};
        EXPECT_EQ(kr_sdn_hal_srvc_recv(&handle, &record), KR_SDN_HAL_STATUS_SUCCESS);
        return record;
    }

    srvc_handle handle{};
};

// A started switch with `port_count` ports, OF ports 1 and up.
class running_switch : public testing::Test {
  protected:
    explicit running_switch(uint32_t port_count = 4) : port_count_(port_count) {}

    void SetUp() override {
        ASSERT_EQ(the_library.deliver(CONN_EVENT_START).get(), 0U);
        for (uint32_t port = 1; port <= port_count_; port++) {
            ASSERT_NO_FATAL_FAILURE(add_port(port));
        }
        (void)log.take();
    }
    void TearDown() override {
        kr_soft_fault_clear();
        kr_soft_journal_stop();
        for (const uint32_t port : ports()) {
            remove_port(port);
        }
        EXPECT_EQ(the_library.deliver(CONN_EVENT_STOP).get(), 0U);
        kr_soft_usage usage{};
        kr_soft_usage_get(&usage);
        EXPECT_EQ(usage.acl_count, 0U);
        EXPECT_EQ(usage.rule_count, 0U);
        EXPECT_EQ(usage.counter_count, 0U);
        EXPECT_EQ(usage.binding_count, 0U);
        EXPECT_EQ(usage.descriptor_count, 0U);
        EXPECT_EQ(usage.device_handle_count, 0U);
        EXPECT_EQ(usage.acl_rm_handle_count, 0U);
        kr_soft_reset();
    }

    static void add_port(uint32_t of_port) {
        ASSERT_EQ(kr_soft_port_add_memory(log_port_of(of_port)), KR_STATUS_SUCCESS);
        ASSERT_EQ(the_library.deliver(CONN_EVENT_PORT_ADDED, port_record_of(of_port)).get(), 0U);
    }
    // The whole removal: announced, acknowledged by a client, completed.
    static void remove_port(uint32_t of_port) {
        channel client({EVENT_PORT_CAPABILITIES_UPDATE});
        std::future<uint32_t> removal = the_library.deliver(CONN_EVENT_PORT_REMOVED, port_record_of(of_port));
        const hal_event_record announced = client.receive();
        EXPECT_EQ(announced.payload.port_update.port, of_port);
        EXPECT_EQ(kr_sdn_hal_srvc_event_ack(&announced), KR_SDN_HAL_STATUS_SUCCESS);
        EXPECT_EQ(removal.get(), 0U);
        EXPECT_EQ(kr_soft_port_remove(log_port_of(of_port)), KR_STATUS_SUCCESS);
    }
    static std::vector<uint32_t> ports() {
        std::vector<uint32_t> found(100);
        auto count = static_cast<uint32_t>(found.size());
        EXPECT_EQ(kr_sdn_hal_port_arr_get(found.data(), &count), KR_SDN_HAL_STATUS_SUCCESS);
        found.resize(count);
        return found;
    }

    log_capture log;

  private:
    uint32_t port_count_;
};

// A flow that drops one Ethernet destination, which is as good as its id.
inline flow_record flow_of(uint64_t flow_id, uint32_t priority = 100, uint32_t action = FLOW_ACTION_DROP) {
    flow_record flow{};
    flow.flow_id = flow_id;
    flow.priority = priority;
    for (uint32_t i = 0; i < 6; ++i) {
        flow.eth_dst[i] = static_cast<uint8_t>(flow_id >> (8 * (5 - i)));
        flow.eth_dst_mask[i] = 0xFF;
    }
    flow.action = action;
    return flow;
}

// A frame that such a flow matches.
inline std::vector<uint8_t> frame_for(uint64_t flow_id, size_t size = 60) {
    std::vector<uint8_t> frame(size);
    for (uint32_t i = 0; i < 6; ++i) {
        frame[i] = static_cast<uint8_t>(flow_id >> (8 * (5 - i)));
    }
    frame[6] = 2;
    frame[11] = 0x77;
    frame[12] = 0x88; // an EtherType for local experiments
    frame[13] = 0xb5;
    return frame;
}

inline void inject(uint32_t of_port, const std::vector<uint8_t> &frame) {
    EXPECT_EQ(kr_soft_port_inject(log_port_of(of_port), frame.data(), static_cast<uint32_t>(frame.size())),
              KR_STATUS_SUCCESS);
}

inline kr_sdn_hal_status flows_set(uint32_t command, std::vector<flow_record> flows) {
    return kr_sdn_hal_table_entry_set(command, 0, flows.data(), static_cast<uint32_t>(flows.size()));
}
inline kr_sdn_hal_status flows_add(std::vector<flow_record> flows) {
    return flows_set(KR_SDN_HAL_CMD_ADD, std::move(flows));
}
inline kr_sdn_hal_status flows_delete(std::vector<flow_record> flows) {
    return flows_set(KR_SDN_HAL_CMD_DELETE, std::move(flows));
}

} // namespace kr_test

#endif
