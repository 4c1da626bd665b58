#pragma once

#include "KestrelvaneKit/sending/Inflight.h"
#include "KestrelvaneKit/wire/Ack.h"
#include "KestrelvaneKit/wire/FrameChannel.h"
#include "KestrelvaneKit/wire/SessionHeader.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvane {

/// The sending engine: writes a session header, then every photo and video of
/// a batch as a header frame followed by its raw bytes, while a second thread
/// reads one acknowledgement per file from the same channel. The writer runs
/// ahead of the acknowledgements as far as the in-flight window allows, and
/// the next file is read and hashed while the current one is on the wire.
class TransferClient {
public:
    static constexpr std::int64_t defaultMaxInflightBytes = 209'715'200; // 200 MiB
    static constexpr std::int64_t defaultMinInflightFiles = 2;
    /// Acknowledgements are small; a frame announcing more is a broken or
    /// hostile receiver and fails the send before anything is buffered.
    static constexpr std::uint64_t maxAckFrameBytes = FrameChannel::maxMessageBytes;

    /// Handed to the caller once per acknowledgement, in arrival order.
    ///
    /// An acknowledgement settles the first file of the batch, in the order
    /// given, that has its name (compared under canonical equivalence, as a
    /// receiver may normalise the name it echoes) and is not settled yet. One
    /// naming no such file settles nothing.
    struct Progress {
        std::int64_t index = 0; ///< 0-based count of acknowledgements received so far
        std::int64_t total = 0; ///< files in the batch
        std::string fileName{};
        Ack ack{};
        /// The position in `files` of the file it settles; none when it settles none.
        std::optional<std::size_t> entry{};
        std::filesystem::path path{}; ///< that file
        std::uint64_t byteCount = 0;  ///< the bytes sent of it; 0 when none
        /// The bytes of it the receiver already held and were not sent
        /// (resume extension): all of them for a file it had saved, the
        /// beginning for one it resumed.
        std::uint64_t heldBytes = 0;
    };
    using OnProgress = std::function<void(const Progress&)>;
    /// The writer is about to put a file's bytes on the channel: the
    /// position in `files` of the file, the offset they start at (the bytes
    /// before it the receiver holds) and how many follow. Every byte the
    /// channel's stream carries after it, up to the next call, is the
    /// file's header frame and then these bytes.
    using OnWriting =
        std::function<void(std::size_t entry, std::uint64_t from, std::uint64_t byteCount)>;

    explicit TransferClient(std::int64_t maxInflightBytes = defaultMaxInflightBytes,
                            std::int64_t minInflightFiles = defaultMinInflightFiles);

    /// Sends the photos and videos among `files` (others are dropped) over a
    /// started channel and returns the acknowledgements received, in arrival
    /// order. An empty batch writes nothing. Fails with the first error of the
    /// writer or the reader (a file that cannot be read, a failed write, an
    /// acknowledgement that does not decode); both threads have ended by then,
    /// and after a failure the channel has been cancelled.
    /// `onProgress` is called from the reading thread, never concurrently with
    /// itself; `onWriting` from the writing thread.
    std::vector<Ack> send(const std::vector<std::filesystem::path>& files, FrameChannel& over,
                          const SessionHeader& session, const OnProgress& onProgress = {},
                          const OnWriting& onWriting = {});

    Inflight& inflight() noexcept { return *inflight_; }

private:
    std::shared_ptr<Inflight> inflight_;
};

} // namespace kestrelvane
