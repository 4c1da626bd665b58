// Plays arbitrary bytes to the receiving engine as a sender's whole side of a
// session, with a test saver and a private temporary folder. The engine must
// neither crash nor leak, and must leave no temporary file behind: every file
// it hands over is deleted by the saver, every other one by the engine.
// Built with KV_FUZZ_RESUME, the engine speaks the resume extension too, its
// partial files kept in a private folder of their own (offers, offsets and
// holdings of a hostile sender).
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/receiving/PartialStore.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "ReplayStream.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <unistd.h>

using namespace kestrelvane;
namespace fs = std::filesystem;

namespace {

fs::path privateFolder() {
    std::string pattern = (fs::temp_directory_path() / "kv-fuzz-server-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    return fs::path(pattern);
}

const fs::path& privateTemporaryFolder() {
    static const fs::path folder = privateFolder();
    return folder;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KVLog::setSink(nullptr); // millions of sessions would flood the journal
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte picks the slice length: whole buffers and split prefixes.
    const std::size_t slice = data[0] < 128 ? 262'144 : 1 + data[0] % 13;
    auto stream = std::make_shared<ReplayStream>(ByteView(data + 1, size - 1), slice);
    FrameChannel channel(stream);

    DiscardingSaver saver([](const fs::path&, const FileHeader&) {});
    TransferServer server(saver, privateTemporaryFolder());
#ifdef KV_FUZZ_RESUME
    static const fs::path partials = privateFolder();
    server.enableResume(PartialStore(partials));
#endif
    server.run(channel, nullptr);

    if (!fs::is_empty(privateTemporaryFolder())) {
        std::fputs("a temporary file was left behind\n", stderr);
        std::abort();
    }
    return 0;
}
