#pragma once

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <memory>
#include <string>
#include <utility>

namespace kestrelvane {

/// A stream to a receiver known, before the session, to speak the resume
/// extension (docs/protocol.md): a send over it announces the extension, as
/// the device `device` (its fingerprint, 64 hex digits).
class ExtendedStream final : public ForwardingStream {
public:
    ExtendedStream(std::shared_ptr<KestrelvaneStream> inner, std::string device)
        : ForwardingStream(std::move(inner)), device_(std::move(device)) {}

    const std::string& device() const noexcept { return device_; }

private:
    const std::string device_;
};

} // namespace kestrelvane
