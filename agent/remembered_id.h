/*
 * The datapath id that an earlier start of the daemon has chosen, in a folder that outlives it. So the switch stays the
 * same one for its controllers, whichever of its ports are there at the next start.
 */
#ifndef KR_AGENT_REMEMBERED_ID_H
#define KR_AGENT_REMEMBERED_ID_H

#include <cstdint>
#include <optional>
#include <string>

namespace agent {

class remembered_id {
  public:
    /* Empty: nothing is remembered. */
    explicit remembered_id(const std::string &folder) : path_(folder.empty() ? "" : folder + "/datapath-id") {}

    /* None if there is none; also, after a warning, if the file can't be read or says something else. */
    std::optional<uint64_t> read() const;

    /* For the next start; a file that is there is replaced. A failure is a warning. */
    void write(uint64_t id) const;

  private:
    std::string path_;
};

} // namespace agent

#endif
