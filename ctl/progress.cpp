#include "progress.h"

#include <chrono>
#include <future>
#include <thread>
#include <unistd.h>

#include "output.h"

namespace ctl {

namespace {

constexpr std::chrono::seconds reportInterval(5);
constexpr std::chrono::seconds longTime(30);

} // namespace

void RunReported(const std::string& whatGoesOn, std::function<void()> work,
                 const std::string& afterLong) {
    std::packaged_task<void()> task(std::move(work));
    std::future<void> done = task.get_future();
    std::thread worker(std::move(task));
    if (isatty(STDERR_FILENO)) {
        for (auto passed = reportInterval;
             done.wait_for(reportInterval) == std::future_status::timeout;
             passed += reportInterval) {
            Notify("still " + whatGoesOn + " (" + std::to_string(passed.count()) + " s)" +
                   (passed < longTime ? "" : afterLong));
        }
    }
    worker.join();
    done.get();
}

} // namespace ctl
