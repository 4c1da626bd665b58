#include "KestrelvaneKit/receiving/BatchSaving.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <thread>
namespace kestrelvane {
namespace {

namespace fs = std::filesystem;

using testing::TemporaryFolder;

TEST(AsyncQueue, DeliversValuesPublishedBeforeTheConsumerStartsInOrderThenTheEnd) {
    AsyncQueue<int> queue;
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(queue.publish(i));
    }
    queue.finish();
    EXPECT_FALSE(queue.publish(99));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(queue.next(), i);
    }
    EXPECT_EQ(queue.next(), std::nullopt);
    EXPECT_EQ(queue.next(), std::nullopt);
}

TEST(AsyncQueue, ConsumerWaitsForProducersOnOtherThreadsAndSeesEachOnesOrder) {
    AsyncQueue<std::pair<int, int>> queue;
    auto consumer = std::async(std::launch::async, [&] {
        std::vector<std::vector<int>> seen(3);
        while (auto value = queue.next()) {
            seen[static_cast<std::size_t>(value->first)].push_back(value->second);
        }
        return seen;
    });
    {
        std::vector<std::jthread> producers;
        for (int p = 0; p < 3; ++p) {
            producers.emplace_back([&queue, p] {
                for (int i = 0; i < 1000; ++i) {
                    queue.publish({p, i});
                }
            });
        }
    }
    queue.finish();
    ASSERT_EQ(consumer.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const auto seen = consumer.get();
    for (const auto& sequence : seen) {
        ASSERT_EQ(sequence.size(), 1000u);
        EXPECT_TRUE(std::is_sorted(sequence.begin(), sequence.end()));
    }
}

TEST(TestBatchSaver, CallsBackWhileTheFileExistsReportsOkThenDeletesIt) {
    TemporaryFolder folder;
    const fs::path file = folder.path() / "IMG_1.jpg";
    std::ofstream(file) << "bytes";
    bool existedDuringCallback = false;
    TestBatchSaver saver([&](const fs::path& url, const FileHeader& header) {
        existedDuringCallback = fs::exists(url) && header.name == "IMG_1.jpg";
    });
    saver.begin(SessionHeader{.albumName = "Trip"});
    saver.enqueue(file, FileHeader{.name = "IMG_1.jpg"});

    EXPECT_TRUE(existedDuringCallback);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(saver.outcomes().next(), (BatchOutcome{.name = "IMG_1.jpg"}));

    // A file that is already gone is still reported saved.
    saver.enqueue(folder.path() / "gone.jpg", FileHeader{.name = "gone.jpg"});
    saver.flushAndDrain();
    saver.flushAndDrain();
    EXPECT_EQ(saver.outcomes().next(), (BatchOutcome{.name = "gone.jpg"}));
    EXPECT_EQ(saver.outcomes().next(), std::nullopt);
}

} // namespace
} // namespace kestrelvane
