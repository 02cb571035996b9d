/*
 * Every call that the library makes downwards, in one place: recorded, and failing when a test says so.
 *
 * The linker's --wrap reroutes the calls that the library's objects make to the platform, the component library, the
 * loader and the operating system (call_faults.cpp); the fake plug-ins report theirs. Each goes on to the real one
 * unless it is to fail, so that the software platform, the pipes and the threads beneath are real. A ledger keeps what
 * the library has taken and not given back.
 */
#ifndef KR_TESTS_CALL_FAULTS_H
#define KR_TESTS_CALL_FAULTS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kr_test {

// What a call belongs to: when "all of these fail from here on", these are the others.
enum class call_class { device, acl_rm, psort, connector, port_plugin, component, map, memory, loader, system, logger };

// How a call may fail.
struct failure_code {
    uint32_t value;        // what it returns; of a system call the errno, or one of those below
    const char *text = ""; // for people; empty: the value
};
enum : uint32_t { code_nothing = 1000, code_part = 1001 }; // read, write, select: none; fewer bytes than asked for

struct call_row {
    const char *name;
    call_class kind;
    std::span<const failure_code> codes; // all that it has; the first stands for them where one must do
};
const call_row *call_row_of(const std::string &name);
std::span<const call_row> call_rows();

// The threads that call. What `outside` calls is neither recorded nor made to fail.
enum class caller { outside, client, control_frames, background };

// While one lives, the thread is `who`.
class calling_as {
  public:
    explicit calling_as(caller who);
    ~calling_as();
    calling_as(const calling_as &) = delete;
    calling_as &operator=(const calling_as &) = delete;

  private:
    caller before_;
};

enum class fault_reach { none, one_call, this_class, everything };

struct fault {
    fault_reach reach = fault_reach::none;
    uint32_t nth = 0; // of the calls that can fail, from 0
    uint32_t code = 0;
    std::optional<uint32_t> second = {}; // with one_call: this one fails too, with its first code
    uint32_t limit = UINT32_MAX; // how many calls fail at the most: a thread that tries for ever shall get through
};

struct call_entry {
    caller who;
    bool is_log;
    int index; // of the calls that can fail; -1: not one of them
    std::string name;
    std::string text; // the call with its arguments and, unless it succeeded, its result; or the line of the log
    bool has_failed;  // made to
};

// Records what `who` (and what others log) from now on, with this fault.
void calls_arm(caller who, const fault &fault);
std::vector<call_entry> calls_disarm();
uint32_t calls_failed_count();                             // since the last arm
uint32_t calls_count(caller who, const std::string &name); // since the process began, armed or not

// What the library holds.
struct call_ledger {
    size_t memory_blocks, pools, locks, events, threads, libraries, descriptors;
};
call_ledger ledger();

// A thread that waits for work, or a client for an acknowledgement: how many waits have begun, whether one has not
// ended, and whether the thread of the library sleeps in it.
uint32_t waits_begun(caller who);
bool is_waiting(caller who);
bool is_idle(caller who);
// Whether the library's thread has been started and has not ended.
bool is_running(caller who);
// The background thread's waits that run for seconds: from now on their time is up at once.
void let_time_pass();

// What the library has a descriptor for: "pipe 2 read end".
std::string name_of_descriptor(int fd);

// For the fake plug-ins: a call of theirs. 0, or the status that it is to return.
uint32_t plugin_called(const char *name, const std::string &arguments = {});

} // namespace kr_test

#endif
