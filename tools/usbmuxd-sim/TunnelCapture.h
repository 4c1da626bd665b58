#pragma once

#include "KestrelvaneKit/wire/FileDescriptor.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <filesystem>
#include <memory>
#include <string>

namespace kestrelvane::sim {

/// A phone's end of one tunnel that also writes every byte it carries to two
/// files in a folder: NAME.in, what the phone heard, and NAME.out, what it
/// said. It shows a phone-app writer (and the tests) exactly what a sender put
/// on the wire. Each byte is written as it passes, so the files are whole once
/// the conversation has ended.
class TunnelCapture : public ForwardingStream {
public:
    /// Creates (or truncates) `folder`/`name`.in and .out; throws
    /// std::system_error when it cannot.
    TunnelCapture(std::shared_ptr<KestrelvaneStream> inner, const std::filesystem::path& folder,
                  const std::string& name);

    void send(ByteView data) override;
    Bytes receive(std::int64_t max) override;
    std::size_t receiveInto(MutableByteView into) override;

private:
    FileDescriptor heard_;
    FileDescriptor said_;
};

} // namespace kestrelvane::sim
