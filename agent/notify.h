/*
 * Tells the service manager how the daemon is: one datagram to the socket that NOTIFY_SOCKET names, nothing if there is
 * none.
 */
#ifndef KR_AGENT_NOTIFY_H
#define KR_AGENT_NOTIFY_H

namespace agent {

void service_notify(const char *state) noexcept; // such as "READY=1"

} // namespace agent

#endif
