/// How many requests are answered.
#ifndef TESSARY_PROXY_REQUEST_LIMITS_H
#define TESSARY_PROXY_REQUEST_LIMITS_H

#include "network.h"

#include <chrono>
#include <cstddef>
#include <list>
#include <map>

namespace tessary::proxy {

/// Holds a minute's worth of something, and is filled at an even rate.
class Budget {
public:
    using Clock = std::chrono::steady_clock;

    Budget(double perMinute, Clock::time_point now)
        : most_(perMinute), tokens_(perMinute), filled_(now) {}

    /// What there is now; below zero, what is owed.
    double Tokens(Clock::time_point now);
    /// Takes one, even if there is none: then it is owed, up to a minute's worth.
    /// \return whether there was one
    bool Charge(Clock::time_point now);
    /// Whether as much is owed as can be.
    bool IsExhausted(Clock::time_point now) { return Tokens(now) < 1 - most_; }

private:
    double most_;
    double tokens_;
    Clock::time_point filled_;
};

/// A budget for each address, as limits count them.
class Budgets {
public:
    using Clock = Budget::Clock;

    /// How many addresses are remembered; the one that was not charged for the longest time is
    /// forgotten first.
    static constexpr std::size_t mostAddresses = 16384;

    explicit Budgets(double perMinute) : perMinute_(perMinute) {}

    bool Charge(const IpAddress& address, Clock::time_point now);
    bool IsExhausted(const IpAddress& address, Clock::time_point now);
    std::size_t Size() const { return bySite_.size(); }

private:
    struct Entry {
        Budget budget;
        std::list<IpAddress>::iterator use;
    };

    const double perMinute_;
    std::map<IpAddress, Entry> bySite_;
    std::list<IpAddress> uses_; // the latest first
};

/// Counts what comes by the address that sends it, and requests all together. Those who may not ask
/// have no part in what there is for those who may: neither in the count of all, nor in the room
/// for remembering addresses. Use by one thread at a time.
class RequestLimits {
public:
    using Clock = Budget::Clock;

    /// Asking whether the proxy serves costs little, but not nothing.
    static constexpr unsigned healthRequestsForOne = 10;

    RequestLimits(unsigned perMinuteAndAddress, unsigned perMinute);

    /// Each counts one of what it says, of an address that may ask.
    /// \return whether it may be answered
    bool ChargeRequest(const IpAddress& address, Clock::time_point now);
    bool ChargeHealthRequest(const IpAddress& address, Clock::time_point now);
    /// Counts what is no request, or a stranger's.
    bool ChargeNuisance(const IpAddress& address, bool isListed, Clock::time_point now);

    /// Whether the address has been refused for so long that it is not even told.
    bool IsFlooding(const IpAddress& address, bool isListed, Clock::time_point now);

private:
    Budget inAll_;
    Budgets listed_;
    Budgets strangers_;
    Budgets health_;
};

} // namespace tessary::proxy

#endif
