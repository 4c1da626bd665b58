#include "support/ScriptedReceiver.h"

#include "KestrelvaneKit/wire/FrameCodec.h"

namespace kestrelvane::testing {

ScriptedReceiver::ScriptedReceiver(std::shared_ptr<KestrelvaneStream> stream, bool autoAck)
    : channel_(std::move(stream)), autoAck_(autoAck), thread_([this] { run(); }) {
}

ScriptedReceiver::~ScriptedReceiver() {
    channel_.cancel();
    thread_.join();
}

void ScriptedReceiver::run() {
    try {
        const Bytes sessionFrame = channel_.receiveFrame(FrameChannel::maxMessageBytes);
        {
            const std::lock_guard lock(mutex_);
            wireLog_.push_back(FrameCodec::encode(sessionFrame));
        }
        while (true) {
            const Bytes headerFrame = channel_.receiveFrame(FrameChannel::maxMessageBytes);
            const auto header = WireMessage::decode<FileHeader>(headerFrame);
            Bytes bytes(header.byteCount);
            channel_.receiveRawInto(bytes);
            {
                const std::lock_guard lock(mutex_);
                wireLog_.push_back(FrameCodec::encode(headerFrame));
                wireLog_.push_back(std::move(bytes));
                ++files_;
            }
            changed_.notify_all();
            if (autoAck_) {
                sendAck(Ack{.name = header.name, .status = Ack::Status::ok});
            }
        }
    } catch (...) {
        // The sender closed, or sent something this receiver cannot read.
    }
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
    }
    changed_.notify_all();
}

bool ScriptedReceiver::waitForFiles(std::size_t count, std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] { return files_ >= count; });
}

bool ScriptedReceiver::waitForEnd(std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] { return ended_; });
}

std::size_t ScriptedReceiver::fileCount() const {
    const std::lock_guard lock(mutex_);
    return files_;
}

std::vector<Bytes> ScriptedReceiver::wireLog() const {
    const std::lock_guard lock(mutex_);
    return wireLog_;
}

} // namespace kestrelvane::testing
