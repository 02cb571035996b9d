/*
 * The daemon's side of inspector.h: loads the module, if there is one for this platform, and hands its answers on as
 * C++ records. Without a module everything is "not available".
 */
#ifndef KR_AGENT_PLATFORM_VIEW_H
#define KR_AGENT_PLATFORM_VIEW_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "inspector.h"

namespace agent {

class platform_view {
  public:
    /* An empty path: the usual place, and it is no error when there is nothing, or nothing for this platform. */
    bool load(const std::string &path, std::string *why);

    /* Null: not available here. */
    const char *platform() const {
        return inspector_ != nullptr ? inspector_->platform : nullptr;
    }

    /* By flow id of the library; empty if not available. */
    std::map<uint64_t, krsdn_inspected_rule> rules() const;

    struct finding {
        uint64_t rule_id;
        uint32_t offset;
        std::string text;
    };
    struct audit_report {
        uint32_t flow_count, rule_count;
        std::vector<finding> findings;
    };
    /* None: not available, or the table never came to rest. */
    std::optional<audit_report> audit() const;

    struct drop {
        std::string reason;
        uint64_t count;
    };
    std::vector<drop> drops() const;

  private:
    const krsdn_inspector *inspector_ = nullptr;
};

} // namespace agent

#endif
