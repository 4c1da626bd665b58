#pragma once

#include "KestrelvaneKit/network/DeviceIdentity.h"
#include "KestrelvaneKit/wire/Timestamp.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvane {

/// A device this one has paired with.
struct PairedDevice {
    Fingerprint fingerprint;
    std::string name;        ///< the name it gave when pairing
    std::string destination; ///< what the pairing connected to; empty on the receiving end
    Timestamp pairedAt;

    /// Whether `text` (what a destination is written as) may mean this
    /// device: paired through that very text, or named so.
    bool answersTo(const std::string& text) const { return destination == text || name == text; }

    friend bool operator==(const PairedDevice&, const PairedDevice&) = default;
};

/// The devices this one trusts, kept in `peers.json` in the identity folder
/// (see PrivateFolder). Every call reads the file afresh, so a running
/// receiver sees a pairing or a forget at its next connection; changes are
/// made under an exclusive lock and land whole. Throws IdentityError when the
/// file cannot be read, parsed or written.
class PairedDevices {
public:
    explicit PairedDevices(std::filesystem::path folder);

    std::vector<PairedDevice> list() const;
    std::optional<PairedDevice> find(const Fingerprint& fingerprint) const;
    /// The devices `destination` may mean: paired through that very text, or
    /// named so.
    std::vector<PairedDevice> named(const std::string& destination) const;
    /// Adds `device` in place of those with its fingerprint, its name or its
    /// (non-empty) destination; returns those it replaced.
    std::vector<PairedDevice> add(const PairedDevice& device);
    /// The devices named `nameOrPrefix`, or whose fingerprint begins with it
    /// (8 hex digits at least); removed when there is exactly one.
    std::vector<PairedDevice> forget(const std::string& nameOrPrefix);

private:
    template <class Change> void update(Change change);

    std::filesystem::path folder_;
};

} // namespace kestrelvane
