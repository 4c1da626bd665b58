#pragma once

#include "KestrelvaneKit/network/KestrelvaneService.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestrelvane {

/// One advertised service as DNS-SD resolves it.
struct DiscoveredService {
    std::string name;                   ///< the instance name, e.g. "Anna's iPhone"
    std::string domain;                 ///< usually "local"
    std::string host;                   ///< the target host, e.g. "annas-iphone.local"
    std::vector<std::string> addresses; ///< numeric, sorted; IPv6 link-local with "%interface"
    std::uint16_t port = 0;
    std::map<std::string, std::string> txt{}; ///< the TXT record's keys and values

    friend bool operator==(const DiscoveredService&, const DiscoveredService&) = default;
};

/// Browses DNS-SD (through the Avahi daemon) for one service type and hands the
/// complete current set of resolved services, sorted by name, to a callback at
/// every change. The callback runs on the browser's own thread, one call at a
/// time, and must not call start() or stop().
///
/// Without a reachable Avahi daemon the browser logs that once and finds
/// nothing; it picks the daemon up when it appears.
class ServiceBrowser {
public:
    using OnChange = std::function<void(const std::vector<DiscoveredService>& services)>;

    explicit ServiceBrowser(OnChange onChange,
                            std::string type = std::string(KestrelvaneService::type));
    ~ServiceBrowser();
    ServiceBrowser(const ServiceBrowser&) = delete;
    ServiceBrowser& operator=(const ServiceBrowser&) = delete;

    /// Begins browsing; does nothing while browsing.
    void start();
    /// Ends browsing; no callback runs after it returns.
    void stop() noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace kestrelvane
