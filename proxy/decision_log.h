/// What the proxy writes down.
#ifndef TESSARY_PROXY_DECISION_LOG_H
#define TESSARY_PROXY_DECISION_LOG_H

#include "network.h"

#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace tessary::proxy {

/// Takes one line, with a priority as syslog() knows it. Called by many threads at once.
using LogSink = std::function<void(int priority, const std::string& line)>;

/// The system's log, facility LOG_DAEMON.
LogSink SystemLog();

/// What can be caused as often as anybody likes who reaches the port, or nearly so.
enum class Nuisance {
    TooManyConnections, ///< closed when it was accepted
    GaveWay,            ///< closed for a newer connection
    Handshake,          ///< no TLS came about
    TooSlow,            ///< no whole request, or an answer not taken, in time
    ClosedEarly,        ///< ended by the client before anybody began with an answer
    Malformed,          ///< no request that can be read
    NotAllowed,         ///< from an address that may not ask
    TooManyRequests,
    Busy ///< nobody came to begin with the answer in time
};
inline constexpr std::size_t nuisances = 9;

/// Writes the first few nuisances of each kind in a minute one by one, and of the others how many
/// there were: a flood of connections is no flood of lines. Use by one thread at a time.
class NuisanceLog {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr unsigned linesPerMinute = 5; ///< of each kind
    static constexpr std::chrono::minutes interval{1};

    explicit NuisanceLog(LogSink sink) : sink_(std::move(sink)) {}

    /// \param detail the cause, where there is more to say than the kind does
    void Write(Nuisance kind, const Peer& peer, std::string_view detail, Clock::time_point now);

    /// Writes the sums when a minute has passed. To be called from time to time.
    void Sum(Clock::time_point now);
    /// Writes the sums that are left, when the server ends.
    void SumAll();

private:
    LogSink sink_;
    std::array<unsigned, nuisances> counts_{};
    Clock::time_point begin_{};
};

} // namespace tessary::proxy

#endif
