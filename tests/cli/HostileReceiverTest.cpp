// A malicious receiver against the real `kestrelvane send` process: it reads
// everything, then acknowledges what was never sent, acknowledges twice, sends
// garbage or stays mute. The sender must end with status 1 and never count a
// file as saved that was not acknowledged "ok".
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "support/CliProcess.h"
#include "support/ScriptedReceiver.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>

namespace kestrelvane {
namespace {

using namespace testing;

const std::filesystem::path media = std::filesystem::path(KV_FIXTURES_DIR) / "media";

Ack ok(const std::string& name) {
    return {.name = name, .status = Ack::Status::ok};
}

struct Misbehaviour {
    std::string what;
    std::vector<Ack> acks;
    std::optional<Bytes> frame;             ///< sent after the acknowledgements, if any
    bool hangsUp;                           ///< or leaves the connection open
    std::multiset<std::string> reallySaved; ///< planned files acknowledged "ok"
};

TEST(HostileReceiver, SenderCountsOnlyOkAcknowledgementsOfFilesItSentAndAlwaysEnds) {
    const Ack mismatch = {.name = "video.mov", .status = Ack::Status::error, .message = "no"};
    const std::vector<Ack> strangers = {ok("ghost.jpg"), ok("../jpeg-original.jpg"),
                                        ok("JPEG-ORIGINAL.JPG")};
    const std::vector<Ack> twice = {ok("video.mov"), ok("video.mov"), ok("jpeg-original.jpg")};
    const std::multiset<std::string> oneEach = {"video.mov", "jpeg-original.jpg"};
    const std::vector<Misbehaviour> cases = {
        {"acknowledgements for names never sent", strangers, {}, true, {}},
        {"the video's ok twice, one for the name both photos have", twice, {}, true, oneEach},
        {"an error and then an ok for the same file", {mismatch, ok("video.mov")}, {}, true, {}},
        {"garbage instead of an acknowledgement", {}, toBytes("{\"name\":42"), false, {}},
        {"an acknowledgement without a status", {}, toBytes("{\"name\":\"video.mov\"}"), false, {}},
        {"a 2 MB frame where an acknowledgement belongs", {}, Bytes(2'000'000, 'x'), false, {}},
        {"never an acknowledgement, then a hang-up", {}, {}, true, {}},
    };
    // Two photos of the same name, from two folders, and a video.
    const TemporaryFolder other;
    const std::vector<std::string> files = {
        (media / "jpeg-original.jpg").string(), (media / "video.mov").string(),
        writeFile(other.path() / "jpeg-original.jpg", "another photo").string()};
    const std::multiset<std::string> sent = {"jpeg-original.jpg", "jpeg-original.jpg", "video.mov"};
    for (const auto& misbehaviour : cases) {
        SCOPED_TRACE(misbehaviour.what);
        TcpListener listener(0, TcpListener::Scope::loopback);
        std::vector<std::string> arguments = {"send", "--json", "--to",
                                              "127.0.0.1:" + std::to_string(listener.port())};
        arguments.insert(arguments.end(), files.begin(), files.end());
        const auto sender = kestrelvane(arguments, {}, Streams::stdoutOnly);
        auto stream = std::make_shared<BonjourStream>(listener.accept());
        stream->start();
        ScriptedReceiver receiver(stream, false);
        ASSERT_TRUE(receiver.waitForFiles(files.size()));
        try {
            for (const auto& ack : misbehaviour.acks) {
                receiver.sendAck(ack);
            }
            if (misbehaviour.frame) {
                receiver.sendFrame(*misbehaviour.frame);
            }
            if (misbehaviour.hangsUp) {
                receiver.closeConnection();
            }
        } catch (const std::system_error&) {
            // The sender ends after as many acknowledgements as files, whatever
            // they said, and may have hung up before the last of them.
        }
        const Finished finished = finish(*sender, std::chrono::seconds(30));
        receiver.closeConnection();
        ASSERT_EQ(finished.status, 1) << "the sender did not end with some files not saved";

        // Reported saved, as it went and in the summary, exactly what was
        // acknowledged "ok"; every other file listed as not saved.
        std::multiset<std::string> reportedOk;
        for (const auto& line : finished.lines) {
            const auto event = nlohmann::json::parse(line);
            if (event["event"] == "ack" && event["status"] == "ok") {
                reportedOk.insert(event["name"].get<std::string>());
            }
        }
        EXPECT_EQ(reportedOk, misbehaviour.reallySaved);
        const auto summary = nlohmann::json::parse(finished.lines.back());
        EXPECT_EQ(summary["saved"], misbehaviour.reallySaved.size()) << summary.dump();
        for (const auto& file : summary["unsaved"]) {
            reportedOk.insert(file["name"].get<std::string>());
        }
        EXPECT_EQ(reportedOk, sent);
    }
}

} // namespace
} // namespace kestrelvane
