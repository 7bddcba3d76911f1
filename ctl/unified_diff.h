/// The difference between two texts, for people and for patch(1).
#ifndef TESAUTHCTL_UNIFIED_DIFF_H
#define TESAUTHCTL_UNIFIED_DIFF_H

#include <string>

namespace ctl {

/// The difference as `diff -u` tells it, three lines of context around each change, both texts
/// headed by the name; empty when there is none. The lines are told byte for byte.
///
/// It is a shortest difference, unless the texts differ from about a thousand lines on: then all
/// between their first and their last difference is told as replaced.
std::string UnifiedDiff(const std::string& name, const std::string& before,
                        const std::string& after);

} // namespace ctl

#endif
