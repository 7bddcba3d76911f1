#include "names.h"

#include <cstddef>
#include <cstdint>

namespace ctl {

namespace {

constexpr const char* stateNames[] = {
    "unknown",          "good",       "timed out",  "key rejected",  "account missing",
    "account disabled", "clock skew", "not joined", "no controller",
};

constexpr const char* relationshipNames[] = {
    "not implemented", "inbound",       "outbound", "two-way",
    "within forest",   "joined domain", "unknown",  "none",
};

/// The names stand in the order of their numbers.
template <std::size_t count>
std::string NameIn(const char* const (&names)[count], uint32_t number, const char* what) {
    return number < count ? names[number] : what + std::to_string(number);
}

} // namespace

std::string NameOf(TrustState state) {
    static_assert(TrustStateNotJoined == 7 && TrustStateNoController == 8);
    return NameIn(stateNames, static_cast<uint32_t>(state), "state ");
}

std::string NameOf(TrustRelationship relationship) {
    static_assert(TrustRelationshipJoinedDomain == 5 && TrustRelationshipNone == 7);
    return NameIn(relationshipNames, static_cast<uint32_t>(relationship), "relationship ");
}

} // namespace ctl
