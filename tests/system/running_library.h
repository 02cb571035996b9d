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

#include <atomic>
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
#include "tests/support/threads.h"
#include "tests/system/flows_and_frames.h"

namespace kr_test {

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

    // Returns once the last event is in the library, or through it, and the thread sleeps.
    void wait_until_asleep() {
        while (entered_ != posted_) {
            sched_yield();
        }
        kr_test::wait_until_asleep(id_);
    }
    [[nodiscard]] pid_t id() const {
        return id_;
    }

  private:
    void post(std::function<void()> work) {
        const std::lock_guard lock(mutex_);
        posted_++;
        queue_.push_back(std::move(work));
        changed_.notify_one();
    }
    void run() {
        id_ = thread_id();
        for (;;) {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return !queue_.empty(); });
            const std::function<void()> work = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            if (!work) {
                return;
            }
            entered_++;
            work();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> queue_;
    std::atomic<uint64_t> posted_{0};
    std::atomic<uint64_t> entered_{0};
    std::atomic<pid_t> id_{0};
    std::thread thread_; // last: the rest is there when it starts
};

// Makes one call on a thread of its own. When the constructor returns, the call has come back or sleeps.
class call_on_a_thread {
  public:
    explicit call_on_a_thread(std::function<kr_sdn_hal_status()> call)
        : thread_([this, call = std::move(call)] {
              id_ = thread_id();
              id_.notify_one();
              status_ = call();
              is_done_ = true;
          }) {
        id_.wait(0);
        wait_until_asleep();
    }
    ~call_on_a_thread() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    call_on_a_thread(const call_on_a_thread &) = delete;
    call_on_a_thread &operator=(const call_on_a_thread &) = delete;

    void wait_until_asleep() const {
        for (char state = 'R'; state != 'S' && state != '\0' && !is_done_; state = thread_state(id_)) {
            sched_yield();
        }
    }
    [[nodiscard]] bool is_done() const {
        return is_done_;
    }
    [[nodiscard]] pid_t id() const {
        return id_;
    }
    kr_sdn_hal_status join() {
        thread_.join();
        return status_;
    }

  private:
    std::atomic<pid_t> id_{0};
    std::atomic<bool> is_done_{false};
    kr_sdn_hal_status status_ = KR_SDN_HAL_STATUS_ERROR;
    std::thread thread_;
};

inline bool is_done(const std::future<uint32_t> &result) {
    return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

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

    connector_thread &connector() {
        return *thread_;
    }

  private:
    library_environment() = default;
    std::unique_ptr<loaded_fake_connector> connector_;
    std::unique_ptr<loaded_fake_fpt> fpt_;
    std::unique_ptr<connector_thread> thread_;
};

// Before main: the framework then knows the environment when it starts.
inline library_environment &the_library = library_environment::get();

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

} // namespace kr_test

#endif
