/*
 * Which ports the switch has, by logical port number.
 *
 * Whoever looks a port up holds `port_table_lock` shared for as long as it uses the port; adding and removing takes it
 * exclusively. No thread takes it twice.
 */
#ifndef KR_SOFT_PORT_TABLE_H
#define KR_SOFT_PORT_TABLE_H

#include <cstdint>
#include <memory>

#include "dataplane/port.h"
#include "dataplane/rw_lock.h"
#include "kr_status.h"

namespace kr_soft {

rw_lock &port_table_lock();

// nullptr for an unknown port. The lock is held at least shared.
port *port_find(uint32_t log_port);

// The same for a caller that keeps the port without the lock.
std::shared_ptr<port> port_share(uint32_t log_port);

// ENTRY_ALREADY_EXISTS, NO_RESOURCES when the switch has all its ports. The lock is held exclusively.
kr_status port_insert(const std::shared_ptr<port> &added);

// Takes a port out of the table and returns it, empty for an unknown one. The lock is held exclusively.
std::shared_ptr<port> port_erase(uint32_t log_port);

uint32_t port_count();

// The ports in the order of their addition, empty behind the last. The lock is held at least shared.
std::shared_ptr<port> port_at(uint32_t index);

} // namespace kr_soft

#endif
