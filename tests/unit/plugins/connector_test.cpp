/*
 * The connector against a fake library and a fake software switch: the order of its events, what it follows at run
 * time, its control socket and its life. The loopback interface stands in for a port: it is there without privileges.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "fake_library.h"
#include "fake_platform.h"
#include "kr_sdn_hal.h"
#include "kr_soft.h"
#include "port_map.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const std::string lo_is_a_port = "[ports]\nlo = 7\n";
constexpr uint32_t lo_of_port = 7 + 32768;
constexpr uint32_t lo_log_port = 0x10000 + lo_of_port;

class connector_test : public testing::Test {
  protected:
    void SetUp() override {
        fake_platform::reset();
    }

    void bring_up_and_run() {
        ASSERT_EQ(library.bring_up(), 0U);
        ASSERT_EQ(connector().init_done_shim(), 0U);
    }
    std::string command(const std::string &line) const {
        return control_client(files.control_path()).command(line);
    }
    bool wait_for_status(const std::string &status) const {
        return library.wait_until([&] { return command("status") == status; });
    }

    connector_files files{lo_is_a_port};
    fake_library library;
};

// ---- start

TEST_F(connector_test, delivers_nothing_before_the_client_is_ready) {
    ASSERT_EQ(library.bring_up(), 0U);
    EXPECT_FALSE(std::filesystem::exists(files.control_path()));
    EXPECT_EQ(library.deinit(), 0U);
    EXPECT_THAT(library.events(), IsEmpty()) << "the thread has not run";
}

TEST_F(connector_test, start_comes_first_then_forwarding_then_the_agent_then_the_ports) {
    files.write_config("[agent]\ncontroller1 = 127.0.0.1:6653\n[ports]\nlo = 7\nkr-absent = none\n"
                       "[control]\nlldp = on\nlacp = on\nstp = off\n");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(5));
    EXPECT_EQ(command("status"), "ok started ports lo=32775 waiting kr-absent");
    EXPECT_THAT(library.events(), ElementsAre("start", "forward on 19", "forward on 17", "agent", "add lo"));
    EXPECT_EQ(library.last_agent().entries[0].number, 6653);
}

TEST_F(connector_test, a_port_record_says_what_the_library_needs) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    const conn_port_record record = library.last_port("lo");
    EXPECT_EQ(record.log_port, lo_log_port);
    EXPECT_EQ(record.ifindex, if_nametoindex("lo"));
    EXPECT_EQ(record.requested_of_port, 7);
    EXPECT_STREQ(record.interface_name, "lo");
    EXPECT_EQ(command("status"), "ok started ports lo=32775 waiting -");
    EXPECT_THAT(fake_platform::ports(), ElementsAre(testing::Pair(lo_log_port, "lo")));
    kr_plugin::mapped_port mapped{};
    ASSERT_TRUE(kr_plugin::port_map_get(lo_of_port, &mapped));
    EXPECT_EQ(mapped.ifindex, record.ifindex);
    EXPECT_EQ(mapped.log_port, lo_log_port);
}

TEST_F(connector_test, without_a_request_the_interface_index_is_the_of_port) {
    files.write_config("[ports]\nlo = none\n");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(library.last_port("lo").requested_of_port, 0);
    EXPECT_EQ(library.last_port("lo").log_port, 0x10000 + if_nametoindex("lo"));
}

TEST_F(connector_test, only_events_of_the_mask_are_delivered) {
    ASSERT_EQ(library.bring_up(CONN_EVENT_START | CONN_EVENT_STOP), 0U);
    ASSERT_EQ(connector().init_done_shim(), 0U);
    ASSERT_TRUE(wait_for_status("ok started ports lo=32775 waiting -"));
    EXPECT_EQ(command("stop"), "ok");
    EXPECT_THAT(library.events(), ElementsAre("start", "stop"));
}

TEST_F(connector_test, a_failed_start_is_told_and_can_be_repeated) {
    library.answer("start", KR_SDN_HAL_STATUS_ERROR);
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(1));
    EXPECT_EQ(command("start"), "error the switch does not start: internal error");
    EXPECT_EQ(command("status"), "ok stopped ports - waiting lo");
    library.answer("start", KR_SDN_HAL_STATUS_SUCCESS);
    EXPECT_EQ(connector().init_done_shim(), 0U);
    ASSERT_TRUE(library.wait_for_events(4));
    EXPECT_THAT(library.events(), ElementsAre("start", "start", "start", "add lo"));
}

// ---- bad configuration

TEST_F(connector_test, a_mistake_in_the_file_is_named_and_refuses_the_registration) {
    files.write_config("[ports]\nlo = 1\nlo = 2\n");
    EXPECT_EQ(library.bring_up(), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_THAT(library.log_lines(),
                ElementsAre("1 CONNECTOR: " + files.config_path() + ":3: [ports] lo is given twice"));
    EXPECT_EQ(connector().init_done_hal(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(connector().init_done_shim(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(library.deinit(), 0U);

    files.write_config(lo_is_a_port); // and again, as a client does after a failed init
    EXPECT_EQ(library.bring_up(), 0U);
}

TEST_F(connector_test, a_missing_file_is_named) {
    std::filesystem::remove(files.config_path());
    EXPECT_EQ(library.bring_up(), KR_SDN_HAL_STATUS_PARAM_ERROR);
    EXPECT_TRUE(library.has_logged(files.config_path() + ": No such file or directory"));
}

TEST_F(connector_test, a_socket_that_cannot_be_made_refuses_to_run) {
    std::ofstream(files.control_path()) << "precious";
    ASSERT_EQ(library.bring_up(), 0U);
    EXPECT_EQ(connector().init_done_shim(), KR_SDN_HAL_STATUS_ERROR);
    EXPECT_TRUE(library.has_logged("exists and is no socket"));
    EXPECT_TRUE(std::filesystem::is_regular_file(files.control_path()));

    std::filesystem::remove(files.control_path());
    EXPECT_EQ(connector().init_done_shim(), 0U);
    EXPECT_TRUE(library.wait_for_events(2));
}

// ---- following the file

TEST_F(connector_test, a_changed_file_changes_forwarding_and_agent) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    files.replace_config(lo_is_a_port + "[control]\nlldp = on\n[agent]\ndatapath_id = 5\n");
    ASSERT_TRUE(library.wait_for_events(4));
    files.write_config(lo_is_a_port + "[control]\nstp = on\n[agent]\ndatapath_id = 6\n");
    ASSERT_TRUE(library.wait_for_events(7));
    EXPECT_THAT(library.events(),
                ElementsAre("start", "add lo", "forward on 19", "agent", "forward off 19", "forward on 16", "agent"));
    EXPECT_EQ(library.last_agent().trailer, 6U);
}

TEST_F(connector_test, an_agent_section_that_goes_is_told_as_an_empty_one) {
    files.write_config("[agent]\ncontroller1 = 127.0.0.1:6653\n");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    files.replace_config("[control]\nlldp = on\n");
    ASSERT_TRUE(library.wait_for_events(4));
    EXPECT_EQ(library.last_agent().entries[0].value, 0U);
    EXPECT_EQ(library.last_agent().entries[0].number, 0U);
    files.replace_config("[control]\nlldp = off\n"); // once
    ASSERT_TRUE(library.wait_for_events(5));
    EXPECT_THAT(library.events(), ElementsAre("start", "agent", "forward on 19", "agent", "forward off 19"));
}

TEST_F(connector_test, nothing_of_a_bad_new_file_is_applied) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    files.replace_config("[control]\nlldp = on\n[ports]\nlo = x\n");
    ASSERT_TRUE(library.wait_until([&] { return library.has_logged("is not applied"); }));
    EXPECT_TRUE(library.has_logged("1 CONNECTOR: " + files.config_path() +
                                   ":4: requested port of lo is \"x\", must be none or 1 to 32511"));
    EXPECT_EQ(command("reload"),
              "error " + files.config_path() + ":4: requested port of lo is \"x\", must be none or 1 to 32511");
    EXPECT_EQ(command("status"), "ok started ports lo=32775 waiting -");
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo"));

    files.replace_config(lo_is_a_port + "[control]\neapol = on\n");
    ASSERT_TRUE(library.wait_for_events(3));
    EXPECT_EQ(library.events().back(), "forward on 18");
}

TEST_F(connector_test, a_file_that_vanishes_changes_nothing) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    std::filesystem::remove(files.config_path());
    ASSERT_TRUE(library.wait_until([&] { return library.has_logged("No such file or directory"); }));
    EXPECT_EQ(command("status"), "ok started ports lo=32775 waiting -");
    files.write_config(lo_is_a_port + "[control]\nlldp = on\n");
    EXPECT_TRUE(library.wait_for_events(3));
}

TEST_F(connector_test, a_file_behind_a_symbolic_link_is_followed) {
    const connector_files elsewhere(lo_is_a_port);
    std::filesystem::remove(files.config_path());
    std::filesystem::create_symlink(elsewhere.config_path(), files.config_path());
    setenv("KR_CONNECTOR_CONFIG", files.config_path().c_str(), 1);
    setenv("KR_CONNECTOR_CONTROL", files.control_path().c_str(), 1);
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    elsewhere.write_config(lo_is_a_port + "[control]\nlldp = on\n");
    EXPECT_TRUE(library.wait_for_events(3));
}

TEST_F(connector_test, a_port_that_leaves_the_file_is_removed_and_one_that_comes_is_added) {
    library.acknowledge_all();
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    files.replace_config("");
    ASSERT_TRUE(library.wait_for_events(3));
    files.replace_config(lo_is_a_port);
    ASSERT_TRUE(library.wait_for_events(4));
    files.replace_config("[ports]\nlo = 8\n"); // another number is another port
    ASSERT_TRUE(library.wait_for_events(6));
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo", "remove lo", "add lo", "remove lo", "add lo"));
    EXPECT_EQ(library.last_port("lo").requested_of_port, 8);
}

// ---- removal

TEST_F(connector_test, a_removal_is_over_when_a_client_acknowledges_it) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    const control_client client(files.control_path());
    client.send_bytes("remove lo\n");
    ASSERT_TRUE(library.wait_for_events(3));
    EXPECT_EQ(library.events().back(), "remove lo");
    EXPECT_FALSE(client.has_answer_within(50));
    EXPECT_THAT(fake_platform::ports(), testing::SizeIs(1)) << "its state is read during the removal";
    files.replace_config("[control]\nlldp = on\n"); // queued behind the removal
    library.acknowledge();
    EXPECT_EQ(client.read_line(), "ok");
    ASSERT_TRUE(library.wait_for_events(4));
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo", "remove lo", "forward on 19"));
    EXPECT_THAT(fake_platform::ports(), IsEmpty());
    kr_plugin::mapped_port mapped{};
    EXPECT_FALSE(kr_plugin::port_map_get(lo_of_port, &mapped));
}

TEST_F(connector_test, a_port_that_the_library_does_not_know_counts_as_removed) {
    library.answer("remove lo", KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND);
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("remove lo"), "ok");
    EXPECT_THAT(fake_platform::ports(), IsEmpty());
}

TEST_F(connector_test, a_removal_that_fails_keeps_the_port_and_can_be_repeated) {
    library.answer("remove lo", KR_SDN_HAL_STATUS_ERROR);
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("remove lo"), "error port lo can't be removed: internal error");
    EXPECT_THAT(fake_platform::ports(), testing::SizeIs(1));
    library.answer("remove lo", KR_SDN_HAL_STATUS_SUCCESS);
    library.acknowledge();
    EXPECT_EQ(command("remove lo"), "ok");
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo", "remove lo", "remove lo"));
}

// ---- adding

TEST_F(connector_test, a_port_that_the_software_switch_refuses_is_tried_again_after_a_change) {
    fake_platform::fail_adds_with(KR_STATUS_NO_RESOURCES);
    bring_up_and_run();
    ASSERT_TRUE(library.wait_until([&] {
        return library.has_logged("port lo can't be added: the software switch says: "
                                  "no resources");
    }));
    EXPECT_EQ(command("status"), "ok started ports - waiting lo!");
    EXPECT_THAT(library.events(), ElementsAre("start"));
    fake_platform::fail_adds_with(KR_STATUS_SUCCESS);
    files.replace_config(lo_is_a_port + "[log]\nseverity = debug\n");
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("status"), "ok started ports lo=32775 waiting -");
}

TEST_F(connector_test, a_port_that_the_library_refuses_leaves_nothing_behind) {
    library.answer("add lo", KR_SDN_HAL_STATUS_NO_RESOURCES);
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("status"), "ok started ports - waiting lo!");
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo")) << "it knows nothing that could be removed";
    EXPECT_THAT(fake_platform::ports(), IsEmpty());
    EXPECT_EQ(command("add lo"), "error port lo can't be added: no resources");
    EXPECT_EQ(command("stop"), "ok");
}

TEST_F(connector_test, a_port_that_the_library_may_have_kept_is_removed) {
    library.answer("add lo", KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    library.acknowledge_all();
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(3));
    EXPECT_EQ(command("status"), "ok started ports - waiting lo!");
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo", "remove lo"));
    EXPECT_THAT(fake_platform::ports(), IsEmpty());
}

// ---- stop and start

TEST_F(connector_test, stop_removes_the_ports_turns_forwarding_off_and_stops) {
    files.write_config(lo_is_a_port + "[control]\nlldp = on\n");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(3));
    const control_client client(files.control_path());
    client.send_bytes("stop\n");
    ASSERT_TRUE(library.wait_for_events(4));
    EXPECT_FALSE(client.has_answer_within(50));
    library.acknowledge();
    EXPECT_EQ(client.read_line(), "ok");
    EXPECT_THAT(library.events(),
                ElementsAre("start", "forward on 19", "add lo", "remove lo", "forward off 19", "stop"));
    EXPECT_EQ(client.command("status"), "ok stopped ports - waiting lo");
    EXPECT_THAT(fake_platform::ports(), IsEmpty());
}

TEST_F(connector_test, after_a_stop_it_can_be_started_again) {
    library.acknowledge_all();
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("stop"), "ok");
    EXPECT_EQ(command("stop"), "ok") << "is stopped already";
    EXPECT_EQ(command("start"), "ok");
    EXPECT_EQ(command("start"), "ok") << "runs already";
    EXPECT_EQ(command("stop"), "ok");
    EXPECT_EQ(connector().init_done_shim(), 0U); // the client says it, this time
    ASSERT_TRUE(library.wait_for_events(10));
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo", "remove lo", "stop", "start", "add lo", "remove lo",
                                              "stop", "start", "add lo"));
}

TEST_F(connector_test, a_refused_stop_is_told_and_the_switch_can_go_on) {
    library.acknowledge_all();
    library.answer("stop", KR_SDN_HAL_STATUS_RESOURCE_IN_USE);
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("stop"), "error the switch does not stop: resource in use");
    EXPECT_EQ(command("status"), "ok started ports - waiting lo");
    EXPECT_EQ(command("start"), "ok");
    ASSERT_TRUE(library.wait_for_events(5));
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo", "remove lo", "stop", "add lo"));
}

TEST_F(connector_test, while_stopped_changes_of_the_file_wait_for_the_start) {
    library.acknowledge_all();
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("stop"), "ok");
    files.replace_config("[control]\nlldp = on\n");
    EXPECT_EQ(command("reload"), "ok");
    EXPECT_EQ(library.events().size(), 4U);
    EXPECT_EQ(command("start"), "ok");
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo", "remove lo", "stop", "start", "forward on 19"));
}

// ---- deinit

TEST_F(connector_test, every_call_before_init_says_so) {
    EXPECT_EQ(connector().init_done_hal(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(connector().init_done_shim(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(connector().config_callback_register(nullptr), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(connector().event_callback_register(nullptr, 31), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(connector().deinit(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(connector().config_params_get(), 0U);
}

TEST_F(connector_test, registration_needs_callbacks) {
    ASSERT_EQ(connector().init(nullptr), 0U);
    EXPECT_EQ(connector().config_callback_register(nullptr), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(connector().event_callback_register(nullptr, 31), KR_SDN_HAL_STATUS_PARAM_NULL);
    EXPECT_EQ(connector().init_done_hal(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(connector().init_done_shim(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(connector().init(nullptr), KR_SDN_HAL_STATUS_ENTRY_ALREADY_EXISTS);
    EXPECT_EQ(connector().deinit(), 0U);
}

TEST_F(connector_test, deinit_while_started_delivers_nothing_more) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(library.deinit(), 0U);
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo"));
    EXPECT_THAT(fake_platform::ports(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(files.control_path()));
    EXPECT_EQ(connector().deinit(), KR_SDN_HAL_STATUS_NOT_INITIALIZED);
}

TEST_F(connector_test, deinit_right_after_the_start_ends_cleanly) {
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(library.bring_up(), 0U);
        ASSERT_EQ(connector().init_done_shim(), 0U);
        ASSERT_EQ(library.deinit(), 0U);
    }
    EXPECT_THAT(fake_platform::ports(), IsEmpty());
}

TEST_F(connector_test, deinit_after_a_stop) {
    library.acknowledge_all();
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("stop"), "ok");
    EXPECT_EQ(library.deinit(), 0U);
}

TEST_F(connector_test, deinit_is_refused_while_a_removal_waits) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    const control_client client(files.control_path());
    client.send_bytes("stop\n");
    ASSERT_TRUE(library.wait_for_events(3));
    EXPECT_EQ(library.deinit(), KR_SDN_HAL_STATUS_RESOURCE_IN_USE);
    EXPECT_TRUE(library.has_logged("a port removal waits for its acknowledgement"));
    library.acknowledge();
    EXPECT_EQ(client.read_line(), "ok") << "the refusal changed nothing";
    EXPECT_EQ(library.deinit(), 0U);
}

// ---- the control socket

TEST_F(connector_test, the_socket_is_the_owners_alone) {
    const mode_t before = umask(0);
    bring_up_and_run();
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(files.control_path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(connector_test, a_socket_that_a_dead_process_left_is_replaced) {
    bring_up_and_run();
    std::filesystem::create_hard_link(files.control_path(), files.directory + "/left");
    ASSERT_EQ(library.deinit(), 0U);
    std::filesystem::rename(files.directory + "/left", files.control_path());
    bring_up_and_run();
    EXPECT_THAT(command("status"), StartsWith("ok "));
}

TEST_F(connector_test, commands_are_checked) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    const control_client client(files.control_path());
    const std::string unknown = "error unknown command: status, start, stop, add, remove, link, play, reload or config";
    EXPECT_EQ(client.command(""), unknown);
    EXPECT_EQ(client.command("STOP"), unknown);
    EXPECT_EQ(client.command(std::string("stop\0", 5)), unknown);
    EXPECT_EQ(client.command("stop now"), "error stop takes no argument");
    EXPECT_EQ(client.command("add"), "error usage: add INTERFACE [PORT]");
    EXPECT_EQ(client.command("add lo 1 2"), "error usage: add INTERFACE [PORT]");
    EXPECT_EQ(client.command("add a/b"), "error that can't be the name of an interface");
    EXPECT_EQ(client.command("add kr-x 40000"), "error the port must be none or 1 to 32511");
    EXPECT_EQ(client.command("add kr-x 7"), "error port 7 is taken by lo");
    EXPECT_EQ(client.command("remove"), "error usage: remove INTERFACE");
    EXPECT_EQ(client.command("remove lo now"), "error usage: remove INTERFACE");
    EXPECT_EQ(client.command("remove kr-x"), "error no such port");
    EXPECT_EQ(client.command("link lo"), "error usage: link INTERFACE up|down");
    EXPECT_EQ(client.command("link lo off"), "error usage: link INTERFACE up|down");
    EXPECT_EQ(client.command("link lo up now"), "error usage: link INTERFACE up|down");
    EXPECT_EQ(client.command("link kr-x up"), "error no such port");
    EXPECT_EQ(client.command("play"), "error usage: play NAME");
    EXPECT_EQ(client.command("play lo now"), "error usage: play NAME");
    EXPECT_EQ(client.command("play kr-x"), "error no such port on capture files");
    EXPECT_EQ(client.command("play lo"), "error no such port on capture files");
    EXPECT_EQ(client.command("config"), "error the file has no [agent]");
    EXPECT_EQ(client.command("status\r"), "ok started ports lo=32775 waiting -");
    EXPECT_THAT(library.events(), ElementsAre("start", "add lo"));
}

TEST_F(connector_test, ports_come_and_go_by_command) {
    library.acknowledge_all();
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("add kr-absent 9"), "ok when the interface appears");
    EXPECT_EQ(command("status"), "ok started ports lo=32775 waiting kr-absent");
    EXPECT_EQ(command("remove lo"), "ok");
    EXPECT_EQ(command("add lo"), "ok OF port 32775") << "with the number of the file";
    EXPECT_EQ(command("add lo 11"), "ok OF port 32779") << "with another number";
    EXPECT_EQ(command("remove kr-absent"), "ok");
    EXPECT_EQ(command("reload"), "ok") << "the file is the truth again";
    EXPECT_EQ(command("status"), "ok started ports lo=32775 waiting -");
    EXPECT_EQ(command("stop"), "ok");
    EXPECT_EQ(command("add kr-absent"), "ok when the switch starts");
}

TEST_F(connector_test, the_link_of_a_port_goes_down_and_up_by_command) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("link lo down"), "ok");
    EXPECT_FALSE(fake_platform::is_up(lo_log_port));
    EXPECT_EQ(command("link lo up"), "ok");
    EXPECT_TRUE(fake_platform::is_up(lo_log_port));
}

// ---- ports on capture files

const std::string two_captures = "[captures]\ncap1 = 1 in.pcap out.pcap\ncap2 = 2 - \"/tmp/o u t\"\n";

TEST_F(connector_test, capture_files_are_ports_that_need_no_interface) {
    files.write_config(two_captures + lo_is_a_port);
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(4));
    EXPECT_THAT(library.events(), ElementsAre("start", "add cap1", "add cap2", "add lo"));
    EXPECT_EQ(command("status"), "ok started ports cap1=32769,cap2=32770,lo=32775 waiting -");
    EXPECT_THAT(fake_platform::ports(),
                ElementsAre(testing::Pair(0x18001, files.directory + "/in.pcap > " + files.directory + "/out.pcap"),
                            testing::Pair(0x18002, "- > /tmp/o u t"), testing::Pair(lo_log_port, "lo")));
    EXPECT_EQ(library.last_port("cap2").requested_of_port, 2);
    EXPECT_NE(library.last_port("cap1").ifindex, library.last_port("cap2").ifindex) << "a port is found by it";
    kr_plugin::mapped_port mapped{};
    ASSERT_TRUE(kr_plugin::port_map_get(32769, &mapped));
    EXPECT_EQ(mapped.ifindex, 0U) << "no interface of this machine stands behind it";
}

TEST_F(connector_test, capture_files_are_played_by_command) {
    files.write_config(two_captures);
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(3));
    EXPECT_EQ(command("play cap1"), "ok 3 frames");
    fake_platform::fail_plays_with(KR_STATUS_ERROR);
    EXPECT_EQ(command("play cap1"), "error " + files.directory + "/in.pcap can't be played to its end");
    EXPECT_EQ(command("add cap1 none"), "error a port on capture files needs a number");
}

TEST_F(connector_test, other_capture_files_are_another_port) {
    library.acknowledge_all();
    files.write_config("[captures]\ncap1 = 1 a -\n");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    files.replace_config("[captures]\ncap1 = 1 b -\n");
    ASSERT_TRUE(library.wait_for_events(4));
    files.replace_config("[captures]\ncap1 = 1 b -\n[control]\nlldp = on\n");
    ASSERT_TRUE(library.wait_for_events(5));
    files.replace_config("");
    ASSERT_TRUE(library.wait_for_events(7));
    EXPECT_THAT(library.events(), ElementsAre("start", "add cap1", "remove cap1", "add cap1", "forward on 19",
                                              "forward off 19", "remove cap1"));
    EXPECT_THAT(command("status"), testing::StartsWith("ok")); // answered once the removal is done with
    EXPECT_THAT(fake_platform::ports(), IsEmpty());
}

TEST_F(connector_test, config_sends_the_agent_configuration_again) {
    files.write_config("[agent]\ndatapath_id = 1\n");
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    EXPECT_EQ(command("config"), "ok");
    EXPECT_THAT(library.events(), ElementsAre("start", "agent", "agent"));
    library.answer("agent", KR_SDN_HAL_STATUS_ERROR);
    EXPECT_EQ(command("config"), "error the agent configuration is not accepted: internal error");
    EXPECT_EQ(command("stop"), "ok");
    EXPECT_EQ(command("config"), "error the switch is stopped");
}

TEST_F(connector_test, several_commands_at_once_and_a_last_line_without_newline) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    const control_client client(files.control_path());
    client.send_bytes("status\nremove kr-x\nstat");
    client.send_bytes("us");
    client.end_input();
    EXPECT_THAT(client.read_line(), StartsWith("ok started"));
    EXPECT_EQ(client.read_line(), "error no such port");
    EXPECT_THAT(client.read_line(), StartsWith("ok started"));
    EXPECT_EQ(client.read_line(), "") << "and the connection ends";
}

TEST_F(connector_test, hostile_input_costs_its_own_connection_only) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    const control_client endless(files.control_path());
    endless.send_bytes(std::string(100000, 'x'));
    EXPECT_EQ(endless.read_line(), "error the line is longer than 256 characters");
    const control_client long_line(files.control_path());
    EXPECT_EQ(long_line.command(std::string(257, 'x')), "error the line is longer than 256 characters");
    const control_client garbage(files.control_path());
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    garbage.send_bytes(bytes + "\n");
    EXPECT_THAT(garbage.read_line(), StartsWith("error unknown command"));
    {
        const control_client leaves(files.control_path());
        leaves.send_bytes("status\nstatus\n");
    }
    const control_client silent(files.control_path()), half(files.control_path());
    half.send_bytes("stat");
    EXPECT_THAT(command("status"), StartsWith("ok started"));
    half.send_bytes("us\n");
    EXPECT_THAT(half.read_line(), StartsWith("ok started"));
}

TEST_F(connector_test, too_many_connections_are_refused_and_the_others_go_on) {
    bring_up_and_run();
    ASSERT_TRUE(library.wait_for_events(2));
    std::vector<std::unique_ptr<control_client>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<control_client>(files.control_path()));
        ASSERT_THAT(clients.back()->command("status"), StartsWith("ok"));
    }
    EXPECT_EQ(control_client(files.control_path()).read_line(), "error too many connections");
    EXPECT_THAT(clients.front()->command("status"), StartsWith("ok"));
    clients.pop_back();
    EXPECT_TRUE(library.wait_until([&] { return command("status").starts_with("ok"); }));
}

// ---- logging

TEST_F(connector_test, without_a_callback_it_logs_to_standard_error) {
    files.write_config("[ports\n");
    testing::internal::CaptureStderr();
    ASSERT_EQ(connector().init(nullptr), 0U);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text, "krsdnhal: error: CONNECTOR: " + files.config_path() +
                        ":1: neither a [section] nor \"name = value\" nor a comment\n");
    EXPECT_EQ(connector().deinit(), 0U);
}

TEST_F(connector_test, conn_log_writes_whole_lines_from_any_thread) {
    files.write_config("[log]\nseverity = warning\n");
    ASSERT_EQ(connector().init(nullptr), 0U);
    testing::internal::CaptureStderr();
    connector().log(KR_LOG_ERROR, "M", "an error\n");
    connector().log(KR_LOG_WARNING, "M", "two\nlines");
    connector().log(KR_LOG_NOTICE, "M", "is filtered");
    connector().log(KR_LOG_ERROR, nullptr, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "krsdnhal: error: M: an error\nkrsdnhal: warning: M: two lines\nkrsdnhal: error: :\n");

    const std::string body(5000, 'x'); // longer than the sink's buffer
    testing::internal::CaptureStderr();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 50; ++n) {
                connector().log(KR_LOG_ERROR, "M", body.c_str());
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    std::istringstream lines(testing::internal::GetCapturedStderr());
    std::string line;
    int count = 0;
    for (; std::getline(lines, line); ++count) {
        ASSERT_EQ(line, "krsdnhal: error: M: " + body);
    }
    EXPECT_EQ(count, 200);
    EXPECT_EQ(connector().deinit(), 0U);
}

TEST_F(connector_test, conn_log_can_be_silent) {
    files.write_config("[log]\ntarget = none\n");
    ASSERT_EQ(connector().init(nullptr), 0U);
    testing::internal::CaptureStderr();
    connector().log(KR_LOG_ERROR, "M", "an error\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(connector().deinit(), 0U);
}

} // namespace
