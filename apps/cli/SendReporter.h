#pragma once

#include "KestrelvaneKit/wire/Ack.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrelvane::cli {

/// How `kestrelvane send` tells the user what happens: a live line on a
/// terminal (moved by the bytes written as they go, and redrawn on a timer
/// so that the time keeps moving when the connection stalls), one plain line
/// per file otherwise, or JSON lines for scripts. Its calls may come from
/// different threads, one at a time or not.
class SendReporter {
public:
    enum class Style { terminal, plain, json };

    /// One planned file that did not end up saved.
    struct Unsaved {
        std::string name{};
        std::string path{};
        std::string reason{}; ///< the receiver's message, or "not acknowledged"
    };

    using Clock = std::function<double()>; ///< seconds; only differences matter

    /// How often the terminal's live line is redrawn when nothing happens.
    static constexpr std::chrono::milliseconds defaultTick{500};
    /// The live line is redrawn for bytes written at most this often (seconds).
    static constexpr double minRedrawSeconds = 0.2;

    /// `tick` zero: no timer, the line moves with the calls only.
    SendReporter(Style style, std::FILE* out, Clock clock = steadySeconds,
                 std::chrono::milliseconds tick = defaultTick);
    SendReporter(const SendReporter&) = delete;
    SendReporter& operator=(const SendReporter&) = delete;

    void start(std::int64_t files, std::uint64_t bytes, const std::string& destination,
               const std::optional<std::string>& album);
    /// One acknowledgement; `bytes` were sent of the file it names, and
    /// the receiver already held `held` more (all of it, or its beginning).
    void acknowledged(const Ack& ack, std::uint64_t bytes, std::uint64_t held = 0);
    /// `bytes` more were written to the receiver (frames included). Cheap;
    /// meant to be called from the writing thread for every write.
    void sent(std::uint64_t bytes);
    /// The summary: what was saved since start(), and the files that were not.
    void finish(const std::vector<Unsaved>& unsaved, int exitStatus);

    static double steadySeconds();

private:
    void drawLiveLine();
    void clearLiveLine();
    void printLine(const std::string& line);

    const Style style_;
    std::FILE* const out_;
    const Clock clock_;
    const std::chrono::milliseconds tick_;
    double startedAt_ = 0;
    std::int64_t files_ = 0;
    std::int64_t done_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t bytesDone_ = 0;    // of the files saved: sent, resumed or skipped
    std::uint64_t bytesCrossed_ = 0; // of them, sent
    std::uint64_t bytesResumed_ = 0; // held by the receiver from a broken send
    std::uint64_t bytesSkipped_ = 0; // of files the receiver had whole
    std::atomic<std::uint64_t> bytesSent_{0};
    double drawnAt_ = 0;
    bool liveLineShown_ = false;
    std::mutex mutex_;    // one writer of the output at a time
    std::jthread ticker_; // redraws the live line (terminal); last: joined before the rest goes
};

} // namespace kestrelvane::cli
