/*
 * The library's own modules on the software platform among fake plug-ins, brought to the stage of its life at which an
 * operation is made, and what can be seen of its state. One process has one; each fault has a process of its own.
 */
#ifndef KR_TESTS_SWEEP_WORLD_H
#define KR_TESTS_SWEEP_WORLD_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kr_connector.h"
#include "kr_sdn_hal.h"
#include "tests/support/call_faults.h"
#include "tests/support/fake_connector.h"
#include "tests/support/fake_fpt.h"
#include "tests/sweep/outputs.h"
#include "tests/system/flows_and_frames.h"

namespace kr_test {

// How far the library's life has come.
enum class stage {
    loaded,      // nothing was called
    initialized, // kr_sdn_hal_init
    started,     // the start event
    ports,       // OF ports 1 and 2
    flows        // flows 1 to 3 (drop, controller, output), a multicast group of port 1, an open channel
};
const char *stage_name(stage of);

// Everything that can be seen, name by name.
using state = std::vector<std::pair<std::string, std::string>>;
extern const std::vector<const char *> state_names;
// "name before -> after" of what differs.
std::string difference(const state &before, const state &after);
// "name value instead of another", one by one.
std::vector<std::string> deviations(const state &expected, const state &found);

class world {
  public:
    world();

    void reach(stage goal);

    // The whole way back: ports, channels, the switch, the library. What did not go well, line by line.
    std::vector<std::string> take_down();

    static void settle();
    // Joins the thread that a stop has left behind unjoined, once everything has been looked at.
    static void reap();
    [[nodiscard]] state observe();
    // What must hold whatever failed; broken rules, line by line.
    std::vector<std::string> check_rules();

    // Calls of the client, which may be made to fail while the hook is armed.
    template <typename Call> static uint32_t client(Call call) {
        const calling_as as(caller::client);
        return static_cast<uint32_t>(call());
    }

    uint32_t event(uint32_t code, void *data = nullptr);
    uint32_t configure(uint32_t command, void *data);
    uint32_t add_port(uint32_t of_port); // on the platform too, if it is not there yet
    // The event runs on a thread of its own until it waits for the acknowledgement; `acknowledge` then makes one.
    uint32_t remove_port(uint32_t of_port, bool acknowledge = true);

    system_profile profile{};
    std::unique_ptr<loaded_fake_connector> connector;
    std::unique_ptr<loaded_fake_fpt> fpt;
    srvc_handle channel{};       // open from stage flows on, without registrations
    srvc_handle other_channel{}; // for operations that need two
    uint32_t group_id = 0;
    std::vector<flow_record> flows;
    outputs out; // of the operation

  private:
    size_t descriptors_at_first; // other than the library's
};

} // namespace kr_test

#endif
