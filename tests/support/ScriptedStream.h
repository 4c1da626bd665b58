#pragma once

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <cstdint>
#include <deque>
#include <vector>

namespace kestrelvane::testing {

/// A stream whose receives return a fixed script of chunks, then `closed`; it
/// records every send and every receive's `max`. Single-threaded use.
class ScriptedStream final : public KestrelvaneStream {
public:
    explicit ScriptedStream(std::vector<Bytes> receiveScript = {});

    void start() override {}
    void send(ByteView data) override;
    Bytes receive(std::int64_t max) override;
    void close() noexcept override { ++closeCount; }

    std::vector<Bytes> sent;                 ///< each send's bytes, in order
    std::vector<std::int64_t> receiveMaxima; ///< each receive's max, in order
    int closeCount = 0;

private:
    std::deque<Bytes> script_;
};

} // namespace kestrelvane::testing
