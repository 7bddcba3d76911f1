/// How many requests are answered.
#ifndef TESSARY_PROXY_REQUEST_LIMITS_H
#define TESSARY_PROXY_REQUEST_LIMITS_H

#include "network.h"

#include <chrono>
#include <cstddef>
#include <list>
#include <map>

namespace tessary::proxy {

/// Counts requests by the address that sends them, and all together. Each account holds a minute's
/// worth and is filled at an even rate. An address that goes on asking gets into debt, of a
/// minute's worth at most. Use by one thread at a time.
class RequestLimits {
public:
    using Clock = std::chrono::steady_clock;

    /// How many addresses are remembered; the one that has not asked for the longest time is
    /// forgotten first.
    static constexpr std::size_t mostAddresses = 16384;

    RequestLimits(unsigned perMinuteAndAddress, unsigned perMinute);

    /// Counts a request.
    /// \param isFromAllowed without, only the address's own account is charged
    /// \return whether it may be answered
    bool Charge(const IpAddress& address, bool isFromAllowed, Clock::time_point now);

    /// Whether the address has been refused for so long that it is not even told.
    bool IsFlooding(const IpAddress& address, Clock::time_point now);

    std::size_t Addresses() const { return bySite_.size(); }

private:
    struct Account {
        double tokens = 0;
        Clock::time_point filled;
    };
    struct SiteAccount {
        Account account;
        std::list<IpAddress>::iterator use;
    };

    static void Fill(Account& account, double most, Clock::time_point now);

    double mostPerSite_;
    double mostInAll_;
    Account inAll_;
    std::map<IpAddress, SiteAccount> bySite_;
    std::list<IpAddress> uses_; // the latest first
};

} // namespace tessary::proxy

#endif
