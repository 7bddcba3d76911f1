/// The threads that answer requests.
#ifndef TESSARY_PROXY_WORK_QUEUE_H
#define TESSARY_PROXY_WORK_QUEUE_H

#include "network.h"

#include "directory/deadline.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace tessary::proxy {

/// A request to answer.
struct Job {
    std::uint64_t id;
    IpAddress site; ///< who asked, as limits count
    bool isQuick;   ///< asks nobody else
    std::function<void()> run;
};

/// Runs jobs in the order they came in, but for those of a site that has enough of them running:
/// answers may wait for a directory or a name server, and whoever makes them wait is not to have
/// all threads. One more thread runs quick jobs only. All methods may be called from any thread.
class WorkQueue {
public:
    /// \param perSite how many jobs of one site run at the same time
    WorkQueue(unsigned workers, unsigned perSite);
    /// Waits for the jobs that run.
    ~WorkQueue();
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    void Add(Job job);
    /// Takes a job out that does not run yet.
    void Cancel(std::uint64_t id);
    /// Waits until no job is left.
    /// \return false when the deadline passed first
    bool WaitUntilIdle(const directory::Deadline& deadline);

private:
    std::deque<Job>::iterator NextFor(bool quickOnly);
    void Work(bool quickOnly);

    const unsigned perSite_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::condition_variable idle_;
    std::deque<Job> waiting_;
    std::map<IpAddress, unsigned> running_; // by site
    bool ending_ = false;
    std::vector<std::thread> threads_;
};

} // namespace tessary::proxy

#endif
