#include "KestrelvaneKit/network/BonjourStream.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <stdexcept>

namespace kestrelvane {
namespace {

/// Where the state handler leaves the outcome of one start() for the waiting caller.
struct StartOutcome {
    std::mutex mutex;
    std::condition_variable_any settled;
    bool done = false;
    std::exception_ptr error;

    void settle(std::exception_ptr outcome) {
        std::lock_guard lock(mutex);
        if (!done) {
            done = true;
            error = std::move(outcome);
            settled.notify_all();
        }
    }
};

} // namespace

BonjourStream::BonjourStream(std::shared_ptr<TcpConnection> connection)
    : connection_(std::move(connection)) {
    if (!connection_) {
        throw std::invalid_argument("BonjourStream needs a connection");
    }
}

void BonjourStream::start() {
    start(std::chrono::milliseconds::zero(), {});
}

bool BonjourStream::start(std::chrono::milliseconds limit, const std::stop_token& stop) {
    {
        std::lock_guard lock(mutex_);
        if (isStarted_) {
            return true;
        }
        isStarted_ = true; // set before waiting: a second start() returns at once
    }
    auto outcome = std::make_shared<StartOutcome>();
    std::weak_ptr<TcpConnection> weakConnection = connection_;
    connection_->setStateHandler(
        [outcome, weakConnection](TcpConnection::State state, const TcpConnection::Error& error) {
            std::exception_ptr result;
            switch (state) {
            case TcpConnection::State::ready:
                break;
            case TcpConnection::State::failed:
                result = std::make_exception_ptr(*error);
                break;
            case TcpConnection::State::cancelled:
                result = std::make_exception_ptr(StreamError::closed());
                break;
            case TcpConnection::State::setup:
            case TcpConnection::State::preparing:
            case TcpConnection::State::waiting:
                return;
            }
            if (auto connection = weakConnection.lock()) {
                connection->setStateHandler(nullptr);
            }
            outcome->settle(result);
        });
    connection_->start();
    if (connection_->state() == TcpConnection::State::ready) {
        outcome->settle(nullptr); // was ready before: start() reports nothing new
    }

    std::unique_lock lock(outcome->mutex);
    const auto done = [&] { return outcome->done; };
    const bool settled = limit.count() == 0 ? outcome->settled.wait(lock, stop, done)
                                            : outcome->settled.wait_for(lock, stop, limit, done);
    if (settled && !outcome->error) {
        return true;
    }
    {
        std::lock_guard started(mutex_);
        isStarted_ = false;
    }
    if (!settled) {
        lock.unlock(); // the cancel settles the outcome
        connection_->cancel();
        return false;
    }
    std::rethrow_exception(outcome->error);
}

void BonjourStream::send(ByteView data) {
    connection_->send(data);
}

Bytes BonjourStream::receive(std::int64_t max) {
    return receiveThroughInto(max);
}

std::size_t BonjourStream::receiveInto(MutableByteView into) {
    if (into.empty()) {
        throw std::invalid_argument("receiveInto needs room for at least one byte");
    }
    const std::size_t count = connection_->receive(into);
    if (count == 0) {
        throw StreamError::closed();
    }
    return count;
}

void BonjourStream::close() noexcept {
    connection_->cancel();
}

} // namespace kestrelvane
