/*
 * The controllers as the rest of the daemon sees them: somebody to tell things to.
 */
#ifndef KR_AGENT_AUDIENCE_H
#define KR_AGENT_AUDIENCE_H

#include <functional>

#include "of10/of10.h"

namespace agent {

class audience {
  public:
    virtual ~audience() = default;

    /* Tells all connected controllers. */
    virtual void tell_all(const of10::message_body &body) = 0;

    virtual bool has_any() const = 0;

    /*
     * Queues a packet-in for every connected controller; packets_send() sends. How much of the frame each gets:
     * `max_len` for a frame that an action sent, what the controller has configured for one that missed. `buffer` keeps
     * the frame and returns its number, or buffer_none; it is called at most once, when somebody gets less than all.
     */
    virtual void packet_in(of10::packet_in_fields fields, of10::byte_view frame, uint16_t max_len,
                           const std::function<uint32_t()> &buffer) = 0;
    virtual void packets_send() = 0;
};

} // namespace agent

#endif
