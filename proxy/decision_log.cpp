#include "decision_log.h"

#include <syslog.h>

namespace tessary::proxy {
namespace {

constexpr std::array<const char*, nuisances> texts = {
    "closed: too many connections",    "closed: made room",
    "closed: no TLS connection",       "closed: too slow",
    "closed: the client left early",   "refused: not a request",
    "refused: not an allowed address", "refused: too many requests",
    "refused: too many others wait",
};

} // namespace

LogSink SystemLog() {
    return [](int priority, const std::string& line) {
        syslog(LOG_DAEMON | priority, "%s", line.c_str());
    };
}

void NuisanceLog::Write(Nuisance kind, const Peer& peer, std::string_view detail,
                        Clock::time_point now) {
    Sum(now);
    unsigned& count = counts_[static_cast<std::size_t>(kind)];
    if (++count > linesPerMinute)
        return;
    std::string line = peer.Text() + ": " + texts[static_cast<std::size_t>(kind)];
    if (!detail.empty())
        line.append(": ").append(detail);
    sink_(LOG_NOTICE, line);
}

void NuisanceLog::Sum(Clock::time_point now) {
    if (now - begin_ < interval)
        return;
    SumAll();
    begin_ = now;
}

void NuisanceLog::SumAll() {
    std::string line;
    for (std::size_t i = 0; i < counts_.size(); ++i) {
        if (counts_[i] > linesPerMinute) {
            line += (line.empty() ? "not listed one by one: " : "; ") +
                    std::to_string(counts_[i] - linesPerMinute) + " times " + texts[i];
        }
        counts_[i] = 0;
    }
    if (!line.empty())
        sink_(LOG_NOTICE, line);
}

} // namespace tessary::proxy
