/*
 * The port database: the library's one record of the ports that the connector has added, and the translation between
 * OF ports, interface indexes and SDK logical ports. It logs nothing. Look-ups may run in any thread at any time, also
 * while ports come and go; they take no lock and never wait.
 */
#ifndef KR_CORE_PORT_H
#define KR_CORE_PORT_H

#include <cstdint>

#include "kr_sdn_hal.h"

// What port_get hands out of a port.
struct port_info {
    uint32_t ifindex;
    uint32_t log_port;
    uint32_t aux; // read back as the port's capabilities
};

struct hal_port {
    uint32_t of_port;
    port_info info;
};

enum { PORT_CMD_ADD = 0, PORT_CMD_REMOVE = 2 };
enum { PORT_MAX_COUNT = 100 };

/* Makes the pool and the maps. ERROR when the pool cannot be made. */
kr_sdn_hal_status port_init();

/* Does nothing: the pool and the records that remain stay. */
kr_sdn_hal_status port_deinit();

/*
 * Adds a port (command 0; *of_port receives its OF port) or removes the port *of_port (command 2; the other arguments
 * are ignored). Any other command does nothing and succeeds. A failed add leaves the database as it was.
 */
kr_sdn_hal_status port_set(uint32_t command, uint32_t ifindex, int32_t requested_of_port, uint32_t log_port,
                           uint32_t aux, uint32_t *of_port);

/* Look-ups: ENTRY_NOT_FOUND for an unknown key, the output is unchanged then. `*info` is valid until the port goes:
 * a thread that cannot rule that out copies with the functions below. */
kr_sdn_hal_status port_get(uint32_t of_port, const port_info **info);
kr_sdn_hal_status port_get_ifindex(uint32_t of_port, uint32_t *ifindex);
kr_sdn_hal_status port_get_log_port(uint32_t of_port, uint32_t *log_port);
kr_sdn_hal_status port_translate_ifindex(uint32_t ifindex, uint32_t *of_port);
kr_sdn_hal_status port_translate_log_port(uint32_t log_port, uint32_t *of_port);

/* *count 0: becomes the number of ports. Otherwise the lowest OF ports, at most *count, and *count how many. */
kr_sdn_hal_status port_get_arr(uint32_t *ports, uint32_t *count);

#endif
