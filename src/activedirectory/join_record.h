/// What the host remembers of a join.
#ifndef TESAUTH_ACTIVEDIRECTORY_JOIN_RECORD_H
#define TESAUTH_ACTIVEDIRECTORY_JOIN_RECORD_H

#include <string>

#include "tesauth/provider.h"

namespace tessary::authentication {

/// Records a join that was made a moment ago in the host configuration store. When that fails it
/// is logged, the domain is left again, and the store's exception is thrown.
void RecordJoin(const ActiveDirectoryProvider& provider, const std::string& domain,
                const std::string& organizationalUnit, const std::string& proxyAddress);

} // namespace tessary::authentication

#endif
