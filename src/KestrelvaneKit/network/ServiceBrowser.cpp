#include "KestrelvaneKit/network/ServiceBrowser.h"

#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/network/AvahiConnection.h"

#include <algorithm>
#include <avahi-client/lookup.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <map>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>
#include <tuple>

namespace kestrelvane {
namespace {

/// Avahi reports a service once per interface and protocol; each is resolved on its own.
using EntryKey =
    std::tuple<AvahiIfIndex, AvahiProtocol, std::string, std::string>; // + name, domain

struct Entry {
    AvahiServiceResolver* resolver = nullptr;
    std::optional<DiscoveredService> resolved;
};

std::string addressText(const AvahiAddress& address, AvahiIfIndex interface) {
    char text[AVAHI_ADDRESS_STR_MAX];
    avahi_address_snprint(text, sizeof text, &address);
    std::string result = text;
    const bool linkLocal = address.proto == AVAHI_PROTO_INET6 &&
                           address.data.ipv6.address[0] == 0xfe &&
                           (address.data.ipv6.address[1] & 0xc0) == 0x80;
    char name[IF_NAMESIZE];
    if (linkLocal && interface >= 0 &&
        if_indextoname(static_cast<unsigned>(interface), name) != nullptr) {
        result += std::string("%") + name;
    }
    return result;
}

} // namespace

struct ServiceBrowser::State {
    State(OnChange change, std::string serviceType)
        : onChange(std::move(change)), type(std::move(serviceType)),
          connection("browsing", [this](AvahiClient* client, AvahiClientState clientState) {
              clientChanged(client, clientState);
          }) {}

    // Everything below is touched on the event thread only, or after it has ended.
    const OnChange onChange;
    const std::string type;
    AvahiServiceBrowser* browser = nullptr;
    std::map<EntryKey, Entry> entries;
    std::vector<DiscoveredService> reported;
    AvahiConnection connection; // last: its thread ends before the rest goes

    void clientChanged(AvahiClient* client, AvahiClientState clientState) {
        if (clientState == AVAHI_CLIENT_S_RUNNING) {
            if (browser == nullptr) {
                browser = avahi_service_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                    type.c_str(), nullptr, AvahiLookupFlags(0),
                                                    &State::browseCallback, this);
                if (browser == nullptr) {
                    KVLog::net().error(std::string("DNS-SD browsing failed: ") +
                                       avahi_strerror(avahi_client_errno(client)));
                }
            }
        } else if (clientState == AVAHI_CLIENT_FAILURE || clientState == AVAHI_CLIENT_CONNECTING) {
            // The daemon went away: what was found is no longer known.
            dropAll();
            publish();
        }
    }

    void dropAll() {
        for (auto& [key, entry] : entries) {
            if (entry.resolver != nullptr) {
                avahi_service_resolver_free(entry.resolver);
            }
        }
        entries.clear();
        if (browser != nullptr) {
            avahi_service_browser_free(browser);
            browser = nullptr;
        }
    }

    /// Hands the set over if it differs from the one handed over last.
    void publish() {
        std::map<std::pair<std::string, std::string>, DiscoveredService> byName;
        for (const auto& [key, entry] : entries) {
            if (!entry.resolved) {
                continue;
            }
            auto [it, fresh] =
                byName.try_emplace({entry.resolved->name, entry.resolved->domain}, *entry.resolved);
            if (!fresh) {
                auto& addresses = it->second.addresses;
                addresses.insert(addresses.end(), entry.resolved->addresses.begin(),
                                 entry.resolved->addresses.end());
            }
        }
        std::vector<DiscoveredService> services;
        for (auto& [name, service] : byName) {
            std::sort(service.addresses.begin(), service.addresses.end());
            service.addresses.erase(std::unique(service.addresses.begin(), service.addresses.end()),
                                    service.addresses.end());
            services.push_back(std::move(service));
        }
        if (services != reported) {
            reported = services;
            onChange(reported);
        }
    }

    static void browseCallback(AvahiServiceBrowser* browser, AvahiIfIndex interface,
                               AvahiProtocol protocol, AvahiBrowserEvent event, const char* name,
                               const char* type, const char* domain, AvahiLookupResultFlags,
                               void* self) {
        auto& state = *static_cast<State*>(self);
        switch (event) {
        case AVAHI_BROWSER_NEW: {
            Entry& entry = state.entries[EntryKey{interface, protocol, name, domain}];
            if (entry.resolver == nullptr) {
                entry.resolver = avahi_service_resolver_new(
                    avahi_service_browser_get_client(browser), interface, protocol, name, type,
                    domain, AVAHI_PROTO_UNSPEC, AvahiLookupFlags(0), &State::resolveCallback, self);
            }
            break;
        }
        case AVAHI_BROWSER_REMOVE: {
            const auto it = state.entries.find(EntryKey{interface, protocol, name, domain});
            if (it != state.entries.end()) {
                if (it->second.resolver != nullptr) {
                    avahi_service_resolver_free(it->second.resolver);
                }
                state.entries.erase(it);
                state.publish();
            }
            break;
        }
        case AVAHI_BROWSER_FAILURE:
            KVLog::net().error(
                std::string("DNS-SD browsing failed: ") +
                avahi_strerror(avahi_client_errno(avahi_service_browser_get_client(browser))));
            break;
        case AVAHI_BROWSER_ALL_FOR_NOW:
        case AVAHI_BROWSER_CACHE_EXHAUSTED:
            break;
        }
    }

    static std::map<std::string, std::string> txtOf(AvahiStringList* records) {
        std::map<std::string, std::string> txt;
        for (; records != nullptr; records = avahi_string_list_get_next(records)) {
            char* key = nullptr;
            char* value = nullptr;
            if (avahi_string_list_get_pair(records, &key, &value, nullptr) == 0) {
                txt[key] = value != nullptr ? value : "";
                avahi_free(key);
                avahi_free(value);
            }
        }
        return txt;
    }

    static void resolveCallback(AvahiServiceResolver* resolver, AvahiIfIndex interface,
                                AvahiProtocol protocol, AvahiResolverEvent event, const char* name,
                                const char*, const char* domain, const char* host,
                                const AvahiAddress* address, std::uint16_t port,
                                AvahiStringList* records, AvahiLookupResultFlags, void* self) {
        auto& state = *static_cast<State*>(self);
        const auto it = state.entries.find(EntryKey{interface, protocol, name, domain});
        if (it == state.entries.end()) {
            return;
        }
        if (event == AVAHI_RESOLVER_FOUND && address != nullptr) {
            it->second.resolved = DiscoveredService{name,
                                                    domain,
                                                    host != nullptr ? host : "",
                                                    {addressText(*address, interface)},
                                                    port,
                                                    txtOf(records)};
        } else {
            // A resolver that failed has ended; the service stays unknown until it comes again.
            avahi_service_resolver_free(resolver);
            it->second.resolver = nullptr;
            it->second.resolved.reset();
        }
        state.publish();
    }
};

ServiceBrowser::ServiceBrowser(OnChange onChange, std::string type)
    : state_(std::make_unique<State>(std::move(onChange), std::move(type))) {
}

ServiceBrowser::~ServiceBrowser() {
    stop();
}

void ServiceBrowser::start() {
    state_->connection.start();
}

void ServiceBrowser::stop() noexcept {
    state_->connection.stop(); // frees the browser and resolvers with the client
    state_->browser = nullptr;
    state_->entries.clear();
    state_->reported.clear();
}

} // namespace kestrelvane
