/*
 * Runs steps on the library, over the software platform and fake plug-ins, and on the model, and compares: statuses,
 * outputs, records, frames, and after each step the state that can be seen from outside. Throws `mismatch`.
 *
 * The library lives once in a process: so does a driver.
 */
#ifndef KR_TESTS_MODEL_DRIVER_H
#define KR_TESTS_MODEL_DRIVER_H

#include <cstdint>
#include <functional>
#include <thread>

#include "tests/model/library_model.h"
#include "tests/model/step.h"
#include "tests/support/fake_connector.h"
#include "tests/support/fake_fpt.h"

namespace kr_model {

// The connector's thread: it delivers one event at a time, and may be left waiting in one.
class connector_thread {
  public:
    connector_thread();
    // Delivers an event; returns when the library has answered, or waits for an acknowledgement (false).
    bool run(const std::function<uint32_t()> &event, uint32_t *answer);
    // Waits for the answer of the event that was left waiting.
    uint32_t finish();
    bool is_waiting() const;

  private:
    void body();
    const std::function<uint32_t()> *event_ = nullptr; // under the spies' mutex, as the next two
    bool has_answer_ = false;
    uint32_t answer_ = 0;
    std::function<uint32_t()> left_waiting_;
};

class driver {
  public:
    driver();

    // False: the step was left out, because it would block or is not allowed now.
    bool run(const step &s);
    // The comparison of everything, however long it takes.
    void compare_all();

    // The status that the last step ended with, and whether its fault came due.
    uint32_t last_status = 0;
    bool fault_came_due = false;

    uint32_t place_count() {
        const placement_table *const table = model_.hw.placement_of(model_.placement_handle);
        return table != nullptr ? static_cast<uint32_t>(table->by_index.size()) : 0;
    }
    uint32_t flow_counters_used() const {
        return model_.counters_used;
    }

  private:
    library_model model_;
    kr_test::loaded_fake_connector connector_;
    kr_test::loaded_fake_fpt fpt_;
    connector_thread connector_thread_;
    srvc_handle handles_[channel_count] = {};
    uint32_t group_ids_[group_slot_count] = {};

    bool is_left_out(const step &s) const;
    void plugins_prepare(const step &s);
    void make_room();
    uint32_t group_id_of(uint32_t slot) const;

    void run_life_cycle(const step &s);
    void run_connector(const step &s);
    void run_switch(const step &s);
    void run_channels(const step &s);
    void run_ports(const step &s);
    void run_port_operation(const step &s);
    void run_flows(const step &s);
    void run_groups(const step &s);
    void run_null_arguments(const step &s);
    void recv_compare(uint32_t channel);

    // The library has been called: lets the model use what the platform chose.
    void called();
    void same_status(uint32_t library, uint32_t model);

    void control_frames_wait();
    void compare_after(const step &s);
    void compare_usage();
    void compare_registry();
    void compare_channels();
    void compare_sent_frames();
    void compare_drops();
    void compare_rules();
    void compare_places();
    void compare_flows_db();
    void compare_audit();
};

} // namespace kr_model

#endif
