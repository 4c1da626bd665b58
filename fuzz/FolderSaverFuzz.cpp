// Hands the folder saver a file under an arbitrary name, in an arbitrary
// album, as a hostile sender could. Whatever the names, nothing may appear
// outside the saver's folder, and a file reported saved must be there, whole.
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/receiving/FolderSaver.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace kestrelvane;
namespace fs = std::filesystem;

namespace {

/// A private folder on tmpfs where there is one, holding the saver's
/// folder ("root") and where the received file waits ("staging").
const fs::path& workFolder() {
    static const fs::path folder = [] {
        const fs::path base = fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
        std::string pattern = (base / "kv-fuzz-saver-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        fs::create_directory(fs::path(pattern) / "root");
        fs::create_directory(fs::path(pattern) / "staging");
        return fs::path(pattern);
    }();
    return folder;
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KVLog::setSink(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    // First byte: where the album ends and the name begins; 0 means no album.
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::size_t split = std::min<std::size_t>(data[0], text.size());
    SessionHeader session;
    if (split > 0) {
        session.albumName = text.substr(0, split);
    }
    const std::string name = text.substr(split);

    const fs::path root = workFolder() / "root";
    const fs::path received = workFolder() / "staging" / "received";
    std::ofstream(received, std::ios::binary) << "payload";

    FolderSaver saver(root);
    saver.begin(session);
    saver.enqueue(received, FileHeader{.name = name,
                                       .mediaType = MediaType::photo,
                                       .byteCount = 7,
                                       .sha256 = std::string(64, '0')});
    saver.flushAndDrain();
    const auto outcome = saver.outcomes().next();
    if (!outcome || saver.outcomes().next()) {
        fail("not exactly one outcome for one file");
    }

    // Only the two folders of our own may be in the work folder.
    for (const auto& entry : fs::directory_iterator(workFolder())) {
        const auto entryName = entry.path().filename();
        if (entryName != "root" && entryName != "staging") {
            fail("something was written outside the saver's folder");
        }
    }
    if (!fs::is_empty(workFolder() / "staging")) {
        fail("the received file was left behind");
    }
    int files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            ++files;
            std::ifstream in(entry.path(), std::ios::binary);
            const std::string contents((std::istreambuf_iterator<char>(in)),
                                       std::istreambuf_iterator<char>());
            if (contents != "payload") {
                fail("a saved file is not what was received");
            }
        }
    }
    if (files != (outcome->status == Ack::Status::ok ? 1 : 0)) {
        fail("the outcome does not match what is in the folder");
    }
    for (const auto& entry : fs::directory_iterator(root)) {
        fs::remove_all(entry.path());
    }
    return 0;
}
