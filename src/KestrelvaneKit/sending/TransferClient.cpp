#include "KestrelvaneKit/sending/TransferClient.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/log/TransferMetrics.h"
#include "KestrelvaneKit/sending/PreparedFile.h"
#include "KestrelvaneKit/wire/AsyncQueue.h"
#include "KestrelvaneKit/wire/UnicodeText.h"
#include "KestrelvaneKit/wire/WireMessage.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <variant>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;

/// Canonical composition changes nothing in plain ASCII, which most camera
/// file names are; only other names pay for the normaliser.
std::string canonical(const std::string& name) {
    const bool ascii = std::all_of(name.begin(), name.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    return ascii ? name : UnicodeText::nfc(name);
}

struct BatchEntry {
    fs::path path;
    MediaType type;
    std::size_t index; ///< position in the caller's list
};

/// Matches acknowledgements to the files of one send: each settles the first
/// unsettled file of its name, in batch order.
class AcksBox {
public:
    explicit AcksBox(const std::vector<BatchEntry>& batch) : batch_(batch), files_(batch.size()) {
        for (std::size_t i = 0; i < batch_.size(); ++i) {
            unsettled_.emplace(canonical(batch_[i].path.filename().string()), i);
        }
    }

    struct Settled {
        const BatchEntry* entry = nullptr; ///< none when the name is not the batch's
        std::uint64_t sent = 0;            ///< bytes sent of it (0 for one not sent yet)
        std::uint64_t held = 0;
        bool inWindow = true; ///< whether it took room in the window
    };

    /// The writer offers the `i`th file, of `byteCount` bytes, to the receiver.
    void offering(std::size_t i, std::uint64_t byteCount) {
        const std::lock_guard lock(mutex_);
        offered_.push_back(i);
        files_[i].size = byteCount;
    }

    /// The receiver's holding answers the oldest offer still open. When the
    /// file is saved already, the holding settles it as an "ok" would, and
    /// nothing of it is sent or takes room in the window.
    Settled answered(const Holding& holding) {
        const std::lock_guard lock(mutex_);
        if (offered_.empty()) {
            return {};
        }
        const std::size_t i = offered_.front();
        offered_.pop_front();
        if (holding.kind != Holding::Kind::saved) {
            return {};
        }
        acks_.push_back(Ack{.name = holding.name, .status = Ack::Status::ok});
        for (auto entry = unsettled_.begin(); entry != unsettled_.end(); ++entry) {
            if (entry->second == i) {
                unsettled_.erase(entry);
                return {&batch_[i], 0, files_[i].size, false};
            }
        }
        return {};
    }

    /// The writer has put the `i`th file on the wire with `sent` bytes, the
    /// receiver holding the `held` before them.
    void wrote(std::size_t i, std::uint64_t sent, std::uint64_t held) {
        const std::lock_guard lock(mutex_);
        files_[i].sent = sent;
        files_[i].held = held;
    }

    /// Keeps `ack` and returns the file it settles: what the file has become
    /// on disk since does not matter.
    Settled append(const Ack& ack) {
        const std::lock_guard lock(mutex_);
        acks_.push_back(ack);
        // Equal keys keep their order of insertion: the first is the earliest file.
        const std::string name = canonical(ack.name);
        const auto found = unsettled_.lower_bound(name);
        if (found == unsettled_.end() || found->first != name) {
            return {};
        }
        const File& file = files_[found->second];
        const Settled settled{&batch_[found->second], file.sent, file.held, true};
        unsettled_.erase(found);
        return settled;
    }

    std::vector<Ack> acks() const {
        const std::lock_guard lock(mutex_);
        return acks_;
    }

private:
    struct File {
        std::uint64_t size = 0;
        std::uint64_t sent = 0;
        std::uint64_t held = 0;
    };

    const std::vector<BatchEntry>& batch_;
    mutable std::mutex mutex_;
    std::vector<Ack> acks_;
    std::multimap<std::string, std::size_t> unsettled_;
    std::vector<File> files_;
    std::deque<std::size_t> offered_; // offers whose holding is still to come
};

/// A receiver that breaks the resume extension's rules.
class ProtocolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// From which offset to send `file` after the receiver's `holding`.
std::uint64_t sendFrom(const PreparedFile& file, const Holding& holding) {
    const FileHeader& header = file.header();
    if (holding.name != header.name) {
        throw ProtocolError("the receiver answered the offer of \"" + header.name + "\" about \"" +
                            holding.name + "\"");
    }
    // A beginning that is not this file's own is never built on.
    const bool resumable = holding.kind == Holding::Kind::partial && holding.bytes &&
                           *holding.bytes <= header.byteCount && holding.prefixSha256 &&
                           file.prefixSha256(*holding.bytes) == *holding.prefixSha256;
    return resumable ? *holding.bytes : 0;
}

/// The batch's size on disk, for the start line only: 0 if any size is unknown.
std::uint64_t sizeOnDisk(const std::vector<BatchEntry>& batch) {
    std::uint64_t total = 0;
    for (const auto& entry : batch) {
        std::error_code error;
        const auto size = fs::file_size(entry.path, error);
        if (error) {
            return 0;
        }
        total += size;
    }
    return total;
}

/// Reads and hashes the next file on a thread of its own while the file
/// before it is on the wire; one thread for the whole send, since starting a
/// thread per file costs as much as preparing a photo. Dropping it abandons
/// the work: a large file's hashing stops at its next piece, and the thread
/// is joined.
class Preparer {
public:
    Preparer() : thread_([this](std::stop_token stop) { prepareRequests(stop); }) {}
    ~Preparer() { thread_.request_stop(); }
    Preparer(const Preparer&) = delete;
    Preparer& operator=(const Preparer&) = delete;

    /// Starts preparing `path`; one request at a time, taken before the next.
    std::future<PreparedFile> start(fs::path path, MediaType type) {
        Request request{std::move(path), type, {}};
        std::future<PreparedFile> result = request.promise.get_future();
        {
            const std::lock_guard lock(mutex_);
            waiting_ = std::move(request);
        }
        changed_.notify_one();
        return result;
    }

private:
    struct Request {
        fs::path path;
        MediaType type;
        std::promise<PreparedFile> promise;
    };

    void prepareRequests(std::stop_token stop) {
        while (true) {
            Request request;
            {
                std::unique_lock lock(mutex_);
                if (!changed_.wait(lock, stop, [this] { return waiting_.has_value(); })) {
                    return;
                }
                request = std::move(*waiting_);
                waiting_.reset();
            }
            try {
                request.promise.set_value(PreparedFile::prepare(request.path, request.type, stop));
            } catch (...) {
                request.promise.set_exception(std::current_exception());
            }
        }
    }

    std::mutex mutex_; // guards waiting_
    std::condition_variable_any changed_;
    std::optional<Request> waiting_;
    std::jthread thread_; // last: stopped and joined before the rest goes
};

/// The first error of either thread; the one that comes second is dropped.
class FirstError {
public:
    void set(std::exception_ptr error) {
        const std::lock_guard lock(mutex_);
        if (!error_) {
            error_ = std::move(error);
        }
    }
    void rethrowIfSet() const {
        const std::lock_guard lock(mutex_);
        if (error_) {
            std::rethrow_exception(error_);
        }
    }

private:
    mutable std::mutex mutex_;
    std::exception_ptr error_;
};

} // namespace

TransferClient::TransferClient(std::int64_t maxInflightBytes, std::int64_t minInflightFiles)
    : inflight_(std::make_shared<Inflight>(maxInflightBytes, minInflightFiles)) {
}

std::vector<Ack> TransferClient::send(const std::vector<fs::path>& files, FrameChannel& over,
                                      const SessionHeader& session, const OnProgress& onProgress,
                                      const OnWriting& onWriting) {
    std::vector<BatchEntry> batch;
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (const auto type = MediaScanner::mediaType(files[i])) {
            batch.push_back({files[i], *type, i});
        }
    }
    const auto n = static_cast<std::int64_t>(batch.size());
    if (n == 0) {
        return {};
    }

    over.sendFrame(WireMessage::encode(session));

    AcksBox acksBox(batch);
    TransferMetrics metrics;
    const double start = KVLog::now();
    KVLog::transfer().info(KVLog::Lines::start(n, sizeOnDisk(batch)));

    Inflight& window = *inflight_;
    window.reopen();
    // What this send still holds in the window when it ends (files it wrote
    // that were never acknowledged) is given back, so that a later send with
    // the same client starts from the state this one found.
    std::mutex heldMutex;
    std::int64_t filesHeld = 0;
    std::uint64_t bytesHeld = 0;
    FirstError firstError;
    // Whichever side fails wakes the other: cancelling the channel ends a
    // receive or a blocked write, failing the window's reservations ends a
    // writer waiting for room that no acknowledgement will make.
    const auto tearDown = [&](std::exception_ptr error) {
        firstError.set(std::move(error));
        window.cancelWaiting();
        over.cancel();
    };
    // Why the acknowledgements ended early, once they have: the writer's
    // failure is then only this side's own cancel, and this is the cause.
    std::exception_ptr acksEnded;
    std::atomic<bool> acksEndedEarly{false};

    // With the resume extension, the reader hands the writer the holding that
    // answers each offer (docs/protocol.md).
    const bool resuming = session.resume.has_value();
    AsyncQueue<Holding> holdings;

    std::jthread writer([&] {
        // Outside the try, so that on a failure the other side is woken
        // before the preparation ahead is abandoned and joined.
        std::unique_ptr<Preparer> preparer;
        try {
            preparer = std::make_unique<Preparer>();
            std::future<PreparedFile> next = preparer->start(batch[0].path, batch[0].type);
            const auto offer = [&](std::size_t i, const PreparedFile& file) {
                FileHeader offered = file.header();
                offered.offer = true;
                acksBox.offering(i, offered.byteCount);
                over.sendFrame(WireMessage::encode(offered));
            };
            // The file to send, once prepared; with the extension, already
            // offered when it was prepared in time to go one offer ahead.
            std::optional<PreparedFile> current;
            bool currentOffered = false;
            for (std::size_t i = 0; i < batch.size(); ++i) {
                if (!current) {
                    current.emplace(next.get());
                    if (i + 1 < batch.size()) {
                        next = preparer->start(batch[i + 1].path, batch[i + 1].type);
                    }
                }
                FileHeader header = current->header();
                std::uint64_t from = 0;
                bool saved = false;
                std::optional<PreparedFile> upcoming;
                if (resuming) {
                    if (!currentOffered) {
                        offer(i, *current);
                    }
                    // The next file's offer goes before this file's bytes when
                    // it is ready, so that the receiver answers it while they
                    // are on the wire; waiting for it would stop the overlap.
                    if (i + 1 < batch.size() &&
                        next.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
                        upcoming.emplace(next.get());
                        if (i + 2 < batch.size()) {
                            next = preparer->start(batch[i + 2].path, batch[i + 2].type);
                        }
                        offer(i + 1, *upcoming);
                    }
                    const auto answer = holdings.next();
                    if (!answer) {
                        throw StreamError::closed(); // the reader has ended
                    }
                    saved = answer->kind == Holding::Kind::saved; // settled by the reader
                    if (!saved) {
                        from = sendFrom(*current, *answer);
                    }
                    if (from > 0) {
                        header.from = from;
                    }
                }
                if (!saved) {
                    const std::uint64_t byteCount = header.byteCount - from;
                    window.reserve(byteCount);
                    acksBox.wrote(i, byteCount, from);
                    {
                        const std::lock_guard lock(heldMutex);
                        ++filesHeld;
                        bytesHeld += byteCount;
                    }
                    const std::int64_t depth = window.snapshot().files;
                    const double t0 = KVLog::now();
                    if (onWriting) {
                        onWriting(batch[i].index, from, byteCount);
                    }
                    over.sendFrame(WireMessage::encode(header));
                    current->writeBytes(over, from);
                    const double t1 = KVLog::now();
                    metrics.record(static_cast<std::int64_t>(byteCount), depth);
                    KVLog::net().info(KVLog::Lines::sent(header.name, byteCount, t1 - t0, depth));
                }
                current.reset();
                currentOffered = upcoming.has_value();
                if (upcoming) {
                    current.emplace(std::move(*upcoming));
                }
            }
        } catch (...) {
            tearDown(acksEndedEarly.load(std::memory_order_acquire) ? acksEnded
                                                                    : std::current_exception());
        }
    });

    try {
        // Every file is settled once: by its acknowledgement, or by a holding
        // that says the receiver has it already.
        for (std::int64_t i = 0; i < n;) {
            Bytes frame;
            try {
                frame = over.receiveFrame(maxAckFrameBytes);
            } catch (const FrameChannel::FrameTooLarge&) {
                throw; // a hostile receiver, not an ended connection
            } catch (...) {
                KVLog::transfer().error(KVLog::Lines::ackReadEndedEarly(i, n));
                // A receiver that has hung up reads nothing more either: a
                // write still under way would wait for ever on a full socket.
                // A writer that has finished is not affected.
                acksEnded = std::current_exception();
                acksEndedEarly.store(true, std::memory_order_release);
                over.cancel();
                break;
            }
            AcksBox::Settled settled;
            Ack ack;
            if (resuming) {
                auto reply = WireMessage::decodeReply(frame);
                if (auto* holding = std::get_if<Holding>(&reply)) {
                    const bool saved = holding->kind == Holding::Kind::saved;
                    settled = acksBox.answered(*holding);
                    if (saved) {
                        ack = Ack{.name = holding->name, .status = Ack::Status::ok};
                    }
                    holdings.publish(std::move(*holding));
                    if (!saved) {
                        continue;
                    }
                } else {
                    ack = std::get<Ack>(reply);
                    settled = acksBox.append(ack);
                }
            } else {
                ack = WireMessage::decode<Ack>(frame);
                settled = acksBox.append(ack);
            }
            if (settled.inWindow) {
                {
                    const std::lock_guard lock(heldMutex);
                    --filesHeld;
                    bytesHeld = settled.sent > bytesHeld ? 0 : bytesHeld - settled.sent;
                }
                window.release(settled.sent);
            }
            if (ack.status != Ack::Status::ok) {
                KVLog::transfer().error(
                    KVLog::Lines::ackError(ack.name, ack.message.value_or("?")));
            }
            if (onProgress) {
                Progress progress{.index = i, .total = n, .fileName = ack.name, .ack = ack};
                if (settled.entry != nullptr) {
                    progress.entry = settled.entry->index;
                    progress.path = settled.entry->path;
                    progress.byteCount = settled.sent;
                    progress.heldBytes = settled.held;
                }
                onProgress(progress);
            }
            ++i;
        }
        // However the acknowledgements ended, nothing will release the window
        // any more: a writer still waiting for room would wait for ever.
        window.endReleases();
    } catch (...) {
        tearDown(std::current_exception());
    }
    holdings.finish(); // a writer waiting for a holding waits no more
    writer.join();
    for (; filesHeld > 0; --filesHeld) {
        window.release(std::exchange(bytesHeld, 0));
    }
    firstError.rethrowIfSet();

    const double wall = KVLog::now() - start;
    const std::vector<Ack> acks = acksBox.acks();
    const auto ok = static_cast<std::int64_t>(std::count_if(
        acks.begin(), acks.end(), [](const Ack& ack) { return ack.status == Ack::Status::ok; }));
    const TransferMetrics::Summary summary = metrics.summary();
    KVLog::transfer().info(KVLog::Lines::summary(n, ok, summary.totalBytes, wall,
                                                 summary.averageDepth, summary.maxDepth));
    return acks;
}

} // namespace kestrelvane
