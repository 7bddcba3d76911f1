#include "work_queue.h"

#include <utility>

namespace tessary::proxy {

WorkQueue::WorkQueue(unsigned workers, unsigned perSite) : perSite_(perSite) {
    for (unsigned i = 0; i <= workers; ++i)
        threads_.emplace_back([this, quickOnly = i == workers](const std::stop_token& stop) {
            Work(stop, quickOnly);
        });
}

WorkQueue::~WorkQueue() {
    const std::lock_guard lock(mutex_);
    quick_.waiting.clear();
    for (auto& [address, site] : sites_)
        site.waiting.clear();
}

void WorkQueue::Add(Job job) {
    {
        const std::lock_guard lock(mutex_);
        Site& site = job.isQuick ? quick_ : sites_[job.site];
        if (site.IsIdle())
            site.turn = ++turn_;
        site.waiting.push_back(std::move(job));
    }
    changed_.notify_all(); // which of them may take it, they find out
}

bool WorkQueue::Cancel(std::uint64_t id) {
    const std::lock_guard lock(mutex_);
    const auto take = [id](Site& site) {
        return std::erase_if(site.waiting, [id](const Job& job) { return job.id == id; });
    };
    auto taken = take(quick_);
    for (auto& [address, site] : sites_)
        taken += take(site);
    Tidy();
    return taken != 0;
}

bool WorkQueue::WaitUntilIdle(const directory::Deadline& deadline) {
    std::unique_lock lock(mutex_);
    return idle_.wait_for(lock, std::chrono::milliseconds(deadline.Milliseconds()),
                          [this] { return IsIdle(); });
}

void WorkQueue::Tidy() {
    std::erase_if(sites_, [](const auto& site) { return site.second.IsIdle(); });
    if (IsIdle())
        idle_.notify_all();
}

/// Whoever has much waiting does not keep the others waiting.
WorkQueue::Site* WorkQueue::NextFor(bool quickOnly) {
    if (!quick_.waiting.empty())
        return &quick_;
    if (quickOnly)
        return nullptr;
    Site* next = nullptr;
    const auto rank = [](const Site& site) { return std::pair(site.running, site.turn); };
    for (auto& [address, site] : sites_) {
        if (!site.waiting.empty() && site.running < perSite_ &&
            (next == nullptr || rank(site) < rank(*next)))
            next = &site;
    }
    return next;
}

void WorkQueue::Work(const std::stop_token& stop, bool quickOnly) {
    Site* site = nullptr;
    std::unique_lock lock(mutex_);
    while (changed_.wait(lock, stop, [&] { return (site = NextFor(quickOnly)) != nullptr; })) {
        {
            const Job job = std::move(site->waiting.front());
            site->waiting.pop_front();
            ++site->running;
            lock.unlock();
            try {
                job.run();
            } catch (...) { // such as no memory: whoever waits for it gives up in time
            }
        }
        lock.lock();
        --site->running;
        site->turn = ++turn_;
        Tidy();
        changed_.notify_all(); // a job of the same site may follow
    }
}

} // namespace tessary::proxy
