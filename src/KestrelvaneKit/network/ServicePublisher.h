#pragma once

#include "KestrelvaneKit/network/KestrelvaneService.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrelvane {

/// Advertises a receiver over DNS-SD (through the Avahi daemon) under a name
/// and port until withdrawn. When the name is taken on the network the next
/// free variant ("Name #2") is used instead.
///
/// Without a reachable Avahi daemon the publisher logs that once and
/// advertises as soon as a daemon appears.
class ServicePublisher {
public:
    /// `txt`: the TXT record's "key=value" strings.
    ServicePublisher(std::string name, std::uint16_t port, std::vector<std::string> txt = {},
                     std::string type = std::string(KestrelvaneService::type));
    /// Withdraws the advertisement.
    ~ServicePublisher();
    ServicePublisher(const ServicePublisher&) = delete;
    ServicePublisher& operator=(const ServicePublisher&) = delete;

    /// Begins advertising; does nothing while advertising.
    void publish();
    /// Takes the advertisement off the network.
    void withdraw() noexcept;

    /// The name advertised (it differs from the one asked for after a clash).
    std::string name() const;
    /// Whether the daemon has confirmed the advertisement.
    bool isEstablished() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace kestrelvane
