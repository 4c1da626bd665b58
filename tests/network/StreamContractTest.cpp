// What KestrelvaneStream promises, held against every transport: TCP
// (BonjourStream), a usbmuxd tunnel (UsbmuxdStream; a socket pair is all a
// tunnel is once handed over) and the in-memory pair the engines' tests use.
// Then the transports' answers to system calls that fail.
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "support/BlockedThread.h"
#include "support/CallOutcome.h"
#include "support/MemoryStream.h"
#include "support/SystemCallFault.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <future>
#include <pthread.h>
#include <set>
#include <sys/socket.h>
#include <sys/syscall.h>

namespace kestrelvane {
namespace {

using testing::outcomeOf;
using testing::startsWith;

/// Two connected ends: `near` is tested, `far` plays the peer.
struct Ends {
    std::shared_ptr<KestrelvaneStream> near, far;
    std::shared_ptr<void> keep; // what must outlive them (a listener)
};

struct Transport {
    std::string name;
    std::function<Ends()> connect;
    std::vector<long> receiveWaitsIn; // the system calls a waiting receive parks in
    std::string endedHere;            // how calls end once close() was called here
};

Ends overTcp() {
    auto listener = std::make_shared<TcpListener>(0, TcpListener::Scope::loopback);
    auto near = std::make_shared<BonjourStream>(
        std::make_shared<TcpConnection>("127.0.0.1", listener->port()));
    near->start();
    auto far = std::make_shared<BonjourStream>(listener->accept());
    far->start();
    return {near, far, listener};
}

Ends overSocketPair() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    return {std::make_shared<UsbmuxdStream>(fds[0]), std::make_shared<UsbmuxdStream>(fds[1]), {}};
}

Ends memoryPair() {
    auto [near, far] = testing::makeMemoryStreamPair();
    return {near, far, {}};
}

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
    /// How `call`, run on a thread of its own, ended once it waited in one of
    /// `calls` and `wake` ran. A call that is not woken fails the test; the
    /// peer is then torn down so that the call returns.
    std::string endOfWaitingCall(const std::vector<long>& calls, std::function<void()> call,
                                 const std::function<void()>& wake) {
        auto waiting = testing::callUntilBlockedIn(calls, [call] { return outcomeOf(call); });
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
    const Bytes there = testing::pattern(64 * 1024, 1);
    ends.near->send(there);
    EXPECT_TRUE(receiveExactly(*ends.far, there.size(), 4096) == there);
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

TEST_P(StreamContract, APeerThatHangsUpEndsAWaitingReceiveWithClosed) {
    const auto near = ends.near;
    EXPECT_EQ(
        endOfWaitingCall(
            GetParam().receiveWaitsIn, [near] { near->receive(10); }, [&] { ends.far->close(); }),
        "closed");
}

TEST_P(StreamContract, CloseEndsAWaitingReceiveAndEveryLaterCall) {
    for (const bool intoCallersMemory : {false, true}) {
        ends = GetParam().connect();
        const auto near = ends.near;
        const auto receive = [near, intoCallersMemory] {
            Bytes memory(10);
            intoCallersMemory ? near->receiveInto(memory) : near->receive(10).size();
        };
        EXPECT_PRED2(startsWith,
                     endOfWaitingCall(GetParam().receiveWaitsIn, receive, [&] { near->close(); }),
                     endedHere);
        EXPECT_PRED2(startsWith, outcomeOf([&] { near->send(asBytes("late")); }), endedHere);
        EXPECT_PRED2(startsWith, outcomeOf(receive), endedHere);
        near->close(); // a second close does nothing
    }
}

TEST_P(StreamContract, SendsAndReceivesRunTogetherAndConcurrentSendsNeverInterleave) {
    // More each way than the transport buffers: a send that held up the
    // receive on its stream would leave both ends waiting for ever.
    constexpr std::size_t block = 1 << 20;
    constexpr int senders = 4;
    constexpr int blocksEach = 4;
    constexpr std::size_t total = block * senders * blocksEach;
    const Bytes fromFar = testing::pattern(total, 3);
    std::vector<std::future<void>> sends;
    for (int s = 0; s < senders; ++s) {
        sends.push_back(std::async(std::launch::async, [&, s] {
            for (int i = 0; i < blocksEach; ++i) {
                ends.near->send(Bytes(block, static_cast<std::uint8_t>(1 + s * blocksEach + i)));
            }
        }));
    }
    sends.push_back(std::async(std::launch::async, [&] { ends.far->send(fromFar); }));
    auto atNear =
        std::async(std::launch::async, [&] { return receiveExactly(*ends.near, total, 1 << 16); });
    auto atFar =
        std::async(std::launch::async, [&] { return receiveExactly(*ends.far, total, 1 << 16); });

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const auto done = [&](auto& future) {
        return future.wait_until(deadline) == std::future_status::ready;
    };
    const bool finished =
        done(atNear) && done(atFar) && std::all_of(sends.begin(), sends.end(), done);
    if (!finished) {
        ends.near->close();
        ends.far->close();
    }
    ASSERT_TRUE(finished) << "sending and receiving at once did not finish";
    EXPECT_TRUE(atNear.get() == fromFar);
    const Bytes got = atFar.get();
    std::set<std::uint8_t> marks;
    for (std::size_t at = 0; at < got.size(); at += block) {
        const auto first = got.begin() + static_cast<std::ptrdiff_t>(at);
        EXPECT_EQ(std::count(first, first + block, got[at]), static_cast<std::ptrdiff_t>(block))
            << "another send's bytes inside the send at " << at;
        marks.insert(got[at]);
    }
    EXPECT_EQ(marks.size(), std::size_t{senders * blocksEach});
}

const Transport tcp{"Tcp", overTcp, {SYS_recvfrom}, "errno 125"};
const Transport tunnel{"UsbmuxdTunnel", overSocketPair, {SYS_read}, "closed"};
const Transport inMemory{"InMemory", memoryPair, {SYS_futex}, "closed"};
const auto nameOf = [](const auto& param) { return param.param.name; };
INSTANTIATE_TEST_SUITE_P(, StreamContract, ::testing::Values(tcp, tunnel, inMemory), nameOf);

/// The transports whose send() waits while the peer reads nothing.
class WaitingSend : public StreamContract {};

TEST_P(WaitingSend, IsEndedByClose) {
    const auto near = ends.near;
    // Far more than the socket buffers hold, with nobody reading.
    EXPECT_PRED2(startsWith,
                 endOfWaitingCall(
                     {SYS_sendto}, [near] { near->send(Bytes(64 << 20)); }, [&] { near->close(); }),
                 endedHere);
}

extern "C" void ignoreSignal(int) {
}

TEST_P(WaitingSend, GoesOnWhenSignalsInterruptItAndDeliversEveryByte) {
    struct sigaction action {};
    action.sa_handler = ignoreSignal; // no SA_RESTART: a waiting send returns early
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    const Bytes data = testing::pattern(16 << 20);
    std::promise<pthread_t> senderThread;
    std::atomic<bool> done{false};
    auto sent = std::async(std::launch::async, [&] {
        senderThread.set_value(::pthread_self());
        ends.near->send(data);
        done = true;
        ends.near->close(); // a send that stopped short shows as an early end
    });
    const pthread_t sender = senderThread.get_future().get();
    Bytes received;
    while (received.size() < data.size()) {
        if (!done) {
            ::pthread_kill(sender, SIGUSR1);
        }
        const Bytes piece = ends.far->receive(1 << 16);
        received.insert(received.end(), piece.begin(), piece.end());
    }
    sent.get();
    EXPECT_TRUE(received == data);
    ::sigaction(SIGUSR1, &previous, nullptr);
}

INSTANTIATE_TEST_SUITE_P(, WaitingSend, ::testing::Values(tcp, tunnel), nameOf);

using testing::SystemCallFault;
using Call = SystemCallFault::Call;
enum class Operation { send, receive, accept, connect };

/// One system call failing once, and what the caller must see: "returned"
/// (and the bytes arrive whole), or the failure with its type, call and errno.
struct Fault {
    std::string name;
    Operation operation;
    Call call;
    int error;
    std::string caller;
    Ends (*connect)() = nullptr; // the transport sending or receiving
    int idleMilliseconds = 0;
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
    if (fault.operation == Operation::accept) {
        connect();
        std::shared_ptr<TcpConnection> taken;
        underFault([&] { taken = listener.accept(); });
        // A connection that could not be taken waits for the next accept.
        EXPECT_NE(outcome == "returned" ? taken : listener.accept(), nullptr);
    } else if (fault.operation == Operation::connect) {
        underFault(connect);
        if (fault.call == Call::getsockopt && SystemCallFault::failures(fault.call) == before) {
            GTEST_SKIP() << "the connect completed at once, so its outcome was never asked for";
        }
    } else {
        Ends ends = fault.connect();
        if (fault.idleMilliseconds > 0) {
            dynamic_cast<BonjourStream&>(*ends.near)
                .connection()
                .setIdleTimeout(std::chrono::milliseconds(fault.idleMilliseconds));
        }
        Bytes received;
        if (fault.operation == Operation::send) {
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

INSTANTIATE_TEST_SUITE_P(
    , SystemCallFaults,
    ::testing::Values(
        Fault{"TcpSendInterrupted", Operation::send, Call::send, EINTR, "returned", overTcp},
        Fault{"TcpReceiveInterrupted", Operation::receive, Call::recv, EINTR, "returned", overTcp},
        Fault{"TcpSendFails", Operation::send, Call::send, EIO, "errno 5: send() failed (5)",
              overTcp},
        Fault{"TcpReceiveFails", Operation::receive, Call::recv, EIO, "errno 5: recv() failed (5)",
              overTcp},
        // The kernel ends a call that moved nothing for the idle timeout with EAGAIN.
        Fault{"TcpReceiveIdle", Operation::receive, Call::recv, EAGAIN,
              "errno 110: recv() timed out after 500 ms", overTcp, 500},
        Fault{"TcpSendIdle", Operation::send, Call::send, EAGAIN,
              "errno 110: send() timed out after 1 s", overTcp, 1000},
        Fault{"TunnelSendInterrupted", Operation::send, Call::send, EINTR, "returned",
              overSocketPair},
        Fault{"TunnelReceiveInterrupted", Operation::receive, Call::read, EINTR, "returned",
              overSocketPair},
        Fault{"TunnelSendFails", Operation::send, Call::send, EIO, "usbmuxd: write failed (5)",
              overSocketPair},
        Fault{"TunnelReceiveFails", Operation::receive, Call::read, EIO, "usbmuxd: read failed (5)",
              overSocketPair},
        Fault{"AcceptWaitInterrupted", Operation::accept, Call::poll, EINTR, "returned"},
        Fault{"AcceptInterrupted", Operation::accept, Call::accept4, EINTR, "returned"},
        Fault{"AcceptWaitFails", Operation::accept, Call::poll, EIO, "errno 5: poll() failed (5)"},
        Fault{"AcceptFails", Operation::accept, Call::accept4, EPERM,
              "errno 1: accept() failed (1)"},
        Fault{"NoSocketToConnect", Operation::connect, Call::socket, EMFILE,
              "errno 24: socket() failed (24)"},
        Fault{"ConnectOutcomeUnreadable", Operation::connect, Call::getsockopt, EIO,
              "errno 5: connect() failed (5)"}),
    nameOf);

} // namespace
} // namespace kestrelvane
