#include "KestrelvaneKit/session/SendRun.h"

#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/session/CountingStream.h"
#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/session/ExtendedStream.h"
#include "KestrelvaneKit/wire/FrameChannel.h"

namespace kestrelvane {

SendRun::SendRun(std::vector<std::filesystem::path> batch, SessionHeader session, Observer observer)
    : batch_(std::move(batch)), session_(std::move(session)), observer_(std::move(observer)) {
}

SendRun::Outcome SendRun::run(const Destination& destination, const std::optional<Trust>& trust) {
    return run(destination.connect(stop_.get_token(), trust));
}

SendRun::Outcome SendRun::run(const std::shared_ptr<KestrelvaneStream>& stream) {
    Outcome outcome;
    outcome.acks.resize(batch_.size());
    std::shared_ptr<KestrelvaneStream> counted = stream;
    if (observer_.sent) {
        counted = std::make_shared<CountingStream>(stream, observer_.sent);
    }
    const auto channel = std::make_shared<FrameChannel>(counted);
    {
        const std::lock_guard lock(mutex_);
        channel_ = channel;
        if (cancelled_) {
            channel->cancel();
        }
    }
    try {
        channel->start();
        SessionHeader session = session_;
        if (const auto* extended = dynamic_cast<const ExtendedStream*>(stream.get())) {
            session.resume = SessionHeader::resumeVersion;
            session.device = extended->device();
        }
        TransferClient().send(
            batch_, *channel, session,
            [&](const TransferClient::Progress& progress) {
                if (!progress.entry) {
                    if (observer_.stray) {
                        observer_.stray(progress.ack);
                    }
                    return;
                }
                outcome.acks[*progress.entry] = progress.ack;
                if (observer_.settled) {
                    observer_.settled({*progress.entry, progress.path, progress.byteCount,
                                       progress.ack, progress.heldBytes});
                }
            },
            observer_.writing);
    } catch (const std::exception& error) {
        outcome.brokeOff = error.what();
    }
    // Closed on every path, so that nothing stays parked on the connection.
    const std::lock_guard lock(mutex_);
    channel->cancel();
    channel_.reset();
    return outcome;
}

void SendRun::cancel() noexcept {
    stop_.request_stop();
    const std::lock_guard lock(mutex_);
    cancelled_ = true;
    if (channel_) {
        channel_->cancel();
    }
}

} // namespace kestrelvane
