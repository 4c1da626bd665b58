#include "KestrelvaneKit/log/KVLog.h"

#include "KestrelvaneKit/log/Units.h"

#include <chrono>
#include <cstdio>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace kestrelvane::KVLog {
namespace {

class JournalSink final : public Sink {
public:
    void write(const Record& record) override {
        const std::string category(categoryName(record.category));
        const std::string ident(subsystem);
        sd_journal_send("MESSAGE=%s", record.message.c_str(), "PRIORITY=%d",
                        record.level == Level::error ? LOG_ERR : LOG_NOTICE, "SYSLOG_IDENTIFIER=%s",
                        ident.c_str(), "KV_SUBSYSTEM=%s", ident.c_str(), "KV_CATEGORY=%s",
                        category.c_str(), nullptr);
    }
};

class StderrSink final : public Sink {
public:
    void write(const Record& record) override {
        std::string line(categoryName(record.category));
        if (record.level == Level::error) {
            line += " error";
        }
        line += ": " + record.message + "\n";
        const std::lock_guard lock(mutex_);
        std::fwrite(line.data(), 1, line.size(), stderr);
        std::fflush(stderr);
    }

private:
    std::mutex mutex_;
};

struct SinkSlot {
    std::mutex mutex;
    std::shared_ptr<Sink> sink = ::access("/run/systemd/journal/socket", W_OK) == 0
                                     ? std::make_shared<JournalSink>()
                                     : nullptr;
};

SinkSlot& slot() {
    static SinkSlot instance;
    return instance;
}

void emit(Category category, Level level, std::string message) {
    std::shared_ptr<Sink> sink;
    {
        const std::lock_guard lock(slot().mutex);
        sink = slot().sink;
    }
    if (sink) {
        sink->write(Record{category, level, std::move(message)});
    }
}

} // namespace

std::string_view categoryName(Category category) noexcept {
    switch (category) {
    case Category::transfer:
        return "transfer";
    case Category::net:
        return "net";
    case Category::listener:
        return "listener";
    }
    return "?";
}

std::shared_ptr<Sink> stderrSink() {
    return std::make_shared<StderrSink>();
}

void MemorySink::write(const Record& record) {
    const std::lock_guard lock(mutex_);
    records_.push_back(record);
}

std::vector<Record> MemorySink::records() const {
    const std::lock_guard lock(mutex_);
    return records_;
}

std::vector<std::string> MemorySink::messages() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const auto& record : records_) {
        out.push_back(record.message);
    }
    return out;
}

std::shared_ptr<Sink> setSink(std::shared_ptr<Sink> sink) {
    const std::lock_guard lock(slot().mutex);
    std::swap(slot().sink, sink);
    return sink;
}

void Logger::info(std::string message) const {
    emit(category_, Level::normal, std::move(message));
}
void Logger::error(std::string message) const {
    emit(category_, Level::error, std::move(message));
}

const Logger& transfer() {
    static constexpr Logger logger(Category::transfer);
    return logger;
}
const Logger& net() {
    static constexpr Logger logger(Category::net);
    return logger;
}
const Logger& listener() {
    static constexpr Logger logger(Category::listener);
    return logger;
}

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string mb(double bytes) {
    return Units::megabytes(bytes, 1, "");
}

std::string throughput(double bytes, double seconds) {
    if (!(seconds > 0)) {
        return "\u2014";
    }
    return Units::rate(bytes, seconds, 1, "");
}

namespace Lines {

std::string start(std::int64_t files, std::uint64_t bytesOnDisk) {
    return "START files=" + std::to_string(files) + " bytes=" + mb(bytesOnDisk);
}

std::string sent(const std::string& name, std::uint64_t bytes, double seconds, std::int64_t depth) {
    return "SENT " + name + " " + mb(bytes) + " wire=" + throughput(bytes, seconds) +
           " inflight=" + std::to_string(depth);
}

std::string ackError(const std::string& name, const std::string& message) {
    return "ACK-ERR " + name + ": " + message;
}

std::string ackReadEndedEarly(std::int64_t read, std::int64_t expected) {
    return "ACK-READ ended early at " + std::to_string(read) + "/" + std::to_string(expected);
}

std::string summary(std::int64_t files, std::int64_t ok, std::int64_t totalBytes, double wall,
                    double averageDepth, std::int64_t maxDepth) {
    return "SUMMARY files=" + std::to_string(files) + " ok=" + std::to_string(ok) +
           " failed=" + std::to_string(files - ok) + " bytes=" + mb(totalBytes) +
           " wall=" + Units::fixed(wall, 1) + "s throughput=" + throughput(totalBytes, wall) +
           " avgInflight=" + Units::fixed(averageDepth, 1) +
           " maxInflight=" + std::to_string(maxDepth);
}

std::string accepted() {
    return "ACCEPTED connection";
}

std::string readerEnded(double seconds) {
    return "READER ended after " + Units::fixed(seconds, 1) + "s";
}

std::string recv(const std::string& name, std::uint64_t bytes, double seconds) {
    return "RECV " + name + " " + mb(bytes) + " in=" + Units::fixed(seconds * 1000.0, 0) +
           "ms rate=" + throughput(bytes, seconds);
}

std::string checksumMismatch(const std::string& name) {
    return "CHECKSUM-MISMATCH " + name;
}

} // namespace Lines
} // namespace kestrelvane::KVLog
