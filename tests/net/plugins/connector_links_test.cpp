/*
 * The connector and the kernel: interfaces that appear, vanish, come back and change while it runs, in a network
 * namespace of the test's own, against a fake library and a fake software switch.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <fstream>

#include "fake_library.h"
#include "fake_platform.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "net_namespace.h"

namespace {

using kr_test::run;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class connector_links_test : public testing::Test {
  protected:
    void SetUp() override {
        fake_platform::reset();
    }
    void TearDown() override {
        for (const char *name : {"sw1", "sw2", "sw3", "other", "br0"}) {
            (void)kr_test::succeeds(std::string("ip link del ") + name);
        }
    }
    static void add_veth(const std::string &name) {
        run("ip link add " + name + " type veth peer name " + name + "p");
    }
    void bring_up_and_run() {
        ASSERT_EQ(library.bring_up(), 0U);
        ASSERT_EQ(connector().init_done_shim(), 0U);
        ASSERT_TRUE(library.wait_for_events(1));
    }
    // Answered after everything that the kernel reported before it.
    std::string status() const {
        return control_client(files.control_path()).command("status");
    }

    connector_files files{"[ports]\nsw1 = 1\nsw2 = 2\n"};
    fake_library library;
};

TEST_F(connector_links_test, a_configured_interface_that_appears_is_added) {
    bring_up_and_run();
    EXPECT_EQ(status(), "ok started ports - waiting sw1,sw2");
    add_veth("other");
    add_veth("sw2");
    ASSERT_TRUE(library.wait_for_events(2));
    add_veth("sw1");
    ASSERT_TRUE(library.wait_for_events(3));
    EXPECT_THAT(library.events(), ElementsAre("start", "add sw2", "add sw1"));
    EXPECT_EQ(status(), "ok started ports sw1=32769,sw2=32770 waiting -");
    const conn_port_record record = library.last_port("sw1");
    EXPECT_EQ(record.ifindex, if_nametoindex("sw1"));
    char mac[18];
    snprintf(mac, sizeof(mac), "%02x:%02x:%02x:%02x:%02x:%02x", record.mac_address[0], record.mac_address[1],
             record.mac_address[2], record.mac_address[3], record.mac_address[4], record.mac_address[5]);
    EXPECT_THAT(run("ip -j link show dev sw1"), testing::HasSubstr(std::string("\"address\":\"") + mac + "\""));
}

TEST_F(connector_links_test, one_that_appeared_before_it_was_configured_is_added) {
    bring_up_and_run();
    add_veth("other");
    EXPECT_EQ(status(), "ok started ports - waiting sw1,sw2") << "what the kernel said of it is behind us";
    EXPECT_EQ(control_client(files.control_path()).command("add other 3"), "ok OF port 32771");
    add_veth("sw3");
    EXPECT_EQ(status(), "ok started ports other=32771 waiting sw1,sw2");
    files.replace_config("[ports]\nother = 3\nsw3 = 4\n");
    ASSERT_TRUE(library.wait_for_events(3));
    EXPECT_EQ(status(), "ok started ports other=32771,sw3=32772 waiting -");
}

TEST_F(connector_links_test, one_that_vanishes_is_removed_when_the_client_acknowledges) {
    add_veth("sw1");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    run("ip link del sw1");
    ASSERT_TRUE(library.wait_for_events(3));
    EXPECT_THAT(fake_platform::ports(), SizeIs(1)) << "its state is read during the removal";
    library.acknowledge();
    EXPECT_EQ(status(), "ok started ports - waiting sw1,sw2");
    EXPECT_THAT(library.events(), ElementsAre("start", "add sw1", "remove sw1"));
    EXPECT_THAT(fake_platform::ports(), IsEmpty());
}

TEST_F(connector_links_test, what_happens_during_a_removal_is_done_after_it) {
    add_veth("sw1");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    const uint32_t old_ifindex = library.last_port("sw1").ifindex;
    run("ip link del sw1");
    ASSERT_TRUE(library.wait_for_events(3));
    add_veth("sw1"); // back again, and another one
    add_veth("sw2");
    run("ip link del sw2");
    add_veth("sw2");
    files.replace_config("[ports]\nsw1 = 1\nsw2 = 2\n[control]\nlldp = on\n");
    library.acknowledge();
    EXPECT_EQ(status(), "ok started ports sw1=32769,sw2=32770 waiting -");
    EXPECT_THAT(library.events(), ElementsAre("start", "add sw1", "remove sw1", "forward on 19", "add sw1", "add sw2"));
    EXPECT_NE(library.last_port("sw1").ifindex, old_ifindex);
    EXPECT_EQ(library.last_port("sw2").ifindex, if_nametoindex("sw2"));
}

TEST_F(connector_links_test, one_that_is_created_again_with_its_old_index_is_removed_and_added) {
    add_veth("sw1");
    add_veth("sw2");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(3));
    const uint32_t ifindex = library.last_port("sw1").ifindex;
    run("ip link del sw2");
    ASSERT_TRUE(library.wait_for_events(4)); // and now the connector does not look
    run("ip link del sw1");
    run("ip link add sw1 index " + std::to_string(ifindex) + " type veth peer name sw1p");
    library.acknowledge_all();
    EXPECT_EQ(status(), "ok started ports sw1=32769 waiting sw2");
    EXPECT_THAT(library.events(), ElementsAre("start", "add sw1", "add sw2", "remove sw2", "remove sw1", "add sw1"));
    EXPECT_EQ(library.last_port("sw1").ifindex, ifindex);
}

TEST_F(connector_links_test, one_that_is_renamed_is_removed_and_added_under_its_old_name) {
    add_veth("sw1");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    library.acknowledge_all();
    run("ip link set sw1 name other");
    ASSERT_TRUE(library.wait_for_events(3));
    run("ip link set other name sw1");
    ASSERT_TRUE(library.wait_for_events(4));
    EXPECT_THAT(library.events(), ElementsAre("start", "add sw1", "remove sw1", "add sw1"));
}

TEST_F(connector_links_test, one_that_leaves_a_bridge_is_still_there) {
    if (!kr_test::succeeds("ip link add br0 type bridge")) {
        GTEST_SKIP() << "the kernel has no bridges";
    }
    add_veth("sw1");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    run("ip link set sw1 master br0");
    run("ip link set sw1 nomaster");
    run("ip link set sw1 up");
    EXPECT_EQ(status(), "ok started ports sw1=32769 waiting sw2");
    EXPECT_THAT(library.events(), ElementsAre("start", "add sw1"));
}

TEST_F(connector_links_test, a_port_that_failed_is_tried_again_when_its_interface_changes_and_not_without_need) {
    library.answer("add sw1", KR_SDN_HAL_STATUS_NO_RESOURCES);
    add_veth("sw1");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    run("ip link set sw1 promisc on"); // as opening it does
    run("ip link set sw1 promisc off");
    EXPECT_EQ(status(), "ok started ports - waiting sw1!,sw2");
    EXPECT_THAT(library.events(), ElementsAre("start", "add sw1"));
    run("ip link set sw1 up");
    ASSERT_TRUE(library.wait_for_events(3));
    library.answer("add sw1", KR_SDN_HAL_STATUS_SUCCESS);
    run("ip link del sw1");
    add_veth("sw1");
    EXPECT_EQ(status(), "ok started ports sw1=32769 waiting sw2");
    EXPECT_THAT(library.events(), ElementsAre("start", "add sw1", "add sw1", "add sw1"));
}

TEST_F(connector_links_test, an_interface_index_that_is_no_of_port_needs_a_number) {
    files.write_config("[ports]\nsw1 = none\nsw2 = 2\n");
    run("ip link add sw1 index 40000 type veth peer name sw1p");
    run("ip link add sw2 index 40001 type veth peer name sw2p");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(status(), "ok started ports sw2=32770 waiting sw1!");
    EXPECT_TRUE(library.has_logged("port sw1 can't be added: interface index 40000 is no OF port; give it a number"));
}

TEST_F(connector_links_test, changes_that_the_kernel_could_not_queue_are_found_all_the_same) {
    add_veth("sw1");
    add_veth("sw2");
    add_veth("other");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(3));
    run("ip link del sw1");
    ASSERT_TRUE(library.wait_for_events(4)); // and now the connector does not read
    std::ofstream batch(files.directory + "/batch");
    for (int i = 0; i < 5000; ++i) {
        batch << "link set other " << (i % 2 == 0 ? "promisc on" : "promisc off") << '\n';
    }
    batch << "link del sw2\n" << std::flush;
    run("ip -batch " + files.directory + "/batch");
    library.acknowledge_all();
    ASSERT_TRUE(library.wait_for_events(5));
    EXPECT_EQ(status(), "ok started ports - waiting sw1,sw2");
    EXPECT_THAT(library.events(), ElementsAre("start", "add sw1", "add sw2", "remove sw1", "remove sw2"));
}

} // namespace

int main(int argc, char **argv) {
    if (!kr_test::enter_network_namespace({"ip"})) {
        return kr_test::exit_skipped;
    }
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
