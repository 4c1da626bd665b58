#pragma once

#include "KestrelvaneKit/receiving/BatchSaving.h"

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrelvane::testing {

/// Decorates any saver and fails on cue. Files whose 0-based enqueue number
/// is in `failing` are not handed on: their temporary file is deleted and an
/// error outcome with the message given there is published, as a saver that
/// could not store them would. With `holdOutcomes` the inner saver's outcomes are kept back
/// until flushAndDrain, as a saver that batches its work would; a connection
/// that drops meanwhile then loses acknowledgements of files already saved.
class FailingSaver final : public BatchSaving {
public:
    struct Cue {
        std::map<std::size_t, std::string> failing{};
        bool holdOutcomes = false;
    };

    FailingSaver(BatchSaving& inner, Cue cue);
    ~FailingSaver() override;

    void begin(const SessionHeader& session) override;
    void enqueue(const std::filesystem::path& file, const FileHeader& header) override;
    void flushAndDrain() override;
    bool holds(const FileHeader& header) override { return inner_.holds(header); }
    AsyncQueue<BatchOutcome>& outcomes() override { return outcomes_; }

    std::optional<SessionHeader> begun; ///< the session it was begun with

private:
    BatchSaving& inner_;
    const Cue cue_;
    mutable std::mutex mutex_;
    std::size_t enqueued_ = 0;
    std::vector<BatchOutcome> held_;
    AsyncQueue<BatchOutcome> outcomes_;
    std::jthread forwarder_; // the inner saver's outcomes to ours; last, so it goes first
};

} // namespace kestrelvane::testing
