// Plays arbitrary bytes as everything a stranger sends to a receiver that
// serves paired senders only, then hangs up: the first-byte rule, the TLS
// handshake (OpenSSL's own parsing) and the hello. The receiver's side must
// end with a refusal, never a crash, a hang or a stream to serve.
#include "KestrelvaneKit/session/PrivateLink.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

using namespace kestrelvane;

namespace {

const PrivateLink::Policy& policy() {
    static const PrivateLink::Policy made = [] {
        char folder[] = "/tmp/kv-fuzz-admission-XXXXXX";
        if (::mkdtemp(folder) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        const Trust trust{std::filesystem::path(folder) / "kestrelvane", "fuzz receiver"};
        DeviceIdentity::loadOrCreate(trust.folder);
        return PrivateLink::Policy{trust, false, nullptr, {}, std::chrono::seconds(1)};
    }();
    return made;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return 0;
    }
    const FileDescriptor stranger(ends[1]);
    FileDescriptor::sendAll(stranger.get(), ByteView(data, std::min<std::size_t>(size, 65536)));
    ::shutdown(stranger.get(), SHUT_WR); // everything it says, then its end
    const auto admitted =
        PrivateLink::fromSender(std::make_shared<TcpConnection>(FileDescriptor(ends[0])), policy());
    if (admitted.stream || admitted.paired || admitted.refusal.empty()) {
        std::abort(); // a stranger was served, paired or let go without a word
    }
    return 0;
}
