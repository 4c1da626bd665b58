#include "support/ScriptedStream.h"

#include <stdexcept>

namespace kestrelvane::testing {

ScriptedStream::ScriptedStream(std::vector<Bytes> receiveScript)
    : script_(receiveScript.begin(), receiveScript.end()) {
}

void ScriptedStream::send(ByteView data) {
    if (closeCount > 0) {
        throw StreamError::closed();
    }
    sent.emplace_back(data.begin(), data.end());
}

Bytes ScriptedStream::receive(std::int64_t max) {
    receiveMaxima.push_back(max);
    if (script_.empty() || closeCount > 0) {
        throw StreamError::closed();
    }
    Bytes chunk = std::move(script_.front());
    script_.pop_front();
    if (chunk.size() > static_cast<std::uint64_t>(max)) {
        throw std::logic_error("scripted chunk larger than the receive's max");
    }
    return chunk;
}

} // namespace kestrelvane::testing
