#pragma once

#include <cstdint>

namespace kestrelvane {

/// What one send wrote: payload bytes, and how many files were in flight when
/// each was written. Recorded by the writer, read once it has been joined.
class TransferMetrics {
public:
    struct Summary {
        std::int64_t totalBytes = 0;
        double averageDepth = 0.0;
        std::int64_t maxDepth = 0;
        friend bool operator==(const Summary&, const Summary&) = default;
    };

    void record(std::int64_t bytes, std::int64_t depth);
    Summary summary() const;

private:
    std::int64_t totalBytes_ = 0;
    std::int64_t depthSum_ = 0;
    std::int64_t depthCount_ = 0;
    std::int64_t maxDepth_ = 0;
};

} // namespace kestrelvane
