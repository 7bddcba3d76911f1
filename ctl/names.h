/// The names of the numbers that a provider answers with.
#ifndef TESAUTHCTL_NAMES_H
#define TESAUTHCTL_NAMES_H

#include <string>

#include "tesauth/plugin/provider_plugin.h"

namespace ctl {

/// "good", "timed out", ...; "state N" for a number without a name.
std::string NameOf(TrustState state);

/// "two-way", "joined domain", ...; "relationship N" for a number without a name.
std::string NameOf(TrustRelationship relationship);

} // namespace ctl

#endif
