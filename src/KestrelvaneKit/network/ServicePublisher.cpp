#include "KestrelvaneKit/network/ServicePublisher.h"

#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/network/AvahiConnection.h"

#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <mutex>

namespace kestrelvane {

struct ServicePublisher::State {
    State(std::string serviceName, std::uint16_t servicePort, std::vector<std::string> records,
          std::string serviceType)
        : type(std::move(serviceType)), port(servicePort), txt(std::move(records)),
          name(std::move(serviceName)),
          connection("publishing", [this](AvahiClient* client, AvahiClientState clientState) {
              clientChanged(client, clientState);
          }) {}

    const std::string type;
    const std::uint16_t port;
    const std::vector<std::string> txt;
    mutable std::mutex mutex; // guards name and established for readers on other threads
    std::string name;
    bool established = false;
    AvahiEntryGroup* group = nullptr; // event thread only
    AvahiConnection connection;       // last: its thread ends before the rest goes

    void setEstablished(bool value) {
        std::lock_guard lock(mutex);
        established = value;
    }

    std::string currentName() const {
        std::lock_guard lock(mutex);
        return name;
    }

    void clientChanged(AvahiClient* client, AvahiClientState clientState) {
        switch (clientState) {
        case AVAHI_CLIENT_S_RUNNING:
            if (group == nullptr) {
                group = avahi_entry_group_new(client, &State::groupCallback, this);
            }
            if (group != nullptr && avahi_entry_group_is_empty(group)) {
                addService();
            }
            break;
        case AVAHI_CLIENT_S_COLLISION:
        case AVAHI_CLIENT_S_REGISTERING:
            // The host name is being (re)settled; register again once running.
            if (group != nullptr) {
                avahi_entry_group_reset(group);
            }
            setEstablished(false);
            break;
        case AVAHI_CLIENT_FAILURE:
        case AVAHI_CLIENT_CONNECTING:
            if (group != nullptr) {
                avahi_entry_group_free(group);
                group = nullptr;
            }
            setEstablished(false);
            break;
        }
    }

    void addService() {
        for (;;) {
            const std::string serviceName = currentName();
            AvahiStringList* records = nullptr;
            for (auto it = txt.rbegin(); it != txt.rend(); ++it) { // the list is built front first
                records = avahi_string_list_add(records, it->c_str());
            }
            int error = avahi_entry_group_add_service_strlst(
                group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0),
                serviceName.c_str(), type.c_str(), nullptr, nullptr, port, records);
            avahi_string_list_free(records);
            if (error == AVAHI_ERR_COLLISION) {
                renameAfterCollision();
                continue;
            }
            if (error >= 0) {
                error = avahi_entry_group_commit(group);
            }
            if (error < 0) {
                KVLog::net().error("DNS-SD publishing of \"" + serviceName +
                                   "\" failed: " + avahi_strerror(error));
                avahi_entry_group_reset(group);
            }
            return;
        }
    }

    void renameAfterCollision() {
        std::lock_guard lock(mutex);
        char* alternative = avahi_alternative_service_name(name.c_str());
        KVLog::net().info("DNS-SD name \"" + name + "\" is taken; advertising as \"" + alternative +
                          "\"");
        name = alternative;
        avahi_free(alternative);
    }

    static void groupCallback(AvahiEntryGroup* group, AvahiEntryGroupState groupState, void* self) {
        auto& state = *static_cast<State*>(self);
        switch (groupState) {
        case AVAHI_ENTRY_GROUP_ESTABLISHED:
            state.setEstablished(true);
            break;
        case AVAHI_ENTRY_GROUP_COLLISION:
            state.setEstablished(false);
            state.renameAfterCollision();
            avahi_entry_group_reset(group);
            state.addService();
            break;
        case AVAHI_ENTRY_GROUP_FAILURE:
            state.setEstablished(false);
            KVLog::net().error("DNS-SD publishing failed: " +
                               std::string(avahi_strerror(
                                   avahi_client_errno(avahi_entry_group_get_client(group)))));
            break;
        case AVAHI_ENTRY_GROUP_UNCOMMITED:
        case AVAHI_ENTRY_GROUP_REGISTERING:
            break;
        }
    }
};

ServicePublisher::ServicePublisher(std::string name, std::uint16_t port,
                                   std::vector<std::string> txt, std::string type)
    : state_(std::make_unique<State>(std::move(name), port, std::move(txt), std::move(type))) {
}

ServicePublisher::~ServicePublisher() {
    withdraw();
}

void ServicePublisher::publish() {
    state_->connection.start();
}

void ServicePublisher::withdraw() noexcept {
    // Freeing the client takes its entries off the network.
    state_->connection.stop();
    state_->group = nullptr;
    state_->setEstablished(false);
}

std::string ServicePublisher::name() const {
    return state_->currentName();
}

bool ServicePublisher::isEstablished() const {
    std::lock_guard lock(state_->mutex);
    return state_->established;
}

} // namespace kestrelvane
