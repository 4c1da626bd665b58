#include "KestrelvaneKit/sending/Inflight.h"

#include "support/CaughtError.h"
#include "support/Eventually.h"

#include <gtest/gtest.h>

#include <deque>
#include <future>

namespace kestrelvane {
namespace {

using testing::throwsClosed;

/// Reservations on threads of their own, each started once it is seen waiting
/// (or admitted at once); whatever still waits is cancelled at the end.
class Waiters {
public:
    explicit Waiters(Inflight& window) : window_(window) {}
    ~Waiters() { window_.cancelWaiting(); }

    std::future<void>& add(std::uint64_t bytes) {
        const std::size_t waiting = window_.waitingCount();
        auto& reservation = pending_.emplace_back(
            std::async(std::launch::async, [this, bytes] { window_.reserve(bytes); }));
        EXPECT_TRUE(testing::eventually([&] {
            return window_.waitingCount() > waiting ||
                   reservation.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        }));
        return reservation;
    }

private:
    Inflight& window_;
    std::deque<std::future<void>> pending_;
};

TEST(Inflight, WaitingReservationsAreAdmittedInOrderAsReleasesMakeRoom) {
    Inflight window(100, 1);
    Waiters waiters(window);
    window.reserve(60);
    waiters.add(60);
    waiters.add(40); // would fit beside the first 60, yet waits its turn
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{60, 1}));
    // One release admits the 60 by the file rule and the 40, filling the window exactly.
    window.release(60);
    EXPECT_EQ(window.waitingCount(), 0u);
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{100, 2}));
    waiters.add(1);
    window.release(5000); // more than in flight: 0, not a wrap-around
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{1, 2}));
}

TEST(Inflight, MinimumFilesAreAdmittedWhateverTheirSize) {
    Inflight window(200, 2);
    Waiters waiters(window);
    window.reserve(300);
    window.reserve(300);
    waiters.add(1); // two files always get in, a third waits
    EXPECT_EQ(window.waitingCount(), 1u);
    window.release(300);
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{301, 2}));

    const Inflight clamped(-5, 0);
    EXPECT_EQ(clamped.maxBytes(), 0u);
    EXPECT_EQ(clamped.minFiles(), 1);
}

// Once releases end, what fits is admitted and what would wait fails; once
// cancelled, every reservation fails. reopen() ends both.
TEST(Inflight, EndOfReleasesAndCancelEndWaitingUntilReopened) {
    Inflight window(10, 1);
    Waiters waiters(window);
    window.reserve(6);
    auto& first = waiters.add(6);
    window.endReleases();
    EXPECT_TRUE(throwsClosed([&] { first.get(); }));
    window.reserve(4); // fills the window exactly: no release needed
    EXPECT_TRUE(throwsClosed([&] { window.reserve(1); }));
    window.reopen();
    auto& second = waiters.add(1);
    window.cancelWaiting();
    EXPECT_TRUE(throwsClosed([&] { second.get(); }));
    EXPECT_TRUE(throwsClosed([&] { window.reserve(0); }));
    window.reopen();
    window.release(6);
    window.reserve(5);
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{9, 2}));
}

} // namespace
} // namespace kestrelvane
