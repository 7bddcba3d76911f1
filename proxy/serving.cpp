#include "serving.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace tessary::proxy {
namespace {

timespec TimeOf(std::chrono::milliseconds time) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    return {seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
}

} // namespace

void WarnOfExpiry(const Identity& identity, const std::string& file, const LogSink& sink) {
    const int days = identity.DaysLeft();
    if (days < 0)
        sink(LOG_ERR, "the certificate in " + file + " has expired: no host takes it any more");
    else if (days < Identity::fewDays)
        sink(LOG_WARNING,
             "the certificate in " + file + " expires in " + std::to_string(days) + " days");
}

void WaitForSignal(const sigset_t& signals, std::chrono::milliseconds interval,
                   const std::function<void()>& chore) {
    const timespec time = TimeOf(interval);
    do
        chore();
    while (sigtimedwait(&signals, nullptr, &time) < 0);
}

void EndServer(Server& server, std::chrono::milliseconds time, const LogSink& sink) {
    if (server.Stop(directory::Deadline::In(time)))
        return sink(LOG_INFO, "ended");
    sink(LOG_WARNING, "ended; some requests are left without an answer");
    std::cout.flush();
    _exit(EXIT_SUCCESS);
}

} // namespace tessary::proxy
