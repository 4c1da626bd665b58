#pragma once

#include "KestrelvaneKit/wire/Ack.h"
#include "KestrelvaneKit/wire/FrameChannel.h"
#include "KestrelvaneKit/wire/WireMessage.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrelvane::testing {

/// A receiver for sending-side tests: on its own thread it reads the session
/// header and then every file header with its raw bytes, keeping all of it.
/// With `autoAck` it answers each file "ok" as soon as its bytes are in;
/// otherwise the test answers with sendAck() when it chooses.
class ScriptedReceiver {
public:
    ScriptedReceiver(std::shared_ptr<KestrelvaneStream> stream, bool autoAck);
    ~ScriptedReceiver();

    /// Waits (up to `deadline`) until `count` files have been read completely.
    bool waitForFiles(std::size_t count,
                      std::chrono::milliseconds deadline = std::chrono::seconds(30));
    /// Waits (up to `deadline`) until the sender's side has ended.
    bool waitForEnd(std::chrono::milliseconds deadline = std::chrono::seconds(30));

    void sendAck(const Ack& ack) { channel_.sendFrame(WireMessage::encode(ack)); }
    void sendFrame(ByteView payload) { channel_.sendFrame(payload); }
    void sendRaw(const Bytes& bytes) { channel_.sendRaw(bytes); }
    /// Closes the connection in both directions.
    void closeConnection() { channel_.cancel(); }

    std::size_t fileCount() const;
    /// Every frame and raw run as it came off the connection, in order.
    std::vector<Bytes> wireLog() const;

private:
    void run();

    FrameChannel channel_;
    const bool autoAck_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t files_ = 0;
    std::vector<Bytes> wireLog_;
    bool ended_ = false;
    std::jthread thread_;
};

} // namespace kestrelvane::testing
