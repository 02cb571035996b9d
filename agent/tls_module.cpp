/*
 * Loads the module of TLS when somebody wants TLS. It stays loaded.
 */
#include <dlfcn.h>

#include "module_place.h"
#include "stream.h"

namespace agent {

std::unique_ptr<tls_context> tls_context_open(const tls_files &files, std::string *why) {
    void *const module = dlopen(module_place("ofagent_tls.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    const auto open =
        module == nullptr ? nullptr : reinterpret_cast<tls_module_open *>(dlsym(module, tls_module_symbol));
    if (open == nullptr) {
        const char *const error = dlerror();
        *why = error != nullptr ? error : "the module of TLS can't be loaded";
        return nullptr;
    }
    return std::unique_ptr<tls_context>(open(files, why));
}

} // namespace agent
