#include "hostkit/thread_pool_queue.h"

namespace hostkit {

ThreadPoolQueue::ThreadPoolQueue(int threads) {
    for (int i = 0; i < threads; ++i) workers_.emplace_back([this] { Work(); });
}

ThreadPoolQueue::~ThreadPoolQueue() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread& worker : workers_) worker.join();
    // Jobs posted while the workers stopped are dropped, never leaked: a
    // store waits for each of its jobs to end.
    std::unique_lock<std::mutex> guard(lock_);
    while (!jobs_.empty()) {
        auto [job, context] = jobs_.front();
        jobs_.pop_front();
        guard.unlock();
        job->Canceled(context);
        guard.lock();
    }
}

bool ThreadPoolQueue::Queue(IAsyncObj* job, void* context) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        jobs_.emplace_back(job, context);
    }
    wake_.notify_one();
    return true;
}

void ThreadPoolQueue::WaitIdle() {
    std::unique_lock<std::mutex> guard(lock_);
    idle_.wait(guard, [this] { return jobs_.empty() && running_ == 0; });
}

void ThreadPoolQueue::Work() {
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
        wake_.wait(guard, [this] { return stopping_ || !jobs_.empty(); });
        if (stopping_) return;  // what is left is canceled by the destructor
        auto [job, context] = jobs_.front();
        jobs_.pop_front();
        ++running_;
        guard.unlock();
        job->Process(context);
        guard.lock();
        --running_;
        if (jobs_.empty() && running_ == 0) idle_.notify_all();
    }
}

}  // namespace hostkit
