#pragma once

#include "KestrelvaneKit/network/DeviceIdentity.h"
#include "support/TemporaryFolder.h"

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

} // namespace kestrelvane::testing
