// A malicious receiver against the real `kestrelvane send` process: it reads
// everything, then acknowledges what was never sent, acknowledges twice, sends
// garbage or stays mute. The sender must end with status 1 and never count a
// file as saved that was not acknowledged "ok".
#include "CliProcess.h"
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "support/ScriptedReceiver.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <set>

namespace kestrelvane {
namespace {

using namespace testing;

const std::vector<std::string> sentNames = {"jpeg-original.jpg", "video.mov"};

struct Misbehaviour {
    std::string what;
    std::function<void(ScriptedReceiver&)> script;
    std::set<std::string> reallySaved; ///< planned files acknowledged "ok"
};

ByteView text(std::string_view bytes) {
    return asBytes(bytes);
}

TEST(HostileReceiver, SenderCountsOnlyOkAcknowledgementsOfFilesItSentAndAlwaysEnds) {
    const std::vector<Misbehaviour> cases = {
        {"acknowledgements for names never sent, then a hang-up",
         [](ScriptedReceiver& receiver) {
             receiver.sendAck({.name = "ghost.jpg", .status = Ack::Status::ok});
             receiver.sendAck({.name = "../jpeg-original.jpg", .status = Ack::Status::ok});
             receiver.sendAck({.name = "JPEG-ORIGINAL.JPG", .status = Ack::Status::ok});
             receiver.closeConnection();
         },
         {}},
        {"the same ok twice for one file and nothing for the other",
         [](ScriptedReceiver& receiver) {
             receiver.sendAck({.name = "jpeg-original.jpg", .status = Ack::Status::ok});
             receiver.sendAck({.name = "jpeg-original.jpg", .status = Ack::Status::ok});
             receiver.closeConnection();
         },
         {"jpeg-original.jpg"}},
        {"an error and then an ok for the same file",
         [](ScriptedReceiver& receiver) {
             receiver.sendAck({.name = "video.mov",
                               .status = Ack::Status::error,
                               .message = "checksum mismatch"});
             receiver.sendAck({.name = "video.mov", .status = Ack::Status::ok});
             receiver.closeConnection();
         },
         {}},
        {"garbage instead of an acknowledgement, connection left open",
         [](ScriptedReceiver& receiver) { receiver.sendFrame(text("{\"name\":42")); },
         {}},
        {"an acknowledgement without a status, connection left open",
         [](ScriptedReceiver& receiver) { receiver.sendFrame(text("{\"name\":\"video.mov\"}")); },
         {}},
        {"a 2 MB frame where an acknowledgement belongs, connection left open",
         [](ScriptedReceiver& receiver) { receiver.sendFrame(Bytes(2'000'000, 'x')); },
         {}},
        {"never an acknowledgement, then a hang-up",
         [](ScriptedReceiver& receiver) { receiver.closeConnection(); },
         {}},
    };
    for (const auto& misbehaviour : cases) {
        SCOPED_TRACE(misbehaviour.what);
        TcpListener listener(0, TcpListener::Scope::loopback);
        std::vector<std::string> arguments = {"send", "--json", "--to",
                                              "127.0.0.1:" + std::to_string(listener.port())};
        for (const auto& name : sentNames) {
            arguments.push_back((media / name).string());
        }
        const auto process = kestrelvane(arguments, {}, Streams::stdoutOnly);
        ChildProcess& sender = *process;
        auto stream = std::make_shared<BonjourStream>(listener.accept());
        stream->start();
        ScriptedReceiver receiver(stream, false);
        ASSERT_TRUE(receiver.waitForFiles(sentNames.size()));
        try {
            misbehaviour.script(receiver);
        } catch (const std::system_error&) {
            // The sender ends after as many acknowledgements as files, whatever
            // they said, and may have hung up before the script's last words.
        }

        std::vector<nlohmann::json> events;
        while (auto line = sender.readLine()) {
            events.push_back(nlohmann::json::parse(*line));
        }
        const auto status = sender.waitFor();
        receiver.closeConnection();
        ASSERT_EQ(status, 1) << "the sender did not end with some files not saved";

        ASSERT_FALSE(events.empty());
        const auto& summary = events.back();
        ASSERT_EQ(summary["event"], "summary");
        EXPECT_EQ(summary["saved"], misbehaviour.reallySaved.size());
        std::set<std::string> unsaved;
        for (const auto& file : summary["unsaved"]) {
            unsaved.insert(file["name"].get<std::string>());
        }
        for (const auto& name : sentNames) {
            EXPECT_NE(unsaved.count(name), misbehaviour.reallySaved.count(name)) << name;
        }
        for (const auto& event : events) {
            if (event["event"] == "ack" && event["status"] == "ok") {
                EXPECT_EQ(misbehaviour.reallySaved.count(event["name"].get<std::string>()), 1u)
                    << "reported saved: " << event.dump();
            }
        }
    }
}

} // namespace
} // namespace kestrelvane
