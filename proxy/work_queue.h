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
#include <stop_token>
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

/// Runs jobs, those of each site in the order they came in: answers may wait for a directory or a
/// name server, and whoever makes them wait is not to have all threads. The site with the fewest
/// running comes first, and of several the one that was served the longest ago. One more thread
/// runs quick jobs only. All methods may be called from any thread.
class WorkQueue {
public:
    /// \param perSite how many jobs of one site run at the same time
    /// \throws std::system_error when there are not so many threads to be had
    WorkQueue(unsigned workers, unsigned perSite);
    /// Waits for the jobs that run.
    ~WorkQueue();
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    void Add(Job job);
    /// Takes a job out that does not run yet.
    /// \return whether it was there
    bool Cancel(std::uint64_t id);
    /// Waits until no job is left.
    /// \return false when the deadline passed first
    bool WaitUntilIdle(const directory::Deadline& deadline);

private:
    struct Site {
        std::deque<Job> waiting;
        unsigned running = 0;
        std::uint64_t turn = 0; // of all turns, the one when it was served last, or else came

        bool IsIdle() const { return waiting.empty() && running == 0; }
    };

    void Work(const std::stop_token& stop, bool quickOnly);
    Site* NextFor(bool quickOnly);
    bool IsIdle() const { return sites_.empty() && quick_.IsIdle(); }
    void Tidy();

    const unsigned perSite_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::condition_variable idle_;
    Site quick_;                      // the quick jobs of all
    std::map<IpAddress, Site> sites_; // that are not idle
    std::uint64_t turn_ = 0;
    std::vector<std::jthread> threads_;
};

} // namespace tessary::proxy

#endif
