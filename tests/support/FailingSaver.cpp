#include "support/FailingSaver.h"

namespace kestrelvane::testing {

FailingSaver::FailingSaver(BatchSaving& inner, Cue cue)
    : inner_(inner), cue_(std::move(cue)), forwarder_([this] {
          while (auto outcome = inner_.outcomes().next()) {
              if (cue_.holdOutcomes) {
                  const std::lock_guard lock(mutex_);
                  held_.push_back(std::move(*outcome));
              } else {
                  outcomes_.publish(std::move(*outcome));
              }
          }
      }) {
}

FailingSaver::~FailingSaver() {
    inner_.outcomes().finish(); // in case the session never flushed: ends the forwarder
}

void FailingSaver::begin(const SessionHeader& session) {
    begun = session;
    inner_.begin(session);
}

void FailingSaver::enqueue(const std::filesystem::path& file, const FileHeader& header) {
    std::size_t number = 0;
    {
        const std::lock_guard lock(mutex_);
        number = enqueued_++;
    }
    const auto failure = cue_.failing.find(number);
    if (failure == cue_.failing.end()) {
        inner_.enqueue(file, header);
        return;
    }
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
    outcomes_.publish(BatchOutcome{
        .name = header.name, .status = Ack::Status::error, .message = failure->second});
}

void FailingSaver::flushAndDrain() {
    inner_.flushAndDrain();
    if (forwarder_.joinable()) {
        forwarder_.join();
    }
    std::vector<BatchOutcome> held;
    {
        const std::lock_guard lock(mutex_);
        held.swap(held_);
    }
    for (auto& outcome : held) {
        outcomes_.publish(std::move(outcome));
    }
    outcomes_.finish();
}

} // namespace kestrelvane::testing
