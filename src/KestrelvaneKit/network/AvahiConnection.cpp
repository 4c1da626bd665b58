#include "KestrelvaneKit/network/AvahiConnection.h"

#include "KestrelvaneKit/log/KVLog.h"

#include <avahi-common/error.h>
#include <avahi-common/timeval.h>

namespace kestrelvane {

AvahiConnection::AvahiConnection(std::string purpose, OnStateChange onStateChange)
    : purpose_(std::move(purpose)), onStateChange_(std::move(onStateChange)) {
}

AvahiConnection::~AvahiConnection() {
    stop();
}

bool AvahiConnection::start() {
    if (poll_ != nullptr) {
        return true;
    }
    poll_ = avahi_threaded_poll_new();
    if (poll_ == nullptr) {
        KVLog::net().error("DNS-SD " + purpose_ + " unavailable: cannot create Avahi event loop");
        return false;
    }
    int error = 0;
    // The callback may run inside avahi_client_new(), before client_ is set.
    client_ = avahi_client_new(avahi_threaded_poll_get(poll_), AVAHI_CLIENT_NO_FAIL,
                               &AvahiConnection::clientCallback, this, &error);
    if (client_ == nullptr) {
        // Typically no system D-Bus at all; said once, however often start() is tried.
        if (!reportedUnreachable_) {
            reportedUnreachable_ = true;
            KVLog::net().error("DNS-SD " + purpose_ + " unavailable: no Avahi daemon reachable (" +
                               avahi_strerror(error) + ")");
        }
        avahi_threaded_poll_free(poll_);
        poll_ = nullptr;
        return false;
    }
    if (avahi_threaded_poll_start(poll_) < 0) {
        KVLog::net().error("DNS-SD " + purpose_ + " unavailable: cannot start Avahi event thread");
        stop();
        return false;
    }
    return true;
}

void AvahiConnection::stop() noexcept {
    if (poll_ == nullptr) {
        return;
    }
    avahi_threaded_poll_stop(poll_);
    if (client_ != nullptr) {
        avahi_client_free(client_);
        client_ = nullptr;
    }
    avahi_threaded_poll_free(poll_);
    poll_ = nullptr;
    reportedUnreachable_ = false;
    reconnectScheduled_ = false; // its timeout went with the event loop
}

void AvahiConnection::scheduleReconnect() {
    if (reconnectScheduled_) {
        return;
    }
    const AvahiPoll* api = avahi_threaded_poll_get(poll_);
    timeval now{};
    avahi_elapse_time(&now, 0, 0);
    reconnectScheduled_ = api->timeout_new(api, &now, &AvahiConnection::reconnect, this) != nullptr;
    if (!reconnectScheduled_) {
        KVLog::net().error("DNS-SD " + purpose_ + " stopped: cannot wait for the Avahi daemon");
    }
}

void AvahiConnection::reconnect(AvahiTimeout* timeout, void* self) {
    auto& connection = *static_cast<AvahiConnection*>(self);
    const AvahiPoll* api = avahi_threaded_poll_get(connection.poll_);
    api->timeout_free(timeout);
    connection.reconnectScheduled_ = false;
    if (connection.client_ != nullptr) {
        avahi_client_free(connection.client_);
        connection.client_ = nullptr;
    }
    int error = 0;
    connection.client_ = avahi_client_new(api, AVAHI_CLIENT_NO_FAIL,
                                          &AvahiConnection::clientCallback, &connection, &error);
    if (connection.client_ == nullptr) {
        KVLog::net().error("DNS-SD " + connection.purpose_ +
                           " stopped: cannot reconnect to Avahi (" + avahi_strerror(error) + ")");
    }
}

void AvahiConnection::clientCallback(AvahiClient* client, AvahiClientState state, void* self) {
    auto& connection = *static_cast<AvahiConnection*>(self);
    switch (state) {
    case AVAHI_CLIENT_CONNECTING:
        if (!connection.reportedUnreachable_) {
            connection.reportedUnreachable_ = true;
            KVLog::net().error("DNS-SD " + connection.purpose_ +
                               " waiting: no Avahi daemon reachable; nothing is found or "
                               "advertised until one starts");
        }
        break;
    case AVAHI_CLIENT_FAILURE:
        if (avahi_client_errno(client) == AVAHI_ERR_DISCONNECTED) {
            connection.reportedUnreachable_ = true;
            KVLog::net().error("DNS-SD " + connection.purpose_ +
                               " waiting: the Avahi daemon went away; nothing is found or "
                               "advertised until it is back");
        } else {
            KVLog::net().error("DNS-SD " + connection.purpose_ +
                               " failed: " + avahi_strerror(avahi_client_errno(client)));
        }
        break;
    case AVAHI_CLIENT_S_RUNNING:
        if (connection.reportedUnreachable_) {
            connection.reportedUnreachable_ = false;
            KVLog::net().info("DNS-SD " + connection.purpose_ + ": Avahi daemon reachable");
        }
        break;
    case AVAHI_CLIENT_S_REGISTERING:
    case AVAHI_CLIENT_S_COLLISION:
        break;
    }
    // The owner frees what it made on this client first; the client goes later.
    connection.onStateChange_(client, state);
    if (state == AVAHI_CLIENT_FAILURE && avahi_client_errno(client) == AVAHI_ERR_DISCONNECTED) {
        connection.scheduleReconnect();
    }
}

} // namespace kestrelvane
