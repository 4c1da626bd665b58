#include "KestrelvaneKit/sending/Inflight.h"

#include "KestrelvaneKit/wire/KestrelvaneStream.h"
#include "support/Eventually.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrelvane {
namespace {

using testing::eventually;

/// Reservations made on their own threads, each recording the order in which
/// it was admitted, so a test can look at who got in and who still waits.
class Reservations {
public:
    explicit Reservations(Inflight& window) : window_(window) {}
    ~Reservations() {
        window_.cancelWaiting();
        for (auto& pending : pending_) {
            pending.wait();
        }
    }

    /// Starts a reservation of `bytes` and returns once it is admitted or waiting.
    void reserve(std::uint64_t bytes) {
        const std::size_t waitingBefore = window_.waitingCount();
        const std::size_t admittedBefore = admitted().size();
        pending_.push_back(std::async(std::launch::async, [this, bytes] {
            try {
                window_.reserve(bytes);
                const std::lock_guard lock(mutex_);
                admitted_.push_back(bytes);
            } catch (const StreamError&) {
            }
        }));
        EXPECT_TRUE(eventually([&] {
            return window_.waitingCount() > waitingBefore || admitted().size() > admittedBefore;
        }));
    }

    std::vector<std::uint64_t> admitted() {
        const std::lock_guard lock(mutex_);
        return admitted_;
    }

    bool eventuallyAdmitted(std::size_t count) {
        return eventually([&] { return admitted().size() == count; });
    }

private:
    Inflight& window_;
    std::mutex mutex_;
    std::vector<std::uint64_t> admitted_;
    std::vector<std::future<void>> pending_;
};

TEST(Inflight, WaitingRequestsAreAdmittedInOrderEvenWhenALaterOneWouldFit) {
    Inflight window(100, 1);
    Reservations reservations(window);
    reservations.reserve(60);
    reservations.reserve(60);
    reservations.reserve(10); // would fit beside the first 60, but waits its turn
    EXPECT_EQ(reservations.admitted(), std::vector<std::uint64_t>{60});
    EXPECT_EQ(window.waitingCount(), 2u);

    // One release admits the 60 by the file rule and the 10 by the byte rule.
    window.release(60);
    ASSERT_TRUE(reservations.eventuallyAdmitted(3));
    EXPECT_EQ(window.waitingCount(), 0u);
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{70, 2}));
}

TEST(Inflight, ARequestThatDoesNotFitHoldsBackEveryoneBehindIt) {
    Inflight window(100, 1);
    Reservations reservations(window);
    reservations.reserve(60);
    reservations.reserve(50);
    reservations.reserve(70);
    window.release(60);
    ASSERT_TRUE(reservations.eventuallyAdmitted(2));
    EXPECT_EQ(window.waitingCount(), 1u); // 50 + 70 > 100
    reservations.reserve(10);             // 50 + 10 would fit, yet it queues behind the 70
    EXPECT_EQ(window.waitingCount(), 2u);
    EXPECT_EQ(reservations.admitted(), (std::vector<std::uint64_t>{60, 50}));
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{50, 1}));
}

TEST(Inflight, MinimumFilesAreAdmittedWhateverTheirSize) {
    Inflight window(209'715'200, 2);
    window.reserve(300'000'000);
    window.reserve(300'000'000); // two files always get in
    Reservations reservations(window);
    reservations.reserve(1);
    EXPECT_EQ(window.waitingCount(), 1u);
    window.release(300'000'000);
    ASSERT_TRUE(reservations.eventuallyAdmitted(1));
    // Already counted when reserve() returned.
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{300'000'001, 2}));
}

TEST(Inflight, ClampsItsLimitsAndSaturatesReleases) {
    Inflight window(-5, 0);
    EXPECT_EQ(window.maxBytes(), 0u);
    EXPECT_EQ(window.minFiles(), 1);
    window.reserve(0);
    window.reserve(0); // two empty files fit in a zero budget
    window.release(0);
    window.release(0);
    window.reserve(1000); // one file of any size
    Reservations reservations(window);
    reservations.reserve(1);
    EXPECT_EQ(window.waitingCount(), 1u);
    window.release(5000); // more than in flight: 0, not a wrap-around
    ASSERT_TRUE(reservations.eventuallyAdmitted(1));
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{1, 1}));
    window.release(1);
    window.release(1); // nothing in flight: stays at zero
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{0, 0}));
}

TEST(Inflight, CancelEndsWaitingAndLaterReservationsUntilReopened) {
    Inflight window(10, 1);
    window.reserve(10);
    auto waiting = std::async(std::launch::async, [&] { window.reserve(5); });
    ASSERT_TRUE(eventually([&] { return window.waitingCount() == 1; }));
    window.cancelWaiting();
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_THROW(waiting.get(), StreamError);
    EXPECT_THROW(window.reserve(0), StreamError);
    window.reopen();
    window.release(10);
    window.reserve(5);
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{5, 1}));
}

TEST(Inflight, AfterReleasesEndWhatFitsIsAdmittedAndWhatWouldWaitFails) {
    Inflight window(10, 1);
    window.reserve(6);
    auto waiting = std::async(std::launch::async, [&] { window.reserve(6); });
    ASSERT_TRUE(eventually([&] { return window.waitingCount() == 1; }));
    window.endReleases();
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_THROW(waiting.get(), StreamError);
    window.reserve(4); // fits beside the 6 in flight: no release needed
    EXPECT_EQ(window.snapshot(), (Inflight::Snapshot{10, 2}));
    EXPECT_THROW(window.reserve(1), StreamError); // would wait for ever
    window.reopen();
    auto later = std::async(std::launch::async, [&] { window.reserve(1); });
    ASSERT_TRUE(eventually([&] { return window.waitingCount() == 1; }));
    window.release(6);
    ASSERT_EQ(later.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    later.get();
}

} // namespace
} // namespace kestrelvane
