/// Whether the host's own name is one that a domain can know it by.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_HOST_H
#define TESSARY_DIRECTORY_DIAGNOSIS_HOST_H

#include "diagnosis.h"
#include "domain_state.h"

#include <optional>
#include <string>

namespace tessary::directory {

/// Looks at the host's name and at the addresses that it leads to. Takes up to 6 seconds when name
/// servers are silent.
/// \param domain that the name should be in; may be empty
/// \param state  the host's membership, if it has any
Finding CheckHostName(const std::string& domain, const std::optional<DomainState>& state);

} // namespace tessary::directory

#endif
