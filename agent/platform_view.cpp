/*
 * Loading and calling of the module behind platform_view.h. It stays loaded: its code may not go while the library
 * that it links to is in use.
 */
#include "platform_view.h"

#include <dlfcn.h>
#include <unistd.h>

#include "log.h"
#include "module_place.h"

namespace agent {
bool platform_view::load(const std::string &path, std::string *why) {
    const bool is_asked_for = !path.empty();
    const std::string file = is_asked_for ? path : module_place("inspect_soft.so");
    if (!is_asked_for && access(file.c_str(), R_OK) != 0) {
        return true;
    }
    // On another platform than the module's own its symbols are missing, and it is not loaded.
    void *const module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    const auto get = module == nullptr
                         ? nullptr
                         : reinterpret_cast<krsdn_inspector_get_function *>(dlsym(module, "krsdn_inspector_get"));
    const krsdn_inspector *const offered = get == nullptr ? nullptr : get();
    if (offered == nullptr || offered->version != KRSDN_INSPECTOR_VERSION) {
        const char *const error = get == nullptr ? dlerror() : nullptr;
        *why = error != nullptr ? error : file + ": an inspector of another version";
        log(log_level::debug, "%s", why->c_str());
        return !is_asked_for;
    }
    inspector_ = offered;
    return true;
}

std::map<uint64_t, krsdn_inspected_rule> platform_view::rules() const {
    std::map<uint64_t, krsdn_inspected_rule> all;
    if (inspector_ != nullptr) {
        inspector_->rules_visit(
            [](void *context, const krsdn_inspected_rule *rule) {
                static_cast<decltype(all) *>(context)->emplace(rule->flow_id, *rule);
            },
            &all);
    }
    return all;
}

std::optional<platform_view::audit_report> platform_view::audit() const {
    audit_report report{};
    if (inspector_ == nullptr ||
        inspector_->audit(
            [](void *context, uint64_t flow_id, uint32_t offset, const char *text) {
                static_cast<audit_report *>(context)->findings.push_back({flow_id, offset, text});
            },
            &report, &report.flow_count, &report.rule_count) == 0) {
        return {};
    }
    return report;
}

std::vector<platform_view::drop> platform_view::drops() const {
    std::vector<drop> all;
    uint64_t count = 0;
    for (uint32_t i = 0; inspector_ != nullptr; i++) {
        const char *const reason = inspector_->drop_reason(i, &count);
        if (reason == nullptr) {
            break;
        }
        all.push_back({reason, count});
    }
    return all;
}

} // namespace agent
