#include "KestrelvaneKit/session/ReceiverService.h"

#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/receiving/FolderSaver.h"
#include "KestrelvaneKit/receiving/TransferServer.h"

#include <atomic>
#include <system_error>

namespace kestrelvane {
namespace {

/// The connection's stream, remembering the transport error that ended it, so
/// that the session's report can say why (the engine never throws).
class WatchedStream final : public KestrelvaneStream {
public:
    explicit WatchedStream(std::shared_ptr<KestrelvaneStream> inner) : inner_(std::move(inner)) {}

    void start() override { inner_->start(); }
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
    void close() noexcept override { inner_->close(); }

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

    const std::shared_ptr<KestrelvaneStream> inner_;
    mutable std::mutex mutex_;
    std::optional<std::string> failure_;
};

} // namespace

/// The session threads, each joined soon after its session has ended, so that
/// threads and descriptors stay bounded however many connections come and go.
class ReceiverService::SessionThreads {
public:
    ~SessionThreads() { joinAll(); }

    void start(std::function<void()> work) {
        reap();
        const std::lock_guard lock(mutex_);
        const int id = nextId_++;
        // Under the lock: the thread cannot report itself finished before it is listed.
        running_.emplace(id, std::thread([this, id, work = std::move(work)]() mutable {
                             work();
                             work = nullptr; // its connection goes now, not at the join
                             const std::lock_guard done(mutex_);
                             finished_.push_back(id);
                         }));
    }

    /// Joins the threads whose sessions have ended.
    void reap() {
        std::vector<std::thread> ended;
        {
            const std::lock_guard lock(mutex_);
            for (const int id : finished_) {
                if (const auto found = running_.find(id); found != running_.end()) {
                    ended.push_back(std::move(found->second));
                    running_.erase(found);
                }
            }
            finished_.clear();
        }
        for (auto& thread : ended) {
            thread.join();
        }
    }

    void joinAll() {
        std::map<int, std::thread> all;
        {
            const std::lock_guard lock(mutex_);
            all.swap(running_);
            finished_.clear();
        }
        for (auto& [id, thread] : all) {
            thread.join();
        }
    }

private:
    std::mutex mutex_;
    std::map<int, std::thread> running_;
    std::vector<int> finished_; // ended, not yet joined
    int nextId_ = 0;
};

ReceiverService::ReceiverService(Options options, OnReport onReport)
    : options_(std::move(options)), onReport_(std::move(onReport)),
      threads_(std::make_unique<SessionThreads>()) {
}

ReceiverService::~ReceiverService() {
    stop();
    threads_->joinAll();
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
        if (!stopping_ && open_.size() < options_.maxSessions) {
            open_.insert(stream);
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

void ReceiverService::release(const std::shared_ptr<KestrelvaneStream>& stream) {
    const std::lock_guard lock(mutex_);
    open_.erase(stream);
}

void ReceiverService::serve(const std::shared_ptr<KestrelvaneStream>& stream) {
    if (const auto number = admit(stream)) {
        runSession(stream, *number);
    }
}

void ReceiverService::runSession(const std::shared_ptr<KestrelvaneStream>& inner, int number) {
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
        report({.kind = Report::Kind::connected, .session = number});
        std::unique_ptr<BatchSaving> saver;
        if (options_.folder) {
            saver = std::make_unique<FolderSaver>(*options_.folder);
        } else {
            saver = std::make_unique<DiscardingSaver>([](const auto&, const auto&) {});
        }
        TransferServer server(*saver, scratch_.path());
        server.setOnRejected(onFile);
        server.run(channel, onFile);
    } catch (const std::exception& error) {
        report({.kind = Report::Kind::broken, .session = number, .message = error.what()});
    }
    if (const auto failure = stream->failure()) {
        report({.kind = Report::Kind::broken, .session = number, .message = *failure});
    }
    channel.cancel();
    release(inner);
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
        try {
            const std::shared_ptr<TcpConnection> connection = listener.accept();
            if (!connection) {
                break;
            }
            connection->setIdleTimeout(options_.idleTimeout);
            stream = std::make_shared<BonjourStream>(connection);
            const auto number = admit(stream);
            if (!number) {
                continue;
            }
            threads_->start([this, &listener, stream, number = *number, once] {
                runSession(stream, number);
                if (once) {
                    listener.stop();
                }
            });
        } catch (...) { // accepting failed, or no thread could be had
            if (stream) {
                stream->close();
                release(stream);
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
    threads_->joinAll();
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
    for (const auto& stream : open_) {
        stream->close();
    }
}

} // namespace kestrelvane
