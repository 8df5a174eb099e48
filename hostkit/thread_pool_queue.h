// A host's job queue: a fixed pool of worker threads that run posted jobs in
// order of posting, handing each job the context it was posted with.
//
// Thread-safe. Jobs still waiting when the queue is destroyed are canceled
// (their Canceled runs on the destroying thread); running jobs are waited for.
#ifndef HOSTKIT_THREAD_POOL_QUEUE_H_
#define HOSTKIT_THREAD_POOL_QUEUE_H_

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "cache/cache.h"

namespace hostkit {

class ThreadPoolQueue final : public IAsyncQueue {
public:
    explicit ThreadPoolQueue(int threads);
    ThreadPoolQueue(const ThreadPoolQueue&) = delete;
    ThreadPoolQueue& operator=(const ThreadPoolQueue&) = delete;
    virtual ~ThreadPoolQueue();

    bool Queue(IAsyncObj* job, void* context) override;

    // Blocks until no job is waiting or running.
    void WaitIdle();

private:
    void Work();

    std::mutex lock_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::deque<std::pair<IAsyncObj*, void*>> jobs_;
    int running_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> workers_;
};

}  // namespace hostkit

#endif  // HOSTKIT_THREAD_POOL_QUEUE_H_
