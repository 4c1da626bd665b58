#pragma once

#include "KestrelvaneKit/network/DeviceIdentity.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/network/TlsStream.h"
#include "support/TemporaryFolder.h"

#include <future>
#include <memory>
#include <optional>
#include <string>

namespace kestrelvane::testing {

/// Device identities made once per test program, each in a folder of its
/// own: "alice", "bob" and "mallory" are three devices.
inline const DeviceIdentity& testIdentity(const std::string& name) {
    static TemporaryFolder folder;
    static const DeviceIdentity alice = DeviceIdentity::loadOrCreate(folder.path() / "alice");
    static const DeviceIdentity bob = DeviceIdentity::loadOrCreate(folder.path() / "bob");
    static const DeviceIdentity mallory = DeviceIdentity::loadOrCreate(folder.path() / "mallory");
    return name == "alice" ? alice : name == "bob" ? bob : mallory;
}

/// Two TLS streams over loopback, the client of device `client` connected
/// to the server of device `server`, both started (handshake done).
struct TlsPair {
    std::shared_ptr<TcpListener> listener;
    std::shared_ptr<TlsStream> client, server;
};

inline TlsPair connectedOverTls(const std::string& client = "alice",
                                const std::string& server = "bob") {
    TlsPair pair{std::make_shared<TcpListener>(0, TcpListener::Scope::loopback), nullptr, nullptr};
    pair.client = std::make_shared<TlsStream>(
        std::make_shared<TcpConnection>("127.0.0.1", pair.listener->port()),
        TlsStream::Role::client, testIdentity(client));
    auto handshake = std::async(std::launch::async, [&pair] { pair.client->start(); });
    pair.server = std::make_shared<TlsStream>(pair.listener->accept(), TlsStream::Role::server,
                                              testIdentity(server));
    pair.server->start();
    handshake.get();
    return pair;
}

} // namespace kestrelvane::testing
