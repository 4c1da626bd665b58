#include "FaultySession.h"

#include "KestrelvaneKit/receiving/FolderSaver.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "support/MemoryStream.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <mutex>

namespace kestrelvane::testing {

namespace fs = std::filesystem;

namespace {

constexpr auto deadline = std::chrono::seconds(30);

std::set<std::string> okNames(const std::vector<Ack>& acks) {
    std::set<std::string> names;
    for (const auto& ack : acks) {
        if (ack.status == Ack::Status::ok) {
            names.insert(ack.name);
        }
    }
    return names;
}

} // namespace

std::set<std::string> SessionResult::reportedOk() const {
    return okNames(reported);
}

std::set<std::string> SessionResult::receiverOk() const {
    return okNames(receiverEvents);
}

SessionResult FaultySession::send(const std::vector<fs::path>& files, const fs::path& destination,
                                  const fs::path& scratch, const SessionFaults& faults) {
    auto [near, far] = makeMemoryStreamPair();
    std::shared_ptr<KestrelvaneStream> senderEnd = near;
    std::shared_ptr<KestrelvaneStream> receiverEnd = far;
    std::shared_ptr<FailingStream> failing;
    if (faults.cut) {
        auto& end = faults.side == Side::sender ? senderEnd : receiverEnd;
        failing = std::make_shared<FailingStream>(end, *faults.cut);
        end = failing;
    }

    SessionResult result;
    std::mutex mutex;
    FolderSaver folderSaver(destination);
    FailingSaver saver(folderSaver, faults.saver);
    FrameChannel serverChannel(receiverEnd);
    auto served = std::async(std::launch::async, [&] {
        TransferServer(saver, scratch).run(serverChannel, [&](const TransferServer::Event& event) {
            const std::lock_guard lock(mutex);
            result.receiverEvents.push_back(event.ack);
        });
        serverChannel.cancel();
    });
    FrameChannel clientChannel(senderEnd);
    auto sent = std::async(std::launch::async, [&] {
        try {
            auto acks = TransferClient().send(files, clientChannel, SessionHeader{},
                                              [&](const TransferClient::Progress& step) {
                                                  const std::lock_guard lock(mutex);
                                                  result.reported.push_back(step.ack);
                                              });
            const std::lock_guard lock(mutex);
            result.returned = std::move(acks);
        } catch (const std::exception& error) {
            const std::lock_guard lock(mutex);
            result.senderError = error.what();
        }
        // The sender's side of a session ends with it, as the callers of the engine do.
        clientChannel.cancel();
    });

    result.senderReturned = sent.wait_for(deadline) == std::future_status::ready;
    result.receiverReturned = served.wait_for(deadline) == std::future_status::ready;
    if (!result.senderReturned || !result.receiverReturned) {
        // Unblock whatever still waits so that the futures can be joined.
        near->close();
        far->close();
    }
    sent.wait();
    served.wait();
    result.cut = failing && failing->hasCut();
    return result;
}

bool sameContents(const fs::path& a, const fs::path& b) {
    std::ifstream first(a, std::ios::binary);
    std::ifstream second(b, std::ios::binary);
    if (!first || !second) {
        return false;
    }
    return std::equal(std::istreambuf_iterator<char>(first), std::istreambuf_iterator<char>(),
                      std::istreambuf_iterator<char>(second), std::istreambuf_iterator<char>());
}

std::vector<std::string> filesUnder(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            names.push_back(fs::relative(entry.path(), folder).string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace kestrelvane::testing
