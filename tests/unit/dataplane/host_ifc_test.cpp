/*
 * The device API and the host interface: handles, descriptors as file descriptors, registrations, and what happens
 * when they are used wrongly, at once, or when the process runs out of them.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include "soft_switch.h"

namespace {

using namespace kr_test;

constexpr uint32_t port_1 = 0x10100, port_2 = 0x10200;

class host_ifc_test : public soft_switch {
  protected:
    host_ifc_test() {
        add_memory_ports({port_1, port_2});
        set(trap_rule(5));
    }
    static kr_soft_usage usage() {
        kr_soft_usage result;
        kr_soft_usage_get(&result);
        return result;
    }
};

/* ---- handles --------------------------------------------------------------------------------------------------- */

TEST_F(host_ifc_test, device_handles_open_close_and_are_told_apart) {
    kr_api_handle second = 0;
    ASSERT_EQ(kr_api_open(nullptr, &second), KR_STATUS_SUCCESS);
    EXPECT_NE(second, 0U);
    EXPECT_NE(second, device);
    EXPECT_EQ(usage().device_handle_count, 2U);
    kr_api_handle copy = second;
    EXPECT_EQ(kr_api_close(&second), KR_STATUS_SUCCESS);
    EXPECT_EQ(second, 0U);
    EXPECT_EQ(kr_api_close(&copy), KR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(kr_api_close(&second), KR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(kr_api_close(nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_api_open(nullptr, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(usage().device_handle_count, 1U);
}

TEST_F(host_ifc_test, device_handles_run_out_with_a_code_of_their_own) {
    std::vector<kr_api_handle> handles;
    kr_api_handle handle = 0;
    kr_status status;
    while ((status = kr_api_open(nullptr, &handle)) == KR_STATUS_SUCCESS) {
        handles.push_back(handle);
    }
    EXPECT_EQ(status, static_cast<kr_status>(KR_STATUS_NO_RESOURCES));
    EXPECT_EQ(kr_api_close(&handles.back()), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_api_open(nullptr, &handles.back()), KR_STATUS_SUCCESS);
}

TEST_F(host_ifc_test, port_state) {
    uint32_t oper = 0, admin = 0, module = 0;
    ASSERT_EQ(kr_api_port_state_get(device, port_1, &oper, &admin, &module), KR_STATUS_SUCCESS);
    EXPECT_EQ(oper, static_cast<uint32_t>(KR_PORT_OPER_UP));
    EXPECT_EQ(admin, static_cast<uint32_t>(KR_PORT_ADMIN_UP));
    EXPECT_EQ(module, static_cast<uint32_t>(KR_PORT_MODULE_PLUGGED));
    ASSERT_EQ(kr_soft_port_link_set(port_1, 0), KR_STATUS_SUCCESS);
    ASSERT_EQ(kr_api_port_state_get(device, port_1, &oper, &admin, &module), KR_STATUS_SUCCESS);
    EXPECT_EQ(oper, static_cast<uint32_t>(KR_PORT_OPER_DOWN));
    oper = admin = module = 77;
    EXPECT_EQ(kr_api_port_state_get(device, 0x999, &oper, &admin, &module), KR_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(oper + admin + module, 3 * 77U);
    EXPECT_EQ(kr_api_port_state_get(0, port_1, &oper, &admin, &module), KR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(kr_api_port_state_get(device, port_1, nullptr, &admin, &module), KR_STATUS_PARAM_NULL);
}

/* ---- descriptors ----------------------------------------------------------------------------------------------- */

TEST_F(host_ifc_test, select_sees_a_descriptor_exactly_while_something_is_queued) {
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN});
    const auto selected = [&] {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(channel.descriptor.fd, &set);
        timeval none{};
        return select(channel.descriptor.fd + 1, &set, nullptr, nullptr, &none) == 1;
    };
    EXPECT_FALSE(selected());
    for (int round = 0; round < 3; round++) {
        inject(port_1, udp_frame(1, 2, 3));
        inject(port_2, udp_frame(1, 2, 3));
        EXPECT_TRUE(selected());
        channel.take();
        EXPECT_TRUE(selected());
        channel.take();
        EXPECT_FALSE(selected());
    }
}

TEST_F(host_ifc_test, frames_and_events_come_in_order) {
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN, KR_TRAP_ID_PORT_UP_DOWN});
    inject(port_1, udp_frame(1, 2, 3));
    ASSERT_EQ(kr_soft_port_link_set(port_2, 0), KR_STATUS_SUCCESS);
    inject(port_1, udp_frame(2, 2, 3));
    EXPECT_EQ(channel.take().data, udp_frame(1, 2, 3));
    EXPECT_EQ(channel.take().info.trap_id, static_cast<uint32_t>(KR_TRAP_ID_PORT_UP_DOWN));
    EXPECT_EQ(channel.take().data, udp_frame(2, 2, 3));
}

TEST_F(host_ifc_test, long_frames_are_cut_to_the_room) {
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN});
    const bytes longest = udp_frame(1, 2, KR_SOFT_MAX_FRAME - 42);
    inject(port_1, longest);
    const received cut = channel.take(4000);
    EXPECT_EQ(cut.data, bytes(longest.begin(), longest.begin() + 4000));
    EXPECT_EQ(cut.info.original_size, longest.size());
    inject(port_1, longest);
    EXPECT_EQ(channel.take(KR_SOFT_MAX_FRAME).data, longest);
    inject(port_1, longest);
    EXPECT_TRUE(channel.take(0).data.empty());
    EXPECT_FALSE(channel.readable()) << "taken all the same";
}

TEST_F(host_ifc_test, receive_waits_for_the_next_frame) {
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN});
    std::thread injecting([] { inject(port_1, udp_frame(1, 2, 3)); });
    EXPECT_EQ(channel.take().data, udp_frame(1, 2, 3));
    injecting.join();
}

TEST_F(host_ifc_test, registering_twice_and_ending_what_was_not_registered_change_nothing) {
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN, KR_TRAP_ID_PACKET_IN});
    EXPECT_EQ(channel.trap_set(KR_API_CMD_DEREGISTER, KR_TRAP_ID_PACKET_MISS), KR_STATUS_SUCCESS);
    inject(port_1, udp_frame(1, 2, 3));
    channel.take();
    EXPECT_FALSE(channel.readable()) << "once";
    EXPECT_EQ(channel.trap_set(KR_API_CMD_DEREGISTER, KR_TRAP_ID_PACKET_IN), KR_STATUS_SUCCESS);
    inject(port_1, udp_frame(1, 2, 3));
    EXPECT_FALSE(channel.readable());
    expect_only_drops(KR_SOFT_DROP_NO_TRAP_CHANNEL);
}

TEST_F(host_ifc_test, close_forgets_registrations_and_content) {
    kr_host_ifc_fd copy;
    int fd;
    {
        cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN});
        inject(port_1, udp_frame(1, 2, 3));
        copy = channel.descriptor;
        fd = copy.fd;
        EXPECT_EQ(channel.close(), KR_STATUS_SUCCESS);
        EXPECT_EQ(channel.descriptor.valid, 0U);
    }
    EXPECT_EQ(usage().descriptor_count, 0U);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "the number is free again";
    inject(port_1, udp_frame(1, 2, 3));
    expect_only_drops(KR_SOFT_DROP_NO_TRAP_CHANNEL);
    EXPECT_EQ(kr_api_host_ifc_close(device, &copy), KR_STATUS_INVALID_HANDLE);

    // The number comes back, new and empty.
    cpu_channel reopened(device, {});
    EXPECT_EQ(reopened.descriptor.fd, fd);
    EXPECT_FALSE(reopened.readable());
}

TEST_F(host_ifc_test, a_number_that_is_some_other_file_now_is_not_a_descriptor) {
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN});
    kr_host_ifc_fd stale = channel.descriptor;
    ASSERT_EQ(channel.close(), KR_STATUS_SUCCESS);
    const int other = open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_EQ(other, stale.fd);
    uint8_t room[64];
    uint32_t size = sizeof room;
    kr_receive_info info;
    EXPECT_EQ(kr_lib_host_ifc_recv(&stale, room, &size, &info), KR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(kr_api_host_ifc_close(device, &stale), KR_STATUS_INVALID_HANDLE);
    EXPECT_NE(fcntl(other, F_GETFD), -1) << "still open";
    close(other);
}

TEST_F(host_ifc_test, a_descriptor_whose_number_was_closed_behind_its_back_is_replaced_by_the_next) {
    kr_host_ifc_fd lost;
    ASSERT_EQ(kr_api_host_ifc_open(device, &lost), KR_STATUS_SUCCESS);
    kr_user_channel user = {.type = 0, .descriptor = lost};
    ASSERT_EQ(kr_api_host_ifc_trap_id_register_set(device, KR_API_CMD_REGISTER, 0, KR_TRAP_ID_PACKET_IN, &user),
              KR_STATUS_SUCCESS);
    close(lost.fd);
    cpu_channel channel(device, {});
    ASSERT_EQ(channel.descriptor.fd, lost.fd);
    EXPECT_EQ(usage().descriptor_count, 1U);
    inject(port_1, udp_frame(1, 2, 3));
    EXPECT_FALSE(channel.readable()) << "the registration went with the old one";
}

TEST_F(host_ifc_test, a_descriptor_outlives_its_device_handle_and_can_still_be_closed) {
    kr_api_handle second = 0;
    ASSERT_EQ(kr_api_open(nullptr, &second), KR_STATUS_SUCCESS);
    kr_host_ifc_fd descriptor;
    ASSERT_EQ(kr_api_host_ifc_open(second, &descriptor), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_api_host_ifc_close(0, &descriptor), KR_STATUS_INVALID_HANDLE) << "while the handle is open";
    ASSERT_EQ(kr_api_close(&second), KR_STATUS_SUCCESS);
    EXPECT_EQ(usage().descriptor_count, 1U);
    EXPECT_EQ(kr_api_host_ifc_close(second, &descriptor), KR_STATUS_SUCCESS);
    EXPECT_EQ(usage().descriptor_count, 0U);
}

TEST_F(host_ifc_test, refusals) {
    kr_host_ifc_fd descriptor;
    cpu_channel channel(device, {});
    kr_host_ifc_fd closed = {.fd = channel.descriptor.fd, .valid = 0};
    kr_host_ifc_fd absurd = {.fd = 1 << 30, .valid = 1};
    kr_host_ifc_fd negative = {.fd = -1, .valid = 1};
    uint8_t room[64]{};
    uint32_t size = sizeof room;
    kr_receive_info info;
    EXPECT_EQ(kr_api_host_ifc_open(0, &descriptor), KR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(kr_api_host_ifc_open(device, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_api_host_ifc_close(device, nullptr), KR_STATUS_PARAM_NULL);
    for (kr_host_ifc_fd *wrong : {&closed, &absurd, &negative}) {
        kr_user_channel user = {.type = 0, .descriptor = *wrong};
        EXPECT_EQ(kr_api_host_ifc_close(device, wrong), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_lib_host_ifc_recv(wrong, room, &size, &info), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_lib_host_ifc_unicast_ctrl_send(wrong, room, 60, 0, port_1, 0), KR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(kr_api_host_ifc_trap_id_register_set(device, KR_API_CMD_REGISTER, 0, 464, &user),
                  KR_STATUS_INVALID_HANDLE);
    }
    EXPECT_EQ(kr_lib_host_ifc_recv(nullptr, room, &size, &info), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_lib_host_ifc_recv(&channel.descriptor, nullptr, &size, &info), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_lib_host_ifc_recv(&channel.descriptor, room, nullptr, &info), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_lib_host_ifc_recv(&channel.descriptor, room, &size, nullptr), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_lib_host_ifc_unicast_ctrl_send(nullptr, room, 60, 0, port_1, 0), KR_STATUS_PARAM_NULL);
    EXPECT_EQ(kr_lib_host_ifc_unicast_ctrl_send(&channel.descriptor, nullptr, 60, 0, port_1, 0), KR_STATUS_PARAM_NULL);
    for (const uint32_t wrong_size : {0U, 13U, KR_SOFT_MAX_FRAME + 1U}) {
        EXPECT_EQ(kr_lib_host_ifc_unicast_ctrl_send(&channel.descriptor, room, wrong_size, 0, port_1, 0),
                  KR_STATUS_PARAM_EXCEEDS_RANGE);
    }
    EXPECT_EQ(kr_lib_host_ifc_unicast_ctrl_send(&channel.descriptor, room, 60, 1, port_1, 0),
              KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(channel.trap_set(18, KR_TRAP_ID_PACKET_IN), KR_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(channel.trap_set(KR_API_CMD_REGISTER, 1024), KR_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(kr_api_host_ifc_trap_id_register_set(device, KR_API_CMD_REGISTER, 0, 464, nullptr), KR_STATUS_PARAM_NULL);
    kr_user_channel other_type = {.type = 1, .descriptor = channel.descriptor};
    EXPECT_EQ(kr_api_host_ifc_trap_id_register_set(device, KR_API_CMD_REGISTER, 0, 464, &other_type),
              KR_STATUS_PARAM_ERROR);
    kr_user_channel good = {.type = 0, .descriptor = channel.descriptor};
    EXPECT_EQ(kr_api_host_ifc_trap_id_register_set(device + 9, KR_API_CMD_REGISTER, 0, 464, &good),
              KR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(kr_api_host_ifc_trap_id_register_set(device, KR_API_CMD_REGISTER, 1, 464, &good),
              KR_STATUS_PARAM_EXCEEDS_RANGE);
}

TEST_F(host_ifc_test, no_file_descriptor_left_is_no_resources_and_leaks_nothing) {
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int lowest_free = dup(0);
    ASSERT_GE(lowest_free, 0);
    close(lowest_free);
    const rlimit tight = {.rlim_cur = static_cast<rlim_t>(lowest_free) + 2, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    for (int round = 0; round < 3; round++) {
        std::vector<kr_host_ifc_fd> opened;
        kr_host_ifc_fd descriptor;
        kr_status status;
        while ((status = kr_api_host_ifc_open(device, &descriptor)) == KR_STATUS_SUCCESS) {
            opened.push_back(descriptor);
        }
        EXPECT_EQ(status, static_cast<kr_status>(KR_STATUS_NO_RESOURCES));
        EXPECT_GE(opened.size(), 1U);
        for (kr_host_ifc_fd &each : opened) {
            EXPECT_EQ(kr_api_host_ifc_close(device, &each), KR_STATUS_SUCCESS);
        }
        const int again = dup(0);
        EXPECT_EQ(again, lowest_free);
        close(again);
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

/* ---- threads --------------------------------------------------------------------------------------------------- */

TEST_F(host_ifc_test, a_receiver_that_waits_is_released_by_close) {
    for (int round = 0; round < 200; round++) {
        kr_host_ifc_fd descriptor;
        ASSERT_EQ(kr_api_host_ifc_open(device, &descriptor), KR_STATUS_SUCCESS);
        kr_host_ifc_fd copy = descriptor;
        std::thread receiver([&] {
            uint8_t room[64];
            uint32_t size = sizeof room;
            kr_receive_info info;
            EXPECT_EQ(kr_lib_host_ifc_recv(&copy, room, &size, &info), KR_STATUS_INVALID_HANDLE);
        });
        ASSERT_EQ(kr_api_host_ifc_close(device, &descriptor), KR_STATUS_SUCCESS);
        receiver.join();
    }
}

TEST_F(host_ifc_test, channels_open_and_close_under_traffic_and_what_stays_open_misses_nothing) {
    cpu_channel steady(device, {KR_TRAP_ID_PACKET_IN});
    std::atomic<bool> done{false};
    std::thread churn([&] {
        while (!done) {
            cpu_channel passing(device, {KR_TRAP_ID_PACKET_IN, KR_TRAP_ID_PORT_UP_DOWN});
            while (passing.readable()) {
                passing.take();
            }
        }
    });
    constexpr uint32_t per_round = KR_SOFT_CHANNEL_QUEUE; // as many as fit
    for (uint32_t round = 0; round < 10; round++) {
        for (uint32_t i = 0; i < per_round; i++) {
            inject(port_1, udp_frame(static_cast<uint16_t>(i), static_cast<uint16_t>(round), 3));
        }
        for (uint32_t i = 0; i < per_round; i++) {
            ASSERT_EQ(steady.take().data, udp_frame(static_cast<uint16_t>(i), static_cast<uint16_t>(round), 3));
        }
        EXPECT_FALSE(steady.readable());
    }
    done = true;
    churn.join();
}

TEST_F(host_ifc_test, several_receivers_of_one_descriptor_share_its_frames) {
    cpu_channel channel(device, {KR_TRAP_ID_PACKET_IN});
    constexpr uint32_t in_all = 400; // fewer than a queue holds
    std::atomic<uint32_t> taken{0};
    std::vector<std::thread> receivers;
    for (int i = 0; i < 3; i++) {
        receivers.emplace_back([&, copy = channel.descriptor]() mutable {
            uint8_t room[64];
            uint32_t size = sizeof room;
            kr_receive_info info;
            while (kr_lib_host_ifc_recv(&copy, room, &size, &info) == KR_STATUS_SUCCESS) {
                size = sizeof room;
                taken++;
            }
        });
    }
    for (uint32_t i = 0; i < in_all; i++) {
        inject(port_1, udp_frame(1, 2, 3));
    }
    while (taken < in_all) {
        std::this_thread::yield();
    }
    EXPECT_EQ(channel.close(), KR_STATUS_SUCCESS);
    for (std::thread &receiver : receivers) {
        receiver.join();
    }
    EXPECT_EQ(taken, in_all);
}

/* ---- faults and journal ---------------------------------------------------------------------------------------- */

TEST_F(host_ifc_test, faults_and_the_journal_know_every_function) {
    kr_soft_journal_start();
    kr_api_handle handle = 0;
    kr_host_ifc_fd descriptor{};
    kr_receive_info info{};
    uint8_t room[64]{};
    uint32_t size = sizeof room;
    uint32_t states[3];
    EXPECT_EQ(kr_api_open(nullptr, &handle), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_api_port_state_get(handle, port_1, &states[0], &states[1], &states[2]), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_api_host_ifc_open(handle, &descriptor), KR_STATUS_SUCCESS);
    kr_user_channel user = {.type = 0, .descriptor = descriptor};
    EXPECT_EQ(kr_api_host_ifc_trap_id_register_set(handle, 19, 0, 464, &user), KR_STATUS_SUCCESS);
    inject(port_1, udp_frame(1, 2, 3));
    EXPECT_EQ(kr_soft_fault_set("kr_lib_host_ifc_recv", 0, KR_STATUS_ERROR, 0), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_lib_host_ifc_recv(&descriptor, room, &size, &info), KR_STATUS_ERROR);
    EXPECT_EQ(kr_lib_host_ifc_recv(&descriptor, room, &size, &info), KR_STATUS_SUCCESS) << "nothing was taken";
    EXPECT_EQ(kr_lib_host_ifc_unicast_ctrl_send(&descriptor, room, 60, 0, port_2, 3), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_api_host_ifc_close(handle, &descriptor), KR_STATUS_SUCCESS);
    EXPECT_EQ(kr_api_close(&handle), KR_STATUS_SUCCESS);
    char *text = kr_soft_journal_text();
    EXPECT_STREQ(text, "kr_api_open(handle) = 0\n"
                       "kr_api_port_state_get(handle, 0x10100) = 0\n"
                       "kr_api_host_ifc_open(handle) = 0\n"
                       "kr_api_host_ifc_trap_id_register_set(handle, 19, 0, 464) = 0\n"
                       "kr_lib_host_ifc_recv(descriptor) = 1\n"
                       "kr_lib_host_ifc_recv(descriptor, 45 bytes, trap 464) = 0\n"
                       "kr_lib_host_ifc_unicast_ctrl_send(descriptor, 60 bytes, 0, 0x10200, 3) = 0\n"
                       "kr_api_host_ifc_close(handle) = 0\n"
                       "kr_api_close(handle) = 0\n");
    std::free(text);
}

} // namespace
