/*
 * What happens in the daemon, told to whoever watches: ports, flows, controllers, the switch as a whole. Nobody is
 * watching most of the time; then an event is not even put together.
 */
#ifndef KR_AGENT_EVENT_FEED_H
#define KR_AGENT_EVENT_FEED_H

#include <cstdint>
#include <functional>
#include <string>

namespace agent {

struct happening {
    const char *kind;    // "port", "flow", "controller", "switch"
    const char *what;    // "added", "removed", ...
    std::string subject; // whom it concerns
    std::string detail;  // empty: there is no more to say
};

class event_feed {
  public:
    std::function<void(const happening &)> listener; // unset: nobody watches

    /* `make` returns the happening; it is called only if somebody watches. */
    template <typename Make> void tell(Make make) const {
        if (listener) {
            listener(make());
        }
    }
};

} // namespace agent

#endif
