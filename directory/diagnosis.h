/// What is wrong with a host, its domain, and the way between them.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_H
#define TESSARY_DIRECTORY_DIAGNOSIS_H

#include <functional>
#include <string>
#include <vector>

namespace tessary::directory {

enum class Severity {
    Ok,
    Warning, ///< works, but not as it should, or not for long; or could not be looked at
    Failure
};

/// One thing that was looked at.
struct Finding {
    std::string check; ///< what was looked at, in a few words
    Severity severity;
    std::string text;   ///< what was found and, when it is not in order, the cause
    std::string remedy; ///< the command or the step that mends it; empty when it is in order
};

using Findings = std::vector<Finding>;

/// Looks at the name servers, the domain's service records, each controller's ports and its clock,
/// the host's own name, the keytab's key versions against the account's, and the domain's trust in
/// the host's key. What does not depend on one another is looked at side by side, so that a dead
/// controller keeps no other waiting; with everything dead it takes less than 15 seconds. Changes
/// nothing. What the host lacks to look at something, such as a domain to ask about or the rights
/// to read a file, is itself a finding. Throws std::bad_alloc and nothing else of its own.
/// \param domain DNS name, or the joined domain's NetBIOS name; empty for the domain that the host
///               is joined to
/// \param report called on this thread, as soon as a finding and those before it are known; the
///               order is always the same
void Diagnose(const std::string& domain, const std::function<void(const Finding&)>& report);

} // namespace tessary::directory

#endif
