#pragma once

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

namespace kestrelvane::testing {

/// How an in-memory stream hands out what it has received.
enum class ReceiveMode {
    whatIsThere,    ///< everything buffered, up to max
    oneByteAtATime, ///< one byte per receive
};

/// Both directions of an in-memory connection.
struct MemoryLink;

/// One end of a connected in-memory stream pair. send() never blocks; receive()
/// waits for the peer's bytes. close() on either end ends both directions for
/// this end and lets the peer read what was already sent, then `closed`.
class MemoryStream final : public KestrelvaneStream {
public:
    MemoryStream(std::shared_ptr<MemoryLink> link, int side, ReceiveMode mode);
    ~MemoryStream() override;

    void start() override {}
    void send(ByteView data) override;
    Bytes receive(std::int64_t max) override;
    void close() noexcept override;
    /// Half-close: the peer reads what was sent, then `closed`; this end can still receive.
    void finishSending() noexcept;

    /// Bytes the peer has sent that this end has not yet received.
    std::size_t pendingBytes() const;

    std::size_t receiveCount() const noexcept { return receives_.load(); }

private:
    const std::shared_ptr<MemoryLink> link_;
    const int side_; // 0 or 1; the peer is the other
    const ReceiveMode mode_;
    std::atomic<std::size_t> receives_{0};
};

/// Two connected ends; `firstMode` and `secondMode` say how each end receives.
std::pair<std::shared_ptr<MemoryStream>, std::shared_ptr<MemoryStream>>
makeMemoryStreamPair(ReceiveMode firstMode = ReceiveMode::whatIsThere,
                     ReceiveMode secondMode = ReceiveMode::whatIsThere);

} // namespace kestrelvane::testing
