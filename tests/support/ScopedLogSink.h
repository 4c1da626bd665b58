#pragma once

#include "KestrelvaneKit/log/KVLog.h"

#include <memory>

namespace kestrelvane::testing {

/// Sends the library's log lines to an in-memory sink for as long as it lives,
/// then puts back whatever sink was there before.
class ScopedLogSink {
public:
    ScopedLogSink() : previous_(KVLog::setSink(sink_)) {}
    ~ScopedLogSink() { KVLog::setSink(previous_); }
    ScopedLogSink(const ScopedLogSink&) = delete;
    ScopedLogSink& operator=(const ScopedLogSink&) = delete;

    KVLog::MemorySink& operator*() const { return *sink_; }
    KVLog::MemorySink* operator->() const { return sink_.get(); }
    const std::shared_ptr<KVLog::MemorySink>& sink() const { return sink_; }

private:
    std::shared_ptr<KVLog::MemorySink> sink_ = std::make_shared<KVLog::MemorySink>();
    std::shared_ptr<KVLog::Sink> previous_;
};

} // namespace kestrelvane::testing
