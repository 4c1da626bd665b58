#include "support/EngineSession.h"

#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "support/TestFiles.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <sys/socket.h>
#include <system_error>
#include <tuple>

namespace kestrelvane::testing {

namespace fs = std::filesystem;

EngineSession::Ends EngineSession::connect(const Link& link) {
    Ends ends;
    if (link.kind == Link::Kind::memory) {
        std::tie(ends.raw[0], ends.raw[1]) = makeMemoryStreamPair();
    } else {
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.fds) != 0) {
            throw std::system_error(errno, std::generic_category(), "socketpair");
        }
        ends.raw[0] = std::make_shared<UsbmuxdStream>(FileDescriptor(ends.fds[0]));
        ends.raw[1] = std::make_shared<UsbmuxdStream>(FileDescriptor(ends.fds[1]));
    }
    ends.used[0] = ends.raw[0];
    ends.used[1] = ends.raw[1];
    if (link.cut) {
        auto& end = ends.used[static_cast<int>(link.cutSide)];
        ends.failing = std::make_shared<FailingStream>(end, *link.cut);
        end = ends.failing;
    }
    return ends;
}

EngineSession::EngineSession(const Link& link) : EngineSession(connect(link)) {
}

EngineSession::EngineSession(Ends ends)
    : ends_(std::move(ends)), senderChannel_(ends_.used[0]), receiverChannel_(ends_.used[1]),
      watchdog_([this](const std::stop_token& stop) {
          std::mutex mutex;
          std::unique_lock lock(mutex);
          if (!std::condition_variable_any().wait_for(lock, stop, deadline,
                                                      [&] { return stop.stop_requested(); })) {
              timedOut_ = true;
              closeBoth();
          }
      }) {
}

EngineSession::~EngineSession() {
    watchdog_.request_stop();
    watchdog_.join();
    closeBoth();
    waitForEngines();
    scripted_.reset();
}

void EngineSession::closeBoth() noexcept {
    ends_.raw[0]->close();
    ends_.raw[1]->close();
}

void EngineSession::serveFolder(const fs::path& destination, const fs::path& scratch,
                                const FailingSaver::Cue& cue) {
    folder_.emplace(destination);
    faulty_.emplace(*folder_, cue);
    served_ = std::async(std::launch::async, [this, scratch] {
        TransferServer server(*faulty_, scratch);
        if (partials) {
            server.enableResume(PartialStore(*partials));
        }
        server.run(receiverChannel_, [this](const auto& event) {
            const std::lock_guard lock(mutex_);
            events_.push_back(event);
        });
        receiverChannel_.cancel(); // as a real caller does once the session is over
    });
}

void EngineSession::send(std::vector<fs::path> files, const SessionHeader& session) {
    sent_ = std::async(std::launch::async, [this, files = std::move(files), session] {
        try {
            returned = client.send(files, senderChannel_, session, [this](const auto& step) {
                const std::lock_guard lock(mutex_);
                progress_.push_back(step);
            });
        } catch (const std::exception& thrown) {
            error = thrown.what();
        }
        senderChannel_.cancel(); // the sender's side of a session ends with it
    });
}

bool EngineSession::sendToFolder(std::vector<fs::path> files, const fs::path& destination,
                                 const fs::path& scratch, const FailingSaver::Cue& cue,
                                 const SessionHeader& session) {
    serveFolder(destination, scratch, cue);
    send(std::move(files), session);
    return finish();
}

ScriptedReceiver& EngineSession::receiver(bool autoAck) {
    scripted_ = std::make_unique<ScriptedReceiver>(ends_.used[1], autoAck);
    return *scripted_;
}

void EngineSession::endSending(Side side) {
    const int index = static_cast<int>(side);
    if (ends_.fds[index] >= 0) {
        ::shutdown(ends_.fds[index], SHUT_WR);
    } else {
        memoryEnd(side).finishSending();
    }
}

bool EngineSession::finish() {
    if (!sent_.valid()) {
        endSending(Side::sender); // the test played the sender and is done
    }
    waitForEngines(); // the watchdog closes the connection at the deadline
    watchdog_.request_stop();
    return !timedOut_;
}

void EngineSession::waitForEngines() {
    for (auto* engine : {&sent_, &served_}) {
        if (engine->valid()) {
            engine->wait();
        }
    }
}

std::vector<TransferClient::Progress> EngineSession::progress() const {
    const std::lock_guard lock(mutex_);
    return progress_;
}

std::vector<TransferServer::Event> EngineSession::events() const {
    const std::lock_guard lock(mutex_);
    return events_;
}

std::vector<fs::path> EngineSession::notReportedOk(const std::vector<fs::path>& files) const {
    const auto ok = reportedOk();
    std::vector<fs::path> rest;
    std::copy_if(files.begin(), files.end(), std::back_inserter(rest),
                 [&](const fs::path& file) { return ok.count(file.filename()) == 0; });
    return rest;
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

std::vector<std::string> filesNotAsIn(const fs::path& copies, const fs::path& originals) {
    std::vector<std::string> names = filesUnder(copies);
    std::erase_if(names, [&](const std::string& name) {
        return fs::exists(originals / name) &&
               readText(copies / name) == readText(originals / name);
    });
    return names;
}

} // namespace kestrelvane::testing
