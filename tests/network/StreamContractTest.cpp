// What KestrelvaneStream promises, held against every transport: TCP
// (BonjourStream), TLS over TCP (TlsStream) and a usbmuxd tunnel
// (UsbmuxdStream; a socket pair is all a tunnel is once handed over, and its
// stream owns the descriptor). Then the transports' answers to system calls
// that fail.
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "support/BlockedThread.h"
#include "support/CallOutcome.h"
#include "support/SystemCallFault.h"
#include "support/TestFiles.h"
#include "support/TestIdentities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <future>
#include <set>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

using testing::outcomeOf;
using testing::startsWith;

/// Two connected ends: `near` is tested, `far` plays the peer.
struct Ends {
    std::shared_ptr<KestrelvaneStream> near, far;
    std::shared_ptr<void> keep; // what must outlive them (a listener)
    int nearFd = -1;            // the tunnel's descriptor, which its stream owns
};

bool isOpenDescriptor(int fd) {
    return fd >= 0 && ::fcntl(fd, F_GETFD) != -1;
}

Ends overTcp() {
    auto listener = std::make_shared<TcpListener>(0, TcpListener::Scope::loopback);
    auto near = std::make_shared<BonjourStream>(
        std::make_shared<TcpConnection>("127.0.0.1", listener->port()));
    near->start();
    auto far = std::make_shared<BonjourStream>(listener->accept());
    far->start();
    return {near, far, listener};
}

Ends overTls() {
    const testing::TlsPair pair = testing::connectedOverTls("alice", "bob");
    EXPECT_EQ(pair.client->peerFingerprint(), testing::testIdentity("bob").fingerprint());
    EXPECT_EQ(pair.server->peerFingerprint(), testing::testIdentity("alice").fingerprint());
    return {pair.client, pair.server, pair.listener};
}

Ends overSocketPair() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    return {std::make_shared<UsbmuxdStream>(FileDescriptor(fds[0])),
            std::make_shared<UsbmuxdStream>(FileDescriptor(fds[1])),
            {},
            fds[0]};
}

struct Transport {
    std::string name;
    Ends (*connect)();
    long receiveWaitsIn;   // the system call a waiting receive parks in
    long sendWaitsIn;      // and a send the peer does not read
    std::string endedHere; // how calls end once close() was called here
};

/// `count` bytes from `stream`, asked for at most `piece` at a time.
Bytes receiveExactly(KestrelvaneStream& stream, std::size_t count, std::int64_t piece) {
    Bytes all;
    while (all.size() < count) {
        const Bytes got = stream.receive(piece);
        EXPECT_LE(got.size(), static_cast<std::size_t>(piece));
        all.insert(all.end(), got.begin(), got.end());
    }
    return all;
}

class StreamContract : public ::testing::TestWithParam<Transport> {
protected:
    /// How `call`, run on a thread of its own, ended once it waited in system
    /// call `waitsIn` and `wake` ran. A call that is not woken fails the test;
    /// the peer is then torn down so that the call returns.
    std::string endOfWaitingCall(long waitsIn, std::function<void()> call,
                                 const std::function<void()>& wake) {
        auto waiting = testing::callUntilBlockedIn({waitsIn}, [call] { return outcomeOf(call); });
        EXPECT_TRUE(waiting.blocked) << "the call never waited";
        wake();
        if (waiting.result.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
            ADD_FAILURE() << "the call still waits after it was woken";
            ends.far.reset();
        }
        return waiting.result.get();
    }

    Ends ends = GetParam().connect();
    const std::string& endedHere = GetParam().endedHere;
};

TEST_P(StreamContract, HandsOutNoMoreThanAskedAndThePeersEndAsClosedOnceItsBytesAreRead) {
    ends.far->send(asBytes("0123456789"));
    ends.far->close();
    Bytes memory(12, '#');
    for (std::size_t got = 0; got < 10;) {
        const std::size_t count = ends.near->receiveInto(MutableByteView(memory).subspan(got, 4));
        ASSERT_LE(count, 4u);
        got += count;
    }
    EXPECT_EQ(asText(memory), "0123456789##");
    EXPECT_THROW(ends.near->receiveInto({}), std::invalid_argument);
    EXPECT_EQ(outcomeOf([&] { ends.near->receiveInto(memory); }), "closed");
    EXPECT_EQ(outcomeOf([&] { ends.near->receive(1); }), "closed");
}

TEST_P(StreamContract, EitherEndsCloseEndsAWaitingReceiveAndACloseHereEveryLaterCall) {
    for (const bool here : {false, true}) {
        for (const bool intoCallersMemory : {false, true}) {
            ends = GetParam().connect();
            const auto near = ends.near;
            const auto closing = here ? near : ends.far;
            const auto receive = [near, intoCallersMemory] {
                Bytes memory(10);
                intoCallersMemory ? near->receiveInto(memory) : near->receive(10).size();
            };
            EXPECT_PRED2(startsWith,
                         endOfWaitingCall(GetParam().receiveWaitsIn, receive,
                                          [closing] { closing->close(); }),
                         here ? endedHere : "closed");
            // A tunnel's descriptor goes with close() alone: at once, or once
            // the call it cut off has left.
            if (!here) {
                EXPECT_EQ(isOpenDescriptor(ends.nearFd), ends.nearFd >= 0);
                near->close();
            }
            EXPECT_FALSE(isOpenDescriptor(ends.nearFd));
            if (here) {
                EXPECT_PRED2(startsWith, outcomeOf([&] { near->send(asBytes("late")); }),
                             endedHere);
                EXPECT_PRED2(startsWith, outcomeOf(receive), endedHere);
            }
            // A second close does nothing, even to a descriptor opened since
            // (perhaps under the same number).
            const int reused = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            near->close();
            EXPECT_TRUE(isOpenDescriptor(reused));
            ::close(reused);
        }
    }
}

TEST_P(StreamContract, ASendThatWaitsForThePeerToReadIsEndedByClose) {
    const auto near = ends.near;
    if (ends.nearFd >= 0) {
        // The tunnel is full before the send begins: none of it is written when close() comes.
        const int flags = ::fcntl(ends.nearFd, F_GETFL);
        ::fcntl(ends.nearFd, F_SETFL, flags | O_NONBLOCK);
        const Bytes filler(65536);
        for (const std::size_t size : {filler.size(), std::size_t{1}}) {
            while (::send(ends.nearFd, filler.data(), size, MSG_NOSIGNAL) > 0) {
            }
        }
        ::fcntl(ends.nearFd, F_SETFL, flags);
    }
    // Far more than the socket buffers hold, with nobody reading.
    EXPECT_PRED2(startsWith,
                 endOfWaitingCall(
                     GetParam().sendWaitsIn, [near] { near->send(Bytes(64 << 20)); },
                     [&] { near->close(); }),
                 endedHere);
    EXPECT_FALSE(isOpenDescriptor(ends.nearFd));
}

TEST_P(StreamContract, SendsAndReceivesRunTogetherAndConcurrentSendsNeverInterleave) {
    // More each way than the transport buffers: a send that held up the
    // receive on its stream would leave both ends waiting for ever. Each of
    // the 16 sends from near, each on a thread of its own, is one byte value.
    constexpr std::size_t block = 1 << 20;
    const Bytes fromFar = testing::pattern(16 * block, 3);
    std::vector<std::future<Bytes>> calls;
    calls.push_back(std::async(
        std::launch::async, [&] { return receiveExactly(*ends.near, fromFar.size(), 1 << 16); }));
    calls.push_back(std::async(std::launch::async,
                               [&] { return receiveExactly(*ends.far, 16 * block, 1 << 16); }));
    for (std::uint8_t mark = 0; mark <= 16; ++mark) {
        calls.push_back(std::async(std::launch::async, [&, mark] {
            mark == 0 ? ends.far->send(fromFar) : ends.near->send(Bytes(block, mark));
            return Bytes{};
        }));
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const bool finished = std::all_of(calls.begin(), calls.end(), [&](auto& call) {
        return call.wait_until(deadline) == std::future_status::ready;
    });
    if (!finished) {
        ends.near->close();
        ends.far->close();
    }
    ASSERT_TRUE(finished) << "sending and receiving at once did not finish";
    EXPECT_TRUE(calls[0].get() == fromFar);
    const Bytes got = calls[1].get();
    std::set<std::uint8_t> marks;
    for (std::size_t at = 0; at < got.size(); at += block) {
        const auto first = got.begin() + static_cast<std::ptrdiff_t>(at);
        EXPECT_EQ(std::count(first, first + block, got[at]), static_cast<std::ptrdiff_t>(block))
            << "another send's bytes inside the send at " << at;
        marks.insert(got[at]);
    }
    EXPECT_EQ(marks.size(), 16u);
}

INSTANTIATE_TEST_SUITE_P(
    , StreamContract,
    ::testing::Values(Transport{"Tcp", overTcp, SYS_recvfrom, SYS_sendto, "errno 125"},
                      Transport{"Tls", overTls, SYS_poll, SYS_poll, "closed"},
                      Transport{"UsbmuxdTunnel", overSocketPair, SYS_read, SYS_sendto, "closed"}),
    [](const auto& param) { return param.param.name; });

using testing::SystemCallFault;
using Call = SystemCallFault::Call;
enum class Operation { tcpSend, tcpReceive, tunnelSend, tunnelReceive, accept, connect, listen };

/// One system call failing once, and what the caller must see: "returned"
/// (and the bytes arrive whole), or the failure with its type, call and errno.
struct Fault {
    std::string name;
    Operation operation;
    Call call;
    int error;
    std::string caller;
};

class SystemCallFaults : public ::testing::TestWithParam<Fault> {};

TEST_P(SystemCallFaults, ReachTheCallerAsTheTableSays) {
    const Fault& fault = GetParam();
    // The count is the whole program's: other tests fail these calls too.
    const int before = SystemCallFault::failures(fault.call);
    std::string outcome;
    const auto underFault = [&](const std::function<void()>& call) {
        const SystemCallFault failing(fault.call, fault.error, 1);
        outcome = outcomeOf(call);
    };
    const Bytes data = testing::pattern(5000);
    TcpListener listener(0, TcpListener::Scope::loopback);
    const auto connect = [&] {
        BonjourStream(std::make_shared<TcpConnection>("127.0.0.1", listener.port())).start();
    };
    const auto is = [&](auto... operations) { return ((fault.operation == operations) || ...); };
    if (is(Operation::listen)) {
        underFault([] { TcpListener(0, TcpListener::Scope::loopback); });
    } else if (is(Operation::accept)) {
        connect();
        std::shared_ptr<TcpConnection> taken;
        underFault([&] { taken = listener.accept(); });
        // A connection that could not be taken waits for the next accept.
        EXPECT_NE(outcome == "returned" ? taken : listener.accept(), nullptr);
    } else if (is(Operation::connect)) {
        underFault(connect);
        if (fault.call == Call::getsockopt && SystemCallFault::failures(fault.call) == before) {
            GTEST_SKIP() << "the connect completed at once, so its outcome was never asked for";
        }
    } else {
        Ends ends =
            is(Operation::tunnelSend, Operation::tunnelReceive) ? overSocketPair() : overTcp();
        if (fault.error == EAGAIN) {
            // The kernel ends a call that moved nothing for the idle timeout with EAGAIN.
            dynamic_cast<BonjourStream&>(*ends.near)
                .connection()
                .setIdleTimeout(std::chrono::seconds(1));
        }
        Bytes received;
        if (is(Operation::tcpSend, Operation::tunnelSend)) {
            underFault([&] { ends.near->send(data); });
            if (outcome == "returned") {
                received = receiveExactly(*ends.far, data.size(), 1 << 16);
            }
        } else {
            ends.far->send(data);
            underFault([&] { received = receiveExactly(*ends.near, data.size(), 1 << 16); });
        }
        EXPECT_TRUE(outcome != "returned" || received == data) << "the bytes did not arrive whole";
    }
    EXPECT_EQ(SystemCallFault::failures(fault.call), before + 1) << "the fault never struck";
    EXPECT_PRED2(startsWith, outcome, fault.caller);
}

std::vector<Fault> faults() {
    using enum Operation;
    return {
        {"TcpSendInterrupted", tcpSend, Call::send, EINTR, "returned"},
        {"TcpReceiveInterrupted", tcpReceive, Call::recv, EINTR, "returned"},
        {"TcpSendFails", tcpSend, Call::send, EIO, "errno 5: send() failed (5)"},
        {"TcpReceiveFails", tcpReceive, Call::recv, EIO, "errno 5: recv() failed (5)"},
        {"TcpSendIdle", tcpSend, Call::send, EAGAIN, "errno 110: send() timed out after 1 s"},
        {"TcpReceiveIdle", tcpReceive, Call::recv, EAGAIN, "errno 110: recv() timed out after 1 s"},
        {"TunnelSendInterrupted", tunnelSend, Call::send, EINTR, "returned"},
        {"TunnelReceiveInterrupted", tunnelReceive, Call::read, EINTR, "returned"},
        {"TunnelSendFails", tunnelSend, Call::send, EIO, "errno 5: send() failed (5)"},
        {"TunnelReceiveFails", tunnelReceive, Call::read, EIO, "errno 5: read() failed (5)"},
        {"AcceptWaitInterrupted", accept, Call::poll, EINTR, "returned"},
        {"AcceptInterrupted", accept, Call::accept4, EINTR, "returned"},
        {"AcceptWaitFails", accept, Call::poll, EIO, "errno 5: poll() failed (5)"},
        {"AcceptFails", accept, Call::accept4, EPERM, "errno 1: accept() failed (1)"},
        {"NoSocketToListen", listen, Call::socket, EMFILE, "errno 24: bind() failed (24)"},
        {"NoSocketToConnect", connect, Call::socket, EMFILE, "errno 24: socket() failed (24)"},
        {"ConnectOutcomeUnreadable", connect, Call::getsockopt, EIO,
         "errno 5: connect() failed (5)"},
    };
}

INSTANTIATE_TEST_SUITE_P(, SystemCallFaults, ::testing::ValuesIn(faults()),
                         [](const auto& param) { return param.param.name; });

} // namespace
} // namespace kestrelvane
