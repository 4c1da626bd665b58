#include "KestrelvaneKit/receiving/AsyncQueue.h"

#include <gtest/gtest.h>

namespace kestrelvane {
namespace {

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

} // namespace
} // namespace kestrelvane
