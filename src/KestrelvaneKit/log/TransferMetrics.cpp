#include "KestrelvaneKit/log/TransferMetrics.h"

#include <algorithm>

namespace kestrelvane {

void TransferMetrics::record(std::int64_t bytes, std::int64_t depth) {
    totalBytes_ += bytes;
    depthSum_ += depth;
    depthCount_ += 1;
    maxDepth_ = std::max(maxDepth_, depth);
}

TransferMetrics::Summary TransferMetrics::summary() const {
    return Summary{
        .totalBytes = totalBytes_,
        .averageDepth = depthCount_ < 1
                            ? 0.0
                            : static_cast<double>(depthSum_) / static_cast<double>(depthCount_),
        .maxDepth = maxDepth_,
    };
}

} // namespace kestrelvane
