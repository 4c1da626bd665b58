#pragma once

#include "KestrelvaneKit/session/PrivateLink.h"
#include "KestrelvaneKit/wire/Ack.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"
#include "KestrelvaneKit/wire/SessionHeader.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace kestrelvane {

class FrameChannel;
struct Destination;

/// One send of a batch over a connection: runs the sending engine and tells,
/// for each acknowledgement, which file of the batch it settles, and every
/// byte as it is written, so that no front end matches names itself.
class SendRun {
public:
    /// An acknowledgement and the file it settled.
    struct Settled {
        std::size_t index = 0; ///< the file's position in the batch
        std::filesystem::path path{};
        std::uint64_t byteCount = 0; ///< the bytes sent of it
        Ack ack{};
        /// The bytes of it the receiver already held, not sent: all of them
        /// for a file it had saved, the beginning of one it resumed.
        std::uint64_t heldBytes = 0;
    };
    /// Called from the run's threads: `settled` and `stray` from the one
    /// reading acknowledgements, `sent` from the one writing.
    struct Observer {
        std::function<void(const Settled&)> settled{};
        /// An acknowledgement that settles no file (a name never sent, or
        /// one already settled).
        std::function<void(const Ack&)> stray{};
        std::function<void(std::uint64_t bytes)> sent{};
        /// The file at `index` of the batch goes on the wire next: `byteCount`
        /// bytes of it from offset `from`. The bytes `sent` reports after it
        /// are its header and then these, until the next call.
        std::function<void(std::size_t index, std::uint64_t from, std::uint64_t byteCount)>
            writing{};
    };
    struct Outcome {
        /// Per file of the batch, the acknowledgement that settled it.
        std::vector<std::optional<Ack>> acks{};
        /// Why the transfer ended before its end, in words for people.
        std::optional<std::string> brokeOff{};
    };

    SendRun(std::vector<std::filesystem::path> batch, SessionHeader session, Observer observer);
    SendRun(const SendRun&) = delete;
    SendRun& operator=(const SendRun&) = delete;

    /// Sends the batch over `stream` (started here if it is not yet) and
    /// closes it. Returns when every file is settled or the transfer has
    /// broken off; never throws for the transfer's own failures.
    Outcome run(const std::shared_ptr<KestrelvaneStream>& stream);
    /// Connects to `destination` first (with `trust`, a network receiver over
    /// TLS, see Destination::connect), then as run(stream). Throws
    /// ConnectError when no connection is made; cancel() stops one being made.
    Outcome run(const Destination& destination, const std::optional<Trust>& trust = {});
    /// From any thread: ends the run by closing its connection, at once if it
    /// is under way, as soon as it starts otherwise.
    void cancel() noexcept;

private:
    const std::vector<std::filesystem::path> batch_;
    const SessionHeader session_;
    const Observer observer_;
    std::mutex mutex_; // guards channel_ and cancelled_
    std::shared_ptr<FrameChannel> channel_;
    bool cancelled_ = false;
    std::stop_source stop_; // ends a connection still being made
};

} // namespace kestrelvane
