#include "SendReporter.h"

#include "KestrelvaneKit/log/Units.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <condition_variable>

namespace kestrelvane::cli {

namespace {

std::string jsonLine(const nlohmann::json& object) {
    // Slashes stay as they are: these lines are for scripts, not the wire.
    return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace

double SendReporter::steadySeconds() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(since).count();
}

SendReporter::SendReporter(Style style, std::FILE* out, Clock clock, std::chrono::milliseconds tick)
    : style_(style), out_(out), clock_(std::move(clock)), tick_(tick) {
}

void SendReporter::start(std::int64_t files, std::uint64_t bytes, const std::string& destination,
                         const std::optional<std::string>& album) {
    const std::lock_guard lock(mutex_);
    startedAt_ = clock_();
    files_ = files;
    bytes_ = bytes;
    if (style_ == Style::json) {
        nlohmann::json event = {
            {"event", "start"}, {"files", files}, {"bytes", bytes}, {"to", destination}};
        if (album) {
            event["album"] = *album;
        }
        printLine(jsonLine(event));
        return;
    }
    std::string line = "Sending " + std::to_string(files) + (files == 1 ? " file" : " files") +
                       " (" + Units::megabytes(static_cast<double>(bytes)) + ") to " + destination;
    if (album) {
        line += ", album \"" + *album + "\"";
    }
    printLine(line);
    drawLiveLine();
    if (style_ == Style::terminal && tick_.count() > 0) {
        ticker_ = std::jthread([this](std::stop_token stop) {
            std::mutex sleepMutex;
            std::condition_variable_any sleep;
            std::unique_lock sleepLock(sleepMutex);
            while (!stop.stop_requested()) {
                sleep.wait_for(sleepLock, stop, tick_, [] { return false; });
                const std::lock_guard drawing(mutex_);
                if (liveLineShown_ && !stop.stop_requested()) {
                    drawLiveLine();
                }
            }
        });
    }
}

void SendReporter::acknowledged(const Ack& ack, std::uint64_t bytes, std::uint64_t held) {
    const std::lock_guard lock(mutex_);
    const bool ok = ack.status == Ack::Status::ok;
    const bool skipped = bytes == 0 && held > 0;
    ++done_;
    if (ok) {
        bytesDone_ += bytes + held;
        bytesCrossed_ += bytes;
        (skipped ? bytesSkipped_ : bytesResumed_) += held;
    }
    if (style_ == Style::json) {
        nlohmann::json event = {{"event", "ack"},
                                {"index", done_},
                                {"total", files_},
                                {"name", ack.name},
                                {"status", ok ? "ok" : "error"},
                                {"bytes", bytes}};
        if (held > 0) {
            event["held"] = held;
        }
        if (ack.message) {
            event["message"] = *ack.message;
        }
        printLine(jsonLine(event));
        return;
    }
    std::string line = (ok ? "saved   " : "FAILED  ") + ack.name;
    if (!ok) {
        line += ": " + ack.message.value_or("?");
    } else if (skipped) {
        line += " (already there)";
    } else if (held > 0) {
        line += " (resumed after " + Units::megabytes(static_cast<double>(held)) + ")";
    }
    printLine(line);
    drawLiveLine();
}

void SendReporter::sent(std::uint64_t bytes) {
    bytesSent_.fetch_add(bytes, std::memory_order_relaxed);
    if (style_ != Style::terminal) {
        return;
    }
    // The writer never waits for the terminal: when another thread is
    // drawing, that drawing shows these bytes or the next one will.
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (lock.owns_lock() && liveLineShown_ && clock_() - drawnAt_ >= minRedrawSeconds) {
        drawLiveLine();
    }
}

void SendReporter::finish(const std::vector<Unsaved>& unsaved, int exitStatus) {
    ticker_ = {}; // stopped and joined: the live line is not drawn again
    const std::lock_guard lock(mutex_);
    const auto saved = files_ - static_cast<std::int64_t>(unsaved.size());
    const double seconds = clock_() - startedAt_;
    if (style_ == Style::json) {
        nlohmann::json files = nlohmann::json::array();
        for (const auto& file : unsaved) {
            files.push_back({{"name", file.name}, {"path", file.path}, {"reason", file.reason}});
        }
        printLine(jsonLine({{"event", "summary"},
                            {"files", files_},
                            {"saved", saved},
                            {"failed", files_ - saved},
                            {"bytes", bytesDone_},
                            {"sentBytes", bytesCrossed_},
                            {"resumedBytes", bytesResumed_},
                            {"skippedBytes", bytesSkipped_},
                            {"seconds", seconds},
                            {"unsaved", files},
                            {"exitStatus", exitStatus}}));
        return;
    }
    clearLiveLine();
    // The rate counts only what crossed the connection.
    const auto crossed = static_cast<double>(bytesCrossed_);
    std::string line = std::to_string(saved) + " of " + std::to_string(files_) + " saved, " +
                       Units::megabytes(static_cast<double>(bytesDone_)) + " in " +
                       Units::clock(seconds) + " (" + Units::rate(crossed, seconds) + ")";
    if (bytesResumed_ + bytesSkipped_ > 0) {
        line += ": " + Units::megabytes(crossed) + " sent, " +
                Units::megabytes(static_cast<double>(bytesResumed_)) + " resumed, " +
                Units::megabytes(static_cast<double>(bytesSkipped_)) + " already there";
    }
    printLine(line);
    if (!unsaved.empty()) {
        printLine("Not saved:");
        for (const auto& file : unsaved) {
            printLine("  " + file.path + ": " + file.reason);
        }
    }
}

void SendReporter::drawLiveLine() {
    if (style_ != Style::terminal) {
        return;
    }
    drawnAt_ = clock_();
    const double elapsed = drawnAt_ - startedAt_;
    // What has gone out, frames and resent files included, shown within the batch's size.
    const std::uint64_t moved =
        std::min(bytes_, std::max(bytesDone_, bytesSent_.load(std::memory_order_relaxed)));
    // Over less than a second, a rate (and the time left from it) says little.
    const double rate = elapsed >= 1 ? static_cast<double>(moved) / elapsed : 0;
    std::string line = std::to_string(done_) + "/" + std::to_string(files_) + " files, " +
                       Units::fixed(static_cast<double>(moved) / Units::bytesPerMB, 1) + " of " +
                       Units::megabytes(static_cast<double>(bytes_)) + ", " + Units::clock(elapsed);
    if (rate > 0) {
        line += ", " + Units::rate(rate, 1);
        line += ", " + Units::clock(static_cast<double>(bytes_ - moved) / rate) + " left";
    }
    std::fprintf(out_, "\r\033[K%s", line.c_str());
    std::fflush(out_);
    liveLineShown_ = true;
}

void SendReporter::clearLiveLine() {
    if (liveLineShown_) {
        std::fputs("\r\033[K", out_);
        liveLineShown_ = false;
    }
}

void SendReporter::printLine(const std::string& line) {
    clearLiveLine();
    std::fprintf(out_, "%s\n", line.c_str());
    std::fflush(out_);
}

} // namespace kestrelvane::cli
