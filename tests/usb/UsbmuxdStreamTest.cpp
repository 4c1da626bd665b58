#include "KestrelvaneKit/usb/UsbmuxdStream.h"

#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "support/BlockedThread.h"
#include "support/CaughtError.h"
#include "support/SystemCallFault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <future>
#include <pthread.h>
#include <set>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace kestrelvane {
namespace {

using testing::throwsClosed;

/// A connected socket pair: the stream under test owns one end, the test
/// plays the phone on the other.
struct Tunnel {
    Tunnel() {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
            throw std::runtime_error("socketpair failed");
        }
        streamFd = fds[0];
        phone = fds[1];
        stream = std::make_shared<UsbmuxdStream>(streamFd);
    }
    ~Tunnel() {
        stream->close();
        if (phone >= 0) {
            ::close(phone);
        }
    }
    void hangUp() {
        ::close(phone);
        phone = -1;
    }
    Bytes phoneReads(std::size_t count) const {
        Bytes out(count);
        std::size_t got = 0;
        while (got < count) {
            const ssize_t n = ::read(phone, out.data() + got, count - got);
            if (n <= 0) {
                break;
            }
            got += static_cast<std::size_t>(n);
        }
        out.resize(got);
        return out;
    }

    int streamFd = -1;
    int phone = -1;
    std::shared_ptr<UsbmuxdStream> stream;
};

bool isOpenDescriptor(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

TEST(UsbmuxdStream, CarriesBytesBothWaysAndNeverMoreThanAsked) {
    Tunnel tunnel;
    tunnel.stream->start();
    tunnel.stream->send(asBytes("to the phone"));
    EXPECT_EQ(tunnel.phoneReads(12), toBytes("to the phone"));
    ASSERT_EQ(::write(tunnel.phone, "from the phone", 14), 14);
    Bytes received;
    while (received.size() < 14) {
        const Bytes piece = tunnel.stream->receive(5);
        ASSERT_GE(piece.size(), 1u);
        ASSERT_LE(piece.size(), 5u);
        received.insert(received.end(), piece.begin(), piece.end());
    }
    EXPECT_EQ(received, toBytes("from the phone"));
    EXPECT_THROW(tunnel.stream->receive(0), std::invalid_argument);
}

TEST(UsbmuxdStream, ReceiveIntoFillsTheCallersMemoryWithNoMoreThanItsSize) {
    Tunnel tunnel;
    ASSERT_EQ(::write(tunnel.phone, "straight in", 11), 11);
    Bytes memory(16, 0xEE);
    std::size_t got = 0;
    while (got < 11) {
        const std::size_t n = tunnel.stream->receiveInto(MutableByteView(memory).subspan(got, 4));
        ASSERT_GE(n, 1u);
        ASSERT_LE(n, 4u);
        got += n;
    }
    EXPECT_EQ(Bytes(memory.begin(), memory.begin() + 11), toBytes("straight in"));
    EXPECT_EQ(Bytes(memory.begin() + 11, memory.end()), Bytes(5, 0xEE));
    EXPECT_THROW(tunnel.stream->receiveInto({}), std::invalid_argument);

    tunnel.hangUp();
    EXPECT_TRUE(throwsClosed([&] { tunnel.stream->receiveInto(memory); }));
}

TEST(UsbmuxdStream, APeerThatHangsUpEndsReceivesAndFailsSendsButNotEmptyOnes) {
    Tunnel tunnel;
    auto pending = testing::callUntilBlockedIn(
        {SYS_read}, [&] { return throwsClosed([&] { tunnel.stream->receive(100); }); });
    ASSERT_TRUE(pending.blocked);
    tunnel.hangUp();
    ASSERT_EQ(pending.result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_TRUE(pending.result.get());
    EXPECT_TRUE(throwsClosed([&] { tunnel.stream->receive(100); }));

    tunnel.stream->send({}); // nothing to write, so nothing to fail
    try {
        tunnel.stream->send(asBytes("lost"));
        FAIL() << "a send to a vanished peer succeeded";
    } catch (const UsbmuxdError& error) {
        EXPECT_EQ(error, UsbmuxdError::socketError("write failed (" + std::to_string(EPIPE) + ")"));
    }
}

TEST(UsbmuxdStream, CloseEndsSendsAndReceivesAndReleasesTheDescriptorOnce) {
    Tunnel tunnel;
    tunnel.stream->close();
    EXPECT_FALSE(isOpenDescriptor(tunnel.streamFd));
    EXPECT_TRUE(throwsClosed([&] { tunnel.stream->send(asBytes("x")); }));
    EXPECT_TRUE(throwsClosed([&] { tunnel.stream->receive(1); }));

    // A descriptor opened since must survive a second close.
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    tunnel.stream->close();
    EXPECT_TRUE(isOpenDescriptor(fds[0]));
    EXPECT_TRUE(isOpenDescriptor(fds[1]));
    ::close(fds[0]);
    ::close(fds[1]);
    // The phone sees the tunnel end.
    EXPECT_TRUE(tunnel.phoneReads(1).empty());
}

TEST(UsbmuxdStream, CloseFromAnotherThreadWakesABlockedReceive) {
    for (const bool intoCallersMemory : {false, true}) {
        Tunnel tunnel;
        auto pending = testing::callUntilBlockedIn({SYS_read}, [&] {
            return throwsClosed([&] {
                if (intoCallersMemory) {
                    Bytes memory(100);
                    tunnel.stream->receiveInto(memory);
                } else {
                    tunnel.stream->receive(100);
                }
            });
        });
        ASSERT_TRUE(pending.blocked);
        tunnel.stream->close();
        ASSERT_EQ(pending.result.wait_for(std::chrono::seconds(30)), std::future_status::ready)
            << "the receive is still blocked after close()";
        EXPECT_TRUE(pending.result.get());
        // Released by the receive on its way out, not under it.
        EXPECT_FALSE(isOpenDescriptor(tunnel.streamFd));
    }
}

TEST(UsbmuxdStream, ConcurrentSendsNeverInterleave) {
    Tunnel tunnel;
    constexpr std::size_t chunk = 1'048'576; // far beyond one write's worth
    constexpr int senders = 4;
    constexpr int sendsEach = 3;
    auto reader = std::async(std::launch::async,
                             [&] { return tunnel.phoneReads(chunk * senders * sendsEach); });
    std::vector<std::thread> threads;
    for (int s = 0; s < senders; ++s) {
        threads.emplace_back([&, s] {
            for (int i = 0; i < sendsEach; ++i) {
                const Bytes data(chunk, static_cast<std::uint8_t>(s * sendsEach + i + 1));
                tunnel.stream->send(data);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const Bytes all = reader.get();
    ASSERT_EQ(all.size(), chunk * senders * sendsEach);
    std::set<std::uint8_t> seen;
    for (std::size_t offset = 0; offset < all.size(); offset += chunk) {
        const std::uint8_t mark = all[offset];
        EXPECT_TRUE(seen.insert(mark).second) << "send " << int{mark} << " split up";
        EXPECT_TRUE(std::all_of(all.begin() + static_cast<std::ptrdiff_t>(offset),
                                all.begin() + static_cast<std::ptrdiff_t>(offset + chunk),
                                [&](std::uint8_t b) { return b == mark; }))
            << "bytes of another send inside send " << int{mark};
    }
}

extern "C" void ignoreSignal(int) {
}

TEST(UsbmuxdStream, InterruptedWritesAreRetriedAndTheDataArrivesWhole) {
    struct sigaction action {};
    action.sa_handler = ignoreSignal; // no SA_RESTART: blocked writes see EINTR
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);

    Tunnel tunnel;
    Bytes data(8 * 1'048'576);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>(i * 31 + i / 4096);
    }
    std::atomic<bool> done{false};
    std::promise<pthread_t> senderThread;
    auto sent = std::async(std::launch::async, [&] {
        senderThread.set_value(::pthread_self());
        tunnel.stream->send(data);
        done = true;
    });
    const pthread_t sender = senderThread.get_future().get();
    Bytes received;
    while (received.size() < data.size()) {
        if (!done) {
            ::pthread_kill(sender, SIGUSR1);
        }
        const Bytes piece =
            tunnel.phoneReads(std::min<std::size_t>(65536, data.size() - received.size()));
        ASSERT_FALSE(piece.empty());
        received.insert(received.end(), piece.begin(), piece.end());
    }
    sent.get();
    EXPECT_TRUE(received == data);
    ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST(UsbmuxdStream, AnInterruptedReadGoesOnAndOtherReadOrWriteFailuresAreSocketErrors) {
    using testing::SystemCallFault;
    Tunnel tunnel;
    const Bytes data{'a', 'b', 'c'};
    ASSERT_EQ(::write(tunnel.phone, data.data(), data.size()), 3);
    {
        const SystemCallFault interrupted(SystemCallFault::Call::read, EINTR, 1);
        EXPECT_EQ(tunnel.stream->receive(3), data);
    }
    const auto errorOf = [](auto call) { return testing::errorOf<UsbmuxdError>(call); };
    {
        const SystemCallFault failing(SystemCallFault::Call::read, EIO, 1);
        EXPECT_EQ(errorOf([&] { tunnel.stream->receive(3); }),
                  UsbmuxdError::socketError("read failed (5)"));
    }
    {
        const SystemCallFault failing(SystemCallFault::Call::send, EIO, 1);
        EXPECT_EQ(errorOf([&] { tunnel.stream->send(data); }),
                  UsbmuxdError::socketError("write failed (5)"));
    }
    EXPECT_EQ(SystemCallFault::failures(SystemCallFault::Call::read), 2);
}

} // namespace
} // namespace kestrelvane
