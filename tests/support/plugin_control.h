/*
 * The control record of a plug-in that is loaded already, left as it is; and a way to call anything at all when the
 * plug-in records one of its entry points.
 */
#ifndef KR_TESTS_PLUGIN_CONTROL_H
#define KR_TESTS_PLUGIN_CONTROL_H

#include <dlfcn.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

namespace kr_test {

template <typename Control> Control *plugin_control(const char *path, const char *symbol) {
    void *const library = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) {
        abort();
    }
    auto *const control = static_cast<Control *>(dlsym(library, symbol));
    dlclose(library); // whoever loaded it holds it still
    return control;
}

// While one lives, each recorded call of a plug-in goes to it. One at a time.
class call_hook {
  public:
    explicit call_hook(void (**record)(const char *), std::function<void(const std::string &)> hook) : record_(record) {
        current() = std::move(hook);
        *record_ = [](const char *call) { current()(call); };
    }
    ~call_hook() {
        *record_ = nullptr;
    }
    call_hook(const call_hook &) = delete;
    call_hook &operator=(const call_hook &) = delete;

  private:
    static std::function<void(const std::string &)> &current() {
        static std::function<void(const std::string &)> hook;
        return hook;
    }
    void (**record_)(const char *);
};

} // namespace kr_test

#endif
