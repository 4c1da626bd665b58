#pragma once

#include "KestrelvaneKit/receiving/BatchSaving.h"
#include "KestrelvaneKit/receiving/PartialStore.h"
#include "KestrelvaneKit/wire/Ack.h"
#include "KestrelvaneKit/wire/FrameChannel.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace kestrelvane {

/// The receiving half of a session: reads the session header, then file after
/// file a header and its raw bytes into a temporary file while hashing them,
/// hands verified files to the saver and acknowledges every file back.
///
/// The reader runs on the thread that calls run(); acknowledgements for the
/// saver's outcomes are written from a second thread as the outcomes arrive.
class TransferServer {
public:
    /// One acknowledged outcome of the saver.
    struct Event {
        std::string name;
        Ack ack;
        /// Acknowledged without bytes: the receiver already held the file.
        bool held = false;
    };
    using OnEvent = std::function<void(const Event&)>;

    /// The largest file accepted; a header announcing more ends the session.
    static constexpr std::uint64_t maxFileBytes = 8'589'934'592ull;
    /// Protocol messages are small; a frame announcing more ends the session
    /// before anything behind it is buffered.
    static constexpr std::uint64_t maxHeaderFrameBytes = FrameChannel::maxMessageBytes;
    /// File bytes are taken off the channel in pieces of at most this size.
    static constexpr std::int64_t pieceBytes = 1'048'576;

    /// `temporaryDirectory` defaults to the system's ($TMPDIR, else /tmp).
    explicit TransferServer(BatchSaving& saver, std::filesystem::path temporaryDirectory = {});

    /// Serves one session over a started channel and returns once it has ended
    /// and every outcome of the saver has been acknowledged (as far as the
    /// connection allows). Never throws; neither starts nor closes the channel.
    void run(FrameChannel& over, const OnEvent& onEvent) noexcept;

    /// Also tells `observer`, on the reader's thread, of every error
    /// acknowledgement the reader writes itself ("checksum mismatch", "could
    /// not open temp file"): those files never reach the saver, so run()'s
    /// observer does not hear of them. Set before run().
    void setOnRejected(OnEvent observer) { onRejected_ = std::move(observer); }

    /// Speaks the resume extension with a sender that announces it
    /// (docs/protocol.md), keeping partial files in `partials`. They are tied
    /// to `provenDevice`, the sender's fingerprint when the transport proved
    /// it, else to the one its session header gives. Set before run().
    void enableResume(PartialStore partials, std::optional<std::string> provenDevice = {});

private:
    /// Where the bytes of the file being received go, and what is known of them.
    struct Incoming;

    void runReader(FrameChannel& channel, const OnEvent& onEvent);
    /// One file of the resume extension: its offer, the holding, and then
    /// the file, if the receiver does not hold it already.
    /// An offer answered, whose file is still to come.
    struct Offered;

    /// Answers an offer of the resume extension with what the receiver
    /// holds; the file to expect, none when it is saved already.
    std::optional<Offered> answerOffer(FrameChannel& channel, const FileHeader& offer,
                                       const std::string& device, const OnEvent& onEvent);
    /// The file header and bytes that follow an answered offer.
    void receiveOffered(FrameChannel& channel, const FileHeader& header, Offered offered,
                        MutableByteView pieceBuffer, bool& sessionGoesOn);
    void receiveFile(FrameChannel& channel, const FileHeader& header, MutableByteView pieceBuffer,
                     bool& sessionGoesOn, Incoming incoming);
    std::filesystem::path temporaryFileFor(const std::string& name) const;
    /// Acknowledges the file as an error and tells onRejected_.
    void reject(FrameChannel& channel, const std::string& name, const char* message) noexcept;

    BatchSaving& saver_;
    std::filesystem::path temporaryDirectory_;
    OnEvent onRejected_;
    std::optional<PartialStore> partials_;
    std::optional<std::string> provenDevice_;
};

} // namespace kestrelvane
