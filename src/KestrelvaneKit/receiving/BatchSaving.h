#pragma once

#include "KestrelvaneKit/wire/Ack.h"
#include "KestrelvaneKit/wire/AsyncQueue.h"
#include "KestrelvaneKit/wire/FileHeader.h"
#include "KestrelvaneKit/wire/SessionHeader.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace kestrelvane {

/// How saving one received file ended.
struct BatchOutcome {
    /// The file's name exactly as its header carried it.
    std::string name{};
    Ack::Status status = Ack::Status::ok;
    /// Why it failed; absent on success.
    std::optional<std::string> message{};

    friend bool operator==(const BatchOutcome&, const BatchOutcome&) = default;
};

/// Where verified files go. The receiving engine calls begin, enqueue and
/// flushAndDrain from its reader thread while its writer thread consumes
/// outcomes(). Nothing here throws: a file that cannot be stored is an
/// outcome with status error.
///
/// For every enqueued file exactly one outcome is published, as soon as its
/// save is settled; flushAndDrain settles what is pending and then finishes
/// outcomes() in every case. A saver serves one session.
class BatchSaving {
public:
    virtual ~BatchSaving() = default;

    /// Once per session, before the first enqueue.
    virtual void begin(const SessionHeader& session) { (void)session; }
    /// `file` holds the verified bytes and from now on belongs to the saver.
    virtual void enqueue(const std::filesystem::path& file, const FileHeader& header) = 0;
    virtual void flushAndDrain() = 0;
    /// Whether a byte-identical copy of the file `header` describes is
    /// already where this session's files go, under the same name: the
    /// sender need not send it. Called after begin().
    virtual bool holds(const FileHeader& header) {
        (void)header;
        return false;
    }
    virtual AsyncQueue<BatchOutcome>& outcomes() = 0;

protected:
    BatchSaving() = default;
    BatchSaving(const BatchSaving&) = delete;
    BatchSaving& operator=(const BatchSaving&) = delete;
};

/// Keeps nothing: hands each verified file to a callback, reports it saved
/// and deletes it. A receiver that only checks what arrives (the simulator's
/// test phone) runs on it.
class DiscardingSaver final : public BatchSaving {
public:
    using OnSave = std::function<void(const std::filesystem::path&, const FileHeader&)>;

    explicit DiscardingSaver(OnSave onSave);

    void enqueue(const std::filesystem::path& file, const FileHeader& header) override;
    void flushAndDrain() override;
    AsyncQueue<BatchOutcome>& outcomes() override { return outcomes_; }

private:
    AsyncQueue<BatchOutcome> outcomes_;
    OnSave onSave_;
};

} // namespace kestrelvane
