// Host bindings, the log bridge and the hand-over of jobs to the host's queue.
// Every test ends unbound, so nothing of one test stays bound for the next.
#include "cache/bindings.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "cache/fetch_jobs.h"
#include "hostkit/line_logger.h"

namespace {

// A job that records the contexts it ran with; nothing here cancels it.
struct RecordingJob final : IAsyncObj {
    void Process(void* context) override { processed.push_back(context); }
    void Canceled(void*) override { ADD_FAILURE() << "canceled"; }
    std::vector<void*> processed;
};

// A queue that only records what it was handed.
using Held = std::vector<std::pair<IAsyncObj*, void*>>;
struct HoldingQueue final : IAsyncQueue {
    bool Queue(IAsyncObj* job, void* context) override {
        held.emplace_back(job, context);
        return true;
    }
    Held held;
};

TEST(BindingsTest, LogLinesReachOnlyTheBoundLogger) {
    hostkit::LineLogger first, second;
    EXPECT_FALSE(Cache_BindLogger(nullptr));
    __LOG__A(cache::CurrentLogger(), LL_INFO | LL_CACHE, "dropped %d", 1);
    EXPECT_TRUE(Cache_BindLogger(&first));
    EXPECT_FALSE(Cache_BindLogger(nullptr));  // a null bind leaves the binding alone
    __LOG__A(cache::CurrentLogger(), LL_ERROR | LL_CACHE, "[%s] Read : %p, %lld, %d", "f",
             static_cast<void*>(nullptr), 70000LL, 100);
    EXPECT_TRUE(Cache_BindLogger(&second));
    __LOG__A(cache::CurrentLogger(), LL_DETAIL | LL_CACHE, "to %s", "second");
    Cache_UnbindLogger();
    __LOG__A(cache::CurrentLogger(), LL_DETAIL | LL_CACHE, "dropped %d", 2);

    ASSERT_EQ(first.Lines().size(), 1u);
    EXPECT_EQ(first.Lines()[0].level, LL_ERROR | LL_CACHE);
    EXPECT_EQ(first.Lines()[0].format, "[%s] Read : %p, %lld, %d");
    EXPECT_EQ(first.Lines()[0].text, "[f] Read : (nil), 70000, 100");
    ASSERT_EQ(second.Lines().size(), 1u);
    EXPECT_EQ(second.Lines()[0].level, LL_DETAIL | LL_CACHE);
    EXPECT_EQ(second.Lines()[0].text, "to second");
}

TEST(BindingsTest, JobsRunAtOnceWithoutAQueueAndGoToTheBoundOne) {
    RecordingJob job;
    int marker = 0;
    cache::QueueAsync(&job, nullptr);  // runs here, and a null context becomes 1
    cache::QueueAsync(&job, &marker);
    EXPECT_EQ(job.processed, (std::vector<void*>{reinterpret_cast<void*>(1), &marker}));

    // A bound queue gets the job and its context as they are, and the
    // library never runs the job itself; a later bind replaces the queue.
    HoldingQueue first, second;
    EXPECT_TRUE(Cache_BindAsyncQ(&first));
    EXPECT_FALSE(Cache_BindAsyncQ(nullptr));  // leaves the binding alone
    cache::QueueAsync(&job, nullptr);
    EXPECT_TRUE(Cache_BindAsyncQ(&second));
    cache::QueueAsync(&job, &marker);
    Cache_UnbindAsyncQ();
    EXPECT_EQ(first.held, (Held{{&job, nullptr}}));
    EXPECT_EQ(second.held, (Held{{&job, &marker}}));
    EXPECT_EQ(job.processed.size(), 2u);
    cache::QueueAsync(&job, &marker);  // unbound: at once again
    EXPECT_EQ(job.processed.size(), 3u);
}

}  // namespace
