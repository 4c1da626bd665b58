#pragma once

#include "KestrelvaneKit/receiving/BatchSaving.h"

#include <cstddef>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kestrelvane::testing {

/// Decorates any saver and fails on cue. Files whose 0-based enqueue number
/// is in `failing` are not handed on: their temporary file is deleted and an
/// error outcome with `message` is published, as a saver that could not store
/// them would. With `holdOutcomes` the inner saver's outcomes are kept back
/// until flushAndDrain, as a saver that batches its work would; a connection
/// that drops meanwhile then loses acknowledgements of files already saved.
class FailingSaver final : public BatchSaving {
public:
    struct Cue {
        std::set<std::size_t> failing{};
        std::string message = "No space left on device";
        bool holdOutcomes = false;
    };

    FailingSaver(BatchSaving& inner, Cue cue);
    ~FailingSaver() override;

    void begin(const SessionHeader& session) override;
    void enqueue(const std::filesystem::path& file, const FileHeader& header) override;
    void flushAndDrain() override;
    AsyncQueue<BatchOutcome>& outcomes() override { return outcomes_; }

    /// Names in the order they were enqueued.
    std::vector<std::string> enqueued() const;

private:
    BatchSaving& inner_;
    const Cue cue_;
    mutable std::mutex mutex_;
    std::vector<std::string> enqueued_;
    std::vector<BatchOutcome> held_;
    AsyncQueue<BatchOutcome> outcomes_;
    std::jthread forwarder_; // the inner saver's outcomes to ours; last, so it goes first
};

} // namespace kestrelvane::testing
