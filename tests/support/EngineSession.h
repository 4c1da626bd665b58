#pragma once

#include "KestrelvaneKit/receiving/FolderSaver.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "KestrelvaneKit/wire/WireMessage.h"
#include "support/FailingSaver.h"
#include "support/FailingStream.h"
#include "support/MemoryStream.h"
#include "support/ScopedLogSink.h"
#include "support/ScriptedReceiver.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kestrelvane::testing {

/// Whose end of the connection something happens on.
enum class Side { sender, receiver };

/// How the two ends of a session are joined.
struct Link {
    enum class Kind { memory, socketPair };
    Kind kind = Kind::memory;
    /// Where the connection drops, if it does, and on whose end.
    std::optional<FailingStream::Cut> cut{};
    Side cutSide = Side::sender;
};

/// The names of the entries (sender's progress or receiver's events) acknowledged "ok".
template <class Entries> std::set<std::string> okNames(const Entries& entries) {
    std::set<std::string> names;
    for (const auto& entry : entries) {
        if (entry.ack.status == Ack::Status::ok) {
            names.insert(entry.ack.name);
        }
    }
    return names;
}

/// One session, each side played by its engine on a thread of its own
/// (serve(), send()) or by the test (sender(), receiver()), with the log kept
/// in memory. Every wait has a deadline: once it has passed, both ends are
/// closed so that nothing blocked on the connection (the test included) hangs,
/// and finish() says so.
class EngineSession {
public:
    static constexpr auto deadline = std::chrono::seconds(30);

    explicit EngineSession(const Link& link = {});
    ~EngineSession();
    EngineSession(const EngineSession&) = delete;
    EngineSession& operator=(const EngineSession&) = delete;

    /// The receiving engine into a FolderSaver at `destination`, behind a
    /// FailingSaver with `cue`; its temporary files in `scratch`.
    void serveFolder(const std::filesystem::path& destination, const std::filesystem::path& scratch,
                     const FailingSaver::Cue& cue = {});
    /// The sending engine, as `client`.
    void send(std::vector<std::filesystem::path> files, const SessionHeader& session = {});
    /// serveFolder(), send() and finish().
    bool sendToFolder(std::vector<std::filesystem::path> files,
                      const std::filesystem::path& destination,
                      const std::filesystem::path& scratch, const FailingSaver::Cue& cue = {},
                      const SessionHeader& session = {});
    TransferClient client;
    /// Where serveFolder()'s receiver keeps partial files; with one, it
    /// speaks the resume extension to a sender that announces it.
    std::optional<std::filesystem::path> partials;

    /// The sender's channel, for a test that plays the sender.
    FrameChannel& sender() { return senderChannel_; }
    /// The receiver's channel, for a test that plays a receiver frame by frame.
    FrameChannel& receiverChannel() { return receiverChannel_; }
    /// A receiver played by the test.
    ScriptedReceiver& receiver(bool autoAck);

    /// Half-closes `side`'s end: the peer reads what was sent, then the end.
    void endSending(Side side);
    /// `side`'s end as connected, below any cut.
    MemoryStream& memoryEnd(Side side) {
        return dynamic_cast<MemoryStream&>(*ends_.raw[static_cast<int>(side)]);
    }

    /// Waits for the engines started to return; false when one had not by
    /// the deadline.
    bool finish();
    bool wasCut() const { return ends_.failing && ends_.failing->hasCut(); }

    /// What the send returned, or the message of what it threw.
    std::vector<Ack> returned;
    std::optional<std::string> error;
    std::vector<TransferClient::Progress> progress() const;
    std::vector<TransferServer::Event> events() const;
    /// Names of the acknowledgements reported by the sender's progress, or by
    /// the receiver's events, with status ok.
    std::set<std::string> reportedOk() const { return okNames(progress()); }
    std::set<std::string> receiverOk() const { return okNames(events()); }
    /// Those of `files` the sender was not told are saved, in order: what a resend sends.
    std::vector<std::filesystem::path>
    notReportedOk(const std::vector<std::filesystem::path>& files) const;

    ScopedLogSink log;

private:
    struct Ends {
        std::shared_ptr<KestrelvaneStream> raw[2], used[2];
        std::shared_ptr<FailingStream> failing;
        int fds[2] = {-1, -1};
    };
    static Ends connect(const Link& link);
    explicit EngineSession(Ends ends);
    void closeBoth() noexcept;
    void waitForEngines();

    const Ends ends_;
    FrameChannel senderChannel_;
    FrameChannel receiverChannel_;
    std::unique_ptr<ScriptedReceiver> scripted_;
    std::optional<FolderSaver> folder_;
    std::optional<FailingSaver> faulty_;
    mutable std::mutex mutex_;
    std::vector<TransferClient::Progress> progress_;
    std::vector<TransferServer::Event> events_;
    std::future<void> sent_, served_;
    std::atomic<bool> timedOut_{false};
    std::jthread watchdog_;
};

/// A message as it goes on the wire.
template <class Message> Bytes frameOf(const Message& message) {
    return FrameCodec::encode(WireMessage::encode(message));
}

/// The names of the regular files under `folder`, relative to it, sorted.
std::vector<std::string> filesUnder(const std::filesystem::path& folder);
/// The files under `copies` that are not byte for byte the file of the same
/// name under `originals`.
std::vector<std::string> filesNotAsIn(const std::filesystem::path& copies,
                                      const std::filesystem::path& originals);

} // namespace kestrelvane::testing
