/*
 * The thread that takes frames from Linux interfaces and forwards them. Ports in memory and on capture files do without
 * it: their frames are forwarded by whoever feeds them.
 */
#ifndef KR_SOFT_DATAPLANE_THREAD_H
#define KR_SOFT_DATAPLANE_THREAD_H

namespace kr_soft {

class interface_port;

// Starts the thread if need be. False when there are no resources.
bool dataplane_thread_start();
void dataplane_thread_stop();

// From here on the thread receives the port's frames, until the port's socket is closed or it is forgotten. The port
// table is held exclusively for both.
bool dataplane_thread_watch(const interface_port &watched);
void dataplane_thread_forget(const interface_port &watched);

} // namespace kr_soft

#endif
