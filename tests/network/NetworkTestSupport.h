#pragma once

#include "KestrelvaneKit/network/TcpConnection.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

namespace kestrelvane::testing {

/// Starts `connection` and returns the first report whose state `settles`
/// picks, with its error; nothing when none comes within 30 s. The handler
/// owns what it touches, so reports that come later, even after the
/// connection's owner has moved on, go nowhere.
inline std::optional<std::pair<TcpConnection::State, TcpConnection::Error>>
startUntilReport(TcpConnection& connection, std::function<bool(TcpConnection::State)> settles) {
    using Report = std::pair<TcpConnection::State, TcpConnection::Error>;
    struct Shared {
        std::mutex mutex;
        bool settled = false;
        std::promise<Report> report;
    };
    const auto shared = std::make_shared<Shared>();
    auto future = shared->report.get_future();
    connection.setStateHandler([shared, settles = std::move(settles)](
                                   TcpConnection::State state, const TcpConnection::Error& error) {
        const std::lock_guard lock(shared->mutex);
        if (!shared->settled && settles(state)) {
            shared->settled = true;
            shared->report.set_value({state, error});
        }
    });
    connection.start();
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        return std::nullopt;
    }
    return future.get();
}

} // namespace kestrelvane::testing
