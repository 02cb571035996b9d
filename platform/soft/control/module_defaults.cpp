/*
 * What a module of the platform contributes to reset, usage and dump when it is not part of the build: nothing. Weak,
 * so that the module's own definition wins.
 */
#include "dataplane/switch_ports.h"
#include "host_ifc/trap_delivery.h"

namespace kr_soft {
__attribute__((weak)) void dataplane_reset() {}
__attribute__((weak)) void dataplane_usage_fill(kr_soft_usage *) {}
__attribute__((weak)) void dataplane_dump(FILE *) {}
__attribute__((weak)) void host_ifc_reset() {}
__attribute__((weak)) void host_ifc_usage_fill(kr_soft_usage *) {}
__attribute__((weak)) void host_ifc_dump(FILE *) {}
} // namespace kr_soft
