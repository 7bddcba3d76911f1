/// One thing that a diagnosis looked at.
#ifndef TESAUTHCTL_FINDING_H
#define TESAUTHCTL_FINDING_H

#include <functional>
#include <string>

namespace ctl {

/// In ascending order, with the numbers of the maintenance interface.
enum class Severity { Ok, Warning, Failure };

struct Finding {
    std::string check; ///< what was looked at, in a few words
    Severity severity;
    std::string text;
    std::string remedy; ///< what mends it; empty when it is in order or another finding tells it
};

/// The remedy for what this user may not look at. Whoever tells it adds the domain that the
/// diagnosis is of, if one was named.
inline constexpr const char* asRoot = "run as root: tesauthctl diagnose";

/// Takes one finding. It must not throw.
using Report = std::function<void(const Finding&)>;

} // namespace ctl

#endif
