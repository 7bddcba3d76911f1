#include "work_queue.h"

#include "signals.h"

#include <algorithm>

namespace tessary::proxy {

WorkQueue::WorkQueue(unsigned workers, unsigned perSite) : perSite_(perSite) {
    const BlockedSignals blocked;
    for (unsigned i = 0; i <= workers; ++i)
        threads_.emplace_back([this, quickOnly = i == workers] { Work(quickOnly); });
}

WorkQueue::~WorkQueue() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        waiting_.clear();
    }
    changed_.notify_all();
    for (std::thread& thread : threads_)
        thread.join();
}

void WorkQueue::Add(Job job) {
    {
        const std::lock_guard lock(mutex_);
        waiting_.push_back(std::move(job));
    }
    changed_.notify_all(); // which of them may take it, they find out
}

void WorkQueue::Cancel(std::uint64_t id) {
    const std::lock_guard lock(mutex_);
    std::erase_if(waiting_, [id](const Job& job) { return job.id == id; });
    if (waiting_.empty() && running_.empty())
        idle_.notify_all();
}

bool WorkQueue::WaitUntilIdle(const directory::Deadline& deadline) {
    std::unique_lock lock(mutex_);
    return idle_.wait_for(lock, std::chrono::milliseconds(deadline.Milliseconds()),
                          [this] { return waiting_.empty() && running_.empty(); });
}

/// The oldest of those whose site has the fewest running: a few sites with long jobs don't keep the
/// others waiting.
std::deque<Job>::iterator WorkQueue::NextFor(bool quickOnly) {
    auto next = waiting_.end();
    unsigned fewest = perSite_;
    for (auto job = waiting_.begin(); job != waiting_.end(); ++job) {
        if (job->isQuick)
            return job;
        const auto place = running_.find(job->site);
        const unsigned running = place == running_.end() ? 0 : place->second;
        if (!quickOnly && running < fewest) {
            fewest = running;
            next = job;
        }
    }
    return next;
}

void WorkQueue::Work(bool quickOnly) {
    std::unique_lock lock(mutex_);
    for (;;) {
        auto next = waiting_.end();
        changed_.wait(lock,
                      [&] { return ending_ || (next = NextFor(quickOnly)) != waiting_.end(); });
        if (ending_)
            return;
        {
            const Job job = std::move(*next);
            waiting_.erase(next);
            const auto place = running_.try_emplace(job.site).first;
            ++place->second;
            lock.unlock();
            job.run();
            lock.lock();
            if (--place->second == 0)
                running_.erase(place);
        }
        changed_.notify_all(); // a job of the same site may follow
        if (waiting_.empty() && running_.empty())
            idle_.notify_all();
    }
}

} // namespace tessary::proxy
