// A receiver that hangs up its side of a real socket and stops reading, while
// the sender still has bytes to write: the send must end, not wait for ever
// on a full socket buffer.
#include "support/EngineSession.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

namespace kestrelvane {
namespace {

using namespace testing;

TEST(HalfClosedReceiver, EndsTheSendInsteadOfLeavingTheWriterBlocked) {
    TemporaryFolder folder;
    EngineSession session({.kind = Link::Kind::socketPair});
    session.send({writeFile(folder.path() / "a.mov", pattern(16 << 20)),
                  writeFile(folder.path() / "b.mov", pattern(16 << 20))});
    // The receiver takes nothing, says it is done, and keeps its socket open.
    session.endSending(Side::receiver);
    EXPECT_TRUE(session.finish()) << "the sender stayed blocked writing to a receiver that hung up";
    EXPECT_TRUE(session.error) << "a batch that was not read cannot have succeeded";
}

} // namespace
} // namespace kestrelvane
