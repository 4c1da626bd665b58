#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kestrelvane {

/// The library's log: one subsystem, three categories, two levels, and the
/// fixed vocabulary of lines both engines write. Where the lines go is a sink
/// chosen by the program: by default the systemd journal when the machine has
/// one (and nowhere otherwise), stderr on request, memory in tests.
namespace KVLog {

inline constexpr std::string_view subsystem = "org.kestrelvane.Kestrelvane";

enum class Category { transfer, net, listener };
enum class Level { normal, error };

std::string_view categoryName(Category category) noexcept;

struct Record {
    Category category;
    Level level;
    std::string message;
    friend bool operator==(const Record&, const Record&) = default;
};

/// Where records go. write() may be called from any thread at once.
class Sink {
public:
    virtual ~Sink() = default;
    virtual void write(const Record& record) = 0;
};

/// One line per record on stderr: category, the level when it is an error, the message.
std::shared_ptr<Sink> stderrSink();

/// Keeps records in memory, for tests.
class MemorySink final : public Sink {
public:
    void write(const Record& record) override;
    std::vector<Record> records() const;
    std::vector<std::string> messages() const;

private:
    mutable std::mutex mutex_;
    std::vector<Record> records_;
};

/// Replaces the sink for the whole process; nullptr discards every record.
/// Returns the previous one. At first it is the journal when present, else none.
std::shared_ptr<Sink> setSink(std::shared_ptr<Sink> sink);

/// A category's logger.
class Logger {
public:
    explicit constexpr Logger(Category category) : category_(category) {}
    void info(std::string message) const;
    void error(std::string message) const;

private:
    Category category_;
};

const Logger& transfer();
const Logger& net();
const Logger& listener();

/// Seconds on the monotonic clock; only differences mean anything.
double now();
/// "%.1fMB" of bytes / 1,048,576.
std::string mb(double bytes);
/// "%.1fMB/s", or "—" when `seconds` is not above 0.
std::string throughput(double bytes, double seconds);

/// The lines of the vocabulary, built exactly; writers pass them to a logger.
namespace Lines {
std::string start(std::int64_t files, std::uint64_t bytesOnDisk);
std::string sent(const std::string& name, std::uint64_t bytes, double seconds, std::int64_t depth);
std::string ackError(const std::string& name, const std::string& message);
std::string ackReadEndedEarly(std::int64_t read, std::int64_t expected);
std::string summary(std::int64_t files, std::int64_t ok, std::int64_t totalBytes, double wall,
                    double averageDepth, std::int64_t maxDepth);
std::string accepted();
std::string readerEnded(double seconds);
std::string recv(const std::string& name, std::uint64_t bytes, double seconds);
std::string checksumMismatch(const std::string& name);
} // namespace Lines

} // namespace KVLog
} // namespace kestrelvane
