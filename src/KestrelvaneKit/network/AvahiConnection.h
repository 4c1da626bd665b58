#pragma once

#include <avahi-client/client.h>
#include <avahi-common/thread-watch.h>
#include <functional>
#include <string>

namespace kestrelvane {

/// One Avahi client with its own event thread: the common ground of the
/// service browser and the service publisher.
///
/// The client waits for a daemon that is not (yet) there instead of failing,
/// and when the daemon it was connected to goes away (restarted, upgraded) a
/// fresh client waits for the next one; that an Avahi daemon cannot be
/// reached is logged once each time it happens, and whatever uses the
/// connection simply has nothing to do meanwhile.
class AvahiConnection {
public:
    /// Called on the event thread, with the event loop locked, at every change
    /// of the client's state; Avahi objects are created and freed from here.
    using OnStateChange = std::function<void(AvahiClient* client, AvahiClientState state)>;

    /// `purpose` names the user in log lines ("browsing", "publishing").
    AvahiConnection(std::string purpose, OnStateChange onStateChange);
    ~AvahiConnection();
    AvahiConnection(const AvahiConnection&) = delete;
    AvahiConnection& operator=(const AvahiConnection&) = delete;

    /// Creates the client and starts the event thread. Returns false (and has
    /// logged why) when Avahi cannot be used at all in this process.
    bool start();
    /// Ends the event thread and frees the client together with every object
    /// created on it: browsers, resolvers, published entries. No callback runs
    /// afterwards. Never from the event thread itself.
    void stop() noexcept;

private:
    static void clientCallback(AvahiClient* client, AvahiClientState state, void* self);
    /// A client whose daemon went away stays failed; it is replaced from the
    /// event loop, not from inside its own callback.
    void scheduleReconnect();
    static void reconnect(AvahiTimeout* timeout, void* self);

    const std::string purpose_;
    const OnStateChange onStateChange_;
    AvahiThreadedPoll* poll_ = nullptr;
    AvahiClient* client_ = nullptr;
    // Whether "unreachable" has been said and not yet undone by a daemon that
    // answered; touched on the event thread only, or while none runs.
    bool reportedUnreachable_ = false;
    bool reconnectScheduled_ = false; // event thread only
};

} // namespace kestrelvane
