#include "KestrelvaneKit/session/ReceiverService.h"

#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/DeviceIdentity.h"
#include "KestrelvaneKit/network/PrivateFolder.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/receiving/FolderSaver.h"
#include "KestrelvaneKit/receiving/TransferServer.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <system_error>

namespace kestrelvane {
namespace {

/// The connection's stream, remembering the transport error that ended it, so
/// that the session's report can say why (the engine never throws).
class WatchedStream final : public ForwardingStream {
public:
    explicit WatchedStream(std::shared_ptr<KestrelvaneStream> inner)
        : ForwardingStream(std::move(inner)) {}

    void send(ByteView data) override {
        watch([&] { inner_->send(data); });
    }
    Bytes receive(std::int64_t max) override {
        Bytes bytes;
        watch([&] { bytes = inner_->receive(max); });
        return bytes;
    }
    std::size_t receiveInto(MutableByteView into) override {
        std::size_t count = 0;
        watch([&] { count = inner_->receiveInto(into); });
        return count;
    }
    std::optional<std::string> failure() const {
        const std::lock_guard lock(mutex_);
        return failure_;
    }

private:
    template <class Call> void watch(const Call& call) {
        try {
            call();
        } catch (const StreamError&) {
            throw; // the peer's end, or this side's own close
        } catch (const std::exception& error) {
            const std::lock_guard lock(mutex_);
            const auto* system = dynamic_cast<const std::system_error*>(&error);
            // A cancel is this side's own stop, reported as such elsewhere.
            if (!failure_ && !(system && system->code() == std::errc::operation_canceled)) {
                failure_ = error.what();
            }
            throw;
        }
    }

    mutable std::mutex mutex_;
    std::optional<std::string> failure_;
};

} // namespace

ReceiverService::ReceiverService(Options options, OnReport onReport)
    : options_([&] {
          // Over TLS the receiver offers the resume extension when it has
          // somewhere to keep partial files.
          if (options.policy) {
              options.policy->resume = options.partials.has_value();
          }
          return std::move(options);
      }()),
      onReport_(std::move(onReport)) {
}

std::filesystem::path ReceiverService::defaultPartialsFolder() {
    const char* cache = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    std::filesystem::path folder;
    if (cache != nullptr && cache[0] == '/') {
        folder = std::filesystem::path(cache) / "kestrelvane/partials";
    } else if (home != nullptr && home[0] == '/') {
        folder = std::filesystem::path(home) / ".cache/kestrelvane/partials";
    } else {
        throw IdentityError("neither XDG_CACHE_HOME nor HOME names a folder for partial files");
    }
    return PrivateFolder(folder).path();
}

ReceiverService::~ReceiverService() {
    stop();
    joinThreads(true);
}

void ReceiverService::report(const Report& report) {
    if (onReport_) {
        const std::lock_guard lock(reportMutex_);
        onReport_(report);
    }
}

std::optional<int> ReceiverService::admit(const std::shared_ptr<KestrelvaneStream>& stream) {
    bool full = false;
    {
        const std::lock_guard lock(mutex_);
        const auto open = std::count_if(sessions_.begin(), sessions_.end(), [](const auto& entry) {
            return entry.second.stream != nullptr;
        });
        if (!stopping_ && static_cast<std::size_t>(open) < options_.maxSessions) {
            sessions_[nextNumber_].stream = stream;
            return nextNumber_++;
        }
        full = !stopping_;
    }
    // Closed rather than left waiting: the sender learns at once, and a flood
    // of connections holds neither threads nor descriptors.
    stream->close();
    if (full) {
        report({.kind = Report::Kind::refused});
    }
    return std::nullopt;
}

bool ReceiverService::roomToAdmit() {
    // Strangers still being admitted may hold at most half the places, so
    // that paired senders find one.
    const std::lock_guard lock(mutex_);
    return !options_.policy || admitting_ < std::max<std::size_t>(1, options_.maxSessions / 2);
}

void ReceiverService::release(int number) {
    const std::lock_guard lock(mutex_);
    const auto session = sessions_.find(number);
    if (session->second.thread.joinable()) {
        session->second.stream = nullptr; // its thread is joined later
    } else {
        sessions_.erase(session);
    }
}

void ReceiverService::joinThreads(bool all) {
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(mutex_);
        for (auto& [number, session] : sessions_) {
            if (session.thread.joinable() && (all || !session.stream)) {
                threads.push_back(std::move(session.thread));
            }
        }
        std::erase_if(sessions_, [](const auto& entry) { return !entry.second.stream; });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

void ReceiverService::serve(const std::shared_ptr<KestrelvaneStream>& stream, bool resume) {
    if (const auto number = admit(stream)) {
        runSession(stream, *number, {}, resume ? std::optional<std::string>("") : std::nullopt);
    }
}

std::shared_ptr<KestrelvaneStream>
ReceiverService::admitted(const std::shared_ptr<TcpConnection>& connection,
                          std::shared_ptr<KestrelvaneStream> clear, int number, std::string& peer,
                          std::optional<std::string>& resumeDevice) {
    if (!options_.policy) {
        return clear;
    }
    const PrivateLink::Admitted outcome = PrivateLink::fromSender(connection, *options_.policy);
    {
        const std::lock_guard lock(mutex_);
        --admitting_;
        if (outcome.stream && sessions_.count(number) != 0) {
            sessions_[number].stream = outcome.stream; // what stop() closes from now on
        }
    }
    if (outcome.paired) {
        report({.kind = Report::Kind::paired,
                .session = number,
                .name = outcome.paired->name,
                .message = outcome.paired->fingerprint.grouped()});
    }
    if (!outcome.refusal.empty()) {
        report({.kind = Report::Kind::refused,
                .session = number,
                .message = outcome.peer + ": " + outcome.refusal});
    }
    peer = outcome.peer;
    resumeDevice = outcome.resumeDevice;
    return outcome.stream;
}

void ReceiverService::runSession(const std::shared_ptr<KestrelvaneStream>& inner, int number,
                                 const std::string& peer,
                                 const std::optional<std::string>& resumeDevice) {
    const auto stream = std::make_shared<WatchedStream>(inner);
    FrameChannel channel(stream);
    // The saver's outcomes arrive on the acknowledgement writer's thread, the
    // files the engine turned away itself on this one.
    std::atomic<int> saved{0};
    std::atomic<int> failed{0};
    const auto onFile = [&](const TransferServer::Event& event) {
        const bool ok = event.ack.status == Ack::Status::ok;
        ++(ok ? saved : failed);
        report({.kind = ok ? Report::Kind::saved : Report::Kind::failed,
                .session = number,
                .name = event.name,
                .message = ok ? std::string() : event.ack.message.value_or("?")});
    };
    try {
        channel.start();
        report({.kind = Report::Kind::connected, .session = number, .message = peer});
        std::unique_ptr<BatchSaving> saver;
        if (options_.folder) {
            saver = std::make_unique<FolderSaver>(*options_.folder);
        } else {
            saver = std::make_unique<DiscardingSaver>([](const auto&, const auto&) {});
        }
        TransferServer server(*saver, scratch_.path());
        server.setOnRejected(onFile);
        if (resumeDevice && options_.partials) {
            server.enableResume(PartialStore(*options_.partials),
                                resumeDevice->empty() ? std::nullopt : resumeDevice);
        }
        server.run(channel, onFile);
    } catch (const std::exception& error) {
        report({.kind = Report::Kind::broken, .session = number, .message = error.what()});
    }
    if (const auto failure = stream->failure()) {
        report({.kind = Report::Kind::broken, .session = number, .message = *failure});
    }
    channel.cancel();
    release(number);
    report({.kind = Report::Kind::ended,
            .session = number,
            .saved = saved.load(),
            .failed = failed.load()});
}

void ReceiverService::run(TcpListener& listener, bool once) {
    {
        const std::lock_guard lock(mutex_);
        listener_ = &listener;
        if (stopping_) {
            listener.stop();
        }
    }
    std::exception_ptr failure;
    for (;;) {
        std::shared_ptr<KestrelvaneStream> stream;
        std::optional<int> number;
        try {
            const std::shared_ptr<TcpConnection> connection = listener.accept();
            if (!connection) {
                break;
            }
            connection->setIdleTimeout(options_.idleTimeout);
            stream = std::make_shared<BonjourStream>(connection);
            if (!roomToAdmit()) {
                stream->close();
                report({.kind = Report::Kind::refused,
                        .message = "too many connections waiting to be admitted"});
                continue;
            }
            number = admit(stream);
            if (!number) {
                continue;
            }
            joinThreads(false);
            // Under the lock: the session cannot be released before its thread is listed.
            const std::lock_guard lock(mutex_);
            admitting_ += options_.policy ? 1 : 0;
            sessions_[*number].thread = std::thread([this, &listener, connection, stream, number,
                                                     once] {
                std::string peer;
                std::optional<std::string> resumeDevice;
                if (const auto served = admitted(connection, stream, *number, peer, resumeDevice)) {
                    runSession(served, *number, peer, resumeDevice);
                } else {
                    release(*number);
                }
                if (once) {
                    listener.stop();
                }
            });
        } catch (...) { // accepting failed, or no thread could be had
            if (number) {
                stream->close();
                release(*number);
            }
            failure = std::current_exception();
            break;
        }
        if (once) {
            break;
        }
    }
    if (failure) {
        stop(); // nothing more will come
    }
    joinThreads(true);
    {
        const std::lock_guard lock(mutex_);
        listener_ = nullptr;
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void ReceiverService::stop() noexcept {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    if (listener_ != nullptr) {
        listener_->stop();
    }
    for (const auto& [number, session] : sessions_) {
        if (session.stream) {
            session.stream->close();
        }
    }
}

} // namespace kestrelvane
