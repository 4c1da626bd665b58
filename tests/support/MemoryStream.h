#pragma once

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <cstddef>
#include <memory>
#include <utility>

namespace kestrelvane::testing {

/// Both directions of an in-memory connection.
struct MemoryLink;

/// One end of a connected in-memory stream pair. send() never blocks; receive()
/// waits for the peer's bytes. close() on either end ends both directions for
/// this end and lets the peer read what was already sent, then `closed`.
class MemoryStream final : public KestrelvaneStream {
public:
    MemoryStream(std::shared_ptr<MemoryLink> link, int side);
    ~MemoryStream() override;

    void start() override {}
    void send(ByteView data) override;
    Bytes receive(std::int64_t max) override;
    void close() noexcept override;
    /// Half-close: the peer reads what was sent, then `closed`; this end can still receive.
    void finishSending() noexcept;

    /// Bytes the peer has sent that this end has not yet received.
    std::size_t pendingBytes() const;

private:
    const std::shared_ptr<MemoryLink> link_;
    const int side_; // 0 or 1; the peer is the other
};

/// Two connected ends; each receive hands out everything buffered, up to its max.
std::pair<std::shared_ptr<MemoryStream>, std::shared_ptr<MemoryStream>> makeMemoryStreamPair();

} // namespace kestrelvane::testing
