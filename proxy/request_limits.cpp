#include "request_limits.h"

#include <algorithm>

namespace tessary::proxy {

double Budget::Tokens(Clock::time_point now) {
    const std::chrono::duration<double, std::ratio<60>> passed = now - filled_;
    tokens_ = std::min(most_, tokens_ + std::max(0.0, passed.count()) * most_);
    filled_ = now;
    return tokens_;
}

bool Budget::Charge(Clock::time_point now) {
    const bool hasOne = Tokens(now) >= 1;
    tokens_ = std::max(tokens_ - 1, -most_);
    return hasOne;
}

bool Budgets::Charge(const IpAddress& address, Clock::time_point now) {
    const IpAddress site = address.Site();
    auto place = bySite_.find(site);
    if (place == bySite_.end()) {
        uses_.push_front(site);
        place = bySite_.emplace(site, Entry{Budget(perMinute_, now), uses_.begin()}).first;
    } else {
        uses_.splice(uses_.begin(), uses_, place->second.use);
    }
    if (bySite_.size() > mostAddresses) {
        bySite_.erase(uses_.back());
        uses_.pop_back();
    }
    return place->second.budget.Charge(now);
}

bool Budgets::IsExhausted(const IpAddress& address, Clock::time_point now) {
    const auto place = bySite_.find(address.Site());
    return place != bySite_.end() && place->second.budget.IsExhausted(now);
}

RequestLimits::RequestLimits(unsigned perMinuteAndAddress, unsigned perMinute)
    : inAll_(perMinute, {}), listed_(perMinuteAndAddress), strangers_(perMinuteAndAddress),
      health_(healthRequestsForOne * static_cast<double>(perMinuteAndAddress)) {}

bool RequestLimits::ChargeRequest(const IpAddress& address, Clock::time_point now) {
    if (!listed_.Charge(address, now))
        return false;
    // What is refused anyway is not owed: else a few could keep all others waiting.
    return inAll_.Tokens(now) >= 1 && inAll_.Charge(now);
}

bool RequestLimits::ChargeHealthRequest(const IpAddress& address, Clock::time_point now) {
    return health_.Charge(address, now);
}

bool RequestLimits::ChargeNuisance(const IpAddress& address, bool isListed, Clock::time_point now) {
    return (isListed ? listed_ : strangers_).Charge(address, now);
}

bool RequestLimits::IsFlooding(const IpAddress& address, bool isListed, Clock::time_point now) {
    return isListed ? listed_.IsExhausted(address, now) || health_.IsExhausted(address, now)
                    : strangers_.IsExhausted(address, now);
}

} // namespace tessary::proxy
