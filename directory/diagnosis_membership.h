/// Whether the host has the keys that its domain knows, and whether the domain takes them.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_MEMBERSHIP_H
#define TESSARY_DIRECTORY_DIAGNOSIS_MEMBERSHIP_H

#include "deadline.h"
#include "diagnosis.h"
#include "domain_state.h"

#include <string>

namespace tessary::directory {

/// Looks at the keytab, and logs in with it.
/// \param controller where to: a name or an address; empty when there is nobody to log in to
Findings CheckMembership(const DomainState& state, const std::string& controller,
                         const Deadline& deadline);

} // namespace tessary::directory

#endif
