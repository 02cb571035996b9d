/*
 * Where the modules are that come with the daemon: in the library folder of its prefix when it is installed, in the
 * folders of their targets in a build.
 */
#ifndef KR_AGENT_MODULE_PLACE_H
#define KR_AGENT_MODULE_PLACE_H

#include <string>

namespace agent {

/* The path of a module, whether it is there or not. */
std::string module_place(const char *name);

} // namespace agent

#endif
