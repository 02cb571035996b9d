/*
 * The port plug-in on real interfaces (veth, TAP, loopback, bridge) in a network namespace of the test's own, checked
 * against what ip and ethtool say about the same interface. Only spanning tree is a fake software switch's.
 */
#include "fpt_linux.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/if_ether.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>

#include "fake_platform.h"
#include "kr_soft.h"
#include "net_namespace.h"
#include "port_map.h"
#include "tests/support/fpt_symbols.h"
#include "unique_fd.h"

namespace {

using kr_plugin::unique_fd;
using kr_test::run;
using testing::HasSubstr;

// The sixteen symbols, from the module.
struct fpt_symbols {
#define KR_FPT_MEMBER(name) decltype(&::name) name;
    FPT_SYMBOLS(KR_FPT_MEMBER)
#undef KR_FPT_MEMBER
};

const fpt_symbols &fpt() {
    static const fpt_symbols symbols = [] {
        void *handle = dlopen(KR_TEST_FPT_PATH, RTLD_NOW | RTLD_LOCAL);
        fpt_symbols s{};
#define KR_FPT_RESOLVE(name) s.name = reinterpret_cast<decltype(s.name)>(dlsym(handle, #name));
        FPT_SYMBOLS(KR_FPT_RESOLVE)
#undef KR_FPT_RESOLVE
        return s;
    }();
    return symbols;
}

// A number of "ip -s -s -j link": the value of `key` behind `"section":{`, or of the whole if there is no section.
uint64_t json_number(const std::string &json, const std::string &section, const std::string &key) {
    const size_t from = section.empty() ? 0 : json.find("\"" + section + "\":{");
    const size_t at = from == std::string::npos ? from : json.find("\"" + key + "\":", from);
    EXPECT_NE(at, std::string::npos) << section << " " << key << " in " << json;
    return at == std::string::npos ? 0 : std::stoull(json.substr(at + key.size() + 3));
}

std::string ip_link(const std::string &name) {
    return run("ip -s -s -j link show dev " + name);
}

// The kernel settles operational state and queues a while after a link has come up, and drops frames before. Waits
// until ip says so; the state is ip's word for it.
void wait_for_operstate(const std::string &name, const std::string &state) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const std::string wanted = "\"operstate\":\"" + state + "\"";
    std::string json;
    do {
        json = ip_link(name);
        if (json.find(wanted) != std::string::npos &&
            (state == "DOWN" || json.find("\"qdisc\":\"noop\"") == std::string::npos)) {
            return;
        }
    } while (std::chrono::steady_clock::now() < deadline);
    FAIL() << name << " is not " << state << ": " << json;
}

port_counters counters_of_ip(const std::string &name) {
    const std::string json = ip_link(name);
    port_counters c{};
    c.rx_packets = json_number(json, "rx", "packets");
    c.tx_packets = json_number(json, "tx", "packets");
    c.rx_bytes = json_number(json, "rx", "bytes");
    c.tx_bytes = json_number(json, "tx", "bytes");
    c.rx_dropped = json_number(json, "rx", "dropped");
    c.tx_dropped = json_number(json, "tx", "dropped");
    c.rx_errors = json_number(json, "rx", "errors");
    c.tx_errors = json_number(json, "tx", "errors");
    c.rx_frame_errors = json_number(json, "rx", "frame_errors");
    c.rx_overrun_errors = json_number(json, "rx", "over_errors");
    c.rx_crc_errors = json_number(json, "rx", "crc_errors");
    c.collisions = json_number(json, "tx", "collisions");
    return c;
}

std::array<uint64_t, 12> values(const port_counters &c) {
    return {c.rx_packets, c.tx_packets, c.rx_bytes,        c.tx_bytes,          c.rx_dropped,    c.tx_dropped,
            c.rx_errors,  c.tx_errors,  c.rx_frame_errors, c.rx_overrun_errors, c.rx_crc_errors, c.collisions};
}

// Sends frames of an EtherType that nobody takes out of an interface.
void send_frames(const std::string &name, int count, size_t size) {
    const unique_fd packet(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
    address.sll_halen = 6;
    std::string frame(size, '\0');
    frame.replace(0, 6, "\xff\xff\xff\xff\xff\xff");
    frame[12] = static_cast<char>(0x88);
    frame[13] = static_cast<char>(0xb5);
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(sendto(packet.get(), frame.data(), size, 0, reinterpret_cast<sockaddr *>(&address), sizeof(address)),
                  static_cast<ssize_t>(size));
    }
}

constexpr uint32_t veth_port = 32769, peer_port = 32770, tap_port = 32771, lo_port = 32772, unknown_port = 99;

class fpt_linux_test : public testing::Test {
  protected:
    void SetUp() override {
        fake_platform::reset();
        run("ip link add sw1 address 02:00:00:00:00:11 type veth peer name sw1p");
        run("ip link set sw1 addrgenmode none");
        run("ip link set sw1p addrgenmode none");
        map(veth_port, "sw1");
        map(peer_port, "sw1p");
        map(lo_port, "lo");
        ASSERT_EQ(fpt().activate(), 0U);
    }
    void TearDown() override {
        EXPECT_EQ(fpt().deinit(), 0U);
        (void)kr_test::succeeds("ip link del sw1");
        (void)kr_test::succeeds("ip link del br0");
        kr_plugin::port_map_clear();
    }
    static void map(uint32_t of_port, const char *name) {
        ASSERT_TRUE(kr_plugin::port_map_put({of_port, if_nametoindex(name), kr_plugin::log_port_of(of_port)}));
    }
    static void set_up() {
        run("ip link set sw1 up");
        run("ip link set sw1p up");
        wait_for_operstate("sw1", "UP");
        wait_for_operstate("sw1p", "UP");
    }
    // Opens a TAP interface and maps it; an empty descriptor where that is not allowed.
    static unique_fd open_tap() {
        unique_fd tap(open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK));
        ifreq request{};
        std::strncpy(request.ifr_name, "tap0", IFNAMSIZ - 1);
        request.ifr_flags = IFF_TAP | IFF_NO_PI;
        if (tap && ioctl(tap.get(), TUNSETIFF, &request) == 0) {
            run("ip link set tap0 addrgenmode none");
            map(tap_port, "tap0");
            return tap;
        }
        return {};
    }
};

#define OPEN_TAP_OR_SKIP(tap)                                                                                          \
    const unique_fd tap = open_tap();                                                                                  \
    if (!tap) {                                                                                                        \
        GTEST_SKIP() << "no TAP interface can be made here: " << std::strerror(errno);                                 \
    }

// ---- state

TEST_F(fpt_linux_test, admin_state_is_set_and_read) {
    int32_t state = -1;
    EXPECT_EQ(fpt().port_state_get(veth_port, &state), 0U);
    EXPECT_EQ(state, PORT_ADMIN_DOWN);
    EXPECT_EQ(fpt().port_state_set(veth_port, PORT_ADMIN_UP), 0U);
    EXPECT_THAT(ip_link("sw1"), HasSubstr("\"UP\""));
    EXPECT_EQ(fpt().port_state_get(veth_port, &state), 0U);
    EXPECT_EQ(state, PORT_ADMIN_UP);
    EXPECT_EQ(fpt().port_state_set(veth_port, PORT_ADMIN_DOWN), 0U);
    EXPECT_THAT(ip_link("sw1"), Not(HasSubstr("\"UP\"")));
    EXPECT_EQ(fpt().port_state_set(veth_port, PORT_ADMIN_NA), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_EQ(fpt().port_state_set(veth_port, 3), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
}

TEST_F(fpt_linux_test, oper_state_of_a_veth_needs_both_ends) {
    constexpr struct {
        const char *command;
        const char *ip_says;
        port_oper_state state;
    } rows[] = {{"ip link set sw1 down", "DOWN", PORT_OPER_DOWN},
                {"ip link set sw1 up", "LOWERLAYERDOWN", PORT_OPER_DOWN},
                {"ip link set sw1p up", "UP", PORT_OPER_UP},
                {"ip link set sw1p down", "LOWERLAYERDOWN", PORT_OPER_DOWN}};
    for (const auto &row : rows) {
        run(row.command);
        ASSERT_NO_FATAL_FAILURE(wait_for_operstate("sw1", row.ip_says));
        int32_t state = -1;
        EXPECT_EQ(fpt().port_oper_state_get(veth_port, &state), 0U);
        EXPECT_EQ(state, row.state) << row.command;
    }
}

TEST_F(fpt_linux_test, oper_state_where_the_driver_keeps_none) {
    OPEN_TAP_OR_SKIP(tap);
    int32_t state = -1;
    EXPECT_EQ(fpt().port_oper_state_get(tap_port, &state), 0U);
    EXPECT_EQ(state, PORT_OPER_DOWN);
    EXPECT_EQ(fpt().port_state_set(tap_port, PORT_ADMIN_UP), 0U);
    wait_for_operstate("tap0", "UNKNOWN");
    EXPECT_EQ(fpt().port_oper_state_get(tap_port, &state), 0U);
    EXPECT_EQ(state, PORT_OPER_UP);
    run("ip link set lo down");
    EXPECT_EQ(fpt().port_oper_state_get(lo_port, &state), 0U);
    EXPECT_EQ(state, PORT_OPER_DOWN);
}

// ---- MTU and address

TEST_F(fpt_linux_test, mtu_is_set_and_read) {
    uint16_t mtu = 0;
    EXPECT_EQ(fpt().port_mtu_get(veth_port, &mtu), 0U);
    EXPECT_EQ(mtu, 1500);
    for (const uint16_t wanted : {PORT_MTU_MIN, PORT_MTU_MAX}) {
        EXPECT_EQ(fpt().port_mtu_set(veth_port, wanted), 0U);
        EXPECT_EQ(json_number(ip_link("sw1"), "", "mtu"), wanted);
        EXPECT_EQ(fpt().port_mtu_get(veth_port, &mtu), 0U);
        EXPECT_EQ(mtu, wanted);
    }
}

TEST_F(fpt_linux_test, an_mtu_that_the_kernel_refuses_is_out_of_range) {
    EXPECT_EQ(fpt().port_mtu_set(veth_port, 67), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(json_number(ip_link("sw1"), "", "mtu"), 1500U);
}

TEST_F(fpt_linux_test, an_mtu_of_more_than_16_bits_is_not_cut) {
    uint16_t mtu = 1;
    ASSERT_EQ(json_number(ip_link("lo"), "", "mtu"), 65536U);
    EXPECT_EQ(fpt().port_mtu_get(lo_port, &mtu), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(mtu, 1);
}

TEST_F(fpt_linux_test, the_mac_address_is_the_link_address) {
    port_mac_address mac{};
    EXPECT_EQ(fpt().port_phys_addr_get(veth_port, &mac), 0U);
    EXPECT_THAT(mac.bytes, testing::ElementsAre(2, 0, 0, 0, 0, 0x11));
}

TEST_F(fpt_linux_test, an_interface_without_a_mac_address_says_so) {
    const unique_fd tun(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    ifreq request{};
    std::strncpy(request.ifr_name, "tun0", IFNAMSIZ - 1);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (!tun || ioctl(tun.get(), TUNSETIFF, &request) != 0) {
        GTEST_SKIP() << "no TUN interface can be made here: " << std::strerror(errno);
    }
    map(tap_port, "tun0");
    port_mac_address mac{};
    EXPECT_EQ(fpt().port_phys_addr_get(tap_port, &mac), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
}

// ---- counters

TEST_F(fpt_linux_test, counters_agree_with_ip_on_veth) {
    set_up();
    send_frames("sw1", 10, 100);
    send_frames("sw1p", 7, 200);
    port_counters counters{};
    ASSERT_EQ(fpt().port_cntr_get(veth_port, &counters), 0U);
    EXPECT_EQ(values(counters), values(counters_of_ip("sw1")));
    EXPECT_EQ(counters.tx_packets, 10U);
    EXPECT_EQ(counters.tx_bytes, 1000U);
    EXPECT_EQ(counters.rx_packets, 7U);
    EXPECT_EQ(counters.rx_bytes, 1400U);
}

TEST_F(fpt_linux_test, counters_agree_with_ip_on_tap) {
    OPEN_TAP_OR_SKIP(tap);
    run("ip link set tap0 up");
    wait_for_operstate("tap0", "UNKNOWN");
    send_frames("tap0", 5, 100);
    const std::string frame(300, '\0');
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(write(tap.get(), frame.data(), frame.size()), 300);
    }
    port_counters counters{};
    ASSERT_EQ(fpt().port_cntr_get(tap_port, &counters), 0U);
    EXPECT_EQ(values(counters), values(counters_of_ip("tap0")));
    EXPECT_EQ(counters.rx_packets, 3U);
}

TEST_F(fpt_linux_test, cleared_counters_count_from_zero_and_only_for_the_port) {
    set_up();
    send_frames("sw1", 10, 100);
    EXPECT_EQ(fpt().port_cntr_clear(veth_port, 0), 0U);
    port_counters counters{};
    ASSERT_EQ(fpt().port_cntr_get(veth_port, &counters), 0U);
    EXPECT_EQ(values(counters), values(port_counters{}));
    send_frames("sw1", 3, 100);
    ASSERT_EQ(fpt().port_cntr_get(veth_port, &counters), 0U);
    EXPECT_EQ(counters.tx_packets, 3U);
    EXPECT_EQ(counters.tx_bytes, 300U);
    EXPECT_EQ(counters_of_ip("sw1").tx_packets, 13U);
    ASSERT_EQ(fpt().port_cntr_get(peer_port, &counters), 0U);
    EXPECT_EQ(counters.rx_packets, 13U);
}

TEST_F(fpt_linux_test, all_counters_are_cleared_at_once_whatever_the_port) {
    set_up();
    send_frames("sw1", 10, 100);
    EXPECT_EQ(fpt().port_cntr_clear(unknown_port, 1), 0U);
    for (const uint32_t port : {veth_port, peer_port}) {
        port_counters counters{};
        ASSERT_EQ(fpt().port_cntr_get(port, &counters), 0U);
        EXPECT_EQ(values(counters), values(port_counters{}));
    }
    EXPECT_EQ(fpt().port_cntr_clear(veth_port, 2), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
}

TEST_F(fpt_linux_test, what_can_be_cleared_is_although_a_port_is_gone) {
    set_up();
    send_frames("sw1", 10, 100);
    ASSERT_TRUE(kr_plugin::port_map_put({5, 30000, kr_plugin::log_port_of(5)}));
    EXPECT_EQ(fpt().port_cntr_clear(0, 1), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    port_counters counters{};
    ASSERT_EQ(fpt().port_cntr_get(veth_port, &counters), 0U);
    EXPECT_EQ(counters.tx_packets, 0U);
}

TEST_F(fpt_linux_test, another_interface_behind_the_port_has_counters_of_its_own) {
    set_up();
    send_frames("sw1", 10, 100);
    EXPECT_EQ(fpt().port_cntr_clear(veth_port, 0), 0U);
    run("ip link del sw1");
    run("ip link add sw1 type veth peer name sw1p");
    run("ip link set sw1 addrgenmode none");
    run("ip link set sw1p addrgenmode none");
    map(veth_port, "sw1");
    set_up();
    send_frames("sw1", 12, 100);
    port_counters counters{};
    ASSERT_EQ(fpt().port_cntr_get(veth_port, &counters), 0U);
    EXPECT_EQ(counters.tx_packets, 12U);
}

// ---- speed

uint32_t ethtool_speed(const std::string &name) {
    const std::string text = run("ethtool " + name);
    const size_t at = text.find("Speed: ");
    EXPECT_NE(at, std::string::npos) << text;
    return at == std::string::npos ? 0 : static_cast<uint32_t>(std::stoul(text.substr(at + 7)));
}

std::array<int32_t, 4> values(const port_speed_admin &s) {
    return {s.speed_1g, s.speed_10g, s.speed_40g, s.speed_100g};
}

TEST_F(fpt_linux_test, speed_of_a_veth_is_what_ethtool_says_and_fixed) {
    uint32_t speed = 0;
    EXPECT_EQ(fpt().port_speed_oper_get(veth_port, &speed), 0U);
    EXPECT_EQ(speed, ethtool_speed("sw1"));
    port_speed_admin admin{9, 9, 9, 9};
    EXPECT_EQ(fpt().port_speed_admin_get(veth_port, &admin), 0U);
    EXPECT_EQ(values(admin), (std::array<int32_t, 4>{0, speed == 10000, 0, 0}));
    EXPECT_EQ(fpt().port_speed_admin_set(veth_port, {1, 0, 0, 0}), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_speed_admin_set(veth_port, {0, 0, 0, 0}), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_EQ(fpt().port_speed_admin_set(veth_port, {1, 1, 0, 0}), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
}

TEST_F(fpt_linux_test, a_capability_that_the_driver_does_not_report_is_not_invented) {
    uint32_t capability = 77;
    ASSERT_THAT(run("ethtool sw1"), HasSubstr("Supported link modes:   Not reported"));
    EXPECT_EQ(fpt().port_speed_cabability_get(veth_port, &capability), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(capability, 77U);
}

TEST_F(fpt_linux_test, speed_of_a_tap_can_be_set) {
    OPEN_TAP_OR_SKIP(tap);
    constexpr struct {
        port_speed_admin admin;
        uint32_t speed;
    } rows[] = {{{1, 0, 0, 0}, 1000}, {{0, 1, 0, 0}, 10000}, {{0, 0, 1, 0}, 40000}, {{0, 0, 0, 1}, 100000}};
    for (const auto &row : rows) {
        ASSERT_EQ(fpt().port_speed_admin_set(tap_port, row.admin), 0U);
        EXPECT_EQ(ethtool_speed("tap0"), row.speed);
        uint32_t speed = 0;
        EXPECT_EQ(fpt().port_speed_oper_get(tap_port, &speed), 0U);
        EXPECT_EQ(speed, row.speed);
        port_speed_admin admin{};
        EXPECT_EQ(fpt().port_speed_admin_get(tap_port, &admin), 0U);
        EXPECT_EQ(values(admin), values(row.admin));
    }
    run("ethtool -s tap0 speed 100 duplex full autoneg off");
    port_speed_admin admin{9, 9, 9, 9};
    EXPECT_EQ(fpt().port_speed_admin_get(tap_port, &admin), 0U);
    EXPECT_EQ(values(admin), values(port_speed_admin{})) << "a speed without a flag";
}

TEST_F(fpt_linux_test, an_interface_without_link_settings_says_so) {
    uint32_t value = 77;
    port_speed_admin admin{};
    EXPECT_EQ(fpt().port_speed_oper_get(lo_port, &value), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_speed_admin_get(lo_port, &admin), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_speed_admin_set(lo_port, {1, 0, 0, 0}), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_speed_cabability_get(lo_port, &value), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(value, 77U);
}

TEST_F(fpt_linux_test, a_speed_that_the_driver_does_not_know_is_not_invented) {
    if (!kr_test::succeeds("ip link add br0 type bridge")) {
        GTEST_SKIP() << "the kernel has no bridges";
    }
    map(tap_port, "br0");
    ASSERT_THAT(run("ethtool br0"), HasSubstr("Speed: Unknown!"));
    uint32_t speed = 77;
    port_speed_admin admin{};
    EXPECT_EQ(fpt().port_speed_oper_get(tap_port, &speed), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_speed_admin_get(tap_port, &admin), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(speed, 77U);
}

// ---- spanning tree

TEST_F(fpt_linux_test, stp_state_is_the_software_switchs) {
    ASSERT_EQ(kr_soft_port_add_interface(kr_plugin::log_port_of(veth_port), "sw1"), KR_STATUS_SUCCESS);
    for (const port_stp_state wanted : {PORT_STP_DISCARDING, PORT_STP_LEARNING, PORT_STP_FORWARDING, PORT_STP_NA}) {
        EXPECT_EQ(fpt().rstp_port_state_set(veth_port, static_cast<uint32_t>(wanted)), 0U);
        uint32_t state_of_switch = 99;
        EXPECT_EQ(kr_soft_port_stp_get(kr_plugin::log_port_of(veth_port), &state_of_switch), KR_STATUS_SUCCESS);
        EXPECT_EQ(state_of_switch, static_cast<uint32_t>(wanted));
        int32_t state = -1;
        EXPECT_EQ(fpt().rstp_port_state_get(veth_port, &state), 0U);
        EXPECT_EQ(state, wanted);
    }
    EXPECT_EQ(fpt().rstp_port_state_set(veth_port, 4), KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE);
    EXPECT_EQ(fpt().rstp_port_state_set(peer_port, 1), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND) << "not in the switch";
    int32_t state = 5;
    EXPECT_EQ(fpt().rstp_port_state_get(peer_port, &state), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    EXPECT_EQ(state, 5);
}

// ---- failures

// Calls every operation on a port; all must give the same status.
void expect_all(uint32_t port, uint32_t status) {
    int32_t i32 = 0;
    uint32_t u32 = 0;
    uint16_t u16 = 0;
    port_counters counters{};
    port_mac_address mac{};
    port_speed_admin speeds{};
    EXPECT_EQ(fpt().rstp_port_state_set(port, 1), status);
    EXPECT_EQ(fpt().rstp_port_state_get(port, &i32), status);
    EXPECT_EQ(fpt().port_phys_addr_get(port, &mac), status);
    EXPECT_EQ(fpt().port_speed_admin_set(port, {1, 0, 0, 0}), status);
    EXPECT_EQ(fpt().port_speed_admin_get(port, &speeds), status);
    EXPECT_EQ(fpt().port_speed_cabability_get(port, &u32), status);
    EXPECT_EQ(fpt().port_speed_oper_get(port, &u32), status);
    EXPECT_EQ(fpt().port_state_set(port, PORT_ADMIN_UP), status);
    EXPECT_EQ(fpt().port_state_get(port, &i32), status);
    EXPECT_EQ(fpt().port_oper_state_get(port, &i32), status);
    EXPECT_EQ(fpt().port_mtu_set(port, 1400), status);
    EXPECT_EQ(fpt().port_mtu_get(port, &u16), status);
    EXPECT_EQ(fpt().port_cntr_get(port, &counters), status);
    EXPECT_EQ(fpt().port_cntr_clear(port, 0), status);
}

TEST_F(fpt_linux_test, an_unknown_port_is_not_found) {
    expect_all(unknown_port, KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    expect_all(if_nametoindex("sw1"), KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND); // the connector has not added it so
}

TEST_F(fpt_linux_test, a_port_whose_interface_is_gone_is_not_found) {
    run("ip link del sw1");
    expect_all(veth_port, KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
}

TEST_F(fpt_linux_test, a_port_on_capture_files_has_a_spanning_tree_state_and_nothing_else) {
    constexpr uint32_t capture_port = 32780;
    const uint32_t log_port = kr_plugin::log_port_of(capture_port);
    ASSERT_EQ(kr_soft_port_add_capture(log_port, nullptr, nullptr), KR_STATUS_SUCCESS);
    ASSERT_TRUE(kr_plugin::port_map_put({capture_port, 0, log_port}));
    port_counters counters{};
    uint16_t mtu = 7;
    EXPECT_EQ(fpt().port_state_set(capture_port, PORT_ADMIN_UP), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_mtu_set(capture_port, 1400), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_mtu_get(capture_port, &mtu), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(mtu, 7);
    EXPECT_EQ(fpt().port_speed_admin_set(capture_port, {1, 0, 0, 0}), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_cntr_get(capture_port, &counters), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_cntr_clear(capture_port, 0), KR_SDN_HAL_STATUS_CMD_UNSUPPORTED);
    EXPECT_EQ(fpt().port_cntr_clear(capture_port, 1), 0U) << "it has no counters that would stay as they are";
    EXPECT_EQ(fpt().rstp_port_state_set(capture_port, PORT_STP_LEARNING), 0U);
    int32_t state = 0;
    EXPECT_EQ(fpt().rstp_port_state_get(capture_port, &state), 0U);
    EXPECT_EQ(state, PORT_STP_LEARNING);
}

TEST_F(fpt_linux_test, null_outputs_are_refused) {
    EXPECT_EQ(fpt().rstp_port_state_get(veth_port, nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(fpt().port_phys_addr_get(veth_port, nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(fpt().port_speed_admin_get(veth_port, nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(fpt().port_speed_cabability_get(veth_port, nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(fpt().port_speed_oper_get(veth_port, nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(fpt().port_state_get(veth_port, nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(fpt().port_oper_state_get(veth_port, nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(fpt().port_mtu_get(veth_port, nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(fpt().port_cntr_get(veth_port, nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
}

TEST_F(fpt_linux_test, without_the_privilege_a_change_fails_and_reading_goes_on) {
    ASSERT_EQ(fpt().deinit(), 0U); // its socket, opened with the privilege, goes with it
    std::thread([] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        std::array<__user_cap_data_struct, 2> none{};
        ASSERT_EQ(syscall(SYS_capset, &header, none.data()), 0); // of this thread alone
        EXPECT_EQ(fpt().port_mtu_set(veth_port, 1400), KR_SDN_HAL_STATUS_ERROR);
        EXPECT_EQ(fpt().port_state_set(veth_port, PORT_ADMIN_UP), KR_SDN_HAL_STATUS_ERROR);
        uint16_t mtu = 0;
        EXPECT_EQ(fpt().port_mtu_get(veth_port, &mtu), 0U);
        EXPECT_EQ(mtu, 1500);
    }).join();
    EXPECT_EQ(fpt().port_mtu_set(veth_port, 1400), 0U) << "the refusal leaves nothing behind";
}

TEST_F(fpt_linux_test, many_threads_at_once) {
    set_up();
    std::atomic<bool> is_over{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            while (!is_over) {
                uint16_t mtu = 0;
                uint32_t speed = 0;
                int32_t state = 0;
                port_counters counters{};
                EXPECT_EQ(fpt().port_mtu_get(veth_port, &mtu), 0U);
                EXPECT_THAT(mtu, testing::AnyOf(1400, 1500));
                EXPECT_EQ(fpt().port_speed_oper_get(veth_port, &speed), 0U);
                EXPECT_EQ(fpt().port_oper_state_get(veth_port, &state), 0U);
                EXPECT_EQ(fpt().port_cntr_get(veth_port, &counters), 0U);
                EXPECT_EQ(fpt().port_cntr_clear(veth_port, static_cast<uint32_t>(i % 2)), 0U);
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(fpt().port_mtu_set(veth_port, i % 2 == 0 ? 1400 : 1500), 0U);
        map(unknown_port, "sw1p");
        kr_plugin::port_map_remove(unknown_port);
    }
    is_over = true;
    for (auto &thread : threads) {
        thread.join();
    }
}

} // namespace

int main(int argc, char **argv) {
    if (!kr_test::enter_network_namespace({"ip", "ethtool"})) {
        return kr_test::exit_skipped;
    }
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
