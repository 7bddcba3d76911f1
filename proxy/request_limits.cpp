#include "request_limits.h"

#include <algorithm>

namespace tessary::proxy {

RequestLimits::RequestLimits(unsigned perMinuteAndAddress, unsigned perMinute)
    : mostPerSite_(perMinuteAndAddress), mostInAll_(perMinute) {
    inAll_.tokens = mostInAll_;
}

void RequestLimits::Fill(Account& account, double most, Clock::time_point now) {
    const std::chrono::duration<double, std::ratio<60>> passed = now - account.filled;
    account.tokens = std::min(most, account.tokens + std::max(0.0, passed.count()) * most);
    account.filled = now;
}

bool RequestLimits::Charge(const IpAddress& address, bool isFromAllowed, Clock::time_point now) {
    const IpAddress site = address.Site();
    const auto [place, isNew] = bySite_.try_emplace(site);
    SiteAccount& own = place->second;
    if (isNew) {
        uses_.push_front(site);
        own = {{mostPerSite_, now}, uses_.begin()};
    } else {
        uses_.splice(uses_.begin(), uses_, own.use);
        Fill(own.account, mostPerSite_, now);
    }
    if (bySite_.size() > mostAddresses) {
        bySite_.erase(uses_.back());
        uses_.pop_back();
    }

    const bool hasOwn = own.account.tokens >= 1;
    own.account.tokens = std::max(own.account.tokens - 1, -mostPerSite_);
    if (!hasOwn || !isFromAllowed)
        return hasOwn;
    Fill(inAll_, mostInAll_, now);
    if (inAll_.tokens < 1)
        return false;
    inAll_.tokens -= 1;
    return true;
}

bool RequestLimits::IsFlooding(const IpAddress& address, Clock::time_point now) {
    const auto place = bySite_.find(address.Site());
    if (place == bySite_.end())
        return false;
    Fill(place->second.account, mostPerSite_, now);
    return place->second.account.tokens < 1 - mostPerSite_;
}

} // namespace tessary::proxy
