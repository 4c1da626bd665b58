#include "KestrelvaneKit/sending/TransferClient.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/log/TransferMetrics.h"
#include "KestrelvaneKit/sending/PreparedFile.h"
#include "KestrelvaneKit/wire/UnicodeText.h"
#include "KestrelvaneKit/wire/WireMessage.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

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
    explicit AcksBox(const std::vector<BatchEntry>& batch) : batch_(batch), written_(batch.size()) {
        for (std::size_t i = 0; i < batch_.size(); ++i) {
            unsettled_.emplace(canonical(batch_[i].path.filename().string()), i);
        }
    }

    /// The writer has put the `i`th file on the wire with `byteCount` bytes.
    void wrote(std::size_t i, std::uint64_t byteCount) {
        const std::lock_guard lock(mutex_);
        written_[i] = byteCount;
    }

    /// Keeps `ack` and returns the file it settles, if any, with the bytes
    /// sent of it (0 for one not sent yet): what the file has become on disk
    /// since does not matter.
    const BatchEntry* append(const Ack& ack, std::uint64_t& byteCount) {
        const std::lock_guard lock(mutex_);
        acks_.push_back(ack);
        byteCount = 0;
        // Equal keys keep their order of insertion: the first is the earliest file.
        const std::string name = canonical(ack.name);
        const auto found = unsettled_.lower_bound(name);
        if (found == unsettled_.end() || found->first != name) {
            return nullptr;
        }
        byteCount = written_[found->second];
        const BatchEntry& entry = batch_[found->second];
        unsettled_.erase(found);
        return &entry;
    }

    std::vector<Ack> acks() const {
        const std::lock_guard lock(mutex_);
        return acks_;
    }

private:
    const std::vector<BatchEntry>& batch_;
    mutable std::mutex mutex_;
    std::vector<Ack> acks_;
    std::multimap<std::string, std::size_t> unsettled_;
    std::vector<std::uint64_t> written_; // bytes sent of each file; 0 until sent
};

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
                                      const SessionHeader& session, const OnProgress& onProgress) {
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

    std::jthread writer([&] {
        // Outside the try, so that on a failure the other side is woken
        // before the preparation ahead is abandoned and joined.
        std::unique_ptr<Preparer> preparer;
        try {
            preparer = std::make_unique<Preparer>();
            std::future<PreparedFile> next = preparer->start(batch[0].path, batch[0].type);
            for (std::size_t i = 0; i < batch.size(); ++i) {
                PreparedFile current = next.get();
                if (i + 1 < batch.size()) {
                    next = preparer->start(batch[i + 1].path, batch[i + 1].type);
                }
                const std::uint64_t byteCount = current.header().byteCount;
                window.reserve(byteCount);
                acksBox.wrote(i, byteCount);
                {
                    const std::lock_guard lock(heldMutex);
                    ++filesHeld;
                    bytesHeld += byteCount;
                }
                const std::int64_t depth = window.snapshot().files;
                const double t0 = KVLog::now();
                over.sendFrame(WireMessage::encode(current.header()));
                current.writeBytes(over);
                const double t1 = KVLog::now();
                metrics.record(static_cast<std::int64_t>(byteCount), depth);
                KVLog::net().info(
                    KVLog::Lines::sent(current.header().name, byteCount, t1 - t0, depth));
            }
        } catch (...) {
            tearDown(acksEndedEarly.load(std::memory_order_acquire) ? acksEnded
                                                                    : std::current_exception());
        }
    });

    try {
        for (std::int64_t i = 0; i < n; ++i) {
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
            const Ack ack = WireMessage::decode<Ack>(frame);
            std::uint64_t released = 0;
            const BatchEntry* settled = acksBox.append(ack, released);
            {
                const std::lock_guard lock(heldMutex);
                --filesHeld;
                bytesHeld = released > bytesHeld ? 0 : bytesHeld - released;
            }
            window.release(released);
            if (ack.status != Ack::Status::ok) {
                KVLog::transfer().error(
                    KVLog::Lines::ackError(ack.name, ack.message.value_or("?")));
            }
            if (onProgress) {
                Progress progress{.index = i, .total = n, .fileName = ack.name, .ack = ack};
                if (settled != nullptr) {
                    progress.entry = settled->index;
                    progress.path = settled->path;
                    progress.byteCount = released;
                }
                onProgress(progress);
            }
        }
        // However the acknowledgements ended, nothing will release the window
        // any more: a writer still waiting for room would wait for ever.
        window.endReleases();
    } catch (...) {
        tearDown(std::current_exception());
    }
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
