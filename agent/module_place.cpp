/*
 * The places that module_place.h speaks of, looked at in order.
 */
#include "module_place.h"

#include <climits>

#include <unistd.h>

namespace agent {

std::string module_place(const char *name) {
    char self[PATH_MAX];
    const ssize_t size = readlink("/proc/self/exe", self, sizeof self);
    const std::string program(self, size > 0 ? static_cast<size_t>(size) : 0);
    const std::string folder = program.substr(0, program.rfind('/') + 1);
    for (const char *place : {"../" KR_AGENT_LIBDIR "/krsdnhal/", "", "../plugins/connector/", "../plugins/fpt_linux/",
                              "../tools/audit/"}) {
        const std::string path = folder + place + name;
        if (!folder.empty() && access(path.c_str(), R_OK) == 0) {
            return path;
        }
    }
    return std::string("/usr/lib/krsdnhal/") + name;
}

} // namespace agent
